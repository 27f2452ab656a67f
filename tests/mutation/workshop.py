"""Builds test programs with a changed source and runs them, out of the objects and commands of a build that exists.

Every worker has its own copy of the sources and its own output folder. Only objects that depend on the changed file
are compiled anew, unoptimised and with precompiled system headers.
"""
import json
import os
import pathlib
import resource
import shlex
import shutil
import signal
import subprocess
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
MUTATED_ROOMS = ["features", "SWLInfra"]

# All that a program under test may find in PATH: no changed command line can then remove, format or mount anything.
HARMLESS_TOOLS = ["cat", "grep", "sh", "sleep", "true"]
NOBODY = 65534
MEMORY_LIMIT = 2 << 30
# Only the changed objects are instrumented, so that containers and leaks are not for AddressSanitizer to judge.
SANITIZER = ["-fsanitize=address", "-fno-omit-frame-pointer"]
SANITIZER_OPTIONS = "detect_container_overflow=0:detect_leaks=0"
OUTPUT_LIMIT = 40000  # bytes, from the end

PREFIX_OF_MODULE = """
#include <pthread.h>
#include <sys/wait.h>
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>
"""
PREFIX_OF_TESTS = PREFIX_OF_MODULE + """
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
"""


class Failure(Exception):
    """Something that a person has to look at."""


