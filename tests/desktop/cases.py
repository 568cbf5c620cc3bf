"""What the cases share: expectations, screenshots, a firmware file, and running one case by its name.

    SCRIPT PROGRAM OUTPUT_DIR CASE

Screenshots of each state are kept in OUTPUT_DIR. Exit status 77: a tool is missing, the case was not run.
"""
import os
import shutil
import sys

from desktop import Console, Desktop, Failure, missing_tools, private_folder

PROGRAM, OUTPUT = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])


def expect(condition, text):
    if not condition:
        raise Failure(text)


def keep(desktop, name, console=None, title=None):
    """Keeps a screenshot; of a console's windows (the one of that title too), when they have drawn what they show."""
    os.makedirs(OUTPUT, exist_ok=True)
    if console is not None:
        console.drawn(title)
    desktop.screenshot(os.path.join(OUTPUT, name + ".png"))


def typed_text(state):
    return state["text"].replace("\n", "")


NOTHING = {"keys": [0] * 6, "modifiers": 0, "buttons": 0}
RELEASES = ["keys-up", "buttons-up", "buttons-up", "buttons-up"]


def holds_nothing(state):
    return all(state[name] == value for name, value in NOTHING.items())


def expect_only_releases(console, before):
    """A dialog takes the focus, which releases everything: nothing goes down, and no firmware goes out."""
    sent = console.say("sent %d" % before)
    expect(set(sent["sent"]) <= set(RELEASES), "releases only, not %s" % sent)
    expect(console.state()["text"] == "", "nothing is typed")


def firmware(folder, version):
    image = b"MIRN-VERSION=" + version.encode() + b"\0" + bytes((i * 7) & 0xFF for i in range(60000))
    lines = []
    for at in range(0, len(image), 16):
        part = image[at:at + 16]
        record = "%02X%04X00%s" % (len(part), at, part.hex().upper())
        lines.append(":%s%02X\r\n" % (record, -sum(bytes.fromhex(record)) & 0xFF))
    path = os.path.join(folder, "firmware.hex")
    open(path, "w", newline="").write("".join(lines) + ":00000001FF\r\n")
    return path


def main(cases):
    """Runs the case that the command line names; `cases` are the caller's globals."""
    if missing_tools():
        print("skipped: these tools are missing: " + " ".join(missing_tools()))
        return 77
    case = cases["test_" + sys.argv[3]]
    folder = private_folder()
    desktop = Desktop(folder)
    started = []
    original = Console.__init__

    def remember(self, *arguments, **named):
        started.append(self)
        original(self, *arguments, **named)

    Console.__init__ = remember
    try:
        case(desktop)
    except Failure as failure:
        print("FAILED: %s" % failure)
        keep(desktop, "failed_" + sys.argv[3])
        return 1
    finally:
        for console in started:
            console.close()
        desktop.close()
        shutil.rmtree(folder, ignore_errors=True)
    failed = os.path.join(OUTPUT, "failed_" + sys.argv[3] + ".png")
    if os.path.exists(failed):  # of an earlier run
        os.remove(failed)
    print("passed")
    return 0
