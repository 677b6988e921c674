#!/usr/bin/env python3
"""Measures our programs beside what a user would pick instead, in alternating runs.

    compare.py BUILD [--rounds N] [--files N] [--mib N] [--only NAME]... [--work DIR]

Every row is one comparison: medians of the wall time of both sides, their ratio (ours / theirs)
and the goal. Page cache warm, results checked once before anything is timed.
"""
import argparse
import base64
import contextlib
import filecmp
import os
import pathlib
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time


class Run:
    """Wall seconds and peak memory (MiB, of the largest process) of one command."""

    def __init__(self, command, env=None, cwd=None):
        start = time.monotonic()
        child = subprocess.Popen(["/bin/bash", "-c", "set -o pipefail; " + command],
                                 env={**os.environ, **(env or {})}, cwd=cwd,
                                 stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                 stderr=subprocess.STDOUT)
        output = child.stdout.read()
        _, status, usage = os.wait4(child.pid, 0)
        child.returncode = os.waitstatus_to_exitcode(status)
        self.seconds = time.monotonic() - start
        self.mib = usage.ru_maxrss / 1024
        if child.returncode != 0:
            sys.exit(f"failed ({child.returncode}): {command}\n{output.decode(errors='replace')}")


class Bench:
    """The rows, and what all measurements need."""
    names = []

    def __init__(self, args):
        self.args = args
        self.build = pathlib.Path(args.build).resolve()
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="bench.", dir=args.work))
        self.rows = []

    def close(self):
        """Stops what still works in the scratch folder."""

    def tool(self, name):
        return str(self.build / name)

    def fresh(self, name):
        path = self.work / name
        shutil.rmtree(path, ignore_errors=True)
        path.mkdir()
        return path

    def compare(self, what, goal, ours, theirs, against):
        """ours, theirs: functions that prepare a run and return its command and environment."""
        times = {ours: [], theirs: []}
        memory = 0.0
        for round_number in range(self.args.rounds + 1):
            for side in (ours, theirs):
                run = Run(*side())
                if round_number > 0:
                    times[side].append(run.seconds)
                if side is ours:
                    memory = max(memory, run.mib)
        a, b = statistics.median(times[ours]), statistics.median(times[theirs])
        self.row(what, f"{a:.2f} s", f"{b:.2f} s ({against})", f"{a / b:.2f}", goal, a / b <= goal)
        return memory

    def row(self, what, ours, theirs, ratio, goal, met):
        self.rows.append((what, ours, theirs, ratio, str(goal), "met" if met else "MISSED"))
        print(" | ".join(self.rows[-1]), flush=True)


