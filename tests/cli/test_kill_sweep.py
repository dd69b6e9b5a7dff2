"""Processes are killed at system calls picked from all over the main job, the same ones each time.
Needs root, for a traced program that starts the helper with its special rights."""

import os
import random
import re
import unittest

import kills
import quillvane

# System calls, the first and the last of them to kill at, and how many to pick between. strace
# counts for each process by itself, so that the first process to come so far is killed.
PROTECT = {
    "execve": (1, 1, 1), "mkdir": (1, 2, 2), "pwrite64": (1, 320, 4), "writev": (1, 366, 4),
    "fdatasync": (1, 5, 5), "fallocate": (3, 8, 3), "fsync": (1, 14, 5), "openat": (1, 68, 6),
    "pread64": (12, 49, 6), "statx": (1, 128, 4), "mkdirat": (1, 2, 2), "symlinkat": (1, 3, 1),
    "utimensat": (1, 19, 2), "syncfs": (1, 2, 2), "accept4": (1, 1, 1), "sendto": (1, 1, 1),
    "umount2": (1, 2, 2), "exit_group": (1, 1, 1),
}
REMOVE = {
    "mkdir": (1, 2, 2), "writev": (1, 230, 5), "pread64": (1, 49, 4), "pwrite64": (1, 10, 2),
    "fsync": (1, 14, 2), "openat": (1, 68, 4), "statx": (1, 128, 3), "fdatasync": (1, 2, 2),
    "syncfs": (1, 1, 1), "accept4": (1, 1, 1), "umount2": (1, 1, 1), "exit_group": (1, 1, 1),
}
# The same for qv's main thread alone, as soon as it has come so far.
QV_PROTECT = {
    "fsync": (1, 6, 6), "rename": (1, 3, 3), "unlink": (1, 1, 1), "unlinkat": (1, 17, 4),
    "openat": (18, 80, 6), "close": (20, 100, 4), "newfstatat": (30, 160, 6), "write": (1, 18, 3),
}
QV_REMOVE = {
    "fsync": (1, 2, 2), "mkdir": (1, 1, 1), "unlinkat": (1, 1, 1), "unlink": (1, 1, 1),
    "close": (15, 35, 3), "write": (3, 11, 2),
}


def points(calls):
    """The system calls to kill at, the same each time."""
    source = random.Random(20_240_607)
    for call, (first, last, picks) in calls.items():
        for number in sorted(source.sample(range(first, last + 1), picks)):
            yield call, number


class KillSweepTest(kills.KillCase):
    def setUp(self):
        super().setUp()
        self.useFolder(quillvane.makeTree(self.directory / "original/Docs"))

    def sweep(self, calls, startOver, *command, **options):
        """Runs a command that is killed at each of the points; how it ended, and where everything
        was afterwards."""
        outcomes = set()
        for call, number in points(calls):
            with self.subTest(f"{call} {number}"):
                startOver()
                left = sorted(os.listdir(self.work))
                status, says = self.faulty(f"{call}:signal=KILL:when={number}", *command, **options)
                self.assertIn(status, (0, 1, -9), says)
                if status == 1:
                    self.assertReported(says, left)
                outcomes.add((status, self.assertNothingLost()))
        return outcomes

    def assertReported(self, says, left):
        """A failure that qv has told leaves what there was, unless it says more."""
        self.settle()
        if not re.search(r"\n(Couldn't eject|Your data is safe|Final rename)", says):
            self.assertRegex(says, r"\n(Couldn't |Wrong password|Data verification failed)")
            self.assertEqual(left, sorted(os.listdir(self.work)), says)

    def testEverythingWhileProtecting(self):
        outcomes = self.sweep(PROTECT, self.startWithFolder, "lock", "Docs")
        self.assertLessEqual({(-9, "folder"), (1, "folder"), (0, "image")}, outcomes)

    def testEverythingWhileRemoving(self):
        outcomes = self.sweep(REMOVE, self.startWithItem, "remove", "Docs.quillvane")
        self.assertLessEqual({(-9, "image"), (1, "image"), (0, "folder")}, outcomes)

    def testQvWhileProtecting(self):
        outcomes = self.sweep(QV_PROTECT, self.startWithFolder, "lock", "Docs", children=False)
        self.assertEqual({(-9, "folder"), (-9, "image")}, outcomes)

    def testQvWhileRemoving(self):
        outcomes = self.sweep(QV_REMOVE, self.startWithItem, "remove", "Docs.quillvane",
                              children=False)
        self.assertEqual({(-9, "folder"), (-9, "image")}, outcomes)


if __name__ == "__main__":
    unittest.main()
