"""What the suites that drive the built programs share.

VEL_ROOT names the build folder (sbin/ and lib/). Every test runs in an install root of its own:

    with install_root() as root:
        done = run(["backup2_cp", "--check"], BACKUP_TOKEN=local_token(root / "store", "secret"))
        self.assertEqual(done.returncode, 0, done.stderr)

Texts are decoded with surrogateescape, so that names with every byte value pass through.
"""

import base64
import collections
import contextlib
import hashlib
import http.client
import os
import pathlib
import random
import shlex
import shutil
import stat
import struct
import subprocess
import tempfile

BUILD = pathlib.Path(os.environ.get("VEL_ROOT") or pathlib.Path(__file__).parents[2] / "build/dev").resolve()

# Variables of the service that must not leak from the caller into a test.
_OWN_VARIABLES = ("BACKUP_TOKEN", "BACKUP_STORAGE", "BACKUP2_PROGRESS",
                  "BACKUP_COMMAND_PREFIX", "BACKUP_SLICE", "PASSWORD")


@contextlib.contextmanager
def install_root(base=None):
    """A scratch install root: the programs of the build, its own var/. Programs started by run()
    inside the block work there. Yields its pathlib.Path; removed at the end."""
    root = pathlib.Path(tempfile.mkdtemp(prefix="backup2-test-", dir=base)).resolve()
    before = os.environ.get("VEL_ROOT")
    try:
        for folder in ("sbin", "lib", "velcgi"):
            (root / folder).symlink_to(BUILD / folder)
        for folder in ("var/backup/qorvel", "var/run"):
            (root / folder).mkdir(parents=True)
        os.environ["VEL_ROOT"] = str(root)
        yield root
    finally:
        os.environ.pop("VEL_ROOT", None)
        if before is not None:
            os.environ["VEL_ROOT"] = before
        shutil.rmtree(root)


def program(name):
    """Path of a built program; other names (and paths) stay as they are."""
    built = BUILD / "sbin" / os.fspath(name)
    return str(built) if "/" not in os.fspath(name) and built.exists() else os.fspath(name)


def environment(**env):
    """The environment for a child: none of the service's variables but those given; None unsets."""
    result = {k: v for k, v in os.environ.items() if k not in _OWN_VARIABLES}
    for name, value in env.items():
        result.pop(name, None) if value is None else result.__setitem__(name, os.fspath(value))
    return result


def run(argv, *, cwd=None, stdin=None, timeout=120, **env):
    """Runs a program to its end: subprocess.CompletedProcess with text in stdout and stderr.
    `argv[0]` without "/" is taken from the build's sbin/ when it is there; upper-case keywords
    are environment variables; `stdin` is a text, or nothing."""
    argv = [program(argv[0])] + [os.fspath(word) for word in argv[1:]]
    return subprocess.run(argv, cwd=cwd, env=environment(**env), timeout=timeout,
                          input="" if stdin is None else stdin, capture_output=True, text=True,
                          encoding="utf-8", errors="surrogateescape", check=False)


def exchange(connection, method, target, body=None, **headers):
    """One HTTP request, the last one of its connection: status, headers and body. Keywords are
    headers, "_" for "-". An answer that is cut has the status 0 and the body as far as it came."""
    try:
        connection.request(method, target, body, {name.replace("_", "-"): value for name, value in headers.items()})
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read()
    except http.client.IncompleteRead as cut:
        return 0, answer.headers, cut.partial
    finally:
        connection.close()


def start(argv, *, stdin="", **env):
    """As run(), but gives the running subprocess.Popen (a process group of its own)."""
    argv = [program(argv[0])] + [os.fspath(word) for word in argv[1:]]
    with tempfile.TemporaryFile() as given:
        given.write(stdin.encode())
        given.seek(0)
        return subprocess.Popen(argv, env=environment(**env), stdin=given,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                encoding="utf-8", errors="surrogateescape", start_new_session=True)


class HeldOpenssl:
    """An openssl for the head of PATH (`path`) that waits, so that what encrypts or decrypts can be met at
    work: as long as the file `hold` is there and, read by a shell, is true; at most two minutes."""

    def __init__(self, folder):
        self.hold, program_ = folder / "hold", folder / "bin/openssl"
        self.path = f"{program_.parent}:{os.environ['PATH']}"
        program_.parent.mkdir()
        hold = shlex.quote(str(self.hold))
        program_.write_text(f"#!/bin/sh\nfor i in $(seq 1200); do [ -e {hold} ] && sh {hold} || break; sleep 0.1; done\n"
                            f'exec {shutil.which("openssl")} "$@"\n')
        program_.chmod(0o755)


def local_token(path, password=None):
    """Token of a storage in the local directory `path`."""
    token = f"path={path};type=local"
    if password is not None:
        token += ";arch_password=" + base64.b64encode(os.fsencode(password)).decode()
    return token


def sha256(path):
    digest = hashlib.sha256()
    with open(path, "rb") as source:
        while block := source.read(1 << 20):
            digest.update(block)
    return digest.hexdigest()


# ---- Trees --------------------------------------------------------------------------------------

# holes: the data extents ((start, end), ...) of a sparse file, () for others;
# same: the first name (in order) of the same inode, "" for what has one name only.
Entry = collections.namedtuple(
    "Entry", "type mode uid gid size mtime_ns link sha256 xattrs holes same")


def _data_extents(path, size):
    extents, at = [], 0
    fd = os.open(path, os.O_RDONLY)
    try:
        while at < size:
            try:
                begin = os.lseek(fd, at, os.SEEK_DATA)
            except OSError:  # no data behind `at`
                break
            at = os.lseek(fd, begin, os.SEEK_HOLE)
            extents.append((begin, at))
    finally:
        os.close(fd)
    return () if extents == [(0, size)] or size == 0 else tuple(extents)


