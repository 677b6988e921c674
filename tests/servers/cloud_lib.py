"""Shared by the stand-ins for the cloud storages: SCRIPT start|stop|status DIR.

A stand-in speaks a provider's public protocol on 127.0.0.1, strictly: what the documentation asks
of a client is checked, and every breach is answered in the provider's form and noted. Plain HTTP,
where a Host header of the provider selects the host and any other one reaches all of them; and an
HTTPS proxy (CONNECT), so that independent clients with the provider's addresses built in run
against it: https_proxy=PROXY and CA as trusted authority.

`start` prints api=, access_token=, refresh_token=, client_id=, client_secret=, control=, ca=,
proxy= and returns when requests are answered; everything is written below DIR.

POST JSON to the control address (several members at once are fine):
  {"expire": true}            the access tokens die now; {"token_life": S}: those given later live S
  {"revoke": true}            access and refresh tokens die
  {"quota": BYTES}            the account's size, the trash included
  {"fail": {"path": REGEX, "status": N, "times": N, "after": BOOL}}
                              answers N; with "after" the request has its effect first
  {"rate_limit": N}           the next N answers tell to slow down; {"retry_after": S}: how long
  {"cut": {"path": REGEX, "after": BYTES, "how": "fin"|"rst", "times": N}}
                              ends the connection after so many bytes of the request's body, or of
                              the answer's when the request has none
  {"page": N}                 entries in a page of a listing (2)
  {"names": [NAME...]}        every listing has these names too; {"endless": true}: has no end
  {"reset": true}             an empty account, the first tokens, no faults, no notes
  {"discard": true}           of files that come from now on only the first 32 MiB are kept, their
                              sizes and the provider's digests are right; the rest is read as zeros
and what the provider's own file says. A REGEX is searched in the path with its query.
GET: {"files": {path: [size, sha256]}, "folders": [...], "used": N, "open_uploads": N,
      "refreshes": N, "requests": ["METHOD path?query"...], "violations": [...]}
"""

import base64
import collections
import contextlib
import hashlib
import http.server
import json
import os
import re
import secrets
import shutil
import signal
import socket
import socketserver
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse

PIECE = 256 << 10


class Gone(Exception):
    """The client left, or is to be cut off: there is no answer."""


class Refusal(Exception):
    """`reply` is the answer; `wrong` says what the client did against the protocol, if anything."""

    def __init__(self, reply, wrong=""):
        super().__init__(wrong)
        self.reply, self.wrong = reply, wrong


class Blob:
    """Bytes in a file that lives as long as the object."""

    kept = None  # that many are in the file, behind them zeros are read; None: all
    kinds = ()  # of digests that are worked out while the bytes come, where not all are kept

    def __init__(self, folder):
        handle, self.path = tempfile.mkstemp(dir=folder)
        os.close(handle)
        self.size, self._digests = 0, {}
        self._running = {kind: kind() for kind in Blob.kinds if Blob.kept is not None}

    def __del__(self):
        try:
            os.unlink(self.path)
        except FileNotFoundError:
            pass  # the server has ended

    def append(self, pieces, limit=None):
        """All of `pieces`, or up to `limit` bytes."""
        self._digests.clear()
        with open(self.path, "ab") as out:
            for piece in pieces:
                piece = piece if limit is None else piece[:limit - self.size]
                out.write(piece if Blob.kept is None else piece[:max(0, Blob.kept - self.size)])
                for digest in self._running.values():
                    digest.update(piece)
                self.size += len(piece)

    def pieces(self, size=None):
        """All of it, or the first `size` bytes."""
        left = self.size if size is None else size
        with open(self.path, "rb") as source:
            while left:
                piece = source.read(min(PIECE, left)) or bytes(min(PIECE, left))
                left -= len(piece)
                yield piece

    def copy(self, folder):
        other = Blob(folder)
        shutil.copyfile(self.path, other.path)
        other.size = self.size
        other._running = {kind: digest.copy() for kind, digest in self._running.items()}
        return other

    def digest(self, kind):
        """In hex; `kind` makes an object as those of hashlib are."""
        if kind in self._running:
            return self._running[kind].hexdigest()
        if kind not in self._digests:
            digest = kind()
            for piece in self.pieces():
                digest.update(piece)
            self._digests[kind] = digest.hexdigest()
        return self._digests[kind]


