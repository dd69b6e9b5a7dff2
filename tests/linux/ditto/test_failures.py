"""Failures have exit status 1, name the path, and never hide behind each other."""

import os
import subprocess
import unittest

from support import DITTO, DittoTest, run

USAGE = (b"Usage: ditto SRC DST\n"
         b"Copies the contents of the folder SRC into the folder DST and verifies the copy.\n")


class Arguments(DittoTest):
    def test_wrong_number(self):
        for arguments in ((), ("a",), ("a", "b", "c"), ("", "b"), ("a", "")):
            result = subprocess.run([DITTO, *arguments], capture_output=True, check=False)
            self.assertEqual((result.returncode, result.stdout, result.stderr), (1, b"", USAGE))

    def test_source_missing(self):
        self.assert_fails(self.ditto(self.path("none"), self.destination),
                          f"ditto: {self.path('none')}: cannot be read: No such file or directory")
        self.assertFalse(os.path.lexists(self.destination))

    def test_source_is_a_file_or_a_link(self):
        self.write("file")
        os.symlink(self.source, os.path.join(self.place, "link"))
        for name in (self.path("file"), os.path.join(self.place, "link"),
                     os.path.join(self.place, "link/")):
            self.assert_fails(self.ditto(name, self.destination),
                              f"ditto: {name.rstrip('/')}: cannot be read: Not a directory")
        self.assertFalse(os.path.lexists(self.destination))

    def test_destination_is_a_file_or_a_link(self):
        elsewhere = os.path.join(self.place, "elsewhere")
        os.mkdir(elsewhere)
        os.symlink(elsewhere, os.path.join(self.place, "link"))
        with open(os.path.join(self.place, "file"), "wb"):
            pass
        for name in ("link", "file"):
            path = os.path.join(self.place, name)
            self.assert_fails(self.ditto(self.source, path),
                              f"ditto: {path}: cannot be read: Not a directory")
        self.assertEqual(os.listdir(elsewhere), [])

    def test_folder_for_the_destination_missing(self):
        path = os.path.join(self.place, "none/Copy")
        self.assert_fails(self.ditto(self.source, path),
                          f"ditto: {path}: the folder above cannot be opened: "
                          "No such file or directory")

    def test_one_inside_the_other(self):
        self.write("sub/a")
        inside = "the destination lies inside the folder to be copied"
        around = "the folder to be copied lies inside the destination"
        for source, destination, text in (
                (self.source, self.source, inside),
                (self.source, self.path("new"), inside),
                (self.source, self.path("sub"), inside),
                (self.source, self.path("sub/new"), inside),
                (self.source, self.path("sub/../new"), inside),
                (self.path("sub"), self.source, around),
                (self.path("sub"), self.place, around)):
            before = os.stat(self.source).st_ctime_ns
            self.assert_fails(self.ditto(source, destination), f"ditto: {destination}: {text}")
            self.assertEqual(os.stat(self.source).st_ctime_ns, before)
        self.assertEqual(os.listdir(self.source), ["sub"])

    def test_inside_by_way_of_a_mount(self):
        self.needs_root("a bind mount")
        self.write("sub/a")
        os.mkdir(self.destination)
        run("mount", "--bind", self.path("sub"), self.destination)
        self.addCleanup(run, "umount", self.destination)
        self.assert_fails(self.ditto(), "ditto: Docs/sub: is the destination itself")

    def test_nothing_is_overwritten(self):
        self.write("a", b"new")
        os.mkdir(self.path("b"))
        os.mkdir(self.destination)
        os.mkdir(self.copied("b"))
        with open(self.copied("a"), "wb") as file:
            file.write(b"old")
        self.assert_fails(self.ditto(), "ditto: Docs/a: cannot be created: File exists",
                          "ditto: Docs/b: cannot be created: File exists")
        with open(self.copied("a"), "rb") as file:
            self.assertEqual(file.read(), b"old")

    def test_closed_standard_streams_get_no_file(self):
        self.write("a")
        command = 'exec "$@" <&- >&- 2>&-'
        result = subprocess.run(["sh", "-c", command, "sh", DITTO, self.source, self.destination],
                                check=False)
        self.assertEqual(result.returncode, 0)
        with open(self.copied("a"), "rb") as file:
            self.assertEqual(file.read(), b"content")


