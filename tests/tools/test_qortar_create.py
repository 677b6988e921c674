"""qortar --create: what comes back out of its slices with the system's own tar, what the listing
says, and how it behaves when the tree, the disk or a command misbehaves."""

import io
import os
import re
import shutil
import socket
import subprocess
import tarfile
import unittest

from backup2_test import install_root, make_tree, program, run, tree_state

FIELDS = "type mode uid gid size mtime ctime dev inode slice member offset flags name target".split()
ESCAPES = {"t": "\t", "n": "\n", "v": "\v", "f": "\f", "r": "\r", "\\": "\\"}


def decoded(name):
    return re.sub(r"\\(.)", lambda match: ESCAPES[match[1]], name)


def read_listing(path):
    """{name: {field: text}}; deletions and reported entries included."""
    with tarfile.open(path) as archive:
        lines = archive.extractfile("listing").read().split(b"\n")
    entries = [dict(zip(FIELDS, os.fsdecode(line).split("\t"))) for line in lines[1:-2]]
    assert lines[0] == b"#qortar-listing 1" and lines[-2:] == [b"#end %d" % len(entries), b""], lines[:2]
    return {decoded(entry["name"]): entry for entry in entries}


def write_listing(path, text):
    with tarfile.open(path, "w:gz") as archive:
        member = tarfile.TarInfo("listing")
        member.size = len(text)
        archive.addfile(member, io.BytesIO(text.encode()))


