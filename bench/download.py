#!/usr/bin/env python3
"""Measures the download of an encrypted backup through the panel beside what a user would run instead.

    download.py BUILD [--rounds N] [--mib N] [--only NAME]... [--work DIR]

One backup of random bytes in encrypted slices of 100 MiB on a local storage; curl fetches it over
HTTPS on loopback, to /dev/null: the disk of the receiver is not what is measured. "ssh" decrypts
the slices on the receiver's side, "nginx" serves the archive as a plain file that somebody has put
there: what TLS and curl alone cost.
"""
import contextlib
import hashlib
import os
import pathlib
import secrets
import subprocess
import sys
import threading
import time

import compare
from compare import Run

TOP = pathlib.Path(__file__).resolve().parent.parent
SERVERS = TOP / "tests/servers"
USER, DATE, PASSWORD = "www-data", "2024-01-31", "bench"
NGINX = """daemon off; pid {work}/nginx.pid; error_log {work}/nginx.log; user root; worker_processes 1; events {{}}
http {{ access_log off; sendfile on; client_body_temp_path {work}/t; proxy_temp_path {work}/t; fastcgi_temp_path {work}/t;
uwsgi_temp_path {work}/t; scgi_temp_path {work}/t; server {{ listen 127.0.0.1:{port} ssl; root {work}/plain;
ssl_certificate {cert}; ssl_certificate_key {key}; }} }}
"""


def peak_mib(pid):
    with contextlib.suppress(OSError, StopIteration):
        lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
        return int(next(line for line in lines if line.startswith("VmHWM")).split()[1]) / 1024
    return 0


def children(pid):
    with contextlib.suppress(OSError):
        return [int(word) for task in pathlib.Path(f"/proc/{pid}/task").iterdir()
                for word in (task / "children").read_text().split()]
    return []