class Reply:
    def __init__(self, status=200, body=b"", headers=None):
        """`body`: bytes, a Blob, or what becomes JSON."""
        self.status, self.headers = status, dict(headers or {})
        if not isinstance(body, (bytes, str, Blob)):
            body = json.dumps(body)
            self.headers.setdefault("Content-Type", "application/json")
        self.body = body.encode() if isinstance(body, str) else body


class Request:
    def __init__(self, handler, folder):
        self.method, self.target, self.headers = handler.command, handler.path, handler.headers
        parts = urllib.parse.urlsplit(handler.path)
        self.path = urllib.parse.unquote(parts.path)
        self.query = dict(urllib.parse.parse_qsl(parts.query, keep_blank_values=True))
        self.host = handler.headers.get("Host", "")
        self.tls = isinstance(handler.connection, ssl.SSLSocket)
        self.chunked = self.headers.get("Transfer-Encoding", "").lower() == "chunked"
        self.length = None if self.chunked else int(self.headers.get("Content-Length") or 0)
        self.type = self.headers.get("Content-Type", "").split(";")[0].strip().lower()
        self.body, self.cut = Blob(folder), None
        self._source = handler.rfile

    def receive(self):
        """Fills `body`. Raises Gone when the client leaves, or where it is to be cut off."""
        self.body.append(self._pieces(), self.cut and self.cut["after"])

    def _pieces(self):
        if not self.chunked:
            yield from self._exactly(self.length)
            return
        while size := int(self._line().split(b";")[0], 16):
            yield from self._exactly(size)
            self._line()
        while self._line():
            pass

    def _exactly(self, size):
        while size:
            piece = self._source.read1(min(PIECE, size))
            if not piece:
                raise Gone("the client left within the body")
            yield piece
            size -= len(piece)
            if self.cut and self.body.size >= self.cut["after"]:
                raise Gone("cut")

    def _line(self):
        line = self._source.readline(1000)
        if not line.endswith(b"\n"):
            raise Gone("the client left within the body")
        return line.strip()

    def text(self):
        """The body, when it is a short one."""
        if self.body.size > 1 << 20:
            raise Refusal(Reply(413, "too large"), "more than 1 MiB where a short text belongs")
        return b"".join(self.body.pieces())

    def base(self, host):
        """Where this client finds the provider's `host`."""
        return f"https://{host}" if self.tls else f"http://{self.host}"


class Tokens:
    def __init__(self):
        self.client = (secrets.token_hex(8), secrets.token_hex(16))
        self.first = ("a." + secrets.token_urlsafe(24), "r." + secrets.token_urlsafe(24))
        self.reset()

    def reset(self):
        self.life, self.refreshes = 14400, 0
        self.access = {self.first[0]: time.monotonic() + self.life}
        self.refresh, self.known = {self.first[1]}, set(self.first)

    def revoke(self):
        self.access.clear()
        self.refresh.clear()

    def state(self, token):
        """"good", "expired", "revoked" or "unknown"."""
        if self.access.get(token, 0) > time.monotonic():
            return "good"
        return "unknown" if token not in self.known else "expired" if self.refresh else "revoked"

    def new(self, replace_refresh):
        self.refreshes += 1
        token = "a." + secrets.token_urlsafe(24)
        self.access[token] = time.monotonic() + self.life
        answer = {"access_token": token, "token_type": "bearer", "expires_in": self.life}
        if replace_refresh:
            answer["refresh_token"] = "r." + secrets.token_urlsafe(24)
            self.refresh = {answer["refresh_token"]}
        self.known |= {token, *self.refresh}
        return answer