class Build:
    """What a build with Ninja knows: how each object is compiled, what it depends on, how programs are linked."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder).resolve()
        if not (self.folder / "compile_commands.json").exists():
            raise Failure(f"{folder} is no build folder. Make one by: cmake --preset dev && cmake --build --preset dev")
        self.compilations = {}
        for entry in json.loads((self.folder / "compile_commands.json").read_text()):
            words = shlex.split(entry["command"])
            self.compilations[words[words.index("-o") + 1]] = words
        self.dependents = self._dependents()
        self.links = {}

    def _ninja(self, *arguments):
        done = subprocess.run(
            ["ninja", "-C", self.folder, "-t", *arguments], capture_output=True, text=True, check=False
        )
        if done.returncode != 0:
            raise Failure(f"ninja -t {' '.join(arguments)} failed: {done.stderr}")
        return done.stdout

    def _dependents(self):
        """By source or header, as a path in the tree: the objects that are made of it."""
        dependents, built = {}, ""
        for line in self._ninja("deps").splitlines():
            if not line.startswith(" "):
                built = line.split(":")[0]
            elif line.strip().startswith(str(ROOT)):
                path = os.path.relpath(line.strip(), ROOT)
                dependents.setdefault(path, []).append(built.replace("/./", "/"))
        return dependents

    def link(self, program):
        """The words of the command that links the program."""
        if program not in self.links:
            command = self._ninja("commands", f"bin/{program}").splitlines()[-1]
            words = [word for word in shlex.split(command) if word not in (":", "&&")]
            self.links[program] = [word.replace("/./", "/") for word in words]
        return self.links[program]

    def objects_of(self, program):
        """The objects that the program, or a library of the tree in it, is made of."""
        objects = {word for word in self.link(program) if word.endswith(".o")}
        for library in {word for word in self.link(program) if word.startswith("tests/lib")}:
            name = pathlib.Path(library).stem[len("lib") :]
            objects |= {made for made in self.compilations if f"/{name}.dir/" in made}
        return objects


class Outcome:
    """How the tests ended: `killed` by which program, or not at all."""

    def __init__(self, kind, by="", output=""):
        self.kind, self.by, self.output = kind, by, output


class Worker:
    """One copy of the tree in which one mutant at a time is built and run."""

    def __init__(self, build, folder):
        """`folder` is a new one that every user may enter."""
        self.build = build
        self.folder = pathlib.Path(folder).resolve()
        self.tree = self.folder / "tree"
        for room in MUTATED_ROOMS:
            shutil.copytree(ROOT / room, self.tree / room)
        self._make_tools()
        self.prefixes = {}
        self.original_code = {}
        linker = next((name for name in ("lld", "gold") if shutil.which(f"ld.{name}")), "bfd")
        self.linker_options = [f"-fuse-ld={linker}", "-Wl,-s"]

    def _make_tools(self):
        self.tools = self.folder / "tools"
        self.tools.mkdir()
        for tool in HARMLESS_TOOLS:
            (self.tools / tool).symlink_to(shutil.which(tool))

    # ---- Building ----

    def _own(self, words):
        """The words of a command, with this worker's sources in place of the tree's."""
        for room in MUTATED_ROOMS:
            words = [word.replace(f"{ROOT}/{room}/", f"{self.tree}/{room}/") for word in words]
        return words

    def _compilation(self, made, options):
        """The command that compiles the object, without its output, with precompiled headers where they fit."""
        words = [
            word
            for word in self._own(self.build.compilations[made])
            if not word.startswith(("-O", "-g", "-W")) and "ccache" not in word
        ]
        del words[words.index("-o") : words.index("-o") + 2]
        return [*words, *options, "-w", f"-ffile-prefix-map={self.tree}/="]

    def _prefix(self, words, text):
        """The precompiled headers for such a command."""
        options = tuple(words[: words.index("-c")] + words[words.index("-c") + 2 :])
        if (options, text) not in self.prefixes:
            folder = self.folder / f"prefix{len(self.prefixes)}"
            folder.mkdir()
            (folder / "prefix.h").write_text(text)
            subprocess.run(
                [*options, "-x", "c++-header", "prefix.h", "-o", "prefix.h.gch"], cwd=folder, check=True
            )
            self.prefixes[options, text] = folder / "prefix.h"
        return ["-include", str(self.prefixes[options, text])]

    def _compile(self, made, options=("-O0",)):
        """The path of the object, or None when it does not compile."""
        words = self._compilation(made, options)
        text = PREFIX_OF_TESTS if made.startswith("tests/") else PREFIX_OF_MODULE
        output = self.folder / "out" / made.replace("/", "_")
        output.parent.mkdir(exist_ok=True)
        command = [*words, *self._prefix(words, text), "-o", str(output)]
        done = subprocess.run(command, cwd=self.folder, capture_output=True, check=False)
        return output if done.returncode == 0 else None

    def _link(self, program, replaced, options):
        """Links with the replaced objects, in front of all others since theirs shall be the inline functions."""
        words = [word for word in self.build.link(program) if word not in replaced]
        output = self.folder / "out" / program
        words[words.index("-o") + 1] = str(output)
        output.parent.mkdir(exist_ok=True)
        command = [words[0], *map(str, replaced.values()), *words[1:], *self.linker_options, *options]
        done = subprocess.run(command, cwd=self.build.folder, capture_output=True, text=True, check=False)
        return (output, "") if done.returncode == 0 else (None, done.stderr)

    # ---- Running ----

    def _run(self, program, arguments, limit_s, limit):
        """Exit status or None for a time-out, and the output. The process has few rights and no tools."""
        with tempfile.TemporaryDirectory(dir=self.folder, ignore_cleanup_errors=True) as scratch:
            os.chmod(scratch, 0o777)
            output_path = pathlib.Path(self.folder) / "output"
            environment = {"PATH": str(self.tools), "TMPDIR": scratch, "LANG": "C.UTF-8"}
            environment["ASAN_OPTIONS"] = SANITIZER_OPTIONS
            with open(output_path, "w+b") as output:
                process = subprocess.Popen(
                    [program, "--gtest_fail_fast", "--gtest_brief=1", *arguments],
                    cwd=scratch,
                    env=environment,
                    stdin=subprocess.DEVNULL,
                    stdout=output,
                    stderr=output,
                    process_group=0,
                    preexec_fn=limit,
                    **({"user": NOBODY, "group": NOBODY, "extra_groups": []} if os.getuid() == 0 else {}),
                )
                try:
                    status = process.wait(limit_s)
                except subprocess.TimeoutExpired:
                    status = None
                finally:
                    end_group(process)
            return status, output_path.read_bytes()[-OUTPUT_LIMIT:].decode(errors="replace")

    def try_out(self, file, text, suite):
        """Puts `text` in the place of the file's and runs the suite's programs until one of them fails."""
        path = self.tree / file
        original = path.read_text()
        path.write_text(text)
        dependents = self.build.dependents.get(file, [])
        module = [made for made in dependents if not made.startswith("tests/")]
        try:
            outcome = self._try_out(module, suite)
            # Of a changed header the tests know the values that were right. Only what they let pass so is worth
            # the time to compile them with the change as well.
            if outcome.kind == "survived" and module != dependents:
                outcome = self._try_out(dependents, suite)
            if outcome.kind == "survived":
                outcome = self._try_out(module, suite, SANITIZER)
            return outcome
        finally:
            path.write_text(original)

    def _try_out(self, dependents, suite, options=()):
        compiled = {}
        for run in suite:
            wanted = self.build.objects_of(run.program)
            replaced = {}
            for made in dependents:
                if made not in wanted:
                    continue
                if made not in compiled:
                    compiled[made] = self._compile(made, ["-O0", *options])
                if compiled[made] is None:
                    return Outcome("invalid", by=made)
                replaced[made] = compiled[made]
            if not replaced:
                continue
            linked, complaint = self._link(run.program, replaced, options)
            if linked is None:
                return Outcome("invalid", by=f"the linking of {run.program}", output=complaint)
            # AddressSanitizer reserves more memory than any limit allows.
            status, output = self._run(
                linked, run.arguments, run.limit_s, limit_core if options else limit_memory
            )
            if status is None:
                return Outcome("killed", f"{run.program}: no end within {run.limit_s:.0f} s", output)
            if status != 0:
                return Outcome("killed", run.program, output)
        return Outcome("survived")

    def compiles_alike(self, file, text):
        """Whether the changed source makes the same optimised code, as far as the module is made of it."""
        path = self.tree / file
        original = path.read_text()
        for made in self.build.dependents[file]:
            if made.startswith("tests/"):
                continue
            if made not in self.original_code:
                self.original_code[made] = self._compile(made, ["-O2"]).read_bytes()
            try:
                path.write_text(text)
                code = self._compile(made, ["-O2"]).read_bytes()
            finally:
                path.write_text(original)
            if code != self.original_code[made]:
                return False
        return True

    def measure(self, run):
        """Seconds that the unchanged program takes here; it must succeed."""
        program = shutil.copy(self.build.folder / "bin" / run.program, self.folder / run.program)
        start = time.monotonic()
        status, output = self._run(program, run.arguments, 600, limit_memory)
        if status != 0:
            raise Failure(f"{run.program} fails without any change, as a user without rights and tools:\n{output}")
        return time.monotonic() - start


class Run:
    """A program of the tests, what of it is run, and how long it may take."""

    def __init__(self, program, *arguments):
        self.program, self.arguments, self.limit_s = program, list(arguments), None


def limit_core():
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


def limit_memory():
    limit_core()
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_LIMIT, MEMORY_LIMIT))


def end_group(process):
    """Ends whatever the process has left running."""
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()
