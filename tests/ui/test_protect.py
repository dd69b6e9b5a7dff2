"""A folder that the file manager wants protected."""

import unittest

import window
from quillvane import eventually
from window import PASSWORD, WindowCase

PROTECT = "Choose the folder to protect…"


class Protect(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def ask(self, folder):
        """What the file manager does: another start, which hands the folder over and ends."""
        self.openFromOutside("--protect", folder)

    def test_with_the_start(self):
        folder = self.makeFolder("Ümlaut ordner 100%")
        self.start("--protect", folder)
        zone = self.find(folder.name)
        self.assertTrue(eventually(lambda: "1 files · 7 bytes" in zone.description),
                        zone.description)
        self.picture("chosen")
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("Return")
        self.takeRecoveryKey()
        self.find(f"Locked. Your folder is protected:\n{folder}.quillvane")
        self.assertFalse(folder.exists())
        self.quit()

    def test_in_the_window_that_is_there(self):
        folder, other = self.makeFolder("Docs"), self.makeFolder("Other")
        file = self.work / "notes.txt"
        file.write_text("plain")
        self.start()
        self.mode(4)
        self.find("Choose a locked item…")
        self.ask(folder)
        self.find("Docs")
        self.ask(other)
        self.find("Other")
        self.ask(file)
        self.ask(self.work / "gone")
        self.find("Other")
        self.quit()

    def test_before_the_terms_are_accepted(self):
        (self.home / ".config/Quillvane/Quillvane.conf").unlink()
        folder = self.makeFolder("Docs")
        self.start("--protect", folder)
        self.press("I have read, understood, and accept the Terms of Use and the End User License "
                   "Agreement.")
        self.press("Agree and continue")
        self.find("Docs")
        self.quit()

    def test_while_an_operation_runs(self):
        folder, other = self.makeFolder("Docs"), self.makeFolder("Other")
        self.start("--protect", folder, program=self.programThatWaits("ditto"))
        self.find("Docs")
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("Return")
        self.find("Copying contents… 0%")
        self.ask(other)
        self.find("Docs")
        self.goOn()
        self.takeRecoveryKey()
        self.find("Other")
        self.find(f"Locked. Your folder is protected:\n{folder}.quillvane")
        self.assertTrue(other.exists())
        self.quit()


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
