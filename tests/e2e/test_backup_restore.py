"""The command of the administrator, end to end: panel, archiver, copy tool, storage, databases."""

import contextlib
import fcntl
import json
import os
import pathlib
import shlex
import signal
import subprocess
import tempfile
import time
import unittest

import backup2_test
from backup2_test import local_token, run, tree_state
from database import Database
from panel import Panel
from storage_case import server

USER = "www-data"  # every Debian has it
MONDAY, TUESDAY, WEDNESDAY = "2024-03-04", "2024-03-05", "2024-03-06"
PASSWORD = "a pass'word $(touch canary)"


def own(path):
    """Gives it to the user, mode kept: set-id bits and hard links are restored for him only then."""
    mode = os.lstat(path).st_mode & 0o7777
    os.chown(path, 33, 33)
    os.chmod(path, mode)


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class BackupRestore(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.root = stack.enter_context(backup2_test.install_root())
        # Words that a shell or an option parser would stumble over.
        self.home = self.root / "www/it's $(touch canary) \"here\"" / USER
        self.store = self.root / "the store $(touch canary)"
        self.local = self.root / "-local %p dir/var/backup/qorvel"
        (self.home / "data").mkdir(parents=True)
        self.store.mkdir()
        self.panel = stack.enter_context(Panel())
        self.panel.command(["user", "add", USER, "--root", str(self.home)])
        self.use_password(PASSWORD)
        self.openssl = backup2_test.HeldOpenssl(self.root)

    def use_password(self, password):
        self.panel.command(["storage", "set", "--slice-size", "1M", f"--local-dir={self.local}"],
                           local_token(self.store, password))

    def make_tree(self):
        backup2_test.make_tree(self.home / "data", seed=5)
        own(self.home / "data/links/first")
        for path in (self.home / "data/sizes").iterdir():
            if path.stat().st_mode & 0o6000:
                own(path)

    def backup2(self, *words, expect=0, **options):
        done = run(["backup2", *words], **options)
        self.assertEqual(done.returncode, expect, (words, done.stdout, done.stderr))
        if expect == 1:  # one line says why, on both outputs
            self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
        self.assertNotIn(PASSWORD, done.stdout + done.stderr)
        self.assertEqual(list(self.root.rglob("canary")), [])
        return done.stdout

    def restored(self, date, *words):
        target = pathlib.Path(tempfile.mkdtemp(dir=self.root)) / "-to here"
        self.backup2("restore", USER, date, f"--to={target}", *words)
        return target

    def slices(self, date=MONDAY):
        return sorted(self.store.glob(f"{USER}/{date}/[FIC]*"))

    def assert_nothing_left(self):
        """Neither working files nor temporaries: the local tree holds indexes and infos only."""
        left = [path for path in self.local.rglob("*") if path.is_file()
                and not (path.suffix in (".tgz", ".info") and path.name[0] in "2c")]
        left += [path for path in self.local.iterdir() if path.name != USER]
        left += list(self.home.glob(".system*"))
        left += [path for path in (self.root / "var/run").glob("backup2*/*/*")]
        left += [path for path in self.store.rglob(".*")]
        self.assertEqual([str(path) for path in left], [])

    # ---- The main job ---------------------------------------------------------------------------

    def test_full_and_incremental_states_come_back_identical(self):
        self.make_tree()
        before = tree_state(self.home)
        self.backup2("run", USER, "--date", MONDAY)
        (self.home / "data/names/-rf").unlink()
        (self.home / "data/new \n file").write_text("new")
        (self.home / "data/sizes/513").write_bytes(b"other content")
        os.chmod(self.home / "data/sizes/512", 0o711)
        os.link(self.home / "data/links/first", self.home / "data/another name")
        os.rename(self.home / "data/small", self.home / "data/big")
        after = tree_state(self.home)
        self.backup2("run", USER, "--date", TUESDAY)
        self.assertEqual(tree_state(self.restored(MONDAY)), before)
        self.assertEqual(tree_state(self.restored(TUESDAY)), after)
        self.backup2("verify", "--deep")

        kinds = {row["date"]: (row["kind"], row["base"])
                 for row in json.loads(self.backup2("list", "--json"))}
        self.assertEqual(kinds, {MONDAY: ("full", ""), TUESDAY: ("incremental", MONDAY)})
        self.assertIn("exists", self.backup2("run", USER, "--date", TUESDAY, expect=1))
        self.assert_nothing_left()

    def test_single_paths_come_back_alone_and_without_needless_slices(self):
        self.make_tree()
        self.backup2("run", USER, "--date", MONDAY)
        wanted = ["data/names/$(touch canary)", "data/names/-rf", "data/names/quote'\"`"]
        target = self.restored(MONDAY, *wanted)
        found = [str(p.relative_to(target)) for p in target.rglob("*") if p.is_file()]
        self.assertEqual(sorted(found), sorted(wanted))
        # Neither the listing nor what lies elsewhere is needed for them.
        holding = [path for path in self.slices() if self.restores_without(path, wanted)]
        self.assertGreaterEqual(len(holding), len(self.slices()) - 2)

    def restores_without(self, path, wanted):
        """True when the paths come back while the slice `path` is not there."""
        away = path.rename(path.parent / "away")
        done = run(["backup2", "restore", USER, MONDAY, f"--to={self.root}/without", *wanted])
        away.rename(path)
        return done.returncode == 0

    def test_a_lost_listing_is_fetched_from_the_storage(self):
        self.make_tree()
        self.backup2("run", USER, "--date", MONDAY)
        index, = self.local.glob(f"{USER}/*/*.tgz")
        index.unlink()
        self.assertEqual(tree_state(self.restored(MONDAY)), tree_state(self.home))

    def test_a_custom_backup_replaces_the_older_one_only_after_success(self):
        (self.home / "data/state").write_text("first")
        self.backup2("run", USER, "--custom")
        old = self.slices("custom")
        (self.home / "data/state").write_text("second")
        self.backup2("run", USER, "--custom")
        self.assertEqual((self.restored("custom") / "data/state").read_text(), "second")
        self.assertFalse(set(old) & set(self.slices("custom")))
        (self.home / "data/state").write_text("third")
        (self.home / "data/random").write_bytes(os.urandom(8 << 20))
        for name in ("qortar", "backup2"):
            self.kill_one(name, "custom", "--custom")
            self.assertEqual((self.restored("custom") / "data/state").read_text(), "second")
        (self.home / "data/random").unlink()
        self.backup2("run", USER, "--custom")
        self.assertEqual((self.restored("custom") / "data/state").read_text(), "third")
        third = self.slices("custom")
        self.assertEqual(len(third), 1)
        self.backup2("verify", USER, "custom", "--deep")
        # Somebody reads it: it stays until he has.
        with open(self.local / USER / "custom/.backup.inuse", "w") as reading:
            fcntl.lockf(reading, fcntl.LOCK_EX)
            process = backup2_test.start(["backup2", "run", USER, "--custom"])
            while not list(self.local.glob(".complete.*")):
                self.assertIsNone(process.poll())
                time.sleep(0.01)
            self.assertLess(set(third), set(self.slices("custom")))
        self.assertEqual((process.communicate(timeout=60)[1], process.returncode), ("", 0))
        self.assertFalse(set(third) & set(self.slices("custom")))
        self.assert_nothing_left()

    # ---- Faults ---------------------------------------------------------------------------------

    def test_damaged_slices_are_named_by_verify_and_stop_a_restore(self):
        self.make_tree()
        self.backup2("run", USER, "--date", MONDAY)
        whole = [path.read_bytes() for path in self.slices()]
        self.assertGreater(len(whole), 2)
        names = self.slices()

        def flip(data):
            return data[:5000] + bytes([data[5000] ^ 1]) + data[5001:]

        damages = {"flipped": flip, "cut": lambda data: data[:-16], "empty": lambda data: b"",
                   "another slice": lambda data: whole[0], "missing": None}
        for title, damage in damages.items():
            with self.subTest(title):
                names[1].unlink() if damage is None else names[1].write_bytes(damage(whole[1]))
                report = self.backup2("verify", USER, expect=1)
                self.assertIn(names[1].name, report)
                self.assertNotIn(names[0].name, report)
                target = self.root / f"out {title}"
                self.backup2("restore", USER, MONDAY, f"--to={target}", expect=1)
                self.assert_only_whole_files(target)
                names[1].write_bytes(whole[1])
        self.backup2("run", USER, "--date", TUESDAY)
        shown = json.loads(self.backup2("verify", USER, "--json"))
        self.assertEqual([row["slices"] for row in shown], [len(names), 1], "each slice is read once")
        names[1].write_bytes(flip(whole[1]))  # nor is what builds on it any good
        shown = json.loads(run(["backup2", "verify", USER, "--json"]).stdout)
        self.assertEqual([(row["date"], row["good"]) for row in shown], [(MONDAY, False), (TUESDAY, False)])

    def test_a_damaged_info_file_is_told_and_never_good(self):
        (self.home / "data/random").write_bytes(os.urandom(3 << 20))
        self.backup2("run", USER, "--date", MONDAY)
        info, = self.local.glob(f"{USER}/*/*.info")
        whole = info.read_text()
        for old, new in (("slice.2", "other.2"), ("type=full", ""), ("parts=", "parts=-"),
                         ("parts=", "parts=99999999"), ("size=", "size=9"), (MONDAY + "/F", "F../../"),
                         (f"F{MONDAY}.", f"F{TUESDAY}."), (f"F{MONDAY}.{USER}", f"F{MONDAY}.root"),
                         ("index=", "index=/etc/passwd\nother="), ("created", f"base=F{MONDAY}\ncreated")):
            with self.subTest(new):
                self.assertIn(old, whole)
                info.write_text(whole.replace(old, new))
                self.assertIn("damaged", self.backup2("list"))
                self.backup2("verify", expect=1)
                self.backup2("restore", USER, MONDAY, f"--to={self.root}/out", expect=1)
                self.assertFalse((self.root / "out").exists())

    def assert_only_whole_files(self, target):
        whole = tree_state(self.home)
        for name, entry in tree_state(target).items():
            self.assertEqual(entry.sha256, whole[name].sha256, name)

    def test_another_password_is_refused_and_the_right_one_can_be_given(self):
        self.make_tree()
        self.backup2("run", USER, "--date", MONDAY)
        self.use_password("another")
        refused = self.backup2("restore", USER, MONDAY, f"--to={self.root}/out", expect=1)
        self.assertIn("another password", refused)
        self.assertFalse((self.root / "out").exists())
        target = self.root / "right"
        self.backup2("restore", USER, MONDAY, f"--to={target}", "--password-stdin", stdin=PASSWORD)
        self.assertEqual(tree_state(target), tree_state(self.home))
        # A full backup of another password is no base.
        self.backup2("run", USER, "--date", TUESDAY)
        self.assertEqual(json.loads(self.backup2("show", USER, TUESDAY, "--json"))["kind"], "full")

    def test_after_a_killed_program_the_next_run_works(self):
        (self.home / "data/random").write_bytes(os.urandom(8 << 20))
        for name in ("qortar", "backup2_cp", "backup2"):
            with self.subTest(name):
                self.kill_one(name, MONDAY, "--date", MONDAY)
                self.assert_nobody_works_on()
                self.assertEqual(self.backup2("list"), "no backups\n")
                next_day = TUESDAY if name == "backup2" else MONDAY
                self.backup2("run", USER, "--date", next_day)
                self.backup2("verify", USER, "--deep")
                self.assert_nothing_left()
                self.assertEqual(self.slices(MONDAY) != [], next_day == MONDAY)
                self.backup2("delete", USER, next_day)

    def assert_nobody_works_on(self):
        """The programs end with the one that started them; the panel stays."""
        until = time.monotonic() + 30
        while (at_work := self.programs()) and time.monotonic() < until:
            time.sleep(0.02)
        self.assertEqual(at_work, [])

    def programs(self):
        found = []
        for pid in (p for p in os.listdir("/proc") if p.isdigit() and int(p) != self.panel.process.pid):
            with contextlib.suppress(OSError):
                if os.readlink(f"/proc/{pid}/cwd") == str(self.root):
                    found.append(os.readlink(f"/proc/{pid}/exe"))
        return found

    def kill_one(self, name, date, *words):
        """Kills the program `name` of a run that has just stored two slices and cannot go on with the third."""
        stored, wanted = shlex.quote(str(self.store / USER / date)), len(self.slices(date)) + 2
        self.openssl.hold.write_text(f"[ $(ls {stored} | grep -c '^[FIC]') -ge {wanted} ]\n")
        process = backup2_test.start(["backup2", "run", USER, *words], PATH=self.openssl.path)
        while len(self.slices(date)) < wanted:
            self.assertIsNone(process.poll())
            time.sleep(0.005)
        os.kill(process.pid if name == "backup2" else self.pid_of(name), signal.SIGKILL)
        process.communicate(timeout=60)
        self.assertNotEqual(process.returncode, 0)
        self.openssl.hold.unlink()

    def pid_of(self, name):
        """The number of a program of this install root that is at work, or is about to begin."""
        while True:
            for pid in (int(p) for p in os.listdir("/proc") if p.isdigit()):
                with contextlib.suppress(OSError):
                    here = os.readlink(f"/proc/{pid}/cwd") == str(self.root)
                    if here and os.path.basename(os.readlink(f"/proc/{pid}/exe")) == name:
                        return pid
            time.sleep(0.005)

    def test_a_full_disk_while_slicing_fails_and_leaves_nothing(self):
        (self.home / "data/random").write_bytes(os.urandom(8 << 20))
        self.local.mkdir(parents=True)
        mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=700k", "tmpfs", self.local],
                                 capture_output=True, check=False)
        if mounted.returncode != 0:
            self.skipTest("no mounts here")
        try:
            self.assertIn("No space left", self.backup2("run", USER, "--date", MONDAY, expect=1))
            self.assert_nothing_left()
            self.assertEqual(self.slices(), [])
        finally:
            subprocess.run(["umount", self.local], check=True)
        self.backup2("run", USER, "--date", MONDAY)

    def test_unsaved_entries_end_with_warnings_that_name_them(self):
        (self.home / "data/good").write_text("good")
        (self.home / "data/mine").write_text("root's, with two names")
        os.link(self.home / "data/mine", self.root / "elsewhere")
        shown = self.backup2("run", USER, "--date", MONDAY, expect=3)
        self.assertIn("data/mine\tbelongs to another user", shown)
        self.backup2("restore", USER, MONDAY, f"--to={self.root}/out", expect=3)
        self.assertEqual(os.listdir(self.root / "out/data"), ["good"])

    def test_a_user_whose_account_is_gone_is_told_and_stops_nobody(self):
        self.panel.command(["user", "add", "gone-away", "--root", str(self.root / "gone"), "--uid", "4711",
                            "--folder", "data"])
        (self.home / "data/good").write_text("good")
        shown = self.backup2("run", "--all", "--date", MONDAY, expect=1)
        self.assertIn("gone-away 2024-03-04: the panel's user has no account", shown)
        self.assertIn(f"{USER} {MONDAY}: full backup", shown)

    # ---- Databases ------------------------------------------------------------------------------

    def test_rows_of_both_databases_come_back(self):
        with self.databases() as (maria, postgres):
            for ask in (maria, postgres):
                ask("CREATE TABLE t (n int PRIMARY KEY, s text); INSERT INTO t VALUES (1, 'a''b')")
            self.backup2("run", USER, "--date", MONDAY)
            for ask in (maria, postgres):
                ask("DELETE FROM t; CREATE TABLE later (n int)")
            shown = self.backup2("restore", USER, MONDAY, "--yes", ".system")
            self.assertEqual(shown.count("\trestored\n"), 3, shown)
            for ask in (maria, postgres):
                self.assertEqual(ask("SELECT s FROM t"), "a'b")
            self.assertFalse((self.home / ".system").exists())
            self.panel.command(["db", "remove", USER, "pg", "shop"])
            maria("DELETE FROM t")
            shown = self.backup2("restore", USER, MONDAY, "--yes", ".system", expect=1)
            self.assertEqual((maria("SELECT s FROM t"), shown.count("\trestored\n")), ("a'b", 2), shown)
            self.assertIn("db.pg.shop", shown)

    @contextlib.contextmanager
    def databases(self):
        """Both servers, with a database "shop" that the panel knows: what asks each of them."""
        with server("mariadb") as maria, server("postgres") as postgres:
            maria, postgres = Database("mariadb", maria), Database("postgres", postgres)
            maria.sql("CREATE DATABASE shop; CREATE USER shop@localhost IDENTIFIED BY 'x y';"
                      "GRANT ALL ON shop.* TO shop@localhost")
            postgres.sql("CREATE ROLE shop LOGIN PASSWORD 'x y';\nCREATE DATABASE shop OWNER shop;")
            for name, one in (("maria", maria), ("pg", postgres)):
                self.panel.command(["server", "add", name, "--type", one.type, "--socket", one.settings["socket"],
                                    "--login", one.settings["login"]], one.settings["password"])
                self.panel.command(["db", "add", USER, name, "shop", "--owner", "shop"], "x y")
            yield (lambda sql: maria.sql(sql, "shop")), (lambda sql: postgres.sql("SET ROLE shop;\n" + sql, "shop"))


if __name__ == "__main__":
    unittest.main()
