"""Reads the list of mutants that no test can tell from the original, each with the reason why."""
import re

FIELDS = ["file", "function", "line", "why"]


class Unreadable(Exception):
    """The list is not as it should be."""


def read(path):
    """Reasons by the mutants' keys: file, function, line, change. An entry may have several changes of a line."""
    reasons = {}
    for block in re.split(r"\n\s*\n", path.read_text()):
        lines = [line for line in block.splitlines() if line.strip() and not line.startswith("#")]
        if not lines:
            continue
        entry, changes = _fields(path, lines)
        for change in changes:
            key = entry["file"], entry["function"], entry["line"], change
            if key in reasons:
                raise Unreadable(f"{path}: this change is explained twice: {' | '.join(key)}")
            reasons[key] = entry["why"]
    return reasons


def _fields(path, lines):
    entry, changes = {"function": ""}, []
    for line in lines:
        match = re.match(r"(\w+): ?(.*)", line)
        if match and match.group(1) == "change":
            changes.append(match.group(2))
        elif match and match.group(1) in FIELDS:
            entry[match.group(1)] = match.group(2).strip()
        elif line.startswith(" ") and "why" in entry:
            entry["why"] += " " + line.strip()
        else:
            raise Unreadable(f"{path}: this line belongs to no field: {line}")
    if not changes or not all(entry.get(field) for field in ("file", "line", "why")):
        raise Unreadable(f"{path}: the entry that begins with {lines[0]!r} lacks a file, line, change or reason")
    return entry, changes

