"""teza_generate() in a project of its own: generated at build time into the output
directory, compiled, and generated again when the schema changes; a bad schema fails the
build with the generator's message."""

import os
import shutil
import subprocess
import tempfile
import unittest

import goldens

SCHEMA = """\
namespace shop {
    type article {
        title : string non-empty;
    }
    family article id 5 {
        api article-add input article;
    }
}
"""


class TezaGenerateTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="teza-generate-")
        self.addCleanup(shutil.rmtree, self.tmp)
        self.build = os.path.join(self.tmp, "build")
        # A name with a second dot: the files are named after the part before the first.
        self.schema = os.path.join(self.tmp, "shop.v1.teza")
        self.write_schema(SCHEMA)
        includes = ";".join(
            os.path.join(goldens.ROOT, d)
            for d in ("libs/dynamic/autoteza/generator/extinc", "libs/dynamic/rk/include")
        )
        self.run_cmake(
            "-S", os.path.join(goldens.HERE, "consumer"), "-B", self.build, "-G", "Ninja",
            f"-DTEZA_SOURCE_DIR={goldens.ROOT}", f"-DSCHEMA={self.schema}",
            f"-DTEZA_INCLUDE_DIRS={includes}",
        )

    def write_schema(self, text):
        with open(self.schema, "w", encoding="utf-8") as f:
            f.write(text)

    def run_cmake(self, *args, check=True):
        result = subprocess.run(["cmake", *args], capture_output=True, text=True)
        if check:
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        return result

    def build_consumer(self, check=True):
        return self.run_cmake("--build", self.build, check=check)

    def header(self):
        with open(os.path.join(self.build, "generated", "shop.h"), encoding="utf-8") as f:
            return f.read()

    def test_generates_compiles_and_regenerates_on_change(self):
        self.build_consumer()
        self.assertEqual(sorted(os.listdir(os.path.join(self.build, "generated"))),
                         ["shop.cpp", "shop.h", "teza_globals.cpp"])
        self.assertNotIn("setPrice", self.header())
        self.assertNotIn("class ArticleInterface", self.header())

        # Nothing to do while nothing changed.
        self.assertIn("no work to do", self.build_consumer().stdout)

        self.write_schema(SCHEMA.replace("non-empty;", "non-empty;\n        price : int64;"))
        self.build_consumer()
        self.assertIn("void setPrice(int64_t value);", self.header())

    def test_a_bad_schema_fails_the_build_with_the_generator_message(self):
        self.write_schema(SCHEMA.replace("title : string", "title : strng"))
        result = self.build_consumer(check=False)
        self.assertNotEqual(result.returncode, 0)
        self.assertIn(
            f"{self.schema}:3:17: error: unknown type 'strng' for field 'title' (did you mean "
            "'string'?)",
            result.stdout,
        )
        self.assertFalse(os.path.exists(os.path.join(self.build, "generated", "shop.h")))


SECOND_SCHEMA = """\
namespace billing {
    type invoice {
        number : uint64;
    }
}
"""

# A project with several teza_generate() calls on one target; @CALLS@ stands for them.
SEVERAL_CALLS = """\
cmake_minimum_required(VERSION 3.20)
project(teza_generate_calls CXX)
set(CMAKE_CXX_STANDARD 17)
include(${TEZA_SOURCE_DIR}/cmake/TezaGenerate.cmake)
add_library(consumer OBJECT)
target_include_directories(consumer PRIVATE ${TEZA_INCLUDE_DIRS})
@CALLS@
"""


class SeveralCallsTest(unittest.TestCase):
    """teza_generate() called more than once for one target."""

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="teza-generate-calls-")
        self.addCleanup(shutil.rmtree, self.tmp)
        for name, text in (("shop.teza", SCHEMA), ("billing.teza", SECOND_SCHEMA)):
            with open(os.path.join(self.tmp, name), "w", encoding="utf-8") as f:
                f.write(text)

    def configure(self, calls):
        source = os.path.join(self.tmp, "project")
        os.makedirs(source, exist_ok=True)
        with open(os.path.join(source, "CMakeLists.txt"), "w", encoding="utf-8") as f:
            f.write(SEVERAL_CALLS.replace("@CALLS@", calls.replace("@TMP@", self.tmp)))
        includes = ";".join(
            os.path.join(goldens.ROOT, d)
            for d in ("libs/dynamic/autoteza/generator/extinc", "libs/dynamic/rk/include")
        )
        self.build = os.path.join(self.tmp, "build")
        shutil.rmtree(self.build, ignore_errors=True)
        return subprocess.run(
            ["cmake", "-S", source, "-B", self.build, "-G", "Ninja",
             f"-DTEZA_SOURCE_DIR={goldens.ROOT}", f"-DTEZA_INCLUDE_DIRS={includes}"],
            capture_output=True, text=True,
        )

    def assert_refused(self, calls, *expected):
        result = self.configure(calls)
        self.assertNotEqual(result.returncode, 0, result.stdout)
        # CMake wraps long messages; compare the words.
        words = " ".join(result.stderr.split())
        for text in ("give every schema of a target to one call",) + expected:
            self.assertIn(text, words)

    def test_two_calls_that_write_the_globals_are_refused(self):
        self.assert_refused(
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza)\n"
            "teza_generate(TARGET consumer SCHEMA @TMP@/billing.teza)\n",
            f"target 'consumer' already has code generated from {self.tmp}/shop.teza",
            f"(here also {self.tmp}/billing.teza)",
        )

    def test_globals_beside_another_call_are_refused(self):
        # The globals of the second call would not reach the first call's schema.
        self.assert_refused(
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza NO_GLOBALS)\n"
            "teza_generate(TARGET consumer SCHEMA @TMP@/billing.teza)\n",
            "target 'consumer' already has code generated from",
        )
        self.assert_refused(
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza @TMP@/billing.teza GLOBALS_ONLY)\n"
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza GLOBALS_ONLY)\n",
            "target 'consumer' already has code generated from",
        )

    def test_two_targets_writing_one_directory_are_refused(self):
        self.assert_refused(
            "add_library(other OBJECT)\n"
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza OUTPUT_DIR generated)\n"
            "teza_generate(TARGET other SCHEMA @TMP@/billing.teza OUTPUT_DIR generated)\n",
            "generated/teza_globals.cpp is written by an earlier call already",
        )

    def test_separate_schemas_with_one_globals_call_build(self):
        result = self.configure(
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza NO_GLOBALS NO_INTERFACES)\n"
            "teza_generate(TARGET consumer SCHEMA @TMP@/billing.teza NO_GLOBALS)\n"
            "teza_generate(TARGET consumer SCHEMA @TMP@/shop.teza @TMP@/billing.teza GLOBALS_ONLY)\n"
        )
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        built = subprocess.run(["cmake", "--build", self.build], capture_output=True, text=True)
        self.assertEqual(built.returncode, 0, built.stdout + built.stderr)
        generated = os.path.join(self.build, "teza_gen", "consumer")
        self.assertEqual(sorted(os.listdir(generated)),
                         ["billing.cpp", "billing.h", "shop.cpp", "shop.h", "teza_globals.cpp"])
        with open(os.path.join(generated, "teza_globals.cpp"), encoding="utf-8") as f:
            globals_text = f.read()
        self.assertIn("shop::registerTypeFactories();", globals_text)
        self.assertIn("billing::registerTypeFactories();", globals_text)


if __name__ == "__main__":
    unittest.main()