class Programs(Bench):
    names = ["full_site", "full_big", "incremental", "restore", "one_file", "whole_job", "put", "stream_memory"]

    # ---- Data -----------------------------------------------------------------------------------

    def data(self, kind):
        path = self.work / f"data.{kind}"
        if not path.exists():
            size = self.args.files if kind == "site" else self.args.mib
            subprocess.run([self.tool("bench/mkdata"), kind, path, "1", str(size)], check=True,
                           stdout=subprocess.DEVNULL)
            Run(f"tar cf - {path} | cat > /dev/null")  # warm
        return path

    # ---- Commands -------------------------------------------------------------------------------

    def create(self, tree, out="q", extra="", slice_size="100M"):
        folder = self.fresh(out)
        return (f"{self.tool('sbin/qortar')} --create {folder}/F2024-01-31.bob.tgz --slice {slice_size} "
                f"--root {tree} --save-listing {folder}/list {extra} .")

    def base_listing(self, tree):
        Run(self.create(tree, "base"))
        return self.work / "base/list"

    # ---- Comparisons ----------------------------------------------------------------------------

    def full(self, kind, goal):
        tree, out = self.data(kind), self.work / "theirs"
        igzip = f"tar cf - -C {tree} . | igzip -T2 -1 -c > {out}"
        zstd = f"tar cf - -C {tree} . | zstd -q -1 -T2 -c > {out}"
        memory = self.compare(f"full backup, {kind}", goal, lambda: (self.create(tree),),
                              lambda: (igzip,), "tar, igzip -T2 -1")
        self.row(f"peak memory, {kind}", f"{memory:.0f} MiB", "", "", 160, memory <= 160)
        Run(igzip)
        ours = sum(p.stat().st_size for p in (self.work / "q").glob("*.tgz*"))
        self.row(f"size, {kind}", f"{ours >> 20} MiB", f"{out.stat().st_size >> 20} MiB",
                 f"{ours / out.stat().st_size:.3f}", 1.03, ours / out.stat().st_size <= 1.03)
        self.compare(f"full backup, {kind}", 0.7, lambda: (self.create(tree),), lambda: (zstd,),
                     "tar, zstd -1 -T2")

    def full_site(self):
        self.full("site", 0.55)

    def full_big(self):
        self.full("big", 0.45)

    def incremental(self):
        tree = self.work / "data.changed"
        shutil.copytree(self.data("site"), tree, symlinks=True)
        base = self.base_listing(tree)
        snapshot = self.work / "snapshot"
        Run(f"tar cf /dev/null --listed-incremental={snapshot} -C {tree} .")
        subprocess.run([self.tool("bench/mkdata"), "change", tree, "2"], check=True,
                       stdout=subprocess.DEVNULL)

        def theirs():
            shutil.copy(snapshot, f"{snapshot}.now")
            return (f"tar cf - --listed-incremental={snapshot}.now -C {tree} . | "
                    f"pigz -1 > {self.work}/theirs",)
        self.compare("incremental, 1 % changed", 0.7,
                     lambda: (self.create(tree, "i", f"--base {base}"),), theirs,
                     "tar --listed-incremental, pigz -1")

    def restore(self):
        tree, theirs_tgz = self.data("site"), self.work / "theirs.tgz"
        Run(self.create(tree, "full"))
        Run(f"tar cf - -C {tree} . | igzip -1 -c > {theirs_tgz}")
        full = self.work / "full"
        extract = f"{self.tool('sbin/qortar')} --extract {full}/F2024-01-31.bob.tgz --listing {full}/list --root "
        Run(extract + str(self.fresh("check")))
        Run(f"diff -r --no-dereference {tree} {self.work}/check")
        self.compare("restore of everything, site", 0.55, lambda: (extract + str(self.fresh("ours.out")),),
                     lambda: (f"igzip -dc {theirs_tgz} | tar xf - -C {self.fresh('theirs.out')}",),
                     "igzip -d, tar x")

    def one_file(self):
        tree = self.data("site")
        Run(self.create(tree, "full"))
        full, wanted = self.work / "full", sorted(p for p in tree.rglob("*") if p.is_file())
        middle = wanted[len(wanted) // 2].relative_to(tree)
        Run(f"cat {full}/*.part* > /dev/null")

        def ours():
            return (f"{self.tool('sbin/qortar')} --extract {full}/F2024-01-31.bob.tgz --listing {full}/list "
                    f"--root {self.fresh('one')} '{middle}'",)
        Run(*ours())
        if not filecmp.cmp(tree / middle, self.work / "one" / middle, shallow=False):
            sys.exit("one file: restored bytes differ")
        self.compare("one file out of the middle", 0.5, ours,
                     lambda: (f"ls -v {full}/*.part* | xargs cat | igzip -dc | "
                              f"tar xf - -C {self.fresh('one.theirs')} '{middle}'",), "igzip -d, tar x FILE")

    def stream_memory(self):
        folder = self.fresh("ten")
        Run(f"for i in 1 2 3 4 5 6 7 8 9 10; do head -c 1G /dev/urandom; done > {folder}/stream")
        run = Run(self.create(folder, "q", slice_size="1G"))
        self.row("peak memory, one file of 10 GiB", f"{run.mib:.0f} MiB", "", "", 160, run.mib <= 160)
        shutil.rmtree(folder)

    def put(self):
        source = self.work / "slice"
        Run(f"head -c 1G /dev/urandom > {source}")
        secret = base64.b64encode(b"a long archive password").decode()
        token = f"type=local;path={self.work}/store;arch_password={secret}"
        (self.work / "store").mkdir(exist_ok=True)
        name = "F2024-01-31.nobody2.tgz.aes"

        def remove(path):
            with contextlib.suppress(FileNotFoundError):
                path.unlink()

        def ours():
            remove(self.work / "store" / name)
            return (f"{self.tool('bench/bench_put')} '{token}' {name} {source}",)

        def theirs():
            remove(self.work / "theirs.aes")
            return (f"printf %s 'a long archive password' | openssl enc -e -pass stdin -aes-256-cbc "
                    f"-in {source} -out {self.work}/theirs.aes 2>/dev/null",)
        self.compare("encrypted local Put, 1 GiB", 1.05, ours, theirs, "openssl enc")

    def whole_job(self):
        tree = self.data("site")
        root = self.fresh("root")
        for name in ("sbin", "lib"):
            (root / name).symlink_to(self.build / name)
        (root / "var/run").mkdir(parents=True)
        (root / "var/backup/qorvel").mkdir(parents=True)
        store = self.fresh("admin")
        env = {"VEL_ROOT": str(root)}
        panel = [str(root / "sbin/backup2_panel")]
        secret = base64.b64encode(b"a long archive password").decode()

        def set_up(arguments, text=""):
            subprocess.run(panel + arguments, input=text, text=True, check=True, env={**os.environ, **env},
                           stdout=subprocess.DEVNULL)
        folders = [word for path in sorted(tree.iterdir()) for word in ("--folder", path.name)]
        set_up(["user", "add", "www-data", "--root", str(tree), *folders])
        set_up(["storage", "set", "--slice-size", "100M"], f"type=local;path={store};arch_password={secret}")
        server = subprocess.Popen(panel + ["serve"], env={**os.environ, **env}, stdout=subprocess.PIPE)
        server.stdout.readline()

        def ours():
            for path in (store, root / "var/backup/qorvel"):
                shutil.rmtree(path)
                path.mkdir()
            return (f"{root}/sbin/backup2 run www-data --date 2024-01-31", env)

        def theirs():
            repository = self.fresh("restic")
            env_restic = {"RESTIC_PASSWORD": "a long archive password", "RESTIC_CACHE_DIR": f"{self.work}/cache"}
            Run(f"restic init -q -r {repository}", env_restic)
            return (f"restic backup -q -r {repository} {tree}", env_restic)
        try:
            self.compare("whole encrypted job, site", 0.4, ours, theirs, "restic backup")
        finally:
            server.send_signal(signal.SIGTERM)
            server.wait()


def main(kind):
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--files", type=int, default=60000)
    parser.add_argument("--mib", type=int, default=2048)
    parser.add_argument("--infos", type=int, default=100000)
    parser.add_argument("--names", type=int, default=20000)
    parser.add_argument("--slice-mib", type=int, default=1024)
    parser.add_argument("--stream-mib", type=int, default=10240)
    parser.add_argument("--work", default=None, help="where the scratch folder goes")
    parser.add_argument("--only", action="append")
    args = parser.parse_args()
    bench = kind(args)
    try:
        for name in args.only or bench.names:
            getattr(bench, name)()
    finally:
        bench.close()
        shutil.rmtree(bench.work, ignore_errors=True)
    print("\n| what | ours | theirs | ratio | goal | |\n|---|---|---|---|---|---|")
    for row in bench.rows:
        print("| " + " | ".join(row) + " |")
    return any(row[-1] == "MISSED" for row in bench.rows)


if __name__ == "__main__":
    sys.exit(main(Programs))
