"""What is in files: written, read, truncated, punched and synced through the kernel."""

import ctypes
import errno
import fcntl
import mmap
import os
import subprocess
import sys
import unittest

from quillvane import pseudoRandom
from volume import VolumeCase, usedBlocks

BLOCK = 4096
KEEP_SIZE, PUNCH_HOLE, COLLAPSE_RANGE, ZERO_RANGE, INSERT_RANGE = 1, 2, 8, 16, 32
libc = ctypes.CDLL(None, use_errno=True)


def fallocate(fd, mode, offset, length):
    if libc.fallocate(fd, mode, ctypes.c_long(offset), ctypes.c_long(length)) != 0:
        raise OSError(ctypes.get_errno(), "fallocate")


class WritingTest(VolumeCase):

    def test_keepsBytesOfEverySizeAcrossAttachments(self):
        sizes = [0, 1, BLOCK - 1, BLOCK, BLOCK + 1, (1 << 20) - 1, 1 << 20, (1 << 20) + 1, 5_000_011]
        for size in sizes:
            self.fileWith(str(size), pseudoRandom(size, size))
        self.reattach()
        for size in sizes:
            self.assertEqual(pseudoRandom(size, size), (self.volume / str(size)).read_bytes())

    def test_overwritesInTheMiddleOfBlocks(self):
        model = bytearray(pseudoRandom(10 * BLOCK, 1))
        fd = self.open_(self.fileWith("file", model))
        for offset, length in [(1, 1), (BLOCK - 1, 2), (BLOCK, BLOCK), (3 * BLOCK - 7, BLOCK + 14),
                               (10 * BLOCK - 3, 100)]:
            piece = pseudoRandom(length, offset)
            os.pwrite(fd, piece, offset)
            model[offset:offset + length] = piece
        os.close(fd)
        self.reattach()
        self.assertEqual(model, (self.volume / "file").read_bytes())

    def test_appendsAtTheEndForEveryWriter(self):
        path = self.fileWith("log", b"first\n")
        one = self.open_(path, os.O_WRONLY | os.O_APPEND)
        other = self.open_(path, os.O_WRONLY | os.O_APPEND)
        for number in range(1000):
            os.lseek(one, 0, os.SEEK_SET)
            os.write(one, b"one %d\n" % number)
            os.write(other, b"other %d\n" % number)
        lines = path.read_bytes().splitlines()
        self.assertEqual([b"first"] + [b"%s %d" % (who, number) for number in range(1000)
                                       for who in (b"one", b"other")], lines)

    def test_twoProcessesAppendWithoutLosingALine(self):
        path = self.fileWith("log")
        program = ("import os, sys; fd = os.open(sys.argv[1], os.O_WRONLY | os.O_APPEND)\n"
                   "for n in range(2000): os.write(fd, b'%s %04d\\n' % (sys.argv[2].encode(), n))")
        writers = [subprocess.Popen([sys.executable, "-c", program, path, who])
                   for who in ("one", "two")]
        self.assertEqual([0, 0], [writer.wait() for writer in writers])
        lines = path.read_text().splitlines()
        for who in ("one", "two"):
            self.assertEqual([f"{who} {number:04}" for number in range(2000)],
                             [line for line in lines if line.startswith(who)])
        self.assertEqual(4000, len(lines))

    def test_opensAsAsked(self):
        path = self.fileWith("file", b"contents")
        with self.assertErrno(errno.EEXIST):
            os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY)
        with self.assertErrno(errno.ENOENT):
            os.open(self.volume / "none", os.O_RDONLY)
        with self.assertErrno(errno.ENOTDIR):
            os.open(path, os.O_RDONLY | os.O_DIRECTORY)
        with self.assertErrno(errno.EISDIR):
            os.open(self.volume, os.O_WRONLY)
        os.symlink("file", self.volume / "link")
        with self.assertErrno(errno.ELOOP):
            os.open(self.volume / "link", os.O_RDONLY | os.O_NOFOLLOW)
        fd = self.open_(path, os.O_RDWR | os.O_TRUNC)
        self.assertEqual(0, os.fstat(fd).st_size)
        with self.assertErrno(errno.EBADF):
            os.write(self.open_(path, os.O_RDONLY), b"x")

    def test_directInputAndOutputPassTheCache(self):
        path = self.volume / "file"
        buffer = mmap.mmap(-1, 16 * BLOCK)
        buffer[:] = pseudoRandom(16 * BLOCK, 3)
        fd = self.open_(path, os.O_RDWR | os.O_CREAT | os.O_DIRECT)
        self.assertEqual(16 * BLOCK, os.pwritev(fd, [buffer], BLOCK))
        self.assertEqual(bytes(BLOCK) + buffer[:], path.read_bytes())
        path.write_bytes(b"a" * 3 * BLOCK)
        self.assertEqual(3 * BLOCK, os.preadv(fd, [buffer], 0))
        self.assertEqual(b"a" * 3 * BLOCK, buffer[:3 * BLOCK])

    def test_copiesWithinTheKernel(self):
        content = pseudoRandom(3_000_000, 5)
        source = self.open_(self.fileWith("source", content), os.O_RDONLY)
        copied = self.open_(self.volume / "copied", os.O_RDWR | os.O_CREAT)
        sent = self.open_(self.volume / "sent", os.O_RDWR | os.O_CREAT)
        for copy in (lambda left: os.copy_file_range(source, copied, left),
                     lambda left: os.sendfile(sent, source, None, left)):
            os.lseek(source, 0, os.SEEK_SET)
            left = len(content)
            while left > 0:
                left -= copy(left)
        self.reattachWithOpen(source, copied, sent)
        for name in ("copied", "sent"):
            self.assertEqual(content, (self.volume / name).read_bytes())

    def reattachWithOpen(self, *fds):
        for fd in fds:
            os.close(fd)
        self.reattach()

    def test_syncsEveryKindOfHandle(self):
        path = self.fileWith("file", b"contents")
        (self.volume / "folder").mkdir()
        os.fsync(self.open_(path, os.O_RDONLY))
        os.fdatasync(self.open_(path, os.O_WRONLY))
        os.fsync(self.open_(self.volume / "folder", os.O_RDONLY | os.O_DIRECTORY))
        os.fsync(self.open_(self.volume, os.O_RDONLY | os.O_DIRECTORY))
        os.write(self.open_(path, os.O_WRONLY | os.O_SYNC), b"more")
        os.sync()
        subprocess.run(["sync", "-f", path], check=True)

    def test_writesToAFileThatHasNoName(self):
        path = self.fileWith("file", b"before")
        fd = self.open_(path)
        used = usedBlocks(os.statvfs(self.volume))
        path.unlink()
        self.assertEqual(0, os.fstat(fd).st_nlink)
        content = pseudoRandom(1_000_000, 6)
        os.pwrite(fd, content, 0)
        self.assertEqual(content, os.pread(fd, len(content), 0))
        os.ftruncate(fd, 10)
        os.fchmod(fd, 0o600)
        os.fsync(fd)
        self.assertEqual((10, 0o100600), (os.fstat(fd).st_size, os.fstat(fd).st_mode))
        os.close(fd)
        self.reattach()
        self.assertEqual([], os.listdir(self.volume))
        self.assertLessEqual(usedBlocks(os.statvfs(self.volume)), used)


