"""The stand-ins for cloud storages speak the providers' protocols: rclone's own clients, which know
nothing of them, work against them without a breach; and breaches are told."""

import filecmp
import json
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import unittest
import urllib.parse

from cloud_server import cloud_server

FILES = {"empty": 0, "one byte": 1, "имя с пробелом.bin": 300 << 10, "slice.tgz.aes.part2": 12 << 20,
         "sub folder/it's \"quoted\" + 100%.txt": 70000}
RCLONE = {"dropbox": {"type": "dropbox", "batch_mode": "off", "chunk_size": "4M"},
          "google_drive": {"type": "drive", "use_trash": "false", "scope": "drive"},
          "yandex": {"type": "yandex"}}
BYTES = {"Content_Type": "application/octet-stream"}


class Case(unittest.TestCase):
    def start(self, provider):
        self.work = pathlib.Path(tempfile.mkdtemp(prefix="backup2-test-"))
        self.addCleanup(shutil.rmtree, self.work)
        self.provider = provider
        self.server = self.enterContext(cloud_server(provider, self.work / "server"))
        return self.server

    def call(self, method, path, body=b"", want=200, says="", **headers):
        """An authorized call that must be answered with `want`, by a text that has `says` in it."""
        scheme = "OAuth" if self.provider == "yandex" else "Bearer"
        headers.setdefault("Authorization", f"{scheme} {self.server.access_token}")
        path = path.removeprefix(self.server.api)
        status, got, text = self.server.call(method, path, body, **headers)
        self.assertEqual((status, says.encode() in text), (want, True), text)
        return got, json.loads(text) if text[:1] in (b"{", b"[") else text

    def refused(self, *calls):
        """Each is a breach, answered as its row says, and noted."""
        for number, (method, path, body, want, *more) in enumerate(calls):
            with self.subTest(number):
                self.call(method, path, body, want, *more[:1], **(more[1] if more[1:] else {}))
                self.breaches(number + 1)
        self.server.command(reset=True)

    def breaches(self, number):
        found = self.server.state()["violations"]
        self.assertEqual(len(found), number, found)


@unittest.skipUnless(shutil.which("rclone"), "rclone is missing")
class Rclone(Case):
    def rclone(self, *words):
        environment = {**os.environ, "https_proxy": self.server.proxy, "HTTPS_PROXY": self.server.proxy}
        done = subprocess.run(["rclone", "--config", self.work / "rclone.conf", "--ca-cert", self.server.ca,
                               "--retries", "1", "--low-level-retries", "2", *words],
                              capture_output=True, text=True, env=environment, timeout=120)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def configure(self):
        token = {"access_token": self.server.access_token, "refresh_token": self.server.refresh_token,
                 "token_type": "bearer", "expiry": "2001-01-01T00:00:00Z"}  # it begins with a refresh
        lines = {**RCLONE[self.provider], "client_id": self.server.client_id,
                 "client_secret": self.server.client_secret, "token": json.dumps(token)}
        (self.work / "rclone.conf").write_text(
            "[cloud]\n" + "".join(f"{name} = {value}\n" for name, value in lines.items()))

    def round_trip(self, provider, **controls):
        # rclone renews what ends within ten seconds: every token is about to end when it is given.
        self.start(provider).command(token_life=9, **controls)
        self.configure()
        up, down, dice = self.work / "up", self.work / "down", random.Random(provider)
        for name, size in FILES.items():
            (up / name).parent.mkdir(parents=True, exist_ok=True)
            (up / name).write_bytes(dice.randbytes(size))
        self.rclone("mkdir", "cloud:top/empty folder")
        self.rclone("copy", up, "cloud:top")
        self.assertEqual(set(self.rclone("lsf", "-R", "cloud:top").splitlines()),
                         {*FILES, "empty folder/", "sub folder/"})
        (up / "one byte").write_bytes(b"two")
        (up / "slice.tgz.aes.part2").write_bytes(dice.randbytes(9 << 20))
        self.rclone("copy", up, "cloud:top")
        self.rclone("copy", "cloud:top", down)
        self.assertGreater(self.server.state()["refreshes"], 10)
        for name in FILES:
            self.assertTrue(filecmp.cmp(up / name, down / name, shallow=False), name)
        self.rclone("deletefile", "cloud:top/one byte")
        about = json.loads(self.rclone("about", "--json", "cloud:"))
        state = self.server.state()
        self.assertEqual(about["used"], state["used"])
        self.assertNotIn("/top/one byte", state["files"])
        self.rclone("purge", "cloud:top")
        state = self.server.state()
        self.assertEqual((state["folders"], state["open_uploads"], state["violations"]), ([], 0, []))
        return state["used"]

    def test_dropbox(self):
        self.assertEqual(self.round_trip("dropbox", raw_header=True), 0)

    def test_google_drive(self):
        self.assertEqual(self.round_trip("google_drive"), 0)

    def test_yandex(self):
        # rclone ends at a page that is not full; what it deletes fills the bin.
        self.assertGreater(self.round_trip("yandex", page=1000, bearer=True), 0)
        self.rclone("cleanup", "cloud:")
        self.assertEqual(self.server.state()["used"], 0)


