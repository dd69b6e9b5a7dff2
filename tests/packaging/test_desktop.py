"""Items and folders opened by the desktop, with the package's files as they would be installed: by
the type of a file, the entry of the application and its service on the bus."""

import configparser
import pathlib
import re
import shlex
import sys
import unittest
import urllib.parse

import dbus

from package import PACKAGE, output
from quillvane import SOURCE, eventually

sys.path.insert(0, str(SOURCE / "tests/ui"))
import window
from window import PASSWORD, WindowCase

NAME = "org.quillvane.Quillvane"
SHEET = "Open protected folder"


def wordsOfDolphin(command, uri):
    """What it starts: it expands words."""
    return [word.replace("%u", uri) for word in command.split()]


def wordsOfNemo(command, uri):
    """It expands the line, with quotes as the file asks for, and takes it apart as a shell would."""
    return shlex.split(command.replace("%U", f'"{uri}"'))


class Desktop(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()
        self.root = self.directory / "root"
        output("dpkg-deb", "--extract", PACKAGE, self.root)
        self.share = self.root / "usr/share"
        for path in (f"applications/{NAME}.desktop", f"dbus-1/services/{NAME}.service",
                     "kio/servicemenus/quillvane.desktop", "nemo/actions/quillvane.nemo_action"):
            text = (self.share / path).read_text()
            (self.share / path).write_text(text.replace("=/usr/bin/", f"={self.root}/usr/bin/"))
        # What Debian does for every package.
        self.environment["XDG_DATA_DIRS"] = f"{self.share}:/usr/share"
        for command, kind in (("mime", "mime"), ("desktop", "applications")):
            updated = self.run_(f"update-{command}-database", self.share / kind)
            self.assertEqual((0, ""), (updated.returncode, updated.stderr))
        self._serve()
        self.complaints = self.directory / "stderr"  # of what the bus starts: its own
        self.complaints.touch()

    def _serve(self):
        """Has the bus start the program, with what the session has told of itself."""
        configuration = self.directory / "session-bus.conf"
        configuration.write_text(configuration.read_text().replace(
            "</busconfig>",
            f"<servicedir>{self.share}/dbus-1/services</servicedir></busconfig>"))
        self._bus_("ReloadConfig")
        self._bus_("UpdateActivationEnvironment", dbus.Dictionary(self.environment, signature="ss"))

    def _bus_(self, method, *arguments):
        bus = self.sessionBus.connection().get_object(dbus.BUS_DAEMON_NAME, dbus.BUS_DAEMON_PATH)
        return bus.get_dbus_method(method, dbus.BUS_DAEMON_IFACE)(*arguments)

    def process(self):
        """The number of the process that runs as the application."""
        number = int(self._bus_("GetConnectionUnixProcessID", NAME))
        self.assertEqual(f"{self.root}/usr/bin/quillvane",
                         pathlib.Path(f"/proc/{number}/cmdline").read_bytes().split(b"\0")[0].decode())
        return number

    def gio(self, *words):
        result = self.run_("gio", *words)
        self.assertEqual(0, result.returncode, result)
        return result.stdout

    def awaitWindow(self):
        self.assertTrue(eventually(self._window, 30), "no window appears")
        self.window = self._window()

    def entry(self):
        return self.share / f"applications/{NAME}.desktop"

    def testAnItemIsOfItsOwnType(self):
        item = self.makeItem()
        for name in ("Docs.quillvane", "a b.QUILLVANE"):
            item = item.rename(self.work / name)
            told = self.gio("info", "-a", "standard::content-type,standard::icon", item)
            self.assertRegex(told, r"content-type: application/vnd\.quillvane\n")
            # And no generic one, which some desktops would prefer.
            self.assertRegex(told, r"(?m)icon: (application-vnd\.quillvane(-symbolic)?(, |$))+$")
        # Nobody else wants it.
        self.assertEqual(
            [NAME + ".desktop"], sorted(set(re.findall(
                r"\S+\.desktop", self.gio("mime", "application/vnd.quillvane")))))

    def testADoubleClickOpensTheItem(self):
        item = self.makeItem()
        self.gio("open", item)
        self.awaitWindow()
        self.find(SHEET)
        self.find(item.name)
        program = self.process()
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find('"Docs" opened in place. It closes by itself after 5 min of inactivity, or on '
                  "screen lock / logout.", seconds=60)
        self.assertEqual("private", (self.work / "Docs/file").read_text())
        # Another one comes to the same window.
        other = self.makeItem("Other")
        self.gio("open", other)
        self.find(SHEET)
        self.find(other.name)
        self.assertEqual(program, self.process())
        self.press("Cancel")
        self.reach("Close Docs now")
        self.key_("space")
        self.find('"Docs" closed and encrypted.', seconds=60)

    def testASystemWithoutActivationStartsTheProgram(self):
        self.entry().write_text(self.entry().read_text().replace("DBusActivatable=true\n", ""))
        item = self.makeItem("a b%20 ü")
        self._background("gio", "launch", self.entry(), item)
        self.awaitWindow()
        self.find(SHEET)
        self.find(item.name)

    def testTheMenuOfAFileManagerOffersTheFolder(self):
        folder = self.makeFolder("a b%20 ü")
        # As the extension for Files, which the test of file managers looks into.
        result = self.run_(
            "gdbus", "call", "--session", "--dest", NAME, "--object-path",
            "/" + NAME.replace(".", "/"), "--method", "org.freedesktop.Application.ActivateAction",
            "protect", f"[<'{folder.as_uri()}'>]", "{}")
        self.assertEqual(0, result.returncode, result)
        self.awaitWindow()
        self.find(folder.name)
        program = self.process()
        for path, section, words in (
                ("kio/servicemenus/quillvane.desktop", "Desktop Action protect", wordsOfDolphin),
                ("nemo/actions/quillvane.nemo_action", "Nemo Action", wordsOfNemo)):
            folder = self.makeFolder(f"{section} 'x' $HOME `id` \\ \"")
            menu = configparser.ConfigParser(interpolation=None)
            menu.read(self.share / path)
            # Neither writes %27 or %24.
            uri = "file://" + urllib.parse.quote(str(folder), safe="/'$&()*+,;=:@!~")
            result = self.run_(*words(menu[section]["Exec"], uri))
            self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
            self.find(folder.name)
            self.assertEqual(program, self.process())


if __name__ == "__main__":
    window.requireTools("gio", "gdbus", "update-desktop-database", "update-mime-database")
    unittest.main()
