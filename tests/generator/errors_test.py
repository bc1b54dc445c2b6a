"""teza-gen on bad schemas: each error names the file, the line and column and the problem,
the exit status is 1, and nothing at all is written."""

import os
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest

import goldens


class SchemaErrorTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="teza-gen-errors-")
        self.addCleanup(shutil.rmtree, self.tmp)
        self.out = os.path.join(self.tmp, "out")

    def generate(self, files, *options):
        names = []
        for name, text in files.items():
            with open(os.path.join(self.tmp, name), "w", encoding="utf-8") as f:
                f.write(textwrap.dedent(text))
            names.append(name)
        return subprocess.run(
            [sys.executable, goldens.GENERATOR, "--output-dir", self.out, *options, *names],
            cwd=self.tmp,
            capture_output=True,
            text=True,
        )

    def assert_errors(self, files, *expected, options=()):
        """`expected` are the error (and note) lines, in order; nothing may be written."""
        if isinstance(files, str):
            files = {"api.teza": files}
        result = self.generate(files, *options)
        count = sum(1 for line in expected if ": error: " in line)
        summary = f"teza-gen: {count} error{'s' if count != 1 else ''}; nothing was written"
        self.assertEqual(result.stderr.splitlines(), [*expected, summary])
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, "")
        self.assertFalse(os.path.exists(self.out), "an output was written for a bad schema")

    # --- the errors every schema writer meets ----------------------------------------------

    def test_unknown_type_of_a_field(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume { size : uint64; }
                type shelf {
                    main : volum;
                }
            }
            """,
            "api.teza:4:16: error: unknown type 'volum' for field 'main' (did you mean "
            "'volume'?)",
        )

    def test_unknown_type_without_a_close_name_lists_the_basic_types(self):
        self.assert_errors(
            """\
            namespace depot {
                type shelf { main : quux; }
            }
            """,
            "api.teza:2:25: error: unknown type 'quux' for field 'main'; the basic types are "
            "string, int32, uint32, int64, uint64, bool",
        )

    def test_unknown_type_of_a_typedef_and_of_an_api(self):
        self.assert_errors(
            """\
            namespace depot {
                typedef label = strng;
                family stock id 1 {
                    api stock-get input stock-request;
                }
            }
            """,
            "api.teza:2:21: error: unknown type 'strng' for typedef 'label' (did you mean "
            "'string'?)",
            "api.teza:4:29: error: unknown type 'stock-request' for the input of API "
            "'stock-get'; the basic types are string, int32, uint32, int64, uint64, bool",
        )

    def test_types_of_another_namespace_are_unknown(self):
        self.assert_errors(
            """\
            namespace a { type item { n : int32; } }
            namespace b { type box { i : item; } }
            """,
            "api.teza:2:30: error: unknown type 'item' for field 'i'; the basic types are "
            "string, int32, uint32, int64, uint64, bool",
        )

    def test_duplicate_type_name(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume { size : uint64; }
                typedef volume = string;
            }
            """,
            "api.teza:3:13: error: duplicate type name 'volume'",
            "api.teza:2:10: note: 'volume' was first declared here",
        )

    def test_duplicate_field(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume {
                    size : uint64;
                    name : string;
                    size : int32;
                }
            }
            """,
            "api.teza:5:9: error: duplicate field 'size'",
            "api.teza:3:9: note: 'size' was first declared here",
        )

    def test_duplicate_namespace_across_files(self):
        self.assert_errors(
            {
                "a.teza": "namespace depot { type x { n : int32; } }\n",
                "b.teza": "namespace depot { type y { n : int32; } }\n",
            },
            "b.teza:1:11: error: duplicate namespace 'depot'",
            "a.teza:1:11: note: 'depot' was first declared here",
        )

    def test_duplicate_family_api_and_interface_id(self):
        self.assert_errors(
            """\
            namespace depot {
                family stock id 1 {
                    api stock-get;
                    api stock-get;
                }
                family stock id 2 { }
                family audit id 1 { }
            }
            """,
            "api.teza:4:13: error: duplicate API 'stock-get' in family 'stock'",
            "api.teza:3:13: note: 'stock-get' was first declared here",
            "api.teza:6:12: error: duplicate family 'stock'",
            "api.teza:2:12: note: 'stock' was first declared here",
            "api.teza:7:21: error: duplicate interface id 1: family 'audit' has the same id as "
            "family 'stock'",
            "api.teza:2:21: note: family 'stock' was declared here",
        )

    def test_names_that_give_one_cpp_name(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume-info { a : int32; }
                type volume_info { a : int32; }
            }
            """,
            "api.teza:3:10: error: duplicate C++ name VolumeInfo: type 'volume_info' gives the "
            "same C++ name as type 'volume-info'",
            "api.teza:2:10: note: 'volume-info' was declared here",
        )

    def test_more_than_256_fields(self):
        fields = "".join(f"        f{i} : int32;\n" for i in range(257))
        self.assert_errors(
            "namespace depot {\n    type wide {\n" + fields + "    }\n}\n",
            "api.teza:2:10: error: type 'wide' has 257 fields; a type holds at most 256",
            "api.teza:259:9: note: field 257 is 'f256'",
        )

    def test_256_fields_are_accepted(self):
        fields = "".join(f"        f{i} : int32;\n" for i in range(256))
        with open(os.path.join(self.tmp, "api.teza"), "w") as f:
            f.write("namespace depot {\n    type wide {\n" + fields + "    }\n}\n")
        result = subprocess.run(
            [sys.executable, goldens.GENERATOR, "--output-dir", self.out, "api.teza"],
            cwd=self.tmp, capture_output=True, text=True,
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        with open(os.path.join(self.out, "api.h")) as f:
            self.assertIn("static constexpr int NUM_FIELDS = 256;", f.read())

    def test_typedef_cycle(self):
        self.assert_errors(
            """\
            namespace depot {
                typedef outer = middle;
                typedef middle = inner;
                typedef inner = outer;
                typedef leaf = outer;
                type holder { x : leaf; }
            }
            """,
            "api.teza:2:13: error: typedef cycle: 'outer' = 'middle' = 'inner' = 'outer'",
        )

    def test_typedef_of_itself(self):
        self.assert_errors(
            """\
            namespace depot {
                typedef loop = loop;
            }
            """,
            "api.teza:2:13: error: typedef cycle: 'loop' = 'loop'",
        )

    def test_api_without_a_family(self):
        self.assert_errors(
            """\
            namespace depot {
                type request { n : int32; }
                api stock-get input request;
            }
            api depot-ping;
            """,
            "api.teza:3:9: error: API 'stock-get' has no family; declare it inside "
            "'family NAME id N { ... }'",
            "api.teza:5:5: error: API 'depot-ping' has no family; declare it inside "
            "'family NAME id N { ... }' in a namespace",
        )

    def test_names_that_are_not_element_names(self):
        self.assert_errors(
            """\
            namespace 2depot {
                type vol$ { 9lives : int32; }
                family st@ck id 1 { api get(x); }
            }
            """,
            "api.teza:1:11: error: namespace '2depot' is not a valid element name: an element "
            "name starts with a letter or '_' and continues with letters, digits, '-', '_' or '.'",
            "api.teza:2:10: error: type 'vol$' is not a valid element name: an element name "
            "starts with a letter or '_' and continues with letters, digits, '-', '_' or '.'",
            "api.teza:2:17: error: field '9lives' is not a valid element name: an element name "
            "starts with a letter or '_' and continues with letters, digits, '-', '_' or '.'",
            "api.teza:3:12: error: family 'st@ck' is not a valid element name: an element name "
            "starts with a letter or '_' and continues with letters, digits, '-', '_' or '.'",
            "api.teza:3:29: error: API 'get(x)' is not a valid element name: an element name "
            "starts with a letter or '_' and continues with letters, digits, '-', '_' or '.'",
        )

    # --- syntax errors ---------------------------------------------------------------------

    def test_missing_semicolon_is_reported_where_it_belongs(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume {
                    name : string
                    size : uint64;
                }
            }
            """,
            "api.teza:3:22: error: expected ';' after field 'name'",
        )

    def test_unknown_flag(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume { name : string optonal; }
            }
            """,
            "api.teza:2:33: error: unknown flag 'optonal' (did you mean 'optional'?); the flags "
            "are optional, encrypted, validate, non-empty",
        )

    def test_unclosed_namespace(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume { name : string; }
            """,
            "api.teza:3:1: error: expected '}' to close namespace 'depot' opened at 1:1, found "
            "end of file",
        )

    def test_declaration_outside_a_namespace(self):
        self.assert_errors(
            "type volume { name : string; }\n",
            "api.teza:1:1: error: 'type' must be inside a namespace: namespace NAME { ... }",
        )

    def test_field_without_colon(self):
        self.assert_errors(
            """\
            namespace depot {
                type volume { name string; }
            }
            """,
            "api.teza:2:24: error: expected ':' after field name 'name', found 'string'",
        )

    def test_family_without_id(self):
        self.assert_errors(
            "namespace depot {\n    family stock {\n    }\n}\n",
            "api.teza:2:18: error: expected 'id' and the interface id after family 'stock', "
            "found '{'",
        )

    def test_syntax_errors_of_several_files_are_all_reported(self):
        self.assert_errors(
            {"a.teza": "namespace a {\n", "b.teza": "namespace b { type }\n"},
            "a.teza:2:1: error: expected '}' to close namespace 'a' opened at 1:1, found end of "
            "file",
            "b.teza:1:20: error: expected a type name after 'type', found '}'",
        )

    # --- further checks --------------------------------------------------------------------

    def test_encrypted_applies_to_single_basic_values(self):
        self.assert_errors(
            """\
            namespace depot {
                type secret { s : string; }
                type holder {
                    keys : string[] encrypted;
                    inner : secret encrypted;
                    pin : uint32 encrypted;
                }
            }
            """,
            "api.teza:4:25: error: 'encrypted' applies to single values of a basic type; field "
            "'keys' is an array, which is always sent in the clear",
            "api.teza:5:24: error: 'encrypted' applies to single values of a basic type; field "
            "'inner' is a record, which is always sent in the clear",
        )

    def test_encrypted_bool_is_refused_since_it_cannot_be_read_back(self):
        self.assert_errors(
            """\
            namespace depot {
                typedef switch = bool;
                type holder {
                    on : bool optional encrypted;
                    lever : switch encrypted;
                    pin : uint32 encrypted;
                }
            }
            """,
            "api.teza:4:28: error: 'encrypted' cannot be read back on a bool; field 'on' would "
            "be sent in the clear and always read as unset, since booleans are never encrypted "
            "and an encrypted field is read only from an encrypted value",
            "api.teza:5:24: error: 'encrypted' cannot be read back on a bool; field 'lever' "
            "would be sent in the clear and always read as unset, since booleans are never "
            "encrypted and an encrypted field is read only from an encrypted value",
        )

    def test_flag_given_twice(self):
        self.assert_errors(
            "namespace depot {\n    type t { a : int32 optional optional; }\n}\n",
            "api.teza:2:33: error: flag 'optional' is given twice on field 'a'",
        )

    def test_api_input_and_output_must_be_record_types(self):
        self.assert_errors(
            """\
            namespace depot {
                typedef label = string;
                family stock id 1 {
                    api stock-get input string output label;
                }
            }
            """,
            "api.teza:4:29: error: the input of API 'stock-get' must be a type declared with "
            "'type'; 'string' is a basic type",
            "api.teza:4:43: error: the output of API 'stock-get' must be a type declared with "
            "'type'; 'label' is a typedef",
        )

    def test_basic_type_names_cannot_be_declared(self):
        self.assert_errors(
            "namespace depot {\n    type bool { a : int32; }\n}\n",
            "api.teza:2:10: error: 'bool' is a basic type and cannot be declared as a type",
        )

    def test_accessors_must_not_hide_the_runtime_members(self):
        self.assert_errors(
            """\
            namespace depot {
                type t { meta-data : string; field-value : int32; }
                family stock id 1 { api invoke; api get-api-name; }
            }
            """,
            "api.teza:2:14: error: field 'meta-data' would generate the C++ name getMetaData, "
            "which TezaFieldType already has; rename it",
            "api.teza:2:34: error: field 'field-value' would generate the C++ name "
            "setFieldValue, which TezaFieldType already has; rename it",
            "api.teza:3:29: error: API 'invoke' would generate the C++ name invoke, which "
            "TezaInterface already has; rename it",
            "api.teza:3:41: error: API 'get-api-name' would generate the C++ name getApiName, "
            "which TezaInterface already has; rename it",
        )

    def test_names_of_the_runtime_are_refused(self):
        self.assert_errors(
            """\
            namespace TezaNS {
                type teza-field-type { a : int32; }
                family teza-interface id 1 { }
            }
            """,
            "api.teza:1:11: error: namespace 'TezaNS' would be the C++ namespace TezaNS; names "
            "starting with 'Teza' belong to the runtime",
            "api.teza:2:10: error: type 'teza-field-type' would be the C++ class TezaFieldType; "
            "names starting with 'Teza' belong to the runtime",
            "api.teza:3:12: error: family 'teza-interface' would be the C++ class "
            "TezaInterfaceFamily; names starting with 'Teza' belong to the runtime",
        )

    def test_interface_id_must_be_a_number(self):
        self.assert_errors(
            "namespace depot {\n    family stock id seven { }\n"
            "    family audit id 2147483648 { }\n}\n",
            "api.teza:2:21: error: interface id 'seven' of family 'stock' is not a number from 0 "
            "to 2147483647",
            "api.teza:3:21: error: interface id '2147483648' of family 'audit' is not a number "
            "from 0 to 2147483647",
        )

    def test_unreadable_schema(self):
        self.assert_errors(
            {},
            "missing.teza: error: cannot read the schema: No such file or directory",
            options=("missing.teza",),
        )

    def test_a_bad_schema_stops_the_good_ones_too(self):
        self.assert_errors(
            {
                "good.teza": "namespace a { type x { n : int32; } }\n",
                "bad.teza": "namespace b { type y { n : nothing; } }\n",
            },
            "bad.teza:1:28: error: unknown type 'nothing' for field 'n' (did you mean "
            "'string'?)",
        )

    def test_schemas_given_together_need_distinct_file_names(self):
        os.makedirs(os.path.join(self.tmp, "a"))
        os.makedirs(os.path.join(self.tmp, "b"))
        self.assert_errors(
            {
                "a/shop.teza": "namespace a { type x { n : int32; } }\n",
                "b/shop.v2.teza": "namespace b { type y { n : int32; } }\n",
            },
            "b/shop.v2.teza:1:1: error: duplicate module shop: schema files given together need "
            "distinct file names",
            "a/shop.teza:1:1: note: the other schema file",
        )

    def test_a_byte_order_mark_is_not_part_of_the_first_word(self):
        result = self.generate({"api.teza": "\ufeffnamespace a { type x { n : int32; } }\n"},
                               "--check")
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_check_writes_nothing_for_a_good_schema(self):
        result = self.generate({"api.teza": "namespace a { type x { n : int32; } }\n"}, "--check")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertFalse(os.path.exists(self.out))


if __name__ == "__main__":
    unittest.main()