def _entry(path, info, same):
    kind = stat.S_IFMT(info.st_mode)
    regular = kind == stat.S_IFREG
    xattrs = {} if kind == stat.S_IFLNK else {
        name: os.getxattr(path, name, follow_symlinks=False)
        for name in os.listxattr(path, follow_symlinks=False)}
    return Entry(
        type={stat.S_IFREG: "file", stat.S_IFDIR: "dir", stat.S_IFLNK: "link",
              stat.S_IFIFO: "fifo"}.get(kind, oct(kind)),
        mode=stat.S_IMODE(info.st_mode), uid=info.st_uid, gid=info.st_gid,
        size=info.st_size if regular else 0, mtime_ns=info.st_mtime_ns,
        link=os.readlink(path) if kind == stat.S_IFLNK else "",
        sha256=sha256(path) if regular else "", xattrs=xattrs,
        holes=_data_extents(path, info.st_size) if regular else (), same=same)


def tree_state(top):
    """{name relative to `top`: Entry} of everything below it, without following links."""
    found = {}
    for folder, dirs, files in os.walk(top):
        for name in dirs + files:
            path = os.path.join(folder, name)
            found[os.path.relpath(path, top)] = (path, os.lstat(path))
    names = {}
    for name in sorted(found):
        info = found[name][1]
        if not stat.S_ISDIR(info.st_mode) and info.st_nlink > 1:
            names.setdefault((info.st_dev, info.st_ino), name)
    return {name: _entry(path, info, names.get((info.st_dev, info.st_ino), ""))
            for name, (path, info) in found.items()}


def _access_list(uid):
    """A POSIX ACL (the kernel's form): owner rw, user `uid` r, group r, mask r, others nothing."""
    entries = [(0x01, 6, 0xFFFFFFFF), (0x02, 4, uid), (0x04, 4, 0xFFFFFFFF),
               (0x10, 4, 0xFFFFFFFF), (0x20, 0, 0xFFFFFFFF)]
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHI", *entry) for entry in entries)


def make_tree(top, seed):
    """Fills the directory `top` with one of everything that a backup must keep; equal seeds give
    equal trees. About 400 entries, 12 MiB."""
    dice = random.Random(seed)
    top = os.path.abspath(top)
    os.makedirs(top, exist_ok=True)

    def write(name, content, mode=0o644):
        path = os.path.join(os.fsencode(top), name if isinstance(name, bytes) else os.fsencode(name))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as out:
            out.write(content)
        os.chmod(path, mode)
        return path

    for size in (0, 1, 511, 512, 513, 10239, 10240, 65536, (1 << 20) - 1, 1 << 20, (3 << 20) + 7):
        write(f"sizes/{size}", dice.randbytes(size), dice.choice((0o600, 0o644, 0o755, 0o4750)))
    write("sizes/text", b"the same line over and over again\n" * 100000)
    for number in range(60):
        write(f"small/d{number % 7}/file{number}.txt", dice.randbytes(dice.randrange(3000)))
    for byte in range(1, 256):
        if byte != ord("/"):
            write(b"names/byte-" + bytes([byte]) + b"-end", bytes([byte]))
    for name in ("-rf", " blank ", "quote'\"`", "$(touch canary)", "back\\slash", "new\nline",
                 "n" * 255, "..hidden", "*?[x]", "%c %p %f"):
        write("names/" + name, name.encode())
    write("/".join(f"deep{level}" for level in range(64)) + "/bottom", b"64 folders down")
    for folder in ("empty", "empty/inside", "locked"):
        os.makedirs(os.path.join(top, folder), exist_ok=True)
    os.chmod(os.path.join(top, "locked"), 0o500)

    first = write("links/first", dice.randbytes(5000))
    os.link(first, os.path.join(os.fsencode(top), b"links/second"))
    os.link(first, os.path.join(os.fsencode(top), b"sizes/third"))
    for name, target in (("short", "first"), ("dangling", "../nowhere"), ("absolute", "/etc/passwd"),
                         ("long", "t" * 3000), ("folder", "../small")):
        os.symlink(target, os.path.join(top, "links", name))
    os.mkfifo(os.path.join(top, "fifo"), 0o640)
    with open(os.path.join(top, "sparse"), "wb") as out:
        for at in (0, 3 << 20, 9 << 20):
            out.seek(at)
            out.write(dice.randbytes(64 << 10))
        out.truncate(16 << 20)
    noted = write("attributes", b"has extended attributes")
    with contextlib.suppress(OSError):  # a file system without them keeps the rest of the tree useful
        os.setxattr(noted, "user.note", dice.randbytes(50))
        os.setxattr(noted, "user.empty", b"")
    listed = write("access-list", b"has a POSIX access list", 0o640)
    with contextlib.suppress(OSError):
        os.setxattr(listed, "system.posix_acl_access", _access_list(12345))
    _stamp(top, dice)


def _stamp(top, dice):
    """Owners (as root) and nanosecond times, in the order of the names."""
    paths = [os.path.join(folder, name) for folder, dirs, files in os.walk(top) for name in dirs + files]
    for path in sorted(paths):
        if os.geteuid() == 0 and dice.random() < 0.2:
            mode = os.lstat(path).st_mode
            os.lchown(path, dice.randrange(1000, 60000), dice.randrange(1000, 60000))
            if not stat.S_ISLNK(mode):
                os.chmod(path, stat.S_IMODE(mode))  # chown dropped set-id bits
        when = dice.randrange(10**9 * 946684800, 10**9 * 1700000000)
        os.utime(path, ns=(when, when), follow_symlinks=False)
