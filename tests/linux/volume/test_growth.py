"""A volume that grows while it is in use, and an image that stays close to what it holds."""

import errno
import os
import unittest

from quillvane import eventually, pseudoRandom
from volume import SmallDiskCase, VolumeCase, usedInodes

MEBIBYTE = 1 << 20


def onDisk(image):
    return os.stat(image).st_blocks * 512


class GrowthTest(VolumeCase):

    size = "10m"

    def test_takesMoreThanItWasMadeFor(self):
        first = os.stat(self.image).st_size
        self.assertLess(first, 70 * MEBIBYTE)
        content = pseudoRandom(MEBIBYTE, 1)
        with open(self.volume / "big", "wb") as file:
            for _ in range(400):
                file.write(content)
        length = os.stat(self.image).st_size
        self.assertIn(length, range(400 * MEBIBYTE, 500 * MEBIBYTE))
        self.reattach()
        self.assertEqual(length, os.stat(self.image).st_size)
        with open(self.volume / "big", "rb") as file:
            for _ in range(400):
                self.assertEqual(content, file.read(MEBIBYTE))
        self.assertEqual(b"", (self.fileWith("more")).read_bytes())

    def test_takesManyMoreFilesThanItsSizeSuggests(self):
        count = 20_000
        (self.volume / "many").mkdir()
        before = usedInodes(os.statvfs(self.volume))
        for number in range(count):
            (self.volume / "many" / str(number)).write_bytes(b"x" * 100)
        self.assertEqual(count, usedInodes(os.statvfs(self.volume)) - before)
        self.reattach()
        self.assertEqual(count, len(os.listdir(self.volume / "many")))
        self.assertEqual(b"x" * 100, (self.volume / "many" / "19999").read_bytes())

    def test_reservesMoreThanItHas(self):
        with open(self.volume / "reserved", "wb") as file:
            os.posix_fallocate(file.fileno(), 0, 300 * MEBIBYTE)
        self.assertGreater(onDisk(self.image), 300 * MEBIBYTE)

    def test_givesBackWhatIsDeleted(self):
        empty = onDisk(self.image)
        kept = pseudoRandom(5 * MEBIBYTE, 2)
        for number in range(20):
            self.fileWith(f"gone {number}", pseudoRandom(5 * MEBIBYTE, 3))
            self.fileWith(f"kept {number}", kept)
        os.sync()
        full = onDisk(self.image)
        for number in range(20):
            (self.volume / f"gone {number}").unlink()
        self.assertTrue(eventually(
            lambda: onDisk(self.image) <= full - 99 * MEBIBYTE, seconds=20))
        for number in range(10):
            (self.volume / f"kept {number}").unlink()
        self.detach()  # does not leave it for later
        self.assertLess(onDisk(self.image), empty + 52 * MEBIBYTE)
        self.attach()
        for number in range(10, 20):
            self.assertEqual(kept, (self.volume / f"kept {number}").read_bytes())


class SmallDiskTest(SmallDiskCase):

    size = "1m"

    def promised(self):
        found = os.statvfs(self.volume)
        return found.f_bavail * found.f_frsize

    def test_whatIsPromisedCanBeWritten(self):
        disk = os.statvfs(self.image.parent)
        promised = self.promised()
        self.assertLessEqual(promised, disk.f_bavail * disk.f_frsize)
        self.assertGreater(promised, disk.f_bavail * disk.f_frsize * 9 // 10)
        with open(self.volume / "big", "wb", buffering=0) as file:
            content = pseudoRandom(promised, 1)
            self.assertEqual(promised, file.write(content))
            os.fsync(file.fileno())
            with self.assertErrno(errno.ENOSPC):
                while True:  # not much more
                    file.write(content[:MEBIBYTE])
                    self.assertLess(file.tell(), promised + 10 * MEBIBYTE)
        self.assertLess(self.promised(), MEBIBYTE)
        self.reattach()
        self.assertEqual(content, (self.volume / "big").read_bytes()[:promised])

    def test_otherFilesOnTheDiskCount(self):
        before = self.promised()
        ballast = self.image.parent / "ballast"
        ballast.write_bytes(bytes(30 * MEBIBYTE))
        self.assertIn(before - self.promised(), range(29 * MEBIBYTE, 31 * MEBIBYTE))
        ballast.unlink()
        self.assertEqual(before, self.promised())

    def test_growsAgainWhenThereIsRoom(self):
        ballast = self.image.parent / "ballast"
        ballast.write_bytes(bytes(60 * MEBIBYTE))
        with open(self.volume / "big", "wb", buffering=0) as file:
            with self.assertErrno(errno.ENOSPC):
                while True:
                    file.write(bytes(MEBIBYTE))
            held = file.tell()
            ballast.unlink()
            for _ in range(50):
                self.assertEqual(MEBIBYTE, file.write(bytes(MEBIBYTE)))
        self.reattach()
        self.assertEqual(held + 50 * MEBIBYTE, (self.volume / "big").stat().st_size)

    def test_whatIsDeletedOnAFullDiskCanBeWrittenAgain(self):
        for round_ in range(3):
            written = 0
            with self.assertErrno(errno.ENOSPC):
                while True:
                    self.fileWith(str(written), pseudoRandom(MEBIBYTE, written))
                    written += 1
            self.assertGreater(written, 60)
            for number in range(0, written, 2):
                (self.volume / str(number)).unlink()
            for number in range(0, written - 2, 2):
                self.fileWith(str(number), pseudoRandom(MEBIBYTE, number))
            for number in range(written - 2):
                self.assertEqual(pseudoRandom(MEBIBYTE, number),
                                 (self.volume / str(number)).read_bytes())
            for name in os.listdir(self.volume):
                (self.volume / name).unlink()


if __name__ == "__main__":
    unittest.main()
