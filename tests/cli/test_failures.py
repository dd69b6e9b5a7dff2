"""What is refused or goes wrong: the exact message, and everything left as it was."""

import os
import shutil
import socket
import subprocess
import unittest

import items
import quillvane
from items import PASSWORD
from terminal import Terminal

PLAIN = "Choose a regular folder (not a package or a system volume)."
BUSY = "Couldn't mount the image.\nhdiutil: attach failed - Resource temporarily unavailable"


def targetExists(name):
    return (f'A folder named "{name}" already exists here. Rename or remove it before removing '
            "the password.")


class FailureTest(items.ItemCase):
    def testEmptyPassword(self):
        item, _ = self.smallItem()
        self.smallFolder("More")
        empty = "Password can't be empty."
        for command, path in (("lock", "More"), ("open", item), ("remove", item)):
            self.assertRefused(command, path, secrets=("",), says=empty)
        self.assertRefused("change", item, secrets=("", "new"), says=empty)
        self.assertRefused("change", item, secrets=(PASSWORD, ""), says=empty)

    def testPasswordsThatDiffer(self):
        item, _ = self.smallItem()
        self.smallFolder("More")
        before = quillvane.describe(self.work)
        for words, current in ((("lock", "More"), None), (("change", item), PASSWORD)):
            with Terminal([quillvane.QV, *words], self.environment, self.work) as terminal:
                if current:
                    terminal.answer("Current password: ", current)
                terminal.answer("New password: ", "one")
                terminal.answer("New password again: ", "two")
                self.assertEqual(1, terminal.wait())
            self.assertTrue(terminal.output.endswith(b"\r\nThe two passwords don't match.\r\n"))
        self.assertEqual([], quillvane.differences(before, quillvane.describe(self.work)))

    def testWrongPassword(self):
        item, _ = self.smallItem()
        for command in ("open", "remove"):
            self.assertRefused(command, item, secrets=(PASSWORD + "x",), says="Wrong password.")
        self.assertRefused("change", item, secrets=("x", "new"), says="Wrong password.")

    def testWrongKindOfItem(self):
        self.smallFolder()
        (self.work / "note").write_text("x")
        os.mkfifo(self.work / "fifo")
        (self.work / "dangling").symlink_to("nowhere")
        gone = "The selected item no longer exists."
        for name, says in (("note", "The selected item isn't a folder."), ("gone", gone),
                           ("fifo", "The selected item isn't a folder."), ("dangling", gone)):
            self.assertRefused("lock", name, says=says)
        for command, secrets in (("open", ("x",)), ("remove", ("x",)), ("change", ("x", "y"))):
            self.assertRefused(command, "gone.quillvane", secrets=secrets, says=gone)
            for name in ("Docs", "note"):
                self.assertRefused(command, name, secrets=secrets,
                                   says="Choose a valid .quillvane item.")
        self.assertRefused("close", "note", secrets=(), says='"note" isn\'t open.')
        self.assertRefused("close", "gone", secrets=(), says=gone)

    def testNotAPlainFolder(self):
        item, _ = self.smallItem()
        (self.work / "link").symlink_to("plain")
        (self.work / "plain/inner").mkdir(parents=True)
        self.assertRefused("lock", "link", says=PLAIN)
        self.assertRefused("lock", "/", says=PLAIN)
        self.assertRefused("lock", "/proc", says=PLAIN)
        volume = self.open(item)
        self.assertFails("lock", volume, says=PLAIN)
        self.assertFails("lock", volume.parent, says=PLAIN)
        self.assertEqual("content", (volume / "file").read_text())
        self.close(item)

    def makeInTheWay(self):
        """Everything that can be where an item or a folder is to appear."""
        place = self.work / "in the way"
        yield lambda: place.write_text("a file")
        yield place.mkdir
        yield lambda: place.symlink_to("nowhere")
        yield lambda: place.symlink_to(".")
        yield lambda: os.mkfifo(place)

    def testTargetExists(self):
        self.smallFolder("Folder")
        item, _ = self.smallItem()
        place = self.work / "in the way"
        for make in self.makeInTheWay():
            make()
            for target, words, says in (
                    ("Folder.quillvane", ("lock", "Folder"),
                     '"Folder.quillvane" already exists here. Remove or rename it first.'),
                    ("Docs", ("remove", item), targetExists("Docs"))):
                place.rename(self.work / target)
                self.assertRefused(*words, says=says)
                (self.work / target).rename(place)
            place.rmdir() if place.is_dir() and not place.is_symlink() else place.unlink()

    def testAlreadyOpen(self):
        item, key = self.smallItem()
        volume = self.open(item)
        for words in (("open", item), ("remove", item)):
            self.assertFails(*words, says=BUSY)
            self.assertFails(*words, "--recovery-key", secrets=(key,), says=BUSY)
        self.assertFalse((self.work / "Docs").exists())
        self.assertEqual([str(volume)], quillvane.mountsBelow(self.directory))
        self.assertEqual("content", (volume / "file").read_text())
        # Only the key file is concerned.
        self.succeed("change", item, secrets=(PASSWORD, "new"))
        self.close(item)
        self.assertEqual(self.work / "Docs", self.remove(item, secrets=("new",)))

    def testOpenFileKeepsTheVolumeBusy(self):
        item, _ = self.smallItem()
        volume = self.open(item)
        with open(volume / "file", "w") as file:
            file.write("written")
            file.flush()
            refused = self.run_(quillvane.tool("hdiutil"), "detach", volume)
            self.assertEqual((1, ""), (refused.returncode, refused.stdout))
            self.assertIn("busy", refused.stderr)
            self.close(item)  # which insists
        self.assertRefused("close", item, secrets=(), says='"Docs.quillvane" isn\'t open.')
        self.remove(item)
        self.assertEqual("written", (self.work / "Docs/file").read_text())

    def testDamagedImage(self):
        item, key = self.smallItem()
        size = item.stat().st_size
        subprocess.run(["cp", "--sparse=auto", item, self.directory / "good"], check=True)
        unknown = ("Couldn't mount the image.\nhdiutil: attach failed - image not recognized "
                   "(not an encrypted image)")
        refused = "Wrong password: can't open the vault."
        mebibyte = 1 << 20
        for name, says, offset, content, length in (
                ("header zeroed", unknown, 0, bytes(mebibyte), size),
                ("header random", unknown, 0, os.urandom(mebibyte), size),
                ("keyslots zeroed", refused, 32768, bytes(mebibyte - 32768), size),
                ("volume zeroed", refused, mebibyte, bytes(mebibyte), size),
                ("volume random", refused, mebibyte, os.urandom(mebibyte), size),
                ("empty", unknown, 0, b"", 0), ("one byte", unknown, 0, b"", 1),
                ("first sector", refused, 0, b"", 4096), ("half a header", refused, 0, b"", 500_000),
                ("header only", refused, 0, b"", mebibyte), ("cut", refused, 0, b"", 100 * mebibyte),
                ("text", unknown, 0, b"This is no image.\n", 18)):
            with self.subTest(name):
                subprocess.run(["cp", "--sparse=auto", self.directory / "good", item], check=True)
                with open(item, "r+b") as file:
                    file.seek(offset)
                    file.write(content)
                    file.truncate(length)
                before = self.bytesOf(item)
                for words in (("open",), ("remove",)):
                    self.assertFails(*words, item, says=says)
                    self.assertFails(*words, item, "--recovery-key", secrets=(key,), says=says)
                self.assertEqual(before, self.bytesOf(item))
                self.assertNothingLeft(item.name, items.keyFile(item).name)

    @staticmethod
    def bytesOf(path):
        """What a sparse file begins with, where it has data, and how long it is."""
        with open(path, "rb") as file:
            status = os.fstat(file.fileno())
            return file.read(12 << 20), status.st_size, status.st_blocks, status.st_mtime_ns

    def testItemThatIsNoFile(self):
        item = self.work / "Docs.quillvane"
        failed = "Couldn't mount the image.\nhdiutil: attach failed - "
        item.mkdir()
        self.assertRefused("open", item, says=failed + "Is a directory")
        item.rmdir()
        os.mkfifo(item)
        self.assertRefused("open", item,
                           says=failed + "image not recognized (not a regular file)")
        item.unlink()
        item.symlink_to("nowhere")
        self.assertRefused("open", item, says="The selected item no longer exists.")

    def testAKeyFileBesideWhatIsNoFile(self):
        item, key = self.smallItem()
        items.keyFile(item).unlink()
        item.unlink()
        for make, says in ((item.mkdir, "Choose a valid .quillvane item."),
                           (lambda: os.mkfifo(item), "Choose a valid .quillvane item."),
                           (lambda: item.symlink_to("nowhere"),
                            "The selected item no longer exists.")):
            make()
            self.assertRefused("change", item, "--recovery-key", secrets=(key, "new"), says=says)
            item.rmdir() if item.is_dir() else item.unlink()

    def testSocketInTheFolder(self):
        folder = self.smallFolder()
        (folder / "inner").mkdir()
        self.addSocket(folder)
        self.assertFails("lock", folder, says="Data verification failed. Your original folder was "
                                              'left untouched.\nMissing: "socket".')
        self.assertNothingLeft("Docs")
        # Deeper down, where only the copy tool looks, it is left out: there is nothing in it.
        (folder / "socket").unlink()
        self.addSocket(folder / "inner")
        item, _ = self.lock(folder)
        self.remove(item)
        self.assertEqual(["file", "inner"], sorted(os.listdir(folder)))
        self.assertEqual([], os.listdir(folder / "inner"))

    @staticmethod
    def addSocket(folder):
        with socket.socket(socket.AF_UNIX) as listening:
            os.chdir(folder)  # the path of a socket must be short
            try:
                listening.bind("socket")
            finally:
                os.chdir("/")

    def testToolsThatAreMissing(self):
        folder = self.smallFolder()
        programs = self.directory / "programs"
        shutil.copytree(quillvane.BUILD / "bin", programs / "bin",
                        ignore=lambda _, names: set(names) - {"qv"})
        (programs / "libexec/quillvane").mkdir(parents=True)
        qv = programs / "bin/qv"
        for missing, says in (
                ("hdiutil", "Couldn't launch hdiutil. No such file or directory"),
                ("ditto", "Couldn't copy the contents into the vault.\n"
                          "Couldn't launch ditto. No such file or directory")):
            for name in ("hdiutil", "ditto", "open"):
                if name != missing:
                    shutil.copy(quillvane.tool(name), programs / "libexec/quillvane")
            result = self.run_(qv, "lock", "--stdin", folder, stdin="x\n")
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assertEndsWith("\n" + says + "\n", result.stderr)
            self.assertNothingLeft("Docs")
            for name in ("hdiutil", "ditto", "open"):
                (programs / "libexec/quillvane" / name).unlink(missing_ok=True)

    def testNameTooLong(self):
        name = "n" * 238
        self.smallFolder(name)
        self.assertRefused("lock", name,
                           says="Couldn't create the encrypted vault.\nFile name too long")


if __name__ == "__main__":
    unittest.main()
