"""The archiver's reading half: what comes back, what is refused, what is said when it is damaged.

The archives are made here, with GNU tar and tarfile, so that a fault of the creating half cannot
hide one of the reading half.
"""

import contextlib
import ctypes
import gzip
import io
import json
import os
import pathlib
import shutil
import signal
import subprocess
import tarfile
import tempfile
import time
import unittest

from backup2_test import install_root, make_tree, run, tree_state

KINDS = {tarfile.DIRTYPE: "d", tarfile.SYMTYPE: "l", tarfile.LNKTYPE: "h", tarfile.FIFOTYPE: "p"}
NOBODY = 65534


def plain(name):
    return name.removeprefix("./") or "."


def encode(name):
    for raw, short in (("\\", "\\\\"), ("\t", "\\t"), ("\n", "\\n"), ("\f", "\\f"), ("\v", "\\v"), ("\r", "\\r")):
        name = name.replace(raw, short)
    return name


def entry(name, data=b"", kind=tarfile.REGTYPE, mode=0o644, target="", **more):
    info = tarfile.TarInfo(name)
    info.type, info.mode, info.linkname, info.size = kind, mode, target, len(data)
    for key, value in more.items():
        setattr(info, key, value)
    return info, data


def tar_of(entries):
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode="w", format=tarfile.PAX_FORMAT, errors="surrogateescape") as tar:
        for info, data in entries:
            tar.addfile(info, io.BytesIO(data))
    return out.getvalue()


def tar_of_tree(tree):
    return subprocess.run(["tar", "--format=posix", "--sparse", "--xattrs", "--acls", "--numeric-owner",
                           "-C", tree, "-c", "."], check=True, capture_output=True).stdout