class Cloud:
    """A provider. Requests are handled one at a time, when their bodies are there."""

    HOSTS = {}  # {host: regex of the paths that it serves}
    BUSY = 429
    DIGESTS = (hashlib.md5,)  # that clients ask for
    NEW_REFRESH_TOKEN = False
    CONTROLS = {"quota", "rate_limit", "retry_after", "page", "names", "endless", "discard"}

    def __init__(self, folder):
        self.folder, self.lock, self.stop = folder, threading.RLock(), threading.Event()
        self.tokens = Tokens()
        os.makedirs(folder)
        self.reset()

    # What a provider defines.
    def clear(self): raise NotImplementedError  # an empty account
    def handle(self, request): raise NotImplementedError  # Reply, or raises Refusal
    def error(self, status): raise NotImplementedError  # Reply in the provider's form
    def listing(self): raise NotImplementedError  # ({path: Blob}, [folder])
    def open_uploads(self): raise NotImplementedError  # how many
    def interrupted(self, request): pass  # the client left within the body
    def notes(self): return {}

    def reset(self):
        self.tokens.reset()
        self.faults, self.faulted = {"fail": [], "cut": []}, False
        self.rate_limit = 0
        self.retry_after, self.page, self.quota = 1, 2, 1 << 40
        self.names, self.endless, self.discard = [], False, False
        self.requests, self.violations = collections.deque(maxlen=20000), []
        self.clear()

    @property
    def discard(self):
        return Blob.kept is not None

    @discard.setter
    def discard(self, wanted):
        Blob.kept, Blob.kinds = (32 << 20) if wanted else None, self.DIGESTS

    def used(self):
        return sum(blob.size for blob in self.listing()[0].values())

    def serve_control(self, request):
        request.receive()
        with self.lock:
            if request.method == "GET":
                files, folders = self.listing()
                return Reply(200, {
                    "files": {path: [b.size, b.digest(hashlib.sha256)] for path, b in files.items()},
                    "folders": folders, "used": self.used(), "open_uploads": self.open_uploads(),
                    "refreshes": self.tokens.refreshes, "requests": list(self.requests),
                    "violations": self.violations, **self.notes()})
            for name, value in json.loads(request.text()).items():
                self.set_control(name, value)
        return Reply(200, {})

    def set_control(self, name, value):
        if name in self.faults:
            self.faults[name].append({"times": 1, **value})
        elif name == "token_life":
            self.tokens.life = value
        elif name in self.CONTROLS:
            setattr(self, name, value)
        else:
            {"reset": self.reset, "expire": self.tokens.access.clear,
             "revoke": self.tokens.revoke}[name]()
        # After these a client may repeat itself, with what is out of order then.
        self.faulted |= name in ("fail", "cut")

    def take_fault(self, name, request):
        with self.lock:
            for fault in self.faults[name]:
                if fault["times"] > 0 and re.search(fault["path"], request.target):
                    fault["times"] -= 1
                    return fault
        return None

    def answer(self, request):
        """The Reply to a request of the provider's protocol, injected faults included."""
        with self.lock:
            self.requests.append(f"{request.method} {request.target}")
        try:
            request.receive()
        except Gone:
            with self.lock:
                self.interrupted(request)
            raise
        fault = self.take_fault("fail", request)
        with self.lock:
            if self.rate_limit:
                self.rate_limit -= 1
                return self.refused(self.BUSY)
            if not fault or fault.get("after"):
                reply = self.checked(request)
        return self.refused(fault["status"]) if fault else reply

    def refused(self, status):
        reply = self.error(status)
        if status == self.BUSY:
            reply.headers["Retry-After"] = str(self.retry_after)
        return reply

    def checked(self, request):
        try:
            host = request.host.rsplit(":", 1)[0]
            served = self.HOSTS.get(host, "" if host in ("127.0.0.1", "localhost") else "no such host")
            if not re.match(served, request.path):
                raise Refusal(self.error(404), f"{host} does not serve this path")
            return self.handle(request)
        except Refusal as refusal:
            if refusal.wrong:
                self.violations.append(f"{request.method} {request.target}: {refusal.wrong}")
            return refusal.reply

    def check_members(self, value, shape, bad):
        """`shape`: {name: type, check or shape of its own}; with "?" it may be left out. Calls
        `bad` with what is wrong."""
        wanted = {name.rstrip("?"): check for name, check in shape.items()}
        if not isinstance(value, dict):
            bad("expected object")
        for name in value.keys() - wanted.keys():
            bad(f"{name}: unknown field")
        for name in shape.keys() - value.keys():
            if not name.endswith("?"):
                bad(f"{name}: missing required field")
        for name, item in value.items():
            check = wanted[name]
            if isinstance(check, dict):
                self.check_members(item, check, bad)
            elif not (isinstance(item, check) if isinstance(check, type) else check(item)):
                bad(f"{name}: bad value {item!r}"[:200])

    # OAuth 2.0, the same for all but for small things.
    def form(self, request):
        """The fields of a form, with the client's own from the Authorization header."""
        if request.method != "POST" or request.type != "application/x-www-form-urlencoded":
            raise Refusal(Reply(400, {"error": "invalid_request"}), "a form must be posted as one")
        form = dict(urllib.parse.parse_qsl(request.text().decode(), keep_blank_values=True))
        kind, _, value = request.headers.get("Authorization", "").partition(" ")
        if kind == "Basic":
            login = base64.b64decode(value).decode().partition(":")
            form["client_id"], form["client_secret"] = map(urllib.parse.unquote, login[::2])
        return form

    def check_client(self, form):
        if (form.get("client_id"), form.get("client_secret")) != self.tokens.client:
            raise Refusal(Reply(401, {"error": "invalid_client"}), "client id or secret")

    def grant(self, request):
        form = self.form(request)
        self.check_client(form)
        if form.get("grant_type") != "refresh_token":
            raise Refusal(Reply(400, {"error": "unsupported_grant_type"}), "grant_type")
        token = form.get("refresh_token")
        if token not in self.tokens.refresh:
            raise Refusal(Reply(400, {"error": "invalid_grant"}), "" if token in self.tokens.known
                          else "a refresh token that was never given")
        return Reply(200, self.tokens.new(self.NEW_REFRESH_TOKEN))

    def token_state(self, request, *schemes):
        """Of the Authorization header: as Tokens.state, or "missing" or "malformed"."""
        header = request.headers.get("Authorization")
        if header is None:
            return "missing"
        kind, _, token = header.partition(" ")
        return self.tokens.state(token) if kind in schemes and token else "malformed"


