"""Nothing that is wrong with the copy, and no change of the source, goes unnoticed."""

import os
import unittest

from support import DittoTest, run

COPIED = "syncfs:when=1"  # the first system call after everything was copied


def rewrite(path, content):
    """Changes the contents and nothing else that stat would show but the time of change."""
    before = os.stat(path)
    with open(path, "r+b") as file:
        file.write(content)
    os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns))


class DamagedCopy(DittoTest):
    def assert_noticed(self, damage, *lines):
        self.assert_fails(self.ditto_stopped(COPIED, damage), *lines)

    def test_without_damage_the_stopped_copy_is_good(self):
        self.write("a")
        result = self.ditto_stopped(COPIED, lambda: None)
        self.assertEqual((result.returncode, result.stderr), (0, b""))

    def test_changed_byte(self):
        self.write("sub/a", b"x" * 3_000_000)

        def damage():
            with open(self.copied("sub/a"), "r+b") as file:
                file.seek(2_999_999)
                file.write(b"y")
            os.utime(self.copied("sub/a"), ns=(0, os.stat(self.path("sub/a")).st_mtime_ns))

        self.assert_noticed(damage, "ditto: Docs/sub/a: contents differ in the copy")

    def test_data_where_the_original_has_a_hole(self):
        with open(self.path("a"), "wb") as file:
            file.truncate(1 << 30)

        def damage():
            before = os.stat(self.copied("a"))
            with open(self.copied("a"), "r+b") as file:
                file.seek(1 << 29)
                file.write(b"y")
            os.utime(self.copied("a"), ns=(0, before.st_mtime_ns))

        self.assert_noticed(damage, "ditto: Docs/a: contents differ in the copy")

    def test_cut_off(self):
        self.write("a", b"x" * 5000)
        self.assert_noticed(lambda: os.truncate(self.copied("a"), 4999),
                            "ditto: Docs/a: time of modification differs in the copy")

    def test_size(self):
        self.write("a", b"x" * 5000)

        def damage():
            before = os.stat(self.copied("a"))
            os.truncate(self.copied("a"), 6000)
            os.utime(self.copied("a"), ns=(0, before.st_mtime_ns))

        self.assert_noticed(damage, "ditto: Docs/a: size differs in the copy")

    def test_permissions(self):
        self.write("a")
        self.assert_noticed(lambda: os.chmod(self.copied("a"), 0o600),
                            "ditto: Docs/a: permissions differ in the copy")

    def test_permissions_of_the_folder_itself(self):
        self.assert_noticed(lambda: os.chmod(self.destination, 0o700),
                            "ditto: Docs: permissions differ in the copy")

    def test_owner(self):
        self.needs_root("giving files away")
        self.write("a")
        self.write("b")

        def damage():
            os.chown(self.copied("a"), 3000, -1)
            os.chown(self.copied("b"), -1, 3000)

        self.assert_noticed(damage, "ditto: Docs/a: owner differs in the copy",
                            "ditto: Docs/b: group differs in the copy")

    def test_time(self):
        os.symlink("x", self.path("l"))
        self.assert_noticed(
            lambda: os.utime(self.copied("l"), ns=(0, 17), follow_symlinks=False),
            "ditto: Docs/l: time of modification differs in the copy")

    def test_attributes(self):
        for name in ("changed", "lost", "more", "list"):
            os.setxattr(self.write(name), "user.a", b"1")

        def damage():
            os.setxattr(self.copied("changed"), "user.a", b"2")
            os.removexattr(self.copied("lost"), "user.a")
            os.setxattr(self.copied("more"), "user.b", b"1")
            run("setfacl", "-m", "u:3000:r", self.copied("list"))
            os.chmod(self.copied("list"), 0o644)

        self.assert_noticed(
            damage, "ditto: Docs/changed: attribute user.a differs in the copy",
            "ditto: Docs/lost: attribute user.a differs in the copy",
            "ditto: Docs/more: attribute user.b differs in the copy",
            "ditto: Docs/list: attribute system.posix_acl_access differs in the copy")

    def test_link_target(self):
        os.symlink("old", self.path("l"))

        def damage():
            os.unlink(self.copied("l"))
            os.symlink("new", self.copied("l"))
            before = os.lstat(self.path("l"))
            os.utime(self.copied("l"), ns=(0, before.st_mtime_ns), follow_symlinks=False)
            self.restore_time_of_root()

        self.assert_noticed(damage, "ditto: Docs/l: link target differs in the copy")

    def restore_time_of_root(self):
        os.utime(self.destination, ns=(0, os.stat(self.source).st_mtime_ns))

    def test_missing_and_additional_entries(self):
        self.write("file")
        self.write("sub/file")
        os.mkdir(self.path("folder"))

        def damage():
            os.unlink(self.copied("file"))
            os.rmdir(self.copied("folder"))
            with open(self.copied("sub/more\n"), "wb"):
                pass
            with open(self.copied("more"), "wb"):
                pass
            self.restore_time_of_root()
            os.utime(self.copied("sub"), ns=(0, os.stat(self.path("sub")).st_mtime_ns))

        self.assert_noticed(damage, "ditto: Docs/more: is in the copy only",
                            "ditto: Docs/file: is missing in the copy",
                            "ditto: Docs/sub/more\\n: is in the copy only",
                            "ditto: Docs/folder: is missing in the copy")

    def test_other_type(self):
        self.write("a", b"")
        os.mkdir(self.path("b"))

        def damage():
            os.unlink(self.copied("a"))
            os.mkfifo(self.copied("a"), 0o644)
            os.rmdir(self.copied("b"))
            os.symlink("x", self.copied("b"))
            self.restore_time_of_root()

        self.assert_noticed(damage, "ditto: Docs/a: type differs in the copy",
                            "ditto: Docs/b: is no directory in the copy")

    def relink(self, target, name):
        os.unlink(self.copied(name))
        os.link(self.copied(target), self.copied(name))
        self.restore_time_of_root()

    def test_hard_link_broken(self):
        self.write("a")
        os.link(self.path("a"), self.path("b"))

        def damage():
            os.unlink(self.copied("b"))
            run("cp", "-p", self.copied("a"), self.copied("b"))
            self.restore_time_of_root()

        result = self.ditto_stopped(COPIED, damage)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"is not linked in the copy", result.stderr)

    def test_hard_link_added(self):
        for name in ("a", "b"):
            self.write(name)
            os.utime(self.path(name), ns=(0, 0))
        self.assert_noticed(lambda: self.relink("a", "b"),
                            "ditto: Docs/a: has links in the copy that the original has not",
                            "ditto: Docs/b: has links in the copy that the original has not")

    def test_hard_link_outside_added(self):
        self.write("a")
        os.link(self.path("a"), self.path("b"))
        self.assert_noticed(
            lambda: os.link(self.copied("a"), os.path.join(self.place, "outside")),
            "ditto: Docs/a: has links in the copy that the original has not")

    def test_write_that_the_system_lost(self):
        self.write("a", os.urandom(3 << 20))
        result = self.ditto_with_faults("pwrite64:retval=1048576:when=2")
        self.assert_fails(result, "ditto: Docs/a: contents differ in the copy")

    def test_read_back_that_fails(self):
        self.write("a")
        result = self.ditto_with_faults("pread64:error=EIO:when=1", only=self.copied("a"))
        self.assert_fails(result, "ditto: Docs/a: cannot be read back: Input/output error")

    def test_read_back_of_a_large_file_that_fails_once(self):
        # It is read past the cache, which must not stand in for the disk.
        self.write("large", os.urandom(1 << 20))
        result = self.ditto_with_faults("pread64:error=EIO:when=1", only=self.copied("large"))
        self.assert_fails(result, "ditto: Docs/large: cannot be read back: Input/output error")


