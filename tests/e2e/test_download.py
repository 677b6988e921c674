"""Downloads of the newest backup through the panel's door: the right bytes, all of them, to their owner only."""

import itertools
import os
import pathlib
import random
import re
import shutil
import subprocess
import tempfile
import unittest
import urllib.parse
import xml.etree.ElementTree

from backup2_test import exchange, run, tree_state
from panel import TlsPanel, UnixConnection
from storage_case import MONDAY, PASSWORD, TUESDAY, USER, WEDNESDAY, StorageCase, ftp, sftp

NEXT_WEEK = "2024-03-11"
OTHER = "games"
DOWNLOAD = "/velcgi/backup2_download"
LOCAL = lambda case: (["--type", "local", "--path", str(case.root / "store")], [])


class DownloadCase(StorageCase):
    def setUp(self):
        super().setUp()
        self.panel.stop()
        self.panel = self.enterContext(TlsPanel(self.root))
        self.panel.command("user add root --admin --uid 0", "the administrator's")
        self.admin = self.panel.session("root", "the administrator's")
        self.sessions = set()

    def session(self, user=USER):
        """A new one, the way another panel gets it; asking for a password each time would take minutes."""
        key = random.randbytes(16).hex()
        self.panel.ask(func="session.newkey", auth=self.admin, username=user, key=key)
        opened = self.panel.ask(func="auth", auth=self.admin, username=user, key=key)
        self.sessions.add(opened.find("auth").get("id"))
        return opened.find("auth").get("id")

    def get(self, query="", method="GET", body=None, connection=None, auth=None, **headers):
        """Status (0: the connection was cut), headers and body; with a fresh session unless `auth` says which."""
        connection = connection or self.panel.connect()
        auth = self.session() if auth is None else auth
        words = "&".join(word for word in (f"auth={auth}" if auth else "", query) if word)
        if method == "POST":
            return exchange(connection, method, DOWNLOAD, words, Content_Type="application/x-www-form-urlencoded")
        return exchange(connection, method, f"{DOWNLOAD}?{words}", **headers)

    def check(self, query="", auth=None):
        """What the check request says."""
        status, _, body = self.get("nodownload=on&" + query, "POST", auth=auth)
        self.assertEqual(status, 200)
        self.assertLess(len(body), 1024)
        return xml.etree.ElementTree.fromstring(body).findtext("status")

    def plain(self, mark, date, password=PASSWORD):
        """The archive as openssl alone brings it back from the local storage."""
        paths = sorted((self.root / "store" / USER / date).glob(f"{mark}*"),
                       key=lambda path: int(re.sub(r".*\.part", "", path.name)))
        read = ["openssl", "enc", "-d", "-aes-256-cbc", "-pass", "env:P"] if password else ["cat"]
        return b"".join(subprocess.run(read, input=path.read_bytes(), capture_output=True, check=True,
                                       env={**os.environ, "P": password or ""}).stdout for path in paths)

    def run_backups(self, storage, days, password=PASSWORD):
        self.add(storage, "--replace", "--slice-size", "64K", password=password)
        for date in days:
            self.state = self.change()
            self.backup2("run", USER, "--date", date)

    def assert_no_secret_is_logged(self):
        log = (self.root / "var/qorvel.log").read_text()
        for secret in self.secrets | self.sessions:
            self.assertNotIn(secret, log)


