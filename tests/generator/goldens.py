#!/usr/bin/env python3
"""The generator's golden files: which schemas with which options, and how to remake them.

    tests/generator/goldens.py --update    # regenerate every golden directory

Each case generates into a directory of its own under golden/; the golden test compares a
fresh run with it byte for byte and file for file.
"""

import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
GENERATOR = os.path.join(ROOT, "tools", "teza-gen", "teza-gen")
SCHEMAS = os.path.join(HERE, "schemas")
GOLDEN = os.path.join(HERE, "golden")

# name: (options, schema files)
CASES = {
    # Every feature, as a program generates it: records, factories, families, interfaces and
    # the program-wide functions.
    "everything": ([], ["everything.teza"]),
    # The same without interface classes and without the program-wide functions.
    "everything-records-only": (["--no-interfaces", "--no-globals"], ["everything.teza"]),
    # The program-wide functions of a program made of two schemas.
    "two-modules-globals": (["--globals-only"], ["depot.teza", "everything.teza"]),
}


def generate(case, output_dir):
    """Runs teza-gen for `case` into `output_dir`; returns the completed process."""
    options, schemas = CASES[case]
    # Relative schema paths, as a build would pass absolute ones: the output must not depend
    # on where the checkout is.
    return subprocess.run(
        [sys.executable, GENERATOR, "--output-dir", output_dir, *options, *schemas],
        cwd=SCHEMAS,
        capture_output=True,
        text=True,
    )


def update():
    for case in CASES:
        target = os.path.join(GOLDEN, case)
        os.makedirs(target, exist_ok=True)
        for name in os.listdir(target):
            os.unlink(os.path.join(target, name))
        result = generate(case, target)
        if result.returncode != 0:
            sys.exit(f"{case}: teza-gen failed:\n{result.stderr}")
        print(f"{case}: " + ", ".join(sorted(os.listdir(target))))


if __name__ == "__main__":
    if sys.argv[1:] != ["--update"]:
        sys.exit(__doc__)
    update()
