"""backup2 import --from: a user's newest backup of one machine comes to another, over two panels on HTTPS."""

import contextlib
import gzip
import http.server
import json
import os
import signal
import ssl
import subprocess
import threading
import time
import unittest

import backup2_test
from backup2_test import local_token, run, tree_state
from panel import TlsPanel
from storage_case import server

USER, GONE = "www-data", "games"
MONDAY, TUESDAY = "2024-03-04", "2024-03-05"
ADMIN_PASSWORD, ARCHIVE_PASSWORD = "admin's $(touch canary)", "archive's pass word"


class Machine:
    """An install root with its panel on TLS and one user."""

    def __init__(self, stack, uid=33):
        self.root = stack.enter_context(backup2_test.install_root("/dev/shm"))
        self.home, self.local = self.root / "www", self.root / "var/backup/qorvel"
        (self.home / "data").mkdir(parents=True)
        for folder in (self.home, self.home / "data"):
            os.chown(folder, 33, 33)
        self.panel = stack.enter_context(TlsPanel(self.root))
        self.run("backup2_panel", "user", "add", "root", "--admin", "--uid", "0", stdin=ADMIN_PASSWORD)
        self.run("backup2_panel", "user", "add", USER, "--root", str(self.home), "--uid", str(uid))
        self.run("backup2_panel", "storage", "set", "--slice-size", "64K",
                 stdin=local_token(self.root / "store", ARCHIVE_PASSWORD))

    def run(self, *words, stdin="", expect=0):
        done = run(words, stdin=stdin, VEL_ROOT=self.root)
        assert done.returncode == expect, (words, done.returncode, done.stdout, done.stderr)
        return done.stdout if expect in (0, 3) else done.stderr

    def backup2(self, *words, **options):
        return self.run("backup2", *words, **options)

    def start(self, *words):
        return backup2_test.start(["backup2", *words], stdin=ADMIN_PASSWORD + "\n", VEL_ROOT=self.root)

    def left(self):
        return [str(path) for path in self.local.rglob(".import*")]


class OtherPanel:
    """Answers as it is told, {words in the request: answer}; the first that fits counts."""

    def __init__(self, setting, patience=0, **answers):
        outer, self.patience = self, patience  # seconds that a broken answer stays open

        class Handler(http.server.BaseHTTPRequestHandler):
            def answer(self):
                body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
                text = f"{self.command} {self.path} {body}"
                outer.asked.append(text)
                for words, answer in outer.answers.items():
                    if all(word in text for word in words.split()):
                        return self.give(*(answer if isinstance(answer, tuple) else (answer,)))
                return self.give(b"<html>What?</html>", 404)

            def give(self, content, status=200, more=0):
                self.send_response(status)
                self.send_header("Content-Length", str(len(content) + more))
                self.end_headers()
                self.wfile.write(content)
                self.wfile.flush()
                outer.stop.wait(outer.patience if more else 0)

            do_GET = do_POST = answer
            log_message = lambda *_: None

        self.answers, self.asked, self.stop = answers, [], threading.Event()
        self._server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(setting["cert"], setting["key"])
        self._server.socket = context.wrap_socket(self._server.socket, server_side=True)
        self.url = f"https://127.0.0.1:{self._server.server_port}"

    def __enter__(self):
        threading.Thread(target=self._server.serve_forever, args=(0.05,), daemon=True).start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        self._server.shutdown()
        self._server.server_close()


