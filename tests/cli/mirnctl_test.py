#!/usr/bin/env python3
"""mirnctl against the virtual device: output (text and JSON), error lines, exit statuses.

    mirnctl_test.py PROGRAM GOLDEN_DIR [--update]

Each case's output is compared with golden/NAME.out (standard output), NAME.err (standard error) and the status in the
list below. Numbers that are measured are replaced by # first.
"""
import os
import pty
import re
import subprocess
import sys
import tempfile

PROGRAM, GOLDEN = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
UPDATE = "--update" in sys.argv
HEX_GOOD = ":100000004D49524E2D56455253494F4E3D322E3005\r\n:0100100000EF\r\n:00000001FF\r\n"
HEX_BAD = ":100000004D49524E2D56455253494F4E3D322E3006\r\n:00000001FF\r\n"


def checksum(record):
    return "%02X" % (-sum(bytes.fromhex(record)) & 0xFF)


def hex_file(image):
    lines = []
    for at in range(0, len(image), 16):
        part = image[at:at + 16]
        record = "%02X%04X00%s" % (len(part), at, part.hex().upper())
        lines.append(":" + record + checksum(record) + "\r\n")
    return "".join(lines) + ":00000001FF\r\n"


# name, status, arguments, standard input
CASES = [
    ("devices", 0, "--virtual devices", None),
    ("devices_json", 0, "--virtual --json devices", None),
    ("devices_unplugged", 0, "--virtual --virtual-unplugged devices", None),
    ("doctor", 0, "--virtual doctor", None),
    ("doctor_json", 0, "--virtual doctor --json", None),
    ("doctor_two", 0, "--virtual --virtual-devices 2 doctor", None),
    ("doctor_unplugged", 3, "--virtual --virtual-unplugged doctor", None),
    ("doctor_unplugged_json", 3, "--virtual --virtual-unplugged --json doctor", None),
    ("doctor_denied", 4, "--virtual --virtual-denied doctor", None),
    ("doctor_hid_denied", 4, "--virtual --virtual-denied=hid doctor", None),
    ("doctor_both_denied_json", 4, "--json --virtual-denied=hid --virtual-denied doctor", None),
    ("doctor_denied_nonsense", 2, "--virtual --virtual-denied=both doctor", None),
    ("doctor_busy", 5, "--virtual --virtual-busy doctor", None),
    ("info", 0, "--virtual info", None),
    ("info_json", 0, "--virtual --json info", None),
    ("info_unplugged", 3, "--virtual --virtual-unplugged info", None),
    ("info_unplugged_json", 3, "--virtual --virtual-unplugged --json info", None),
    ("info_silent", 1, "--virtual --virtual-faults drop@*/c9 info", None),
    ("info_denied", 4, "--virtual --virtual-denied=hid info", None),
    ("info_denied_json", 4, "--virtual --virtual-denied=hid --json info", None),
    ("info_camera_denied", 0, "--virtual --virtual-denied info", None),
    ("set_name", 0, "--virtual set-name Büro", None),
    ("set_name_json", 0, "--virtual --json set-name Desk", None),
    ("set_name_long", 2, "--virtual set-name 123456789012345678901", None),
    ("set_name_long_json", 2, "--virtual --json set-name 123456789012345678901", None),
    ("set_name_missing", 2, "--virtual set-name", None),
    ("set_name_refused", 1, "--virtual --virtual-faults refuse@*/c10 set-name Desk", None),
    ("set_name_unplugged", 3, "--virtual --virtual-unplugged set-name Desk", None),
    ("set_name_denied", 4, "--virtual --virtual-denied=hid set-name Desk", None),
    ("led_get", 0, "--virtual led get", None),
    ("led_get_json", 0, "--virtual --json led get", None),
    ("led_set", 0, "--virtual led set 7", None),
    ("led_set_json", 0, "--virtual --json led set 7", None),
    ("led_set_range", 2, "--virtual led set 256", None),
    ("led_alone", 2, "--virtual led", None),
    ("led_get_unplugged", 3, "--virtual --virtual-unplugged led get", None),
    ("led_get_denied", 4, "--virtual --virtual-denied=hid led get", None),
    ("led_set_unplugged_json", 3, "--virtual --virtual-unplugged --json led set 7", None),
    ("led_set_denied_json", 4, "--virtual --virtual-denied=hid --json led set 7", None),
    ("key", 0, "--virtual key ctrl+alt+del enter", None),
    ("key_json", 0, "--virtual --json key a 0x42", None),
    ("key_unknown", 2, "--virtual key ctrl+nokey", None),
    ("key_twice", 2, "--virtual key ctrl+a+a", None),
    ("key_enter_twice", 2, "--virtual key enter+kpenter", None),
    ("key_absent", 2, "--virtual key a shift+pause", None),
    ("key_absent_printscreen_json", 2, "--virtual --json key printscreen", None),
    ("key_absent_number", 2, "--virtual key 200", None),
    ("key_generic_modifiers", 0, "--virtual key 0x10+a 17+18+b", None),
    ("key_many", 2, "--virtual key a+b+c+d+e+f+g", None),
    ("key_none", 2, "--virtual key", None),
    ("key_list", 0, "--virtual key --list", None),
    ("key_refused", 1, "--virtual --virtual-faults refuse@3+/c3 key a b", None),
    ("key_denied", 4, "--virtual --virtual-denied=hid key a", None),
    ("type", 0, ["--virtual", "type", "Hello, World!"], None),
    ("type_json", 0, ["--virtual", "--json", "type", "Hello"], None),
    ("type_stdin", 0, ["--virtual", "type"], "line one\r\nline two\n"),
    ("type_untypable", 7, ["--virtual", "type", "naïve €5"], None),
    ("type_untypable_json", 7, ["--virtual", "--json", "type", "naïve"], None),
    ("type_skip", 0, ["--virtual", "--json", "type", "--skip", "naïve"], None),
    ("type_layout", 2, ["--virtual", "type", "--layout", "xx", "a"], None),
    ("type_unplugged", 3, ["--virtual", "--virtual-unplugged", "type", "a"], None),
    ("type_denied", 4, ["--virtual", "--virtual-denied=hid", "type", "a"], None),
    ("mouse_denied", 4, "--virtual --virtual-denied=hid mouse move 1 1", None),
    ("mouse_unplugged", 3, "--virtual --virtual-unplugged mouse move 1 1", None),
    ("mouse_click_unplugged", 3, "--virtual --virtual-unplugged mouse click 1 1", None),
    ("mouse_wheel_unplugged_json", 3, "--virtual --virtual-unplugged --json mouse wheel 1", None),
    ("mouse_move", 0, "--virtual mouse move 100 200", None),
    ("mouse_move_json", 0, "--virtual --json mouse move 0 32767", None),
    ("mouse_move_screen", 0, "--virtual mouse move --screen 1920x1080 1919 0", None),
    ("mouse_move_outside", 2, "--virtual mouse move 32768 0", None),
    ("mouse_move_bad_screen", 2, "--virtual mouse move --screen wide 1 1", None),
    ("mouse_move_screen_junk", 2, "--virtual mouse move --screen 1920x1080junk 1 1", None),
    ("mouse_move_screen_huge", 2, "--virtual mouse move --screen 1920x4294968376 1 1", None),
    ("mouse_move_screen_half", 2, "--virtual mouse move --screen 1920x 1 1", None),
    ("mouse_click", 0, "--virtual mouse click 5 6 --button right", None),
    ("mouse_click_double_json", 0, "--virtual --json mouse click 5 6 --double", None),
    ("mouse_click_bad_button", 2, "--virtual mouse click 5 6 --button fourth", None),
    ("mouse_wheel", 0, "--virtual mouse wheel 3 --at 10 20", None),
    # Steady answers for six seconds: longer than the patience with a silent device.
    ("mouse_wheel_slow", 0, "--virtual --virtual-faults delay=20@*/c2 mouse wheel 300", None),
    ("mouse_wheel_json", 0, "--virtual --json mouse wheel -2", None),
    ("mouse_silent", 1, "--virtual --virtual-faults drop@4+/c2 mouse move 1 1", None),
    ("snapshot", 0, "--virtual snapshot shot.png", None),
    ("snapshot_json", 0, "--virtual --json snapshot --quality 720P --color best shot.png", None),
    ("snapshot_unwritable", 7, "--virtual snapshot /nonexistent/shot.png", None),
    ("snapshot_no_signal", 6, "--virtual --virtual-no-signal snapshot --timeout 500 shot.png", None),
    ("snapshot_denied", 4, "--virtual --virtual-denied snapshot shot.png", None),
    ("snapshot_denied_json", 4, "--virtual --virtual-denied --json snapshot shot.png", None),
    ("snapshot_busy", 5, "--virtual --virtual-busy snapshot shot.png", None),
    ("snapshot_not_offered", 1, "--virtual --virtual-lacks best snapshot --color best shot.png", None),
    ("snapshot_unplugged", 3, "--virtual --virtual-unplugged snapshot shot.png", None),
    ("snapshot_hid_denied", 0, "--virtual --virtual-denied=hid snapshot shot.png", None),
    ("quality", 0, "--virtual quality 720P", None),
    ("quality_json", 0, "--virtual --json quality 1080P", None),
    ("quality_not_offered", 1, "--virtual --virtual-lacks 720P quality 720P", None),
    ("quality_bad", 2, "--virtual quality 720p", None),
    ("quality_unplugged", 3, "--virtual --virtual-unplugged quality 720P", None),
    ("quality_denied", 4, "--virtual --virtual-denied quality 720P", None),
    ("color", 0, "--virtual color best", None),
    ("color_json", 0, "--virtual --json color normal --quality 720P", None),
    ("color_not_offered_json", 1, "--virtual --virtual-lacks best --json color best", None),
    ("color_best_alone", 0, "--virtual --virtual-lacks normal color best", None),
    ("color_bad", 2, "--virtual color rosy", None),
    ("color_unplugged", 3, "--virtual --virtual-unplugged color best", None),
    ("color_denied", 4, "--virtual --virtual-denied color best", None),
    ("watch", 0, "--virtual --virtual-pull-after 300 --virtual-plug-after 700 watch --count 2 --no-time", None),
    ("watch_json", 0, "--virtual --virtual-pull-after 300 --json watch --count 1 --no-time", None),
    ("watch_seconds", 0, "--virtual watch --seconds 1 --no-time", None),
    ("upgrade_check", 0, "--virtual upgrade --check good.hex", None),
    ("upgrade_check_json", 0, "--virtual --json upgrade --check good.hex", None),
    ("upgrade_check_raw", 0, "--virtual upgrade --check raw.bin", None),
    ("upgrade_bad", 7, "--virtual upgrade bad.hex", None),
    ("upgrade_bad_json", 7, "--virtual --json upgrade bad.hex", None),
    ("upgrade_missing", 7, "--virtual upgrade missing.hex", None),
    ("upgrade_empty", 7, "--virtual upgrade empty.bin", None),
    ("upgrade_hex_name", 7, "--virtual upgrade fw.Hex", None),
    ("upgrade_hex_text", 7, "--virtual upgrade --check text.bin", None),
    ("upgrade_hex_folder_json", 7, "--virtual --json upgrade d.hex/fw.hex", None),
    ("upgrade_denied", 4, "--virtual --virtual-denied=hid upgrade long.hex", None),
    ("upgrade", 0, "--virtual upgrade long.hex", None),
    ("upgrade_json", 0, "--virtual --json upgrade --expect 2.0 long.hex", None),
    ("upgrade_other_version", 9, "--virtual upgrade --expect 9.9 long.hex", None),
    ("upgrade_same", 9, "--virtual --virtual-version 2.0 upgrade long.hex", None),
    ("upgrade_same_expected", 0, "--virtual --virtual-version 2.0 upgrade --expect 2.0 long.hex", None),
    ("upgrade_refused", 9, "--virtual --virtual-faults refuse@3/c7 upgrade long.hex", None),
    ("upgrade_refused_expected_json", 9,
     "--virtual --virtual-faults refuse@3/c7 --json upgrade --expect 1.0.0 long.hex", None),
    ("upgrade_unplugged", 9, "--virtual --virtual-faults unplug@2/c7 upgrade --replug 0 long.hex", None),
    ("latency", 0, "--virtual latency --count 5", None),
    ("latency_json", 0, "--virtual --json latency --count 5 --answers-only", None),
    ("latency_best_alone", 0, "--virtual --virtual-lacks normal latency --count 2 --color best", None),
    ("latency_mismatch", 1, "--virtual --virtual-mismatch latency --count 2", None),
    ("latency_mismatch_answers", 0, "--virtual --virtual-mismatch latency --count 2 --answers-only", None),
    ("latency_unplugged", 3, "--virtual --virtual-unplugged latency --count 2", None),
    ("latency_denied", 4, "--virtual --virtual-denied latency --count 2", None),
    ("latency_hid_denied", 4, "--virtual --virtual-denied=hid latency --count 2 --answers-only", None),
    ("channel", 0, "--virtual channel", "07056f70656e00\nzz\nwait 1\n"),
    ("channel_json", 2, "--json channel", "07056f70656e00\n"),
    ("help", 0, "--help", None),
    ("version", 0, "--version", None),
    ("nothing", 2, "", None),
    ("unknown", 2, "frobnicate", None),
    ("unknown_json", 2, "--json frobnicate", None),
    ("bad_lacks", 2, "--virtual --virtual-lacks 720p info", None),
    ("bad_faults", 2, "--virtual --virtual-faults nonsense info", None),
]

