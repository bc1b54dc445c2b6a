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


if __name__ == "__main__":
    unittest.main()
