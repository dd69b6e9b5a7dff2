"""Asked to stop, qv leaves everything as it was: the folder or the item whole, and nothing else."""

import json
import os
import signal
import subprocess
import unittest

import quillvane
from quillvane import QV
from terminal import Terminal

CANCELLED = "Cancelled. Nothing was changed."
TOO_LATE = "It can't be cancelled any more; it is being finished."


class InterruptionTest(quillvane.Case):
    def setUp(self):
        super().setUp()
        quillvane.makeBigFolder(self.work / "Docs", 200)
        os.symlink("file 0", self.work / "Docs/link")
        self.before = quillvane.describe(self.work / "Docs")

    def start(self, *words):
        # A shell's background job has SIGINT ignored, and a program takes that over.
        return subprocess.Popen([QV, *words, "--stdin"], cwd=self.work, env=self.environment,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True,
                                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

    def signalAt(self, step, number, *words):
        """Runs qv and signals it, three times, when its progress has come to `step`."""
        process = self.start(*words)
        process.stdin.write("x\n")
        process.stdin.close()
        process.stdin = None
        seen = ""
        while not seen.startswith(step):
            seen = process.stderr.readline()
            self.assertNotEqual("", seen, f"ended before {step!r}")
        for _ in range(3):
            process.send_signal(number)
        stdout, stderr = process.communicate(timeout=120)
        return process.returncode, stdout, stderr

    def assertCancelled(self, result):
        status, stdout, stderr = result
        self.assertEqual((1, ""), (status, stdout), stderr)
        self.assertTrue(("\n" + stderr).endswith("\n" + CANCELLED + "\n"), stderr)

    def assertNothingLeft(self, *entries):
        self.assertEqual(sorted(entries), sorted(os.listdir(self.work)))
        self.assertEqual([], quillvane.mountsBelow(self.directory))
        self.assertEqual([], quillvane.serversOf(self.directory))
        self.assertEqual([], [entry for entry in self.home.rglob("*") if not entry.is_dir()])

    def assertFolderWhole(self):
        self.assertNothingLeft("Docs")
        self.assertEqual([], quillvane.differences(self.before,
                                                   quillvane.describe(self.work / "Docs")))

    def lock(self):
        result = self.run_(QV, "lock", "--stdin", "Docs", stdin="x\n")
        self.assertEqual(0, result.returncode, result)

    def assertItemWhole(self):
        self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        result = self.run_(QV, "remove", "--stdin", "Docs.quillvane", stdin="x\n")
        self.assertEqual(0, result.returncode, result)
        self.assertFolderWhole()

    def testLockWhileCopying(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            self.assertCancelled(self.signalAt("Copying contents… ", number, "lock", "Docs"))
            self.assertFolderWhole()

    def testLockAtEveryStep(self):
        for step in ("Checking", "Calculating", "Creating", "Mounting", "Copying contents into",
                     "Verifying", "Ejecting", "Deleting", "Finalizing"):
            with self.subTest(step):
                result = self.signalAt(step, signal.SIGINT, "lock", "Docs")
                if step in ("Deleting", "Finalizing"):  # too late: it is carried through
                    self.assertEqual(0, result[0], result)
                    self.assertIn(TOO_LATE, result[2])
                if result[0] == 0:
                    self.assertEqual(2, len(result[1].splitlines()))
                    self.assertItemWhole()
                else:
                    self.assertCancelled(result)
                    self.assertFolderWhole()

    def testRemoveWhileExtracting(self):
        self.lock()
        for number in (signal.SIGINT, signal.SIGTERM):
            self.assertCancelled(
                self.signalAt("Extracting contents… ", number, "remove", "Docs.quillvane"))
            self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.assertItemWhole()

    def testRemoveAtEveryStep(self):
        self.lock()
        for step in ("Checking", "Opening", "Creating", "Extracting contents…\n", "Verifying",
                     "Ejecting", "Deleting"):
            with self.subTest(step):
                result = self.signalAt(step, signal.SIGINT, "remove", "Docs.quillvane")
                if step in ("Ejecting", "Deleting"):
                    self.assertEqual(0, result[0], result)
                    self.assertIn(TOO_LATE, result[2])
                if result[0] == 0:
                    self.assertEqual(f"{self.work}/Docs\n", result[1])
                    self.assertFolderWhole()
                    self.lock()
                else:
                    self.assertCancelled(result)
                    self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.assertItemWhole()

    def testOpen(self):
        self.lock()
        result = self.signalAt("Opening", signal.SIGINT, "open", "Docs.quillvane")
        self.assertCancelled(result)
        self.assertItemWhole()

    def testKeyFileThatAsksForAnHour(self):
        self.lock()
        keyFile = self.work / ".Docs.quillvane.qvkeys"
        good = keyFile.read_text()
        hostile = json.dumps(json.loads(good) | {"iterations": (1 << 32) - 1})
        keyFile.write_text(hostile)
        for words in (("open",), ("remove",), ("change",), ("smart",)):
            with self.subTest(words):
                process = self.start(*words, "Docs.quillvane")
                process.stdin.write("x\nnew\n")
                process.stdin.flush()
                self.assertTrue(quillvane.eventually(lambda: self._computes(process.pid)))
                process.send_signal(signal.SIGINT)
                stdout, stderr = process.communicate(timeout=30)
                self.assertCancelled((process.returncode, stdout, stderr))
                self.assertEqual(hostile, keyFile.read_text())
        keyFile.write_text(good)
        result = self.run_(QV, "remove", "--stdin", "Docs.quillvane", stdin="x\n")
        self.assertEqual(0, result.returncode, result)
        self.assertEqual([], quillvane.differences(self.before,
                                                   quillvane.describe(self.work / "Docs")))

    @staticmethod
    def _computes(pid):
        """True when the process has used the processor for half a second."""
        with open(f"/proc/{pid}/stat") as file:
            used = int(file.read().rsplit(")", 1)[1].split()[11])
        return used > os.sysconf("SC_CLK_TCK") / 2

    def testSignalBeforeTheSecretIsRead(self):
        process = self.start("lock", "Docs")
        process.stdin.write("half a li")
        process.stdin.flush()
        self.assertTrue(quillvane.eventually(lambda: self._asleep(process.pid)))
        process.send_signal(signal.SIGTERM)
        stdout, stderr = process.communicate(timeout=10)
        self.assertCancelled((process.returncode, stdout, stderr))
        self.assertFolderWhole()

    @staticmethod
    def _asleep(pid):
        """True when the process waits for more input, with the signals' handlers in place."""
        with open(f"/proc/{pid}/stat") as file:
            state = file.read().rsplit(")", 1)[1].split()[0]
        with open(f"/proc/{pid}/status") as file:
            caught = int(next(line for line in file if line.startswith("SigCgt")).split()[1], 16)
        return state == "S" and bool(caught & 1 << (signal.SIGTERM - 1))

    def testKeyOnTheTerminal(self):
        with Terminal([QV, "lock", "Docs"], self.environment, self.work) as terminal:
            terminal.answer("New password: ", "x")
            terminal.answer("New password again: ", "x")
            terminal.expect("Copying contents… ")
            terminal.send("\x03\x03")
            self.assertEqual(1, terminal.wait())
        self.assertTrue(terminal.output.decode().endswith(f"\r\x1b[K{CANCELLED}\r\n"),
                        terminal.output)
        self.assertFolderWhole()

        self.lock()
        command = [QV, "remove", "Docs.quillvane"]
        with Terminal(command, self.environment, self.work) as terminal:
            terminal.answer("Password: ", "x")
            terminal.expect("Extracting contents… ")
            terminal.send("\x03")
            self.assertEqual(1, terminal.wait())
        self.assertItemWhole()

    def testTerminalThatGoesAway(self):
        terminal = Terminal([QV, "lock", "Docs"], self.environment, self.work)
        terminal.answer("New password: ", "x")
        terminal.answer("New password again: ", "x")
        terminal.expect("Copying contents… ")
        os.close(terminal.descriptor)  # SIGHUP, and every write fails from now on
        self.assertEqual(1, os.waitstatus_to_exitcode(os.waitpid(terminal.child, 0)[1]))
        self.assertFolderWhole()


if __name__ == "__main__":
    unittest.main()