MEASURED = [
    (re.compile(r"(mean|p50|p95|max) \d+\.\d+"), r"\1 #"),
    (re.compile(r'("(?:mean|p50|p95|max)_ms"):[0-9.e+-]+'), r"\1:#"),
    (re.compile(r'"buckets":\[[^\]]*\]'), '"buckets":[#]'),
    (re.compile(r"^ +(<=|>) .*$", re.M), "  # bar"),
    (re.compile(r"(  # bar\n)+"), "  # bars\n"),
    (re.compile(r"(chunk \d+ of \d+, .*KiB/s.*\n)+"), "chunk #\n"),
    # How many were under way before the rest was dropped.
    (re.compile(r"\d+ chunks? failed"), "# failed"),
    (re.compile(r'"failed_chunks":[1-9]\d*'), '"failed_chunks":#'),
]


def masked(text):
    for pattern, replacement in MEASURED:
        text = pattern.sub(replacement, text)
    return text


def compare(name, kind, text):
    path = os.path.join(GOLDEN, name + "." + kind)
    if UPDATE:
        if text:
            open(path, "w", encoding="utf-8").write(text)
        elif os.path.exists(path):
            os.remove(path)
        return []
    expected = open(path, encoding="utf-8").read() if os.path.exists(path) else ""
    return [] if text == expected else ["%s differs:\n--- expected\n%s--- got\n%s" % (kind, expected, text)]


