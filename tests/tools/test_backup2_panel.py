"""The embedded panel: what it answers, to whom, and what it keeps to itself."""

import contextlib
import os
import signal
import socket
import stat
import subprocess
import unittest

import backup2_test
from panel import Panel, TlsPanel

SECRET = "c2VjcmV0LXBhc3N3b3Jk"
TOKEN = "type=local;path=/srv/backups;arch_password=" + SECRET


def text(document, path):
    return document.findtext(path)


class PanelCase(unittest.TestCase):
    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        self.panel = self.enterContext(Panel())

    def add_bob(self):
        self.panel.command("user add bob --root /srv/bob --uid 1001 --folder data --folder mail "
                           "--exclude *.tmp", "bob's password\n")


class Answers(PanelCase):
    def add_all(self):
        self.add_bob()
        self.panel.command("storage set --slice-size 100M --count-limit 5", TOKEN)
        self.panel.command("storage set --user bob --size-limit 2G", "type=ftp;url=host")
        self.panel.command("plan set small --slice-size 10M --exclude cache/* --exclude-db junk "
                           "--keep-last 3 --keep-weekly 0 --keep-yearly 9999")
        self.panel.command("server add my --type mysql --socket /run/s --login root", "pa'ss \"1\"#\\")
        self.panel.command("db add bob my shop.2 --owner shopper", "owner's")
        self.panel.command("db add bob my junk")

    def test_a_job_names_all_that_is_saved_and_where_it_goes(self):
        self.add_all()
        self.panel.command("plan assign small bob")
        info = self.panel.ask(func="backup2.item.info", elid="bob", role="")
        self.assertEqual(text(info, "local_dir"), f"{self.root}/var/backup/qorvel")
        self.assertEqual(info.find("files").get("root"), "/srv/bob")
        self.assertEqual([n.text for n in info.findall("files/folder")], ["data", "mail"])
        self.assertEqual([n.text for n in info.find("exclude_file")], ["cache/*", "*.tmp"])
        self.assertEqual([n.text for n in info.findall("exclude_db/exclude")], ["junk"])
        self.assertEqual([(n.get("type"), n.get("name")) for n in info.findall("system/spec")],
                         [("db", "my.junk"), ("db", "my.shop.2"), ("user", "bob")])
        self.assertEqual(info.find("storage").attrib, {
            "slice_size": "10M", "local_dir": f"{self.root}/var/backup/qorvel", "size_limit": "",
            "count_limit": "5"})
        self.assertEqual(text(info, "storage"), TOKEN)
        self.assertEqual(info.find("backup").get("local"), "yes")
        self.assertEqual(info.find("keep").attrib, {"last": "3", "yearly": "9999"})
        without = self.panel.ask(func="backup2.item.info", elid="bob", role="", userdata="off")
        self.assertEqual({n.get("type") for n in without.findall("system/spec")}, {"db"})
        self.panel.command("plan set small")  # replacing a plan does not take it from its users
        info = self.panel.ask(func="backup2.item.info", elid="bob")
        self.assertEqual(info.find("storage").get("slice_size"), "100M")
        self.assertIsNone(info.find("keep"))
        self.assertEqual(text(self.panel.ask(func="user.edit", elid="bob"), "plan"), "small")

    def test_what_is_not_there_is_told_apart(self):
        self.add_all()
        cases = [
            (("missed", "user"), {"func": "backup2.item.info", "elid": "eve"}),
            (("missed", "role"), {"func": "backup2.item.info", "elid": "bob", "role": "admin"}),
            (("missed", "storage"), {"func": "backup2.storage", "elid": "eve"}),
            (("missed", "database"), {"func": "backup2.database", "elid": "my.shop.2", "user": "eve"}),
            (("missed", "database"), {"func": "backup2.database", "elid": "my.shop", "user": "bob"}),
            (("func", "drop"), {"func": "drop"}),
            (("func", ""), {}),
        ]
        for want, parameters in cases:
            with self.subTest(parameters):
                self.assertEqual(self.panel.error(**parameters), want)
        unknown = self.panel.ask(func="user.edit", elid="eve")
        self.assertEqual((unknown.tag, len(unknown)), ("doc", 0))
        self.panel.command("user remove bob")
        self.assertEqual(len(self.panel.ask(func="user.edit", elid="bob")), 0)
        self.assertEqual(len(self.panel.ask(func="backup2.storage")), 0)

    def test_a_locked_panel_answers_nothing_else(self):
        self.add_bob()
        self.panel.command("lock")
        self.assertEqual(self.panel.error(func="user.edit", elid="bob"), ("locked", "panel"))
        self.panel.command("unlock")
        self.assertIsNone(self.panel.error(func="user.edit", elid="bob"))


