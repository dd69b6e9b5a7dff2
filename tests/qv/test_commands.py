"""The five commands on real items: what they do, print and refuse."""

import os
import re
import shutil
import subprocess
import unittest

import quillvane
from quillvane import QV
from terminal import Terminal

KEY = r"([A-Z2-7]{4}-){7}[A-Z2-7]{4}"
PASSWORD = "correct horse – \\ \"battery\" staple "


class CommandsTest(quillvane.Case):
    def qv(self, *words, secrets=(), **options):
        stdin = "".join(secret + "\n" for secret in secrets)
        option = ["--stdin"] if secrets else []
        return self.run_(QV, *words, *option, stdin=stdin, **options)

    def succeed(self, *words, **options):
        """Runs a command that has to succeed; the lines it prints."""
        result = self.qv(*words, **options)
        self.assertEqual(0, result.returncode, result)
        return result.stdout.splitlines()

    def assertFails(self, *words, says, **options):
        result = self.qv(*words, **options)
        self.assertEqual((1, ""), (result.returncode, result.stdout), result)
        self.assertTrue(("\n" + result.stderr).endswith("\n" + says + "\n"), result.stderr)

    def entries(self):
        return sorted(os.listdir(self.work))

    def lockDocs(self):
        """Protects a small folder; its item's path and recovery key."""
        (self.work / "Docs").mkdir()
        (self.work / "Docs/file").write_text("content")
        item, key = self.succeed("lock", "Docs", secrets=[PASSWORD])
        return item, key

    def assertNothingMounted(self):
        self.assertEqual([], quillvane.mountsBelow(self.directory))
        self.assertEqual([], quillvane.serversOf(self.directory))

    def testThereAndBackAgain(self):
        name = "naïve – 写真 \\ folder.d"
        folder = quillvane.makeTree(self.work / name)
        before = quillvane.describe(folder)

        lines = self.succeed("lock", name + "/", secrets=[PASSWORD])
        item = f"{self.work}/{name}.quillvane"
        self.assertEqual([item], lines[:1])
        self.assertRegex(lines[1], f"^{KEY}$")
        self.assertEqual(2, len(lines))
        self.assertEqual([f".{name}.quillvane.qvkeys", f"{name}.quillvane"], self.entries())
        self.assertNothingMounted()

        (mountPoint,) = self.succeed("open", item, secrets=[PASSWORD])
        self.assertEqual(f"{self.home}/Volumes/{name}", mountPoint)
        self.assertEqual([], quillvane.differences(before, quillvane.describe(mountPoint)))

        self.assertEqual([], self.succeed("close", item))
        self.assertNothingMounted()
        self.assertFalse(os.path.lexists(mountPoint))

        self.assertEqual([str(folder)], self.succeed("remove", item, secrets=[PASSWORD]))
        self.assertEqual([name], self.entries())
        self.assertEqual([], quillvane.differences(before, quillvane.describe(folder)))
        self.assertNothingMounted()

    def testWhiteSpaceOfAnyKindInAName(self):
        name = "tab\tline\nreturn\rfeed\x0ctab\x0b"
        (self.work / name).mkdir()
        (self.work / name / "file").write_text("content")
        self.succeed("lock", name, secrets=[PASSWORD])
        item = f"{self.work}/{name}.quillvane"
        result = self.qv("open", item, secrets=[PASSWORD])
        self.assertEqual(0, result.returncode, result)
        self.assertEqual(1, len(quillvane.mountsBelow(self.directory)))
        self.assertEqual([], self.succeed("close", item))
        self.assertNothingMounted()

    def testCloseByMountPoint(self):
        item, _ = self.lockDocs()
        for spell in (str, lambda path: path + "/", lambda path: os.path.relpath(path, self.work)):
            (mountPoint,) = self.succeed("open", item, secrets=[PASSWORD])
            self.assertEqual([], self.succeed("close", spell(mountPoint)))
            self.assertNothingMounted()
        self.assertFails("close", item, says='"Docs.quillvane" isn\'t open.')

    def testCloseDoesNotThrowTheLastCopyAway(self):
        item, _ = self.lockDocs()
        (mountPoint,) = self.succeed("open", item, secrets=[PASSWORD])
        kept = f"{self.work}/kept"
        shutil.copyfile(item, kept)
        os.replace(kept, item)  # as programs do that fetch a file from elsewhere
        result = self.qv("close", mountPoint)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn("its file has been deleted or replaced", result.stderr)
        with open(f"{mountPoint}/file") as file:
            self.assertEqual("content", file.read())

    def testCloseKeepsWhatWasWrittenToAFileThatIsStillOpen(self):
        item, _ = self.lockDocs()
        (mountPoint,) = self.succeed("open", item, secrets=[PASSWORD])
        with open(f"{mountPoint}/late", "w") as file:
            file.write("written late")
            file.flush()
            self.succeed("close", item)
            self.assertNothingMounted()
        (mountPoint,) = self.succeed("open", item, secrets=[PASSWORD])
        with open(f"{mountPoint}/late") as file:
            self.assertEqual("written late", file.read())

    def testSecondOpenIsRefused(self):
        item, _ = self.lockDocs()
        (mountPoint,) = self.succeed("open", item, secrets=[PASSWORD])
        result = self.qv("open", item, secrets=[PASSWORD])
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn("Couldn't mount the image.\n", result.stderr)
        self.assertEqual([mountPoint], quillvane.mountsBelow(self.directory))
        with open(f"{mountPoint}/file") as file:
            self.assertEqual("content", file.read())

    def testRecoveryKey(self):
        item, key = self.lockDocs()
        typed = key.lower().replace("-", " ")
        os.unlink(self.work / ".Docs.quillvane.qvkeys")
        self.succeed("open", "--recovery-key", item, secrets=[typed])
        self.succeed("close", item)
        self.assertEqual([], self.succeed("change", "--recovery-key", item, secrets=[key, "new"]))
        self.succeed("open", item, secrets=["new"])
        self.succeed("close", item)
        wrong = ("B" if key[0] == "A" else "A") + key[1:]
        self.assertFails("remove", "--recovery-key", item, secrets=[wrong],
                         says="Wrong password: can't open the vault.")
        self.succeed("remove", "--recovery-key", item, secrets=[key])
        self.assertEqual("content", (self.work / "Docs/file").read_text())

    def testChange(self):
        item, key = self.lockDocs()
        self.assertFails("change", item, secrets=["wrong", "new"], says="Wrong password.")
        self.assertEqual([], self.succeed("change", item, secrets=[PASSWORD, "new"]))
        self.assertFails("open", item, secrets=[PASSWORD], says="Wrong password.")
        self.assertFails("remove", item, secrets=[PASSWORD], says="Wrong password.")
        self.succeed("open", item, secrets=["new"])
        self.succeed("close", item)
        self.succeed("open", item, "--recovery-key", secrets=[key])

    def testRemoveRefusesToReplaceAnything(self):
        item, _ = self.lockDocs()
        (self.work / "Docs").write_text("in the way")
        self.assertFails("remove", item, secrets=[PASSWORD],
                         says='A folder named "Docs" already exists here. Rename or remove it '
                              'before removing the password.')
        self.assertEqual("in the way", (self.work / "Docs").read_text())

    def testTwoVolumesOfOneName(self):
        points = []
        for number in (1, 2):
            folder = self.work / str(number) / "Docs"
            folder.mkdir(parents=True)
            item, _ = self.succeed("lock", folder, secrets=[PASSWORD])
            points += self.succeed("open", item, secrets=[PASSWORD])
        volumes = f"{self.home}/Volumes"
        self.assertEqual([f"{volumes}/Docs", f"{volumes}/Docs 1"], points)
        self.succeed("close", f"{self.work}/1/Docs.quillvane")
        self.assertEqual([f"{volumes}/Docs 1"], quillvane.mountsBelow(self.directory))

    def testToolsAreNotTakenFromTheSearchPath(self):
        impostors = self.directory / "impostors"
        impostors.mkdir()
        for name in ("hdiutil", "ditto", "open", "fusermount3", "mke2fs", "e2fsck", "resize2fs"):
            (impostors / name).write_text(f"#!/bin/sh\necho {name} >>{impostors}/called\nexit 1\n")
            (impostors / name).chmod(0o755)
        self.environment["PATH"] = str(impostors)
        item, _ = self.lockDocs()
        self.succeed("open", item, secrets=[PASSWORD])
        self.succeed("close", item)
        self.succeed("remove", item, secrets=[PASSWORD])
        self.assertFalse((impostors / "called").exists())

    def testNamesCommandNoTerminal(self):
        name, shown = "\x1b[2Jred\x07", "\\x1b[2Jred\\x07"
        (self.work / name).mkdir()
        self.assertFails("close", name, says=f'"{shown}" isn\'t open.')
        (self.work / f"{name}.quillvane").write_text("")
        self.assertFails("lock", name, secrets=[PASSWORD],
                         says=f'"{shown}.quillvane" already exists here. Remove or rename it first.')
        (self.work / f"{name}.quillvane").unlink()
        usage = self.qv(name)
        self.assertEqual(2, usage.returncode)
        self.assertTrue(usage.stderr.startswith(f'There is no command "{shown}".\n'), usage.stderr)
        # Results are for programs, who get them as they are.
        item, _ = self.succeed("lock", name, secrets=[PASSWORD])
        self.assertEqual(f"{self.work}/{name}.quillvane", item)

    def testRecoveryKeyThatCannotBePrinted(self):
        (self.work / "Docs").mkdir()
        with open("/dev/full", "w") as full:
            result = subprocess.run([QV, "lock", "--stdin", self.work / "Docs"], stdout=full,
                                    input=PASSWORD + "\n", stderr=subprocess.PIPE, text=True,
                                    env=self.environment)
        self.assertEqual(1, result.returncode)
        self.assertIn("The folder is protected, but its recovery key couldn't be printed.",
                      result.stderr)
        self.assertIn("\nNo space left on device\n", result.stderr)
        self.assertIn("its recovery key may not have been shown", result.stderr.splitlines()[-1])
        self.assertIsNone(re.search(KEY, result.stderr))
        self.succeed("remove", "Docs.quillvane", secrets=[PASSWORD])


