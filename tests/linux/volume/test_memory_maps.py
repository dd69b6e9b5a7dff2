"""Files mapped into memory."""

import mmap
import os
import unittest

from quillvane import pseudoRandom, tool
from volume import VolumeCase

PAGE = mmap.PAGESIZE


class MemoryMapsTest(VolumeCase):

    def map_(self, fd, length, flags=mmap.MAP_SHARED):
        mapped = mmap.mmap(fd, length, flags, mmap.PROT_READ | mmap.PROT_WRITE)
        self.opened.callback(mapped.close)
        return mapped

    def test_whatIsWrittenIntoAMapIsInTheFile(self):
        model = bytearray(pseudoRandom(20 * PAGE + 10, 1))
        path = self.fileWith("file", model)
        fd = self.open_(path)
        mapped = self.map_(fd, len(model))
        for offset in (0, PAGE - 1, 5 * PAGE, 20 * PAGE + 9):
            mapped[offset:offset + 1] = model[offset:offset + 1] = b"!"
        self.assertEqual(model, path.read_bytes())
        mapped.flush()
        mapped[7 * PAGE] = model[7 * PAGE] = 7
        mapped.close()
        os.close(fd)
        self.reattach()
        self.assertEqual(model, path.read_bytes())

    def test_detachingBringsUnsyncedMapsToTheDisk(self):
        path = self.fileWith("file", bytes(100 * PAGE))
        fd = self.open_(path)
        mapped = self.map_(fd, 100 * PAGE)
        mapped[:] = pseudoRandom(100 * PAGE, 2)
        self.succeed(tool("hdiutil"), "detach", "-force", self.volume)
        self.opened.close()
        self.attach()
        self.assertEqual(pseudoRandom(100 * PAGE, 2), path.read_bytes())

    def test_writesShowInMapsAndHolesCanBeWritten(self):
        path = self.fileWith("file", b"a" * PAGE)
        os.truncate(path, 4 * PAGE)
        fd = self.open_(path)
        mapped = self.map_(fd, 4 * PAGE)
        self.assertEqual(b"a" + bytes(3), mapped[PAGE - 1:PAGE + 3])
        os.pwrite(fd, b"written", PAGE)
        self.assertEqual(b"written", mapped[PAGE:PAGE + 7])
        mapped[3 * PAGE] = ord("m")
        mapped.flush()
        self.assertEqual(3 * 8, path.stat().st_blocks)
        mapped.close()
        os.close(fd)
        self.reattach()
        self.assertEqual(b"m", path.read_bytes()[3 * PAGE:3 * PAGE + 1])

    def test_whatIsBeyondTheEndOfTheFileStaysOutOfIt(self):
        path = self.fileWith("file", b"short" + bytes(PAGE - 5))
        fd = self.open_(path)
        mapped = self.map_(fd, PAGE)
        os.ftruncate(fd, 5)
        mapped[5:PAGE] = b"x" * (PAGE - 5)
        mapped.flush()
        mapped.close()
        os.close(fd)
        os.truncate(path, 100)
        self.reattach()
        self.assertEqual(b"short" + bytes(95), path.read_bytes())

    def test_privateMapsChangeNothing(self):
        path = self.fileWith("file", b"kept" * 10)
        mapped = self.map_(self.open_(path), 40, mmap.MAP_PRIVATE)
        mapped[:4] = b"lost"
        self.assertEqual(b"kept" * 10, path.read_bytes())

    def test_mapsOfFilesWithoutNames(self):
        path = self.fileWith("file", bytes(PAGE))
        fd = self.open_(path)
        mapped = self.map_(fd, PAGE)
        path.unlink()
        mapped[:5] = b"alive"
        mapped.flush()
        self.assertEqual(b"alive", os.pread(fd, 5, 0))

    def test_changesTheTimeOfModification(self):
        path = self.fileWith("file", bytes(PAGE))
        os.utime(path, (1, 1))
        fd = self.open_(path)
        mapped = self.map_(fd, PAGE)
        mapped[0] = 1
        mapped.flush()
        self.assertGreater(path.stat().st_mtime, 1)


if __name__ == "__main__":
    unittest.main()
