"""Finds the places of a C++ source where one small change makes a mutant."""

import hashlib
import re
from dataclasses import dataclass

from clang.cindex import CursorKind, Index, TypeKind

FLIPPED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==",
           "&&": "||", "||": "&&"}
COMPARISONS = ("<", "<=", ">", ">=", "==", "!=")

CONDITIONALS = (CursorKind.IF_STMT, CursorKind.WHILE_STMT)
FUNCTIONS = (CursorKind.FUNCTION_DECL, CursorKind.CXX_METHOD, CursorKind.CONSTRUCTOR,
             CursorKind.DESTRUCTOR, CursorKind.FUNCTION_TEMPLATE)
WRAPPERS = (CursorKind.UNEXPOSED_EXPR, CursorKind.PAREN_EXPR)
INTEGERS = (TypeKind.INT, TypeKind.UINT, TypeKind.LONG, TypeKind.ULONG, TypeKind.LONGLONG,
            TypeKind.ULONGLONG, TypeKind.USHORT, TypeKind.SHORT)


@dataclass
class Mutant:
    """One change: the bytes from begin to end of the source become text."""

    file: str
    line: int
    function: str
    kind: str
    begin: int
    end: int
    text: bytes
    number: int = 1  # among those of its function with the same texts
    original: str = ""  # the changed lines, in one
    mutated: str = ""
    id: str = ""

    def apply(self, source):
        return source[:self.begin] + self.text + source[self.end:]

    def key(self):
        """What stays the same while lines move."""
        number = f" ({self.number})" if self.number > 1 else ""
        return (self.file, self.function + number, self.original, self.mutated)


def one_line(text):
    return " ".join(text.decode().split())


