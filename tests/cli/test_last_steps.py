"""Failures after the copy is whole: the original cannot be deleted, the image cannot be renamed, the
volume cannot be ejected. Everything is there in the end, and its password opens it. Needs root, for
files that not even their owner may delete, and for faults in system calls."""

import os
import re
import subprocess
import unittest

import items
import quillvane

IMAGE = r"\.Quillvane-[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}\.sparseimage"


class LastStepsTest(items.ItemCase):
    def setUp(self):
        super().setUp()
        self.folder = quillvane.makeTree(self.work / "Docs")
        self.before = quillvane.describe(self.folder)

    def keep(self, path):
        """Makes a file that cannot be deleted until the test has ended."""
        subprocess.run(["chattr", "+i", path], check=True)
        self.addCleanup(subprocess.run, ["chattr", "-i", path])

    def workingImage(self):
        """The working image that was left, which has its key file beside it."""
        (image,) = (name for name in os.listdir(self.work) if re.fullmatch(IMAGE, name))
        self.assertTrue(items.keyFile(self.work / image).exists())
        return self.work / image

    def assertHoldsEverything(self, image):
        """An image with a key file opens under the name of an item, and nothing is missing."""
        item = self.work / "Found.quillvane"
        items.keyFile(image).rename(items.keyFile(item))
        image.rename(item)
        self.assertSameAs(self.before, self.remove(item))

    def assertSameAs(self, before, tree):
        self.assertEqual([], quillvane.differences(before, quillvane.describe(tree)))

    def fails(self, inject, *words):
        """Runs qv, which has to fail, with faults in system calls; what it says."""
        status, says = self.faulty(inject, *words)
        self.assertEqual(1, status, says)
        return says

    def testOriginalThatCannotBeDeleted(self):
        self.keep(self.folder / "letters/ada.txt")
        result = self.qv("lock", self.folder)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        image = self.workingImage()
        self.assertEndsWith(f"\nYour data is safe in the vault ({image}), but the original folder "
                            f'"{self.folder}" couldn\'t be deleted. Delete it manually.\n',
                            self.assertOffered(self.folder, result.stderr))
        self.assertNothingLeft("Docs", image.name, items.keyFile(image).name, notes=1)
        self.assertHoldsEverything(image)

    def testItemThatCannotBeDeleted(self):
        item, _ = self.lock(self.folder)
        self.keep(item)
        result = self.qv("remove", item)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertEndsWith("\nYour data is safe in the vault (Operation not permitted), but the "
                            f'original folder "{item}" couldn\'t be deleted. Delete it manually.\n',
                            self.assertOffered(item, result.stderr))
        self.assertIn("Deleting the encrypted item…", result.stderr)
        self.assertNothingLeft("Docs", item.name, items.keyFile(item).name, notes=1)
        self.assertSameAs(self.before, self.folder)

    def testImageThatCannotBeRenamed(self):
        # qv renames the two key files into place first.
        says = self.fails("rename:error=EIO:when=3", "lock", self.folder)
        image = self.workingImage()
        self.assertEndsWith("\nFinal rename failed.\nEncrypted image available at: "
                            f"{image}\nInput/output error\n",
                            self.assertOffered(self.folder, says))
        self.assertNothingLeft(image.name, items.keyFile(image).name, notes=1)
        self.assertHoldsEverything(image)

    def testKeyFileThatCannotBeWrittenInTime(self):
        # The first, beside the working image: the original is still there.
        says = self.fails("rename:error=EIO:when=1", "lock", self.folder)
        self.assertEndsWith("\nInput/output error\n", says)
        self.assertNothingLeft("Docs")
        self.assertSameAs(self.before, self.folder)
        # The one beside the item, twice: the first one takes its place.
        status, says = self.faulty("rename:error=ENOSPC:when=2..4+2", "lock", self.folder)
        self.assertEqual(0, status, says)
        self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.assertSameAs(self.before, self.remove("Docs.quillvane"))

    def testVolumeThatCannotBeUnmounted(self):
        # Neither plainly nor lazily, nor by the helper program.
        says = self.fails("umount2:error=EBUSY", "lock", self.folder)
        self.assertRegex(says, r"(?s)\nCouldn't eject the volume\.\n.+\n$")
        self.assertSameAs(self.before, self.folder)

    def testOperationThatCannotBeNoted(self):
        says = self.fails("fsync:error=EIO", "lock", self.folder)
        self.assertRegex(says, "\nNothing was changed, because the operation couldn't be noted in "
                               "case it is interrupted\\.\n.*: Input/output error\n$")
        self.assertNothingLeft("Docs")
        self.assertSameAs(self.before, self.folder)

    def testImageThatCannotBeSynced(self):
        # The first two are qv's own, for its note.
        (self.home / ".local/state/quillvane/operations").mkdir(parents=True)
        says = self.fails("fsync,fdatasync,syncfs:error=EIO:when=3+", "lock", self.folder)
        self.assertIn("Couldn't c", says)
        # The removal of what was made may not last: its note does.
        self.assertNothingLeft("Docs", notes=1)
        self.assertEqual("", self.succeed("finish", secrets=()))
        self.assertNothingLeft("Docs")
        self.assertSameAs(self.before, self.folder)


if __name__ == "__main__":
    unittest.main()
