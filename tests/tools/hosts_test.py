"""teza-call --hosts: the same call to a list of servers, some of them good (tezad on free
ports, IPv4 and IPv6), one refusing connections, one that accepts and never answers, one with
other credentials: the lines in the list's order, the summary, the exit statuses, the JSON
document read back with Python's json module, the bound of --parallel seen by servers that
count the calls they are serving at once, --deadline, and hosts files and options that are
refused before anything is sent.

The programs come from the environment: TEZA_CALL and TEZAD."""

import http.server
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

CALL = os.environ.get("TEZA_CALL", "")
TEZAD = os.environ.get("TEZAD", "")
TIMEOUT = 60
PASSWORD = "pw-hosts-5c07"

SUMMARY = re.compile(r"(\d+) hosts: (\d+) ok, (\d+) failed, (\d+) not run in (\d+\.\d{3}) s\n")


def run(args, **kwargs):
    return subprocess.run(args, capture_output=True, text=True, timeout=TIMEOUT, **kwargs)


class Tezad:
    """A tezad on a free port of 127.0.0.1 or ::1."""

    def __init__(self, *args, listen="127.0.0.1"):
        self.process = subprocess.Popen(
            [TEZAD, "--listen", listen, "--port", "0", *args],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.match(r"tezad: listening on http://(127\.0\.0\.1|\[::1\]):(\d+)\n", line)
        if not match:
            self.stop()
            raise AssertionError("tezad did not start: " + line + self.process.stderr.read())
        self.address = match.group(1) + ":" + match.group(2)

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
        self.process.communicate(timeout=TIMEOUT)


class Concurrency:
    """Counts the calls that the servers sharing it are serving at once."""

    def __init__(self, delay):
        self.delay = delay
        self.lock = threading.Lock()
        self.current = 0
        self.peak = 0
        self.calls = 0

    def enter(self):
        with self.lock:
            self.current += 1
            self.calls += 1
            self.peak = max(self.peak, self.current)

    def leave(self):
        with self.lock:
            self.current -= 1


class CountingServer(http.server.ThreadingHTTPServer):
    """A TEZA server on a free port of 127.0.0.1: it answers the version probe at once, says
    it does not describe itself, and answers any other call after `delay` seconds with its
    port, counting the calls in progress in `counter`."""

    daemon_threads = True

    def __init__(self, counter):
        self.counter = counter
        super().__init__(("127.0.0.1", 0), CountingHandler)
        self.address = "127.0.0.1:%d" % self.server_address[1]
        # A short poll, so that stopping many servers takes little time.
        self.thread = threading.Thread(target=self.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()

    def stop(self):
        self.shutdown()
        self.server_close()


class CountingHandler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", "0"))).decode()
        api = re.search(r"<([A-Za-z][\w.-]*)[\s/>]", body.split("?>", 1)[-1]).group(1)
        if api == "system-get-corvi-version":
            result = ('<results status="passed"><major-version>1</major-version>'
                      "<minor-version>21</minor-version><server-type>1</server-type></results>")
        elif api == "system-api-describe":
            result = '<results status="failed" errno="15005" reason="unknown API"/>'
        else:
            counter = self.server.counter
            counter.enter()
            try:
                time.sleep(counter.delay)
            finally:
                counter.leave()
            result = ('<results status="passed"><port>%d</port></results>'
                      % self.server.server_address[1])
        data = ('<?xml version="1.0" encoding="UTF-8"?>\n' + result).encode()
        self.send_response(200)
        self.send_header("Content-Type", "application/xml; charset=utf-8")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def log_message(self, *args):
        pass


class HostsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        for name, path in (("TEZA_CALL", CALL), ("TEZAD", TEZAD)):
            if not os.access(path, os.X_OK):
                raise unittest.SkipTest(f"{name} does not name a program: {path!r}")
        cls.tmp = tempfile.mkdtemp(prefix="teza-hosts-")
        cls.password_file = os.path.join(cls.tmp, "password")
        with open(cls.password_file, "w") as f:
            f.write(PASSWORD + "\n")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp)

    def start(self, *args, listen="127.0.0.1", password=PASSWORD):
        server = Tezad("--user", "admin:" + password, *args, listen=listen)
        self.addCleanup(server.stop)
        return server

    def refused(self):
        """An address nobody listens on: bound, never listening, so connections are
        refused."""
        holder = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(holder.close)
        holder.bind(("127.0.0.1", 0))
        return "127.0.0.1:%d" % holder.getsockname()[1]

    def hanging(self):
        """An address that accepts connections (the kernel completes them) and never
        answers."""
        holder = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.addCleanup(holder.close)
        holder.bind(("127.0.0.1", 0))
        holder.listen(16)
        return "127.0.0.1:%d" % holder.getsockname()[1]

    def counting(self, counter):
        server = CountingServer(counter)
        self.addCleanup(server.stop)
        return server

    def hosts_file(self, text):
        path = os.path.join(self.tmp, "hosts-%d" % len(os.listdir(self.tmp)))
        with open(path, "w") as f:
            f.write(text)
        return path

    def call(self, hosts, *args, **kwargs):
        return run([CALL, "--hosts", hosts, "--user", "admin", "--password-file",
                    self.password_file, *args], **kwargs)

    def calls_of(self, server, api):
        host, port = server.address.rsplit(":", 1)
        result = run([CALL, "--host", host.strip("[]"), "--port", port, "--user", "admin",
                      "--password-file", self.password_file, "--output", "json", "--unchecked",
                      "system-get-counters"])
        self.assertEqual(result.returncode, 0, result.stderr)
        # Unchecked, so that asking adds no description call: the JSON holds texts, and one
        # item is an object rather than a list.
        entries = json.loads(result.stdout)["result"]["api-calls"]["api-call"]
        for entry in entries if isinstance(entries, list) else [entries]:
            if entry["api"] == api:
                return int(entry["calls"])
        return 0

    # --- Lines, summary, exit statuses -------------------------------------------------------

    def test_one_line_a_host_in_the_order_of_the_file(self):
        good = [self.start(), self.start(), self.start(listen="::1")]
        stranger = self.start(password="another-one")
        refused = self.refused()
        hanging = self.hanging()
        hosts = self.hosts_file(
            "# the fleet\n"
            f"{good[0].address}\n"
            "\n"
            f"   {refused}   # nobody there\n"
            f"{hanging}\n"
            f"{good[1].address}\n"
            f"{stranger.address}\n"
            f"{good[2].address}\n")
        started = time.monotonic()
        result = self.call(hosts, "--timeout", "2", "account-list")
        elapsed = time.monotonic() - started
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertEqual(result.stderr, "")
        lines = result.stdout.splitlines(keepends=True)
        self.assertEqual(len(lines), 7, result.stdout)
        width = max(len(address) for address in
                    (good[0].address, refused, hanging, stranger.address, good[2].address))
        ok = "  ok       <count>0</count><accounts/>\n"
        self.assertEqual(lines[0], good[0].address.ljust(width) + ok)
        self.assertEqual(lines[1], refused.ljust(width) + "  failed   error 13055: connection "
                         f"refused by http://{refused}\n")
        self.assertRegex(lines[2], "^" + re.escape(hanging.ljust(width)) +
                         r"  failed   error 13060: no answer from http://\S+ within 2 s\n$")
        self.assertEqual(lines[3], good[1].address.ljust(width) + ok)
        self.assertEqual(lines[4], stranger.address.ljust(width) + "  failed   error 15001: "
                         "login or password is wrong\n")
        self.assertEqual(lines[5], good[2].address.ljust(width) + ok)
        self.assertTrue(good[2].address.startswith("[::1]:"))
        summary = SUMMARY.fullmatch(lines[6])
        self.assertIsNotNone(summary, lines[6])
        self.assertEqual(summary.group(1, 2, 3, 4), ("6", "3", "3", "0"))
        # The hanging server held one worker for its time-out while the others finished.
        self.assertLess(float(summary.group(5)), 2 + 5)
        self.assertLess(elapsed, 2 + 10)
        # Each good server got the call once, after its description.
        for server in good:
            self.assertEqual(self.calls_of(server, "account-list"), 1)
            self.assertEqual(self.calls_of(server, "system-api-describe"), 1)

        only_good = self.hosts_file("".join(server.address + "\n" for server in good))
        result = self.call(only_good, "account-list")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertRegex(result.stdout.splitlines()[-1], r"^3 hosts: 3 ok, 0 failed, 0 not run")

    def test_json_document(self):
        good = [self.start(), self.start()]
        refused = self.refused()
        hosts = self.hosts_file(f"{good[0].address}\n{refused}\n{good[1].address}\n")
        result = self.call(hosts, "account-create", "name=ada", "quota=7")
        self.assertEqual(result.returncode, 1, result.stderr)
        result = self.call(hosts, "--output", "json", "account-get", "name=ada")
        self.assertEqual(result.returncode, 1, result.stderr)
        document = json.loads(result.stdout)
        self.assertEqual(list(document), ["hosts", "summary"])
        entries = document["hosts"]
        self.assertEqual([entry["host"] for entry in entries],
                         [good[0].address, refused, good[1].address])
        self.assertEqual([entry["line"] for entry in entries], [1, 2, 3])
        for entry in (entries[0], entries[2]):
            self.assertEqual(entry["status"], "passed")
            info = entry["result"]["account-info"]
            # Typed by each server's description: the quota is a number.
            self.assertEqual((info["name"], info["quota"]), ("ada", 7))
        self.assertEqual(entries[1], {
            "host": refused, "line": 2, "status": "failed", "errno": 13055,
            "reason": f"connection refused by http://{refused}"})
        summary = document["summary"]
        self.assertEqual({key: summary[key] for key in ("hosts", "passed", "failed", "not run")},
                         {"hosts": 3, "passed": 2, "failed": 1, "not run": 0})
        self.assertIsInstance(summary["seconds"], float)
        # A host name that is not UTF-8 is written with replacement characters.
        odd = os.path.join(self.tmp, "odd-hosts")
        with open(odd, "wb") as f:
            f.write(b"\xff\xfe.invalid:80\n")
        result = self.call(odd, "--output", "json", "account-list")
        self.assertEqual(result.returncode, 1, result.stderr)
        entry = json.loads(result.stdout)["hosts"][0]
        self.assertEqual((entry["host"], entry["status"]), ("\ufffd\ufffd.invalid:80", "failed"))
        # A failure the server answered with, in JSON.
        result = self.call(hosts, "--output", "json", "account-get", "name=nobody")
        entry = json.loads(result.stdout)["hosts"][0]
        self.assertEqual((entry["status"], entry["errno"], entry["reason"]),
                         ("failed", 15102, 'no account named "nobody"'))

    def test_arguments_are_checked_against_each_description(self):
        good = [self.start(), self.start()]
        hosts = self.hosts_file("".join(server.address + "\n" for server in good))
        result = self.call(hosts, "account-create", "name=ada", "quota=12x")
        self.assertEqual(result.returncode, 1)
        lines = result.stdout.splitlines()
        for line in lines[:2]:
            self.assertTrue(line.endswith('  failed   error 0: quota is int64: "12x" is not a '
                                          "whole number"), line)
        for server in good:
            self.assertEqual(self.calls_of(server, "account-create"), 0)
        # --input from standard input goes to every host.
        result = self.call(hosts, "--input", "-", "account-create",
                           input=json.dumps({"name": "bob", "quota": 3}))
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        for server in good:
            self.assertEqual(self.calls_of(server, "account-create"), 1)

    def test_servers_of_one_machine_answer_their_own_calls(self):
        # Sixty servers on 127.0.0.1, each listed twice: every call reaches the port its line
        # names, the second call of a server as well as the first.
        counter = Concurrency(delay=0)
        servers = [self.counting(counter) for _ in range(60)]
        hosts = self.hosts_file("".join(server.address + "\n" for server in servers * 2))
        result = self.call(hosts, "--parallel", "4", "--unchecked", "ping")
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        lines = result.stdout.splitlines()
        self.assertEqual(len(lines), 121)
        for line, server in zip(lines, servers * 2):
            self.assertRegex(line, "^" + re.escape(server.address) + " +ok +<port>"
                             + server.address.split(":")[1] + "</port>$")
        self.assertEqual(counter.calls, 120)

    # --- --parallel and --deadline -----------------------------------------------------------

    def test_parallel_bounds_the_calls_at_once(self):
        for parallel, hosts_count in ((3, 12), (12, 12)):
            counter = Concurrency(delay=0.5)
            servers = [self.counting(counter) for _ in range(6)]
            # Every server twice: 12 calls.
            hosts = self.hosts_file("".join(server.address + "\n" for server in servers * 2))
            result = self.call(hosts, "--parallel", str(parallel), "--unchecked", "ping")
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
            lines = result.stdout.splitlines()
            width = max(len(server.address) for server in servers)
            self.assertEqual(len(lines), hosts_count + 1)
            for line, server in zip(lines, servers * 2):
                self.assertEqual(line, server.address.ljust(width) + "  ok       <port>%s</port>"
                                 % server.address.split(":")[1])
            self.assertEqual(counter.calls, hosts_count)
            self.assertLessEqual(counter.peak, parallel)
            # The calls did overlap: the bound is what held them back.
            self.assertGreaterEqual(counter.peak, 2 if parallel == 3 else 4)

    def test_deadline_leaves_late_hosts_not_run(self):
        good = self.start()
        hanging = self.hanging()
        # One call at a time: the good host's call starts at once, the hanging one holds the
        # only worker for its time-out, past the deadline.
        hosts = self.hosts_file(f"{good.address}\n{hanging}\n{good.address}\n{good.address}\n")
        result = self.call(hosts, "--parallel", "1", "--deadline", "2", "--timeout", "3",
                           "--output", "json", "account-list")
        self.assertEqual(result.returncode, 1, result.stderr)
        document = json.loads(result.stdout)
        self.assertEqual([entry["status"] for entry in document["hosts"]],
                         ["passed", "failed", "not run", "not run"])
        self.assertEqual(document["hosts"][2]["errno"], 14101)
        self.assertEqual(document["hosts"][3]["reason"], "not run: deadline passed")
        self.assertEqual(document["summary"]["not run"], 2)
        self.assertEqual(self.calls_of(good, "account-list"), 1)
        hosts = self.hosts_file(f"{hanging}\n{good.address}\n")
        result = self.call(hosts, "--parallel", "1", "--deadline", "1", "--timeout", "2",
                           "account-list")
        self.assertEqual(result.returncode, 1, result.stderr)
        lines = result.stdout.splitlines()
        self.assertEqual(lines[1], good.address + "  not run  error 14101: not run: deadline "
                         "passed")
        self.assertRegex(lines[2], r"^2 hosts: 0 ok, 1 failed, 1 not run in ")
        self.assertEqual(self.calls_of(good, "account-list"), 1)

    # --- Refused before anything is sent ------------------------------------------------------

    def test_bad_hosts_files_and_options(self):
        server = self.start()
        port = server.address.split(":")[1]
        cases = (
            ("127.0.0.1:abc\n", ":1: \"127.0.0.1:abc\": the port is not a number from 1 to "
                                "65535"),
            (f"{server.address}\n\n127.0.0.1:0\n", ':3: "127.0.0.1:0": the port is not a '
                                                  "number from 1 to 65535"),
            ("127.0.0.1:70000\n", ':1: "127.0.0.1:70000": the port is not a number from 1 to '
                                  "65535"),
            ("127.0.0.1:+80\n", ':1: "127.0.0.1:+80": the port is not a number from 1 to '
                                "65535"),
            ("# a\n[::1\n", ':2: "[::1" is not [IPv6 address] or [IPv6 address]:port'),
            ("[::1]8080\n", ':1: "[::1]8080": after ] comes :port'),
            (":8080\n", ':1: ":8080" names no host'),
            ("host-a host-b\n", ':1: one host a line, not "host-a host-b"'),
            ("127.0.0.1\n", ':1: "127.0.0.1" has no port, and there is no --port for it'),
            ("# nobody\n\n", " names no host"),
        )
        for text, message in cases:
            hosts = self.hosts_file(text)
            result = self.call(hosts, "account-list")
            self.assertEqual(result.returncode, 2, text)
            self.assertEqual(result.stdout, "", text)
            self.assertEqual(result.stderr, "teza-call: " + hosts + message + "\n", text)
        self.assertEqual(self.calls_of(server, "account-list"), 0)

        # A host without a port takes --port; standard input is a hosts file too.
        result = self.call("-", "--port", port, "account-list", input="127.0.0.1\n")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(result.stdout.splitlines()[0],
                         server.address + "  ok       <count>0</count><accounts/>")

        hosts = self.hosts_file(server.address + "\n")
        option_cases = (
            (["--parallel", "0"], "--parallel is a number from 1 to 1024, not 0"),
            (["--parallel", "1025"], "--parallel is a number from 1 to 1024, not 1025"),
            (["--parallel", "x"], "--parallel is a number from 1 to 1024, not x"),
            (["--deadline", "0"], "--deadline is a number of seconds from 1 to 86400, not 0"),
            (["--list"], "--hosts sends one call: --list and --describe ask one server"),
            (["--host", "127.0.0.1"], "one connection only: "),
        )
        for args, message in option_cases:
            api = [] if "--list" in args else ["account-list"]
            result = self.call(hosts, *args, *api)
            self.assertEqual(result.returncode, 2, args)
            self.assertEqual(result.stdout, "")
            self.assertTrue(result.stderr.startswith("teza-call: " + message), result.stderr)
        result = self.call("-", "--input", "-", "account-list")
        self.assertEqual(result.returncode, 2)
        self.assertTrue(result.stderr.startswith(
            "teza-call: --hosts - and --input - cannot both read standard input"))
        result = run([CALL, "--host", "127.0.0.1", "--port", port, "--parallel", "4",
                      "account-list"])
        self.assertEqual(result.returncode, 2)
        self.assertTrue(result.stderr.startswith(
            "teza-call: --parallel and --deadline go with --hosts"))
        result = self.call(os.path.join(self.tmp, "missing"), "account-list")
        self.assertEqual(result.returncode, 2)
        self.assertEqual(result.stderr, "teza-call: cannot read "
                         + os.path.join(self.tmp, "missing") + ": No such file or directory\n")
        # Only the call from standard input reached the server.
        self.assertEqual(self.calls_of(server, "account-list"), 1)
        help_text = run([CALL, "--help"]).stdout
        for words in ("--hosts FILE|-", "--parallel N", "--deadline S",
                      "Exit status with --hosts: 0 every host passed; 1 a host failed or was "
                      "not run; 2 usage\nor local error"):
            self.assertIn(words, help_text)


if __name__ == "__main__":
    unittest.main()
