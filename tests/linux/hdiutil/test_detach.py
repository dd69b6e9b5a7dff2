"""Drives `hdiutil detach` as its callers do, and the other ways in which a volume ends."""

import contextlib
import errno
import mmap
import os
import pathlib
import signal
import socket
import subprocess
import sys
import time
import unittest

from hdiutil_case import ask, closeAnyway, CONTROL_ADDRESS, CommandCase, imageOf, IS_ROOT, isRunning
from quillvane import eventually, mountsBelow, tool


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
        for _ in range(2):
            self.assertRefused(self.detach(self.device),
                               "hdiutil: detach failed - the volume's server has died")
        self.detached(self.device, "-force")
        self.assertNothingLeft()

    def test_callers_do_not_hold_up_what_is_written_behind(self):
        name = ask(self.point, CONTROL_ADDRESS, 68)[4:].split(b"\0")[0]
        os.mkdir(self.point + "/new")
        end = time.monotonic() + 6
        while time.monotonic() < end:
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as caller:
                caller.connect(b"\0" + name)
        os.kill(self.servers[-1], signal.SIGKILL)
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        self.reattached()
        self.assertTrue(os.path.isdir(self.point + "/new"))
        self.detached(self.point)

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
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=28m", "tmpfs", disk], check=True)
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
        with self.failingSyncs():
            for option in ([], ["-force"]):
                result = self.detach(self.point, *option)
                self.assertEqual(1, result.returncode)
                self.assertIn("Input/output error", result.stderr)
                self.assertEqual(b"kept", self.read("file"))
        self.detached(self.point)
        self.reattached()
        self.assertEqual(b"kept", self.read("file"))
        self.detached(self.point)

    def test_force_does_not_conceal_a_failure(self):
        if not IS_ROOT:
            self.skipTest("needs to trace the server, which hides from its user")
        with open(self.point + "/file", "w") as file:
            file.write("on the way")
        with self.failingSyncs():
            with open(self.point + "/file", "a") as file:
                file.write(" and more")  # the first may have been written behind
            self.assertEqual(1, self.detach(self.point).returncode)
        # The disk works again, but takes what it has refused for written.
        self.assertRefused(self.detach(self.point, "-force"),
                           "hdiutil: detach failed - what was written last may be lost")
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        self.assertNothingLeft()

    @contextlib.contextmanager
    def failingSyncs(self):
        tracer = subprocess.Popen(
            ["strace", "-f", "-qq", "-e", "inject=fsync,fdatasync:error=EIO", "-e", "trace=fsync,"
             "fdatasync", "-o", "/dev/null", "-p", str(self.servers[-1])])
        try:
            threads = list(pathlib.Path(f"/proc/{self.servers[-1]}/task").glob("*/status"))
            self.assertTrue(eventually(lambda: all("TracerPid:\t0\n" not in thread.read_text()
                                                   for thread in threads)))
            yield
        finally:
            tracer.terminate()
            tracer.wait()

    def test_the_last_copy_is_not_thrown_away(self):
        gone = ("hdiutil: detach failed - its file has been deleted or replaced, and closing the "
                "volume would lose what is in it: copy what you need out of it")
        (pathlib.Path(self.point) / "file").write_text("kept")
        kept = self.work / "kept"
        other = self.work / "other"
        other.write_text("another file")
        for takeAway in (self.image.unlink, lambda: other.rename(self.image)):
            takeAway()
            for options in ([], ["-force"]):
                self.assertRefused(self.detach(self.point, *options), gone)
            self.assertEqual(b"kept", self.read("file"))
            self.endBySignal()
            self.image.unlink(missing_ok=True)
            self.created()
            self.reattached()
            (pathlib.Path(self.point) / "file").write_text("kept")
        os.link(self.image, kept)
        self.image.unlink()
        self.detached(self.point)
        _, self.point = self.attached("-nobrowse", image=kept)
        kept.unlink()
        self.detached(self.point)
        self.assertNothingLeft()

    def endBySignal(self):
        os.kill(self.servers[-1], signal.SIGTERM)
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))

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


