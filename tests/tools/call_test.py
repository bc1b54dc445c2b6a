"""teza-call for people and scripts: --list and --describe of a server that describes itself,
arguments checked before anything is sent, --output json read back with a JSON parser and
compared with what was sent, --input, exit statuses, --unix, --encryption-key-file, and the
same calls against a server that does not describe itself.

The programs come from the environment: TEZA_CALL and TEZAD; teza-gen from the source tree."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(os.path.dirname(HERE))
GEN = os.path.join(ROOT, "tools", "teza-gen", "teza-gen")
CALL = os.environ.get("TEZA_CALL", "")
TEZAD = os.environ.get("TEZAD", "")
TIMEOUT = 60
PASSWORD = "pw-call-9d41"

INT64_MIN = -(2**63)
UINT64_MAX = 2**64 - 1

# Values of every kind of field of tests/tools/echo.teza, in JSON.
VALUES = {
    "i32": -2147483648,
    "u32": 4294967295,
    "i64": INT64_MIN,
    "u64": UINT64_MAX,
    "flag": False,
    "text": 'a <b> & "c"',
    "secret": "s3cr3t",
    "point": {"x": 1, "y": -2},
    "origin": {"x": 0, "y": 2147483647},
    "labels": ["only"],
    "numbers": [UINT64_MAX],
    "export-rules": [{"client-match": "a", "read-only": True}, {"client-match": "b"}],
}


def run(args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=TIMEOUT, **kwargs)


class Tezad:
    def __init__(self, *args):
        self.process = subprocess.Popen(
            [TEZAD, "--listen", "127.0.0.1", "--port", "0", *args],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.match(r"tezad: listening on (http://127\.0\.0\.1:(\d+)|unix:.*)\n",
                         line)
        if not match:
            self.stop()
            raise AssertionError("tezad did not start: " + line + self.process.stderr.read())
        self.port = match.group(2)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.process.communicate(timeout=TIMEOUT)


class CallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for name, path in (("TEZA_CALL", CALL), ("TEZAD", TEZAD)):
            if not os.access(path, os.X_OK):
                raise unittest.SkipTest(f"{name} does not name a program: {path!r}")
        cls.tmp = tempfile.mkdtemp(prefix="teza-call-")
        cls.echo_description = os.path.join(cls.tmp, "echo.xml")
        result = run([sys.executable, GEN, "--describe-out", cls.echo_description,
                      os.path.join(HERE, "echo.teza")])
        if result.returncode != 0:
            raise AssertionError(result.stderr)
        cls.echo_script = os.path.join(cls.tmp, "echo.script")
        with open(cls.echo_script, "w") as f:
            f.write("echo echo\n")
            f.write("bad pass <i32>abc</i32><u32>5497558138880</u32><flag>maybe</flag>"
                    "<u64>18446744073709551616</u64><i64>-9223372036854775808</i64>\n")
        cls.silent_script = os.path.join(cls.tmp, "silent.script")
        with open(cls.silent_script, "w") as f:
            f.write('system-api-describe fail 15005 unknown API "system-api-describe"\n')
            f.write('system-api-list fail 15005 unknown API "system-api-list"\n')
            f.write("echo echo\n")
        cls.password_file = os.path.join(cls.tmp, "password")
        with open(cls.password_file, "w") as f:
            f.write(PASSWORD + "\n")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def start(self, *args):
        server = Tezad("--user", "admin:" + PASSWORD, *args)
        self.addCleanup(server.stop)
        return server

    def call(self, server, *args, **kwargs):
        return run([CALL, "--host", "127.0.0.1", "--port", server.port, "--user", "admin",
                    "--password-file", self.password_file, *args], **kwargs)

    def calls_of(self, server, api):
        result = self.call(server, "--output", "json", "system-get-counters")
        self.assertEqual(result.returncode, 0, result.stderr)
        for entry in json.loads(result.stdout)["result"].get("api-calls", []):
            if entry["api"] == api:
                return entry["calls"]
        return 0

    # --- --list and --describe --------------------------------------------------------------

    def test_list_prints_every_api_with_its_types(self):
        server = self.start()
        result = self.call(server, "--list")
        self.assertEqual(result.returncode, 0, result.stderr)
        lines = result.stdout.splitlines()
        self.assertEqual(len(lines), 13)
        self.assertRegex(result.stdout, r"(?m)^account-create +account-create-request +-> "
                         r"account-create-reply$")
        self.assertRegex(result.stdout, r"(?m)^account-list +- +-> account-list-reply$")
        self.assertRegex(result.stdout, r"(?m)^job-cancel +job-id +-> -$")
        # The demo service in teza-call's own process describes itself alike.
        in_process = run([CALL, "--in-process", "--list"])
        self.assertEqual(in_process.returncode, 0, in_process.stderr)
        self.assertEqual(in_process.stdout, result.stdout)
        listed = json.loads(self.call(server, "--list", "--output", "json").stdout)
        self.assertEqual(listed["apis"][4], {
            "name": "account-create", "namespace": "demo", "family": "account",
            "input": "account-create-request", "output": "account-create-reply"})

    def test_describe_prints_a_tree_and_schema_text(self):
        server = self.start()
        result = self.call(server, "--describe", "account-create")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout, """\
