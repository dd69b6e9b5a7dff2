"""Modes, owners, times, extended attributes and access lists through the kernel."""

import errno
import os
import stat
import time
import unittest

from quillvane import eventually, pseudoRandom
from volume import VolumeCase, usedBlocks, usedInodes

SECOND = 1_000_000_000


class ModesTest(VolumeCase):

    def test_keepsEveryModeAndObeysTheUmask(self):
        for mode in (0o000, 0o777, 0o644, 0o1755, 0o2755, 0o4755, 0o7777):
            self.fileWith(oct(mode)).chmod(mode)
        former = os.umask(0o027)
        self.addCleanup(os.umask, former)
        os.close(os.open(self.volume / "file", os.O_CREAT | os.O_WRONLY, 0o666))
        os.mkdir(self.volume / "folder", 0o777)
        os.mkfifo(self.volume / "fifo", 0o666)
        self.reattach()
        for mode in (0o000, 0o777, 0o644, 0o1755, 0o2755, 0o4755, 0o7777):
            self.assertEqual(mode, stat.S_IMODE((self.volume / oct(mode)).stat().st_mode))
        self.assertEqual([0o640, 0o750, 0o640],
                         [stat.S_IMODE((self.volume / name).stat().st_mode)
                          for name in ("file", "folder", "fifo")])

    def test_entriesBelongToTheirMakers(self):
        path = self.fileWith("file")
        self.assertEqual((os.geteuid(), os.getegid()), (path.stat().st_uid, path.stat().st_gid))
        os.chown(path, os.geteuid(), os.getegid())
        self.assertEqual(2, self.volume.stat().st_ino)

    def test_writingTakesSetIdsAway(self):
        if os.geteuid() == 0:
            return  # the privileged keep them, which test_special_files shows
        path = self.fileWith("file", b"program", 0o6755)
        with open(path, "r+b") as file:
            file.write(b"x")
        self.assertEqual(0o755, stat.S_IMODE(path.stat().st_mode))
        path.chmod(0o6755)
        os.truncate(path, 3)
        self.assertEqual(0o755, stat.S_IMODE(path.stat().st_mode))
        path.chmod(0o6755)
        os.chown(path, -1, os.getegid())
        self.assertEqual(0o755, stat.S_IMODE(path.stat().st_mode))

    def test_tellsTheTruthAboutRoom(self):
        before = os.statvfs(self.volume)
        self.assertEqual((4096, 4096, 255), (before.f_bsize, before.f_frsize, before.f_namemax))
        self.fileWith("file", pseudoRandom(10 << 20, 1))
        os.mkdir(self.volume / "folder")
        after = os.statvfs(self.volume)
        self.assertIn(usedBlocks(after) - usedBlocks(before), range(2561, 2570))
        self.assertEqual(2, usedInodes(after) - usedInodes(before))
        self.assertLessEqual(after.f_bavail, after.f_bfree)
        (self.volume / "file").unlink()
        # The kernel lets go of the file a moment later.
        self.assertTrue(eventually(
            lambda: usedBlocks(os.statvfs(self.volume)) == usedBlocks(before) + 1))


