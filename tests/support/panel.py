"""A running panel for the suites: inside backup2_test.install_root(),

    with Panel() as panel:
        panel.command("user add bob --root /srv/bob --uid 1001", "his password")
        answer = panel.ask(func="backup2.item.info", elid="bob", role="")

TlsPanel(root) is the same on HTTPS as well (tests/servers/panel); several stand side by side, each
in an install root of its own.
"""

import http.client
import os
import pathlib
import signal
import socket
import ssl
import urllib.parse
import xml.etree.ElementTree

import backup2_test


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=30)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Panel:
    def __init__(self, *options):
        self.root = os.environ["VEL_ROOT"]
        self.socket = os.path.join(self.root, "var/run/qorvel.sock")
        self._options = options

    def __enter__(self):
        self.process = backup2_test.start(["backup2_panel", "serve", *self._options])
        ready = self.process.stdout.readline()
        if ready != "ready\n":
            self.process.kill()
            raise AssertionError("the panel does not start: " + ready + self.process.communicate()[1])
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self, with_signal=signal.SIGTERM):
        """Ends it and gives its exit status."""
        if self.process.poll() is None:
            self.process.send_signal(with_signal)
        status = self.process.wait(timeout=30)
        self.process.stdout.close()
        self.process.stderr.close()
        return status

    def command(self, words, secret="", expect=0):
        """Runs one command line of the panel; gives what it printed."""
        words = words.split() if isinstance(words, str) else words
        done = backup2_test.run(["backup2_panel", *words], stdin=secret, VEL_ROOT=self.root)
        if done.returncode != expect:
            raise AssertionError(f"{words}: status {done.returncode}: {done.stderr}")
        return done.stdout + done.stderr

    def post(self, connection, **parameters):
        """The answer's document over an open connection; closes it."""
        try:
            connection.request("POST", "/", urllib.parse.urlencode(parameters),
                               {"Content-Type": "application/x-www-form-urlencoded"})
            return xml.etree.ElementTree.fromstring(connection.getresponse().read())
        finally:
            connection.close()

    def ask(self, **parameters):
        return self.post(UnixConnection(self.socket), **parameters)

    def error(self, **parameters):
        """Type and object of the error that answers the request, or None."""
        node = self.ask(**parameters).find("error")
        return node if node is None else (node.get("type"), node.get("object"))


class TlsPanel(Panel):
    """`setting` holds what the script prints: url, port, ca, other_ca, cert, key, log."""

    _script = pathlib.Path(__file__).parents[1] / "servers/panel"

    def __init__(self, root):
        super().__init__()
        self.root = str(root)
        self.socket = os.path.join(self.root, "var/run/qorvel.sock")
        self._work = os.path.join(self.root, "panel")

    def _run(self, action):
        done = backup2_test.run([self._script, action, self._work], VEL_ROOT=self.root)
        if done.returncode != 0:
            raise AssertionError(f"panel {action}: {done.stdout}{done.stderr}")
        return done.stdout

    def __enter__(self):
        self.setting = dict(line.split("=", 1) for line in self._run("start").splitlines())
        self.trust = ssl.create_default_context(cafile=self.setting["ca"])
        return self

    def stop(self, with_signal=signal.SIGTERM):
        self._run("stop")

    def connect(self, timeout=60):
        """A connection to its TLS door, which has to be closed."""
        return http.client.HTTPSConnection("127.0.0.1", int(self.setting["port"]),
                                           context=self.trust, timeout=timeout)

    def ask_tls(self, **parameters):
        return self.post(self.connect(), **parameters)

    def session(self, user, password):
        """The id of a new session of a user who logs in over TLS."""
        return self.ask_tls(func="auth", username=user, password=password).find("auth").get("id")
