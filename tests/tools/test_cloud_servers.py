"""The stand-ins for cloud storages speak the providers' protocols: rclone's own clients, which know
nothing of them, work against them without a breach; and breaches are told."""

import filecmp
import hashlib
import http.client
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
        status, got, text = self.server.call(method, path, body, **headers)
        self.assertEqual((status, says.encode() in text), (want, True), text)
        return got, json.loads(text) if text[:1] in (b"{", b"[") else text

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
        self.start(provider).command(**controls)
        self.configure()
        up, down, dice = self.work / "up", self.work / "down", random.Random(provider)
        for name, size in FILES.items():
            (up / name).parent.mkdir(parents=True, exist_ok=True)
            (up / name).write_bytes(dice.randbytes(size))
        self.rclone("mkdir", "cloud:top/empty folder")
        self.rclone("copy", up, "cloud:top")
        self.assertEqual(set(self.rclone("lsf", "-R", "cloud:top").splitlines()),
                         {*FILES, "empty folder/", "sub folder/"})
        # From here on every token is about to end when it is given.
        self.server.command(token_life=5, expire=True)
        self.configure_expired()
        (up / "one byte").write_bytes(b"two")
        (up / "slice.tgz.aes.part2").write_bytes(dice.randbytes(9 << 20))
        before = self.server.state()["refreshes"]
        self.rclone("copy", up, "cloud:top")
        self.rclone("copy", "cloud:top", down)
        self.assertGreater(self.server.state()["refreshes"], before + 10)
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
        return state

    def configure_expired(self):
        """As if rclone's token had ended; what it keeps to refresh it stays."""
        config = self.work / "rclone.conf"
        lines = config.read_text().splitlines()
        for number, line in enumerate(lines):
            if line.startswith("token = "):
                lines[number] = "token = " + json.dumps(
                    {**json.loads(line.removeprefix("token = ")), "expiry": "2001-01-01T00:00:00Z"})
        config.write_text("\n".join(lines) + "\n")

    def test_dropbox(self):
        self.assertEqual(self.round_trip("dropbox", raw_header=True)["used"], 0)

    def test_google_drive(self):
        self.assertEqual(self.round_trip("google_drive")["used"], 0)

    def test_yandex(self):
        state = self.round_trip("yandex", page=1000, bearer=True)  # rclone ends at a page that is not full
        self.assertGreater(state["used"], 0)  # it fills the bin
        self.rclone("cleanup", "cloud:")
        self.assertEqual(self.server.state()["used"], 0)
        self.server.command(reset=True, page=1000, bearer=True)
        self.configure()
        for number in range(1003):
            self.call("PUT", f"/v1/disk/resources?path=%2F{number}", want=201)
        self.assertEqual(len(self.rclone("lsf", "cloud:").splitlines()), 1003)
        self.breaches(0)