class TimesTest(VolumeCase):

    def test_keepsTimesToTheNanosecondFarAway(self):
        times = [0, 1, -1, -SECOND, -86_400 * SECOND - 1, (1 - (1 << 31)) * SECOND, (1 << 31) * SECOND,
                 ((1 << 32) + 7) * SECOND + 999_999_999, 15_000_000_000 * SECOND + 123_456_789]
        for number, when in enumerate(times):
            os.utime(self.fileWith(str(number)), ns=(when, when + 1))
        os.symlink("0", self.volume / "link")
        os.utime(self.volume / "link", ns=(5, 6), follow_symlinks=False)
        os.utime(self.volume, ns=(7, 8))
        self.reattach()
        for number, when in enumerate(times):
            status = (self.volume / str(number)).stat()
            self.assertEqual((when, when + 1), (status.st_atime_ns, status.st_mtime_ns))
        status = (self.volume / "link").lstat()
        self.assertEqual((5, 6), (status.st_atime_ns, status.st_mtime_ns))
        self.assertEqual((7, 8), (self.volume.stat().st_atime_ns, self.volume.stat().st_mtime_ns))

    def test_timesBeyondTheFormatStopAtItsEnds(self):
        path = self.fileWith("file")
        for when, kept in [(-(1 << 40), -(1 << 31)), (1 << 40, (3 << 32) + (1 << 31) - 1)]:
            os.utime(path, ns=(when * SECOND, when * SECOND))
            self.assertEqual(kept * SECOND, path.stat().st_mtime_ns)
            self.reattach()
            self.assertEqual(kept * SECOND, path.stat().st_mtime_ns)

    def test_setsOneTimeOrThePresentOne(self):
        path = self.fileWith("file")
        os.utime(path, ns=(1, 2))
        before = time.time_ns()
        self.succeed("touch", "-a", path)
        status = path.stat()
        self.assertEqual(2, status.st_mtime_ns)
        self.assertGreaterEqual(status.st_atime_ns, before)
        os.utime(path, ns=(1, 2))
        self.succeed("touch", "-m", path)
        self.assertEqual(1, path.stat().st_atime_ns)
        self.assertGreaterEqual(path.stat().st_mtime_ns, before)
        os.utime(path)
        self.assertGreaterEqual(path.stat().st_atime_ns, before)

    def test_changesMoveTheTimes(self):
        path = self.fileWith("file")
        for change, modifies in [(lambda: path.write_bytes(b"x"), True),
                                 (lambda: os.truncate(path, 100), True),
                                 (lambda: path.chmod(0o600), False),
                                 (lambda: os.setxattr(path, "user.a", b"1"), False),
                                 (lambda: os.removexattr(path, "user.a"), False),
                                 (lambda: os.rename(path, path), None),
                                 (lambda: os.utime(path, ns=(4, 3)), False)]:
            os.utime(path, ns=(3, 3))
            before = path.stat().st_ctime_ns
            change()
            status = path.stat()
            self.assertEqual(bool(modifies), status.st_mtime_ns != 3)
            if modifies is not None:
                self.assertGreater(status.st_ctime_ns, before)


class ExtendedAttributesTest(VolumeCase):

    def test_keepsAttributesOfFilesAndFolders(self):
        folder = self.volume / "folder"
        folder.mkdir()
        for path in (self.fileWith("file"), folder, self.volume):
            os.setxattr(path, "user.empty", b"")
            os.setxattr(path, "user.binary", bytes(range(256)))
            os.setxattr(path, "user.naïve", b"1")
            os.setxattr(path, "user.binary", b"replaced")
        self.reattach()
        for path in (self.volume / "file", folder, self.volume):
            self.assertEqual({"user.empty", "user.binary", "user.naïve"}, set(os.listxattr(path)))
            self.assertEqual(b"", os.getxattr(path, "user.empty"))
            self.assertEqual(b"replaced", os.getxattr(path, "user.binary"))
            for name in os.listxattr(path):
                os.removexattr(path, name)
            self.assertEqual([], os.listxattr(path))

    def test_holdsTheLongestNamesAndValues(self):
        path = self.fileWith("file")
        name = "user." + "n" * 250
        os.setxattr(path, name, b"v" * 3000)
        with self.assertErrno(errno.ERANGE):
            os.setxattr(path, name + "n", b"")
        with self.assertErrno(errno.ENOSPC):
            os.setxattr(path, "user.big", b"v" * 4096)
        with self.assertErrno(errno.ENOSPC):
            os.setxattr(path, "user.big", b"v" * 65536)
        with self.assertErrno(errno.E2BIG):
            os.setxattr(path, "user.big", b"v" * 65537)
        self.reattach()
        self.assertEqual([name], os.listxattr(path))
        self.assertEqual(b"v" * 3000, os.getxattr(path, name))

    def test_holdsAsManyAsFitAndSaysWhenNoMoreDo(self):
        path = self.fileWith("file")
        count = 0
        with self.assertErrno(errno.ENOSPC):
            for count in range(1000):
                os.setxattr(path, f"user.number {count}", b"value")
        self.assertGreater(count, 80)
        self.reattach()
        self.assertEqual({f"user.number {number}" for number in range(count)},
                         set(os.listxattr(path)))
        os.removexattr(path, "user.number 0")
        os.setxattr(path, "user.another", b"value")

    def test_failsAsTheKernelsOwnFileSystems(self):
        path = self.fileWith("file")
        os.symlink("file", self.volume / "link")
        for number, attempt in [
                (errno.ENODATA, lambda: os.getxattr(path, "user.none")),
                (errno.ENODATA, lambda: os.removexattr(path, "user.none")),
                (errno.ENODATA, lambda: os.setxattr(path, "user.none", b"", os.XATTR_REPLACE)),
                (errno.EOPNOTSUPP, lambda: os.setxattr(path, "nonsense.a", b"")),
                (errno.EOPNOTSUPP, lambda: os.getxattr(path, "system.other")),
                (errno.EPERM, lambda: os.setxattr(self.volume / "link", "user.a", b"",
                                                  follow_symlinks=False))]:
            with self.assertErrno(number):
                attempt()
        os.setxattr(path, "user.a", b"", os.XATTR_CREATE)
        with self.assertErrno(errno.EEXIST):
            os.setxattr(path, "user.a", b"", os.XATTR_CREATE)
        self.assertEqual([], os.listxattr(self.volume))


