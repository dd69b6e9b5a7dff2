"""The processes that hold secrets, qv and a volume's server, do not let them out: no core dump, no
look from outside into memory or environment, keys in memory that is not swapped out."""

import os
import signal
import unittest

import items
import kills
import quillvane
from items import PASSWORD
from terminal import Terminal


class ProcessPrivacyTest(kills.KillCase):
    def assertPrivate(self, process):
        with open(f"/proc/{process}/limits") as limits:
            (core,) = (line.split() for line in limits if line.startswith("Max core file size"))
        self.assertEqual(["0", "0"], core[4:6])
        # The kernel gives the files of a process that must not be dumped to root.
        self.assertEqual(0, os.stat(f"/proc/{process}/mem").st_uid)
        for name in ("mem", "environ"):
            with self.assertRaises(PermissionError):
                open(f"/proc/{process}/{name}", "rb").close()
        with self.assertRaises(PermissionError):
            os.listdir(f"/proc/{process}/fd")

    @staticmethod
    def lockedKibibytes(process):
        with open(f"/proc/{process}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmLck"))

    def testQv(self):
        item, _ = self.smallItem()
        with Terminal([quillvane.QV, "open", item], self.environment, self.work) as terminal:
            terminal.expect("Password: ")
            self.assertPrivate(terminal.child)
            terminal.send(PASSWORD[:5])
            terminal.send("\x03")
            self.assertEqual(1, terminal.wait())

    def testServer(self):
        item, _ = self.smallItem()
        volume = self.open(item)
        server = self.processWith("hdiutil", "attach", str(item))
        self.assertPrivate(server)
        self.assertGreater(self.lockedKibibytes(server), 0)
        for number in (signal.SIGSEGV, signal.SIGABRT):
            os.kill(server, number)
            self.assertTrue(quillvane.eventually(lambda: not self.processes()))
            volume = self.open(item)  # where the dead mount was
            self.assertEqual([], list(self.directory.rglob("core*")))
            server = self.processWith("hdiutil", "attach", str(item))
        self.assertEqual("content", (volume / "file").read_text())
        self.close(item)

    def testOthersCannotLookIntoAVolume(self):
        item, _ = self.smallItem()
        volume = self.open(item)
        with open("/proc/self/mountinfo") as mounts:
            (options,) = (line for line in mounts if str(volume) in line)
        self.assertNotIn("allow_other", options)
        self.assertNotIn("allow_root", options)
        self.assertIn("nosuid", options)
        self.assertIn("nodev", options)
        self.close(item)


if __name__ == "__main__":
    unittest.main()
