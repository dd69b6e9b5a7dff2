"""What the tests of the window share: a display with a window manager, the accessibility bus, and
the program, seen as assistive technology sees it and used with the keyboard.

With QUILLVANE_SCREENSHOTS naming a directory, every step leaves a picture there.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import time

import dbus

from buses import BusCase
from quillvane import BUILD, QV, eventually

PROGRAM = str(BUILD / "bin/quillvane")
PICTURES = os.environ.get("QUILLVANE_SCREENSHOTS")
PASSWORD = "correct horse"
ACCESSIBLE = "org.a11y.atspi.Accessible"
# Numbers of states that AT-SPI defines.
CHECKED, FOCUSED, SHOWING = 4, 12, 25


class Element:
    """One object of the program's accessibility tree."""

    def __init__(self, connection, name, path):
        self._connection, self._name, self.path = connection, name, path
        self._object = connection.get_object(name, path, introspect=False)

    def _call(self, interface, method, *arguments):
        return self._object.get_dbus_method(method, interface)(*arguments, timeout=20)

    def _property(self, interface, name):
        return self._call("org.freedesktop.DBus.Properties", "Get", interface, name)

    @property
    def name(self):
        return str(self._property(ACCESSIBLE, "Name"))

    @property
    def role(self):
        return str(self._call(ACCESSIBLE, "GetRoleName"))

    @property
    def text(self):
        """What is in a text, as it is shown: the mask in place of what is masked."""
        return str(self._call("org.a11y.atspi.Text", "GetText", dbus.Int32(0), dbus.Int32(-1)))

    @property
    def extents(self):
        """(x, y, width, height) on the screen."""
        return tuple(map(int, self._call("org.a11y.atspi.Component", "GetExtents",
                                         dbus.UInt32(0))))

    def has(self, state):
        low, high = self._call(ACCESSIBLE, "GetState")
        return bool((low | high << 32) >> state & 1)

    def focus(self):
        self._call("org.a11y.atspi.Component", "GrabFocus")

    def act(self, action):
        """Does the action of this name, as assistive technology does."""
        names = [str(each[0]) for each in self._call("org.a11y.atspi.Action", "GetActions")]
        self._call("org.a11y.atspi.Action", "DoAction", dbus.Int32(names.index(action)))

    def children(self):
        return [Element(self._connection, str(name), str(path))
                for name, path in self._call(ACCESSIBLE, "GetChildren")]

    def all(self):
        """This one and all below it that can be seen now, in the tree's order."""
        yield self
        for child in self.children():
            if child.path.endswith("/null"):
                continue
            try:
                if child.has(SHOWING):
                    yield from child.all()
            except dbus.DBusException:
                pass  # gone meanwhile


