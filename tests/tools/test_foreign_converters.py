"""The converters of other panels' archives: what is carried, what is said of the rest, and that no
archive writes anywhere but into its own folder, takes memory without bound or leaves anything behind."""

import contextlib
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as ET

from backup2_test import BUILD, install_root, run, start, tree_state

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "fixtures"))
import make_foreign as foreign  # noqa: E402  (the path above leads to it)

CPANEL, PLESK = "backup2_cpanel_conv", "backup2_plesk_conv"
SANITIZED = b"__asan_init" in (BUILD / "sbin" / CPANEL).read_bytes()
MOST_MEMORY = (800 if SANITIZED else 160) << 20
HASH, MD5 = foreign.CRYPT, "md5" + "0123456789abcdef" * 2

# Of both versions of an account: group, object, parameter, values.
CPANEL_OBJECTS = [
    ("webdomain", "example.com", "kind", ["main"]), ("webdomain", "example.com", "docroot", ["data/public_html"]),
    ("webdomain", "example.com", "certificate", ["example.com"]),
    ("webdomain", "addon.example", "kind", ["addon"]), ("webdomain", "addon.example", "docroot", ["data/sites/addon.example"]),
    ("webdomain", "blog.example.com", "kind", ["sub"]), ("webdomain", "blog.example.com", "parent", ["example.com"]),
    ("webdomain", "parked.example", "kind", ["alias"]), ("webdomain", "parked.example", "docroot", []),
    ("db", "bob_shop->mysql->bob", "dump", ["db/mysql.bob_shop.sql"]), ("db", "bob_shop->mysql->bob", "owner", ["bob_shop->mysql"]),
    ("db", "bob_shop->mysql->bob", "collation", ["utf8mb4_unicode_ci"]), ("db", "bob_shop->mysql->bob", "version", ["8.0.35"]),
    ("db", "bob_cut->mysql->bob", "complete", ["no"]), ("db", "bob_zip->mysql->bob", "dump", ["db/mysql.bob_zip.sql"]),
    ("db", "bob_pg->postgresql->bob", "format", ["tar"]), ("db", "bob_text->postgresql->bob", "dump", []),
    ("db", "roundcube->mysql->bob", "name", []),
    ("db.user", "bob_shop->mysql", "password", [foreign.NATIVE]), ("db.user", "bob_shop->mysql", "host", ["localhost"]),
    ("db.user", "bob_ro->mysql", "password", []), ("db.user", "bob_pg->postgresql", "password", [MD5]),
    ("emaildomain", "example.com", "catchall", ["reject"]), ("emaildomain", "addon.example", "catchall", ["bob@example.com"]),
    ("email", "info@example.com", "password", [HASH]), ("email", "info@example.com", "quota", ["262144000"]),
    ("email", "info@example.com", "path", ["data/mail/example.com/info"]), ("email", "info@example.com", "forward", ["bob@else.example"]),
    ("email", "info@example.com", "compressed", []), ("email", "zip@example.com", "compressed", ["gzip"]),
    ("email", "zip@example.com", "suspended", ["yes"]), ("email", "team@addon.example", "format", ["mdbox"]),
    ("email", "bob@example.com", "path", ["data/mail"]), ("email", "bob@example.com", "password", [HASH]),
    ("emaildomain", "parked.example", "forward", ["example.com"]),
    ("emailforward", "sales@example.com", "to", ["info@example.com", "bob@else.example"]),
    ("emailforward", "gone@example.com", "action", ["discard"]), ("emailforward", "self@example.com", "to", ["bob@example.com"]),
    ("emailforward", "robot@example.com", "to", []),
    ("emailreply", "info@example.com", "subject", ["Away"]), ("emailreply", "info@example.com", "text", ["Back on Monday.\n"]),
    ("certificate", "example.com", "key", [foreign.KEY]), ("certificate", "example.com", "chain", [foreign.CHAIN]),
    ("cron", "1", "schedule", ["*/5 * * * *"]), ("cron", "1", "command", ["/usr/bin/php /home/bob/cron.php  --all"]),
    ("cron", "2", "schedule", ["@daily"]), ("cron", "3", "schedule", []),
    ("ftp", "web@example.com", "home", ["data/public_html/sub"]), ("ftp", "out@example.com", "home", []), ("ftp", "bob", "home", []),
    ("path", "/home/bob", "to", ["data"]),
]
CPANEL_ZONE = {
    ("example.com.", "SOA", "86400", "ns1.host.example. root.host.example. 2024013100 3600 1800 1209600 86400"),
    ("example.com.", "NS", "14400", "ns1.host.example."), ("example.com.", "MX", "14400", "0 mail.example.com."),
    ("mail.example.com.", "A", "3600", "192.0.2.7"), ("www.deep.example.com.", "CNAME", "14400", "deep.example.com."),
    ("txt.deep.example.com.", "TXT", "14400", '"v=1; a" "b"')}
