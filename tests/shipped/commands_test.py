"""Goal: who types what the README and the tutorial show gets what they promise.

Method: the blocks marked as sh are typed into a shell, in their order, in a folder that looks like the tree after a
build, with the configuration that the document shows and files for it. Each must end well. A comment above a block may
say otherwise: "exit: N", with which code it ends; "runs on: until when", that it goes on beside what follows; "run as:
COMMAND", what is typed in its place; "not run: why" leaves it out, but the shell reads it at least.
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import tempfile
import textwrap
import unittest

from support import BIN, BUILD, SOURCE, output_of

COMMANDS = ["update", "prepare", "ports", "trace", "trace show", "trace replay", ""]
CONFIGURATION = """[properties]
updatelist = "xmodem"
xmodemsource-image = "firmware.bin"
xmodemsource-loader = "loader.bin"
xmodemspeed = 115200
xmodemportname = "{port}"
xmodemramaddress = "1000"
xmodemflashaddress = "8000"
"""
DOCUMENTS = ["README.md", "docs/TUTORIAL.md"]
BLOCK = re.compile(r"(?:^<!-- (not run|exit|runs on|run as): ([^\n]*) -->\n)?^```sh\n(.*?)^```$", re.M | re.S)


def blocks_of(document):
    return BLOCK.findall((SOURCE / document).read_text())


class Help(unittest.TestCase):
    """The examples in each command's help are typed as they stand, but for the port's name."""

    def test_has_few_examples_that_run(self):
        with tempfile.TemporaryDirectory(prefix="peripheral-") as name:
            folder = pathlib.Path(name)
            port = folder / "port"
            (folder / "can.toml").write_text(CONFIGURATION.format(port=port))
            (folder / "loader.bin").write_bytes(b"l" * 1000)
            (folder / "firmware.bin").write_bytes(b"f" * 3000)
            simulator = subprocess.Popen([BIN / "bootloader-simulator", "--device", "can", "--link", port],
                                         stdout=subprocess.PIPE, text=True)
            try:
                simulator.stdout.readline()
                for command in COMMANDS:
                    self.run_examples(command, folder, port)
            finally:
                simulator.kill()
                simulator.communicate()

    def run_examples(self, command, folder, port):
        text = output_of(BIN / "peripheralctl", *command.split(), "--help")
        examples = re.findall(r"^  (peripheralctl .*)$", text.split("Examples:\n")[1], re.M)
        self.assertIn(len(examples), range(1, 5), command)
        for example in examples:
            ran = subprocess.run(["bash", "-c", example.replace("/dev/ttyUSB0", str(port))], cwd=folder, text=True,
                                 env={**os.environ, "PATH": f"{BIN}:{os.environ['PATH']}"}, timeout=60,
                                 stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
            self.assertEqual(ran.returncode, 0, example + "\n" + ran.stdout)


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
            elif mark == "runs on":
                port = re.search(r"--link (\S+)", text).group(1)
                script += f"{text.strip()} &\nuntil [ -e {port} ]; do sleep 0.1; done\n"
            elif mark == "run as":
                self.assertIn(text.strip(), what, "the same command")
                script += f"{what}\n"
            else:
                script += f"{text}"
        with tempfile.TemporaryDirectory(prefix="peripheral-") as folder:
            tree = pathlib.Path(folder) / "tree"
            (tree / "build").mkdir(parents=True)
            os.symlink(BUILD, tree / "build/dev")
            for name in ("docs", "script"):
                os.symlink(SOURCE / name, tree / name)
            self.prepare(tree, (SOURCE / document).read_text())
            # The tutorial's own folder, where no other run of it can be met.
            script = script.replace("/tmp/", f"{folder}/")
            shell = subprocess.Popen(["bash", "-exuo", "pipefail", "-c", script], cwd=tree, text=True,
                                     env={**os.environ, "PATH": f"{tree}/tools:{os.environ['PATH']}"},
                                     stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
            try:
                said = shell.communicate(timeout=120)[0]
            finally:
                if shell.poll() is None:
                    os.killpg(shell.pid, signal.SIGKILL)
        self.assertEqual(shell.returncode, 0, said)

    def prepare(self, tree, text):
        (tree / "firmware.bin").write_bytes(b"test")
        (tree / "loader.bin").write_bytes(b"loader")
        config = re.search(r"(?:^    .*\n|^\n)*^    \[properties\]\n(?:^    .*\n|^\n)*", text, re.M)
        if config:
            (tree / "can.toml").write_text(textwrap.dedent(config[0]))
        # What there is to build is built.
        cmake = tree / "tools/cmake"
        cmake.parent.mkdir()
        cmake.write_text(f'#!/bin/sh\ncase "$1" in --preset | --build) exit ;; esac\nexec {shutil.which("cmake")} "$@"\n')
        cmake.chmod(0o755)

    def test_that_are_not_run_have_a_reason_and_are_read_by_the_shell(self):
        for document in DOCUMENTS:
            for mark, what, text in blocks_of(document):
                output_of("bash", "-n", "-c", text)
                self.assertFalse(mark and not what.strip(), document)

    def test_are_all_marked(self):
        for document in DOCUMENTS:
            for block in re.findall(r"^    +(.*)$|^```\n", (SOURCE / document).read_text(), re.M):
                self.assertNotRegex(block, r"^(script/|build/dev/bin/|cmake |peripheralctl |bootloader-simulator )",
                                    f"{document}: commands stand in ```sh blocks")
            text = (SOURCE / document).read_text()
            self.assertGreater(len(blocks_of(document)), 3, document)
            self.assertEqual(len(blocks_of(document)), len(re.findall(r"^ *(?:```|~~~)\S", text, re.M)), document)


if __name__ == "__main__":
    unittest.main()
