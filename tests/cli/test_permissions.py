"""Failures that only an ordinary user meets: root may read and write everything."""

import unittest

import items
import quillvane
from items import PASSWORD


class PermissionTest(items.ItemCase):
    def testSourceThatCannotBeRead(self):
        for path, make in (("file", lambda path: path.write_text("x")),
                           ("folder", lambda path: path.mkdir())):
            folder = self.smallFolder()
            make(folder / path)
            mode = 0o600 if path == "file" else 0o700
            (folder / path).chmod(0)
            result = self.qv("lock", folder)
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assertIn("\nCouldn't copy the contents into the vault.\nditto: ", result.stderr)
            self.assertIn("Permission denied", result.stderr)
            self.assertNothingLeft("Docs")
            (folder / path).chmod(mode)
            quillvane.removeTree(folder)

    def testParentThatCannotBeWritten(self):
        place = self.work / "place"
        item, _ = self.smallItem("place/Docs")
        self.smallFolder("place/More")
        place.chmod(0o500)
        self.assertRefused("lock", place / "More",
                           says="Couldn't create the encrypted vault.\n"
                                "hdiutil: create failed - Permission denied")
        self.assertRefused("remove", item,
                           says="Couldn't extract the contents. The encrypted vault was left "
                                "untouched.\nPermission denied")
        self.assertRefused("change", item, secrets=(PASSWORD, "new"), says="Permission denied")
        self.open(item)  # for that the item alone counts
        self.close(item)
        place.chmod(0o700)
        self.remove(item)

    def testItemThatCannotBeRead(self):
        item, _ = self.smallItem()
        item.chmod(0)
        self.assertFails("open", item, says="Couldn't mount the image.\n"
                                            "hdiutil: attach failed - Permission denied")
        item.chmod(0o600)
        items.keyFile(item).chmod(0)
        self.assertFails("open", item, says="Wrong password: can't open the vault.")
        items.keyFile(item).chmod(0o600)
        self.remove(item)

    def testItemThatCannotBeWritten(self):
        item, _ = self.smallItem()
        item.chmod(0o400)
        volume = self.open(item)
        self.assertEqual("content", (volume / "file").read_text())
        with self.assertRaises(OSError):
            (volume / "new").write_text("x")
        self.close(item)
        self.remove(item)
        self.assertNothingLeft("Docs")


if __name__ == "__main__":
    unittest.main()
