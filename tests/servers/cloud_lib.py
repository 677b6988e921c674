"""Shared by the stand-ins for the cloud storages: SCRIPT start|stop|status DIR.

A stand-in speaks a provider's public protocol on 127.0.0.1, strictly: what the documentation asks
of a client is checked, and every breach is answered in the provider's form and noted. Plain HTTP,
where a Host header of the provider selects the host and any other one reaches all of them; and an
HTTPS proxy (CONNECT, certificates of an authority made at start), so that independent clients with
the provider's addresses built in run against it: https_proxy=PROXY and CA as trusted authority.

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
  {"hang": S}, {"trickle": BYTES_PER_S}, {"redirect": URL}
                              every answer, until set to 0 or ""
  {"page": N}                 entries in a page of a listing (2)
  {"names": [NAME...]}        every listing has these names too; {"endless": true}: has no end
  {"forget_uploads": true}    uploads under way are unknown from now on
  {"reset": true}             an empty account, the first tokens, no faults, no notes
and what the provider's own file says. A REGEX is searched in the path with its query.
GET: {"files": {path: [size, sha256]}, "folders": [...], "used": N, "open_uploads": N,
      "refreshes": N, "requests": ["METHOD path?query"...], "violations": [...]}
"""

import base64
import collections
import datetime
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
JSON_LIMIT = 1 << 20


class Gone(Exception):
    """The client left, or is to be cut off: there is no answer."""


class Reply:
    def __init__(self, status=200, body=b"", headers=None, blob=None, part=None):
        """`body`: bytes, or what becomes JSON; instead `blob`, of which `part` (start, end)."""
        self.status, self.headers, self.blob = status, dict(headers or {}), blob
        if not isinstance(body, (bytes, str)):
            body = json.dumps(body)
            self.headers.setdefault("Content-Type", "application/json")
        self.body = body.encode() if isinstance(body, str) else body
        self.part = part or (0, blob.size if blob else len(self.body))

    def pieces(self):
        start, end = self.part
        if not self.blob:
            yield self.body[start:end]
            return
        with open(self.blob.path, "rb") as source:
            source.seek(start)
            while start < end:
                piece = source.read(min(PIECE, end - start))
                start += len(piece)
                yield piece


class Refusal(Exception):
    """`reply` is the answer; `wrong` says what the client did against the protocol, if anything."""

    def __init__(self, reply, wrong=""):
        super().__init__(wrong)
        self.reply, self.wrong = reply, wrong


class Body:
    """The body of a request, in plain or chunked coding."""

    def __init__(self, headers, source, stop):
        self.chunked = headers.get("Transfer-Encoding", "").lower() == "chunked"
        self.length = None if self.chunked else int(headers.get("Content-Length") or 0)
        self.left = self.length or 0  # of the body, or of the chunk
        self.done = self.length == 0
        self.taken, self.cut_at, self.pace = 0, None, 0
        self._source, self._stop = source, stop

    def _line(self):
        line = self._source.readline(1000)
        if not line.endswith(b"\n"):
            raise Gone("the client left within the body")
        return line.strip()

    def _next_chunk(self):
        self.left = int(self._line().split(b";")[0], 16)
        if self.left == 0:
            while self._line():
                pass
            self.done = True

    def read(self, size):
        """`size` bytes, less only at the end."""
        parts = []
        while size > 0 and not self.done:
            if self.left == 0:
                self._next_chunk()
                continue
            want = min(size, self.left, self.pace or size)
            if self.cut_at is not None:
                want = min(want, self.cut_at - self.taken)
                if want <= 0:
                    raise Gone("cut")
            data = self._source.read(want)
            if len(data) < want:
                raise Gone("the client left within the body")
            parts.append(data)
            size, self.left, self.taken = size - want, self.left - want, self.taken + want
            if self.left == 0:
                self.done = not self.chunked
                if self.chunked:
                    self._line()
            if self.pace:
                self._stop.wait(want / self.pace)
        if self.done and self.cut_at is not None and self.taken >= self.cut_at:
            raise Gone("cut")
        return b"".join(parts)

    def drain(self):
        while self.read(PIECE):
            pass


