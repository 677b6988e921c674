"""The copy tool over a backup's life: limits, pins, the journal's clean-up, copies in users' own
storages."""

import contextlib
import fcntl
import json
import os
import subprocess
import time
import unittest

import backup2_test as t

SUNDAY = "2024-01-28"
WEEK = [f"2024-01-{day}" for day in (28, 29, 30, 31)]
SHA = "a" * 64


class Life(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.root = stack.enter_context(t.install_root())
        self.store, self.local = self.root / "store", self.root / "var/backup/qorvel"
        self.tree = self.local

    # ---- Helpers --------------------------------------------------------------------------------

    def cp(self, *words, code=0, password=None, store=None, **more):
        env = {"BACKUP_TOKEN": t.local_token(store or self.store, password), "BACKUP2_RETRY_MS": "1"}
        done = t.run(["backup2_cp", *words], **{**env, **more})
        self.assertEqual(done.returncode, code, (words, done.stdout, done.stderr))
        self.said = done.stderr
        return done.stdout

    def limit(self, *words, **more):
        return self.cp("--server", "--path", self.tree, *words, **more)

    def backup(self, date, base=None, name="bob", size=1 << 20, **keys):
        """A finished backup of two slices; its info file."""
        user = name.split("#")[0]
        mark = "C" if date == "custom" else "I" if base else "F"
        archive = f"{mark}{'2024-01-30' if date == 'custom' else date}.{name}.tgz"
        keys = {"type": {"C": "custom", "I": "incremental", "F": "full"}[mark], "user": user,
                "created": "2024-01-30 01:00:00", "finished": f"{SUNDAY} 02:00:00", "parts": "2",
                "last-slice": f"{user}/{date}/{archive}.part2", "size": str(size),
                "slice.1": f"4 4 {SHA} {SHA}", "slice.2": f"4 4 {SHA} {SHA}",
                **({"base": f"F{base}.{name}.tgz"} if base else {}), **keys}
        admin = self.tree == self.local
        places = (self.tree / (f"{user}/{date}" if admin else date), self.store / user / date)
        for place in places:
            place.mkdir(parents=True, exist_ok=True)
            (place / f"{date}.{name}.info").write_text("".join(f"{k}={v}\n" for k, v in keys.items()))
            (place / f"{date}.{name}.tgz").write_text("listing")
        for part in (1, 2):
            (places[1] / f"{archive}.part{part}").write_text("data")
        return places[0] / f"{date}.{name}.info"

    def week(self, name="bob", **last):
        infos = [self.backup(SUNDAY, name=name)]
        infos += [self.backup(date, SUNDAY, name) for date in WEEK[1:-1]]
        return infos + [self.backup(WEEK[-1], SUNDAY, name, **last)]

    def left(self, name="bob"):
        """Dates of the backups that are here, which are the same as those on the storage."""
        local = {p.parent.name for p in self.tree.rglob(f"2*/*.{name}.info")}
        stored = {p.parent.name for p in self.store.rglob(f"*.{name}.tgz.part2")}
        self.assertEqual(local, stored)
        return sorted(local)

    def marked(self):
        return sorted(p.parent.name for p in self.tree.rglob("*.info") if "\ndeleted=" in p.read_text())

    # ---- Limits ---------------------------------------------------------------------------------

    def test_limits_and_rules(self):
        full, mon, tue, wed = WEEK
        for words, left, marked, code, says in (
                ((), WEEK, [], 0, ""), (("--count-limit", "0"), WEEK, [], 0, ""),
                (("--count-limit", "", "--size-limit", "0"), WEEK, [], 0, ""),
                (("--count-limit", "3"), WEEK, [full], 0, "marked as deleted bob/2024-01-28 bob: count"),
                (("--count-limit", "1"), [full, wed], [full], 0, f"removed bob/{mon} bob: count limit 1"),
                (("--count-limit", "1", "--date", wed), [full, wed], [], 3, "is the base of this run"),
                (("--count-limit", "1", "--date", "2024-2-1"), [full, wed], [], 3, "2024-02-01 is to come"),
                (("--count-limit", "1", "--date", "2024-02-04"), [full, wed], [full], 3, "newest good"),
                (("--size-limit", "3"), [full, tue, wed], [], 0, "size limit 3145728"),
                (("--size-limit", "3145727B"), [full, wed], [], 0, ""),
                (("--size-limit", "1K"), [full, wed], [], 3, "2097152 bytes stay"),
                (("--size-limit", "1t", "--storage", "bo"), WEEK, [], 0, ""),
                (("--keep-last", "1"), [full, wed], [full], 0, "no keep rule keeps it"),
                (("--keep-daily", "3", "--date", "2024-02-01"), [full, tue, wed], [], 0, ""),
                (("--keep-weekly", "4", "--keep-monthly", "1", "--storage", "bob"), [full, wed], [full], 0, "")):
            for self.tree in (self.local, self.root / "var/backup/qorvel.private/bob"):
                with self.subTest(words=words, tree=self.tree.name):
                    self.week()
                    self.backup(SUNDAY, name="bo")
                    before = t.tree_state(self.root)
                    self.limit("--dry-run", *words, code=code)
                    after = t.tree_state(self.root)
                    self.assertEqual({k: before[k] for k in before if "qorvel.log" not in k},
                                     {k: after[k] for k in after if "qorvel.log" not in k})
                    out = self.limit(*words, code=code)
                    self.assertEqual((self.left(), self.marked()), (left, marked), out)
                    self.assertIn(says, out)
                    again = self.limit(*words, code=code)
                    self.assertNotRegex(again, "removed|marked as deleted 2")
                    self.assertEqual(self.left(), left)
                    self.assertEqual(self.left("bo"), [SUNDAY])
                    t.shutil.rmtree(self.tree), t.shutil.rmtree(self.store)
                    self.local.mkdir(parents=True, exist_ok=True)

    def test_a_marked_full_goes_with_its_last_increment(self):
        self.week()
        self.backup("2024-02-04")
        self.limit("--count-limit", "4")
        self.assertEqual(self.marked(), [SUNDAY])
        out = self.limit("--count-limit", "1", "--date", "2024-02-04")
        self.assertEqual(out.count("removed"), 4, out)
        self.assertEqual(self.left(), ["2024-02-04"])

    def test_what_must_stay_stays(self):
        infos = self.week()
        (self.local / "2024-02-01.bob.info").write_text(f"type=incremental\nbase=F{SUNDAY}.bob.tgz\n")
        custom = self.backup("custom")
        roles = self.backup(SUNDAY, name="bob#mail")
        self.cp("--pin", infos[1])
        with open(infos[2].parent / ".backup.inuse", "w") as held:
            fcntl.lockf(held, fcntl.LOCK_EX)
            report = json.loads(self.limit("--count-limit", "1", "--keep-last", "1", "--json", code=3))
        decisions = {(b["user"], b["date"]): (b["decision"], b["reason"]) for b in report["backups"]}
        self.assertEqual([decisions["bob", date][0] for date in WEEK], ["mark", "keep", "keep", "keep"])
        self.assertEqual([decisions["bob", date][1] for date in WEEK[1:3]], ["pinned", "in use"])
        self.assertEqual(decisions["bob", "custom"][0], "remove")
        self.assertIn("bob: count limit 1: 3 backups stay", report["unreachable"][0])
        self.assertEqual((self.left(), roles.exists(), custom.exists()), (WEEK, True, False))
        self.assertIn("unpin it first", self.cp("--delete", infos[1], code=1))
        self.cp("--pin", infos[0], code=1)  # deleted
        self.cp("--unpin", infos[1])
        self.limit("--keep-last", "1")
        self.assertEqual(self.left(), [SUNDAY, WEEK[3]])
        self.cp("--delete", infos[3])
        self.assertEqual(self.left(), [SUNDAY])  # the running job builds on it
        self.cp("--pin", roles)
        self.cp("--delete", roles, "--force")
        self.assertFalse(roles.exists())

    def test_damaged_info_files_stay_and_disturb_nobody(self):
        self.week("alice")
        self.backup("2024-01-27")
        infos = self.week()
        broken = [infos[2], self.local / f"bob/{SUNDAY}/2024-01-29.bob.info"]
        broken[0].write_text(infos[2].read_text().replace(f"=F{SUNDAY}", "=../F2024"))
        broken[1].write_text("finished=x\n")
        broken.append(self.local / f"bob/{SUNDAY}/{SUNDAY}.a\x1b[2Jb.info")
        broken[2].write_text("")
        out = self.limit("--count-limit", "1")
        for path in broken:
            self.assertTrue(path.exists())
        self.assertEqual(self.said.count("\n"), 3)
        self.assertNotIn("\x1b", self.said + out)
        self.assertTrue(infos[0].exists())  # the damaged one may be an increment of it
        self.assertEqual((self.left("alice"), infos[1].exists()), ([SUNDAY, WEEK[3]], False))
        self.cp("--delete", infos[0])
        self.cp("--delete", infos[3])
        self.assertTrue(infos[0].exists(), "marked, and it stays")

    def test_a_removal_that_fails_lets_the_others_go_on(self):
        for name in ("alice", "bob", "carl"):
            self.week(name)
        out = self.limit("--keep-last", "1", code=1, store=self.root / "not mounted")
        self.assertIn("holds nothing", self.said)
        for date in WEEK[1:3]:
            (self.store / f"bob/{date}/{date}.bob.info").unlink()
            (self.store / f"bob/{date}/{date}.bob.info").mkdir()
        out = self.limit("--keep-last", "1", code=1)
        self.assertIn("2 backups could not be removed", out)
        self.assertEqual((self.left("bob"), self.marked()), (WEEK, [SUNDAY] * 3))
        self.assertEqual((self.left("alice"), self.left("carl")), ([SUNDAY, WEEK[3]],) * 2)

    def test_a_disk_that_is_not_mounted_is_not_the_storage(self):
        disk = self.root / "disk"
        (disk / "store/lost+found").mkdir(parents=True)
        self.store = disk / "store"
        mount = lambda *words: subprocess.run(words, capture_output=True, check=False).returncode
        if mount("mount", "-t", "tmpfs", "tmpfs", disk) != 0:
            self.skipTest("no mounts here")
        self.addCleanup(mount, "umount", disk)
        infos = self.week()
        listing = self.root / "2024-02-04.bob.tgz"
        listing.write_text("listing")
        self.cp("--put", "--no-delete", listing)
        copy = t.shutil.copytree(self.store, self.root / "copy")
        mount("umount", disk)
        (self.tree / ".cleanup").write_text(f"{t.local_token(self.store)}\t{WEEK[1]}.bob\n")
        limit, clean_up = ("--server", "--path", self.tree, "--count-limit", "1"), ("--cleanup", self.tree)
        for words in (limit, clean_up, ("--delete", infos[2]), ("--put", listing), ("--check",)):
            self.assertIn("no disk is mounted", self.cp(*words, code=1) + self.said, words)
        self.assertTrue(all(info.exists() for info in infos) and listing.exists())
        # It stays away, and what it held lies here by now.
        self.cp("--check", "--accept-disk")
        t.shutil.copytree(copy, self.store, dirs_exist_ok=True)
        for words in (clean_up, limit):
            self.cp(*words)
        self.assertEqual(self.left(), [SUNDAY, WEEK[3]])

    def test_a_backup_pinned_while_it_is_about_to_go_stays(self):
        infos = self.week()
        with open(f"{infos[1]}.lock", "w") as pinning:
            fcntl.lockf(pinning, fcntl.LOCK_EX)
            process = t.start(["backup2_cp", "--server", "--path", self.tree, "--keep-last", "1"],
                              BACKUP_TOKEN=t.local_token(self.store))
            until = time.monotonic() + 60
            while not (infos[1].parent / ".backup.inuse").exists() and time.monotonic() < until:
                time.sleep(0.001)
            infos[1].write_text(infos[1].read_text() + "pinned=now\n")
        said = process.communicate(timeout=60)[1]
        self.assertIn(f"bob/{WEEK[1]} bob is pinned", said)
        self.assertEqual((process.returncode, self.left()), (1, [SUNDAY, WEEK[1], WEEK[3]]))

    def test_wrong_usage_removes_nothing(self):
        self.week()
        before = self.left()
        for words in (("--size-limit", "1X"), ("--size-limit", "-1"), ("--size-limit", "1.5G"),
                      ("--size-limit", "99999999999T"), ("--size-limit", "K"), ("--count-limit", "x"),
                      ("--count-limit", "18446744073709551616"), ("--keep-last", "1 "), ("--date", "x"),
                      ("--date", "2024-02-30"), ("--storage", "../bob"), ("--force",), ("stranger",)):
            with self.subTest(words=words):
                self.limit("--count-limit", "1", *words, code=2)
        for words in (("--server",), ("--dry-run", "--cleanup", "x"), ("--pin", ""), ("--server", "--check")):
            self.cp(*words, code=2)
        self.assertEqual(self.left(), before)

    # ---- Copies in a user's own storage ---------------------------------------------------------

    def test_a_private_copy_is_described_as_it_lies_there(self):
        private = self.root / "var/backup/qorvel.private/bob"
        for password in (None, "own pass word"):
            with self.subTest(password=password):
                theirs, copy = self.root / f"theirs {password}", {"BACKUP_STORAGE": "bob"}
                put = lambda *words, code=0: self.cp("--put", *words, code=code, store=theirs,
                                                     password=password, **copy)
                stored = self.store / f"bob/{SUNDAY}/F{SUNDAY}.bob.tgz"
                stored.parent.mkdir(parents=True, exist_ok=True)
                stored.write_bytes(b"the data")
                sha = t.sha256(stored)
                info = private / SUNDAY / f"{SUNDAY}.bob.info"
                info.parent.mkdir(parents=True, exist_ok=True)
                text = (f"finished={SUNDAY} 02:00:00\nindex=bob/{SUNDAY}/{SUNDAY}.bob.tgz\npinned=x\n"
                        f"last-slice=bob/{SUNDAY}/F{SUNDAY}.bob.tgz{'.aes' if password else ''}\n"
                        f"slice.1=8 8 {sha} {sha}\nuser=bob\nown=stays\n")
                info.write_text(text)
                self.assertIn("slice.1 was not copied", put("--no-delete", info, code=1))
                fetched = self.root / "tmp" / stored.name
                fetched.parent.mkdir(exist_ok=True)
                fetched.write_bytes(b"Xhe data")
                put(fetched)
                self.assertIn("other bytes", put("--no-delete", info, code=1))
                self.assertEqual(info.read_text(), text)
                os.link(stored, fetched)
                put(fetched)
                record = private / f".copying/{SUNDAY}.bob.info"
                self.assertEqual((record.stat().st_mode & 0o777, record.parent.stat().st_mode & 0o777,
                                  fetched.exists(), stored.stat().st_nlink), (0o600, 0o700, False, 1))
                put("--no-delete", info)
                keys = dict(line.split("=", 1) for line in info.read_text().splitlines())
                end = ".aes" if password else ""
                there = theirs / f"bob/{SUNDAY}/F{SUNDAY}.bob.tgz{end}"
                self.assertEqual(keys["slice.1"], f"8 {there.stat().st_size} {sha} {t.sha256(there)}")
                self.assertEqual((keys["index"], keys["own"]), (f"bob/{SUNDAY}/{SUNDAY}.bob.tgz{end}", "stays"))
                self.assertNotIn("pinned", keys)
                self.assertEqual((theirs / f"bob/{SUNDAY}/{info.name}").read_bytes(), info.read_bytes())
                self.assertFalse(record.parent.exists())
                self.cp("--get", "--info-file", info, "--slice", fetched, store=theirs, password=password)
                self.assertEqual(fetched.read_bytes(), b"the data")
        self.cp("--put", fetched, code=1, BACKUP_STORAGE="../x")

    def test_cleanup_removes_what_the_journal_names_and_nothing_else(self):
        self.tree = self.root / "var/backup/qorvel.private/bob"
        self.cp("--cleanup", self.tree)  # nothing there
        infos = [self.backup(date) for date in WEEK]
        role = self.backup(SUNDAY, name="bob#mail")
        half = [self.store / f"bob/{SUNDAY}/F{SUNDAY}.bob#web.tgz.part2",
                self.tree / f".copying/{SUNDAY}.bob#ftp.info", self.tree / f"{SUNDAY}/{SUNDAY}.bob#web.tgz"]
        record = self.tree / f".copying/{SUNDAY}.bob.info"
        record.parent.mkdir()
        for path in [record, *half]:
            path.write_text("")
        token = t.local_token(self.store)
        lines = [f"{token}\t{SUNDAY}.bob", f"{token}\t{WEEK[1]}.bob#", "no sense CANARY",
                 f"{token}\t../x.bob", f"type=local;path=x;key=CANARY\t{WEEK[2]}.bob", f"{token}\t{SUNDAY}.bob"]
        journal = self.tree / ".cleanup"
        journal.write_text("".join(line + "\n" for line in lines))
        with open(self.tree / ".backup.inuse", "w") as held:
            fcntl.lockf(held, fcntl.LOCK_EX)
            self.assertIn("in use", self.cp("--cleanup", self.tree, code=1))
        self.assertEqual(self.left(), WEEK)
        out = self.cp("--cleanup", self.tree, code=1)
        self.assertEqual(self.left(), WEEK[2:])
        self.assertEqual((role.exists(), record.parent.exists()), (True, False))
        self.assertEqual([path for path in half if path.exists()], [])
        self.assertEqual(journal.read_text().splitlines(), lines[2:5])
        for said in ("line 3", "line 4", "line 5"):
            self.assertIn(said, out)
        self.assertNotIn("CANARY", out + self.said)
        self.assertTrue(all(info.exists() for info in infos[2:]))

    def test_a_line_of_the_storage_before_spares_the_copy_in_the_present_one(self):
        self.tree = self.root / "var/backup/qorvel.private/bob"
        old, journal = self.root / "old", self.tree / ".cleanup"
        self.backup("2024-01-21")
        self.backup(SUNDAY)
        t.shutil.copytree(self.store, old)
        (old / f"bob/{SUNDAY}/{SUNDAY}.bob.info").write_text("of half a copy")
        line = f"{t.local_token(old)}\t{SUNDAY}.bob\n"
        journal.write_text(line)
        self.limit("--count-limit", "1", "--date", "2024-02-04", code=3)
        self.assertEqual(self.left(), ["2024-01-21", SUNDAY], "a copy that is named is not the newest good one")
        self.cp("--cleanup", self.tree)
        self.assertEqual((self.left(), journal.read_text()), (["2024-01-21", SUNDAY], ""))
        self.assertEqual([p.name for p in (old / "bob").iterdir()], ["2024-01-21"])
        # The copy that is there was made with another password than the line's.
        present = t.local_token(self.store) + f"\t{SUNDAY}.bob\n"
        for path in (self.tree / f"{SUNDAY}/{SUNDAY}.bob.info", self.store / f"bob/{SUNDAY}/{SUNDAY}.bob.info"):
            path.write_text("key_hash=of another\n" + path.read_text())
        journal.write_text(present)
        self.cp("--cleanup", self.tree)
        self.assertEqual((self.left(), journal.read_text()), (["2024-01-21", SUNDAY], ""))
        # Something arrived on a storage that holds nothing now.
        (self.tree / ".copying").mkdir()
        (self.tree / f".copying/{SUNDAY}.bob.info").write_text("slice.1=")
        away = old.rename(self.root / "away")
        journal.write_text(line)
        self.assertIn("is it mounted?", self.cp("--cleanup", self.tree, code=1))
        self.assertEqual((self.left(), journal.read_text()), (["2024-01-21", SUNDAY], line))
        away.rename(old)
        self.cp("--cleanup", self.tree)
        self.assertEqual(journal.read_text(), "")


if __name__ == "__main__":
    unittest.main()