class LogIn(PanelCase):
    def auth(self, **parameters):
        node = self.panel.ask(func="auth", **parameters).find("auth")
        return node.get("id") if node is not None else ""

    def test_a_key_opens_one_session_for_its_user(self):
        self.add_bob()
        self.panel.command("user add root --admin --uid 0", "admin's")
        admin = self.auth(username="root", password="admin's")
        self.assertRegex(admin, "^[0-9a-f]{32}$")
        bob = self.auth(username="bob", password="bob's password")
        key = "0123456789abcdef" * 2

        def new_key(session, user="bob", value=key):
            return self.panel.ask(func="session.newkey", auth=session, username=user,
                                  key=value).find("ok") is not None
        for session in ("", "0" * 32, bob):
            self.assertFalse(new_key(session), session)
        self.assertFalse(new_key(admin, user="eve"))
        self.assertFalse(new_key(admin, value="short"))
        self.assertTrue(new_key(admin))
        user = self.auth(auth=admin, username="bob", key=key, checkcookie="no")
        self.assertRegex(user, "^[0-9a-f]{32}$")
        self.assertEqual(self.auth(auth=admin, username="bob", key=key), "", "used twice")
        self.assertTrue(new_key(admin))
        self.assertEqual(self.auth(auth=bob, username="bob", key=key), "", "another's session")
        self.assertTrue(new_key(admin))
        self.assertEqual(self.auth(auth=admin, username="root", key=key), "", "another user")
        self.assertEqual(self.auth(auth=admin, username="bob", key=key), "", "gone after a try")

    def test_wrong_passwords_are_counted(self):
        self.add_bob()
        self.panel.command("user add mute --root /srv/mute --uid 1002")  # has no password
        self.assertEqual(self.auth(username="mute", password=""), "")
        for _ in range(5):
            self.assertEqual(self.panel.error(func="auth", username="bob", password="x"),
                             ("auth", "refused"))
        self.assertEqual(self.panel.error(func="auth", username="bob", password="bob's password"),
                         ("auth", "tries"))
        self.assertEqual(self.panel.error(func="auth", username="eve", password="x"),
                         ("auth", "refused"), "an unknown user looks like a wrong password")


class Secrets(PanelCase):
    def test_secrets_stay_in_one_private_file(self):
        os.umask(0o022)
        self.add_bob()
        self.panel.command("storage set", TOKEN)
        self.panel.command("server add my --type mysql --host 127.0.0.1 --login root", "server's pw")
        for name, mode in (("backup2_panel.db", 0o600), ("run/qorvel.sock", 0o600)):
            self.assertEqual(stat.S_IMODE(os.stat(self.root / "var" / name).st_mode), mode, name)
        shown = "".join(self.panel.command(c) for c in (
            "storage show", "storage show --json", "server list", "server list --json", "user list"))
        shown += self.panel.command("storage set", "path=/x;arch_password=" + SECRET, expect=2)
        self.assertEqual(self.panel.error(func="auth", username="bob", password="tried-secret"),
                         ("auth", "refused"))
        log = self.root / "var/qorvel.log"
        shown += log.read_text() if log.exists() else ""
        for secret in (SECRET, "server's pw", "bob's password", "tried-secret"):
            self.assertNotIn(secret, shown)
        stored = (self.root / "var/backup2_panel.db").read_bytes()
        self.assertIn(b"$y$", stored)
        self.assertNotIn(b"bob's password", stored)

    def test_only_root_is_served_even_when_the_socket_is_opened_up(self):
        self.add_bob()
        os.chmod(self.root, 0o755)
        os.chmod(self.panel.socket, 0o666)
        code = """import socket, sys
peer = socket.socket(socket.AF_UNIX)
peer.connect(sys.argv[1])
print("connected")
try:
    peer.sendall(b"POST / HTTP/1.0\\r\\nContent-Length: 9\\r\\n"
                 b"Content-Type: application/x-www-form-urlencoded\\r\\n\\r\\nfunc=user")
    print(peer.makefile("rb").read())
except OSError:
    print(b"")
"""
        for uid, answered in ((0, True), (65534, False)):
            done = subprocess.run(["/usr/bin/python3", "-c", code, self.panel.socket], text=True,
                                  capture_output=True, user=uid, check=True)
            self.assertTrue(done.stdout.startswith("connected\n"), done.stdout)
            self.assertEqual("<doc>" in done.stdout, answered, done.stdout)

    def test_bad_values_never_enter_the_store(self):
        self.add_bob()
        cases = [
            ("user add a.b --root /x --uid 1", ""), ("user add -x --root /x --uid 1", ""),
            ("user add bob#r --root /x --uid 1", ""), ("user add ok --root x --uid 1", ""),
            ("user add ok --root / --uid 1", ""), ("user add ok --root /a/../b --uid 1", ""),
            ("user add ok --root /x --uid 1 --folder ../y", ""),
            ("user add ok --root /x --uid 1 --folder .system", ""),
            (["user", "add", "ok", "--root", "/x", "--uid", "1", "--exclude", "a\nb"], ""),
            (["user", "add", "ok", "--root", "/x", "--uid", "1", "--exclude", b"\xff"], ""),
            ("user add no-such-account --root /x", ""), ("user add ok --root /x --uid 1", "a\nb"),
            ("storage set --slice-size 1Q", TOKEN), ("storage set --local-dir /elsewhere", TOKEN),
            ("storage set --user bob --local-dir /elsewhere", TOKEN),
            ("plan set p --keep-daily 10000", ""), ("plan set p --keep-last=-1", ""),
            ("storage set", "path=/x"), ("storage set", "type=local;path=x"),
            ("server add my --type oracle --host h --login r", ""),
            ("server add my --type mysql --host=-h --login r", ""),
            ("server add my.x --type mysql --host h --login r", ""),
            ("db add bob my $(id)", ""), ("serve --tls 127.0.0.1:1", ""), ("", ""),
        ]
        for words, secret in cases:
            with self.subTest(words):
                self.panel.command(words, secret, expect=2)
        for words in ("user add bob --root /srv/bob --uid 1001", "user remove eve", "storage remove",
                      "db add bob none shop", "plan assign none bob", "server remove none"):
            with self.subTest(words):
                self.panel.command(words, expect=1)


