"""Opening in place where the user may not write. As an ordinary user: modes mean nothing to root."""

import unittest

import in_place


class InPlacePermissionsTest(in_place.InPlaceCase):
    def testInADirectoryThatCannotBeWrittenTo(self):
        item, _ = self.smallItem()
        self.addCleanup(self.work.chmod, 0o755)
        self.work.chmod(0o555)
        self.assertOpenFails(item, "Permission denied")
        self.work.chmod(0o755)
        (self.work / "Docs").mkdir()
        self.work.chmod(0o555)
        before = self.state()
        self.openInPlace(item)
        self.assertIsNone(self.hiddenNames())
        self.closeInPlace(item)
        self.assertEqual(before, self.state())


if __name__ == "__main__":
    unittest.main()
