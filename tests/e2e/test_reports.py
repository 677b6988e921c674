"""Restore reports: written step by step, shown, begun afresh; and what becomes of broken ones."""

import json
import os
import signal
import time
import unittest

import backup2_test
from backup2_test import local_token, run
from storage_case import MONDAY, PASSWORD, USER, StorageCase

OTHER = "games"
SHOWN = b"a & b <\xe2\x82\xac\xff>\x01"


def give(top):
    """The tree becomes the user's."""
    for folder, dirs, files in os.walk(top):
        for path in [folder, *(os.path.join(folder, name) for name in dirs + files)]:
            os.lchown(path, 33, 33)


class Reports(StorageCase):
    def setUp(self):
        super().setUp()
        self.panel.command("storage set", local_token(self.root / "store"))
        self.bad = self.home / "data/stays"  # a folder that holds something: no file takes its place
        self.bad.mkdir()
        for name in (b"plain", b"Database dump", SHOWN):
            (self.bad / name.decode("utf-8", "surrogateescape")).write_text("a file")
        give(self.home)
        self.backup2("run", USER, "--date", MONDAY)
        self.target = self.root / "target"

    def block(self, *names):
        for name in names:
            folder = self.target / "data/stays" / name.decode("utf-8", "surrogateescape")
            folder.mkdir(parents=True)
            (folder / "in the way").write_text("")
        give(self.target)

    def restore(self, *words, expect=0):
        return self.backup2("restore", USER, MONDAY, "--to", str(self.target), *words, expect=expect)

    def report(self, name="r1"):
        return json.loads(self.backup2("report", name, "--json"))

    def file(self, name="r1"):
        return self.root / f"var/backup2_restore_report.{name}.xml"

    def test_a_report_lives_from_restore_to_restore(self):
        self.block(b"plain", b"Database dump", SHOWN)
        self.restore("--report", "r1", expect=1)
        rows = json.loads(self.backup2("report", "--json"))
        self.assertEqual([(row["id"], row["owner"], row["events"], row["viewed"]) for row in rows],
                         [("r1", USER, 3, False)])
        report = self.report()
        self.assertEqual((report["owner"], report["type"], report["finalized"], report["viewed"], report["badchars"]),
                         (USER, "all", True, False, True))
        self.assertEqual({(event["type"], event["name"]) for event in report["events"]},
                         {("file", "/plain"), ("file", "/Database dump"), ("file", "/a & b <??>?")})
        self.assertTrue(self.report()["viewed"])
        self.restore("--report", "r1", "data/stays/plain", expect=1)
        report = self.report()
        self.assertEqual(([event["name"] for event in report["events"]], report["type"], report["viewed"]),
                         (["/plain"], "selected", False))
        shown = self.backup2("report", "r1")
        self.assertRegex(shown, r"file +/plain\n")
        self.restore("--report", "r1", "data/a")
        self.assertIn("Everything came back", self.backup2("report", "r1"))
        # Without an id one is made, and told.
        name = self.restore("data/a").split("backup2 report ")[1].strip()
        self.assertRegex(name, r"^www-data-\d{8}-\d{6}-[0-9a-f]{4}$")
        self.assertEqual(self.report(name)["events"], [])
        self.restore("--dry-run", "--report", "dry")
        self.assertFalse(self.file("dry").exists())

    def test_what_ends_a_restore_stands_in_the_report(self):
        for slice_ in (self.root / "store" / USER / MONDAY).glob("F*"):
            slice_.unlink()
        self.restore("--report", "r1", expect=1)
        report = self.report()
        self.assertTrue(report["finalized"])
        self.assertTrue(report["events"], report)
        self.panel.command(["storage", "set"], local_token(self.root / "store", "a password"))
        self.backup2("restore", USER, "2024-03-09", "--to", str(self.target), "--report", "r2", expect=1)
        event, = self.report("r2")["events"]
        self.assertEqual((event["type"], event["code"]), ("get_data", 1))
        self.assertIn("there is no backup", event["name"])

    def test_broken_reports_hinder_nobody(self):
        for content in ("", "<doc><elem", "no XML", "<doc/><doc/>", "<a>" * 100000, "\0"):
            self.file().write_text(content)
            self.assertIn("is no XML document", self.backup2("report", "r1", expect=1))
            self.file().write_text(content)
            self.assertIn("r1\txml parse_failed", run(["backup2", "report"], **self.env).stdout)
            self.assertEqual(self.backup2("report", "--json"), "[]\n")
            self.restore("--report", "r1", "data/a")
            self.assertTrue(self.report()["finalized"])
            self.assertEqual(self.file().with_suffix(".xml.bad").read_text(), content)
            self.file().unlink()
        self.backup2("report", "r1", expect=1)
        for name in ("../r1", "r 1", "r.1", "x" * 65, "r/1", "\N{LATIN SMALL LETTER A WITH DIAERESIS}"):
            self.backup2("report", name, expect=2)
            self.restore("--report", name, expect=2)
        self.file().mkdir()  # the restore goes on without a report
        self.restore("--report", "r1", "data/a", expect=3)
        self.assertTrue((self.target / "data/a").exists())

    def test_a_report_is_one_users(self):
        self.file().write_text(f'<doc owner="{OTHER}"><elem name="a" owner="{OTHER}"/></doc>')
        self.assertIn("belongs to " + OTHER, self.restore("--report", "r1", expect=2))
        self.assertFalse(self.target.exists())
        self.assertEqual([row["owner"] for row in json.loads(self.backup2("report", "--json"))], [OTHER])

    def test_old_reports_go_but_for_the_newest_that_nobody_has_viewed(self):
        def write(name, day, viewed, owner=USER):
            mark = ' viewed="yes"' if viewed else ""
            self.file(name).write_text(f'<doc owner="{owner}" uid="33" date="2024-01-01 10:00:{day:02}" type="all" finalized="yes"{mark}/>')
        for number in range(130):
            write(f"r{number:03}", number // 3, number > 20)
        write("others", 1, True, OTHER)
        write("aged", 2, False, OTHER)
        write("aged-unviewed", 3, False, OTHER)
        for name in ("aged", "aged-unviewed"):
            os.utime(self.file(name), (0, 0))
        self.restore("--report", "just-now")
        left = sorted(row["id"] for row in json.loads(self.backup2("report", "--json")))
        self.assertEqual(left, sorted(["aged-unviewed", "just-now", "others", *(f"r{number:03}" for number in range(31, 130))]))

    def test_a_killed_restore_leaves_a_report_that_is_not_ended(self):
        self.panel.command("storage set", local_token(self.root / "store", PASSWORD))
        self.backup2("run", USER, "--custom")
        openssl = backup2_test.HeldOpenssl(self.root)
        openssl.hold.touch()
        process = backup2_test.start(["backup2", "restore", USER, "custom", "--to", str(self.target), "--report", "r1"],
                                     PATH=openssl.path, **self.env)
        while not self.file().exists():
            self.assertIsNone(process.poll())
            time.sleep(0.005)
        process.send_signal(signal.SIGKILL)
        process.communicate(timeout=60)
        self.assertFalse(self.report()["finalized"])
        self.backup2("restore", USER, "custom", "--to", str(self.target), "--report", "r1")
        self.assertTrue(self.report()["finalized"])


if __name__ == "__main__":
    unittest.main()
