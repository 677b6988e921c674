#!/usr/bin/env python3
"""Measures panel data on their way to another edition beside pugixml's bare load and save.

    convert.py BUILD [--rounds N] [--only NAME]... [--work DIR]

The document has 200 MiB and a million elements, half of them databases that change. "bare" keeps
everything, as ours does; "default" is pugixml as it comes, which drops the blanks between elements.
Ours makes sure of the new file on the disk, the other side does not: --work /dev/shm leaves that out.
"""
import multiprocessing
import re
import sys

import compare
from compare import Run

ELEMENTS, MIB = 1_000_000, 200


class Convert(compare.Bench):
    names = ["bare", "default"]

    def document(self):
        path = self.work / "document.xml"
        if not path.exists():
            Run(f"{self.tool('bench/bench_convert')} make {path} {ELEMENTS} {MIB}")
            # Elsewhere: what this process has once held counts as the memory of those it starts.
            checker = multiprocessing.Process(target=self.check)
            checker.start()
            checker.join()
            if checker.exitcode:
                sys.exit("convert: the results are not those that were meant")
        return path

    def command(self, side):
        out = self.work / f"out.{side}"
        out.unlink(missing_ok=True)  # or one side would take new memory for it and the other not
        return f"{self.tool('bench/bench_convert')} {side} {self.work}/document.xml {out}"

    def check(self):
        """Every database changed, everything else came out as it went in."""
        for side in ("ours", "bare"):
            Run(self.command(side))
        ours, bare = ((self.work / f"out.{side}").read_bytes() for side in ("ours", "bare"))
        if bare.count(b"<elem ") != ELEMENTS + 3 or abs(len(bare) / (MIB << 20) - 1) > 0.02:
            sys.exit("convert: not the document that was meant")
        wanted, changed = re.subn(rb'(elid="db\d+->)MySQL"(.*?)name="server">MySQL<',
                                  rb'\1mysql->bob"\2name="type">mysql<', bare, flags=re.S)
        inner = [text[text.find(b"<info"):text.rfind(b"</doc>")] for text in (wanted, ours)]
        if changed != ELEMENTS // 2 or inner[0] != inner[1]:
            sys.exit(f"convert: {changed} databases, or something else than databases changed")

    def side(self, name):
        self.document()
        memory = self.compare(f"load, convert, save against pugixml {name}", 1.2,
                              lambda: (self.command("ours"),), lambda: (self.command(name),),
                              f"pugixml, {name}")
        theirs = Run(self.command(name)).mib
        self.row(f"its peak memory against {name}", f"{memory:.0f} MiB", f"{theirs:.0f} MiB",
                 f"{memory / theirs:.2f}", 1.2, memory / theirs <= 1.2)

    def bare(self):
        self.side("bare")

    def default(self):
        self.side("default")


if __name__ == "__main__":
    sys.exit(compare.main(Convert))
