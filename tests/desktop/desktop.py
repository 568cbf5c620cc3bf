"""A private X server with a window manager, and the console on a virtual Mirn in it, steered by real input events."""
import json
import os
import re
import shutil
import subprocess
import tempfile
import time

TOOLS = ("Xvfb", "openbox", "xdotool", "import", "convert", "xclip", "xwininfo", "weston")
PATIENCE = float(os.environ.get("MIRN_DESKTOP_PATIENCE", "60"))  # seconds that a condition is waited for


def missing_tools(tools=TOOLS):
    return [tool for tool in tools if shutil.which(tool) is None]


class Failure(Exception):
    """What a test expected and did not see."""


class Desktop:
    """Xvfb and openbox on a display of their own."""

    def __init__(self, folder, width=2600, height=1700):
        self.folder = folder
        read_end, write_end = os.pipe()
        self.server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(write_end), "-screen", "0", "%dx%dx24" % (width, height), "-nolisten", "tcp"],
            pass_fds=[write_end], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(write_end)
        with os.fdopen(read_end) as pipe:
            number = pipe.readline().strip()
        if not number:
            raise Failure("Xvfb did not start")
        self.environment = dict(os.environ, DISPLAY=":" + number, GDK_BACKEND="x11", XDG_RUNTIME_DIR=folder,
                                HOME=folder, XDG_CONFIG_HOME=folder, GTK_A11Y="none", NO_AT_BRIDGE="1",
                                LIBGL_ALWAYS_SOFTWARE="1")
        self.environment.pop("WAYLAND_DISPLAY", None)
        self.manager = subprocess.Popen(["openbox", "--sm-disable"], env=self.environment, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)

    def run(self, *command):
        return subprocess.run(command, env=self.environment, capture_output=True, text=True, timeout=60, check=True).stdout

    def xdotool(self, *arguments):
        return self.run("xdotool", *[str(argument) for argument in arguments])

    def wait_focus(self, title):
        """Waits until the window of that title has the keyboard: between two windows nobody has it for a moment."""
        end = time.monotonic() + PATIENCE
        while True:
            told = subprocess.run(["xdotool", "getactivewindow", "getwindowname"], env=self.environment,
                                  capture_output=True, text=True, timeout=60, check=False)
            if told.stdout.strip() == title:
                return
            if time.monotonic() > end:
                raise Failure("'%s' did not get the focus: %s%s" % (title, told.stdout, told.stderr))
            time.sleep(0.05)

    def screenshot(self, path):
        self.run("import", "-window", "root", path)

    def close(self):
        for process in (self.manager, self.server):
            process.terminate()
            process.wait(20)


class WaylandDesktop:
    """weston without an output device: windows, pictures and focus, but no input."""

    def __init__(self, folder, width=1600, height=1000):
        self.folder = folder
        self.environment = dict(os.environ, WAYLAND_DISPLAY="mirn-test", GDK_BACKEND="wayland", XDG_RUNTIME_DIR=folder,
                                HOME=folder, XDG_CONFIG_HOME=folder, GTK_A11Y="none", NO_AT_BRIDGE="1",
                                LIBGL_ALWAYS_SOFTWARE="1")
        self.environment.pop("DISPLAY", None)
        self.log = open(os.path.join(folder, "weston.log"), "w", encoding="utf-8")
        self.server = subprocess.Popen(
            ["weston", "--backend=headless-backend.so", "--socket=mirn-test", "--idle-time=0", "--width=%d" % width,
             "--height=%d" % height], env=self.environment, stdout=self.log, stderr=self.log)
        end = time.monotonic() + PATIENCE
        while not os.path.exists(os.path.join(folder, "mirn-test")):
            if self.server.poll() is not None or time.monotonic() > end:
                raise Failure("weston did not start: " + open(self.log.name, encoding="utf-8").read()[-1000:])
            time.sleep(0.05)

    def close(self):
        self.server.terminate()
        self.server.wait(20)
        self.log.close()


