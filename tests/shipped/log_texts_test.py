"""Goal: whoever finds a complaint in the log finds it in the troubleshooting document, and nothing that is not said.

Method: the texts that the module and its infrastructure log at Warning and Error, and what they log at Always beyond the
milestones, are read out of the source, with an ellipsis for what is put in, and compared with the document's tables.
"""
import re
import unittest

from support import SOURCE

FOLDERS = ["features/component/PeripheralLoader/src", "SWLInfra/src"]
# These log a text that they are given.
GIVEN = r'\b(?:CheckSource|UmountOrComplain)\([^;"]*"((?:[^"\\]|\\.)*)"'


def composed(expression):
    """What `"text" << value << "more"` reads like, with an ellipsis for each value."""
    parts = re.findall(r'"((?:[^"\\]|\\.)*)"|(<<)\s*(?=[^"\s])', expression)
    return "".join("…" if value else re.sub(r"\\(.)", r"\1", text) for text, value in parts)


def texts_of_the_source():
    texts = set()
    for file in (file for folder in FOLDERS for file in sorted((SOURCE / folder).iterdir())):
        source = file.read_text()
        for level, expression in re.findall(r"LOG_(WARNING|ERROR|ALWAYS)\(logging::\w+,\s*((?:[^;\"]|\"(?:[^\"\\]|\\.)*\")*)\);",
                                            source):
            if expression.startswith("complaint"):
                continue
            text = composed(expression if expression.startswith('"') else "<< " + expression)
            if level != "ALWAYS" or not text.startswith("SWL: "):
                texts.add(text)
        texts |= {text + "…" * text.endswith(" ") for text in re.findall(GIVEN, source)}
    return texts


class LogTexts(unittest.TestCase):
    def test_are_those_of_the_document(self):
        document = (SOURCE / "docs/TROUBLESHOOTING.md").read_text().split("## The platform's own lines")[0]
        explained = re.findall(r"^\| `(.*?)` \| .+ \| .+ \|$", document, re.M)
        self.assertEqual(len(explained), len(set(explained)))
        self.assertEqual(texts_of_the_source() - set(explained), set(), "not explained")
        self.assertEqual(set(explained) - texts_of_the_source(), set(), "explained but not in the source")
        self.assertGreater(len(explained), 50)


if __name__ == "__main__":
    unittest.main()
