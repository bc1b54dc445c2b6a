"""Command line of teza-gen."""

import argparse
import os
import sys
import tempfile

from . import description, emit, model, parser, remote
from .errors import Diagnostic, Position, SchemaError

USAGE_ERROR = 2
SCHEMA_ERROR = 1


def arguments(argv):
    p = argparse.ArgumentParser(
        prog="teza-gen",
        description="Generates the C++ records, type factories, trackers and interfaces of "
        "TEZA API schemas (see docs/schema.md).",
    )
    p.add_argument("schemas", nargs="*", metavar="SCHEMA", help="schema files (.teza)")
    p.add_argument(
        "-o",
        "--output-dir",
        default=None,
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
    describe_arguments(p)
    server_arguments(p)
    args = p.parse_args(argv)
    if args.from_server is None and not args.schemas:
        p.error("give schema files, or --from-server URL")
    if args.from_server is not None:
        if args.schemas:
            p.error("--from-server takes no schema files")
        if args.schema_out is None:
            p.error("--from-server needs --schema-out FILE.teza")
        if args.describe_out is not None:
            p.error("--describe-out works on schema files, not with --from-server")
    elif args.schema_out is not None:
        p.error("--schema-out goes with --from-server")
    if args.describe_symbol is not None and args.describe_out is None:
        p.error("--describe-symbol goes with --describe-out")
    return args


def describe_arguments(p):
    g = p.add_argument_group("descriptions a server publishes (system-api-describe)")
    g.add_argument(
        "--describe-out",
        metavar="FILE",
        help="write the description of the schemas to FILE instead of C++: XML, for "
        "tezad --describe, or with --describe-symbol a C++ source defining it as a string",
    )
    g.add_argument(
        "--describe-symbol",
        metavar="NAME",
        help="with --describe-out: write a C++ source defining `const char NAME[]`",
    )


def server_arguments(p):
    g = p.add_argument_group("schemas from a live server")
    g.add_argument(
        "--from-server",
        metavar="URL",
        help="fetch the description of a server (http://HOST:PORT, https://HOST:PORT or "
        "unix:/PATH) and write it as a schema; with -o, generate its C++ as well",
    )
    g.add_argument("--schema-out", metavar="FILE", help="the schema file to write (.teza)")
    g.add_argument("--user", metavar="LOGIN", help="login (password from --password-file, "
                   "otherwise TEZA_PASSWORD)")
    g.add_argument("--password-file", metavar="FILE", help="the password: the first line of FILE")
    g.add_argument("--token-file", metavar="FILE",
                   help="send a bearer token: the first line of FILE")
    g.add_argument("--ca", metavar="FILE", help="trust the CA certificates of FILE (PEM)")
    g.add_argument("--cert", metavar="FILE", help="client certificate (PEM)")
    g.add_argument("--key", metavar="FILE", help="its key (PEM; default: in --cert's file)")
    g.add_argument("--api-version", default="1.0", metavar="M.N",
                   help="the API version the request names (default 1.0)")
    g.add_argument("--timeout", type=float, default=30, metavar="S",
                   help="seconds to wait for the server (default 30)")
    g.add_argument("--with-builtin", action="store_true",
                   help=f"keep the built-in namespace {description.BUILTIN_NAMESPACE} in the "
                   "schema")


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


def first_line(path, what):
    try:
        with open(path, encoding="utf-8") as f:
            return f.readline().rstrip("\r\n")
    except OSError as e:
        raise remote.FetchError(f"cannot read the {what} file {path}: {e.strerror}")


def endpoint_of(args):
    login = password = token = None
    if args.token_file is not None:
        token = first_line(args.token_file, "token")
    elif args.user is not None:
        login = args.user
        if args.password_file is not None:
            password = first_line(args.password_file, "password")
        else:
            password = os.environ.get("TEZA_PASSWORD")
            if password is None:
                raise remote.FetchError("--user needs --password-file or TEZA_PASSWORD")
    elif os.environ.get("TEZA_TOKEN"):
        token = os.environ["TEZA_TOKEN"]
    return remote.Endpoint(
        args.from_server, login=login, password=password, token=token, ca_file=args.ca,
        cert_file=args.cert, key_file=args.key, api_version=args.api_version,
        timeout=args.timeout)


def from_server(args):
    """Fetches the description, writes the schema, and returns it loaded as modules."""
    try:
        namespaces = remote.fetch(endpoint_of(args), with_builtin=args.with_builtin)
    except remote.FetchError as e:
        print(f"teza-gen: {e}", file=sys.stderr)
        return None
    text = description.to_schema(namespaces, args.from_server)
    try:
        modules = model.build([parser.parse_text(args.schema_out, text)])
    except SchemaError as e:
        for diagnostic in e.diagnostics:
            print(diagnostic.format(), file=sys.stderr)
        print(f"teza-gen: the description of {args.from_server} is not a valid schema; "
              "nothing was written", file=sys.stderr)
        return None
    directory = os.path.dirname(os.path.abspath(args.schema_out))
    try:
        write_files(directory, {os.path.basename(args.schema_out): text})
    except OSError as e:
        print(f"teza-gen: cannot write {args.schema_out}: {e.strerror}", file=sys.stderr)
        return None
    return modules


def write_description(args, modules):
    if args.describe_symbol is not None:
        text = description.to_cpp(modules, args.describe_symbol)
    else:
        text = description.to_xml(modules)
    directory = os.path.dirname(os.path.abspath(args.describe_out))
    try:
        write_files(directory, {os.path.basename(args.describe_out): text})
    except OSError as e:
        print(f"teza-gen: cannot write {args.describe_out}: {e.strerror}", file=sys.stderr)
        return USAGE_ERROR
    return 0


def main(argv=None):
    args = arguments(sys.argv[1:] if argv is None else argv)
    if args.from_server is not None:
        modules = from_server(args)
        if modules is None:
            return SCHEMA_ERROR
        # Without -o only the schema is written.
        if args.output_dir is None:
            return 0
        return generate(args, modules)
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
    if args.describe_out is not None:
        return write_description(args, modules)
    return generate(args, modules)


def generate(args, modules):
    files = emit.render(
        modules,
        interfaces=not args.no_interfaces,
        globals_file=not args.no_globals,
        modules_file=not args.globals_only,
    )
    directory = "." if args.output_dir is None else args.output_dir
    try:
        write_files(directory, files)
    except OSError as e:
        print(f"teza-gen: cannot write to {directory}: {e.strerror}", file=sys.stderr)
        return USAGE_ERROR
    return 0
