"""A volume does what the kernel's ext4 does: the same steps in both, by several users, and the same
outcome of each.

Arguments: names of cases, instead of all of them.
"""

import os
import sys
import time
import unittest

import conformance_contents
import conformance_names
import conformance_owners
import conformance_times
from sites import compare
from volume import VolumeCase

CASES = (conformance_owners.CASES + conformance_names.CASES + conformance_times.CASES
         + conformance_contents.CASES)
# Where a volume differs, by case: which steps, and why it has to be so.
EXCEPTIONS = {
    "changing_owners": (
        "(?!directory|symlink).* (2745|6755) to -1:-1 by 1002",
        "The kernel does not say what is asked when neither owner nor group is to change, and asks "
        "the same before a write: who may not is not told so, but takes no bits away either."),
    "changing_owners_through_links": ("to -1:-1 by 1002", "As changing_owners."),
    "leaving_a_whiteout": (
        ".*", "RENAME_WHITEOUT, which overlay file systems alone ask for, is refused with EINVAL."),
    "temporary_files": (
        "open", "O_TMPFILE is refused with EOPNOTSUPP: libfuse has no such operation."),
    "creation": (
        "chmod: times", "The time of access, see reading: here that of a followed link."),
    "reading": (
        ".*", "Reading leaves the time of access alone, as on a volume mounted with noatime: what "
        "the kernel has in memory it does not ask for."),
    "sizes": (
        "seek beyond", "The kernel itself lets a FUSE file's place be any: writing there fails."),
    "reserving": (
        "(8|32|64|128) .*",
        "Collapsing and inserting ranges is refused with EOPNOTSUPP before their bounds are "
        "looked at; so are modes that nobody has."),
    "facts_of_the_file_system": (
        "bits of sizes", "The C library knows the width of sizes by the type of the file system alone."),
}
chosen = []


class ConformanceTest(VolumeCase):

    size = "256m"
    attachOptions = ("-mountoptions", "allow_other,suid,dev")

    def setUp(self):
        super().setUp()
        self.kernel = self.directory / "kernel"
        self.kernel.mkdir()
        self.mountKernelsExt4()
        for folder in (self.directory.parent, self.directory, self.work, self.volume):
            folder.chmod(0o755)

    def mountKernelsExt4(self):
        """Where images cannot be mounted, the test's own directory will do if it is on ext4."""
        image = self.directory / "kernel.ext4"
        self.succeed("truncate", "-s", "1g", image)
        self.succeed("mkfs.ext4", "-q", "-b", "4096", "-O", "^has_journal", image)
        mounted = self.run_("mount", "-o", "loop", image, self.kernel)
        if mounted.returncode == 0:
            self.opened.callback(self.succeed, "umount", self.kernel)
            return
        kind = self.succeed("stat", "-f", "-c", "%T", self.kernel).strip()
        if kind != "ext2/ext3":  # so it calls ext4
            self.skipTest(f"needs an ext4 to compare with: {mounted.stderr.strip()}; and "
                          f"{self.kernel} is on {kind}")

    def test_behavesLikeTheKernelsExt4(self):
        checks = exceptions = 0
        differing = []
        before = os.umask(0o022)
        self.addCleanup(os.umask, before)
        for case in CASES:
            if chosen and case.__name__ not in chosen:
                continue
            begin = time.monotonic()
            count, different, excused = compare(case, (self.volume, self.kernel), EXCEPTIONS)
            checks += count
            differing += different
            exceptions += len(excused)
            print(f"{case.__name__}: {count} checks, {len(different)} differ, "
                  f"{len(excused)} are exceptions, {time.monotonic() - begin:.1f} s", flush=True)
        print(f"{checks} checks, {len(differing)} differ, {exceptions} are exceptions")
        print(*differing, sep="\n")
        self.assertEqual(0, len(differing))


if __name__ == "__main__":
    chosen = [word for word in sys.argv[1:] if not word.startswith("-")]
    unittest.main(argv=sys.argv[:1] + [word for word in sys.argv[1:] if word.startswith("-")])
