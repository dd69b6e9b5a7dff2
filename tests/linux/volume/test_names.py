"""Names, links and directories through the kernel."""

import ctypes
import errno
import os
import socket
import stat
import unittest

from volume import VolumeCase

NOREPLACE, EXCHANGE, WHITEOUT = 1, 2, 4
AT_FDCWD = -100
libc = ctypes.CDLL(None, use_errno=True)
libc.opendir.restype = libc.readdir.restype = ctypes.c_void_p
libc.opendir.argtypes = [ctypes.c_char_p]
for function in ("readdir", "rewinddir", "closedir", "telldir"):
    getattr(libc, function).argtypes = [ctypes.c_void_p]
libc.telldir.restype = ctypes.c_long
libc.seekdir.argtypes = [ctypes.c_void_p, ctypes.c_long]


def rename(old, new, flags):
    if libc.renameat2(AT_FDCWD, os.fsencode(old), AT_FDCWD, os.fsencode(new), flags) != 0:
        raise OSError(ctypes.get_errno(), "renameat2")


class Listing:
    """The directory stream of the C library, which Python does not show."""

    def __init__(self, path):
        self.stream = libc.opendir(os.fsencode(path))

    def next(self):
        """The next name, None at the end."""
        entry = libc.readdir(self.stream)
        return os.fsdecode(ctypes.string_at(entry + 19)) if entry else None

    def rest(self):
        return list(iter(self.next, None))

    def tell(self):
        return libc.telldir(self.stream)

    def seek(self, place):
        libc.seekdir(self.stream, place)

    def rewind(self):
        libc.rewinddir(self.stream)

    def close(self):
        libc.closedir(self.stream)


