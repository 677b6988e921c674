"""The panel's page: in Chromium as people use it (page.mjs), and its JSON interface as nobody should."""

import contextlib
import http.client
import itertools
import json
import os
import pathlib
import shutil
import ssl
import subprocess
import unittest
import urllib.parse

import backup2_test
from backup2_test import local_token, run

HERE = pathlib.Path(__file__).parent
SERVERS = HERE.parent / "servers"
ANNA, BERT = "www-data", "games"  # accounts that every Debian has
PASSWORDS = {ANNA: "anna's pass'word <&>", BERT: "bert's own", "chief": "the chief's"}
MONDAY, TUESDAY = "2024-03-04", "2024-03-05"
SHOTS = os.environ.get("BACKUP2_PAGE_SHOTS")  # a folder for pictures of the page
MARK = b"zebra"  # in every name and every byte of Bert's, and nowhere else

# Names that a page must neither interpret nor lose.
FILES = {
    b"index.html": b"<h1>home</h1>\n" * 40,
    b"invoices/2024/invoice 17.txt": b"seventeen\n",
    b"invoices/2024/Invoice 18.txt": b"eighteen\n",
    b"photos/a.jpg": bytes(range(256)) * 900,
    b"odd/<img src=x onerror=alert(1)>.txt": b"markup\n",
    b"odd/-rf": b"option\n",
    b"odd/[x]": b"brackets\n",
    b"odd/new\nline": b"line\n",
    b"odd/b\xffyte": b"not UTF-8\n",
    b"odd/50%2F#?&+ .txt": b"address\n",
}


def node_packages():
    """Brings what package-lock.json names when it is not there."""
    wanted, there = HERE / "package-lock.json", HERE / "node_modules/.package-lock.json"
    if not there.exists() or there.stat().st_mtime < wanted.stat().st_mtime:
        subprocess.run(["npm", "ci", "--prefer-offline", "--ignore-scripts", "--no-audit", "--no-fund"],
                       cwd=HERE, check=True, capture_output=True)
        there.touch()


