"""The open helper, with a file manager of ours in the place of xdg-open."""

import os
import subprocess
import time
import unittest

import quillvane


class OpenTest(quillvane.Case):
    def setUp(self):
        super().setUp()
        self.report = self.directory / "report"
        # /usr/bin/xdg-open is a fixed path: lay our own over it, in this test's namespace.
        upper, scratch = self.directory / "upper", self.directory / "scratch"
        upper.mkdir()
        scratch.mkdir()
        (upper / "xdg-open").write_text(
            "#!/bin/sh\n"
            "( printf '%s\\n' \"$#\" \"$1\"; ps -o sid= -p $$;"
            f" readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 ) >{self.report}.new\n"
            f"mv {self.report}.new {self.report}\n"
            "sleep 30\n")
        (upper / "xdg-open").chmod(0o755)
        subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                        f"lowerdir=/usr/bin,upperdir={upper},workdir={scratch}", "/usr/bin"],
                       check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", "/usr/bin"])

    def open(self, *arguments):
        begin = time.monotonic()
        status = subprocess.run([quillvane.tool("open"), *arguments], env=self.environment,
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE).returncode
        self.assertLess(time.monotonic() - begin, 10, "it waited for the file manager")
        return status

    def testHandsThePathOverAndDoesNotWait(self):
        for variable in ("DISPLAY", "WAYLAND_DISPLAY"):
            self.environment[variable] = "anything"
            self.assertEqual(0, self.open("/some where/naïve"))
            self.assertTrue(quillvane.eventually(self.report.exists))
            count, path, session, *streams = self.report.read_text().splitlines()
            self.assertEqual(("1", "/some where/naïve"), (count, path))
            self.assertNotEqual(os.getsid(0), int(session))
            self.assertEqual(["/dev/null"] * 3, streams)
            self.report.unlink()
            del self.environment[variable]

    def testDoesNothingWithoutADisplay(self):
        self.assertEqual(0, self.open("/anywhere"))
        self.environment["DISPLAY"] = ""
        self.assertEqual(0, self.open("/anywhere"))
        time.sleep(0.5)
        self.assertFalse(self.report.exists())

    def testWantsOnePath(self):
        self.environment["DISPLAY"] = ":0"
        self.assertEqual(2, self.open())
        self.assertEqual(2, self.open("a", "b"))
        time.sleep(0.5)
        self.assertFalse(self.report.exists())


if __name__ == "__main__":
    unittest.main()
