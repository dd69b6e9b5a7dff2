"""Adds "Protect with Quillvane…" to the menu that a folder has in Files."""

import sys

from gi.repository import Gio, GLib, GObject, Nautilus

APPLICATION = "org.quillvane.Quillvane"


def _isLocalFolder(file):
    return (file.is_directory() and file.get_uri_scheme() == "file"
            and not file.get_uri().lower().endswith(".quillvane"))  # a name may be no text


def _answered(bus, result):
    try:
        bus.call_finish(result)
    except GLib.Error as error:
        print("Quillvane cannot be asked to protect a folder:", error.message, file=sys.stderr)


def _protect(_item, uri):
    # By the bus, which starts the program when it does not run: a process of Files' own would end
    # with it.
    Gio.bus_get_sync(Gio.BusType.SESSION).call(
        APPLICATION, "/" + APPLICATION.replace(".", "/"), "org.freedesktop.Application",
        "ActivateAction",
        GLib.Variant("(sava{sv})", ("protect", [GLib.Variant("s", uri)], {})),
        None, Gio.DBusCallFlags.NONE, -1, None, _answered)


class QuillvaneMenu(GObject.GObject, Nautilus.MenuProvider):
    def get_file_items(self, files):
        if len(files) != 1 or not _isLocalFolder(files[0]):
            return []
        item = Nautilus.MenuItem(name="QuillvaneMenu::protect", label="Protect with Quillvane…",
                                 tip="Put a password on this folder, in place",
                                 icon=APPLICATION)
        item.connect("activate", _protect, files[0].get_uri())
        return [item]
