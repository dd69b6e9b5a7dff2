"""qv's command line, prompts and messages, as far as no volume is mounted."""

import os
import signal
import subprocess
import unittest

import quillvane
from quillvane import QV
from terminal import Terminal


class CommandLineTest(quillvane.Case):
    def assertUsageError(self, *words, says):
        result = self.run_(QV, *words)
        self.assertEqual(2, result.returncode, result)
        self.assertEqual("", result.stdout)
        self.assertIn(says, result.stderr)
        self.assertIn("usage: qv", result.stderr.splitlines()[-1])

    def testWrongUsageIsStatusTwo(self):
        self.assertUsageError(says="command is missing")
        self.assertUsageError("unlock", "x", says='no command "unlock"')
        self.assertUsageError("lock", says="needs a path")
        self.assertUsageError("undo", says="needs a path")
        self.assertUsageError("lock", "a", "b", says="too many")
        self.assertUsageError("open", "--nonsense", "a", says="no option --nonsense")
        self.assertUsageError("lock", "--recovery-key", "a", says="--recovery-key")
        self.assertUsageError("close", "--stdin", "a", says="--stdin")

    def testHelpNamesEveryCommandAndOption(self):
        for words in (["--help"], ["help"], ["-h"], ["lock", "--help"]):
            result = self.run_(QV, *words)
            self.assertEqual((0, ""), (result.returncode, result.stderr))
            for word in ("qv lock", "qv open", "qv close", "qv remove", "qv change", "qv finish",
                         "qv undo", "--stdin",
                         "--recovery-key", "exit status"):
                self.assertIn(word, result.stdout)

    def testVersion(self):
        result = self.run_(QV, "--version")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertRegex(result.stdout, r"^qv \d+\.\d+\.\d+\n$")

    def testOutputThatCannotBeWrittenIsAFailure(self):
        with open("/dev/full", "w") as full:
            result = subprocess.run([QV, "--help"], stdout=full, stderr=subprocess.PIPE, text=True)
        self.assertEqual((1, "No space left on device\n"), (result.returncode, result.stderr))
        reader, writer = os.pipe()
        os.close(reader)
        result = subprocess.run([QV, "--help"], stdout=writer, stderr=subprocess.PIPE, text=True)
        os.close(writer)
        self.assertEqual((1, "Broken pipe\n"), (result.returncode, result.stderr))
        result = subprocess.run([QV, "--help"], stderr=subprocess.PIPE, text=True,
                                preexec_fn=lambda: os.close(1))
        self.assertEqual((1, "Bad file descriptor\n"), (result.returncode, result.stderr))


class RefusalTest(quillvane.Case):
    """What is refused before anything is mounted, in the engine's words and with nothing changed."""

    def setUp(self):
        super().setUp()
        (self.work / "Docs").mkdir()
        (self.work / "Docs/file").write_text("content")
        (self.work / "note.txt").write_text("a file")

    def assertRefused(self, *words, stdin="", says):
        before = quillvane.describe(self.work)
        result = self.run_(QV, *words, stdin=stdin)
        self.assertEqual((1, ""), (result.returncode, result.stdout), result)
        # Progress comes first; the error is the last thing said.
        self.assertTrue(("\n" + result.stderr).endswith("\n" + says + "\n"), result.stderr)
        self.assertEqual([], quillvane.differences(before, quillvane.describe(self.work)))

    def testPaths(self):
        gone = "The selected item no longer exists."
        for command in ("lock", "open", "remove", "change"):
            self.assertRefused(command, "--stdin", "gone.quillvane", stdin="a\nb\n", says=gone)
        self.assertRefused("close", "gone", says=gone)
        for command in ("open", "remove", "change"):
            self.assertRefused(command, "--stdin", "note.txt", stdin="a\nb\n",
                               says="Choose a valid .quillvane item.")
        self.assertRefused("lock", "--stdin", "note.txt", stdin="a\n",
                           says="The selected item isn't a folder.")
        self.assertRefused("close", "note.txt", says='"note.txt" isn\'t open.')

    def testLinkToAFolder(self):
        os.symlink("Docs", self.work / "link")
        plain = "Choose a regular folder (not a package or a system volume)."
        self.assertRefused("lock", "--stdin", "link", stdin="a\n", says=plain)
        self.assertRefused("lock", "--stdin", "link/", stdin="a\n", says=plain)

    def testTargetThatExists(self):
        (self.work / "Docs.quillvane").write_text("something")
        self.assertRefused("lock", "--stdin", "Docs/", stdin="a\n",
                           says='"Docs.quillvane" already exists here. Remove or rename it first.')

    def testSecrets(self):
        self.assertRefused("lock", "--stdin", "Docs", stdin="\n", says="Password can't be empty.")
        self.assertRefused("lock", "--stdin", "Docs", stdin="",
                           says="Standard input has no line for this: New password.")
        (self.work / "Item.quillvane").write_text("no image")
        self.assertRefused("open", "--stdin", "Item.quillvane", stdin="\n",
                           says="Password can't be empty.")
        self.assertRefused("open", "--stdin", "--recovery-key", "Item.quillvane", stdin="ABCD\n",
                           says="Invalid recovery key. Check that you typed it correctly.")
        self.assertRefused("change", "--stdin", "Item.quillvane", stdin="a\n",
                           says="Standard input has no line for this: New password.")
        self.assertRefused("change", "--stdin", "Item.quillvane", stdin="a\n\n",
                           says="Password can't be empty.")
        self.assertRefused("change", "--stdin", "Item.quillvane", stdin="a\nb\n",
                           says="The key file next to the item is missing: use your recovery key "
                                "to get back in.")

    def testExtensionInAnyCase(self):
        (self.work / "Item.QuillVane").write_text("no image")
        self.assertRefused("change", "--stdin", "Item.QuillVane", stdin="a\nb\n",
                           says="The key file next to the item is missing: use your recovery key "
                                "to get back in.")

    def testNoTerminalToAskOn(self):
        result = self.run_(QV, "lock", "Docs", stdin="secret\n", start_new_session=True)
        self.assertEqual(2, result.returncode)
        self.assertIn("There is no terminal to ask on.", result.stderr)
        self.assertIn("--stdin", result.stderr)

    def testEndlessInput(self):
        with open("/dev/zero") as zero:
            result = subprocess.run([QV, "lock", "--stdin", self.work / "Docs"], stdin=zero,
                                    stderr=subprocess.PIPE, text=True, timeout=120)
        self.assertEqual((1, "The line with the secret is too long.\n"),
                         (result.returncode, result.stderr))


