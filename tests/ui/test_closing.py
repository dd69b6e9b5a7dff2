"""Closing the window and ending the program: not in the middle of an operation, not before a
recovery key is saved, and with every Smart Folder closed."""

import os
import signal
import unittest

import window
from quillvane import eventually
from window import ENABLED, PASSWORD, WindowCase

BUSY = "Quillvane can be closed as soon as this is done."
UNSAVED = "Save your recovery key first. It is shown only now."


class Closing(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def closeWindow(self):
        """What the window manager does for a window's close button."""
        self.key_("alt+F4")

    def startProtecting(self, tool="ditto"):
        """Starts to protect a folder; that waits for `goOn` when it comes to this tool."""
        folder = self.makeFolder("Docs")
        self.start(program=self.programThatWaits(tool))
        self.protect(folder)
        return folder

    def test_while_busy(self):
        folder = self.startProtecting()
        self.find("Copying contents… 0%")
        self.assertEverythingDisabled()
        self.closeWindow()
        self.find(BUSY)
        self.picture("busy")
        self.assertIsNone(self.program.poll())
        self.goOn()
        self.waitForFocus("Recovery key", 60)
        self.closeWindow()
        self.find(UNSAVED)
        self.picture("unsaved")
        self.assertIsNone(self.program.poll())
        self.takeRecoveryKey()
        self.assertFalse(folder.exists())
        self.closeWindow()
        self.assertEnds()

    def assertEverythingDisabled(self):
        """No operation can be started while one runs, in any mode; the rest stays usable."""
        for mode, names in enumerate((["Docs", "Lock with password"],
                                      ["Choose a locked item to open…"],
                                      ["Remove password"], ["Change password"],
                                      ["Create Smart Folder", "Choose a Smart Folder…"]), 1):
            self.mode(mode)
            for name in names:
                self.waitForState(name, ENABLED, False)
            self.assertEqual([], [e.name for e in self.elements()
                                  if e.role == "text" and e.has(ENABLED)])
        self.mode(1)
        self.find("Copying contents… 0%")
        self.waitForState("Guide", ENABLED)

    def test_ended_while_protecting(self):
        # Even while a tool hangs: the folder is as it was, and nothing is beside it.
        folder = self.startProtecting()
        self.find("Copying contents… 0%")
        self.program.send_signal(signal.SIGTERM)
        self.assertEnds()
        self.assertEqual("private", (folder / "file").read_text())
        self.assertEqual(["Docs"], os.listdir(self.work))

    def test_with_an_open_smart_folder(self):
        item = self.makeItem()
        folder = self.work / "Docs"
        self.start(item)
        self.typeInto(self.waitForFocus("Password"), PASSWORD)
        self.key_("Return")
        self.assertTrue(eventually(lambda: os.path.ismount(folder), 60))
        self.find("Ready")
        (folder / "file").write_text("changed")
        self.closeWindow()
        self.assertEnds()
        self.assertFalse(folder.exists())
        self.start(item)  # what was written is in it
        self.typeInto(self.waitForFocus("Password"), PASSWORD)
        self.key_("Return")
        self.assertTrue(eventually(lambda: os.path.ismount(folder), 60))
        self.find("Ready")
        self.assertEqual("changed", (folder / "file").read_text())
        self.quit()
        self.assertFalse(folder.exists())


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
