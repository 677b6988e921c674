#!/usr/bin/env python3
"""Helper of tools/demo: makes the special part of the tree, changes the tree, compares trees.

    demo_tree.py make DIR OWNER      one of everything that is hard to keep
    demo_tree.py change DIR          changes, removes, adds, renames
    demo_tree.py state DIR FILE      writes down everything about every entry
    demo_tree.py compare FILE DIR    ends with 1 and names what differs
"""

import os
import pathlib
import pickle
import pwd
import random
import stat
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests/support"))
import backup2_test  # noqa: E402

SHOWN = 20  # differences


def make(top, owner):
    backup2_test.make_tree(top, seed=2024)
    top = pathlib.Path(top)
    (top / "changed-later").write_bytes(random.Random(1).randbytes(4096))
    uid, gid = pwd.getpwnam(owner)[2:4]
    own(top / "changed-later", uid, gid)
    # Set-id bits and several names of one inode are kept for what is the user's own.
    for folder, _, files in os.walk(top):
        for name in files:
            info = os.lstat(os.path.join(folder, name))
            if info.st_nlink > 1 or (stat.S_ISREG(info.st_mode) and info.st_mode & 0o6000):
                own(os.path.join(folder, name), uid, gid)


def own(path, uid, gid):
    mode = os.lstat(path).st_mode
    os.chown(path, uid, gid, follow_symlinks=False)
    if not stat.S_ISLNK(mode):
        os.chmod(path, stat.S_IMODE(mode))  # chown dropped set-id bits


def change(top):
    """About one file of a hundred, by its place in the sorted list of names."""
    dice = random.Random(2)
    files = sorted(path for path in pathlib.Path(top, "copy1").rglob("*")
                   if path.is_file() and not path.is_symlink())
    chosen = dice.sample(files, len(files) // 100)
    third = len(chosen) // 3
    for path in chosen[:third]:
        with open(path, "ab") as out:
            out.write(b"one more line\n")
    for path in chosen[third:2 * third]:
        path.unlink()
    for path in chosen[2 * third:]:
        path.rename(path.with_name(path.name + " renamed"))
    special = pathlib.Path(top, "special")
    (special / "changed-later").write_bytes(dice.randbytes(4096))
    (special / "new file").write_text("made after the full backup\n")
    (special / "names/-rf").unlink()
    os.chmod(special / "sizes/512", 0o400)
    os.symlink("changed-later", special / "new link")
    (special / "empty/inside").rmdir()
    (special / "empty/inside").write_text("a file where a folder was\n")


def state(top, file):
    with open(file, "wb") as out:
        pickle.dump(backup2_test.tree_state(top), out)


def differences(want, have):
    for name in sorted(want.keys() | have.keys()):
        if name not in have:
            yield f"{name!r} is missing"
        elif name not in want:
            yield f"{name!r} should not be there"
        elif want[name] != have[name]:
            yield from (f"{name!r}: {field} is {got!r} and was {kept!r}"
                        for field, kept, got in zip(want[name]._fields, want[name], have[name])
                        if kept != got)


def compare(file, top):
    with open(file, "rb") as source:
        want = pickle.load(source)
    have = backup2_test.tree_state(top)
    found = list(differences(want, have))
    for line in found[:SHOWN]:
        print(line.encode("utf-8", "backslashreplace").decode(), file=sys.stderr)
    if found or not want:
        sys.exit(f"{len(found)} differences in {len(want)} entries")


if __name__ == "__main__":
    {"make": make, "change": change, "state": state, "compare": compare}[sys.argv[1]](*sys.argv[2:])
