"""What comes from elsewhere: panel data of the other edition, archives of other panels."""

import contextlib
import gzip
import hashlib
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
import xml.etree.ElementTree as ElementTree

import backup2_test
from backup2_test import local_token, run
from panel import Panel

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "fixtures"))
import make_foreign  # noqa: E402

USER = "www-data"  # every Debian has it
MONDAY = "2024-03-04"
SERVERS = pathlib.Path(__file__).parents[1] / "servers"


class DatabaseServers:
    """MariaDB and PostgreSQL, thrown away at the end."""

    def __init__(self):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="backup2-db-"))
        self.work.chmod(0o711)
        self.keys = {}

    def start(self):
        for name in ("mariadb", "postgres"):
            done = subprocess.run([SERVERS / name, "start", self.work / name], text=True,
                                  stdout=subprocess.PIPE, check=False)
            if done.returncode == 77:
                raise unittest.SkipTest(name + " is missing")
            self.keys[name] = dict(line.split("=", 1) for line in done.stdout.splitlines())

    def stop(self):
        for name in self.keys:
            subprocess.run([SERVERS / name, "stop", self.work / name], check=True)
        shutil.rmtree(self.work)

    def maria(self, sql, database="mysql"):
        return subprocess.run(["mariadb", f"--defaults-file={self.keys['mariadb']['options']}", "-N", database],
                              input=sql, text=True, capture_output=True, check=True).stdout.strip()

    def postgres(self, sql, database="postgres", program="psql", text=True, form="-Ft"):
        keys = self.keys["postgres"]
        words = ["-XAtqw", "-v", "ON_ERROR_STOP=1"] if program == "psql" else ["-w", form]
        done = subprocess.run([program, *words, "-h", keys["socket"], "-p", keys["port"], "-U", keys["login"],
                               "-d", database], input=sql, text=text, capture_output=True, check=False,
                              env=os.environ | {"PGPASSFILE": keys["pgpass"]})
        if done.returncode:
            raise AssertionError(done.stderr)
        return done.stdout.strip() if text else done.stdout

    def clear(self):
        kept = "'mysql','information_schema','performance_schema','sys','test'"
        for name in self.maria(f"SELECT SCHEMA_NAME FROM information_schema.SCHEMATA WHERE SCHEMA_NAME NOT IN ({kept})").split():
            self.maria(f"DROP DATABASE `{name}`")
        for account in self.maria("SELECT CONCAT(QUOTE(User),'@',QUOTE(Host)) FROM mysql.user WHERE User LIKE 'bob%' "
                                  "OR User LIKE 'b2%' OR User IN ('shop_u', 'all_u')").splitlines():
            self.maria(f"DROP USER {account}")
        for name in self.postgres("SELECT datname FROM pg_database WHERE datname LIKE 'bob%' OR datname = 'pg'").split():
            self.postgres(f'DROP DATABASE "{name}"')
        for name in self.postgres("SELECT rolname FROM pg_roles WHERE rolname LIKE 'bob%' OR rolname LIKE 'b2%' "
                                  "OR rolname = 'all_u'").split():
            self.postgres(f'DROP ROLE "{name}"')


