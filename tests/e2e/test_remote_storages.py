"""Every kind of storage, on real servers and the clouds' stand-ins: set up, used, broken, used again."""

import contextlib
import json
import os
import pathlib
import select
import shutil
import signal
import socketserver
import subprocess
import threading
import time
import unittest
import urllib.parse
import urllib.request

import backup2_test
from backup2_test import run
from bad_line import BadLine
from storage_case import (MONDAY, OWN_PASSWORD, PASSWORD, SERVERS, TUESDAY, USER, WEDNESDAY, StorageCase,
                          cloud, ftp, node, s3, sftp)

CLOUDS = {"dropbox": "dropbox", "googledrive": "google_drive", "yandex": "yandex"}


def control(settings, **command):
    request = urllib.request.Request(settings["control"], json.dumps(command).encode(), method="POST")
    urllib.request.urlopen(request, timeout=30).close()


def kill_tree(pid):
    """Kills the process and all that come from it."""
    with contextlib.suppress(FileNotFoundError, ProcessLookupError):  # one that has ended meanwhile
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        os.kill(pid, signal.SIGKILL)
        for child in children:
            kill_tree(int(child))


def place_of(settings):
    return "127.0.0.1", urllib.parse.urlsplit(settings.get("endpoint") or settings["api"]).port


def downloads(settings):
    """How often the stand-in for a cloud was asked for a file's content."""
    with urllib.request.urlopen(settings["control"], timeout=30) as answer:
        requests = json.load(answer)["requests"]
    return sum("download" in str(request) or "alt=media" in str(request) for request in requests)


class SlowServer(socketserver.ThreadingTCPServer):
    """Every second connection gets a byte now and then, the others nothing."""

    daemon_threads = True

    class RequestHandlerClass(socketserver.BaseRequestHandler):
        def handle(self):
            self.server.calls += 1
            with contextlib.suppress(OSError):
                while not select.select([self.request], [], [], 0.5)[0] or self.request.recv(1 << 16):
                    self.request.sendall(b"S" * (self.server.calls % 2))

    def __init__(self):
        super().__init__(("127.0.0.1", 0), self.RequestHandlerClass)
        self.port, self.calls = self.server_address[1], 0
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def __exit__(self, *words):
        self.shutdown()
        super().__exit__(*words)


