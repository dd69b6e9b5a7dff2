"""qv smart: an item opened in place, and everything that closes it again."""

import os
import pathlib
import shutil
import signal
import subprocess
import time
import unittest

import quillvane
from buses import BusCase
from quillvane import QV, eventually

OPENED = ('"{}" opened in place. It closes by itself after {} min of inactivity, or on screen lock '
          '/ logout.')
CANCELLED = "Cancelled. Nothing was changed."
CLOSED = '"{}" closed and encrypted.'
IN_USE = "The folder is in use (open files): it will close automatically once it's free."
STILL_OPEN = '"{}" is open already; it is looked after again.'
PASSWORD = "correct horse"


class Manager:
    """A running `qv smart`; its messages are in files, so that it never waits for a reader."""

    def __init__(self, test, item, *words, secret=PASSWORD):
        self._test = test
        self._stdout = test.directory / f"stdout-{id(self)}"
        self._stderr = test.directory / f"stderr-{id(self)}"
        with open(self._stdout, "w") as stdout, open(self._stderr, "w") as stderr:
            self.process = subprocess.Popen(
                [QV, "smart", "--stdin", *words, item], stdin=subprocess.PIPE, text=True,
                stdout=stdout, stderr=stderr, cwd=test.work, env=test.environment,
                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        self.process.stdin.write(secret + "\n")
        self.process.stdin.close()
        test.addCleanup(self._cleanUp)

    def _cleanUp(self):
        self.process.kill()
        self.process.wait()

    def stdout(self):
        return self._stdout.read_text()

    def messages(self):
        return self._stderr.read_text().splitlines()

    def waitFor(self, message, count=1):
        """Waits until the message has been printed this often."""
        found = eventually(lambda: self.messages().count(message) >= count)
        self._test.assertTrue(found, f"{message!r} is not in {self.messages()}")
        return self

    def waitUntilOpen(self):
        """Waits until the folder's path is printed."""
        self._test.assertTrue(eventually(lambda: self.stdout().endswith("\n")), self.messages())
        return self

    def signal(self, number):
        self.process.send_signal(number)
        return self

    def end(self, timeout=30):
        """Waits for the end; the exit status."""
        return self.process.wait(timeout)


class SmartCase(BusCase):
    def makeItem(self, name="Docs", content="private", directory=None):
        folder = (directory or self.work) / name
        folder.mkdir(parents=True)
        (folder / "file").write_text(content)
        result = self.run_(QV, "lock", "--stdin", folder, stdin=PASSWORD + "\n")
        self.assertEqual(0, result.returncode, result)
        self.key = result.stdout.splitlines()[1]
        return folder.with_name(name + ".quillvane")

    def snapshot(self, directory=None):
        """What is to be as before when the folder is closed again."""
        found = {}
        for entry in (directory or self.work).iterdir():
            status = entry.lstat()
            content = entry.read_bytes() if entry.name.startswith(".") else None
            # The image itself is written to.
            time = status.st_mtime_ns if entry.suffix != ".quillvane" else None
            found[entry.name] = (status.st_mode, status.st_ino, time, content)
        if ".hidden" in found:  # replaced, with the same content
            found[".hidden"] = (found[".hidden"][0], found[".hidden"][3])
        return found

    def assertClosed(self, *items):
        self.assertEqual([], quillvane.mountsBelow(self.directory))
        for item in items:
            self.assertFalse(os.path.lexists(item.with_suffix("")), item)
            self.assertFalse(self.isHidden(item), item)

    def isHidden(self, item):
        hidden = item.parent / ".hidden"
        return hidden.exists() and item.name in hidden.read_text().split("\n")

    def isOpen(self, item):
        return str(item.with_suffix("")) in quillvane.mountsBelow(self.directory)

    def preferences(self):
        return (self.home / ".config/Quillvane/Quillvane.conf").read_text()


class SmartTest(SmartCase):
    def testOpensInPlaceAndLeavesNoTrace(self):
        for name in ("naïve – 写真 folder.d", "two\nlines \\ here"):
            place = self.work / f"in {name}"
            item = self.makeItem(name, directory=place)
            (place / ".hidden").write_text("first\nlast")
            os.chmod(place / ".hidden", 0o640)
            (place / "neighbour").write_text("x")
            os.utime(place / "neighbour", ns=(1, 1_000_000_001))
            before = self.snapshot(place)

            manager = Manager(self, os.path.relpath(item, self.work), "--minutes", "7")
            manager.waitUntilOpen()
            folder = place / name
            self.assertEqual(f"{folder}\n", manager.stdout())
            self.assertEqual("private", (folder / "file").read_text())
            self.assertEqual("\n" not in name, self.isHidden(item))
            (folder / "file").write_text("changed")

            self.assertEqual(0, manager.signal(signal.SIGINT).end())
            self.assertEqual("\n".join([f"Opening {name} in place…", OPENED.format(name, 7),
                                        f"Closing {name}…", CLOSED.format(name)]),
                             "\n".join(manager.messages()))
            self.assertEqual(before, self.snapshot(place))
            self.assertClosed(item)
            self.assertIn("size=0", self.preferences())

    def testTheRecoveryKeyOpensToo(self):
        item = self.makeItem()
        manager = Manager(self, item, "--recovery-key", secret=self.key.lower()).waitUntilOpen()
        self.assertEqual(0, manager.signal(signal.SIGHUP).end())
        self.assertClosed(item)

    def testAWrongPasswordLeavesEverythingAsItIs(self):
        item = self.makeItem()
        before = self.snapshot()
        manager = Manager(self, item, secret="wrong")
        self.assertEqual(1, manager.end())
        self.assertEqual("", manager.stdout())
        self.assertEqual(2, len(manager.messages()), manager.messages())
        self.assertEqual(before, self.snapshot())
        self.assertClosed(item)

    def testAFolderThatStandsThereIsKept(self):
        item = self.makeItem()
        (self.work / "Docs").mkdir()
        (self.work / "Docs/other").write_text("x")
        self.assertEqual(1, Manager(self, item).end())
        self.assertEqual(["other"], os.listdir(self.work / "Docs"))
        self.assertFalse(self.isHidden(item))

    def testAFolderInUseStaysOpenAndTheWriterGoesOn(self):
        item = self.makeItem()
        manager = Manager(self, item).waitUntilOpen()
        with open(self.work / "Docs/written", "w") as writer:
            writer.write("before ")
            writer.flush()
            manager.signal(signal.SIGINT).waitFor(IN_USE)
            self.assertTrue(self.isOpen(item))
            writer.write("after")
        self.assertEqual(0, manager.signal(signal.SIGINT).end())
        self.assertClosed(item)
        Manager(self, item).waitUntilOpen()
        self.assertEqual("before after", (self.work / "Docs/written").read_text())

    def testTerminationEndsEvenWhenInUseAndTheNextStartTakesOver(self):
        item = self.makeItem()
        manager = Manager(self, item).waitUntilOpen()
        with open(self.work / "Docs/file"):
            self.assertEqual(1, manager.signal(signal.SIGTERM).end())
            self.assertEqual(f'"Docs" stays open. Close it with: qv smart --close "{item}"',
                             manager.messages()[-1])
            self.assertNotIn(IN_USE, manager.messages(), "nobody is left to close it")
            self.assertTrue(self.isOpen(item) and self.isHidden(item))
        again = Manager(self, item, secret="not asked for").waitUntilOpen()
        self.assertEqual([STILL_OPEN.format("Docs")], again.messages())
        self.assertEqual(0, again.signal(signal.SIGTERM).end())
        self.assertClosed(item)

    def testKilledWithTheVolumeStillMounted(self):
        item = self.makeItem()
        Manager(self, item).waitUntilOpen().signal(signal.SIGKILL).end()
        self.assertTrue(self.isOpen(item))
        other = self.makeItem("Other")
        manager = Manager(self, other).waitUntilOpen()
        self.assertTrue(self.isOpen(item), "it is taken over, not closed")
        self.assertEqual(0, manager.signal(signal.SIGINT).end())
        self.assertClosed(item, other)

    def testKilledWithTheVolumeGone(self):
        item = self.makeItem()
        Manager(self, item).waitUntilOpen().signal(signal.SIGKILL).end()
        self.run_(quillvane.tool("hdiutil"), "detach", self.work / "Docs")
        self.assertTrue(self.isHidden(item))
        other = Manager(self, self.makeItem("Other")).waitUntilOpen()
        self.assertFalse(self.isHidden(item))
        self.assertFalse((self.work / "Docs").exists())
        other.signal(signal.SIGINT).end()

    def testTheItemIsGoneWhenTheVolumeGoes(self):
        item = self.makeItem()
        manager = Manager(self, item).waitUntilOpen()
        item.rename(self.work / "moved")
        self.run_(quillvane.tool("hdiutil"), "detach", self.work / "Docs")
        self.assertEqual(0, manager.end())
        self.assertEqual([".Docs.quillvane.qvkeys", "moved"], sorted(os.listdir(self.work)))

    def testTheLastCopyIsNotThrownAway(self):
        item = self.makeItem()
        manager = Manager(self, item).waitUntilOpen()
        kept = self.directory / "kept"
        os.link(item, kept)
        item.unlink()
        manager.signal(signal.SIGINT)
        self.assertTrue(eventually(lambda: "isn't there any more" in manager.messages()[-1]))
        self.assertTrue(self.isOpen(item))
        os.link(kept, item)
        self.assertEqual(0, manager.signal(signal.SIGINT).end())
        self.assertClosed(item)

    def testAnItemReachedThroughALinkIsTheSameItem(self):
        item = self.makeItem()
        (self.directory / "link").symlink_to(self.work)
        other = self.directory / "link/Docs.quillvane"
        manager = Manager(self, other).waitUntilOpen()
        self.assertEqual(f"{self.work}/Docs\n", manager.stdout())
        refused = self.run_(QV, "smart", "--stdin", item, stdin=PASSWORD + "\n")
        self.assertEqual((1, '"Docs" is already open.\n'), (refused.returncode, refused.stderr))
        result = self.run_(QV, "smart", "--close", other)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertEqual(0, manager.end(5), "noticed at once")
        self.assertClosed(item)

    def testADirectoryAboveIsRenamed(self):
        item = self.makeItem(directory=self.work / "before")
        manager = Manager(self, item).waitUntilOpen()
        (self.work / "before").rename(self.work / "after")
        (self.work / "after").rename(self.work / "at last")
        item = self.work / "at last/Docs.quillvane"
        self.assertTrue(eventually(lambda: "at last" in self.preferences(), 30))
        self.assertTrue(self.isOpen(item) and self.isHidden(item))
        self.assertEqual(0, manager.signal(signal.SIGINT).end())
        self.assertClosed(item)

    def testClosedRightAfterADirectoryAboveIsRenamed(self):
        item = self.makeItem(directory=self.work / "before")
        manager = Manager(self, item).waitUntilOpen().waitFor(OPENED.format("Docs", 5))
        (self.work / "before").rename(self.work / "after")
        self.assertEqual(0, manager.signal(signal.SIGINT).end())
        self.assertClosed(self.work / "after/Docs.quillvane")

    def testNobodyReadsTheMessages(self):
        item = self.makeItem()
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        os.set_blocking(writer, False)
        try:
            while True:
                os.write(writer, b"x" * 4096)
        except BlockingIOError:
            os.set_blocking(writer, True)
        process = subprocess.Popen([QV, "smart", "--stdin", item], stdin=subprocess.PIPE,
                                   stdout=writer, stderr=writer, env=self.environment, text=True)
        os.close(writer)
        self.addCleanup(process.kill)
        process.stdin.write(PASSWORD + "\n")
        process.stdin.close()
        self.assertTrue(eventually(lambda: self.isOpen(item)))
        self.assertTrue(eventually(lambda: "Docs" in self.preferences()))
        process.send_signal(signal.SIGTERM)
        self.assertEqual(0, process.wait(30))
        self.assertClosed(item)

    def testAnInterruptWhileThePasswordIsReadOpensNothing(self):
        item = self.makeItem()
        process = subprocess.Popen(
            [QV, "smart", "--stdin", item], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, env=self.environment, text=True,
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
        time.sleep(0.3)
        process.send_signal(signal.SIGINT)
        process.wait(30)
        output = process.communicate()
        self.assertEqual((1, "", CANCELLED + "\n"),
                         (process.returncode, *output))
        self.assertClosed(item)

    def testClosedFromElsewhere(self):
        item = self.makeItem()
        for words in (["smart", "--close", item], ["close", item], ["close", self.work / "Docs"]):
            manager = Manager(self, item).waitUntilOpen()
            result = self.run_(QV, *words)
            self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr), words)
            self.assertEqual(0, manager.end())
            self.assertClosed(item)

    def testCloseRefusesWhatIsInUseOrNotOpen(self):
        item = self.makeItem()
        result = self.run_(QV, "smart", "--close", item)
        self.assertEqual((1, '"Docs.quillvane" isn\'t open.\n'), (result.returncode, result.stderr))
        manager = Manager(self, item).waitUntilOpen()
        with open(self.work / "Docs/file"):
            result = self.run_(QV, "smart", "--close", item)
            self.assertEqual((1, IN_USE + "\n"), (result.returncode, result.stderr))
            self.assertTrue(self.isOpen(item))
        self.assertIsNone(manager.process.poll())

    def testTellsOfWhatWasSavedBesideTheVolume(self):
        item = self.makeItem()
        folder = self.work / "Docs"
        text = (f'"Docs" is closed, but a program has saved something in its folder since. That '
                f"isn't encrypted: move it out of {folder}, and into it when it is open again.")
        for byManager in (True, False):
            folder.mkdir()
            beneath = os.open(folder, os.O_RDONLY | os.O_DIRECTORY)
            manager = Manager(self, item).waitUntilOpen()
            with open(os.open("late", os.O_CREAT | os.O_WRONLY, dir_fd=beneath), "w") as file:
                file.write("private")
            os.close(beneath)
            self.assertEqual(["file"], os.listdir(folder))
            if byManager:
                self.assertEqual(0, manager.signal(signal.SIGINT).end())
                self.assertEqual(text, manager.messages()[-1])
            else:
                result = self.run_(QV, "smart", "--close", item)
                self.assertEqual((1, text + "\n"), (result.returncode, result.stderr))
                manager.end()
            self.assertEqual(["late"], os.listdir(folder))
            self.assertFalse(self.isHidden(item))
            shutil.rmtree(folder)

    def testCloseRepairsWhatWasLeftBehind(self):
        item = self.makeItem()
        Manager(self, item).waitUntilOpen().signal(signal.SIGKILL).end()
        self.run_(quillvane.tool("hdiutil"), "detach", self.work / "Docs")
        result = self.run_(QV, "smart", "--close", item)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertClosed(item)

    def testTwoManagersLeaveEachOtherAlone(self):
        items = [self.makeItem("First"), self.makeItem("Second")]
        first, second = [Manager(self, item).waitUntilOpen() for item in items]
        refused = self.run_(QV, "smart", "--stdin", items[0], stdin=PASSWORD + "\n")
        self.assertEqual((1, '"First" is already open.\n'), (refused.returncode, refused.stderr))
        self.assertTrue(self.isHidden(items[0]))
        self.assertEqual(0, second.signal(signal.SIGINT).end())
        self.assertTrue(self.isOpen(items[0]))
        self.assertIn("First", self.preferences())
        self.assertEqual(0, first.signal(signal.SIGINT).end())
        self.assertClosed(*items)

    def testStoppedWhileOpening(self):
        item = self.makeItem()
        for delay in (0.02, 0.1, 0.3):
            manager = Manager(self, item)
            manager.waitFor("Opening Docs in place…")
            try:
                manager.process.wait(delay)
            except subprocess.TimeoutExpired:
                pass
            status = manager.signal(signal.SIGTERM).end()
            # As long as the key is derived it is not too late to leave the item as it is.
            self.assertIn((status, manager.messages()[-1]),
                          [(0, CLOSED.format("Docs")), (1, CANCELLED)])
            self.assertClosed(item)

    def testTheVolumesServerDies(self):
        item = self.makeItem()
        manager = Manager(self, item).waitUntilOpen()
        with open(self.work / "Docs/saved", "w") as file:
            file.write("safe")
            file.flush()
            os.fsync(file.fileno())
        for server in self.servers():
            os.kill(server, signal.SIGKILL)
        self.assertEqual(0, manager.end(60), "noticed at the next look, within 20 seconds")
        self.assertClosed(item)
        Manager(self, item).waitUntilOpen()
        self.assertEqual("safe", (self.work / "Docs/saved").read_text())

    def servers(self):
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if (process / "comm").read_text() == "hdiutil\n":
                    found.append(int(process.name))
            except OSError:
                pass  # ended meanwhile
        self.assertTrue(found)
        return found


