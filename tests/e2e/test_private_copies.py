"""Backups in users' own storages, limits and rules of what to keep: the real programs, end to end."""

import contextlib
import datetime
import json
import os
import pathlib
import random
import shutil
import tempfile
import time
import unittest

import backup2_test
from backup2_test import local_token, run, tree_state
from panel import Panel

USER, OTHER = "www-data", "backup"  # every Debian has them
PASSWORD, OWN_PASSWORD = "administrator's $(touch canary)", "the user's own %p"
THURSDAY = datetime.date(2024, 2, 29)
FIRST, SECOND = "2024-02-29", "2024-03-01"
PAIR = {"full": 1, "incremental": 1}


def days(count):
    return [(THURSDAY + datetime.timedelta(n)).isoformat() for n in range(count)]


def content(top):
    """Every file below `top`: name -> sum."""
    return {name: entry.sha256 for name, entry in tree_state(top).items() if entry.type == "file"}


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class PrivateCopies(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        # In memory: what is killed here is programs, not the machine, and the disk's pace is all
        # that the rest would be about.
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.root = stack.enter_context(backup2_test.install_root(memory))
        self.home, self.local = self.root / "www", self.root / "var/backup/qorvel"
        self.store, self.own = self.root / "store", self.root / "own store"
        self.tree = self.root / "var/backup/qorvel.private" / USER
        for path in (self.home / "data/sub", self.store, self.own):
            path.mkdir(parents=True)
        self.panel = stack.enter_context(Panel())
        self.panel.command(["user", "add", USER, "--root", str(self.home)])
        self.use_storage(PASSWORD)
        self.use_own(OWN_PASSWORD)
        self.dice = random.Random(3)

    def use_storage(self, password, *options):
        self.panel.command(["storage", "set", "--slice-size", "64K", *options],
                           local_token(self.store, password))

    def use_own(self, password, *options, user=USER):
        self.panel.command(["storage", "set", "--user", user, *options], local_token(self.own, password))

    def backup2(self, *words, expect=0, **options):
        done = run(["backup2", *words], **options)
        self.assertEqual(done.returncode, expect, (words, done.stdout, done.stderr))
        for secret in (PASSWORD, OWN_PASSWORD):
            self.assertNotIn(secret, done.stdout + done.stderr)
        return done.stdout

    def change(self, size=100_000):
        """Some files come, change and go; the state of the whole tree."""
        names = [self.home / f"data/{name}" for name in ("a", "sub/b", "sub/c", "new")]
        for path in self.dice.sample(names, 2):
            path.write_bytes(self.dice.randbytes(self.dice.randrange(size, 2 * size)))
        with contextlib.suppress(OSError):
            self.dice.choice(names).unlink()
        (self.home / "data/always").write_bytes(self.dice.randbytes(10))
        return tree_state(self.home)

    def make(self, date, size=100_000, expect=0):
        state = self.change(size)
        self.backup2("run", USER, "--date", date, expect=expect)
        return state

    def listed(self, *words):
        return {row["date"]: row for row in json.loads(self.backup2("list", USER, "--json", *words))}

    def assert_restores(self, date, state, *words):
        with tempfile.TemporaryDirectory(dir=self.root) as target:
            self.backup2("restore", USER, date, "--to", target, *words)
            self.assertEqual(tree_state(target), state, (date, words))

    def assert_tidy(self):
        """An empty journal, no working file, no temporary, and only what an info file names."""
        self.assertEqual((self.tree / ".cleanup").read_text(), "")
        left = [p for p in self.tree.rglob("*") if p.is_file() and p.suffix not in (".tgz", ".info")]
        left.remove(self.tree / ".cleanup")
        left += [p for top in (self.store, self.own, self.tree) for p in top.rglob(".tmp.*")]
        left += [p for p in self.local.iterdir() if p.name not in (USER, OTHER)]
        left += [p for p in (self.local / USER).glob(".*")]
        left += list((self.root / "var/run").glob("backup2*/*/*"))
        self.assertEqual([str(p) for p in left], [])
        for store, words in ((self.store, []), (self.own, ["--private"])):
            named = set()
            for date in self.listed(*words):
                shown = json.loads(self.backup2("show", USER, date, "--json", *words))
                named |= {f"{USER}/{date}/{date}.{USER}.info", shown["index"]}
                named |= {part["path"] for part in shown["slices"]}
            stored = {str(p.relative_to(store)) for p in (store / USER).rglob("*") if p.is_file()}
            self.assertEqual(stored, named)

    # ---- Days of work ---------------------------------------------------------------------------

    def test_nine_days_keep_to_the_limits_and_every_backup_comes_back_from_both_storages(self):
        self.use_storage(PASSWORD, "--count-limit", "5")
        self.use_own(OWN_PASSWORD, "--count-limit", "4")
        (self.root / "other/data").mkdir(parents=True)
        (self.root / "other/data/file").write_text("other")
        self.panel.command(["user", "add", OTHER, "--root", str(self.root / "other")])
        states, removed, marked = {}, set(), set()
        for date in days(9):
            states[date] = self.change()
            reports = {r["user"]: r for r in
                       json.loads(self.backup2("run", "--all", "--date", date, "--json"))}
            self.assertEqual([reports[u]["copied"] for u in (USER, OTHER)], [True, False])
            self.assertEqual([r["warnings"] for r in reports.values()], [[], []])
            removed |= set(reports[USER]["removed"])
            marked |= set(reports[USER]["marked"])
        rows = self.listed()
        self.assertEqual(removed, set(days(9)) - set(rows), "what went was told")
        self.assertEqual(marked, {d for d, row in rows.items() if row["deleted"]} | (removed & marked))
        self.assertTrue(marked)
        self.assertFalse((self.own / OTHER).exists())
        for words, limit in (([], 5), (["--private"], 4)):
            rows = self.listed(*words)
            living = {date: row for date, row in rows.items() if not row["deleted"]}
            self.assertEqual(len(living), limit)
            self.assertEqual(max(rows), days(9)[-1])
            sunday = "2024-03-03"
            self.assertEqual({(row["kind"], row["base"]) for date, row in rows.items() if date >= sunday},
                             {("full", ""), ("incremental", sunday)})
            self.assertEqual([d for d, row in rows.items() if row["kind"] == "full" and d >= sunday], [sunday])
            for date in rows:
                self.assert_restores(date, states[date], *words)
        self.backup2("verify", "--deep")
        self.backup2("verify", "--deep", "--private")
        self.assert_tidy()

    def test_the_full_backup_goes_first_when_the_users_storage_lacks_it(self):
        self.panel.command(["storage", "remove", "--user", USER])
        states = {date: self.make(date) for date in days(3)}
        self.use_own("")
        self.assertIn("no backup", self.backup2("list", USER, "--private"))
        self.backup2("copy", USER)
        self.assertEqual(list(self.listed("--private")), [days(3)[0], days(3)[2]])
        self.assertIn("already there", self.backup2("copy", "--all"))
        before = content(self.own)
        self.backup2("copy", USER, "--date", days(3)[1])
        self.assertEqual(content(self.own) | before, content(self.own), "the full one is not copied again")
        # Another password: what is there cannot be read with it, so it is copied once more.
        self.use_own(OWN_PASSWORD)
        self.backup2("copy", USER)
        self.backup2("copy", USER, "--date", days(3)[1])
        for date, state in states.items():
            self.assert_restores(date, state, "--private")
        self.assert_tidy()

    def test_missing_copies_are_made_up_for_within_the_limits(self):
        self.panel.command(["storage", "remove", "--user", USER])
        for date in days(6):
            self.make(date)
        first, second, third, sunday, monday, tuesday = days(6)  # a full one: first, sunday
        for limit, dates in (("--count-limit=1", {tuesday}), ("--count-limit=2", {sunday, tuesday}),
                             ("--size-limit=1G", {sunday, tuesday}),
                             ("--count-limit=5", {first, third, sunday, monday, tuesday}),
                             ("--slice-size=1G", set(days(6)))):
            self.use_own(OWN_PASSWORD, limit)
            self.backup2("copy", USER, "--missing", expect=3 if limit == "--count-limit=1" else 0)
            self.assertEqual(set(self.listed("--private")) - {sunday}, dates - {sunday}, limit)
            self.assertEqual(self.backup2("copy", "--all", "--missing"), "", "nothing more is missing")
        self.backup2("verify", "--deep", "--private")
        self.assert_tidy()

    def test_a_custom_backup_takes_the_place_of_the_one_before_in_both_storages(self):
        for _ in range(2):
            state = self.change()
            self.backup2("run", USER, "--custom")
        for words in ([], ["--private"]):
            self.assert_restores("custom", state, *words)
        self.assert_tidy()

    def test_a_run_that_died_behind_the_archiver_is_made_good_by_the_copy(self):
        self.make(FIRST)
        state = self.make(SECOND)
        for info in self.local.glob(f"{USER}/{SECOND}/*.info"):
            text = info.read_text()
            self.assertIn(f"base={USER}/{FIRST}/F{FIRST}.{USER}.tgz.aes\n", text)
            text = text.replace(f"base={USER}/{FIRST}/", "base=")
            info.write_text(text.replace(".tgz.aes\ncreated", ".tgz\ncreated"))
        self.backup2("delete", USER, SECOND, "--private")
        self.backup2("copy", USER)
        self.assert_restores(SECOND, state, "--private")
        self.assert_tidy()

    def test_a_failed_copy_is_a_warning_of_the_run_and_the_next_one_clears_it(self):
        state = self.make(FIRST)
        (self.own / USER / SECOND).write_text("no folder")
        shown = json.loads(self.backup2("run", USER, "--date", SECOND, "--json", expect=3))[0]
        self.assertEqual((shown["copied"], len(shown["warnings"])), (False, 1), shown)
        self.assertIn("user's own storage: Failed to upload", shown["warnings"][0])
        (self.own / USER / SECOND).unlink()
        self.assertIn(f"{USER} {SECOND}: the broken copy is removed", self.backup2("cleanup"))
        # A storage that is away has not lost its backups, and must not lose them by that.
        away = self.own.rename(self.root / "away")
        self.own.write_text("no folder")
        self.assertIn("the user's own storage: ", self.backup2("copy", USER, expect=1))
        self.own.unlink()
        away.rename(self.own)
        self.assertEqual(self.backup2("cleanup"), "")
        self.assert_restores(FIRST, state, "--private")
        self.backup2("copy", USER)
        self.assert_tidy()

    def test_a_place_that_copies_would_harm_is_refused(self):
        """The administrator's storage, by any name, and what is backed up itself."""
        self.make(FIRST)
        alias = self.root / "alias"
        alias.symlink_to(self.store)
        before = content(self.store)
        for place, why in ((self.store, "the administrator's"), (alias, "the administrator's"),
                           (self.home / "data/sub/own", "backed up itself")):
            self.panel.command(["storage", "set", "--user", USER, "--count-limit", "1"],
                               local_token(place, OWN_PASSWORD))
            self.assertIn(why, self.backup2("copy", "--all", expect=1))
        self.panel.command(["storage", "set", "--user", USER], local_token(alias))
        for words in (["delete", USER, FIRST], ["pin", USER, FIRST], ["limit", USER]):
            self.assertIn("the administrator's", self.backup2(*words, "--private", expect=1))
        self.assertIn("the administrator's", self.backup2("storage", "check", USER, expect=1))
        shown = json.loads(self.backup2("run", USER, "--date", SECOND, "--json", expect=3))[0]
        self.assertIn("the administrator's", shown["warnings"][0])
        self.assertEqual(content(self.store) | before, content(self.store))
        self.backup2("verify", "--deep")

    # ---- What stays -----------------------------------------------------------------------------

    def test_a_pinned_backup_survives_and_limit_explains(self):
        for date in days(5):
            self.make(date)
        pinned = days(5)[1]
        self.backup2("pin", USER, pinned)
        self.assertIn("unpin it first", self.backup2("delete", USER, pinned, expect=1))
        self.assertIn("unpin it first", self.backup2("delete", USER, days(5)[0], "--force", expect=1))
        before = content(self.store), content(self.local)
        told = json.loads(self.backup2("limit", USER, "--dry-run", "--json", "--count-limit", "1", expect=3))
        table = self.backup2("limit", USER, "--dry-run", "--keep-last", "1")
        self.assertEqual((content(self.store), content(self.local)), before)
        decisions = {row["date"]: row for row in told["backups"]}
        self.assertEqual(sorted(decisions), days(5))
        self.assertTrue(all(row["reason"] for row in decisions.values()))
        self.assertEqual(decisions[pinned]["decision"], "keep")
        self.assertIn("pinned", decisions[pinned]["reason"])
        self.assertRegex(table, rf"(?m)^{USER} +{days(5)[2]} +incremental .* remove ")
        self.assertTrue(told["unreachable"])

        self.backup2("limit", USER, "--count-limit", "1", expect=3)
        left = {d for d, row in self.listed().items() if not row["deleted"]}
        self.assertEqual(left, {d for d, row in decisions.items() if row["decision"] == "keep"})
        self.backup2("unpin", USER, pinned)
        self.panel.command("plan set small --keep-last 1")
        self.panel.command(f"plan assign small {USER}")
        self.make(days(6)[5])
        self.assertNotIn(pinned, self.listed())
        self.assertIn(pinned, self.listed("--private"), "a plan is about the administrator's storage")
        self.backup2("limit", "--all", "--private", "--keep-last", "1")
        self.assertNotIn(pinned, self.listed("--private"))
        self.assert_tidy()

    def test_another_password_is_refused_before_anything_starts(self):
        self.panel.command(["storage", "remove", "--user", USER])
        self.make(FIRST)
        self.use_own(OWN_PASSWORD)
        self.use_storage("another one")
        for words in ((USER,), ("--all",)):
            self.assertIn("the storage has another password now", self.backup2("copy", *words, expect=1))
        self.assertEqual((content(self.own), self.tree.exists()), ({}, False))
        self.assertIn("there is no user " + OTHER, self.backup2("copy", OTHER, expect=1))
        self.assertIn("no storage of his own", self.backup2("list", OTHER, "--private", expect=1))
        for words in ([], [USER, "--all"], [USER, "--date", "2024-02-30"]):
            self.backup2("copy", *words, expect=2)

    def test_a_line_of_an_old_token_never_takes_a_later_copy(self):
        states = {date: self.make(date) for date in (FIRST, SECOND)}
        # The tool refuses such a path, as a server would a login that ended: the lines stay.
        old, journal = local_token(self.own.name, OWN_PASSWORD), self.tree / ".cleanup"
        journal.write_text("".join(f"{old}\t{date}.{USER}\n" for date in states))
        self.assertIn("a broken copy stays", self.backup2("copy", USER, expect=3))
        self.assertEqual(journal.read_text(), "")
        for date, state in states.items():
            self.assert_restores(date, state, "--private")
        self.assert_tidy()

    def test_a_copy_that_is_being_made_is_left_alone(self):
        self.panel.command(["storage", "remove", "--user", USER])
        state = self.make(FIRST, 300_000)
        self.use_own(OWN_PASSWORD)
        openssl, journal = backup2_test.HeldOpenssl(self.root), self.tree / ".cleanup"
        openssl.hold.touch()
        process = backup2_test.start(["backup2", "copy", USER], PATH=openssl.path)
        while not (journal.exists() and journal.read_text()):
            self.assertIsNone(process.poll())
            time.sleep(0.005)
        self.assertIn("another process", self.backup2("cleanup", expect=3))
        self.assertIn("another process", self.backup2("copy", USER, expect=1))
        self.assertIn("being made", run(["backup2_cp", "--cleanup", self.tree]).stderr)
        openssl.hold.unlink()
        self.assertEqual((process.communicate(timeout=60)[1], process.returncode), ("", 0))
        self.assert_restores(FIRST, state, "--private")
        self.assert_tidy()

    # ---- Killed ---------------------------------------------------------------------------------

    def test_fifty_kills_leave_what_the_journal_names_and_nothing_else(self):
        """cleanup takes exactly that; the next copy completes and can be restored."""
        self.panel.command(["storage", "remove", "--user", USER])
        states = {date: self.make(date, 60_000) for date in days(3)}
        self.use_own(OWN_PASSWORD)
        middle, last = days(3)[1:]
        self.backup2("copy", USER, "--date", middle)  # with the full one: they must stay
        kept = self.copies()
        duration, names = self.time_of_copy(), set(self.copies())
        named = 0
        for number in range(50):
            full_too = number % 5 == 4  # the killed copy is to bring the full backup along
            self.backup2("delete", USER, last, "--private")
            if full_too:
                self.empty_own()
            process = backup2_test.start(["backup2", "copy", USER])
            time.sleep(self.dice.random() * duration * (1.5 if full_too else 1))
            process.kill()
            process.communicate(timeout=60)
            journal = self.tree / ".cleanup"
            gone = {line.split("\t")[1].split(".")[0] for line in journal.read_text().splitlines()
                    } if journal.exists() else set()
            removed = self.backup2("cleanup")
            self.assertEqual({date for date in days(3) if date in removed}, gone, number)
            after = self.copies()
            self.assertFalse([name for name in after for date in gone if f"/{date}/" in name], number)
            if not full_too:
                self.assertEqual({n: s for n, s in after.items() if n in kept}, kept, number)
            named += bool(gone)
            duration = self.time_of_copy()  # the machine may be busier now, or less
            if full_too:
                self.assert_restores(last, states[last], "--private")
                self.backup2("copy", USER, "--date", middle)
                kept = {n: s for n, s in self.copies().items() if f"/{last}/" not in n}
            self.assertEqual((journal.read_text(), set(self.copies())), ("", names), number)
        self.assertGreater(named, 10, "most kills hit while the journal names the copy")
        self.assert_restores(middle, states[middle], "--private")
        self.assert_tidy()

    def time_of_copy(self):
        begin = time.monotonic()
        self.backup2("copy", USER)
        return time.monotonic() - begin

    def copies(self):
        """All files of the user's own storage and tree, less the journal: name -> sum."""
        found = {f"/store/{n}": s for n, s in content(self.own).items()}
        if self.tree.exists():
            found |= {f"/tree/{n}": s for n, s in content(self.tree).items() if n != ".cleanup"}
        return found

    def empty_own(self):
        for top in (self.own / USER, self.tree):
            shutil.rmtree(top, ignore_errors=True)


if __name__ == "__main__":
    unittest.main()
