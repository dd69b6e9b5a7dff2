"""Secrets are where the user puts them, and nowhere else."""

import os
import pathlib
import subprocess
import unittest

import window
from quillvane import eventually
from window import CHECKED, PASSWORD, WindowCase

NEW_PASSWORD = "battery staple"


class Secrets(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def selection(self, name, target="UTF8_STRING"):
        """What a selection of the display holds; None when nothing, or nothing of this kind."""
        result = self.run_("xclip", "-selection", name, "-out", "-target", target, timeout=20)
        return result.stdout if result.returncode == 0 else None

    def assertNowhere(self, *secrets):
        """Fails when one of the texts is where others could read it."""
        places = {f"selection {name}": (self.selection(name) or "").encode()
                  for name in ("primary", "secondary", "clipboard")}
        places |= self._titles() | self._processes() | self._seen()
        for secret in secrets:
            for place, content in places.items():
                self.assertNotIn(secret.encode(), content, place)
        self._assertInNoFile(secrets)

    def _titles(self):
        names = self.xdotool("search", "--name", ".", "getwindowname", "%@")
        self.assertIn("Quillvane", names)
        return {"titles": names.encode()}

    def _processes(self):
        """Command lines and environments of the program and all that it has started."""
        found = {}
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            for name in ("cmdline", "environ"):
                try:
                    found[f"{process / name}"] = (process / name).read_bytes()
                except OSError:
                    pass  # ended meanwhile, or protected even from its user
        self.assertIn(f"/proc/{self.program.pid}/cmdline", found)
        return found

    def _assertInNoFile(self, secrets):
        """None below the test's directory: home, runtime directory, items, what was printed."""
        self.assertEqual([], self._filesWith(secrets))
        bait = self.home / "bait"
        bait.write_text("x" + secrets[-1])
        self.assertEqual([str(bait)], self._filesWith(secrets))
        bait.unlink()

    def _filesWith(self, secrets):
        result = self.run_("env", "LC_ALL=C", "grep", "-rlF", "-f", "-", self.directory,
                           stdin="\n".join(secrets))
        self.assertEqual("", result.stderr)
        return result.stdout.splitlines()

    def _seen(self):
        """What assistive technology is told, but for the box of the recovery key."""
        return {f"{e.role} {e.name!r}": " ".join(
            [e.name, e.description, e.text if e.role == "text" else ""]).encode()
            for e in self.elements() if e.name != "Recovery key"}

    def test_whole_run(self):
        folder = self.makeFolder("Docs")
        self.start()
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("ctrl+a", "ctrl+c", "ctrl+x")  # a masked line gives nothing to the clipboard
        self.assertNowhere(PASSWORD)
        self.key_("Return")
        self.waitForFocus("Recovery key", 60)
        key = self.find("Recovery key").text
        self.assertNowhere(PASSWORD, key)
        self.takeRecoveryKey()
        self.assertNowhere(PASSWORD, key)
        self._change(folder.with_name("Docs.quillvane"), key)
        self._open(key)
        self.quit()

    def _change(self, item, key):
        self.mode(4)
        self.choose("Choose a locked item…", "Choose a locked item", item)
        self.press("Use recovery key instead")
        self.fill("Recovery key (XXXX-XXXX-…)", key)
        self.fill("New password", NEW_PASSWORD)
        self.fill("Repeat new password", NEW_PASSWORD)
        self.key_("Return")
        self.find("Password changed.", prefix=True, seconds=60)
        self.assertNowhere(PASSWORD, NEW_PASSWORD, key)

    def _open(self, key):
        self.openFromOutside(self.work / "Docs.quillvane")
        self.typeInto(self.waitForFocus("Password"), NEW_PASSWORD)
        self.assertNowhere(NEW_PASSWORD)
        self.key_("Return")
        self.assertTrue(eventually(lambda: os.path.ismount(self.work / "Docs"), 60))
        self.find("Ready")
        self.assertNowhere(PASSWORD, NEW_PASSWORD, key)

    def test_copied_recovery_key(self):
        folder = self.makeFolder("Docs")
        self.start()
        self.protect(folder)
        self.waitForFocus("Recovery key", 60)
        self.assertIsNone(self.selection("clipboard"))
        key = self.find("Recovery key").text
        self.press("Copy key")
        self.find("Copied")
        self._assertCopied(key)
        self._putIntoClipboard("other")
        self.assertEqual("other", self.selection("clipboard"))
        self.find("Recovery key").focus()
        self.waitForFocus("Recovery key")
        self.key_("ctrl+a", "ctrl+c")
        self._assertCopied(key)
        self._nextKey()
        self.quit()

    def _putIntoClipboard(self, text):
        subprocess.run(["xclip", "-selection", "clipboard"], env=self.environment, input=text,
                       text=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)

    def _assertCopied(self, key):
        self.assertTrue(eventually(lambda: self.selection("clipboard") == key))
        self.assertEqual("secret", self.selection("clipboard", "x-kde-passwordManagerHint"))

    def _nextKey(self):
        """For the next key the sheet is as it was at first."""
        self.press("I saved my recovery key")
        self.press("Continue")
        self.waitUntilGone("Save your recovery key now")
        other = self.makeFolder("Other")
        self.protect(other)
        self.waitForFocus("Recovery key", 60)
        self.assertFalse(self.find("I saved my recovery key").has(CHECKED))
        self.assertDisabled("Continue")
        self.find("Copy key")
        self.takeRecoveryKey()

    def test_shown_password(self):
        # The eye shows it, and masks it again; another operation masks what comes next.
        self.start()
        self.fill("Password", PASSWORD)
        self.press("Show password")
        self.assertTrue(eventually(lambda: self.field("Password").text == PASSWORD))
        self.press("Hide password")
        self.assertTrue(eventually(lambda: self.field("Password").text == "•" * len(PASSWORD)))
        self.press("Show password")
        self.field("Password").focus()
        self.waitForFocus("Password")
        self.key_("ctrl+a", "BackSpace")
        self.assertTrue(eventually(lambda: self.field("Password").text == ""))
        self.fill("Password", PASSWORD)
        self.assertEqual("•" * len(PASSWORD), self.field("Password").text)
        self.key_("ctrl+a", "BackSpace", "ctrl+z")  # what is gone does not come back
        self.assertTrue(eventually(lambda: self.field("Password").text == ""))
        self.quit()


if __name__ == "__main__":
    window.requireTools("xclip")
    unittest.main()
