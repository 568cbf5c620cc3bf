#!/usr/bin/env python3
"""mirn-console in a real X server, and what changes under it: cameras that come free, Mirns that go, focus, full screen.

    console_changes_test.py PROGRAM OUTPUT_DIR CASE
"""
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cases import NOTHING, PROGRAM, expect, holds_nothing, keep, main, typed_text  # noqa: E402
from desktop import Console  # noqa: E402


def test_a_camera_that_comes_free_is_opened_by_itself(desktop):
    for option, condition, word in (("--virtual-busy", "busy", "free"), ("--virtual-denied", "no-permission", "allow")):
        console = Console(desktop, PROGRAM, option)
        state = console.ready(condition)
        expect("no picture" in state["blocked"], "input is held back without a picture: %s" % state["blocked"])
        console.say(word)
        state = console.wait("the picture by itself", lambda s: s["condition"] == "fine" and s["picture"] == [1920, 1080])
        expect(state["blocked"] == "", state["blocked"])
        expect(console.close() == 0, "the console ends cleanly")


def test_reconnecting_opens_a_camera_that_was_busy_at_once(desktop):
    console = Console(desktop, PROGRAM, "--virtual-busy")
    console.ready("busy")
    # In one go: nothing but the reconnection can have opened it.
    state = console.say_all("free", "action reconnect", "state")[-1]
    expect(state["condition"] in ("starting", "fine"), "the condition is %s" % state["condition"])
    console.wait("the picture", lambda s: s["condition"] == "fine")


def test_plugging_in_again_opens_a_camera_that_was_busy(desktop):
    console = Console(desktop, PROGRAM, "--virtual-busy")
    console.ready("busy")
    console.say("unplug")
    console.wait("the unplugging", lambda s: s["condition"] == "not-plugged-in")
    console.say_all("free", "plug")
    console.wait("the picture", lambda s: s["condition"] == "fine")


def test_a_still_picture_is_shown_again_after_replugging(desktop):
    console = Console(desktop, PROGRAM, "--virtual-still")
    console.ready()
    uploaded = console.wait("the picture", lambda s: s["picture"] == [1920, 1080])["uploaded"]
    console.say("unplug")
    console.wait("the unplugging", lambda s: s["condition"] == "not-plugged-in" and s["picture"] == [0, 0])
    console.say("plug")
    console.wait("the same picture", lambda s: s["condition"] == "fine" and s["picture"] == [1920, 1080]
                 and s["uploaded"] > uploaded)
    console.click(300, 300)
    keep(desktop, "replugged_still", console)


def test_either_of_two_mirns_can_go(desktop):
    console = Console(desktop, PROGRAM, "--virtual-mismatch")
    console.ready()
    console.wait("the verdict", lambda s: "virtual-2" in s["blocked"])
    # The first one had the keyboard, the second one has the picture.
    console.say("unplug 1")
    console.wait("both of the second one", lambda s: s["condition"] == "fine" and s["blocked"] == "" and s["info"])
    desktop.xdotool("mousemove", *console.root_of(300, 300))
    desktop.xdotool("click", 1)
    console.wait("the capture", lambda s: s["captured"])
    desktop.xdotool("type", "second")
    console.wait("the text there", lambda _: console.say("typed 2")["text"].strip() == "second")
    before = console.say_all("plug 1", "state", "unplug 2")[1]["exchanges"]
    console.wait("both of the first one", lambda s: s["exchanges"] > before and s["condition"] == "fine"
                 and s["blocked"] == "" and s["info"] and console.strip_is_current(s))
    console.click(300, 300)
    desktop.xdotool("type", "first")
    console.wait("the text here", lambda s: typed_text(s) == "first")
    console.say("unplug 1")
    console.wait("none", lambda s: s["condition"] == "not-plugged-in")


