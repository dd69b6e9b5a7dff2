"""What only root can do on a volume, and what even root's other users cannot."""

import errno
import os
import stat
import subprocess
import sys
import unittest

from volume import VolumeCase


class SpecialFilesTest(VolumeCase):

    def test_keepsDeviceNumbersButLetsNobodyOpenThem(self):
        devices = {"null": os.makedev(1, 3), "wide": os.makedev(259, 1 << 18 | 5),
                   "minor": os.makedev(8, 300), "zero": 0}
        for name, device in devices.items():
            os.mknod(self.volume / name, stat.S_IFCHR | 0o666, device)
            os.mknod(self.volume / (name + " block"), stat.S_IFBLK | 0o600, device)
        os.mknod(self.volume / "plain", stat.S_IFREG | 0o640)
        self.reattach()
        for name, device in devices.items():
            self.assertEqual(device, (self.volume / name).stat().st_rdev)
            block = (self.volume / (name + " block")).stat()
            self.assertEqual((True, device), (stat.S_ISBLK(block.st_mode), block.st_rdev))
        with self.assertErrno(errno.EACCES):
            os.open(self.volume / "null", os.O_RDONLY)

    def test_keepsOwnersOfEveryNumber(self):
        for number in (0, 1000, 65534, 65536, 4_000_000_000):
            path = self.fileWith(str(number))
            os.chown(path, number, number)
            os.symlink("x", self.volume / f"link {number}")
            os.lchown(self.volume / f"link {number}", number, number)
        self.reattach()
        for number in (0, 1000, 65534, 65536, 4_000_000_000):
            for name in (str(number), f"link {number}"):
                status = (self.volume / name).lstat()
                self.assertEqual((number, number), (status.st_uid, status.st_gid))

    def test_ownersChangeOneByOneAndSetIdsGo(self):
        path = self.fileWith("file", mode=0o6755)
        os.chown(path, 5, -1)
        os.chown(path, -1, 6)
        status = path.stat()
        self.assertEqual((5, 6, 0o755),
                         (status.st_uid, status.st_gid, stat.S_IMODE(status.st_mode)))
        path.chmod(0o6755)
        path.write_bytes(b"root may write and keep them")
        self.assertEqual(0o6755, stat.S_IMODE(path.stat().st_mode))

    def test_foldersWithSetGroupIdPassTheirGroupOn(self):
        folder = self.volume / "folder"
        folder.mkdir()
        os.chown(folder, 0, 777)
        folder.chmod(0o2775)
        (folder / "file").write_bytes(b"")
        (folder / "inner").mkdir()
        self.reattach()
        self.assertEqual(777, (folder / "file").stat().st_gid)
        self.assertEqual((777, 0o2755), ((folder / "inner").stat().st_gid,
                                         stat.S_IMODE((folder / "inner").stat().st_mode)))

    def test_trustedAndSecurityAttributesAreRoots(self):
        path = self.fileWith("file")
        os.setxattr(path, "trusted.a", b"1")
        os.setxattr(path, "security.a", b"2")
        self.reattach()
        self.assertEqual({"trusted.a", "security.a"}, set(os.listxattr(path)))
        self.assertEqual(b"1", os.getxattr(path, "trusted.a"))

    def test_capabilitiesGoWithTheFirstWrite(self):
        path = self.fileWith("file", b"program")
        capability = bytes.fromhex("0100000200040000000000000000000000000000")
        os.setxattr(path, "security.capability", capability)
        self.assertEqual(capability, os.getxattr(path, "security.capability"))
        with open(path, "ab") as file:
            file.write(b"!")
        self.assertEqual([], os.listxattr(path))

    def test_otherUsersDoNotLookInside(self):
        self.fileWith("file", b"for everybody", 0o666)
        self.volume.chmod(0o777)
        program = ("import os, sys; os.chdir(sys.argv[1]); os.setgroups([]); os.setgid(1234)\n"
                   "os.setuid(1234)\n"
                   "for name in ('Docs', 'Docs/file'):\n"
                   "    try: os.stat(name); sys.exit(name + ' is visible')\n"
                   "    except PermissionError: pass")
        for folder in (self.directory, self.work):
            folder.chmod(0o755)
        result = subprocess.run([sys.executable, "-c", program, self.work], text=True,
                                capture_output=True)
        self.assertEqual((0, ""), (result.returncode, result.stderr))


if __name__ == "__main__":
    unittest.main()
