"""The copy tool: what it says is stored is stored, what it hands out is what was saved."""

import base64
import contextlib
import fcntl
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import time
import unittest

import backup2_test as t

DATE, LATER, LATEST = "2024-01-28", "2024-01-29", "2024-01-30"
SECRET = "canary pass'word"
SIZES = (0, 1, 15, 16, 17, 1 << 20)


class CopyTool(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.root = stack.enter_context(t.install_root())
        self.store = self.root / "store"
        self.local = self.root / "var/backup/qorvel"
        self.password = SECRET
        self.path = os.environ["PATH"]

    # ---- Helpers --------------------------------------------------------------------------------

    def env(self, **more):
        return {"BACKUP_TOKEN": t.local_token(self.store, self.password), "BACKUP2_RETRY_MS": "1",
                "PATH": self.path, **more}

    def cp(self, *words, code=0, **more):
        done = t.run(["backup2_cp", *words], **self.env(**more))
        self.assertEqual(done.returncode, code, (words, done.stdout, done.stderr))
        if code == 1:  # one line, on both
            self.assertEqual(done.stdout.count("\n"), 1)
            self.assertTrue(done.stderr.endswith(done.stdout))
        return done.stdout

    def info(self, date=DATE, name="bob", **keys):
        path = self.local / f"{date}.{name}.info"
        keys = {"type": "full", "created": f"{date} 01:00:00", "user": name.split("#")[0], **keys}
        path.write_text("".join(f"{k}={v}\n" for k, v in keys.items()))
        return path

    def slice(self, number, content, date=DATE, name="bob", mark="F"):
        path = self.local / f"{mark}{date}.{name}.tgz{f'.part{number}' if number else ''}"
        path.write_bytes(content)
        return path

    def backup(self, contents, date=DATE, name="bob", mark="F", **keys):
        """A finished backup; its final info file."""
        info = self.info(date, name, **keys)
        for number, content in enumerate(contents, 1):
            last = "--last-slice" if number == len(contents) else "--slice"
            self.cp("--put", "--info-file", info, last, self.slice(number, content, date, name, mark))
        listing = self.listing(date, name)
        self.cp("--put", "--info-file", info, "--isolated", "--no-delete", listing)
        info.unlink()
        return listing.with_suffix(".info")

    def listing(self, date=DATE, name="bob"):
        path = self.local / name.split("#")[0] / date / f"{date}.{name}.tgz"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(b"the listing")
        return path

    def stored(self, number, date=DATE, name="bob", mark="F"):
        end = (".aes" if self.password is not None else "") + (f".part{number}" if number else "")
        return self.store / name.split("#")[0] / date / f"{mark}{date}.{name}.tgz{end}"

    def get(self, info, number, code=0, date=DATE, **more):
        to = self.root / "fetched" / f"F{date}.bob.tgz.part{number}"
        return to, self.cp("--get", "--info-file", info, "--slice", to, code=code, **more)

    def fake_openssl(self, script):
        """Puts a program before the real one: it gets $IN and $OUT and may call "$REAL" "$@"."""
        folder = self.root / "fake"
        folder.mkdir(exist_ok=True)
        program = folder / "openssl"
        program.write_text(f"""#!/bin/bash
REAL={shutil.which("openssl")}
for ((i = 1; i < $#; i++)); do
  n=$((i + 1))
  case ${{!i}} in -in) IN=${{!n}} ;; -out) OUT=${{!n}} ;; esac
done
{script}
""")
        program.chmod(0o755)
        self.path = f"{folder}:{os.environ['PATH']}"

    def state(self):
        return {k: (e.sha256, e.mode) for k, e in t.tree_state(self.root).items()
                if not k.startswith(("var/qorvel.log", "fetched"))}

    # ---- Up and down ----------------------------------------------------------------------------

    def test_slices_of_all_sizes_come_back_and_openssl_alone_reads_them(self):
        for self.password in (None, SECRET, "x" * 1023):
            self.store = self.root / f"store {len(self.password or '')}"
            contents = [random.Random(size).randbytes(size) for size in SIZES]
            info = self.backup(contents)
            keys = dict(line.split("=", 1) for line in info.read_text().splitlines())
            self.assertEqual((keys["parts"], keys["size"]), (str(len(SIZES)), str(sum(SIZES))))
            self.assertEqual(keys["last-slice"], str(self.stored(len(SIZES)).relative_to(self.store)))
            self.assertEqual("key_hash" in keys, self.password is not None)
            self.assertEqual((self.store / f"bob/{DATE}/{DATE}.bob.info").read_bytes(),
                             info.read_bytes())
            for number, content in enumerate(contents, 1):
                stored = self.stored(number)
                plain, size, digest, stored_digest = keys[f"slice.{number}"].split()
                self.assertEqual((int(plain), int(size)), (len(content), stored.stat().st_size))
                self.assertEqual(stored_digest, t.sha256(stored))
                if self.password is not None:
                    raw = subprocess.run(
                        ["openssl", "enc", "-d", "-aes-256-cbc", "-pass", "env:P", "-in", stored],
                        env={"P": self.password}, capture_output=True, check=True).stdout
                    self.assertEqual(raw, content)
                to, _ = self.get(info, number)
                self.assertEqual((to.read_bytes(), t.sha256(to)), (content, digest))
            self.assertEqual(sorted(p.name for p in self.local.iterdir()), ["bob"])
        self.assertEqual(list((self.root / "var/backup2_cp.tmp").iterdir()), [])

    def test_damage_is_found_and_named_and_nothing_appears(self):
        def edit(change):
            return lambda path: path.write_bytes(change(bytearray(path.read_bytes())))

        def flip(at):
            return edit(lambda data: data.__setitem__(at, data[at] ^ 1) or data)

        faults = {
            "first byte": flip(0), "salt": flip(9), "middle": flip(5000), "last byte": flip(-1),
            "cut by a byte": edit(lambda d: d[:-1]), "cut by a block": edit(lambda d: d[:-16]),
            "empty": edit(lambda d: b""), "longer": edit(lambda d: d + b"more"),
            "blocks swapped": edit(lambda d: d[:160] + d[176:192] + d[160:176] + d[192:]),
            "another slice": lambda path: shutil.copy(self.stored(2), path),
            "missing": lambda path: path.unlink(),
        }
        for self.password in (None, SECRET):
            self.store = self.root / f"store-{self.password is None}"
            info = self.backup([random.Random(n).randbytes(10000) for n in (1, 2)])
            good = self.stored(1).read_bytes()
            for what, damage in faults.items():
                with self.subTest(what, encrypted=self.password is not None):
                    damage(self.stored(1))
                    to, said = self.get(info, 1, code=1)
                    self.assertIn(str(self.stored(1).relative_to(self.store)), said)
                    self.assertRegex(said, "damaged|stored size|stored are|missing")
                    self.assertFalse(os.path.exists(to.parent) and os.listdir(to.parent))
                    self.stored(1).unlink(missing_ok=True)
                    self.stored(1).write_bytes(good)
            to, _ = self.get(info, 2)  # the other one is still good, and replaced in one step
            self.stored(2).chmod(0o600)
            flip(7)(self.stored(2))
            before = to.read_bytes()
            self.get(info, 2, code=1)
            self.assertEqual(to.read_bytes(), before)
            to.unlink()

    def test_another_password_is_called_that(self):
        info = self.backup([b"content"])
        for self.password, said in (("some other", "wrong password: the backup was made"), (None, "has no password")):
            self.assertIn(said, self.get(info, 1, code=1)[1])
        self.password, self.store = None, self.root / "plain"
        info = self.backup([b"content"])
        self.password = SECRET
        self.assertIn("not encrypted", self.get(info, 1, code=1)[1])

    def test_get_by_name_gives_a_file_of_its_own_or_leaves_the_old_one(self):
        to = self.root / "to"
        for self.password in (SECRET, None):
            self.store = self.root / f"store-{self.password}"
            self.backup([b"content"])
            name = self.stored(1).relative_to(self.store)
            self.cp("--get", name, to)
            self.assertEqual((to.read_bytes(), to.stat().st_nlink, to.stat().st_mode & 0o777),
                             (b"content", 1, 0o600))
            for bad in ("../store/x", "/etc/passwd", "bob/none", ""):
                self.cp("--get", bad, to, code=1)
                self.assertEqual(to.read_bytes(), b"content")

    def test_plain_put_removes_unless_kept_or_stored_itself(self):
        self.password = None
        first = self.slice(1, b"first")
        self.cp("--put", first)
        self.assertEqual((first.exists(), self.stored(1).read_bytes()), (False, b"first"))
        index = self.listing()
        self.cp("--put", "--no-delete", index)
        there = self.store / f"bob/{DATE}/{DATE}.bob.tgz"
        for path in (index, there):  # the user owns the stored one: it has no other name
            self.assertEqual((path.read_bytes(), path.stat().st_nlink), (b"the listing", 1))
        linked = self.slice(2, b"second")
        os.link(linked, self.root / "other name")
        self.cp("--put", linked)
        self.assertEqual((self.stored(2).stat().st_nlink, linked.exists()), (1, False))
        self.store = self.local
        self.cp("--put", index)
        self.assertEqual(index.read_bytes(), b"the listing")

    def test_names_that_are_no_backups_are_refused(self):
        for name in ("plain.txt", f"F{DATE}.bob.tgz.part2000000000", f"F{DATE}.-x.tgz"):
            path = self.root / name
            path.write_bytes(b"content")
            self.cp("--put", path, code=1)
            self.assertTrue(path.exists())
        self.assertFalse(self.store.exists())

    # ---- Failing uploads ------------------------------------------------------------------------

    def assert_put_fails(self, info, path, said):
        before, content = info.read_bytes(), path.read_bytes()
        out = self.cp("--put", "--info-file", info, "--slice", path, code=1)
        self.assertIn(said, out)
        self.assertIn(str(path), out)
        self.assertEqual((info.read_bytes(), path.read_bytes()[:len(content)]), (before, content))
        self.assertFalse(any(e.type == "file" for e in t.tree_state(self.store).values()))

    @contextlib.contextmanager
    def small_disk(self, place):
        place.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", place], check=True)
        try:
            yield place
        finally:
            subprocess.run(["umount", place], check=True)

    def test_full_disk_keeps_the_slice_and_leaves_nothing_stored(self):
        with self.small_disk(self.store):
            for self.password in (SECRET, None):
                self.assert_put_fails(self.info(), self.slice(1, b"\0" * (3 << 20)), "no room")

    def test_a_full_disk_ends_a_download_and_keeps_what_an_upload_would_replace(self):
        final = self.backup([b"\0" * (9 << 20)])
        stored_info, committed = self.store / "bob" / DATE / final.name, final.read_bytes()
        with self.small_disk(self.root / "fetched") as fetched:
            self.assertIn("No space left", self.get(final, 1, code=1)[1])
            self.assertEqual(list(fetched.iterdir()), [])
        with self.small_disk(stored_info.parent):
            stored_info.write_bytes(committed)
            final.write_bytes(committed + b"x=" + b"y" * (2 << 20))
            self.cp("--put", "--no-delete", final, code=1)
            self.assertEqual(stored_info.read_bytes(), committed)

    def test_all_is_on_the_disk_before_the_info_file_says_so(self):
        info, listing = self.info(), self.listing()
        calls = []
        for words in (("--last-slice", self.slice(1, b"one")), ("--isolated", "--no-delete", listing)):
            trace = self.root / "trace"
            done = t.run(["strace", "-f", "-y", "-o", trace, "-e", "trace=fsync,link,linkat,rename,renameat",
                          t.program("backup2_cp"), "--put", "--info-file", info, *words],
                         **self.env(ASAN_OPTIONS="detect_leaks=0"))
            self.assertEqual(done.returncode, 0, done.stderr)
            calls += [line for line in trace.read_text().splitlines() if line.endswith(" = 0")]

        def last(*parts):
            return max((n for n, line in enumerate(calls) if all(part in line for part in parts)), default=-1)
        commit = last("link", f'{self.store}/bob/{DATE}/{DATE}.bob.info"')
        for path in (f"{DATE}/F{DATE}.bob.tgz.aes.part1", f"{DATE}/{DATE}.bob.tgz.aes", DATE):
            self.assertGreater(last("fsync(", f"<{self.store}/bob/{path}>"), -1, path)
        first = [n for n, line in enumerate(calls) if "fsync(" in line and ".tgz.aes" in line]
        self.assertEqual(len(first), 2, calls)
        self.assertLess(first[-1], commit, calls)
        self.assertGreater(last("fsync(", f"<{self.store}/bob/{DATE}/{DATE}.bob.info>"), commit, calls)

    def test_a_cut_or_changed_archive_never_counts_as_stored(self):
        info, path = self.info(parts="1"), self.slice(1, b"x" * 100000)  # parts: past the probe
        for script, said in (('"$REAL" "$@"; truncate -s -16 "$OUT"', "100016 bytes instead of 100032"),
                             ('head -c 50000 "$IN" | "$REAL" "${@:1:5}" -out "$OUT"', "instead of"),
                             ('"$REAL" "$@"; echo more >> "$IN"', "changed"),
                             ('"$REAL" "$@"; exit 1', "Fail to encode"),
                             ("kill -9 $$", "Fail to encode")):
            with self.subTest(script):
                self.fake_openssl(script)
                self.assert_put_fails(info, path, said)

    def test_a_password_that_could_not_be_read_back_uploads_nothing(self):
        for self.password in ("a\nb", "a\0b", "x" * 1024):
            path = self.slice(1, b"content")
            out = self.cp("--put", "--info-file", self.info(), "--slice", path, code=1)
            self.assertNotIn(self.password[:3], out.split("token: ")[1])
            self.cp("--check", code=1)
            self.assertFalse(self.store.exists())
        self.password = SECRET  # the first slice of a job tries it
        self.fake_openssl('[ "$2" = -d ] && exec printf other; "$REAL" "$@"')
        self.cp("--put", "--info-file", self.info(), "--slice", path, code=1)
        self.assertFalse(self.store.exists())

    def test_calls_can_be_repeated(self):
        info, path = self.info(), self.slice(1, b"one")
        put = ("--put", "--info-file", info, "--last-slice", path)
        self.cp(*put)
        recorded = info.read_bytes()
        self.cp(*put)  # the file is gone, the slice recorded and stored
        self.assertEqual(info.read_bytes(), recorded)
        self.slice(1, b"one")
        self.cp(*put)
        self.assertFalse(path.exists())
        for _ in range(2):
            self.cp("--put", "--info-file", info, "--isolated", "--no-delete", self.listing())
        final = self.local / f"bob/{DATE}/{DATE}.bob.info"
        self.get(final, 1)
        for _ in range(2):
            self.cp("--delete", final)
        self.stored(1).unlink(missing_ok=True)
        self.cp(*put, code=1)  # gone and not stored either

    def test_a_killed_upload_is_completed_by_the_next_call(self):
        info, content = self.info(parts="1"), random.Random(1).randbytes(300000)
        path = self.slice(1, content)
        put = ("--put", "--info-file", info, "--last-slice", path)
        self.fake_openssl('head -c 1000 /dev/urandom > "$OUT"; touch "$0.started"; exec sleep 60')
        child = t.start(["backup2_cp", *put], **self.env())
        while not (self.root / "fake/openssl.started").exists():
            self.assertIsNone(child.poll())
            time.sleep(0.01)
        os.killpg(child.pid, signal.SIGKILL)
        child.communicate()
        self.assertEqual((path.read_bytes(), "slice.1" in info.read_text()), (content, False))
        self.path = os.environ["PATH"]
        self.cp(*put)
        self.cp("--put", "--info-file", info, "--isolated", "--no-delete", self.listing())
        to, _ = self.get(self.local / f"bob/{DATE}/{DATE}.bob.info", 1)
        self.assertEqual(to.read_bytes(), content)

    def test_an_unfinished_backup_is_not_published(self):
        begin = "2999-01-01 00:00:00"  # the clock was put back meanwhile
        info = self.info(created=begin)
        self.cp("--put", "--info-file", info, "--slice", self.slice(1, b"one"))
        final = ("--put", "--info-file", info, "--isolated", "--no-delete", self.listing())
        self.assertIn("last-slice", self.cp(*final, code=1))
        self.cp("--put", "--info-file", info, "--last-slice", self.slice(3, b"three"))
        self.assertIn("parts", self.cp(*final, code=1))
        self.cp("--put", "--info-file", info, "--slice", self.slice(2, b"two"))
        self.cp(*final)
        self.assertEqual(info.exists(), True)  # left for the caller
        self.assertIn(f"finished={begin}\n", self.listing().with_suffix(".info").read_text())

    def test_processes_record_slices_of_one_info_file_at_once(self):
        info, count = self.info(unknown="stays=so"), 12
        children = [t.start(["backup2_cp", "--put", "--info-file", info, "--slice",
                             self.slice(n, bytes(n))], **self.env()) for n in range(1, count + 1)]
        for child in children:
            out, err = child.communicate()
            self.assertEqual(child.returncode, 0, out + err)
        keys = dict(line.split("=", 1) for line in info.read_text().splitlines())
        self.assertEqual((keys["parts"], keys["size"]), (str(count), str(sum(range(count + 1)))))
        self.assertEqual(keys["unknown"], "stays=so")
        self.assertEqual([p.name for p in self.local.iterdir()], [info.name])

    # ---- Deleting -------------------------------------------------------------------------------

    def names(self):
        return {p.name for top in (self.store, self.local) for p in top.rglob("*") if p.is_file()}

    def chain(self):
        base = f"F{DATE}.bob.tgz"
        return [self.backup([b"full", b"2"])] + [
            self.backup([b"more"], date, mark="I", type="incremental", base=base)
            for date in (LATER, LATEST)]

    def test_a_full_backup_lives_as_long_as_its_increments(self):
        self.backup([b"other"], name="bobby")
        full, first, second = self.chain()
        others = {n for n in self.names() if ".bobby." in n}
        before = self.names()
        self.assertIn("2 increments", self.cp("--delete", full))
        self.assertIn("\ndeleted=20", full.read_text().replace("created", "\ncreated"))
        self.assertEqual(self.names(), before)
        self.cp("--delete", first)
        self.assertTrue(self.stored(1).exists())
        self.cp("--delete", second)
        self.assertEqual(self.names(), others)
        self.assertFalse((self.store / "bob").exists() or (self.local / "bob").exists())
        full, *_ = self.chain()
        self.assertEqual(self.cp("--delete", full, "--force").count("removed"), 3)
        self.assertEqual(self.names(), others)

    def test_delete_takes_its_own_files_only(self):
        info = self.backup([b"one", b"two"])
        self.backup([b"role"], name="bob#mail")
        kept = self.names() - {n for n in self.names() if f"{DATE}.bob." in n} | {"notes"}
        (self.store / f"bob/{DATE}/notes").write_text("not a backup")
        self.slice(3, b"left over")
        info.unlink()  # the name alone says enough
        self.cp("--delete", info)
        self.assertEqual(self.names(), kept)

    def test_delete_is_refused_while_the_backup_is_in_use(self):
        info = self.backup([b"one"])
        marker = info.parent / ".backup.inuse"
        with open(marker, "w") as held:
            fcntl.lockf(held, fcntl.LOCK_EX)
            before = self.names()
            self.assertIn("busy", self.cp("--delete", info, code=1))
            self.assertEqual(self.names(), before)
        self.cp("--delete", info)
        self.assertEqual(self.names(), set())

    def test_delete_where_storage_and_local_tree_are_one(self):
        self.store, self.password = self.local, None
        self.cp("--delete", self.backup([b"one"]))
        self.assertEqual(list(self.local.rglob("*")), [])

    # ---- Hostile input --------------------------------------------------------------------------

    def test_hostile_info_files_change_nothing(self):
        info = self.backup([b"one"])
        good = info.read_text()
        slice_name = f"bob/{DATE}/F{DATE}.bob.tgz.aes"
        cases = [("user", "alice"), ("last-slice", f"alice/{DATE}/F{DATE}.alice.tgz.aes"),
                 ("last-slice", "../../etc/passwd"), ("last-slice", f"/{slice_name}"),
                 ("last-slice", f"bob/../bob/{DATE}/F{DATE}.bob.tgz.aes"),
                 ("last-slice", f"{slice_name}.part2000000000"), ("last-slice", f"-x/{slice_name}"),
                 ("last-slice", f"bob/{LATER}/F{LATER}.bob.tgz.aes"), ("parts", "2000000000"),
                 ("parts", "-1"), ("base", "../../x"), ("base", f"F{DATE}.alice.tgz"),
                 ("index", f"bob/{DATE}/../../x")]
        for key, value in cases:
            with self.subTest(f"{key}={value}"):
                text = re.sub(f"(?m)^{key}=.*\n", "", good) + f"{key}={value}\n"
                info.write_text(text)
                before = self.state()
                self.assertIn(key, self.cp("--delete", info, "--force", code=1))
                self.get(info, 1, code=1)
                flat = self.local / info.name
                flat.write_text(text)
                self.cp("--put", "--info-file", flat, "--isolated", "--no-delete",
                        info.with_suffix(".tgz"), code=1)
                flat.unlink()
                self.assertEqual(self.state(), before)
        info.write_text(good.replace("slice.1=", "slice.1=x"))
        self.get(info, 1, code=1)
        target = self.root / "elsewhere.info"
        info.rename(target)
        info.symlink_to(target)
        self.assertIn("symlink", self.cp("--delete", info, code=1))

    def test_files_of_another_backup_are_not_recorded(self):
        info = self.info()
        for name, date in (("alice", DATE), ("bob", LATER), ("bob#mail", DATE)):
            path = self.slice(1, b"content", date, name)
            self.cp("--put", "--info-file", info, "--slice", path, code=1)
            self.assertTrue(path.exists())

    def test_no_secret_leaves_the_process(self):
        self.info(), self.slice(1, b"content")
        trace = self.root / "trace"
        secrets = [SECRET, base64.b64encode(SECRET.encode()).decode()]
        info, path = self.local / f"{DATE}.bob.info", self.local / f"F{DATE}.bob.tgz.part1"
        says = ""
        for words in (["--put", "--info-file", info, "--last-slice", path],
                      ["--put", "--info-file", info, "--isolated", "--no-delete", self.listing()],
                      ["--get", "--info-file", info, "--slice", path], ["--check"],
                      ["--get", "missing", path]):
            done = t.run(["strace", "-f", "-e", "trace=execve", "-v", "-s", "65536", "-o", trace, "-A",
                          t.program("backup2_cp"), *words], **self.env(VEL_LOG_LEVEL="9"))
            says += done.stdout + done.stderr
        calls = re.findall(r'execve\("(.*?)", \[(.*?)\], \[(.*?)\]\) = 0', trace.read_text())
        children = [c for c in calls if not c[0].endswith("backup2_cp")]
        self.assertGreater(len(children), 6)  # encoding, decoding, probing
        self.assertIn("is missing", says)
        for secret in secrets:
            quoted = secret.replace('"', '\\"')
            self.assertFalse([c for c in calls if quoted in c[1]])
            self.assertNotIn(secret, says + (self.root / "var/qorvel.log").read_text())
        for _, argv, environ in children:
            self.assertNotIn("BACKUP_TOKEN", environ)
            self.assertEqual(SECRET in environ, '"env:PASSWORD"' in argv or "env:PASSWORD" in argv)

    # ---- The rest -------------------------------------------------------------------------------

    def test_wrong_usage_does_nothing(self):
        info, path = self.info(), self.slice(1, b"content")
        for words in ([], ["--cleanup", ""], ["--server"], ["--put"], ["--put", path, path],
                      ["--put", "--check"], ["--put", "--slice", path], ["--get", "one"],
                      ["--put", "--info-file", info, path], ["--delete"], ["--delete", ""],
                      ["--put", "--force", path], ["--put", "-x"], ["--list", "a", "b"],
                      ["--put", "--info-file", info, "--slice", path, "--last-slice", path],
                      ["--put", "--info-file", info, "--isolated", path]):
            self.cp(*words, code=2)
        self.assertEqual((path.exists(), self.store.exists()), (True, False))
        for words in (["--put", "--info-file", info, "--slice", "-x"], ["--list", "-x"]):
            self.cp(*words, code=1)  # a value, not an option

    def test_check_says_which_step_fails(self):
        self.assertIn("encrypted", self.cp("--check", PATH=None))
        self.assertEqual(list(self.store.iterdir()), [])
        file = self.root / "a file"
        file.write_text("")
        self.assertIn("cannot write", self.cp("--check", code=1, BACKUP_TOKEN=t.local_token(file)))
        self.fake_openssl('"$REAL" "$@"; case $OUT in *backup2_check*) truncate -s 48 "$OUT";; esac')
        self.assertIn("cannot write: the stored size is wrong", self.cp("--check", code=1))
        self.assertEqual(list(self.store.rglob("*")), [])

    def test_list_shows_every_name_on_one_line(self):
        (self.store / "d").mkdir(parents=True)
        for name in (b"plain", b"new\nline", b"tab\t\\", b"\xff\xfe"):
            (pathlib.Path(os.fsdecode(os.fsencode(self.store / "d") + b"/" + name))).write_bytes(b"")
        self.assertEqual(self.cp("--list", "d").split("\n"),
                         ["new\\nline", "plain", "tab\\t\\\\", os.fsdecode(b"\xff\xfe"), ""])
        self.assertEqual(self.cp("--list", ""), "d\n")
        self.assertEqual(self.cp("--list", "none"), "")
        self.cp("--list", "d/..", code=1)


if __name__ == "__main__":
    unittest.main()