class Console:
    """mirn-console --virtual --steer."""

    def __init__(self, desktop, program, *arguments, scale=1):
        self.desktop = desktop
        environment = dict(desktop.environment, GDK_SCALE=str(scale))
        self.log = open(os.path.join(desktop.folder, "console.log"), "w", encoding="utf-8")
        settings = os.path.join(desktop.folder, "settings.ini")
        self.process = subprocess.Popen([program, "--virtual", "--steer", "--virtual-fps", "10", "--settings", settings,
                                         *arguments], env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=self.log, text=True)
        self.window = None
        self.left = None  # what the device took and holds after closing

    def say(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        if not answer:
            raise Failure("the console ended: " + open(self.log.name, encoding="utf-8").read()[-2000:])
        return json.loads(answer)

    def say_all(self, *lines):
        """Several commands in one go: between them nothing else happens in the console."""
        self.process.stdin.write("".join(line + "\n" for line in lines))
        self.process.stdin.flush()
        return [json.loads(self.process.stdout.readline()) for _ in lines]

    def state(self):
        return self.say("state")

    def wait(self, what, condition, seconds=PATIENCE):
        """The first state in which the condition holds."""
        end = time.monotonic() + seconds
        while True:
            state = self.state()
            if condition(state):
                return state
            if time.monotonic() > end:
                raise Failure("%s did not happen within %d s; the state is %s" % (what, seconds, json.dumps(state)))
            time.sleep(0.05)  # between two questions, not to let anything settle

    def ready(self, condition="fine", apart_from=None):
        # "fine" is said when pictures arrive; the window shows the first one with its next frame.
        self.wait("the condition " + condition,
                  lambda s: s["condition"] == condition and (condition != "fine" or s["strip"]))
        found = []

        def shown(_):
            nonlocal found
            found = self.desktop.xdotool("search", "--sync", "--onlyvisible", "--name", "Mirn Console").split()
            found = [window for window in found if window != apart_from]
            return found

        self.wait("the window", shown)
        self.window = found[-1]
        self.desktop.xdotool("windowactivate", "--sync", self.window)
        return self.wait("the window's activation", lambda s: s["active"])

    def corner(self):
        """Root position of the window's upper left corner, device pixels."""
        lines = self.desktop.xdotool("getwindowgeometry", "--shell", self.window).split()
        values = dict(line.split("=") for line in lines if "=" in line)
        return int(values["X"]), int(values["Y"])

    def root_of(self, x, y, state=None):
        """Root position of a point of the picture's widget, both in device pixels."""
        state = state or self.state()
        left, top = self.corner()
        scale = state["scale"]
        return left + int(state["view"][0] * scale) + x, top + int(state["view"][1] * scale) + y

    def texts(self):
        return self.say("texts")["texts"]

    def wait_text(self, text):
        """Waits until a label reads the text."""
        end = time.monotonic() + PATIENCE
        while text not in self.texts():
            if time.monotonic() > end:
                raise Failure("nothing reads '%s': %s" % (text, self.texts()))
            time.sleep(0.05)

    def drawn(self, title=None):
        """Waits until the window is there and every window has drawn a frame from now on."""
        end = time.monotonic() + PATIENCE
        while title is not None and title not in self.say("windows")["windows"]:
            if time.monotonic() > end:
                raise Failure("the window '%s' did not come" % title)
            time.sleep(0.05)
        before = self.say("redraw")["windows"]
        while True:
            now = self.say("windows")["windows"]
            if all(now.get(name, frames + 2) > frames + 1 for name, frames in before.items()):
                return
            self.say("redraw")
            if time.monotonic() > end:
                raise Failure("the windows don't draw: %s, then %s" % (before, now))
            time.sleep(0.02)

    def press(self, command, text):
        """A real click on what reads the text ("where") or on the field that the text names ("field")."""
        end = time.monotonic() + PATIENCE
        place = self.say(command + " " + text)
        while not (place["found"] and place["sensitive"] and place["at"][2] > 0):
            if time.monotonic() > end:
                raise Failure("'%s' can't be pressed: %s" % (text, place))
            time.sleep(0.05)
            place = self.say(command + " " + text)
        window = self.desktop.xdotool("search", "--sync", "--onlyvisible", "--name", "^" + re.escape(place["window"]) + "$")
        # xdotool counts a frame of the window manager twice.
        told = self.desktop.run("xwininfo", "-id", window.split()[-1])
        x, y = (int(re.search(r"Absolute upper-left %s: +(-?\d+)" % axis, told).group(1)) for axis in "XY")
        left, top, width, height = place["at"]
        self.desktop.xdotool("mousemove", int(x + left + width / 2), int(y + top + height / 2))
        self.desktop.xdotool("click", 1)

    def click(self, x, y):
        before = len(self.state()["clicks"])
        self.desktop.xdotool("mousemove", *self.root_of(x, y))
        self.desktop.xdotool("click", 1)
        return self.wait("the click's arrival", lambda s: len(s["clicks"]) > before and s["captured"])

    def strip_is_current(self, state):
        return state["strip"] is not None and state["strip"]["digest"] == state["digest"]

    def close(self):
        if self.process.poll() is None:
            try:
                self.left = self.say("close")
                self.process.wait(30)
            except (Failure, subprocess.TimeoutExpired, BrokenPipeError):
                self.process.kill()
        self.process.wait(10)
        self.log.close()
        return self.process.returncode


def private_folder():
    folder = tempfile.mkdtemp(prefix="mirn-desktop-")
    os.chmod(folder, 0o700)
    return folder