class Faults(Case):
    """What control asks for happens, in each provider's own form."""

    UPLOAD = {"dropbox": ("POST", "/2/files/upload", {
                  "Dropbox_API_Arg": '{"path":"/f","mode":"overwrite"}', "Content_Type": "application/octet-stream"}),
              "google_drive": ("POST", "/upload/drive/v3/files?uploadType=media", {"Content_Type": "text/plain"}),
              "yandex": ("PUT", None, {})}
    LOOK = {"dropbox": ("POST", "/2/files/list_folder", {"path": ""}),
            "google_drive": ("GET", "/drive/v3/files", b""), "yandex": ("GET", "/v1/disk/resources?path=%2F", b"")}
    CUT = r"files/upload$|uploadType|upload-target"
    DOWNLOAD = {"dropbox": ("POST", "/2/files/download", {"Dropbox_API_Arg": '{"path":"/f"}'}),
                "google_drive": ("GET", "/drive/v3/files/{}?alt=media", {}), "yandex": ("GET", "/rdisk/{}", {})}
    TOKEN = {"dropbox": "/oauth2/token", "google_drive": "/token", "yandex": "/token"}

    def upload(self, data, **more):
        method, path, headers = self.UPLOAD[self.provider]
        if path is None:
            path = urllib.parse.urlsplit(self.call(
                "GET", "/v1/disk/resources/upload?path=%2Ff&overwrite=true")[1]["href"]).path
        return self.call(method, path, data, **headers, **more)

    def download(self, data, want=200, **more):
        method, path, headers = self.DOWNLOAD[self.provider]
        if self.provider == "google_drive":
            path = path.format(self.call("GET", "/drive/v3/files")[1]["files"][0]["id"])
        elif self.provider == "yandex":
            link = self.call("GET", "/v1/disk/resources/download?path=%2Ff")[1]["href"]
            link = self.call("GET", link.removeprefix(self.server.api), want=302)[0]["Location"]
            path = link.removeprefix(self.server.api)
        self.assertEqual(self.call(method, path, want=want, **headers, **more)[1], data)

    def refresh(self, token, want=200, says=""):
        form = urllib.parse.urlencode({
            "grant_type": "refresh_token", "refresh_token": token,
            "client_id": self.server.client_id, "client_secret": self.server.client_secret})
        return self.call("POST", self.TOKEN[self.provider], form.encode(), want=want, says=says,
                         Content_Type="application/x-www-form-urlencoded")[1]

    def check(self, provider, full, dead, slow):
        """`full`, `dead`, `slow`: (status, text) of the answers to these."""
        server, look = self.start(provider), self.LOOK[provider]
        stored = 201 if provider == "yandex" else 200
        for how in ("fin", "rst"):
            for after in (0, 1, 65536, 299999, 300000):
                server.command(cut={"path": self.CUT, "after": after, "how": how})
                with self.assertRaises((http.client.HTTPException, OSError), msg=(how, after)):
                    self.upload(bytes(300000))
                self.assertEqual(server.state()["files"], {})
                server.command(reset=True)
        self.upload(b"x" * 5000, want=stored)
        self.download(b"x" * 5000)
        self.download(b"x" * 10, want=206, Range="bytes=4990-")
        server.command(cut={"path": "files/download|alt=media|rdisk", "after": 4999, "how": "rst"})
        with self.assertRaises((http.client.HTTPException, OSError)):
            self.download(b"")
        server.command(fail={"path": ".", "status": 503})
        self.call(*look, want=503)
        server.command(rate_limit=1)
        self.assertEqual(self.call(*look, want=slow[0], says=slow[1])[0]["Retry-After"], "1")
        server.command(quota=6000)
        self.upload(b"x" * 7000, want=full[0], says=full[1])
        server.command(quota=1 << 30, redirect="http://127.0.0.1:9/")
        self.assertEqual(self.call(*look, want=302)[0]["Location"], "http://127.0.0.1:9/")
        server.command(redirect="", expire=True)
        self.call(*look, want=dead[0], says=dead[1])
        old, tokens = server.refresh_token, self.refresh(server.refresh_token)
        server.access_token = tokens["access_token"]
        self.call(*look)
        if provider == "yandex":
            self.refresh(old, 400, "invalid_grant")
            old = tokens["refresh_token"]
        else:
            self.assertNotIn("refresh_token", tokens)
        server.command(revoke=True)
        self.refresh(old, 400, "invalid_grant")
        self.call(*look, want=401)
        state = server.state()
        self.assertEqual((state["files"], state["violations"]),
                         ({"/Untitled" if provider == "google_drive" else "/f":
                           [5000, hashlib.sha256(b"x" * 5000).hexdigest()]}, []))

    def test_dropbox(self):
        self.check("dropbox", (409, "insufficient_space"), (401, "expired_access_token"),
                   (429, "too_many_requests"))

    def test_google_drive(self):
        self.check("google_drive", (403, "storageQuotaExceeded"), (401, "authError"),
                   (403, "userRateLimitExceeded"))

    def test_yandex(self):
        self.check("yandex", (507, "DiskStorageQuota"), (401, "UnauthorizedError"),
                   (429, "TooManyRequestsError"))


