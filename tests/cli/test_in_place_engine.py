"""Items that are opened on a folder of their name at their own place, and closed again."""

import os
import threading
import unittest

import in_place
import items
import quillvane

NAMES = ("Docs", "with space ", "line\nfeed", "Ünïcödé – 写真", "dots.in.name", "tab\t\\040", "-stdinpass",
         "'\"$HOME\"'", "n" * 237)


class InPlaceEngineTest(in_place.InPlaceCase):
    def testIsTheFolderWhileOpenAndTheItemAgainThen(self):
        for name in NAMES:
            with self.subTest(name):
                item, _ = self.smallItem(self.work / name)
                before = self.state()
                folder = self.openInPlace(item)
                self.assertEqual(self.work / name, folder)
                self.assertEqual("content", (folder / "file").read_text())
                (folder / "new").write_text("written while open")
                listed = b"" if "\n" in name else os.fsencode(item.name) + b"\n"
                self.assertEqual(listed, self.hiddenNames() or b"")
                self.closeInPlace(item)
                self.assertEqual(before, self.state())
                self.assertEqual("written while open",
                                 (self.openInPlace(item) / "new").read_text())
                self.closeInPlace(item)
                self.assertEqual(before, self.state())

    def testLeavesTheListOfHiddenNamesAsItWas(self):
        item, _ = self.smallItem()
        for text in (b"", b"neighbour", b"neighbour\n", b"a\r\nneighbour\r\n", b"\n\nx", b"\xff\n"):
            for mode in (0o600, 0o664):
                with self.subTest(text):
                    (self.work / ".hidden").write_bytes(text)
                    (self.work / ".hidden").chmod(mode)
                    before = self.state()
                    self.openInPlace(item)
                    self.assertIn(b"Docs.quillvane", self.hiddenNames().split(b"\n"))
                    self.closeInPlace(item)
                    self.assertEqual(before, self.state())

    def testTakesThePathAsItIsGiven(self):
        item, _ = self.smallItem()
        os.symlink(self.work, self.directory / "elsewhere")
        before = self.state()
        for path, place in ((f"{item}/", self.work), ("Docs.quillvane", self.work),
                            ("./neighbour/../Docs.quillvane/", self.work),
                            (f"{self.directory}/elsewhere/Docs.quillvane",
                             self.directory / "elsewhere")):
            with self.subTest(path):
                self.assertEqual(place / "Docs", self.openInPlace(path))
                self.recover(path)
                self.assertTrue(os.path.ismount(self.work / "Docs"), "it was open")
                self.assertEqual(b"Docs.quillvane\n", self.hiddenNames())
                self.closeInPlace(path)
                self.assertEqual(before, self.state())

    def testAnyLettersInTheExtension(self):
        item, _ = self.smallItem()
        capitals = item.with_name("Docs.QUILLVANE")
        items.keyFile(item).rename(items.keyFile(capitals))
        item.rename(capitals)
        before = self.state()
        self.assertEqual(self.work / "Docs", self.openInPlace(capitals))
        self.assertEqual(b"Docs.QUILLVANE\n", self.hiddenNames())
        self.closeInPlace(capitals)
        self.assertEqual(before, self.state())

    def testTwoItemsAtATime(self):
        first, _ = self.smallItem()
        second, _ = self.smallItem("Other")
        before = self.state()
        self.openInPlace(first)
        self.openInPlace(second)
        result = self.drive("close", first)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertEqual(b"Other.quillvane\n", self.hiddenNames())
        self.closeInPlace(second)
        self.assertEqual(before, self.state())

    def testTheRecoveryKeyOpensToo(self):
        item, key = self.smallItem()
        before = self.state()
        folder = self.openInPlace(item, key, "open-with-key")
        self.assertEqual("content", (folder / "file").read_text())
        self.closeInPlace(item)
        self.assertEqual(before, self.state())

    def testAnEmptyFolderIsUsed(self):
        item, _ = self.smallItem()
        before = self.state()
        (self.work / "Docs").mkdir()
        self.openInPlace(item)
        self.closeInPlace(item)
        self.assertEqual(before, self.state())

    def testWhatIsInTheWayStays(self):
        item, _ = self.smallItem()
        (self.work / "Docs").mkdir()
        (self.work / "Docs/file").write_text("mine")
        exists = 'A folder named "Docs" already exists here'
        self.assertOpenFails(item, exists)
        quillvane.removeTree(self.work / "Docs")
        for target in ("neighbour", "nowhere"):
            os.symlink(target, self.work / "Docs")
            self.assertOpenFails(item, exists)
            (self.work / "Docs").unlink()
        (self.work / "Docs").write_text("a file")
        self.assertOpenFails(item, "Couldn't mount the image\\.\nhdiutil: .* - Not a directory")
        (self.work / "Docs").unlink()
        self.assertOpenFails(item, "^Wrong password", secret="wrong")
        item.rename(self.work / "away")
        self.assertOpenFails(item, "The selected item no longer exists")

    def testADamagedItemIsLeftAsItWas(self):
        item, _ = self.smallItem()
        with open(item, "r+b") as file:
            file.write(bytes(1 << 20))
        self.assertOpenFails(item, "Couldn't mount the image\\.\nhdiutil: .* - image not recognized")

    def testOpeningWhatIsOpenChangesNothing(self):
        item, _ = self.smallItem()
        before = self.state()
        folder = self.openInPlace(item)
        for content in ("with a file", "empty"):
            with self.subTest(content):
                result = self.drive("open", item, items.PASSWORD)
                self.assertEqual(1, result.returncode)
                self.assertTrue(os.path.ismount(folder))
                self.assertEqual(b"Docs.quillvane\n", self.hiddenNames())
                if content == "with a file":
                    (folder / "file").unlink()
        (folder / "again").write_text("still writable")
        self.closeInPlace(item)
        self.assertEqual(before, self.state())

    def testWhatIsOpenElsewhereIsNotOpenedInPlace(self):
        item, _ = self.smallItem()
        self.open(item)
        self.assertOpenFails(item, "Couldn't mount the image\\.\nhdiutil: attach failed - ")
        self.close(item)

    def testABusyFolderStaysOpenAndTheWriterGoesOn(self):
        item, _ = self.smallItem()
        before = self.state()
        folder = self.openInPlace(item)
        enough, stop, written = threading.Event(), threading.Event(), []

        def write():
            with open(folder / "log", "wb", buffering=0) as file:
                while not stop.is_set():
                    written.append(quillvane.pseudoRandom(50_000, len(written)))
                    file.write(written[-1])
                    if len(written) == 20:
                        enough.set()
        writer = threading.Thread(target=write)
        writer.start()
        try:
            self.assertTrue(enough.wait(30))
            for _ in range(3):
                result = self.drive("close", item)
                self.assertEqual(1, result.returncode)
                self.assertRegex(result.stderr, "The folder is in use")
                self.assertTrue(os.path.ismount(folder))
                self.assertEqual(b"Docs.quillvane\n", self.hiddenNames())
            until = len(written) + 5
            self.assertTrue(quillvane.eventually(lambda: len(written) > until))
        finally:
            stop.set()
            writer.join()
        self.closeInPlace(item)
        self.assertEqual(before, self.state())
        self.assertEqual(b"".join(written), (self.openInPlace(item) / "log").read_bytes())
        self.closeInPlace(item)

    def testAFileThatAppearedUnderTheMountIsKept(self):
        item, _ = self.smallItem()
        folder = self.openInPlace(item)
        result = self.run_(quillvane.tool("hdiutil"), "detach", folder)
        self.assertEqual(0, result.returncode, result)
        (folder / "late").write_text("after the volume was gone")
        self.recover(item)
        self.assertEqual("after the volume was gone", (folder / "late").read_text())
        self.assertIsNone(self.hiddenNames())
        self.assertOpenFails(item, 'A folder named "Docs" already exists here')


if __name__ == "__main__":
    unittest.main()
