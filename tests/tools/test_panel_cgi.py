"""How the panel runs the programs of velcgi/: what they learn, what they may answer, when they end."""

import os
import pathlib
import socket
import subprocess
import textwrap
import time
import unittest
import unittest.mock

import backup2_test
from panel import TlsPanel, UnixConnection

FINE = "printf 'Content-Type: text/plain\\n\\n'\n"


def status_of(pid):
    """VmRSS and its like, in bytes."""
    lines = pathlib.Path(f"/proc/{pid}/status").read_text().splitlines()
    return {line.split(":")[0]: int(line.split()[1]) * 1024 for line in lines if line.endswith("kB")}


@unittest.skipUnless(os.geteuid() == 0, "the panel serves root")
class Case(unittest.TestCase):
    wait = "100"  # seconds that a program may be silent

    def setUp(self):
        self.root = self.enterContext(backup2_test.install_root())
        (self.root / "velcgi").unlink()
        (self.root / "velcgi").mkdir()
        variables = {"SECRET_OF_THE_PANEL": "not for programs", "VEL_CGI_WAIT": self.wait}
        self.enterContext(unittest.mock.patch.dict(os.environ, variables))
        self.panel = self.enterContext(TlsPanel(self.root))

    def add(self, name, script):
        path = self.root / "velcgi" / name
        path.write_text("#!/bin/bash\n" + textwrap.dedent(script))
        path.chmod(0o755)

    def ask(self, target, method="GET", body=None, connection=None, **headers):
        """Status, headers and body; a cut connection gives what came of the body, and status 0."""
        return backup2_test.exchange(connection or self.panel.connect(), method, target, body, **headers)

    def wait_until(self, happened, what):
        for _ in range(1200):
            if happened():
                return
            time.sleep(0.05)
        self.fail(what)

    def begins(self, name):
        """Waits until a program has written its number."""
        path = self.root / name
        self.wait_until(lambda: path.exists() and path.read_text().endswith("\n"), "does not start")

    def gone(self, name):
        """True when the program that wrote its number has ended."""
        pid = (self.root / name).read_text().strip()
        return not pathlib.Path("/proc", pid).exists()


