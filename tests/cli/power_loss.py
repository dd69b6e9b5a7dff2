"""What would be on the disk if the power failed, as far as the log of a run tells: a file's
contents last once it was synced, its name and the end of a name once the directory was."""

import os

CONTENTS = {
    "write", "writev", "pwrite64", "pwritev", "pwritev2", "sendfile", "splice", "copy_file_range",
    "fallocate", "truncate", "ftruncate", "fchmod", "fchmodat", "fchmodat2", "chmod", "fchown",
    "fchownat", "chown", "lchown", "utimensat", "setxattr", "lsetxattr", "fsetxattr", "removexattr",
    "lremovexattr", "fremovexattr", "ioctl",
}
NEW_NAMES = {"openat", "openat2", "open", "creat", "mkdir", "mkdirat", "mknod", "mknodat",
             "symlink", "symlinkat"}
SECOND_NAMES = {"link", "linkat"}
MOVES = {"rename", "renameat", "renameat2"}
ENDS = {"unlink", "unlinkat", "rmdir"}
SYNCS = {"fsync", "fdatasync"}


class Disk:
    """Follows the calls of a run, which are taken to succeed."""

    def __init__(self, existing=()):
        self.existing = set(existing)  # paths of what is there
        self.contents = set()  # paths of files whose contents would not last
        self.names = set()  # paths that would come or go back

    def follow(self, call):
        if call.place != "disk":
            return
        if call.name in SYNCS:
            self.contents.discard(call.path)
            self.names = {name for name in self.names if os.path.dirname(name) != call.path}
        elif call.name == "syncfs":
            self.contents.clear()
            self.names.clear()
        elif call.name in NEW_NAMES:
            self._appears(call.path)
        elif call.name in SECOND_NAMES:
            self._appears(call.second)
        elif call.name in MOVES:
            self._moves(call.path, call.second)
        elif call.name in ENDS:
            self._ends(call.path)
        elif call.name in CONTENTS:
            self.contents.add(call.path)

    def lasts(self, path):
        """Whether a file, or a folder with everything in it, is there to stay."""
        return path in self.existing and not self.unsettled(path)

    def unsettled(self, path):
        """What would change at or below a path."""
        return sorted(entry for entry in self.contents | self.names
                      if entry == path or entry.startswith(path + "/"))

    def _appears(self, path):
        if path not in self.existing:
            self.existing.add(path)
            self.names.add(path)

    def _ends(self, path):
        """What was below it went before, and comes back with it or not at all."""
        gone = set(self.unsettled(path))
        self.contents -= gone
        self.names -= gone
        self.existing.discard(path)
        self.names.add(path)

    def _moves(self, path, target):
        self.existing.discard(path)
        self.existing.add(target)
        self.names |= {path, target}
        self.contents.discard(target)
        if path in self.contents:
            self.contents.remove(path)
            self.contents.add(target)


def replay(calls, disk):
    """Each of the calls with the state of the disk right before it."""
    for call in calls:
        yield call, disk
        disk.follow(call)


FOLDER, ITEM = "work/Docs", "work/Docs.quillvane"
KEY = "work/.Docs.quillvane.qvkeys"


def mistakes(calls, disk, isWhole):
    """What would be lost if the power failed in the middle of these calls: each call, in words,
    that takes something away before all that has to take its place is there to stay. `isWhole` says
    whether the folder was whole in the clear; as long as it is, nothing else is needed."""
    for call, before in replay(calls, disk):
        if call.place != "disk" or call.name not in ENDS | MOVES:
            continue
        if call.path == FOLDER or call.path.startswith(FOLDER + "/"):
            isWhole = False
        if not isWhole and not mayBeMade(call, before):
            yield f"{call} while {before.unsettled('work')} would not last"


def mayBeMade(call, disk):
    # A file of the folder is renamed before it is deleted.
    if call.path == FOLDER or call.path.startswith(FOLDER + "/"):
        return any(disk.lasts(image) and disk.lasts(keyFile(image))
                   for image in disk.existing if image == ITEM or isWorkingImage(image))
    if call.name in MOVES:
        return call.second != ITEM or disk.lasts(KEY) or disk.lasts(keyFile(call.path))
    if call.path == ITEM:
        return disk.lasts(FOLDER)
    if call.path.endswith(".qvkeys"):  # needed as long as its image is there, or may come back
        image = imageOf(call.path)
        return (image not in disk.existing and image not in disk.names
                and (image == ITEM or ITEM not in disk.existing or disk.lasts(KEY)))
    return True


def keyFile(image):
    return f"work/.{os.path.basename(image)}.qvkeys"


def imageOf(key):
    return "work/" + os.path.basename(key)[1:].removesuffix(".qvkeys")


def isWorkingImage(path):
    return path.startswith("work/.Quillvane-") and path.endswith(".sparseimage")
