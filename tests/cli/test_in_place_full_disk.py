"""Items on a disk that is full, or gets full while they are open in place. Needs root, to mount a small
one."""

import errno
import os
import subprocess
import unittest

import in_place
import quillvane


class InPlaceFullDiskTest(in_place.InPlaceCase):
    def setUp(self):
        super().setUp()
        self.disk = self.work / "disk"
        self.disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=80m", "tmpfs", self.disk], check=True)
        # Before the clean-up that detaches volumes.
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk], check=True)
        self.addNeighbours(self.disk)
        self.item, _ = self.smallItem(self.disk / "Docs")
        (self.disk / ".hidden").write_bytes(b"neighbour")

    def fill(self):
        with open(self.disk / "filler", "wb", buffering=0) as file:
            with self.assertRaises(OSError) as raised:
                while True:
                    file.write(bytes(1 << 16))
        self.assertEqual(errno.ENOSPC, raised.exception.errno)

    def closeOnDisk(self):
        """The disk itself stays mounted."""
        result = self.drive("close", self.item)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def testOpensWithoutBeingHidden(self):
        self.fill()
        before = self.state(self.disk)
        folder = self.openInPlace(self.item)
        self.assertEqual("content", (folder / "file").read_text())
        self.assertEqual(b"neighbour", self.hiddenNames(self.disk), "there was no room to hide it")
        self.closeOnDisk()
        self.assertEqual(before, self.state(self.disk))

    def testGetsFullWhileOpen(self):
        before = self.state(self.disk)
        folder = self.openInPlace(self.item)
        self.fill()
        with self.assertRaises(OSError):
            with open(folder / "new", "wb", buffering=0) as file:
                for _ in range(128):
                    file.write(quillvane.pseudoRandom(1 << 18, 5))
                os.fsync(file.fileno())
        (self.disk / "filler").unlink()
        (folder / "new").unlink()
        self.closeOnDisk()
        self.assertEqual(before, self.state(self.disk))
        self.assertEqual("content", (self.openInPlace(self.item) / "file").read_text())
        self.closeOnDisk()


if __name__ == "__main__":
    unittest.main()