class SizeTest(VolumeCase):

    def test_truncatingForgetsAndGrowingReadsZeros(self):
        path = self.fileWith("file", b"x" * (3 * BLOCK))
        for size in (2 * BLOCK + 5, BLOCK, 7, 0):
            os.truncate(path, size)
            self.assertEqual(size, path.stat().st_size)
            os.truncate(path, 3 * BLOCK)
            self.assertEqual(b"x" * size + bytes(3 * BLOCK - size), path.read_bytes())
        path.write_bytes(b"y" * 10)
        with open(path, "r+b") as file:
            file.seek(20)
            file.write(b"z")
        self.reattach()
        self.assertEqual(b"y" * 10 + bytes(10) + b"z", path.read_bytes())
        with self.assertErrno(errno.EINVAL):
            os.truncate(path, -1)
        with self.assertErrno(errno.EISDIR):
            os.truncate(self.volume, 0)

    def test_countsTheBlocksThatAFileTakes(self):
        path = self.fileWith("file", b"x" * (10 * BLOCK))
        self.assertEqual(80, path.stat().st_blocks)
        os.truncate(path, BLOCK + 1)
        self.assertEqual(16, path.stat().st_blocks)
        os.truncate(path, 1 << 30)
        self.assertEqual(16, path.stat().st_blocks)

    def test_holdsAFileOfManyTebibytes(self):
        path = self.fileWith("file", b"begin")
        far = 15 << 40
        with open(path, "r+b") as file:
            file.seek(far)
            file.write(b"end")
        self.reattach()
        self.assertEqual(far + 3, path.stat().st_size)
        self.assertLess(path.stat().st_blocks, 100)
        with open(path, "rb") as file:
            self.assertEqual(b"begin\0", file.read(6))
            file.seek(far - 1)
            self.assertEqual(b"\0end", file.read())

    def test_refusesOffsetsThatExt4CannotHold(self):
        path = self.fileWith("file", b"kept")
        fd = self.open_(path)
        limit = 1 << 44  # 2^32 blocks
        for offset in (limit, (1 << 62)):
            with self.assertErrno(errno.EFBIG):
                os.pwrite(fd, b"x", offset)
            with self.assertErrno(errno.EFBIG):
                os.ftruncate(fd, offset + 1)
            with self.assertErrno(errno.EFBIG):
                fallocate(fd, 0, offset, 1)
        self.assertEqual(b"kept", path.read_bytes())


