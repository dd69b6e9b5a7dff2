"""A volume that is full, and one whose image lies on a disk that is full."""

import errno
import os
import unittest

from quillvane import pseudoRandom
from volume import SmallDiskCase

MEBIBYTE = 1 << 20


def fill(path, piece=MEBIBYTE):
    """Writes to the file until the disk is full; how many bytes went in."""
    written = 0
    content = pseudoRandom(piece, 9)
    with open(path, "ab", buffering=0) as file:
        while True:
            try:
                written += file.write(content)
            except OSError as error:
                if error.errno != errno.ENOSPC:
                    raise
                return written


class FullDiskTest(SmallDiskCase):

    def makeFiles(self):
        """Makes small files until no more go in; how many there are."""
        count = 0
        try:
            while True:
                (self.volume / f"small {count}").write_bytes(b"%d" % count)
                count += 1
        except OSError as error:
            self.assertEqual(errno.ENOSPC, error.errno)
        return count

    def test_saysSoWhenWritingAndLosesNothing(self):
        kept = pseudoRandom(20 * MEBIBYTE, 1)
        self.fileWith("kept", kept)
        written = fill(self.volume / "big")
        self.assertGreater(written, 40 * MEBIBYTE)
        self.assertLess(os.statvfs(self.volume).f_bavail, 256)
        self.assertEqual(written, (self.volume / "big").stat().st_size)
        self.assertEqual(kept, (self.volume / "kept").read_bytes())
        with open(self.volume / "kept", "r+b") as file:  # takes no new room
            file.write(kept[:MEBIBYTE])
            os.fsync(file.fileno())
        (self.volume / "big").unlink()
        self.reattach()
        self.assertEqual(kept, (self.volume / "kept").read_bytes())
        self.assertEqual(["kept"], os.listdir(self.volume))
        self.fileWith("again", kept)  # in the room that was freed
        self.reattach()
        self.assertEqual(kept, (self.volume / "again").read_bytes())

    def test_smallFilesThatWereMadeStay(self):
        fill(self.volume / "big")
        before = self.makeFiles()
        os.sync()
        self.reattach()
        for number in range(before):
            self.assertEqual(b"%d" % number, (self.volume / f"small {number}").read_bytes())

    def test_goesOnWhenThereIsRoomAgain(self):
        ballast = self.image.parent / "ballast"
        ballast.write_bytes(bytes(40 * MEBIBYTE))
        written = fill(self.volume / "big")
        self.assertEqual(written, (self.volume / "big").stat().st_size)
        count = self.makeFiles()
        ballast.unlink()
        self.fileWith("more", pseudoRandom(10 * MEBIBYTE, 3))
        with open(self.volume / "big", "rb") as file:
            os.fsync(file.fileno())
        self.reattach()
        self.assertEqual(pseudoRandom(10 * MEBIBYTE, 3), (self.volume / "more").read_bytes())
        self.assertEqual(written, (self.volume / "big").stat().st_size)
        for number in range(count):
            self.assertEqual(b"%d" % number, (self.volume / f"small {number}").read_bytes())
        with open(self.volume / "big", "rb") as file:
            piece = pseudoRandom(MEBIBYTE, 9)
            for at in range(0, written, MEBIBYTE):
                self.assertEqual(piece[:written - at], file.read(MEBIBYTE))

    def test_everyOperationSucceedsWhollyOrNotAtAll(self):
        file = self.fileWith("file")
        for number in range(300):
            (self.volume / str(number)).write_bytes(b"")
        ballast = self.image.parent / "ballast"
        fill(ballast, 4096)
        made = {"file"} | {str(number) for number in range(300)}
        operations = [
            lambda name, number: os.mkdir(name),
            lambda name, number: os.symlink("t" * 1000, name),
            lambda name, number: os.link(file, name),
            lambda name, number: os.mknod(name, 0o600),
            lambda name, number: os.rename(self.volume / str(number), name),
        ]
        refused = 0
        for number in range(300):
            for which, operation in enumerate(operations):
                name = f"{number} {which} {'x' * 200}"
                try:
                    operation(self.volume / name, number)
                    made.add(name)
                    if which == 4:
                        made.remove(str(number))
                except OSError as error:
                    self.assertEqual(errno.ENOSPC, error.errno)
                    refused += 1
            try:
                os.setxattr(self.volume / str(number), "user.a", b"v" * 2000)
            except OSError as error:
                self.assertIn(error.errno, (errno.ENOSPC, errno.ENOENT))
        self.assertGreater(refused, 500)
        self.assertEqual(made, set(os.listdir(self.volume)))
        self.reattach()  # needs no room that was not taken before
        self.assertEqual(made, set(os.listdir(self.volume)))

    def test_anotherProgramTakesTheLastRoom(self):
        folder = self.volume / "folder"
        folder.mkdir()
        for number in range(200):
            (folder / str(number)).write_bytes(b"%d" % number)
        ballast = self.image.parent / "ballast"
        fill(ballast, 4096)
        with self.assertErrno(errno.ENOSPC):
            (self.volume / "more").write_bytes(bytes(4 * MEBIBYTE))
        for number in range(200):
            self.assertEqual(b"%d" % number, (folder / str(number)).read_bytes())
        ballast.unlink()
        self.reattach()
        for number in range(200):
            self.assertEqual(b"%d" % number, (folder / str(number)).read_bytes())


class ReservedRoomTest(SmallDiskCase):
    """The disk is full of room that the volume has reserved."""

    def test_fullOfBlocks(self):
        room = os.statvfs(self.volume).f_bavail * 4096
        with open(self.volume / "reserved", "wb") as file:
            os.posix_fallocate(file.fileno(), 0, room - 8 * MEBIBYTE)
        written = fill(self.volume / "big")
        self.assertGreater(written, 7 * MEBIBYTE)
        written += fill(self.volume / "big", 4096)
        self.assertLess(os.statvfs(self.volume).f_bfree, 256)
        for attempt in (lambda: (self.volume / "folder").mkdir(),
                        lambda: os.symlink("t" * 100, self.volume / "link")):
            with self.assertErrno(errno.ENOSPC):
                attempt()
        self.reattach()
        self.assertEqual({"reserved", "big"}, set(os.listdir(self.volume)))
        self.assertEqual(written, (self.volume / "big").stat().st_size)
        os.truncate(self.volume / "reserved", 0)
        (self.volume / "folder").mkdir()

    def test_fullOfReservedRoomThatIsWrittenInPieces(self):
        room = os.statvfs(self.volume).f_bavail * 4096
        with open(self.volume / "reserved", "w+b") as file:
            os.posix_fallocate(file.fileno(), 0, room - 4 * MEBIBYTE)
            fill(self.volume / "big")
            refused = 0
            for at in range(0, 64 * MEBIBYTE, 8192):
                try:
                    os.pwrite(file.fileno(), b"piece", at)
                except OSError as error:
                    self.assertEqual(errno.ENOSPC, error.errno)
                    refused += 1
            os.fsync(file.fileno())
        self.assertGreater(8192, refused)
        self.reattach()


if __name__ == "__main__":
    unittest.main()