class Site:
    """An install root with a panel on TLS, three log-ins and a few backups."""

    def __init__(self, stack):
        self.root = stack.enter_context(backup2_test.install_root())
        self.root.chmod(0o711)  # the database server is another account
        for place in ("store", "own"):
            (self.root / place).mkdir()
        self.tell("storage", "set", "--slice-size", "1M", secret=local_token(self.root / "store", "pass"))
        self.homes = {name: self.root / "www" / name for name in (ANNA, BERT)}
        for name, home in self.homes.items():
            (home / "data").mkdir(parents=True)
            self.tell("user", "add", name, "--root", str(home), secret=PASSWORDS[name])
        self.tell("storage", "set", "--user", ANNA, secret=local_token(self.root / "own"))
        self.tell("user", "add", "chief", "--admin", "--uid", "0", secret=PASSWORDS["chief"])
        self.add_database(self.serve(stack, "mariadb"))
        self.hold = self.slow_openssl()
        settings = self.serve(stack, "panel")
        self.url, self.port = settings["url"], int(settings["port"])
        self.fill()

    def server(self, name, verb):
        path = f"{self.root / 'bin'}:{os.environ['PATH']}"
        done = subprocess.run([SERVERS / name, verb, self.root / name], check=True, capture_output=True, text=True,
                              env=backup2_test.environment(PATH=path))
        return dict(line.split("=", 1) for line in done.stdout.splitlines() if "=" in line)

    def serve(self, stack, name):
        stack.callback(self.server, name, "stop")
        return self.server(name, "start")

    def add_database(self, settings):
        self.mariadb = ["mariadb", f"--defaults-file={settings['options']}", "-N", "-e"]
        subprocess.run([*self.mariadb, "CREATE DATABASE shop; CREATE TABLE shop.orders (name TEXT); "
                        "INSERT INTO shop.orders VALUES ('first'), ('second');"], check=True)
        self.tell("server", "add", "main", "--type", "mysql", "--socket", settings["socket"],
                  "--login", settings["login"], secret=settings["password"])
        self.tell("db", "add", ANNA, "main", "shop")

    def slow_openssl(self):
        """A program of this name, by which slices are encrypted, waits while the file is there."""
        hold, program = self.root / "hold", self.root / "bin/openssl"
        program.parent.mkdir()
        program.write_text(f"#!/bin/sh\nfor i in $(seq 300); do [ -e {hold} ] || break; sleep 0.1; done\n"
                           f'exec {shutil.which("openssl")} "$@"\n')
        program.chmod(0o755)
        return hold

    def tell(self, *words, secret=""):
        done = run(["backup2_panel", *words], stdin=secret)
        assert done.returncode == 0, done.stderr

    def backup2(self, *words):
        done = run(["backup2", *words])
        assert done.returncode == 0, (words, done.stdout)
        return done.stdout

    def write(self, user, name, content):
        path = os.fsencode(self.homes[user] / "data") + b"/" + name
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(content)

    def fill(self):
        for name, content in FILES.items():
            self.write(ANNA, name, content)
        for number in range(230):  # more than one page of the tree
            self.write(ANNA, b"many/file %03d" % number, b"%d" % number)
        self.write(BERT, b"zebra/zebra.txt", MARK * 1000)
        for name, home in self.homes.items():
            subprocess.run(["chown", "-R", f"{name}:{name}", home], check=True)
        if SHOTS:
            self.fill_past()
        self.backup2("run", ANNA, "--date", MONDAY)
        self.write(ANNA, b"later.txt", b"made on Tuesday\n")
        os.remove(self.homes[ANNA] / "data/index.html")
        self.backup2("run", ANNA, "--date", TUESDAY)
        self.backup2("run", BERT, "--date", MONDAY)
        self.backup2("verify", ANNA, MONDAY)


    def fill_past(self):
        """Two weeks of days, for pictures that look like life."""
        for number, day in enumerate((f"2024-02-{n}" for n in range(18, 30))):
            self.write(ANNA, b"photos/%02d.jpg" % number, os.urandom((400 << 10) + number * (90 << 10)))
            self.backup2("run", ANNA, "--date", day)
        self.backup2("verify", ANNA, "2024-02-25", "--deep")


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class Page(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        stack = contextlib.ExitStack()
        cls.addClassCleanup(stack.close)
        cls.site = Site(stack)

    # ---- In the browser -------------------------------------------------------------------------

    def test_people_find_restore_and_fetch_their_files(self):
        node_packages()
        shots = SHOTS or str(self.site.root / "shots")
        os.makedirs(shots, exist_ok=True)
        facts = {"url": self.site.url, "anna": ANNA, "bert": BERT, "passwords": PASSWORDS, "shots": shots,
                 "monday": MONDAY, "tuesday": TUESDAY, "home": str(self.site.homes[ANNA]),
                 "hold": str(self.site.hold), "mariadb": self.site.mariadb, "chromium": shutil.which("chromium")}
        done = subprocess.run(["node", HERE / "page.mjs"], input=json.dumps(facts), text=True, capture_output=True,
                              timeout=300, check=False, env=backup2_test.environment(HOME=str(self.site.root)))
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    # ---- Without one ----------------------------------------------------------------------------

    def ask(self, method, path, body=None, cookie="", **headers):
        """Status, headers and body."""
        trust = ssl._create_unverified_context()
        connection = http.client.HTTPSConnection("127.0.0.1", self.site.port, context=trust, timeout=60)
        headers = {name.replace("_", "-"): value for name, value in headers.items()}
        if cookie:
            headers["Cookie"] = cookie
        if body is not None:
            headers.setdefault("Content-Type", "application/json")
            body = body if isinstance(body, (str, bytes)) else json.dumps(body)
        try:
            connection.request(method, path, body, headers)
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def log_in(self, user):
        status, headers, body = self.ask("POST", "/api/login", {"user": user, "password": PASSWORDS[user]})
        self.assertEqual(status, 200, body)
        cookie = headers["Set-Cookie"]
        for rule in ("__Host-", "; Secure", "; HttpOnly", "; SameSite=Strict", "; Path=/"):
            self.assertIn(rule, cookie)
        return cookie.split(";")[0], json.loads(body)["csrf"]

    def test_one_user_gets_no_byte_of_another(self):
        cookie, token = self.log_in(ANNA)
        bert_cookie, bert_token = self.log_in(BERT)
        job = json.loads(self.ask("POST", "/api/run", {"custom": True}, bert_cookie, X_CSRF_Token=bert_token)[2])["id"]
        names = [BERT, "%67ames", "games#", "games%00", "Games", "../games", "./games", "games/", "-games", " games",
                 "www-data#/../games", "*", "", "chief", "games#mail"]
        paths = ["/srv", "..", "../games/data", "data/../../games", "%2e%2e/games", "data%00x", "data//many", "/etc/passwd",
                 ".system/user.games", "data/%2e%2e/%2e%2e/games/data", "games"]
        requests = [("GET", f"/api/{page}?user={urllib.parse.quote(name, safe='%')}&date={date}", None)
                    for page in ("backups", "files", "reports", "storages", "jobs") for name in names for date in (MONDAY, "custom")]
        requests += [("GET", f"/api/files?date={MONDAY}&folder={urllib.parse.quote(path, safe='%')}&search={search}", None)
                     for path in paths for search in ("", "zebra", "/")]
        requests += [("POST", f"/api/{page}", {"user": name, "date": date, "what": "all", "overwrite": "always", "part": "1", "preview": True})
                     for page in ("run", "restore", "download", "storage-check", "verify", "pin") for name in names[:8] for date in (MONDAY, "../x")]
        requests += [("POST", "/api/restore", {"date": MONDAY, "what": "paths", "overwrite": "always", "preview": True, "paths": [path]}) for path in paths]
        requests += [("GET", f"/api/jobs/{form}", None) for form in (job, job.upper(), job + "/", "../jobs/" + job, job + "%00")]
        requests += [("GET", f"/api/{form}", None) for form in ("users", "backups?all=yes", "jobs?all=yes", "reports?all=yes", "../api/users", "%75sers", "users/", "files?all=yes")]
        requests += [("GET", form, None) for form in ("/assets/../../var/backup2_panel.db", "/assets/%2e%2e/store.cpp", "//etc/passwd", "/var/backup2_panel.db")]
        begun = [body for method, path, values in requests
                 for status, headers, body in [self.ask(method, path, values, cookie, X_CSRF_Token=token)]
                 if MARK in body or b'"user":"games"' in body or b"SQLite" in body or b"root:" in body]
        self.assertEqual(begun, [])
        self.assertGreater(len(requests), 300)
        jobs = json.loads(self.ask("GET", "/api/jobs", cookie=bert_cookie)[2])
        self.assertEqual([one["id"] for one in jobs], [job])  # nobody began anything for him

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

    def test_guessing_a_password_ends_soon_and_for_this_name_only(self):
        self.site.tell("user", "add", "victim", "--root", "/srv/victim", "--uid", "1999", secret="x")
        guess = lambda name: self.ask("POST", "/api/login", {"user": name, "password": "guess"})[0]
        self.assertEqual([guess("victim") for _ in range(7)], [401] * 5 + [429] * 2)
        self.assertEqual(self.ask("POST", "/api/login", {"user": "victim", "password": "x"})[0], 429)
        self.log_in(BERT)

    def test_a_user_has_one_job_at_a_time(self):
        cookie, token = self.log_in(ANNA)
        body = {"date": MONDAY, "what": "all", "overwrite": "always", "preview": True}
        answers = [self.ask("POST", "/api/restore", body, cookie, X_CSRF_Token=token) for _ in range(3)]
        self.assertEqual([status for status, _, _ in answers], [200, 409, 409])
        job = json.loads(answers[0][2])["id"]
        for _ in itertools.count():
            if not json.loads(self.ask("GET", f"/api/jobs/{job}", cookie=cookie)[2])["running"]:
                break


if __name__ == "__main__":
    unittest.main()
