"""Goal: every link in the documents leads somewhere, and the recorded trace is what XMODEM makes of it.

Method: the links are read out of the documents and followed, to files and to their headings; the frames of the trace in
BOOTLOADERS.md are built again by the rules that stand there. Links out of the tree would need a net; there are none.
"""
import re
import subprocess
import unittest

from support import SOURCE

DOCUMENTS = sorted(SOURCE.glob("*.md")) + sorted((SOURCE / "docs").rglob("*.md"))


def without_code(text):
    return re.sub(r"^```.*?^```$|`[^`\n]*`", "", text, flags=re.M | re.S)


def links_of(document):
    """The file that each link leads to, and the heading in it or nothing, with the link as it stands."""
    for target in re.findall(r"\]\(([^)]+)\)", without_code(document.read_text())):
        path, _, anchor = target.partition("#")
        yield (document.parent / path).resolve() if path else document, anchor, target


def anchors_of(document):
    """Headings as hosting sites turn them into anchors."""
    headings = re.findall(r"^#+ (.*)$", re.sub(r"^```.*?^```$", "", document.read_text(), flags=re.M | re.S), re.M)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def crc(data):
    remainder = 0
    for byte in data:
        remainder ^= byte << 8
        for _ in range(8):
            remainder = (remainder << 1 ^ 0x1021 if remainder & 0x8000 else remainder << 1) & 0xFFFF
    return remainder


class Links(unittest.TestCase):
    def test_lead_to_files_and_headings(self):
        count = 0
        for document in DOCUMENTS:
            for file, anchor, target in links_of(document):
                with self.subTest(f"{document.relative_to(SOURCE)}: {target}"):
                    self.assertTrue(file.exists())
                    self.assertTrue(SOURCE.resolve() in file.parents, "leads out of the tree")
                    if anchor:
                        self.assertIn(anchor, anchors_of(file))
                    count += 1
        self.assertGreater(count, 30)

    def test_lead_to_every_document(self):
        linked = {file for document in DOCUMENTS for file, _, _ in links_of(document)}
        for document in DOCUMENTS:
            if document.name != "README.md":
                self.assertIn(document.resolve(), linked)

    def test_named_files_of_the_tree_are_there(self):
        tracked = subprocess.run(["git", "-C", SOURCE, "ls-files"], text=True, capture_output=True, check=False)
        if tracked.returncode != 0:
            self.skipTest("SKIPPED: this tree is no git clone, so what belongs to it cannot be told")
        folders = {name.split("/")[0] for name in tracked.stdout.split() if "/" in name}
        for document in DOCUMENTS:
            for name in re.findall(r"`((?:[\w.-]+/)+[\w.-]*)`", document.read_text()):
                if name.split("/")[0] in folders:
                    self.assertTrue((SOURCE / name).exists(), f"{document.name}: {name}")


class Trace(unittest.TestCase):
    def test_of_the_bootloaders_document_has_right_numbers_and_crcs(self):
        text = (SOURCE / "docs/BOOTLOADERS.md").read_text()
        frames = re.findall(r"^ *[\d.]+  (?:host|device) +((?:0[12]) .*?) \.\. (\w\w \w\w) ", text, re.M)
        self.assertEqual(len(frames), 12)
        whole = 0
        for head, trailer in frames:
            kind, number, complement, *data = bytes.fromhex(head)
            self.assertEqual(number + complement, 255)
            if kind == 1:
                # A text: what is left out are zeros.
                self.assertEqual(data[-1], 0)
                self.assertEqual(crc(bytes(data).ljust(128, b"\0")), int(trailer.replace(" ", ""), 16), head)
                whole += 1
        self.assertEqual(whole, 9)


if __name__ == "__main__":
    unittest.main()
