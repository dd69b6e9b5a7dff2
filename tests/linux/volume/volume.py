"""A test with a mounted volume of its own, which must be whole in the end."""

import contextlib
import os
import subprocess

from quillvane import BUILD, Case, tool

PASSPHRASE = "vT9x0cB2mJq4LrZ8eYw1nU5tKsA=\n"


class VolumeCase(Case):
    """`volume` is the mount point of a fresh volume. After each test it is detached and checked."""

    size = "64m"
    attachOptions = ()

    def setUp(self):
        super().setUp()
        self.opened = contextlib.ExitStack()  # what must be closed before the volume is detached
        self.image = self.imageFolder() / "Docs.quillvane"
        self.volume = self.work / "Docs"
        self.volume.mkdir()
        self.succeed(tool("hdiutil"), "create", "-size", self.size, "-encryption", "AES-256",
                     "-stdinpass", "-volname", "Docs", "-fs", "APFS", "-type", "SPARSE",
                     self.image, stdin=PASSPHRASE)
        self.attach()

    def tearDown(self):
        self.opened.close()
        if os.path.ismount(self.volume):
            self.detach()
        self.assertWhole()
        super().tearDown()

    def imageFolder(self):
        return self.work

    def attach(self):
        self.succeed(tool("hdiutil"), "attach", "-stdinpass", "-nobrowse", "-owners", "on",
                     "-mountpoint", self.volume, *self.attachOptions, self.image,
                     stdin=PASSPHRASE)

    def detach(self):
        self.succeed(tool("hdiutil"), "detach", self.volume)

    def reattach(self):
        """What is read afterwards comes from the image, not from anybody's memory."""
        self.detach()
        self.attach()

    def assertWhole(self):
        checked = self.run_(BUILD / "bin/check-volume", self.image, stdin=PASSPHRASE)
        self.assertEqual(0, checked.returncode, checked.stdout + checked.stderr)

    def succeed(self, *command, **options):
        result = self.run_(*command, **options)
        self.assertEqual(0, result.returncode, f"{command}: {result.stdout}{result.stderr}")
        return result.stdout

    @contextlib.contextmanager
    def assertErrno(self, number):
        with self.assertRaises(OSError) as caught:
            yield
        self.assertEqual(os.strerror(number), os.strerror(caught.exception.errno))

    def fileWith(self, name, content=b"", mode=0o644):
        path = self.volume / name
        path.write_bytes(content)
        path.chmod(mode)
        return path

    def open_(self, path, flags=os.O_RDWR, mode=0o644):
        """An open file that is closed with the test, if it was not before."""
        fd = os.open(path, flags, mode)
        self.opened.callback(closeAnyway, fd)
        return fd


class SmallDiskCase(VolumeCase):
    """The image lies on a file system of 96 MiB. Needs root."""

    def imageFolder(self):
        disk = self.work / "disk"
        disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=96m", "tmpfs", disk], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", disk])
        return disk


def usedBlocks(found):
    """How much is stored, of what `os.statvfs` found. What is free changes with the disk beneath."""
    return found.f_blocks - found.f_bfree


def usedInodes(found):
    return found.f_files - found.f_ffree


def closeAnyway(fd):
    with contextlib.suppress(OSError):
        os.close(fd)