def stamp(end="Z"):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime()) + end


def select(value, wanted):
    """Only the members in `wanted`: {"a": {}, "b": {"c": {}}}; {} is all."""
    if isinstance(value, list):
        return [select(item, wanted) for item in value]
    if not wanted or not isinstance(value, dict):
        return value
    return {name: select(value[name], below) for name, below in wanted.items() if name in value}


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version, timeout, disable_nagle_algorithm = "HTTP/1.1", 120, True
    slots = threading.BoundedSemaphore(128)

    def handle(self):
        with Handler.slots:
            super().handle()

    def serve(self):
        cloud = self.server.cloud
        request = Request(self, cloud.folder)
        try:
            if request.path == "/_control":
                self.reply(cloud.serve_control(request))
                return
            request.cut = cloud.take_fault("cut", request)
            self.reply(cloud.answer(request), request.cut if request.length == 0 else None)
        except Gone as gone:
            self.close_connection = True
            if str(gone) == "cut":
                self.cut(request.cut["how"])
        except (ConnectionError, TimeoutError, ssl.SSLError):
            self.close_connection = True

    do_GET = do_POST = do_PUT = do_PATCH = do_DELETE = serve

    def reply(self, reply, cut=None):
        body = reply.body
        self.send_response(reply.status)
        for name, value in reply.headers.items():
            self.send_header(name, value)
        if reply.status != 204:
            self.send_header("Content-Length", str(body.size if isinstance(body, Blob) else len(body)))
        self.end_headers()
        sent = 0
        for piece in body.pieces() if isinstance(body, Blob) else [body]:
            if cut and sent + len(piece) >= cut["after"]:
                self.wfile.write(piece[:cut["after"] - sent])
                raise Gone("cut")
            self.wfile.write(piece)
            sent += len(piece)

    def cut(self, how):
        """Ends the connection: with FIN, after which what the client still sends is thrown away,
        or with RST."""
        try:
            if how == "rst":
                self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                           struct.pack("ii", 1, 0))
            else:
                self.connection.shutdown(socket.SHUT_WR)
                self.connection.settimeout(2)
                while self.rfile.read1(PIECE):
                    pass
        except OSError:
            pass

    def log_message(self, *args):
        pass


