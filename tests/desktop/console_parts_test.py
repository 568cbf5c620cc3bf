#!/usr/bin/env python3
"""mirn-console in a real X server: what is released when, buttons, chords, panel, clipboard, a silent device, themes.

    console_parts_test.py PROGRAM OUTPUT_DIR CASE
"""
import os
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cases import NOTHING, OUTPUT, PROGRAM, RELEASES, expect, firmware, holds_nothing, keep, main  # noqa: E402
from cases import typed_text  # noqa: E402
from desktop import Console  # noqa: E402


def test_focus_loss_releases_everything(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    desktop.xdotool("keydown", "shift", "keydown", "a")
    console.wait("held keys", lambda s: 4 in s["keys"] and s["modifiers"] == 2)
    desktop.xdotool("mousedown", 1)
    console.wait("a held button", lambda s: s["buttons"] == 1)
    desktop.xdotool("windowminimize", console.window)
    console.wait("the release of everything", lambda s: holds_nothing(s) and not s["captured"])
    desktop.xdotool("mouseup", 1, "keyup", "a", "keyup", "shift")


def test_closing_releases_everything(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    desktop.xdotool("keydown", "a")
    desktop.xdotool("mousedown", 1)
    console.wait("a held key and button", lambda s: 4 in s["keys"] and s["buttons"] == 1)
    expect(console.close() == 0, "the console ends cleanly with a key held")
    expect(console.left["held"] == NOTHING, "the device holds %s" % console.left["held"])
    expect(console.left["sent"][-4:] == RELEASES, "the last records are %s" % console.left["sent"])
    desktop.xdotool("mouseup", 1, "keyup", "a")


def after_the_handshake(console, before, what):
    """What the device took after the first handshake behind its first `before` records; waits for four of them."""
    words = []

    def four_there(_):
        nonlocal words
        sent = console.say("sent %d" % before)["sent"]
        behind = sent[sent.index("handshake"):] if "handshake" in sent else []
        words = [word for word in behind if word not in ("handshake", "other")]
        return len(words) >= 4

    console.wait(what, four_there)
    return words


def test_a_new_proxy_releases_first_of_all(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    words = after_the_handshake(console, 0, "the start's releases")
    expect(words[:4] == RELEASES, "at the start: %s" % words)
    console.click(300, 300)
    desktop.xdotool("keydown", "a")
    state = console.wait("a held key", lambda s: 4 in s["keys"])
    console.say("action reconnect")
    words = after_the_handshake(console, state["exchanges"], "the new proxy's releases")
    expect(words[:4] == RELEASES, "after the new handshake: %s" % words)
    # The key is still down under the hand: the desktop's repeat may have pressed it anew.
    desktop.xdotool("keyup", "a")
    console.wait("the release by the hand", holds_nothing)


def test_an_upgrade_starts_with_nothing_held(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    desktop.xdotool("keydown", "a")
    state = console.wait("a held key", lambda s: 4 in s["keys"])
    console.say("upgrade " + firmware(desktop.folder, "2.5.0"))
    console.say("start")
    before = console.say("sent %d" % state["exchanges"])["sent"]
    console.say("start")  # a second press of the button: the one upgrade goes on
    console.wait("the result", lambda s: not s["upgrading"] and s["upgrade"] and s["info"], 120)
    sent = console.say("sent %d" % state["exchanges"])["sent"]
    chunk = sent.index("chunk")
    expect("keys-up" in sent[:chunk] and "keys" not in sent[:chunk], "before the first chunk: %s" % sent[:chunk])
    expect(sent.count("chunk") == 59, "%d chunks, not 59, after %s" % (sent.count("chunk"), before))
    desktop.xdotool("keyup", "a")


def test_an_upgrade_is_broken_off_at_a_refused_chunk(desktop):
    console = Console(desktop, PROGRAM, "--virtual-faults", "refuse@3/c7")
    console.ready()
    console.say("upgrade " + firmware(desktop.folder, "2.5.0"))
    console.say("start")
    state = console.wait("the result", lambda s: not s["upgrading"] and s["upgrade"] and s["info"], 120)
    expect(state["upgrade"].startswith("The device refused chunk 3 of 59 or didn't answer it ("), state["upgrade"])
    expect("It answers with version 1.0.0. Start it again." in state["upgrade"], state["upgrade"])
    keep(desktop, "upgrade_refused_chunk", console, "Firmware upgrade")


def test_an_upgrade_without_an_answer_afterwards_claims_nothing(desktop):
    # After the start's handshake the device answers none any more.
    console = Console(desktop, PROGRAM, "--virtual-faults", "refuse@3/c7;drop@2+/c1")
    console.ready()
    console.say("upgrade " + firmware(desktop.folder, "2.5.0"))
    console.say("start")
    console.wait_text("The device took 2 of 59 chunks and no more, so the upgrade is broken off. "
                      "Waiting for it to answer with its version.")
    state = console.wait("the result", lambda s: not s["upgrading"] and s["upgrade"], 120)
    expect(state["upgrade"].startswith("The device took 2 of 59 chunks, but it doesn't answer any more."),
           state["upgrade"])


def test_buttons_wheel_and_drag(desktop):
    console = Console(desktop, PROGRAM)
    state = console.ready()
    console.click(300, 300)
    # The device takes the middle button as released with the next move, which may come at once: the press counts.
    desktop.xdotool("mousedown", 2)
    console.wait("the middle button", lambda s: s["clicks"] and s["clicks"][-1][2] == 4)
    desktop.xdotool("mouseup", 2)
    console.wait("its release", lambda s: s["buttons"] == 0)
    desktop.xdotool("mousedown", 3)
    console.wait("the right button", lambda s: s["buttons"] == 2)
    desktop.xdotool("mouseup", 3)
    console.wait("its release", lambda s: s["buttons"] == 0)
    wheel = console.state()["wheel"]
    desktop.xdotool("click", "--repeat", 3, 5)
    console.wait("three notches down", lambda s: abs(s["wheel"] - wheel) == 3)
    down = console.state()["wheel"]
    desktop.xdotool("click", 4)
    console.wait("one notch back", lambda s: abs(s["wheel"] - wheel) == 2 and s["wheel"] != down)
    start = console.state()["pointer"]
    desktop.xdotool("mousedown", 1)
    console.wait("the button", lambda s: s["buttons"] == 1)
    desktop.xdotool("mousemove", *console.root_of(500, 400, state))
    dragged = console.wait("the drag", lambda s: s["pointer"][0] > start[0] + 1000 and s["pointer"][1] > start[1] + 1000)
    expect(dragged["buttons"] == 1, "the button stays down while dragging")
    desktop.xdotool("mouseup", 1)
    console.wait("the end of the drag", lambda s: s["buttons"] == 0)


def test_a_chord_of_the_palette(desktop):
    console = Console(desktop, PROGRAM)
    before = console.ready()["exchanges"]
    console.press("where", "Keys")
    console.press("where", "Ctrl+Alt+Del")
    console.wait("the word on it", lambda s: s["said"] == "Sent ctrl+alt+del.")
    keep(desktop, "chord", console)
    console.wait("the release", holds_nothing)
    sent = console.say("sent %d" % before)["sent"]
    expect(sent.count("keys") >= 3 and "keys-up" in sent[sent.index("keys"):], "down and up again: %s" % sent)


def test_the_upgrade_starts_with_a_click(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.say("upgrade " + firmware(desktop.folder, "2.5.0"))
    console.drawn("Firmware upgrade")
    desktop.wait_focus("Firmware upgrade")
    console.press("where", "Start upgrade")
    state = console.wait("the result", lambda s: not s["upgrading"] and s["upgrade"], 120)
    expect(state["upgrade"] == "The device now runs version 2.5.0 (before: 1.0.0).", state["upgrade"])
    expect(state["version"] == "2.5.0", "the device runs it")


def test_the_main_menu_by_keyboard(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    desktop.xdotool("key", "F10")
    console.wait_text("Best color")  # open
    # From the first entry, 1080P, to the second one, 720P; told by what it does.
    expect(console.state()["quality_ticked"] == "1080P", "the tick is at what runs")
    place = console.say("where 720P")
    expect(place["found"] and place["sensitive"], "the entry is there: %s" % place)
    desktop.xdotool("key", "Down")
    desktop.xdotool("key", "Return")
    console.wait("720P", lambda s: s["picture"] == [1280, 720] and s["quality_ticked"] == "720P")
    state = console.wait("the closing of the menu", lambda s: "Best color" not in console.texts())
    expect(not state["captured"] and state["text"] == "", "the target got none of it")


def test_a_format_that_the_camera_lacks_is_said(desktop):
    console = Console(desktop, PROGRAM, "--virtual-lacks", "720P,best")
    console.ready()
    for action, words in (("quality 720P", "720P in normal color"), ("color best", "1080P in best color")):
        state = console.say_all("action " + action, "state")[-1]
        expect(state["said"] == "The camera doesn't offer %s." % words, state["said"])
        expect(state["quality_ticked"] == "1080P" and state["color_ticked"] == "normal", "the ticks stay: %s" % state)
        pictures = state["pictures"]
        state = console.wait("the picture going on", lambda s, before=pictures: s["pictures"] > before + 1)
        expect(state["picture"] == [1920, 1080] and state["format"] != "YUYV", "as before")
    expect(console.close() == 0, "the console ends cleanly")
    settings = open(os.path.join(desktop.folder, "settings.ini"), encoding="utf-8").read()
    expect("=1080P" in settings and "=720P" not in settings, settings)
    # A wish of before that this camera can't fulfil: said at the start, and the tick is at what runs.
    with open(os.path.join(desktop.folder, "settings.ini"), "w", encoding="utf-8") as file:
        file.write(settings.replace("=1080P", "=720P"))
    console = Console(desktop, PROGRAM, "--virtual-lacks", "720P,best")
    state = console.ready()
    expect(state["picture"] == [1920, 1080] and state["quality_ticked"] == "1080P", "%s" % state)


def test_device_panel(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    desktop.xdotool("key", "F9")
    console.wait_text("plugged in")
    expect(console.say("field Version")["text"] == "1.0.0", "the version is shown")
    console.press("field", "Name")
    desktop.xdotool("key", "ctrl+a")
    desktop.xdotool("type", "abcdefghijklmnopqrstu")
    console.wait_text("21 of 20 bytes")
    expect(not console.say("where Save name")["sensitive"], "a name that is too long can't be saved")
    keep(desktop, "device_panel_name", console)
    desktop.xdotool("key", "BackSpace")
    console.wait_text("20 of 20 bytes")
    console.press("where", "Save name")
    console.wait_text("The name is saved.")
    expect(console.state()["name"] == "abcdefghijklmnopqrst", "the device has the name")
    console.press("field", "LED")
    desktop.xdotool("key", "ctrl+a")
    desktop.xdotool("type", "3\t")
    console.press("where", "Set LED")
    console.wait_text("The LED is set.")
    expect(console.state()["led"] == 3, "the device has the LED status")
    console.say("unplug")
    console.wait("the unplugging", lambda s: s["condition"] == "not-plugged-in")
    expect(console.say("field Device")["text"] == "not plugged in", "the panel follows at once")
    keep(desktop, "device_panel_unplugged", console)


def test_pasting_from_the_clipboard_and_cancelling(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    secret = "Xyzzy-Secret-Passphrase-" * 80  # takes seconds, so that there is time to cancel
    clip = subprocess.Popen(["xclip", "-selection", "clipboard", "-i", "-quiet"], env=desktop.environment,
                            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        clip.stdin.write(secret.encode())
        clip.stdin.close()
        console.wait("the text on offer", lambda s: subprocess.run(
            ["xclip", "-selection", "clipboard", "-o"], env=desktop.environment, stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL, check=False).stdout == secret.encode())
        desktop.xdotool("key", "ctrl+shift+v")
        console.wait_text("%d characters can be typed." % len(secret))
        keep(desktop, "paste_from_clipboard", console, "Type text")
        console.press("where", "Type")
        console.wait("a part of the text", lambda s: typed_text(s).startswith("Xyzzy-Secret"))
        console.press("where", "Cancel")
        state = console.wait("the end", lambda s: not s["typing"] and holds_nothing(s))
        expect(typed_text(state) != secret and secret.startswith(typed_text(state)), "only a part was typed")
        expect(any(text.startswith("Cancelled after ") for text in console.texts()), "the dialog says so")
    finally:
        clip.terminate()
        clip.wait(20)
    expect(console.close() == 0, "the console ends cleanly")
    console_files = 0
    for folder, _, names in os.walk(desktop.folder):
        for name in names:
            path = os.path.join(folder, name)
            if os.path.isfile(path) and not os.path.islink(path):
                console_files += 1
                with open(path, "rb") as file:
                    expect(b"Xyzzy" not in file.read(), "%s holds the text that was pasted" % name)
    expect(console_files > 0, "there is a log to look into")


def offer_paste(console, text):
    """The dialog with the text in it; it has the focus, so that nothing is released any more once it types."""
    console.say("paste " + text.encode().hex())
    console.wait("the main window's loss of the focus", lambda s: not s["active"])
    console.desktop.wait_focus("Type text")
    console.drawn("Type text")


def expect_capitals_cut_short(state, text):
    typed = typed_text(state)
    expect(typed and typed != text and text.startswith(typed), "a part, and that as it is: '%s'" % typed)


def test_a_refused_paste_says_how_far_it_came(desktop):
    console = Console(desktop, PROGRAM, "--virtual-faults", "refuse@40+/c3")
    console.ready()
    text = "HELLO THERE " * 10
    offer_paste(console, text)
    console.say("type")
    state = console.wait("the end", lambda s: not s["typing"] and s["text"])
    expect_capitals_cut_short(state, text)
    shown = [line for line in console.texts() if "refused a key press" in line]
    expect(len(shown) == 1 and shown[0].startswith("The device refused a key press or didn't answer; typing stopped after ")
           and shown[0].endswith(" of 120 characters."), "the dialog's words: %s" % console.texts())
    expect(console.close() == 0, "the console ends cleanly")


def test_a_new_proxy_ends_a_paste_aloud(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    text = "CAPITALS" * 250
    offer_paste(console, text)
    console.say("type")
    console.wait("a part of the text", lambda s: typed_text(s))
    console.say("action reconnect")
    state = console.wait("the end", lambda s: not s["typing"] and s["info"] and holds_nothing(s))
    expect_capitals_cut_short(state, text)
    expect(any(line.startswith("All keys were let go in the middle; typing stopped after ") for line in console.texts()),
           "the dialog's words: %s" % console.texts())


def test_losing_the_focus_ends_a_paste_aloud(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    text = "CAPITALS" * 250
    offer_paste(console, text)
    # Without its dialog the text is typed under the eyes of the main window.
    console.press("where", "Cancel")
    console.wait("the main window's focus", lambda s: s["active"])
    console.say("type")
    console.wait("a part of the text", lambda s: typed_text(s))
    desktop.xdotool("windowminimize", console.window)
    state = console.wait("the end", lambda s: not s["typing"] and holds_nothing(s))
    expect_capitals_cut_short(state, text)


def test_a_silent_pointer_renews_no_proxy_under_a_paste(desktop):
    # No pointer record is ever answered, which calls for a new proxy again and again.
    console = Console(desktop, PROGRAM, "--virtual-faults", "drop@*/c2")
    console.ready()
    text = "CAPITALS" * 250
    offer_paste(console, text)
    console.say("type")
    before = console.wait("a part of the text", lambda s: typed_text(s))["exchanges"]
    console.wait("the end", lambda s: not s["typing"], 120)
    sent = console.say("sent %d" % before)["sent"]
    expect("keys" in sent, "nothing was typed after the beginning")
    # What comes behind the last key is the renewal that had to wait.
    typing = sent[:len(sent) - sent[::-1].index("keys")]
    expect("handshake" not in typing, "a handshake in the middle of %d records" % len(typing))
    console.wait("the whole text", lambda s: typed_text(s) == text)


def test_a_held_key_outlasts_unanswered_pointer_records(desktop):
    # Each of them calls for a new proxy, three seconds after the one before.
    console = Console(desktop, PROGRAM, "--virtual-faults", "drop@*/c2")
    console.ready()
    console.click(300, 300)
    desktop.xdotool("keydown", "a")
    before = console.wait("the held key", lambda s: 4 in s["keys"])["exchanges"]
    end = time.monotonic() + 5
    while time.monotonic() < end:
        expect(4 in console.state()["keys"], "the key was let go of: %s" % console.say("sent %d" % before)["sent"])
        time.sleep(0.05)
    expect("handshake" not in console.say("sent %d" % before)["sent"], "a new proxy while a key is held")
    desktop.xdotool("keyup", "a")
    console.wait("the renewal that had to wait", lambda _: "handshake" in console.say("sent %d" % before)["sent"])
    expect(typed_text(console.state()) == "a", "typed once: '%s'" % console.state()["text"])


def test_a_silent_device_leaves_the_window_usable(desktop):
    # Nothing is ever answered: after the second failure the pause is ten seconds.
    console = Console(desktop, PROGRAM, "--virtual-faults", "drop@*")
    console.wait("the second failure", lambda s: "asked again in 10 s" in s["said"])
    begin = time.monotonic()
    before = console.state()["exchanges"]
    slowest = 0.0
    while time.monotonic() - begin < 4:
        asked = time.monotonic()
        state = console.state()
        slowest = max(slowest, time.monotonic() - asked)
        time.sleep(0.02)  # between two questions
    expect(state["exchanges"] == before, "nobody asks the device in the pause")
    expect(slowest < 1.5, "the window stood still for %.1f s" % slowest)
    console.say("action reconnect")
    console.wait("a question at once", lambda s: s["exchanges"] > before, 8)
    expect(time.monotonic() - begin < 9, "reconnecting did not wait for the pause's end")


def header_brightness(desktop, console, name):
    keep(desktop, name, console)
    left, top = console.corner()
    view = console.state()["view"]
    path = os.path.join(OUTPUT, name + ".png")
    place = "2x2+%d+%d" % (left + int(view[0]) + int(view[2]) // 4 * 3, top + int(view[1]) - 12)
    text = desktop.run("convert", path, "-crop", place, "+repage", "-colorspace", "Gray", "-format", "%[fx:mean]", "info:")
    return float(text)


def test_light_and_dark(desktop):
    shown = {}
    for theme in ("light", "dark"):
        with open(os.path.join(desktop.folder, "settings.ini"), "w", encoding="utf-8") as file:
            file.write("[window]\ntheme=%s\n" % theme)
        console = Console(desktop, PROGRAM)
        console.ready()
        shown[theme] = header_brightness(desktop, console, "theme_" + theme)
        expect(console.close() == 0, "the console ends cleanly")
    expect(shown["light"] > 0.6 and shown["dark"] < 0.4, "the header's brightness: %s" % shown)


sys.exit(main(globals()))