class AccessListsTest(VolumeCase):

    def acl(self, path):
        return self.succeed("getfacl", "-c", "-p", "-n", path).split()

    def test_listsAndModesFollowEachOther(self):
        path = self.fileWith("file", mode=0o640)
        self.succeed("setfacl", "-m", "u:12345:rw,g:54321:r", path)
        self.assertEqual(0o660, stat.S_IMODE(path.stat().st_mode))
        self.assertEqual(["user::rw-", "user:12345:rw-", "group::r--", "group:54321:r--",
                          "mask::rw-", "other::---"], self.acl(path))
        path.chmod(0o604)
        self.assertIn("mask::---", self.acl(path))
        self.assertIn("other::r--", self.acl(path))
        path.chmod(0o640)
        self.reattach()
        self.assertIn("mask::r--", self.acl(path))
        self.assertIn("user:12345:rw-", [entry.split("#")[0] for entry in self.acl(path)])
        self.succeed("setfacl", "-b", path)
        self.assertEqual([], os.listxattr(path))
        self.assertEqual(["user::rw-", "group::r--", "other::---"], self.acl(path))

    def test_aListThatSaysNoMoreThanTheModeIsOnlyTheMode(self):
        path = self.fileWith("file", mode=0o600)
        self.succeed("setfacl", "--set", "u::rwx,g::rx,o::x", path)
        self.assertEqual(0o751, stat.S_IMODE(path.stat().st_mode))
        self.assertEqual([], os.listxattr(path))

    def test_newEntriesInheritTheDefault(self):
        folder = self.volume / "folder"
        folder.mkdir()
        self.succeed("setfacl", "-d", "-m", "u::rwx,g::rx,o::-,u:12345:rwx", folder)
        former = os.umask(0o077)  # has no say where there is a default
        self.addCleanup(os.umask, former)
        os.close(os.open(folder / "file", os.O_CREAT | os.O_WRONLY, 0o664))
        (folder / "inner").mkdir(0o775)
        os.mkfifo(folder / "fifo", 0o666)
        os.symlink("x", folder / "link")
        self.reattach()
        self.assertEqual(["user::rw-", "user:12345:rwx", "#effective:rw-", "group::r-x",
                          "#effective:r--", "mask::rw-", "other::---"], self.acl(folder / "file"))
        self.assertEqual(0o660, stat.S_IMODE((folder / "file").stat().st_mode))
        self.assertEqual(0o770, stat.S_IMODE((folder / "inner").stat().st_mode))
        self.assertIn("default:user:12345:rwx", self.acl(folder / "inner"))
        self.assertNotIn("default:user::rwx", self.acl(folder / "file"))
        self.succeed("setfacl", "-k", folder)
        self.assertEqual([], os.listxattr(folder))

    def test_refusesDefaultsOfFiles(self):
        path = self.fileWith("file")
        self.assertNotEqual(0, self.run_("setfacl", "-d", "-m", "u:12345:r", path).returncode)


if __name__ == "__main__":
    unittest.main()
