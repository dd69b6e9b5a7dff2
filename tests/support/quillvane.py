"""What the Python tests share: the programs under test, temporary directories, trees of files.

Run a test through tests/support/isolated (CTest does), or directly with QUILLVANE_TEST_BUILD naming
the build directory and PYTHONPATH naming this one.
"""

import contextlib
import errno
import hashlib
import os
import pathlib
import random
import re
import signal
import stat
import subprocess
import tempfile
import time
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("QUILLVANE_TEST_BUILD", SOURCE / "build/release")).resolve()
QV = str(BUILD / "bin/qv")


def tool(name):
    """The path of one of the command-line tools: hdiutil, ditto, open."""
    return str(BUILD / "libexec/quillvane" / name)


def mounts():
    """The mount points of this process's namespace with their file system types."""
    found = []
    with open("/proc/self/mountinfo", "rb") as lines:
        for line in lines:
            fields = line.split(b" ")
            point = re.sub(rb"\\([0-7]{3})", lambda code: bytes([int(code[1], 8)]), fields[4])
            found.append((os.fsdecode(point), fields[fields.index(b"-") + 1].decode()))
    return found


def mountsBelow(directory):
    """Mount points below `directory`, the deepest first."""
    prefix = str(directory) + "/"
    return sorted((point for point, _ in mounts() if point.startswith(prefix)), reverse=True)


def serversOf(directory):
    """Numbers of the processes that have a file below `directory` open or are named with it."""
    needle = str(directory)
    found = []
    for process in pathlib.Path("/proc").iterdir():
        if not process.name.isdigit() or int(process.name) == os.getpid():
            continue
        names = []
        try:
            names.append((process / "cmdline").read_bytes().decode(errors="replace"))
            names += [os.readlink(entry) for entry in (process / "fd").iterdir()]
        except OSError:
            pass  # ended meanwhile, or does not let us look at what it has open
        if any(needle in name for name in names):
            found.append(int(process.name))
    return found


def eventually(condition, seconds=10):
    """Waits until `condition()` is true; its last value."""
    end = time.monotonic() + seconds
    while not (value := condition()) and time.monotonic() < end:
        time.sleep(0.02)
    return value


class Case(unittest.TestCase):
    """A test with a directory of its own, which is also its home; both are gone afterwards."""

    longMessage = True

    def setUp(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="case-")).resolve()
        self.addCleanup(self._cleanUp)
        self.home = self.directory / "home"
        self.runtime = self.directory / "runtime"
        for place in (self.home, self.runtime):
            place.mkdir(mode=0o700)
        self.work = self.directory / "work"
        self.work.mkdir()
        self.environment = {
            name: value for name, value in os.environ.items()
            if name not in ("DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS",
                            "XDG_STATE_HOME")
        }
        self.environment |= {
            "HOME": str(self.home), "XDG_RUNTIME_DIR": str(self.runtime), "LC_ALL": "C.UTF-8",
        }

    def _cleanUp(self):
        for point in mountsBelow(self.directory):
            subprocess.run([tool("hdiutil"), "detach", "-force", point], env=self.environment,
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=60)
        for point in mountsBelow(self.directory):
            subprocess.run(["fusermount3", "-u", "-z", point])
        for server in serversOf(self.directory):
            with contextlib.suppress(ProcessLookupError):  # it ended by itself meanwhile
                os.kill(server, signal.SIGKILL)
        removeTree(self.directory)

    def run_(self, *command, stdin="", cwd=None, timeout=120, **options):
        """Runs a command in the test's environment; its output as text, and its status."""
        return subprocess.run([str(word) for word in command], input=stdin, cwd=cwd or self.work,
                              env=self.environment, timeout=timeout, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)

    def assertSameTree(self, expected, actual, **options):
        """Fails, naming the first differences, unless the trees are alike (see `differences`)."""
        found = differences(describe(expected), describe(actual), **options)
        self.assertEqual([], found[:20], f"{len(found)} differences of {actual} from {expected}")