class Download(compare.Bench):
    names = ["ssh", "nginx", "resume", "memory"]

    def __init__(self, args):
        super().__init__(args)
        os.environ["VEL_ROOT"] = str(self.build)
        sys.path.insert(0, str(TOP / "tests/support"))
        import backup2_test
        import panel
        self.work.chmod(0o711)  # servers run under accounts of their own
        self.stack = contextlib.ExitStack()
        self.root = self.stack.enter_context(backup2_test.install_root(self.work))
        self.panel = self.stack.enter_context(panel.TlsPanel(self.root))
        self.token = backup2_test.local_token(self.fresh("store"), PASSWORD)
        self.ssh_server = dict(line.split("=", 1) for line in subprocess.run(
            [SERVERS / "sshd", "start", self.work / "ssh"], check=True, text=True,
            stdout=subprocess.PIPE).stdout.splitlines())
        self.stack.callback(subprocess.run, [SERVERS / "sshd", "stop", self.work / "ssh"], check=True)
        try:
            self.make_backup()
        except BaseException:
            self.stack.close()
            raise

    def close(self):
        self.stack.close()

    def make_backup(self):
        home = self.fresh("home")
        (home / "data").mkdir()
        Run(f"head -c {self.args.mib}M /dev/urandom > {home}/data/file")
        self.panel.command(["user", "add", USER, "--root", str(home)])
        self.panel.command("user add root --admin --uid 0", "bench")
        self.panel.command("storage set --slice-size 100M", self.token)
        self.admin = self.panel.session("root", "bench")
        Run(f"{self.root}/sbin/backup2 run {USER} --date {DATE}", {"VEL_ROOT": str(self.root)})
        self.folder = self.work / "store" / USER / DATE
        (self.work / "plain").mkdir()
        self.archive = self.work / "plain/archive.tgz"
        Run(f"cd {self.folder} && for f in $(ls -v F*); do openssl enc -d -aes-256-cbc -pass pass:{PASSWORD} -in $f; done "
            f"> {self.archive} 2> /dev/null")
        self.sum = self.check(self.ours("-")[0])

    def check(self, command):
        """The archive's sum, when the command brings the archive."""
        wanted = hashlib.sha256(self.archive.read_bytes()).hexdigest()
        got = subprocess.run(["/bin/bash", "-c", f"{command} | sha256sum"], check=True, text=True,
                             stdout=subprocess.PIPE, env={**os.environ, **self.path()}).stdout.split()[0]
        if got != wanted:
            sys.exit(f"other bytes came: {command}")
        return got

    def path(self):
        return {"PATH": f"{self.ssh_server['bin']}:{os.environ['PATH']}"}

    # ---- Sides ----------------------------------------------------------------------------------

    def ours(self, to="/dev/null", more=""):
        key = secrets.token_hex(16)
        self.panel.ask(func="session.newkey", auth=self.admin, username=USER, key=key)
        session = self.panel.ask(func="auth", auth=self.admin, username=USER, key=key).find("auth").get("id")
        return (f"curl -sSf --cacert {self.panel.setting['ca']} {more} -o {to} "
                f"'{self.panel.setting['url']}/velcgi/backup2_download?auth={session}'",)

    def by_ssh(self, to="/dev/null"):
        ssh = f"ssh -q -i {self.ssh_server['key']} -p {self.ssh_server['port']} 127.0.0.1"
        return (f"for f in $(cd {self.folder} && ls -v F*); do {ssh} cat {self.folder}/$f | openssl enc -d -aes-256-cbc "
                f"-pass pass:{PASSWORD} 2> /dev/null || exit 1; done > {to}", self.path())

    @contextlib.contextmanager
    def nginx_server(self):
        port = int(self.panel.setting["port"]) + 1
        conf = self.work / "nginx.conf"
        conf.write_text(NGINX.format(work=self.work, port=port, cert=self.panel.setting["cert"],
                                     key=self.panel.setting["key"]))
        server = subprocess.Popen(["/usr/sbin/nginx", "-c", conf])
        try:
            Run(f"until curl -sSfk -o /dev/null -r 0-0 https://127.0.0.1:{port}/archive.tgz; do sleep 0.1; done 2>&1")
            yield f"curl -sSf --cacert {self.panel.setting['ca']} %s -o %s https://127.0.0.1:{port}/archive.tgz"
        finally:
            server.terminate()
            server.wait()

    # ---- Rows -----------------------------------------------------------------------------------

    def ssh(self):
        command, env = self.by_ssh("/dev/stdout")
        self.check(command)
        self.compare(f"download of {self.args.mib} MiB, encrypted", 1.0, self.ours, self.by_ssh, "ssh cat, openssl enc -d")

    def nginx(self):
        with self.nginx_server() as curl:
            self.check(curl % ("", "-"))
            self.compare(f"download of {self.args.mib} MiB, encrypted", 2.0, self.ours,
                         lambda: (curl % ("", "/dev/null"),), "nginx, the plain file")

    def resume(self):
        middle = self.archive.stat().st_size // 2
        with self.nginx_server() as curl:
            self.compare("second half of it", 2.0, lambda: self.ours(more=f"-r {middle}-"),
                         lambda: (curl % (f"-r {middle}-", "/dev/null"),), "nginx, the plain file")

    def memory(self):
        shell = int((self.root / "panel/pid").read_text())
        panel = children(shell)[0]
        before, peaks, done = peak_mib(panel), [], threading.Event()

        def watch():
            while not done.is_set():
                peaks.extend(peak_mib(pid) for pid in children(panel))
                time.sleep(0.01)
        watcher = threading.Thread(target=watch)
        watcher.start()
        Run(*self.ours())
        done.set()
        watcher.join()
        grown = peak_mib(panel)
        self.row("peak memory of the program that sends it", f"{max(peaks):.0f} MiB", "", "", 32, max(peaks) <= 32)
        self.row("what the panel's peak memory grows by", f"{grown - before:.0f} MiB (of {before:.0f})", "", "", 8,
                 grown - before <= 8)


if __name__ == "__main__":
    sys.exit(compare.main(Download))
