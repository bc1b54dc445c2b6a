"""teza-demo and teza-call run as a user runs them: against the demo service inside their own
process, and against a tezad on a free loopback port over HTTP and HTTPS, started and stopped
here. Their output and exit status are checked.

The programs come from the environment: TEZA_DEMO, TEZA_CALL and TEZAD."""

import os
import pty
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import unittest

DEMO = os.environ.get("TEZA_DEMO", "")
CALL = os.environ.get("TEZA_CALL", "")
TEZAD = os.environ.get("TEZAD", "")
TIMEOUT = 60
# Secrets the credential tests hand over; none may appear in any output.
PASSWORD = "pw-tools-5e1b"
TOKEN = "tk-tools-8c2d"
WRONG_TOKEN = "tk-tools-wrong-40aa"
KEY_PASSPHRASE = "kp-tools-77f3"

# What every full run of the demo prints, in this order, whatever the server.
DEMO_STEPS = [
    r"account-create ada: ok\n  new account id: \d+\n",
    r"account-get ada: ok\n  account \d+: ada \(Ada Lovelace\), quota 5000, enabled\n"
    r"  address: 12 St James's Square, London\n  tags: math, poetry, engines\n"
    r"  secret \(decrypted by the client\): analytical engine\n",
    r"account-verify-secret ada: ok\n  matches: yes\n",
    r"job-submit bombe: ok\n",
    r"job-get: ok\n  state queued, priority 5\n",
    r"account-list: ok\n  ada \(has a secret\)\n  alan\n",
    r"job-list alan: ok\n  job \d+: bombe \[--rotors, 3, --menu, crib.txt\] queued\n",
    r'account-delete alan: failed \(status 1, error 15104\): account "alan" has 1 job\(s\) '
    r"<queued> or <held>: cancel them first\n",
    r'account-get nobody: failed \(status 1, error 15102\): no account named "nobody"\n',
    r"job-cancel: ok\naccount-delete alan: ok\n",
    r"account-list, first call: failed \(status 3, error 13055\): connection refused",
    r"account-list, second call: failed \(status 3, error 14007\): 127.0.0.2 is not healthy\n"
    r"quarantined: yes\n",
    r"  account-create +2 / 0\n  account-get +1 / 1\n  account-list +1 / 2\n"
    r"  account-delete +1 / 1\n  account-verify-secret +1 / 0\n  job-submit +1 / 0\n"
    r"  job-get +1 / 0\n  job-list +1 / 0\n  job-cancel +1 / 0\n",
    r"The demo ran as expected.\n",
]

# A level-1 trace: the connection line and the response line of a traced call.
TRACE = (
    r"TezaInterface: Tag: \d+ TezaServerConnection:  host: {host} major: 1 minor: 21 .*\n"
    r".*TezaInterface: Tag: \d+ Response:  Received response for: <account-create>\n"
)


def run(args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=TIMEOUT, **kwargs)