class Blob:
    """The bytes of a file, on disk, with the digests of all that was added."""

    def __init__(self, folder, digests):
        handle, self.path = tempfile.mkstemp(dir=folder)
        os.close(handle)
        self.size, self._digests = 0, {name: make() for name, make in digests.items()}

    def digest(self, name):
        return self._digests[name].hexdigest()

    def append(self, body, limit=None):
        """False when the blob would grow beyond `limit`. A client that leaves within the body
        leaves whole pieces."""
        with open(self.path, "ab") as out:
            while piece := body.read(PIECE):
                if limit is not None and self.size + len(piece) > limit:
                    return False
                out.write(piece)
                self.size += len(piece)
                for digest in self._digests.values():
                    digest.update(piece)
        return True

    def mark(self):
        return self.size, {name: digest.copy() for name, digest in self._digests.items()}

    def back(self, mark):
        self.size, self._digests = mark
        os.truncate(self.path, self.size)

    def drop(self):
        os.unlink(self.path)


class Request:
    def __init__(self, handler, stop):
        self.method, self.target, self.headers = handler.command, handler.path, handler.headers
        parts = urllib.parse.urlsplit(handler.path)
        self.path = urllib.parse.unquote(parts.path)
        self.query = dict(urllib.parse.parse_qsl(parts.query, keep_blank_values=True))
        self.host = handler.headers.get("Host", "")
        self.tls = isinstance(handler.connection, ssl.SSLSocket)
        self.body = Body(handler.headers, handler.rfile, stop)

    def type(self):
        return self.headers.get("Content-Type", "").split(";")[0].strip().lower()

    def text(self):
        """The body, when it is a short one."""
        data = self.body.read(JSON_LIMIT + 1)
        if len(data) > JSON_LIMIT:
            raise Refusal(Reply(413, "too large"), "more than 1 MiB where a short text belongs")
        return data

    def base(self, host):
        """Where this client finds the provider's `host`."""
        return f"https://{host}" if self.tls else f"http://{self.host}"


class Tokens:
    def __init__(self):
        self.client = (secrets.token_hex(8), secrets.token_hex(16))
        self.first = ("a." + secrets.token_urlsafe(24), "r." + secrets.token_urlsafe(24))
        self.reset()

    def reset(self):
        self.life, self.refreshes, self.keep_refresh = 14400, 0, False
        self.access = {self.first[0]: time.monotonic() + self.life}
        self.refresh, self.known = {self.first[1]}, set(self.first)

    def expire(self):
        self.access.clear()

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
        self.known.add(token)
        answer = {"access_token": token, "token_type": "bearer", "expires_in": self.life}
        if replace_refresh:
            if not self.keep_refresh:
                self.refresh.clear()
            answer["refresh_token"] = "r." + secrets.token_urlsafe(24)
            self.refresh.add(answer["refresh_token"])
            self.known.add(answer["refresh_token"])
        return answer


