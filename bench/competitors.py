"""The ways to store a tree, ours among them. Each is prepared, filled, and finished: when `finish`
returns, everything is on the disk and whoever served the storage has ended; `mount` serves it
again.
"""

import os
import pathlib
import shutil
import subprocess
import sys
import time

PASSWORD = "correct horse battery staple"


def run(*command, stdin=None, **options):
    """Runs a command that has to succeed; its standard output."""
    result = subprocess.run([str(word) for word in command], input=stdin, text=True,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)
    if result.returncode != 0:
        raise RuntimeError(f"{command[0]} ended with {result.returncode}: "
                           f"{result.stderr.strip() or result.stdout.strip()}")
    return result.stdout


def sync(path):
    """Everything of the file system of `path` is on the disk."""
    run("sync", "-f", path)


def isMounted(point):
    """Even if the server has died, when the mount point cannot be looked at."""
    return f" {point} " in pathlib.Path("/proc/self/mountinfo").read_text()


def unmount(point):
    """Takes a FUSE mount away."""
    end = time.monotonic() + 30
    while True:
        try:
            return run("fusermount3", "-u", point)
        except RuntimeError as error:
            if "busy" not in str(error) or time.monotonic() > end:
                raise
            time.sleep(0.02)


class Competitor:
    """One way to store a tree, in a directory of its own. `room` is what it may fill, in bytes."""
    name = ""
    key = ""  # its name on a command line
    packages = ()
    encrypted = False

    def __init__(self, place, room):
        self.place = pathlib.Path(place)
        self.room = room
        self.folder = self.place / "mount"
        self.folder.mkdir(parents=True)

    @classmethod
    def missing(cls):
        """Why it cannot take part here; None when it can."""
        return None

    def create(self):
        """Makes the storage, empty."""

    def mount(self):
        """Serves what it holds at `folder`."""

    def prepare(self):
        self.create()
        self.mount()

    def finish(self):
        sync(self.place)

    def cleanUp(self):
        """After whatever happened."""
        if isMounted(self.folder):
            command = ["umount", "-l"] if os.geteuid() == 0 else ["fusermount3", "-u", "-z"]
            subprocess.run([*command, self.folder])
        shutil.rmtree(self.place)


class PlainCopy(Competitor):
    name = "cp -a, same disk"
    key = "plain"


class OurVolume(Competitor):
    name = "our volume"
    key = "ours"
    encrypted = True
    tool = None  # the path of hdiutil, set by the benchmark

    def create(self):
        self.image = self.place / "image"
        run(self.tool, "create", "-size", f"{self.room >> 20}m", "-encryption", "AES-256",
            "-stdinpass", "-volname", "bench", "-fs", "APFS", "-type", "SPARSE", self.image,
            stdin=PASSWORD + "\n")

    def mount(self):
        run(self.tool, "attach", "-stdinpass", "-nobrowse", "-owners", "on", "-mountpoint",
            self.folder, self.image, stdin=PASSWORD + "\n")

    def finish(self):
        run(self.tool, "detach", self.folder)
        sync(self.place)

    def cleanUp(self):
        subprocess.run([self.tool, "detach", "-force", self.folder], stderr=subprocess.DEVNULL)
        super().cleanUp()


class Served(Competitor):
    """A file system whose server runs in the foreground as our child."""
    program = ""
    server = None

    @classmethod
    def missing(cls):
        return None if shutil.which(cls.program) else f"{cls.program} is not installed"

    def serve(self, *command, stdin=None, **environment):
        log = self.place / "server.log"
        with open(log, "w") as output:
            self.server = subprocess.Popen(
                [str(word) for word in command], env=os.environ | environment, text=True,
                stdin=subprocess.PIPE, stdout=output, stderr=subprocess.STDOUT)
        self.server.stdin.write(stdin or "")
        self.server.stdin.close()
        end = time.monotonic() + 60
        while not isMounted(self.folder):
            if self.server.poll() is not None or time.monotonic() > end:
                raise RuntimeError(f"{self.program} did not mount: {log.read_text().strip()}")
            time.sleep(0.01)

    def finish(self):
        unmount(self.folder)
        self.server.wait(300)
        sync(self.place)

    def cleanUp(self):
        if self.server and self.server.poll() is None:
            self.server.kill()
            self.server.wait()
        super().cleanUp()


