"""Each of the processes of the main job is killed at each of its steps."""

import os
import signal
import unittest

import items
import kills
import quillvane

NO_DETAIL = "(nessun dettaglio dal sistema)"


class KillTest(kills.KillCase):
    def setUp(self):
        super().setUp()
        folder = quillvane.makeTree(self.directory / "original/Docs")
        quillvane.makeBigFolder(folder / "big", 48)
        self.useFolder(folder)

    def killProcess(self, command, *process):
        """Runs qv and kills a process of it once; qv's status and what it says last."""
        running = self.start(*command)
        os.kill(self.processWith(*process), signal.SIGKILL)
        _, stderr = running.communicate(timeout=60)
        return running.returncode, stderr

    def assertFailsWhenKilled(self, command, *process, says):
        status, stderr = self.killProcess(command, *process)
        self.assertEqual(1, status, stderr)
        self.assertRegex(stderr, rf"\n{says}\n(?s:.*)$")

    def testToolsWhileProtecting(self):
        for process, says in (
                (("hdiutil", "create"), "Couldn't create the encrypted vault.\n" + NO_DETAIL),
                (("hdiutil", "attach"), "Couldn't mount the image."),
                (("ditto",), "Couldn't copy the contents into the vault.\n" + NO_DETAIL)):
            with self.subTest(process):
                self.startWithFolder()
                self.assertFailsWhenKilled(("lock", "Docs"), *process, says=says.replace(
                    "(", r"\(").replace(")", r"\)"))
                self.assertNothingLeftButFolder()

    def testToolsWhileRemoving(self):
        for process, says in (
                (("hdiutil", "attach"), "Couldn't mount the image."),
                (("ditto",), "Couldn't extract the contents. The encrypted vault was left untouched."
                             r"\n\(nessun dettaglio dal sistema\)")):
            with self.subTest(process):
                self.startWithItem()
                self.assertFailsWhenKilled(("remove", "Docs.quillvane"), *process, says=says)
                self.assertNothingLeftButItem()

    def testDetachIsTriedAgain(self):
        self.startWithFolder()
        status, stderr = self.killProcess(("lock", "Docs"), "hdiutil", "detach")
        self.assertEqual(0, status, stderr)
        self.assertNothingLeftButItem()
        self.startWithItem()
        status, stderr = self.killProcess(("remove", "Docs.quillvane"), "hdiutil", "detach")
        self.assertEqual(0, status, stderr)
        self.assertNothingLeftButFolder()

    def killServerAt(self, step, *words):
        """Kills the volume's server when qv's progress has come to `step`; qv's status."""
        process = self.start(*words)
        while not (line := process.stderr.readline()).startswith(step):
            self.assertNotEqual("", line, f"ended before {step!r}")
        try:
            os.kill(self.processWith("hdiutil", "attach", seconds=2), signal.SIGKILL)
        except (AssertionError, ProcessLookupError):
            pass  # it has ended by itself already
        _, stderr = process.communicate(timeout=60)
        return process.returncode, stderr

    def testServerWhileProtecting(self):
        for step in ("Copying contents into", "Copying contents… ", "Verifying", "Ejecting"):
            with self.subTest(step):
                self.startWithFolder()
                status, stderr = self.killServerAt(step, "lock", "Docs")
                if status == 0:  # everything was on the disk already
                    self.assertNotIn("Copying", step)
                    self.assertNothingLeftButItem()
                else:
                    self.assertEqual(1, status, stderr)
                    self.assertNothingLeftButFolder()

    def testServerWhileRemoving(self):
        for step in ("Extracting contents…\n", "Extracting contents… ", "Verifying", "Ejecting"):
            with self.subTest(step):
                self.startWithItem()
                status, stderr = self.killServerAt(step, "remove", "Docs.quillvane")
                if status == 0:
                    self.assertNothingLeftButFolder()
                else:
                    self.assertEqual(1, status, stderr)
                    self.assertNothingLeftButItem()

    def testServerOfAnOpenVolume(self):
        self.startWithItem()
        item = self.work / "Docs.quillvane"
        volume = self.open(item)
        with open(volume / "synced", "w") as file:
            file.write("on the disk")
            file.flush()
            os.fsync(file.fileno())
        os.kill(self.processWith("hdiutil", "attach", str(item)), signal.SIGKILL)
        # The dead mount is no obstacle to opening it again, and what was synced is there.
        self.assertTrue(quillvane.eventually(lambda: not self.processes()))
        volume = self.open(item)
        self.assertEqual("on the disk", (volume / "synced").read_text())
        (volume / "synced").unlink()
        os.utime(volume, ns=(9, self.before[b"."]["mtime"]))
        self.assertTrue(self.isWhole(volume))
        os.kill(self.processWith("hdiutil", "attach", str(item)), signal.SIGKILL)
        self.assertTrue(quillvane.eventually(lambda: not self.processes()))
        self.assertFails("close", volume, secrets=(), says='"Docs" isn\'t open.')
        self.assertNothingLeft(item.name, items.keyFile(item).name)


if __name__ == "__main__":
    unittest.main()
