"""Reads C++ as far as mutants need it: tokens, the function each stands in, statements, operands.

It knows the C++ of this tree, which clang-format has laid out: binary operators stand between blanks, brackets of
templates do not.
"""
import bisect
import re
from dataclasses import dataclass

TOKEN = re.compile(
    r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<char>'(?:\\.|[^'\\\n])')
  | (?P<number>0[xX][0-9a-fA-F']+[uUlL]*|\d[\d']*(?:\.\d+)?[uUlLfF]*)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|\.\.\.|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|[^\s\w])
    """,
    re.VERBOSE | re.MULTILINE | re.DOTALL,
)
CLOSER = {"(": ")", "[": "]", "{": "}"}


@dataclass
class Token:
    kind: str
    text: str
    start: int
    end: int
    function: str = ""  # the function whose body or initialisers it stands in
    inside: bool = False  # within such a body or initialiser list


class Source:
    """A file's tokens, without comments and directives."""

    def __init__(self, path, text):
        self.path = path
        self.text = text
        self.tokens = [
            Token(match.lastgroup, match.group(), match.start(), match.end())
            for match in TOKEN.finditer(text)
            if match.lastgroup not in ("comment", "directive")
        ]
        self.line_starts = [0] + [match.end() for match in re.finditer("\n", text)]
        self.lines = text.split("\n")
        self.partner = self._match_brackets()
        self._name_functions()

    def line_number(self, position):
        return bisect.bisect_right(self.line_starts, position)

    def line_text(self, position):
        return self.lines[self.line_number(position) - 1].strip()

    def is_spaced(self, index):
        """Whether blanks or line ends stand on both sides of the token: it is a binary operator."""
        token = self.tokens[index]
        return self.text[token.start - 1].isspace() and self.text[token.end].isspace()

    def texts(self, first, last):
        """The texts of the tokens first..last-1."""
        return [token.text for token in self.tokens[first:last]]

    def _match_brackets(self):
        partner, stack = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in CLOSER:
                stack.append(index)
            elif token.text in CLOSER.values():
                opener = stack.pop()
                assert CLOSER[self.tokens[opener].text] == token.text, f"{self.path}: brackets do not match"
                partner[opener], partner[index] = index, opener
        return partner

    def _name_functions(self):
        """Walks through what stands outside of bodies, a declaration or definition at a time."""
        index, head = 0, 0
        while index < len(self.tokens):
            text = self.tokens[index].text
            if text == "{":
                name = self._function_named_by(head, index)
                if name is None:  # of a namespace, a class, an enumeration: look inside
                    head = index + 1
                else:
                    body_end = self._end_of_definition(index)
                    self._give_name(self._initialisers_or_body(head, index), body_end, name)
                    index = body_end
                    head = index + 1
            elif text in (";", "}"):
                head = index + 1
            elif text in ("(", "["):
                index = self.partner[index]
            index += 1

    def _give_name(self, first, last, name):
        for token in self.tokens[first : last + 1]:
            token.function, token.inside = name, True

    def _function_named_by(self, head, brace):
        """The name of the function whose head stands in tokens head..brace-1, or None."""
        words = self.texts(head, brace)
        if {"namespace", "class", "struct", "enum"} & set(words) and ")" not in words[-2:]:
            return None
        if words[:1] == ["extern"] and len(words) == 2:
            return None
        index = head
        while index < brace:
            if self.tokens[index].text == "__attribute__":
                index = self.partner[index + 1]
            elif self.tokens[index].text == "(":
                return self._name_before(index)
            index += 1
        return None

    def _name_before(self, paren):
        if self.tokens[paren - 1].text in ("new", "delete", "="):
            return "operator " + self.tokens[paren - 1].text
        first = paren - 1
        while self.tokens[first - 1].text in ("::", "~") or (
            self.tokens[first - 1].kind == "word" and self.tokens[first].text == "::"
        ):
            first -= 1
        return "".join(self.texts(first, paren))

    def _initialisers_or_body(self, head, brace):
        """Where a constructor's list of initialisers begins, else where the body does."""
        index = head
        while index < brace:
            if self.tokens[index].text in ("(", "["):
                index = self.partner[index]
            elif self.tokens[index].text == ":":
                return index
            index += 1
        return brace

    def _end_of_definition(self, brace):
        """The end of the body, where `brace` may open an initialiser in front of it, as in ": iA{1}, iB(2) {"."""
        close = self.partner[brace]
        while close + 1 < len(self.tokens) and self.tokens[close + 1].text in (",", "{"):
            index = close + 1
            while self.tokens[index].text != "{":
                index = self.partner[index] if self.tokens[index].text == "(" else index
                index += 1
            close = self.partner[index]
        return close

    # ---- Statements and expressions ----

    def statements(self):
        """First and last token of every statement that ends with ";" in a body."""
        for index, token in enumerate(self.tokens):
            if token.inside and token.text != ";" and self._begins_statement(index):
                end = self._end_of_statement(index)
                if end is not None:
                    yield index, end

    def _begins_statement(self, index):
        before = self.tokens[index - 1]
        if before.text == ":":
            return self._follows_label(index - 1)
        return before.inside and before.text in (";", "{", "}", "else") and self.tokens[index].text not in "{}"

    def _follows_label(self, colon):
        words = self.texts(max(colon - 4, 0), colon)
        return "default" in words[-1:] or "case" in words

    def _end_of_statement(self, index):
        while index < len(self.tokens):
            text = self.tokens[index].text
            if text == ";":
                return index
            if text in ("}", ")"):
                return None
            if text in CLOSER:
                index = self.partner[index]
            index += 1
        return None

    def operand_left_of(self, index, bounds):
        first = index
        while first > 0:
            text = self.tokens[first - 1].text
            if text in bounds or text in CLOSER:
                break
            first = self.partner[first - 1] if text in CLOSER.values() else first - 1
        return first

    def operand_right_of(self, index, bounds):
        last = index + 1
        while last < len(self.tokens):
            text = self.tokens[last].text
            if text in bounds or text in CLOSER.values():
                break
            last = self.partner[last] + 1 if text in CLOSER else last + 1
        return last
