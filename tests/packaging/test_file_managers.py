"""What is added to the menus of file managers: Files, with its own library, and Dolphin."""

import configparser
import contextlib
import importlib.util
import io
import unittest
import unittest.mock

import gi

gi.require_version("Nautilus", "4.0")
from gi.repository import Gio, GLib, GObject, Nautilus

from buses import BusCase
from package import PackageCase
from quillvane import SOURCE, eventually

NAME = "org.quillvane.Quillvane"


class File(GObject.GObject, Nautilus.FileInfo):
    """A file as Files describes it."""

    def __init__(self, uri, isDirectory=True):
        super().__init__()
        self._uri, self._isDirectory = uri, isDirectory

    def do_get_uri(self):
        return self._uri

    def do_get_uri_scheme(self):
        return self._uri.partition(":")[0]

    def do_is_directory(self):
        return self._isDirectory


def extension():
    """The extension, loaded as Files loads it: the file's classes are looked through."""
    path = SOURCE / "packaging/filemanagers/nautilus.py"
    specification = importlib.util.spec_from_file_location("quillvane_menu", path)
    module = importlib.util.module_from_spec(specification)
    specification.loader.exec_module(module)
    [provider] = [value for value in vars(module).values() if isinstance(value, type)
                  and issubclass(value, Nautilus.MenuProvider) and value is not Nautilus.MenuProvider]
    return provider()


class FilesTest(BusCase):
    def setUp(self):
        super().setUp()
        # The process's own connection would be that of the first test, and end the process with it.
        flags = Gio.DBusConnectionFlags
        connection = Gio.DBusConnection.new_for_address_sync(
            self.sessionBus.address,
            flags.AUTHENTICATION_CLIENT | flags.MESSAGE_BUS_CONNECTION, None, None)
        patch = unittest.mock.patch("gi.repository.Gio.bus_get_sync", lambda kind: connection)
        patch.start()
        self.addCleanup(patch.stop)
        self.application = self.mock(
            self.sessionBus, NAME, "/org/quillvane/Quillvane", "org.freedesktop.Application",
            ("ActivateAction", "sava{sv}", "", ""))

    def items(self, *files):
        return extension().get_file_items(list(files))

    def testOneLocalFolderHasTheEntry(self):
        for uri in ("file:///home/ada/Docs", "file:///home/ada/quillvane", "file:///a.quillvane.d",
                    "file:///home/ada/%FF"):
            items = self.items(File(uri))
            self.assertEqual(["Protect with Quillvane…"],
                             [item.get_property("label") for item in items], uri)
            self.assertEqual(NAME, items[0].get_property("icon"))

    def testNothingElseHasIt(self):
        docs = File("file:///home/ada/Docs")
        for files in ((), (docs, docs), (docs, File("file:///notes.txt", False)),
                      (File("file:///notes.txt", False),),
                      (File("file:///Docs.quillvane", False),),
                      (File("file:///Docs.QuillVane"),), (File("sftp://server/home/ada"),),
                      (File("trash:///Docs"),)):
            self.assertEqual([], self.items(*files))

    def testItAsksTheApplication(self):
        uri = "file:///home/ada/a%20b%FF%23"
        [item] = self.items(File(uri))
        item.emit("activate")
        self.assertEqual([("protect", [uri], {})], self.application.waitForCalls("ActivateAction"))

    def testItSaysSoWhenTheApplicationCannotBeHad(self):
        self.application.stop()
        [item] = self.items(File("file:///home/ada/Docs"))
        said = io.StringIO()

        def answered():
            GLib.MainContext.default().iteration(False)
            return said.getvalue()
        with contextlib.redirect_stderr(said):
            item.emit("activate")
            eventually(answered)
        self.assertRegex(said.getvalue(), "^Quillvane cannot be asked to protect a folder: ")


class MenuFilesTest(PackageCase):
    """Dolphin and Nemo read what to show and what to start."""

    def menu(self, path):
        menu = configparser.ConfigParser(interpolation=None)
        menu.optionxform = str
        menu.read(self.root / "usr/share" / path)
        return menu

    def assertEntry(self, entry, **expected):
        self.assertEqual(expected, {key: entry.get(key) for key in expected})
        self.assertTrue((self.root / entry["Exec"].split()[0].lstrip("/")).exists())

    def testDolphinsMenuOfOneLocalFolder(self):
        # Dolphin trusts a menu of this kind if root owns it; it need not be executable.
        menu = self.menu("kio/servicemenus/quillvane.desktop")
        entry = menu["Desktop Entry"]
        self.assertEqual(("Service", "inode/directory;", "protect;", "file", "1"), tuple(
            entry[key] for key in ("Type", "MimeType", "Actions", "X-KDE-Protocols",
                                   "X-KDE-RequiredNumberOfUrls")))
        self.assertEntry(menu["Desktop Action protect"], Name="Protect with Quillvane…", Icon=NAME,
                         Exec="/usr/bin/quillvane --protect %u")

    def testNemosMenuOfOneLocalFolder(self):
        self.assertEntry(self.menu("nemo/actions/quillvane.nemo_action")["Nemo Action"],
                         Name="Protect with Quillvane…", Selection="s", Extensions="dir;",
                         UriScheme="file", Quote="double",
                         Exec="/usr/bin/quillvane --protect %U")


if __name__ == "__main__":
    unittest.main()
