"""Checks parsed schemas and resolves them into the model the templates render.

Every problem found is collected with its position; SchemaError carries them all. Names of
the generated C++ are decided here too, since two schema names that give one C++ name are a
schema error like any other duplicate.
"""

import difflib
import os
import re
from dataclasses import dataclass, field
from typing import Dict, List, Optional

from .errors import Diagnostic, Position, SchemaError

MAX_FIELDS = 256
MAX_INTERFACE_ID = 2**31 - 1

ELEMENT_NAME = re.compile(r"[A-Za-z_][A-Za-z0-9_.\-]*\Z")
CPP_IDENTIFIER = re.compile(r"[A-Za-z_][A-Za-z0-9_]*\Z")

CPP_KEYWORDS = frozenset(
    """alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t
    char16_t char32_t class compl concept const consteval constexpr constinit const_cast
    continue co_await co_return co_yield decltype default delete do double dynamic_cast else
    enum explicit export extern false float for friend goto if inline int long mutable
    namespace new noexcept not not_eq nullptr operator or or_eq private protected public
    register reinterpret_cast requires return short signed sizeof static static_assert
    static_cast struct switch template this thread_local throw true try typedef typeid
    typename union unsigned using virtual void volatile wchar_t while xor xor_eq""".split()
)

# Macros of the C and POSIX headers that generated code includes; a name equal to one would
# be expanded.
CPP_MACROS = frozenset(
    """NULL EOF BUFSIZ TRUE FALSE assert errno offsetof setjmp va_arg va_start va_end va_copy
    stdin stdout stderr major minor makedev""".split()
)

# Members of the runtime's record base class; a field accessor must not hide one.
RECORD_BASE_MEMBERS = frozenset(
    """fieldSet isFieldSet storeAsRawstring isStoreAsRawString setFieldValue __setFieldValue
    getFieldValue setRawStringValue __setRawStringValue getRawStringValue clearFieldData
    clearData clear copyData getMetaData constructRkChildElement parseRkChildElement toString
    getDecodedString metaData NUM_FIELDS""".split()
)

# Members of the runtime's interface base class; an API method must not hide one.
INTERFACE_BASE_MEMBERS = frozenset(
    """invoke getConnection openConnection perform_invocation cacheConnection closeConnection
    getInterfaceId getInterfaceName getApiName get_trans_label _mt_handle""".split()
)


@dataclass(frozen=True)
class BasicType:
    name: str  # as written in a schema
    code: str  # TezaFieldTypeMetaData::TezaBasicType enumerator
    cpp: str  # the C++ value type of accessors
    type_str: str  # the runtime's type string, used as the field's type name


BASIC_TYPES = {
    b.name: b
    for b in (
        BasicType("string", "STRING_TYPE", "std::string", "string"),
        BasicType("int32", "INT32_TYPE", "int32_t", "integer"),
        BasicType("uint32", "UINT32_TYPE", "uint32_t", "integer"),
        BasicType("int64", "INT64_TYPE", "int64_t", "integer"),
        BasicType("uint64", "UINT64_TYPE", "uint64_t", "integer"),
        BasicType("bool", "BOOL_TYPE", "bool", "boolean"),
    )
}


@dataclass
class Field:
    name: str
    index: int
    declared_type: str
    # Exactly one of basic and record: what the field holds after typedefs are followed.
    basic: Optional[BasicType]
    record: Optional["Record"]
    # The descriptor's type name: the typedef's name, the record's name or the type string.
    type_name: str
    is_array: bool
    optional: bool
    encrypted: bool
    validate: bool
    non_empty: bool
    nested_typedef: bool
    camel: str = ""
    enum_name: str = ""

    @property
    def code(self):
        return self.basic.code if self.basic else "TYPEDEF_TYPE"

    @property
    def flag_text(self):
        words = [self.declared_type + ("[]" if self.is_array else "")]
        for flag, on in (
            ("optional", self.optional),
            ("encrypted", self.encrypted),
            ("validate", self.validate),
            ("non-empty", self.non_empty),
        ):
            if on:
                words.append(flag)
        return " ".join(words)


@dataclass
class Record:
    name: str
    namespace: "Namespace"
    position: Position
    fields: List[Field] = field(default_factory=list)
    cpp_name: str = ""

    def flagged(self, attribute):
        return [f.index for f in self.fields if getattr(f, attribute)]


