#!/usr/bin/env python3
"""Measures uploads, downloads and listings of remote storages beside what a user would run instead.

    compare_remote.py BUILD [--rounds N] [--slice-mib N] [--names N] [--stream-mib N] [--only KIND.ROW]... [--work DIR]

Every kind runs against its server of tests/servers on loopback. A new kind is a class here: how its
server starts, its token, and the commands of the other side.
"""
import base64
import contextlib
import filecmp
import itertools
import json
import os
import pathlib
import subprocess
import sys
import urllib.request

import compare
from compare import Run

SERVERS = pathlib.Path(__file__).resolve().parent.parent / "tests/servers"
NAME = "F2024-01-31.bob.tgz"
PASSWORD = "bench"
ENCRYPTED_NAME = NAME + ".aes"
ENCRYPTED = f";arch_password={base64.b64encode(PASSWORD.encode()).decode()}"
STREAM_LIMIT_MIB = 96


class Site:
    """A server, its token, and the other side: shell commands with an environment."""
    server = against = ""
    options = {}
    rows = ("put", "get", "list", "stream")
    goals = {}              # row -> ours / theirs at most
    extra_memory_mib = 0    # beyond STREAM_LIMIT_MIB
    path = {}               # where programs are looked for

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


class Sftp(Site):
    server, against = "sshd", "scp"
    goals = {"put": 1.05, "get": 1.05, "put_encrypted": 1.15, "get_encrypted": 1.15, "list": 1.5}
    rows = ("put", "get", "put_encrypted", "get_encrypted", "list", "stream")

    def __init__(self, work):
        super().__init__(work)
        (work / "tmp").mkdir()  # for the key file
        self.path = {"PATH": f"{self.settings['bin']}:{os.environ['PATH']}"}
        (pathlib.Path(self.settings["root"]) / "theirs").mkdir()

    def token(self):
        key = pathlib.Path(self.settings["key"]).read_text().replace("\n", "#rn").replace(" ", "#ws")
        return (f"type=sftp;url={self.settings['host']};port={self.settings['port']};key={key};"
                f"path={self.settings['root']}/ours")

    def options_of(self, port):
        return f"-q -o StrictHostKeyChecking=no -i {self.settings['key']} {port} {self.settings['port']}"

    def theirs(self, name):
        return f"{self.settings['root']}/theirs/{name}"

    def scp(self, source, target):
        return f"scp {self.options_of('-P')} {source} {target}", self.path

    def ssh(self, command):
        return f"ssh {self.options_of('-p')} {self.settings['host']} '{command}'"

    def put(self, file, name):
        return self.scp(file, f"{self.settings['host']}:{self.theirs(name)}")

    def get(self, name, file):
        return self.scp(f"{self.settings['host']}:{self.theirs(name)}", file)

    def put_encrypted(self, file, name):
        return (f"openssl enc -e -aes-256-cbc -pass env:P -in {file} 2>/dev/null | " +
                self.ssh(f"cat > {self.theirs(name)}"), {**self.path, "P": PASSWORD})

    def get_encrypted(self, name, file):
        return (self.ssh(f"cat {self.theirs(name)}") +
                f" | openssl enc -d -aes-256-cbc -pass env:P -out {file} 2>/dev/null",
                {**self.path, "P": PASSWORD})

    def list(self, folder):
        return f"{self.ssh(f'ls {self.theirs(folder)}')} | wc -l", self.path

    def fill(self, local, folder):
        return f"cp -r {local} {self.theirs(folder)}", {}


class Cloud(Site):
    """A stand-in: it says nothing of the provider's speed, but all of our memory."""
    rows = ("stream",)
    type = ""

    def __init__(self, work):
        super().__init__(work)
        request = urllib.request.Request(self.settings["control"], b'{"discard": true}', method="POST")
        urllib.request.urlopen(request, timeout=30).close()

    def token(self):
        names = ("api", "access_token", "refresh_token", "client_id", "client_secret")
        credential = json.dumps({name: self.settings[name] for name in names}).encode()
        return f"type={self.type};token={base64.b64encode(credential).decode()};path=/ours"


class Dropbox(Cloud):
    server = type = "dropbox"


class GoogleDrive(Cloud):
    server, type = "google_drive", "googledrive"


