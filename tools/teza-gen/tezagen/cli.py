"""Command line of teza-gen."""

import argparse
import os
import sys
import tempfile

from . import emit, model, parser
from .errors import Diagnostic, Position, SchemaError

USAGE_ERROR = 2
SCHEMA_ERROR = 1


def arguments(argv):
    p = argparse.ArgumentParser(
        prog="teza-gen",
        description="Generates the C++ records, type factories, trackers and interfaces of "
        "TEZA API schemas (see docs/schema.md).",
    )
    p.add_argument("schemas", nargs="+", metavar="SCHEMA", help="schema files (.teza)")
    p.add_argument(
        "-o",
        "--output-dir",
        default=".",
        help="directory for the generated files (created when missing; default: .)",
    )
    which = p.add_mutually_exclusive_group()
    which.add_argument(
        "--no-globals",
        action="store_true",
        help=f"do not write {emit.GLOBALS_FILE}, which defines "
        "TezaNamespaceFactory::registerDefaultTypeFactory() and TezaNS_depot::getTezaTracker "
        "once per program",
    )
    which.add_argument(
        "--globals-only",
        action="store_true",
        help=f"write only {emit.GLOBALS_FILE}, for modules generated separately with "
        "--no-globals",
    )
    p.add_argument(
        "--no-interfaces",
        action="store_true",
        help="leave out the interface classes (records, factories and trackers only)",
    )
    p.add_argument(
        "--check", action="store_true", help="check the schemas and write nothing"
    )
    return p.parse_args(argv)


def write_files(directory, files):
    """Writes each file through a temporary file and a rename, so no reader sees half."""
    os.makedirs(directory, exist_ok=True)
    for name in sorted(files):
        target = os.path.join(directory, name)
        fd, temporary = tempfile.mkstemp(prefix="." + name + ".", dir=directory)
        try:
            with os.fdopen(fd, "w", encoding="utf-8", newline="\n") as f:
                f.write(files[name])
            os.replace(temporary, target)
        except BaseException:
            if os.path.exists(temporary):
                os.unlink(temporary)
            raise


def load(paths):
    schemas, diagnostics = [], []
    for path in paths:
        try:
            schemas.append(parser.parse_file(path))
        except SchemaError as e:
            diagnostics.extend(e.diagnostics)
        except OSError as e:
            diagnostics.append(
                Diagnostic(Position(path, 0, 0), f"cannot read the schema: {e.strerror}")
            )
    if diagnostics:
        raise SchemaError(diagnostics)
    return model.build(schemas)


def main(argv=None):
    args = arguments(sys.argv[1:] if argv is None else argv)
    try:
        modules = load(args.schemas)
    except SchemaError as e:
        for diagnostic in e.diagnostics:
            print(diagnostic.format(), file=sys.stderr)
        count = len(e.diagnostics)
        print(
            f"teza-gen: {count} error{'s' if count != 1 else ''}; nothing was written",
            file=sys.stderr,
        )
        return SCHEMA_ERROR
    if args.check:
        return 0
    files = emit.render(
        modules,
        interfaces=not args.no_interfaces,
        globals_file=not args.no_globals,
        modules_file=not args.globals_only,
    )
    try:
        write_files(args.output_dir, files)
    except OSError as e:
        print(f"teza-gen: cannot write to {args.output_dir}: {e.strerror}", file=sys.stderr)
        return USAGE_ERROR
    return 0
