"""docs/first-call.md against docs/examples/first_call.cpp: every example on the page is the
program's code as it stands, and the program prints what the page shows for it.

The page marks each example with "<!-- example: NAME -->" before its code block and
"<!-- output: NAME -->" before the block of what it prints; the program has the example
between "// [NAME]" and "// [end]" and prints its output after a line "== NAME". What differs
from run to run (time stamps, process ids, ports, tags, the assertion's source line) is
replaced by placeholders on both sides before comparing, and trailing spaces are ignored.
"""

import os
import re
import subprocess
import textwrap
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
PAGE = os.path.join(ROOT, "docs", "first-call.md")
SOURCE = os.path.join(ROOT, "docs", "examples", "first_call.cpp")

PAGE_BLOCK = re.compile(r"<!-- (example|output): ([a-z0-9-]+) -->\n```(\w+)\n(.*?)```\n", re.S)
SOURCE_EXAMPLE = re.compile(r"^[ \t]*// \[([a-z0-9-]+)\]\n(.*?)^[ \t]*// \[end\]\n", re.S | re.M)

VARYING = [
    (re.compile(r"pid:\d+"), "pid:PID"),
    # asctime() in the log, then the trace prefix
    (re.compile(r"[A-Z][a-z]{2} [A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \d{4}"), "LOCALTIME"),
    (re.compile(r"^[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d ", re.M), "UTCTIME "),
    (re.compile(r"127\.0\.0\.1:\d+"), "127.0.0.1:PORT"),
    (re.compile(r"port: \d+"), "port: PORT"),
    (re.compile(r"Tag: \d+"), "Tag: TAG"),
    (re.compile(r"\.cpp:\d+:"), ".cpp:LINE:"),
]


def normalised(text):
    for pattern, placeholder in VARYING:
        text = pattern.sub(placeholder, text)
    return "\n".join(line.rstrip() for line in text.split("\n")).strip("\n")


def page_blocks():
    with open(PAGE, encoding="utf-8") as f:
        text = f.read()
    blocks = {"example": {}, "output": {}}
    for kind, name, language, body in PAGE_BLOCK.findall(text):
        assert name not in blocks[kind], f"the page has two {kind} blocks named {name}"
        assert language == ("cpp" if kind == "example" else "text"), (kind, name, language)
        blocks[kind][name] = body
    # Every marker is followed by its block: a marker the pattern missed is an error.
    markers = re.findall(r"<!-- (?:example|output): [a-z0-9-]+ -->", text)
    assert len(markers) == len(blocks["example"]) + len(blocks["output"]), (
        "a marker of the page is not followed by a code block"
    )
    return blocks


def source_examples():
    with open(SOURCE, encoding="utf-8") as f:
        text = f.read()
    examples = {}
    for name, body in SOURCE_EXAMPLE.findall(text):
        assert name not in examples, f"the program has two examples named {name}"
        examples[name] = textwrap.dedent(body)
    return examples


def program_outputs():
    program = os.environ.get("TEZA_FIRST_CALL_EXAMPLES")
    if not program:
        raise unittest.SkipTest("TEZA_FIRST_CALL_EXAMPLES names no program (run through CTest)")
    result = subprocess.run([program], capture_output=True, text=True, timeout=60)
    if result.returncode != 0:
        raise AssertionError(
            f"{program} failed ({result.returncode}):\n{result.stdout}\n{result.stderr}"
        )
    outputs = {}
    name = None
    for line in result.stdout.split("\n"):
        heading = re.fullmatch(r"== ([a-z0-9-]+)", line)
        if heading:
            name = heading.group(1)
            outputs[name] = []
        elif name is not None:
            outputs[name].append(line)
    return {name: "\n".join(lines) for name, lines in outputs.items()}


class FirstCallPageTest(unittest.TestCase):
    def test_every_example_is_on_the_page_as_the_program_has_it(self):
        page = page_blocks()
        source = source_examples()
        self.assertTrue(source, "no examples found in first_call.cpp")
        self.assertEqual(sorted(page["example"]), sorted(source))
        self.assertEqual(sorted(page["output"]), sorted(source))
        for name, code in source.items():
            with self.subTest(example=name):
                self.assertEqual(page["example"][name], code)

    def test_the_program_prints_what_the_page_shows(self):
        page = page_blocks()
        outputs = program_outputs()
        self.assertEqual(sorted(outputs), sorted(page["output"]))
        for name, shown in page["output"].items():
            with self.subTest(example=name):
                self.assertEqual(normalised(outputs[name]), normalised(shown))


if __name__ == "__main__":
    unittest.main()
