"""The window's modes: protecting a folder, opening, changing and removing, by keyboard."""

import os
import pathlib
import unittest

import window
from quillvane import QV, eventually
from window import CHECKED, PASSWORD, WindowCase

NEW_PASSWORD = "battery staple"
LOCKED = "Locked. Your folder is protected:\n"


class Modes(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def test_protecting(self):
        folder = self.makeFolder("Docs")
        item = self.work / "Docs.quillvane"
        self.start()
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.find("Docs")
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.assertEqual(["•" * len(PASSWORD)] * 2, self.secrets())
        self.picture("filled")
        self.key_("Return")
        self.find("Save your recovery key now", seconds=60)
        self.picture("recovery-key")
        key = self.find("Recovery key").text
        self._leaveKeySheet(key)
        self.assertTrue(item.exists())
        self.assertFalse(folder.exists())
        self.find(f"{LOCKED}{item}")
        self.assertEqual(["", ""], self.secrets())
        self.picture("locked")
        self._openWithPastedKey(item)
        self._openElsewhere(item, key)
        self.quit()

    def _leaveKeySheet(self, key):
        self.waitForFocus("Recovery key", 60)
        self.key_("Escape")
        self.assertDisabled("Continue")
        self.assertEqual(key, self.find("Recovery key").text)
        self.press("Save as text file")
        self.cancelPanel("Save recovery key")
        self.press("Save as text file")
        self.answerPanel("Save recovery key", self.work / "key.txt")
        self.assertTrue(eventually((self.work / "key.txt").exists))
        self.assertEqual(["key.txt"], [file.name for file in self.work.glob("*.txt")])
        self.assertEqual("Quillvane — recovery key\n\n" + key + "\n\nKeep this safe. It's the only "
                         "way back in if you forget your password.\n",
                         (self.work / "key.txt").read_text())
        self.press("Copy key")
        self.find("Copied")
        self.press("I saved my recovery key")
        self.waitForState("I saved my recovery key", CHECKED)
        self.picture("saved")
        self.press("Continue")
        self.waitUntilGone("Save your recovery key now")

    def _openWithPastedKey(self, item):
        self.mode(2)
        self.choose("Choose a locked item to open…", "Choose a locked item to open", item)
        self.press("Use recovery key instead")
        self.field("Recovery key (XXXX-XXXX-…)").focus()
        self.key_("ctrl+v")
        self.picture("pasted")
        self.key_("Return")
        self.find("Mounted", seconds=60)
        self.assertEqual([""], self.secrets())
        self.press("Close and lock")
        self.find("Locked and ejected.", seconds=60)

    def _openElsewhere(self, item, key):
        result = self.run_(QV, "open", "--stdin", "--recovery-key", item, stdin=key + "\n")
        self.assertEqual(0, result.returncode, result)
        point = result.stdout.splitlines()[0]
        self.assertEqual("private", pathlib.Path(point, "file").read_text())
        self.assertEqual(0, self.run_(QV, "close", point).returncode)

    def test_opening_and_closing(self):
        item = self.makeItem()
        self.start()
        self.mode(2)
        self.choose("Choose a locked item to open…", "Choose a locked item to open", item)
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find("Opened. Work in the folder, then eject it to lock it again.", seconds=60)
        self.picture("opened")
        points = [e.name for e in self.elements() if os.path.ismount(e.name)]
        self.assertEqual(1, len(points), points)
        self.assertEqual("private", pathlib.Path(points[0], "file").read_text())
        self.mode(1)
        self.waitUntilGone("Opened. Work in the folder, then eject it to lock it again.")
        self.mode(2)
        self.find("Mounted")  # the item stays open and chosen
        self.find("Docs.quillvane")
        self.press("Close and lock")
        self.find("Locked and ejected.", seconds=60)
        self.assertFalse(os.path.ismount(points[0]))
        self.waitUntilGone("Mounted")
        self.find("Choose a locked item to open…")
        self.quit()

    def test_opened_elsewhere(self):
        # What another program opened can be closed here, and what it closed is not offered any more.
        item = self.makeItem()
        point = self.run_(QV, "open", "--stdin", item, stdin=PASSWORD + "\n").stdout.splitlines()[0]
        self.start()
        self.mode(2)
        self.choose("Choose a locked item to open…", "Choose a locked item to open", item)
        self._openChosen('"Docs" is already open.')
        self.find(point)
        self.assertEqual([""], self.secrets())
        self.press("Close and lock")
        self.find("Locked and ejected.", seconds=60)
        self.assertFalse(os.path.ismount(point))
        self.choose("Choose a locked item to open…", "Choose a locked item to open", item)
        self._openChosen("Opened. Work in the folder, then eject it to lock it again.")
        self.assertEqual(0, self.run_(QV, "close", item).returncode)
        self.waitUntilGone("Mounted")
        self.quit()

    def _openChosen(self, told):
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find(told, seconds=60)
        self.find("Mounted")

    def test_changing_and_removing(self):
        item = self.makeItem()
        self.start()
        self.mode(4)
        self.choose("Choose a locked item…", "Choose a locked item", item)
        self.fill("Password", PASSWORD)
        self.fill("New password", NEW_PASSWORD)
        self.fill("Repeat new password", NEW_PASSWORD)
        self.picture("change")
        self.press("Change password", "push button")
        self.find("Password changed. Use your new password from now on. Your recovery key still "
                  "works.", seconds=60)
        self.assertEqual(["", "", ""], self.secrets())
        self.picture("changed")
        self.mode(3)
        self.choose("Choose a locked item to turn back into a folder…",
                    "Choose a locked item to turn back into a folder", item)
        self.fill("Password", NEW_PASSWORD)
        self.picture("remove")
        self.press("Remove password")
        folder = self.work / "Docs"
        self.find(f"Password removed. It's a normal folder again:\n{folder}", seconds=60)
        self.assertEqual([""], self.secrets())
        self.picture("removed")
        self.assertEqual("private", (folder / "file").read_text())
        self.assertFalse(item.exists())
        self.quit()

    def test_cancelled_panels(self):
        panels = {1: [("Choose the folder to protect…", "Choose the folder to protect")],
                  2: [("Choose a locked item to open…", "Choose a locked item to open")],
                  3: [("Choose a locked item to turn back into a folder…",
                       "Choose a locked item to turn back into a folder")],
                  4: [("Choose a locked item…", "Choose a locked item")],
                  5: [("Choose a folder to make smart…", "Choose a folder to make smart"),
                      ("Choose a Smart Folder…", "Choose a smart folder")]}
        self.start()
        for mode, zones in panels.items():
            self.mode(mode)
            for prompt, title in zones:
                self.press(prompt)
                self.cancelPanel(title)
                self.find(prompt)
        self._cancelWithAFolderChosen()
        self.quit()

    def _cancelWithAFolderChosen(self):
        self.mode(1)
        title = "Choose the folder to protect"
        self.choose("Choose the folder to protect…", title, self.makeFolder("Docs"))
        self.fill("Password", PASSWORD)
        self.press("Docs")
        self.cancelPanel(title)
        self.find("Docs")
        self.assertEqual(["•" * len(PASSWORD), ""], self.secrets())


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
