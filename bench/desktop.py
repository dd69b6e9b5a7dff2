"""A desktop for one benchmark: a display in memory, a window manager, a session bus and a home, and
an end of all of it, whatever has been started in there.
"""

import contextlib
import ctypes
import os
import pathlib
import shutil
import signal
import subprocess
import time

from screen import Screen

TOOLS = {"Xvfb": "xvfb", "openbox": "openbox", "xdotool": "xdotool", "dbus-daemon": "dbus"}
SIZE = "1280x1000"
PR_SET_CHILD_SUBREAPER = 36
# What would make programs here behave as in the session of whoever runs the benchmark.
FOREIGN = ("QT_", "GTK_", "GDK_", "QML_", "WAYLAND_", "XDG_", "DBUS_", "DESKTOP_", "GNOME_", "KDE_",
           "SESSION_", "XAUTHORITY", "AT_SPI_", "NO_AT_BRIDGE")


def missing():
    """The packages of what a desktop here consists of that are not installed."""
    return [package for tool, package in TOOLS.items() if not shutil.which(tool)]


class Desktop:
    """The desktop, as a context. `place` is an empty directory."""

    def __init__(self, place):
        self.place = pathlib.Path(place)
        self.home = self.place / "home"

    def __enter__(self):
        # Whatever loses its parent becomes our child, so that it is known and ends with us.
        ctypes.CDLL(None, use_errno=True).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith(FOREIGN)}
        for variable, name in (("HOME", "home"), ("XDG_RUNTIME_DIR", "run")):
            (self.place / name).mkdir(mode=0o700)
            self.environment[variable] = str(self.place / name)
        # The programs' settings are not to be those of a desktop that is not there.
        self.environment |= {"GSETTINGS_BACKEND": "memory", "LC_ALL": "C.UTF-8",
                             "GDK_BACKEND": "x11", "QT_QPA_PLATFORM": "xcb"}
        try:
            self._start()
        except BaseException:
            self._end()
            raise
        return self

    def __exit__(self, *_):
        self.screen.close()
        self._end()

    def _start(self):
        self.environment["DISPLAY"] = ":" + self._announced(
            "Xvfb", "-screen", "0", SIZE + "x24", "-nolisten", "tcp", "-noreset", "-displayfd")
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = self._announced(
            "dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address")
        self.start("openbox", "--sm-disable")
        self.screen = Screen(self.environment["DISPLAY"])
        end = time.monotonic() + 20
        while self.xdotool("get_num_desktops", check=False) != "1\n":  # until it manages windows
            if time.monotonic() > end:
                raise RuntimeError("openbox does not start")
            time.sleep(0.05)
            self.xdotool("set_num_desktops", "1", check=False)

    def _announced(self, *command):
        """Starts a service and returns what it writes to the descriptor named last."""
        reading, writing = os.pipe()
        self.start(*command, str(writing), pass_fds=[writing])
        os.close(writing)
        with os.fdopen(reading) as answer:
            line = answer.readline().strip()
        if not line:
            raise RuntimeError(f"{command[0]} does not start")
        return line

    def start(self, *command, **options):
        """Starts a program on this desktop. What it says on the way goes nowhere."""
        return subprocess.Popen([str(word) for word in command], env=self.environment,
                                cwd=self.home, stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **options)

    def xdotool(self, *words, check=True):
        return subprocess.run(["xdotool", *words], env=self.environment, check=check, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=60).stdout

    def stop(self, process):
        """Ends a program, and waits until the screen is empty."""
        process.terminate()
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()
        end = time.monotonic() + 10
        while not self.screen.isEmpty():
            if time.monotonic() > end:
                raise RuntimeError("something stays on the screen")
            time.sleep(0.02)

    @staticmethod
    def _end():
        """Ends all children, those that others have left included: asked first, then made to."""
        for number in (signal.SIGTERM, signal.SIGKILL):
            end = time.monotonic() + 10
            while children() and time.monotonic() < end:
                for child in children():
                    with contextlib.suppress(ProcessLookupError):
                        os.kill(child, number)
                time.sleep(0.05)
                with contextlib.suppress(ChildProcessError):
                    while os.waitpid(-1, os.WNOHANG)[0]:
                        pass


def children():
    """The processes of which this one is the parent."""
    found = []
    for process in pathlib.Path("/proc").iterdir():
        with contextlib.suppress(OSError):  # ended meanwhile
            if process.name.isdigit():
                fields = (process / "stat").read_text().rpartition(")")[2].split()
                if int(fields[1]) == os.getpid():
                    found.append(int(process.name))
    return found
