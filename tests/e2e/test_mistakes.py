"""Commands that somebody in a hurry gets wrong: each is told what is wrong, and what there is instead."""

import unittest

from backup2_test import local_token, run
from storage_case import MONDAY, USER, StorageCase


class Mistakes(StorageCase):
    def setUp(self):
        super().setUp()
        self.panel.command("storage set", local_token(self.root / "store"))
        (self.home / "data/sub/Invoice.pdf").write_text("to pay")
        self.backup2("run", USER, "--date", MONDAY)

    def assert_told(self, cases):
        for words, status, text in cases:
            with self.subTest(words):
                done = run(["backup2", *words], **self.env)
                self.assertEqual(done.returncode, status, done.stdout + done.stderr)
                self.assertIn(text, done.stdout)

    def test_commands_and_users(self):
        missing = f'there is no backup {USER} 2024-03-09, "backup2 list {USER}" shows what there is'
        self.assert_told([
            ([], 2, "no command is given (backup2 --help; run, list"),
            (["resotre", USER], 2, 'there is no command "resotre", is it "restore"?'),
            (["storage", "shwo"], 2, 'is it "show"? (backup2 storage --help; add, check'),
            (["restore", USER], 2, "date is required (backup2 restore --help"),
            (["import", USER], 2, "import wants a file and a user, or --from"),
            (["import", "a", "b", "c"], 2, "c (backup2 import --help"),
            (["show", USER, "2024-03-09"], 1, missing),
            (["restore", USER, "2024-03-09", "--to", "/nowhere"], 1, missing),
            (["verify", "nobody's"], 1, "there is no backup of nobody's"),
        ])
        self.panel.stop()
        socket = self.root / "var/run/qorvel.sock"
        self.assert_told([(["list"], 1, f"the panel does not answer, is it running? qorvel: no socket {socket}")])

    def test_paths(self):
        to = ["restore", USER, MONDAY, "--to", str(self.root / "target")]
        self.assert_told([
            ([*to, "data/sub/invoice.pdf"], 1, "data/sub/invoice.pdf\tis it data/sub/Invoice.pdf?"),
            ([*to, "sub/Invoice.pdf"], 1, "is it data/sub/Invoice.pdf?"),
            ([*to, "data/sbu/Invoice.pdf"], 1, "is it data/sub/Invoice.pdf?"),
            ([*to, "data/Invoice.pdf"], 1, "is it data/sub/Invoice.pdf?"),
            ([*to, "data/nothing.like", "data/a"], 1, f'"backup2 files {USER} {MONDAY} --search TEXT" finds names'),
            ([*to, "/data/a"], 2, "is not relative to the user's root, as data/index.html"),
            ([*to[:-1], str(self.home / "data/a")], 2, "data/a is no folder"),
            (["files", USER, MONDAY, "data/subs"], 1, "there is no folder data/subs: is it data/sub?"),
            (["files", USER, MONDAY, "data/sub/Invoice.pdf"], 0, "data/sub/Invoice.pdf\n"),
            (["files", USER, MONDAY, "--search", "voucher"], 0, "nothing\n"),
        ])
        self.assertTrue((self.root / "target/data/a").exists())


if __name__ == "__main__":
    unittest.main()
