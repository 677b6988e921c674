"""The panel's page in Chromium, as people use it: page.mjs."""

import json
import os
import pathlib
import shutil
import subprocess
import unittest

import backup2_test
from page.page_site import ANNA, BERT, MONDAY, PASSWORDS, SHOTS, TUESDAY, PageCase

HERE = pathlib.Path(__file__).parent


def node_packages():
    """Brings what package-lock.json names when it is not there."""
    wanted, there = HERE / "package-lock.json", HERE / "node_modules/.package-lock.json"
    if not there.exists() or there.stat().st_mtime < wanted.stat().st_mtime:
        subprocess.run(["npm", "ci", "--prefer-offline", "--ignore-scripts", "--no-audit", "--no-fund"],
                       cwd=HERE, check=True, capture_output=True)
        there.touch()


class Page(PageCase):
    def test_people_find_restore_and_fetch_their_files(self):
        node_packages()
        shots = SHOTS or str(self.site.root / "shots")
        os.makedirs(shots, exist_ok=True)
        facts = {"url": self.site.url, "anna": ANNA, "bert": BERT, "passwords": PASSWORDS, "shots": shots,
                 "monday": MONDAY, "tuesday": TUESDAY, "home": str(self.site.homes[ANNA]),
                 "hold": str(self.site.hold), "mariadb": self.site.mariadb, "chromium": shutil.which("chromium")}
        done = subprocess.run(["node", HERE / "page.mjs"], input=json.dumps(facts), text=True, capture_output=True,
                              timeout=500, check=False, env=backup2_test.environment(HOME=str(self.site.root)))
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)


if __name__ == "__main__":
    unittest.main()
