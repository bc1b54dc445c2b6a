"""The README's fan-out block compiles: the README's greeter schema is generated with teza-gen,
and the block is compiled as the body of a function that is given `hosts`, against the
public headers of the runtime, the fan-out library and librk.

    TEZA_CXX=c++ python3 -m unittest readme_fan_out_test
"""
import os
import re
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
BLOCK = re.compile(r"<!-- readme: ([\w.-]+) -->\n```\w*\n(.*?)```\n", re.S)

PROGRAM = """#include <stdio.h>
#include <chrono>
#include <string>
#include <vector>
#include "TezaFanOut.h"
#include "TezaServerConnection.h"
#include "greeter.h"

void fanOut(const std::vector<std::string>& hosts) {
%s}
"""


class ReadmeFanOutTest(unittest.TestCase):
    def test_block_compiles(self):
        with open(os.path.join(ROOT, "README.md"), encoding="utf-8") as f:
            blocks = dict(BLOCK.findall(f.read()))
        self.assertIn("fan-out", blocks)
        self.assertIn("greeter.teza", blocks)
        with tempfile.TemporaryDirectory(prefix="teza-readme-fan-out-") as tmp:
            schema = os.path.join(tmp, "greeter.teza")
            with open(schema, "w", encoding="utf-8") as f:
                f.write(blocks["greeter.teza"])
            subprocess.run([sys.executable, os.path.join(ROOT, "tools", "teza-gen", "teza-gen"),
                            "-o", tmp, schema], check=True)
            source = os.path.join(tmp, "fan_out.cpp")
            with open(source, "w", encoding="utf-8") as f:
                f.write(PROGRAM % blocks["fan-out"])
            result = subprocess.run(
                [os.environ.get("TEZA_CXX", "c++"), "-std=c++17", "-fsyntax-only", "-Wall",
                 "-Werror", "-I", tmp,
                 "-I", os.path.join(ROOT, "libs", "dynamic", "autoteza", "generator", "extinc"),
                 "-I", os.path.join(ROOT, "libs", "dynamic", "autoteza", "fleet", "extinc"),
                 "-I", os.path.join(ROOT, "libs", "dynamic", "rk", "include"), source],
                capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stderr)


if __name__ == "__main__":
    unittest.main()
