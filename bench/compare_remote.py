#!/usr/bin/env python3
"""Measures uploads, downloads and listings of remote storages beside what a user would run instead.

    compare_remote.py BUILD [--rounds N] [--slice-mib N] [--names N] [--stream-mib N] [--only KIND.ROW]... [--work DIR]

Every kind runs against its server of tests/servers on loopback. A new kind is a class here: how its
server starts, its token, and the commands of the other side.
"""
import base64
import contextlib
import filecmp
import os
import pathlib
import subprocess
import sys

import compare
from compare import Run

SERVERS = pathlib.Path(__file__).resolve().parent.parent / "tests/servers"
NAME = "F2024-01-31.bob.tgz"
STREAM_LIMIT_MIB = 96
ROWS = ("put", "get", "list", "stream")


class Site:
    """A server, its token, and the other side: shell commands with an environment."""
    server = against = ""
    options = {}
    goals = {}              # row -> ours / theirs at most
    extra_memory_mib = 0    # beyond STREAM_LIMIT_MIB

    def __init__(self, work):
        self.work = work
        work.parent.chmod(0o711)  # servers run under accounts of their own
        printed = subprocess.run([SERVERS / self.server, "start", work], check=True, text=True,
                                 stdout=subprocess.PIPE, env={**os.environ, **self.options}).stdout
        self.settings = dict(line.split("=", 1) for line in printed.splitlines())

    def close(self):
        subprocess.run([SERVERS / self.server, "stop", self.work], check=True)

    def token(self):
        raise NotImplementedError

    def put(self, file, name):
        raise NotImplementedError

    def get(self, name, file):
        raise NotImplementedError

    def list(self, folder):
        raise NotImplementedError

    def fill(self, local, folder):
        """Makes the files of a local folder those of a folder on the other side."""
        raise NotImplementedError


class S3(Site):
    server, against = "s3_ceph", "rclone"
    options = {"CEPH_STORE_GB": "16"}
    goals = {"put": 0.8, "get": 1.0, "list": 1.0}
    extra_memory_mib = 32   # two parts

    def token(self):
        return f"type=s3;token={self.settings['credential']};path=/ours"

    def rclone(self, words):
        env = {"RCLONE_CONFIG": "/dev/null", "AWS_CA_BUNDLE": ""}
        remote = {"TYPE": "s3", "PROVIDER": "Ceph", "ENDPOINT": self.settings["endpoint"],
                  "REGION": self.settings["region"], "ACCESS_KEY_ID": self.settings["access_key"],
                  "SECRET_ACCESS_KEY": self.settings["secret_key"]}
        env.update({f"RCLONE_CONFIG_R_{name}": value for name, value in remote.items()})
        return f"unset AWS_CA_BUNDLE; rclone {words}", env

    def put(self, file, name):
        return self.rclone(f"copyto --ignore-times {file} R:backups/theirs/{name}")

    def get(self, name, file):
        return self.rclone(f"copyto R:backups/theirs/{name} {file}")

    def list(self, folder):
        return self.rclone(f"lsf R:backups/theirs/{folder} | wc -l")

    def fill(self, local, folder):
        return self.rclone(f"copy --transfers 8 {local} R:backups/theirs/{folder}")


class Ftp(Site):
    server, against = "pureftpd", "curl"
    goals = {"put": 1.1, "get": 1.1, "list": 2.0}

    def token(self):
        secret = base64.b64encode(self.settings["password"].encode()).decode()
        return (f"type=ftp;url={self.settings['host']};port={self.settings['port']};path=/ours;"
                f"username={self.settings['user']};password={secret}")

    def curl(self, words, path):
        config = self.work / "curlrc"
        config.write_text('user = "{user}:{password}"\n'.format(**self.settings))
        return f"curl -sS -K {config} {words} ftp://{self.settings['host']}:{self.settings['port']}/theirs/{path}", {}

    def put(self, file, name):
        return self.curl(f"--ftp-create-dirs -T {file}", name)

    def get(self, name, file):
        return self.curl(f"-o {file}", name)

    def list(self, folder):
        command, env = self.curl("-X MLSD", f"{folder}/")
        return f"{command} | wc -l", env

    def fill(self, local, folder):
        return f"mkdir -p {self.settings['root']}/theirs && cp -r {local} {self.settings['root']}/theirs/{folder}", {}


KINDS = {"s3": S3, "ftp": Ftp}


class Remote(compare.Bench):
    names = [f"{kind}.{row}" for kind in KINDS for row in ROWS]

    def measure(self, kind, row):
        site = KINDS[kind](self.fresh("site"))
        with contextlib.closing(site):
            getattr(self, row)(kind, site)

    def ours(self, site, words):
        return f"{self.tool('bench/bench_remote')} {words}", {"BENCH_TOKEN": site.token()}

    def slice(self):
        path = self.work / "slice"
        if not path.exists():
            Run(f"head -c {self.args.slice_mib}M /dev/urandom > {path}")
        return path

    def put(self, kind, site):
        source = self.slice()
        self.compare(f"{kind}: put of {self.args.slice_mib} MiB", site.goals["put"],
                     lambda: self.ours(site, f"put d/{NAME} {source}"),
                     lambda: site.put(source, NAME), site.against)

    def get(self, kind, site):
        source, ours, theirs = self.slice(), self.work / "got", self.work / "got.theirs"
        Run(*self.ours(site, f"put d/{NAME} {source}"))
        Run(*site.put(source, NAME))

        def fetch(side, command):
            with contextlib.suppress(FileNotFoundError):
                side.unlink()
            return command
        Run(*fetch(ours, self.ours(site, f"get d/{NAME} {ours}")))
        if not filecmp.cmp(source, ours, shallow=False):
            sys.exit(f"{kind}: other bytes came back")
        self.compare(f"{kind}: get of {self.args.slice_mib} MiB", site.goals["get"],
                     lambda: fetch(ours, self.ours(site, f"get d/{NAME} {ours}")),
                     lambda: fetch(theirs, site.get(NAME, theirs)), site.against)

    def list(self, kind, site):
        folder = self.fresh("many")
        for number in range(self.args.names):
            (folder / f"2024-01-31.user{number:05}.tgz.part1").write_bytes(b"x")
        # Both sides list the same names: ours by the path that theirs are under.
        Run(*site.fill(folder, "many"))
        token = site.token().replace("/ours", "/theirs")

        def ours():
            return (f"test $({self.tool('bench/bench_remote')} list many) = {self.args.names}",
                    {"BENCH_TOKEN": token})
        self.compare(f"{kind}: list of {self.args.names} names", site.goals["list"], ours,
                     lambda: site.list("many"), site.against)

    def stream(self, kind, site):
        source = self.work / "stream"
        Run(f"truncate -s {self.args.stream_mib}M {source}")
        limit = STREAM_LIMIT_MIB + site.extra_memory_mib
        for words in (f"put d/{NAME} {source}", f"get d/{NAME} {source}.got"):
            run = Run(*self.ours(site, words))
            what = f"{kind}: peak memory, {words.split()[0]} of {self.args.stream_mib} MiB"
            self.row(what, f"{run.mib:.0f} MiB", "", "", limit, run.mib <= limit)
        (self.work / "stream.got").unlink()


def add_row(kind, row):
    setattr(Remote, f"{kind}.{row}", lambda self: self.measure(kind, row))


for kind_name in KINDS:
    for row_name in ROWS:
        add_row(kind_name, row_name)

if __name__ == "__main__":
    sys.exit(compare.main(Remote))
