"""What the tests of the window share: a display with a window manager, the accessibility bus, and
the program, seen as assistive technology sees it and used with the keyboard.

With QUILLVANE_SCREENSHOTS naming a directory, every step leaves a picture there; test_layout.py has
one of each mode and sheet at each size and scale.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import time

import dbus

from accessible import CHECKED, ENABLED, FOCUSED, Element
from buses import BusCase
from quillvane import BUILD, QV, eventually

PROGRAM = str(BUILD / "bin/quillvane")
PICTURES = os.environ.get("QUILLVANE_SCREENSHOTS")
PASSWORD = "correct horse"


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
        self._installFileManager()
        self._startDisplay()
        self._background("openbox", "--sm-disable")
        self._background("/usr/libexec/at-spi-bus-launcher", "--launch-immediately")
        self.assertTrue(eventually(lambda: self.sessionBus.hasOwner("org.a11y.Bus")))
        proxy = self.sessionBus.connection().get_object("org.a11y.Bus", "/org/a11y/bus")
        address = proxy.GetAddress(dbus_interface="org.a11y.Bus")
        self._accessibility = dbus.bus.BusConnection(str(address))
        self._accessibility.set_exit_on_disconnect(False)
        self.addCleanup(self._accessibility.close)

    def _installFileManager(self):
        """The program that opens folders here writes down what it is asked to open: whatever this
        computer has for them would take the focus."""
        self.shown = self.directory / "shown"
        self.shown.touch()
        manager = self.directory / "file-manager"
        manager.write_text(f"#!/bin/sh\nprintf '%s\\n' \"$@\" >> '{self.shown}'\n")
        manager.chmod(0o755)
        applications = self.home / ".local/share/applications"
        applications.mkdir(parents=True)
        (applications / "file-manager.desktop").write_text(
            f"[Desktop Entry]\nType=Application\nName=Files\nExec={manager} %U\n"
            "MimeType=inode/directory;\n")
        (self.home / ".config").mkdir()
        (self.home / ".config/mimeapps.list").write_text(
            "[Default Applications]\ninode/directory=file-manager.desktop\n")

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

    def start(self, *items, program=PROGRAM):
        """Starts the program and waits for its window."""
        self.complaints = self.directory / "stderr"
        with open(self.complaints, "w") as stderr:
            self.program = subprocess.Popen([program, *items], env=self.environment, cwd=self.work,
                                            stdin=subprocess.DEVNULL, stdout=stderr, stderr=stderr)
        self.addCleanup(self._end, self.program)
        self.assertTrue(eventually(self._window, 30), "no window appears")
        self.window = self._window()
        self.waitUntilActive()

    def waitUntilActive(self):
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
        self.assertEnds()

    def assertEnds(self):
        """Fails unless the program ends, with success and without a complaint."""
        self.assertEqual(0, self.program.wait(60))
        self.assertEqual("", self.complaints.read_text())

    def openFromOutside(self, *words):
        """What the file manager does for an item: another start, which hands it over and ends."""
        other = self.run_(PROGRAM, *words, timeout=30)
        self.assertEqual((0, "", ""), (other.returncode, other.stdout, other.stderr))

    def programThatWaits(self, tool):
        """A copy of the program whose tool of this name waits until `goOn` is called; its path."""
        place = self.directory / "program"
        (place / "bin").mkdir(parents=True)
        shutil.copy(PROGRAM, place / "bin")
        tools = place / "libexec/quillvane"
        tools.mkdir(parents=True)
        for path in pathlib.Path(PROGRAM).parents[1].glob("libexec/quillvane/*"):
            (tools / path.name).symlink_to(path)
        self._mayGoOn = self.directory / "go-on"
        self.addCleanup(self.goOn)
        waiting = tools / tool
        real = waiting.readlink()
        waiting.unlink()
        waiting.write_text(f"#!/bin/sh\nuntil [ -e '{self._mayGoOn}' ]; do sleep 0.05; done\n"
                           f"exec '{real}' \"$@\"\n")
        waiting.chmod(0o755)
        return place / "bin/quillvane"

    def goOn(self):
        self._mayGoOn.touch()

    def makeFolder(self, name):
        """A folder with the content "private" in "file"."""
        folder = self.work / name
        folder.mkdir()
        (folder / "file").write_text("private")
        return folder

    def makeItem(self, name="Docs"):
        """A protected item with the folder's content "private" in "file"; `self.key` opens it."""
        folder = self.makeFolder(name)
        result = self.run_(QV, "lock", "--stdin", folder, stdin=PASSWORD + "\n")
        self.assertEqual(0, result.returncode, result)
        self.key = result.stdout.splitlines()[1]
        return folder.with_name(name + ".quillvane")

    def interruptDeletion(self, folder):
        """Protects a folder with qv, which is killed when it begins to delete the original."""
        killed = self.run_("strace", "-qq", "-o", "/dev/null", "-e", "trace=unlinkat", "-e",
                           "inject=unlinkat:signal=KILL:when=1", QV, "lock", folder, "--stdin",
                           stdin=PASSWORD + "\n")
        self.assertEqual(-signal.SIGKILL, killed.returncode, killed)

    # What is seen

    def elements(self):
        return list(self.window.all())

    def look(self, name, role=None, prefix=False):
        for element in self.elements():
            try:
                found = element.name
                if (found.startswith(name) if prefix else found == name) \
                        and role in (None, element.role):
                    return element
            except dbus.DBusException:
                pass  # gone meanwhile
        return None

    def find(self, name, role=None, seconds=20, prefix=False):
        """Waits for the first element with this name, or with one that begins like this."""
        found = eventually(lambda: self.look(name, role, prefix), seconds)
        if not found:
            self.fail(f"no {name!r} in {[(e.role, e.name) for e in self.elements()]}; "
                      f"complaints: {self.complaints.read_text()}")
        return found

    def waitUntilGone(self, name):
        self.assertTrue(eventually(lambda: not self.look(name)), f"{name!r} stays")

    def waitForState(self, name, state, value=True):
        self.assertTrue(eventually(lambda: self.find(name).has(state) == value),
                        f"state {state} of {name!r} is not {value}")

    def assertDisabled(self, name):
        """Fails unless the button tells that it is, and is deaf to the pointer and to Tab."""
        self.waitForState(name, ENABLED, False)
        button = self.find(name)
        self.click(button)
        button.focus()
        self.assertFalse(button.has(FOCUSED), f"{name!r} takes the focus")
        self.find(name)

    def protect(self, folder):
        """Begins to protect the folder with PASSWORD."""
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("Return")

    def takeRecoveryKey(self):
        """Waits for the sheet with a recovery key and leaves it; the key."""
        self.waitForFocus("Recovery key", 60)
        self.picture("recovery-key")
        key = self.find("Recovery key").text
        self.press("I saved my recovery key")
        self.waitForState("I saved my recovery key", CHECKED)
        self.press("Continue")
        self.waitUntilGone("Save your recovery key now")
        return key

    def field(self, name, number=0):
        """The line of text with this placeholder, the nth if there are several."""
        found = [each for each in self.elements() if each.name == name and each.role == "text"]
        self.assertGreater(len(found), number, f"no line of text {name!r}")
        return found[number]

    def secrets(self):
        """What the lines of text hold that are seen now."""
        return [each.text for each in self.elements() if each.role == "text"]

    def focused(self):
        """What has the keyboard now; None when it is between two."""
        found = None
        for element in self.window.all():
            try:
                if element.role != "frame" and element.has(FOCUSED):
                    found = element  # the innermost is what the keys go to
            except dbus.DBusException:
                pass  # gone meanwhile
        return found

    def waitForFocus(self, name, seconds=10):
        """Waits until the control with this name has the keyboard; the control."""
        def named():
            element = self.focused()
            return element if element and element.name == name else None
        found = eventually(named, seconds)
        self.assertTrue(found, f"{name!r} gets no focus")
        return found

    def next(self, key="Tab"):
        """Presses Tab, or another key that moves the focus; what has it then."""
        before = self.focused()
        self.key_(key)
        found = eventually(lambda: (element := self.focused())
                           and (not before or element.path != before.path) and element)
        self.assertTrue(found, f"nothing gets the focus after {before and before.name!r}")
        return found

    def reach(self, name, role=None):
        """Goes from Tab to Tab to the control with this name, which may be scrolled out of view."""
        passed = set()
        while (element := self.next()).name != name or role not in (None, element.role):
            self.assertNotIn(element.path, passed, f"Tab does not reach {name!r}")
            passed.add(element.path)
        return element

    def picture(self, step):
        """Keeps a picture of the screen, if wanted."""
        if not PICTURES:
            return
        time.sleep(0.4)  # until the picture on the screen is that of the last change
        self._pictures += 1
        name = f"{self._testMethodName}-{self._pictures:02}-{step}-at-{self.scale}.png"
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
        self.typeInto(field, text)

    def typeInto(self, field, text):
        """Types into the line of text that has the focus."""
        self.type(text)
        self.assertTrue(eventually(lambda: len(field.text) == len(text)),
                        f"{field.name!r} lacks keys")

    def click(self, element):
        """Clicks into its middle."""
        x, y = element.middle
        self.xdotool("mousemove", str(x), str(y), "click", "1")

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
        self._awaitPanel(title)
        self.key_("ctrl+a")
        self.type(str(path))
        self.picture("panel")
        self.key_("Return")
        if not eventually(lambda: not self._activeTitle().startswith(title), 2):
            self.key_("Return")  # the first one took a completion
        self._awaitNoPanel()

    def cancelPanel(self, title):
        self._awaitPanel(title)
        self.key_("Escape")
        self._awaitNoPanel()

    def _awaitPanel(self, title):
        self.assertTrue(eventually(lambda: self._activeTitle().startswith(title)),
                        f"{self._activeTitle()!r} is active, not {title!r}")

    def _awaitNoPanel(self):
        self.assertTrue(eventually(lambda: self._activeTitle() == "Quillvane"),
                        f"{self._activeTitle()!r} stays")

    def _activeTitle(self):
        return self.xdotool("getactivewindow", "getwindowname", check=False).strip()

    def resize(self, width, height):
        """Makes the window as large as this, in its own units."""
        window = self.xdotool("getactivewindow").strip()
        inPixels = [str(side * int(self.scale)) for side in (width, height)]
        self.xdotool("windowmove", window, "20", "40", "windowsize", window, *inPixels)
        wanted = (width, height)
        self.assertTrue(eventually(lambda: self.window.extents[2:] == wanted),
                        f"the window is {self.window.extents[2:]}, not {wanted}")

    def mode(self, number):
        """Goes to a mode by its keys."""
        self.key_(f"ctrl+{number}")


def requireTools(*more):
    """Fails, rather than skips, where a program that these tests need is missing."""
    tools = ["Xvfb", "openbox", "xdotool", *more] + (["import"] if PICTURES else [])
    missing = [tool for tool in tools if not shutil.which(tool)]
    if missing:
        raise RuntimeError(f"not installed: {missing}")