class HolesTest(VolumeCase):

    def extents(self, path):
        """The stretches of data of a file, as pairs of offsets."""
        fd = os.open(path, os.O_RDONLY)
        found, end = [], 0
        try:
            while True:
                begin = os.lseek(fd, end, os.SEEK_DATA)
                end = os.lseek(fd, begin, os.SEEK_HOLE)
                found.append((begin, end))
        except OSError as error:
            self.assertEqual(errno.ENXIO, error.errno)
        finally:
            os.close(fd)
        return found

    def test_findsDataAndHoles(self):
        path = self.fileWith("file")
        self.assertEqual([], self.extents(path))
        with open(path, "r+b") as file:
            for block in (3, 4, 9):
                file.seek(block * BLOCK)
                file.write(b"x" * BLOCK)
            file.truncate(20 * BLOCK)
        expected = [(3 * BLOCK, 5 * BLOCK), (9 * BLOCK, 10 * BLOCK)]
        self.assertEqual(expected, self.extents(path))
        self.reattach()
        self.assertEqual(expected, self.extents(path))
        fd = self.open_(path, os.O_RDONLY)
        self.assertEqual(3 * BLOCK + 5, os.lseek(fd, 3 * BLOCK + 5, os.SEEK_DATA))
        for offset, whence in ((20 * BLOCK, os.SEEK_DATA), (20 * BLOCK, os.SEEK_HOLE)):
            with self.assertErrno(errno.ENXIO):
                os.lseek(fd, offset, whence)

    def test_copiesSparseFilesSparsely(self):
        path = self.fileWith("file")
        with open(path, "r+b") as file:
            file.seek(50 << 20)
            file.write(b"middle")
            file.truncate(100 << 20)
        self.succeed("cp", "--sparse=auto", path, self.volume / "copy")
        self.reattach()
        self.assertEqual(path.stat().st_size, (self.volume / "copy").stat().st_size)
        self.assertEqual(8, (self.volume / "copy").stat().st_blocks)
        self.succeed("cmp", path, self.volume / "copy")

    def test_reservesRoom(self):
        path = self.fileWith("file", b"x" * 100)
        fd = self.open_(path)
        fallocate(fd, KEEP_SIZE, 0, 10 * BLOCK)
        self.assertEqual((100, 80), (path.stat().st_size, path.stat().st_blocks))
        fallocate(fd, 0, 5 * BLOCK, 10 * BLOCK)
        self.assertEqual((15 * BLOCK, 120), (path.stat().st_size, path.stat().st_blocks))
        self.assertEqual(b"x" * 100 + bytes(15 * BLOCK - 100), path.read_bytes())
        os.pwrite(fd, b"y" * (3 * BLOCK), 6 * BLOCK + 11)
        os.pwrite(fd, b"z", 14 * BLOCK)
        os.close(fd)
        self.reattach()
        expected = bytearray(15 * BLOCK)
        expected[:100] = b"x" * 100
        expected[6 * BLOCK + 11:9 * BLOCK + 11] = b"y" * (3 * BLOCK)
        expected[14 * BLOCK] = ord("z")
        self.assertEqual(expected, path.read_bytes())
        self.assertIn(path.stat().st_blocks, (120, 128))  # the list of extents may take a block

    def test_punchesAndZeroes(self):
        model = bytearray(pseudoRandom(20 * BLOCK + 100, 2))
        path = self.fileWith("file", model)
        fd = self.open_(path)
        for mode, offset, length in [(PUNCH_HOLE | KEEP_SIZE, 10, 20),
                                     (PUNCH_HOLE | KEEP_SIZE, BLOCK - 1, 2),
                                     (PUNCH_HOLE | KEEP_SIZE, 3 * BLOCK, BLOCK),
                                     (PUNCH_HOLE | KEEP_SIZE, 5 * BLOCK - 3, 2 * BLOCK + 6),
                                     (ZERO_RANGE, 10 * BLOCK + 1, 3 * BLOCK),
                                     (ZERO_RANGE | KEEP_SIZE, 15 * BLOCK, BLOCK)]:
            fallocate(fd, mode, offset, length)
            model[offset:offset + length] = bytes(length)
            self.assertEqual(model, path.read_bytes())
        fallocate(fd, ZERO_RANGE, 20 * BLOCK, 2 * BLOCK)
        fallocate(fd, PUNCH_HOLE | KEEP_SIZE, 21 * BLOCK, 10 * BLOCK)
        model[20 * BLOCK:] = bytes(2 * BLOCK)
        os.close(fd)
        self.reattach()
        self.assertEqual(model, path.read_bytes())

    def test_refusesOtherWaysOfAllocating(self):
        fd = self.open_(self.fileWith("file", b"x" * (4 * BLOCK)))
        for mode in (COLLAPSE_RANGE, INSERT_RANGE, PUNCH_HOLE, 64):
            with self.assertErrno(errno.EOPNOTSUPP):
                fallocate(fd, mode, 0, BLOCK)
        for offset, length in ((0, 0), (-1, 1), (0, -1)):
            with self.assertErrno(errno.EINVAL):
                fallocate(fd, 0, offset, length)
        with self.assertErrno(errno.ENOSPC):
            fallocate(fd, 0, 0, 1 << 40)
        self.assertEqual(4 * BLOCK, os.fstat(fd).st_size)