def test_no_input_into_a_mirn_that_took_the_place_of_the_one_on_the_screen(desktop):
    console = Console(desktop, PROGRAM, "--virtual-mismatch")
    console.ready()
    console.say("unplug 1")
    console.wait("both of the second one", lambda s: s["condition"] == "fine" and s["blocked"] == "" and s["info"])
    desktop.xdotool("mousemove", *console.root_of(300, 300))
    desktop.xdotool("click", 1)
    console.wait("the capture", lambda s: s["captured"])
    # The other one has no signal. In one go: between two looks one goes, and the other is there.
    before = console.say_all("no-signal 1", "plug 1", "state")[-1]["exchanges"]
    console.say("unplug 2")
    state = console.wait("the other one's keyboard", lambda s: s["exchanges"] > before and s["info"]
                         and s["condition"] in ("starting", "no-signal"))
    expect(state["picture"] == [0, 0], "the first one's picture is gone")
    expect(not state["captured"], "the keyboard is here again")
    state = console.wait("the missing signal", lambda s: s["condition"] in ("no-signal", "fine", "stalled"))
    expect(state["condition"] == "no-signal", "not '%s'" % state["condition"])
    expect("first picture" in state["blocked"], "held back: '%s'" % state["blocked"])
    console.say("action capture")
    desktop.xdotool("mousemove", *console.root_of(500, 400), "click", 1)
    desktop.xdotool("type", "secret")
    desktop.xdotool("key", "Control_R")  # heard here behind all of that
    console.wait("the keyboard's return", lambda s: not s["captured"])
    console.say("signal 1")
    console.wait("its picture", lambda s: s["condition"] == "fine" and s["blocked"] == "" and s["strip"])
    state = console.click(300, 300)
    desktop.xdotool("type", "seen")
    state = console.wait("the text there", lambda s: "seen" in s["text"])
    expect(typed_text(state) == "seen" and len(state["clicks"]) == 1, "typed unseen: %s" % state)
    sent = console.say("sent %d" % before)["sent"]
    expect("keys" in sent and sent.index("handshake") < sent.index("keys"), "%s" % sent)


def test_a_mirn_without_a_camera_is_said(desktop):
    console = Console(desktop, PROGRAM, "--virtual-mismatch")
    console.ready()
    console.say("unplug 2")
    state = console.wait("the missing camera", lambda s: s["condition"] == "no-camera")
    expect("no picture" in state["blocked"], state["blocked"])
    keep(desktop, "condition_no_camera", console)


def test_input_is_held_back_while_the_picture_is_dead(desktop):
    # The stream breaks off each time it has begun: between two openings there is nothing to see.
    console = Console(desktop, PROGRAM, "--virtual-video-faults", "fail@1")
    for _ in range(3):
        state = console.wait("a broken stream", lambda s: s["condition"] == "open-failed")
        expect("no picture" in state["blocked"], "held back: '%s'" % state["blocked"])
        console.wait("the next opening", lambda s: s["condition"] != "open-failed")


def hints(console):
    return sum("alone to get it back" in text for text in console.texts())