class Downloads(DownloadCase):
    def test_both_parts_and_the_listing_are_what_was_saved(self):
        self.run_backups(LOCAL(self), (MONDAY, TUESDAY))
        self.assertEqual(self.check(), "ok")
        got = {}
        for part, name in (("1", f"F{MONDAY}.{USER}.tgz"), ("2", f"I{TUESDAY}.{USER}.tgz"),
                           ("listing", f"listing-{TUESDAY}.{USER}.tgz")):
            status, headers, got[part] = self.get("part=" + part)
            self.assertEqual((status, headers["Content-Disposition"], headers["Content-Length"]),
                             (200, f'attachment; filename="{name}"', str(len(got[part]))))
        self.assertEqual(got["1"], self.plain("F", MONDAY))
        self.assertEqual(got["2"], self.plain("I", TUESDAY))
        self.assertEqual(self.get()[2], got["1"])
        self.assertEqual(self.get("part=1", "POST")[2], got["1"])
        self.assertEqual(self.get(connection=UnixConnection(self.panel.socket))[2], got["1"])
        self.assert_downloads_restore(got)
        self.assert_no_secret_is_logged()

    def assert_downloads_restore(self, got):
        with tempfile.TemporaryDirectory(dir=self.root) as work:
            names = {"1": f"F{MONDAY}.{USER}.tgz", "2": f"I{TUESDAY}.{USER}.tgz", "listing": "listing.tgz"}
            for part, name in names.items():
                pathlib.Path(work, name).write_bytes(got[part])
            done = run(["qortar", "--extract", f"{work}/{names['2']}", "--base-archive", f"{work}/{names['1']}",
                        "--listing", f"{work}/listing.tgz", "--root", f"{work}/out"])
            self.assertEqual(done.returncode, 0, done.stderr)
            shutil.rmtree(f"{work}/out/.system", ignore_errors=True)
            self.assertEqual(tree_state(f"{work}/out"), self.state)

    def test_ranges_and_resuming(self):
        self.run_backups(LOCAL(self), (MONDAY,))
        whole = self.plain("F", MONDAY)
        size, (_, headers, _) = len(whole), self.get(method="HEAD")
        tag = headers["ETag"]
        self.assertRegex(tag, '^"[0-9a-f]{32}"$')
        self.assertEqual((headers["Accept-Ranges"], headers["Content-Length"]), ("bytes", str(size)))
        for range_, if_range, first, last in (
                ("bytes=0-0", "", 0, 0), ("bytes=1-", "", 1, size - 1), ("bytes=-1", "", size - 1, size - 1),
                (f"bytes={size - 1}-", "", size - 1, size - 1), (f"bytes=-{size + 5}", "", 0, size - 1),
                (f"bytes=5-{size + 5}", "", 5, size - 1), ("bytes=65535-65536", "", 65535, 65536),
                ("bytes=65536-131071", tag, 65536, 131071), ("bytes=100000-200000", tag, 100000, 200000)):
            with self.subTest(range_):
                status, headers, body = self.get(Range=range_, **({"If_Range": if_range} if if_range else {}))
                self.assertEqual((status, headers["Content-Range"], headers["ETag"]),
                                 (206, f"bytes {first}-{last}/{size}", tag))
                self.assertEqual(body, whole[first:last + 1])
        for range_ in ("bytes=0-1,5-6", "bytes=5-2", "bytes=x-", "lines=0-1"):
            self.assertEqual(self.get(Range=range_)[0::2], (200, whole), range_)
        for range_ in (f"bytes={size}-", f"bytes={'9' * 18}-", "bytes=-0"):
            status, headers, body = self.get(Range=range_)
            self.assertEqual((status, body), (416, b""), range_)
            self.assertEqual(headers["Content-Range"], f"bytes */{size}")
        for if_range in ('"another"', "W/" + tag, "Mon, 04 Mar 2024 00:00:00 GMT"):
            status, _, body = self.get(Range="bytes=7-", If_Range=if_range)
            self.assertEqual((status, body), (200, whole), if_range)
        (self.home / "data/a").write_text("other content")
        self.backup2("run", USER, "--date", NEXT_WEEK)
        status, _, body = self.get(Range="bytes=7-", If_Range=tag)
        self.assertEqual((status, body), (200, self.plain("F", NEXT_WEEK)))

    def test_a_session_serves_one_request(self):
        self.run_backups(LOCAL(self), (MONDAY,))
        for use in (lambda auth: self.get(auth=auth), lambda auth: self.get(method="HEAD", auth=auth),
                    lambda auth: self.check(auth=auth), lambda auth: self.get("part=2", auth=auth)):
            auth = self.session()
            use(auth)
            self.assertEqual(self.get(auth=auth)[0], 403)
            self.assertEqual(self.check(auth=auth), "ERR auth")
        auth = self.session()
        self.get("auth=" + auth, auth=auth)  # refused before it is looked at
        self.assertEqual(self.get(auth=auth)[0], 200)
        for query in ("part=3", "part=1&part=1", "nodownload=on", "part=%00"):  # programs read what a check says
            self.assertEqual(self.check(query, auth=auth), "ERR request")
        self.panel.command("lock")
        auth = "0" * 32
        self.assertEqual((self.get(auth=auth)[0], self.check(auth=auth)), (503, "ERR locked"))

    def test_the_newest_complete_backup_is_served_and_no_other(self):
        self.run_backups(LOCAL(self), (MONDAY, TUESDAY, WEDNESDAY))
        info = lambda date: self.local / USER / date / f"{date}.{USER}.info"
        one_second = lambda text: re.sub("^(created|finished)=.*", r"\1=2024-03-06 01:00:00", text, flags=re.M)
        kept = {date: one_second(info(date).read_text()) for date in (MONDAY, TUESDAY, WEDNESDAY)}
        for date, text in kept.items():
            info(date).write_text(text)
        cut = lambda pattern, by="": lambda text: re.sub(pattern, by, text, flags=re.M)
        cases = [cut("^finished=.*\n"), cut("^slice.2=.*\n"), cut("^parts=.*", "parts=1"), lambda text: "deleted=now\n" + text,
                 cut("^user=.*", f"user={OTHER}"), cut("^uid=.*", "uid=99"), cut(f"I{WEDNESDAY}", f"I{TUESDAY}"),
                 cut(f"{USER}/{WEDNESDAY}/I{WEDNESDAY}.{USER}", f"{OTHER}/{WEDNESDAY}/I{WEDNESDAY}.{OTHER}"),
                 cut("^base=.*", f"base=F{MONDAY}.{OTHER}.tgz"), cut("^base=.*", "base=../../etc/passwd"),
                 cut("^slice.1=.*", "slice.1=x"), cut("^type=.*", "type=full"), lambda _: "", lambda _: "\0\xff"]
        for change in cases:
            with self.subTest(change(kept[WEDNESDAY])):
                info(WEDNESDAY).write_text(change(kept[WEDNESDAY]))
                self.assertEqual(self.get("part=2")[2], self.plain("I", TUESDAY))
        info(WEDNESDAY).write_text(kept[WEDNESDAY])
        self.assertEqual(self.get("part=2")[2], self.plain("I", WEDNESDAY))
        info(MONDAY).write_text("deleted=now\n" + kept[MONDAY])  # a base stays one
        self.assertEqual(self.get()[2], self.plain("F", MONDAY))
        info(MONDAY).unlink()
        self.assertEqual((self.get()[0], self.check()), (404, "ERR missed"))
        info(MONDAY).write_text(kept[MONDAY])
        self.backup2("run", USER, "--custom")
        self.assertEqual(self.get()[2], self.plain("C", "custom"))
        self.assertEqual((self.get("part=2")[0], self.check("part=2")), (404, "ERR part"))

    def test_damage_never_ends_well(self):
        self.run_backups(LOCAL(self), (MONDAY,))
        whole = self.plain("F", MONDAY)
        slices = sorted((self.root / "store" / USER / MONDAY).glob("F*"))
        victim = slices[2]
        good = victim.read_bytes()
        flipped = good[:3000] + bytes([good[3000] ^ 1]) + good[3001:]
        for damage in (flipped, good[:-16], good[:-1], good[:64], good + b"x" * 16, good[:16]):
            victim.unlink()
            victim.write_bytes(damage)
            status, _, body = self.get()
            self.assertEqual(status, 0)
            self.assertLess(len(body), 3 * 65536)
            self.assertEqual(body[:131072], whole[:131072])
            self.assertEqual(self.get(Range="bytes=0-131071")[2], whole[:131072])
            status, _, body = self.get(Range="bytes=131072-131090")  # what is asked for is not what is damaged
            self.assertNotEqual(status, 206)
        victim.unlink()
        status, _, body = self.get()
        self.assertEqual((status, self.check()), (502, "ERR failed"))
        self.assertIn(b"error_type=backup2_create_download", body)
        self.assertNotIn(str(self.root).encode(), body)

    def test_another_password_is_told_as_such(self):
        self.run_backups(LOCAL(self), (MONDAY,))
        token = self.panel.ask(func="backup2.settings").findtext("storage")
        for changed in (re.sub("arch_password=[^;]*", "arch_password=b3RoZXI=", token),
                        re.sub("arch_password=[^;]*;", "", token)):
            self.panel.command("storage set", changed)
            status, _, body = self.get()
            self.assertEqual((status, self.check()), (409, "ERR backup2_invalid_password"))
            self.assertIn(b"error_type=backup2_invalid_password", body)

    def test_storages_elsewhere(self):
        ssh, server = self.serve("sshd"), self.serve("pureftpd")
        for storage, password in ((sftp(ssh, "a store"), PASSWORD), (sftp(ssh, "plain", key="key_pem"), None),
                                  (ftp(server, "a store"), PASSWORD)):
            with self.subTest(storage[0][1]):
                self.run_backups(storage, (MONDAY, TUESDAY), password)
                status, _, full = self.get()
                self.assertEqual(status, 200)
                for path in self.local.glob(f"{USER}/{TUESDAY}/*.tgz"):
                    path.unlink()  # the listing comes from the storage
                self.assert_downloads_restore({"1": full, "2": self.get("part=2")[2], "listing": self.get("part=listing")[2]})
                for date in (TUESDAY, MONDAY):
                    self.backup2("delete", USER, date)
        self.assertEqual(list((self.root / "tmp").glob("*")), [])
        self.assert_no_secret_is_logged()


