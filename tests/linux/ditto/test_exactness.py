"""A copy has everything that the original has."""

import os
import socket
import subprocess
import unittest

from support import DittoTest, metadata, run

YEAR = 365 * 86400 * 10**9


class Metadata(DittoTest):
    def test_empty_folder_with_metadata_of_its_own(self):
        os.setxattr(self.source, "user.colour", b"blue")
        os.chmod(self.source, 0o2751)
        os.utime(self.source, ns=(YEAR + 1, YEAR + 999_999_999))
        self.assert_copies()

    def test_permissions(self):
        modes = [0o500, 0o544, 0o700, 0o755, 0o777, 0o4755, 0o2755, 0o6711, 0o1777, 0o7777]
        if os.geteuid() == 0:
            modes += [0o000, 0o001, 0o200, 0o400, 0o444]  # nobody else could read them
        for mode in modes:
            os.chmod(self.write(f"file {mode:o}"), mode)
            os.mkdir(self.path(f"folder {mode:o}"))
            os.chmod(self.path(f"folder {mode:o}"), mode)
        self.assert_copies()

    def test_permissions_do_not_depend_on_the_umask(self):
        os.chmod(self.write("a"), 0o777)
        self.addCleanup(os.umask, os.umask(0o777))
        result = self.ditto()
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(os.stat(self.copied("a")).st_mode & 0o7777, 0o777)

    def test_times_to_the_nanosecond(self):
        for name, accessed, modified in (("old", -50 * YEAR + 1, -60 * YEAR + 123_456_789),
                                         ("epoch", 0, 0),
                                         ("future", 200 * YEAR + 7, 400 * YEAR + 999_999_999)):
            self.write("file " + name)
            os.mkdir(self.path("folder " + name))
            self.write(f"folder {name}/inner")
            os.symlink("nowhere", self.path("link " + name))
            os.mkfifo(self.path("fifo " + name))
            for kind in ("file ", "folder ", "link ", "fifo "):
                os.utime(self.path(kind + name), ns=(accessed, modified), follow_symlinks=False)
        self.assert_copies()

    def test_times_of_access_of_folders_and_of_the_source(self):
        self.write("sub/a")
        for name in ("sub/a", "sub", "."):
            os.utime(self.path(name), ns=(YEAR, YEAR))
        result = self.ditto()
        self.assertEqual(result.returncode, 0, result.stderr)
        for name in ("sub/a", "sub", "."):
            self.assertEqual(os.stat(self.copied(name)).st_atime_ns, YEAR, "copy of " + name)
            self.assertEqual(os.stat(self.path(name)).st_atime_ns, YEAR, name)

    def test_owners(self):
        self.needs_root("giving files away")
        os.symlink("x", self.path("link"))
        os.mkdir(self.path("folder"))
        os.mkfifo(self.path("fifo"))
        self.write("file")
        for number, name in enumerate(("link", "folder", "fifo", "file", ".")):
            os.chown(self.path(name), 3000 + number, 4000 + number, follow_symlinks=False)
        os.chmod(self.path("file"), 0o6755)  # giving a file away takes these bits
        self.assert_copies()

    def test_existing_destination_takes_the_metadata_of_the_source(self):
        self.write("a")
        os.mkdir(self.destination)
        run("setfacl", "-d", "-m", "u:3000:rwx", self.destination)
        run("setfacl", "-m", "u:3000:rwx", self.destination)
        os.chmod(self.destination, 0o2777)
        self.assert_copies()

    def test_new_destination_inherits_nothing_from_the_folder_above(self):
        run("setfacl", "-d", "-m", "u:3000:rwx", self.place)
        os.chmod(self.place, 0o2755)
        self.write("a")
        os.mkdir(self.path("b"))
        for name in ("a", "b", "."):
            run("setfacl", "-b", self.path(name))
        self.assert_copies()


class Attributes(DittoTest):
    def test_attributes_of_the_user(self):
        self.write("sub/file")
        for name in ("sub/file", "sub", "."):
            os.setxattr(self.path(name), "user.empty", b"")
            os.setxattr(self.path(name), "user.with\nline \xc3\xa4", b"\0\1\xff")
            os.setxattr(self.path(name), "user.long", bytes(range(256)) * 12)
        self.assert_copies()

    def test_attributes_on_files_that_cannot_be_written(self):
        path = self.write("file")
        os.setxattr(path, "user.a", b"1")
        os.chmod(path, 0o444)
        self.assert_copies()

    def test_attributes_of_the_administrator(self):
        self.needs_root("setting trusted attributes")
        self.write("file")
        os.mkdir(self.path("folder"))
        os.symlink("nowhere", self.path("link"))
        os.mkfifo(self.path("fifo"))
        for name in ("file", "folder", "link", "fifo"):
            os.setxattr(self.path(name), "trusted.note", b"1", follow_symlinks=False)
            os.setxattr(self.path(name), "security.note", b"2", follow_symlinks=False)
        self.assert_copies()
        self.assertIn("trusted.note", os.listxattr(self.copied("link"), follow_symlinks=False))

    def test_capabilities_survive_the_change_of_owner(self):
        self.needs_root("setting capabilities")
        path = self.write("tool")
        os.chown(path, 3000, 3000)
        os.chmod(path, 0o755)
        run("/usr/sbin/setcap", "cap_net_raw+ep", path)
        self.assert_copies()

    def test_access_control_lists(self):
        self.write("file")
        os.mkfifo(self.path("fifo"))
        self.write("folder/inner")
        for name in ("file", "fifo", "folder"):
            run("setfacl", "-m", "u:3000:rwx,g:3001:r--,m::rw-", self.path(name))
        run("setfacl", "-d", "-m", "u:3000:rwx,o::---", self.path("folder"))
        self.write("folder/heir")
        os.mkdir(self.path("folder/sub"))
        self.assert_copies()
        listed = subprocess.run(["getfacl", "-pc", self.copied("folder/heir")],
                                capture_output=True, check=True).stdout
        self.assertIn(b"user:3000:rwx", listed)