class Strictness(Case):
    """Each breach gets the provider's refusal and is noted; what may go wrong in a right client is not."""

    def test_dropbox(self):
        self.start("dropbox")
        def upload(name, arg, data=b"", kind="application/octet-stream", **more):
            return self.call("POST", f"/2/files/upload{name}", data, Content_Type=kind,
                             Dropbox_API_Arg=json.dumps(arg), **more)
        def rpc(name, arg, **more):
            return self.call("POST", f"/2/files/{name}", arg, **more)[1]

        block = hashlib.sha256(hashlib.sha256(b"data").digest()).hexdigest()
        upload("", {"path": "/A/b", "content_hash": block}, b"data")
        session = upload("_session/start", {}, b"0123")[1]["session_id"]
        wrong = [
            lambda: rpc("list_folder", {"path": ""}, want=400, says="Authorization", Authorization="Basic eA=="),
            lambda: rpc("list_folder", {"path": ""}, want=401, says="invalid_access_token", Authorization="Bearer x"),
            lambda: rpc("list_folder", {"path": "/"}, want=400, says="empty string"),
            lambda: rpc("list_folder", {"path": "", "page": 3}, want=400, says="unknown field"),
            lambda: rpc("list_folder/continue", {"cursor": "x"}, want=409, says="reset"),
            lambda: rpc("delete_v2", {}, want=400, says="missing required"),
            lambda: rpc("delete", {"path": "/A"}, want=404),
            lambda: rpc("delete_v2", {"path": "A"}, want=400, says="pattern"),
            lambda: self.call("GET", "/2/files/list_folder", want=405),
            lambda: upload("", {"path": "/x", "content_hash": block}, b"other", want=409, says="content_hash_mismatch"),
            lambda: upload("", {"path": "/x"}, kind="application/json", want=400, says="Content-Type"),
            lambda: self.call("POST", "/2/files/download", want=400, says="not ASCII", Dropbox_API_Arg='{"path":"/\xe9"}'),
            lambda: upload("_session/append_v2", {"cursor": {"session_id": session, "offset": 3}}, b"x",
                           want=409, says='"correct_offset": 4'),
            lambda: upload("_session/finish", {"cursor": {"session_id": "x", "offset": 0}, "commit": {"path": "/x"}},
                           want=409, says="lookup_failed/not_found"),
        ]
        for number, case in enumerate(wrong):
            with self.subTest(number):
                case()
                self.breaches(number + 1)
        upload("", {"path": "/a/B"}, b"more", want=409, says="path/conflict/file")
        upload("", {"path": "/a/b/c"}, want=409, says="file_ancestor")
        rpc("create_folder_v2", {"path": "/a"}, want=409, says="path/conflict/folder")
        rpc("get_metadata", {"path": "/x"}, want=409, says="path/not_found")
        self.assertEqual(rpc("get_metadata", {"path": "/a/B"})["path_display"], "/A/b")
        upload("_session/finish", {"cursor": {"session_id": session, "offset": 4}, "commit": {"path": "/a/c"}}, b"45")
        self.assertEqual(self.server.state()["files"]["/A/c"][0], 6)
        self.breaches(len(wrong))

    def test_google_drive(self):
        self.start("google_drive")
        api, kind = "/drive/v3/files", "application/vnd.google-apps.folder"
        def session(size=None):
            more = {} if size is None else {"X_Upload_Content_Length": str(size)}
            return self.call("POST", f"/upload{api}?uploadType=resumable", {"name": "f", "parents": ["root"]},
                             **more)[0]["Location"].removeprefix(self.server.api)
        def put(where, data, content_range, want, says=""):
            return self.call("PUT", where, data, want=want, says=says, Content_Range=content_range)[0]
        def find(q, want=200):
            return self.call("GET", api + "?" + urllib.parse.urlencode({"q": q}), want=want)[1]

        folder = self.call("POST", api, {"name": "it's \\ here", "mimeType": kind})[1]["id"]
        chunk = 256 << 10
        begun = session()
        self.assertEqual(put(begun, bytes(chunk), f"bytes 0-{chunk - 1}/*", 308)["Range"], f"bytes=0-{chunk - 1}")
        wrong = [
            *(lambda q=q: find(q, 400) for q in (
                "name='a", "name=a", "name = 'a' and", "('root' in parents", "fullText contains 'x'", "trashed='x'",
                "name = 'it's'", "name='a' name='b'")),
            lambda: self.call("GET", api, want=401, Authorization="OAuth x"),
            lambda: self.call("GET", api + "?limit=3", want=400),
            lambda: self.call("GET", api + "?pageSize=1001", want=400),
            lambda: self.call("GET", api + "?pageToken=x", want=400),
            lambda: self.call("GET", api + "?fields=files(id,md5)", want=400, says="md5"),
            lambda: self.call("GET", api + "?fields=files(id", want=400, says="selection"),
            lambda: self.call("GET", "/drive/v3/about", want=400, says="fields"),
            lambda: self.call("GET", "/drive/v3/nothing", want=404),
            lambda: self.call("PUT", f"{api}/{folder}", want=405),
            lambda: self.call("POST", api, {"name": "x", "size": 3}, want=403, says="fieldNotWritable"),
            lambda: self.call("PATCH", f"{api}/{folder}", {"parents": ["root"]}, want=403, says="fieldNotWritable"),
            lambda: self.call("POST", api, {"name": "x", "parents": ["root", folder]}, want=403, says="cannotAddParent"),
            lambda: put(begun, b"x" * 100, f"bytes {chunk}-{chunk + 99}/*", 400, "256 KiB"),
            lambda: put(begun, b"x" * 100, "bytes 0-99/100", 400, "Invalid Content-Range"),
            lambda: put(begun, b"x" * 99, f"bytes {chunk}-{chunk + 99}/{chunk + 100}", 400, "differ"),
            lambda: put(session(5), b"x" * 4, "bytes 0-3/4", 400, "announced"),
            lambda: put("/upload/drive/v3/files?uploadType=resumable&upload_id=x", b"", "bytes */*", 404),
        ]
        for number, case in enumerate(wrong):
            with self.subTest(number):
                case()
                self.breaches(number + 1)
        self.assertEqual(put(begun, b"", "bytes */*", 308)["Range"], f"bytes=0-{chunk - 1}")
        put(begun, b"end", f"bytes {chunk}-{chunk + 2}/{chunk + 3}", 200)
        put(session(), b"", "bytes */0", 200)  # an empty file, of the same name
        self.call("GET", api + "/nothing", want=404, says="notFound")
        twins = find("name = 'f' and ('root' in parents) and trashed=false and not mimeType = 'x/y'")["files"]
        self.assertEqual([set(twin) for twin in twins], [{"kind", "id", "name", "mimeType"}] * 2)
        self.assertEqual(len(find(r"name='it\'s \\ here'")["files"]), 1)
        page = self.call("GET", api + "?fields=files/id,nextPageToken")[1]
        self.assertEqual([set(item) for item in page["files"]], [{"id"}] * 2)
        self.assertEqual(len(self.call("GET", f"{api}?pageToken={page['nextPageToken']}")[1]["files"]), 1)
        fields = self.call("GET", f"{api}/{twins[1]['id']}?fields=size,sha256Checksum")[1]
        self.assertEqual(fields, {"size": str(chunk + 3), "sha256Checksum": hashlib.sha256(bytes(chunk) + b"end").hexdigest()})
        self.call("PATCH", f"{api}/{twins[0]['id']}", {"trashed": True})
        self.assertEqual([twin["id"] for twin in find("name='f' and trashed=false")["files"]], [twins[1]["id"]])
        self.call("DELETE", f"{api}/{twins[1]['id']}", want=204)
        self.breaches(len(wrong))

    def test_yandex(self):
        self.start("yandex")
        disk = "/v1/disk/resources"
        def put(name, data, overwrite=False):
            link = self.call("GET", f"{disk}/upload?path={name}&overwrite={str(overwrite).lower()}")[1]
            href = link["href"].removeprefix(self.server.api)
            self.assertIn(self.server.call("PUT", href, data)[0], (201, 202))
            return href
        def done(href):
            return self.call("GET", href.removeprefix(self.server.api))[1]["status"]

        self.call("PUT", f"{disk}?path=/d", want=201)
        used_up = put("/d/one", b"1")
        wrong = [
            lambda: self.call("GET", f"{disk}?path=/", want=401, Authorization="Bearer " + self.server.access_token),
            lambda: self.call("GET", disk, want=400, says="required"),
            lambda: self.call("GET", f"{disk}?path=/&limit=all", want=400),
            lambda: self.call("GET", f"{disk}?path=/&recursive=true", want=400, says="recursive"),
            lambda: self.call("GET", f"{disk}?path=/d/../d", want=400),
            lambda: self.call("POST", disk, want=405),
            lambda: self.call("GET", "/v1/disk/nothing", want=404),
            lambda: self.call("PUT", used_up, b"2", want=404),
            lambda: self.call("GET", "/v1/disk/operations/x", want=404),
        ]
        for number, case in enumerate(wrong):
            with self.subTest(number):
                case()
                self.breaches(number + 1)
        self.call("PUT", f"{disk}?path=/x/y", want=409, says="DiskPathDoesntExistsError")
        self.call("PUT", f"{disk}?path=/d", want=409, says="DiskPathPointsToExistentDirectoryError")
        self.call("GET", f"{disk}/upload?path=/d/one", want=409, says="DiskResourceAlreadyExistsError")
        self.call("GET", f"{disk}?path=/d/nothing", want=404, says="DiskNotFoundError")
        put("/d/one", b"22", overwrite=True)  # the second upload: 202, no digest at the first look
        looks = [self.call("GET", f"{disk}?path=disk%3A/d/one&fields=md5,size")[1] for _ in range(2)]
        self.assertEqual(looks, [{"size": 2}, {"md5": hashlib.md5(b"22").hexdigest(), "size": 2}])
        href = self.call("POST", f"{disk}/move?from=/d&path=/e", want=202)[1]["href"]
        self.call("PUT", f"{disk}?path=/e/f", want=423, says="DiskResourceLockedError")
        self.assertEqual([done(href), done(href)], ["in-progress", "success"])
        self.call("DELETE", f"{disk}?path=/e/one", want=204)
        self.assertEqual(self.call("GET", "/v1/disk?fields=used_space,trash_size")[1], {"used_space": 2, "trash_size": 2})
        put("/e/two", b"333")
        href = self.call("DELETE", f"{disk}?path=/e&permanently=true", want=202)[1]["href"]
        self.assertEqual([done(href), done(href)], ["in-progress", "success"])
        state = self.server.state()
        self.assertEqual((state["used"], state["folders"]), (2, []))
        self.breaches(len(wrong))


if __name__ == "__main__":
    unittest.main()