class Yandex(Cloud):
    server = type = "yandex"


KINDS = {"s3": S3, "ftp": Ftp, "sftp": Sftp, "dropbox": Dropbox, "googledrive": GoogleDrive, "yandex": Yandex}


class Remote(compare.Bench):
    names = [f"{name}.{row}" for name, kind in KINDS.items() for row in kind.rows]

    def measure(self, kind, row):
        site = KINDS[kind](self.fresh("site"))
        with contextlib.closing(site):
            getattr(self, row)(kind, site)

    def ours(self, site, words, more=""):
        return (f"cd {site.work} && {self.tool('bench/bench_remote')} {words}",
                {"BENCH_TOKEN": site.token() + more, **site.path})

    def slice(self):
        path = self.work / "slice"
        if not path.exists():
            Run(f"head -c {self.args.slice_mib}M /dev/urandom > {path}")
        return path

    def put(self, kind, site, row="put", name=NAME, more=""):
        source, theirs = self.slice(), getattr(site, row)
        Run(*self.ours(site, "mkdir d"))
        # Names of their own, as slices have: what a replaced file of this size costs is the server's.
        fresh = (f"{number}.{name}" for number in itertools.count())
        self.compare(f"{kind}: {row} of {self.args.slice_mib} MiB", site.goals[row],
                     lambda: self.ours(site, f"put d/{next(fresh)} {source}", more),
                     lambda: theirs(source, next(fresh)), site.against)

    def put_encrypted(self, kind, site):
        self.put(kind, site, "put_encrypted", ENCRYPTED_NAME, ENCRYPTED)

    def get(self, kind, site, row="get", name=NAME, more=""):
        source, ours, theirs = self.slice(), self.work / "got", self.work / "got.theirs"
        Run(*self.ours(site, "mkdir d"))
        Run(*self.ours(site, f"put d/{name} {source}", more))
        Run(*getattr(site, row.replace("get", "put"))(source, name))

        def fetch(side, command):
            with contextlib.suppress(FileNotFoundError):
                side.unlink()
            return command

        def fetch_ours():
            return fetch(ours, self.ours(site, f"get d/{name} {ours}", more))
        Run(*fetch_ours())
        if not filecmp.cmp(source, ours, shallow=False):
            sys.exit(f"{kind}: other bytes came back")
        self.compare(f"{kind}: {row} of {self.args.slice_mib} MiB", site.goals[row], fetch_ours,
                     lambda: fetch(theirs, getattr(site, row)(name, theirs)), site.against)

    def get_encrypted(self, kind, site):
        self.get(kind, site, "get_encrypted", ENCRYPTED_NAME, ENCRYPTED)

    def list(self, kind, site):
        folder = self.fresh("many")
        for number in range(self.args.names):
            (folder / f"2024-01-31.user{number:05}.tgz.part1").write_bytes(b"x")
        # Both sides list the same names: ours by the path that theirs are under.
        Run(*site.fill(folder, "many"))
        token = site.token().replace("/ours", "/theirs")

        def ours():
            return (f"cd {site.work} && test $({self.tool('bench/bench_remote')} list many) = {self.args.names}",
                    {"BENCH_TOKEN": token, **site.path})
        self.compare(f"{kind}: list of {self.args.names} names", site.goals["list"], ours,
                     lambda: site.list("many"), site.against)

    def stream(self, kind, site):
        source = self.work / "stream"
        Run(f"truncate -s {self.args.stream_mib}M {source}")
        limit = STREAM_LIMIT_MIB + site.extra_memory_mib
        Run(*self.ours(site, "mkdir d"))
        for words in (f"put d/{NAME} {source}", f"get d/{NAME} {source}.got"):
            run = Run(*self.ours(site, words))
            what = f"{kind}: peak memory, {words.split()[0]} of {self.args.stream_mib} MiB"
            self.row(what, f"{run.mib:.0f} MiB", "", "", limit, run.mib <= limit)
        (self.work / "stream.got").unlink()


def add_row(kind, row):
    setattr(Remote, f"{kind}.{row}", lambda self: self.measure(kind, row))


for kind_name, kind_class in KINDS.items():
    for row_name in kind_class.rows:
        add_row(kind_name, row_name)

if __name__ == "__main__":
    sys.exit(compare.main(Remote))