class OtherFileSystems(DittoTest):
    def test_mounted_inside_the_source(self):
        self.write("a")
        os.mkdir(self.path("m"))
        self.mount("tmpfs", "Docs/m")
        self.assert_fails(self.ditto(), "ditto: Docs/m: is on another file system")

    def test_bind_mounts_of_the_same_file_system(self):
        self.needs_root("a bind mount")
        other = os.path.join(self.place, "other")
        os.mkdir(other)
        os.mkdir(self.path("folder"))
        self.write("file")
        with open(os.path.join(other, "file"), "wb") as file:
            file.write(b"not of this folder")
        for name, target in (("", "folder"), ("file", "file")):
            run("mount", "--bind", os.path.join(other, name), self.path(target))
            self.addCleanup(run, "umount", self.path(target))
        result = self.ditto()
        self.assertEqual(sorted(result.stderr.decode().splitlines()),
                         ["ditto: Docs/file: is on another file system",
                          "ditto: Docs/folder: is on another file system"])
        self.assertEqual(result.returncode, 1)

    def test_source_and_destination_may_be_mount_points(self):
        self.source = self.mount("tmpfs", "from")
        self.destination = self.mount("tmpfs", "to")
        self.write("sub/a")
        self.assert_copies()

    def test_overlay(self):
        for name in ("lower", "Docs"):
            os.makedirs(os.path.join(self.place, name), exist_ok=True)
        lower, layer = os.path.join(self.place, "lower"), self.mount("tmpfs", "layer")
        for name in ("upper", "work"):
            os.mkdir(os.path.join(layer, name))
        for name in ("old", "kept"):
            with open(os.path.join(lower, name), "wb") as file:
                file.write(name.encode())
        os.link(os.path.join(lower, "kept"), os.path.join(lower, "kept too"))
        os.mkdir(os.path.join(lower, "sub"))
        self.mount("overlay", "Docs", "-o",
                   f"xino=off,lowerdir={lower},upperdir={layer}/upper,workdir={layer}/work")
        self.write("new")
        self.write("sub/new")
        os.truncate(self.path("old"), 1)
        self.assert_copies()

    def test_attributes_that_the_destination_cannot_hold(self):
        os.setxattr(self.write("a"), "user.tag", b"1")
        self.write("b")
        run("setfacl", "-m", "u:3000:r", self.path("b"))
        self.destination = self.mount("ramfs", "ram")
        self.assert_fails(
            self.ditto(),
            "ditto: Docs/a: attribute user.tag cannot be set: Operation not supported",
            "ditto: Docs/b: attribute system.posix_acl_access cannot be set: "
            "Operation not supported")

    def test_full_disk_ends_the_copy_at_once(self):
        for number in range(50):
            self.write(f"{number}", os.urandom(100_000))
        self.destination = self.mount("tmpfs", "small", "-o", "size=1m")
        result = self.ditto()
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr.count(b"\n"), 1)
        self.assertRegex(result.stderr,
                         rb"ditto: Docs/\d+: cannot be written: No space left on device\n")

    def test_no_room_for_another_entry(self):
        for number in range(50):
            self.write(f"{number}", b"")
        self.destination = self.mount("tmpfs", "small", "-o", "nr_inodes=10")
        self.assertRegex(self.ditto().stderr,
                         rb"\Aditto: Docs/\d+: cannot be created: No space left on device\n\Z")

    def test_read_only_destination(self):
        self.write("a")
        self.destination = self.mount("tmpfs", "ro", "-o", "ro")
        self.assert_fails(self.ditto(), f"ditto: {self.destination}: permissions cannot be set: "
                          "Read-only file system")


