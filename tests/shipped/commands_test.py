"""Goal: who types what the README and the tutorial show gets what they promise.

Method: the blocks marked as sh are typed into a shell, in their order, in a folder that looks like
the tree after a build. Each must end
well, or with the code that a comment "exit: N" above it names. A comment "not run: why" above a block is the only way
for it to be left out, and what it leaves out is at least read by the shell.
"""
import os
import pathlib
import re
import signal
import subprocess
import tempfile
import unittest

from support import BUILD, SOURCE, output_of

DOCUMENTS = ["README.md", "docs/TUTORIAL.md"]
BLOCK = re.compile(r"(?:^<!-- (not run|exit): ([^\n]*) -->\n)?^```sh\n(.*?)^```$", re.M | re.S)


def blocks_of(document):
    return BLOCK.findall((SOURCE / document).read_text())


class Commands(unittest.TestCase):
    def test_end_as_the_document_says(self):
        for document in DOCUMENTS:
            with self.subTest(document):
                self.type(document)

    def type(self, document):
        script = "trap 'kill $(jobs -p) 2>/dev/null || true' EXIT\n"
        for mark, what, text in blocks_of(document):
            if mark == "not run":
                continue
            if mark == "exit":
                script += f"status=0\n{text.strip()} || status=$?\n[ $status -eq {what} ] || exit 99\n"
            else:
                script += f"{text}"
        with tempfile.TemporaryDirectory(prefix="peripheral-") as folder:
            tree = pathlib.Path(folder) / "tree"
            (tree / "build").mkdir(parents=True)
            os.symlink(BUILD, tree / "build/dev")
            os.symlink(SOURCE / "docs", tree / "docs")
            # The tutorial's own folder, where no other run of it can be met.
            script = script.replace("/tmp/", f"{folder}/")
            shell = subprocess.Popen(["bash", "-exuo", "pipefail", "-c", script], cwd=tree, text=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
            try:
                said = shell.communicate(timeout=120)[0]
            finally:
                if shell.poll() is None:
                    os.killpg(shell.pid, signal.SIGKILL)
        self.assertEqual(shell.returncode, 0, said)

    def test_that_are_not_run_have_a_reason_and_are_read_by_the_shell(self):
        for document in DOCUMENTS:
            for mark, what, text in blocks_of(document):
                output_of("bash", "-n", "-c", text)
                self.assertNotEqual((mark, what), ("not run", ""), document)

    def test_are_all_marked(self):
        for document in DOCUMENTS:
            for block in re.findall(r"^    +(.*)$|^```\n", (SOURCE / document).read_text(), re.M):
                self.assertNotRegex(block, r"^(script/|build/dev/bin/|cmake |peripheralctl |bootloader-simulator )",
                                    f"{document}: commands stand in ```sh blocks")
            self.assertGreater(len(blocks_of(document)), 3, document)


if __name__ == "__main__":
    unittest.main()
