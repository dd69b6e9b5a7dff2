"""The promise of the format: an item is a LUKS2 container with ext4 in it, which stock tools on a
stock kernel open with the passphrase that follows from the recovery key, and which the program
opens again whatever they did to it."""

import os
import pathlib
import pickle
import shutil
import signal
import subprocess
import unittest

import changes
import guest
import quillvane
from quillvane import QV

PASSWORD = "correct horse battery staple"
CHANGES = f"env PYTHONPATH={quillvane.SOURCE}/tests/support python3 -B {changes.__file__}"


def open_(key, *options):
    """The commands for whoever has the recovery key and not the program."""
    return (f"echo {key} | tr -d - | base32 -d | base64 |\n"
            f"    cryptsetup open --type luks2 {' '.join(options)} /dev/ubda vault\n")


CHECK = "e2fsck -fn /dev/mapper/vault\n"
LENGTHEN = "e2fsck -fp /dev/mapper/vault\nresize2fs /dev/mapper/vault\n"
MOUNT = "mount -t ext4 /dev/mapper/vault /run/volume\n"
CLOSE = "umount /run/volume\ncryptsetup close vault\n"


def take(step, listing):
    return f"{CHANGES} {step} /run/volume /run/scratch/{listing}\n"


class StandardFormatTest(quillvane.Case):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        if reason := guest.reasonNotToRun():
            raise unittest.SkipTest(reason)

    def setUp(self):
        super().setUp()
        self.guest = guest.Guest(self.directory / "scratch")
        self.addCleanup(self.guest.kill)

    def qv(self, *words, stdin=""):
        result = self.run_(QV, *words, stdin=stdin)
        self.assertEqual(0, result.returncode, result.stderr)
        return result.stdout.splitlines()

    def lock(self):
        """A new item; its path, its recovery key and the description of the folder."""
        folder = changes.lockedTree(self.work / "Docs")
        before = quillvane.describe(folder)
        item, key = self.qv("lock", "--stdin", folder, stdin=PASSWORD + "\n")
        return item, key, before

    def open(self, item):
        (mountPoint,) = self.qv("open", "--stdin", item, stdin=PASSWORD + "\n")
        return mountPoint

    def listing(self, name):
        """What the kernel saw, without the two things that ours does not show: an empty directory
        and the volume's full name."""
        with open(self.guest.scratch / name, "rb") as file:
            tree = pickle.load(file)
        self.assertIn(b"lost+found", tree)
        del tree[b"lost+found"]
        self.assertEqual(b"Docs", tree[b"."]["xattrs"].pop("trusted.quillvane.name"))
        return tree

    def assertAlike(self, expected, actual):
        found = quillvane.differences(expected, actual)
        self.assertEqual([], found[:20], f"{len(found)} differences")

    def testTheKernelReadsWhatWasLocked(self):
        item, key, before = self.lock()
        self.guest.run(open_(key) + CHECK + MOUNT + take("look", "seen") + CLOSE + open_(key) +
                       CHECK, item)
        self.assertAlike(before, self.listing("seen"))

    def testTheKernelMountsAVolumeThatHasGrown(self):
        item, key, _ = self.lock()
        mountPoint = pathlib.Path(self.open(item))
        length = os.stat(item).st_size
        content = quillvane.pseudoRandom(1 << 20, 1)
        with open(mountPoint / "big", "wb") as file:
            for _ in range(270):  # several groups of blocks more
                file.write(content)
        (mountPoint / "gone").write_bytes(content * 250)
        (mountPoint / "gone").unlink()
        after = quillvane.describe(mountPoint)
        self.qv("close", item)
        self.assertGreater(os.stat(item).st_size, length + (200 << 20))

        self.guest.run(open_(key) + CHECK + MOUNT + take("look", "seen") +
                       take("byKernel", "changed") + CLOSE + open_(key) + CHECK, item, seconds=240)
        self.assertAlike(after, self.listing("seen"))
        mountPoint = pathlib.Path(self.open(item))
        self.assertAlike(self.listing("changed"), quillvane.describe(mountPoint))
        (mountPoint / "more").write_bytes(content * 40)
        self.qv("close", item)
        self.guest.run(open_(key) + CHECK, item)

    def testTheKernelAndTheServerTakeTurns(self):
        item, key, _ = self.lock()

        # A kernel's volume does not grow by itself.
        os.truncate(item, os.stat(item).st_size + (1 << 30))
        self.guest.run(open_(key) + LENGTHEN + MOUNT + take("byKernel", "first") + CLOSE, item,
                       seconds=120)
        mountPoint = self.open(item)
        self.assertAlike(self.listing("first"), quillvane.describe(mountPoint))
        subprocess.run(["python3", "-B", changes.__file__, "byServer", mountPoint,
                        self.directory / "second"], env=self.environment, check=True)
        with open(self.directory / "second", "rb") as file:
            second = pickle.load(file)
        self.qv("close", item)

        self.guest.run(open_(key) + CHECK + MOUNT + take("look", "seen") +
                       take("byKernelAgain", "third") + CLOSE + open_(key) + CHECK, item,
                       seconds=120)
        self.assertAlike(second, self.listing("seen"))
        mountPoint = self.open(item)
        self.assertAlike(self.listing("third"), quillvane.describe(mountPoint))
        self.qv("close", item)

    def testTheServerReplaysTheKernelsJournal(self):
        item, key, before = self.lock()

        self.guest.start(open_(key) + MOUNT + "exec >/dev/console\n" +
                         take("untilPowerCut", "never"), item)
        self.guest.waitFor("READY FOR THE POWER CUT")
        self.guest.kill()
        features = self.guest.run(
            open_(key, "--readonly") + "dumpe2fs -h /dev/mapper/vault\n", item, readOnly=True)
        self.assertIn("needs_recovery", features)

        mountPoint = self.open(item)
        after = quillvane.describe(mountPoint)
        self.assertReplayed(before, after)
        self.qv("close", item)
        self.guest.run(open_(key) + CHECK + MOUNT + take("look", "seen") + CLOSE, item)
        self.assertAlike(after, self.listing("seen"))

    def testTheKernelReplaysTheServersJournal(self):
        item, key, before = self.lock()
        mountPoint = pathlib.Path(self.open(item))
        folder = mountPoint / "synced"
        folder.mkdir()
        for number in range(3000):  # more blocks than one, and some that are freed again
            (folder / f"name {number}").write_bytes(b"%d" % number)
        for number in range(0, 3000, 3):
            (folder / f"name {number}").unlink()
        shutil.rmtree(mountPoint / "crowd")
        with open(folder / "nameless", "wb") as file:
            (folder / "nameless").unlink()
            file.write(bytes(1 << 20))
            fd = os.open(folder, os.O_RDONLY)
            os.fsync(fd)
            os.close(fd)
            after = quillvane.describe(mountPoint)
            (server,) = quillvane.serversOf(item)
            os.kill(server, signal.SIGKILL)
            self.assertTrue(quillvane.eventually(lambda: not quillvane.serversOf(item)))
        self.run_(quillvane.tool("hdiutil"), "detach", "-force", mountPoint)
        features = self.guest.run(
            open_(key, "--readonly") + "dumpe2fs -h /dev/mapper/vault\n", item, readOnly=True)
        self.assertIn("needs_recovery", features)

        self.guest.run(open_(key) + MOUNT + take("look", "seen") + CLOSE + open_(key) + CHECK, item,
                       seconds=120)
        self.assertAlike(after, self.listing("seen"))
        mountPoint = self.open(item)
        self.assertAlike(after, quillvane.describe(mountPoint))
        self.qv("close", item)

    def assertReplayed(self, before, after):
        """Everything that was synced before the power cut is there, and all else is as it was."""
        names = {b"synced/name %d" % number for number in range(1000)}
        self.assertLessEqual(names, after.keys())
        self.assertEqual(before[b"letters/ada.txt"]["content"],
                         after[b"synced/ada.txt"]["content"])
        self.assertEqual(1 << 20, after[b"synced/content"]["size"])
        self.assertNotIn(b"photo.raw", after)
        self.assertIn(b"letters/hard-link.raw", after)
        touched = {b".", b"letters", b"letters/ada.txt", b"photo.raw", b"letters/hard-link.raw"}
        untouched = lambda tree: {path: entry for path, entry in tree.items() if not (
            path in touched or path.startswith((b"synced", b"name unsynced")))}
        self.assertAlike(untouched(before), untouched(after))


if __name__ == "__main__":
    unittest.main()
