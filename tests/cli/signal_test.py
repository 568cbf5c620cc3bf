#!/usr/bin/env python3
"""mirnctl and signals, as a shell and a pipe send them: what is left behind, and what the exit status says.

    signal_test.py PROGRAM
"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time

PROGRAM = os.path.abspath(sys.argv[1])
# A sanitizer's build lets the library's own lines through.
NOISY = bool(os.environ.get("MIRN_CTL_NOISY"))
PATIENCE = 120
CHUNKS = 293
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
faults = []


def expect(condition, text):
    if not condition:
        faults.append(text)


def heed_signals():
    """What this test was started with as ignored (a background job's SIGINT) would be ignored by what it starts."""
    for number in SIGNALS:
        if signal.getsignal(number) == signal.SIG_IGN:
            signal.signal(number, signal.SIG_DFL)


def start(*arguments, **options):
    return subprocess.Popen([PROGRAM, "--virtual", *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, **options)


def wait_until_caught(process, number):
    """Until the process has a handler of its own for the signal."""
    end = time.monotonic() + PATIENCE
    while process.poll() is None and time.monotonic() < end:
        with open("/proc/%d/status" % process.pid, encoding="ascii") as status:
            caught = int([line.split()[1] for line in status if line.startswith("SigCgt")][0], 16)
        if caught >> (number - 1) & 1:
            return
        time.sleep(0.01)  # between two looks
    faults.append("the signal is not caught")


def typing_ends(number, *options):
    # Twenty seconds of typing with Shift held.
    process = start(*options, "--virtual-faults", "delay=20@*/c3", "type", "A" * 500)
    wait_until_caught(process, number)
    process.send_signal(number)
    out, err = process.communicate(timeout=PATIENCE)
    expect(process.returncode == -number, "type ends by the signal, not with %d" % process.returncode)
    return out, err


def check_typing():
    for number in SIGNALS:
        out, err = typing_ends(number)
        expect(out == "", "nothing is said of success: %r" % out)
        expect("Stopped by %s. Everything held was let go." % number.name in err, "%s: %r" % (number.name, err))
        expect(NOISY or err.count("\n") == 1, "an error is one line, not %r" % err)
    out, _ = typing_ends(signal.SIGINT, "--json")
    said = json.loads(out)
    expect(said["ok"] is False and said["status"] == 130 and said["typed"] < 500, "the object is %s" % said)


def upgrade(folder, *options, **more):
    environment = dict(os.environ, TMPDIR=folder)
    return start(*options, "--virtual-faults", "delay=5@*/c7", "upgrade", "--expect", "2.0", "image.bin",
                 env=environment, **more)


def check_upgrade(folder):
    process = upgrade(folder)
    for line in process.stdout:
        if line.startswith("chunk"):
            break
    expect(os.listdir(folder), "there is a private directory while it is sent")
    process.send_signal(signal.SIGINT)
    process.send_signal(signal.SIGTERM)
    out, err = process.communicate(timeout=PATIENCE)
    expect(process.returncode == 0, "the upgrade goes on to its end, not to %d: %r" % (process.returncode, err))
    expect("now runs version 2.0" in out, "the upgrade says its end: %r" % out)
    expect(err.count("doesn't stop an upgrade") == 1, "it is said once that it goes on: %r" % err)
    expect(not os.listdir(folder), "%s stays in TMPDIR" % os.listdir(folder))


def check_unplugged_upgrade(folder):
    process = start("--virtual-faults", "unplug@2/c7", "upgrade", "--replug", "3600", "image.bin",
                    env=dict(os.environ, TMPDIR=folder))
    for line in process.stdout:
        if "unplugged" in line:
            break
    process.send_signal(signal.SIGTERM)
    out, _ = process.communicate(timeout=PATIENCE)
    expect(process.returncode == 9, "the wait for the device ends with 9, not %d: %r" % (process.returncode, out))
    expect(not os.listdir(folder), "%s stays in TMPDIR" % os.listdir(folder))


def check_reader_gone(folder):
    # As in "mirnctl upgrade FILE | head -1". The library's own lines tell of the chunks.
    process = upgrade(folder, "--verbose")
    process.stdout.readline()
    process.stdout.close()
    err = process.stderr.read()
    process.wait(PATIENCE)
    sent = err.count("err_no=0")
    expect(sent == CHUNKS, "all chunks are taken, not %d" % sent)
    expect(process.returncode == 7, "the status tells of the output, not %d" % process.returncode)
    expect(not os.listdir(folder), "%s stays in TMPDIR" % os.listdir(folder))


def check_watch_without_reader():
    process = start("--virtual-pull-after", "100", "--virtual-plug-after", "200", "watch")
    process.stdout.readline()
    process.stdout.close()
    try:
        process.wait(PATIENCE)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()
    expect(process.returncode == 7, "watch ends when nobody reads it, not with %d" % process.returncode)
    process.stderr.close()


def main():
    os.chdir(tempfile.mkdtemp(prefix="mirnctl-signal-"))
    image = b"MIRN-VERSION=2.0\0"
    with open("image.bin", "wb") as file:
        file.write(image + bytes(CHUNKS * 1024 - len(image)))
    os.mkdir("temporary")
    folder = os.path.abspath("temporary")
    heed_signals()
    check_typing()
    check_upgrade(folder)
    check_unplugged_upgrade(folder)
    check_reader_gone(folder)
    check_watch_without_reader()
    for fault in faults:
        print("FAILED: " + fault)
    print("%d failed" % len(faults))
    return 1 if faults else 0


sys.exit(main())