CPANEL_LOST = ["bob_cut", "bob_text", "robot@example.com", "$INCLUDE /etc/passwd", "nonsense here", "not a line",
               "out@example.com", "Mailman", "GRANT SUPER", "went to another server"]
PLESK_OBJECTS = [
    ("webdomain", "example.com", "kind", ["main"]), ("webdomain", "example.com", "docroot", ["data/vhosts/example.com/httpdocs"]),
    ("webdomain", "example.com", "ip", ["192.0.2.9"]), ("webdomain", "example.com", "certificate", ["cert1"]),
    ("webdomain", "alias.example", "parent", ["example.com"]), ("emaildomain", "alias.example", "forward", ["example.com"]),
    ("webdomain", "xn--bcher-kva.example", "kind", ["addon"]), ("webdomain", "addon.example", "kind", ["addon"]),
    ("webdomain", "addon.example", "docroot", ["data/vhosts/example.com/addon.example"]),
    ("webdomain", "blog.example.com", "kind", ["sub"]), ("webdomain", "blog.example.com", "suspended", ["yes"]),
    ("webdomain", "blog.example.com", "docroot", ["data/vhosts/example.com/blog.example.com/web"]),
    ("email", "info@example.com", "password", ["geheim-1"]), ("email", "info@example.com", "quota", ["104857600"]),
    ("email", "info@example.com", "alias", ["hello@example.com"]), ("email", "info@example.com", "forward", ["bob@else.example"]),
    ("email", "info@example.com", "path", ["data/mail/example.com/info"]), ("email", "team@example.com", "password", [HASH]),
    ("email", "key@example.com", "password", []), ("emailforward", "fwd@example.com", "to", ["info@example.com"]),
    ("emailreply", "info@example.com", "text", ["Later."]), ("emaildomain", "example.com", "catchall", ["reject"]),
    ("db", "shop->mysql->bob", "dump", ["db/mysql.shop.sql"]), ("db", "shop->mysql->bob", "owner", ["shop_u->mysql"]),
    ("db", "pg->postgresql->bob", "format", ["custom"]), ("db", "old->mssql->bob", "name", []),
    ("db.user", "shop_u->mysql", "password", ["db-pass"]), ("db.user", "all_u->mysql", "password", [foreign.NATIVE]),
    ("db.user", "all_u->postgresql", "password", []),
    ("certificate", "cert1", "domain", ["example.com"]), ("certificate", "cert1", "certificate", [foreign.CERTIFICATE]),
    ("cron", "1", "command", ["./nightly"]), ("ftp", "bob_sys", "home", ["data/vhosts/example.com"]),
    ("ftp", "second", "home", ["data/vhosts/example.com/httpdocs/up"]),
    ("protected", "data/vhosts/example.com/httpdocs/secret", "user", [f"guard:{HASH}"]),
]


def params(doc, group, elid):
    found = doc.find(f"elem[@name='{group}']/elem[@elid='{elid}']")
    return [] if found is None else [(p.get("name"), p.text, p.get("form")) for p in found.findall("param")]


class Case(unittest.TestCase):
    def setUp(self):
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        stack.enter_context(install_root())
        self.work = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory())).resolve()
        self.out = self.work / "place" / "out"
        self.out.parent.mkdir()
        for canary in ("canary", "place/canary"):
            (self.work / canary).write_text("untouched")

    def archive(self, name, data=None):
        path = self.work / name
        path.write_bytes(foreign.GOOD[name]() if data is None else data)
        return path

    def convert(self, tool, archive, *more, status=0, out=True):
        done = run([tool, archive] + ([self.out] if out else []) + ["--json", *more])
        self.assertEqual(done.returncode, status, done.stdout[-2000:] + done.stderr[-2000:])
        return json.loads(done.stdout) if status in (0, 3) else done

    def doc(self):
        return ET.parse(self.out / "doc.xml").getroot()

    def check_objects(self, table):
        doc = self.doc()
        for group, elid, name, wanted in table:
            with self.subTest(group=group, elid=elid, name=name):
                self.assertEqual([value for key, value, _ in params(doc, group, elid) if key == name], wanted)


