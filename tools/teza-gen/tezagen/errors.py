"""Positions in a schema file and the errors reported against them."""

from dataclasses import dataclass


@dataclass(frozen=True, order=True)
class Position:
    """A place in a schema: 1-based line and column (a tab counts as one column).

    Line 0 stands for the file as a whole.
    """

    path: str
    line: int
    column: int

    def __str__(self):
        if self.line == 0:
            return self.path
        return f"{self.path}:{self.line}:{self.column}"


@dataclass(frozen=True)
class Diagnostic:
    """One error, optionally with a note pointing at a related place."""

    position: Position
    message: str
    note_position: Position = None
    note: str = None

    def format(self):
        text = f"{self.position}: error: {self.message}"
        if self.note_position is not None:
            text += f"\n{self.note_position}: note: {self.note}"
        return text


class SchemaError(Exception):
    """Raised with every diagnostic found; nothing is generated when it is raised."""

    def __init__(self, diagnostics):
        self.diagnostics = sorted(diagnostics, key=lambda d: d.position)
        super().__init__("\n".join(d.format() for d in self.diagnostics))
