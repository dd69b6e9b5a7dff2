"""The ways to copy a tree into storage, ours among them. Each is prepared, filled with `cp -a`, and
finished: when `finish` returns, everything is on the disk and whoever served the storage has ended.
"""

import os
import pathlib
import shutil
import subprocess
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
    packages = ()

    def __init__(self, place, room):
        self.place = pathlib.Path(place)
        self.room = room
        self.folder = self.place / "mount"
        self.folder.mkdir(parents=True)

    @classmethod
    def missing(cls):
        """Why it cannot take part here; None when it can."""
        return None

    def prepare(self):
        pass

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


class OurVolume(Competitor):
    name = "our volume"
    tool = None  # the path of hdiutil, set by the benchmark

    def prepare(self):
        self.image = self.place / "image"
        run(self.tool, "create", "-size", f"{self.room >> 20}m", "-encryption", "AES-256",
            "-stdinpass", "-volname", "bench", "-fs", "APFS", "-type", "SPARSE", self.image,
            stdin=PASSWORD + "\n")
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
        self.log = open(self.place / "server.log", "w+")
        self.server = subprocess.Popen(
            [str(word) for word in command], env=os.environ | environment, text=True,
            stdin=subprocess.PIPE, stdout=self.log, stderr=subprocess.STDOUT)
        self.server.stdin.write(stdin or "")
        self.server.stdin.close()
        end = time.monotonic() + 60
        while not isMounted(self.folder):
            if self.server.poll() is not None or time.monotonic() > end:
                self.log.seek(0)
                raise RuntimeError(f"{self.program} did not mount: {self.log.read().strip()}")
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
    program = "gocryptfs"
    packages = ("gocryptfs",)

    def prepare(self):
        (self.place / "cipher").mkdir()
        (self.place / "password").write_text(PASSWORD + "\n")
        secret = ["-q", "-passfile", self.place / "password"]
        run("gocryptfs", "-init", *secret, self.place / "cipher")
        self.serve("gocryptfs", "-fg", *secret, self.place / "cipher", self.folder)


class Cryfs(Served):
    name = "cryfs"
    program = "cryfs"
    packages = ("cryfs",)

    def prepare(self):
        (self.place / "cipher").mkdir()
        self.serve("cryfs", "-f", self.place / "cipher", self.folder, stdin=PASSWORD + "\n",
                   CRYFS_FRONTEND="noninteractive", CRYFS_NO_UPDATE_CHECK="true",
                   HOME=str(self.place))


class Fuse2fs(Served):
    name = "fuse2fs, not encrypted"
    program = "fuse2fs"
    packages = ("fuse2fs",)

    def prepare(self):
        makeExt4(self.place / "image", self.room)
        self.serve("fuse2fs", "-f", self.place / "image", self.folder)


class LoopExt4(Competitor):
    name = "ext4 on a loop device, not encrypted"

    @classmethod
    def missing(cls):
        if os.geteuid() != 0:
            return "only root may use loop devices"
        found = subprocess.run(["losetup", "-f"], stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
        return None if found.returncode == 0 else "there are no loop devices"

    def prepare(self):
        makeExt4(self.place / "image", self.room)
        run("mount", "-o", "loop", self.place / "image", self.folder)

    def finish(self):
        run("umount", self.folder)
        sync(self.place)


def makeExt4(image, size):
    with open(image, "xb") as file:
        file.truncate(size)
    run("mkfs.ext4", "-q", "-F", "-i", "4096", "-E",
        f"nodiscard,lazy_itable_init=1,root_owner={os.geteuid()}:{os.getegid()}", image)


ALL = [PlainCopy, OurVolume, Gocryptfs, Cryfs, Fuse2fs, LoopExt4]
