#!/usr/bin/env python3
"""Measures what the life of many backups costs: finding and reading info files, limits, journals.

    life.py BUILD [--rounds N] [--infos N] [--only NAME]... [--work DIR]

The trees hold as many info files as said, of 100 days each: "nested" is the administrator's
(user/date/, with an index beside each), "flat" is one folder. The work folder should lie on a
real disk: a journal is on it when its writer goes on.
"""
import datetime
import os
import statistics
import subprocess
import sys

import compare
from compare import Run

DAYS = 100
FIRST_DAY = datetime.date(2024, 1, 7)  # a Sunday
WRITERS, ITEMS = 16, 300
JOURNAL_LINES = 100000


def info_text(user, day):
    """As a finished backup of two slices leaves it: full on Sundays, else an increment."""
    sunday = day - datetime.timedelta(days=day.isoweekday() % 7)
    mark, kind = ("F", "full") if day == sunday else ("I", "incremental")
    base = "" if day == sunday else f"base=F{sunday}.{user}.tgz\n"
    stored = f"{user}/{day}/{mark}{day}.{user}.tgz.aes"
    slices = "".join(f"slice.{n}=104857600 104857632 {'5f' * 32} {'a0' * 32}\n" for n in (1, 2))
    return (f"{base}created={day} 02:00:00\nfinished={day} 02:00:09\n"
            f"index={user}/{day}/{day}.{user}.tgz.aes\nkey_hash={'c3' * 32}\n"
            f"last-slice={stored}.part2\nparts=2\nsize=209715200\n{slices}"
            f"type={kind}\nuid=1001\nuser={user}\n")


class Life(compare.Bench):
    names = ["find_nested", "find_flat", "read", "limits", "long_journal", "shared_journal"]

    def life(self, *arguments):
        return " ".join([self.tool("bench/bench_life"), *map(str, arguments)])

    def output(self, command, env=None):
        return subprocess.run(["/bin/bash", "-c", command], check=True, text=True,
                              env={**os.environ, **(env or {})}, stdout=subprocess.PIPE).stdout

    def seconds(self, command, env=None):
        """Median, and the highest peak memory in MiB; the first run only warms."""
        runs = [Run(command, env) for _ in range(self.args.rounds + 1)]
        return statistics.median(r.seconds for r in runs[1:]), max(r.mib for r in runs)

    # ---- Data -----------------------------------------------------------------------------------

    def nested(self):
        """An install root, and the administrator's tree in it."""
        root = self.work / "root"
        tree = root / "var/backup/qorvel"
        if not tree.exists():
            (root / "var/run").mkdir(parents=True)
            for name in ("sbin", "lib"):
                (root / name).symlink_to(self.build / name)
            for user, day in self.backups():
                folder = tree / user / str(day)
                folder.mkdir(parents=True)
                (folder / f"{day}.{user}.info").write_text(info_text(user, day))
                (folder / f"{day}.{user}.tgz").touch()
        return root, tree

    def backups(self):
        for i in range(self.args.infos):
            yield f"user{i // DAYS}", FIRST_DAY + datetime.timedelta(days=i % DAYS)

    # ---- Measurements ---------------------------------------------------------------------------

    def find(self, what, tree):
        ours, theirs = self.life("find", tree), f"find {tree} -name '*.info' | wc -l"
        if not self.output(ours) == self.output(theirs) == f"{self.args.infos}\n":
            sys.exit(f"{what}: not the same files")
        self.compare(what, 1.5, lambda: (ours,), lambda: (theirs,), "find, wc")

    def find_nested(self):
        self.find("GetInfoFiles, nested", self.nested()[1])

    def find_flat(self):
        tree = self.fresh("flat")
        for user, day in self.backups():
            (tree / f"{day}.{user}.info").touch()
        self.find("GetInfoFiles, flat", tree)

    def read(self):
        tree = self.nested()[1]
        found, _ = self.seconds(self.life("find", tree))
        done, _ = self.seconds(self.life("read", tree))
        each = (done - found) / self.args.infos * 1e6
        self.row("GetInfo, each", f"{each:.1f} us", "", "", "8 us", each <= 8)

    def limits(self):
        """With nothing to take, and with the older half of every series too much."""
        root, tree = self.nested()
        store = self.fresh("store")
        env = {"VEL_ROOT": str(root), "BACKUP_TOKEN": f"type=local;path={store}"}
        day = FIRST_DAY + datetime.timedelta(days=DAYS - 1)
        for count, taken in ((1000, 0), (DAYS // 2, self.args.infos // 2)):
            command = (f"{root}/sbin/backup2_cp --server --path {tree} --date {day} "
                       f"--count-limit {count} --dry-run")
            if self.output(command, env).count("would ") != taken:
                sys.exit(f"limits: not {taken} backups would go")
            took, mib = self.seconds(command, env)
            self.row(f"limits, {taken} would go", f"{took:.2f} s", "", "", "2 s", took <= 2)
            self.row(f"its peak memory, {taken} would go", f"{mib:.0f} MiB", "", "", "100 MiB",
                     mib <= 100)

    def journal(self, lines):
        """A journal of as many lines of others: its folder and its text."""
        folder = self.fresh("journal")
        text = "".join(f"type=local;path=/srv/{i % 100}\t2024-01-31.other{i}\n" for i in range(lines))
        (folder / ".cleanup").write_text(text)
        return folder, text

    def check_journal(self, folder, text):
        if (folder / ".cleanup").read_text() != text or len(list(folder.iterdir())) != 1:
            sys.exit("journal: not what it was before")

    def long_journal(self):
        folder, text = self.journal(JOURNAL_LINES)
        each = self.output(self.life("remove", folder, 4 * self.args.rounds)).split()
        self.check_journal(folder, text)
        median = statistics.median(map(float, each))
        self.row(f"RemoveItem, journal of {JOURNAL_LINES} lines", f"{median:.0f} ms", "", "",
                 "100 ms", median <= 100)

    def shared_journal(self):
        times = []
        for _ in range(self.args.rounds):
            folder, text = self.journal(1)
            writers = " ".join(f"{self.life('pairs', folder, ITEMS, f'w{i}')} & all+=($!);"
                               for i in range(WRITERS))
            times.append(Run(f"{writers} for one in ${{all[@]}}; do wait $one || exit; done").seconds)
            self.check_journal(folder, text)
        took = statistics.median(times)
        self.row(f"{WRITERS} processes x {ITEMS} adds and removes, one journal", f"{took:.1f} s", "",
                 "", "10 s", took <= 10)


if __name__ == "__main__":
    sys.exit(compare.main(Life))
