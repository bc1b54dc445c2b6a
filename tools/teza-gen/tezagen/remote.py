"""Fetches a server's description (system-api-describe) over HTTP, HTTPS or a Unix socket.

The request is what librk sends (docs/wire-format.md): POST /teza with an XML body, the API
version and server type headers and the credentials of one connection style. Only Python's
standard library is used.
"""

import base64
import http.client
import socket
import ssl
import urllib.parse
import xml.etree.ElementTree as ET

from . import description

UNKNOWN_API = 15005


class FetchError(Exception):
    """Fetching failed; the message names the URL and says what failed."""


class _UnixConnection(http.client.HTTPConnection):
    def __init__(self, path, timeout):
        super().__init__("localhost", timeout=timeout)
        self.socket_path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.socket_path)


class Endpoint:
    """Where and how to call: the URL, credentials and TLS settings."""

    def __init__(self, url, login=None, password=None, token=None, ca_file=None,
                 cert_file=None, key_file=None, api_version="1.0", timeout=30):
        self.url = url
        self.login = login
        self.password = password
        self.token = token
        self.ca_file = ca_file
        self.cert_file = cert_file
        self.key_file = key_file
        self.api_version = api_version
        self.timeout = timeout
        if url.startswith("unix:"):
            path = url[len("unix:"):]
            if path.startswith("//"):
                path = path[2:]
            if not path:
                raise FetchError(f"{url}: a Unix socket URL is unix:/path/to/socket")
            self.kind, self.socket_path = "unix", path
            return
        parts = urllib.parse.urlsplit(url)
        if parts.scheme not in ("http", "https") or not parts.hostname:
            raise FetchError(
                f"{url}: not a server URL; use http://HOST:PORT, https://HOST:PORT or "
                "unix:/path/to/socket"
            )
        self.kind = parts.scheme
        self.host = parts.hostname
        try:
            self.port = parts.port or (443 if parts.scheme == "https" else 80)
        except ValueError:
            raise FetchError(f"{url}: the port is not a number from 0 to 65535")

    def _connection(self):
        if self.kind == "unix":
            return _UnixConnection(self.socket_path, self.timeout)
        if self.kind == "http":
            return http.client.HTTPConnection(self.host, self.port, timeout=self.timeout)
        try:
            context = ssl.create_default_context(cafile=self.ca_file)
            context.minimum_version = ssl.TLSVersion.TLSv1_2
            if self.cert_file:
                context.load_cert_chain(self.cert_file, self.key_file)
        except (OSError, ssl.SSLError) as e:
            raise FetchError(f"{self.url}: the CA file, client certificate or key cannot be "
                             f"used: {e}")
        return http.client.HTTPSConnection(self.host, self.port, timeout=self.timeout,
                                           context=context)

    def call(self, api, arguments=()):
        """Sends `api` with text arguments [(name, value)]; returns the passed result element,
        or raises FetchError (failed results carry `errno` as the exception's attribute)."""
        body = '<?xml version="1.0" encoding="UTF-8"?>\n<' + api + ">"
        for name, value in arguments:
            body += f"<{name}>{description._escape(value)}</{name}>"
        body += f"</{api}>\n"
        headers = {
            "Content-Type": "application/xml; charset=utf-8",
            "Accept": "application/xml",
            "X-Teza-Api-Version": self.api_version,
            "X-Teza-Server-Type": "0",
            "User-Agent": "teza-gen",
        }
        if self.token is not None:
            headers["Authorization"] = "Bearer " + self.token
        elif self.login is not None:
            pair = f"{self.login}:{self.password or ''}".encode()
            headers["Authorization"] = "Basic " + base64.b64encode(pair).decode()
        connection = self._connection()
        try:
            connection.request("POST", "/teza", body.encode("utf-8"), headers)
            response = connection.getresponse()
            status, data = response.status, response.read()
        except ConnectionRefusedError:
            raise FetchError(f"{self.url}: connection refused (is the server running there?)")
        except ssl.SSLCertVerificationError as e:
            raise FetchError(f"{self.url}: TLS: the server's certificate is not trusted: "
                             f"{e.verify_message} (give its CA with --ca)")
        except ssl.SSLError as e:
            raise FetchError(f"{self.url}: TLS failed: {e.reason or e}")
        except socket.timeout:
            raise FetchError(f"{self.url}: no answer within {self.timeout} s")
        except (OSError, http.client.HTTPException) as e:
            raise FetchError(f"{self.url}: cannot call the server: {e}")
        finally:
            connection.close()
        try:
            root = ET.fromstring(data)
        except ET.ParseError as e:
            raise FetchError(f"{self.url}: the answer (HTTP {status}) is not well-formed XML: {e}")
        if root.tag != "results" or root.get("status") not in ("passed", "failed"):
            raise FetchError(f"{self.url}: the answer (HTTP {status}) is not a TEZA result")
        if root.get("status") == "failed":
            number = root.get("errno", "0")
            reason = root.get("reason", "")
            if status == 401:
                error = FetchError(f"{self.url}: the server refused the credentials (HTTP 401, "
                                   f"error {number}): {reason}")
            elif number == str(UNKNOWN_API):
                error = FetchError(f"{self.url}: the server does not describe itself: it does "
                                   f"not answer {api} (error {number}: {reason})")
            else:
                error = FetchError(f"{self.url}: {api} failed: error {number}: {reason}")
            error.errno = number
            raise error
        return root


def fetch(endpoint, with_builtin=False):
    """The namespaces the server describes (description.NamespaceDesc), without the
    built-in one unless `with_builtin`."""
    result = endpoint.call("system-api-describe")
    try:
        namespaces = description.read_namespaces(result)
    except description.DescriptionError as e:
        raise FetchError(f"{endpoint.url}: its description cannot be read: {e}")
    if not with_builtin:
        namespaces = [ns for ns in namespaces if ns.name != description.BUILTIN_NAMESPACE]
    if not namespaces:
        raise FetchError(f"{endpoint.url}: the server describes no APIs beyond the built-in ones")
    return namespaces
