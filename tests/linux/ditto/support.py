"""What the tests of the copy tool share: a temporary place, running the program (also under
strace, which injects faults and stops it at a chosen system call), and an independent look at
trees."""

import hashlib
import os
import shutil
import signal
import stat
import subprocess
import tempfile
import time
import unittest

import quillvane

DITTO = quillvane.tool("ditto")


def run(*command):
    subprocess.run(command, check=True, stdout=subprocess.DEVNULL)


class DittoTest(unittest.TestCase):
    last_inode = 0
    where = None  # the folder for temporary folders; the system's own when not given

    def setUp(self):
        self.place = tempfile.mkdtemp(prefix="ditto-test-", dir=self.where)
        self.addCleanup(quillvane.removeTree, self.place)
        self.source = os.path.join(self.place, "Docs")
        self.destination = os.path.join(self.place, "Copy")
        os.mkdir(self.source)

    def path(self, *names):
        return os.path.join(self.source, *names)

    def copied(self, *names):
        return os.path.join(self.destination, *names)

    def write(self, name, content=b"content"):
        path = self.path(name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if not os.path.lexists(path):
            self.make_in_order(path)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def make_in_order(self, path):
        """Makes a file that is copied after those written before: entries are copied in the order of
        their inodes, and a disk hands out freed numbers again. Those of the files that are too low
        stay in use: there can be thousands of them, and the next file would get them once more."""
        while True:
            with open(path, "xb") as file:
                inode = os.fstat(file.fileno()).st_ino
            if inode > self.last_inode:
                self.last_inode = inode
                return
            too_low = os.path.join(self.place, "too low")
            os.makedirs(too_low, exist_ok=True)
            os.rename(path, os.path.join(too_low, str(inode)))

    def ditto(self, *arguments, prefix=()):
        arguments = arguments or (self.source, self.destination)
        return subprocess.run([*prefix, DITTO, *arguments], capture_output=True, timeout=250)

    def assert_copies(self):
        """Copies the source and looks at everything that should have arrived."""
        before = metadata(self.source)
        result = self.ditto()
        self.assertEqual((result.returncode, result.stdout, result.stderr), (0, b"", b""))
        after = metadata(self.destination)
        self.assertEqual(before, after)
        self.assertEqual(contents(self.source), contents(self.destination))

    def assert_fails(self, result, *lines):
        """The run failed with exactly these lines on standard error, in any order: entries are
        looked at in the order of their inodes, and a disk hands out freed numbers again."""
        self.assertEqual(sorted(result.stderr.decode().splitlines()), sorted(lines))
        self.assertEqual(result.stdout, b"")
        self.assertEqual(result.returncode, 1)

    def mount(self, kind, name, *options):
        """Mounts a fresh file system of `kind` on the new folder `name`."""
        self.needs_root("mounting a file system")
        where = os.path.join(self.place, name)
        os.makedirs(where, exist_ok=True)
        run("mount", "-t", kind, *options, "none", where)
        self.addCleanup(subprocess.run, ["umount", "--lazy", where], check=False)
        return where

    def needs_root(self, what):
        if os.geteuid() != 0:
            self.skipTest(what + " needs root")

    # Under strace

    def ditto_with_faults(self, *injections, only=None):
        """Runs the copy with strace's `injections` ("syncfs:error=EIO"), into system calls on the
        path `only` if that is given."""
        return self.ditto(prefix=self.strace(injections, only))

    def strace(self, injections, only=None):
        if shutil.which("strace") is None:
            self.skipTest("strace is not installed")
        self.log = os.path.join(self.place, "strace.log")
        if os.path.exists(self.log):
            os.unlink(self.log)
        prefix = ["strace", "-f", "-o", self.log, "-e", "signal=SIGSTOP"]
        prefix += ["-P", only] if only else []
        for injection in injections:
            prefix += ["-e", "inject=" + injection]
        # The leak checker cannot work below another tracer.
        return ["env", "ASAN_OPTIONS=detect_leaks=0", *prefix]

    def ditto_stopped(self, where, action, only=None):
        """Runs the copy, stops it after the system call `where` ("pwrite64:when=3") on the path
        `only` if that is given, performs `action` and lets the copy go on."""
        prefix = self.strace([where + ":signal=STOP"], only)
        with subprocess.Popen([*prefix, DITTO, self.source, self.destination],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
            try:
                pid = self.wait_until_stopped(process)
                action()
                os.kill(pid, signal.SIGCONT)
                output, errors = process.communicate(timeout=100)
            finally:
                process.kill()
        return subprocess.CompletedProcess(process.args, process.returncode, output, errors)

    def wait_until_stopped(self, process):
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and process.poll() is None:
            if os.path.exists(self.log):
                with open(self.log, encoding="utf-8", errors="replace") as log:
                    for line in log:
                        if "stopped by SIGSTOP" in line:
                            return int(line.split()[0])
            time.sleep(0.005)
        self.fail("the copy never came to the system call at which it should stop")


def walk(root):
    """The paths of all entries below `root` relative to it, as bytes, and "." for itself. Follows
    no link: that would change the link's time of access."""
    pending = [b"."]
    while pending:
        name = pending.pop()
        yield name
        path = os.path.join(os.fsencode(root), name)
        if stat.S_ISDIR(os.lstat(path).st_mode):
            pending += [os.path.join(name, inner) for inner in os.listdir(path)]


def metadata(root):
    """What stat and the attributes say about every entry; reads no contents."""
    found, links = {}, {}
    for name in sorted(walk(root)):
        path = os.path.join(os.fsencode(root), name)
        status = os.lstat(path)
        first = links.setdefault(status.st_ino, name) if status.st_nlink > 1 else name
        found[name] = {
            "mode": oct(status.st_mode),
            "owner": (status.st_uid, status.st_gid),
            "device": status.st_rdev,
            "size": None if stat.S_ISDIR(status.st_mode) else status.st_size,
            "accessed": status.st_atime_ns,
            "modified": status.st_mtime_ns,
            "linked to": name if stat.S_ISDIR(status.st_mode) else first,
            "attributes": {a: os.getxattr(path, a, follow_symlinks=False)
                           for a in os.listxattr(path, follow_symlinks=False)},
        }
        # Listing a directory changes its time of access, and the walk has just done so.
        if stat.S_ISDIR(status.st_mode):
            del found[name]["accessed"]
    return found


def contents(root):
    """Link targets and digests of the files that have data."""
    found = {}
    for name in walk(root):
        path = os.path.join(os.fsencode(root), name)
        if os.path.islink(path):
            found[name] = os.readlink(path)
        elif os.path.isfile(path) and os.lstat(path).st_size < 1 << 28:
            with open(path, "rb") as file:
                found[name] = hashlib.sha256(file.read()).hexdigest()
    return found