class WindowCase(BusCase):
    """A test with a display, a window manager and an accessibility bus of its own."""

    size, scale = "1280x1400", "1"

    def setUp(self):
        super().setUp()
        self._pictures = 0
        self.environment |= {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON": "1", "QT_QPA_PLATFORM": "xcb",
                             "QT_SCALE_FACTOR": self.scale, "NO_AT_BRIDGE": "0",
                             "XDG_CONFIG_HOME": str(self.home / ".config"),
                             "XDG_CACHE_HOME": str(self.home / ".cache"),
                             "XDG_DATA_HOME": str(self.home / ".local/share")}
        self._startDisplay()
        self._background("openbox", "--sm-disable")
        self._background("/usr/libexec/at-spi-bus-launcher", "--launch-immediately")
        self.assertTrue(eventually(lambda: self.sessionBus.hasOwner("org.a11y.Bus")))
        proxy = self.sessionBus.connection().get_object("org.a11y.Bus", "/org/a11y/bus")
        address = proxy.GetAddress(dbus_interface="org.a11y.Bus")
        self._accessibility = dbus.bus.BusConnection(str(address))
        self._accessibility.set_exit_on_disconnect(False)
        self.addCleanup(self._accessibility.close)

    def _background(self, *command, **options):
        process = subprocess.Popen(command, env=self.environment, cwd=self.home,
                                   stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   stdout=options.pop("stdout", subprocess.DEVNULL), **options)
        self.addCleanup(self._end, process)
        return process

    @staticmethod
    def _end(process):
        if process.poll() is None:
            process.terminate()
        try:
            process.wait(20)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()

    def _startDisplay(self):
        reading, writing = os.pipe()
        self._background("Xvfb", "-displayfd", str(writing), "-screen", "0", self.size + "x24",
                         "-nolisten", "tcp", "-noreset", pass_fds=[writing])
        os.close(writing)
        with os.fdopen(reading) as number:
            self.environment["DISPLAY"] = ":" + number.readline().strip()
        self.assertNotEqual(":", self.environment["DISPLAY"], "Xvfb does not start")

    # The program

    def acceptTerms(self):
        """Leaves the setting that a user leaves who has accepted the terms."""
        settings = self.home / ".config/Quillvane/Quillvane.conf"
        settings.parent.mkdir(parents=True)
        settings.write_text("[General]\nquillvane.acceptedTermsVersion=2\n")

    def start(self, *items):
        """Starts the program and waits for its window."""
        self.complaints = self.directory / "stderr"
        with open(self.complaints, "w") as stderr:
            self.program = subprocess.Popen([PROGRAM, *items], env=self.environment, cwd=self.work,
                                            stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr)
        self.addCleanup(self._end, self.program)
        self.assertTrue(eventually(self._window, 30), "no window appears")
        self.window = self._window()
        self.assertTrue(eventually(self._active), "the window does not become active")

    def _window(self):
        """The program's first window in the tree, once it is there."""
        try:
            desktop = Element(self._accessibility, "org.a11y.atspi.Registry",
                              "/org/a11y/atspi/accessible/root")
            self.application = desktop.children()[0]
            return self.application.children()[0]
        except (dbus.DBusException, IndexError):
            return None

    def _active(self):
        return self.xdotool("getactivewindow", "getwindowpid", check=False).strip() \
            == str(self.program.pid)

    def quit(self):
        """Asks the program to end, which it is to do with success and without a complaint."""
        self.program.send_signal(signal.SIGTERM)
        self.assertEqual(0, self.program.wait(60))
        self.assertEqual("", self.complaints.read_text())

    def makeItem(self, name="Docs"):
        """A protected item with the folder's content "private" in "file"; `self.key` opens it."""
        folder = self.work / name
        folder.mkdir()
        (folder / "file").write_text("private")
        result = self.run_(QV, "lock", "--stdin", folder, stdin=PASSWORD + "\n")
        self.assertEqual(0, result.returncode, result)
        self.key = result.stdout.splitlines()[1]
        return folder.with_name(name + ".quillvane")

    # What is seen

    def elements(self):
        return list(self.window.all())

    def _look(self, name, role):
        for element in self.elements():
            try:
                if element.name == name and role in (None, element.role):
                    return element
            except dbus.DBusException:
                pass  # gone meanwhile
        return None

    def find(self, name, role=None, seconds=20):
        """Waits for the first element with this name."""
        found = eventually(lambda: self._look(name, role), seconds)
        if not found:
            self.fail(f"no {name!r} in {[(e.role, e.name) for e in self.elements()]}; "
                      f"complaints: {self.complaints.read_text()}")
        return found

    def waitUntilGone(self, name):
        self.assertTrue(eventually(lambda: not self._look(name, None)), f"{name!r} stays")

    def waitForState(self, name, state, value=True):
        self.assertTrue(eventually(lambda: self.find(name).has(state) == value),
                        f"state {state} of {name!r} is not {value}")

    def isUsable(self, name):
        """Whether a control takes the focus, which one that is disabled does not. (The toolkit does
        not tell assistive technology of the difference.)"""
        control = self.find(name)
        control.focus()
        return bool(eventually(lambda: control.has(FOCUSED), 1))

    def assertDisabled(self, name):
        """Fails unless the button leaves all as it is, in whichever way it is pressed."""
        self.assertFalse(self.isUsable(name), f"{name!r} takes the focus")
        button = self.find(name)
        button.act("Press")
        x, y, width, height = button.extents
        self.xdotool("mousemove", str(x + width // 2), str(y + height // 2), "click", "1")
        self.find(name)

    def field(self, name, number=0):
        """The line of text with this placeholder, the nth if there are several."""
        found = [each for each in self.elements() if each.name == name and each.role == "text"]
        self.assertGreater(len(found), number, f"no line of text {name!r}")
        return found[number]

    def picture(self, step):
        """Keeps a picture of the screen, if wanted."""
        if not PICTURES:
            return
        time.sleep(0.4)  # until the picture on the screen is that of the last change
        self._pictures += 1
        name = f"{self._testMethodName}-{self._pictures:02}-{step}.png"
        subprocess.run(["import", "-window", "root", pathlib.Path(PICTURES) / name], check=True,
                       env=self.environment, cwd=self.work)

    # What is done

    def xdotool(self, *words, check=True):
        return subprocess.run(["xdotool", *words], env=self.environment, check=check, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, timeout=60).stdout

    def key_(self, *keys):
        self.xdotool("key", "--delay", "20", *keys)

    def type(self, text):
        self.xdotool("type", "--delay", "8", text)

    def fill(self, name, text, number=0):
        """Types into a line of text."""
        field = self.field(name, number)
        field.focus()
        self.assertTrue(eventually(lambda: field.has(FOCUSED)), f"{name!r} gets no focus")
        self.type(text)
        self.assertTrue(eventually(lambda: len(field.text) == len(text)), f"{name!r} lacks keys")

    def press(self, name, role=None):
        """Presses the button with this name, with the keyboard."""
        button = self.find(name, role)
        button.focus()
        self.assertTrue(eventually(lambda: button.has(FOCUSED)), f"{name!r} gets no focus")
        self.key_("space")

    def choose(self, prompt, title, path):
        """Chooses a file in the panel that the button `prompt` opens, by typing its path."""
        self.press(prompt)
        self.answerPanel(title, path)

    def answerPanel(self, title, path):
        def active():
            return self.xdotool("getactivewindow", "getwindowname", check=False).strip()
        self.assertTrue(eventually(lambda: active().startswith(title)), f"{active()!r} is active")
        self.key_("ctrl+a")
        self.type(str(path))
        self.picture("panel")
        self.key_("Return")
        if not eventually(lambda: not active().startswith(title), 2):
            self.key_("Return")  # the first one took a completion
        self.assertTrue(eventually(self._mainActive), f"{active()!r} stays")

    def _mainActive(self):
        return self.xdotool("getactivewindow", "getwindowname", check=False).strip() == "Quillvane"

    def resize(self, width, height):
        """Makes the window as large as this."""
        window = self.xdotool("getactivewindow").strip()
        self.xdotool("windowmove", window, "20", "40", "windowsize", "--sync", window, str(width),
                     str(height))

    def mode(self, number):
        """Goes to a mode by its keys."""
        self.key_(f"ctrl+{number}")


def requireTools():
    """Fails, rather than skips, where a program that these tests need is missing."""
    tools = ["Xvfb", "openbox", "xdotool"] + (["import"] if PICTURES else [])
    missing = [tool for tool in tools if not shutil.which(tool)]
    if missing:
        raise RuntimeError(f"not installed: {missing}")
