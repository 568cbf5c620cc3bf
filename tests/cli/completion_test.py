#!/usr/bin/env python3
"""Manual pages and completions name every command and option that mirnctl has, and nothing it doesn't have.

    completion_test.py PROGRAM PACKAGING_DIR
"""
import os
import re
import subprocess
import sys

PROGRAM, PACKAGING = sys.argv[1], sys.argv[2]


def help_of(*words):
    return subprocess.run([PROGRAM, *words, "--help"], capture_output=True, text=True, check=True, timeout=60).stdout


def commands_in(text):
    tail = text.split("Subcommands:", 1)[1].split("Exit status", 1)[0] if "Subcommands:" in text else ""
    return re.findall(r"^  ([a-z][a-z-]*) ", tail, re.M)


def options_in(text):
    return {o for o in re.findall(r"--[a-z][a-z-]*", text) if not o.startswith("--virtual-")}


def read(*parts):
    return open(os.path.join(PACKAGING, *parts), encoding="utf-8").read()


def completed(*words):
    """What bash would offer after these words."""
    script = ('source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _mirnctl; printf "%s\\n" "${COMPREPLY[@]}"')
    file = os.path.join(PACKAGING, "completions", "mirnctl.bash")
    return set(subprocess.run(["bash", "-c", script, "bash", file, *words], capture_output=True, text=True, check=True,
                              timeout=60).stdout.split())


failures = []


def expect(condition, text):
    if not condition:
        failures.append(text)


commands = commands_in(help_of())
expect(len(commands) == 15, "15 commands, found %s" % commands)
manual = read("man", "mirnctl.1").replace("\\-", "-")
offered = completed("mirnctl", "")
expect(set(commands) <= offered, "bash offers %s" % offered)
for command in commands:
    expect(re.search(r"^\.(B|BI|BR|TQ\n\.B\w*) \"?%s\b" % command, manual, re.M), "the manual lacks %s" % command)
    for shell in ("_mirnctl", "mirnctl.fish"):
        expect(re.search(r"\b%s\b" % command, read("completions", shell)), "%s lacks %s" % (shell, command))
    own = options_in(help_of(command)) - {"--help", "--json", "--virtual", "--verbose", "--version"}
    for option in own:
        expect(option in manual, "the manual lacks %s of %s" % (option, command))
        expect(option in completed("mirnctl", command, "--"), "bash lacks %s of %s" % (option, command))
for status in range(10):
    expect(re.search(r"^\.B %d$" % status, manual, re.M), "the manual lacks the exit status %d" % status)
for page in ("mirnctl.1", "mirn-console.1"):
    run = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", "-Tutf8", "-Z", os.path.join(PACKAGING, "man", page)],
                         capture_output=True, text=True, timeout=60) if os.path.exists("/usr/bin/man") else None
    expect(run is None or (run.returncode == 0 and not run.stderr.strip()), "%s: %s" % (page, run and run.stderr))
for failure in failures:
    print("FAILED:", failure)
print("%s, %d failed" % ("checked", len(failures)))
sys.exit(1 if failures else 0)