LOG_IN = {"session.newkey": b"<doc><ok/></doc>", "func=auth": b'<doc><auth id="0123"/></doc>'}


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class Import(unittest.TestCase):
    def setUp(self):
        self.stack = contextlib.ExitStack()
        self.addCleanup(self.stack.close)

    def machines(self, old_uid=33):
        self.old, self.new = Machine(self.stack, old_uid), Machine(self.stack)
        self.trusted = ["--from", self.old.panel.setting["url"], "--ca", self.old.panel.setting["ca"],
                        "--admin", "root"]
        return self.old, self.new

    def tearDown(self):
        for machine in (self.old, self.new):
            self.assertEqual(machine.left(), [])
            self.assertEqual(list(machine.root.rglob("canary")), [])
            log = machine.root / "var/qorvel.log"
            log = log.read_text() if log.exists() else ""
            self.assertNotIn(ADMIN_PASSWORD, log)
            self.assertNotIn(ARCHIVE_PASSWORD, log)
            self.assertNotIn("auth=", log)

    def bring(self, *more, words=None, password=ADMIN_PASSWORD, expect=0):
        shown = self.new.backup2("import", *(words or self.trusted), USER, *more, stdin=password + "\n", expect=expect)
        self.assertNotIn(password, shown)
        if expect == 1:
            self.assertEqual(shown.count("\n"), 1, shown)
        return shown

    def test_full_and_increment_come_over_as_they_were(self):
        old, new = self.machines()
        backup2_test.make_tree(old.home / "data", seed=3)
        for name in tree_state(old.home):
            os.lchown(old.home / name, 33, 33)
        old.backup2("run", USER, "--date", MONDAY)
        self.bring("--report", "first")
        self.assertEqual(tree_state(new.home), tree_state(old.home))
        (old.home / "data/names/-rf").unlink()
        (old.home / "data/new \n file").write_text("new")
        os.rename(old.home / "data/small", old.home / "data/big")
        old.backup2("run", USER, "--date", TUESDAY)
        (new.home / "data/only here").write_text("stays")
        self.bring("--report", "second")
        (new.home / "data/only here").unlink()
        os.utime(new.home / "data", ns=(0, tree_state(old.home)["data"].mtime_ns))
        self.assertEqual(tree_state(new.home), tree_state(old.home))
        report = json.loads(new.backup2("report", "second", "--json"))
        self.assertEqual((report["type"], report["owner"], report["finalized"]), ("import", USER, True))

    def test_files_of_a_user_with_another_number_become_his(self):
        old, new = self.machines(old_uid=4711)
        for name, uid, mode in (("own", 4711, 0o644), ("another's", 1, 0o4755), ("root's", 0, 0o600)):
            (old.home / "data" / name).write_text(name)
            os.chown(old.home / "data" / name, uid, uid)
            os.chmod(old.home / "data" / name, mode)
        old.backup2("run", USER, "--date", MONDAY)
        self.bring()
        found = {name: (entry.uid, entry.gid, entry.mode) for name, entry in tree_state(new.home / "data").items()}
        self.assertEqual(found, {"own": (33, 33, 0o644), "another's": (33, 33, 0o755), "root's": (33, 33, 0o600)})

    def test_databases_come_over(self):
        old, new = self.machines()
        keys = self.stack.enter_context(server("mariadb"))

        def ask(sql, database="shop"):
            return subprocess.run(["mariadb", f"--defaults-file={keys['options']}", "-N", database], input=sql,
                                  text=True, capture_output=True, check=True).stdout.strip()

        ask("CREATE DATABASE shop; CREATE USER shop@localhost IDENTIFIED BY 'x y'; GRANT ALL ON shop.* TO "
            "shop@localhost", "mysql")
        for machine in (old, new):
            machine.run("backup2_panel", "server", "add", "maria", "--type", "mysql", "--socket", keys["socket"],
                        "--login", keys["login"], stdin=keys["password"])
            machine.run("backup2_panel", "db", "add", USER, "maria", "shop", "--owner", "shop", stdin="x y")
        ask("CREATE TABLE t (s text); INSERT INTO t VALUES ('a row')")
        old.backup2("run", USER, "--date", MONDAY)
        ask("UPDATE t SET s = 'of Tuesday'")
        old.backup2("run", USER, "--date", TUESDAY)
        ask("DELETE FROM t")
        self.assertEqual(self.bring().count("\trestored\n"), 2)
        self.assertEqual(ask("SELECT s FROM t"), "of Tuesday")
        self.assertFalse((new.home / ".system").exists())

    def test_refusals_are_told_and_touch_nothing(self):
        old, new = self.machines()
        url, ca, other = (old.panel.setting[key] for key in ("url", "ca", "other_ca"))
        admin = ["--admin", "root"]
        cases = [
            (self.trusted, "another's", "the log-in of root is refused"),
            (["--from", url, "--ca", ca, "--admin", GONE], ADMIN_PASSWORD, f"the log-in of {GONE} is refused"),
            (["--from", url, *admin], ADMIN_PASSWORD, "certificate"),
            (["--from", url, "--ca", other, *admin], ADMIN_PASSWORD, "certificate"),
            (["--from", "https://127.0.0.1:1", *admin], ADMIN_PASSWORD, "127.0.0.1"),
            (self.trusted, ADMIN_PASSWORD, f"there is no complete backup of {USER}"),
            (["--from", url, "--insecure", *admin], ADMIN_PASSWORD, f"there is no complete backup of {USER}"),
        ]
        for words, password, reason in cases:
            with self.subTest(reason):
                self.assertIn(reason, self.bring(words=words, password=password, expect=1))
        self.old.run("backup2_panel", "user", "remove", USER)
        self.assertIn(f"there is no user {USER}", self.bring(expect=1))
        self.new.run("backup2_panel", "user", "remove", USER)
        self.assertIn("no user", self.bring(expect=1))
        for words in (["--from", url.replace("https", "http"), *admin], ["--from", "ftp://x", *admin],
                      ["--from", "https://u:p@x", *admin], ["--from", url], []):
            new.backup2("import", *words, USER, stdin=ADMIN_PASSWORD, expect=2)
        self.assertEqual(os.listdir(new.home / "data"), [])

    def test_panels_that_answer_nonsense(self):
        old, new = self.machines()
        (old.home / "data/file").write_text("old")
        old.backup2("run", USER, "--date", MONDAY)
        archive = b"".join(
            part.read_bytes() for part in sorted((self.plain(old)).glob("F*")))
        ok = b"<doc><status>ok</status></doc>"
        served = {"nodownload part=2": b"<doc><status>ERR part</status></doc>",
                  "nodownload part=listing": b"<doc><status>ERR part</status></doc>", "nodownload": ok}
        cases = {
            "not an XML document": {"POST": b"<html>Welcome"},
            "refused": {"POST": b"<doc/>"},
            "too long": {"POST": b" " * (2 << 20)},
            "remaining": {"POST": (b"<doc>", 200, 99)},
            "status 404": {**LOG_IN, **served},
            "no complete backup": {**LOG_IN, "nodownload": b"<doc><status>ERR missed</status></doc>"},
            "empty": {**LOG_IN, **served, "GET": b""},
            "empty ": {**LOG_IN, **served, "GET": gzip.compress(bytes(10240))},  # an archive of nothing
            "damaged": {**LOG_IN, **served, "GET": b"<html>Here is no archive"},
            "damaged ": {**LOG_IN, **served, "GET": archive[:-20]},
            "failed": {**LOG_IN, **served, "GET": (archive[:20], 200, 9)},
        }
        for reason, answers in cases.items():
            with self.subTest(reason), OtherPanel(old.panel.setting, **answers) as panel:
                words = ["--from", panel.url, "--ca", old.panel.setting["ca"], "--admin", "root"]
                self.assertIn(reason.strip(), self.bring(words=words, expect=1))
                self.assertEqual(os.listdir(new.home / "data"), [])
        # One that knows neither the question nor parts still serves what it has.
        with OtherPanel(old.panel.setting, **LOG_IN, GET=archive) as panel:
            words = ["--from", panel.url + "/path", "--ca", old.panel.setting["ca"], "--admin", "root"]
            self.assertIn("older version", self.bring(words=words))
            self.assertNotIn(ADMIN_PASSWORD, "".join(text.split(" ")[1] for text in panel.asked))
        self.assertEqual((new.home / "data/file").read_text(), "old")

    def plain(self, machine):
        """A folder with the newest archive's slices, decrypted."""
        target = machine.root / "plain"
        target.mkdir()
        info, = machine.local.glob(f"{USER}/*/*.info")
        for stored in (machine.root / "store" / USER / MONDAY).glob("F*"):
            machine.run("backup2_cp", "--get", "--info-file", str(info), "--slice",
                        str(target / stored.name.replace(".aes", "")))
        return target

    def test_what_was_fetched_goes_with_a_broken_import(self):
        old, new = self.machines()
        answers = {**LOG_IN, "nodownload part": b"<html>", "nodownload": b"", "GET": (b"x" * (1 << 20), 200, 1 << 20)}
        for signal_name in ("TERM", "INT", "KILL"):
            with self.subTest(signal_name), OtherPanel(old.panel.setting, 60, **answers) as panel:
                process = new.start("import", "--from", panel.url, "--ca", old.panel.setting["ca"], "--admin", "root",
                                    USER)
                self.wait_for(lambda: self.has_bytes(new.local), process)
                os.killpg(process.pid, getattr(signal, "SIG" + signal_name))
                process.communicate(timeout=60)
            if signal_name == "KILL":
                self.assertNotEqual(new.left(), [])
                new.backup2("cleanup")
            self.assertEqual(new.left(), [])

    @staticmethod
    def has_bytes(local):
        """Something of an import's content has arrived."""
        with contextlib.suppress(FileNotFoundError):  # renamed meanwhile
            return any(path.stat().st_size for path in local.rglob(".import*/*"))
        return False

    def wait_for(self, condition, process):
        while not condition():
            self.assertIsNone(process.poll())
            time.sleep(0.02)


if __name__ == "__main__":
    unittest.main()