class Good(Case):
    def test_an_account_of_cpanel_is_carried_whichever_version_packed_it(self):
        for name, layout, lost in (("cpmove-bob.tar.gz", "homedir/", ["/srv/elsewhere", "does not hold it", "with TLS: /home/bob/sites/secure"]),
                                   ("backup-1.31.2024_12-00-00_bob.tar.gz", "homedir.tar", [])):
            with self.subTest(name=name):
                report = self.convert(CPANEL, self.archive(name), status=3)
                self.check_objects(CPANEL_OBJECTS)
                doc = self.doc()
                self.assertEqual((doc.find("info").get("dist"), doc.find("external").get("layout")), ("3", layout))
                user = {p.get("name"): p.text for p in doc.findall("elem[@name='user.edit']/param") if p.get("name") != "limit"}
                self.assertEqual(user, {"name": "bob", "password": HASH, "email": "bob@contact.example", "domain": "example.com", "shell": "yes",
                                        "plan": "starter", "owner": "root", "created": "2024-01-31", "quota": "1073741824"})
                self.assertEqual([p.text for p in doc.findall("elem[@name='user.edit']/param[@name='limit']")],
                                 ["databases=10", "domains=3", "traffic=1048576000"])
                self.assertEqual({(r.get("name"), r.get("type"), r.get("ttl"), r.text) for r in doc.iter("record")}, CPANEL_ZONE)
                self.assertEqual([(g.get("database"), g.get("host"), g.text) for g in doc.iter("grant")],
                                 [(name, "localhost", "ALL PRIVILEGES") for name in ("bob_cut", "bob_shop", "bob_zip")] +
                                 [("bob_shop", "10.0.0.%", "SELECT, INSERT (A, B)"), ("bob_shop", "localhost", "ALL PRIVILEGES"),
                                  ("bob_pg", None, "ALL PRIVILEGES")])
                said = json.dumps(report["lost"])
                for text in CPANEL_LOST + lost:
                    self.assertIn(text, said)
                self.assertNotIn("do-not-show", json.dumps(report))
                self.check_home()
                shutil.rmtree(self.out)

    def check_home(self):
        tree = tree_state(self.out)
        self.assertEqual([oct(tree[name].mode) for name in ("doc.xml", "db", "db/mysql.bob_shop.sql")], ["0o600", "0o700", "0o600"])
        self.assertEqual({name: tree["data/" + name].link for name in ("www", "absolute", "mail/.info@example_com")},
                         {"www": "public_html", "absolute": "public_html/index.html", "mail/.info@example_com": "example.com/info"})
        self.assertNotIn("data/access-logs", tree)
        self.assertEqual((tree["data/script.cgi"].mode, tree["data/blog/index.html"].mode), (0o755, 0o600))
        self.assertEqual(tree["data/tmp/two"].same, "data/tmp/one")
        self.assertEqual((self.out / "data/name with\nline end").read_text(), "odd")
        self.assertEqual((self.out / "data/latin-\udce9").read_text(), "odd bytes")
        self.assertEqual({tree["data/" + name].mtime_ns for name in ("public_html", "public_html/index.html", "www")}, {1706659200 * 10**9})
        dump = (self.out / "db/mysql.bob_shop.sql").read_text()
        self.assertEqual(dump, (self.out / "db/mysql.bob_zip.sql").read_text())
        self.assertEqual(dump, foreign.DUMP.replace("COLLATE utf8mb4_0900_ai_ci", "COLLATE utf8mb4_unicode_520_ci")
                         .replace("utf8mb4_0900_as_cs", "utf8mb4_bin"))

    def test_a_subscription_of_plesk_is_carried_from_a_tar_and_from_a_zip(self):
        for name in ("plesk-new.tar", "plesk-new.zip"):
            with self.subTest(name=name):
                report = self.convert(PLESK, self.archive(name), status=3)
                self.check_objects(PLESK_OBJECTS)
                said = json.dumps(report["lost"])
                for text in ("conf of example.com", "httpdocs/etc", "mssql", "PTR", "mailing lists", "log-in plain",
                             "stray/Maildir/cur/3", "its zone followed"):
                    self.assertIn(text, said)
                self.assertIn("encrypted with the other panel's key", json.dumps(report["changed"]))
                web = self.out / "data/vhosts/example.com"
                self.assertEqual(((web / "httpdocs/index.html").read_text(), os.readlink(web / "httpdocs/up")), ("hello", "../addon.example"))
                self.assertEqual((self.out / "data/mail/example.com/info/cur/1").read_text(), "Subject: a\n")
                self.assertTrue((self.out / "db/postgresql.pg.dump").read_bytes().startswith(b"PGDMP"))
                records = {(r.get("name"), r.get("type"), r.text) for r in self.doc().iter("record")}
                self.assertEqual(records, {("example.com.", "A", "192.0.2.9"), ("example.com.", "MX", "10 mail.example.com."),
                                           ("www.example.com.", "CNAME", "example.com."), ("example.com.", "TXT", '"v=spf1 \\"a\\" -all"')})
                shutil.rmtree(self.out)

    def test_an_old_backup_of_plesk_has_an_archive_for_each_folder(self):
        report = self.convert(PLESK, self.archive("plesk-old.tgz"), "--user", "robert", status=3)
        self.check_objects([("webdomain", "blog.example.com", "docroot", ["data/vhosts/example.com/subdomains/blog/httpdocs"]),
                            ("email", "info@example.com", "path", ["data/mail/example.com/info"])])
        files = {name for name, entry in tree_state(self.out / "data").items() if entry.type == "file"}
        self.assertEqual(files, {"vhosts/example.com/httpdocs/index.html", "vhosts/example.com/cgi-bin/a.pl", "mail/example.com/info/cur/1",
                                 "vhosts/example.com/subdomains/blog/httpdocs/i.html"})
        self.assertIn("x_missing.tgz", json.dumps(report["lost"]))
        self.assertEqual(self.doc().find("elem[@name='user.edit']").get("elid"), "robert")

    def test_one_account_is_chosen_of_a_whole_server(self):
        archive = self.archive("plesk-server.tar")
        self.assertIn("own_sys, ann, bob", self.convert(PLESK, archive, status=2).stderr)
        self.convert(PLESK, archive, "--account", "nobody", status=2)
        self.assertFalse(self.out.exists())
        for asked, account in (("bob", "bob"), ("own.example", "own_sys"), ("ann.example", "ann")):
            self.assertEqual(self.convert(PLESK, archive, "--account", asked, "--dry-run")["account"], account)

    def test_a_dry_run_tells_the_same_and_writes_nothing(self):
        for tool, name in ((CPANEL, "cpmove-bob.tar.gz"), (PLESK, "plesk-new.tar")):
            archive, before = self.archive(name), tree_state(self.work)
            dry = self.convert(tool, archive, "--dry-run", status=3)
            self.assertEqual(tree_state(self.work), before)
            self.assertEqual(dry, self.convert(tool, archive, "--dry-run", status=3, out=False))
            self.assertEqual(dry, self.convert(tool, archive, status=3))
            shutil.rmtree(self.out)

    def test_nothing_lost_is_status_0_and_the_report_also_goes_into_a_file(self):
        archive, target = self.archive("small.tar.gz"), self.work / "report.json"
        done = run([CPANEL, archive, self.out, "--report", target, "--owner", "4242:4343"])
        self.assertEqual((done.returncode, json.loads(target.read_text())["status"]), (0, "complete"), done.stdout)
        self.assertIn("carried\tdomain\texample.com\n", done.stdout)
        if os.geteuid() == 0:
            owners = {name: (entry.uid, entry.gid) for name, entry in tree_state(self.out).items()}
            self.assertEqual({owners[n] for n in owners if n.startswith("data")}, {(4242, 4343)})
            self.assertEqual({owners["doc.xml"], owners["db"]}, {(0, 0)})

    def test_wrong_usage_and_folders_that_are_no_place(self):
        archive = self.archive("small.tar.gz")
        self.out.mkdir()
        (self.out / "mine").write_text("mine")
        (self.work / "link").symlink_to(self.out.parent)
        os.mkfifo(self.work / "fifo")
        for words, status, text in (([], 2, "archive"), ([archive], 2, "dry-run"), ([archive, self.out], 1, "not empty"),
                                    ([archive, self.work / "link"], 1, "open"), ([self.work / "fifo", self.work / "o"], 1, "regular"),
                                    ([self.work / "none", self.work / "o"], 1, "none"), ([archive, self.work / "o", "--max-size", "x"], 2, "size"),
                                    ([archive, self.work / "o", "--max-size", "1"], 1, "--max-size"), ([archive, self.work / "o", "--user", "-x"], 2, "--user"),
                                    ([archive, self.work / "o", "--account", "eve"], 2, "bob"), ([archive, self.work / "o", "--max-entries", "3"], 1, "--max-entries")):
            with self.subTest(words=words):
                done = run([CPANEL, *words])
                self.assertEqual(done.returncode, status, done.stderr)
                self.assertIn(text, done.stderr)
                self.assertFalse((self.work / "o").exists())
        self.assertEqual((self.out / "mine").read_text(), "mine")