class Gocryptfs(Served):
    name = "gocryptfs"
    key = program = "gocryptfs"
    packages = ("gocryptfs",)
    encrypted = True

    def create(self):
        (self.place / "cipher").mkdir()
        (self.place / "password").write_text(PASSWORD + "\n")
        self.secret = ["-q", "-passfile", self.place / "password"]
        run("gocryptfs", "-init", *self.secret, self.place / "cipher")

    def mount(self):
        self.serve("gocryptfs", "-fg", *self.secret, self.place / "cipher", self.folder)


class Cryfs(Served):
    name = "cryfs"
    key = program = "cryfs"
    packages = ("cryfs",)
    encrypted = True

    def create(self):
        (self.place / "cipher").mkdir()

    def mount(self):  # the first time, it creates what is missing
        self.serve("cryfs", "-f", self.place / "cipher", self.folder, stdin=PASSWORD + "\n",
                   CRYFS_FRONTEND="noninteractive", CRYFS_NO_UPDATE_CHECK="true",
                   HOME=str(self.place))


class Securefs(Served):
    name = "securefs"
    key = program = "securefs"
    packages = ("securefs",)
    encrypted = True

    def create(self):
        (self.place / "cipher").mkdir()
        run("securefs", "create", self.place / "cipher", stdin=f"{PASSWORD}\n{PASSWORD}\n")

    def mount(self):
        self.serve("securefs", "mount", self.place / "cipher", self.folder, stdin=PASSWORD + "\n")


class Fuse2fs(Served):
    name = "fuse2fs, not encrypted"
    key = program = "fuse2fs"
    packages = ("fuse2fs",)

    def create(self):
        makeExt4(self.place / "image", self.room)

    def mount(self):
        self.serve("fuse2fs", "-f", self.place / "image", self.folder)


class LoopExt4(Competitor):
    name = "ext4 on a loop device, not encrypted"
    key = "loop"

    @classmethod
    def missing(cls):
        if os.geteuid() != 0:
            return "only root may use loop devices"
        found = subprocess.run(["losetup", "-f"], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
        return None if found.returncode == 0 else "there are no loop devices"

    def create(self):
        makeExt4(self.place / "image", self.room)

    def mount(self):
        run("mount", "-o", "loop", self.place / "image", self.folder)

    def finish(self):
        run("umount", self.folder)
        sync(self.place)


def makeExt4(image, size):
    with open(image, "xb") as file:
        file.truncate(size)
    run("mkfs.ext4", "-q", "-F", "-i", "4096", "-E",
        f"nodiscard,lazy_itable_init=1,root_owner={os.geteuid()}:{os.getegid()}", image)


ALL = [PlainCopy, OurVolume, Gocryptfs, Cryfs, Securefs, Fuse2fs, LoopExt4]


def present(kinds, report):
    """Those that can take part here; `report` is told why the others cannot."""
    reasons = {kind: kind.missing() for kind in kinds}
    for kind, reason in reasons.items():
        if reason:
            report(f"left out: {kind.name}: {reason}")
    return [kind for kind, reason in reasons.items() if not reason]


def install(*more):
    """Installs the absent ones' Debian packages, and `more`."""
    packages = [*more, *(name for kind in ALL if kind.missing() for name in kind.packages)]
    if packages:
        prefix = [] if os.geteuid() == 0 else ["sudo"]
        subprocess.run([*prefix, "apt-get", "install", "-y", "--no-install-recommends", *packages],
                       check=True, stdout=sys.stderr)


def versions(packages):
    """The Debian versions of the packages, as far as they come from Debian."""
    found = []
    for package in packages:
        asked = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], text=True,
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        found.append(f"{package} {asked.stdout if asked.returncode == 0 else 'of unknown version'}")
    return ", ".join(found)
