"""Makes mutants: a file with one small change that a test ought to notice."""
import hashlib
import re
from dataclasses import dataclass

from source import Source

RELATIONS = {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="]}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "&": "|", "|": "&", "^": "|", "<<": ">>", ">>": "<<"}
ASSIGNMENTS = {"+=": "-=", "-=": "+=", "++": "--", "--": "++"}
LEVELS = {
    "LOG_INTERFACE": "LOG_INFO",
    "LOG_INFO": "LOG_INTERFACE",
    "LOG_WARNING": "LOG_ERROR",
    "LOG_ERROR": "LOG_WARNING",
    "LOG_ALWAYS": "LOG_ERROR",
}
PAIRS = [
    ("true", "false"),
    ("ETrue", "EFalse"),
    ("min", "max"),
    ("all_of", "any_of"),
    ("front", "back"),
    ("PeripheralLoader", "SWLInfra"),
]
BOUNDS = {",", ";", "=", "return", "?", ":", "<<", "{", "+=", "-="}


@dataclass(frozen=True)
class Mutant:
    file: str
    function: str
    line_number: int
    line: str  # the line's text, without the blanks around it
    change: str  # "`old` -> `new`", with its place where a function has several alike
    start: int
    end: int
    replacement: str

    @property
    def key(self):
        """What names the mutant in whatever state the rest of the file is."""
        return self.file, self.function, self.line, self.change

    @property
    def id(self):
        return hashlib.sha1("\0".join(self.key).encode()).hexdigest()[:8]

    def apply(self, text):
        """The changed text, with as many lines as before."""
        removed = text[self.start : self.end].count("\n") - self.replacement.count("\n")
        return text[: self.start] + self.replacement + "\n" * removed + text[self.end :]

    def __str__(self):
        return f"{self.id} {self.file}:{self.line_number} in {self.function or 'the file'}\n    {self.line}\n    {self.change}"


def constants_in_groups(text):
    """The names of constants that stand together, with one type, in groups of two and more."""
    pattern = re.compile(r"(?:^[ \t]*(?:static )?constexpr (\w+) (\w+)[^;]*;[^\n]*\n)+", re.MULTILINE)
    for block in pattern.finditer(text):
        by_type = {}
        for match in re.finditer(r"constexpr (\w+) (\w+)", block.group()):
            by_type.setdefault(match.group(1), []).append(match.group(2))
        yield from by_type.values()


def enumerations(text):
    for match in re.finditer(r"\benum\b[^{;]*\{(.*?)\}", text, re.DOTALL):
        body = re.sub(r"//[^\n]*", "", match.group(1))
        yield re.findall(r"(\w+)\s*(?:=[^,]*)?(?:,|\s*$)", body)


def successors(texts):
    """For each enumerator and constant the next one of its kind."""
    following = {}
    for text in texts:
        for family in [*constants_in_groups(text), *enumerations(text)]:
            if len(family) > 1:
                following.update(zip(family, family[1:] + family[:1]))
    return following


class Generator:
    """All mutants of one file."""

    def __init__(self, path, text, following):
        self.source = Source(path, text)
        self.following = dict(following)
        for one, other in PAIRS:
            self.following[one], self.following[other] = other, one
        self.edits = {}

    def mutants(self):
        self._tokens()
        self._operands()
        self._conditions()
        self._statements()
        return self._with_names(sorted(self.edits.items()))

    def _with_names(self, edits):
        made, seen = [], {}
        for (start, end, replacement), change in edits:
            source = self.source
            token = next(token for token in source.tokens if token.end > start)
            line = source.line_text(start)
            alike = token.function, line, change
            seen[alike] = seen.get(alike, 0) + 1
            if seen[alike] > 1:
                change += f" ({seen[alike]})"
            number = source.line_number(start)
            made.append(Mutant(source.path, token.function, number, line, change, start, end, replacement))
        return made

    def _edit(self, start, end, replacement, change=None):
        old = self.source.text[start:end]
        if old != replacement:
            self.edits.setdefault((start, end, replacement), change or f"`{_line(old)}` -> `{_line(replacement)}`")

    def _replace(self, index, replacement):
        token = self.source.tokens[index]
        self._edit(token.start, token.end, replacement)

    # ---- One token for another ----

    def _tokens(self):
        skip_until = -1
        for index, token in enumerate(self.source.tokens):
            if index <= skip_until:
                continue
            if token.text in ("static_assert", "__attribute__"):
                skip_until = self.source.partner[index + 1]
            elif token.text == "extern":
                skip_until = index + 1
            elif token.kind == "sign":
                self._sign(index, token)
            elif token.kind == "number":
                self._number(index, token)
            elif token.kind in ("string", "char"):
                self._text(index, token)
            elif token.kind == "word":
                self._word(index, token)

    def _sign(self, index, token):
        if token.text in ASSIGNMENTS:
            self._replace(index, ASSIGNMENTS[token.text])
        elif token.text == "!":
            self._edit(token.start, token.end, "", "`!` removed")
        elif token.text == "-" and self.source.tokens[index + 1].kind == "word" and not self.source.is_spaced(index):
            self._edit(token.start, token.end, "", "`-` removed")
        elif self.source.is_spaced(index):
            if token.text == "<<" and self._is_insertion(index):
                self._insertion(index)
                return
            for other in RELATIONS.get(token.text, []):
                self._replace(index, other)
            if token.text in ARITHMETIC:
                self._replace(index, ARITHMETIC[token.text])
            if token.text in ("&&", "||"):
                self._replace(index, "||" if token.text == "&&" else "&&")

    def _is_insertion(self, index):
        """Whether this << puts something into a message rather than to shift a number."""
        line = self.source.line_text(self.source.tokens[index].start)
        return "0x" not in line and not re.search(r"<< \d", line)

    def _insertion(self, index):
        last = self.source.operand_right_of(index, BOUNDS)
        start, end = self.source.tokens[index].start, self.source.tokens[last - 1].end
        if self.source.tokens[index - 1].text != ",":
            self._edit(start, end, "", f"`{_line(self.source.text[start:end])}` removed")

    def _number(self, index, token):
        before = self.source.tokens[index - 1]
        if before.text == "=" and self.source.tokens[index - 2].text in (")", "const", "override"):
            return  # "= 0" of a pure virtual function
        digits = token.text.rstrip("uUlLfF") if not token.text.lower().startswith("0x") else token.text.rstrip("uUlL")
        suffix = token.text[len(digits) :]
        digits = digits.replace("'", "")
        if "." in digits:
            others = [str(float(digits) + 1), str(float(digits) - 1)]
        else:
            value = int(digits, 0) if digits.lower().startswith("0x") else int(digits)
            others = [str(value + 1), f"({value - 1})" if value == 0 else str(value - 1)]
        for other in others:
            self._replace(index, other + suffix)

    def _text(self, index, token):
        """A text gets another first character, or one where it was empty."""
        if self.source.tokens[index - 1].text == "include":
            return
        quote, body = token.text[0], token.text[1:-1]
        first = re.match(r"\\.|.", body)
        other = "Y" if body.startswith("X") else "X"
        self._replace(index, quote + other + body[first.end() if first else 0 :] + quote)

    def _word(self, index, token):
        if token.text in LEVELS:
            self._replace(index, LEVELS[token.text])
            return
        if token.text in self.following and (token.inside or self._is_initial_value(index)):
            self._replace(index, self.following[token.text])

    def _is_initial_value(self, index):
        return self.source.tokens[index - 1].text == "="

    # ---- Conditions ----

    def _operands(self):
        """An operand of && and || counts for nothing: it is replaced by the value that leaves the others alone."""
        for index, token in enumerate(self.source.tokens):
            if token.text not in ("&&", "||") or not self.source.is_spaced(index):
                continue
            bounds = BOUNDS | ({"&&", "||"} if token.text == "&&" else {"||"})
            neutral = "true" if token.text == "&&" else "false"
            self._condition_edit(self.source.operand_left_of(index, bounds), index, lambda _: neutral)
            self._condition_edit(index + 1, self.source.operand_right_of(index, bounds), lambda _: neutral)

    def _conditions(self):
        for index, token in enumerate(self.source.tokens):
            if token.text in ("if", "while") and token.inside:
                self._negate(index + 2, self.source.partner[index + 1])
            elif token.text == "?":
                self._negate(self.source.operand_left_of(index, BOUNDS), index)

    def _negate(self, first, last):
        words = self.source.texts(first, last)
        comparisons = sum(word in ("==", "!=") for word in words)
        if "&&" not in words and "||" not in words and (comparisons == 1 or words[0] == "!"):
            return  # done by another change already
        self._condition_edit(first, last, lambda condition: f"!({condition})")

    def _condition_edit(self, first, last, change):
        start, end = self.source.tokens[first].start, self.source.tokens[last - 1].end
        self._edit(start, end, change(self.source.text[start:end]))

    # ---- Statements ----

    def _statements(self):
        for first, last in self.source.statements():
            words = self.source.texts(first, last)
            start, end = self.source.tokens[first].start, self.source.tokens[last].end
            if words[0] == "return" and len(words) > 1:
                self._returned(first, last)
            elif self._is_removable(words):
                self._edit(start, end, ";", f"`{_line(self.source.text[start:end])}` removed")

    def _returned(self, first, last):
        """Another result in place of one that is computed; swapped constants are done elsewhere."""
        if last - first > 2 and self.source.tokens[first + 1].text != "{":
            self._condition_edit(first + 1, last, lambda _: "{}")

    def _is_removable(self, words):
        if words[0] in ("return", "break", "continue", "delete", "++", "--", "static_cast") or words[0] in LEVELS:
            return True
        if words[0] in ("const", "auto", "static", "constexpr", "using", "if", "for", "while", "do", "switch"):
            return False
        index = 1
        while words[index : index + 1] == ["::"]:
            index += 2
        return words[index : index + 1] != [] and words[index] in ("(", ".", "->", "=", "+=", "-=", "[", "++", "--")


def _line(text):
    return re.sub(r"\s+", " ", text)
