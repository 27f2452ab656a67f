"""Goal: nobody changes by accident what hosts and platforms built earlier rely on.

Method: the symbols that the libraries define, the layout of every class of the public headers with its virtual
functions in their order, and the places of the fields and values that Layout.cpp names are compared with the lists in
tests/shipped/abi. A change on purpose is recorded by

    SOURCE=. BUILD=build/dev CXX=g++ python3 tests/shipped/abi_test.py --record

and tells in CHANGELOG.md what has to be built anew.
"""
import difflib
import pathlib
import platform
import re
import sys
import tempfile
import unittest

from support import BIN, CXX, LIBRARIES, SOURCE, output_of

RECORDED = SOURCE / "tests" / "shipped" / "abi"
HEADERS = sorted(path for path in (SOURCE / "platform/include").iterdir()) + \
    [SOURCE / "SWLInfra/src/CmdHandler.h", SOURCE / "SWLInfra/src/FileHandler.h"]
FOLDERS = ["-I", SOURCE / "platform/include", "-I", SOURCE / "SWLInfra/src"]
OURS = r"(?:logging::)?(?:I[A-Z]|T[A-Z]|C[A-Z]|Tdes|FileSystemUtils)\w*"


def symbols(library):
    """The names that a library defines for others. What of the platform no public header names is nobody's promise,
    nor is what the compiler leaves behind of inline functions, templates and classes, which nm marks as weak."""
    code = "".join(re.sub(r"//.*", "", header.read_text()) for header in HEADERS)
    promised = set(re.findall(r"\w+", code))
    lines = output_of("nm", "-D", "--defined-only", "-C", BIN / library).splitlines()
    names = {name for _, kind, name in (line.split(" ", 2) for line in lines) if kind not in "WwVvu"}
    if library == "libPeripheralPlatform.so":
        names = {name for name in names if re.match(r"\w+", name)[0] in promised}
    return "".join(f"{name}\n" for name in sorted(names))


def layout():
    """Size, alignment and virtual table of each of our classes, then what Layout.cpp prints."""
    with tempfile.TemporaryDirectory(prefix="peripheral-") as folder:
        folder = pathlib.Path(folder)
        unit = folder / "all.cpp"
        unit.write_text("".join(f'#include "{header}"\n' for header in HEADERS))
        output_of(CXX, "-std=c++17", "-fdump-lang-class", *FOLDERS, "-c", unit, "-o", folder / "all.o", cwd=folder)
        dump = next(folder.glob("*.class")).read_text()
        output_of(CXX, "-std=c++17", *FOLDERS, SOURCE / "tests/shipped/Layout.cpp", "-o", folder / "layout")
        values = output_of(folder / "layout")
    # A class's block is its table's if it has one, then its size; base objects stand below it, indented by address.
    blocks = [re.sub(r" \(0x0x[0-9a-f]+\)|\(\(& ([\w:]+)\) \+ (\d+)\)", r"\1+\2", block)
              for block in dump.split("\n\n") if re.match(rf"(?:Vtable for|Class) {OURS}$", block.split("\n")[0])]
    return "\n\n".join(sorted(re.sub(r"0x0x[0-9a-f]+|0x[0-9a-f]{6,}", "", block).strip() for block in blocks)) \
        + "\n\n" + values


def lists():
    found = {f"{library}.symbols": symbols(library) for library in LIBRARIES}
    if platform.machine() == "x86_64":
        found["layout-x86_64"] = layout()
    return found


class Abi(unittest.TestCase):
    def test_is_the_recorded_one(self):
        for name, found in lists().items():
            recorded = (RECORDED / name).read_text()
            change = "".join(difflib.unified_diff(recorded.splitlines(True), found.splitlines(True), "recorded", "built"))
            self.assertEqual(change, "", f"{name} has changed; if on purpose, see the head of this test")

    def test_of_every_interface_is_recorded(self):
        recorded = (RECORDED / "layout-x86_64").read_text()
        for header in HEADERS:
            for name in re.findall(r"^(?:class|struct)(?: __attribute__\(\(packed\)\))? (?!__)(\w+)", header.read_text(),
                                   re.M):
                self.assertTrue(re.search(rf"^Class (logging::)?{name}$", recorded, re.M), f"{header}: {name}")


if __name__ == "__main__":
    if "--record" in sys.argv:
        for file, text in lists().items():
            (RECORDED / file).write_text(text)
    else:
        unittest.main()