class Contents(DittoTest):
    def test_sizes_around_every_boundary(self):
        for size in (0, 1, 4095, 4096, 4097, 65535, 65536, 1048575, 1048576, 1048577, 3000000):
            self.write(f"random {size}", os.urandom(size))
            self.write(f"zero {size}", bytes(size))
        self.assert_copies()

    def sparse(self, name, size, *pieces):
        with open(self.path(name), "wb") as file:
            for offset, data in pieces:
                file.seek(offset)
                file.write(data)
            file.truncate(size)

    def test_holes(self):
        self.sparse("all", 1 << 20)
        self.sparse("start", 1 << 20, ((1 << 20) - 4096, b"x" * 4096))
        self.sparse("end", 1 << 20, (0, b"x"))
        self.sparse("middle", 3 << 20, (0, b"a" * 4096), (2 << 20, b"b" * 5000))
        self.sparse("small", 20000, (8192, b"x"))
        self.sparse("odd", (1 << 20) + 1)
        self.assert_copies()
        for name in ("all", "start", "end", "middle", "small", "odd"):
            self.assertEqual(os.stat(self.copied(name)).st_blocks,
                             os.stat(self.path(name)).st_blocks, name)

    def test_ten_gigabytes_with_little_data(self):
        gib = 1 << 30
        self.sparse("huge", 10 * gib + 5, (3 * gib + 17, b"first"), (7 * gib, os.urandom(1 << 21)))
        self.assert_copies()
        self.assertLess(os.stat(self.copied("huge")).st_blocks * 512, 4 << 20)
        with open(self.copied("huge"), "rb") as file:
            file.seek(3 * gib + 17)
            self.assertEqual(file.read(5), b"first")

    def test_space_reserved_behind_the_end_is_not_copied(self):
        path = self.write("file", b"x" * 5000)
        run("fallocate", "--keep-size", "--length", "10M", path)
        self.assert_copies()
        self.assertLess(os.stat(self.copied("file")).st_blocks * 512, 65536)


class Kinds(DittoTest):
    def test_symbolic_links(self):
        self.write("file")
        for name, target in (("dangling", "no/where"), ("loop", "loop"), ("up", "../.."),
                             ("absolute", "/etc/passwd"), ("good", "file"),
                             ("long", "x" * 4095), ("edge", "y" * 256), ("odd", b"\xff\n ")):
            os.symlink(target, self.path(name))
        self.assert_copies()

    def test_hard_links(self):
        self.write("a/first")
        os.link(self.path("a/first"), self.path("a/second"))
        os.makedirs(self.path("b/c"))
        os.link(self.path("a/first"), self.path("b/c/third"))
        os.symlink("x", self.path("link"))
        os.link(self.path("link"), self.path("link too"), follow_symlinks=False)
        os.mkfifo(self.path("fifo"))
        os.link(self.path("fifo"), self.path("fifo too"))
        self.write("equal 1", b"same")
        self.write("equal 2", b"same")
        self.assert_copies()

    def test_link_to_a_file_outside_becomes_a_file(self):
        outside = os.path.join(self.place, "outside")
        with open(outside, "wb") as file:
            file.write(b"x")
        os.link(outside, self.path("inside"))
        result = self.ditto()
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertEqual(os.stat(self.copied("inside")).st_nlink, 1)

    def test_device_nodes(self):
        self.needs_root("making device nodes")
        os.mknod(self.path("null"), 0o20666, os.makedev(1, 3))
        os.mknod(self.path("disk"), 0o60640, os.makedev(259, 70000))
        self.assert_copies()

    def test_socket_is_named_and_left_out(self):
        self.write("a")
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(self.path("agent"))
        result = self.ditto()
        self.assertEqual(result.stderr, b"ditto: Docs/agent: is a socket and was not copied\n")
        self.assertEqual(result.returncode, 0)
        self.assertEqual(os.listdir(self.destination), ["a"])

    def test_source_is_not_changed(self):
        # Symbolic links are left out: reading one changes its time of access, unpreventably.
        self.write("sub/a")
        os.mkfifo(self.path("sub/f"))
        before = metadata(self.source), os.stat(self.path("sub/a")).st_ctime_ns
        self.assertEqual(self.ditto().returncode, 0)
        self.assertEqual((metadata(self.source), os.stat(self.path("sub/a")).st_ctime_ns), before)


if __name__ == "__main__":
    unittest.main()