account-create (namespace demo, family account)
input: account-create-request
  name : string  non-empty validate
  full-name : string  optional
  quota : int64  optional
  enabled : bool  optional
  secret : string  optional encrypted
  address : address  optional
    street : string  optional
    city : string  optional
  tags : tag[] (string)  optional
output: account-create-reply
  account-id : int64
""")
        result = self.call(server, "--describe", "account-get", "--format", "teza")
        self.assertEqual(result.returncode, 0, result.stderr)
        schema = os.path.join(self.tmp, "account-get.teza")
        with open(schema, "w") as f:
            f.write(result.stdout)
        self.assertIn("    family account id 1 {\n"
                      "        api account-get input account-name output account-get-reply;\n",
                      result.stdout)
        check = run([sys.executable, GEN, "--check", schema])
        self.assertEqual(check.returncode, 0, check.stderr + result.stdout)

    def test_describe_an_unknown_api(self):
        server = self.start()
        result = self.call(server, "--describe", "account-craete")
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stderr,
                         "teza-call: the server does not describe account-craete\n")

    # --- Arguments checked before anything is sent -----------------------------------------

    def test_arguments_are_checked_before_anything_is_sent(self):
        server = self.start()
        cases = (
            (["nmae=ada"], 'teza-call: unknown name "nmae": account-create\'s input '
                           "account-create-request has no such field; did you mean name?\n"),
            (["name=ada", "quota=12x"], 'teza-call: quota is int64: "12x" is not a whole '
                                        "number\n"),
            (["name=ada", "quota=9223372036854775808"],
             "teza-call: quota is int64: 9223372036854775808 is outside the range of int64\n"),
            (["name=ada", "enabled=maybe"], 'teza-call: enabled is bool: "maybe" is not a '
                                            "boolean (true or false)\n"),
            (["name=ada", "address/town=Oslo"],
             'teza-call: address/town: unknown name "town": address address has no such field; '
             "its fields are street, city\n"),
            (["name=ada", "tags/tg=x"],
             'teza-call: tags/tg: after tags comes <tag>, not "tg"\n'),
        )
        for arguments, message in cases:
            result = self.call(server, "account-create", *arguments)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertEqual(result.stdout, "")
            self.assertEqual(result.stderr, message)
        self.assertEqual(self.calls_of(server, "account-create"), 0)
        # A checked call passes, its secret encrypted without --secret.
        result = self.call(server, "account-create", "name=ada", "quota=5", "enabled=yes",
                           "secret=s1", "address/city=Oslo", "tags/tag=x")
        self.assertEqual(result.returncode, 0, result.stderr)
        result = self.call(server, "--output", "json", "account-verify-secret", "name=ada",
                           "secret=s1")
        self.assertEqual(json.loads(result.stdout)["result"], {"matches": True})

    # --- --output json and --input ----------------------------------------------------------

    def echo_server(self, *args):
        return self.start("--no-demo", "--describe", self.echo_description, "--script",
                          self.echo_script, *args)

    def test_json_output_is_typed_by_the_description(self):
        server = self.echo_server()
        result = self.call(
            server, "--output", "json", "echo", "i32=-2147483648", "u32=4294967295",
            f"i64={INT64_MIN}", f"u64={UINT64_MAX}", "flag=false", 'text=a <b> & "c"',
            "secret=s3cr3t", "point/x=1", "point/y=-2", "origin/point/x=0",
            "origin/point/y=2147483647", "labels/label=only", f"numbers/integer={UINT64_MAX}",
            "export-rules/rule[0]/client-match=a", "export-rules/rule[0]/read-only=true",
            "export-rules/rule[1]/client-match=b")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, "")
        answer = json.loads(result.stdout)
        self.assertEqual(answer, {"status": "passed", "result": {"echo": VALUES}})
        self.assertIsInstance(answer["result"]["echo"]["u64"], int)

    def test_input_round_trip(self):
        server = self.echo_server()
        path = os.path.join(self.tmp, "values.json")
        with open(path, "w") as f:
            json.dump(VALUES, f)
        result = self.call(server, "--output", "json", "--input", path, "echo")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json.loads(result.stdout)["result"]["echo"], VALUES)
        # From standard input, with an argument added after it.
        result = self.call(server, "--output", "json", "--input", "-", "echo", "text=more",
                           input=json.dumps({"i32": 7}))
        self.assertEqual(json.loads(result.stdout)["result"]["echo"], {"i32": 7, "text": "more"})
        # Checked as arguments are.
        result = self.call(server, "--input", "-", "echo", input=json.dumps({"u32": -1}))
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stderr, "teza-call: --input -: u32 is uint32: \"-1\" is not a "
                                        "whole number\n")
        result = self.call(server, "--input", "-", "echo", input='{"export-rules": [{"x": 1}]}')
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stderr, 'teza-call: --input -: unknown name "x": '
                                        "export-rules[0] rule has no such field; its fields are "
                                        "client-match, read-only\n")

    def test_values_that_do_not_fit_stay_text_and_are_named(self):
        server = self.echo_server()
        result = self.call(server, "--output", "json", "bad")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json.loads(result.stdout)["result"], {
            "i32": "abc", "u32": "5497558138880", "i64": INT64_MIN,
            "u64": "18446744073709551616", "flag": "maybe"})
        self.assertEqual(result.stderr.splitlines(), [
            'teza-call: i32 is int32, but "abc" is not a whole number; kept as text',
            "teza-call: u32 is uint32, but 5497558138880 is outside the range of uint32; kept "
            "as text",
            "teza-call: u64 is uint64, but 18446744073709551616 is outside the range of uint64; "
            "kept as text",
            'teza-call: flag is bool, but "maybe" is not a boolean (true or false); kept as text',
        ])

    def test_json_output_reads_typedef_chains_in_the_result_shape(self):
        # The result shapes of docs/schema.md ("Typedef chains"): one level less than a request.
        description = os.path.join(self.tmp, "everything.xml")
        run([sys.executable, GEN, "--describe-out", description,
             os.path.join(ROOT, "tests", "generator", "schemas", "everything.teza")])
        script = os.path.join(self.tmp, "warehouse.script")
        with open(script, "w") as f:
            f.write(
                "stock-list pass <name>w</name><labels>L</labels>"
                "<label-items><shelf-label>p</shelf-label><shelf-label>q</shelf-label>"
                "</label-items><main-shelf><shelf-info><label>m</label><scalars><text>t</text>"
                "<count>4294967295</count></scalars></shelf-info></main-shelf>"
                "<shelves><shelf-entry><shelf-info><shelf><label>s1</label></shelf></shelf-info>"
                "</shelf-entry><shelf-entry><shelf-info><shelf><label>s2</label>"
                "<items><scalars><enabled>on</enabled></scalars></items></shelf></shelf-info>"
                "</shelf-entry></shelves><size-alias>18446744073709551615</size-alias>\n")
        server = self.start("--no-demo", "--describe", description, "--script", script)
        result = self.call(server, "--output", "json", "stock-list")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stderr, "")
        self.assertEqual(json.loads(result.stdout)["result"], {
            "name": "w", "labels": "L", "label-items": ["p", "q"],
            "main-shelf": {"label": "m", "scalars": {"text": "t", "count": 4294967295}},
            "shelves": [{"label": "s1"}, {"label": "s2", "items": [{"enabled": True}]}],
            "size-alias": UINT64_MAX})

    def test_json_input_and_paths_give_the_request_shapes(self):
        # The request shapes of docs/schema.md, from JSON and from checked paths alike.
        description = os.path.join(self.tmp, "shapes.xml")
        run([sys.executable, GEN, "--describe-out", description,
             os.path.join(ROOT, "tests", "generator", "schemas", "shapes.teza")])
        script = os.path.join(self.tmp, "shapes.script")
        with open(script, "w") as f:
            f.write("article-add echo\n")
        server = self.start("--no-demo", "--describe", description, "--script", script)
        expected = (
            "<list-price><price><amount>2</amount><currency>EUR</currency></price></list-price>"
            "<old-prices><price><amount>1</amount><currency>EUR</currency></price></old-prices>"
            "<shades><shade-name><colour-name>teal</colour-name><colour-name>navy</colour-name>"
            "</shade-name></shades>"
            "<variant><variant-info><article-variant><sku>A-1</sku></article-variant>"
            "</variant-info></variant>"
            "<variants><variant-info><article-variant><sku>A-1</sku></article-variant>"
            "<article-variant><sku>A-2</sku></article-variant></variant-info></variants>")
        from_json = self.call(server, "--input", "-", "article-add", input=json.dumps({
            "list-price": {"amount": 2, "currency": "EUR"},
            "old-prices": [{"amount": 1, "currency": "EUR"}],
            "shades": ["teal", "navy"],
            "variant": {"sku": "A-1"},
            "variants": [{"sku": "A-1"}, {"sku": "A-2"}]}))
        from_paths = self.call(
            server, "article-add", "list-price/price/amount=2", "list-price/price/currency=EUR",
            "old-prices/price/amount=1", "old-prices/price/currency=EUR",
            "shades/shade-name/colour-name=teal", "shades/shade-name/colour-name=navy",
            "variant/variant-info/article-variant/sku=A-1",
            "variants/variant-info/article-variant[0]/sku=A-1",
            "variants/variant-info/article-variant[1]/sku=A-2")
        for result in (from_json, from_paths):
            self.assertEqual(result.returncode, 0, result.stderr)
            flat = re.sub(r">\s+<", "><", result.stdout)
            self.assertIn("<article-add>" + expected + "</article-add>", flat)
        wrong = self.call(server, "article-add", "variant/article-variant/sku=A-1")
        self.assertEqual(wrong.returncode, 2)
        self.assertEqual(wrong.stderr, "teza-call: variant/article-variant/sku: after variant "
                                       'comes <variant-info>, not "article-variant"\n')

    def test_a_server_without_introspection(self):
        server = self.start("--no-demo", "--script", self.silent_script)
        result = self.call(server, "--list")
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stderr, "teza-call: the server does not describe itself: it "
                                        "does not answer system-api-list\n")
        result = self.call(server, "--describe", "echo")
        self.assertEqual(result.returncode, 2)
        # Calls go out unchecked, and JSON holds texts.
        result = self.call(server, "--output", "json", "echo", "i32=12x", "point/x=1",
                           "labels/label=only", "export-rules/rule[0]/client-match=a",
                           "export-rules/rule[1]/client-match=b")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json.loads(result.stdout)["result"], {"echo": {
            "i32": "12x", "point": {"x": "1"}, "labels": {"label": "only"},
            "export-rules": {"rule": [{"client-match": "a"}, {"client-match": "b"}]}}})
        result = self.call(server, "--output", "json", "--input", "-", "echo",
                           input=json.dumps({"export-rules": {"rule": [{"client-match": "a"},
                                                                       {"client-match": "b"}]},
                                             "flag": True}))
        self.assertEqual(json.loads(result.stdout)["result"], {"echo": {
            "export-rules": {"rule": [{"client-match": "a"}, {"client-match": "b"}]},
            "flag": "true"}})

    # --- Exit statuses, transports, keys -----------------------------------------------------

    def test_exit_statuses(self):
        server = self.start()
        result = self.call(server, "--output", "json", "account-get", "name=nobody")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(json.loads(result.stdout), {
            "status": "failed", "errno": 15102, "reason": 'no account named "nobody"'})
        holder = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(holder.close)
        holder.bind(("127.0.0.1", 0))
        port = str(holder.getsockname()[1])
        result = run([CALL, "--host", "127.0.0.1", "--port", port, "--style", "none",
                      "--output", "json", "account-list"])
        self.assertEqual(result.returncode, 3)
        self.assertEqual(json.loads(result.stdout)["errno"], 13055)
        self.assertEqual(result.stderr, "teza-call: account-list failed: error 13055: "
                                        f"connection refused by http://127.0.0.1:{port}\n")
        # A host name that is not UTF-8, quoted in the reason, in JSON.
        result = run([CALL, "--host", b"\xff.invalid", "--port", port, "--style", "none",
                      "--output", "json", "account-list"], errors="replace")
        self.assertEqual(result.returncode, 2)
        self.assertEqual(json.loads(result.stdout), {
            "status": "failed", "errno": 13013,
            "reason": "host '\ufffd.invalid' is not a host name or address"})
        result = run([CALL, "--list", "account-list"])
        self.assertEqual(result.returncode, 2)
        help_text = run([CALL, "--help"]).stdout
        for words in ("--list", "--describe API", "--output json", "--input FILE|-", "--unix",
                      "--encryption-key-file", "export-rules/export-rule[1]/client-match=b",
                      "Exit status: 0 passed; 1 the server answered with a failure; 2 usage or "
                      "local error;\n3 the server could not be reached"):
            self.assertIn(words, help_text)

    def test_unix_socket(self):
        path = os.path.join(self.tmp, "call.sock")
        self.start("--unix", path)
        result = run([CALL, "--unix", path, "--user", "admin", "--password-file",
                      self.password_file, "--output", "json", "account-list"])
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(json.loads(result.stdout)["result"], {"count": 0, "accounts": []})

    def test_encryption_key_from_a_file(self):
        key = os.path.join(self.tmp, "key")
        with open(key, "w") as f:
            f.write("k-call-5512\n")
        server = self.start("--key", "k-call-5512")
        result = self.call(server, "--encryption-key-file", key, "account-create", "name=ada",
                           "secret=s1")
        self.assertEqual(result.returncode, 0, result.stderr)
        result = self.call(server, "--encryption-key-file", key, "--output", "json",
                           "account-get", "name=ada")
        self.assertEqual(json.loads(result.stdout)["result"]["account-info"]["secret"], "s1")
        # Without the key, the server cannot decrypt what is sent.
        result = self.call(server, "account-verify-secret", "name=ada", "secret=s1")
        self.assertEqual(result.returncode, 1)
        self.assertIn("error 15105", result.stderr)
        result = self.call(server, "--encryption-key-file", os.path.join(self.tmp, "none"),
                           "account-list")
        self.assertEqual(result.returncode, 2)


if __name__ == "__main__":
    unittest.main()
