"""Panel data of one edition on the other: the command, and what the panel makes of them."""

import os
import stat
import unittest
import xml.etree.ElementTree as ElementTree

import backup2_test
from panel import Panel

SMALL = ('<doc>\n  <info dist="1"/>\n  <elem name="user.edit" elid="bob"/>\n  <elem name="db">'
         '<elem elid="shop-&gt;MySQL"><param name="server">MySQL</param></elem></elem>\n</doc>')


class Command(unittest.TestCase):
    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        self.file = self.root / "-user.bob"
        self.write(SMALL)

    def write(self, text):
        self.file.write_text(text)
        os.chown(self.file, 33, 34)
        self.file.chmod(0o640)

    def convert(self, *words, expect=0):
        done = backup2_test.run(["backup2", "convert", *words, "--", self.file])
        self.assertEqual(done.returncode, expect, done.stdout + done.stderr)
        return done.stdout

    def attributes(self, path):
        info = path.stat()
        return stat.S_IMODE(info.st_mode), info.st_uid, info.st_gid

    def databases(self, path=None):
        document = ElementTree.parse(path or self.file)
        return [(elem.get("elid"), elem.find("param").get("name"), elem.findtext("param"))
                for elem in document.findall("elem[@name='db']/elem")]

    def test_a_file_changes_in_place_and_back(self):
        self.assertIn("tavo2merun", self.convert("--host-dist", "3"))
        self.assertEqual(self.databases(), [("shop->mysql->bob", "type", "mysql")])
        self.assertEqual(self.attributes(self.file), (0o640, 33, 34))
        before = self.file.stat()
        self.assertIn("unchanged", self.convert("--host-dist", "3"))  # twice is once
        self.assertEqual(self.file.stat().st_ino, before.st_ino)
        self.assertIn("merun2tavo", self.convert("--host-dist", "1"))
        self.assertEqual(self.databases(), [("shop->MySQL", "server", "MySQL")])
        self.assertEqual(self.file.read_text().split("?>")[-1], SMALL.replace("&gt;", ">"))

    def test_another_file_leaves_the_first_as_it_was(self):
        out = self.root / "out.xml"
        for dist, want in (("3", "shop->mysql->bob"), ("1", "shop->MySQL")):
            with self.subTest(dist):
                self.convert("--host-dist", dist, "--output", out)
                self.assertEqual(self.databases(out)[0][0], want)
                self.assertEqual(self.attributes(out), (0o640, 33, 34))
                self.assertEqual(self.file.read_text(), SMALL)

    def test_what_cannot_be_converted_stays_and_is_told(self):
        for text, status, word in (("no XML", 1, "parse"), ("", 1, "parse"), (SMALL[:-3], 1, "parse"),
                                   ("<!DOCTYPE a><doc/>", 1, "document type"),
                                   ("<doc><elem/></doc>", 3, "no /doc/info")):
            with self.subTest(text):
                self.write(text)
                self.assertIn(word, self.convert("--host-dist", "3", expect=status))
                self.assertEqual(self.file.read_text(), text)
                self.assertEqual(len(list(self.root.glob("*user.bob*"))), 1)
        for dist in ("", "x", "-1", "3;1"):
            self.convert(f"--host-dist={dist}", expect=2)

    def test_links_and_missing_files_are_refused(self):
        target = self.file.rename(self.root / "target")
        self.convert("--host-dist", "3", expect=1)
        self.file.symlink_to(target)
        self.convert("--host-dist", "3", expect=1)
        self.assertEqual(target.read_text(), SMALL)

    def test_what_is_no_file_is_not_replaced(self):
        out = self.root / "out"
        for make in (os.mkfifo, os.mkdir, lambda path: os.symlink(self.file, path)):
            make(out)
            before = out.lstat().st_ino
            for dist in ("3", "1"):  # to convert, to copy
                self.convert("--host-dist", dist, "--output", out, expect=1)
                self.assertEqual(out.lstat().st_ino, before)
            out.rmdir() if out.is_dir() else out.unlink()
        self.assertEqual(self.file.read_text(), SMALL)

    def test_the_panel_here_says_which_edition_it_is(self):
        with Panel() as panel:
            self.assertIn("tavo2merun", self.convert())
            panel.command("dist set 1")
            self.assertIn("merun2tavo", self.convert())


