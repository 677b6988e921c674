"""backup2 cleanup and the backups of users who have gone: deleted when the panel says so, and only then."""

import http.server
import os
import socketserver
import threading
import time
import unittest
import urllib.parse

import backup2_test
from backup2_test import local_token
from panel import UnixConnection
from storage_case import MONDAY, TUESDAY, USER, WEDNESDAY, StorageCase

OTHER = "games"
NOTHING = b"<doc/>"


class Interposed:
    """Between the service and the panel: answers what `answers` ({function: bytes}) says, passes the rest on;
    in place of bytes something to do first."""

    def __init__(self, panel, answers, delay=0):
        self.path, self.behind, outer = panel.socket, panel.socket + ".real", self
        self.asked, self.stop = [], threading.Event()

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_POST(self):
                body = self.rfile.read(int(self.headers["Content-Length"]))
                function = urllib.parse.parse_qs(body.decode())["func"][0]
                outer.asked.append(function)
                outer.stop.wait(delay)
                answer = answers.get(function, answers.get("all"))
                if callable(answer):
                    answer = answer()
                if answer is None:
                    answer = outer.pass_on(body)
                self.send_response(200)
                self.send_header("Content-Length", str(len(answer)))
                self.end_headers()
                self.wfile.write(answer)

            address_string = log_message = lambda *_: ""

        class Server(socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
            daemon_threads = True
            handle_error = lambda *_: None  # a killed client

        os.rename(self.path, self.behind)
        self._server = Server(self.path, Handler)

    def pass_on(self, body):
        connection = UnixConnection(self.behind)
        connection.request("POST", "/", body, {"Content-Type": "application/x-www-form-urlencoded"})
        answer = connection.getresponse().read()
        connection.close()
        return answer

    def __enter__(self):
        threading.Thread(target=self._server.serve_forever, args=(0.02,), daemon=True).start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        self._server.shutdown()
        self._server.server_close()
        os.rename(self.behind, self.path)


class RemovedUsers(StorageCase):
    def setUp(self):
        super().setUp()
        self.env["VEL_LOCK_WAIT"] = "0"
        self.panel.command("storage set", local_token(self.root / "store"))
        other = self.root / "other"
        (other / "data").mkdir(parents=True)
        self.panel.command(["user", "add", OTHER, "--root", str(other)])
        self.backup2("run", "--all", "--date", MONDAY)
        self.backup2("run", USER, "--date", TUESDAY)
        self.backup2("run", USER, "--custom")

    def have(self):
        """User and date of what is on the storage and of what is here, which must be the same."""
        stored = {(path.parent.parent.name, path.parent.name) for path in (self.root / "store").rglob("*.info")}
        here = {(path.parent.parent.name, path.parent.name) for path in self.local.rglob("*.info")}
        self.assertEqual(stored, here)
        return here

    def remove(self):
        self.panel.command(f"user remove {USER}")

    def test_a_removed_user_takes_his_backups_along(self):
        before = self.have()
        self.assertEqual(len(before), 4)
        self.backup2("cleanup")
        self.assertEqual(self.have(), before)
        self.remove()
        self.backup2("cleanup", OTHER)
        self.assertEqual(self.have(), before)
        shown = self.backup2("cleanup")
        self.assertEqual(shown.count("deleted, the user was removed"), 3, shown)
        self.assertEqual(self.have(), {(OTHER, MONDAY)})
        self.assertEqual([path.name for path in (self.root / "store").iterdir()], [OTHER])
        self.backup2("cleanup")

    def test_a_user_of_an_old_name_keeps_what_is_his(self):
        self.backup2("pin", USER, "custom")
        self.remove()
        self.panel.command(["user", "add", USER, "--root", str(self.home), "--uid", "4712"])
        self.assertIn("a former user of this name", self.backup2("run", USER, "--date", TUESDAY, expect=1))
        self.backup2("run", USER, "--date", WEDNESDAY)
        # Nothing of the former user's is under it.
        self.assertIn("full", [line for line in self.backup2("list", USER).splitlines() if WEDNESDAY in line][0])
        shown = self.backup2("cleanup", USER, expect=3) or "custom"
        self.assertEqual(self.have(), {(OTHER, MONDAY), (USER, WEDNESDAY), (USER, "custom")}, shown)
        self.backup2("unpin", USER, "custom")
        self.backup2("cleanup")
        self.assertEqual(self.have(), {(OTHER, MONDAY), (USER, WEDNESDAY)})

    def test_what_a_run_puts_in_the_place_meanwhile_stays(self):
        self.remove()
        self.panel.command(["user", "add", USER, "--root", str(self.home), "--uid", "4712"])
        with Interposed(self.panel, {"user": lambda: self.backup2("run", USER, "--custom") and None}):
            self.backup2("cleanup", USER)
        self.assertEqual(self.have(), {(OTHER, MONDAY), (USER, "custom")})

    def test_a_panel_that_makes_no_sense_deletes_nothing(self):
        before = self.have()
        error = b'<doc><error type="%s" object="%s"><msg>No</msg></error></doc>'
        form = b"<doc><elid>%s</elid><name>%s</name><uid>%s</uid></doc>"
        me, other = USER.encode(), OTHER.encode()
        cases = [
            {"all": NOTHING}, {"all": b""}, {"all": b"<html>502"}, {"all": error % (b"locked", b"panel")},
            {"all": error % (b"missed", b"user")}, {"all": error % (b"internal", b"")},
            {"user.edit": NOTHING}, {"user.edit": error % (b"missed", b"user")}, {"user.edit": b"<doc><uid>"},
            {"user.edit": error % (b"locked", b"panel")}, {"user.edit": b"<doc><uid>4712</uid></doc>"},
            {"user.edit": form % (other, other, b"4712")}, {"user.edit": form % (me, me, b"")},
            {"user.edit": form % (me, me, b"many")}, {"user.edit": b"<doc><msg>Busy</msg></doc>"},
            {"user.edit": form % (me, me, b"4712"), "backup2.item.info": NOTHING},
            {"user.edit": form % (me, me, b"4712"), "backup2.item.info": error % (b"missed", b"user")},
            {"user.edit": NOTHING, "backup2.item.info": NOTHING},
            {"user.edit": NOTHING, "backup2.item.info": error % (b"missed", b"role")},
            {"user.edit": NOTHING, "backup2.item.info": error % (b"internal", b"user")},
            {"backup2.settings": NOTHING}, {"backup2.settings": error % (b"internal", b"")},
        ]
        for answers in cases:
            with self.subTest(answers), Interposed(self.panel, answers):
                done = backup2_test.run(["backup2", "cleanup"], **self.env)
                self.assertEqual(self.have(), before, done.stdout)
                if "backup2.settings" not in answers:
                    self.assertEqual(done.returncode, 1, (done.stdout, done.stderr))
        self.remove()
        for answers in ({"user.edit": form % (me, me, b"4712")}, {"user.edit": b"<html>"},
                        {"backup2.item.info": NOTHING}, {"backup2.item.info": b""}):
            with self.subTest(answers), Interposed(self.panel, answers):
                backup2_test.run(["backup2", "cleanup"], **self.env)
                self.assertEqual(self.have(), before)

    def test_a_panel_that_is_slow_or_down_deletes_nothing(self):
        before = self.have()
        self.remove()
        with Interposed(self.panel, {}, delay=60) as slow:
            process = backup2_test.start(["backup2", "cleanup"], **self.env)
            until = time.monotonic() + 30
            while not slow.asked and time.monotonic() < until:
                time.sleep(0.02)
            time.sleep(0.5)
            self.assertIsNone(process.poll())
            process.kill()
            process.communicate()
            self.assertEqual(self.have(), before)
        self.panel.stop()
        self.assertIn("panel", self.backup2("cleanup", expect=1))
        self.assertEqual(self.have(), before)


if __name__ == "__main__":
    unittest.main()