class NamesTest(VolumeCase):

    def test_takesEveryNameThatLinuxAllows(self):
        names = ["a\nb", "naïve – 写真", "\\", " ", "-rf", "n" * 255, "é" * 127, "*?[",
                 "...", "a\tb", b"\xff\xfe not UTF-8"]
        names = [os.fsdecode(name) for name in names]
        for name in names:
            (self.volume / name).write_bytes(os.fsencode(name))
            os.mkdir(self.volume / ("d" + name[:120]))
        self.reattach()
        for name in names:
            self.assertEqual(os.fsencode(name), (self.volume / name).read_bytes())
        self.assertEqual(2 * len(names), len(os.listdir(self.volume)))

    def test_refusesLongerNamesEverywhere(self):
        long = self.volume / ("n" * 256)
        file = self.fileWith("file")
        for attempt in (lambda: long.write_text(""), long.mkdir, lambda: os.symlink("x", long),
                        lambda: os.link(file, long), lambda: os.rename(file, long),
                        lambda: os.mkfifo(long), long.lstat, long.unlink, long.rmdir,
                        lambda: rename(file, long, EXCHANGE)):
            with self.assertErrno(errno.ENAMETOOLONG):
                attempt()
        self.assertEqual(["file"], os.listdir(self.volume))

    def test_keepsSymbolicLinksOfEveryLength(self):
        targets = ["x", "y" * 59, "y" * 60, "y" * 61, "/" + "z" * 4094, "a\nb"]
        for number, target in enumerate(targets):
            os.symlink(target, self.volume / str(number))
        with self.assertErrno(errno.ENAMETOOLONG):
            os.symlink("t" * 4096, self.volume / "too long")
        with self.assertErrno(errno.ENOENT):
            os.symlink("", self.volume / "empty")
        self.reattach()
        for number, target in enumerate(targets):
            self.assertEqual(target, os.readlink(self.volume / str(number)))
            self.assertEqual(len(target), (self.volume / str(number)).lstat().st_size)
        with self.assertErrno(errno.EINVAL):
            os.readlink(self.volume)

    def test_countsHardLinks(self):
        one = self.fileWith("one", b"shared")
        other = self.volume / "other"
        os.link(one, other)
        self.assertEqual((2, 2), (one.stat().st_nlink, other.stat().st_nlink))
        self.assertEqual(one.stat().st_ino, other.stat().st_ino)
        changed = one.stat().st_ctime_ns
        other.unlink()
        self.assertEqual(1, one.stat().st_nlink)
        self.assertGreater(one.stat().st_ctime_ns, changed)
        with self.assertErrno(errno.EPERM):
            os.link(self.volume, self.volume / "folder")
        with self.assertErrno(errno.EEXIST):
            os.link(one, one)
        with self.assertErrno(errno.EXDEV):
            os.link(one, self.work / "elsewhere")

    def test_directoriesCountTheirSubdirectoriesAndShowTheirChanges(self):
        folder = self.volume / "folder"
        folder.mkdir()
        steps = [(lambda: (folder / "a").mkdir(), 3), (lambda: (folder / "b").mkdir(), 4),
                 (lambda: (folder / "file").write_text(""), 4),
                 (lambda: os.rename(folder / "a", self.volume / "a"), 3),
                 (lambda: os.rename(self.volume / "a", folder / "b"), 3),
                 (lambda: os.rename(folder / "file", folder / "renamed"), 3),
                 (lambda: os.link(folder / "renamed", folder / "link"), 3),
                 (lambda: (folder / "link").unlink(), 3), (lambda: (folder / "b").rmdir(), 2)]
        for number, (step, links) in enumerate(steps):
            os.utime(folder, (1, 1))
            changed = folder.stat().st_ctime_ns
            step()
            status = folder.stat()
            self.assertEqual(links, status.st_nlink, f"step {number}")
            self.assertGreater(status.st_mtime, 1, f"step {number}")
            self.assertGreater(status.st_ctime_ns, changed, f"step {number}")

    def test_removesWhatItShouldAndNothingElse(self):
        (self.volume / "folder/inner").mkdir(parents=True)
        file = self.fileWith("file")
        for number, attempt in [
                (errno.ENOTEMPTY, lambda: os.rmdir(self.volume / "folder")),
                (errno.ENOTDIR, lambda: os.rmdir(file)),
                (errno.EISDIR, lambda: os.unlink(self.volume / "folder")),
                (errno.ENOENT, lambda: os.unlink(self.volume / "none")),
                (errno.EINVAL, lambda: os.rmdir(f"{self.volume}/folder/.")),
                (errno.ENOTDIR, lambda: os.stat(file / "below")),
                (errno.EEXIST, lambda: os.mkdir(file))]:
            with self.assertErrno(number):
                attempt()
        (self.volume / "folder/inner").rmdir()
        (self.volume / "folder").rmdir()
        self.assertEqual(["file"], os.listdir(self.volume))

    def test_aRemovedDirectoryThatIsInUseIsEmptyAndTakesNothing(self):
        folder = self.volume / "folder"
        folder.mkdir()
        fd = self.open_(folder, os.O_RDONLY | os.O_DIRECTORY)
        folder.rmdir()
        self.assertEqual(0, os.fstat(fd).st_nlink)
        self.assertEqual([], os.listdir(fd))
        with self.assertErrno(errno.ENOENT):
            os.open("file", os.O_CREAT | os.O_WRONLY, dir_fd=fd)
        folder.mkdir()
        (folder / "file").write_text("new")
        with self.assertErrno(errno.ENOENT):
            os.stat("file", dir_fd=fd)

    def test_hidesLostAndFoundUntilTheNameIsWanted(self):
        place = self.volume / "lost+found"
        self.assertEqual([], os.listdir(self.volume))
        self.assertFalse(place.exists())
        place.write_text("mine")
        self.assertEqual(["lost+found"], os.listdir(self.volume))
        self.reattach()
        self.assertEqual("mine", place.read_text())
        place.unlink()
        place.mkdir()
        self.assertTrue(place.is_dir())
        (place / "file").write_text("found")
        self.reattach()
        self.assertEqual("found", (place / "file").read_text())
        (place / "file").unlink()