class InThePanel(unittest.TestCase):
    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        self.panel = self.enterContext(Panel())
        self.panel.command("user add bob --root /srv/bob --uid 1001 --folder data --exclude *.tmp")
        self.panel.command("server add my --type mysql --socket /run/s --login root", "secret")
        self.panel.command("db add bob my shop --owner shopper", "owner's")

    def data(self):
        return self.panel.ask(func="backup2.user.data", elid="bob")

    def restore(self, document):
        file = self.root / "document"
        file.write_bytes(ElementTree.tostring(document))
        return [node.text for node in
                self.panel.ask(func="backup2.user.restore", elid="bob", file=file).findall("warning")]

    def test_a_document_has_the_form_of_the_edition(self):
        for dist, elid, name, kind in (("3", "shop->mysql->bob", "type", "mysql"),
                                       ("1", "shop->MySQL", "server", "MySQL")):
            with self.subTest(dist):
                self.panel.command(f"dist set {dist}")
                self.assertEqual(self.panel.command("dist show"), dist + "\n")
                self.assertEqual(self.panel.ask(func="backup2.settings").findtext("dist"), dist)
                data = self.data()
                self.assertEqual(data.find("info").get("dist"), dist)
                database = data.find("elem[@name='db']/elem")
                self.assertEqual(database.get("elid"), elid)
                self.assertEqual(database.findtext(f"param[@name='{name}']"), kind)
        self.panel.command("dist set 2", expect=2)

    def test_settings_come_back_and_what_is_foreign_is_kept(self):
        self.panel.command("plan set small")
        self.panel.command("plan assign small bob")
        mailbox = ElementTree.fromstring(
            '<elem name="email"><elem elid="a@b.c"><param name="password" form="crypt">$6$x</param></elem></elem>')
        saved = self.data()
        saved.append(mailbox)
        ElementTree.SubElement(saved.find("elem[@name='user.edit']"), "param", name="quota").text = "5"
        self.panel.command("user remove bob")
        self.panel.command("user add bob --root /srv/other --uid 1002 --folder mail")
        self.assertEqual(self.restore(saved), [])
        back = self.data()
        edit = {node.get("name"): node.text for node in back.find("elem[@name='user.edit']")}
        self.assertEqual(edit, {"name": "bob", "uid": "1002", "root": "/srv/other", "plan": "small",
                                "folder": "data", "exclude": "*.tmp", "quota": "5"})
        self.assertEqual(ElementTree.tostring(back.find("elem[@name='email']")),
                         ElementTree.tostring(mailbox))
        self.assertEqual(back.find("elem[@name='db']/elem").get("elid"), "shop->mysql->bob")
        self.assertEqual(self.panel.ask(func="backup2.database", elid="my.shop", user="bob")
                         .findtext("owner"), "shopper")
        self.assertEqual(self.restore(back), [])  # and once more
        self.assertEqual(ElementTree.tostring(self.data()), ElementTree.tostring(back))

    def test_what_does_not_fit_is_left_out_and_told(self):
        self.panel.command("user add eve --root /srv/eve --uid 1003")
        self.panel.command("db add eve my hers")
        document = ElementTree.fromstring(
            '<doc><info dist="3"/><elem name="user.edit"><param name="folder">../etc</param>'
            '<param name="folder">mail</param><param name="plan">golden</param></elem><elem name="db">' +
            "".join(f'<elem><param name="name">{name}</param><param name="dbserver">{server}</param>'
                    f'<param name="owner">{owner}</param></elem>'
                    for name, server, owner in (("hers", "my", ""), ("new", "none", ""), ("a/b", "my", ""),
                                                ("good", "my", "x y"))) + "</elem></doc>")
        warnings = "\n".join(self.restore(document))
        for word in ("../etc", "golden", "my.hers", "none.new", "my.a/b", "x y"):
            self.assertIn(word, warnings)
        names = [node.findtext("param[@name='name']")
                 for node in self.data().findall("elem[@name='db']/elem")]
        self.assertEqual(sorted(names), ["good", "shop"])
        self.assertEqual([node.text for node in self.panel.ask(
            func="backup2.item.info", elid="bob", role="").findall("files/folder")], ["mail"])

    def test_accounts_of_a_database_are_told_with_their_rights(self):
        document = ElementTree.fromstring(
            '<doc><info dist="3"/><external/><elem name="db.user"><elem>'
            '<param name="name">reader</param><param name="type">mysql</param>'
            '<param name="password" form="mysql_native">*0</param>'
            '<grant database="shop">SELECT</grant><grant database="other">ALL PRIVILEGES</grant>'
            "</elem></elem></doc>")
        self.assertEqual(self.restore(document), [])
        account, = self.panel.ask(func="backup2.database", elid="my.shop", user="bob").findall("account")
        self.assertEqual([node.text for node in account.findall("grant")], ["SELECT"])
        self.assertEqual(account.findtext("param[@name='name']"), "reader")
        self.assertEqual([node.text for node in self.panel.ask(  # of another panel: not taken over
            func="backup2.item.info", elid="bob", role="").findall("files/folder")], ["data"])

    def test_requests_are_roots_alone(self):
        self.assertEqual(self.panel.error(func="backup2.user.restore", elid="eve", file="x"),
                         ("missed", "user"))
        servers = self.panel.ask(func="backup2.server").findall("server")
        self.assertEqual([node.attrib for node in servers], [{"name": "my", "type": "mysql"}])
        self.assertEqual(self.panel.error(func="backup2.server", elid="x"), ("missed", "server"))


if __name__ == "__main__":
    unittest.main()
