"""Drives the disk-image tool as its callers do: create, attach and detach, and all that can go
wrong with them."""

import errno
import fcntl
import mmap
import os
import plistlib
import signal
import stat
import struct
import subprocess
import sys
import unittest

from quillvane import Case, eventually, makeTree, mounts, tool

PASSPHRASE = "mDq3VpJ0c2hLrZ8eYw1nB5tUxKs="
CONTROL_ADDRESS = 0x80445101  # _IOR('Q', 1, ControlAddress)
F_OFD_GETLK = 36
IS_ROOT = os.geteuid() == 0


class CommandCase(Case):
    """A test that calls the tool; it fails when a mount or a server is left behind."""

    def setUp(self):
        super().setUp()
        self.image = self.work / "Docs.quillvane"
        self.servers = []

    def hdiutil(self, *arguments, passphrase=PASSPHRASE + "\n", **options):
        return self.run_(tool("hdiutil"), *arguments, stdin=passphrase, **options)

    def create(self, image=None, name="Docs", size="20m", filesystem="APFS", **options):
        return self.hdiutil("create", "-size", size, "-encryption", "AES-256", "-stdinpass",
                            "-volname", name, "-fs", filesystem, "-type", "SPARSE",
                            image or self.image, **options)

    def created(self, *arguments, **options):
        result = self.create(*arguments, **options)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def attach(self, *options, image=None, **more):
        return self.hdiutil("attach", "-stdinpass", "-plist", "-owners", "on", *options,
                            image or self.image, **more)

    def attached(self, *options, **more):
        """Attaches; (device, mount point)."""
        result = self.attach(*options, **more)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        entities = plistlib.loads(result.stdout.encode())["system-entities"]
        self.assertEqual(1, len(entities))
        self.assertRegex(entities[0]["dev-entry"], "^/dev/disk[0-9]+$")
        self.servers.append(serverOf(entities[0]["mount-point"]))
        return entities[0]["dev-entry"], entities[0]["mount-point"]

    def detach(self, target, *options):
        return self.hdiutil("detach", *options, target, passphrase="")

    def detached(self, target, *options):
        result = self.detach(target, *options)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def assertRefused(self, result, message):
        self.assertEqual((1, "", message + "\n"),
                         (result.returncode, result.stdout, result.stderr))

    def assertNothingLeft(self):
        self.assertEqual([], [point for point, kind in mounts()
                              if str(self.directory) in point and kind.startswith("fuse")])
        self.assertEqual([], list((self.runtime / "quillvane").glob("*")))
        self.assertEqual([], list((self.home / "Volumes").glob("*")))
        self.assertEqual([], [server for server in self.servers if isRunning(server)])


def serverOf(mountPoint):
    """The number of the process that serves the volume."""
    fd = os.open(mountPoint, os.O_RDONLY | os.O_DIRECTORY)
    try:
        answer = fcntl.ioctl(fd, CONTROL_ADDRESS, bytes(68))
    finally:
        os.close(fd)
    return struct.unpack_from("i", answer)[0]


def isRunning(process):
    try:
        with open(f"/proc/{process}/stat") as file:
            return file.read().rsplit(")", 1)[1].split()[0] not in "ZX"
    except FileNotFoundError:
        return False


def isLocked(image):
    """Whether another process holds the image."""
    layout = "hhqqi4x"  # struct flock
    with open(image, "rb") as file:
        answer = fcntl.fcntl(file, F_OFD_GETLK, struct.pack(layout, fcntl.F_WRLCK, 0, 0, 0, 0))
    return struct.unpack(layout, answer)[0] != fcntl.F_UNLCK


def closeAnyway(file):
    """Closes a file whose volume has gone, which the system reports as an error."""
    try:
        file.close()
    except OSError:
        pass