class RenameTest(VolumeCase):

    def test_movesAndReplaces(self):
        one, other = self.fileWith("one", b"1"), self.fileWith("other", b"2")
        fd = self.open_(other)
        changed = one.stat().st_ctime_ns
        os.rename(one, other)
        self.assertEqual((b"1", b"2"), (other.read_bytes(), os.read(fd, 9)))
        self.assertEqual((0, 1), (os.fstat(fd).st_nlink, other.stat().st_nlink))
        self.assertGreater(other.stat().st_ctime_ns, changed)
        self.assertFalse(one.exists())
        os.link(other, one)
        os.rename(one, other)  # both name the same file, so nothing happens
        self.assertTrue(one.exists())

    def test_movesDirectories(self):
        (self.volume / "a/inner").mkdir(parents=True)
        (self.volume / "b").mkdir()
        (self.volume / "full/x").mkdir(parents=True)
        file = self.fileWith("file")
        inner = os.open(self.volume / "a/inner", os.O_RDONLY)
        os.rename(self.volume / "a/inner", self.volume / "b/moved")
        self.assertEqual(os.stat("..", dir_fd=inner).st_ino, (self.volume / "b").stat().st_ino)
        os.close(inner)
        for number, old, new in [(errno.EINVAL, "b", "b/moved/below"), (errno.ENOTEMPTY, "b", "full"),
                                 (errno.ENOTDIR, "b", "file"), (errno.EISDIR, "file", "b"),
                                 (errno.ENOENT, "none", "b"), (errno.ENOTEMPTY, "b/moved", "b")]:
            with self.assertErrno(number):
                os.rename(self.volume / old, self.volume / new)
        os.rename(self.volume / "b", self.volume / "a")
        self.assertEqual(["moved"], os.listdir(self.volume / "a"))
        self.assertTrue(file.exists())

    def test_doesNotReplaceWhenAskedNotTo(self):
        one, other = self.fileWith("one", b"1"), self.fileWith("other", b"2")
        with self.assertErrno(errno.EEXIST):
            rename(one, other, NOREPLACE)
        rename(one, self.volume / "third", NOREPLACE)
        self.assertEqual(b"1", (self.volume / "third").read_bytes())

    def test_exchanges(self):
        (self.volume / "folder/inner").mkdir(parents=True)
        (self.volume / "place").mkdir()
        file = self.volume / "place/file"
        file.write_bytes(b"file")
        rename(self.volume / "folder", file, EXCHANGE)
        self.assertEqual(b"file", (self.volume / "folder").read_bytes())
        self.assertEqual(["inner"], os.listdir(file))
        self.assertEqual((3, 3), ((self.volume / "place").stat().st_nlink, file.stat().st_nlink))
        with self.assertErrno(errno.ENOENT):
            rename(file, self.volume / "none", EXCHANGE)
        self.reattach()
        self.assertEqual(["inner"], os.listdir(file))
        self.assertEqual((file / "..").stat().st_ino, (self.volume / "place").stat().st_ino)

    def test_refusesUnknownWays(self):
        one = self.fileWith("one")
        for flags in (WHITEOUT, NOREPLACE | EXCHANGE, 64):
            with self.assertRaises(OSError):
                rename(one, self.volume / "other", flags)
        self.assertEqual(["one"], os.listdir(self.volume))


class ListingTest(VolumeCase):

    def setUp(self):
        super().setUp()
        self.folder = self.volume / "folder"
        self.folder.mkdir()
        self.names = {f"file {number:04} {'x' * (number % 40)}" for number in range(2000)}
        for name in self.names:
            (self.folder / name).write_bytes(b"")

    def openListing(self):
        listing = Listing(self.folder)
        self.opened.callback(listing.close)
        return listing

    def test_goesBackToEveryPlace(self):
        listing = self.openListing()
        places = []
        while (place := listing.tell(), name := listing.next())[1] is not None:
            places.append((place, name))
        self.assertEqual(self.names | {".", ".."}, {name for _, name in places})
        for place, name in places[::97] + places[:3]:
            listing.seek(place)
            self.assertEqual(name, listing.next())
        (self.folder / "new").write_bytes(b"")
        listing.rewind()
        self.assertEqual(len(self.names) + 3, len(listing.rest()))

    def test_namesEachEntryOnceWhileOthersComeAndGo(self):
        listing = self.openListing()
        seen, removed = [], set()
        while (name := listing.next()) is not None:
            seen.append(name)
            if len(seen) % 3 == 0 and name in self.names:
                (self.folder / name).unlink()
                removed.add(name)
                (self.folder / f"new {len(seen)}").write_bytes(b"")
        old = [name for name in seen if name in self.names]
        self.assertEqual(sorted(self.names), sorted(old))
        self.assertEqual(self.names - removed,
                         {name for name in os.listdir(self.folder) if not name.startswith("new")})

    def test_emptiesAFolderWhileListingIt(self):
        with os.scandir(self.folder) as entries:
            for entry in entries:
                os.unlink(entry.path)
        self.folder.rmdir()

    def test_saysTheKindOfEachEntry(self):
        folder = self.volume / "kinds"
        (folder / "folder").mkdir(parents=True)
        (folder / "file").write_bytes(b"")
        os.symlink("file", folder / "link")
        os.mkfifo(folder / "fifo")
        with socket.socket(socket.AF_UNIX) as bound:
            os.chdir(folder)
            try:
                bound.bind("socket")
            finally:
                os.chdir("/")
        self.reattach()
        kinds = {"folder": stat.S_ISDIR, "file": stat.S_ISREG, "link": stat.S_ISLNK,
                 "fifo": stat.S_ISFIFO, "socket": stat.S_ISSOCK}
        with os.scandir(folder) as entries:
            for entry in entries:
                self.assertTrue(kinds[entry.name](entry.stat(follow_symlinks=False).st_mode))
                self.assertEqual(entry.inode(), entry.stat(follow_symlinks=False).st_ino)
                self.assertEqual(entry.name == "folder", entry.is_dir(follow_symlinks=False))


if __name__ == "__main__":
    unittest.main()
