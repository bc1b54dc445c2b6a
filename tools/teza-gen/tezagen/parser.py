"""Reads a schema file into declarations that keep the position of every name.

The format is small and line-oriented enough to be parsed by hand, which lets every error
name its file, line and column. Syntax errors stop the parse at the first one; the checks of
names and types (model.py) report every problem they find.

    # a comment runs to the end of the line
    namespace depot {
        type volume-info {
            name       : string     non-empty;
            size-total : uint64     optional;
            aliases    : string[]   optional;
        }
        typedef volume-name = string;
        family volume id 1 {
            api volume-get input volume-get-request output volume-info;
        }
    }
"""

import difflib
from dataclasses import dataclass, field
from typing import List, Optional

from .errors import Diagnostic, Position, SchemaError

# Single characters that end a word and are tokens of their own.
PUNCTUATION = "{}[]:;="

KEYWORDS_IN_NAMESPACE = ("type", "typedef", "family", "api")
FLAGS = ("optional", "encrypted", "validate", "non-empty")


@dataclass
class Token:
    kind: str  # "word", one of PUNCTUATION, or "eof"
    text: str
    position: Position
    # Position just after the token, for "expected ';' after ..." reports.
    end: Position


@dataclass
class Name:
    text: str
    position: Position


@dataclass
class FieldDecl:
    name: Name
    type_name: Name
    is_array: bool
    flags: List[Name] = field(default_factory=list)


@dataclass
class TypeDecl:
    name: Name
    fields: List[FieldDecl] = field(default_factory=list)


@dataclass
class TypedefDecl:
    name: Name
    target: Name


@dataclass
class ApiDecl:
    name: Name
    input: Optional[Name] = None
    output: Optional[Name] = None


@dataclass
class FamilyDecl:
    name: Name
    interface_id: Name
    apis: List[ApiDecl] = field(default_factory=list)


@dataclass
class NamespaceDecl:
    name: Name
    types: List[TypeDecl] = field(default_factory=list)
    typedefs: List[TypedefDecl] = field(default_factory=list)
    families: List[FamilyDecl] = field(default_factory=list)
    # APIs written directly in the namespace, outside any family: an error reported by the
    # checks, kept here so that they can name the place.
    stray_apis: List[ApiDecl] = field(default_factory=list)


@dataclass
class SchemaFile:
    path: str
    namespaces: List[NamespaceDecl] = field(default_factory=list)
    # APIs written outside any namespace and family.
    stray_apis: List[ApiDecl] = field(default_factory=list)


def tokenize(path, text):
    """Splits `text` into words and punctuation; '#' starts a comment."""
    tokens = []
    line, column = 1, 1
    i, n = 0, len(text)
    while i < n:
        c = text[i]
        if c == "\n":
            line, column = line + 1, 1
            i += 1
        elif c.isspace():
            column += 1
            i += 1
        elif c == "#":
            while i < n and text[i] != "\n":
                i += 1
        elif c in PUNCTUATION:
            start = Position(path, line, column)
            tokens.append(Token(c, c, start, Position(path, line, column + 1)))
            column += 1
            i += 1
        else:
            start = Position(path, line, column)
            j = i
            while j < n and not text[j].isspace() and text[j] not in PUNCTUATION + "#":
                j += 1
            word = text[i:j]
            column += j - i
            i = j
            tokens.append(Token("word", word, start, Position(path, line, column)))
    eof = Position(path, line, column)
    tokens.append(Token("eof", "end of file", eof, eof))
    return tokens


def describe(token):
    if token.kind == "eof":
        return "end of file"
    return f"'{token.text}'"


