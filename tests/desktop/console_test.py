#!/usr/bin/env python3
"""mirn-console in a real X server, driven with real key and pointer events: picture, typing, pasting, upgrade.

    console_test.py PROGRAM OUTPUT_DIR CASE
"""
import os
import shutil
import signal
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cases import OUTPUT, PROGRAM, expect, firmware, keep, main, typed_text  # noqa: E402
from cases import expect_only_releases  # noqa: E402
from desktop import PATIENCE, Console, WaylandDesktop, private_folder  # noqa: E402

FULL_SCALE = 32767


def strip_digest_on_screen(console, name):
    """Reads the machine-readable strip from a screenshot of the whole screen: what a person sees."""
    keep(console.desktop, name)
    state = console.state()
    left, top = console.root_of(state["placement"][0], state["placement"][1], state)
    width, height = state["placement"][2:]
    raw = subprocess.run(["convert", os.path.join(OUTPUT, name + ".png"), "-crop",
                          "%dx%d+%d+%d" % (width, height, left, top), "+repage", "-depth", "8", "gray:-"],
                         capture_output=True, check=True, timeout=60).stdout
    cell = width / 80.0
    bits = []
    for row in range(2):
        for column in range(44):
            x = int(width - 44 * cell + (column + 0.5) * cell)
            y = int(height - 2 * cell + (row + 0.5) * cell)
            bits.append(raw[y * width + x] > 127)
    number = 0
    for bit in bits[40:72]:
        number = number * 2 + bit
    return number