class Proxy(Handler):
    """Answers CONNECT to the provider's hosts itself, as these hosts."""

    def do_CONNECT(self):
        host = self.path.rsplit(":", 1)[0]
        self.close_connection = True
        if host not in self.server.cloud.HOSTS:
            self.server.cloud.violations.append(f"CONNECT {self.path}: not a host of the provider")
            self.send_error(403)
            return
        self.wfile.write(b"HTTP/1.1 200 Connection established\r\n\r\n")
        try:
            with self.server.tls.wrap_socket(self.connection, server_side=True) as connection:
                Handler(connection, self.client_address, self.server)
        except OSError:
            pass


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads, request_queue_size = True, 64

    def __init__(self, handler, cloud, tls=None):
        super().__init__(("127.0.0.1", 0), handler)
        self.cloud, self.tls = cloud, tls
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def shutdown_request(self, request):
        self.close_request(request)  # a shutdown would come before the RST of a cut

    def handle_error(self, request, client_address):
        if not isinstance(sys.exc_info()[1], (ConnectionError, TimeoutError)):
            self.cloud.violations.append(f"the server failed: {sys.exc_info()[1]!r}")
            super().handle_error(request, client_address)

    def address(self):
        return f"http://127.0.0.1:{self.server_address[1]}"


def make_certificate(work, hosts):
    """ca.pem: a certificate for the hosts, which is its own authority. Returns a TLS context."""
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj",
                    "/CN=Hosts for tests", "-keyout", f"{work}/ca.key", "-out", f"{work}/ca.pem",
                    "-addext", "subjectAltName=" + ",".join("DNS:" + host for host in hosts)],
                   check=True, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(f"{work}/ca.pem", f"{work}/ca.key")
    return context


def serve(cloud_class, work):
    shutil.rmtree(f"{work}/data", ignore_errors=True)
    cloud = cloud_class(f"{work}/data")
    signal.signal(signal.SIGTERM, lambda *_: cloud.stop.set())
    api = Server(Handler, cloud)
    proxy = Server(Proxy, cloud, make_certificate(work, cloud.HOSTS))
    settings = {"api": api.address(), "access_token": cloud.tokens.first[0],
                "refresh_token": cloud.tokens.first[1], "client_id": cloud.tokens.client[0],
                "client_secret": cloud.tokens.client[1], "control": api.address() + "/_control",
                "ca": f"{work}/ca.pem", "proxy": proxy.address()}
    with open(f"{work}/settings", "w", encoding="utf-8") as out:
        out.writelines(f"{name}={value}\n" for name, value in settings.items())
    print("ready", flush=True)
    os.dup2(2, 1)  # whoever started this waits for no more
    cloud.stop.wait()
    shutil.rmtree(f"{work}/data", ignore_errors=True)
    os._exit(0)  # requests under way are not waited for


def running(work):
    """The server's process id, or None."""
    try:
        with open(f"{work}/pid", encoding="ascii") as source:
            pid = int(source.read())
        with open(f"/proc/{pid}/cmdline", "rb") as source:
            return pid if os.fsencode(work) in source.read().split(b"\0") else None
    except (FileNotFoundError, ProcessLookupError, ValueError):
        return None


def start(work):
    if running(work):
        sys.exit(f"{sys.argv[0]}: already running in {work}")
    os.umask(0o077)
    os.makedirs(work, exist_ok=True)
    with open(f"{work}/log", "wb") as log:
        child = subprocess.Popen([sys.executable, os.path.abspath(sys.argv[0]), "serve", work],
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=log,
                                 start_new_session=True, cwd="/")
    with open(f"{work}/pid", "w", encoding="ascii") as out:
        out.write(str(child.pid))
    if child.stdout.readline() != b"ready\n":
        child.wait()
        with open(f"{work}/log", encoding="utf-8") as log:
            sys.exit(f"{sys.argv[0]}: the server died while starting\n{log.read()}")
    status(work)
    child.returncode = 0  # it stays


def stop(work):
    deadline = time.monotonic() + 20
    while pid := running(work):
        with contextlib.suppress(ProcessLookupError):  # it has just ended
            os.kill(pid, signal.SIGTERM if time.monotonic() < deadline else signal.SIGKILL)
        time.sleep(0.02)


def status(work):
    if not running(work):
        sys.exit(f"{sys.argv[0]}: not running in {work}")
    with open(f"{work}/settings", encoding="utf-8") as source:
        sys.stdout.write(source.read())


def main(cloud_class):
    verbs = {"start": start, "stop": stop, "status": status,
             "serve": lambda work: serve(cloud_class, work)}
    if len(sys.argv) != 3 or sys.argv[1] not in verbs:
        sys.exit(f"usage: {sys.argv[0]} start|stop|status DIR")
    verbs[sys.argv[1]](os.path.abspath(sys.argv[2]))