class ProgressTest(quillvane.Case):
    def testPlainLines(self):
        quillvane.makeBigFolder(self.work / "Docs", 64)
        lock = self.run_(QV, "lock", "--stdin", "Docs", stdin="x\n")
        self.assertEqual(0, lock.returncode, lock)
        self.assertSteps(lock.stderr, [
            "Checking the folder…", "Calculating size…", "Creating the encrypted vault (AES-256)…",
            "Mounting the vault…", "Copying contents into the vault…", "Copying contents… N%",
            "Verifying your data is safe…", "Ejecting the vault…",
            "From here on it can't be cancelled.", "Deleting the original folder…",
            "Finalizing the encrypted item…", "Done. Your folder is now protected."])
        remove = self.run_(QV, "remove", "--stdin", "Docs.quillvane", stdin="x\n")
        self.assertEqual(0, remove.returncode, remove)
        self.assertSteps(remove.stderr, [
            "Checking the item…", "Opening the item…", "Creating the folder",
            "Extracting contents…", "Extracting contents… N%", "Verifying extracted data…",
            "From here on it can't be cancelled.", "Ejecting the item…",
            "Deleting the encrypted item…",
            "Done. It's a normal folder again."])

    def assertSteps(self, text, expected):
        lines = text.splitlines()
        self.assertEqual(len(lines), len(set(lines)), "a line came twice")
        tens = [int(percent) // 10 for percent in re.findall(r"… (\d+)%$", text, re.M)]
        self.assertEqual(sorted(set(tens)), tens)
        steps = [re.sub(r"… \d+%$", "… N%", line) for line in lines]
        self.assertEqual(expected, list(dict.fromkeys(steps)))
        self.assertNotIn("\x1b", text)

    def testBarOnATerminal(self):
        (self.work / "Docs").mkdir()
        with open(self.directory / "printed", "w+") as printed:
            with Terminal([QV, "lock", "Docs"], self.environment, self.work, printed) as terminal:
                terminal.answer("New password: ", "hush-hush")
                terminal.answer("New password again: ", "hush-hush")
                self.assertEqual(0, terminal.wait())
            printed.seek(0)
            item, key = printed.read().splitlines()
        self.assertEqual(f"{self.work}/Docs.quillvane", item)
        self.assertRegex(key, f"^{KEY}$")
        output = terminal.output.decode()
        self.assertNotIn("hush", output)
        self.assertNotIn(key, output)
        self.assertIn("█", output)
        progress = output[output.index("\r", output.rindex("again:") + 8):]
        self.assertTrue(progress.endswith("\r\x1b[KDone. Your folder is now protected.\r\n"), output)
        for line in progress.split("\r")[1:-2]:
            self.assertLess(len(line.replace("\x1b[K", "").rstrip("\n")), 80)

    def testAnErrorStandsOnALineOfItsOwn(self):
        (self.work / "Docs").mkdir()
        (self.work / "Docs.quillvane").write_text("")
        with Terminal([QV, "lock", "Docs"], self.environment, self.work) as terminal:
            terminal.answer("New password: ", "a")
            terminal.answer("New password again: ", "a")
            self.assertEqual(1, terminal.wait())
        self.assertTrue(terminal.output.decode().endswith(
            '\r\x1b[K"Docs.quillvane" already exists here. Remove or rename it first.\r\n'),
            terminal.output)

    def testTerminalThatKnowsNoControlSequences(self):
        (self.work / "Docs").mkdir()
        self.environment["LC_ALL"] = "C"
        command = ["/usr/bin/env", "TERM=dumb", QV, "lock", "Docs"]
        with Terminal(command, self.environment, self.work) as terminal:
            terminal.answer("New password: ", "a")
            terminal.answer("New password again: ", "a")
            self.assertEqual(0, terminal.wait())
        self.assertNotIn(b"\x1b", terminal.output)
        self.assertIn("Calculating size…\r\n".encode(), terminal.output)


if __name__ == "__main__":
    unittest.main()