class Tezad:
    """A tezad on a free loopback port, stopped with SIGTERM."""

    def __init__(self, *args):
        self.process = subprocess.Popen(
            [TEZAD, "--listen", "127.0.0.1", "--port", "0", "--user", "admin:secret", *args],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.match(r"tezad: listening on (https?)://127\.0\.0\.1:(\d+)\n", line)
        if not match:
            self.stop()
            raise AssertionError("tezad did not start: " + line + self.process.stderr.read())
        self.scheme, self.port = match.group(1), match.group(2)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.process.communicate(timeout=TIMEOUT)
        return self.process.returncode


class ToolsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for name, path in (("TEZA_DEMO", DEMO), ("TEZA_CALL", CALL), ("TEZAD", TEZAD)):
            if not os.access(path, os.X_OK):
                raise unittest.SkipTest(f"{name} does not name a program: {path!r}")
        cls.tmp = tempfile.mkdtemp(prefix="teza-tools-")
        cls.cert = os.path.join(cls.tmp, "server.pem")
        cls.key = os.path.join(cls.tmp, "server.key")
        result = run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                      "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                      "/CN=localhost", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost",
                      "-keyout", cls.key, "-out", cls.cert])
        if result.returncode != 0:
            raise AssertionError("openssl: " + result.stderr)
        # A CA of client certificates, and alice's certificate with a plain and an encrypted
        # key.
        cls.client_ca = os.path.join(cls.tmp, "ca.pem")
        ca_key = os.path.join(cls.tmp, "ca.key")
        cls.alice = os.path.join(cls.tmp, "alice.pem")
        cls.alice_key = os.path.join(cls.tmp, "alice.key")
        cls.alice_locked = os.path.join(cls.tmp, "alice-locked.key")
        csr = os.path.join(cls.tmp, "alice.csr")
        for command in (
                ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                 "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj", "/CN=tools CA",
                 "-keyout", ca_key, "-out", cls.client_ca],
                ["openssl", "req", "-new", "-newkey", "ec", "-pkeyopt",
                 "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=alice", "-keyout",
                 cls.alice_key, "-out", csr],
                ["openssl", "x509", "-req", "-in", csr, "-CA", cls.client_ca, "-CAkey", ca_key,
                 "-CAcreateserial", "-days", "2", "-out", cls.alice],
                ["openssl", "pkey", "-in", cls.alice_key, "-aes256", "-passout",
                 "pass:" + KEY_PASSPHRASE, "-out", cls.alice_locked]):
            result = run(command)
            if result.returncode != 0:
                raise AssertionError("openssl: " + result.stderr)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def start_tezad(self, *args):
        server = Tezad(*args)
        self.addCleanup(server.stop)
        return server

    def assert_demo(self, result, host):
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        position = 0
        for step in DEMO_STEPS:
            match = re.compile(step).search(result.stdout, position)
            self.assertIsNotNone(match, f"{step!r} not found after:\n{result.stdout[position:]}")
            position = match.end()
        self.assertRegex(result.stdout, TRACE.format(host=re.escape(host)))
        # Only the two traced calls print trace lines.
        self.assertEqual(len(re.findall(r"Response:  Received response", result.stdout)), 2)

    # --- teza-demo --------------------------------------------------------------------------

    def test_demo_in_process(self):
        result = run([DEMO])
        self.assertIn("Server: the demo service in this process (demo-node)", result.stdout)
        self.assert_demo(result, "demo-node")

    def test_demo_against_tezad_over_http(self):
        server = self.start_tezad()
        result = run([DEMO, "--host", "127.0.0.1", "--port", server.port])
        self.assertIn(f"Server: http://127.0.0.1:{server.port}", result.stdout)
        self.assert_demo(result, "127.0.0.1")
        self.assertEqual(server.stop(), 0)

    def test_demo_against_tezad_over_https(self):
        server = self.start_tezad("--tls-cert", self.cert, "--tls-key", self.key)
        self.assertEqual(server.scheme, "https")
        result = run([DEMO, "--host", "127.0.0.1", "--port", server.port, "--tls", "--ca",
                      self.cert])
        self.assert_demo(result, "127.0.0.1")

    def test_demo_with_wrong_credentials_fails(self):
        server = self.start_tezad()
        result = run([DEMO, "--host", "127.0.0.1", "--port", server.port, "--password", "no"])
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stdout, r"account-create ada: failed \(status 3, error 15001\)")
        self.assertIn("did not go as expected", result.stdout)

    def test_demo_usage_errors(self):
        result = run([DEMO, "--host", "127.0.0.1"])
        self.assertEqual(result.returncode, 2)
        self.assertIn("--host needs --port", result.stderr)
        result = run([DEMO, "--bogus"])
        self.assertEqual(result.returncode, 2)
        self.assertIn("unknown or incomplete option '--bogus'", result.stderr)

    # --- teza-call --------------------------------------------------------------------------

    def call(self, *args):
        return run([CALL, *args])

    def test_call_in_process_prints_the_result_tree(self):
        result = self.call("--in-process", "system-get-corvi-version")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(
            result.stdout,
            '<results status="passed">\n  <major-version>1</major-version>\n'
            "  <minor-version>30</minor-version>\n  <server-type>1</server-type>\n"
            "  <server>tezad 0.1.0</server>\n</results>\n")

    def test_call_in_process_failure_has_reason_errno_and_status(self):
        result = self.call("--in-process", "account-get", "name=bob")
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stdout, "")
        self.assertEqual(result.stderr,
                         'teza-call: account-get failed: error 15102: no account named "bob"\n')

    def test_call_against_tezad_over_http(self):
        server = self.start_tezad()
        base = ["--host", "127.0.0.1", "--port", server.port, "--user", "admin",
                "--password", "secret"]
        created = self.call(*base, "account-create", "name=ada", "full-name=A & B",
                            "--secret", "secret=s3", "address/street=Main", "address/city=Paris",
                            "tags/tag=x", "tags/tag=y")
        self.assertEqual(created.returncode, 0, created.stderr)
        self.assertRegex(created.stdout,
                         r'^<results status="passed">\n  <account-id>\d+</account-id>\n'
                         r"</results>\n$")
        got = self.call(*base, "account-get", "name=ada")
        self.assertEqual(got.returncode, 0, got.stderr)
        for line in ("<name>ada</name>", "<full-name>A &amp; B</full-name>",
                     "<street>Main</street>", "<city>Paris</city>", "<tag>x</tag>",
                     "<tag>y</tag>"):
            self.assertIn(line, got.stdout)
        # The secret comes back encrypted: its element holds base64 ciphertext, never the
        # clear text (which the ciphertext may well contain by chance, so look at the element).
        secret = re.search(r'<secret encrypted="[^"]+">([^<]*)</secret>', got.stdout)
        self.assertIsNotNone(secret, got.stdout)
        self.assertNotEqual(secret.group(1), "s3")
        self.assertRegex(secret.group(1), r"^[A-Za-z0-9+/]{20,}={0,2}$")
        verified = self.call(*base, "account-verify-secret", "name=ada", "--secret", "secret=s3")
        self.assertIn("<matches>true</matches>", verified.stdout)

        failed = self.call(*base, "account-create", "name=ada")
        self.assertEqual(failed.returncode, 1)
        self.assertEqual(failed.stderr, 'teza-call: account-create failed: error 15103: '
                                        'an account named "ada" exists already\n')
        unknown = self.call(*base, "no-such-api")
        self.assertEqual(unknown.returncode, 1)
        self.assertIn("error 15005", unknown.stderr)
        denied = self.call("--host", "127.0.0.1", "--port", server.port, "--user", "admin",
                           "--password", "wrong", "account-list")
        self.assertEqual(denied.returncode, 1)
        self.assertIn("error 15001", denied.stderr)

    def test_call_against_tezad_over_https(self):
        server = self.start_tezad("--tls-cert", self.cert, "--tls-key", self.key)
        base = ["--host", "127.0.0.1", "--port", server.port, "--tls", "--user", "admin",
                "--password", "secret"]
        result = self.call(*base, "--ca", self.cert, "account-list")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("<count>0</count>", result.stdout)
        # Without the CA file the self-signed certificate is not trusted.
        untrusted = self.call(*base, "account-list")
        self.assertEqual(untrusted.returncode, 3)
        self.assertIn("error 13071", untrusted.stderr)

    def test_call_to_a_closed_port_fails_to_connect(self):
        # A port bound without listening refuses connections, and no other program can take
        # it meanwhile.
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as bound:
            bound.bind(("127.0.0.1", 0))
            port = str(bound.getsockname()[1])
            result = self.call("--host", "127.0.0.1", "--port", port, "account-list")
        self.assertEqual(result.returncode, 3)
        self.assertIn("error 13055", result.stderr)

    # --- Credentials off the command line -------------------------------------------------

    def secret_file(self, name, text):
        path = os.path.join(self.tmp, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def call_with(self, args, env=None, **kwargs):
        environment = {k: v for k, v in os.environ.items()
                       if k not in ("TEZA_PASSWORD", "TEZA_TOKEN")}
        environment.update(env or {})
        result = run([CALL, *args], env=environment, **kwargs)
        for secret in (PASSWORD, TOKEN, WRONG_TOKEN, KEY_PASSPHRASE):
            self.assertNotIn(secret, result.stdout + result.stderr)
        return result

    def test_call_password_from_a_file_or_the_environment(self):
        server = self.start_tezad("--user", "keeper:" + PASSWORD)
        base = ["--host", "127.0.0.1", "--port", server.port, "--user", "keeper"]
        passed = self.call_with(
            [*base, "--password-file", self.secret_file("pw", PASSWORD + "\n"), "account-list"])
        self.assertEqual(passed.returncode, 0, passed.stderr)
        passed = self.call_with([*base, "account-list"], env={"TEZA_PASSWORD": PASSWORD})
        self.assertEqual(passed.returncode, 0, passed.stderr)
        # Without a password from anywhere and no terminal, the empty one is sent and refused.
        denied = self.call_with([*base, "account-list"], stdin=subprocess.DEVNULL)
        self.assertEqual(denied.returncode, 1)
        self.assertIn("error 15001", denied.stderr)

    def test_call_missing_or_unreadable_password_file(self):
        base = ["--host", "127.0.0.1", "--port", "1", "--user", "keeper"]
        for path in (os.path.join(self.tmp, "no-such-file"), self.tmp):
            result = self.call_with([*base, "--password-file", path, "account-list"])
            self.assertEqual(result.returncode, 2, path)
            self.assertEqual(result.stdout, "")
            self.assertRegex(result.stderr,
                             r"^teza-call: cannot read the password file " + re.escape(path) +
                             r": (No such file or directory|Is a directory)\n$")

    def test_call_token_from_a_file_or_the_environment(self):
        server = self.start_tezad("--token", TOKEN)
        base = ["--host", "127.0.0.1", "--port", server.port]
        passed = self.call_with(
            [*base, "--token-file", self.secret_file("token", TOKEN + "\n"), "account-list"])
        self.assertEqual(passed.returncode, 0, passed.stderr)
        passed = self.call_with([*base, "account-list"], env={"TEZA_TOKEN": TOKEN})
        self.assertEqual(passed.returncode, 0, passed.stderr)
        denied = self.call_with([*base, "account-list"], env={"TEZA_TOKEN": WRONG_TOKEN})
        self.assertEqual(denied.returncode, 1)
        self.assertIn("error 15001: the token is wrong", denied.stderr)
        missing = self.call_with([*base, "--token-file", os.path.join(self.tmp, "none"), "x"])
        self.assertEqual(missing.returncode, 2)
        self.assertIn("cannot read the token file", missing.stderr)
        empty = self.call_with([*base, "--token-file", self.secret_file("empty", ""), "x"])
        self.assertEqual(empty.returncode, 2)
        self.assertIn("the token is empty", empty.stderr)

    def test_call_client_certificate_with_an_encrypted_key(self):
        server = self.start_tezad("--tls-cert", self.cert, "--tls-key", self.key,
                                  "--client-ca", self.client_ca, "--cert-user", "alice")
        base = ["--host", "127.0.0.1", "--port", server.port, "--tls", "--ca", self.cert,
                "--cert", self.alice]
        passed = self.call_with([*base, "--key", self.alice_key, "account-list"])
        self.assertEqual(passed.returncode, 0, passed.stderr)
        passed = self.call_with(
            [*base, "--key", self.alice_locked, "--key-password-file",
             self.secret_file("kp", KEY_PASSPHRASE + "\n"), "account-list"])
        self.assertEqual(passed.returncode, 0, passed.stderr)
        # No pass phrase and no terminal to ask on.
        locked = self.call_with([*base, "--key", self.alice_locked, "account-list"],
                                stdin=subprocess.DEVNULL)
        self.assertEqual(locked.returncode, 2)
        self.assertIn("is encrypted: give --key-password-file FILE", locked.stderr)
        wrong = self.call_with(
            [*base, "--key", self.alice_locked, "--key-password-file",
             self.secret_file("kp-wrong", "not it\n"), "account-list"])
        self.assertEqual(wrong.returncode, 2)
        self.assertIn("error 13072", wrong.stderr)
        # Without a certificate the server refuses.
        plain = self.call_with(["--host", "127.0.0.1", "--port", server.port, "--tls", "--ca",
                                self.cert, "account-list"])
        self.assertEqual(plain.returncode, 1)
        self.assertIn("error 15001: this server needs a client certificate", plain.stderr)

    def test_call_missing_or_unreadable_key_password_file(self):
        base = ["--host", "127.0.0.1", "--port", "1", "--tls", "--ca", self.cert,
                "--cert", self.alice, "--key", self.alice_locked]
        for path in (os.path.join(self.tmp, "no-such-file"), self.tmp):
            result = self.call_with([*base, "--key-password-file", path, "account-list"])
            self.assertEqual(result.returncode, 2, path)
            self.assertEqual(result.stdout, "")
            self.assertRegex(result.stderr,
                             r"^teza-call: cannot read the key password file " + re.escape(path) +
                             r": (No such file or directory|Is a directory)\n$")

    def test_call_prompts_for_the_password_without_echo(self):
        server = self.start_tezad("--user", "keeper:" + PASSWORD)
        master, slave = pty.openpty()
        try:
            process = subprocess.Popen(
                [CALL, "--host", "127.0.0.1", "--port", server.port, "--user", "keeper",
                 "account-list"], stdin=slave, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                text=True, env={k: v for k, v in os.environ.items() if k != "TEZA_PASSWORD"})
            os.close(slave)
            slave = None
            # The prompt goes to standard error once echo is off; answer then.
            prompt = process.stderr.read(len("Password for keeper: "))
            self.assertEqual(prompt, "Password for keeper: ")
            os.write(master, (PASSWORD + "\n").encode())
            out, err = process.communicate(timeout=TIMEOUT)
            self.assertEqual(process.returncode, 0, err)
            self.assertIn("<count>0</count>", out)
            echoed = b""
            while select.select([master], [], [], 0.2)[0]:
                try:
                    chunk = os.read(master, 4096)
                except OSError:
                    break
                if not chunk:
                    break
                echoed += chunk
            self.assertNotIn(PASSWORD.encode(), echoed)
        finally:
            os.close(master)
            if slave is not None:
                os.close(slave)

    def test_call_help_says_the_password_option_is_visible(self):
        result = self.call("--help")
        self.assertEqual(result.returncode, 0)
        self.assertIn("--password PASSWORD       its password on the command line: visible to "
                      "every user of\n", result.stdout)
        for option in ("--password-file FILE", "--token-file FILE", "--cert FILE --key FILE",
                       "--key-password-file FILE", "TEZA_PASSWORD", "TEZA_TOKEN"):
            self.assertIn(option, result.stdout)

    def test_call_hosts_over_https_with_a_client_certificate(self):
        # --hosts: the TLS files and the certificate style apply to every host.
        servers = [self.start_tezad("--tls-cert", self.cert, "--tls-key", self.key,
                                    "--client-ca", self.client_ca, "--cert-user", "alice")
                   for _ in range(2)]
        hosts = self.secret_file("tls-hosts", "".join(
            f"127.0.0.1:{server.port}\n" for server in servers))
        base = ["--hosts", hosts, "--tls", "--cert", self.alice, "--key", self.alice_key]
        passed = self.call_with([*base, "--ca", self.cert, "account-list"])
        self.assertEqual(passed.returncode, 0, passed.stdout + passed.stderr)
        lines = passed.stdout.splitlines()
        for line, server in zip(lines, servers):
            self.assertEqual(line, f"127.0.0.1:{server.port}  ok       <count>0</count>"
                                   "<accounts/>")
        self.assertRegex(lines[2], r"^2 hosts: 2 ok, 0 failed, 0 not run in ")
        # Without the CA file the self-signed certificate is not trusted, on any host.
        untrusted = self.call_with([*base, "account-list"])
        self.assertEqual(untrusted.returncode, 1)
        self.assertEqual(len(re.findall(r"  failed   error 13071: ", untrusted.stdout)), 2,
                         untrusted.stdout)
        missing = self.call_with([*base, "--ca", os.path.join(self.tmp, "none.pem"),
                                  "account-list"])
        self.assertEqual(missing.returncode, 2)
        self.assertEqual(missing.stdout, "")
        self.assertIn("cannot read the CA file", missing.stderr)

    def test_demo_with_a_token_file_and_with_a_client_certificate(self):
        server = self.start_tezad("--token", TOKEN)
        result = run([DEMO, "--host", "127.0.0.1", "--port", server.port, "--token-file",
                      self.secret_file("demo-token", TOKEN)])
        self.assert_demo(result, "127.0.0.1")
        self.assertNotIn(TOKEN, result.stdout + result.stderr)

        tls = self.start_tezad("--tls-cert", self.cert, "--tls-key", self.key, "--client-ca",
                               self.client_ca, "--cert-user", "alice")
        result = run([DEMO, "--host", "127.0.0.1", "--port", tls.port, "--tls", "--ca",
                      self.cert, "--cert", self.alice, "--key", self.alice_locked,
                      "--key-password-file", self.secret_file("demo-kp", KEY_PASSPHRASE)])
        self.assert_demo(result, "127.0.0.1")
        self.assertNotIn(KEY_PASSPHRASE, result.stdout + result.stderr)
        missing = run([DEMO, "--password-file", os.path.join(self.tmp, "none")])
        self.assertEqual(missing.returncode, 2)
        self.assertIn("teza-demo: cannot read the password file", missing.stderr)

    def test_call_usage_errors(self):
        for args, message in ((["account-list"], "--host and --port are needed"),
                              (["--in-process"], "no API named"),
                              (["--in-process", "account-get", "name"],
                               "arguments are NAME=VALUE, not: name"),
                              (["--port", "70000", "x"], "invalid port: 70000")):
            result = self.call(*args)
            self.assertEqual(result.returncode, 2, args)
            self.assertIn(message, result.stderr)
        bad_name = self.call("--in-process", "--unchecked", "account-get", "1name=x")
        self.assertEqual(bad_name.returncode, 2)
        self.assertIn("cannot build the request", bad_name.stderr)


if __name__ == "__main__":
    unittest.main()