class Kinds(StorageCase):
    """Backups on a storage, encrypted and then plain; everything comes back."""

    def assert_works(self, described, password, days):
        size = "256K" if password else "1M"  # one slice: a connection by ssh takes a third of a second
        said = self.add(described, "--replace", "--slice-size", size, password=password)
        self.assertIn("encrypted" if password else "not encrypted", said)
        states = {}
        for date in days:
            states[date] = self.change()
            self.backup2("run", USER, "--date", date)
        listed = {row["date"]: row for row in json.loads(self.backup2("list", USER, "--json"))}
        self.assertEqual([listed[d]["kind"] for d in days], ["full", "incremental"][:len(days)])
        self.assertTrue(all((".aes" in name) == bool(password) or name.endswith(".info")
                            for name in self.stored(MONDAY)), self.stored(MONDAY))
        if password:
            self.backup2("verify", USER, "--deep")
        for date, state in states.items():
            self.assert_restores(date, state)
        for date in reversed(days):
            self.backup2("delete", USER, date)
            self.assertEqual(self.stored(date), [])
        self.assert_tidy()

    def assert_both_ways(self, encrypted, plain):
        self.assert_works(encrypted, PASSWORD, (MONDAY, TUESDAY))
        self.assert_works(plain, None, (MONDAY,))

    def test_local(self):
        there = lambda name: (["--type", "local", "--path", str(self.root / name)], [])
        self.assert_both_ways(there("a store"), there("another"))

    def test_sftp_over_both_protocols_and_with_both_kinds_of_keys(self):
        ssh = self.serve("sshd")
        self.assert_both_ways(sftp(ssh, "a store"), sftp(ssh, "b", ssh["host6"] or "127.0.0.1", "key_pem"))
        known = self.root / "var/backup2_cp.known_hosts"
        self.assertEqual(known.stat().st_mode & 0o777, 0o600)
        self.assertIn("SHA256:", self.backup2("storage", "show"))

    def test_ftp_passive_with_tls_and_active_without(self):
        there = self.serve("pureftpd", FTP_TLS="1")
        self.env["BACKUP2_CA_FILE"] = there["ca"]
        self.assert_both_ways(ftp(there, "a store", scheme="ftpes://"), ftp(there, "b", "--mode", "active"))

    def test_s3_on_two_servers(self):
        self.assert_both_ways(s3(self.serve("s3_swift"), "a store"), s3(self.serve("s3_ceph"), "b", "amazon"))

    def test_clouds(self):
        for kind, script in CLOUDS.items():
            with self.subTest(kind):
                there = self.serve(script)
                self.assert_both_ways(cloud(there, "a store", kind), cloud(there, "b", kind))

    def test_backups_of_a_node_are_restored_and_tidied_from_here(self):
        ssh = self.serve("sshd")
        there = (["--type", "local", "--path", ssh["root"] + "/nodes"], [])
        for password in (PASSWORD, None):
            self.add(there, "--replace", "--slice-size", "256K", password=password)
            state = self.change()
            self.backup2("run", USER, "--date", MONDAY)
            self.assertIn("node", self.add(node(ssh, "nodes"), "--replace", password=password))
            self.assert_restores(MONDAY, state)
            if password:
                self.backup2("verify", USER, "--deep")
                self.assertIn("node", self.backup2("run", USER, "--date", TUESDAY, expect=1))
            self.backup2("delete", USER, MONDAY)
            self.assertEqual(self.stored(MONDAY), [])
        self.assert_tidy()

    def test_private_copies_between_kinds(self):
        ftpd, swift, dropbox = self.serve("pureftpd"), self.serve("s3_swift"), self.serve("dropbox")
        local = (["--type", "local", "--path", str(self.root / "store")], [])
        for admin, password, own, own_password in (
                (s3(swift, "admin"), PASSWORD, ftp(ftpd, "own"), None),
                (local, None, cloud(dropbox, "own", "dropbox"), OWN_PASSWORD)):
            with self.subTest(own[0][1]):
                self.add(admin, "--replace", "--slice-size", "256K", password=password)
                self.add(own, USER, "--replace", password=own_password)
                states = {}
                for date in (MONDAY, TUESDAY):
                    states[date] = self.change()
                    self.backup2("run", USER, "--date", date)
                self.backup2("verify", USER, "--deep", "--private")
                self.assert_restores(TUESDAY, states[TUESDAY], "--private")
                self.backup2("delete", USER, MONDAY, "--private", "--force")
                self.backup2("delete", USER, MONDAY, "--force")
                self.assert_tidy()

    def test_storages_are_listed_shown_and_removed_without_their_secrets(self):
        local = (["--type", "local", "--path", str(self.root / "store")], [])
        own = cloud(self.serve("dropbox"), "own", "dropbox")
        self.assertIn("no storage", self.backup2("storage", "list"))
        self.add(local, "--size-limit", "5G", password=PASSWORD)
        self.add(own, USER, "--count-limit", "3")
        rows = json.loads(self.backup2("storage", "list", "--json"))
        self.assertEqual([(r["owner"], r["type"], r["encrypted"], r["size_limit"], r["count_limit"])
                          for r in rows], [("", "local", True, "5G", ""), (USER, "dropbox", False, "", "3")])
        for secret in own[1]:
            for words in (["list"], ["show"], ["show", USER], ["list", "--json"], ["show", USER, "--json"]):
                self.assertNotIn(secret, self.backup2("storage", *words))
        self.assertIn("--replace", self.add(local, expect=1))
        for words, gone in ((["remove", USER], ["show", USER]), (["remove"], ["show"])):
            self.backup2("storage", *words)
            self.backup2("storage", *gone, expect=1)

    def test_what_a_kind_does_not_know_or_lacks_is_wrong_usage(self):
        for words, said in (
                ("--type local", "--path"), ("--type local --path /x --host h", "--host"),
                ("--type sftp --host h --path /x", "--key-file"), ("--type s3", "--bucket"),
                ("--type ftp --host h --user u", "password"), ("--type nfs", "nfs"),
                ("--type local --path /x;y", "semicolon"), ("--type ftp --host h --user u --mode fast", "mode")):
            self.assertIn(said, self.backup2("storage", "add", *words.split(), expect=2))
        self.assertIn("no storage", self.backup2("storage", "list"))