def run_case(name, status, arguments, given):
    arguments = arguments.split() if isinstance(arguments, str) else arguments
    done = subprocess.run([PROGRAM] + arguments, input=(given or "").encode(), capture_output=True, timeout=60)
    out, err = masked(done.stdout.decode()), masked(done.stderr.decode())
    faults = [] if done.returncode == status else ["status %d, expected %d; %s" % (done.returncode, status, err)]
    # A sanitizer's build lets the library's own lines through, and "channel" always does.
    if name != "channel" and not os.environ.get("MIRN_CTL_NOISY"):
        faults += compare(name, "err", err)
        if status not in (0, 3, 4, 5) and err.count("\n") != (0 if out.startswith("{") else 1):
            faults.append("an error is one line, got %r" % err)
    return faults + compare(name, "out", out)


def temporary_directory_faults():
    """A HEX file is converted below TMPDIR, with or without a slash at its end, and nothing stays anywhere near."""
    faults = []
    for given in ("plain/temp", "slash/temp/", "missing/temp"):
        kept = {"slash/temp/": ["velkin_temp.bin"]}.get(given, [])
        if not given.startswith("missing"):
            os.makedirs(given)
        done = subprocess.run([PROGRAM, "--virtual", "upgrade", "--expect", "2.0", "long.hex"], capture_output=True,
                              timeout=60, env=dict(os.environ, TMPDIR=os.path.abspath(given)
                                                   + ("/" if given.endswith("/") else "")))
        if done.returncode != 0:
            faults.append("TMPDIR=%s: status %d; %s" % (given, done.returncode, done.stderr.decode()))
        folder = given.split("/")[0]
        left = [file for _, _, files in os.walk(folder) for file in files]
        if left != kept or sum(len(folders) for _, folders, _ in os.walk(folder)) > 1:
            faults.append("TMPDIR=%s: %s stays" % (given, left))
    return faults


