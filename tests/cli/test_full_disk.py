"""A disk that is full from the start, or gets full on the way. Needs root, to mount a small one."""

import errno
import os
import subprocess
import unittest

import items
import quillvane

MEBIBYTE = 1 << 20


def fileSize(count):
    """A number of bytes as the messages have it, in units of a thousand."""
    for unit in ("KB", "MB", "GB"):
        count /= 1000
        if count < 1000:
            return f"{count:.1f}".removesuffix(".0") + " " + unit
    raise ValueError(count)


class FullDiskTest(items.ItemCase):
    def setUp(self):
        super().setUp()
        self.disk = self.work / "disk"
        self.disk.mkdir()

    def mount(self, mebibytes):
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={mebibytes}m", "tmpfs", self.disk],
                       check=True)
        # Before the clean-up that detaches volumes.
        self.addCleanup(subprocess.run, ["umount", "-l", self.disk], check=True)

    def free(self):
        found = os.statvfs(self.disk)
        return found.f_bavail * found.f_frsize

    def fill(self, leave):
        """Leaves only so many bytes; the file that fills the rest."""
        filler = self.disk / "filler"
        with open(filler, "wb") as file:
            while True:
                try:
                    os.posix_fallocate(file.fileno(), 0, self.free() - leave)
                    return filler
                except OSError as error:  # somebody else took some of it meanwhile
                    self.assertEqual(errno.ENOSPC, error.errno)

    def assertDisk(self, *entries):
        self.assertEqual(sorted(entries), sorted(os.listdir(self.disk)))
        volumes = [point for point in quillvane.mountsBelow(self.directory)
                   if point != str(self.disk)]
        self.assertEqual(([], []), (volumes, quillvane.serversOf(self.directory)))

    def testNoRoomToBeginWith(self):
        self.mount(100)
        folder = quillvane.makeBigFolder(self.disk / "Docs", 24)
        before = quillvane.describe(folder)
        needed = 24 * MEBIBYTE + 64 * MEBIBYTE
        available = self.free()
        self.assertFails("lock", folder,
                         says=f"Not enough disk space. You need at least {fileSize(needed)} free, "
                              f"but only {fileSize(available)} is available. Free up space and "
                              "try again.")
        self.assertDisk("Docs")
        self.assertSameTree(before, folder)

    def assertSameTree(self, before, tree):
        self.assertEqual([], quillvane.differences(before, quillvane.describe(tree)))

    def testFilledByOthersMeanwhile(self):
        self.mount(512)
        folder = quillvane.makeBigFolder(self.disk / "Docs", 160)
        before = quillvane.describe(folder)
        for step in ("Calculating", "Creating", "Copying contents into", "Copying contents… "):
            with self.subTest(step):
                self.lockOnDiskThatFills(folder, step)
                self.assertDisk("Docs")
                self.assertSameTree(before, folder)
        item, _ = self.lock(folder)
        self.remove(item)
        self.assertSameTree(before, folder)

    def lockOnDiskThatFills(self, folder, step):
        """The disk is filled when the progress has come to `step`; this has to be reported."""
        lock = subprocess.Popen([quillvane.QV, "lock", "--stdin", folder], env=self.environment,
                                stdin=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                stdout=subprocess.PIPE)
        lock.stdin.write(items.PASSWORD + "\n")
        lock.stdin.close()
        lock.stdin = None
        while not (line := lock.stderr.readline()).startswith(step):
            self.assertNotEqual("", line, f"ended before {step!r}")
        filler = self.fill(leave=4096 * 4)
        try:
            stdout, stderr = lock.communicate(timeout=120)
        finally:
            filler.unlink()
        self.assertEqual((1, ""), (lock.returncode, stdout), stderr)
        # What made the volume names the cause in words of its own.
        self.assertRegex(stderr, r"(?s)Not enough disk space|Couldn't create the encrypted vault\."
                                 r"\nhdiutil: create failed - |Couldn't mount the image\.\nhdiutil: "
                                 r"attach failed - |Couldn't copy the contents into the vault\.\n"
                                 r"ditto: .*No space left on device")

    def testNoRoomToRestore(self):
        self.mount(300)
        folder = quillvane.makeBigFolder(self.disk / "Docs", 80)
        before = quillvane.describe(folder)
        item, _ = self.lock(folder)
        for leave in (40 * MEBIBYTE, 2 * MEBIBYTE, 0):
            filler = self.fill(leave)
            result = self.qv("remove", item)
            filler.unlink()
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assertRegex(result.stderr, r"(?s)\nCouldn't extract the contents\. The encrypted "
                                            r"vault was left untouched\.\n.*No space left on device")
            self.assertDisk(item.name, items.keyFile(item).name)
        self.remove(item)
        self.assertSameTree(before, folder)

    def testNoRoomForTheKeyFile(self):
        self.mount(100)
        item, _ = self.lock(self.makeSmall())
        self.fill(0)
        before = items.keyFile(item).read_bytes()
        self.assertFails("change", item, secrets=(items.PASSWORD, "new"),
                         says="No space left on device")
        self.assertEqual(before, items.keyFile(item).read_bytes())
        self.assertDisk(item.name, items.keyFile(item).name, "filler")

    def makeSmall(self):
        folder = self.disk / "Docs"
        folder.mkdir()
        (folder / "file").write_text("content")
        return folder

    def testWritingToAVolumeOnAFullDisk(self):
        self.mount(150)
        item, _ = self.lock(self.makeSmall())
        volume = self.open(item)
        filler = self.fill(leave=20 * MEBIBYTE)
        with self.assertRaises(OSError) as raised:
            with open(volume / "new", "wb", buffering=0) as file:
                for _ in range(64):
                    file.write(quillvane.pseudoRandom(MEBIBYTE, 5))
                os.fsync(file.fileno())
        self.assertIn(raised.exception.errno, (errno.ENOSPC, errno.EIO))
        self.assertEqual("content", (volume / "file").read_text())
        filler.unlink()
        self.succeed("close", item, secrets=())
        volume = self.open(item)
        self.assertEqual("content", (volume / "file").read_text())
        os.unlink(volume / "new")
        self.succeed("close", item, secrets=())
        self.remove(item)
        self.assertDisk("Docs")


if __name__ == "__main__":
    unittest.main()