@dataclass
class Typedef:
    name: str
    target: str
    position: Position
    # The names under this typedef down to its lowest-level type (see docs/schema.md).
    chain: List[str] = field(default_factory=list)
    lowest_basic: Optional[BasicType] = None
    lowest_record: Optional[Record] = None


@dataclass
class Api:
    name: str
    index: int
    input: Optional[Record]
    output: Optional[Record]
    enum_name: str = ""
    method: str = ""
    tracker: str = ""


@dataclass
class Family:
    name: str
    interface_id: int
    apis: List[Api] = field(default_factory=list)
    family_class: str = ""
    interface_class: str = ""


@dataclass
class Namespace:
    name: str
    records: List[Record] = field(default_factory=list)
    typedefs: List[Typedef] = field(default_factory=list)
    families: List[Family] = field(default_factory=list)
    cpp_name: str = ""
    factory_class: str = ""

    @property
    def records_by_name(self):
        return sorted(self.records, key=lambda r: r.name.encode())

    @property
    def has_record_fields(self):
        """Whether a record of the namespace holds nested records, copied by its factory."""
        return any(f.record is not None for r in self.records for f in r.fields)

    @property
    def typedef_chains(self):
        """Typedefs with a non-empty chain, sorted by name for the factory's lookup."""
        return sorted((t for t in self.typedefs if t.chain), key=lambda t: t.name.encode())


@dataclass
class Module:
    """The C++ generated from one schema file."""

    stem: str
    source_name: str
    cpp_name: str
    namespaces: List[Namespace] = field(default_factory=list)

    @property
    def families(self):
        return [f for ns in self.namespaces for f in ns.families]


def words_of(name):
    return [w for w in re.split(r"[-_.]+", name) if w]


def upper_camel(name):
    return "".join(w[0].upper() + w[1:] for w in words_of(name))


def lower_camel(name):
    camel = upper_camel(name)
    return camel[:1].lower() + camel[1:]


def upper_snake(name):
    return "_".join(w.upper() for w in words_of(name))


def snake(name):
    return "_".join(words_of(name))


def not_keyword(identifier):
    """Keywords and macro names get a trailing '_'."""
    if identifier in CPP_KEYWORDS or identifier in CPP_MACROS:
        return identifier + "_"
    return identifier


class Checker:
    def __init__(self):
        self.diagnostics = []

    def error(self, position, message, note_position=None, note=None):
        self.diagnostics.append(Diagnostic(position, message, note_position, note))

    def element_name(self, name, what):
        if ELEMENT_NAME.match(name.text):
            return True
        self.error(
            name.position,
            f"{what} '{name.text}' is not a valid element name: an element name starts with "
            "a letter or '_' and continues with letters, digits, '-', '_' or '.'",
        )
        return False

    def cpp_name(self, name, text, what):
        """Reports a schema name whose C++ form is no identifier (e.g. '_' or '_9')."""
        if CPP_IDENTIFIER.match(text) and not text[0].isdigit():
            return True
        self.error(
            name.position,
            f"{what} '{name.text}' gives no usable C++ name; start it with a letter",
        )
        return False


class Scope:
    """Names declared in one scope; the second declaration of a name is an error."""

    def __init__(self, checker, what):
        self.checker = checker
        self.what = what
        self.seen: Dict[str, Position] = {}

    def declare(self, name, where=""):
        first = self.seen.get(name.text)
        if first is not None:
            self.checker.error(
                name.position,
                f"duplicate {self.what} '{name.text}'{where}",
                first,
                f"'{name.text}' was first declared here",
            )
            return False
        self.seen[name.text] = name.position
        return True


class CppScope:
    """C++ names made in one scope; two schema names that give one C++ name clash."""

    def __init__(self, checker, reserved=(), reserved_owner=""):
        self.checker = checker
        self.reserved = reserved
        self.reserved_owner = reserved_owner
        self.seen: Dict[str, tuple] = {}

    def claim(self, cpp, name, what):
        if cpp in self.reserved:
            self.checker.error(
                name.position,
                f"{what} '{name.text}' would generate the C++ name {cpp}, which "
                f"{self.reserved_owner} already has; rename it",
            )
            return False
        first = self.seen.get(cpp)
        if first is not None:
            first_name, first_what = first
            self.checker.error(
                name.position,
                f"duplicate C++ name {cpp}: {what} '{name.text}' gives the same C++ name as "
                f"{first_what} '{first_name.text}'",
                first_name.position,
                f"'{first_name.text}' was declared here",
            )
            return False
        self.seen[cpp] = (name, what)
        return True