class Strictness(Case):
    """Each breach gets the provider's refusal and is noted; what may go wrong in a right client is not."""

    def test_dropbox(self):
        self.start("dropbox")
        def upload(name, arg, data=b"", want=200, says="", **more):
            return self.call("POST", f"/2/files/upload{name}", data, want, says,
                             Dropbox_API_Arg=json.dumps(arg), **{**BYTES, **more})[1]
        def arg(**members):
            return {**BYTES, "Dropbox_API_Arg": json.dumps(members)}

        session = upload("_session/start", {}, b"0123")["session_id"]
        bad_hash, files = "0" * 64, "/2/files/"
        listing, start = files + "list_folder", files + "upload_session/start"
        append, finish = files + "upload_session/append_v2", files + "upload_session/finish"
        self.refused(
            ("POST", listing, {"path": ""}, 400, "Authorization", {"Authorization": "Basic eA=="}),
            ("POST", listing, {"path": ""}, 401, "invalid_access_token", {"Authorization": "Bearer x"}),
            ("POST", listing, {"path": "/"}, 400, "empty string"),
            ("POST", listing, {"path": "", "page": 3}, 400, "unknown field"),
            ("POST", listing + "/continue", {"cursor": "x"}, 409, "reset"),
            ("POST", files + "delete_v2", {}, 400, "missing required"),
            ("POST", files + "delete", {"path": "/A"}, 404),
            ("POST", files + "delete_v2", {"path": "A"}, 400, "pattern"),
            ("GET", listing, b"", 405),
            ("POST", files + "upload", b"other", 409, "content_hash_mismatch", arg(path="/x", content_hash=bad_hash)),
            ("POST", start, b"other", 409, "content_hash_mismatch", arg(content_hash=bad_hash)),
            ("POST", start, b"x", 400, "Content-Type", {**arg(), "Content_Type": "application/json"}),
            ("POST", files + "download", b"", 400, "not ASCII", {"Dropbox_API_Arg": '{"path":"/\xe9"}'}),
            ("POST", append, b"x", 409, '"correct_offset": 4', arg(cursor={"session_id": session, "offset": 3})),
            ("POST", finish, b"", 409, "lookup_failed/not_found",
             arg(cursor={"session_id": "x", "offset": 0}, commit={"path": "/x"})))
        upload("", {"path": "/A/b"}, b"data")
        upload("", {"path": "/a/B"}, b"more", 409, "path/conflict/file")
        upload("", {"path": "/a/b/c"}, b"", 409, "file_ancestor")
        self.call("POST", files + "create_folder_v2", {"path": "/a"}, 409, "path/conflict/folder")
        self.call("POST", files + "get_metadata", {"path": "/x"}, 409, "path/not_found")
        self.breaches(0)

    def test_google_drive(self):
        self.start("google_drive")
        api, kind, chunk = "/drive/v3/files", "application/vnd.google-apps.folder", 256 << 10
        def session(**more):
            return self.call("POST", f"/upload{api}?uploadType=resumable", {"name": "f"}, **more)[0]["Location"]
        def put(where, data, content_range, *answer):
            return "PUT", where, data, *answer, {"Content_Range": content_range}
        def find(q):
            return f"{api}?{urllib.parse.urlencode({'q': q})}"

        folder = self.call("POST", api, {"name": "it's \\ here", "mimeType": kind})[1]["id"]
        begun = session()
        self.call("PUT", begun, bytes(chunk), 308, Content_Range=f"bytes 0-{chunk - 1}/*")
        self.refused(
            *(("GET", find(q), b"", 400) for q in (
                "name='a", "name=a", "name = 'a' and", "('root' in parents", "fullText contains 'x'", "trashed='x'",
                "name = 'it's'", "name='a' name='b'", "name='a' (name='b')")),
            ("GET", api, b"", 401, "", {"Authorization": "OAuth x"}),
            ("GET", api + "?limit=3", b"", 400),
            ("GET", api + "?pageSize=1001", b"", 400),
            ("GET", api + "?pageToken=x", b"", 400),
            ("GET", api + "?fields=files(id,md5)", b"", 400, "md5"),
            ("GET", api + "?fields=files(id", b"", 400, "selection"),
            ("GET", "/drive/v3/about", b"", 400, "fields"),
            ("GET", "/drive/v3/nothing", b"", 404),
            ("PUT", f"{api}/{folder}", b"", 405),
            ("POST", api, {"name": "x", "size": 3}, 403, "fieldNotWritable"),
            ("PATCH", f"{api}/{folder}", {"parents": ["root"]}, 403, "fieldNotWritable"),
            ("POST", api, {"name": "x", "parents": ["root", folder]}, 403, "cannotAddParent"),
            put(begun, b"x" * 100, f"bytes {chunk}-{chunk + 99}/*", 400, "256 KiB"),
            put(begun, b"x" * 100, "bytes 0-99/100", 400, "Invalid Content-Range"),
            put(begun, b"x" * 99, f"bytes {chunk}-{chunk + 99}/{chunk + 100}", 400, "differ"),
            put(session(X_Upload_Content_Length="5"), b"x" * 4, "bytes 0-3/4", 400, "announced"),
            put("/upload/drive/v3/files?uploadType=resumable&upload_id=x", b"", "bytes */*", 404, ""))
        for name in ("f", "f", r"it's \ here"):  # a name may exist twice
            item = self.call("POST", api, {"name": name})[1]["id"]
        twins = self.call("GET", find("name='f' and ('root' in parents) and trashed=false and not mimeType = 'x/y'"))
        self.assertEqual([set(twin) for twin in twins[1]["files"]], [{"kind", "id", "name", "mimeType"}] * 2)
        self.assertEqual([i["id"] for i in self.call("GET", find(r"name='it\'s \\ here'"))[1]["files"]], [item])
        self.call("PATCH", f"{api}/{item}", {"trashed": True})
        page = self.call("GET", api + "?fields=files(id),nextPageToken")[1]
        self.assertEqual([set(item) for item in page["files"]], [{"id"}] * 2)
        self.assertEqual(len(self.call("GET", f"{api}?pageToken={page['nextPageToken']}")[1]["files"]), 1)
        self.assertIn(f"TRASH/{item}", self.server.state()["files"])
        self.breaches(0)

    def test_yandex(self):
        self.start("yandex")
        disk = "/v1/disk/resources"
        def put(name, data, overwrite="false"):
            href = self.call("GET", f"{disk}/upload?path={name}&overwrite={overwrite}")[1]["href"]
            self.assertIn(self.server.call("PUT", href.removeprefix(self.server.api), data)[0], (201, 202))
            return href
        def end(method, path):
            """Of an operation, which is waited for."""
            href = self.call(method, path, want=202)[1]["href"]
            self.call("PUT", f"{disk}?path=/e/f", want=423, says="DiskResourceLockedError")
            self.assertEqual([self.call("GET", href)[1]["status"] for _ in range(2)], ["in-progress", "success"])

        self.refused(
            ("GET", f"{disk}?path=/", b"", 401, "", {"Authorization": "Bearer " + self.server.access_token}),
            ("GET", disk, b"", 400, "required"),
            ("GET", f"{disk}?path=/&limit=all", b"", 400),
            ("GET", f"{disk}?path=/&recursive=true", b"", 400, "recursive"),
            ("GET", f"{disk}?path=/d/../d", b"", 400),
            ("POST", disk, b"", 405),
            ("GET", "/v1/disk/nothing", b"", 404),
            ("PUT", put("/one", b"1"), b"2", 404),
            ("GET", "/v1/disk/operations/x", b"", 404))
        self.call("PUT", f"{disk}?path=/d", want=201)
        put("/d/one", b"1")
        self.call("PUT", f"{disk}?path=/x/y", want=409, says="DiskPathDoesntExistsError")
        self.call("PUT", f"{disk}?path=/d", want=409, says="DiskPathPointsToExistentDirectoryError")
        self.call("GET", f"{disk}/upload?path=/d/one", want=409, says="DiskResourceAlreadyExistsError")
        put("/d/one", b"22", overwrite="true")  # the second upload: 202, no digest at the first look
        looks = [self.call("GET", f"{disk}?path=disk%3A/d/one&fields=md5,size")[1] for _ in range(2)]
        self.assertEqual([set(look) for look in looks], [{"size"}, {"md5", "size"}])
        end("POST", f"{disk}/move?from=/d&path=/e")
        self.call("DELETE", f"{disk}?path=/e/one", want=204)
        self.assertEqual(self.call("GET", "/v1/disk?fields=used_space,trash_size")[1], {"used_space": 2, "trash_size": 2})
        put("/e/two", b"333")
        end("DELETE", f"{disk}?path=/e&permanently=true")
        self.assertEqual((self.server.state()["used"], self.server.state()["folders"]), (2, []))
        self.breaches(0)


if __name__ == "__main__":
    unittest.main()