class Parser:
    def __init__(self, path, text):
        self.path = path
        self.tokens = tokenize(path, text)
        self.index = 0
        self.diagnostics = []

    # --- token helpers -------------------------------------------------------------------

    def peek(self):
        return self.tokens[self.index]

    def previous(self):
        return self.tokens[self.index - 1]

    def advance(self):
        token = self.tokens[self.index]
        if token.kind != "eof":
            self.index += 1
        return token

    def fail(self, position, message):
        raise SchemaError([Diagnostic(position, message)])

    def expect(self, kind, what):
        token = self.peek()
        if token.kind != kind:
            self.fail(token.position, f"expected {what}, found {describe(token)}")
        return self.advance()

    def expect_word(self, what):
        token = self.expect("word", what)
        return Name(token.text, token.position)

    def expect_semicolon(self, after):
        """A ';' ends every declaration; a missing one is reported where it belongs."""
        token = self.peek()
        if token.kind == ";":
            self.advance()
            return
        prev = self.previous()
        if token.position.line > prev.end.line or token.kind == "eof":
            self.fail(prev.end, f"expected ';' after {after}")
        self.fail(token.position, f"expected ';' after {after}, found {describe(token)}")

    # --- grammar -------------------------------------------------------------------------

    def parse(self):
        schema = SchemaFile(self.path)
        while self.peek().kind != "eof":
            token = self.peek()
            if token.kind == "word" and token.text == "namespace":
                schema.namespaces.append(self.parse_namespace())
            elif token.kind == "word" and token.text == "api":
                schema.stray_apis.append(self.parse_api())
            elif token.kind == "word" and token.text in ("type", "typedef", "family"):
                self.fail(
                    token.position,
                    f"'{token.text}' must be inside a namespace: namespace NAME {{ ... }}",
                )
            else:
                self.fail(token.position, f"expected 'namespace', found {describe(token)}")
        return schema

    def parse_namespace(self):
        opening = self.advance()
        name = self.expect_word("a namespace name after 'namespace'")
        self.expect("{", f"'{{' after namespace '{name.text}'")
        ns = NamespaceDecl(name)
        while True:
            token = self.peek()
            if token.kind == "}":
                self.advance()
                return ns
            if token.kind == "eof":
                self.fail(
                    token.position,
                    f"expected '}}' to close namespace '{name.text}' opened at "
                    f"{opening.position.line}:{opening.position.column}, found end of file",
                )
            if token.kind == "word" and token.text == "type":
                ns.types.append(self.parse_type())
            elif token.kind == "word" and token.text == "typedef":
                ns.typedefs.append(self.parse_typedef())
            elif token.kind == "word" and token.text == "family":
                ns.families.append(self.parse_family())
            elif token.kind == "word" and token.text == "api":
                ns.stray_apis.append(self.parse_api())
            elif token.kind == "word" and token.text == "namespace":
                self.fail(token.position, "namespaces cannot be nested")
            else:
                self.fail(
                    token.position,
                    "expected 'type', 'typedef', 'family' or '}' in namespace "
                    f"'{name.text}', found {describe(token)}",
                )

    def parse_type(self):
        opening = self.advance()
        name = self.expect_word("a type name after 'type'")
        self.expect("{", f"'{{' after type '{name.text}'")
        decl = TypeDecl(name)
        while True:
            token = self.peek()
            if token.kind == "}":
                self.advance()
                return decl
            if token.kind == "eof":
                self.fail(
                    token.position,
                    f"expected '}}' to close type '{name.text}' opened at "
                    f"{opening.position.line}:{opening.position.column}, found end of file",
                )
            decl.fields.append(self.parse_field())

    def parse_field(self):
        token = self.peek()
        if token.kind != "word":
            self.fail(token.position, f"expected a field name or '}}', found {describe(token)}")
        name = self.expect_word("a field name")
        self.expect(":", f"':' after field name '{name.text}'")
        type_name = self.expect_word(f"the type of field '{name.text}'")
        is_array = False
        if self.peek().kind == "[":
            self.advance()
            self.expect("]", "']' after '['")
            is_array = True
        decl = FieldDecl(name, type_name, is_array)
        while self.peek().kind == "word":
            token = self.peek()
            if token.text not in FLAGS:
                prev = self.previous()
                if token.position.line > prev.end.line:
                    self.fail(prev.end, f"expected ';' after field '{name.text}'")
                close = difflib.get_close_matches(token.text, FLAGS, n=1)
                hint = f" (did you mean '{close[0]}'?)" if close else ""
                self.fail(
                    token.position,
                    f"unknown flag '{token.text}'{hint}; the flags are " + ", ".join(FLAGS),
                )
            decl.flags.append(Name(token.text, token.position))
            self.advance()
        self.expect_semicolon(f"field '{name.text}'")
        return decl

    def parse_typedef(self):
        self.advance()
        name = self.expect_word("a typedef name after 'typedef'")
        self.expect("=", f"'=' after typedef name '{name.text}'")
        target = self.expect_word(f"the type that typedef '{name.text}' stands for")
        if self.peek().kind == "[":
            self.fail(
                self.peek().position,
                "a typedef names one type; arrays are declared on fields, as 'name : type[]'",
            )
        self.expect_semicolon(f"typedef '{name.text}'")
        return TypedefDecl(name, target)

    def parse_family(self):
        opening = self.advance()
        name = self.expect_word("a family name after 'family'")
        token = self.peek()
        if not (token.kind == "word" and token.text == "id"):
            self.fail(
                token.position,
                f"expected 'id' and the interface id after family '{name.text}', "
                f"found {describe(token)}",
            )
        self.advance()
        interface_id = self.expect_word(f"the interface id of family '{name.text}'")
        self.expect("{", f"'{{' after the interface id of family '{name.text}'")
        decl = FamilyDecl(name, interface_id)
        while True:
            token = self.peek()
            if token.kind == "}":
                self.advance()
                return decl
            if token.kind == "eof":
                self.fail(
                    token.position,
                    f"expected '}}' to close family '{name.text}' opened at "
                    f"{opening.position.line}:{opening.position.column}, found end of file",
                )
            if not (token.kind == "word" and token.text == "api"):
                self.fail(
                    token.position,
                    f"expected 'api' or '}}' in family '{name.text}', found {describe(token)}",
                )
            decl.apis.append(self.parse_api())

    def parse_api(self):
        self.advance()
        name = self.expect_word("an API name after 'api'")
        decl = ApiDecl(name)
        while self.peek().kind == "word":
            token = self.peek()
            if token.text in ("input", "output"):
                if getattr(decl, token.text) is not None:
                    self.fail(
                        token.position, f"API '{name.text}' already has an {token.text} type"
                    )
                self.advance()
                setattr(decl, token.text, self.expect_word(f"the {token.text} type"))
                continue
            prev = self.previous()
            if token.position.line > prev.end.line:
                self.fail(prev.end, f"expected ';' after API '{name.text}'")
            self.fail(
                token.position,
                f"expected 'input', 'output' or ';' after API '{name.text}', "
                f"found {describe(token)}",
            )
        self.expect_semicolon(f"API '{name.text}'")
        return decl


def parse_file(path):
    """Parses the schema at `path`; raises SchemaError on a syntax error."""
    try:
        with open(path, encoding="utf-8") as f:
            text = f.read()
    except UnicodeDecodeError as e:
        raise SchemaError([Diagnostic(Position(path, 1, 1), f"not UTF-8 text ({e.reason})")])
    return parse_text(path, text)


def parse_text(path, text):
    # A byte order mark some editors write is not part of the first word.
    if text.startswith("\ufeff"):
        text = text[1:]
    return Parser(path, text).parse()
