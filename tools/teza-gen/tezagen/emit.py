"""Renders checked modules into C++ text with the templates next to this package."""

import os

import jinja2

TEMPLATE_DIR = os.path.join(
    os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "templates"
)

GLOBALS_FILE = "teza_globals.cpp"

# Descriptor flag sets, in the order of the descriptor's constructor.
FLAG_SETS = (
    ("is_array", "arrayFields"),
    ("optional", "optionalFields"),
    ("encrypted", "encryptedFields"),
    ("validate", "validateFields"),
    ("non_empty", "nonEmptyFields"),
    ("nested_typedef", "nestedTypedefFields"),
)


def environment():
    return jinja2.Environment(
        loader=jinja2.FileSystemLoader(TEMPLATE_DIR),
        trim_blocks=True,
        lstrip_blocks=True,
        keep_trailing_newline=True,
        undefined=jinja2.StrictUndefined,
        autoescape=False,
    )


COLUMN_LIMIT = 100


def api_parameters(api):
    parameters = []
    if api.input:
        parameters.append(f"const {api.input.cpp_name}& input")
    if api.output:
        parameters.append(f"{api.output.cpp_name}& output")
    return parameters


def invoke_arguments(family, api):
    arguments = [f"{family.family_class}::API_{api.enum_name}"]
    if api.input:
        arguments.append("static_cast<const TezaFieldType&>(input)")
    if api.output:
        arguments.append("static_cast<TezaFieldType&>(output)")
    return arguments


def wrap_call(head, arguments, tail, indent):
    """`head(arguments)tail` on one line, or one argument a line aligned after the '('."""
    line = " " * indent + head + "(" + ", ".join(arguments) + ")" + tail
    if len(line) <= COLUMN_LIMIT or len(arguments) < 2:
        return line
    align = " " * (indent + len(head) + 1)
    return (",\n" + align).join([" " * indent + head + "(" + arguments[0]] + arguments[1:]) + (
        ")" + tail
    )


def header_guard(module):
    return "TEZA_GENERATED_" + module.cpp_name.upper() + "_H_"


def render(modules, interfaces=True, globals_file=True, modules_file=True):
    """Returns {file name: text} for the given modules; nothing touches the disk here."""
    env = environment()
    files = {}
    if modules_file:
        header = env.get_template("module.h.j2")
        source = env.get_template("module.cpp.j2")
        for module in modules:
            header_name = module.stem + ".h"
            context = dict(
                module=module,
                interfaces=interfaces,
                guard=header_guard(module),
                header_name=header_name,
                flag_sets=FLAG_SETS,
                api_parameters=api_parameters,
                invoke_arguments=invoke_arguments,
                wrap_call=wrap_call,
            )
            files[header_name] = header.render(context)
            files[module.stem + ".cpp"] = source.render(context)
    if globals_file:
        files[GLOBALS_FILE] = env.get_template("globals.cpp.j2").render(
            modules=modules, sources=[m.source_name for m in modules]
        )
    return files
