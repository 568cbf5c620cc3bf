#!/usr/bin/env python3
"""Runs clang-tidy over every source of the tree that the given build folder compiles.

A file whose text, and the text of everything it includes, is as it was at the last clean run is not read again: the
folder keeps a stamp per file, keyed by its text, what it includes, the list of checks and the tool's version.

Usage: run_tidy.py BUILD_FOLDER
"""

import concurrent.futures
import hashlib
import json
import os
import pathlib
import shlex
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
ROOMS = ("deps/pellum/", "device/", "usb/", "video/", "plugin/", "embedding/", "platform/", "virtual/", "host/", "apps/", "linux/")
VERSION = subprocess.run(["clang-tidy", "--version"], capture_output=True, check=True).stdout


def preprocessed_digest(entry):
    words = [word for word in shlex.split(entry["command"]) if not word.endswith("ccache")]
    if "-o" in words:
        at = words.index("-o")
        del words[at:at + 2]
    words = [word for word in words if word != "-c"] + ["-E", "-P"]
    done = subprocess.run(words, cwd=entry["directory"], capture_output=True, check=False)
    # The file's own text too: preprocessing drops the comments, and with them a NOLINT.
    rest = (ROOT / ".clang-tidy").read_bytes() + pathlib.Path(entry["file"]).read_bytes() + VERSION
    return hashlib.sha256(done.stdout + rest).hexdigest()


def check(entry, build, stamps):
    digest = preprocessed_digest(entry)
    stamp = stamps / digest
    if stamp.exists():
        return True, ""
    done = subprocess.run(["clang-tidy", "-p", str(build), "--quiet", entry["file"]], capture_output=True, text=True, check=False)
    if done.returncode == 0:
        stamp.touch()
        return True, ""
    return False, done.stdout


def main():
    build = pathlib.Path(sys.argv[1])
    subprocess.run(["cmake", "--preset", "clang"], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    entries = json.loads((build / "compile_commands.json").read_text())
    entries = [entry for entry in entries
               if os.path.relpath(entry["file"], ROOT).startswith(ROOMS) and "CMakeFiles" not in entry["file"]]
    stamps = pathlib.Path(os.environ.get("XDG_CACHE_HOME", pathlib.Path.home() / ".cache")) / "flutter_mirn-tidy"
    stamps.mkdir(parents=True, exist_ok=True)
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for good, text in pool.map(lambda entry: check(entry, build, stamps), entries):
            if not good:
                failed += 1
                print(text)
    print(f"clang-tidy: {len(entries)} files, {failed} with findings")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
