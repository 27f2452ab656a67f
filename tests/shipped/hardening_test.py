"""Goal: what is shipped is built so that a fault in it is hard to use.

Method: the built files are read with readelf, and what leaves no trace there in the compiler's command lines. A build
without PERIPHERAL_FORTIFY is not asked for checked calls.
"""
import json
import os
import re
import unittest

from support import BIN, BUILD, LIBRARIES, PROGRAMS, output_of

FORTIFIED = "FORTIFIED" in os.environ


def readelf(option, name):
    return output_of("readelf", "-W", option, BIN / name)


class Hardening(unittest.TestCase):
    def test_relocations_are_read_only_before_main(self):
        for name in PROGRAMS + LIBRARIES:
            with self.subTest(name):
                self.assertIn("GNU_RELRO", readelf("-l", name))
                self.assertRegex(readelf("-d", name), r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW")

    def test_the_stack_is_not_executable(self):
        for name in PROGRAMS + LIBRARIES:
            with self.subTest(name):
                self.assertRegex(readelf("-l", name), r"GNU_STACK( +0x0+){5} RW +0x")

    def test_programs_are_position_independent(self):
        for name in PROGRAMS:
            with self.subTest(name):
                self.assertRegex(readelf("-h", name), r"Type: +DYN")
                self.assertRegex(readelf("-d", name), r"\(FLAGS_1\).*PIE")

    def test_stacks_are_guarded(self):
        for name in PROGRAMS + LIBRARIES:
            with self.subTest(name):
                self.assertIn("__stack_chk_fail", readelf("--dyn-syms", name))

    def test_every_source_of_them_is_compiled_with_guards(self):
        options = ["-fstack-protector-strong", "-fstack-clash-protection"] + ["-D_FORTIFY_SOURCE=2"] * FORTIFIED
        commands = [entry["command"] for entry in json.loads((BUILD / "compile_commands.json").read_text())
                    if not re.search(r" -o (tests|benchmarks)/", entry["command"])]
        self.assertGreater(len(commands), 50)
        for command in commands:
            for option in options:
                self.assertIn(f" {option} ", command)

    def test_only_the_infrastructure_starts_programs(self):
        starters = r" U (system|popen|exec\w*|v?fork|clone|posix_spawnp?)\b"
        for name in PROGRAMS + LIBRARIES:
            with self.subTest(name):
                expected = ["system"] if name == "libPeripheralLoader.so" else []
                self.assertEqual(re.findall(starters, output_of("nm", "-D", "-u", BIN / name)), expected)
        objects = list((BUILD / "features").rglob("*.o"))
        self.assertGreater(len(objects), 5)
        needed = output_of("nm", "-u", "-C", *objects)
        self.assertEqual(re.findall(starters, needed), [])
        self.assertEqual(set(re.findall(r"\bI(?:File|Cmd)Handler::(\w+)", needed)),
                         {"FileExists", "FileSize", "FOpen", "FClose", "FRead", "FWrite"})

    def test_libraries_are_searched_beside_a_file_and_nowhere_else(self):
        for name in PROGRAMS + LIBRARIES:
            for folders in re.findall(r"\((?:RPATH|RUNPATH)\).*\[(.*)\]", readelf("-d", name)):
                for folder in folders.split(":"):
                    with self.subTest(name):
                        self.assertTrue(folder.startswith("$ORIGIN"), folders)

    @unittest.skipUnless(FORTIFIED, "SKIPPED: this build is not made with PERIPHERAL_FORTIFY")
    def test_calls_with_buffers_are_checked(self):
        for name in PROGRAMS + LIBRARIES:
            with self.subTest(name):
                self.assertRegex(readelf("--dyn-syms", name), r"__\w+_chk\b(?<!__stack_chk)")


if __name__ == "__main__":
    unittest.main()
