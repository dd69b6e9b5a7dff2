"""What the tests of opening in place share: the program that drives the engine, and a directory whose
state is compared before and after."""

import os
import pathlib
import stat

import items
import quillvane

DRIVER = quillvane.BUILD / "bin/in-place"


class InPlaceCase(items.ItemCase):
    """Tests of items in `work`, beside neighbours that must not change."""

    def setUp(self):
        super().setUp()
        self.addNeighbours(self.work)

    def addNeighbours(self, directory):
        (directory / "neighbour").mkdir(mode=0o711)
        (directory / "neighbour/file").write_text("stays")
        (directory / "Docs2").write_text("stays")
        os.symlink("neighbour", directory / "link")
        for entry in directory.iterdir():
            os.utime(entry, ns=(1, 1_000_000_000_123_456_789), follow_symlinks=False)

    def drive(self, verb, item, secret="", **options):
        return self.run_(DRIVER, verb, item, stdin=secret, **options)

    def openInPlace(self, item, secret=items.PASSWORD, verb="open", **options):
        """Opens the item, which has to work; the folder that it is then."""
        result = self.drive(verb, item, secret, **options)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        name, locked, folder, end = result.stdout.split("\0")
        self.assertEqual("", end)
        self.assertEqual(pathlib.Path(locked).parent / name, pathlib.Path(folder))
        self.assertTrue(os.path.ismount(folder))
        return pathlib.Path(folder)

    def closeInPlace(self, item, **options):
        result = self.drive("close", item, **options)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
        self.assertNothingRuns()

    def recover(self, item):
        result = self.drive("recover", item)
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))

    def assertOpenFails(self, item, says, secret=items.PASSWORD):
        """Opening fails with this message, and the directory is as before."""
        before = self.state(pathlib.Path(item).parent)
        result = self.drive("open", item, secret)
        self.assertEqual((1, ""), (result.returncode, result.stdout), result.stderr)
        self.assertRegex(result.stderr, says)
        self.assertEqual(before, self.state(pathlib.Path(item).parent))

    def state(self, directory=None):
        """What must be the same before opening and after closing. The item itself is written to, and
        the list of hidden names is replaced, with the same bytes and mode."""
        found = {}
        directory = directory or self.work
        for entry in os.scandir(directory):
            status = entry.stat(follow_symlinks=False)
            kept = [oct(status.st_mode), status.st_uid, status.st_gid]
            if entry.name == ".hidden":
                kept.append(pathlib.Path(entry).read_bytes() if entry.is_file() else None)
            else:
                kept.append(status.st_ino)
                if not entry.name.lower().endswith(".quillvane"):
                    kept += [status.st_mtime_ns, status.st_size]
            if stat.S_ISDIR(status.st_mode) and os.access(entry, os.R_OK):
                kept.append(sorted(os.listdir(entry)))
            found[entry.name] = kept
        return found

    def hiddenNames(self, directory=None):
        try:
            return ((directory or self.work) / ".hidden").read_bytes()
        except FileNotFoundError:
            return None

    def serverOf(self, item):
        """The number of the process that serves the item's volume."""
        for process in pathlib.Path("/proc").iterdir():
            try:
                if process.name.isdigit() and str(item) in os.fsdecode(
                        (process / "cmdline").read_bytes()).split("\0"):
                    return int(process.name)
            except OSError:
                continue  # ended meanwhile
        self.fail(f"no server of {item}")