class Faults(DittoTest):
    def setUp(self):
        super().setUp()
        self.write("a", b"1")
        self.write("b", b"2")

    def test_source_that_cannot_be_read(self):
        self.assert_fails(self.ditto_with_faults("pread64:error=EIO:when=1", only=self.path("a")),
                          "ditto: Docs/a: cannot be read: Input/output error")
        self.assertTrue(os.path.exists(self.copied("b")), "the other entries are still tried")

    def test_destination_that_cannot_be_written(self):
        for number in range(500):
            self.write(f"{number}", b"3")
        for error, text in (("EIO", "Input/output error"), ("EDQUOT", "Disk quota exceeded"),
                            ("ENOSPC", "No space left on device")):
            result = self.ditto_with_faults(f"pwrite64:error={error}")
            self.assertEqual(result.returncode, 1)
            self.assertRegex(result.stderr.decode(),
                             rf"\Aditto: Docs/\w+: cannot be written: {text}\n\Z")
            self.assertLess(len(os.listdir(self.destination)), 100, "the copy ends at once")
            run("rm", "-rf", self.destination)

    def test_failure_that_shows_when_the_file_is_closed(self):
        result = self.ditto_with_faults("close:error=EIO", only=self.copied("a"))
        self.assert_fails(result, "ditto: Docs/a: cannot be written: Input/output error")

    def test_interruptions_are_no_failure(self):
        result = self.ditto_with_faults("pwrite64:error=EINTR:when=1", only=self.copied("a"))
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        run("rm", "-rf", self.destination)
        result = self.ditto_with_faults("pread64:error=EINTR:when=1+2", only=self.path("a"))
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    def test_failures_of_sync(self):
        for call in ("syncfs", "fsync"):
            self.assert_fails(self.ditto_with_faults(f"{call}:error=EIO"),
                              f"ditto: {self.destination}: cannot be written to the disk: "
                              "Input/output error")
            run("rm", "-rf", self.destination)

    def test_failures_of_metadata(self):
        os.setxattr(self.path("a"), "user.x", b"1")
        os.chmod(self.path("a"), 0o4755)
        for call, text in (("utimensat:error=EINVAL", "times cannot be set: Invalid argument"),
                           ("fchmod:error=EPERM",
                            "permissions cannot be set: Operation not permitted"),
                           ("fsetxattr:error=E2BIG",
                            "attribute user.x cannot be set: Argument list too long"),
                           ("flistxattr:error=EACCES",
                            "extended attributes cannot be listed: Permission denied")):
            place = self.path("a") if "list" in call else self.copied("a")
            result = self.ditto_with_faults(call, only=place)
            self.assert_fails(result, f"ditto: Docs/a: {text}")
            run("rm", "-rf", self.destination)

    def test_folder_that_cannot_be_listed(self):
        self.write("sub/c")
        result = self.ditto_with_faults("getdents64:error=EIO:when=5")
        self.assert_fails(result, "ditto: Docs/sub: cannot be listed: Input/output error")

    def test_only_the_first_problems_are_printed(self):
        for number in range(50):
            self.write(f"{number:02}")
        os.mkdir(self.destination)
        for name in os.listdir(self.source):
            os.mkdir(self.copied(name))
        lines = self.ditto().stderr.decode().splitlines()
        self.assertEqual(len(lines), 21)
        self.assertEqual(lines[-1], "ditto: ... and 32 more")

    def test_messages_keep_to_one_line(self):
        name = b"bad\n\x1b[31m\xe2\x80\xae\xff\xc3\xa4\\"
        with open(os.path.join(os.fsencode(self.source), name), "wb"):
            pass
        os.mkdir(self.destination)
        os.mkdir(os.path.join(os.fsencode(self.destination), name))
        self.assert_fails(self.ditto(),
                          "ditto: Docs/bad\\n\\x1b[31m\\xe2\\x80\\xae\\xffä\\\\: "
                          "cannot be created: File exists")


if __name__ == "__main__":
    unittest.main()
