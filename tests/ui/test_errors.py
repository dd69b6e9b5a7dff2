"""What the window says when an operation fails, and that no secret stays in it."""

import json
import os
import re
import unittest

import window
from quillvane import eventually
from window import PASSWORD, WindowCase

GONE = "The selected item no longer exists."
MISMATCH = "The two passwords don't match."
EMPTY = "Password can't be empty."
WRONG = "Wrong password."
WRONG_KEY = "Wrong password: can't open the vault."
INVALID_KEY = "Invalid recovery key. Check that you typed it correctly."
UNREADABLE = "The key file is unreadable: use your recovery key to get back in."
MISSING = "The key file next to the item is missing: use your recovery key to get back in."
KEY_FIELD = "Recovery key (XXXX-XXXX-…)"


class Errors(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def attempt(self, *texts, button):
        """Fills the pane's lines in their order, each with its text, and presses the button."""
        lines = [e for e in self.elements() if e.role == "text"]
        self.assertEqual(len(texts), len(lines))
        for line, text in zip(lines, texts):
            if text:
                line.focus()
                self.assertTrue(eventually(lambda: self.focused().path == line.path))
                self.typeInto(line, text)
        last = [e for e in self.elements() if e.name == button and e.role == "push button"][-1]
        last.focus()  # "Open" is a mode's name too
        self.assertTrue(eventually(lambda: self.focused().path == last.path))
        self.key_("space")

    def assertSays(self, text):
        """Waits for this message, alone, and for the forms without secrets."""
        def messages():
            return [e.name for e in self.elements() if e.role == "alert message"]
        self.assertTrue(eventually(lambda: messages() == [text], 30), messages())
        self.find("Ready")
        self.assertEqual([""] * len(self.secrets()), self.secrets())
        self.picture("error")

    def keyFile(self, item):
        return item.with_name(f".{item.name}.qvkeys")

    def useRecoveryKey(self):
        self.press("Use recovery key instead")
        self.find(KEY_FIELD)

    # Protecting

    def chooseFolder(self, folder):
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.find(folder.name)

    def tryToProtect(self, text, password=PASSWORD, confirm=PASSWORD):
        self.attempt(password, confirm, button="Lock with password")
        self.assertSays(text)

    def test_protecting(self):
        folder, other = self.makeFolder("Docs"), self.work / "Other"
        self.start()
        self.press("Lock with password")  # nothing is chosen: nothing happens
        self.chooseFolder(folder)
        self.assertEqual([], [e for e in self.elements() if e.role == "alert message"])
        self.tryToProtect(EMPTY, "", "")
        self.tryToProtect(EMPTY, "", PASSWORD)
        self.tryToProtect(MISMATCH, PASSWORD, PASSWORD + "x")
        self.tryToProtect(MISMATCH, PASSWORD, "")
        (self.work / "Docs.quillvane").touch()
        self.tryToProtect('"Docs.quillvane" already exists here. Remove or rename it first.')
        (self.work / "Docs.quillvane").unlink()
        folder.rename(other)
        self.tryToProtect(GONE)
        folder.write_text("a file meanwhile")
        self.tryToProtect("The selected item isn't a folder.")
        folder.unlink()
        folder.symlink_to(other)
        self.tryToProtect("Choose a regular folder (not a package or a system volume).")
        folder.unlink()
        other.rename(folder)
        self._protectWhatFails(folder)
        self.quit()

    def _protectWhatFails(self, folder):
        """The folder can be read, and there is room for it, only after these."""
        secret = folder / "secret"
        secret.touch()
        secret.chmod(0)
        self.tryToProtect("Couldn't copy the contents into the vault.\n"
                     "ditto: Docs/secret: cannot be read: Permission denied")
        secret.unlink()
        with open(secret, "w") as file:
            for size in (1 << 60, 1 << 50, 1 << 43):  # as large as the file system lets it be
                try:
                    file.truncate(size)
                    break
                except OSError:
                    pass
        self.attempt(PASSWORD, PASSWORD, button="Lock with password")
        pattern = (r"Not enough disk space\. You need at least \S+ (TB|PB|EB) free, but only "
                   r"\S+ \wB is available\. Free up space and try again\.")
        self.assertTrue(eventually(lambda: any(
            re.fullmatch(pattern, e.name) for e in self.elements() if e.role == "alert message")))
        self.assertEqual(["", ""], self.secrets())
        self.assertEqual([folder.name], os.listdir(self.work))

    def test_a_name_too_long(self):
        folder = self.makeFolder("x" * 250)
        self.start()
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.tryToProtect("Couldn't create the encrypted vault.\nFile name too long")
        self.quit()

    # Opening

    def test_opening(self):
        item = self.makeItem()
        keys = self.keyFile(item)
        right = keys.read_text()
        self.start()
        self.mode(2)
        self.choose("Choose a locked item to open…", "Choose a locked item to open", item)

        def opened(text, secret):
            self.attempt(secret, button="Open")
            self.assertSays(text)
            self.find("Docs.quillvane")  # it stays chosen, for another attempt
        opened(EMPTY, "")
        opened(WRONG, "wrong")
        self.useRecoveryKey()
        opened(INVALID_KEY, "")
        opened(INVALID_KEY, self.key[:-1])
        opened(WRONG_KEY, ("A" if self.key[0] != "A" else "B") + self.key[1:])
        self.press("Use recovery key instead")
        self._openWithoutKeys(keys, right, opened)
        (self.home / "Volumes").write_text("no folder")
        self.attempt(PASSWORD, button="Open")
        self.find("Couldn't mount the image.", seconds=60, prefix=True)
        self.assertEqual([""], self.secrets())
        (self.home / "Volumes").unlink()
        item.unlink()
        opened(GONE, PASSWORD)
        self.quit()

    def _openWithoutKeys(self, keys, right, opened):
        keys.write_text(json.dumps(json.loads(right) | {"salt": "?"}))
        opened(UNREADABLE, PASSWORD)
        keys.write_text("damaged")
        opened(WRONG_KEY, PASSWORD)
        keys.unlink()
        opened(WRONG_KEY, PASSWORD)
        keys.write_text(right)

    # Removing

    def test_removing(self):
        item = self.makeItem()
        folder = self.work / "Docs"
        self.start()
        self.mode(3)
        title = "Choose a locked item to turn back into a folder"
        self.choose(title + "…", title, item)

        def removed(text, secret):
            self.attempt(secret, button="Remove password")
            self.assertSays(text)
        removed(EMPTY, "")
        removed(WRONG, "wrong")
        self.useRecoveryKey()
        removed(INVALID_KEY, "AAAA")
        self.press("Use recovery key instead")
        folder.mkdir()
        removed('A folder named "Docs" already exists here. Rename or remove it before removing '
                'the password.', PASSWORD)
        folder.rmdir()
        self.work.chmod(0o500)
        self.addCleanup(self.work.chmod, 0o700)
        removed("Couldn't extract the contents. The encrypted vault was left untouched.\n"
                "Permission denied", PASSWORD)
        self.work.chmod(0o700)
        self.assertTrue(item.exists())
        item.unlink()
        removed(GONE, PASSWORD)
        self.quit()

    # Changing

    def test_changing(self):
        item = self.makeItem()
        keys = self.keyFile(item)
        right = keys.read_text()
        self.start()
        self.mode(4)
        self.press("Change password", "push button")  # nothing is chosen: nothing happens
        self.choose("Choose a locked item…", "Choose a locked item", item)
        self.assertEqual([], [e for e in self.elements() if e.role == "alert message"])
        self._changeWithoutStarting()

        def changed(text, secret):
            self.attempt(secret, "new", "new", button="Change password")
            self.assertSays(text)
        changed(WRONG, "wrong")
        changed(EMPTY, "")
        self.useRecoveryKey()
        changed(INVALID_KEY, "AAAA")
        self.press("Use recovery key instead")
        keys.write_text(json.dumps(json.loads(right) | {"wrapped": "?"}))
        changed(UNREADABLE, PASSWORD)
        keys.unlink()
        changed(MISSING, PASSWORD)
        keys.write_text(right)
        self.quit()

    def _changeWithoutStarting(self):
        """These are told at once, so that what was typed stays."""
        self.fill("Password", PASSWORD)
        self.press("Change password", "push button")
        self.find("The new password can't be empty.")
        self.fill("Repeat new password", "new")
        self.press("Change password", "push button")
        self.find("The new password can't be empty.")
        self.fill("New password", "other")
        self.press("Change password", "push button")
        self.find("The two new passwords don't match.")
        self.assertEqual(["•" * len(PASSWORD), "•••••", "•••"], self.secrets())
        self.mode(3)
        self.mode(4)
        self.waitUntilGone("The two new passwords don't match.")
        for name in ("Password", "New password", "Repeat new password"):
            self.field(name).focus()
            self.waitForFocus(name)
            self.key_("ctrl+a", "BackSpace")
        self.assertTrue(eventually(lambda: self.secrets() == ["", "", ""]))


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
