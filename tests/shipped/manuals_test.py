"""Goal: manual pages and completions know every option that a command has, and no other.

Method: the options are read out of each command's --help, and out of the pages and completions as they stand in the
tree; commands are typed into the shells, with the tabulator key, on a terminal.
"""
import os
import pathlib
import pty
import re
import select
import shutil
import subprocess
import tempfile
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


# Each text of a help stands on one line.
os.environ["COLUMNS"] = "1000"


class Manuals(unittest.TestCase):
    def test_name_every_option_and_no_other(self):
        for program in PROGRAMS:
            page = packaged(f"man/{program}.1").replace("\\-", "-").split(".SH OPTIONS")[1].split(".SH")[0]
            for words in commands_of(program):
                options = set()
                for section in page.split(".SS "):
                    # Headings of a program without subcommands are for the eye.
                    if program != "peripheralctl" or " ".join(words) in section.split("\n")[0].split(", "):
                        options |= set(re.findall(r"^\.TP\n\.(?:BI?|BR) .*?(--[\w-]+)(?=\"| |$)", section, re.M))
                self.assertEqual(options | {"--help"}, options_of(program, words), words)

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
            shown = subprocess.run(["man", "-E", "UTF-8", "-l", page], text=True, capture_output=True, check=True,
                                   env={**os.environ, "MANWIDTH": "80"}).stdout
            self.assertLessEqual(max(map(len, re.sub(".\b", "", shown).splitlines())), 80, page)


def values_of(program, words):
    """For each option that takes one: FILE, PATH or the like, or the set of words that it may be."""
    text = output_of(BIN / program, *words, "--help")
    return {name: set(listed.split(",")) if listed else kind
            for name, kind, listed in re.findall(r"^  (?:-\w,)?(--[\w-]+) ([A-Z]+)(?::\{(.*?)\})?", text, re.M)}


class Shell:
    """A shell on a terminal, which knows the completions, in a folder with files of awkward names. What looks like our
    programs prints its arguments."""

    SETTINGS = {
        ("bash", "--norc", "--noprofile", "-i"): f"for program in {' '.join(PROGRAMS)}; do "
                                                 f"source {SOURCE}/packaging/completions/$program; done",
        ("zsh", "-f", "-i"): f"fpath=({SOURCE}/packaging/completions $fpath); autoload -U compinit; compinit -u -D",
    }

    def __init__(self, command):
        self.folder = tempfile.TemporaryDirectory(prefix="peripheral-")
        for name in ("my file.toml", "update.trace"):
            (pathlib.Path(self.folder.name) / name).touch()
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.chdir(self.folder.name)
            os.execvpe(command[0], command, {**os.environ, "PS1": "", "TERM": "dumb", "INPUTRC": "/dev/null"})
        programs = "; ".join(f"{program}() {{ printf 'O''UT'; printf '<%s>' \"$@\"; echo EN''D; }}" for program in PROGRAMS)
        self.type(f"{self.SETTINGS[command]}; {programs}; {PROGRAMS[0]} ready")

    def type(self, line):
        """The arguments that the command gets. An option may have its value behind "=" as well as a word later."""
        os.write(self.terminal, f"{line}\n".encode())
        said = ""
        while not (found := re.search(r"OUT(.*)END", said)):
            if not select.select([self.terminal], [], [], 60)[0]:
                raise AssertionError(f"{line}: {said}")
            said += os.read(self.terminal, 4096).decode()
        return [part for word in re.findall("<(.*?)>", found[1])
                for part in (word.split("=", 1) if word.startswith("--") else [word])]

    def close(self):
        os.close(self.terminal)
        os.waitpid(self.process, 0)
        self.folder.cleanup()


