"""What is cancelled leaves everything as it was; and what a killed program leaves is told at the
next start, and finished or undone as the user chooses."""

import contextlib
import os
import shutil
import signal
import subprocess
import unittest

import quillvane
import window
from quillvane import QV, eventually
from window import CHECKED, PASSWORD, WindowCase

SHEET = "An operation was interrupted"
CANCELLED = "Cancelled. Nothing was changed."
TOO_LATE = "Can't be cancelled any more"
NAME = "Prüfungen und Übungen für das große Jahr, mit einem Namen, der nicht mehr enden will"


class InterruptedCase(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def makeFolder(self, name):
        """With more than one entry, of which one is a folder."""
        folder = super().makeFolder(name)
        (folder / "Ordner").mkdir()
        (folder / "Ordner/Öl").write_text("deep")
        return folder

    def assertFolder(self, folder):
        """It is whole, and there is nothing else but what is named."""
        self.assertEqual("private", (folder / "file").read_text())
        self.assertEqual("deep", (folder / "Ordner/Öl").read_text())
        self.assertEqual(["Ordner", "file"], sorted(os.listdir(folder)))

    def assertOnly(self, *names):
        """These alone are left, no note, and nothing that is mounted."""
        self.assertEqual(sorted(names), sorted(os.listdir(self.work)))
        self.assertTrue(eventually(lambda: not self.notes()), self.notes())
        self.assertTrue(eventually(lambda: not quillvane.mountsBelow(self.directory)))

    def notes(self):
        place = self.home / ".local/state/quillvane/operations"
        return [file.name for file in place.iterdir() if file.suffix != ".lock"] \
            if place.exists() else []

    def type(self, text):
        """Pastes what the keyboard cannot type."""
        if text.isascii():
            return super().type(text)
        subprocess.run(["xclip", "-selection", "clipboard"], input=text, text=True, check=True,
                       env=self.environment, stdout=subprocess.DEVNULL, timeout=20)
        self.key_("ctrl+v")

    def startRemoving(self, item):
        self.mode(3)
        title = "Choose a locked item to turn back into a folder"
        self.choose(title + "…", title, item)
        self.fill("Password", PASSWORD)
        self.key_("Return")

    def killEverything(self):
        """As the power goes: the program, its tools and what serves a volume, all at once."""
        def killed():
            for number in {self.program.pid, *quillvane.serversOf(self.work)}:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(number, signal.SIGKILL)
            self.program.poll()
            return not quillvane.serversOf(self.work)
        self.assertTrue(eventually(killed))
        self.assertEqual(-signal.SIGKILL, self.program.wait(10))
        self.goOn()
        self.assertTrue(eventually(lambda: not self._window()))

    def startAgain(self, begin, program=window.PROGRAM):
        """Starts the program again, which tells what begins like this; the whole of it."""
        self.start(program=program)
        self.find(SHEET, "dialog")
        return self.find(begin, "alert message", prefix=True).name


class Cancelling(InterruptedCase):
    def begin(self, tool):
        """Protects a folder as far as this tool, which waits."""
        folder = self.makeFolder(NAME)
        self.start(program=self.programThatWaits(tool))
        self.protect(folder)
        return folder

    def test_protecting(self):
        folder = self.begin("ditto")
        self.find("Copying contents… 0%")
        self.find("Cancel", "push button")
        self.picture("cancellable")
        self.resize(760, 520)
        self.picture("cancellable-small")
        self.press("Cancel", "push button")
        self.find(CANCELLED, seconds=60)
        self.find("Ready")
        self.picture("cancelled")
        self.assertIsNone(self.look("Cancel"))
        self.assertIsNone(self.look(SHEET))
        self.assertFolder(folder)
        self.assertOnly(NAME)
        self.assertEqual(["", ""], self.secrets())
        self.next()  # the keyboard works on
        # The folder is still chosen, for another attempt.
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.goOn()
        self.key_("Return")
        self.takeRecoveryKey()
        self.assertOnly(NAME + ".quillvane", f".{NAME}.quillvane.qvkeys")
        self.quit()

    def test_creating_a_smart_folder(self):
        folder = self.makeFolder("Docs")
        self.start(program=self.programThatWaits("ditto"))
        self.mode(5)
        self.choose("Choose a folder to make smart…", "Choose a folder to make smart", folder)
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("Return")
        self.find("Copying contents… 0%")
        self.find("Cancel", "push button").act("Press")
        self.find(CANCELLED, seconds=60)
        self.picture("cancelled")
        self.assertFolder(folder)
        self.assertOnly("Docs")
        self.quit()

    def test_removing(self):
        folder = self.makeFolder("Docs")
        item = self.protected(folder)
        self.start(program=self.programThatWaits("ditto"))
        self.startRemoving(item)
        self.find("Extracting contents… ", prefix=True)
        self.press("Cancel", "push button")
        self.find(CANCELLED, seconds=60)
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.quit()

    def protected(self, folder):
        result = self.run_(QV, "lock", "--stdin", folder, stdin=PASSWORD + "\n")
        self.assertEqual(0, result.returncode, result)
        return folder.with_name(folder.name + ".quillvane")

    def test_too_late(self):
        # Deleting so many takes long enough to be seen.
        folder = self.makeFolder("Docs")
        for number in range(6000):
            (folder / f"file {number}").touch()
        self.start()
        self.protect(folder)
        self.find(TOO_LATE, seconds=120)
        self.program.send_signal(signal.SIGSTOP)
        self.picture("too-late")
        self.program.send_signal(signal.SIGCONT)
        self.assertIsNone(self.look("Cancel"))
        self.takeRecoveryKey()
        self.assertIsNone(self.look(TOO_LATE))
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.quit()


class Interrupted(InterruptedCase):
    def killWhileProtecting(self, name):
        folder = self.makeFolder(name)
        self.start(program=self.programThatWaits("ditto"))
        self.protect(folder)
        self.find("Copying contents… 0%")
        self.killEverything()
        self.assertNotEqual([name], os.listdir(self.work))
        return folder

    def killWhileRemoving(self, name):
        folder = self.makeFolder(name)
        result = self.run_(QV, "lock", "--stdin", folder, stdin=PASSWORD + "\n")
        self.assertEqual(0, result.returncode, result)
        self.start(program=self.programThatWaits("ditto"))
        self.startRemoving(self.work / (name + ".quillvane"))
        self.find("Extracting contents… ", prefix=True)
        (folder / "file").write_text("priv")  # as far as the copy has come
        self.killEverything()
        return folder

    def test_protecting_is_undone(self):
        folder = self.killWhileProtecting(NAME)
        text = self.startAgain("Protecting ")
        self.assertEqual(f'Protecting "{NAME}" in {self.work} was interrupted. The folder is as it '
                         "was; nothing is protected yet.", text)
        self.picture("unfinished")
        self.resize(760, 520)
        self.picture("unfinished-small")
        self.press("Clean up")
        self.find("What was left is cleared away. The folder is as it was.", seconds=60)
        self.waitUntilGone(SHEET)
        self.picture("undone")
        self.assertFolder(folder)
        self.assertOnly(NAME)
        self.quit()

    def test_protecting_is_begun_anew(self):
        folder = self.killWhileProtecting("Docs")
        self.startAgain('Protecting "Docs"')
        self.press("Protect it now")
        self.waitUntilGone(SHEET)
        self.find("Docs")  # chosen already
        self.picture("anew")
        self.fill("Password", PASSWORD)
        self.fill("Repeat password", PASSWORD)
        self.key_("Return")
        self.takeRecoveryKey()
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.assertFalse(folder.exists())
        self.quit()

    def test_removing_is_finished(self):
        folder = self.killWhileRemoving(NAME)
        text = self.startAgain("Removing ")
        self.assertEqual(f'Removing the protection of "{NAME}.quillvane" in {self.work} was '
                         f'interrupted. The item is whole; the folder "{NAME}" beside it is not. '
                         "Don't delete the item.", text)
        field = self.waitForFocus("Password")
        self.picture("incomplete")
        self.resize(760, 520)
        self.picture("incomplete-small")
        self.typeInto(field, "wrong")
        self.key_("Return")
        self.find("Wrong password.", seconds=60)
        self.picture("wrong")
        self.assertEqual("", self.field("Password").text)
        self.fill("Password", PASSWORD)
        self.press("Finish removing")
        self.find(f"Password removed. It's a normal folder again:\n{folder}", seconds=60)
        self.waitUntilGone(SHEET)
        self.picture("finished")
        self.assertFolder(folder)
        self.assertOnly(NAME)
        self.quit()

    def test_removing_is_undone(self):
        self.killWhileRemoving("Docs")
        self.startAgain("Removing ")
        self.fill("Password", PASSWORD)
        self.press("Delete the incomplete folder")
        self.find(f"Locked. Your folder is protected:\n{self.work}/Docs.quillvane", seconds=60)
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.quit()

    def test_finishing_is_cancelled(self):
        self.killWhileRemoving("Docs")
        shutil.rmtree(self.directory / "program")
        (self.directory / "go-on").unlink()
        self.startAgain("Removing ", program=self.programThatWaits("ditto"))
        self.typeInto(self.waitForFocus("Password"), PASSWORD)
        self.key_("Return")
        self.find("Extracting contents… ", "label", seconds=60, prefix=True)
        self.assertIsNone(self.look("Finish removing"))
        self.picture("ending")
        self.key_("Escape")  # not while it runs
        self.reach("Cancel")
        self.key_("space")
        # What was left is cleared away by then, so that there is nothing more to be ended.
        self.find(CANCELLED, seconds=60)
        self.waitUntilGone(SHEET)
        self.picture("cancelled")
        self.quit()
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")

    def test_later(self):
        folder = self.killWhileProtecting("Docs")
        for leave in (lambda: self.press("Later"), lambda: self.key_("Escape")):
            self.startAgain("Protecting ")
            leave()
            self.waitUntilGone(SHEET)
            self.next()  # the keyboard works on in the window
            self.quit()
        # Protecting it again makes way by itself.
        self.startAgain("Protecting ")
        self.press("Later")
        self.waitUntilGone(SHEET)
        self.protect(folder)
        self.takeRecoveryKey()
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.quit()

    def test_several(self):
        self.killWhileProtecting("Docs")
        shutil.rmtree(self.directory / "program")
        (self.directory / "go-on").unlink()
        self.start(program=self.programThatWaits("ditto"))
        self.find(SHEET, "dialog")
        self.press("Later")
        self.protect(self.makeFolder("Other"))
        self.find("Copying contents… 0%")
        self.killEverything()
        self.start()
        for _ in range(2):
            first = self.find("Protecting ", "alert message", prefix=True).name
            self.press("Clean up")
            self.waitUntilGone(first)
        self.waitUntilGone(SHEET)
        text = "What was left is cleared away. The folder is as it was."
        self.find(f"{text}\n\n{text}")
        self.assertOnly("Docs", "Other")
        self.quit()

    def test_deletion_that_had_begun(self):
        # A leftover that came in between keeps it from being finished until it is moved away.
        folder = self.makeFolder(NAME)
        self.interruptDeletion(folder)
        (folder / "Neues.txt").write_text("came later")
        self.startAgain("Protecting ")
        self.picture("deleting")
        self.fill("Password", PASSWORD)
        self.key_("Return")
        self.find(f'"{NAME}" holds what is not so in the encrypted copy: "Neues.txt". Move it to '
                  "another folder, then finish.", seconds=60)
        self.picture("leftover")
        self.resize(760, 520)
        self.picture("leftover-small")
        (folder / "Neues.txt").unlink()
        self.fill("Password", PASSWORD)
        self.press("Give the folder back")
        self.find(f"Password removed. It's a normal folder again:\n{folder}", seconds=120)
        self.picture("given-back")
        self.assertFolder(folder)
        self.assertOnly(NAME)
        self.quit()

    def test_refused_again(self):
        # What stands in the way is offered at once.
        folder = self.makeFolder("Docs")
        self.interruptDeletion(folder)
        self.startAgain("Protecting ")
        self.press("Later")
        self.waitUntilGone(SHEET)
        self.protect(folder)
        self.find(SHEET, "dialog", seconds=60)
        self.fill("Password", PASSWORD)
        self.press("Finish protecting")
        self.find('Your password opens "Docs.quillvane".', seconds=60, prefix=True)
        self.waitUntilGone("Protecting ")
        self.picture("finished")
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.find("Choose the folder to protect…")
        self.quit()

    def test_recovery_key_that_was_not_left(self):
        folder = self.makeFolder("Docs")
        self.start()
        self.protect(folder)
        self.waitForFocus("Recovery key", 60)
        self.killAtTheKey()
        text = self.startAgain('"Docs" in ')
        self.assertIn("is protected, but its recovery key may not have been shown.", text)
        self.assertIsNone(self.look("Later"))
        self.picture("named")
        self.press("OK")
        self.waitUntilGone(SHEET)
        self.assertOnly("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.quit()
        self.start()  # told once
        self.find("Ready")
        self.assertIsNone(self.look(SHEET))
        self.quit()

    def killAtTheKey(self):
        self.program.kill()
        self.assertEqual(-signal.SIGKILL, self.program.wait(10))
        self.assertTrue(eventually(lambda: not self._window()))


class BeforeTheTerms(WindowCase):
    def test_nothing_is_told_before(self):
        self.interruptDeletion(self.makeFolder("Docs"))
        self.start()
        self.find("Before you use Quillvane")
        self.assertIsNone(self.look(SHEET))
        label = next(e.name for e in self.elements() if e.role == "check box")
        self.press(label)
        self.waitForState(label, CHECKED)
        self.press("Agree and continue")
        self.find(SHEET, "dialog")
        self.quit()


if __name__ == "__main__":
    window.requireTools("strace", "xclip")
    unittest.main()
