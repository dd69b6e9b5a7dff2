"""Drives `hdiutil detach` as its callers do, and the other ways in which a volume ends."""

import errno
import mmap
import os
import pathlib
import signal
import subprocess
import sys
import unittest

from hdiutil_case import closeAnyway, CommandCase, IS_ROOT, isRunning
from quillvane import eventually, tool


class DetachTest(CommandCase):
    def setUp(self):
        super().setUp()
        self.created()
        self.device, self.point = self.attached()

    def reattached(self):
        self.device, self.point = self.attached()
        return self.point

    def read(self, name):
        with open(f"{self.point}/{name}", "rb") as file:
            return file.read()

    def test_busy_until_closed(self):
        with open(self.point + "/file", "w") as file:
            file.write("text")
            self.assertRefused(self.detach(self.device),
                               f'hdiutil: couldn\'t eject "{self.point}" - Resource busy')
            file.write(" and more")
        self.detached(self.point)
        self.assertNothingLeft()
        self.reattached()
        self.assertEqual(b"text and more", self.read("file"))
        self.detached(self.point)

    def test_force_keeps_what_was_written(self):
        file = open(self.point + "/file", "wb", buffering=0)
        file.write(b"a" * 3_000_000)
        mapped = open(self.point + "/mapped", "w+b")
        mapped.truncate(8192)
        memory = mmap.mmap(mapped.fileno(), 8192)
        memory[4090:4100] = b"0123456789"
        self.addCleanup(closeAnyway, mapped)
        self.addCleanup(memory.close)
        self.addCleanup(closeAnyway, file)
        self.detached(self.device, "-force")
        self.assertNothingLeft()
        with self.assertRaises(OSError):
            file.write(b"lost")
            os.fsync(file.fileno())
        self.reattached()
        self.assertEqual(b"a" * 3_000_000, self.read("file"))
        self.assertEqual(b"0123456789", self.read("mapped")[4090:4100])
        self.detached(self.point)

    def test_force_while_a_program_writes_without_pause(self):
        writer = subprocess.Popen(
            [sys.executable, "-c",
             "import os, sys\nf = os.open(sys.argv[1], os.O_CREAT | os.O_WRONLY)\n"
             "try:\n while True: os.pwrite(f, b'x' * 65536, 0)\nexcept OSError: pass",
             self.point + "/file"])
        self.addCleanup(writer.kill)
        self.assertTrue(eventually(lambda: os.path.exists(self.point + "/file")))
        self.detached(self.device, "-force")
        self.assertEqual(0, writer.wait(20))
        self.assertNothingLeft()
        self.reattached()
        self.assertEqual(b"x" * 65536, self.read("file"))
        self.detached(self.point)

    def test_unknown_targets(self):
        for target in ("/dev/disk99999", "/", self.work, self.point + "x", "relative", "/dev/disk"):
            self.assertRefused(self.detach(target),
                               "hdiutil: detach failed - No such file or directory")
        self.detached(self.point)
        self.assertRefused(self.detach(self.point),
                           "hdiutil: detach failed - No such file or directory")

    def test_signals_end_the_volume_cleanly(self):
        for number in (signal.SIGTERM, signal.SIGHUP, signal.SIGINT):
            with self.subTest(signal=number):
                file = os.open(self.point + "/file", os.O_CREAT | os.O_TRUNC | os.O_WRONLY)
                os.write(file, str(number.value).encode())
                os.kill(self.servers[-1], number)
                self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
                try:
                    os.close(file)
                except OSError:
                    pass  # its volume has gone
                self.assertNothingLeft()
                self.assertIsClean()
                self.reattached()
                self.assertEqual(str(number.value).encode(), self.read("file"))
        self.detached(self.point)

    def test_unmounted_by_the_system(self):
        with open(self.point + "/file", "w") as file:
            file.write("text")
        unmount = ["umount"] if IS_ROOT else ["fusermount3", "-u"]
        subprocess.run([*unmount, self.point], check=True)
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        self.assertNothingLeft()
        self.assertIsClean()
        self.reattached()
        self.assertEqual(b"text", self.read("file"))
        self.detached(self.point)

    def assertIsClean(self):
        """A read-only attachment is refused unless the volume was closed properly."""
        with open(self.image, "rb") as source, open(self.work / "copy", "wb") as copy:
            subprocess.run(["cp", "--sparse=always", source.name, copy.name], check=True)
        os.chmod(self.work / "copy", 0o400)
        if not IS_ROOT:  # root may write all the same
            _, point = self.attached("-nobrowse", image=self.work / "copy")
            self.detached(point)
        os.unlink(self.work / "copy")

    def test_killed_server(self):
        os.kill(self.servers[-1], signal.SIGKILL)
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        with self.assertRaises(OSError):
            os.listdir(self.point)
        self.detached(self.device)
        self.assertNothingLeft()

    def test_killed_server_at_the_callers_place(self):
        self.detached(self.point)
        place = self.work / "place"
        place.mkdir()
        self.attached("-mountpoint", place)
        os.kill(self.servers[-1], signal.SIGKILL)
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        self.attached("-mountpoint", place)
        self.detached(place)
        self.assertEqual([], os.listdir(place))

    def test_image_is_free_at_once(self):
        for _ in range(5):
            self.detached(self.point)
            self.assertFalse(isRunning(self.servers[-1]))
            self.reattached()
        self.detached(self.point)

    def test_full_disk(self):
        if not IS_ROOT:
            self.skipTest("needs to mount a small disk")
        disk = self.work / "disk"
        disk.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m", "tmpfs", disk], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", disk])
        image = disk / "image"
        self.created(image)
        _, point = self.attached("-nobrowse", image=image)
        filler = open(disk / "filler", "wb", buffering=0)
        self.addCleanup(filler.close)
        for number in range(300):
            with open(f"{point}/{number}", "w"):
                pass
        with self.assertRaises(OSError):
            while True:
                filler.write(bytes(65536))
        with self.assertRaises(OSError):
            while True:
                filler.write(bytes(4096))
        # What was accepted has its place already; more is refused.
        with self.assertRaises(OSError) as caught:
            with open(f"{point}/big", "wb", buffering=0) as file:
                file.write(bytes(1 << 20))
        self.assertEqual(errno.ENOSPC, caught.exception.errno)
        self.detached(point)
        _, point = self.attached("-nobrowse", image=image)
        self.assertEqual(set(map(str, range(300))), set(os.listdir(point)) - {"big"})
        self.detached(point)
        self.detached(self.point)

    def test_failing_disk(self):
        if not IS_ROOT:
            self.skipTest("needs to trace the server, which hides from its user")
        with open(self.point + "/file", "w") as file:
            file.write("kept")
        tracer = subprocess.Popen(
            ["strace", "-f", "-qq", "-e", "inject=fsync,fdatasync:error=EIO", "-e", "trace=fsync,"
             "fdatasync", "-o", "/dev/null", "-p", str(self.servers[-1])])
        try:
            threads = list(pathlib.Path(f"/proc/{self.servers[-1]}/task").glob("*/status"))
            self.assertTrue(eventually(lambda: all("TracerPid:\t0\n" not in thread.read_text()
                                                   for thread in threads)))
            for option in ([], ["-force"]):
                result = self.detach(self.point, *option)
                self.assertEqual(1, result.returncode)
                self.assertIn("Input/output error", result.stderr)
                self.assertEqual(b"kept", self.read("file"))
        finally:
            tracer.terminate()
            tracer.wait()
        self.detached(self.point)
        self.reattached()
        self.assertEqual(b"kept", self.read("file"))
        self.detached(self.point)

    def test_two_at_once(self):
        both = [subprocess.Popen([tool("hdiutil"), "detach", self.point], env=self.environment,
                                 stderr=subprocess.PIPE) for _ in range(2)]
        statuses = sorted(process.wait(20) for process in both)
        for process in both:
            process.stderr.close()
        self.assertEqual(0, statuses[0])
        self.assertNothingLeft()
        self.reattached()
        self.detached(self.point)


if __name__ == "__main__":
    unittest.main()
