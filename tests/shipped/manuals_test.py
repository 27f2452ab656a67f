"""Goal: manual pages and completions know every option that a command has, and no other.

Method: the options are read out of each command's --help, and out of the pages and completions as they stand in the
tree; the shells' own completion is asked too.
"""
import re
import shutil
import subprocess
import unittest

from support import BIN, PROGRAMS, SOURCE, output_of

OPTION = r"(?<![\w-])(--[a-z][\w-]*)"


def commands_of(program):
    """The program itself, as [], and each of its subcommands, however deep, as the words that lead to it."""
    found, waiting = [], [[]]
    while waiting:
        words = waiting.pop()
        found.append(words)
        listed = re.search(r"^Subcommands:\n((?:  .*\n)+)", output_of(BIN / program, *words, "--help"), re.M)
        waiting += [words + [name] for name in re.findall(r"^  ([\w-]+)", listed[1] if listed else "", re.M)]
    return found


def options_of(program, words):
    text = output_of(BIN / program, *words, "--help")
    return set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.M))


def all_options_of(program):
    return set().union(*(options_of(program, words) for words in commands_of(program)))


def packaged(name):
    return (SOURCE / "packaging" / name).read_text()


class Manuals(unittest.TestCase):
    def test_name_every_option_and_no_other(self):
        for program in PROGRAMS:
            page = packaged(f"man/{program}.1").replace("\\-", "-")
            options = set(re.findall(r"^\.(?:BI?|BR) .*?(--[\w-]+)(?=\"| |$)", page.split(".SH OPTIONS")[1].split(".SH")[0],
                                     re.M))
            self.assertEqual(options, all_options_of(program), program)

    def test_name_every_subcommand(self):
        for program in PROGRAMS:
            page = packaged(f"man/{program}.1").replace("\\-", "-")
            for words in commands_of(program):
                self.assertIn(" ".join([program, *words]), page)

    def test_tell_the_exit_codes_of_the_help(self):
        page = packaged("man/peripheralctl.1")
        codes = re.findall(r"^ {2,3}(\d+) {2,3}(\S.*)$", output_of(BIN / "peripheralctl", "--help"), re.M)
        self.assertGreater(len(codes), 8)
        for code, meaning in codes:
            self.assertIn(f".B {code}\n{meaning}\n", page)

    def test_name_every_property_and_key(self):
        properties = packaged("man/peripheralctl.toml.5").replace("\\-", "-")
        names = re.findall(r'\{"([\w-]+)", +ValueKind', (SOURCE / "host/Peripherals.cpp").read_text())
        self.assertGreaterEqual(len(names), 6)
        for name in names + ["updatelist"]:
            self.assertIn(f".B {name}\n", properties)
        scenario = packaged("man/bootloader-scenario.5").replace("\\-", "-")
        document = (SOURCE / "docs/SCENARIOS.md").read_text()
        keys = re.findall(r'^ +\{"([\w-]+)",', (SOURCE / "simulator/Scenario.cpp").read_text(), re.M)
        self.assertGreaterEqual(len(keys), 25)
        for name in keys:
            self.assertRegex(scenario, rf"(?m)^\.B (?:[\w-]+, )?{name}(?:,|$)")
            self.assertIn(f"`{name}`", document)

    def test_are_sound(self):
        for page in (SOURCE / "packaging/man").iterdir():
            said = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", page], text=True,
                                  stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=True).stderr
            self.assertEqual(said, "", page)


class Completion(unittest.TestCase):
    def test_of_bash_and_zsh_has_every_option_and_no_other(self):
        for program in PROGRAMS:
            for name in (program, f"_{program}"):
                text = packaged(f"completions/{name}")
                self.assertEqual(set(re.findall(OPTION, text)), all_options_of(program), name)

    def test_of_bash_offers_what_fits(self):
        def offered(program, *words):
            script = f"source {SOURCE}/packaging/completions/{program}; COMP_WORDS=({program} {' '.join(words)}); " \
                     f"COMP_CWORD={len(words)}; _{program.replace('-', '_')} 2>/dev/null; echo \"${{COMPREPLY[@]}}\""
            return output_of("bash", "-c", script).split()
        self.assertEqual(offered("peripheralctl", "up"), ["update"])
        self.assertEqual(offered("peripheralctl", "update", "--log-f"), ["--log-file"])
        self.assertEqual(offered("peripheralctl", "update", "--log-level", "w"), ["warning"])
        self.assertEqual(offered("bootloader-simulator", "--silent-after", "wr"), ["wr-ram", "wr-flash"])
        self.assertEqual(offered("bootloader-simulator", "--sc"), ["--scenario"])

    def test_is_sound(self):
        for program in PROGRAMS:
            output_of("bash", "-n", SOURCE / "packaging/completions" / program)
        if shutil.which("zsh") is None:
            self.skipTest("SKIPPED: there is no zsh to read its completions with; script/bootstrap --full installs it")
        for program in PROGRAMS:
            output_of("zsh", "-n", SOURCE / f"packaging/completions/_{program}")


if __name__ == "__main__":
    unittest.main()