class MovedDetachTest(CommandCase):
    """The directory that the image and the mount point are in gets another name while it is open."""

    def setUp(self):
        super().setUp()
        self.parent = self.work / "parent"
        self.place = self.parent / "place"
        self.image = self.parent / "Docs.quillvane"
        self.place.mkdir(parents=True)
        self.created()

    def movedWhileOpen(self):
        """The volume's device; `place` and `image` are where they are then."""
        device, _ = self.attached("-nobrowse", "-mountpoint", self.place)
        (self.place / "file").write_text("text")
        self.parent = self.parent.rename(self.work / f"moved{len(self.servers)}")
        self.place = self.parent / "place"
        self.image = self.parent / "Docs.quillvane"
        return device

    def assertClosed(self):
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        self.assertEqual([], mountsBelow(self.directory))
        self.assertEqual([], os.listdir(self.place))
        self.attached("-nobrowse", "-mountpoint", self.place)
        self.assertEqual("text", (self.place / "file").read_text())
        self.detached(self.place)
        self.assertNothingLeft()

    def test_by_the_new_mount_point(self):
        self.movedWhileOpen()
        image = os.stat(self.image)
        self.assertEqual((image.st_dev, image.st_ino), imageOf(self.place))
        self.detached(self.place)
        self.assertClosed()

    def test_by_device(self):
        self.detached(self.movedWhileOpen())
        self.assertClosed()

    def test_busy_then_by_force(self):
        device = self.movedWhileOpen()
        file = open(self.place / "open", "wb", buffering=0)
        self.addCleanup(closeAnyway, file)
        file.write(b"x")
        self.assertRefused(self.detach(device),
                           f'hdiutil: couldn\'t eject "{self.place}" - Resource busy')
        self.detached(self.place, "-force")
        self.assertClosed()

    def test_by_a_signal(self):
        for number in (signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                self.movedWhileOpen()
                with open(self.place / "mapped", "w+b") as file:
                    file.truncate(4096)
                    with mmap.mmap(file.fileno(), 4096) as memory:
                        memory[:4] = b"kept"
                os.kill(self.servers[-1], number)
                self.assertClosed()

    def test_the_old_place_taken_by_another_volume(self):
        first = self.movedWhileOpen()
        moved, self.place = self.place, self.work / "parent/place"
        self.place.mkdir(parents=True)
        self.image = self.work / "Other.quillvane"
        self.created(name="Other")
        self.attached("-nobrowse", "-mountpoint", self.place)
        (self.place / "file").write_text("text")
        self.detached(first)
        self.assertEqual([], os.listdir(moved))
        self.assertEqual("text", (self.place / "file").read_text())
        self.detached(self.place)
        self.assertClosed()

    def test_the_places_of_the_tool(self):
        device, _ = self.attached()
        (self.home / "Volumes").rename(self.home / "Other")
        self.detached(device)
        self.assertEqual([], list((self.home / "Other").iterdir()))
        self.assertNothingLeft()

    def test_mounted_twice(self):
        if not IS_ROOT:
            self.skipTest("needs to mount the volume a second time")
        self.movedWhileOpen()
        second = self.work / "second"
        second.mkdir()
        subprocess.run(["mount", "--bind", self.place, second], check=True)
        with open(second / "file"):
            self.assertRefused(self.detach(second),
                               f'hdiutil: couldn\'t eject "{second}" - Resource busy')
        self.detached(self.place)
        self.assertEqual([], os.listdir(second))
        self.assertClosed()

    def test_covered_by_another_mount(self):
        if not IS_ROOT:
            self.skipTest("needs to mount something over the volume")
        device = self.movedWhileOpen()
        subprocess.run(["mount", "-t", "tmpfs", "cover", self.place], check=True)
        (self.place / "cover").write_text("not ours")
        for option in ([], ["-force"]):
            self.assertEqual(1, self.detach(device, *option).returncode)
            self.assertEqual("not ours", (self.place / "cover").read_text())
        subprocess.run(["umount", self.place], check=True)
        self.detached(device)
        self.assertClosed()


if __name__ == "__main__":
    unittest.main()