def test_typed_text_appears_in_the_picture(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    keep(desktop, "opened", console)
    console.click(300, 300)
    keep(desktop, "captured", console)
    text = "The quick brown Fox; 0123456789 !@#$%^&*() [x]{y}"
    desktop.xdotool("type", "--delay", 30, text)
    console.wait("the text's arrival", lambda s: typed_text(s) == text)
    desktop.xdotool("keydown", "a")
    held = console.wait("a held key in the picture", lambda s: 4 in s["keys"] and console.strip_is_current(s))
    shown = None
    for _ in range(20):
        shown = strip_digest_on_screen(console, "typed")
        if shown == held["digest"]:
            break
    expect(shown == held["digest"], "the screen shows the digest %s, the target has %s" % (shown, held["digest"]))
    desktop.xdotool("keyup", "a")
    console.wait("the release", lambda s: s["keys"] == [0] * 6)
    expect(console.close() == 0, "the console ends cleanly")


def test_keys_are_positions_and_shortcuts_go_to_the_target(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    for key, usage, modifiers in (("F11", 0x44, 0), ("Tab", 0x2B, 0), ("F10", 0x43, 0), ("Escape", 0x29, 0)):
        desktop.xdotool("keydown", key)
        console.wait(key, lambda s: usage in s["keys"] and s["modifiers"] == modifiers)
        desktop.xdotool("keyup", key)
        console.wait(key + "'s release", lambda s: s["keys"] == [0] * 6)
    desktop.xdotool("keydown", "alt", "keydown", "F4")
    console.wait("Alt+F4 on the target", lambda s: 0x3D in s["keys"] and s["modifiers"] == 4)
    desktop.xdotool("keyup", "F4", "keyup", "alt")
    state = console.wait("the release", lambda s: s["keys"] == [0] * 6 and s["modifiers"] == 0)
    expect(state["captured"], "the keyboard is still the target's")
    desktop.xdotool("key", "Control_R")
    console.wait("giving the keyboard back", lambda s: not s["captured"])
    keep(desktop, "given_back", console)
    desktop.xdotool("key", "b")
    # A later key that does go out: by then the first would have arrived.
    console.click(300, 300)
    desktop.xdotool("key", "c")
    text = console.wait("the later key", lambda s: "c" in s["text"])["text"]
    expect("b" not in text, "no key goes out while the keyboard is here, not '%s'" % text)


def check_pointer(console, state, x, y):
    """Puts the pointer on a device pixel of the widget and compares where the target's rests."""
    left, top, width, height = state["placement"]
    wanted = []
    for at, start, shown, size in ((x, left, width, state["picture"][0]), (y, top, height, state["picture"][1])):
        wanted.append(min(max(int((at + 0.5 - start) * size // shown), 0), size - 1))
    aimed = None

    def rests(now):
        nonlocal aimed
        aim = console.root_of(x, y, now)
        if aim != aimed:  # at first, and when the window manager has moved the window meanwhile
            console.desktop.xdotool("mousemove", *aim)
            aimed = aim
            return False
        # How the target's screen turns a position into a pixel.
        got = [round(now["pointer"][i] * (state["picture"][i] - 1) / FULL_SCALE) for i in range(2)]
        return got == wanted

    console.wait("the pointer at pixel %s" % wanted, rests)


def resized(console, width, height, scale=1):
    """The state once the window has the size and its place is final: the window manager may move it, too."""
    console.desktop.xdotool("windowsize", console.window, width * scale, height * scale)
    before = None

    def settled(now):
        # Two equal looks at the same geometry, drawn once more in between.
        nonlocal before
        now["corner"] = console.corner()
        same = before is not None and all(before[key] == now[key] for key in ("corner", "view", "placement"))
        right = abs(now["window"][0] - width) <= 12 and abs(now["window"][1] - height) <= 12  # apart from the shadow
        good = same and now["drawn"] > before["drawn"] and right
        before = before if same else now
        return good

    return console.wait("the size %dx%d" % (width, height), settled)


def pointer_rests(desktop, scale):
    console = Console(desktop, PROGRAM, scale=scale)
    console.ready()
    for width, height in ((640, 480), (900, 700), (1000, 420), (1200, 800), (1280, 820)):
        state = resized(console, width, height, scale)
        left, top, shown_width, shown_height = state["placement"]
        for fx, fy in ((0.5, 0.5), (0.113, 0.871), (0.707, 0.333), (0.999, 0.0)):
            check_pointer(console, state, int(left + fx * shown_width), int(top + fy * shown_height))
        keep(desktop, "pointer_%dx%d_scale%d" % (width, height, scale), console)
    expect(console.state()["clicks"] == [], "no click was sent")
    expect(console.state()["text"] == "", "no key was sent")


def test_pointer_rests_to_the_pixel(desktop):
    pointer_rests(desktop, 1)


def test_pointer_rests_to_the_pixel_at_scale_two(desktop):
    pointer_rests(desktop, 2)


def test_pointer_that_leaves_over_the_top_rests_at_the_edge(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    state = resized(console, 1000, 420)
    expect(state["placement"][1] == 0, "no letterbox at the top")
    x, y = 400, 170
    check_pointer(console, state, x, y)
    desktop.xdotool("mousemove", *console.root_of(x, y - 200, state))
    console.wait("the pointer at the top", lambda s: s["pointer"][1] == 0)


def test_pasting_two_thousand_characters(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    desktop.xdotool("windowsize", console.window, 640, 480)  # little to draw: the device's pace counts
    text = "".join("%04d Lorem ipsum, dolor sit AMET; (consectetur) " % i for i in range(60))[:2000]
    console.say("paste " + text.encode().hex())
    console.wait("the dialog's focus", lambda s: not s["active"])
    keep(desktop, "paste_dialog", console, "Type text")
    console.say("type")
    console.wait("typing", lambda s: s["typing"])
    console.wait("the end of typing", lambda s: not s["typing"], 120)
    state = console.wait("the whole text", lambda s: typed_text(s) == text)
    keep(desktop, "pasted", console)
    expect(state["keys"] == [0] * 6 and state["modifiers"] == 0, "nothing stays held")


def test_untypable_characters_are_shown_before_anything_is_sent(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    before = console.state()["exchanges"]
    console.say("paste " + "na\u00efve \u20ac".encode().hex())
    console.wait("the dialog", lambda s: not s["active"])
    keep(desktop, "untypable", console, "Type text")
    expect_only_releases(console, before)
    console.say("type")
    console.wait("the rest, once it is wanted", lambda s: not s["typing"] and s["text"] == "nave ")


def test_upgrade_with_unplugging_in_the_middle(desktop):
    # The device is pulled at its tenth chunk; plugged in again, the old version is said as such, then all goes well.
    console = Console(desktop, PROGRAM, "--virtual-faults", "unplug@10/c7")
    console.ready()
    path = firmware(desktop.folder, "2.5.0")
    console.say("upgrade " + path)
    keep(desktop, "upgrade_offered", console, "Firmware upgrade")
    console.say("start")
    console.wait("the unplugging", lambda s: s["condition"] == "not-plugged-in")
    keep(desktop, "upgrade_unplugged", console, "Firmware upgrade")
    console.say("plug")
    state = console.wait("a result", lambda s: not s["upgrading"])
    keep(desktop, "upgrade_result", console, "Firmware upgrade")
    expect("unplugged after 9 of 59 chunks" in state["upgrade"], state["upgrade"])
    expect("1.0.0" in state["upgrade"], state["upgrade"])
    console.wait("picture and keyboard by themselves", lambda s: s["condition"] == "fine" and s["info"])
    console.say("upgrade " + path)
    console.say("start")
    state = console.wait("the second result", lambda s: not s["upgrading"] and s["upgrade"], 120)
    keep(desktop, "upgrade_done", console, "Firmware upgrade")
    expect(state["upgrade"] == "The device now runs version 2.5.0 (before: 1.0.0).", state["upgrade"])


def test_upgrade_refuses_a_broken_file(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    path = firmware(desktop.folder, "2.5.0")
    text = open(path, newline="").read().replace(":10001000", ":10001001", 1)
    open(path, "w", newline="").write(text)
    before = console.state()["exchanges"]
    console.say("upgrade " + path)
    console.wait("the dialog", lambda s: not s["active"])
    console.say("start")
    keep(desktop, "upgrade_refused", console, "Firmware upgrade")
    state = console.state()
    expect(not state["upgrading"] and state["version"] == "1.0.0", "the upgrade of a broken file is refused")
    expect_only_releases(console, before)


def chunks_sent(console, before):
    return console.say("sent %d" % before)["sent"].count("chunk")


def test_upgrade_looks_at_the_file_again(desktop):
    # A build that goes on behind the dialog: first another image, then half a file, then a whole one again.
    console = Console(desktop, PROGRAM)
    before = console.ready()["exchanges"]
    path = firmware(desktop.folder, "2.5.0")
    console.say("upgrade " + path)
    console.wait("the dialog", lambda s: not s["active"])
    firmware(desktop.folder, "2.6.0")
    console.say("start")
    expect(not console.state()["upgrading"] and chunks_sent(console, before) == 0, "nothing goes out unseen")
    expect(any(text.startswith("The file has changed since it was checked. ") for text in console.texts()),
           "the dialog says so: %s" % console.texts())
    keep(desktop, "upgrade_changed", console, "Firmware upgrade")
    whole = open(path, newline="").read()
    open(path, "w", newline="").write(whole[:len(whole) // 2])
    console.say("start")
    expect(not console.state()["upgrading"] and chunks_sent(console, before) == 0, "half a file doesn't go out")
    expect(any(text.startswith("This file can't be used. ") for text in console.texts()), "the dialog says so")
    open(path, "w", newline="").write(whole)
    console.say("upgrade " + path)
    console.say("start")
    state = console.wait("the result", lambda s: not s["upgrading"] and s["upgrade"], 120)
    expect(state["version"] == "2.6.0", state["upgrade"])


def test_no_upgrade_of_a_device_that_is_not_on_the_screen(desktop):
    console = Console(desktop, PROGRAM, "--virtual-mismatch")
    before = console.wait("picture and device", lambda s: s["blocked"] and s["info"])["exchanges"]
    console.say("upgrade " + firmware(desktop.folder, "2.5.0"))
    keep(desktop, "upgrade_elsewhere", console, "Firmware upgrade")
    words = "The picture comes from the Mirn at USB port virtual-2, but the firmware would go to the one at port virtual-1."
    expect(any(text.startswith(words) for text in console.texts()), "the ports are told: %s" % console.texts())
    console.say("start")
    state = console.state()
    expect(not state["upgrading"] and state["version"] == "1.0.0" and chunks_sent(console, before) == 0,
           "the device that is not on the screen is left alone")


def test_unplugging_and_replugging(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.say("unplug")
    state = console.wait("the unplugging", lambda s: s["condition"] == "not-plugged-in")
    expect(state["said"] == "The Mirn was unplugged.", state["said"])
    keep(desktop, "unplugged", console)
    console.say("plug")
    console.wait("picture and keyboard by themselves", lambda s: s["condition"] == "fine" and s["info"])
    console.click(200, 200)
    desktop.xdotool("type", "back")
    console.wait("typing again", lambda s: typed_text(s) == "back")
    keep(desktop, "replugged", console)


def test_troubles_are_told_apart(desktop):
    for option, condition in (("--virtual-unplugged", "not-plugged-in"), ("--virtual-denied", "no-permission"),
                              ("--virtual-busy", "busy"), ("--virtual-no-signal", "no-signal")):
        console = Console(desktop, PROGRAM, option)
        console.ready(condition)
        keep(desktop, "condition_" + condition, console)
        console.close()


def test_a_stalled_picture_is_said(desktop):
    console = Console(desktop, PROGRAM, "--virtual-video-faults", "stall=600000@20")
    console.wait("the stall", lambda s: s["condition"] == "stalled")
    keep(desktop, "condition_stalled", console)


def test_no_input_into_a_computer_that_is_not_on_the_screen(desktop):
    console = Console(desktop, PROGRAM, "--virtual-mismatch")
    state = console.ready()
    state = console.wait("the verdict", lambda s: "virtual-2" in s["blocked"] and "virtual-1" in s["blocked"])
    desktop.xdotool("mousemove", *console.root_of(100, 100, state))
    before = console.state()["exchanges"]
    desktop.xdotool("click", 1)
    desktop.xdotool("type", "secret")
    console.wait("the click's capture", lambda s: s["captured"])
    keep(desktop, "mismatch", console)
    state = console.state()
    expect(state["text"] == "" and state["clicks"] == [], "nothing was typed or clicked")
    expect(state["exchanges"] == before, "nothing was sent at all")


def test_quality_screenshot_and_full_screen(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.say("action quality 720P")
    console.wait("720P", lambda s: s["picture"] == [1280, 720])
    desktop.xdotool("windowsize", console.window, 1500, 1000)
    console.wait("one to one", lambda s: s["placement"][2:] == [1280, 720])
    keep(desktop, "quality_720p", console)
    path = console.say("screenshot")["file"]
    size = desktop.run("identify", "-format", "%w %h", path)
    expect(size == "1280 720", "the screenshot is %s" % size)
    console.say("action overlay")
    console.say("action fullscreen")
    console.wait("full screen", lambda s: s["window"] == [2600, 1700] and s["placement"][2:] == [2560, 1440])
    keep(desktop, "full_screen", console)
    console.say("action quality 1080P")
    console.wait("1080P", lambda s: s["picture"] == [1920, 1080])
    console.say("action device-panel")
    console.wait_text("plugged in")
    keep(desktop, "device_panel", console)


def test_settings_are_remembered(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.say("action quality 720P")
    console.say("action color best")
    console.say("action device-panel")
    console.say("action settings")
    console.wait("the settings dialog", lambda s: not s["active"])
    keep(desktop, "settings", console, "Settings")
    desktop.wait_focus("Settings")
    desktop.xdotool("key", "Escape")
    desktop.xdotool("windowsize", console.window, 1100, 700)
    size = console.wait("720P in YUYV", lambda s: s["picture"] == [1280, 720] and s["format"] == "YUYV" and
                        1000 < s["window"][0] < 1200)["window"]
    expect(console.close() == 0, "the console ends cleanly")
    console = Console(desktop, PROGRAM)
    console.ready()
    console.wait("the same picture and window",
                 lambda s: s["picture"] == [1280, 720] and s["format"] == "YUYV" and s["window"] == size)
    keep(desktop, "settings_remembered", console)


def test_a_signal_is_the_close_button(desktop):
    temporary = os.path.join(desktop.folder, "temporary")
    os.mkdir(temporary)
    desktop.environment["TMPDIR"] = temporary
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        quality, size = ("1080P", [1920, 1080]) if number == signal.SIGINT else ("720P", [1280, 720])
        if signal.getsignal(number) == signal.SIG_IGN:  # as in a background job; the console would inherit it
            signal.signal(number, signal.SIG_DFL)
        console = Console(desktop, PROGRAM)
        console.ready()
        console.say("action quality " + quality)
        console.wait(quality, lambda s, size=size: s["picture"] == size)
        expect([name for name in os.listdir(temporary) if name.startswith("mirn-")], "there is a private directory")
        console.process.send_signal(number)
        expect(console.process.wait(PATIENCE) == 0, "%s ends the console cleanly" % number.name)
        settings = open(os.path.join(desktop.folder, "settings.ini"), encoding="utf-8").read()
        expect("=" + quality in settings, "%s: the settings are kept, not %s" % (number.name, settings))
        expect(not [name for name in os.listdir(temporary) if name.startswith("mirn-")], "nothing stays in TMPDIR")


def test_a_signal_does_not_break_an_upgrade(desktop):
    console = Console(desktop, PROGRAM, "--virtual-faults", "unplug@10/c7")
    console.ready()
    console.say("upgrade " + firmware(desktop.folder, "2.5.0"))
    console.say("start")
    console.wait("the unplugging", lambda s: s["condition"] == "not-plugged-in")
    console.process.send_signal(signal.SIGTERM)
    console.wait("the refusal", lambda s: "the window stays" in s["said"] and s["upgrading"])
    console.say("plug")
    console.wait("a result", lambda s: not s["upgrading"] and s["upgrade"])
    console.process.send_signal(signal.SIGTERM)
    expect(console.process.wait(PATIENCE) == 0, "afterwards the console ends cleanly")


def test_picture_to_the_clipboard(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.say("action copy-picture")
    said = console.state()["said"]
    expect(said == "The picture is on the clipboard.", "the console says so, not '%s'" % said)
    paste = ["xclip", "-selection", "clipboard", "-o", "-t"]
    console.wait("the picture on offer", lambda s: b"image/png" in subprocess.run(
        paste + ["TARGETS"], env=desktop.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
        check=False).stdout)
    # The console itself serves whoever pastes.
    path = os.path.join(desktop.folder, "pasted.png")
    with open(path, "wb") as file:
        subprocess.run(paste + ["image/png"], env=desktop.environment, stdout=file, timeout=60, check=True)
    expect(desktop.run("identify", "-format", "%m %w %h", path) == "PNG 1920 1080", "a whole picture is pasted")
    colours = int(desktop.run("identify", "-format", "%k", path))
    expect(colours > 20, "the pasted picture has %d colours" % colours)


def test_on_wayland(desktop):
    folder = private_folder()
    wayland = WaylandDesktop(folder)
    try:
        console = Console(wayland, PROGRAM)
        state = console.wait("the picture", lambda s: s["condition"] == "fine" and s["uploaded"] > 5 and s["strip"])
        drawn = state["drawn"]
        console.wait("drawing", lambda s: s["drawn"] > drawn + 5)
        console.say("action fullscreen")
        console.wait("full screen", lambda s: s["window"] == [1600, 1000] and s["placement"][2] == 1600)
        expect(console.close() == 0, "the console ends cleanly")
    finally:
        wayland.close()
        shutil.rmtree(folder, ignore_errors=True)


sys.exit(main(globals()))
