"""The window: each mode from the first start to the closed item, by keyboard."""

import os
import pathlib
import subprocess
import unittest

import window
from quillvane import QV, eventually
from window import CHECKED, FOCUSED, PASSWORD, PROGRAM, WindowCase

NEW_PASSWORD = "battery staple"
LOCKED = "Locked. Your folder is protected:\n"
WRONG = "Wrong password."


class Terms(WindowCase):
    def test_accepting(self):
        self.start()
        self.picture("gate")
        agree = "Agree and continue"
        tick = ("I have read, understood, and accept the Terms of Use and the End User License "
                "Agreement.")
        for ticked in (False, True, False):
            self.waitForState(tick, CHECKED, ticked)
            if ticked:
                self.assertTrue(self.isUsable(agree))
            else:
                self.assertDisabled(agree)
            self.press(tick)
        self.waitForState(tick, CHECKED)
        self.picture("ticked")
        self.press(agree)
        self.find("Lock a folder")
        self.picture("accepted")
        self.quit()
        self.start()
        self.find("Lock a folder")
        self.quit()


class Modes(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def test_protecting(self):
        folder = self.work / "Docs"
        folder.mkdir()
        (folder / "file").write_text("private")
        item = self.work / "Docs.quillvane"
        self.start()
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.find("Docs")
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.assertNotIn(PASSWORD, [self.field("Password").text,
                                    self.field("Repeat password").text])
        self.picture("filled")
        self.key_("Return")
        self.find("Save your recovery key now", seconds=60)
        self.picture("recovery-key")
        key = self.find("Recovery key").text
        self._leaveKeySheet(key)
        self.assertTrue(item.is_file() or item.is_dir())
        self.assertFalse(folder.exists())
        self.find(f"{LOCKED}{item}")
        self.picture("locked")
        self._openWithPastedKey(item)
        self._openElsewhere(item, key)
        self.quit()

    def _leaveKeySheet(self, key):
        self.key_("Escape")
        self.assertDisabled("Continue")
        self.assertEqual(key, self.find("Recovery key").text)
        self.press("Save as text file")
        self.answerPanel("Save recovery key", self.work / "key.txt")
        self.assertTrue(eventually((self.work / "key.txt").exists))
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
        self.fill("Password", "wrong")
        self.key_("Return")
        self.find(WRONG, seconds=60)
        self.assertEqual("", self.field("Password").text)
        self.picture("wrong")
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find("Opened. Work in the folder, then eject it to lock it again.", seconds=60)
        self.picture("opened")
        self.waitUntilGone(WRONG)
        points = [e.name for e in self.elements() if os.path.ismount(e.name)]
        self.assertEqual(1, len(points), points)
        self.assertEqual("private", pathlib.Path(points[0], "file").read_text())
        self.press("Close and lock")
        self.find("Locked and ejected.", seconds=60)
        self.assertFalse(os.path.ismount(points[0]))
        self.waitUntilGone("Mounted")
        self.quit()

    def test_changing_and_removing(self):
        item = self.makeItem()
        self.start()
        self.mode(4)
        self.choose("Choose a locked item…", "Choose a locked item", item)
        self.fill("Password", PASSWORD)
        self.fill("New password", NEW_PASSWORD)
        self.fill("Repeat new password", NEW_PASSWORD + "x")
        self.key_("Return")
        self.find("The two new passwords don't match.")
        self.key_("BackSpace")
        self.picture("change")
        self.press("Change password", "push button")
        self.find("Password changed. Use your new password from now on. Your recovery key still "
                  "works.", seconds=60)
        self.picture("changed")
        self.mode(3)
        self.choose("Choose a locked item to turn back into a folder…",
                    "Choose a locked item to turn back into a folder", item)
        self.fill("Password", NEW_PASSWORD)
        self.picture("remove")
        self.press("Remove password")
        folder = self.work / "Docs"
        self.find(f"Password removed. It's a normal folder again:\n{folder}", seconds=60)
        self.picture("removed")
        self.assertEqual("private", (folder / "file").read_text())
        self.assertFalse(item.exists())
        self.quit()

    def test_smart_folder(self):
        item = self.makeItem()
        folder = self.work / "Docs"
        self.start()
        self.resize(920, 1200)
        self.mode(5)
        self.find("None is open.")
        self.picture("smart")
        self.choose("Choose a Smart Folder…", "Choose a smart folder", item)
        self.fill("Password", PASSWORD, 1)
        self.key_("Return")
        self.find("Close Docs now", seconds=60)
        self.picture("open")
        self.assertTrue(os.path.ismount(folder))
        self.assertEqual("private", (folder / "file").read_text())
        (folder / "file").write_text("changed")
        self.press("Close Docs now")
        self.find("None is open.", seconds=60)
        self.assertFalse(folder.exists())
        self.assertTrue(item.exists())
        self.picture("closed")
        self.quit()

    def test_item_from_outside(self):
        item = self.makeItem()
        folder = self.work / "Docs"
        self.start()
        second = subprocess.run([PROGRAM, item], env=self.environment, cwd=self.work, timeout=30,
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, text=True)
        self.assertEqual((0, ""), (second.returncode, second.stdout))
        self.find("Open protected folder", "dialog")
        self.resize(920, 1200)
        self.picture("sheet")
        self.fill("Password", PASSWORD, 1)
        self.key_("Return")
        self.find("Close Docs now", seconds=60)
        self.find("Open as a Smart Folder")
        self.waitUntilGone("Open protected folder")
        self.picture("open")
        self.assertEqual("private", (folder / "file").read_text())
        self.quit()
        self.assertFalse(os.path.ismount(folder))
        self.assertFalse(folder.exists())
        self.assertTrue(item.exists())


class Keyboard(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()
        self.start()

    def test_modes(self):
        titles = ["Lock a folder", "Open a protected folder", "Remove password protection",
                  "Change the password", "Open as a Smart Folder"]
        for number in (5, 4, 3, 2, 1):
            self.mode(number)
            self.find(titles[number - 1], "heading")
            self.picture(f"mode-{number}")
        for number, title in enumerate(("Lock", "Open", "Remove", "Change", "Smart")):
            self.press(title)
            self.find(titles[number], "heading")
        self.quit()

    def test_sheets(self):
        for button, sheet in (("Guide", "Guide"), ("About Quillvane", "About Quillvane")):
            self.press(button, "push button")
            self.find(sheet, "dialog")
            self.picture(sheet.split()[0])
            self.key_("Escape")
            self.assertTrue(eventually(lambda: not self._look(sheet, "dialog")))
        self.quit()

    def test_tab_order(self):
        reached = {1: ["Choose the folder to protect…", "Password", "Repeat password",
                       "Lock with password"],
                   5: ["Choose a folder to make smart…", "Create Smart Folder",
                       "Choose a Smart Folder…", "Use recovery key instead", "Open in place",
                       "Auto-close after"]}
        self.resize(920, 1200)
        for number, names in reached.items():
            self.mode(number)
            seen = self._tabThroughAll()
            for name in [*names, "Lock", "Smart", "Guide", "About Quillvane", "Show password"]:
                self.assertIn(name, seen)
        self.quit()

    def _tabThroughAll(self):
        """The names of what has the focus, from one Tab to the next, until it is back."""
        seen, paths = [], []
        while True:
            self.key_("Tab")
            focused = eventually(lambda: [e for e in self.elements()
                                          if e.has(FOCUSED) and e.path not in paths[-1:]
                                          and e.role != "frame"])
            self.assertTrue(focused, f"nothing has the focus after {seen}")
            if focused[-1].path in paths:
                return seen
            paths.append(focused[-1].path)
            seen.append(focused[-1].name)
            self.picture("tab")


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