class LocksTest(VolumeCase):

    def inAnotherProcess(self, statement, path):
        program = f"import fcntl, os, sys; fd = os.open(sys.argv[1], os.O_RDWR); {statement}"
        return subprocess.run([sys.executable, "-c", program, path],
                              stderr=subprocess.DEVNULL).returncode == 0

    def test_locksKeepOtherProcessesOut(self):
        path = self.fileWith("file", b"x" * 100)
        whole = "fcntl.flock(fd, fcntl.LOCK_EX | fcntl.LOCK_NB)"
        part = "fcntl.lockf(fd, fcntl.LOCK_EX | fcntl.LOCK_NB, 10, 50)"
        fd = self.open_(path)
        fcntl.flock(fd, fcntl.LOCK_EX)
        self.assertFalse(self.inAnotherProcess(whole, path))
        fcntl.flock(fd, fcntl.LOCK_UN)
        self.assertTrue(self.inAnotherProcess(whole, path))
        fcntl.lockf(fd, fcntl.LOCK_EX, 10, 55)
        self.assertFalse(self.inAnotherProcess(part, path))
        fcntl.lockf(fd, fcntl.LOCK_UN, 10, 55)
        self.assertTrue(self.inAnotherProcess(part, path))


if __name__ == "__main__":
    unittest.main()