class Cloud:
    """A provider. `HOSTS`: {host: regex of the paths that it serves}; `DIGESTS`: of its files."""

    HOSTS, DIGESTS, NEW_REFRESH_TOKEN = {}, {}, False

    def __init__(self, folder):
        self.folder, self.lock, self.stop = folder, threading.RLock(), threading.Event()
        self.tokens = Tokens()
        os.makedirs(folder, exist_ok=True)
        self.reset()

    # What a provider defines.
    def clear(self): raise NotImplementedError  # an empty account
    def handle(self, request): raise NotImplementedError  # Reply, or raises Refusal
    def error(self, status): raise NotImplementedError  # Reply in the provider's form
    def rate_limited(self): raise NotImplementedError
    def listing(self): raise NotImplementedError  # ({path: Blob}, [folder])
    def open_uploads(self): raise NotImplementedError  # a container, of which clear() is called
    def control(self, name, value): return False  # a control of its own

    def reset(self):
        for name in os.listdir(self.folder):
            os.unlink(os.path.join(self.folder, name))
        self.tokens.reset()
        self.faults, self.faulted = {"fail": [], "cut": []}, False
        self.hang = self.trickle = self.rate_limit = 0
        self.redirect, self.retry_after, self.page, self.quota = "", 1, 2, 1 << 40
        self.names, self.endless = [], False
        self.requests, self.violations = collections.deque(maxlen=20000), []
        self.clear()

    def blob(self):
        return Blob(self.folder, {"sha256": hashlib.sha256, **self.DIGESTS})

    def used(self):
        return sum(blob.size for blob in self.listing()[0].values())

    def room(self):
        with self.lock:
            return max(0, self.quota - self.used())

    def violate(self, request, text):
        with self.lock:
            self.violations.append(f"{request.method} {request.target}: {text}")

    def serve_control(self, request):
        if request.method == "GET":
            with self.lock:
                files, folders = self.listing()
                return Reply(200, {
                    "files": {path: [b.size, b.digest("sha256")] for path, b in files.items()},
                    "folders": folders, "used": self.used(),
                    "open_uploads": len(self.open_uploads()), "refreshes": self.tokens.refreshes,
                    "requests": list(self.requests), "violations": self.violations,
                    **self.notes()})
        with self.lock:
            for name, value in json.loads(request.text()).items():
                if not self.set_control(name, value):
                    return Reply(400, f"unknown control {name}\n")
        return Reply(200, {})

    def notes(self):
        return {}

    def set_control(self, name, value):
        if name == "reset":
            self.reset()
            return True
        # After these a client may repeat itself, with what is out of order then.
        self.faulted |= name in ("fail", "cut", "hang", "trickle", "forget_uploads",
                                 "reset_cursors")
        if name in ("expire", "revoke"):
            getattr(self.tokens, name)()
        elif name == "token_life":
            self.tokens.life = value
        elif name in self.faults:
            self.faults[name].append({"times": 1, **value})
        elif name in ("quota", "rate_limit", "retry_after", "hang", "trickle", "redirect", "page",
                      "names", "endless"):
            setattr(self, name, value)
        elif name == "forget_uploads":
            self.open_uploads().clear()
        else:
            return self.control(name, value)
        return True

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
        if self.hang:
            self.stop.wait(self.hang)
        if self.redirect:
            return Reply(302, "", {"Location": self.redirect})
        with self.lock:
            slow_down, self.rate_limit = self.rate_limit > 0, max(0, self.rate_limit - 1)
        if slow_down:
            return self.rate_limited()
        fault = self.take_fault("fail", request)
        if fault and not fault.get("after"):
            return self.error(fault["status"])
        try:
            self.check_host(request)
            reply = self.handle(request)
        except Refusal as refusal:
            if refusal.wrong:
                self.violate(request, refusal.wrong)
            reply = refusal.reply
        return self.error(fault["status"]) if fault else reply

    def check_host(self, request):
        host = request.host.rsplit(":", 1)[0]
        if host in ("127.0.0.1", "localhost"):
            return
        if host not in self.HOSTS:
            raise Refusal(self.error(404), f"no such host: {host}")
        if not re.match(self.HOSTS[host], request.path):
            raise Refusal(self.error(404), f"{host} does not serve this path")

    # OAuth 2.0, the same for all but for small things.
    def form(self, request):
        """The fields of a form, with the client's own from the Authorization header."""
        if request.method != "POST":
            raise Refusal(self.error(405), "a form must be posted")
        if request.type() != "application/x-www-form-urlencoded":
            raise Refusal(Reply(400, {"error": "invalid_request"}), "the content type of a form")
        form = dict(urllib.parse.parse_qsl(request.text().decode(), keep_blank_values=True))
        kind, _, value = request.headers.get("Authorization", "").partition(" ")
        if kind == "Basic":
            login = base64.b64decode(value).decode().partition(":")
            form["client_id"], form["client_secret"] = map(urllib.parse.unquote, login[::2])
        return form

    def check_client(self, form):
        if (form.get("client_id"), form.get("client_secret")) != self.tokens.client:
            raise Refusal(Reply(401, {"error": "invalid_client",
                                      "error_description": "Unauthorized"}), "client id or secret")

    def grant(self, request):
        form = self.form(request)
        self.check_client(form)
        if form.get("grant_type") != "refresh_token":
            raise Refusal(Reply(400, {"error": "unsupported_grant_type"}), "grant_type")
        with self.lock:
            if form.get("refresh_token") not in self.tokens.refresh:
                raise Refusal(Reply(400, {"error": "invalid_grant",
                                          "error_description": "refresh token is invalid"}),
                              "" if form.get("refresh_token") in self.tokens.known
                              else "a refresh token that was never given")
            return Reply(200, self.tokens.new(self.NEW_REFRESH_TOKEN))

    def token_state(self, request, scheme):
        """Of the Authorization header: as Tokens.state, or "missing" or "malformed"."""
        header = request.headers.get("Authorization")
        if header is None:
            return "missing"
        kind, _, token = header.partition(" ")
        with self.lock:
            return self.tokens.state(token) if kind == scheme and token else "malformed"