def test_full_screen_shows_the_way_out(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    console.say("action fullscreen")
    console.wait("the hint over the picture", lambda s: s["fullscreen"] and s["fullscreen_ticked"] and hints(console) == 1)
    keep(desktop, "full_screen_captured", console)
    # Left without the menu, as through the window manager.
    console.say("fullscreen off")
    console.wait("the window again", lambda s: not s["fullscreen"] and not s["fullscreen_ticked"] and hints(console) == 1)
    desktop.xdotool("key", "Control_R")
    console.wait("giving the keyboard back", lambda s: not s["captured"] and hints(console) == 0)
    console.say("fullscreen on")
    console.wait("full screen by the window manager", lambda s: s["fullscreen"] and s["fullscreen_ticked"])
    expect(hints(console) == 0, "no hint while the keyboard is here")


def test_another_window_takes_the_keyboard(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    other = Console(desktop, PROGRAM)
    other.ready(apart_from=console.window)
    desktop.xdotool("windowactivate", "--sync", console.window)
    console.wait("the focus", lambda s: s["active"])
    console.click(300, 300)
    desktop.xdotool("keydown", "a")
    console.wait("a held key", lambda s: 4 in s["keys"])
    typed = console.state()["text"]
    desktop.xdotool("windowactivate", "--sync", other.window)
    desktop.xdotool("keyup", "a", "key", "b")
    console.wait("the loss of the keyboard", lambda s: not s["captured"] and holds_nothing(s))
    other.wait("the focus there", lambda s: s["active"])
    desktop.xdotool("type", "secret")
    desktop.xdotool("windowactivate", "--sync", console.window)
    now = console.wait("the keyboard again", lambda s: s["captured"])["text"]
    expect(now.replace("a", "") == typed.replace("a", ""), "the target got '%s'" % now)


def test_typing_into_a_field_of_the_console_stays_here(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    desktop.xdotool("key", "F9")
    console.wait_text("plugged in")
    console.click(300, 300)
    console.press("field", "Name")
    console.wait("the keyboard here", lambda s: not s["captured"])
    desktop.xdotool("key", "ctrl+a")
    desktop.xdotool("type", "own")
    console.wait_text("3 of 20 bytes")
    expect(console.state()["text"] == "", "nothing of it was typed into the target")
    console.click(300, 300)


def test_a_menu_only_borrows_the_keyboard(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    console.press("where", "Keys")
    console.press("where", "Ctrl+Alt+Del")
    console.wait("the word on it", lambda s: s["said"].startswith("Sent ctrl+alt+del") or s["captured"])
    console.wait("the keyboard's return", lambda s: s["captured"])
    desktop.xdotool("type", "x")
    console.wait("typing on", lambda s: typed_text(s).endswith("x"))
    console.press("where", "Keyboard: target")
    console.wait("the button's release", lambda s: not s["captured"])


def test_the_wheel_is_no_tap_of_the_release_key(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    wheel = console.state()["wheel"]
    desktop.xdotool("keydown", "Control_R")
    console.wait("the held key", lambda s: s["modifiers"] & 0x10)
    desktop.xdotool("click", 5)
    console.wait("a notch", lambda s: abs(s["wheel"] - wheel) == 1)
    desktop.xdotool("keyup", "Control_R")
    state = console.wait("the release", holds_nothing)
    expect(state["captured"], "zooming leaves the keyboard where it is")


def test_the_wheel_acts_under_the_pointer_of_an_active_window_alone(desktop):
    console = Console(desktop, PROGRAM)
    console.ready()
    console.click(300, 300)
    desktop.xdotool("key", "Control_R")
    console.wait("giving the keyboard back", lambda s: not s["captured"])
    other = Console(desktop, PROGRAM)
    other.ready(apart_from=console.window)
    before = console.wait("the loss of the focus", lambda s: not s["active"] and holds_nothing(s))
    desktop.xdotool("mousemove", *console.root_of(500, 400))
    desktop.xdotool("click", 5)
    # What comes later is judged later: when the second notch has arrived, nothing is underway any more.
    desktop.xdotool("windowactivate", "--sync", console.window)
    console.wait("the focus", lambda s: s["active"])
    desktop.xdotool("click", 5)
    state = console.wait("the notch of the active window", lambda s: s["wheel"] != before["wheel"])
    expect(abs(state["wheel"] - before["wheel"]) == 1, "the wheel of a window without the focus is left alone")
    expect(state["pointer"] != before["pointer"], "the notch is where the pointer is")


def test_nothing_goes_down_while_the_window_closes(desktop):
    # The buttons' releases are never answered, so the window waits for them as long as it does at all.
    console = Console(desktop, PROGRAM, "--virtual-faults", "drop@*/c2")
    console.ready()
    answer = console.say_all("meanwhile action chord ctrl+alt+del", "meanwhile close", "close")[-1]
    expect("Sent" not in answer["said"], answer["said"])
    expect("keys" not in answer["sent"] and answer["held"] == NOTHING, "after closing: %s" % answer)
    console.process.wait(60)
    expect(console.process.returncode == 0, "the second close took the window from under the first one: %d, %s" % (
        console.process.returncode, open(console.log.name, encoding="utf-8").read()[-3000:]))


sys.exit(main(globals()))
