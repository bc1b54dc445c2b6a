"""Golden-file and stability tests of teza-gen's output."""

import filecmp
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import goldens


def read_tree(directory):
    files = {}
    for name in sorted(os.listdir(directory)):
        with open(os.path.join(directory, name), "rb") as f:
            files[name] = f.read()
    return files


class GoldenTest(unittest.TestCase):
    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="teza-gen-golden-")
        self.addCleanup(shutil.rmtree, self.tmp)

    def check_case(self, case):
        out = os.path.join(self.tmp, case)
        result = goldens.generate(case, out)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, "")
        expected = read_tree(os.path.join(goldens.GOLDEN, case))
        actual = read_tree(out)
        self.assertEqual(sorted(actual), sorted(expected), "the set of generated files differs")
        for name in expected:
            if actual[name] != expected[name]:
                diff = subprocess.run(
                    ["diff", "-u", os.path.join(goldens.GOLDEN, case, name),
                     os.path.join(out, name)],
                    capture_output=True, text=True,
                ).stdout
                self.fail(
                    f"{case}/{name} differs from its golden file; if the change is intended, "
                    f"run tests/generator/goldens.py --update\n{diff[:6000]}"
                )

    def test_everything(self):
        self.check_case("everything")

    def test_everything_records_only(self):
        self.check_case("everything-records-only")

    def test_two_modules_globals(self):
        self.check_case("two-modules-globals")

    def test_every_case_has_a_test(self):
        tested = {name[len("test_"):].replace("_", "-") for name in dir(self)
                  if name.startswith("test_") and name != "test_every_case_has_a_test"}
        self.assertLessEqual(set(goldens.CASES), tested)


class StabilityTest(unittest.TestCase):
    """The same schema gives the same bytes, whatever the run, the path or the directory."""

    def setUp(self):
        self.tmp = tempfile.mkdtemp(prefix="teza-gen-stable-")
        self.addCleanup(shutil.rmtree, self.tmp)

    def run_generator(self, cwd, schema, out):
        result = subprocess.run(
            [sys.executable, goldens.GENERATOR, "-o", out, schema],
            cwd=cwd, capture_output=True, text=True,
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        return read_tree(out)

    def test_two_runs_give_the_same_bytes(self):
        first = self.run_generator(goldens.SCHEMAS, "everything.teza",
                                   os.path.join(self.tmp, "a"))
        second = self.run_generator(goldens.SCHEMAS, "everything.teza",
                                    os.path.join(self.tmp, "b"))
        self.assertEqual(first, second)
        self.assertTrue(filecmp.cmp(os.path.join(self.tmp, "a", "everything.cpp"),
                                    os.path.join(self.tmp, "b", "everything.cpp"),
                                    shallow=False))

    def test_schema_location_does_not_matter(self):
        copy_dir = os.path.join(self.tmp, "elsewhere", "deeper")
        os.makedirs(copy_dir)
        shutil.copy(os.path.join(goldens.SCHEMAS, "everything.teza"), copy_dir)
        relative = self.run_generator(goldens.SCHEMAS, "everything.teza",
                                      os.path.join(self.tmp, "a"))
        absolute = self.run_generator(self.tmp, os.path.join(copy_dir, "everything.teza"),
                                      os.path.join(self.tmp, "b"))
        self.assertEqual(relative, absolute)

    def test_regenerating_into_the_same_directory_is_idempotent(self):
        out = os.path.join(self.tmp, "same")
        first = self.run_generator(goldens.SCHEMAS, "everything.teza", out)
        second = self.run_generator(goldens.SCHEMAS, "everything.teza", out)
        self.assertEqual(first, second)
        # No temporary files are left behind.
        self.assertEqual(sorted(os.listdir(out)),
                         ["everything.cpp", "everything.h", "teza_globals.cpp"])


class DocumentationExampleTest(unittest.TestCase):
    """The complete example of docs/schema.md generates what the page says it does."""

    def test_example_generates_as_documented(self):
        with open(os.path.join(goldens.ROOT, "docs", "schema.md"), encoding="utf-8") as f:
            page = f.read()
        match = re.search(r"`shop\.teza`:\n\n```\n(.*?)```", page, re.S)
        self.assertIsNotNone(match, "the complete example is missing from docs/schema.md")
        tmp = tempfile.mkdtemp(prefix="teza-gen-docs-")
        self.addCleanup(shutil.rmtree, tmp)
        with open(os.path.join(tmp, "shop.teza"), "w", encoding="utf-8") as f:
            f.write(match.group(1))
        result = subprocess.run(
            [sys.executable, goldens.GENERATOR, "-o", "out", "shop.teza"],
            cwd=tmp, capture_output=True, text=True,
        )
        self.assertEqual(result.returncode, 0, result.stderr)
        files = read_tree(os.path.join(tmp, "out"))
        self.assertEqual(sorted(files), ["shop.cpp", "shop.h", "teza_globals.cpp"])
        header = files["shop.h"].decode()
        source = files["shop.cpp"].decode()
        for declaration in (
            "    static constexpr int NUM_FIELDS = 18;",
            "    bool getOldPrices(int& count, const Price*& values) const;",
            "    TezaStatus articleGet(const ArticleGetRequest& input, ArticleGetReply& output);",
            "    TezaStatus articleAdd(const Article& input);",
            "    TezaStatus articleList(ArticleListReply& output);",
            "    TezaStatus shopPing();",
            "    static constexpr int INTERFACE_ID = 21;",
        ):
            self.assertIn(declaration + "\n", header)
        # The typedef chains of the page's Typedefs section.
        self.assertIn('static const char* const chain0[] = {"article-variant"};', source)
        self.assertIn('static const char* const chain1[] = {"variant-info", "article-variant"};',
                      source)
        self.assertIn('{"variant-info", std::begin(chain0), std::end(chain0)},', source)
        self.assertIn('{"variant-list", std::begin(chain1), std::end(chain1)},', source)
        self.assertNotIn('"colour-name", std::begin', source)


if __name__ == "__main__":
    unittest.main()
