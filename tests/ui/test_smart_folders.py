"""Smart Folders: made, opened in place and closed; and items opened from the file manager."""

import os
import unittest

import window
from quillvane import eventually
from window import CHECKED, PASSWORD, WindowCase

CREATE = "Choose a folder to make smart…"
CHOOSE = "Choose a Smart Folder…"
SHEET = "Open protected folder"
WRONG = "Wrong password."


def opened(name, minutes=5):
    return (f'"{name}" opened in place. It closes by itself after {minutes} min of inactivity, or '
            "on screen lock / logout.")


class SmartCase(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def assertOpen(self, folder, isOpen=True):
        self.assertEqual(isOpen, os.path.ismount(folder))
        self.assertEqual(isOpen, folder.exists())
        self.assertTrue(folder.with_name(folder.name + ".quillvane").exists())


class SmartFolders(SmartCase):
    def test_creating_opening_and_closing(self):
        folder = self.makeFolder("My Docs")
        self.start()
        self.mode(5)
        self._create(folder)
        self.assertOpen(folder, False)
        self._open(folder)
        self.assertOpen(folder)
        self.assertEqual("private", (folder / "file").read_text())
        (folder / "file").write_text("changed")
        self.reach("Show " + folder.name)
        self.next()
        self.waitForFocus(f"Close {folder.name} now")
        self.picture("open")
        self.key_("space")
        self.find(f'"{folder.name}" closed and encrypted.', seconds=60)
        self.find("None is open.")
        self.picture("closed")
        self.assertOpen(folder, False)
        self.quit()

    def _create(self, folder):
        self.choose(CREATE, "Choose a folder to make smart", folder)
        self.find(folder.name)
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD + "x")
        self.key_("Return")
        self.find("The two passwords don't match.")
        self.assertEqual({""}, set(self.secrets()))
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.picture("filled")
        self.key_("Return")
        self.key = self.takeRecoveryKey()
        self.find(f"Smart folder created:\n{folder.name}.quillvane\n\nIt now looks like a folder: "
                  "double-click, enter your password, and it opens in place — then closes itself.")
        self.assertEqual({""}, set(self.secrets()))

    def _open(self, folder):
        """With the recovery key that was shown, and 15 minutes instead of 5."""
        self.reach("Auto-close after")
        self.assertEqual("5 min", self._minutes())
        self.key_("Down")
        self.assertTrue(eventually(lambda: self._minutes() == "15 min"), self._minutes())
        self.choose(CHOOSE, "Choose a smart folder", f"{folder}.quillvane")
        self.press("Use recovery key instead")
        self.fill("Recovery key (XXXX-XXXX-…)", self.key.lower())
        self.key_("Return")
        self.find(opened(folder.name, 15), seconds=60)
        self.assertEqual({""}, set(self.secrets()))

    def _minutes(self):
        return self.find("Auto-close after", "combo box").description

    def test_errors(self):
        item = self.makeItem()
        folder = self.work / "Docs"
        self.start()
        self.mode(5)
        self.choose(CHOOSE, "Choose a smart folder", item)
        self._openWith("wrong", WRONG)
        self._openWith("", "Password can't be empty.")
        folder.mkdir()
        (folder / "file").touch()
        self._openWith(PASSWORD, 'A folder named "Docs" already exists here. Rename or remove it '
                                 'before removing the password.')
        (folder / "file").unlink()
        folder.rmdir()
        self._openWith(PASSWORD, opened("Docs"))
        self._openWith(PASSWORD, '"Docs" is already open.')
        with open(folder / "file"):
            self._close("The folder is in use (open files): it will close automatically once it's "
                        "free.")
            self.assertOpen(folder)
        self._close('"Docs" closed and encrypted.')
        item.unlink()
        self._openWith(PASSWORD, "The selected item no longer exists.")
        self.quit()

    def _openWith(self, password, message):
        field = self.field("Password", 1)
        field.focus()
        self.assertTrue(eventually(lambda: self.focused().path == field.path))
        self.typeInto(field, password)
        self.key_("Return")
        self.find(message, seconds=60)
        self.find("Ready")
        self.picture("message")
        self.assertTrue(eventually(lambda: set(self.secrets()) == {""}), self.secrets())

    def _close(self, message):
        self.reach("Close Docs now")
        self.key_("space")
        self.find(message, seconds=60)


