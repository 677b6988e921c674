"""Storage tokens: what the copy tool refuses before it opens anything, and that it names the field."""

import base64
import json
import unittest

import backup2_test as t

SECRET = "canary-secret"


def credential(**members):
    return base64.b64encode(json.dumps(members).encode()).decode()


S3 = dict(bucket="b", access_key=SECRET, secret_key=SECRET)
KEY = "-----BEGIN#wsRSA#wsPRIVATE#wsKEY-----#rnAAAA#rn-----END#wsRSA#wsPRIVATE#wsKEY-----"
GOOD = [
    "type=local;path=/srv/a b'c",
    "type=node;ip=10.0.0.1;key_path=/root/key;path=/srv", "type=node;ip=::1;port=65535;key_path=/k;path=/",
    f"type=sftp;url=[::1];key={KEY};path=/srv", f"type=sftp;url=root@h-1.example;port=1;key={KEY};path=/srv",
    "type=ftp;url=ftpes://h;username=u;password=cA==;mode=active", "type=ftp;url=[fe80::1];mode=passive",
    "type=s3;token=" + credential(**S3), "type=amazon;path=x;token=" + credential(
        **S3, endpoint="http://[::1]:9000/x", path_style="yes"),
    "type=dropbox;token=" + credential(access_token=SECRET),
    "type=yandex;token=" + credential(refresh_token=SECRET, client_id="i", api="http://127.0.0.1:1"),
]
REFUSED = {
    "type": ["path=/x", "type=nfs;path=/x", "type=Local;path=/x"],
    "path": [f"type={kind};path={path}" for kind in (
        "local", "node;ip=h;key_path=/k", f"sftp;url=h;key={KEY}") for path in ("", "x", "-x", "/a/../b")] + [
        f"type={kind};path=/x{byte}" for kind in ("node;ip=h;key_path=/k", f"sftp;url=h;key={KEY}")
        for byte in "*?[]{}\\"],
    "control": ["type=local;path=/x\n", "type=ftp;url=h;username=a\rb", "type=local;path=/x\x7f"],
    "ip": [f"type=node;ip={host};key_path=/k;path=/x" for host in (
        "", "-oProxyCommand=x", "[::1]", "a b", ".h", "u@h", "h:22", "$(id)")],
    "key_path": [f"type=node;ip=h;path=/x;key_path={path}" for path in ("", "k", "-k", "/k k", "/k'")],
    "url": [f"type={kind};path=/x;url={host}" for kind in (f"sftp;key={KEY}", "ftp") for host in (
        "", "-h", "::1", "[::g]", "[1.2.3.4]", "h/x", "h\\x", "file:///etc", "http://h")] + [
        f"type=sftp;key={KEY};path=/x;url={host}" for host in ("@h", "-l@h", "a b@h", "u@-h", "ftp://h")],
    "port": [f"type={kind};port={port}" for kind in (
        "ftp;url=h", f"sftp;url=h;path=/x;key={KEY}") for port in ("0", "65536", "-1", "22x", "022", " 22")],
    "mode": ["type=ftp;url=h;mode=fast"],
    "key": ["type=sftp;url=h;path=/x", f"type=sftp;url=h;path=/x;key={SECRET}"],
    "password": ["type=ftp;url=h;password=" + SECRET + "!"],
    "token": [f"type={kind};token={text}" for kind in ("s3", "amazon", "dropbox", "yandex", "googledrive")
              for text in (SECRET + "!", base64.b64encode(SECRET.encode()).decode(), credential(a=1),
                           base64.b64encode(b"[]").decode(), credential(access_token=SECRET + "\r\nX: y"))],
    "bucket": ["type=s3;token=" + credential(access_key=SECRET, secret_key=SECRET)],
    "secret_key": ["type=s3;token=" + credential(bucket="b", access_key=SECRET)],
    "endpoint": ["type=s3;token=" + credential(**S3, endpoint=bad) for bad in (
        "ftp://h", "http://", "http://u:p@h", "h:0", "http://[::1", "-h")],
    "path_style": ["type=s3;token=" + credential(**S3, path_style="maybe")],
    "access_token": ["type=dropbox;token=" + credential(client_id="x")],
    "client_id": ["type=googledrive;token=" + credential(refresh_token=SECRET)],
    "api": ["type=dropbox;token=" + credential(access_token=SECRET, api="127.0.0.1:1")],
    "arch_password": ["type=local;path=/x;arch_password=" + SECRET + "!"],
}


class Tokens(unittest.TestCase):
    def look(self, token):
        return t.run(["backup2_cp", "--check", "--dry-run"], BACKUP_TOKEN=token)

    def test_good_tokens_pass(self):
        with t.install_root():
            for token in GOOD:
                done = self.look(token)
                self.assertEqual(done.returncode, 0, (token, done.stderr))

    def test_bad_ones_are_refused_by_the_name_of_the_field_without_a_secret(self):
        with t.install_root():
            for field, tokens in REFUSED.items():
                for token in tokens:
                    done = self.look(token)
                    self.assertEqual(done.returncode, 1, token)
                    self.assertRegex(done.stderr, rf"^backup2_cp: storage token: .*\b{field}\b", token)
                    self.assertNotIn(SECRET, done.stdout + done.stderr)


if __name__ == "__main__":
    unittest.main()
