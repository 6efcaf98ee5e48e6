"""HTTPS servers on loopback for tests, with a certificate authority of their own (made by the openssl command).

`PushServer` plays a push project: the token endpoint and the message endpoint of one service account. It checks what
it is sent as the real ones would, and keeps every request byte for byte:

    server = PushServer(folder)                     # listens at once, on a free port of 127.0.0.1
    account = server.write_service_account(path)    # a key file with an RSA key that was made for this process
    environment = {**os.environ, **server.environment}
    server.on_push = lambda request: start_the_phone()   # called before the push is answered
    server.script("push", Answer(drop=True), Answer(503, b"busy"))   # the next two pushes; then as usual again
    ...
    server.problems                                 # what was wrong with any request; [] is what a test wants
    server.requests("token"), server.requests("push")
    server.close()

An `Answer` is sent as it is (status, body, headers), or `drop=True` closes the connection without one, `reset=True`
resets it, `stall=True` holds it until the server is closed, `raw=b"..."` sends just these bytes.

As a program (`https_server.py FOLDER`) it starts one server for every kind of certificate, prints their addresses as
one line of JSON, and ends when its standard input does. What they answer is told by the path; see `answer_by_path`.
"""

import base64
import dataclasses
import functools
import json
import pathlib
import socket
import ssl
import struct
import subprocess
import sys
import threading
import time
import urllib.parse

SCOPE = "https://www.googleapis.com/auth/firebase.messaging"
GRANT = "grant_type=urn:ietf:params:oauth:grant-type:jwt-bearer&assertion="
PATIENCE = 60  # nothing here takes so long; a lost peer must not keep a thread for ever


def openssl(*arguments, **options):
    """Runs the command; returns what it prints. Raises with its messages where it fails."""
    options.setdefault("input", b"")
    result = subprocess.run(["openssl", *map(str, arguments)], capture_output=True, **options)
    if result.returncode != 0:
        raise RuntimeError(f"openssl {arguments[0]}: {result.stderr.decode(errors='replace')}")
    return result.stdout


class CertificateAuthority:
    """A fresh authority; `certificate` is the file to trust."""

    def __init__(self, folder, name="authority"):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.certificate = self.folder / f"{name}.pem"
        self.key = self.folder / f"{name}.key"
        openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                "-subj", f"/CN={name}", "-keyout", self.key, "-out", self.certificate)

    def issue(self, name, alternatives="IP:127.0.0.1,IP:::1,DNS:localhost", days=2):
        """A server certificate for these names; returns the two files. Negative days: it has expired."""
        request, key, certificate, extensions = (self.folder / f"{name}{end}" for end in (".csr", ".key", ".pem", ".ext"))
        openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", f"/CN={name}",
                "-keyout", key, "-out", request)
        extensions.write_text(f"subjectAltName={alternatives}\n")
        openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key, "-CAcreateserial",
                "-days", days, "-extfile", extensions, "-out", certificate)
        return certificate, key


@dataclasses.dataclass
class Answer:
    status: int = 200
    body: bytes = b""
    headers: tuple = ()
    drop: bool = False
    reset: bool = False
    stall: bool = False
    raw: bytes | None = None

    def encoded(self):
        if self.raw is not None:
            return self.raw
        lines = [f"HTTP/1.1 {self.status} Scripted", f"Content-Length: {len(self.body)}", "Connection: close"]
        lines += [f"{name}: {value}" for name, value in self.headers]
        return ("\r\n".join(lines) + "\r\n\r\n").encode() + self.body


@dataclasses.dataclass
class Request:
    raw: bytes  # the whole request as it came, head and body
    method: str
    path: str
    headers: dict  # names in lower case
    body: bytes
    at: float  # time.monotonic() of its last byte


