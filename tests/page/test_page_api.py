"""The JSON interface of the panel's page, as nobody should use it."""

import concurrent.futures
import json
import os
import pathlib
import signal
import socket
import ssl
import time
import unittest
import urllib.parse

from page.page_site import ANNA, BERT, MARK, MONDAY, PASSWORDS, PageCase


def read(path):
    """What /proc says of a process, "" when it has gone."""
    try:
        return path.read_text(errors="replace")
    except OSError:
        return ""


def receive(connection):
    """What comes next; b"" at the end, in whatever way it comes."""
    try:
        return connection.recv(65536)
    except OSError:
        return b""


class PageApi(PageCase):
    def test_one_user_gets_no_byte_of_another(self):
        cookie, token = self.log_in(ANNA)
        bert_cookie, bert_token = self.log_in(BERT)
        jobs = lambda: {one["id"] for one in json.loads(self.ask("GET", "/api/jobs", cookie=bert_cookie)[2])}
        before = jobs()
        job = json.loads(self.ask("POST", "/api/run", {"custom": True}, bert_cookie, X_CSRF_Token=bert_token)[2])["id"]
        names = [BERT, "%67ames", "games#", "games%00", "Games", "../games", "./games", "games/", "-games", " games",
                 "www-data#/../games", "*", "", "chief", "games#mail"]
        paths = ["/srv", "..", "../games/data", "data/../../games", "%2e%2e/games", "data%00x", "data//many", "/etc/passwd",
                 ".system/user.games", "data/%2e%2e/%2e%2e/games/data", "games"]
        requests = [("GET", f"/api/{page}?user={urllib.parse.quote(name, safe='%')}&date={date}", None)
                    for page in ("backups", "files", "reports", "storages", "jobs") for name in names for date in (MONDAY, "custom")]
        requests += [("GET", f"/api/files?user={urllib.parse.quote(name, safe='%')}&date={MONDAY}&folder={urllib.parse.quote(path, safe='%')}", None)
                     for name in names for path in paths]
        requests += [("POST", f"/api/reports/{form}", {"user": BERT}) for form in ("zebra-report", "zebra-report.xml", "./zebra-report", "%7aebra-report", "--json")]
        requests += [("GET", f"/api/files?date={MONDAY}&folder={urllib.parse.quote(path, safe='%')}&search={search}", None)
                     for path in paths for search in ("", "zebra", "/")]
        requests += [("POST", f"/api/{page}", {"user": name, "date": date, "what": "all", "overwrite": "always", "part": "1", "preview": True})
                     for page in ("run", "restore", "download", "storage-check", "verify", "pin") for name in names[:8] for date in (MONDAY, "../x")]
        requests += [("POST", "/api/restore", {"date": MONDAY, "what": "paths", "overwrite": "always", "preview": True, "paths": [path]}) for path in paths]
        requests += [("GET", f"/api/jobs/{form}", None) for form in (job, job.upper(), job + "/", "../jobs/" + job, job + "%00")]
        requests += [("GET", f"/api/{form}", None) for form in ("users", "backups?all=yes", "jobs?all=yes", "reports?all=yes", "../api/users", "%75sers", "users/", "files?all=yes")]
        requests += [("GET", form, None) for form in ("/assets/../../var/backup2_panel.db", "/assets/%2e%2e/store.cpp", "//etc/passwd", "/var/backup2_panel.db")]
        leaked = [body for method, path, values in requests
                 for status, headers, body in [self.ask(method, path, values, cookie, X_CSRF_Token=token)]
                 if MARK in body or b'"user":"games"' in body or b"SQLite" in body or b"root:" in body]
        self.assertEqual(leaked, [])
        self.assertGreater(len(requests), 450)
        for method, path in (("GET", f"/api/files?date={MONDAY}&search=zebra"), ("GET", "/api/reports"), ("POST", "/api/reports/zebra-report")):
            self.assertIn(MARK, self.ask(method, path, {} if method == "POST" else None, bert_cookie, X_CSRF_Token=bert_token)[2])
        self.assertEqual(jobs() - before, {job})  # nobody began anything for him

    def test_a_request_needs_cookie_token_origin_and_a_body_of_json(self):
        cookie, token = self.log_in(ANNA)
        good = {"cookie": cookie, "X_CSRF_Token": token}
        cases = [("no cookie", 401, {**good, "cookie": ""}), ("another's token", 403, {**good, "X_CSRF_Token": "0" * 64}),
                 ("no token", 403, {"cookie": cookie}), ("foreign origin", 403, {**good, "Origin": "https://evil.example"}),
                 ("foreign site", 403, {**good, "Sec_Fetch_Site": "cross-site"}), ("a form", 400, {**good, "Content_Type": "text/plain"}),
                 ("right", 200, {**good, "Origin": f"https://127.0.0.1:{self.site.port}", "Sec_Fetch_Site": "same-origin"})]
        for name, status, headers in cases:
            self.assertEqual(self.ask("POST", "/api/download", {"part": "1"}, **headers)[0], status, name)
        for body in ("", "[]", "{", "[" * 5000, '{"part": ["1"]}', b"\xff\xfe"):
            self.assertEqual(self.ask("POST", "/api/download", body, **good)[0], 400, body[:9])
        restore = {"date": MONDAY, "what": "files", "overwrite": "always", "preview": True}
        for other in ({"preview": "true"}, {"preview": 1}, {"user": [ANNA]}, {"user": None}, {"own": "no"}):
            self.assertEqual(self.ask("POST", "/api/restore", restore | other, **good)[0], 400, other)
        self.assertIn(self.ask("POST", "/api/download", "x" * 70000, **good)[0], (400, 413))
        self.assertEqual(self.ask("GET", "/api/download", **good)[0], 404)  # nothing that changes answers GET
        session = {"part": "1"}
        url = json.loads(self.ask("POST", "/api/download", session, **good)[2])["url"]
        stolen = urllib.parse.parse_qs(urllib.parse.urlparse(url).query)["auth"][0]
        self.assertEqual(self.ask("GET", "/api/backups", cookie=f"__Host-backup2={stolen}")[0], 401)
        self.assertEqual(self.ask("POST", "/api/logout", {}, **good)[0], 200)
        self.assertEqual(self.ask("GET", "/api/backups", cookie=cookie)[0], 401)

    def test_a_new_password_ends_the_sessions_of_the_old_one(self):
        cookie, _ = self.log_in("chief")
        self.site.tell("user", "password", "chief", secret="a new one")
        self.addCleanup(self.site.tell, "user", "password", "chief", secret=PASSWORDS["chief"])
        self.assertEqual(self.ask("GET", "/api/users", cookie=cookie)[0], 401)

    def test_every_answer_keeps_browsers_on_their_guard(self):
        for path in ("/", "/assets/app.js", "/api/session", "/api/nothing"):
            _, headers, _ = self.ask("GET", path)
            policy = headers["Content-Security-Policy"]
            self.assertIn("default-src 'none'", policy)
            self.assertIn("frame-ancestors 'none'", policy)
            self.assertNotIn("unsafe", policy)
            self.assertEqual(headers["X-Content-Type-Options"], "nosniff")
            self.assertEqual(headers["Referrer-Policy"], "no-referrer")
            self.assertEqual(headers["Cache-Control"], "no-store" if path.startswith("/api") else "no-cache")
        tag = self.ask("GET", "/")[1]["ETag"]
        self.assertEqual(self.ask("GET", "/", If_None_Match=tag)[0], 304)

    def test_a_request_without_end_is_cut_off(self):
        trust = ssl._create_unverified_context()
        post = b"POST /api/login HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n"
        cases = [(b"GET /", b"y" * 65536), (b"GET / HTTP/1.1\r\n", b"X: %s\r\n" % (b"y" * 1000) * 65), (post + b"\r\n", b"y" * 65536),
                 (post + b"Transfer-Encoding: chunked\r\n\r\n", b"10000\r\n" + b"y" * 65536 + b"\r\n")]
        for head, more in cases:
            with self.subTest(head), socket.create_connection(("127.0.0.1", self.site.port), 60) as plain, \
                    trust.wrap_socket(plain) as connection, self.assertRaises(OSError):
                connection.sendall(head)
                for _ in range(512):  # 32 MiB
                    connection.sendall(more)
        self.log_in(BERT)

    def test_nothing_behind_an_odd_body_counts_as_a_request(self):
        trust = ssl._create_unverified_context()
        hidden = b"GET /api/session HTTP/1.1\r\nHost: x\r\n\r\n"
        length = b"Content-Length: %d\r\n" % len(hidden)
        for method, head in ((b"POST", b"Transfer-Encoding: chunked\r\n" + length), (b"GET", length), (b"POST", b"Content-Length: 0\r\n" + length),
                             (b"POST", b"Content-Length: 70000\r\n"), (b"POST", b"Content-Encoding: gzip\r\n" + length)):
            with self.subTest(head), socket.create_connection(("127.0.0.1", self.site.port), 60) as plain, trust.wrap_socket(plain) as connection:
                connection.sendall(method + b" /api/session HTTP/1.1\r\nHost: x\r\n" + head + b"\r\n" + hidden)
                said = b"".join(iter(lambda: receive(connection), b""))
                self.assertLessEqual(said.count(b"HTTP/1.1 "), 1, said)

    def test_guessing_a_password_ends_soon_and_for_this_name_only(self):
        self.site.tell("user", "add", "victim", "--root", "/srv/victim", "--uid", "1999", secret="x")
        guess = lambda password: self.ask("POST", "/api/login", {"user": "victim", "password": password})[0]
        self.assertEqual([guess(password) for password in ["x\0y", "\0", "", "X", "x ", "x", "x"]], [401] * 5 + [429] * 2)
        self.assertEqual(self.ask("POST", "/api/login", {"user": "victim", "password": "x"})[0], 429)
        # Another name that only reads like this one at that address; many tries at once.
        form = {"Content_Type": "application/x-www-form-urlencoded"}
        sign_in = lambda name: self.ask("POST", "/", urllib.parse.urlencode({"func": "auth", "username": name, "password": "x"}), **form)[2]
        for _ in range(6):
            sign_in(BERT + "\n127.0.0.1")
        self.log_in(BERT)
        with concurrent.futures.ThreadPoolExecutor(20) as crowd:
            answers = list(crowd.map(sign_in, ["another"] * 40))
        self.assertEqual(sum(b'"refused"' in answer for answer in answers), 5)

    def test_a_user_has_nothing_of_a_former_one_of_his_name(self):
        name, home = "backup", self.site.root / "www/backup"  # an account that every Debian has
        add = lambda uid, password: self.site.tell("user", "add", name, "--root", str(home), "--uid", uid, secret=password)
        sign_in = lambda password: self.ask("POST", "/api/login", {"user": name, "password": password})
        (home / "data").mkdir(parents=True)
        (home / "data/zebra.txt").write_bytes(MARK)
        for path in (home, home / "data", home / "data/zebra.txt"):
            os.chown(path, 34, 34)
        add("34", "the former's")
        self.addCleanup(self.site.tell, "user", "remove", name)
        self.site.backup2("run", name, "--date", MONDAY)
        self.site.backup2("restore", name, MONDAY, "--yes", "--report", "former")
        _, headers, body = sign_in("the former's")
        former = {"cookie": headers["Set-Cookie"].split(";")[0], "X_CSRF_Token": json.loads(body)["csrf"]}
        self.assertEqual(len(json.loads(self.ask("GET", "/api/backups", **former)[2])["backups"]), 1)
        download = json.loads(self.ask("POST", "/api/download", {"part": "1"}, **former)[2])["url"]
        preview = {"date": MONDAY, "what": "files", "overwrite": "always", "preview": True}
        job = json.loads(self.ask("POST", "/api/restore", preview, **former)[2])["id"]
        self.wait_for_job(job, former["cookie"])
        self.site.tell("user", "remove", name)
        (home / "data/zebra.txt").unlink()
        add("4712", "the new one's")
        self.assertEqual(self.ask("GET", "/api/backups", **former)[0], 401)
        self.assertEqual(self.ask("GET", download)[0], 403)
        _, headers, body = sign_in("the new one's")
        new = {"cookie": headers["Set-Cookie"].split(";")[0], "X_CSRF_Token": json.loads(body)["csrf"]}
        self.assertEqual(json.loads(self.ask("GET", "/api/backups", **new)[2])["backups"], [])
        for page in ("reports", "jobs"):
            self.assertEqual(json.loads(self.ask("GET", f"/api/{page}", **new)[2]), [])
        for method, page, status in (("GET", f"files?date={MONDAY}", 422), ("POST", "reports/former", 404), ("GET", f"jobs/{job}", 404)):
            self.assertEqual(self.ask(method, f"/api/{page}", {} if method == "POST" else None, **new)[0], status, page)
        restore = json.loads(self.ask("POST", "/api/restore", {**preview, "preview": False}, **new)[2])["id"]
        self.assertEqual(self.wait_for_job(restore, new["cookie"])["status"], 1)
        self.assertEqual(list((home / "data").iterdir()), [])

    def wait_for_job(self, job, cookie):
        while (state := json.loads(self.ask("GET", f"/api/jobs/{job}", cookie=cookie)[2]))["running"]:
            time.sleep(0.1)
        return state

    def test_a_user_has_one_job_at_a_time(self):
        cookie, token = self.log_in(ANNA)
        post = lambda page, body: self.ask("POST", f"/api/{page}", body, cookie, X_CSRF_Token=token)
        self.site.hold.touch()  # keeps the first one at work
        try:
            status, _, body = post("run", {"custom": True})
            self.assertEqual(status, 200, body)
            restore = {"date": MONDAY, "what": "all", "overwrite": "always", "preview": True}
            self.assertEqual([post(*job)[0] for job in (("run", {}), ("restore", restore), ("storage-check", {}))], [409] * 3)
        finally:
            self.site.hold.unlink()
        job = json.loads(body)["id"]
        self.wait_for_job(job, cookie)
        self.assertEqual(post("restore", restore)[0], 200)

    def test_a_job_goes_on_while_the_panel_is_away_and_is_found_again(self):
        self.site.hold.touch()
        begun = {}
        for user, end in ((ANNA, "finished"), (BERT, "killed")):
            cookie, token = self.log_in(user)
            begun[end] = json.loads(self.ask("POST", "/api/run", {"custom": True}, cookie, X_CSRF_Token=token)[2])["id"]
        self.site.restart_panel()
        keeper = lambda job: [path.parent.name for path in pathlib.Path("/proc").glob("[0-9]*/cmdline") if job in read(path)]
        os.kill(int(keeper(begun["killed"])[0]), signal.SIGKILL)
        cookie, token = self.log_in(ANNA)
        self.assertEqual([one["running"] for one in json.loads(self.ask("GET", "/api/jobs", cookie=cookie)[2]) if one["id"] == begun["finished"]], [True])
        self.assertEqual(self.ask("POST", "/api/run", {}, cookie, X_CSRF_Token=token)[0], 409)
        self.site.restart_panel(lambda: [self.site.hold.unlink(), time.sleep(1)])  # it goes on, and looks for the panel
        cookie, _ = self.log_in(ANNA)
        state = self.wait_for_job(begun["finished"], cookie)
        self.assertEqual((state["status"], state["kind"], state["user"]), (0, "run", ANNA), state)
        self.assertIn("custom backup", state["lines"][0])
        state = self.wait_for_job(begun["killed"], self.log_in(BERT)[0])
        self.assertEqual((state["status"], state["lines"]), (1, ["broken off: the machine or the program was stopped"]))

    def test_two_addresses_cannot_keep_others_out(self):
        silent = []
        self.addCleanup(lambda: [one.close() for one in silent])
        for number in range(400):  # more than there are threads
            one = socket.create_connection(("127.0.0.1", self.site.port), 60, (f"127.0.0.{2 + number % 2}", 0))
            silent.append(one)
        self.log_in(BERT)


if __name__ == "__main__":
    unittest.main()