class OneAtATime(PanelCase):
    def test_a_live_socket_is_respected_and_a_dead_one_replaced(self):
        self.assertIn("busy", self.panel.command("serve", expect=1))
        self.assertEqual(len(self.panel.ask(func="user")), 0)
        self.panel.stop(signal.SIGKILL)
        self.assertTrue(os.path.exists(self.panel.socket))
        with Panel() as second:
            self.assertEqual(len(second.ask(func="user")), 0)
            self.assertEqual(second.stop(signal.SIGINT), 0)
            self.assertFalse(os.path.exists(second.socket))
        with socket.socket(socket.AF_UNIX) as foreign:  # somebody else's server, without our lock
            foreign.bind(self.panel.socket)
            foreign.listen()
            self.assertIn("busy", self.panel.command("serve", expect=1))


class OverTls(PanelCase):
    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        self.panel = self.enterContext(TlsPanel(self.root))

    def test_a_crowd_of_clients_waits_for_its_turn(self):
        with contextlib.ExitStack() as stack:
            for _ in range(100):  # more than are served at once; none is refused
                client = stack.enter_context(socket.socket(socket.AF_UNIX))
                client.settimeout(30)
                client.connect(self.panel.socket)

    def test_a_port_whose_last_connections_just_ended_serves_and_one_panel_only(self):
        with socket.create_server(("127.0.0.1", 0)) as former:
            with socket.create_connection(former.getsockname()) as client:
                former.accept()[0].close()  # the kernel remembers the side that ends first
                client.recv(1)
            address = "{}:{}".format(*former.getsockname())
        setting = self.panel.setting
        door = ["--tls", address, "--cert", setting["cert"], "--key", setting["key"]]
        with backup2_test.install_root(), Panel(*door), backup2_test.install_root():
            done = backup2_test.run(["backup2_panel", "serve", *door])
            self.assertEqual(done.returncode, 1)
            self.assertIn("cannot listen on " + address, done.stderr)

    def test_the_network_may_log_in_and_nothing_else(self):
        self.add_bob()
        self.panel.command("user add root --admin --uid 0", "admin's")
        admin = self.panel.ask_tls(func="auth", username="root", password="admin's").find("auth").get("id")
        key = "k" * 32
        self.assertIsNotNone(self.panel.ask_tls(func="session.newkey", auth=admin, username="bob", key=key).find("ok"))
        self.assertIsNotNone(self.panel.ask_tls(func="auth", auth=admin, username="bob", key=key).find("auth"))
        for func in ("user", "user.edit", "backup2.settings", "backup2.storage",
                     "backup2.storage.set", "backup2.storage.remove",
                     "backup2.item.info", "backup2.user.data", "backup2.database", "session.take"):
            answer = self.panel.ask_tls(func=func, elid="bob", auth=admin)
            self.assertEqual(answer.find("error").get("type"), "func", func)


if __name__ == "__main__":
    unittest.main()
