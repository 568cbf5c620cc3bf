#!/usr/bin/env python3
"""Fails on an include that runs against the arrows of docs/architecture.md.

Usage: check_layers.py [TREE]     prints one line for each offence, "file:line: room may not include room", and exits 1.
"""

import pathlib
import posixpath
import re
import sys

# room -> the rooms it may include, itself always. A path belongs to the longest room that is a prefix of it.
ARROWS = {
    "deps/pellum": [],
    "platform": ["deps/pellum"],
    "platform/linux": ["platform", "deps/pellum"],
    "embedding": ["platform", "deps/pellum"],
    "device": ["platform", "deps/pellum"],
    "usb": ["platform", "deps/pellum"],
    "video": ["platform", "embedding", "deps/pellum"],
    "plugin": ["video", "device", "usb", "platform", "embedding", "deps/pellum"],
    "virtual": ["platform", "deps/pellum"],
    "host": ["plugin", "embedding", "platform", "deps/pellum"],
    "linux": ["plugin", "embedding", "platform", "deps/pellum"],
    "apps": ["host", "plugin/mirn_host.h", "plugin/registration.h", "embedding", "virtual", "platform", "deps/pellum"],
}
# Nobody reaches around the interfaces into the Linux implementation.
CLOSED = {"platform/linux"}
# <linux/...> are the kernel's headers.
INCLUDE = re.compile(r'^\s*#\s*include\s*(?!<linux/)["<]([^">]+)[">]')


def room_of(path):
    rooms = [room for room in ARROWS if path == room or path.startswith(room + "/")]
    return max(rooms, key=len) if rooms else None


def allowed(source_room, included):
    target = room_of(included)
    if target is None or target == source_room:
        return True
    for permitted in ARROWS[source_room]:
        if included == permitted:
            return True
        if target == permitted and target not in CLOSED:
            return True
    return source_room == target


# "../video/x.h" is as good a way into a room as "video/x.h".
def target_of(source, included):
    if included.startswith("."):
        return posixpath.normpath(posixpath.join(posixpath.dirname(source), included))
    return posixpath.normpath(included)


def offences(tree):
    for source in sorted(tree.rglob("*")):
        if source.suffix not in (".h", ".cc") or not source.is_file():
            continue
        relative = source.relative_to(tree).as_posix()
        room = room_of(relative)
        if room is None or relative.startswith("build"):
            continue
        for number, line in enumerate(source.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            if match and not allowed(room, target_of(relative, match.group(1))):
                yield f"{relative}:{number}: {room} may not include {match.group(1)}"


def main():
    tree = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".")
    found = list(offences(tree))
    for line in found:
        print(line)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
