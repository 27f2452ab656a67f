"""Goal: each declaration of the public headers says what it is for.

Method: doxygen reads them with warnings as errors, and the pages are looked at for what must be there.
"""
import pathlib
import shutil
import tempfile
import unittest

from support import SOURCE, output_of


class Doxygen(unittest.TestCase):
    def test_finds_every_declaration_documented(self):
        if shutil.which("doxygen") is None:
            self.skipTest("SKIPPED: there is no doxygen; script/bootstrap --full installs it")
        with tempfile.TemporaryDirectory(prefix="peripheral-") as folder:
            settings = (SOURCE / "docs/Doxyfile").read_text() + f"\nOUTPUT_DIRECTORY = {folder}\n"
            self.assertEqual(output_of("doxygen", "-", input=settings, cwd=SOURCE).strip(), "")
            classes = {page.name for page in (pathlib.Path(folder) / "html").glob("*.html")}
        for page in ("classIEventBroker.html", "classISerialPort.html", "classIFileHandler.html", "classICmdHandler.html",
                     "structTEvent.html", "structTFeatureResultPayload.html", "classTdes.html"):
            self.assertIn(page, classes)


if __name__ == "__main__":
    unittest.main()