class Create(unittest.TestCase):
    def setUp(self):
        self.work = self.enterContext(install_root())
        self.root = self.work / "root"
        self.data = self.root / "data"
        self.data.mkdir(parents=True)
        self.archive = self.work / "out/F.tgz"
        self.listing = self.work / "F.listing"

    def command(self, *options, folders=("data",), archive=None, listing=None):
        return ["qortar", "--create", archive or self.archive, "--root", self.root,
                "--save-listing", listing or self.listing, *options, *folders]

    def create(self, *options, prefix=(), **more):
        argv = self.command(*options, **more)
        return run([*prefix, program(argv[0]), *argv[1:]])

    def saved(self, *options, **more):
        """The listing of a run in which nothing was reported."""
        done = self.create(*options, **more)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        return read_listing(more.get("listing") or self.listing)

    def reported(self, *options, **more):
        """{name: reason}, and the listing, of a run that goes on over what it cannot save."""
        done = self.create(*options, **more)
        self.assertEqual(done.returncode, 0, done.stderr + done.stdout)
        lines = [line.split("\t") for line in done.stderr.splitlines()]
        self.assertTrue(all(len(line) == 2 for line in lines), done.stderr)
        return {decoded(name): reason for name, reason in lines}, read_listing(self.listing)

    def fails(self, pattern, *options, status=1, **more):
        done = self.create(*options, **more)
        self.assertEqual(done.returncode, status, done.stderr)
        self.assertRegex(done.stderr, pattern)
        return done

    def slices(self):
        return sorted(self.archive.parent.iterdir(),
                      key=lambda path: int(path.suffix[5:] or 0) if path.suffix != ".tgz" else 0)

    def untar(self):
        """The tree that `cat slices | tar xz` makes."""
        target = self.work / "back"
        target.mkdir(exist_ok=True)
        stream = b"".join(path.read_bytes() for path in self.slices())
        done = subprocess.run(
            ["tar", "xz", "--warning=no-unknown-keyword", "--warning=no-timestamp", "--xattrs", "--xattrs-include=*", "--acls", "-C", target],
            input=stream, capture_output=True, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return target

    def fill(self, **files):
        for name, content in files.items():
            (self.data / name).write_bytes(content)

    # ---- The archive ----

    def test_tar_restores_everything_from_the_slices(self):
        make_tree(self.data, seed=3)
        self.fill(hole=b"", old=b"x", owned=b"y")
        os.truncate(self.data / "hole", 8 << 20)
        os.setxattr(self.data, "user.a=b%c", b"\0\xff=\n")
        long_name = os.fsencode(self.data) + b"/" + b"/".join([b"\xff\xc3(" * 40] * 3)
        os.makedirs(long_name)
        os.symlink(b"\xff" * 200, long_name + b"/link")
        os.chown(self.data / "owned", 3000000, 4000000)
        for seconds, name in ((-1500000001, "old"), (1 << 34, "hole")):
            os.utime(self.data / name, ns=(seconds, seconds))
        os.utime(self.data, ns=(-1, -1))
        expected = tree_state(self.root)
        for jobs, size in (("1", ""), ("4", "1M"), ("3", "77777")):
            with self.subTest(jobs=jobs, size=size):
                listing = self.saved("--jobs", jobs, "--slice", size)
                target = self.untar()
                self.assertEqual(tree_state(target), expected)
                self.assertEqual(set(listing), set(expected))
                shutil.rmtree(target)

    def test_slices_are_cut_exactly_and_only_the_last_is_last(self):
        self.fill(noise=os.urandom(100000))
        self.saved()
        whole = self.archive.read_bytes()
        for size, names in ((len(whole), ["F.tgz"]), (len(whole) + 1, ["F.tgz"]),
                            (len(whole) - 1, ["F.tgz.part1", "F.tgz.part2"]),
                            (40000, ["F.tgz.part1", "F.tgz.part2", "F.tgz.part3"])):
            with self.subTest(size=size):
                self.saved("--slice", str(size), "--execute", f"echo %c %f >> {self.work}/log; test -s %p/%f")
                self.assertEqual([path.name for path in self.slices()], names)  # older pieces are gone
                self.assertEqual(b"".join(path.read_bytes() for path in self.slices()), whole)
                self.assertTrue(all(path.stat().st_size == size for path in self.slices()[:-1]))
                log = (self.work / "log").read_text().split()
                self.assertEqual(log[1::2], names)
                self.assertEqual(log[::2], ["slice"] * (len(names) - 1) + ["last-slice"])
                (self.work / "log").unlink()

    def test_commands_get_names_as_single_words_and_never_more_than_two_slices_lie_there(self):
        self.fill(noise=os.urandom(1000000))
        folder = self.work / "it's $(touch canary) \"50%\" -x"
        command = f"ls -A %p | wc -l >> '{self.work}/log'; test -f %p/%f && echo 100%% %d && mv %p/%f '{self.work}'"
        self.saved("--slice", "100K", "--execute", command, archive=folder / "F;x.tgz")
        self.assertEqual(list(folder.iterdir()), [])
        self.assertLessEqual(max(map(int, (self.work / "log").read_text().split())), 2)
        self.assertEqual(len(list(self.work.glob("F;x.tgz.part*"))), 10)
        self.assertFalse((self.work / "canary").exists())

    # ---- What stops a run ----

    def test_what_cannot_be_written_fails_the_run_and_leaves_nothing_half(self):
        self.fill(noise=os.urandom(3 << 20))
        limited = ("sh", "-c", 'trap "" XFSZ; ulimit -f 1000; exec "$@"', "sh")
        cases = [
            ("part2.*status 7: no room", dict(options=("--slice", "1M", "--execute",
                                                       "case %f in *2) echo no room; exit 7;; esac"))),
            ("(?i)file too large", dict(prefix=limited)),
            ("/dev/null: File exists", dict(listing="/dev/null/x")),
            ("broken|open", dict(options=("--base", "/dev/null"))),
            ("nothing_readable", dict(folders=("missing",))),
        ]
        for pattern, more in cases:
            with self.subTest(pattern):
                shutil.rmtree(self.archive.parent, ignore_errors=True)
                options = more.pop("options", ())
                self.fails(pattern, *options, **more)
                left = self.archive.parent.iterdir() if self.archive.parent.exists() else []
                self.assertFalse(list(left))
                self.assertFalse([path for path in self.work.iterdir() if "listing" in path.name])

    def test_a_killed_run_leaves_nothing_that_breaks_the_next(self):
        self.fill(noise=os.urandom(3 << 20))
        self.archive.parent.mkdir()
        other = self.archive.parent / ".other.tgz.tmp-abcdef"
        other.touch()
        done = self.create("--slice", "1M", "--execute", "kill -9 $PPID")
        self.assertEqual(done.returncode, -9)
        self.assertTrue(list(self.archive.parent.glob(".F.tgz.tmp-*")))
        self.assertFalse(self.listing.exists())
        self.saved("--slice", "5M")
        self.assertEqual({path.name for path in self.archive.parent.iterdir()}, {"F.tgz", other.name})

    def test_two_runs_do_not_write_one_archive_at_a_time(self):
        self.fill(noise=os.urandom(3 << 20))
        again = self.work / "again"
        again.write_text("#!/bin/sh\nexec " + " ".join(f"'{word}'" for word in [program("qortar"), *self.command()[1:]]))
        again.chmod(0o755)
        self.fails("busy", "--slice", "1M", "--execute", f"test %c != slice || {again}")

    # ---- What does not stop a run ----

    def test_a_tree_that_is_swapped_under_the_walk_gives_nothing_foreign(self):
        (self.work / "secret").write_text("foreign secret")
        self.fill(**{name: b"mine" for name in "abcdef"})
        trigger, *victims = sorted((path for path in self.data.iterdir()), key=lambda path: path.stat().st_ino)
        hook = f"""test %c%f = start{trigger.name} || exit 0; cd %p; rm -f {' '.join(v.name for v in victims)}
            ln -s {self.work}/secret {victims[1].name}; mkfifo {victims[2].name}; mkdir {victims[3].name}
            ln {self.work}/secret {victims[4].name}"""
        os.chown(self.work / "secret", 4321, 4321)
        reasons, listing = self.reported("--backup-hook", "data/", "--backup-hook-execute", hook, "--user", "root")
        self.assertEqual(set(reasons), {f"data/{victim.name}" for victim in victims})
        self.assertEqual([listing[f"data/{victim.name}"]["flags"] for victim in victims], ["v", "u", "v", "v", "n"])
        self.assertEqual({path.name for path in (self.untar() / "data").iterdir()}, {trigger.name})

    def test_rare_attributes_come_back(self):
        self.fill(old=b"x", noted=b"x")
        os.chown(self.data / "old", 3000000, 4000000000)
        os.utime(self.data / "old", ns=(0, -1_250_000_000))
        os.mkfifo(self.data / "fifo")
        os.symlink("old", self.data / "link")
        given = [("noted", "user.a%25=\nb%3D"), ("fifo", "trusted.x"), ("link", "trusted.x")]
        for name, key in given:
            os.setxattr(self.data / name, key, b"value\0", follow_symlinks=False)
        self.saved()
        for number, listing in enumerate((["--listing", self.listing], [])):
            back = self.work / f"back{number}/data"
            done = run(["qortar", "--extract", self.archive, "--root", back.parent, *listing])
            self.assertEqual((done.returncode, done.stdout), (0, ""))
            self.assertEqual(tree_state(self.data), tree_state(back))
            for name, key in given:
                self.assertEqual(os.getxattr(back / name, key, follow_symlinks=False), b"value\0")

    def test_special_files_and_bad_folders_are_passed_over(self):
        self.fill(kept=b"1")
        os.mkfifo(self.data / "fifo")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.data / "sock"))
            os.symlink("/etc", self.root / ".system")
            os.symlink("/etc", self.root / "link")
            reasons, listing = self.reported(
                folders=(".system", "missing", "../root/data", "/etc", "link/ssl", "data/kept", "data//"))
        self.assertEqual(set(reasons), {".system", "missing", "../root/data", "/etc", "link/ssl"})
        self.assertEqual({name: e["flags"] for name, e in listing.items()},
                         {".system": "u", "missing": "v", "link/ssl": "u", "data": "", "data/fifo": "", "data/kept": ""})

    def test_a_file_that_changes_while_it_is_read_is_kept_and_marked(self):
        self.fill(busy=os.urandom(20 << 20), shrinks=os.urandom(20 << 20), calm=b"x")
        # While a slice waits for the command there are bytes of both that nobody has read.
        disturb = f"cd '{self.data}' && touch busy && truncate -s -100K shrinks"
        reasons, listing = self.reported("--jobs", "1", "--slice", "1M", "--execute", disturb)
        self.assertEqual(set(reasons), {"data/busy", "data/shrinks"})
        self.assertIn("c", listing["data/busy"]["flags"])
        back = self.untar()
        self.assertEqual((back / "data/calm").read_bytes(), b"x")
        self.assertEqual((back / "data/shrinks").stat().st_size, int(listing["data/shrinks"]["size"]))
        verified = run(["qortar", "--verify", self.archive, "--listing", self.listing])
        self.assertEqual(verified.returncode, 0, verified.stdout)
        os.truncate(self.data / "shrinks", 1)
        again = self.saved("--base", self.listing, listing=self.work / "I.listing", archive=self.work / "out/I.tgz")
        self.assertEqual((again["data/calm"]["flags"], again["data/busy"]["flags"]), ("b", ""))
        self.fails("incremental", "--base", self.work / "I.listing")

    def test_the_hook_surrounds_each_file(self):
        system = self.root / ".system"
        system.mkdir()
        for name in ("db.one", "db.bad", "user.it's"):
            (system / name).touch()
        hook = f"echo %c %f >> {self.work}/log; case %f in *bad) echo no server; exit 4;; esac; " \
               "test %c = start && echo dumped > %p/%f || true > %p/%f; test -z \"$BACKUP_TOKEN\""
        reasons, listing = self.reported("--backup-hook", ".system/", "--backup-hook-execute", hook,
                                         prefix=("env", "BACKUP_TOKEN=type=local"), folders=(".system", "data"))
        self.assertRegex(reasons.pop(".system/db.bad"), "status 4: no server")
        self.assertEqual((reasons, listing[".system/db.bad"]["flags"]), ({}, "u"))
        back = self.untar() / ".system"
        self.assertEqual({path.name: path.read_text() for path in back.iterdir()},
                         {"db.one": "dumped\n", "user.it's": "dumped\n"})
        log = (self.work / "log").read_text().splitlines()
        self.assertEqual(sorted(log), ["end db.one", "end user.it's", "start db.bad", "start db.one", "start user.it's"])
        self.assertEqual((system / "db.one").read_bytes(), b"")

    def test_exclusion_patterns(self):
        for name in ("a.log", "keep", "sub/b.log", "sub/deep/c", "cache/x", ".hidden"):
            (self.data / name).parent.mkdir(parents=True, exist_ok=True)
            (self.data / name).touch()
        everything = {"a.log", "keep", "sub", "sub/b.log", "sub/deep", "sub/deep/c", "cache", "cache/x", ".hidden"}
        for patterns, gone in (((), set()), (("",), set()), (("data*.log",), {"a.log", "sub/b.log"}),
                               (("/data/cache", "keep"), {"cache", "cache/x"}),
                               (("data/sub",), {"sub", "sub/b.log", "sub/deep", "sub/deep/c"}),
                               (("data/?hidden", "*/c"), {".hidden", "sub/deep/c"})):
            with self.subTest(patterns):
                words = [word for pattern in patterns for word in ("--exclude", pattern)]
                self.assertEqual(set(self.saved(*words)),
                                 {"data"} | {f"data/{name}" for name in everything - gone})

    def test_a_tree_deeper_than_any_path_needs_few_descriptors(self):
        depth = 1500
        self.addCleanup(subprocess.run, ["rm", "-rf", self.data / "d0000"], check=True)
        here = os.open(self.data, os.O_RDONLY)
        for level in range(depth):
            os.mkdir(f"d{level:04}", dir_fd=here)
            below = os.open(f"d{level:04}", os.O_RDONLY, dir_fd=here)
            os.close(os.open("file", os.O_CREAT, dir_fd=below))
            os.close(here)
            here = below
        os.close(here)
        reasons, listing = self.reported(prefix=("sh", "-c", 'ulimit -n 100; exec "$@"', "sh"))
        self.assertEqual([len(name) > 4095 for name in reasons], [True])
        self.assertEqual(len(listing), 2 * depth + 1)

    # ---- Incremental ----

    def test_unreadable_things_are_no_deletions(self):
        (self.data / "folder").mkdir()
        self.fill(**{"file": b"1", "folder/inside": b"2"})
        self.saved()
        for name in ("file", "folder"):
            (self.data / name).chmod(0)
        self.listing.rename(self.work / "base")
        helpless = ("setpriv", "--bounding-set=-dac_override,-dac_read_search", "--")
        reasons, listing = self.reported("--base", self.work / "base", prefix=helpless)
        self.assertEqual(set(reasons), {"data/file", "data/folder"})
        self.assertEqual({name: entry["flags"] for name, entry in listing.items()},
                         {"data": "b", "data/file": "u", "data/folder": "u", "data/folder/inside": "b"})

    def test_a_broken_base_listing_is_refused_with_its_line(self):
        line = "f\t644\t0\t0\t1\t1.000000000\t1.000000000\t1\t1\t1\t0\t0\t\t{}\t\n"
        good = "#qortar-listing 1\n" + line.format("a")
        for why, text in (("cut", good), ("version", "#qortar-listing 2\n#end 0\n"), ("number of entries", good + "#end 2\n"),
                          ("line 3: .*\"..\"", good + line.format("x/../y") + "#end 2\n"),
                          ("line 2: absolute", "#qortar-listing 1\n" + line.format("/a") + "#end 1\n"),
                          ("line 2: empty", "#qortar-listing 1\n" + line.format("") + "#end 1\n"),
                          ("line 2: Bad encoded", "#qortar-listing 1\n" + line.format("a\\q") + "#end 1\n"),
                          ("line 2: bad mtime", good.replace("\t1.000000000\t1", "\t1.5\t1") + "#end 1\n"),
                          ("line 2: unknown type", good.replace("f\t644", "q\t644") + "#end 1\n")):
            with self.subTest(why):
                write_listing(self.work / "base", text)
                self.fails("broken.*" + why, "--base", self.work / "base")

    def test_without_threads_everything_is_only_slower(self):
        (self.data / "noise").write_bytes(os.urandom(9 << 20))
        no_threads = ("prlimit", f"--stack={1 << 46}:")  # each would need so much
        for piece in ("0", "4M"):
            done = self.create("--slice", piece, "--jobs", "4", prefix=no_threads)
            self.assertEqual(done.returncode, 0, done.stderr)
        for words in (["--verify"], ["--extract"]):
            for listing in (["--listing", self.listing], []):
                done = run([*no_threads, program("qortar"), *words, self.archive, *listing, "--root", self.work / "back",
                            "--jobs", "4"])
                self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual(tree_state(self.work / "back"), tree_state(self.root))


if __name__ == "__main__":
    unittest.main()