class PromptTest(quillvane.Case):
    def setUp(self):
        super().setUp()
        (self.work / "Docs").mkdir()
        (self.work / "Item.quillvane").write_text("no image")

    def terminal(self, *words):
        terminal = Terminal([QV, *words], self.environment, self.work)
        self.addCleanup(terminal.__exit__)
        return terminal

    def testNewPasswordIsAskedTwice(self):
        terminal = self.terminal("lock", "Docs")
        terminal.answer("New password: ", "hush-hush")
        terminal.answer("New password again: ", "something else")
        terminal.expect("The two passwords don't match.")
        self.assertEqual(1, terminal.wait())
        self.assertNotIn(b"hush-hush", terminal.output)
        self.assertTrue(terminal.echoes())

    def testCurrentPasswordIsAskedOnce(self):
        terminal = self.terminal("change", "Item.quillvane")
        terminal.answer("Current password: ", "hush-hush")
        terminal.answer("New password: ", "a")
        terminal.answer("New password again: ", "b")
        terminal.expect("The two passwords don't match.")
        self.assertEqual(1, terminal.wait())

    def testRecoveryKeyIsAskedInPlaceOfThePassword(self):
        for command in ("open", "remove"):
            terminal = self.terminal(command, "--recovery-key", "Item.quillvane")
            terminal.answer("Recovery key: ", "nonsense")
            terminal.expect("Invalid recovery key.")
            self.assertEqual(1, terminal.wait())
            self.assertNotIn(b"nonsense", terminal.output)

    def testTypedAheadIsNotShown(self):
        terminal = self.terminal("lock", "Docs")
        terminal.expect("New password: ")
        terminal.send("hush-hush\nsomething else\n")
        terminal.expect("The two passwords don't match.")
        self.assertNotIn(b"hush", terminal.output)

    def testEndOfInputCancels(self):
        terminal = self.terminal("open", "Item.quillvane")
        terminal.expect("Password: ")
        terminal.send("\x04")
        terminal.expect("Cancelled.")
        self.assertEqual(1, terminal.wait())
        self.assertTrue(terminal.echoes())

    def testInterruptRestoresTheEcho(self):
        for key in ("\x03", "\x1c"):
            terminal = self.terminal("open", "Item.quillvane")
            terminal.expect("Password: ")
            self.assertFalse(terminal.echoes())
            terminal.send("half" + key)
            terminal.expect("\r\nCancelled.")
            self.assertEqual(1, terminal.wait())
            self.assertTrue(terminal.echoes())
            self.assertNotIn(b"half", terminal.output)

    def testTerminationRestoresTheEcho(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            terminal = self.terminal("lock", "Docs")
            terminal.expect("New password: ")
            os.kill(terminal.child, number)
            terminal.expect("Cancelled.")
            self.assertEqual(1, terminal.wait())
            self.assertTrue(terminal.echoes())

    def testStopShowsTheEchoAndGoesOn(self):
        # Only below a shell with job control: nothing else could make it go on again.
        terminal = Terminal(["/bin/bash", "--norc", "-i"],
                            self.environment | {"PS1": "shell> "}, self.work)
        self.addCleanup(terminal.__exit__)
        terminal.expect("shell> ")
        terminal.send(f"{QV} open Item.quillvane\n")
        terminal.expect("Password: ")
        terminal.send("half\x1a")
        terminal.expect("shell> ")
        terminal.send("stty -a | grep -o '[-]*echo '\n")
        terminal.expect("\recho ")
        terminal.send("fg\n")
        terminal.expect("Password: ")
        self.assertTrue(quillvane.eventually(lambda: not terminal.echoes()))
        terminal.send("\n")
        terminal.expect("Password can't be empty.")
        terminal.expect("shell> ")
        self.assertNotIn(b"half", terminal.output)
        terminal.send("exit\n")
        terminal.wait()


if __name__ == "__main__":
    unittest.main()