class Packed:
    """An archive and its listing: members of `member` plain bytes, slices of `cut` bytes."""

    def __init__(self, folder, tar, name="F.tgz", member=1 << 20, cut=0, base=None):
        self.archive, self.listing = folder / name, folder / (name + ".listing")
        packed = [gzip.compress(tar[i:i + member], 1) for i in range(0, len(tar), member)]
        begins = [sum(map(len, packed[:i])) for i in range(len(packed))]
        stream = b"".join(packed)
        pieces = [stream[i:i + cut] for i in range(0, len(stream), cut)] if cut else [stream]
        self.slices = [self.archive] if len(pieces) == 1 else [
            folder / f"{name}.part{k + 1}" for k in range(len(pieces))]
        for path, piece in zip(self.slices, pieces):
            path.write_bytes(piece)
        self.places, self.lines = {}, []
        with tarfile.open(fileobj=io.BytesIO(tar), errors="surrogateescape") as source:
            for info in source:
                begin = begins[info.offset // member]
                where = (begin // cut + 1, begin % cut) if cut else (1, begin)
                self.add(info, *where, info.offset % member)
        self.write()

    def add(self, info, number, at, offset, flags=""):
        name, kind = plain(info.name), KINDS.get(info.type, "f")
        target = plain(info.linkname) if kind == "h" else info.linkname
        seconds, _, part = str(info.pax_headers.get("mtime", info.mtime)).partition(".")
        if any(key.startswith("SCHILY.") for key in info.pax_headers):
            flags += "x"
        self.places[name] = (info, number, at, offset)
        self.lines.append([kind, f"{info.mode & 0o7777:o}", info.uid, info.gid,
                           info.size if kind == "f" else 0, f"{seconds}.{part:0<9}", "0.000000000", 1, 1,
                           number, at, offset, flags, encode(name), encode(target)])

    def write(self):
        text = "#qortar-listing 1\n" + "".join(
            "\t".join(map(str, line)) + "\n" for line in self.lines) + f"#end {len(self.lines)}\n"
        data = os.fsencode(text)
        with tarfile.open(self.listing, "w:gz") as out:
            out.addfile(*[(info, io.BytesIO(body)) for info, body in [entry("listing", data)]][0])


class Case(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        stack.enter_context(install_root())
        self.work = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory())).resolve()
        os.chmod(self.work, 0o755)
        self.root = self.work / "root"
        self.root.mkdir()
        self.store = self.work / "store"
        self.store.mkdir()

    def qortar(self, action, packed, *more, listing=True, root=True, **env):
        argv = ["qortar", action, packed.archive]
        argv += ["--root", self.root] if root else []
        argv += ["--listing", packed.listing] if listing else []
        return run(argv + list(more), **env)

    def assertSame(self, wanted, root=None):
        found = tree_state(root or self.root)
        self.assertEqual(sorted(wanted), sorted(found))
        for name, state in wanted.items():
            self.assertEqual(state, found[name], name)


class RoundTrip(Case):
    def setUp(self):
        super().setUp()
        self.tree = self.work / "tree"
        make_tree(self.tree, 3)
        os.setxattr(self.tree / "small", "user.folder", b"of a folder")
        subprocess.run(["setfacl", "-m", "u:12345:rx,d:u:12345:rwx", self.tree / "empty"], check=True)
        self.state = tree_state(self.tree)

    def test_everything_comes_back_as_it_was(self):
        tar = tar_of_tree(self.tree)
        for number, (member, cut) in enumerate(((1 << 20, 0), (1 << 20, 700001), (65536, 100003))):
            packed = Packed(self.store, tar, f"F{number}.tgz", member, cut)
            for listing in (True, False):
                for jobs in ("1", "3"):
                    with self.subTest(member=member, cut=cut, listing=listing, jobs=jobs):
                        shutil.rmtree(self.root)
                        done = self.qortar("--extract", packed, "--jobs", jobs, listing=listing)
                        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
                        self.assertSame(self.state)

    def test_a_folder_with_default_acl_does_not_change_what_is_restored_into_it(self):
        packed = Packed(self.store, tar_of_tree(self.tree))
        subprocess.run(["setfacl", "-m", "d:u:4242:rwx", self.root], check=True)
        self.assertEqual(self.qortar("--extract", packed).returncode, 0)
        self.assertSame(self.state)

    def test_an_acl_of_unknown_people_is_told(self):
        acl = {"SCHILY.acl.access": "user::rw-,user:nobody-such:r--,group:root:r--,group::r--,mask::r--,other::---"}
        done = self.qortar("--extract", Packed(self.store, tar_of([entry("file", b"x", pax_headers=acl)])), listing=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("nobody-such", done.stdout)
        self.assertEqual(len(os.getxattr(self.root / "file", "system.posix_acl_access")), 4 + 5 * 8)

    def test_a_hard_link_alone_brings_its_content(self):
        packed = Packed(self.store, tar_of_tree(self.tree))
        links = [line[13] for line in packed.lines if line[0] == "h"]
        self.assertEqual(len(links), 2)
        done = self.qortar("--extract", packed, *links)
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
        found = tree_state(self.root)
        for name in links:
            self.assertEqual(found[name].sha256, self.state[name].sha256)
            self.assertEqual(found[name].same, min(links))

    def test_missing_slices_are_fetched_and_removed_again(self):
        packed = Packed(self.store, tar_of_tree(self.tree), member=65536, cut=1000003)
        far = self.work / "far 'away'"
        far.mkdir()
        for path in packed.slices:
            path.rename(far / path.name)
        log = self.work / "log"
        fetch = f'cp "{far}"/%f %p/%f && ls %p | grep -c part >> {log} && echo %c >> {log}.c'
        for listing in (True, False):
            shutil.rmtree(self.root)
            done = self.qortar("--extract", packed, "--fetch", fetch, listing=listing)
            self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
            self.assertSame(self.state)
            self.assertEqual([p.name for p in self.store.iterdir()], [packed.listing.name])
        self.assertLessEqual(max(map(int, log.read_text().split())), 3)
        self.assertEqual(set((self.work / "log.c").read_text().split()), {"fetch"})

    def test_list_and_verify_agree_with_the_tree(self):
        packed = Packed(self.store, tar_of_tree(self.tree), member=65536, cut=1000003)
        for listing in (True, False):
            done = self.qortar("--list", packed, "--json", listing=listing, root=False)
            rows = [json.loads(line) for line in done.stdout.splitlines()]
            names = {bytes.fromhex(row["name_hex"]) if "name_hex" in row else row["name"].encode()
                     for row in rows} - {b"."}
            self.assertEqual(names, {os.fsencode(name) for name in self.state})
            human = self.qortar("--list", packed, "sizes", listing=listing, root=False).stdout
            self.assertRegex(human, r"(?m)^-rw-r--r-- +\d+/\d+ +3400000 \d{4}-.* sizes/text$")
            done = self.qortar("--verify", packed, listing=listing, root=False)
            self.assertEqual(done.returncode, 0, done.stdout)
            self.assertIn(f"{len(packed.lines)} entries", done.stdout)


class Damage(Case):
    def setUp(self):
        super().setUp()
        noise = [entry(f"f{i}", os.urandom(40000), mtime=1000) for i in range(40)]
        self.packed = Packed(self.store, tar_of(noise), member=65536, cut=300000)
        self.assertGreater(len(self.packed.slices), 4)

    def spoil(self, how):
        victim = self.packed.slices[2]
        data = bytearray(victim.read_bytes())
        if how == "missing":
            return victim.unlink()
        if how == "cut":
            del data[150000:]
        if how == "flipped":
            data[150000] ^= 1
        if how == "fifo":
            victim.unlink()
            return os.mkfifo(victim)
        victim.write_bytes(data)

    def test_damage_is_named_and_the_rest_comes_back(self):
        part = str(self.packed.slices[2])
        for how, why in (("flipped", "gzip member at"), ("cut", "gzip member at"),
                         ("missing", "No such file"), ("fifo", "not a regular file")):
            with self.subTest(how):
                before = self.packed.slices[2].read_bytes()
                self.spoil(how)
                for listing in (True, False):
                    shutil.rmtree(self.root, ignore_errors=True)
                    done = self.qortar("--extract", self.packed, listing=listing)
                    self.assertEqual(done.returncode, 1)
                    self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
                    self.assertRegex(done.stderr, f"part[23].*({why}|is missing)")
                    failed = {line.split("\t")[0] for line in done.stdout.splitlines()}
                    found = tree_state(self.root)
                    self.assertGreater(len(found), 25 if listing else 10)
                    self.assertTrue(all(state.size == 40000 for state in found.values()))
                    if listing:
                        self.assertEqual(failed | set(found), {f"f{i}" for i in range(40)})
                    done = self.qortar("--verify", self.packed, listing=listing, root=False)
                    self.assertEqual(done.returncode, 1)
                    self.assertIn(part if how in ("missing", "fifo") else ".part", done.stdout)
                self.packed.slices[2].unlink(missing_ok=True)
                self.packed.slices[2].write_bytes(before)

    def test_a_missing_last_slice_or_end_mark_is_noticed(self):
        self.packed.slices[-1].unlink()
        for action in ("--extract", "--verify"):
            for listing in (True, False):
                done = self.qortar(action, self.packed, listing=listing, root=action == "--extract")
                self.assertEqual(done.returncode, 1, (action, listing))
        short = Packed(self.store, tar_of([entry("a", b"x" * 300)])[:1024], "S.tgz")
        for listing in (True, False):
            self.assertEqual(self.qortar("--verify", short, listing=listing, root=False).returncode, 1)

    def test_a_listing_that_lies_is_found_out(self):
        for column, value in ((4, 39999), (13, "other"), (11, 512), (10, 77), (9, 9)):
            with self.subTest(column=column):
                line = self.packed.lines[20]
                before, line[column] = line[column], value
                self.packed.write()
                done = self.qortar("--extract", self.packed)
                self.assertEqual(done.returncode, 1)
                self.assertEqual([text.split("\t")[0] for text in done.stdout.splitlines()], [line[13]])
                done = self.qortar("--verify", self.packed, root=False)
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stdout, r"part\d")
                line[column] = before

    def test_a_failing_fetch_is_named_once_a_slice(self):
        self.spoil("missing")
        count = self.work / "count"
        done = self.qortar("--extract", self.packed, "--fetch", f"echo x >> {count}; echo gone >&2; exit 3")
        self.assertEqual(done.returncode, 1)
        self.assertRegex(done.stdout, "part3.*status 3: gone")
        self.assertEqual(count.read_text().count("x"), 1)

    def test_a_full_disk_ends_the_run_and_leaves_no_half_file(self):
        small = self.work / "small"
        small.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=500k", "none", small], check=True)
        self.addCleanup(subprocess.run, ["umount", small], check=True)
        self.root = small
        for listing in (True, False):
            done = self.qortar("--extract", self.packed, listing=listing)
            self.assertEqual(done.returncode, 1)
            self.assertIn("No space left", done.stderr)
            self.assertEqual({state.size for state in tree_state(small).values()}, {40000})


def hard(name, target):
    return entry(name, kind=tarfile.LNKTYPE, target=target)


def link(name, target):
    return entry(name, kind=tarfile.SYMTYPE, target=target)


def folder(name, **more):
    return entry(name, kind=tarfile.DIRTYPE, mode=0o755, **more)


# name of the case: entries, what must stand in the root afterwards ({name: type}), exit status
# without a listing. OUT stands for a way to the canary folder.
HOSTILE = {
    "dots": ([entry("../canary/new", b"x"), entry("a/../../canary/file", b"x"), entry("good", b"x")], {"good": "file"}, 1),
    "slashes and dots": ([entry("//../canary/file", b"x"), entry("good", b"x")], {"good": "file"}, 1),
    "absolute": ([entry("OUT/file", b"x"), entry("good", b"x")], {"good": "file"}, 1),
    "file through a link": ([link("d", "OUT"), entry("d/file", b"x")], {"d": "dir", "d/file": "file"}, 1),
    "two hops": ([link("a", "b"), link("b", "../canary"), entry("a/file", b"x")],
                 {"a": "dir", "a/file": "file", "b": "link"}, 1),
    "folder swapped for a link": ([folder("d"), entry("d/one", b"x"), link("d", "OUT"), entry("d/file", b"x")],
                                  {"d": "dir", "d/one": "file", "d/file": "file"}, 1),
    "link then folder": ([link("d", "OUT"), folder("d"), entry("d/file", b"x")], {"d": "dir", "d/file": "file"}, 0),
    "hard link out": ([hard("h", "../canary/file"), hard("i", "OUT/file"), entry("good", b"x")], {"good": "file"}, 1),
    "hard link through a link": ([link("d", "OUT"), hard("h", "d/file")], {"d": "link"}, 1),
    "file over a hard link to a link": ([link("l", "OUT/file"), hard("h", "l"), entry("h", b"x"), entry("l", b"x")],
                                        {"l": "file", "h": "file"}, 0),
    "huge sparse file": ([entry("big", kind=tarfile.REGTYPE, pax_headers={
        "GNU.sparse.major": "1", "GNU.sparse.minor": "0", "GNU.sparse.realsize": str(1 << 62), "GNU.sparse.name": "big"},
        data=b"0\n".ljust(512, b"\0")), entry("good", b"x")], {"good": "file"}, 1),
    "long path": ([entry("/".join(["p" * 200] * 21), b"x"), entry("good", b"x")], {"good": "file"}, 1),
    "long name": ([entry("n" * 256, b"x"), entry("good", b"x")], {"good": "file"}, 1),
    "NUL": ([entry("nul", b"x", pax_headers={"path": "nul\0/../../canary/file"}), entry("good", b"x")],
            {"good": "file", "nul": "file"}, 0),
    "line feed": ([entry("line\nfeed", b"x")], {"line\nfeed": "file"}, 0),
    "twice": ([entry("a", b"first"), entry("a", b"second!")], {"a": "file"}, 0),
    "device": ([entry("dev", kind=tarfile.CHRTYPE, devmajor=1, devminor=3), entry("pipe", kind=tarfile.FIFOTYPE)],
               {"pipe": "fifo"}, 1),
    "nothing but dots": ([entry("..", b"x"), entry("a/..", b"x"), folder("../canary", uid=7), entry("good", b"x")],
                         {"good": "file"}, 1),
}


class Hostile(Case):
    def setUp(self):
        super().setUp()
        self.canary = self.work / "canary"
        self.canary.mkdir()
        (self.canary / "file").write_text("untouched")
        self.before = self.outside()

    def outside(self):
        return {name: (state, os.lstat(self.canary / name).st_ino)
                for name, state in tree_state(self.canary).items()}, os.lstat(self.canary)[:8]

    def test_nothing_outside_changes(self):
        for number, (case, (entries, wanted, status)) in enumerate(HOSTILE.items()):
            for info, _ in entries:
                info.name = info.name.replace("OUT", str(self.canary))
                info.linkname = info.linkname.replace("OUT", str(self.canary))
            packed = Packed(self.store, tar_of(entries), f"F{number}.tgz")
            for listing in (False, True):
                with self.subTest(case, listing=listing):
                    shutil.rmtree(self.root)
                    self.root.mkdir()
                    os.chown(self.root, NOBODY, NOBODY)
                    done = self.qortar("--extract", packed, "--user", "nobody", listing=listing)
                    self.assertEqual(self.outside(), self.before)
                    self.assertIn(done.returncode, (status,) if not listing else (0, 1), done.stdout + done.stderr)
                    self.assertNotIn("terminate", done.stderr)
                    if not listing:
                        self.assertEqual({name: state.type for name, state in tree_state(self.root).items()}, wanted)
                        self.assertEqual(bool(done.stdout), bool(status), "failures are named")

    def test_a_planted_link_is_not_followed(self):
        packed = Packed(self.store, tar_of([folder("d"), entry("d/file", b"new"), entry("e/file", b"new")]))
        for listing in (True, False):
            shutil.rmtree(self.root)
            self.root.mkdir()
            for name in "de":
                (self.root / name).symlink_to(self.canary)
            done = self.qortar("--extract", packed, listing=listing)
            self.assertEqual(self.outside(), self.before)
            self.assertEqual((self.root / "d/file").read_bytes(), b"new")  # a folder of the archive
            self.assertEqual((done.returncode, done.stdout),
                             (1, "e/file\ta link stands in the place of a folder\n"))

    def test_an_existing_file_with_another_name_elsewhere_keeps_its_content(self):
        os.link(self.canary / "file", self.root / "f")
        self.before = self.outside()
        packed = Packed(self.store, tar_of([entry("f", b"new", uid=NOBODY, gid=NOBODY, mode=0o666)]))
        self.assertEqual(self.qortar("--extract", packed).returncode, 0)
        self.assertEqual((self.canary / "file").read_text(), "untouched")
        self.assertEqual(os.stat(self.canary / "file").st_uid, 0)

    def test_a_users_restore_gives_no_privileges(self):
        mine = dict(uid=NOBODY, gid=NOBODY)
        entries = [folder("d", **mine), entry("d/own", b"x", mode=0o6755, **mine),
                   entry("d/foreign", b"x", mode=0o6755, uid=0, gid=0), entry("d/group", b"x", mode=0o2755, uid=NOBODY, gid=0),
                   entry("d/notes", b"x", **mine, pax_headers={"SCHILY.xattr.trusted.t": "1", "SCHILY.xattr.user.u": "1"})]
        (self.root / "kept").mkdir()
        entries += [folder("kept", **mine), entry("kept/new", b"x", **mine)]
        for listing in (True, False):
            done = self.qortar("--extract", Packed(self.store, tar_of(entries)), "--user", "nobody", listing=listing)
            self.assertEqual((done.returncode, done.stdout), (1, "kept/new\tcreate: Permission denied\n"))
            found = tree_state(self.root)
            modes = {name: (oct(found[f"d/{name}"].mode), found[f"d/{name}"].uid) for name in ("own", "foreign", "group")}
            self.assertEqual(modes, {"own": ("0o6755", NOBODY), "foreign": ("0o755", 0), "group": ("0o755", NOBODY)})
            self.assertEqual(found["d/notes"].xattrs, {"user.u": b"1"})
            self.assertEqual((found["d"].uid, found["kept"].uid), (NOBODY, 0))
            shutil.rmtree(self.root / "d")

    def test_folders_swapped_for_links_during_the_restore(self):
        names = [f"a/b{i % 3}/f{i}" for i in range(150)]
        packed = Packed(self.store, tar_of(
            [folder("a"), *(folder(f"a/b{i}") for i in range(3)), *(entry(name, b"x" * 3000, uid=NOBODY) for name in names)]))
        for i in range(3):
            (self.root / f"a/b{i}").mkdir(parents=True)
            (self.root / f"a/link{i}").symlink_to(self.canary)
        racer = os.fork()
        if racer == 0:
            exchange = ctypes.CDLL(None).renameat2
            pairs = [(os.fsencode(self.root / f"a/b{i}"), os.fsencode(self.root / f"a/link{i}")) for i in range(3)]
            while True:
                for one, other in pairs:
                    exchange(-100, one, -100, other, 2)
        try:
            end, rounds, refused = time.monotonic() + 3, 0, 0
            while time.monotonic() < end:
                done = self.qortar("--extract", packed, listing=bool(rounds % 2))
                rounds, refused = rounds + 1, refused + done.returncode
        finally:
            os.kill(racer, signal.SIGKILL)
            os.waitpid(racer, 0)
        self.assertEqual(self.outside(), self.before)
        self.assertGreater(refused, 0, "the racer never met the restore")


class Policies(Case):
    def setUp(self):
        super().setUp()
        self.packed = Packed(self.store, tar_of([
            folder("d", mtime=5), *(entry(f"d/{name}", b"archive", mtime=1000) for name in ("absent", "newer", "older", "same", "size"))]))
        self.fill()

    def fill(self):
        shutil.rmtree(self.root)
        (self.root / "d").mkdir(parents=True)
        for name, text, when in (("newer", "present", 2000), ("older", "present", 500), ("same", "present", 1000), ("size", "other", 1000)):
            (self.root / "d" / name).write_text(text)
            os.utime(self.root / "d" / name, (when, when))

    def test_overwrite(self):
        everything = {"absent", "newer", "older", "same", "size"}
        for mode, replaced in (("always", everything), ("changed", everything - {"same"}), ("newer", {"absent", "older"}), ("never", {"absent"})):
            for listing in (True, False):
                with self.subTest(mode, listing=listing):
                    self.fill()
                    done = self.qortar("--extract", self.packed, "--overwrite", mode, "--dry-run", listing=listing)
                    self.assertEqual(set(done.stdout.splitlines()), {
                        ("create\td/" if name == "absent" else "replace\td/") + name for name in replaced})
                    self.assertFalse((self.root / "d/absent").exists(), "a dry run changes nothing")
                    done = self.qortar("--extract", self.packed, "--overwrite", mode, listing=listing)
                    self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
                    self.assertEqual({path.name for path in (self.root / "d").iterdir() if path.read_text() == "archive"}, replaced)

    def test_an_increment_takes_from_the_base_and_applies_deletions(self):
        base = Packed(self.store, tar_of([folder("d"), folder("d/gone"), entry("d/gone/x", b"1"), entry("d/stays", b"22"), entry("d/changes", b"1")]), "base.tgz")
        packed = Packed(self.store, tar_of([folder("d"), entry("d/changes", b"333")]), "I.tgz")
        packed.add(*base.places["d/stays"], flags="b")
        for name in ("d/gone/x", "d/gone"):
            packed.add(*base.places[name], flags="D")
            packed.lines[-1][9:12] = 0, 0, 0
        packed.write()
        shutil.rmtree(self.root)
        self.assertEqual(self.qortar("--extract", base).returncode, 0)
        (self.root / "d/stays").unlink()
        done = self.qortar("--extract", packed)
        self.assertEqual(done.returncode, 1)
        self.assertIn("base archive", done.stderr)
        done = self.qortar("--extract", packed, "--base-archive", base.archive, "--dry-run")
        self.assertEqual(set(done.stdout.splitlines()), {"remove\td/gone", "remove\td/gone/x", "create\td/stays", "replace\td/changes"})
        done = self.qortar("--extract", packed, "--base-archive", base.archive)
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
        self.assertEqual({name: state.size for name, state in tree_state(self.root).items()},
                         {"d": 0, "d/stays": 2, "d/changes": 3})
        self.assertEqual(self.qortar("--verify", packed, root=False).returncode, 0)

    def test_a_killed_restore_is_healed_by_the_next(self):
        packed = Packed(self.store, tar_of([entry("a", os.urandom(3 << 20))]), "K.tgz", cut=1 << 20)
        (self.root / "a").write_bytes(b"old")
        before = sorted(os.listdir(self.root))
        away = packed.slices[1].rename(self.store / "away")
        self.assertEqual(self.qortar("--extract", packed, "--fetch", "kill -9 $PPID").returncode, -9)
        self.assertEqual((len(os.listdir(self.root)), (self.root / "a").read_bytes()), (len(before) + 1, b"old"))
        away.rename(packed.slices[1])
        self.assertEqual(self.qortar("--extract", packed).returncode, 0)
        self.assertEqual((sorted(os.listdir(self.root)), (self.root / "a").stat().st_size), (before, 3 << 20))

    def test_what_was_asked_for_and_is_not_there_is_named(self):
        for listing in (True, False):
            done = self.qortar("--extract", self.packed, "d/older", "no\nsuch", listing=listing)
            self.assertEqual((done.returncode, done.stdout), (1, "no\\nsuch\tis not in the archive\n"))
            self.assertEqual((self.root / "d/older").read_text(), "archive")
            self.assertEqual((self.root / "d/newer").read_text(), "present")


if __name__ == "__main__":
    unittest.main()
