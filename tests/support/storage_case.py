"""What the suites of remote storages share: servers of tests/servers, what "storage add" is told of each
kind, and a test case with a panel, a user's tree and its backups."""

import contextlib
import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import unittest

import backup2_test
from backup2_test import run, tree_state
from panel import Panel

USER = "www-data"  # every Debian has it
MONDAY, TUESDAY, WEDNESDAY = "2024-03-04", "2024-03-05", "2024-03-06"
SERVERS = pathlib.Path(__file__).parents[1] / "servers"
PASSWORD, OWN_PASSWORD = "administrator's $(touch canary)", "the user's own %p"


@contextlib.contextmanager
def server(name, **env):
    """A server of tests/servers while the block runs; what it printed. A missing package is a failure."""
    work = tempfile.mkdtemp(prefix="backup2-server-")
    os.chmod(work, 0o755)
    script = SERVERS / name
    command = [sys.executable, script] if b"python" in script.read_bytes()[:40] else [script]
    try:
        done = subprocess.run([*command, "start", work], capture_output=True, text=True, check=False,
                              env={**os.environ, **env}, timeout=180)
        assert done.returncode == 0, f"{name}: {done.stdout}{done.stderr}"
        yield dict(line.split("=", 1) for line in done.stdout.splitlines())
    finally:
        subprocess.run([*command, "stop", work], capture_output=True, check=False)
        shutil.rmtree(work, ignore_errors=True)


# ---- What "storage add" is told: the words, and the lines of secrets ----------------------------

def sftp(ssh, folder, host="127.0.0.1", key="key"):
    return ["--type", "sftp", "--host", host, "--port", ssh["port"], "--key-file", ssh[key],
            "--path", f"{ssh['root']}/{folder}"], []


def node(ssh, folder):
    return ["--type", "node", "--host", "127.0.0.1", "--port", ssh["port"], "--key-file", ssh["key"],
            "--path", f"{ssh['root']}/{folder}"], []


def ftp(settings, folder, *words, scheme=""):
    return ["--type", "ftp", "--host", scheme + settings["host"], "--port", settings["port"],
            "--user", settings["user"], "--path", "/" + folder, *words], [settings["password"]]


def s3(settings, folder, kind="s3"):
    return ["--type", kind, "--endpoint", settings["endpoint"], "--region", settings["region"],
            "--bucket", settings["bucket"], "--path", folder], [settings["access_key"], settings["secret_key"]]


def cloud(settings, folder, kind):
    return ["--type", kind, "--api", settings["api"], "--path", "/" + folder], [
        settings[name] for name in ("access_token", "refresh_token", "client_id", "client_secret")]


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class StorageCase(unittest.TestCase):
    """A machine with its install root, panel and user. A test of several makes an object for each."""

    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.serve = lambda name, **env: stack.enter_context(server(name, **env))
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.root = stack.enter_context(backup2_test.install_root(memory))
        self.home, self.local = self.root / "www", self.root / "var/backup/qorvel"
        self.panel = stack.enter_context(Panel())
        self.secrets = {PASSWORD, OWN_PASSWORD}
        self.env = {"BACKUP2_RETRY_MS": "1", "VEL_ROOT": str(self.root)}
        self.dice = random.Random(11)
        (self.home / "data/sub").mkdir(parents=True)
        (self.home / "data/link").symlink_to("sub/b")
        self.panel.command(["user", "add", USER, "--root", str(self.home)])
        self.change()

    def change(self):
        for name, size in (("a", 200_000), ("sub/b", 100_000), (f"new{self.dice.random()}", 5000)):
            (self.home / "data" / name).write_bytes(self.dice.randbytes(size))
        state = tree_state(self.home)
        return {name: entry for name, entry in state.items() if not name.startswith(".system")}  # of a killed run

    def backup2(self, *words, expect=0, stdin=None):
        done = run(["backup2", *words], stdin=stdin, **self.env)
        self.assertEqual(done.returncode, expect, (words, done.stdout, done.stderr))
        log = self.root / "var/qorvel.log"
        seen = done.stdout + done.stderr + (log.read_text(errors="replace") if log.exists() else "")
        for secret in self.secrets:
            self.assertNotIn(secret, seen, words)
        return done.stdout if expect == 0 else done.stderr

    def add(self, described, *words, password=None, expect=0):
        options, secrets = described
        self.secrets.update(secret for secret in secrets if len(secret) > 12)
        lines = [*secrets, *([password] if password else [])]
        return self.backup2("storage", "add", *words, *options, *(["--encrypt"] if password else []),
                            stdin="".join(line + "\n" for line in lines), expect=expect)

    def stored(self, date):
        """Names under the backup's folder, as the storage lists them."""
        token = self.panel.ask(func="backup2.settings").findtext("storage")
        done = run(["backup2_cp", "--list", f"{USER}/{date}"], BACKUP_TOKEN=token, **self.env)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout.split()

    def assert_restores(self, date, state, *words):
        with tempfile.TemporaryDirectory(dir=self.root) as target:
            self.backup2("restore", USER, date, "--to", target, *words)
            self.assertEqual(tree_state(target), state, (date, words))

    def assert_tidy(self):
        left = [p for p in self.local.iterdir() if p.name != USER]
        left += list(self.root.rglob(".tmp.*")) + list((self.root / "tmp").glob("*"))
        left += list((self.root / "var/backup2_cp.tmp").glob("*"))
        self.assertEqual([str(p) for p in left], [])
