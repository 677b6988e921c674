#!/usr/bin/env python3
"""Measures the converters of other panels' archives beside what only unpacks them.

    foreign.py BUILD [--rounds N] [--files N] [--mib N] [--only NAME]... [--work DIR]

"home" is an account whose home directory holds 2 GiB in few files, "nested" the same as a homedir.tar, "site" 60,000
files, "many" a million empty files. Ours checks names, links and sums besides, and reports; theirs is igzip and tar.
"""
import pathlib
import shutil
import subprocess
import sys

import compare
from compare import Run

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/fixtures"))
import make_foreign as foreign  # noqa: E402  (the path above leads to it)

ENTRIES = 1_000_000


class Foreign(compare.Bench):
    names = ["home", "nested", "site", "many"]

    def account(self, kind, size):
        """A folder cpmove-bob as cPanel packs it, its home directory made by mkdata."""
        top = self.fresh(kind) / "cpmove-bob"
        for info, data in foreign.account():
            path = top / info.name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(data)
        subprocess.run([self.tool("bench/mkdata"), kind, top / "homedir", "1", str(size)], check=True, stdout=subprocess.DEVNULL)
        return top

    def pack(self, kind, size, nested=False):
        top, archive = self.account(kind, size), self.work / f"{kind}{nested}.tar.gz"
        if nested:
            Run("tar cf homedir.tar -C homedir . && rm -r homedir", cwd=top)
        Run(f"tar c -C {top.parent} cpmove-bob | igzip -1 -c > {archive}")
        shutil.rmtree(top)
        return archive

    def against_tar(self, what, archive, goal, files):
        out = self.work / "out"

        def ours():
            shutil.rmtree(out, ignore_errors=True)
            return (f"{self.tool('sbin/backup2_cpanel_conv')} {archive} {out} --max-ratio 1000000 > {self.work}/report || [ $? = 3 ]",)

        def theirs():
            self.fresh("theirs")
            inner = "; [ ! -e cpmove-bob/homedir.tar ] || tar xf cpmove-bob/homedir.tar"
            return (f"cd {self.work}/theirs && igzip -dc {archive} | tar x{inner}",)
        Run(*ours())
        found = int(subprocess.run(f"find {out}/data -type f | wc -l", shell=True, check=True, capture_output=True).stdout)
        if files and found != files:
            sys.exit(f"foreign: {found} files came out, not {files}")
        memory = self.compare(what, goal, ours, theirs, "igzip -d, tar x")
        self.row(f"peak memory, {what}", f"{memory:.0f} MiB", "", "", 64, memory <= 64)

    def home(self):
        self.against_tar("account of 2 GiB", self.pack("big", self.args.mib), 1.1, 0)

    def nested(self):
        self.against_tar("account of 2 GiB, homedir.tar", self.pack("big", self.args.mib, nested=True), 1.1, 0)

    def site(self):
        self.against_tar("account of 60,000 files", self.pack("site", self.args.files), 1.1, 0)

    def many(self):
        archive = self.work / "many.tar.gz"
        foreign.many_entries(archive, ENTRIES)
        self.against_tar("account of 1,000,000 empty files", archive, 1.2, ENTRIES)


if __name__ == "__main__":
    sys.exit(compare.main(Foreign))