def removeTree(path):
    """Removes a tree of any depth and with any modes; nothing on other file systems."""
    remove = ["rm", "-rf", "--one-file-system", "--", path]
    if subprocess.run(remove, stderr=subprocess.DEVNULL).returncode != 0:
        subprocess.run(["chmod", "-R", "u+rwX", "--", path], check=True)
        subprocess.run(remove, check=True)


def makeTree(folder, seed=1):
    """Makes a folder with one of everything that a user's folder may hold; its path."""
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True)
    (folder / "letters/empty folder").mkdir(parents=True)
    (folder / "letters/ada.txt").write_text("Dear Ada,\nthis is private.\n")
    (folder / "empty").write_bytes(b"")
    (folder / "photo.raw").write_bytes(pseudoRandom(3_000_001, seed))
    (folder / "naïve – 写真 \n\\ name").write_text("any name\n")
    (folder / ("n" * 255)).write_text("the longest name\n")
    (folder / ".hidden").write_text("hidden\n")
    os.link(folder / "photo.raw", folder / "letters/hard-link.raw")
    os.symlink("letters/ada.txt", folder / "latest")
    os.symlink("/nowhere/at all", folder / "dangling")
    os.symlink("x" * 300, folder / "long link")
    os.mkfifo(folder / "fifo", 0o640)
    with open(folder / "sparse", "wb") as file:
        file.seek(5 << 20)
        file.write(b"middle")
        file.truncate(9 << 20)
    (folder / "letters/run.sh").write_text("#!/bin/sh\n")
    (folder / "letters/run.sh").chmod(0o751)
    (folder / "read-only").write_text("no writing\n")
    os.setxattr(folder / "read-only", "user.comment", b"a\0b")
    os.setxattr(folder / "letters", "user.tag", b"x" * 900)
    (folder / "read-only").chmod(0o400)
    subprocess.run(["setfacl", "-m", "u:12345:r", folder / "letters/ada.txt"], check=True)
    subprocess.run(["setfacl", "-d", "-m", "g:12345:rx", folder / "letters"], check=True)
    (folder / "letters/empty folder").chmod(0o2750)
    os.utime(folder / "letters/ada.txt", ns=(1_000_000_000_000_000_001, 981_173_106_789_012_345))
    os.utime(folder / "latest", ns=(5, 1_234_567_890_123_456_789), follow_symlinks=False)
    os.utime(folder / "empty", ns=(0, -86_400_000_000_001))  # before 1970
    os.utime(folder / "letters", ns=(7, 1_100_000_000_000_000_007))
    os.utime(folder, ns=(9, 1_500_000_000_000_000_009))
    return folder