class Faults(StorageCase):
    """Each leaves a clear error, no secret, nothing half under a final name, and the next run works."""

    def use(self, described):
        self.add(described, "--slice-size", "128K", password=PASSWORD)

    def assert_fails(self, *said, date=MONDAY):
        error = self.backup2("run", USER, "--date", date, expect=1)
        for word in said:
            self.assertIn(word, error)
        self.assertNotIn(date, self.backup2("list", USER))

    def assert_recovers(self, date=MONDAY):
        self.assertNotIn(f"{date}.{USER}.info", self.stored(date))
        state = self.change()
        self.backup2("run", USER, "--date", date)
        self.assert_restores(date, state)
        self.assert_tidy()

    def test_connections_that_die_in_the_middle_of_an_upload(self):
        ssh = self.serve("sshd")
        self.use(sftp(ssh, "store"))
        broken = pathlib.Path(ssh["remote_bin"]) / "cat"
        broken.write_text("#!/bin/sh\nhead -c 30000\nkill -9 $SESSION\n")
        broken.chmod(0o755)
        self.assert_fails("sftp storage", "Fail to encode", f"F{MONDAY}")
        self.assertEqual(self.stored(MONDAY), [])
        broken.unlink()
        self.assert_recovers()

    def test_a_server_that_is_gone(self):
        ssh = self.serve("sshd")
        self.use(sftp(ssh, "store"))
        self.backup2("run", USER, "--date", MONDAY)
        self.backup2("verify", USER)
        settings = pathlib.Path(ssh["log"]).parent
        subprocess.run([SERVERS / "sshd", "stop", settings], check=True)
        shown = run(["backup2", "verify", USER, "--deep"])
        self.assertRegex(shown.stdout, r": not checked\n.*127\.0\.0\.1.*refused\n$")
        self.assertTrue(json.loads(self.backup2("list", USER, "--json"))[0]["verified_good"])
        shutil.rmtree(self.root / "var/run/backup2_cp.reached")  # as after a minute
        self.assertIn("no way in", self.backup2("delete", USER, MONDAY, expect=1))
        self.assertIn(MONDAY, self.backup2("list", USER))  # still known: its files are there yet
        self.assert_fails("sftp storage", "no way in to 127.0.0.1", "refused", date=TUESDAY)

    def test_a_server_killed_in_the_middle_of_an_upload(self):
        there = self.serve("pureftpd", FTP_RATE="20000")  # a slice takes seconds
        folder = pathlib.Path(there["root"])
        self.use(ftp(there, "store"))
        job = self.run_until(lambda: list(folder.rglob("backup2-*.part")))
        kill_tree(int((folder.parents[1] / "pid").read_text()))
        said = job.communicate(timeout=100)[1]
        self.assertEqual(job.returncode, 1, said)
        self.assertRegex(said, f"F{MONDAY}.*ftp storage|ftp storage.*F{MONDAY}")
        self.assertEqual([p.name for p in folder.rglob("*") if p.is_file() and not p.match("backup2-*.part")], [])
        self.add(ftp(self.serve("pureftpd"), "store"), "--replace", "--slice-size", "128K", password=PASSWORD)
        self.assert_recovers()

    def test_another_host_key_stops_every_job_until_it_is_accepted(self):
        ssh = self.serve("sshd")
        self.use(sftp(ssh, "store"))
        self.backup2("run", USER, "--date", MONDAY)
        known = self.root / "var/backup2_cp.known_hosts"
        subprocess.run(["ssh-keygen", "-q", "-t", "ecdsa", "-N", "", "-f", self.root / "other"], check=True)
        other = (self.root / "other.pub").read_text().split()
        known.write_text(" ".join([known.read_text().split()[0], *other[:2]]) + "\n")
        self.backup2("verify", USER, expect=1)
        self.backup2("delete", USER, MONDAY, expect=1)
        self.assert_fails("sftp storage", "the host key of 127.0.0.1 is not the recorded one", date=TUESDAY)
        self.assertEqual(len(known.read_text().splitlines()), 1)
        self.assertIn("--accept-host-key", self.backup2("storage", "check", expect=1))
        self.assertIn("host key SHA256:", self.backup2("storage", "check", "--accept-host-key"))
        self.assert_recovers(TUESDAY)

    def test_wrong_secrets_are_found_before_anything_is_kept(self):
        ssh, there, swift = self.serve("sshd"), self.serve("pureftpd"), self.serve("s3_swift")
        stranger = self.root / "stranger"
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", stranger], check=True)
        for described, said in (
                (sftp({**ssh, "key": str(stranger)}, "x"), "Permission denied"),
                (ftp({**there, "password": "wrong password"}, "x"), "unauthorized"),
                (s3({**swift, "secret_key": "wrong secret key"}, "x"), "Authorization error"),
                (s3({**swift, "bucket": "elsewhere"}, "x"), "NoSuchBucket")):
            with self.subTest(described[0][1]):
                error = self.add(described, expect=1)
                self.assertIn(f"the storage was not set up: backup2_cp: {described[0][1]} storage", error)
                self.assertIn(said, error)
                self.assertIn("no storage", self.backup2("storage", "list"))

    def test_servers_that_hardly_say_a_word(self):
        ssh = self.serve("sshd")
        with SlowServer() as slow:
            there = {**ssh, "port": str(slow.port)}
            local = self.root / f"F{MONDAY}.{USER}.tgz"
            local.write_bytes(b"slice")
            name = f"{USER}/{MONDAY}/{local.name}"
            jobs = []
            for kind, described in (("sftp", sftp(there, "x")), ("node", node(there, "x"))):
                self.add(described, "--replace", "--no-check")
                token = self.panel.ask(func="backup2.settings").findtext("storage")
                env = {**self.env, "BACKUP_TOKEN": token, "BACKUP2_STALL_SECONDS": "1"}
                jobs += [(kind, backup2_test.start(["backup2_cp", *words], **env)) for words in (
                    ["--check"], ["--put", local, "--no-delete"], ["--get", name, self.root / f"back.{kind}"],
                    ["--list", USER])]
            for kind, job in jobs:
                said = job.communicate(timeout=100)[1]
                self.assertEqual(job.returncode, 1, said)
                self.assertRegex(said, f"{kind} storage .*no way in to 127.0.0.1: no answer")
                self.assertNotIn("PRIVATE KEY", said)
        self.assert_tidy()

    def test_tokens_that_end(self):
        for kind, script in CLOUDS.items():
            with self.subTest(kind):
                there = self.serve(script)
                self.use(cloud(there, "store", kind))
                before = downloads(there)
                self.assertGreater(before, 0)  # the probe was read back
                for date in (MONDAY, TUESDAY):  # is renewed, and the next process knows it
                    control(there, expire=True)
                    self.change()
                    self.backup2("run", USER, "--date", date)
                self.assertEqual(downloads(there), before, "an upload is proved without a download")
                control(there, revoke=True)
                self.assert_fails(f"{kind} storage", "uthoriz", date=WEDNESDAY)
                self.backup2("storage", "remove")
                shutil.rmtree(self.local / USER)

    def test_storages_without_room(self):
        dropbox, full = self.serve("dropbox"), self.serve("pureftpd", FTP_QUOTA_MB="1")
        for described in (cloud(dropbox, "store", "dropbox"), ftp(full, "store")):
            with self.subTest(described[0][1]):
                self.add(described, "--replace", "--slice-size", "256K", password=PASSWORD)
                control(dropbox, quota=1 << 20)
                self.change()
                for name in range(3):
                    (self.home / f"data/big{name}").write_bytes(self.dice.randbytes(400_000))
                self.assert_fails(f"{described[0][1]} storage", "no room", date=MONDAY)
                for name in range(3):
                    (self.home / f"data/big{name}").unlink()
                for path in (self.home / "data").glob("new*"):
                    path.unlink()
                control(dropbox, quota=1 << 40)
                self.assert_recovers(MONDAY)
                shutil.rmtree(self.local / USER)

    def run_until(self, is_place):
        """A backup in the middle of an upload."""
        job = backup2_test.start(["backup2", "run", USER, "--date", MONDAY], **self.env)
        self.addCleanup(self.end, job)
        while not is_place():
            self.assertIsNone(job.poll(), "it ended before its time")
            time.sleep(0.002)
        return job

    @staticmethod
    def end(job):
        """Kills it with all its programs, when it is still at work."""
        if job.poll() is None:
            os.killpg(job.pid, signal.SIGKILL)
        job.communicate()

    def kill_a_run(self, is_place):
        self.end(self.run_until(is_place))

    def assert_killed_and_well(self, is_place, swept=0):
        self.change()
        self.kill_a_run(is_place)
        half = [name for name in self.stored(MONDAY) if ".tgz" in name]
        self.assertEqual(half, [], "nothing is complete yet")
        sweep = ["backup2_cp", "--sweep", "--older-than"]
        token = self.panel.ask(func="backup2.settings").findtext("storage")
        for hours, said in (("1", ""), ("0", f"took back {swept} unfinished uploads\n" if swept else "")):
            done = run([*sweep, hours], BACKUP_TOKEN=token, **self.env)
            self.assertEqual((done.returncode, done.stdout), (0, said), done.stderr)
        self.assert_recovers()
        self.backup2("delete", USER, MONDAY)
        self.assertEqual(self.stored(MONDAY), [])

    def through(self, line, kind, settings):
        """The storage as it is reached over the line, with small parts where there are any."""
        address = f"http://127.0.0.1:{line.port}"
        described = s3({**settings, "endpoint": address}, "store") if kind == "s3" else cloud(
            {**settings, "api": address}, "store", kind)
        described[0].extend(["--part-size", "5"] if kind == "s3" else [])
        return described

    def test_programs_killed_in_the_middle_of_an_upload_to_a_cloud(self):
        (self.home / "data/big").write_bytes(self.dice.randbytes(12 << 20))
        servers = {"s3": self.serve("s3_ceph"), **{kind: self.serve(script) for kind, script in CLOUDS.items()}}
        for kind, marker, after, swept in (
                ("s3", rb"PUT [^ ]*partNumber=2", 1 << 20, 1),
                ("dropbox", rb"POST /2/files/upload ", 3 << 20, 0),
                ("googledrive", rb"PUT [^ ]*upload_id=", 3 << 20, 0),
                ("yandex", rb"PUT /upload-target", 3 << 20, 0),
                ("yandex", rb"POST /v1/disk/resources/move", 0, 1)):
            with self.subTest(kind, marker=marker), BadLine(place_of(servers[kind]), marker, after, times=0) as line:
                self.add(self.through(line, kind, servers[kind]), "--replace", "--slice-size", "20M", password=PASSWORD)
                line.times = 1
                self.assert_killed_and_well(line.failed.is_set, swept)

    def assert_cut(self, line, token, date):
        """An upload while the line is as it was made: once cut, it is repeated; always cut, it fails and
        leaves nothing under its name."""
        file, back = self.root / f"F{date}.{USER}.tgz", self.root / "back"
        file.write_bytes(self.dice.randbytes(200_000))
        once = line.times == 1
        line.failed.clear()
        done = run(["backup2_cp", "--put", file, "--no-delete"], BACKUP_TOKEN=token, **self.env)
        self.assertTrue(line.failed.is_set())
        line.times = 0
        self.assertEqual(done.returncode, 0 if once else 1, done.stderr)
        self.assertEqual(self.stored(date), [file.name] if once else [])
        if once:
            run(["backup2_cp", "--get", f"{USER}/{date}/{file.name}", back], BACKUP_TOKEN=token, **self.env)
            self.assertEqual(back.read_bytes(), file.read_bytes())
        else:
            self.assertRegex(done.stderr, f"storage .*{file.name}.*network")

    def test_connections_cut_at_every_place_of_an_upload(self):
        cuts = [(how, after, 1) for how in ("fin", "rst") for after in (0, 1, 64 << 10, 100_000, 199_999)]
        for kind, script, marker in (("s3", "s3_swift", rb"PUT "), ("dropbox", "dropbox", rb"POST /2/files/upload "),
                                     ("googledrive", "google_drive", rb"PUT [^ ]*upload_id="),
                                     ("yandex", "yandex", rb"PUT /upload-target")):
            there = self.serve(script)
            with BadLine(place_of(there), marker + rb"(?s:.*?)\r\n\r\n", times=0) as line:
                self.add(self.through(line, kind, there), "--replace")
                token = self.panel.ask(func="backup2.settings").findtext("storage")
                for day, (line.how, line.after, line.times) in enumerate([*cuts, ("rst", 100_000, 1000)], 1):
                    with self.subTest(kind, how=line.how, after=line.after, times=line.times):
                        self.assert_cut(line, token, f"2024-03-{day:02}")

    def test_programs_killed_in_the_middle_of_an_upload_to_a_server(self):
        slow, ssh = self.serve("pureftpd", FTP_RATE="150000"), self.serve("sshd")
        parts = lambda: list(pathlib.Path(slow["root"]).rglob("backup2-*.part"))
        self.add(ftp(slow, "store"), "--slice-size", "1M", password=PASSWORD)  # one slice, which takes seconds
        self.assert_killed_and_well(parts)
        self.assertEqual(parts(), [])
        held, cat = self.root / "held", pathlib.Path(ssh["remote_bin"]) / "cat"
        cat.write_text(f"#!/bin/sh\nhead -c 30000; touch {held}; while [ -e {held} ]; do sleep 0.05; done\n")
        cat.chmod(0o755)
        self.add(sftp(ssh, "store"), "--replace", "--slice-size", "256K", "--no-check", password=PASSWORD)
        self.change()
        self.kill_a_run(held.exists)
        held.unlink()
        cat.unlink()
        self.assertEqual(len(self.stored(MONDAY)), 1, "ssh has no way to give it a name at the end only")
        self.assert_recovers(TUESDAY)
        self.assertEqual(self.stored(MONDAY), [], "the half slice is gone")


if __name__ == "__main__":
    unittest.main()