def unreadable_input_faults():
    """What can't be read is not the same as what is empty."""
    faults = []
    for command in ("type", "channel"):
        for source in ("< .", "<&-"):
            line = "'%s' --virtual %s %s" % (PROGRAM, command, source)
            done = subprocess.run(line, shell=True, capture_output=True, timeout=60)
            told = done.stderr.decode().splitlines()
            if done.returncode != 7 or "mirnctl: Can't read standard input." not in told:
                faults.append("%s %s: status %d, %s" % (command, source, done.returncode, told))
    return faults


def terminal_faults():
    """On a terminal the progress of an upgrade is one line, drawn again and again, and ended before the result."""
    screen, terminal = pty.openpty()
    # The chunks take long enough for a bar that is half full.
    program = subprocess.Popen([PROGRAM, "--virtual-faults", "delay=300@*/c7", "upgrade", "--expect", "2.0", "long.hex"],
                               stdout=terminal, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(terminal)
    shown = b""
    try:
        while part := os.read(screen, 4096):
            shown += part
    except OSError:
        pass  # so a terminal ends that nobody writes to any more
    os.close(screen)
    if program.wait() != 0:
        return ["status %d" % program.returncode]
    first, _, rest = shown.decode().partition("\r\n")
    drawn, _, result = rest.partition("\r\n")
    faults = [] if first.startswith("long.hex: ") else ["the first line is %r" % first]
    if result != "The device now runs version 2.0 (before: 1.0.0).\r\n":
        faults.append("the end is %r" % result)
    bars = re.findall(r"\r\[(#*)( *)\] chunk \d of 6, +\d+ %, [\d.]+ KiB/s(?:, \d+ s left)?\x1b\[K", drawn)
    if drawn.count("\r") != len(bars) or any(len(bar + space) != 30 for bar, space in bars):
        faults.append("the bar is %r" % drawn)
    filled = [len(bar) for bar, _ in bars]
    if filled != sorted(filled) or filled[-1:] != [30] or len(set(filled)) < 2:
        faults.append("the bar is filled by %r" % filled)
    return faults


def main():
    os.chdir(tempfile.mkdtemp(prefix="mirnctl-test-"))
    image = b"MIRN-VERSION=2.0" + bytes(1) + bytes((i * 7) & 0xFF for i in range(6000))
    files = {"good.hex": hex_file(b"MIRN-VERSION=2.0" + bytes(1)), "long.hex": hex_file(image), "empty.bin": "",
             "raw.bin": "x" * 1025, "bad.hex": HEX_BAD, "fw.Hex": HEX_GOOD, "text.bin": HEX_GOOD,
             "d.hex/fw.hex": HEX_GOOD}
    os.mkdir("d.hex")
    for file, text in files.items():
        open(file, "w", newline="").write(text)
    wanted = [a for a in sys.argv[3:] if not a.startswith("--")]
    failed = passed = 0
    for name, status, arguments, given in CASES:
        if wanted and name not in wanted:
            continue
        faults = run_case(name, status, arguments, given)
        passed, failed = passed + (not faults), failed + bool(faults)
        for fault in faults:
            print("FAILED %s: %s" % (name, fault))
    for name, check in (("temporary_directory", temporary_directory_faults), ("terminal", terminal_faults),
                        ("unreadable_input", unreadable_input_faults)):
        if wanted and name not in wanted:
            continue
        faults = check()
        passed, failed = passed + (not faults), failed + len(faults)
        for fault in faults:
            print("FAILED %s: %s" % (name, fault))
    named = {re.sub(r"\.(out|err)$", "", file) for file in os.listdir(GOLDEN)}
    for stale in sorted(named - {case[0] for case in CASES}):
        print("FAILED: golden/%s belongs to no case" % stale)
        failed += 1
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed or not passed else 0


sys.exit(main())