def stamp(when=None, form="%Y-%m-%dT%H:%M:%SZ"):
    return (when or datetime.datetime.now(datetime.timezone.utc)).strftime(form)


def partial(request, blob, headers):
    """The bytes of `blob`, or the one range of them that is asked for."""
    headers = {"Content-Type": "application/octet-stream", "Accept-Ranges": "bytes", **headers}
    asked = re.fullmatch(r"bytes=(\d*)-(\d*)", request.headers.get("Range", ""))
    if not asked or asked[0] == "bytes=-":
        return Reply(200, blob=blob, headers=headers)
    first, last = asked.groups()
    start = int(first) if first else max(0, blob.size - int(last))
    end = min(int(last) + 1, blob.size) if first and last else blob.size
    if start >= end:
        return Reply(416, "", {"Content-Range": f"bytes */{blob.size}"})
    headers["Content-Range"] = f"bytes {start}-{end - 1}/{blob.size}"
    return Reply(206, blob=blob, headers=headers, part=(start, end))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version, timeout, disable_nagle_algorithm = "HTTP/1.1", 120, True

    def serve(self):
        cloud = self.server.cloud
        request = Request(self, cloud.stop)
        try:
            if request.path == "/_control":
                self.reply(cloud, cloud.serve_control(request))
                return
            cut = cloud.take_fault("cut", request)
            request.body.pace = cloud.trickle
            if cut and not request.body.done:
                request.body.cut_at = cut["after"]
            reply = cloud.answer(request)
            request.body.drain()
            self.reply(cloud, reply, cut if request.body.cut_at is None else None)
        except Gone as gone:
            self.close_connection = True
            if str(gone) == "cut":
                self.cut(cut)
        except (ConnectionError, TimeoutError, ssl.SSLError):
            self.close_connection = True

    do_GET = do_HEAD = do_POST = do_PUT = do_PATCH = do_DELETE = do_OPTIONS = serve

    def reply(self, cloud, reply, cut=None):
        self.send_response(reply.status)
        for name, value in reply.headers.items():
            self.send_header(name, value)
        start, end = reply.part
        if reply.status != 204:
            self.send_header("Content-Length", str(end - start))
        self.end_headers()
        sent = 0
        for piece in reply.pieces() if self.command != "HEAD" else ():
            if cut and sent + len(piece) >= cut["after"]:
                self.wfile.write(piece[:cut["after"] - sent])
                raise Gone("cut")
            self.write(cloud, piece)
            sent += len(piece)

    def write(self, cloud, piece):
        pace = cloud.trickle
        for at in range(0, len(piece), pace or len(piece) or 1):
            self.wfile.write(piece[at:at + (pace or len(piece))])
            if pace and cloud.stop.wait(1):
                return

    def cut(self, cut):
        """Ends the connection: with FIN, after which what the client still sends is thrown away,
        or with RST."""
        connection = self.connection
        try:
            if cut.get("how", "fin") == "rst":
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            else:
                connection.shutdown(socket.SHUT_WR)
                connection.settimeout(2)
                while self.rfile.read1(PIECE):
                    pass
        except OSError:
            pass
        os.close(connection.detach())

    def log_message(self, *args):
        pass