# ---- Nobody reaches what is another's -----------------------------------------------------------

def forms(word):
    """A word in the forms by which filters are passed."""
    yield word
    yield "".join(f"%{ord(c):02x}" for c in word)
    yield word.replace("/", "%2f").replace(".", "%2e")
    yield word.replace("/", "//")
    yield word + "%00"
    yield "%00" + word
    yield word + "%23"
    yield "..%2f" * 6 + word
    yield "./" + word
    yield word.upper()
    yield word + "%0d%0aX-User:%20" + word
    yield "%252e%252e%252f" + word


class Isolation(DownloadCase):
    def setUp(self):
        super().setUp()
        home = self.root / "other"
        (home / "data").mkdir(parents=True)
        (home / "data/secret").write_bytes(random.Random(3).randbytes(50_000))
        self.panel.command(["user", "add", OTHER, "--root", str(home)])
        self.run_backups(LOCAL(self), (MONDAY, TUESDAY))
        for date in (MONDAY, TUESDAY):
            self.backup2("run", OTHER, "--date", date)
        self.theirs = [self.get("part=" + part, auth=self.session(OTHER))[2]
                       for part in ("1", "2", "listing")]
        self.assertTrue(all(len(content) > 100 for content in self.theirs))

    def words(self):
        yield from (OTHER, f"{OTHER}/{TUESDAY}/I{TUESDAY}.{OTHER}.tgz.aes.part1", f"F{MONDAY}.{OTHER}.tgz",
                    f"{MONDAY}.{OTHER}.info", str(self.local / OTHER / MONDAY / f"{MONDAY}.{OTHER}.tgz"),
                    f"{OTHER}#", f"{USER}/../{OTHER}")

    def requests(self):
        """Method, target or form, headers. AUTH stands for a fresh session of the first user."""
        names = ("user", "username", "elid", "name", "file", "path", "date", "role", "su", "part", "id", "func")
        words = [form for word in self.words() for form in forms(word)]
        dice = random.Random(4)
        for word, name in itertools.chain(zip(words, itertools.cycle(names)), zip(words, itertools.cycle(names[5:]))):
            yield "GET", f"{DOWNLOAD}?auth=AUTH&{name}={word}", None
            yield dice.choice(("GET", "HEAD")), f"{DOWNLOAD}?{name}={word}&auth=AUTH&part=2", None
            yield "POST", DOWNLOAD, f"{name}={word}&auth=AUTH"
        for word in words:
            yield "GET", f"{DOWNLOAD}/{word}?auth=AUTH", None
            yield "GET", f"/velcgi/{word}?auth=AUTH", None
        for auth in ("0" * 32, "AUTH&auth=" + "0" * 32, "AUTH%00", "AUTH#" + OTHER, "AUTH;user=" + OTHER, OTHER, "",
                     "AUTH%0d%0aREMOTE_USER:" + OTHER, "AUTH&&user=" + OTHER, "%27%20OR%201=1", "AUTH+", "aUTH"):
            for method in ("GET", "POST", "HEAD"):
                yield method, f"{DOWNLOAD}?auth={auth}", f"auth={auth}" if method == "POST" else None
                yield method, f"{DOWNLOAD}?nodownload=on&auth={auth}", None

    def test_500_requests_give_not_a_byte_of_another_users_backup(self):
        mine = {part: self.get("part=" + part)[2] for part in ("1", "2", "listing")}
        count = 0
        for method, target, body in self.requests():
            auth, count = self.session(), count + 1
            target, body = target.replace("AUTH", auth), body and body.replace("AUTH", auth)
            headers = {"Content-Type": "application/x-www-form-urlencoded"} if method == "POST" else {}
            if count % 3 == 0:
                headers.update({"X-User": OTHER, "REMOTE_USER": OTHER, "Cookie": f"user={OTHER}",
                                "X-Original-URL": f"/{OTHER}", "Range": "bytes=0-99"})
            connection = self.panel.connect()
            connection.putrequest(method, urllib.parse.quote(target, safe="/%?&=#:;.,+-_~$!*'()@[]"), skip_host=False)
            for name, value in headers.items():
                connection.putheader(name, value)
            connection.putheader("Content-Length", str(len(body or "")))
            connection.endheaders((body or "").encode())
            answer = connection.getresponse()
            with self.subTest(method=method, target=target, body=body):
                self.judge(answer.status, answer.headers, answer.read(), mine)
            connection.close()
        self.assertGreaterEqual(count, 500)
        self.assert_no_secret_is_logged()

    def judge(self, status, headers, body, mine):
        self.assertNotIn(OTHER, str(headers))
        if status == 200 and headers["Content-Type"] == "application/gzip" and body:
            self.assertIn(body, mine.values())
        elif status == 206:
            self.assertIn(body, [content[:100] for content in mine.values()])
        else:
            self.assertNotIn(body[:16] or b"nothing that is theirs", b"".join(self.theirs))
            self.assertLess(len(body), 2048)


if __name__ == "__main__":
    unittest.main()