def makeBigFolder(folder, mebibytes, files=8):
    """Makes a folder with `files` incompressible files of `mebibytes` together; its path."""
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True)
    block = pseudoRandom(1 << 20, 7)
    for number in range(files):
        with open(folder / f"file {number}", "wb") as file:
            for _ in range(mebibytes // files):
                file.write(block)
    return folder


def pseudoRandom(size, seed):
    """`size` bytes that look random and are the same for the same seed."""
    return random.Random(seed).randbytes(size)


def describe(tree):
    """What a tree consists of: for each relative path a dictionary of what must be kept. The tree
    may be deeper than a path can be long."""
    found, links = {}, {}
    root = os.open(tree, os.O_RDONLY | os.O_DIRECTORY)
    try:
        found[b"."] = _entry(root, b".", b".", links)
        for directory, path in _walk(root):
            for name in sorted(os.listdir(_inside(directory, b"."))):
                whole = os.path.join(path, name)
                found[whole] = _entry(directory, name, whole, links)
    finally:
        os.close(root)
    return found


def _inside(directory, name):
    """A path to an entry of an open directory, for calls that take no descriptor."""
    return b"/proc/self/fd/%d/%s" % (directory, name)


def _walk(root):
    """Each directory of a tree, open, with its relative path; three descriptors at any depth."""
    directory, path = os.dup(root), []
    left = [_folders(directory)]
    yield directory, b""
    while True:
        if left[-1]:
            path.append(left[-1].pop())
            following = os.open(path[-1], os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW,
                                dir_fd=directory)
            os.close(directory)
            directory = following
            yield directory, b"/".join(path)
            left.append(_folders(directory))
        elif path:
            path.pop()
            left.pop()
            following = os.open("..", os.O_RDONLY | os.O_DIRECTORY, dir_fd=directory)
            os.close(directory)
            directory = following
        else:
            os.close(directory)
            return


def _folders(directory):
    with os.scandir(_inside(directory, b".")) as entries:
        return sorted((entry.name for entry in entries if entry.is_dir(follow_symlinks=False)),
                      reverse=True)


def _entry(directory, name, path, links):
    """One entry's description. `links` has the first path of each file, which stands for it."""
    status = os.stat(name, dir_fd=directory, follow_symlinks=False)
    entry = {
        "mode": oct(status.st_mode), "owner": (status.st_uid, status.st_gid),
        "mtime": status.st_mtime_ns, "xattrs": _attributes(_inside(directory, name)),
    }
    if stat.S_ISLNK(status.st_mode):
        entry["target"] = os.readlink(name, dir_fd=directory)
    elif stat.S_ISREG(status.st_mode):
        with open(os.open(name, os.O_RDONLY, dir_fd=directory), "rb", buffering=0) as file:
            entry["content"] = _digest(file.fileno(), status.st_size)
        entry["size"] = status.st_size
        entry["allocated"] = status.st_blocks * 512
    elif stat.S_ISCHR(status.st_mode) or stat.S_ISBLK(status.st_mode):
        entry["device"] = status.st_rdev
    if not stat.S_ISDIR(status.st_mode):
        entry["links"] = status.st_nlink
        entry["file"] = links.setdefault((status.st_dev, status.st_ino), path)
    return entry


def _digest(file, size):
    """A digest of what is in a file, without reading its holes. Zeros count as a hole."""
    digest = hashlib.sha256()
    step = 1 << 16
    zeros = bytes(step)
    at = 0
    while at < size:
        try:
            # The whole step in which there is data again.
            at = os.lseek(file, at, os.SEEK_DATA) // step * step
        except OSError as error:
            if error.errno != errno.ENXIO:
                raise
            break  # nothing but a hole up to the end
        piece = os.pread(file, step, at)
        if piece != zeros[:len(piece)]:
            digest.update(b"%d %d " % (at, len(piece)) + piece)
        at += step
    return digest.hexdigest()


def _attributes(path):
    names = os.listxattr(path, follow_symlinks=False)
    return {name: os.getxattr(path, name, follow_symlinks=False) for name in sorted(names)}


def holds(path, secrets):
    """Whether a file holds one of these byte strings. Holes are not read."""
    with open(path, "rb", buffering=0) as file:
        at, size = 0, os.fstat(file.fileno()).st_size
        while at < size:
            try:
                at = os.lseek(file.fileno(), at, os.SEEK_DATA)
            except OSError:  # only a hole is left
                return False
            end = os.lseek(file.fileno(), at, os.SEEK_HOLE)
            data = os.pread(file.fileno(), end - at, at)
            if any(secret in data for secret in secrets):
                return True
            at = end
    return False


def differences(expected, actual, ignore=(), slack=256 << 10):
    """Compares two descriptions; a list of sentences. A file may occupy up to `slack` bytes more
    than its original, so that holes count roughly. `ignore` names fields that do not matter."""
    found = [f"missing: {path!r}" for path in expected if path not in actual]
    found += [f"unexpected: {path!r}" for path in actual if path not in expected]
    for path in expected.keys() & actual.keys():
        before, after = expected[path], actual[path]
        for field in before.keys() | after.keys():
            old, new = before.get(field), after.get(field)
            if field in ignore:
                continue
            if field == "allocated" and old is not None and new is not None:
                # Small files may lie in the inode, so that only more than the slack matters.
                if new > old + slack:
                    found.append(f"{path!r}: occupies {new} bytes, not {old}")
            elif old != new:
                found.append(f"{path!r}: {field} is {new!r}, not {old!r}")
    return sorted(found)
