"""What the window shows in the file manager: a stand-in for it gets exactly the right places."""

import unittest

import window
from drags import Drag
from quillvane import eventually
from window import PASSWORD, WindowCase

FILE_MANAGER = "org.freedesktop.FileManager1"


class Show(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def assertShown(self, *paths):
        expected = [str(path) for path in paths]

        def lines():
            return self.shown.read_text().splitlines()
        self.assertTrue(eventually(lambda: lines() == expected, 20), lines())

    def drop(self, zone, path):
        drag = Drag(self, [path])
        drag.hover(self.find(zone), "copy")
        drag.drop()
        self.find(path.name)

    def test_volume(self):
        item = self.makeItem("Ümlaut ordner 100%")
        self.start()
        self.mode(2)
        self.drop("Choose a locked item to open…", item)
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find("Mounted", seconds=60)
        point = self.home / "Volumes/Ümlaut ordner 100%"
        self.find(str(point))
        self.assertTrue(point.is_mount())
        self.assertShown(point)  # opening shows it by itself
        self.press("Show in Files")
        self.assertShown(point, point)
        self.press("Close and lock")
        self.find("Locked and ejected.", seconds=60)
        self.quit()
        self.assertShown(point, point)

    def test_smart_folder(self):
        item = self.makeItem("Ümlaut ordner 100%")
        folder = self.work / "Ümlaut ordner 100%"
        self.start()
        self.mode(5)
        self.drop("Choose a Smart Folder…", item)
        self.fill("Password", PASSWORD, 1)
        self.key_("Return")
        self.reach("Show " + folder.name)
        self.assertShown(folder)
        self.key_("space")  # there is nobody who reveals: the parent is shown instead
        self.assertShown(folder, self.work)
        revealer = self.mock(self.sessionBus, FILE_MANAGER, "/" + FILE_MANAGER.replace(".", "/"),
                             FILE_MANAGER, ("ShowItems", "ass", "", ""))
        self.key_("space")
        (uris, startupId), = revealer.waitForCalls("ShowItems")
        self.assertEqual([folder.as_uri()], [str(uri) for uri in uris])
        self.assertEqual("", startupId)
        self.quit()
        self.assertEqual(1, len(revealer.calls("ShowItems")))
        self.assertShown(folder, self.work)


if __name__ == "__main__":
    window.requireTools("xdg-open")
    unittest.main()