class Programs(Case):
    # ---- What a program learns ------------------------------------------------------------------

    def test_a_program_knows_the_request_and_nothing_else(self):
        self.add("tell", FINE + "ulimit -c; ulimit -n; ls /proc/self/fd | wc -l; pwd; cat; echo; /usr/bin/env -0")
        for connection, https in ((self.panel.connect(), "on"), (UnixConnection(self.panel.socket), None)):
            status, _, said = self.ask(
                "/velcgi/tell?a=%2e&b#c", "POST", "x=1&y", connection, Content_Type="application/x-www-form-urlencoded",
                Proxy="http://evil", Cookie="c=1", Range="bytes=0-5", If_Range='"t"', Authorization="Basic eA==")
            self.assertEqual(status, 200, said)
            core, files, descriptors, folder, body, env = said.decode().split("\n", 5)
            # ls itself has one more open: the folder that it reads.
            self.assertEqual((core, files, descriptors, folder, body), ("0", "256", "4", str(self.root), "x=1&y"))
            env = dict(pair.split("=", 1) for pair in env.split("\0") if pair)
            for own in ("PWD", "SHLVL", "_", "OLDPWD"):  # bash makes these
                env.pop(own, None)
            known = {"GATEWAY_INTERFACE": "CGI/1.1", "SERVER_SOFTWARE": "backup2_panel", "SERVER_PROTOCOL": "HTTP/1.1",
                     "REQUEST_METHOD": "POST", "SCRIPT_NAME": "/velcgi/tell", "QUERY_STRING": "a=%2e&b",
                     "CONTENT_TYPE": "application/x-www-form-urlencoded", "CONTENT_LENGTH": "5", "HTTP_RANGE": "bytes=0-5",
                     "HTTP_IF_RANGE": '"t"', "VEL_ROOT": str(self.root)}
            self.assertEqual(env, env | known)
            self.assertEqual(set(env) - set(known) - {"SERVER_NAME", "SERVER_PORT", "REMOTE_ADDR", "PATH"},
                             {"HTTPS"} if https else set())
            self.assertNotIn(str(backup2_test.BUILD), env["PATH"])

    def test_only_programs_of_the_folder_are_run(self):
        self.add("fine", FINE)
        self.add("Big", FINE)
        self.add("dot.ted", FINE)
        (self.root / "velcgi/linked").symlink_to("/bin/true")
        (self.root / "velcgi/folder").mkdir()
        for method in ("GET", "HEAD", "POST"):
            self.assertEqual(self.ask("/velcgi/fine", method)[0], 200)
            for name in ("", "missing", "Big", "dot.ted", "linked", "folder", "fine/", "fine/more", "../velcgi/fine",
                         "..%2fvelcgi%2ffine", "%66ine", "fine%00", "fine%0a", "./fine", "fine;x", "x" * 300):
                self.assertIn(self.ask("/velcgi/" + name, method)[0], (400, 404), name)
        self.assertEqual(self.ask("/velcgi/fine", Content_Encoding="gzip")[0], 415)

    def test_what_is_no_range_counts_for_nothing(self):
        self.add("tell", FINE + 'echo -n "$HTTP_RANGE"')
        cases = {"bytes=0-5": "bytes=0-5", "Bytes=7-": "bytes=7-", "bytes=-05": "bytes=-5", "bytes=-0": "bytes=-0",
                 f"bytes=0-{'9' * 30}": f"bytes=0-{'9' * 18}", f"bytes={'9' * 30}-": f"bytes={'9' * 18}-"}
        nothing = ("", "0-5", "bytes=", "bytes=-", "bytes=5", "bytes=5-2", "bytes=a-b", "bytes=--5", "bytes=%30-5", "bytes=0-1,3-4",
                   "bytes=0-1,", "items=0-5", "bytes=0x1-5", "bytes = 0-5", "bytes=0-5;q=1")
        for given, seen in cases.items() | {(given, "") for given in nothing}:
            for connection in (self.panel.connect(), UnixConnection(self.panel.socket)):
                self.assertEqual(self.ask("/velcgi/tell", connection=connection, Range=given)[0::2], (200, seen.encode()), given)
        self.assertEqual(self.ask("/velcgi/tell", Range="bytes=0-1", RANGE="bytes=2-3")[0::2], (200, b""))

    # ---- What a program may answer --------------------------------------------------------------

    def test_answers_that_are_none_are_refused_as_a_whole(self):
        kinds = {
            "nothing": "", "no_empty_line": "echo Content-Type: a/b", "no_type": "printf 'ETag: x\\n\\n'",
            "no_colon": "printf 'Content-Type: a/b\\nnonsense\\n\\n'", "unknown": "printf 'Content-Type: a/b\\nX-Y: 1\\n\\n'",
            "cookie": "printf 'Content-Type: a/b\\nSet-Cookie: session=1\\n\\n'",
            "chunked": "printf 'Content-Type: a/b\\nTransfer-Encoding: chunked\\n\\n'",
            "control": "printf 'Content-Type: a/b\\rX: y\\n\\n'", "high": "printf 'Content-Type: a\\xc3\\xa4/b\\n\\n'",
            "twice": "printf 'Content-Type: a/b\\ncontent-type: c/d\\n\\n'",
            "length": "printf 'Content-Type: a/b\\nContent-Length: 1x\\n\\nx'",
            "negative": "printf 'Content-Type: a/b\\nContent-Length: -1\\n\\nx'",
            "status": "printf 'Status: 100 Go on\\nContent-Type: a/b\\n\\n'",
            "endless": "while :; do echo 'ETag: xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx'; done",
            "big_uncounted": FINE + "head -c 1100000 /dev/zero", "dies": "kill -9 $$",
        }
        for name, script in kinds.items():
            with self.subTest(name):
                self.add(name, script)
                self.assertEqual(self.ask("/velcgi/" + name)[0::2], (502, b"The program failed.\n"))
        (self.root / "velcgi/no_program").write_text("neither script nor binary")
        (self.root / "velcgi/no_program").chmod(0o755)
        self.assertEqual(self.ask("/velcgi/no_program")[0], 502)

    def test_what_was_promised_passes_and_not_a_byte_more_or_less_unnoticed(self):
        self.add("exact", "printf 'Status: 206\\r\\nContent-Type: a/b\\r\\nContent-Length: 3\\r\\nETag: \"t\"\\r\\n\\r\\nabcdef'")
        for headers in ({}, {"Range": "bytes=1-1"}):  # ranges are the program's affair
            status, said, body = self.ask("/velcgi/exact", **headers)
            self.assertEqual((status, said["Content-Length"], said["ETag"], body), (206, "3", '"t"', b"abc"))
        status, said, body = self.ask("/velcgi/exact", "HEAD")
        self.assertEqual((status, said["Content-Length"], body), (206, "3", b""))
        self.add("short", "printf 'Content-Type: a/b\\nContent-Length: 9\\n\\nabc'")
        self.assertEqual(self.ask("/velcgi/short")[0::2], (0, b"abc"))
        self.add("uncounted", FINE + "printf abc")
        self.assertEqual(self.ask("/velcgi/uncounted")[2], b"abc")

    def test_a_big_answer_needs_no_memory(self):
        self.add("big", "printf 'Content-Type: a/b\\nContent-Length: 400000000\\n\\n'; head -c 400000000 /dev/zero")
        pid = subprocess.run(["pgrep", "-P", pathlib.Path(self.root / "panel/pid").read_text().strip()],
                             capture_output=True, text=True, check=True).stdout.strip()
        before = status_of(pid)["VmHWM"]
        connection, got = self.panel.connect(), 0
        connection.request("GET", "/velcgi/big")
        answer = connection.getresponse()
        while block := answer.read(1 << 20):
            got += len(block)
        connection.close()
        self.assertEqual(got, 400000000)
        self.assertLess(status_of(pid)["VmHWM"] - before, 16 << 20)

    # ---- When a program ends --------------------------------------------------------------------

    def test_a_program_ends_with_its_client(self):
        for name, head in (("silent", ""), ("begun", "printf 'Content-Type: a/b\\nContent-Length: 9\\n\\nabc';")):
            self.add(name, f"echo $$ > {self.root}/{name}.pid; {head} exec sleep 60")
            connection = self.panel.connect()
            connection.request("GET", "/velcgi/" + name)
            self.begins(f"{name}.pid")
            connection.sock.shutdown(socket.SHUT_RDWR)
            connection.close()
            self.wait_until(lambda: self.gone(f"{name}.pid"), f"{name} goes on")

    def test_a_program_that_has_said_all_may_tidy_up(self):
        self.add("tidies", f"printf 'Content-Type: a/b\\nContent-Length: 1\\n\\na'; sleep 0.5; touch {self.root}/tidy")
        self.assertEqual(self.ask("/velcgi/tidies")[2], b"a")
        self.wait_until(lambda: (self.root / "tidy").exists(), "was ended")

    def test_one_user_cannot_take_all_places_and_gets_his_back(self):
        for user in ("anna", "bert"):
            self.panel.command(["user", "add", user, "--root", f"/srv/{user}", "--uid", "1999"], "her own")
        anna, bert = (self.panel.session(user, "her own") for user in ("anna", "bert"))
        self.add("waits", f"echo >> {self.root}/started; printf 'Content-Type: a/b\\nContent-Length: 9\\n\\nabc'; exec sleep 60")
        self.add("fine", FINE)
        connections = [self.panel.connect() for _ in range(4)]
        for connection in connections:
            connection.request("GET", f"/velcgi/waits?auth={anna}")
        self.wait_until(lambda: (self.root / "started").exists() and
                        len((self.root / "started").read_text()) == 4, "do not start")
        status, headers, _ = self.ask(f"/velcgi/fine?auth={anna}")
        self.assertEqual((status, headers["Retry-After"]), (503, "60"))
        for others in (f"/velcgi/fine?auth={bert}", "/velcgi/fine", "/velcgi/fine?auth=" + "0" * 32):  # from the same address
            self.assertEqual(self.ask(others)[0], 200)
        for connection in connections:
            connection.close()
        self.wait_until(lambda: self.ask(f"/velcgi/fine?auth={anna}")[0] == 200, "no place becomes free")

    def test_the_panel_ends_without_waiting_for_programs(self):
        self.add("waits", f"echo $$ > {self.root}/pid; exec sleep 60")
        connection = self.panel.connect()
        connection.request("GET", "/velcgi/waits")
        self.begins("pid")
        self.panel.stop()
        connection.close()
        self.assertTrue(self.gone("pid"))


class Impatient(Case):
    wait = "2"

    def test_a_silent_program_ends(self):
        self.add("silent", f"echo $$ > {self.root}/pid; exec sleep 60")
        self.assertEqual(self.ask("/velcgi/silent")[0], 504)
        self.assertTrue(self.gone("pid"))
        self.add("stalls", "printf 'Content-Type: a/b\\nContent-Length: 9\\n\\nabc'; exec sleep 60")
        self.assertEqual(self.ask("/velcgi/stalls")[0::2], (0, b"abc"))


if __name__ == "__main__":
    unittest.main()