class HttpsServer:
    """Answers every request, one a connection, with what `answer(request)` returns. Without a certificate: plain HTTP."""

    def __init__(self, answer, certificate=None, key=None, handshake=True, host="127.0.0.1"):
        self.answer = answer
        self.handshake = handshake
        self.context = None
        if certificate:
            self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            self.context.load_cert_chain(certificate, key)
        self.closing = threading.Event()
        self.lock = threading.Lock()
        self.open = set()
        family = socket.AF_INET6 if ":" in host else socket.AF_INET
        self.listener = socket.create_server((host, 0), family=family, backlog=64)
        self.port = self.listener.getsockname()[1]
        self.threads = []
        self.acceptor = threading.Thread(target=self._accept, daemon=True)
        self.acceptor.start()

    def close(self):
        self.closing.set()
        self.listener.shutdown(socket.SHUT_RDWR)
        self.acceptor.join(PATIENCE)
        self.listener.close()
        with self.lock:
            for connection in self.open:
                try:
                    connection.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # its peer has left already
        for thread in self.threads:
            thread.join(PATIENCE)

    def _accept(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            thread = threading.Thread(target=self._serve, args=(connection,), daemon=True)
            self.threads.append(thread)
            thread.start()

    def _serve(self, connection):
        with self.lock:
            self.open.add(connection)
        try:
            connection.settimeout(PATIENCE)
            if not self.handshake:
                connection.recv(1)  # the client has begun; a connection that breaks now breaks in the handshake
                return
            stream = connection
            if self.context:
                stream = self.context.wrap_socket(connection, server_side=True)
                with self.lock:
                    self.open.discard(connection)
                    self.open.add(stream)
                connection = stream
            request = self._read(stream)
            if request:
                self._send(stream, self.answer(request))
        except OSError:
            pass  # the client has left, or does not trust us: what tests of clients do
        finally:
            with self.lock:
                self.open.discard(connection)
            connection.close()

    @staticmethod
    def _read(stream):
        data = b""
        while b"\r\n\r\n" not in data:
            piece = stream.recv(65536)
            if not piece:
                return None
            data += piece
            if data.startswith(b"\x16"):  # a TLS handshake, to a server that speaks none
                stream.sendall(Answer(400).encoded())
                return None
        head, _, body = data.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        headers = {}
        for line in lines[1:]:
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        missing = int(headers.get("content-length", 0)) - len(body)
        while missing > 0:
            piece = stream.recv(min(missing, 65536))
            if not piece:
                return None
            body += piece
            missing -= len(piece)
        method, path, _ = lines[0].split(" ", 2)
        return Request(head + b"\r\n\r\n" + body, method, path, headers, body, time.monotonic())

    def _send(self, stream, answer):
        if answer.stall:
            self.closing.wait()
        elif answer.reset:
            stream.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        elif not answer.drop:
            stream.sendall(answer.encoded())
            if self.context:
                stream.unwrap().close()
            else:
                stream.shutdown(socket.SHUT_WR)


def base64url_decode(text):
    if "=" in text or "+" in text or "/" in text:
        raise ValueError("not base64url without padding")
    return base64.urlsafe_b64decode(text + "=" * (-len(text) % 4))


@functools.cache
def account_key():
    """The private and the public key of every service account of this process: it takes long to find one."""
    private = openssl("genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048")
    return private, openssl("pkey", "-pubout", input=private)


class PushServer:
    """The token endpoint and the message endpoint of one push project."""

    def __init__(self, folder, on_push=None, project_id="orlinth-test", expires_in=3599):
        self.folder = pathlib.Path(folder)
        self.folder.mkdir(parents=True, exist_ok=True)
        self.on_push = on_push
        self.project_id = project_id
        self.expires_in = expires_in
        self.client_email = "wake@orlinth-test.example"
        self.private_key_id = "0123456789abcdef"
        self.problems = []  # what was wrong with the requests, in words
        self.minted = []  # the access tokens that were given out
        self._requests = []
        self._script = {"token": [], "push": []}
        self._changed = threading.Condition()
        self.authority = CertificateAuthority(self.folder)
        certificate, key = self.authority.issue("server")
        self.server = HttpsServer(self._answer, certificate, key)
        self.base_url = f"https://127.0.0.1:{self.server.port}"
        self.token_uri = f"https://localhost:{self.server.port}/token"
        self.push_path = f"/v1/projects/{urllib.parse.quote(project_id, safe='')}/messages:send"
        self.rsa_key = self.folder / "account.key"
        self.rsa_public = self.folder / "account.pub"
        for path, content in zip((self.rsa_key, self.rsa_public), account_key()):
            path.write_bytes(content)

    def close(self):
        self.server.close()

    @property
    def environment(self):
        """What a program needs to meet this server instead of the public one."""
        return {"ORLINTH_FCM_BASE_URL": self.base_url, "SSL_CERT_FILE": str(self.authority.certificate)}

    def account(self, **changes):
        """The service account; a key with the value None is left out."""
        members = {
            "type": "service_account",
            "project_id": self.project_id,
            "private_key_id": self.private_key_id,
            "private_key": self.rsa_key.read_text(),
            "client_email": self.client_email,
            "token_uri": self.token_uri,
            **changes,
        }
        return {name: value for name, value in members.items() if value is not None}

    def write_service_account(self, path, **changes):
        path = pathlib.Path(path)
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(json.dumps(self.account(**changes)))
        path.chmod(0o600)
        return path

    def script(self, endpoint, *answers):
        """What the next requests to "token" or "push" are answered, in order."""
        with self._changed:
            self._script[endpoint] += answers

    def forget_script(self):
        """From now on everything is answered as usual."""
        with self._changed:
            self._script = {"token": [], "push": []}

    def requests(self, endpoint=None):
        with self._changed:
            return [request for kind, request in self._requests if endpoint in (None, kind)]

    def wait_for(self, endpoint, count=1):
        """Returns when so many requests have come to the endpoint."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._count(endpoint) >= count, PATIENCE):
                raise AssertionError(f"{self._count(endpoint)} requests to {endpoint}, not {count}")

    def _count(self, endpoint):
        return sum(kind == endpoint for kind, _ in self._requests)

    def _answer(self, request):
        endpoint = "token" if request.path == "/token" else "push"
        try:
            problems = list(self._check_token(request) if endpoint == "token" else self._check_push(request))
        except Exception as error:  # whatever a malformed request does to the checks is the request's fault
            problems = [f"{endpoint}: {error!r}"]
        with self._changed:
            self._requests.append((endpoint, request))
            self.problems += problems
            scripted = self._script[endpoint].pop(0) if self._script[endpoint] else None
            self._changed.notify_all()
        if endpoint == "push" and self.on_push:
            self.on_push(request)
        if scripted:
            return scripted
        if problems:
            return Answer(400, json.dumps({"error": "invalid_request", "error_description": "; ".join(problems)}).encode())
        if endpoint == "token":
            return self._mint()
        return Answer(200, json.dumps({"name": f"projects/{self.project_id}/messages/1"}).encode())

    def _mint(self):
        with self._changed:
            token = f"ya29.test-token-{len(self.minted)}"
            self.minted.append(token)
        reply = {"access_token": token, "expires_in": self.expires_in, "token_type": "Bearer"}
        return Answer(200, json.dumps(reply).encode(), (("Content-Type", "application/json"),))

    def _check_token(self, request):
        if request.method != "POST":
            yield f"token: method {request.method}"
        if request.headers.get("content-type") != "application/x-www-form-urlencoded":
            yield f"token: content type {request.headers.get('content-type')}"
        body = request.body.decode("ascii")
        if not body.startswith(GRANT):
            yield f"token: body begins {body[:80]!r}"
            return
        yield from self._check_jwt(body[len(GRANT):])

    def _check_jwt(self, jwt):
        header, claims, signature = jwt.split(".")
        signed = self.folder / f"signed-{threading.get_ident()}"
        signature_file = self.folder / f"signature-{threading.get_ident()}"
        signed.write_text(f"{header}.{claims}")
        signature_file.write_bytes(base64url_decode(signature))
        try:
            openssl("dgst", "-sha256", "-verify", self.rsa_public, "-signature", signature_file, signed)
        except RuntimeError as error:
            yield f"token: the signature is wrong: {error}"
        expected_header = {"alg": "RS256", "kid": self.private_key_id, "typ": "JWT"}
        yield from self._compare("JWT header", base64url_decode(header), expected_header)
        issued = json.loads(base64url_decode(claims)).get("iat")
        expected_claims = {"aud": self.token_uri, "exp": issued + 3600, "iat": issued, "iss": self.client_email,
                           "scope": SCOPE}
        yield from self._compare("JWT claims", base64url_decode(claims), expected_claims)
        if not isinstance(issued, int) or abs(issued - time.time()) > 30:
            yield f"token: iat {issued} is not now"

    @staticmethod
    def _compare(what, text, expected):
        wanted = json.dumps(expected, sort_keys=True, separators=(",", ":"), ensure_ascii=False).encode()
        if text != wanted:
            yield f"{what}: {text!r}, not {wanted!r}"

    def _check_push(self, request):
        if request.method != "POST" or request.path != self.push_path:
            yield f"push: {request.method} {request.path}"
        if request.headers.get("authorization") not in [f"Bearer {token}" for token in self.minted]:
            yield "push: the access token is not one of ours"
        if request.headers.get("content-type") != "application/json; charset=UTF-8":
            yield f"push: content type {request.headers.get('content-type')}"
        message = json.loads(request.body)
        token = message["message"]["token"]
        expected = {"message": {"token": token, "data": {"wake": "1"}, "android": {"priority": "high"}}}
        if message != expected or not token:
            yield f"push: {message}"


def answer_by_path(request):
    """/echo: the request as JSON; /status/N; /big/N: that many bytes; /date/: that one; and what the names say."""
    first, _, rest = request.path.lstrip("/").partition("/")
    if first == "echo":
        seen = {"method": request.method, "path": request.path, "headers": request.headers, "body": request.body.decode()}
        return Answer(body=json.dumps(seen).encode())
    answers = {
        "status": lambda: Answer(int(rest), b"as asked"),
        "big": lambda: Answer(body=b"x" * int(rest)),
        "date": lambda: Answer(204, headers=(("dATE", rest.replace("_", " ")),)),
        "hints": lambda: Answer(raw=b"HTTP/1.1 103 Early Hints\r\nDate: Sun, 06 Nov 1994 08:49:37 GMT\r\n\r\n"
                                    b"HTTP/1.1 204 No Content\r\n\r\n"),
        "redirect": lambda: Answer(302, b"elsewhere", (("Location", "/echo"),)),
        "stall": lambda: Answer(stall=True),
        "drop": lambda: Answer(drop=True),
        "reset": lambda: Answer(reset=True),
        "partial": lambda: Answer(raw=b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\ntoo little"),
        "nothttp": lambda: Answer(raw=b"220 mail.example ESMTP\r\n"),
    }
    return answers[first]()


class Proxy(HttpsServer):
    """A proxy that opens a tunnel to `target`, whatever was asked for but two hosts: those are refused."""

    def __init__(self, target):
        self.target = target
        super().__init__(None)

    def _serve(self, connection):
        with self.lock:
            self.open.add(connection)
        try:
            connection.settimeout(PATIENCE)
            request = self._read(connection)
            host = request.path.partition(":")[0]
            refusals = {"forbidden.test": 403, "unreachable.test": 502}
            if request.method != "CONNECT" or host in refusals:
                connection.sendall(Answer(refusals.get(host, 405)).encoded())
                return
            with socket.create_connection(("127.0.0.1", self.target), PATIENCE) as onward:
                connection.sendall(b"HTTP/1.1 200 Connection established\r\n\r\n")
                back = threading.Thread(target=self._pass_on, args=(onward, connection), daemon=True)
                back.start()
                self._pass_on(connection, onward)
                back.join(PATIENCE)
        except OSError:
            pass  # one of the two has left
        finally:
            with self.lock:
                self.open.discard(connection)
            connection.close()

    @staticmethod
    def _pass_on(source, sink):
        try:
            while piece := source.recv(65536):
                sink.sendall(piece)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # one of the two has left


def main(folder):
    folder = pathlib.Path(folder)
    authority = CertificateAuthority(folder, "authority")
    stranger = CertificateAuthority(folder, "stranger")
    good = HttpsServer(answer_by_path, *authority.issue("good", "IP:127.0.0.1,IP:::1,DNS:localhost,DNS:push.test"))
    servers = {
        "good": good,
        "wrong_host": HttpsServer(answer_by_path, *authority.issue("wrong_host", "DNS:elsewhere.test")),
        "expired": HttpsServer(answer_by_path, *authority.issue("expired", days=-1)),
        "untrusted": HttpsServer(answer_by_path, *stranger.issue("untrusted")),
        "plain": HttpsServer(answer_by_path),
        "breaks_in_handshake": HttpsServer(answer_by_path, handshake=False),
        "proxy": Proxy(good.port),
    }
    ports = {name: server.port for name, server in servers.items()}
    print(json.dumps({"ca": str(authority.certificate), **ports}), flush=True)
    sys.stdin.read()
    for server in servers.values():
        server.close()


if __name__ == "__main__":
    main(sys.argv[1])
