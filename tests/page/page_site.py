"""What the tests of the panel's page use: a panel on TLS with users, backups and a database."""

import contextlib
import http.client
import json
import os
import pathlib
import ssl
import subprocess
import time
import unittest

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


class Site:
    """An install root with a panel on TLS, three log-ins and a few backups."""

    def __init__(self, stack):
        self.root = stack.enter_context(backup2_test.install_root())
        self.restarted = stack.enter_context(contextlib.ExitStack())
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
        self.openssl = backup2_test.HeldOpenssl(self.root)  # encrypts the slices
        self.hold = self.openssl.hold
        self.add_database(self.serve(stack, "mariadb"))
        settings = self.serve(stack, "panel")
        self.url, self.port = settings["url"], int(settings["port"])
        stack.callback(self.wait_for_jobs)
        self.fill()

    def server(self, name, verb):
        done = subprocess.run([SERVERS / name, verb, self.root / name], check=True, capture_output=True, text=True,
                              env=backup2_test.environment(PATH=self.openssl.path))
        return dict(line.split("=", 1) for line in done.stdout.splitlines() if "=" in line)

    def serve(self, stack, name):
        stack.callback(self.server, name, "stop")
        return self.server(name, "start")

    def restart_panel(self, meanwhile=lambda: None):
        """Another panel in the place of the one that runs; what was begun goes on."""
        self.server("panel", "stop")
        meanwhile()
        data = self.root / "panel/data"
        panel = backup2_test.start(["backup2_panel", "serve", "--tls", f"127.0.0.1:{self.port}", "--cert", str(data / "cert.pem"),
                                    "--key", str(data / "key.pem")], PATH=self.openssl.path)
        (self.root / "panel/pid").write_text(f"{panel.pid}\n")
        self.restarted.callback(lambda: [panel.terminate(), panel.communicate()])
        assert panel.stdout.readline() == "ready\n"

    def wait_for_jobs(self):
        """They would outlive the panel."""
        self.hold.unlink(missing_ok=True)
        runs = lambda record: json.loads(record.read_text())["running"]
        for _ in range(1200):
            if not any(map(runs, self.root.glob("var/backup2_panel.jobs/*/record"))):
                break
            time.sleep(0.1)

    def add_database(self, settings):
        self.mariadb = ["mariadb", f"--defaults-file={settings['options']}", "-N", "-e"]
        subprocess.run([*self.mariadb, "CREATE DATABASE shop; CREATE TABLE shop.orders (name TEXT); "
                        "INSERT INTO shop.orders VALUES ('first'), ('second');"], check=True)
        self.tell("server", "add", "main", "--type", "mysql", "--socket", settings["socket"],
                  "--login", settings["login"], secret=settings["password"])
        self.tell("db", "add", ANNA, "main", "shop")

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
        self.backup2("restore", BERT, MONDAY, "--yes", "--report", "zebra-report")
        self.backup2("verify", ANNA, MONDAY)


    def fill_past(self):
        """Two weeks of days, for pictures that look like life."""
        for number, day in enumerate((f"2024-02-{n}" for n in range(18, 30))):
            self.write(ANNA, b"photos/%02d.jpg" % number, os.urandom((400 << 10) + number * (90 << 10)))
            self.backup2("run", ANNA, "--date", day)
        self.backup2("verify", ANNA, "2024-02-25", "--deep")


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class PageCase(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        stack = contextlib.ExitStack()
        cls.addClassCleanup(stack.close)
        cls.site = Site(stack)

    def ask(self, method, path, body=None, cookie="", **headers):
        """Status, headers and body."""
        trust = ssl._create_unverified_context()
        connection = http.client.HTTPSConnection("127.0.0.1", self.site.port, context=trust, timeout=60)
        if cookie:
            headers["Cookie"] = cookie
        if body is not None:
            headers.setdefault("Content_Type", "application/json")
            body = body if isinstance(body, (str, bytes)) else json.dumps(body)
        return backup2_test.exchange(connection, method, path, body, **headers)

    def log_in(self, user):
        status, headers, body = self.ask("POST", "/api/login", {"user": user, "password": PASSWORDS[user]})
        self.assertEqual(status, 200, body)
        cookie = headers["Set-Cookie"]
        for rule in ("__Host-", "; Secure", "; HttpOnly", "; SameSite=Strict", "; Path=/"):
            self.assertIn(rule, cookie)
        return cookie.split(";")[0], json.loads(body)["csrf"]
