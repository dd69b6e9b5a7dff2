"""Names, depths and numbers of entries."""

import os
import subprocess
import unittest

from support import DITTO, DittoTest, metadata


class Names(DittoTest):
    def test_names_of_any_bytes(self):
        names = [b"with space", b" ", b"'single' \"double\"", b"-rf", b"--", b"new\nline", b"tab\t",
                 b"\x01\x7f", b"\xff\xfe no utf-8", "caf\u00e9".encode(), "cafe\u0301".encode(),
                 "\u202egnp.exe".encode(), b"back\\slash", b"*?[", b"x" * 255, "ä".encode() * 127,
                 b"...", b".hidden", b"$(id)", b"%s%n"]
        for name in names:
            folder = os.path.join(os.fsencode(self.source), name)
            os.mkdir(folder)
            for inner in names:
                with open(os.path.join(folder, inner), "wb") as file:
                    file.write(inner)
        self.assert_copies()

    def test_folders_named_oddly_themselves(self):
        for number, name in enumerate(("-n", "new\nline", " ")):
            source = os.path.join(self.place, name)
            os.mkdir(source)
            with open(os.path.join(source, "a"), "wb"):
                pass
            destination = f"{self.place}/copy {number}"
            self.assertEqual(self.ditto(source, destination).returncode, 0)
            self.assertEqual(os.listdir(destination), ["a"])

    def test_paths_are_relative_or_end_in_slashes(self):
        self.write("a")
        for source, destination in (("Docs", "1"), ("./Docs//", "2//"), ("Docs/.", "./3")):
            result = subprocess.run([DITTO, source, destination], cwd=self.place,
                                    capture_output=True, check=False)
            self.assertEqual((result.returncode, result.stderr), (0, b""))
        for name in "123":
            self.assertEqual(os.listdir(os.path.join(self.place, name)), ["a"])

    def test_entries_that_were_in_the_destination_stay(self):
        self.write("a")
        os.mkdir(self.destination)
        with open(self.copied(".Trashes"), "wb") as file:
            file.write(b"kept")
        result = self.ditto()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        with open(self.copied(".Trashes"), "rb") as file:
            self.assertEqual(file.read(), b"kept")


class Shapes(DittoTest):
    where = "/dev/shm"  # a disk needs a minute to remove thousands of folders

    def deep(self, levels, name):
        """Makes `levels` folders one in the other and a file with two names in the last one; the
        second name is in the first folder, so that the way from one to the other is long."""
        start = os.open(".", os.O_RDONLY)
        try:
            os.chdir(self.source)
            with open("end", "wb") as file:
                file.write(b"found")
            top = os.open(".", os.O_PATH)
            for _ in range(levels):
                os.mkdir(name)
                os.chdir(name)
            os.link("end", "also", src_dir_fd=top)
            os.close(top)
        finally:
            os.fchdir(start)
            os.close(start)

    def descend(self, levels, name):
        fd = os.open(self.destination, os.O_RDONLY)
        for _ in range(levels):
            below = os.open(name, os.O_RDONLY, dir_fd=fd)
            os.close(fd)
            fd = below
        return fd

    def copy_with_small_limits(self):
        return subprocess.run(["sh", "-c", 'ulimit -n 90; ulimit -s 1024; exec "$@"', "sh", DITTO,
                               self.source, self.destination], capture_output=True, check=False)

    def test_six_thousand_levels(self):
        self.deep(6000, "d" * 20)
        result = self.copy_with_small_limits()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        fd = self.descend(6000, "d" * 20)
        self.assertEqual(os.stat("also", dir_fd=fd).st_nlink, 2)
        self.assertEqual(os.stat("also", dir_fd=fd).st_ino, os.stat(self.copied("end")).st_ino)
        os.close(fd)

    def test_hard_link_whose_first_name_is_far_down(self):
        self.deep(3000, "e" * 30)
        # The name on top gets the higher inode number of its folder's entries, and is met last.
        os.rename(self.path("end"), os.path.join(self.place, "end"))
        os.mkdir(self.path("z"))
        os.rename(os.path.join(self.place, "end"), self.path("z/end"))
        result = self.copy_with_small_limits()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        fd = self.descend(3000, "e" * 30)
        self.assertEqual(os.stat("also", dir_fd=fd).st_ino, os.stat(self.copied("z/end")).st_ino)
        os.close(fd)

    def test_many_entries_in_one_folder(self):
        for number in range(3000):
            self.write(f"file {number}", str(number).encode())
            os.mkdir(self.path(f"folder {number}"))
        self.assert_copies()

    def test_many_folders_with_links_between_them(self):
        for number in range(200):
            self.write(f"{number}/a", os.urandom(100))
            os.link(self.path(f"{number}/a"), self.path(f"{number}/b"))
            if number:
                os.link(self.path(f"{number - 1}/a"), self.path(f"{number}/c"))
        self.assert_copies()
        self.assertEqual(len(metadata(self.destination)), 800)


if __name__ == "__main__":
    unittest.main()