# What is typed, and the arguments that this makes.
TYPED = [
    ("peripheralctl up\t--conf\tmy\t--js\t", ["update", "--config", "my file.toml", "--json"]),
    ("peripheralctl prepare --config=my\t", ["prepare", "--config", "my file.toml"]),
    ("peripheralctl update --log-level=w\t", ["update", "--log-level", "warning"]),
    ("peripheralctl update --log-level w\t", ["update", "--log-level", "warning"]),
    ("peripheralctl update --set upd\tsa\t", ["update", "--set", "updatelist=sanyoxmodem"]),
    ("peripheralctl update --set=xmodemp\tmy\t", ["update", "--set", "xmodemportname=my file.toml"]),
    ("peripheralctl update --timeout my\t", ["update", "--timeout", "my"]),
    ("peripheralctl prepare --rep\t", ["prepare", "--rep"]),
    ("peripheralctl trace sh\t--form\tsv\tupd\t", ["trace", "show", "--format", "svg", "update.trace"]),
    ("peripheralctl trace replay --module=my\t--fa\tupd\t", ["trace", "replay", "--module", "my file.toml", "--fast",
                                                            "update.trace"]),
    ("peripheralctl nonsense --conf\t", ["nonsense", "--conf"]),
    ("bootloader-simulator --sc\tmy\t", ["--scenario", "my file.toml"]),
    ("bootloader-simulator --device=can,\t--silent-after wr-\tr\t", ["--device", "can,sanyo", "--silent-after", "wr-ram"]),
    ("bootloader-simulator --noise my\t", ["--noise", "my"]),
]


class Completion(unittest.TestCase):
    def need_zsh(self):
        if shutil.which("zsh") is None:
            self.skipTest("SKIPPED: there is no zsh to read its completions with; script/bootstrap --full installs it")

    def bash_offers(self, program, *words):
        script = f"source {SOURCE}/packaging/completions/{program}; COMP_WORDS=({program} {' '.join(words)}); " \
                 f"COMP_CWORD={len(words)}; compopt() {{ echo \"$@\"; }}; _{program.replace('-', '_')}; " \
                 f"echo \"${{COMPREPLY[@]}}\""
        return output_of("bash", "-c", script).split()

    def test_of_bash_knows_what_the_help_knows(self):
        for program in PROGRAMS:
            for words in commands_of(program):
                names = {each[-1] for each in commands_of(program) if each[:-1] == words and each}
                self.assertEqual(set(self.bash_offers(program, *words, "--")), options_of(program, words), words)
                if names:
                    self.assertEqual(set(self.bash_offers(program, *words, "''")), options_of(program, words) | names)
                for option, value in values_of(program, words).items():
                    offered = self.bash_offers(program, *words, option, "''")
                    if isinstance(value, set):
                        self.assertEqual(set(offered), value, option)
                    elif value in ("FILE", "PATH"):
                        self.assertEqual(offered, ["-o", "default"], option)
                    self.assertFalse([word for word in offered if word.startswith("--")], option)

    def test_of_zsh_knows_what_the_help_knows(self):
        self.need_zsh()
        for program in PROGRAMS:
            for words in commands_of(program):
                given = output_of("zsh", "-f", "-c",
                                  '_arguments() { if [ "$1" = -C ]; then inner=("$@"); shift words; else inner=(); '
                                  'print -l -- "$@"; fi }; '
                                  f"run() {{ source {SOURCE}/packaging/completions/_{program}; print -l -- $inner; }}; "
                                  f"words=({program} {' '.join(words)}); run")
                offered = {name: (takes, rest) for name, takes, rest
                           in re.findall(r"^\*?(--[\w-]+)(=?)\[.*\](.*)$", given, re.M)}
                self.assertEqual(set(offered), options_of(program, words), words)
                values = values_of(program, words)
                for option, (takes, rest) in offered.items():
                    value = values.get(option)
                    self.assertEqual(bool(takes), value is not None, option)
                    if isinstance(value, set):
                        self.assertEqual(set(re.search(r"\((.*)\)$", rest)[1].split()), value, option)
                    elif value in ("FILE", "PATH"):
                        self.assertRegex(rest, ":_files$", option)

    def test_completes_what_is_typed(self):
        for command in Shell.SETTINGS:
            with self.subTest(command[0]):
                if command[0] == "zsh":
                    self.need_zsh()
                shell = Shell(command)
                self.addCleanup(shell.close)
                for line, arguments in TYPED:
                    self.assertEqual(shell.type(line), arguments, line)


if __name__ == "__main__":
    unittest.main()