def module_name_for(path):
    """The file name up to its first '.': the stem of the generated files' names."""
    return os.path.basename(path).split(".")[0]


def build(schemas):
    """Checks parsed schema files together and returns one Module per file.

    Namespaces and interface ids must be unique across every file given, since their code
    ends up in one program.
    """
    checker = Checker()
    namespaces_seen = Scope(checker, "namespace")
    interface_ids: Dict[int, tuple] = {}
    global_cpp = CppScope(checker, reserved=("std", "TezaNS_depot"), reserved_owner="C++")
    modules = []

    for schema in schemas:
        stem = module_name_for(schema.path)
        module_cpp = not_keyword(snake(stem))
        start = Position(schema.path, 1, 1)
        if not (CPP_IDENTIFIER.match(module_cpp) and module_cpp[0].isalpha()):
            checker.error(
                start,
                f"the file name '{stem}' gives no usable C++ namespace for the module; "
                "start it with a letter and use letters, digits, '-' or '_'",
            )
        module = Module(stem=stem, source_name=os.path.basename(schema.path), cpp_name=module_cpp)
        modules.append(module)

        for api in schema.stray_apis:
            checker.error(
                api.name.position,
                f"API '{api.name.text}' has no family; declare it inside "
                "'family NAME id N { ... }' in a namespace",
            )

        for ns_decl in schema.namespaces:
            valid = checker.element_name(ns_decl.name, "namespace")
            unique = namespaces_seen.declare(ns_decl.name)
            ns = Namespace(ns_decl.name.text)
            ns.cpp_name = not_keyword(snake(ns.name))
            if valid and unique and checker.cpp_name(ns_decl.name, ns.cpp_name, "namespace"):
                if ns.cpp_name.startswith("Teza"):
                    checker.error(
                        ns_decl.name.position,
                        f"namespace '{ns.name}' would be the C++ namespace {ns.cpp_name}; "
                        "names starting with 'Teza' belong to the runtime",
                    )
                else:
                    global_cpp.claim(ns.cpp_name, ns_decl.name, "namespace")
            module.namespaces.append(ns)
            check_namespace(checker, ns, ns_decl, interface_ids)

    seen_modules = {}
    for schema, module in zip(schemas, modules):
        if module.cpp_name in seen_modules:
            checker.error(
                Position(schema.path, 1, 1),
                f"duplicate module {module.cpp_name}: schema files given together need "
                "distinct file names",
                Position(seen_modules[module.cpp_name], 1, 1),
                "the other schema file",
            )
        seen_modules[module.cpp_name] = schema.path

    if checker.diagnostics:
        raise SchemaError(checker.diagnostics)
    return modules