class ChangedAfterCopying(DittoTest):
    def setUp(self):
        super().setUp()
        self.write("a", b"first")
        self.write("b", b"second")

    def stopped(self, change):
        return self.ditto_stopped(COPIED, change)

    def assert_noticed(self, change, line):
        result = self.stopped(change)
        self.assertEqual(result.returncode, 1)
        self.assertIn(line, result.stderr.decode().splitlines())

    def test_contents(self):
        self.assert_noticed(lambda: rewrite(self.path("a"), b"FIRST"),
                            "ditto: Docs/a: changed while it was being copied")

    def test_same_contents_written_again(self):
        self.assert_noticed(lambda: rewrite(self.path("a"), b"first"),
                            "ditto: Docs/a: changed while it was being copied")

    def test_appended(self):
        def change():
            with open(self.path("a"), "ab") as file:
                file.write(b"more")

        self.assert_noticed(change, "ditto: Docs/a: changed while it was being copied")

    def test_cut_off(self):
        self.assert_noticed(lambda: os.truncate(self.path("a"), 0),
                            "ditto: Docs/a: changed while it was being copied")

    def test_permissions(self):
        self.assert_noticed(lambda: os.chmod(self.path("b"), 0o600),
                            "ditto: Docs/b: changed while it was being copied")

    def test_attribute(self):
        self.assert_noticed(lambda: os.setxattr(self.path("b"), "user.a", b"1"),
                            "ditto: Docs/b: changed while it was being copied")

    def test_added(self):
        self.assert_noticed(lambda: self.write("c"),
                            "ditto: Docs: changed while it was being copied")

    def test_added_while_the_folder_looks_as_before(self):
        def change():
            before = os.stat(self.source)
            self.write("c")
            os.utime(self.source, ns=(0, before.st_mtime_ns))

        self.assert_noticed(change, "ditto: Docs: changed while it was being copied")

    def test_removed(self):
        self.assert_noticed(lambda: os.unlink(self.path("a")),
                            "ditto: Docs: changed while it was being copied")

    def test_renamed(self):
        self.assert_noticed(lambda: os.rename(self.path("a"), self.path("c")),
                            "ditto: Docs: changed while it was being copied")

    def test_replaced(self):
        def change():
            before = os.stat(self.path("a"))
            other = self.write("new", b"FIRST")
            os.utime(other, ns=(0, before.st_mtime_ns))
            os.rename(other, self.path("a"))

        self.assert_noticed(change, "ditto: Docs/a: changed while it was being copied")

    def test_exchanged_for_another_folder(self):
        def change():
            os.rename(self.source, self.source + " moved")
            os.mkdir(self.source)

        # The folder itself is held open: its move changes its time of change.
        result = self.stopped(change)
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"Docs: changed while it was being copied", result.stderr)


class ChangedAfterComparing(ChangedAfterCopying):
    """The last file has just been read back; only the last look at the source is left."""

    def stopped(self, change):
        return self.ditto_stopped("pread64:when=1", change, only=self.copied("b"))


class ChangedWhileCopying(DittoTest):
    def test_cut_off_while_it_is_read(self):
        self.write("big", os.urandom(5 << 20))
        result = self.ditto_stopped("pwrite64:when=4", lambda: os.truncate(self.path("big"), 10))
        self.assert_fails(result, "ditto: Docs/big: changed while it was being copied")

    def test_overwritten_behind_the_reader(self):
        big = self.write("big", os.urandom(5 << 20))
        result = self.ditto_stopped("pwrite64:when=4", lambda: rewrite(big, b"new"))
        self.assert_fails(result, "ditto: Docs/big: changed while it was being copied")

    def test_folder_moved_away_below_the_walk(self):
        deep = "/".join(["d"] * 60)
        self.write("m/" + deep + "/file")

        def change():
            os.rename(self.path("m/d"), self.path("elsewhere"))

        result = self.ditto_stopped("getdents64:when=1", change, only=self.path("m/" + deep))
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"moved while it was being copied", result.stderr)


if __name__ == "__main__":
    unittest.main()
