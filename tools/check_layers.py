#!/usr/bin/env python3
"""Reports every #include that points against the layers.

    vel/            each module may include the modules before it in VEL, and hides third-party
                    headers in its .cpp files
    backup_common/  sees vel; its headers, but for detail/, stand alone; no third-party headers at all
    sbin/, velcgi/  see the layers below and their own folder; third-party headers in .cpp only
    panel/          the same, but of the layers below only vel

Tests and benchmarks see everything. Usage: check_layers.py [top of the tree]
"""
import pathlib
import re
import sys

# From bottom to top; vel/README.md shows the same order.
VEL = ["vel_err", "str", "test", "vel_env", "vel_date", "vel_hash", "vel_log", "res_handle",
       "stream", "vel_user", "vel_file", "vel_proc", "vel_ssh", "vel_xml", "vel_tool", "vel_rpc", "vel_client"]
MAY_SEE = {
    "vel": {"vel"},
    "backup_common": {"vel", "backup_common"},
    "panel": {"vel", "panel"},
    "sbin": {"vel", "backup_common", "sbin"},
    "velcgi": {"vel", "backup_common", "velcgi"},
}
SHARED = {"foreign_panel": {"backup2_cpanel_conv", "backup2_plesk_conv"}}  # a folder of sbin/ for these programs
PROGRAM_FOLDERS = ("sbin", "velcgi")  # one folder a program below these
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)')
# Headers of the system and of the language: a plain name, or one of these folders.
SYSTEM_FOLDER = re.compile(r"^(sys|linux|arpa|net|netinet|asm|bits)/")
THIRD_PARTY_FILE = re.compile(
    r"^(archive|archive_entry|pugixml|sqlite3|igzip_lib|isa-l|httplib|xxhash|zlib|zstd|crypt)\.(h|hpp)$")


def third_party(header):
    if "/" in header:
        return not SYSTEM_FOLDER.match(header)
    return bool(THIRD_PARTY_FILE.match(header))


def may_use_third_party(source):
    hidden = source.suffix == ".cpp" or "detail" in source.parts
    return hidden and source.parts[0] != "backup_common"


def vel_module(path):
    return pathlib.PurePath(path).parts[1].split(".")[0]


def refuse_within_vel(source, header):
    own, other = vel_module(source), vel_module(header)
    for module in (own, other):
        if module not in VEL:
            return f"vel/{module} has no place in the order of check_layers.py"
    return f"{own} lies below {other}" if VEL.index(own) < VEL.index(other) else None


def refuse_project_header(source, header):
    top, target = source.parts[0], pathlib.PurePath(header)
    if len(target.parts) < 2:
        return "a quoted include names its folder from the top of the tree"
    if target.parts[0] not in MAY_SEE[top]:
        return f"{top}/ must not include {target.parts[0]}/"
    if top == "vel":
        return refuse_within_vel(source, header)
    alone = source.suffix == ".h" and "detail" not in source.parts  # what is not installed need not
    if top == "backup_common" and alone and target.parts[0] == top:
        why = "headers of backup_common stand alone; declare the class instead"
        return None if target.name == "export.h" else why
    if top in PROGRAM_FOLDERS and target.parts[0] == top and source.parts[1] != target.parts[1]:
        shared = top == "sbin" and source.parts[1] in SHARED.get(target.parts[1], ())
        return None if shared else "one program must not include another"
    return None


def refusal(source, quote, header):
    """Why the file `source` must not include `header`; None when it may."""
    if source.parts[0] not in MAY_SEE:
        return None
    if quote == '"':
        return refuse_project_header(source, header)
    if third_party(header) and not may_use_third_party(source):
        return "third-party headers stay in the .cpp files of vel and of the programs"
    return None


def faults_of(top, source):
    text = (top / source).read_text(encoding="utf-8", errors="replace")
    for number, line in enumerate(text.splitlines(), 1):
        found = INCLUDE.match(line)
        why = found and refusal(source, found[1], found[2])
        if why:
            yield f"{source}:{number}: {found[2]}: {why}"


def main(arguments):
    top = pathlib.Path(arguments[0] if arguments else ".")
    sources = sorted(path.relative_to(top) for folder in MAY_SEE for suffix in ("h", "cpp")
                     for path in (top / folder).rglob("*." + suffix))
    if not sources:
        sys.exit(f"{top}: no sources: not the top of the tree")
    faults = [fault for source in sources for fault in faults_of(top, source)]
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
