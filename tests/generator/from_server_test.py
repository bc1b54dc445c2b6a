"""Servers that describe themselves, seen from teza-gen: the description tezad publishes
matches the schema it was made from, field by field; `teza-gen --from-server` turns it back
into a schema whose C++ is byte-identical to the original's; and each way of failing to
fetch it says what failed.

tezad comes from the environment (TEZAD)."""

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
GEN_DIR = os.path.join(ROOT, "tools", "teza-gen")
GEN = os.path.join(GEN_DIR, "teza-gen")
DEMO_SCHEMA = os.path.join(ROOT, "demo", "demo.teza")
EVERYTHING = os.path.join(HERE, "schemas", "everything.teza")
TEZAD = os.environ.get("TEZAD", "")
TIMEOUT = 60
PASSWORD = "pw-describe-31c7"

sys.path.insert(0, GEN_DIR)
from tezagen import model, parser, remote  # noqa: E402


def run(args):
    return subprocess.run(args, capture_output=True, text=True, timeout=TIMEOUT)


class Tezad:
    """A tezad on a free loopback port (or a Unix socket), stopped with SIGTERM."""

    def __init__(self, *args):
        self.process = subprocess.Popen(
            [TEZAD, "--listen", "127.0.0.1", "--port", "0", *args],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.match(r"tezad: listening on (\S+)\n", line)
        if not match:
            self.stop()
            raise AssertionError("tezad did not start: " + line + self.process.stderr.read())
        self.url = match.group(1)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.process.communicate(timeout=TIMEOUT)


def read_tree(directory):
    files = {}
    for name in sorted(os.listdir(directory)):
        with open(os.path.join(directory, name), "rb") as f:
            files[name] = f.read()
    return files


class FromServerTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not os.access(TEZAD, os.X_OK):
            raise unittest.SkipTest(f"TEZAD does not name a program: {TEZAD!r}")
        cls.tmp = tempfile.mkdtemp(prefix="teza-describe-")
        cls.password_file = os.path.join(cls.tmp, "password")
        with open(cls.password_file, "w") as f:
            f.write(PASSWORD + "\n")
        cls.wrong_password_file = os.path.join(cls.tmp, "wrong")
        with open(cls.wrong_password_file, "w") as f:
            f.write("not-" + PASSWORD + "\n")
        cls.everything_description = os.path.join(cls.tmp, "everything.xml")
        result = run([sys.executable, GEN, "--describe-out", cls.everything_description,
                      EVERYTHING])
        if result.returncode != 0:
            raise AssertionError(result.stderr)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def start(self, *args):
        server = Tezad(*args)
        self.addCleanup(server.stop)
        return server

    def directory(self, name):
        base = os.path.join(self.tmp, self.id().split(".")[-1])
        os.makedirs(base, exist_ok=True)
        return tempfile.mkdtemp(prefix=name + "-", dir=base)

    def generate(self, schema, name):
        out = self.directory(name)
        result = run([sys.executable, GEN, "-o", out, schema])
        self.assertEqual(result.returncode, 0, result.stderr)
        return read_tree(out)

    def from_server(self, url, *args, stem):
        out = self.directory("fetched")
        schema = os.path.join(out, stem + ".teza")
        result = run([sys.executable, GEN, "--from-server", url, "--schema-out", schema,
                      "-o", out, *args])
        return result, out, schema

    # --- The description matches its schema -------------------------------------------------

    def check_matches_schema(self, schema_path, endpoint, skip_namespaces=()):
        modules = model.build([parser.parse_file(schema_path)])
        listed = endpoint.call("system-api-list")
        self.assertEqual(listed.findtext("description-version"), "1")
        served = {}
        for api in listed.find("apis"):
            served[api.findtext("name")] = (api.findtext("namespace"), api.findtext("family"),
                                            api.findtext("input"), api.findtext("output"))
        expected_apis = {}
        for ns in modules[0].namespaces:
            for family in ns.families:
                for api in family.apis:
                    expected_apis[api.name] = (
                        ns.name, family.name, api.input.name if api.input else None,
                        api.output.name if api.output else None)
        self.assertEqual({k: v for k, v in served.items() if v[0] not in skip_namespaces},
                         expected_apis)

        for ns in modules[0].namespaces:
            for record in ns.records:
                answer = endpoint.call("system-api-describe",
                                       [("type", record.name), ("namespace", ns.name)])
                described = answer.find("namespaces")[0]
                self.assertEqual(described.findtext("name"), ns.name)
                types = {t.findtext("name"): t for t in described.find("types")}
                fields = list(types[record.name].find("fields"))
                self.assertEqual(len(fields), len(record.fields), record.name)
                for f, element in zip(record.fields, fields):
                    where = f"{ns.name}/{record.name}/{f.name}"
                    self.assertEqual(element.findtext("name"), f.name, where)
                    self.assertEqual(element.findtext("type"), f.declared_type, where)
                    self.assertEqual(element.findtext("basic"),
                                     f.basic.name if f.basic else None, where)
                    self.assertEqual(element.findtext("record"),
                                     f.record.name if f.record else None, where)
                    for flag, value in (("array", f.is_array), ("optional", f.optional),
                                        ("encrypted", f.encrypted), ("non-empty", f.non_empty),
                                        ("validate", f.validate),
                                        ("nested-typedef", f.nested_typedef)):
                        self.assertEqual(element.findtext(flag), "true" if value else "false",
                                         f"{where} {flag}")
            typedefs = {}
            whole = endpoint.call("system-api-describe", [("namespace", ns.name)])
            for t in whole.find("namespaces")[0].find("typedefs"):
                typedefs[t.findtext("name")] = (
                    t.findtext("target"), [n.text for n in t.find("chain")],
                    t.findtext("basic"), t.findtext("record"))
            self.assertEqual(typedefs, {
                t.name: (t.target, t.chain, t.lowest_basic.name if t.lowest_basic else None,
                         t.lowest_record.name if t.lowest_record else None)
                for t in ns.typedefs})

    def test_the_demo_description_matches_demo_teza(self):
        server = self.start("--user", "admin:" + PASSWORD)
        endpoint = remote.Endpoint(server.url, login="admin", password=PASSWORD)
        self.check_matches_schema(DEMO_SCHEMA, endpoint, skip_namespaces=("teza-system",))

    def test_the_builtin_description_matches_builtin_teza(self):
        server = self.start("--no-demo")
        self.check_matches_schema(os.path.join(ROOT, "server", "builtin.teza"),
                                  remote.Endpoint(server.url))

    def test_a_described_file_matches_everything_teza(self):
        server = self.start("--no-demo", "--describe", self.everything_description)
        self.check_matches_schema(EVERYTHING, remote.Endpoint(server.url),
                                  skip_namespaces=("teza-system",))

    # --- Round trips --------------------------------------------------------------------------

    def test_demo_round_trip_gives_byte_identical_cpp(self):
        server = self.start("--user", "admin:" + PASSWORD)
        result, out, schema = self.from_server(
            server.url, "--user", "admin", "--password-file", self.password_file, stem="demo")
        self.assertEqual(result.returncode, 0, result.stderr)
        fetched = read_tree(out)
        del fetched["demo.teza"]
        self.assertEqual(fetched, self.generate(DEMO_SCHEMA, "original"))
        # The schema is written as a person would: declarations one a line, fields aligned.
        with open(schema) as f:
            text = f.read()
        self.assertIn("    type account-create-request {\n"
                      "        name      : string   non-empty validate;\n"
                      "        full-name : string   optional;\n", text)
        self.assertIn("        api account-get            input account-name                   "
                      "output account-get-reply;\n"
                      "        api account-list                                                "
                      "output account-list-reply;\n"
                      "        api account-delete         input account-name;\n", text)
        self.assertNotIn("teza-system", text)

    def test_everything_round_trip_through_describe_gives_byte_identical_cpp(self):
        server = self.start("--no-demo", "--describe", self.everything_description)
        result, out, _ = self.from_server(server.url, stem="everything")
        self.assertEqual(result.returncode, 0, result.stderr)
        fetched = read_tree(out)
        del fetched["everything.teza"]
        self.assertEqual(fetched, self.generate(EVERYTHING, "original"))

    def test_round_trip_over_a_unix_socket(self):
        path = os.path.join(self.tmp, "describe.sock")
        self.start("--unix", path)
        result, out, _ = self.from_server("unix:" + path, stem="demo")
        self.assertEqual(result.returncode, 0, result.stderr)
        fetched = read_tree(out)
        del fetched["demo.teza"]
        self.assertEqual(fetched, self.generate(DEMO_SCHEMA, "original"))

    def test_without_an_output_directory_only_the_schema_is_written(self):
        server = self.start()
        out = self.directory("schema-only")
        schema = os.path.join(out, "demo.teza")
        result = run([sys.executable, GEN, "--from-server", server.url, "--schema-out", schema])
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(os.listdir(out), ["demo.teza"])
        check = run([sys.executable, GEN, "--check", schema])
        self.assertEqual(check.returncode, 0, check.stderr)

    def test_tezad_refuses_a_description_it_cannot_read(self):
        broken = os.path.join(self.tmp, "broken.xml")
        with open(broken, "w") as f:
            f.write("<teza-description><description-version>1</description-version>"
                    "<namespaces><namespace><name>x</name><types/><families><family>"
                    "<name>f</name><id>1</id><apis><api><name>a</name><input>missing</input>"
                    "</api></apis></family></families></namespace></namespaces>"
                    "</teza-description>")
        for path, message in (
                (broken, f"tezad: {broken}: namespace \"x\": API \"a\" names the type "
                         "\"missing\", which is not described\n"),
                (os.path.join(self.tmp, "absent.xml"),
                 f"tezad: cannot read {os.path.join(self.tmp, 'absent.xml')}\n")):
            result = run([TEZAD, "--port", "0", "--no-demo", "--describe", path])
            self.assertEqual(result.returncode, 2)
            self.assertEqual(result.stderr, message)
        # The demo's namespace cannot be described twice.
        demo = os.path.join(self.tmp, "demo.xml")
        run([sys.executable, GEN, "--describe-out", demo, DEMO_SCHEMA])
        result = run([TEZAD, "--port", "0", "--describe", demo])
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stderr,
                         f'tezad: {demo}: namespace "demo" is described already\n')

    # --- HTTPS and the ways of failing -----------------------------------------------------

    def make_certificate(self, name):
        cert = os.path.join(self.tmp, name + ".pem")
        key = os.path.join(self.tmp, name + ".key")
        if not os.path.exists(cert):
            result = run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                          "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                          "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1",
                          "-keyout", key, "-out", cert])
            self.assertEqual(result.returncode, 0, result.stderr)
        return cert, key

    def test_https_with_a_trusted_and_an_untrusted_ca(self):
        cert, key = self.make_certificate("server")
        other, _ = self.make_certificate("other")
        server = self.start("--tls-cert", cert, "--tls-key", key)
        self.assertTrue(server.url.startswith("https://127.0.0.1:"))
        result, out, _ = self.from_server(server.url, "--ca", cert, stem="demo")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertTrue(os.path.exists(os.path.join(out, "demo.h")))

        result, out, schema = self.from_server(server.url, "--ca", other, stem="demo")
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, r"^teza-gen: " + re.escape(server.url) +
                         r": TLS: the server's certificate is not trusted: .*\(give its CA "
                         r"with --ca\)\n$")
        self.assertFalse(os.path.exists(schema))
        self.assertEqual(os.listdir(out), [])

    def test_a_wrong_password(self):
        server = self.start("--user", "admin:" + PASSWORD)
        result, out, _ = self.from_server(server.url, "--user", "admin", "--password-file",
                                          self.wrong_password_file, stem="demo")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr,
                         f"teza-gen: {server.url}: the server refused the credentials (HTTP 401, "
                         "error 15001): login or password is wrong\n")
        self.assertNotIn(PASSWORD, result.stderr)
        self.assertEqual(os.listdir(out), [])

    def test_a_refused_port(self):
        # A port bound without listening refuses connections, and stays ours meanwhile.
        holder = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(holder.close)
        holder.bind(("127.0.0.1", 0))
        url = f"http://127.0.0.1:{holder.getsockname()[1]}"
        result, out, _ = self.from_server(url, stem="demo")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr,
                         f"teza-gen: {url}: connection refused (is the server running there?)\n")
        self.assertEqual(os.listdir(out), [])

    def test_a_server_without_introspection(self):
        script = os.path.join(self.tmp, "no-introspection.script")
        with open(script, "w") as f:
            f.write('system-api-describe fail 15005 unknown API "system-api-describe"\n')
        server = self.start("--script", script)
        result, out, _ = self.from_server(server.url, stem="demo")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr,
                         f"teza-gen: {server.url}: the server does not describe itself: it does "
                         'not answer system-api-describe (error 15005: unknown API '
                         '&quot;system-api-describe&quot;)\n'.replace("&quot;", '"'))
        self.assertEqual(os.listdir(out), [])

    def test_a_server_that_describes_only_the_builtin_apis(self):
        server = self.start("--no-demo")
        result, _, _ = self.from_server(server.url, stem="demo")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, f"teza-gen: {server.url}: the server describes no APIs "
                         "beyond the built-in ones\n")
        result, out, schema = self.from_server(server.url, "--with-builtin", stem="system")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(read_tree(out)["system.teza"].count(b"namespace teza-system {"), 1)


if __name__ == "__main__":
    unittest.main()
