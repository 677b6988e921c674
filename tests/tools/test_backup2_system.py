"""Dumps and restores of real databases, with a stranger at the dump and at the marker."""

import contextlib
import hashlib
import os
import re
import shutil
import stat
import subprocess
import unittest

import backup2_test
from database import Database
from panel import Panel
from storage_case import server

OWNER_PASSWORD = "ow'n\"er \\ #;1:x"
MAGIC = bytes(range(256)) * 5


class SystemCase(unittest.TestCase):
    kind = None

    @classmethod
    def setUpClass(cls):
        if cls.kind is None:
            raise unittest.SkipTest("the cases are in the classes below")
        cls.server = Database(cls.kind, cls.enterClassContext(server(cls.kind)))
        # The panel's log-in has a password with everything that option files and shells dislike.
        cls.quoted = OWNER_PASSWORD.replace("'", "''")
        if cls.kind == "mariadb":
            cls.quoted = cls.quoted.replace("\\", "\\\\")
            cls.server.sql(f"CREATE USER boss@localhost IDENTIFIED BY '{cls.quoted}';"
                           "GRANT ALL ON *.* TO boss@localhost WITH GRANT OPTION")
        else:
            cls.server.sql(f"CREATE ROLE boss SUPERUSER LOGIN PASSWORD '{cls.quoted}'")

    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        self.panel = self.enterContext(Panel())
        self.tree = self.root / "tree"
        self.system = self.tree / ".system"
        self.system.mkdir(parents=True)
        os.chmod(self.system, 0o700)
        self.panel.command(["user", "add", "bob", "--root", str(self.tree), "--uid", "1001"])
        self.panel.command(["server", "add", "srv", "--type", self.server.type, "--socket",
                            self.server.settings["socket"], "--login", "boss"], OWNER_PASSWORD)

    def give(self, database, owner=""):
        """Puts the database under the panel's care; gives its (empty) marker."""
        words = ["db", "add", "bob", "srv", database] + (["--owner", owner] if owner else [])
        self.panel.command(words, OWNER_PASSWORD if owner else "")
        marker = self.system / f"db.srv.{database}"
        marker.touch(mode=0o600)
        return marker

    def tool(self, action, marker, expect=0, prefix=()):
        argv = [*prefix, backup2_test.program("backup2_system"), "--" + action, "--user", "bob",
                "--manager", "qorvel", marker]
        # The leak checker of a sanitizer build cannot work below strace.
        done = backup2_test.run(argv, **({"ASAN_OPTIONS": "detect_leaks=0"} if prefix else {}))
        self.assertEqual(done.returncode, expect, done.stdout + done.stderr)
        if expect == 1:
            self.assertEqual(len(done.stderr.strip().splitlines()), 1, done.stderr)
        self.assertEqual([p.name for p in (self.root / "var/run").iterdir()
                          if p.name.startswith("backup2_system.")], [], "credentials left behind")
        return done.stdout + done.stderr

    def dump(self, marker):
        """What --start writes, kept where --restore may read it; the marker is empty again."""
        self.tool("start", marker)
        saved = marker.read_bytes()
        self.assertEqual(stat.S_IMODE(marker.stat().st_mode), 0o600)
        self.tool("end", marker)
        self.assertEqual(marker.stat().st_size, 0)
        return saved

    def restore(self, marker, dump, expect=0):
        marker.write_bytes(dump)
        return self.tool("restore", marker, expect)

    # ---- Cases that both servers pass, but for the words --------------------------------------

    def test_a_database_comes_back_as_it_was(self):
        for name, owner in (("owned", "owner1"), ("free.and-easy", "")):
            with self.subTest(name):
                marker = self.make(name, owner)
                before, dump = self.state(name), self.dump(marker)
                self.server.sql(self.SPOIL, name)
                self.restore(marker, dump)
                self.assertEqual(self.state(name), before)
                self.server.sql(self.DROP % name, name if self.kind == "mariadb" else "")
                self.restore(marker, dump)
                self.assertEqual(self.server.sql("SELECT COUNT(*) FROM raw", name), "1")
                if self.kind == "mariadb":  # the other gives a new database its own encoding
                    self.assertEqual(self.state(name), before)
                owners = self.server.sql(self.OWNERS.replace("NAME", name), name)
                self.assertRegex(owners, self.OWNED if owner else self.FREE)
        self.assertEqual(self.server.sql(self.LEFT), "")

    def test_no_secret_in_arguments(self):
        marker, trace = self.make("quiet", "owner3"), self.root / "trace"
        for action in ("start", "restore"):
            self.tool(action, marker, prefix=(
                "strace", "-f", "-qq", "-s", "9999", "-e", "trace=execve", "-o", trace))
            started = trace.read_text(errors="replace")
            self.assertIn("dump" if action == "start" else "setpriv", started)
            self.assertNotIn(OWNER_PASSWORD[-6:], started)

    def test_a_failed_dump_leaves_the_marker_empty(self):
        missing = self.give("missing")
        self.assertIn("srv.missing", self.tool("start", missing, expect=1))
        self.assertEqual(missing.stat().st_size, 0)
        real = shutil.which(self.DUMPER)  # the real program, cut off after its first bytes
        fake = self.root / "fake" / self.DUMPER
        fake.parent.mkdir()
        self.server.sql("CREATE DATABASE half")
        half = self.give("half")
        for ending in ("exit 0", "kill -9 $$"):
            fake.write_text(f"#!/bin/sh\n{real} \"$@\" | head -c 300\n{ending}\n")
            fake.chmod(0o755)
            with self.subTest(ending):
                path = f"{fake.parent}:{os.environ['PATH']}"
                self.tool("start", half, expect=1, prefix=("env", "PATH=" + path))
                self.assertEqual(half.stat().st_size, 0)

    def test_a_cut_dump_is_refused_and_the_database_stays(self):
        marker = self.make("cut")
        dump, before = self.dump(marker), self.state("cut")
        for length in (0, 10, len(dump) // 2, len(dump) - 60):
            with self.subTest(length):
                self.restore(marker, dump[:length], expect=1)
                self.assertEqual(self.state("cut"), before)


    def test_accounts_of_the_document_get_rights_in_their_database_alone(self):
        marker, document = self.make("gran_ted", "owner5"), self.system / "user.bob"
        accounts = "".join(f'<elem><param name="name">{name}</param><param name="type">{self.server.type}</param>'
                           f'<param name="password" form="plain">it\'s "{name}"</param>'
                           f'<grant database="{database}">{rights}</grant></elem>' for name, database, rights in (
                               ("reader", "gran_ted", "SELECT, SUPER, nonsense; DROP"), ("o'dd %s", "gran_ted", "all"),
                               ("nobody", "other", "ALL PRIVILEGES")))
        document.write_text(f'<doc><info dist="3"/><elem name="db.user">{accounts}</elem></doc>')
        self.tool("restore", document)
        for _ in range(2):  # the second time they are there
            self.restore(marker, self.dump(marker))
            self.assertEqual(self.rights("reader", "gran_ted"), "read")
            self.assertEqual(self.rights("o'dd %s", "gran_ted"), "all")
        self.assertEqual(self.server.sql(self.NOBODY), "")
        # An account that is no longer the document's is a stranger's for the next one that names it.
        self.panel.command("user remove bob")
        self.panel.command(["user", "add", "bob", "--root", str(self.tree), "--uid", "1001"])
        self.give("gran_ted")
        document.write_text('<doc><info dist="3"/><elem name="db"><elem><param name="name">new</param><param '
                            f'name="type">{self.server.type}</param><param name="dbserver">srv</param></elem></elem>'
                            f'<elem name="db.user">{accounts}</elem></doc>')
        shown = self.tool("restore", document, expect=3)
        self.assertIn("account reader: it is there already", shown)

    def test_a_name_that_a_document_only_named_is_nobodys(self):
        """What bears it by the time of the restore was made for somebody else."""
        dump = self.dump(self.make("model"))
        document, marker = self.system / "user.bob", self.system / "db.srv.later"
        document.write_text(
            '<doc><info dist="3"/><elem name="db"><elem><param name="name">later</param><param name="dbserver">srv</param>'
            f'<param name="type">{self.server.type}</param><param name="owner">late</param></elem></elem><elem name="db.user">'
            f'<elem><param name="name">late</param><param name="type">{self.server.type}</param>'
            '<grant database="later">ALL PRIVILEGES</grant></elem></elem></doc>')
        self.tool("restore", document)
        for made, why in (("DATABASE later", "exists"), ("", "")):  # a stranger's, then a dump that is cut
            if made:
                self.server.sql("CREATE " + made)
            self.assertIn(why, self.restore(marker, dump if made else dump[:len(dump) // 2], expect=1))
            self.assertEqual(self.server.sql(self.FIND % "later"), "later" if made else "")
            if made:
                self.server.sql("DROP " + made)
            info = self.panel.ask(func="backup2.item.info", elid="bob", role="")
            self.assertNotIn("srv.later", [spec.get("name") for spec in info.iter("spec")])
        self.server.sql(self.DROP_LATE)  # the restores above have made it for bob: now it is made anew
        self.panel.command("user add eve --root /srv/eve --uid 1002")
        self.panel.command("db add eve srv eves --owner late")
        self.server.sql(self.MAKE_LATE)
        for _ in range(2):
            self.assertIn("account late: it is there already", self.restore(marker, dump, expect=3))
            self.assertEqual(self.server.sql(self.HOLDERS, "later"), "")


class MariaDb(SystemCase):
    kind, DUMPER = "mariadb", "mariadb-dump"
    SPOIL = ("DELETE FROM plain; DROP VIEW few; CREATE TABLE later (a INT); DROP FUNCTION twice;"
             "INSERT INTO wide VALUES ('new')")
    DROP, LEFT = "CALL fill(2); DROP DATABASE `%s`", "SHOW DATABASES LIKE 'b2%'"
    OWNED, FREE = "^owner1@localhost$", r"^b2_restore_\w+@%$"
    FIND = "SELECT SCHEMA_NAME FROM information_schema.SCHEMATA WHERE SCHEMA_NAME='%s'"
    MAKE_LATE, DROP_LATE = "CREATE USER late@localhost", "DROP USER late@localhost"
    HOLDERS = "SELECT Db FROM mysql.db WHERE User='late'"
    OWNERS = " UNION ".join(
        f"SELECT DEFINER FROM information_schema.{what}S WHERE {schema}_SCHEMA='NAME'"
        for what, schema in (("VIEW", "TABLE"), ("ROUTINE", "ROUTINE"), ("EVENT", "EVENT"), ("TRIGGER", "TRIGGER")))

    def make(self, name, owner=""):
        self.server.sql(f"CREATE DATABASE `{name}` CHARACTER SET latin1")
        self.server.sql("""
            CREATE TABLE plain (id INT PRIMARY KEY AUTO_INCREMENT, word VARCHAR(100));
            INSERT INTO plain (word) VALUES ('gr\u00fc\u00df'), (NULL), ('quote''s;\\n-- x'), ('\\\\! id');
            CREATE TABLE wide (word MEDIUMTEXT) CHARACTER SET utf8mb4;
            INSERT INTO wide VALUES ('\U0001f600 \u4e2d\u6587'), (REPEAT('long line ', 20000));
            CREATE TABLE raw (bytes LONGBLOB, bits BIT(9));
            INSERT INTO raw VALUES (0x%s, b'100000001');
            CREATE VIEW few AS SELECT word FROM plain WHERE id < 3;
            CREATE TRIGGER doubled BEFORE INSERT ON wide FOR EACH ROW SET NEW.word = CONCAT(NEW.word, '!');
            DELIMITER //
            CREATE PROCEDURE fill(n INT) BEGIN WHILE n > 0 DO
              INSERT INTO plain (word) VALUES (n); SET n = n - 1; END WHILE; END //
            DELIMITER ;
            CREATE FUNCTION twice(n INT) RETURNS INT DETERMINISTIC RETURN 2 * n;
            CREATE EVENT nightly ON SCHEDULE EVERY 1 DAY DO DELETE FROM plain WHERE word IS NULL;
            """ % MAGIC.hex(), name)
        if owner:
            self.server.sql(f"CREATE USER '{owner}'@'localhost' IDENTIFIED BY '{self.quoted}';"
                            "GRANT ALL ON `%s`.* TO '%s'@'localhost'" % (
                                name.replace("_", "\\_"), owner))
        return self.give(name, owner)

    def state(self, name):
        return self.server.sql(f"""
            SELECT HEX(word) FROM plain ORDER BY id; SELECT MD5(word) FROM wide ORDER BY word;
            SELECT MD5(bytes), HEX(bits) FROM raw; SELECT HEX(word) FROM few; SELECT twice(21);
            SELECT TABLE_NAME, TABLE_TYPE, TABLE_COLLATION FROM information_schema.TABLES
              WHERE TABLE_SCHEMA='{name}' ORDER BY 1;
            SELECT ROUTINE_NAME FROM information_schema.ROUTINES WHERE ROUTINE_SCHEMA='{name}' ORDER BY 1;
            SELECT EVENT_NAME FROM information_schema.EVENTS WHERE EVENT_SCHEMA='{name}';
            SELECT DEFAULT_CHARACTER_SET_NAME FROM information_schema.SCHEMATA WHERE SCHEMA_NAME='{name}';
            """, name)

    NOBODY = "SELECT User FROM mysql.user WHERE User='nobody'"

    def rights(self, name, database):
        quoted = name.replace("'", "''")
        granted = self.server.sql(f"SHOW GRANTS FOR '{quoted}'@localhost").splitlines()
        self.assertEqual(len(granted), 2, granted)
        escaped = database.replace("_", "\\_")
        return {f"GRANT SELECT ON `{escaped}`.*": "read", f"GRANT ALL PRIVILEGES ON `{escaped}`.*": "all"}[
            granted[1].split(" TO ")[0]]

    def test_the_account_of_a_restore_is_locked_afterwards(self):
        marker = self.make("locked")
        self.restore(marker, self.dump(marker))
        self.assertIn('"account_locked":true', self.server.sql(
            "SELECT Priv FROM mysql.global_priv WHERE User LIKE 'b2_restore_%'").replace(" ", ""))

    def test_a_strangers_dump_reaches_nothing_else(self):
        # A grant for tar_get, taken as a pattern, would cover the other one too.
        marker = self.make("tar_get", "owner2")
        self.server.sql("CREATE DATABASE tarXget; CREATE TABLE tarXget.t (a INT); INSERT INTO tarXget.t VALUES (7)")
        dump, before = self.dump(marker), self.state("tar_get")
        canary = self.root / "canary"
        sandbox = b"/*M!999999\\- enable the sandbox mode */"
        hostile = [
            f"\\! touch {canary}\n", f"system touch {canary}\n", f"\\o |touch {canary}\n",
            f"tee {canary}\n", f"\\T {canary}\n", "source /etc/passwd\n",
            f"SELECT 'x' INTO OUTFILE '{canary}';\n",
            f"SELECT 1;\n\\! touch {canary}\n-- '\n",
            f"CREATE TABLE l (a TEXT);\nLOAD DATA LOCAL INFILE '/etc/passwd' INTO TABLE l;\n",
            f"PREPARE s FROM \"SELECT 'x' INTO OUTFILE '{canary}'\";\nEXECUTE s;\n",
            "RENAME TABLE tarXget.t TO tar_get.t;\n", "CREATE TABLE m (a INT) ENGINE=MERGE UNION=(tarXget.t);\n",
            "CREATE TRIGGER tarXget.x BEFORE DELETE ON tarXget.t FOR EACH ROW SET @a = 1;\n",
            "ALTER DATABASE tarXget CHARACTER SET latin1;\n", "FLUSH TABLES WITH READ LOCK;\n",
            "DROP DATABASE tarXget;\n", "USE tarXget;\nDELETE FROM t;\n", "DELETE FROM tarXget.t;\n",
            "GRANT ALL ON *.* TO 'owner2'@'localhost';\n", "CREATE USER 'evil'@'%';\n",
            "CREATE DEFINER=`root`@`localhost` PROCEDURE bad() SQL SECURITY DEFINER DELETE FROM tarXget.t;\nCALL bad();\n",
            "SET @x=1; CREATE DEFINER=`root`@`localhost` VIEW bad2 AS SELECT * FROM tarXget.t;\n",
        ]
        for text in hostile:
            with self.subTest(text):
                marker.write_bytes(text.encode() + dump.replace(sandbox, b""))
                self.tool("restore", marker, expect=1)
                self.assertFalse(canary.exists())
                self.assertEqual(self.state("tar_get"), before)
                self.assertEqual(self.server.sql("SELECT a FROM tarXget.t"), "7")
        self.assertEqual(self.server.sql("SELECT COUNT(*) FROM mysql.user WHERE User='evil'"), "0")
        self.assertNotRegex(self.server.sql("SHOW GRANTS FOR 'owner2'@'localhost'"),
                            r"ALL PRIVILEGES ON \*|b2")


class Postgres(SystemCase):
    kind, DUMPER = "postgres", "pg_dump"
    SPOIL = "DELETE FROM plain; DROP VIEW few; CREATE TABLE later (a int); DROP FUNCTION twice(int)"
    DROP = 'DROP DATABASE "%s"'
    LEFT = ("SELECT datname FROM pg_database WHERE datname LIKE 'b2%' UNION "
            "SELECT rolname FROM pg_roles WHERE rolname LIKE 'b2_restore%'")
    OWNED, FREE = "^owner1$", r"^b2_owner_\w+$"
    FIND = "SELECT datname FROM pg_database WHERE datname='%s'"
    MAKE_LATE, DROP_LATE = "CREATE ROLE late", "DROP ROLE late"
    HOLDERS = ("SELECT datname FROM pg_database WHERE datname='later' AND (pg_get_userbyid(datdba)='late' OR "
               "datacl::text LIKE '%late=%') UNION SELECT relname FROM pg_class WHERE pg_get_userbyid(relowner)='late'")
    OWNERS = ("SELECT DISTINCT pg_get_userbyid(relowner) FROM pg_class WHERE relnamespace='public'::regnamespace "
              "UNION SELECT pg_get_userbyid(datdba) FROM pg_database WHERE datname=current_database()")

    def make(self, name, owner=""):
        if owner:
            self.server.sql(f"CREATE ROLE {owner} LOGIN PASSWORD '{self.quoted}'")
        self.server.sql(f'CREATE DATABASE "{name}" TEMPLATE template0 ENCODING \'LATIN1\' LC_COLLATE '
                        f"'C' LC_CTYPE 'C'" + (f" OWNER {owner}" if owner else ""))
        self.server.sql((f"SET ROLE {owner};" if owner else "") + """
            CREATE TABLE plain (id serial PRIMARY KEY, word text);
            INSERT INTO plain (word) VALUES ('gr' || chr(252)), (NULL), (E'quote''s\\n\\\\! id'), ('\\.');
            CREATE TABLE raw (bytes bytea); INSERT INTO raw VALUES ('\\x%s');
            CREATE TABLE "odd
            \\! name" (a int); INSERT INTO "odd
            \\! name" VALUES (5);
            CREATE VIEW few AS SELECT word FROM plain WHERE id < 3;
            CREATE FUNCTION twice(n int) RETURNS int LANGUAGE plpgsql AS $$ BEGIN RETURN 2 * n; END $$;
            SELECT lo_from_bytea(4242, 'large object'); COMMENT ON TABLE plain IS 'noted';
            """ % MAGIC.hex(), name)
        return self.give(name, owner)

    NOBODY = "SELECT rolname FROM pg_roles WHERE rolname='nobody'"

    def rights(self, name, database):
        quoted = name.replace("'", "''")
        shown = self.server.sql("SELECT " + ", ".join(
            f"has_table_privilege('{quoted}', 'plain', '{right}')" for right in ("SELECT", "DELETE")) +
            f", rolsuper, rolcanlogin FROM pg_roles WHERE rolname = '{quoted}'", database)
        return {"t|f|f|t": "read", "t|t|f|t": "all"}[shown]

    def state(self, name):
        return self.server.sql("""
            SELECT id, md5(word) FROM plain ORDER BY id; SELECT md5(bytes) FROM raw; SELECT * FROM few;
            SELECT twice(21), lo_get(4242), obj_description('plain'::regclass);
            SELECT relname, relkind FROM pg_class WHERE relnamespace='public'::regnamespace ORDER BY 1;
            SELECT datcollate, encoding FROM pg_database WHERE datname=current_database();
            SELECT nextval('plain_id_seq') > 4""", name)

    def test_a_strangers_dump_reaches_nothing_else(self):
        marker = self.make("target", "owner2")
        dump, before = self.dump(marker), self.state("target")
        canary = self.root / "canary"
        for text in (f"\\! touch {canary}\n", f"\\o |touch {canary}\n-- PostgreSQL database dump complete\n",
                     f"COPY plain FROM PROGRAM 'touch {canary}';\n"):
            with self.subTest(text):  # text is no archive
                self.restore(marker, text.encode(), expect=1)
                self.assertFalse(canary.exists())
        # The archive itself, with the definition of the function replaced by as long a text: what
        # its maker would put there.
        found = re.search(rb"CREATE FUNCTION public\.twice.*?\$\$;\n", dump, re.S)
        for text in (f"\\! touch {canary}\n", f"COPY plain FROM PROGRAM 'touch /tmp/b2canary';\n",
                     "ALTER ROLE owner2 SUPERUSER;", "RESET ROLE; CREATE ROLE evil;",
                     "COPY plain(word) FROM '/etc/passwd';", "DROP DATABASE postgres;"):
            with self.subTest(text):
                body = text.encode().ljust(len(found[0]))[:len(found[0])]
                self.restore(marker, dump.replace(found[0], body), expect=1)
                self.assertFalse(canary.exists() or os.path.exists("/tmp/b2canary"))
                self.assertEqual(self.state("target"), before)
        self.assertEqual(self.server.sql("SELECT rolsuper FROM pg_roles WHERE rolname='owner2'"), "f")
        # Rights for the log-in of the restore would keep it; settings of the new database count for whoever comes
        # in, and with these the second byte of the first letter swallows the backslash.
        hash_ = hashlib.sha256(b"target").hexdigest()[:16]
        evil = "\u0415\\', 1::name); ALTER ROLE owner2 SUPERUSER; --"
        (self.system / "user.bob").write_text(
            f'<doc><info dist="3"/><elem name="db.user"><elem><param name="name">{evil}</param><param name="type">postgresql'
            '</param><grant database="target">ALL PRIVILEGES</grant></elem></elem></doc>')
        self.tool("restore", self.system / "user.bob")
        for text in (f"GRANT CREATE ON SCHEMA public TO b2_restore_{hash_};",
                     f"ALTER DATABASE b2_new_{hash_} SET backslash_quote = on;"
                     f"ALTER DATABASE b2_new_{hash_} SET client_encoding = 'SJIS';"):
            with self.subTest(text):
                self.server.sql("DROP DATABASE target")
                self.server.sql("CREATE DATABASE target TEMPLATE template0 OWNER owner2")
                self.server.sql(f"CREATE FUNCTION pad() RETURNS text LANGUAGE sql AS $$ SELECT '{'x' * 200}' $$", "target")
                dump = self.dump(marker)
                pad = re.search(rb"CREATE FUNCTION public\.pad.*?\$\$;\n", dump, re.S)[0]
                self.restore(marker, dump.replace(pad, text.encode().ljust(len(pad))))
                self.assertEqual(self.server.sql(self.LEFT), "")
                self.assertEqual(self.server.sql("SELECT rolsuper FROM pg_roles WHERE rolname='owner2'"), "f")
        self.server.sql("ALTER ROLE owner2 SUPERUSER")
        self.assertIn("superuser", self.restore(marker, dump, expect=1))


class Markers(unittest.TestCase):
    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        self.panel = self.enterContext(Panel())
        self.panel.command("user add bob --root /srv/bob --uid 1001")
        self.system = self.root / "tree/.system"
        self.system.mkdir(parents=True)
        os.chmod(self.system, 0o700)
        self.victim = self.root / "victim"
        self.victim.write_text("untouched")

    def tool(self, action, path):
        return backup2_test.run(["backup2_system", "--" + action, "--user", "bob", "--manager",
                                 "qorvel", path], timeout=20)

    def test_credentials_of_a_killed_run_are_swept(self):
        with subprocess.Popen(["true"]) as ended:
            ended.wait()
        left = [self.root / f"var/run/backup2_system.{pid}.0" for pid in (ended.pid, os.getpid())]
        for folder in left:
            folder.mkdir()
            (folder / "client.cnf").write_text("password")
        (self.system / "user.bob").touch()
        self.assertEqual(self.tool("end", self.system / "user.bob").returncode, 0)
        self.assertEqual([folder.exists() for folder in left], [False, True])

    def test_names_outside_the_grammar_are_refused(self):
        for name in ("db.srv", "db..x", "db.srv.", "other.x", "db.-x.y", "db.srv.a b", "db.srv.$(id)",
                     "db.srv.a\nb", "user.", "user.a;b", "bob"):
            with self.subTest(name):
                self.assertEqual(self.tool("start", self.system / name).returncode, 2)

    def test_nothing_planted_is_written_through(self):
        marker = self.system / "user.bob"
        plants = {
            "symbolic link": lambda: marker.symlink_to(self.victim),
            "hard link": lambda: os.link(self.victim, marker),
            "FIFO": lambda: os.mkfifo(marker),
            "folder": marker.mkdir,
            "nothing": lambda: None,
            "a user's file": lambda: (marker.touch(), os.chown(marker, 1001, 1001)),
        }
        for kind, plant in plants.items():
            plant()
            for action in ("start", "end"):
                with self.subTest(kind, action=action):
                    done = self.tool(action, marker)
                    self.assertEqual(done.returncode, 1, done.stderr)
                    self.assertEqual(self.victim.read_text(), "untouched")
            with contextlib.suppress(FileNotFoundError):
                marker.rmdir() if marker.is_dir() else marker.unlink()

    def test_a_planted_folder_is_refused(self):
        elsewhere = self.root / "elsewhere"
        elsewhere.mkdir()
        (elsewhere / "user.bob").write_text("untouched")
        for kind in ("link", "user's folder", "writable"):
            self.system.rename(self.root / kind)
            if kind == "link":
                self.system.symlink_to(elsewhere)
            else:
                self.system.mkdir()
                (self.system / "user.bob").write_text("untouched")
                os.chown(self.system, 1001 if kind == "user's folder" else 0, 0)
                os.chmod(self.system, 0o777 if kind == "writable" else 0o755)
            with self.subTest(kind):
                self.assertEqual(self.tool("start", self.system / "user.bob").returncode, 1)
                self.assertEqual((self.system / "user.bob").read_text(), "untouched")
        self.assertEqual((elsewhere / "user.bob").read_text(), "untouched")


del SystemCase  # its classes above hold the cases

if __name__ == "__main__":
    unittest.main()