class SessionEventsTest(SmartCase):
    """The desktop's events, by real signals on buses of the test's own."""

    def open(self, count=1):
        self.items = [self.makeItem(name) for name in ("First", "Second")[:count]]
        return [Manager(self, item).waitUntilOpen() for item in self.items]

    def testTheScreenIsLocked(self):
        login = self.logind()
        session = login.addSession("c1", os.getuid())
        first, second = self.open(2)
        login.waitForInhibitors(2)
        login.lock(session)
        for name, manager in (("First", first), ("Second", second)):
            self.assertEqual(0, manager.end())
            self.assertEqual(["Closing smart folders (screen lock)…", CLOSED.format(name)],
                             manager.messages()[-2:])
        self.assertClosed(*self.items)

    def testTheScreenSaverStarts(self):
        saver = self.screenSaver("org.gnome.ScreenSaver")
        (manager,) = self.open()
        saver.setActive(False)
        saver.setActive(True)
        self.assertEqual(0, manager.end())
        self.assertClosed(*self.items)

    def testTheComputerIsSwitchedOff(self):
        login = self.logind()
        (manager,) = self.open()
        ((what, who, _, mode),) = login.waitForInhibitors(1)
        self.assertEqual(("shutdown", "Quillvane", "delay"), (what, who, mode))
        login.prepareForShutdown(True)
        self.assertEqual(0, manager.end())
        self.assertIn("Closing smart folders (logout / shutdown)…", manager.messages())
        self.assertEqual([], login.waitForInhibitors(0))
        self.assertClosed(*self.items)

    def testPowerOffIsNotDelayedByAFolderInUse(self):
        login = self.logind()
        (manager,) = self.open()
        login.waitForInhibitors(1)
        with open(self.work / "First/file"):
            login.prepareForShutdown(True)
            self.assertEqual([], login.waitForInhibitors(0))
            self.assertTrue(self.isOpen(self.items[0]))
        self.assertIsNone(manager.process.poll())

    def testTheDesktopStopsTheProgram(self):
        desktop = self.sessionManager()
        (manager,) = self.open()
        desktop.waitForCalls("RegisterClient")
        desktop.askClient("Stop")
        self.assertIn(manager.end(), (0, 1))
        self.assertClosed(*self.items)

    def testTheUserLogsOut(self):
        desktop = self.sessionManager()
        (manager,) = self.open()
        desktop.waitForCalls("RegisterClient")
        desktop.askClient("EndSession")
        self.assertEqual(0, manager.end())
        self.assertIn("Closing smart folders (logout / shutdown)…", manager.messages())
        self.assertEqual([(True, "")], desktop.responses())
        self.assertClosed(*self.items)


if __name__ == "__main__":
    unittest.main()
