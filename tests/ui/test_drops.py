"""Files dragged into the window from that of another program."""

import unittest

import window
from drags import Drag
from quillvane import eventually
from window import PASSWORD, WindowCase

PROTECT = "Choose the folder to protect…"
OPEN = "Choose a locked item to open…"
REMOVE = "Choose a locked item to turn back into a folder…"


class Drops(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def drop(self, zone, *paths):
        """Drops the files on the zone with this text."""
        drag = Drag(self, paths)
        drag.hover(self.find(zone), "copy")
        self.picture("drag")
        drag.drop()

    def assertUntouched(self, zone):
        self.find(zone)
        self.assertFalse([e.name for e in self.elements() if e.role == "alert message"])

    def test_folders(self):
        folder, other = self.makeFolder("Ümlaut ordner 100%"), self.makeFolder("Other")
        file = self.work / "notes.txt"
        file.write_text("plain")
        self.start()
        self.drop(PROTECT, file)
        self.assertUntouched(PROTECT)
        self.drop(PROTECT, file, self.work / "gone", folder, other)
        zone = self.find(folder.name)
        self.assertTrue(eventually(lambda: "1 files · 7 bytes" in zone.description),
                        zone.description)
        self.assertIn(str(self.work), zone.description)
        self.drop(folder.name, file)
        self.find(folder.name)  # what was chosen stays
        self.drop(folder.name, other)
        self.find("Other")
        self.assertTrue(file.exists() and folder.exists(), "a drop moved a file")
        self.quit()

    def test_a_dropped_folder_is_protected(self):
        folder = self.makeFolder("Ümlaut ordner 100%")
        self.start()
        self.drop(PROTECT, folder)
        self.find(folder.name)
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("Return")
        self.takeRecoveryKey()
        self.find(f"Locked. Your folder is protected:\n{folder}.quillvane")
        self.assertFalse(folder.exists())
        self.quit()

    def test_items(self):
        item, folder = self.makeItem(), self.makeFolder("Plain")
        capital = self.work / "Folder.QuillVane"  # any letters, and a folder is as good
        capital.mkdir()
        file = self.work / "notes.txt"
        file.write_text("plain")
        self.start()
        for mode, zone in ((2, OPEN), (3, REMOVE), (4, "Choose a locked item…"),
                           (5, "Choose a Smart Folder…")):
            self.mode(mode)
            self.drop(zone, file, folder)
            self.assertUntouched(zone)
            self.drop(zone, file, folder, item, capital)
            self.find(item.name)
        self.drop(item.name, capital)
        self.find(capital.name)
        self.mode(2)
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find("Mounted", seconds=60)
        self.press("Close and lock")
        self.find("Locked and ejected.", seconds=60)
        self.quit()

    def test_while_busy(self):
        # The drag begins before the operation, and comes down while it runs.
        folder, other = self.makeFolder("Docs"), self.makeFolder("Other")
        self.start(program=self.programThatWaits("ditto"))
        self.drop(PROTECT, folder)
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        drag = Drag(self, [other])
        zone = self.find("Docs")
        drag.hover(zone, "copy")
        self.find("Lock with password").act("Press")
        self.find("Copying contents… 0%")
        drag.hover(zone, "none")
        self.picture("busy")
        drag.drop()
        self.assertEqual([], [e.name for e in self.elements() if e.name == "Other"])
        self.goOn()
        self.takeRecoveryKey()
        self.find(f"Locked. Your folder is protected:\n{folder}.quillvane")
        self.assertTrue(other.exists())
        self.quit()


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