class Hostile(Case):
    def measured(self, argv):
        """Status, output and most memory of a program."""
        child = start(argv)
        output = child.stdout.read() + child.stderr.read()
        _, status, usage = os.wait4(child.pid, 0)
        child.returncode = os.waitstatus_to_exitcode(status)
        child.stdout.close()
        child.stderr.close()
        return child.returncode, output, usage.ru_maxrss << 10

    def check_tree(self):
        for name, entry in tree_state(self.out).items():
            path = self.out / name
            self.assertIn(entry.type, ("file", "dir", "link"), name)
            self.assertEqual(entry.mode & 0o7000 if entry.type != "link" else 0, 0, name)
            if entry.type == "link":
                self.assertTrue(os.path.realpath(path).startswith(str(self.out / "data")), (name, entry.link))

    def test_no_archive_leaves_its_folder_or_takes_memory_without_bound(self):
        for name, (make, text, status) in foreign.HOSTILE.items():
            with self.subTest(name=name):
                shutil.rmtree(self.out, ignore_errors=True)
                archive = self.archive("hostile", make())
                before = tree_state(self.work)
                done, output, memory = self.measured([PLESK if name.startswith("plesk") else CPANEL, archive, self.out, "--max-size", "20G"])
                self.assertEqual(done, status, output[-2000:])
                self.assertIn(text, output)
                self.assertLess(memory, MOST_MEMORY)
                self.assertEqual(self.out.exists(), status == 3)
                if self.out.exists():
                    self.check_tree()
                    shutil.rmtree(self.out)
                after = tree_state(self.work)
                before.pop("place"), after.pop("place")  # its time changes with the folder in it
                self.assertEqual(after, before)
                self.assertFalse(os.path.lexists("/tmp/evil"))

    def test_entries_without_number_take_no_memory(self):
        archive = self.work / "many.tar.gz"
        foreign.many_entries(archive, 60000)
        for more in ([], ["--dry-run"]):
            status, output, memory = self.measured([CPANEL, archive, self.out, *more])
            self.assertEqual(status, 3, output[-500:])
            self.assertLess(memory, MOST_MEMORY // 2)
            self.assertIn("files: 60000", output)

    def test_a_signal_leaves_nothing(self):
        archive = self.archive("bomb", foreign.zeros_bomb(2 << 30))
        child = start([CPANEL, archive, self.out, "--max-ratio", "100000"])
        while not (self.out / "data/zeros").exists() and child.poll() is None:
            time.sleep(0.01)
        child.send_signal(signal.SIGTERM)
        output, _ = child.communicate(timeout=60)
        self.assertEqual((child.returncode, "ended by a signal" in output, self.out.exists()), (1, True, False))

    @unittest.skipUnless(os.geteuid() == 0, "needs a small disk")
    def test_a_full_disk_is_told_and_leaves_nothing(self):
        disk = self.work / "disk"
        disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", disk], check=True)
        self.addCleanup(subprocess.run, ["umount", disk], check=True)
        archive = self.archive("big", foreign.cpanel_home(foreign.item("big", os.urandom(3 << 20))))
        done = run([CPANEL, archive, disk / "out", "--max-size", "1G"])
        self.assertEqual((done.returncode, os.listdir(disk)), (1, []), done.stdout)
        self.assertIn("no room", done.stderr)


if __name__ == "__main__":
    unittest.main()