@unittest.skipUnless(os.geteuid() == 0, "the service runs as root")
class Elsewhere(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.servers = DatabaseServers()
        cls.addClassCleanup(cls.servers.stop)
        cls.servers.start()

    def setUp(self):
        self.servers.clear()
        stack = contextlib.ExitStack()
        self.addCleanup(stack.close)
        self.root = stack.enter_context(backup2_test.install_root())
        self.root.chmod(0o755)
        self.home = self.root / "www" / USER
        self.home.mkdir(parents=True)
        os.chown(self.home, 33, 33)
        self.panel = stack.enter_context(Panel())
        self.panel.command(["user", "add", USER, "--root", str(self.home)])
        for name, kind, key in (("maria", "mysql", "mariadb"), ("pg", "postgresql", "postgres")):
            keys = self.servers.keys[key]
            port = ["--port", keys["port"]] if key == "postgres" else []
            self.panel.command(["server", "add", name, "--type", kind, "--socket", keys["socket"], *port,
                                "--login", keys["login"]], keys["password"])

    def backup2(self, *words, expect=0):
        done = run(["backup2", *words])
        self.assertEqual(done.returncode, expect, (words, done.stdout, done.stderr))
        self.assertEqual(list(self.root.glob("var/backup/qorvel/.*")), [], "a working folder is left")
        return done.stdout

    def data(self):
        return self.panel.ask(func="backup2.user.data", elid=USER)

    # ---- Editions -------------------------------------------------------------------------------

    def test_a_backup_of_one_edition_comes_back_on_the_other(self):
        (self.root / "store").mkdir()
        self.panel.command("storage set", local_token(self.root / "store"))
        self.panel.command(["db", "add", USER, "maria", "bob_shop"])
        self.servers.maria("CREATE DATABASE bob_shop; CREATE TABLE bob_shop.t (a INT); INSERT INTO bob_shop.t VALUES (7)")
        (self.home / "data").mkdir()
        (self.home / "data/index").write_text("x")
        self.panel.command("dist set 1")
        self.backup2("run", USER, "--date", MONDAY)
        self.panel.command(["db", "remove", USER, "maria", "bob_shop"])
        # Somebody else's by now, for all that the panel knows: it stays as it is.
        self.panel.command("dist set 3")
        shown = self.backup2("restore", USER, MONDAY, "--yes", ".system", expect=1)
        self.assertIn("maria.bob_shop: it is there already and not the user's", shown)
        self.assertEqual(self.servers.maria("SELECT a FROM bob_shop.t"), "7")
        self.servers.maria("DROP DATABASE bob_shop")
        self.backup2("restore", USER, MONDAY, "--yes", ".system")
        self.assertEqual(self.servers.maria("SELECT a FROM bob_shop.t"), "7")
        elem = self.data().find("elem[@name='db']/elem")
        self.assertEqual(elem.get("elid"), f"bob_shop->mysql->{USER}")

    # ---- Archives of other panels ---------------------------------------------------------------

    def postgres_dump(self, form):
        self.servers.postgres('CREATE ROLE bob_pg; CREATE DATABASE bob_pg OWNER bob_pg;'.replace("; ", ";\n"))
        self.servers.postgres("SET ROLE bob_pg; CREATE TABLE t (s text); INSERT INTO t VALUES ('a''b')", "bob_pg")
        dump = self.servers.postgres(b"", "bob_pg", "pg_dump", text=False, form=form)
        self.servers.clear()
        return dump

    def archive(self):
        """A cpmove archive whose dumps are real ones."""
        dump = self.postgres_dump("-Ft")
        path = self.root / "cpmove-bob.tar.gz"
        path.write_bytes(make_foreign.cpanel_new(
            lambda items: [one for one in items if one[0].name != "psql/bob_pg.tar"] +
            [make_foreign.item("psql/bob_pg.tar", dump)]))
        return path

    def test_an_archive_becomes_files_databases_and_accounts(self):
        archive = self.archive()
        before = sorted(os.listdir(self.root))
        shown = self.backup2("import", archive, USER, "--dry-run", expect=3)
        self.assertIn("cPanel", shown)
        self.assertEqual((os.listdir(self.home), sorted(os.listdir(self.root))), ([], before))

        shown = self.backup2("import", archive, USER, expect=1)  # one dump in it is cut
        self.assertIn("db.maria.bob_shop\trestored", shown)
        self.assertIn("db.pg.bob_pg\trestored", shown)
        self.check_tree()
        self.check_databases()
        back = self.data()
        self.assertEqual(back.find("info").get("dist"), "3")
        self.assertIsNotNone(back.find("elem[@name='email']/elem[@elid='info@example.com']"))
        # What did not come in is unknown to the panel, so that backups of the user go on.
        elids = [elem.get("elid") for elem in back.findall("elem[@name='db']/elem")]
        self.assertLessEqual({f"bob_shop->mysql->{USER}", f"bob_pg->postgresql->{USER}"}, set(elids))
        self.assertFalse([elid for elid in elids if elid.startswith(("bob_cut", "bob_text"))])
        self.assertIn("bob_cut", self.backup2("report", self.backup2("report").split("\n")[1].split()[0]))
        self.backup2("import", archive, USER, expect=1)  # once more: his own are replaced
        self.check_databases()

    def test_a_subscription_becomes_files_databases_and_accounts(self):
        dump = make_foreign.pack(make_foreign.tar([make_foreign.item("pg.dump", self.postgres_dump("-Fc"))]))
        archive = self.root / "backup.tar"
        archive.write_bytes(make_foreign.tar([(i, d) if "postgresql" not in i.name else make_foreign.item(i.name, dump)
                                              for i, d in make_foreign.plesk_new_items()]))
        for _ in range(2):  # once more: his own are replaced
            shown = self.backup2("import", archive, USER, expect=3)
            self.assertIn("db.maria.shop\trestored\ndb.pg.pg\trestored", shown)
            self.assertIn("all_u (postgresql)\tneeds a new password", shown)
            self.assertEqual(self.servers.maria("SELECT name FROM shop.t"), "utf8mb4_0900_ai_ci stays in data")
            self.assertIn("ON `shop`.* TO `shop_u`@`%`", self.servers.maria("SHOW GRANTS FOR shop_u@'%'"))
            self.assertEqual(self.servers.postgres("SELECT s FROM t", "pg"), "a'b")
        web = self.home / "data/vhosts/example.com"
        self.assertEqual((web / "httpdocs/index.html").read_text(), "hello")
        self.assertEqual(os.readlink(web / "httpdocs/up"), "../addon.example")
        self.assertEqual((self.home / "data/mail/example.com/info/cur/1").read_text(), "Subject: a\n")
        elids = {elem.get("elid") for elem in self.data().findall("elem/elem")}
        self.assertLessEqual({f"shop->mysql->{USER}", f"pg->postgresql->{USER}", "info@example.com", "cert1"}, elids)
        # What did not come over stands in the report, too.
        self.assertIn("maillists", self.backup2("report", self.backup2("report").split("\n")[1].split()[0]))

    def test_names_that_restores_use_themselves_are_nobodys(self):
        """Who had them would get the rights in the database of somebody else that is restored next."""
        mark = hashlib.sha256(b"victim").hexdigest()[:16]
        archive = self.root / "cpmove-bob.tar.gz"
        archive.write_bytes(make_foreign.cpanel_with(
            make_foreign.item(f"mysql/b2_scratch_{mark}.sql", make_foreign.DUMP),
            make_foreign.item("psql_users.sql", f"CREATE USER b2_owner_{mark} WITH PASSWORD 'md5{'ab' * 16}';\n"),
            make_foreign.item("psql_grants.sql", f"GRANT b2_owner_{mark} TO b2_owner_{mark};\n"),
            make_foreign.item("mysql.sql", f"GRANT USAGE ON *.* TO 'b2_restore_{mark}'@'localhost' IDENTIFIED BY PASSWORD "
                              f"'{make_foreign.NATIVE}';\nGRANT ALL ON bob_shop.* TO 'b2_restore_{mark}'@'localhost';\n")))
        shown = self.backup2("import", archive, USER, expect=1)
        for name in (f"database maria.b2_scratch_{mark}", f"account b2_restore_{mark}", f"account b2_owner_{mark}"):
            self.assertIn(f"left out: {name}: restores use such names themselves", shown)
        self.assertEqual(self.servers.maria(f"SELECT User FROM mysql.user WHERE User LIKE 'b2%{mark}'"), "")
        self.assertEqual(self.servers.maria(f"SHOW DATABASES LIKE 'b2%{mark}'"), "")
        self.assertNotIn(mark, "".join(elem.get("elid") for elem in self.data().findall("elem/elem")))

    def test_an_account_that_was_only_named_is_nobodys(self):
        """The first archive names it, somebody else gets it, the second one makes it the owner of what it brings."""
        def archive(database, *dump):
            path = self.root / "cpmove-bob.tar.gz"
            path.write_bytes(make_foreign.pack(make_foreign.tar(make_foreign.below("cpmove-bob", [
                make_foreign.item("cp/bob", "DNS=example.com\n"), make_foreign.item("psql_users.sql", "CREATE USER bob_late;\n"),
                make_foreign.item("psql_grants.sql", f"GRANT ALL ON DATABASE {database} TO bob_late;\n"), *dump]))))
            return path
        self.backup2("import", archive("bob_text", make_foreign.item("psql/bob_text.sql", "SELECT 1;\n")), USER, expect=3)
        dump = make_foreign.item("psql/bob_pg.tar", self.postgres_dump("-Ft"))
        self.servers.postgres("CREATE ROLE bob_late LOGIN PASSWORD 'own'")
        shown = self.backup2("import", archive("bob_pg", dump), USER, expect=3)
        self.assertIn("left out: account bob_late: it is there already", shown)
        self.assertNotIn("bob_late", self.servers.postgres(
            "SELECT pg_get_userbyid(datdba), datacl FROM pg_database WHERE datname = 'bob_pg'"))

    def test_a_definer_that_no_server_has_is_an_error_of_the_dump(self):
        dump = make_foreign.DUMP.replace("INSERT", f"/*!50003 CREATE*/ /*!50017 DEFINER=`{'a' * 60000}`@`h`*/ ;\nINSERT")
        archive = self.root / "cpmove-bob.tar.gz"
        archive.write_bytes(make_foreign.cpanel_text("mysql/bob_shop.sql", dump))
        shown = self.backup2("import", archive, USER, expect=1)
        self.assertIn("bob_shop: load: ", shown)
        self.assertNotIn("signal", shown)

    def check_tree(self):
        index = self.home / "data/public_html/index.html"
        self.assertEqual(index.read_text(), "<h1>bob</h1>")
        for path in [self.home / "data", *(self.home / "data").rglob("*")]:
            self.assertEqual((path.lstat().st_uid, path.lstat().st_gid), (33, 33), path)
            self.assertEqual(path.lstat().st_mode & 0o7000, 0, path)
        self.assertEqual((self.home / "data/blog/index.html").stat().st_mode & 0o777, 0o600)
        self.assertEqual(os.readlink(self.home / "data/www"), "public_html")
        self.assertEqual((self.home / "data/tmp/one").stat().st_nlink, 2)
        self.assertEqual(int(index.stat().st_mtime), 1706659200)

    def check_databases(self):
        self.assertEqual(self.servers.maria("SELECT name FROM bob_shop.t"), "utf8mb4_0900_ai_ci stays in data")
        grants = self.servers.maria("SHOW GRANTS FOR bob_shop@localhost")
        self.assertIn(make_foreign.NATIVE, grants)
        self.assertIn("GRANT ALL PRIVILEGES ON `bob\\\\_shop`.*", grants)
        self.assertNotIn("ON *.* TO `bob_shop`@`localhost` WITH GRANT", grants)
        self.assertEqual(self.servers.maria("SELECT COUNT(*) FROM mysql.user WHERE User='bob_root' AND Super_priv='Y'"), "0")
        self.assertEqual(self.servers.postgres("SELECT s FROM t", "bob_pg"), "a'b")
        self.assertEqual(self.servers.postgres("SELECT pg_get_userbyid(datdba) || rolcanlogin FROM pg_database d "
                                               "JOIN pg_roles r ON r.oid = datdba WHERE datname = 'bob_pg'"), "bob_pgtrue")
        self.assertEqual(self.servers.postgres("SELECT rolpassword FROM pg_authid WHERE rolname = 'bob_pg'"),
                         "md5" + "0123456789abcdef" * 2)

    def test_names_that_others_have_stay_theirs(self):
        archive = self.archive()
        self.servers.maria("CREATE DATABASE bob_shop; CREATE TABLE bob_shop.t (a INT); INSERT INTO bob_shop.t VALUES (7);"
                           "CREATE USER bob@localhost IDENTIFIED BY 'own'; CREATE USER bob_shop@localhost IDENTIFIED BY 'own'")
        self.servers.postgres("CREATE ROLE bob_pg LOGIN PASSWORD 'own'")
        before = self.servers.maria("SHOW GRANTS FOR bob_shop@localhost")
        shown = self.backup2("import", archive, USER, expect=1)
        for name in ("database maria.bob_shop", "account bob_shop", "account bob", "account bob_pg"):
            self.assertIn(f"left out: {name}: it is there already", shown)
        self.assertEqual(self.servers.maria("SELECT a FROM bob_shop.t"), "7")
        self.assertEqual(self.servers.maria("SHOW GRANTS FOR bob_shop@localhost"), before)
        self.assertNotEqual(self.servers.postgres("SELECT pg_get_userbyid(datdba) FROM pg_database WHERE datname='bob_pg'"),
                            "bob_pg")
        self.assertEqual((self.home / "data/public_html/index.html").read_text(), "<h1>bob</h1>")

    def test_a_panel_of_the_smaller_edition_gets_its_form(self):
        archive = self.root / "cpmove-bob.tar.gz"
        archive.write_bytes(make_foreign.cpanel_new())
        self.panel.command("dist set 1")
        self.backup2("import", archive, USER, expect=1)
        elids = [elem.get("elid") for elem in self.data().findall("elem[@name='db']/elem")]
        self.assertIn("bob_shop->MySQL", elids)

    def test_archives_are_told_apart_or_refused(self):
        for name, panel in (("cpmove-bob.tar.gz", "cPanel"), ("backup-1.31.2024_12-00-00_bob.tar.gz", "cPanel"),
                            ("plesk-new.tar", "Plesk"), ("plesk-new.zip", "Plesk"), ("plesk-old.tgz", "Plesk")):
            with self.subTest(name):
                path = self.root / "archive"
                path.write_bytes(make_foreign.GOOD[name]())
                self.assertIn("an archive of " + panel, self.backup2("import", path, USER, "--dry-run", expect=3))
        for data, status in ((b"no archive", 1), (make_foreign.tar([make_foreign.item("a/b", "c")]), 2),
                             (make_foreign.cpanel_new()[:2000], 1), (gzip.compress(make_foreign.cpanel_new()), 1)):
            path.write_bytes(data)
            self.backup2("import", path, USER, expect=status)
        self.backup2("import", self.root / "missing", USER, expect=1)
        self.backup2("import", path, "nobody-here", expect=1)
        self.backup2("import", path, USER, "--panel", "Other", expect=2)
        self.assertEqual(os.listdir(self.home), [])

    def test_links_of_the_user_lead_nothing_out(self):
        outside = self.root / "outside"
        outside.mkdir(mode=0o777)
        (self.home / "data").mkdir()
        os.chown(self.home / "data", 33, 33)
        (self.home / "data/public_html").symlink_to(outside)
        archive = self.root / "cpmove-bob.tar.gz"
        archive.write_bytes(make_foreign.cpanel_small())
        self.backup2("import", archive, USER)
        self.assertEqual(os.listdir(outside), [])
        self.assertEqual((self.home / "data/public_html/a").read_text(), "a")

    def test_an_import_that_is_ended_leaves_nothing(self):
        archive = self.root / "cpmove-bob.tar.gz"
        archive.write_bytes(make_foreign.cpanel_new(lambda items: items + [
            make_foreign.item("homedir/big", os.urandom(64 << 20))]))
        for number in (signal.SIGTERM, signal.SIGKILL):
            process = backup2_test.start(["backup2", "import", str(archive), USER])
            work = self.root / f"var/backup/qorvel/.import.{USER}"
            until = time.monotonic() + 60
            while not (work / "converted").exists() and time.monotonic() < until:
                self.assertIsNone(process.poll(), "too fast to be ended")
                time.sleep(0.001)
            process.send_signal(number)
            process.communicate(timeout=60)
            self.assertNotEqual(process.returncode, 0)
            if number == signal.SIGTERM:
                self.assertFalse(work.exists())
        archive.write_bytes(make_foreign.cpanel_small())
        self.backup2("import", archive, USER)  # takes what the killed one left, too


if __name__ == "__main__":
    unittest.main()
