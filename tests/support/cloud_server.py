"""The stand-ins for cloud storages (tests/servers) for the time of a test."""

import contextlib
import http.client
import json
import pathlib
import subprocess
import sys
import urllib.parse

from backup2_test import exchange

SERVERS = pathlib.Path(__file__).parents[1] / "servers"


class CloudServer:
    """Of a running server: api, access_token, refresh_token, client_id, client_secret, ca, proxy."""

    def __init__(self, settings):
        self.__dict__.update(line.split("=", 1) for line in settings.splitlines())
        self.address = urllib.parse.urlsplit(self.api).netloc

    def call(self, method, path, body=b"", **headers):
        """One exchange; `body`: bytes, or what becomes JSON."""
        if not isinstance(body, bytes):
            body = json.dumps(body).encode()
            headers.setdefault("Content_Type", "application/json")
        return exchange(http.client.HTTPConnection(self.address, timeout=30), method, path, body, **headers)

    def command(self, **commands):
        status, _, body = self.call("POST", "/_control", commands)
        assert status == 200, body

    def state(self):
        return json.loads(self.call("GET", "/_control")[2])


@contextlib.contextmanager
def cloud_server(provider, work):
    """Runs "dropbox", "google_drive" or "yandex" with its files in the directory `work`."""
    script = [sys.executable, SERVERS / provider]
    started = subprocess.run([*script, "start", work], check=True, capture_output=True, text=True)
    try:
        yield CloudServer(started.stdout)
    finally:
        subprocess.run([*script, "stop", work], check=True)