class CreateTest(CommandCase):
    def test_private_sparse_file_that_cryptsetup_opens(self):
        self.created(size="200m")
        status = self.image.stat()
        self.assertEqual(0o600, stat.S_IMODE(status.st_mode))
        self.assertGreater(status.st_size, 200 << 20)
        self.assertEqual(0, status.st_size % 4096)
        self.assertLess(status.st_blocks * 512, 16 << 20)
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


class AttachTest(CommandCase):
    def test_round_trip(self):
        for filesystem in ("APFS", "JHFS+"):
            with self.subTest(filesystem=filesystem):
                self.image.unlink(missing_ok=True)
                self.created(filesystem=filesystem)
                source = makeTree(self.work / f"tree {filesystem}")
                device, point = self.attached()
                self.assertEqual(str(self.home / "Volumes/Docs"), point)
                self.assertEqual([], os.listdir(point))
                copy = self.run_("cp", "-a", f"{source}/.", point)
                self.assertEqual(0, copy.returncode, copy.stderr)
                self.detached(device)
                self.assertNothingLeft()
                _, point = self.attached("-nobrowse")
                self.assertEqual(str(self.runtime / "quillvane/Docs"), point)
                self.assertSameTree(source, point)
                self.detached(point + "/")
                self.assertNothingLeft()

    def test_prints_a_line_for_people(self):
        self.created()
        result = self.hdiutil("attach", "-stdinpass", self.image)
        self.assertRegex(result.stdout, f"^/dev/disk[0-9]+\t{self.home}/Volumes/Docs\n$")
        self.detached(result.stdout.split("\t")[0])

    def test_place_of_the_callers_choice(self):
        self.created()
        place = self.work / "Place, of \\ mine"
        place.mkdir()
        for given in (place, self.work / "link"):
            if not given.exists():
                given.symlink_to(place)
            _, point = self.attached("-nobrowse", "-mountpoint", given)
            self.assertEqual(str(place), point)
            self.detached(given)
            self.assertTrue(place.is_dir())
        self.assertNothingLeft()
        for place in ("missing", self.image):
            result = self.attach("-mountpoint", place)
            self.assertEqual(1, result.returncode)
            self.assertNothingLeft()

    def test_names_that_are_taken(self):
        volumes = self.home / "Volumes"
        volumes.mkdir()
        (volumes / "Docs").write_text("a file")
        (volumes / "Docs 1").mkdir()
        (volumes / "Docs 2").symlink_to("nowhere")
        self.created()
        other = self.work / "other"
        self.created(other)
        _, third = self.attached()
        _, fourth = self.attached(image=other)
        self.assertEqual([str(volumes / "Docs 3"), str(volumes / "Docs 4")], [third, fourth])
        self.detached(third)
        self.detached(fourth)
        self.assertEqual(["Docs", "Docs 1", "Docs 2"], sorted(os.listdir(volumes)))

    def test_any_name(self):
        names = {
            "with space": "with space", "Übergrößenträger 写真": "Übergrößenträger 写真",
            "line\nfeed": "line\nfeed", "<a>&\"'": "<a>&\"'", "..": "untitled", "a/b": "a:b",
            "bell\a": "bell_", "\\040": "\\040", "-option": "-option", "ü" * 127: "ü" * 127,
            " lead and trail ": " lead and trail ",
        }
        for number, (name, expected) in enumerate(names.items()):
            with self.subTest(name=name):
                image = self.work / f"{number}, \\{expected[:80].replace('/', '')}.quillvane"
                self.created(image, name=name)
                device, point = self.attached(image=image)
                self.assertEqual(str(self.home / "Volumes" / expected), point)
                self.assertIn((point, "fuse.quillvane"), mounts())
                self.detached(device if number % 2 else point)
        self.assertNothingLeft()

    def test_wrong_passphrase(self):
        self.created()
        for wrong in ("wrong\n", "", PASSPHRASE + "x\n", PASSPHRASE[:-1] + "\n"):
            self.assertRefused(self.attach(passphrase=wrong),
                               "hdiutil: attach failed - Authentication error")
        self.assertNothingLeft()

    def test_already_attached(self):
        self.created()
        device, _ = self.attached()
        self.assertRefused(self.attach(),
                           "hdiutil: attach failed - Resource temporarily unavailable")
        self.detached(device)
        self.detached(self.attached()[0])

    def test_missing_or_no_file(self):
        self.assertRefused(self.attach(),
                           "hdiutil: attach failed - No such file or directory")
        self.image.mkdir()
        self.assertEqual(1, self.attach().returncode)
        self.image.rmdir()
        os.mkfifo(self.image)
        self.assertRefused(self.attach(),
                           "hdiutil: attach failed - image not recognized (not a regular file)")

    def test_files_that_are_no_image(self):
        for content in (b"", b"text\n", bytes(5 << 20), os.urandom(3 << 20),
                        b"LUKS\xba\xbe\x00\x01" + bytes(2 << 20)):
            self.image.write_bytes(content)
            result = self.attach()
            self.assertEqual(1, result.returncode)
            self.assertIn("attach failed - image not recognized", result.stderr)
            self.assertNotIn("corrupt", result.stderr)
            self.assertEqual(content, self.image.read_bytes())

    def test_damaged_images(self):
        self.created()
        size = self.image.stat().st_size

        def truncated(length):
            os.truncate(self.image, length)

        def overwritten(start, length):
            with open(self.image, "r+b") as file:
                file.seek(start)
                file.write(os.urandom(length))

        damages = {
            "header cut": lambda: truncated(20000), "no payload": lambda: truncated(1 << 20),
            "payload cut": lambda: truncated(5 << 20), "a block short": lambda: truncated(size - 4096),
            "both headers": lambda: (overwritten(10, 3000), overwritten(16384 + 10, 3000)),
            "superblock": lambda: overwritten(1 << 20, 4096),
        }
        for damage, inflict in damages.items():
            with self.subTest(damage=damage):
                self.image.unlink()
                self.created()
                inflict()
                result = self.attach()
                self.assertEqual(1, result.returncode)
                self.assertIn("attach failed - image data corrupted", result.stderr)
                self.assertNothingLeft()

    def test_first_header_damaged_is_repaired_from_the_second(self):
        self.created()
        with open(self.image, "r+b") as file:
            file.write(bytes(4096))
        self.detached(self.attached()[1])
        with open(self.image, "rb") as file:
            self.assertEqual(b"LUKS", file.read(4))

    def test_image_that_cannot_be_written(self):
        self.created()
        _, point = self.attached()
        with open(point + "/file", "w") as file:
            file.write("kept")
        self.detached(point)
        self.makeReadOnly()
        before = self.image.read_bytes()[:4 << 20]
        _, point = self.attached()
        with open(point + "/file") as file:
            self.assertEqual("kept", file.read())
        with self.assertRaises(OSError) as caught:
            open(point + "/new", "w")
        self.assertEqual(errno.EROFS, caught.exception.errno)
        self.detached(point)
        self.assertEqual(before, self.image.read_bytes()[:4 << 20])

    def test_image_that_cannot_be_written_and_needs_repair(self):
        self.created()
        self.crash()
        self.makeReadOnly()
        result = self.attach()
        self.assertEqual(1, result.returncode)
        self.assertIn("was not closed properly", result.stderr)
        self.assertNotIn("corrupt", result.stderr)
        self.assertNothingLeft()

    def crash(self):
        """Leaves an image as a killed server does; its mount point."""
        _, point = self.attached()
        with open(point + "/file", "w") as file:
            file.write("kept")
            file.flush()
            os.fsync(file.fileno())
        os.kill(self.servers[-1], signal.SIGKILL)
        self.assertTrue(eventually(lambda: not isRunning(self.servers[-1])))
        self.detached(point)
        return point

    def makeReadOnly(self):
        if not IS_ROOT:
            self.image.chmod(0o400)
            return
        subprocess.run(["mount", "--bind", self.image, self.image], check=True)
        self.addCleanup(subprocess.run, ["umount", self.image])
        subprocess.run(["mount", "-o", "remount,bind,ro", self.image], check=True)

    def test_after_a_crash(self):
        self.created()
        self.crash()
        self.assertNothingLeft()
        _, point = self.attached()
        with open(point + "/file") as file:
            self.assertEqual("kept", file.read())
        self.detached(point)
        self.assertNothingLeft()

    def test_directories_that_a_power_failure_left_are_used_again(self):
        volumes = self.home / "Volumes"
        volumes.mkdir()
        (volumes / "Docs").mkdir()
        try:
            os.setxattr(volumes / "Docs", "user.quillvane.mountpoint", b"")
        except OSError:
            self.skipTest("the file system of temporary files has no attributes")
        self.created()
        _, point = self.attached()
        self.assertEqual(str(volumes / "Docs"), point)
        self.detached(point)
        # With something in it, it is somebody's.
        (volumes / "Docs").mkdir()
        os.setxattr(volumes / "Docs", "user.quillvane.mountpoint", b"")
        (volumes / "Docs/file").write_text("mine")
        _, point = self.attached()
        self.assertEqual(str(volumes / "Docs 1"), point)
        self.detached(point)
        self.assertEqual("mine", (volumes / "Docs/file").read_text())

    def test_callers_do_not_wait_for_the_server(self):
        self.created()
        reading, writing = os.pipe()
        _, point = self.attached(pass_fds=[writing])
        os.close(writing)
        os.set_blocking(reading, False)
        self.assertEqual(b"", os.read(reading, 1))  # the end: nobody holds the other side
        os.close(reading)
        self.detached(point)

    def test_command_that_is_stopped_leaves_no_volume(self):
        self.created()
        process = subprocess.Popen([tool("hdiutil"), "attach", "-stdinpass", self.image],
                                   stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                   env=self.environment, text=True)
        # The server holds the image while it waits for the passphrase.
        self.assertTrue(eventually(lambda: isLocked(self.image)))
        process.terminate()
        process.wait()
        process.stdin.write(PASSPHRASE + "\n")
        process.stdin.close()
        self.assertTrue(eventually(lambda: not isLocked(self.image)))
        self.assertNothingLeft()

    def test_secrets_are_nowhere_to_be_seen(self):
        self.created()
        _, point = self.attached()
        process = f"/proc/{self.servers[-1]}"
        with open(f"{process}/cmdline", "rb") as file:
            self.assertNotIn(PASSPHRASE.encode(), file.read())
        if IS_ROOT:
            with open(f"{process}/environ", "rb") as file:
                self.assertNotIn(PASSPHRASE.encode(), file.read())
        else:
            with self.assertRaises(PermissionError):
                os.listdir(f"{process}/fd")
        with open(f"{process}/limits") as file:
            self.assertRegex(file.read(), r"Max core file size +0 +0 ")
        self.detached(point)

    def test_only_the_user_looks_inside(self):
        if not IS_ROOT:
            self.skipTest("needs a second user")
        self.created()
        _, point = self.attached("-nobrowse")
        other = self.run_("setpriv", "--reuid=65534", "--clear-groups", "ls", point)
        self.assertNotEqual(0, other.returncode)
        self.detached(point)


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
        with self.assertRaises(OSError):
            while True:
                filler.write(bytes(4096))
        for number in range(3000):
            with open(f"{point}/{number}", "w"):
                pass
        for option in ([], ["-force"]):
            result = self.detach(point, *option)
            self.assertEqual(1, result.returncode)
            self.assertIn("No space left on device", result.stderr)
            self.assertEqual(3000, len(os.listdir(point)))
        filler.truncate(0)
        filler.close()
        self.detached(point)
        _, point = self.attached("-nobrowse", image=image)
        self.assertEqual(3000, len(os.listdir(point)))
        self.detached(point)
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