class Proxy(http.server.BaseHTTPRequestHandler):
    """Answers CONNECT to the provider's hosts itself, as these hosts."""

    timeout = 120

    def do_CONNECT(self):
        api = self.server.api
        host = self.path.rsplit(":", 1)[0]
        self.close_connection = True
        if host not in api.cloud.HOSTS:
            with api.cloud.lock:
                api.cloud.violations.append(f"CONNECT {self.path}: not a host of the provider")
            self.send_error(403)
            return
        self.wfile.write(b"HTTP/1.1 200 Connection established\r\n\r\n")
        try:
            with self.server.tls.wrap_socket(self.connection, server_side=True) as connection:
                Handler(connection, self.client_address, api)
        except (OSError, ssl.SSLError):
            pass

    def log_message(self, *args):
        pass


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    daemon_threads, request_queue_size = True, 64
    slots = threading.BoundedSemaphore(128)

    def process_request(self, request, client_address):
        Server.slots.acquire()
        super().process_request(request, client_address)

    def process_request_thread(self, request, client_address):
        try:
            super().process_request_thread(request, client_address)
        finally:
            Server.slots.release()

    def shutdown_request(self, request):
        if request.fileno() >= 0:  # else: cut
            super().shutdown_request(request)

    def handle_error(self, request, client_address):
        if not isinstance(sys.exc_info()[1], (ConnectionError, TimeoutError)):
            with self.cloud.lock:
                self.cloud.violations.append(f"the server failed: {sys.exc_info()[1]!r}")
            super().handle_error(request, client_address)


def make_certificates(work, hosts):
    """An authority (ca.pem) and a certificate for the hosts: a TLS context."""
    def make(name, subject, *more):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                        "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj", subject,
                        "-keyout", f"{work}/{name}.key", "-out", f"{work}/{name}.pem", *more],
                       check=True, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE)
    make("ca", "/CN=Authority for tests")
    make("hosts", "/CN=Hosts for tests", "-CA", f"{work}/ca.pem", "-CAkey", f"{work}/ca.key",
         "-addext", "basicConstraints=critical,CA:FALSE",
         "-addext", "subjectAltName=" + ",".join("DNS:" + host for host in hosts))
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(f"{work}/hosts.pem", f"{work}/hosts.key")
    return context


def serve(cloud_class, work):
    os.umask(0o077)
    os.makedirs(work, exist_ok=True)
    shutil.rmtree(f"{work}/data", ignore_errors=True)
    tls = make_certificates(work, cloud_class.HOSTS)
    cloud = cloud_class(f"{work}/data")
    api, proxy = Server(("127.0.0.1", 0), Handler), Server(("127.0.0.1", 0), Proxy)
    api.cloud = proxy.cloud = cloud
    proxy.api, proxy.tls = api, tls
    signal.signal(signal.SIGTERM, lambda *_: cloud.stop.set())
    for server in (api, proxy):
        threading.Thread(target=server.serve_forever, daemon=True).start()
    address = f"http://127.0.0.1:{api.server_address[1]}"
    settings = {"api": address, "access_token": cloud.tokens.first[0],
                "refresh_token": cloud.tokens.first[1], "client_id": cloud.tokens.client[0],
                "client_secret": cloud.tokens.client[1], "control": address + "/_control",
                "ca": f"{work}/ca.pem", "proxy": f"http://127.0.0.1:{proxy.server_address[1]}"}
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
    if not shutil.which("openssl"):
        print(f"{sys.argv[0]}: openssl is missing", file=sys.stderr)
        sys.exit(77)
    if running(work):
        sys.exit(f"{sys.argv[0]}: already running in {work}")
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
    pid = running(work)
    if not pid:
        return
    os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + 20
    while running(work):
        if time.monotonic() > deadline:
            os.kill(pid, signal.SIGKILL)
        time.sleep(0.02)
    os.unlink(f"{work}/pid")


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
