"""What a killed qv leaves is found, told, finished and undone: at each of its steps, while the tools
that it had started go on by themselves."""

import base64
import json
import os
import re
import secrets
import signal
import unittest

import items
import kills
import quillvane

IMAGE = r"\.Quillvane-[-0-9A-F]{36}\.sparseimage"
NOTHING = 'Nothing was interrupted with "Docs'


class InterruptedTest(kills.KillCase):
    def setUp(self):
        super().setUp()
        folder = quillvane.makeTree(self.directory / "original/Docs")
        quillvane.makeBigFolder(folder / "big", 48)
        self.useFolder(folder)

    def killed(self, step, *words):
        """Starts over, and kills qv at that step."""
        (self.startWithFolder if words[0] == "lock" else self.startWithItem)()
        self.killQvAt(step, *words)
        # An image that is not there yet could not be found.
        self.assertTrue(quillvane.eventually(
            lambda: not any(b"\0create\0" in line for line in self.processes()), 60))

    def end(self, verb, path):
        """Finishes or undoes what there is to be; what is there in the end, and nothing else."""
        result = self.qv(verb, path)
        if "The key file stays." in result.stderr:
            (self.work / ".Docs.quillvane.qvkeys").unlink()
        if result.returncode != 0:
            self.assertIn(NOTHING, result.stderr)
            self.assertEqual(1, result.returncode)
        self.assertSettled()
        if (self.work / "Docs").exists():
            self.assertNothingLeft("Docs")
            self.assertTrue(self.isWhole(self.work / "Docs"))
            return "folder"
        self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.remove("Docs.quillvane")
        self.assertTrue(self.isWhole(self.work / "Docs"))
        return "item"

    def sweep(self, steps, command, path, verb):
        outcomes = []
        for step in steps:
            with self.subTest(f"{verb} {command} {step}"):
                self.killed(step, command, path)
                outcomes.append(self.end(verb, path))
        return set(outcomes)

    def testProtectingIsFinished(self):
        self.assertEqual({"folder", "item"}, self.sweep(kills.LOCK, "lock", "Docs", "finish"))

    def testProtectingIsUndone(self):
        self.assertIn("folder", self.sweep(kills.LOCK, "lock", "Docs", "undo"))

    def testRemovingIsFinished(self):
        self.assertEqual({"item", "folder"},
                         self.sweep(kills.REMOVE, "remove", "Docs.quillvane", "finish"))

    def testRemovingIsUndone(self):
        self.assertIn("item", self.sweep(kills.REMOVE, "remove", "Docs.quillvane", "undo"))

    def testEveryCommandTellsIt(self):
        self.killed("Copying contents… ", "lock", "Docs")
        text = (f'Protecting "Docs" in {self.work} was interrupted. The folder is as it was; nothing '
                f'is protected yet. To end this: qv finish "{self.work}/Docs" or qv undo '
                f'"{self.work}/Docs"\n')
        for command in ("open", "remove", "change", "smart", "close"):
            result = self.qv(command, "Other.quillvane", secrets=())
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assertTrue(result.stderr.startswith(text), result)
        listed = self.qv("finish", secrets=())
        self.assertEqual((0, text, ""), (listed.returncode, listed.stdout, listed.stderr))
        self.assertEqual("", self.qv("close", self.home / "Other", secrets=()).stdout)
        # The same again clears it away and goes on.
        self.lock("Docs")
        self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.assertEqual("", self.qv("finish", secrets=()).stdout)

    def testRemovingAgainGoesOn(self):
        for step in ("Extracting contents… ", "Ejecting"):
            with self.subTest(step):
                self.killed(step, "remove", "Docs.quillvane")
                self.assertEqual(str(self.work / "Docs"), str(self.remove("Docs.quillvane")))
                self.assertNothingLeft("Docs")
                self.assertTrue(self.isWhole(self.work / "Docs"))

    def stopAtUnlink(self, *words):
        """Kills qv's main thread at its first unlinkat, that is, with the deletion noted."""
        status, says = self.faulty("unlinkat:signal=KILL:when=1", *words, children=False)
        self.assertEqual(-signal.SIGKILL, status, says)

    def testDeletionThatHadBegun(self):
        self.startWithFolder()
        self.stopAtUnlink("lock", "Docs")
        refused = self.qv("lock", "Docs")
        self.assertEqual((1, ""), (refused.returncode, refused.stdout))
        self.assertEndsWith("\nProtecting \"Docs\" in " + str(self.work) + " was interrupted while "
                            "the original was being deleted. Everything is in the encrypted copy, "
                            "which your password opens; the folder may hold only a part.\n",
                            "\n" + refused.stderr)
        (self.work / "Docs/new").write_text("came later")
        result = self.qv("finish", "Docs")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn('holds what is not so in the encrypted copy: "new"', result.stderr)
        self.assertEqual("came later", (self.work / "Docs/new").read_text())
        self.assertEqual(["new"], os.listdir(self.work / "Docs"))
        wrong = self.qv("finish", "Docs", secrets=["wrong"])
        self.assertEqual((1, ""), (wrong.returncode, wrong.stdout))
        (self.work / "Docs/new").unlink()
        self.assertEqual(str(self.work / "Docs.quillvane"), self.succeed("finish", "Docs"))
        self.assertNothingLeftButItem()

    def testEndingIsInterruptedInItsTurn(self):
        self.startWithFolder()
        self.stopAtUnlink("lock", "Docs")
        for number in (3, 9, 6):
            status, _ = self.faulty(f"unlinkat:signal=KILL:when={number}", "finish", "Docs",
                                    children=False)
            self.assertEqual(-signal.SIGKILL, status)
            self.settle()
        self.assertEqual(str(self.work / "Docs"), self.succeed("undo", "Docs"))
        self.assertNothingLeftButFolder()

    def testNoteThatWasLost(self):
        self.startWithFolder()
        self.stopAtUnlink("lock", "Docs")
        for note in self.notes():
            note.unlink()
        result = self.qv("close", "Other", secrets=())
        self.assertRegex(result.stderr, rf'^The encrypted copy of a folder was left in .*: "{IMAGE}"\. '
                                        r"Its password opens it once")
        (image,) = (name for name in os.listdir(self.work) if re.fullmatch(IMAGE, name))
        (self.work / image).rename(self.work / "Found.quillvane")
        items.keyFile(self.work / image).rename(self.work / ".Found.quillvane.qvkeys")
        quillvane.removeTree(self.work / "Docs")
        self.assertTrue(self.isWhole(self.remove("Found.quillvane")))

    def testStateDirectoryThatCannotBeWritten(self):
        self.startWithFolder()
        (self.home / ".local").write_text("in the way")
        result = self.qv("lock", "Docs")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn("Nothing was changed, because the operation couldn't be noted", result.stderr)
        (self.home / ".local").unlink()
        self.assertNothingLeftButFolder()


