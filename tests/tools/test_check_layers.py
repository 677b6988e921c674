"""Includes that point against the layers are found; the ones that may stand are not."""
import pathlib
import subprocess
import sys
import tempfile
import unittest

TOOL = pathlib.Path(__file__).resolve().parents[2] / "tools" / "check_layers.py"

ALLOWED = [
    ("vel/vel_log.cpp", "<fmt/printf.h>"), ("vel/vel_tool.cpp", '"vel/vel_file.h"'),
    ("vel/vel_file.h", "<sys/stat.h>"), ("backup_common/a.cpp", '"backup_common/b.h"'),
    ("backup_common/a.h", '"backup_common/export.h"'), ("backup_common/a.h", '"vel/vel_xml.h"'),
    ("sbin/one/main.cpp", "<isa-l.h>"), ("sbin/one/main.cpp", '"sbin/one/part.h"'),
    ("panel/store.cpp", "<sqlite3.h>"), ("tests/x.cpp", "<curl/curl.h>"),
    ("sbin/backup2_cpanel_conv/main.cpp", '"sbin/foreign_panel/report.h"'),
    ("velcgi/one/main.cpp", '"backup_common/a.h"'), ("velcgi/one/main.cpp", "<openssl/evp.h>"),
]
REFUSED = [
    ("vel/str.cpp", '"vel/vel_file.h"'), ("vel/vel_xml.h", '"vel/vel_tool.h"'),
    ("vel/vel_xml.h", "<pugixml.hpp>"), ("vel/vel_new.cpp", '"vel/str.h"'),
    ("vel/str.cpp", '"backup_common/a.h"'), ("backup_common/a.cpp", "<curl/curl.h>"),
    ("backup_common/a.h", '"backup_common/b.h"'), ("backup_common/a.cpp", '"sbin/one/part.h"'),
    ("panel/store.cpp", '"backup_common/a.h"'), ("panel/store.h", "<sqlite3.h>"),
    ("sbin/one/main.cpp", '"sbin/foreign_panel/report.h"'), ("sbin/foreign_panel/a.cpp", '"sbin/one/part.h"'),
    ("sbin/one/main.cpp", '"sbin/two/part.h"'), ("sbin/one/main.cpp", '"panel/store.h"'),
    ("velcgi/one/main.cpp", '"sbin/one/part.h"'), ("velcgi/one/main.cpp", '"velcgi/two/part.h"'),
    ("velcgi/one/main.cpp", '"panel/store.h"'), ("sbin/one/part.h", "<archive.h>"), ("sbin/one/main.cpp", '"part.h"'),
]


def check(place, header):
    with tempfile.TemporaryDirectory() as top:
        for name, text in (("vel/str.h", ""), (place, f"\n  #  include {header}\n")):
            path = pathlib.Path(top, name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text, encoding="utf-8")
        return subprocess.run([sys.executable, TOOL, top], capture_output=True, text=True, check=False)


class CheckLayers(unittest.TestCase):
    def test_what_may_stand_passes(self):
        for place, header in ALLOWED:
            with self.subTest(place=place, header=header):
                done = check(place, header)
                self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def test_what_points_against_the_layers_is_named_with_its_line(self):
        for place, header in REFUSED:
            with self.subTest(place=place, header=header):
                done = check(place, header)
                self.assertEqual(done.returncode, 1)
                self.assertTrue(done.stdout.startswith(f"{place}:2: {header[1:-1]}: "), done.stdout)

    def test_a_tree_without_sources_does_not_pass(self):
        with tempfile.TemporaryDirectory() as top:
            done = subprocess.run([sys.executable, TOOL, top], capture_output=True, text=True, check=False)
            self.assertNotEqual(done.returncode, 0)


if __name__ == "__main__":
    unittest.main()
