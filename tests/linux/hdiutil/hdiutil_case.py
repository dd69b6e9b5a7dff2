"""What the tests of the disk-image tool share."""

import fcntl
import os
import plistlib
import struct

from quillvane import Case, mounts, tool

PASSPHRASE = "mDq3VpJ0c2hLrZ8eYw1nB5tUxKs="
CONTROL_ADDRESS = 0x80445101  # _IOR('Q', 1, ControlAddress)
IMAGE_IDENTITY = 0x80105102  # _IOR('Q', 2, ImageIdentity)
F_OFD_GETLK = 36
IS_ROOT = os.geteuid() == 0


class CommandCase(Case):
    """A test that calls the tool; it fails when a mount or a server is left behind."""

    def setUp(self):
        super().setUp()
        self.image = self.work / "Docs.quillvane"
        self.servers = []

    def hdiutil(self, *arguments, passphrase=PASSPHRASE + "\n", **options):
        return self.run_(tool("hdiutil"), *arguments, stdin=passphrase, **options)

    def create(self, image=None, name="Docs", size="20m", filesystem="APFS", **options):
        return self.hdiutil("create", "-size", size, "-encryption", "AES-256", "-stdinpass",
                            "-volname", name, "-fs", filesystem, "-type", "SPARSE",
                            image or self.image, **options)

    def created(self, *arguments, **options):
        result = self.create(*arguments, **options)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def attach(self, *options, image=None, **more):
        return self.hdiutil("attach", "-stdinpass", "-plist", "-owners", "on", *options,
                            image or self.image, **more)

    def attached(self, *options, **more):
        """Attaches; (device, mount point)."""
        result = self.attach(*options, **more)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        entities = plistlib.loads(result.stdout.encode())["system-entities"]
        self.assertEqual(1, len(entities))
        self.assertRegex(entities[0]["dev-entry"], "^/dev/disk[0-9]+$")
        self.servers.append(serverOf(entities[0]["mount-point"]))
        return entities[0]["dev-entry"], entities[0]["mount-point"]

    def detach(self, target, *options):
        return self.hdiutil("detach", *options, target, passphrase="")

    def detached(self, target, *options):
        result = self.detach(target, *options)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def assertRefused(self, result, message):
        self.assertEqual((1, "", message + "\n"),
                         (result.returncode, result.stdout, result.stderr))

    def assertNothingLeft(self):
        self.assertEqual([], [point for point, kind in mounts()
                              if str(self.directory) in point and kind.startswith("fuse")])
        self.assertEqual([], list((self.runtime / "quillvane").glob("*")))
        self.assertEqual([], list((self.home / "Volumes").glob("*")))
        self.assertEqual([], [server for server in self.servers if isRunning(server)])


def ask(mountPoint, request, length):
    """What the volume's server answers to the ioctl."""
    fd = os.open(mountPoint, os.O_RDONLY | os.O_DIRECTORY)
    try:
        return fcntl.ioctl(fd, request, bytes(length))
    finally:
        os.close(fd)


def serverOf(mountPoint):
    """The number of the process that serves the volume."""
    return struct.unpack_from("i", ask(mountPoint, CONTROL_ADDRESS, 68))[0]


def imageOf(mountPoint):
    """Device and inode number of the volume's image."""
    return struct.unpack("QQ", ask(mountPoint, IMAGE_IDENTITY, 16))


def isRunning(process):
    try:
        with open(f"/proc/{process}/stat") as file:
            return file.read().rsplit(")", 1)[1].split()[0] not in "ZX"
    except (FileNotFoundError, ProcessLookupError):  # the second while it is ending
        return False


def isLocked(image):
    """Whether another process holds the image."""
    layout = "hhqqi4x"  # struct flock
    with open(image, "rb") as file:
        answer = fcntl.fcntl(file, F_OFD_GETLK, struct.pack(layout, fcntl.F_WRLCK, 0, 0, 0, 0))
    return struct.unpack(layout, answer)[0] != fcntl.F_UNLCK


def closeAnyway(file):
    """Closes a file whose volume has gone, which the system reports as an error."""
    try:
        file.close()
    except OSError:
        pass