def check_namespace(checker, ns, decl, interface_ids):
    # Types and typedefs share one name space: both can be the type of a field.
    type_names = Scope(checker, "type name")
    records: Dict[str, Record] = {}
    typedefs: Dict[str, Typedef] = {}
    cpp = CppScope(checker)

    ns.factory_class = upper_camel(ns.name) + "TypeFactory"

    def declare_type_name(name, kind):
        valid = checker.element_name(name, kind)
        if name.text in BASIC_TYPES:
            checker.error(
                name.position,
                f"'{name.text}' is a basic type and cannot be declared as a {kind}",
            )
            return False
        return type_names.declare(name) and valid

    for type_decl in decl.types:
        ok = declare_type_name(type_decl.name, "type")
        record = Record(type_decl.name.text, ns, type_decl.name.position)
        record.cpp_name = not_keyword(upper_camel(record.name))
        if ok and checker.cpp_name(type_decl.name, record.cpp_name, "type"):
            if record.cpp_name.startswith("Teza"):
                checker.error(
                    type_decl.name.position,
                    f"type '{record.name}' would be the C++ class {record.cpp_name}; names "
                    "starting with 'Teza' belong to the runtime",
                )
            else:
                cpp.claim(record.cpp_name, type_decl.name, "type")
        if ok:
            records[record.name] = record
        ns.records.append(record)

    typedef_decls = {}
    for td in decl.typedefs:
        if declare_type_name(td.name, "typedef"):
            typedef = Typedef(td.name.text, td.target.text, td.name.position)
            typedefs[typedef.name] = typedef
            typedef_decls[typedef.name] = td
            ns.typedefs.append(typedef)

    def unknown_type(name, what):
        message = f"unknown type '{name.text}' for {what}"
        known = list(BASIC_TYPES) + list(records) + list(typedefs)
        close = difflib.get_close_matches(name.text, known, n=1)
        if close:
            message += f" (did you mean '{close[0]}'?)"
        else:
            message += "; the basic types are " + ", ".join(BASIC_TYPES)
        checker.error(name.position, message)

    # Typedefs: follow each chain to its lowest-level type, reporting cycles once each.
    reported_cycles = set()
    broken = set()
    for typedef in ns.typedefs:
        path = [typedef.name]
        current = typedef
        while True:
            target = current.target
            if target in BASIC_TYPES:
                typedef.lowest_basic = BASIC_TYPES[target]
                break
            if target in records:
                typedef.chain.append(target)
                typedef.lowest_record = records[target]
                break
            if target in typedefs:
                if target in path:
                    cycle = path[path.index(target) :]
                    key = frozenset(cycle)
                    if key not in reported_cycles and typedef.name in cycle:
                        reported_cycles.add(key)
                        first = min(cycle, key=lambda n: typedef_decls[n].name.position)
                        start = cycle.index(first)
                        ordered = cycle[start:] + cycle[:start] + [first]
                        checker.error(
                            typedef_decls[first].name.position,
                            "typedef cycle: " + " = ".join(f"'{n}'" for n in ordered),
                        )
                    broken.add(typedef.name)
                    break
                typedef.chain.append(target)
                path.append(target)
                current = typedefs[target]
                continue
            if current is typedef:
                unknown_type(typedef_decls[typedef.name].target, f"typedef '{typedef.name}'")
            broken.add(typedef.name)
            break
        if typedef.name in broken:
            typedef.chain = []

    for type_decl, record in zip(decl.types, ns.records):
        check_fields(checker, record, type_decl, records, typedefs, broken, unknown_type)

    families = Scope(checker, "family")
    for api in decl.stray_apis:
        checker.error(
            api.name.position,
            f"API '{api.name.text}' has no family; declare it inside 'family NAME id N {{ ... }}'",
        )
    for fam_decl in decl.families:
        valid = checker.element_name(fam_decl.name, "family")
        unique = families.declare(fam_decl.name)
        interface_id = parse_interface_id(checker, fam_decl)
        if interface_id is not None:
            first = interface_ids.get(interface_id)
            if first is not None:
                checker.error(
                    fam_decl.interface_id.position,
                    f"duplicate interface id {interface_id}: family '{fam_decl.name.text}' "
                    f"has the same id as family '{first[0]}'",
                    first[1],
                    f"family '{first[0]}' was declared here",
                )
            else:
                interface_ids[interface_id] = (fam_decl.name.text, fam_decl.interface_id.position)
        family = Family(fam_decl.name.text, interface_id if interface_id is not None else 0)
        family.family_class = upper_camel(family.name) + "Family"
        family.interface_class = upper_camel(family.name) + "Interface"
        if valid and unique and checker.cpp_name(fam_decl.name, family.family_class, "family"):
            if family.family_class.startswith("Teza"):
                checker.error(
                    fam_decl.name.position,
                    f"family '{family.name}' would be the C++ class {family.family_class}; "
                    "names starting with 'Teza' belong to the runtime",
                )
            else:
                cpp.claim(family.family_class, fam_decl.name, "family")
                cpp.claim(family.interface_class, fam_decl.name, "family")
        ns.families.append(family)
        check_apis(checker, family, fam_decl, records, typedefs, unknown_type)

    cpp.claim(ns.factory_class, decl.name, "namespace")


