"""A folder comes back from its item exactly as it was."""

import os
import pathlib
import subprocess
import unittest

import items
import quillvane
from items import PASSWORD


class RoundTripTest(items.ItemCase):
    def assertThereAndBack(self, name, before):
        item, _ = self.lock(self.work / name)
        self.assertEqual(self.work / f"{name}.quillvane", item)
        self.assertNothingLeft(item.name, items.keyFile(item).name)
        self.assertEqual(self.work / name, self.remove(item))
        self.assertNothingLeft(name)
        self.assertSameAs(before, self.work / name)

    def assertSameAs(self, before, tree):
        found = quillvane.differences(before, quillvane.describe(tree))
        self.assertEqual([], found[:20], f"{len(found)} differences")

    def testEverythingThatIsHard(self):
        folder = quillvane.makeTree(self.work / "Docs")
        items.addHardNames(folder)
        items.addModesAndTimes(folder)
        items.addLinksAndHoles(folder)
        items.addDepth(folder)
        self.assertThereAndBack("Docs", quillvane.describe(folder))

    def testManyFilesAndLargeOnes(self):
        folder = quillvane.makeBigFolder(self.work / "Docs", 160, files=2)
        items.addManyFiles(folder, 10_000)
        self.assertThereAndBack("Docs", quillvane.describe(folder))

    def testFolderNames(self):
        for name in ("two words", "Übergrößenträger", "U\u0308ber", "写真", "it's \"quoted\"",
                     "line\nfeed", "-rf", "back\\slash", "100%", "dots.in.name", "x.quillvane",
                     "comma, name", ".hidden", "{}", "n" * 237):
            with self.subTest(name):
                folder = self.smallFolder(name)
                self.assertThereAndBack(name, quillvane.describe(folder))
                quillvane.removeTree(folder)

    def testNameThatIsNoText(self):
        name = os.fsdecode(b"invalid \xff bytes")
        folder = self.smallFolder(name)
        before = quillvane.describe(folder)
        result = subprocess.run([quillvane.QV, "lock", "--stdin", os.fsencode(folder)],
                                input=PASSWORD.encode() + b"\n", env=self.environment,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual(0, result.returncode, result)
        item = os.fsencode(folder) + b".quillvane"
        self.assertEqual(item, result.stdout.splitlines()[0])
        result = subprocess.run([quillvane.QV, "remove", "--stdin", item],
                                input=PASSWORD.encode() + b"\n", env=self.environment,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.assertEqual((0, os.fsencode(folder) + b"\n"), (result.returncode, result.stdout))
        self.assertSameAs(before, folder)

    def testFoldersWithLittleInThem(self):
        for name, entries in (("empty", []), ("hidden", [".a", ".b"]), ("desktop", [".DS_Store"]),
                              ("found", ["lost+found/"])):
            with self.subTest(name):
                folder = self.work / name
                folder.mkdir(mode=0o750)
                for entry in entries:
                    path = folder / entry
                    path.mkdir() if entry.endswith("/") else path.write_text("x")
                os.utime(folder, ns=(1, 1_234_567_890_123_456_789))
                self.assertThereAndBack(name, quillvane.describe(folder))
                quillvane.removeTree(folder)

    def testGoneAndBackTwice(self):
        folder = quillvane.makeTree(self.work / "Docs")
        before = quillvane.describe(folder)
        for _ in range(2):
            self.assertThereAndBack("Docs", before)

    def testRecoveryKeyAndChangedPassword(self):
        folder = quillvane.makeTree(self.work / "Docs")
        before = quillvane.describe(folder)
        item, key = self.lock(folder)
        self.succeed("change", item, secrets=(PASSWORD, "new"))
        self.assertFails("remove", item, says="Wrong password.")
        self.succeed("change", item, "--recovery-key", secrets=(key, "newer"))
        self.assertFails("remove", item, secrets=("new",), says="Wrong password.")
        self.assertSameAs(before, self.remove(item, secrets=("newer",)))
        item, key = self.lock(folder)
        self.assertSameAs(before, self.remove(item, "--recovery-key", secrets=(key,)))
        item, key = self.lock(folder)
        items.keyFile(item).unlink()
        self.assertSameAs(before, self.remove(item, "--recovery-key", secrets=(key,)))
        self.assertNothingLeft("Docs")

    def testEditsAreKept(self):
        folder = quillvane.makeTree(self.work / "Docs")
        item, _ = self.lock(folder)
        volume = self.open(item)
        (volume / "letters/ada.txt").write_text("Dear Ada,\nmore of it.\n")
        os.rename(volume / "photo.raw", volume / "letters/renamed.raw")
        os.unlink(volume / "sparse")
        quillvane.removeTree(volume / "letters/empty folder")
        (volume / "new folder").mkdir()
        (volume / "new folder/new").write_bytes(quillvane.pseudoRandom(5_000_000, 3))
        os.link(volume / "new folder/new", volume / "new link")
        with open(volume / "letters/run.sh", "a") as file:
            file.write("echo more\n")
        os.truncate(volume / "letters/hard-link.raw", 1_000_000)
        edited = quillvane.describe(volume)
        self.close(item)
        volume = self.open(item)
        self.assertSameAs(edited, volume)
        self.close(item)
        self.assertSameAs(edited, self.remove(item))
        self.assertNothingLeft("Docs")

    def testFolderNamedInEveryWay(self):
        for spell in ("Docs/", "./Docs", "../work/Docs//", str(self.work / "Docs")):
            with self.subTest(spell):
                folder = self.smallFolder()
                item, _ = self.lock(spell)
                self.assertEqual(self.work / "Docs.quillvane", pathlib.Path(item))
                self.remove(item)
                quillvane.removeTree(folder)
        folder = self.smallFolder()
        item, _ = self.lock(".", cwd=folder)
        self.assertEqual(self.work / "Docs.quillvane", pathlib.Path(item))


if __name__ == "__main__":
    unittest.main()
