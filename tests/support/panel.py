"""A running panel for the suites: inside backup2_test.install_root(),

    with Panel() as panel:
        panel.command("user add bob --root /srv/bob --uid 1001", "his password")
        answer = panel.ask(func="backup2.item.info", elid="bob", role="")
"""

import http.client
import os
import signal
import socket
import urllib.parse
import xml.etree.ElementTree

import backup2_test


class _UnixConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=30)
        self._path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self._path)


class Panel:
    def __init__(self, *options):
        self.socket = os.path.join(os.environ["VEL_ROOT"], "var/run/qorvel.sock")
        self._options = options

    def __enter__(self):
        self.process = backup2_test.start(["backup2_panel", "serve", *self._options])
        ready = self.process.stdout.readline()
        if ready != "ready\n":
            self.stop()
            raise AssertionError("the panel does not start: " + ready + self.process.stderr.read())
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
        done = backup2_test.run(["backup2_panel", *words], stdin=secret)
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
        return self.post(_UnixConnection(self.socket), **parameters)

    def error(self, **parameters):
        """Type and object of the error that answers the request, or None."""
        node = self.ask(**parameters).find("error")
        return node if node is None else (node.get("type"), node.get("object"))