class FromOutside(SmartCase):
    def setUp(self):
        super().setUp()
        self.item = self.makeItem()
        self.folder = self.work / "Docs"

    def test_opening(self):
        # The sheet is typed into as it comes: the keys go to its first line.
        self.start(self.item)
        self.find(SHEET, "dialog")
        self.find("Docs.quillvane")
        field = self.waitForFocus("Password")
        self.picture("sheet")
        self.typeInto(field, "wrong")
        self.assertEqual(["•••••"], self.secrets()[-1:])
        self.key_("Return")
        self.find(WRONG, seconds=60)
        self.find("Open as a Smart Folder", "heading")
        self.waitUntilGone(SHEET)
        self.assertEqual({""}, set(self.secrets()))
        self.assertOpen(self.folder, False)
        self.openFromOutside(self.item)
        self.typeInto(self.waitForFocus("Password"), PASSWORD)
        self.key_("Return")
        self.find(opened("Docs"), seconds=60)
        self.waitUntilGone(SHEET)
        self.assertOpen(self.folder)
        self.assertEqual("private", (self.folder / "file").read_text())
        self.quit()
        self.assertOpen(self.folder, False)

    def test_recovery_key(self):
        self.start()
        self.openFromOutside(self.item)
        self.waitForFocus("Password")
        self.reach("Use recovery key instead")
        self.key_("space")
        self.waitForState("Use recovery key instead", CHECKED)
        self.typeInto(self.next("shift+Tab"), self.key)
        self.key_("Return")
        self.find(opened("Docs"), seconds=60)
        self.quit()
        self.assertOpen(self.folder, False)

    def test_cancelling(self):
        self.start()
        self.mode(2)
        for button in (None, "Cancel"):
            self.openFromOutside(self.item)
            self.typeInto(self.waitForFocus("Password"), PASSWORD)
            self.mode(3)  # the window beneath is out of reach
            if button:
                self.reach(button)
                self.key_("space")
            else:
                self.key_("Escape")
            self.waitUntilGone(SHEET)
            self.find("Open a protected folder", "heading")
            self.assertEqual([""], self.secrets())
        self.openFromOutside(self.item)
        self.assertEqual("", self.waitForFocus("Password").text)  # nothing of what was typed
        self.key_("Escape")
        self.waitUntilGone(SHEET)
        self.next()  # the keyboard works on in the window
        self.assertOpen(self.folder, False)
        self.quit()

    def test_a_second_item(self):
        other = self.makeItem("Other")
        self.start(self.item)
        self.waitForFocus("Password")
        self.find("Docs.quillvane")
        self.openFromOutside(other)
        self.find("Other.quillvane")
        self.waitUntilGone("Docs.quillvane")
        self.typeInto(self.waitForFocus("Password"), PASSWORD)
        self.key_("Return")
        self.find(opened("Other"), seconds=60)
        self.assertOpen(self.work / "Other")
        self.assertOpen(self.folder, False)
        self.quit()

    def test_a_recovery_key_comes_before_the_sheet(self):
        # Both sheets in turn take the keys.
        self.start(program=self.programThatWaits("ditto"))
        self.protect(self.makeFolder("Other"))
        self.openFromOutside(self.item)
        self.find(SHEET)
        self.goOn()
        self.waitForFocus("Recovery key", 60)
        self.assertIsNone(self.look(SHEET))
        self.takeRecoveryKey()
        self.waitForFocus("Password")
        self.key_("Escape")
        self.waitUntilGone(SHEET)
        self.waitForFocus("Repeat password")
        self.quit()

    def test_while_a_recovery_key_is_shown(self):
        # What cannot be seen again goes first.
        other = self.makeFolder("Other")
        self.start()
        self.protect(other)
        self.waitForFocus("Recovery key", 60)
        self.openFromOutside(self.item)
        self.reach("I saved my recovery key")
        self.assertIsNone(self.look(SHEET))
        self.key_("space")
        self.waitForState("I saved my recovery key", CHECKED)
        self.reach("Continue")
        self.key_("space")
        self.typeInto(self.waitForFocus("Password"), PASSWORD)
        self.key_("Return")
        self.find(opened("Docs"), seconds=60)
        self.assertOpen(self.folder)
        self.quit()
        self.assertOpen(self.folder, False)


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
