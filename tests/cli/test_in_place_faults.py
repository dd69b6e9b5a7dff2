"""Opening in place when processes are killed in the middle."""

import os
import pathlib
import signal
import subprocess
import time
import unittest

import in_place
import items
import quillvane


class InPlaceFaultsTest(in_place.InPlaceCase):
    def killServer(self, item):
        server = self.serverOf(item)
        os.kill(server, signal.SIGKILL)
        self.assertTrue(quillvane.eventually(lambda: not pathlib.Path(f"/proc/{server}").exists()
                                             or self.isZombie(server)))

    def isZombie(self, process):
        try:
            return " Z " in pathlib.Path(f"/proc/{process}/stat").read_text()
        except OSError:
            return True

    def writeDurably(self, path, text):
        with open(path, "w") as file:
            file.write(text)
            file.flush()
            os.fsync(file.fileno())
        directory = os.open(path.parent, os.O_RDONLY)
        os.fsync(directory)
        os.close(directory)

    def testAKilledServerIsRecoveredFrom(self):
        for name in ("Docs", "with space", "line\nfeed", "Ünï – 写真"):
            with self.subTest(name):
                item, _ = self.smallItem(self.work / name)
                before = self.state()
                folder = self.openInPlace(item)
                self.writeDurably(folder / "kept", "synced")
                self.killServer(item)
                self.assertRaises(OSError, os.listdir, folder)
                self.recover(item)
                self.assertEqual(before, self.state())
                self.assertEqual([], quillvane.mountsBelow(self.directory))
                self.assertEqual("synced", (self.openInPlace(item) / "kept").read_text())
                self.closeInPlace(item)
                self.assertEqual(before, self.state())

    def testAKilledServerIsNotInTheWayOfOpeningAgainOrClosing(self):
        item, _ = self.smallItem()
        before = self.state()
        folder = self.openInPlace(item)
        self.writeDurably(folder / "kept", "synced")
        self.killServer(item)
        self.assertEqual("synced", (self.openInPlace(item) / "kept").read_text())
        self.killServer(item)
        # Nobody has seen it closed, so that is not what is said; but nothing stays in the way.
        refused = self.drive("close", item)
        self.assertEqual((1, ""), (refused.returncode, refused.stdout))
        self.assertIn("the volume's server has died", refused.stderr)
        self.recover(item)
        self.assertEqual(before, self.state())

    def testAKilledServerWhileAFileIsOpen(self):
        item, _ = self.smallItem()
        before = self.state()
        file = os.open(self.openInPlace(item) / "open", os.O_WRONLY | os.O_CREAT, 0o644)
        os.write(file, b"synced")
        os.fsync(file)
        self.killServer(item)
        self.recover(item)
        self.assertEqual(before, self.state())
        self.assertRaises(OSError, os.write, file, b"lost")
        self.assertRaises(OSError, os.close, file)
        self.assertEqual(b"synced", (self.openInPlace(item) / "open").read_bytes())
        self.closeInPlace(item)

    def testTheToolIsKilledWhileOpening(self):
        item, _ = self.smallItem()
        before = self.state()
        failed = 0
        for number in range(10):
            opening = self.startOpening(item)
            tool = self.childOf(opening.pid)
            time.sleep(number * 0.003)
            try:
                os.kill(tool, signal.SIGKILL)
            except ProcessLookupError:
                pass  # it was faster
            _, stderr = opening.communicate(timeout=60)
            if opening.returncode == 0:
                self.closeInPlace(item)
            else:
                failed += 1
                self.assertIn("Couldn't mount the image.", stderr)
            self.assertFalse(self.isMounted(item))
            self.assertEqual(before, self.state())
        self.assertGreater(failed, 0, "the tool was never caught")

    def testTheToolIsKilledWhenTheVolumeIsMounted(self):
        item, _ = self.smallItem()
        before = self.state()
        opening, tool = self.stoppedWhileOpening(item)
        self.assertTrue(quillvane.eventually(lambda: self.isMounted(item)))
        time.sleep(0.5)  # it has told of the volume then, and would not take it back
        os.kill(tool, signal.SIGKILL)
        _, stderr = opening.communicate(timeout=60)
        self.assertEqual(1, opening.returncode)
        self.assertIn("Couldn't mount the image.", stderr)
        self.assertFalse(self.isMounted(item))
        self.assertEqual(before, self.state())
        self.openInPlace(item)
        self.closeInPlace(item)

    def testTheEngineIsKilledAtAnyMomentOfOpening(self):
        item, _ = self.smallItem()
        before = self.state()
        start = time.monotonic()
        self.openInPlace(item)
        whole = time.monotonic() - start
        self.closeInPlace(item)
        hidden = 0
        for number in range(25):
            opening = self.startOpening(item)
            time.sleep(whole * number / 20)
            opening.kill()
            opening.communicate(timeout=60)
            # The tool goes on by itself; nobody tells it that its caller is gone.
            hidden += self.hiddenNames() is not None
            self.settle(item)
            self.assertEqual(before, self.state())
        self.assertGreater(hidden, 0, "never killed while the item was hidden")
        self.assertEqual("content", (self.openInPlace(item) / "file").read_text())
        self.closeInPlace(item)

    def startOpening(self, item):
        opening = subprocess.Popen([in_place.DRIVER, "open", item], env=self.environment, text=True,
                                   cwd=self.work, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        opening.stdin.write(items.PASSWORD)
        opening.stdin.close()
        opening.stdin = None
        return opening

    def stoppedWhileOpening(self, item):
        """A process that opens the item, and its tool, stopped when the server was started."""
        for _ in range(20):
            opening = self.startOpening(item)
            try:
                tool = self.childOf(opening.pid)
                self.childOf(tool)  # the server, which goes on
                os.kill(tool, signal.SIGSTOP)
                return opening, tool
            except (FileNotFoundError, ProcessLookupError):  # it was faster
                opening.communicate(timeout=60)
                self.closeInPlace(item)
        return self.fail("the tool was never caught")

    def childOf(self, process, seconds=10):
        """The number of the first process that the one of this number has started."""
        children = pathlib.Path(f"/proc/{process}/task/{process}/children")
        end = time.monotonic() + seconds
        while not (found := children.read_text().split()) and time.monotonic() < end:
            time.sleep(0.001)
        self.assertTrue(found, "no tool was started")
        return int(found[0])

    def settle(self, item):
        """Waits for what a killed process left running, closes what it opened, and recovers."""
        def quiet():
            return self.isMounted(item) or not quillvane.serversOf(item)
        self.assertTrue(quillvane.eventually(quiet))
        if self.isMounted(item):
            self.closeWhenServed(item)
        self.recover(item)
        self.assertTrue(quillvane.eventually(lambda: not quillvane.serversOf(item)))
        self.recover(item)
        self.assertEqual([], quillvane.mountsBelow(self.directory))

    def isMounted(self, item):
        return str(item.with_suffix("")) in quillvane.mountsBelow(self.directory)

    def closeWhenServed(self, item):
        """A volume is mounted a moment before it is served, and one that nobody was told of goes."""
        def closed():
            return self.drive("close", item).returncode == 0 or not self.isMounted(item)
        self.assertTrue(quillvane.eventually(closed))


if __name__ == "__main__":
    unittest.main()
