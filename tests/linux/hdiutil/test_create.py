"""Drives `hdiutil create` as its callers do, and all that can go wrong with it."""

import os
import signal
import stat
import subprocess
import unittest

from hdiutil_case import CommandCase, PASSPHRASE
from quillvane import eventually, tool


class CreateTest(CommandCase):
    def test_private_sparse_file_that_cryptsetup_opens(self):
        self.created(size="200m")
        status = self.image.stat()
        self.assertEqual(0o600, stat.S_IMODE(status.st_mode))
        self.assertGreater(status.st_size, 200 << 20)
        self.assertEqual(0, status.st_size % 4096)
        self.assertLess(status.st_blocks * 512, 24 << 20)
        key = self.work / "key"
        key.write_text(PASSPHRASE)
        check = self.run_("/usr/sbin/cryptsetup", "open", "--test-passphrase", "--key-file", key,
                          self.image)
        self.assertEqual(0, check.returncode, check.stderr)
        dump = self.run_("/usr/sbin/cryptsetup", "luksDump", self.image)
        self.assertIn("cipher: aes-xts-plain64", dump.stdout)
        self.assertNothingLeft()

    def test_never_overwrites(self):
        self.image.write_text("precious")
        self.assertRefused(self.create(), "hdiutil: create failed - File exists")
        self.assertEqual("precious", self.image.read_text())

    def test_never_writes_through_a_symbolic_link(self):
        self.image.symlink_to(self.work / "elsewhere")
        self.assertRefused(self.create(), "hdiutil: create failed - File exists")
        self.assertFalse((self.work / "elsewhere").exists())

    def test_missing_folder(self):
        self.assertRefused(self.create(self.work / "none/a.img"),
                           "hdiutil: create failed - No such file or directory")

    def test_empty_passphrase_is_refused(self):
        for passphrase in ("", "\n"):
            result = self.create(passphrase=passphrase)
            self.assertEqual(1, result.returncode)
            self.assertFalse(self.image.exists())

    def test_failure_leaves_nothing(self):
        # No room for a private mount: the directory for it belongs to everybody.
        (self.runtime / "quillvane").mkdir()
        (self.runtime / "quillvane").chmod(0o755)
        result = self.create()
        self.assertEqual(1, result.returncode)
        self.assertIn("is not a private directory", result.stderr)
        self.assertFalse(self.image.exists())

    def test_file_too_large_leaves_nothing(self):
        command = ["prlimit", "--fsize=1000000", tool("hdiutil"), "create", "-size", "1m",
                   "-encryption", "AES-256", "-stdinpass", self.image]
        # Python ignores the signal that comes with the limit, and so does the tool then.
        result = self.run_(*command, stdin=PASSPHRASE, restore_signals=False)
        self.assertNotEqual(0, result.returncode)
        self.assertFalse(self.image.exists())

    def test_interruption_leaves_nothing(self):
        # While mke2fs is at work, which takes a while on a volume of this size.
        export = self.runtime / "quillvane"
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                command = [tool("hdiutil"), "create", "-size", "8000g", "-encryption", "AES-256",
                           "-stdinpass", str(self.image)]
                with subprocess.Popen(command, stdin=subprocess.PIPE, stderr=subprocess.PIPE,
                                      env=self.environment, text=True) as process:
                    process.stdin.write(PASSPHRASE + "\n")
                    process.stdin.close()
                    self.assertTrue(eventually(lambda: list(export.glob("export-*/volume"))))
                    process.send_signal(number)
                    message = process.stderr.read()
                    self.assertEqual(1, process.wait())
                self.assertIn("Operation canceled", message)
                self.assertFalse(self.image.exists())
                self.assertNothingLeft()

    def test_killed_in_the_middle(self):
        command = [tool("hdiutil"), "create", "-size", "8000g", "-encryption", "AES-256",
                   "-stdinpass", str(self.image)]
        export = self.runtime / "quillvane"
        with subprocess.Popen(command, stdin=subprocess.PIPE, env=self.environment,
                              text=True) as process:
            process.stdin.write(PASSPHRASE + "\n")
            process.stdin.close()
            self.assertTrue(eventually(lambda: list(export.glob("export-*/volume"))))
            process.kill()
        # The next command clears away what the system could not.
        self.created(self.work / "next")
        self.assertNothingLeft()

    def test_passphrase_without_line_feed_is_the_same(self):
        self.created(passphrase=PASSPHRASE)
        self.detached(self.attached()[1])


class UsageTest(CommandCase):
    def test_wrong_command_lines(self):
        for arguments in ([], ["convert"], ["create"], ["attach"], ["detach"],
                          ["attach", "-stdinpass", "-verbose", "x"], ["detach", "a", "b"],
                          ["create", "-size", "20m", "-stdinpass", "x"]):
            result = self.hdiutil(*arguments)
            self.assertEqual((1, ""), (result.returncode, result.stdout))
            self.assertIn("usage: hdiutil", result.stderr)
        self.assertEqual([], os.listdir(self.work))


if __name__ == "__main__":
    unittest.main()
