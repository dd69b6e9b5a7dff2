"""Drives `hdiutil attach` as its callers do, and all that can go wrong with it."""

import errno
import fcntl
import os
import pathlib
import shutil
import signal
import struct
import subprocess
import threading
import unittest

from hdiutil_case import CommandCase, IS_ROOT, isLocked, isRunning, PASSPHRASE
from quillvane import eventually, makeTree, mounts, tool


def checksRunning():
    """The processes that check a volume."""
    return [process for process in pathlib.Path("/proc").glob("[0-9]*/comm")
            if readAnyway(process) == "e2fsck\n"]


def readAnyway(path):
    """The text of a file that may have gone."""
    try:
        return path.read_text()
    except (FileNotFoundError, ProcessLookupError):
        return ""


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
        (self.work / "link").symlink_to(self.work)
        for given in (place, f"{place}/", self.work / "link" / place.name):
            _, point = self.attached("-nobrowse", "-mountpoint", given)
            self.assertEqual(str(place), point)
            self.detached(given)
            self.assertTrue(place.is_dir())
        self.assertNothingLeft()
        (self.work / "itself").symlink_to(place)
        for place in ("missing", self.image, self.work / "itself", f"{self.work}/itself/"):
            result = self.attach("-mountpoint", place)
            self.assertEqual(1, result.returncode)
            self.assertNothingLeft()

    @unittest.skipIf(IS_ROOT, "root has a place of its own, which nobody can write to")
    def test_no_place_below_what_everybody_may_write_to(self):
        self.created()
        self.runtime.chmod(0o777)
        _, point = self.attached("-nobrowse")
        self.assertEqual(str(self.home / ".cache/quillvane/Docs"), point)
        self.detached(point)
        (self.home / ".cache").chmod(0o777)
        self.assertRefused(self.attach("-nobrowse"), "hdiutil: attach failed - "
                           f"everybody may write to {self.home}/.cache")

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

    def test_waits_for_a_server_that_is_ending(self):
        self.created()
        with open(self.image, "r+b") as used:
            lock = struct.pack("hhqqi4x", fcntl.F_WRLCK, os.SEEK_SET, 0, 0, 0)
            fcntl.fcntl(used, fcntl.F_OFD_SETLK, lock)
            ending = threading.Timer(0.3, used.close)
            ending.start()
            device, _ = self.attached()
            ending.join()
        self.detached(device)

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
            "both headers": lambda: (overwritten(10, 300), overwritten(16384 + 10, 300)),
            "superblock": lambda: overwritten(1 << 20, 4096),
            "structure": lambda: overwritten((1 << 20) + 4096, 32 << 20),
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
        self.detached(point, "-force")
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

    def test_command_that_is_stopped_ends_the_check(self):
        if not IS_ROOT:
            self.skipTest("needs to trace the server, which hides from its user")
        self.created()
        self.crash()
        process = subprocess.Popen(
            ["strace", "-D", "-f", "-qq", "-o", "/dev/null", "-e", "trace=fsync",
             "-e", "inject=fsync:signal=STOP",  # the check syncs
             tool("hdiutil"), "attach", "-stdinpass", self.image],
            stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, env=self.environment, text=True)
        process.stdin.write(PASSPHRASE + "\n")
        process.stdin.close()
        self.assertTrue(eventually(lambda: checksRunning()))
        process.terminate()
        process.wait()
        self.assertTrue(eventually(lambda: not isLocked(self.image) and not checksRunning()))
        self.assertNothingLeft()
        _, point = self.attached()
        with open(point + "/file") as file:
            self.assertEqual("kept", file.read())
        self.detached(point)

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

    def test_mount_options_are_refused_to_all_but_root(self):
        if IS_ROOT:
            self.skipTest("root may give them")
        self.created()
        for options in ("allow_other", "suid", "dev", "allow_other,suid,dev"):
            self.assertRefused(self.attach("-mountoptions", options),
                               "hdiutil: attach failed - -mountoptions is for root only")
        self.assertNothingLeft()

    def test_mount_options_of_root(self):
        if not IS_ROOT:
            self.skipTest("needs root")
        self.created()
        for given, expected in ((), {"nosuid", "nodev"}), (("allow_other",), {"nosuid", "nodev"}), \
                (("suid",), {"nodev"}), (("dev",), {"nosuid"}), (("allow_other,suid,dev",), set()):
            with self.subTest(given=given):
                options = [word for value in given for word in ("-mountoptions", value)]
                _, point = self.attached("-nobrowse", "-mountpoint", self.openPlace(), *options)
                found = mountFlags(point)
                self.assertEqual(expected, found & {"nosuid", "nodev"})
                self.assertEqual("allow_other" in "".join(given), "allow_other" in found)
                self.detached(point)

    def test_other_users_enter_where_root_allows_it(self):
        if not IS_ROOT:
            self.skipTest("needs root and a second user")
        self.created()
        _, point = self.attached("-nobrowse", "-mountpoint", self.openPlace(),
                                 "-mountoptions", "allow_other,suid,dev")
        shutil.copy("/usr/bin/id", point)
        os.chmod(f"{point}/id", 0o4755)
        os.mknod(f"{point}/zero", 0o20666, os.makedev(1, 5))
        os.chmod(f"{point}/zero", 0o666)
        as_other = ("setpriv", "--reuid=65534", "--clear-groups")
        self.assertEqual("0\n", self.run_(*as_other, f"{point}/id", "-u", cwd="/").stdout)
        zeros = self.run_(*as_other, "head", "-c", "3", f"{point}/zero", cwd="/")
        self.assertEqual((0, "\0\0\0"), (zeros.returncode, zeros.stdout))
        refused = self.run_(*as_other, "touch", f"{point}/new", cwd="/")
        self.assertIn("Permission denied", refused.stderr)
        self.detached(point)

    def openPlace(self):
        """A place for the volume that every user reaches."""
        place = self.work / "place"
        place.mkdir(exist_ok=True)
        for folder in (self.directory.parent, self.directory, self.work):
            folder.chmod(0o755)
        return place


def mountFlags(point):
    with open("/proc/self/mountinfo") as lines:
        fields = next(line.split() for line in lines if line.split()[4] == str(point))
    return set(fields[5].split(",")) | set(fields[-1].split(","))


if __name__ == "__main__":
    unittest.main()