def check_fields(checker, record, decl, records, typedefs, broken, unknown_type):
    names = Scope(checker, "field")
    members = CppScope(checker, RECORD_BASE_MEMBERS, "TezaFieldType")
    if len(decl.fields) > MAX_FIELDS:
        extra = decl.fields[MAX_FIELDS]
        checker.error(
            decl.name.position,
            f"type '{record.name}' has {len(decl.fields)} fields; a type holds at most "
            f"{MAX_FIELDS}",
            extra.name.position,
            f"field {MAX_FIELDS + 1} is '{extra.name.text}'",
        )
    for index, fd in enumerate(decl.fields):
        valid = checker.element_name(fd.name, "field")
        unique = names.declare(fd.name)
        flags = set()
        for flag in fd.flags:
            if flag.text in flags:
                checker.error(
                    flag.position, f"flag '{flag.text}' is given twice on field '{fd.name.text}'"
                )
            flags.add(flag.text)

        type_text = fd.type_name.text
        basic = record_type = None
        nested = False
        type_name = type_text
        if type_text in BASIC_TYPES:
            basic = BASIC_TYPES[type_text]
            type_name = basic.type_str
        elif type_text in records:
            record_type = records[type_text]
        elif type_text in typedefs:
            nested = True
            if type_text in broken:
                continue
            typedef = typedefs[type_text]
            basic, record_type = typedef.lowest_basic, typedef.lowest_record
        else:
            unknown_type(fd.type_name, f"field '{fd.name.text}'")
            continue

        encrypted = "encrypted" in flags
        if encrypted and (fd.is_array or record_type is not None):
            flag = next(f for f in fd.flags if f.text == "encrypted")
            shape = "an array" if fd.is_array else "a record"
            checker.error(
                flag.position,
                f"'encrypted' applies to single values of a basic type; field "
                f"'{fd.name.text}' is {shape}, which is always sent in the clear",
            )
        elif encrypted and basic is BASIC_TYPES["bool"]:
            flag = next(f for f in fd.flags if f.text == "encrypted")
            checker.error(
                flag.position,
                f"'encrypted' cannot be read back on a bool; field '{fd.name.text}' would be "
                "sent in the clear and always read as unset, since booleans are never "
                "encrypted and an encrypted field is read only from an encrypted value",
            )

        f = Field(
            name=fd.name.text,
            index=index,
            declared_type=type_text,
            basic=basic,
            record=record_type,
            type_name=type_name,
            is_array=fd.is_array,
            optional="optional" in flags,
            encrypted=encrypted,
            validate="validate" in flags,
            non_empty="non-empty" in flags,
            nested_typedef=nested,
        )
        f.camel = upper_camel(f.name)
        f.enum_name = "FIELD_" + upper_snake(f.name)
        if valid and unique and checker.cpp_name(fd.name, f.camel, "field"):
            accessors = ["set" + f.camel, "get" + f.camel, "is" + f.camel + "Set", f.enum_name]
            if basic is not None:
                accessors += ["set" + f.camel + "Raw", "get" + f.camel + "Raw"]
            for accessor in accessors:
                if not members.claim(accessor, fd.name, "field"):
                    break
        record.fields.append(f)


def parse_interface_id(checker, fam_decl):
    text = fam_decl.interface_id.text
    if re.fullmatch(r"[0-9]+", text) and int(text) <= MAX_INTERFACE_ID:
        return int(text)
    checker.error(
        fam_decl.interface_id.position,
        f"interface id '{text}' of family '{fam_decl.name.text}' is not a number from 0 to "
        f"{MAX_INTERFACE_ID}",
    )
    return None


def check_apis(checker, family, decl, records, typedefs, unknown_type):
    names = Scope(checker, "API")
    methods = CppScope(checker, INTERFACE_BASE_MEMBERS, "TezaInterface")
    nested = CppScope(checker)
    for index, api_decl in enumerate(decl.apis):
        valid = checker.element_name(api_decl.name, "API")
        unique = names.declare(api_decl.name, f" in family '{family.name}'")
        ends = {}
        for role in ("input", "output"):
            ref = getattr(api_decl, role)
            if ref is None:
                ends[role] = None
                continue
            if ref.text in records:
                ends[role] = records[ref.text]
                continue
            ends[role] = None
            if ref.text in BASIC_TYPES or ref.text in typedefs:
                kind = "a basic type" if ref.text in BASIC_TYPES else "a typedef"
                checker.error(
                    ref.position,
                    f"the {role} of API '{api_decl.name.text}' must be a type declared with "
                    f"'type'; '{ref.text}' is {kind}",
                )
            else:
                unknown_type(ref, f"the {role} of API '{api_decl.name.text}'")
        api = Api(api_decl.name.text, index, ends["input"], ends["output"])
        api.enum_name = upper_snake(api.name)
        api.method = not_keyword(lower_camel(api.name))
        api.tracker = upper_camel(api.name) + "Tracker"
        if valid and unique and checker.cpp_name(api_decl.name, api.tracker, "API"):
            if methods.claim(api.method, api_decl.name, "API"):
                nested.claim(api.tracker, api_decl.name, "API")
                nested.claim("API_" + api.enum_name, api_decl.name, "API")
        family.apis.append(api)