class ChoiceTest(items.ItemCase):
    """Several things were interrupted with the same names. Their notes are written by hand."""

    def setUp(self):
        super().setUp()
        self.operations = self.home / ".local/state/quillvane/operations"
        self.operations.mkdir(parents=True, mode=0o700)
        self.item = self.work / "Docs.quillvane"
        self.item.write_text("no image")
        items.keyFile(self.item).write_text(json.dumps({
            "version": 1, "kdf": "pbkdf2-sha256", "iterations": 210000,
            "salt": base64.b64encode(bytes(16)).decode(),
            "wrapped": base64.b64encode(bytes(48)).decode()}))

    def note(self, operation, image, *steps):
        record = {"version": 1, "operation": operation, "directory": str(self.work),
                  "directoryInode": self.work.stat().st_ino, "folder": "Docs",
                  "item": "Docs.quillvane", "image": image,
                  "originalInode": self.item.stat().st_ino}
        file = self.operations / (secrets.token_hex(16) + ".note")
        file.write_text("\n".join([json.dumps(record), *steps, ""]))
        return file

    def image(self, digit):
        return f".Quillvane-{digit * 8}-2222-4333-8444-555555555555.sparseimage"

    def chosen(self, verb, path):
        return self.qv(verb, path).stderr.partition("\n")[0]

    def testTheOneThatIsCalledSoComesFirst(self):
        folder = self.smallFolder()
        protection = self.note("protect", self.image("1"), "done 0")
        removal = self.note("remove", "", f"made {folder.stat().st_ino}")
        # In whatever order they are found.
        for step in range(8):
            old = (protection, removal)[step % 2]
            new = old.rename(self.operations / (secrets.token_hex(16) + ".note"))
            protection, removal = (new, removal) if old == protection else (protection, new)
            self.assertRegex(self.chosen("undo", "Docs.quillvane"), "^Removing the protection of")
            self.assertRegex(self.chosen("undo", "Docs"), '^"Docs" in .* is protected, but')
        protection.unlink()
        self.assertRegex(self.chosen("undo", "Docs"), "^Removing the protection of")

    def testOneOfSeveralHasToBeNamed(self):
        texts = []
        for digit in "12":
            self.note("protect", self.image(digit), "done 0")
            texts.append(f'"{self.work}/{self.image(digit)}"')
        for name in ("Docs", "Docs.quillvane"):
            for verb in ("finish", "undo"):
                result = self.qv(verb, name)
                self.assertEqual((1, ""), (result.returncode, result.stdout))
                says, *paths = result.stderr.splitlines()
                self.assertEqual(f'More than one operation was interrupted with "{name}". '
                                 "Say which one by its path:", says)
                self.assertEqual(texts, sorted(path.partition(": ")[0] for path in paths))
        self.assertEqual(2, len(self.notes()))
        self.assertEqual(str(self.item), self.succeed("finish", self.image("2"), secrets=()))
        (left,) = self.notes()
        self.assertIn(self.image("1"), left.read_text())


if __name__ == "__main__":
    unittest.main()