class Finder:
    def __init__(self, path, name, arguments):
        self.name = name
        with open(path, "rb") as file:
            self.source = file.read()
        unit = Index.create().parse(path, args=arguments)
        errors = [d for d in unit.diagnostics if d.severity >= 3]
        if errors:
            raise SystemExit(f"{path} cannot be parsed: {errors[0]}")
        self.path = path
        self.unit = unit
        self.mutants = []

    def find(self):
        for cursor in self.unit.cursor.get_children():
            if cursor.location.file and cursor.location.file.name == self.path:
                self.visit(cursor, "")
        self.mutants.sort(key=lambda m: (m.begin, m.end))
        self.name_all()
        return self.mutants

    def visit(self, cursor, function):
        if cursor.kind in FUNCTIONS:
            if not cursor.is_definition():
                return
            function = self.qualified(cursor)
        if cursor.kind == CursorKind.CXX_UNARY_EXPR:
            return  # sizeof asks for the type only
        self.mutate(cursor, function)
        # What stands in the argument of a macro has no place of its own.
        if self.is_macro(cursor):
            return
        for child in cursor.get_children():
            self.visit(child, function)

    def mutate(self, cursor, function):
        kind = cursor.kind
        if kind == CursorKind.COMPOUND_STMT:
            for child in cursor.get_children():
                self.removal(child, function)
        if self.is_macro(cursor):
            return
        if kind == CursorKind.BINARY_OPERATOR or self.is_operator_call(cursor):
            self.flip(cursor, function)
        elif kind == CursorKind.INTEGER_LITERAL:
            self.integer(cursor, function)
        elif kind == CursorKind.CXX_BOOL_LITERAL_EXPR:
            text = self.text(cursor)
            if text in (b"true", b"false"):
                self.add(cursor, function, "constant", b"false" if text == b"true" else b"true")
        elif kind in CONDITIONALS:
            self.negation(next(cursor.get_children()), function, "condition")
        elif kind == CursorKind.CONDITIONAL_OPERATOR:
            self.negation(next(cursor.get_children()), function, "condition")
        elif kind == CursorKind.RETURN_STMT:
            self.returned(cursor, function)

    # The kinds of mutants.

    def removal(self, statement, function):
        inner = self.unwrapped(statement)
        if inner.kind != CursorKind.CALL_EXPR and not self.is_macro(statement):
            return
        begin, end = self.extent(statement)
        semicolon = re.compile(rb"\s*;").match(self.source, end)
        if not semicolon or self.source[begin:begin + 6] == b"return":
            return
        text = self.source[begin:end]
        if not re.match(rb"[\w:>\-.*&()\[\]~<]+", text) or b"static_assert" in text:
            return
        # The lines stay as many as they were.
        self.change(begin, end, statement, function, "call", b"\n" * text.count(b"\n"))

    def flip(self, cursor, function):
        operator = self.operator(cursor)
        if operator is None:
            return
        at, text = operator
        kind = "comparison" if text in COMPARISONS else "logic"
        self.change(at, at + len(text), cursor, function, kind, FLIPPED[text].encode())

    def integer(self, cursor, function):
        match = re.fullmatch(rb"(0[xX][0-9a-fA-F]+|\d+)([uUlL]*)", self.text(cursor))
        if match:
            value = int(match[1], 0) + 1
            self.add(cursor, function, "constant", str(value).encode() + match[2])

    def negation(self, condition, function, kind):
        inner = self.unwrapped(condition)
        if self.is_macro(condition) or not self.is_expression(condition):
            return
        # A flipped operator does the same or less.
        if self.operator(inner) is None:
            self.add(condition, function, kind, b"!(" + self.text(condition) + b")")

    def returned(self, statement, function):
        value = next(statement.get_children(), None)
        if value is None or self.is_macro(value):
            return
        inner = self.unwrapped(value)
        text = self.text(value)
        kind = value.type.get_canonical().kind
        if inner.kind in (CursorKind.CXX_BOOL_LITERAL_EXPR, CursorKind.INTEGER_LITERAL):
            return  # a constant's mutants are the same
        if kind == TypeKind.BOOL:
            if self.operator(inner) is None or self.operator(inner)[1] in ("&&", "||"):
                self.add(value, function, "return", b"!(" + text + b")")
        elif kind in INTEGERS:
            self.add(value, function, "return", b"(" + text + b") + 1")
        elif kind == TypeKind.POINTER and text != b"nullptr":
            self.add(value, function, "return", b"nullptr")

    # What a cursor is and where.

    def operator(self, cursor):
        """Place and text of the operator that can be flipped."""
        children = list(cursor.get_children())
        if cursor.kind == CursorKind.BINARY_OPERATOR and len(children) == 2:
            begin, end = self.extent(children[0])[1], self.extent(children[1])[0]
        elif self.is_operator_call(cursor):
            begin, end = self.extent(children[1])
        else:
            return None
        match = re.search(rb"&&|\|\||[<>=!]=|[<>]", self.source[begin:end])
        if not match or match[0] == b"<<" or match[0].decode() not in FLIPPED:
            return None
        if self.source[begin:end].strip().strip(b")(").strip() != match[0]:
            return None
        return begin + match.start(), match[0].decode()

    @staticmethod
    def is_operator_call(cursor):
        return (cursor.kind == CursorKind.CALL_EXPR and cursor.spelling.startswith("operator") and
                cursor.spelling[8:] in FLIPPED and len(list(cursor.get_children())) == 3)

    @staticmethod
    def is_expression(cursor):
        return cursor.kind.is_expression()

    @staticmethod
    def unwrapped(cursor):
        while cursor.kind in WRAPPERS:
            children = list(cursor.get_children())
            if len(children) != 1:
                break
            cursor = children[0]
        return cursor

    def is_macro(self, cursor):
        """Whether the cursor's text is the use of a macro."""
        if not cursor.kind.is_expression() and cursor.kind != CursorKind.DO_STMT:
            return False
        begin = self.extent(cursor)[0]
        return re.compile(rb"[A-Z][A-Z0-9_]{3,}\(").match(self.source, begin) is not None

    @staticmethod
    def extent(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def text(self, cursor):
        begin, end = self.extent(cursor)
        return self.source[begin:end]

    @staticmethod
    def qualified(cursor):
        names = []
        while cursor is not None and cursor.kind != CursorKind.TRANSLATION_UNIT:
            if cursor.spelling:
                names.insert(0, cursor.spelling)
            cursor = cursor.semantic_parent
        return "::".join(names)

    # Making them.

    def add(self, cursor, function, kind, text):
        begin, end = self.extent(cursor)
        self.change(begin, end, cursor, function, kind, text)

    def change(self, begin, end, cursor, function, kind, text):
        self.mutants.append(Mutant(self.name, self.source.count(b"\n", 0, begin) + 1, function,
                                   kind, begin, end, text))

    def name_all(self):
        """Gives each mutant its texts and an id that lines above cannot change."""
        seen = {}
        unique = {}
        for mutant in self.mutants:
            first = self.source.rfind(b"\n", 0, mutant.begin) + 1
            last = self.source.find(b"\n", mutant.end)
            lines = self.source[first:last]
            mutant.original = one_line(lines)
            mutant.mutated = one_line(lines[:mutant.begin - first] + mutant.text +
                                      lines[mutant.end - first:])
            if (mutant.begin, mutant.end, mutant.text) in unique:
                continue
            unique[(mutant.begin, mutant.end, mutant.text)] = mutant
            alike = mutant.key()
            mutant.number = seen[alike] = seen.get(alike, 0) + 1
            digest = hashlib.sha1(repr((alike, mutant.number)).encode())
            mutant.id = digest.hexdigest()[:8]
        self.mutants = list(unique.values())


def find(path, name, arguments):
    """The mutants of the source at path, which the reports call name."""
    return Finder(path, name, arguments).find()
