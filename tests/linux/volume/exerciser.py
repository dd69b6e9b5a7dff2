"""Does the same random operations in two directories and compares everything that comes of them."""

import ctypes
import errno
import hashlib
import mmap
import os
import stat
import struct

MOST_OPEN = 12
MOST_FOLDERS = 8
LARGEST = 300_000
NAMES = [f"name {number}" for number in range(10)] + ["n" * 255, "n" * 256, "a\nb", "é", "-", "\\"]
XATTRS = ["user.a", "user.b", "user." + "x" * 60]
OLD = 1_600_000_000_000_000_000  # times before this were set, later ones are of the moment
libc = ctypes.CDLL(None, use_errno=True)


def fallocate(fd, mode, offset, length):
    if libc.fallocate(fd, mode, ctypes.c_long(offset), ctypes.c_long(length)) != 0:
        raise OSError(ctypes.get_errno(), "fallocate")


def renameAt(old, new, flags):
    if libc.renameat2(-100, os.fsencode(old), -100, os.fsencode(new), flags) != 0:
        raise OSError(ctypes.get_errno(), "renameat2")


def outcome(work, *arguments):
    """What the work answers, or the name of the error."""
    try:
        return work(*arguments)
    except OSError as error:
        return errno.errorcode[error.errno]


def facts(path):
    """What must be equal of an entry in both directories."""
    status = os.lstat(path)
    found = [oct(status.st_mode), status.st_uid, status.st_gid, status.st_nlink]
    found.append(status.st_mtime_ns if status.st_mtime_ns < OLD else "recent")
    names = sorted(os.listxattr(path, follow_symlinks=False))
    found.append([(name, os.getxattr(path, name, follow_symlinks=False)) for name in names])
    if not stat.S_ISDIR(status.st_mode):
        found.append(status.st_size)
    if stat.S_ISLNK(status.st_mode):
        found.append(os.readlink(path))
    if stat.S_ISREG(status.st_mode):
        found.append(outcome(digest, path))
    return found


def digest(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()


def snapshot(root):
    """The facts of a whole tree, by relative path."""
    found, waiting = {}, [""]
    while waiting:
        folder = waiting.pop()
        names = outcome(os.listdir, os.path.join(root, folder))
        if isinstance(names, str):
            found[folder, "listing"] = names
            continue
        for name in names:
            path = os.path.join(folder, name)
            found[path] = outcome(facts, os.path.join(root, path))
            if os.path.isdir(os.path.join(root, path)) and not os.path.islink(
                    os.path.join(root, path)):
                waiting.append(path)
    return found


class Exerciser:
    """`step()` does one operation in both roots and says whether it succeeded; it raises
    AssertionError when the outcomes differ."""

    def __init__(self, roots, random):
        self.roots = [os.fspath(root) for root in roots]
        self.random = random
        self.open = []  # pairs of descriptors of the same file
        self.folders = [""]
        self.operations = [getattr(self, name) for name in sorted(dir(self))
                           if name.startswith("do_")]
        self.history = []

    def step(self):
        operation = self.random.choice(self.operations)
        attempt = operation()
        if attempt is None:
            return False
        what, works = attempt
        results = [outcome(work) for work in works]
        self.history = self.history[-15:] + [f"{operation.__name__} {what}: {results[0]!r:.60}"]
        assert results[0] == results[1], "\n".join(self.history + [f"{results!r:.300}"])
        return not isinstance(results[0], str) or not results[0].startswith("E")

    def compare(self):
        one, other = (snapshot(root) for root in self.roots)
        different = [(path, one.get(path), other.get(path)) for path in one.keys() | other.keys()
                     if one.get(path) != other.get(path)]
        assert not different, "\n".join(self.history + [f"{different[:5]}"])
        folders = [path for path, entry in sorted(one.items(), key=repr)
                   if isinstance(entry, list) and entry[0].startswith("0o4")]
        self.folders = [""] + self.random.sample(folders, min(len(folders), MOST_FOLDERS))

    def closeAll(self):
        for pair in self.open:
            for fd in pair:
                os.close(fd)
        self.open = []

    # The choices, all made before either root is touched.

    def path(self):
        return os.path.join(self.random.choice(self.folders), self.random.choice(NAMES))

    def onPaths(self, work, *paths, what=""):
        works = [lambda root=root: work(*(os.path.join(root, path) for path in paths))
                 for root in self.roots]
        return f"{paths} {what}", works

    def onOpen(self, work, what=""):
        if not self.open:
            return None
        index = self.random.randrange(len(self.open))
        return f"open file {index} {what}", [lambda fd=fd: work(fd) for fd in self.open[index]]

    def place(self):
        """An offset that is a boundary of blocks more often than chance would have it."""
        offset = self.random.randrange(LARGEST)
        return self.random.choice([offset, offset // 4096 * 4096, offset // 4096 * 4096 + 1])

    def bytes(self):
        length = self.random.choice([1, 100, 4096, 8192, self.random.randrange(60_000)])
        return self.random.randbytes(length)

    # The operations.

    def do_open(self):
        flags = os.O_RDWR | self.random.choice(
            [0, os.O_CREAT, os.O_CREAT, os.O_CREAT, os.O_CREAT | os.O_EXCL, os.O_TRUNC, os.O_APPEND,
             os.O_NOFOLLOW])
        mode = self.random.choice([0o666, 0o600, 0o777, 0o640])
        path = self.path()
        fds = [outcome(os.open, os.path.join(root, path), flags | os.O_NONBLOCK, mode)
               for root in self.roots]
        opened = [not isinstance(fd, str) for fd in fds]
        if all(opened):
            self.open.append(fds)
            if len(self.open) > MOST_OPEN:
                for fd in self.open.pop(0):
                    os.close(fd)
        return f"{path} {flags:o}", [lambda fd=fd: fd if isinstance(fd, str) else "opened"
                                     for fd in fds]

    def do_close(self):
        if not self.open:
            return None
        pair = self.open.pop(self.random.randrange(len(self.open)))
        return "", [lambda fd=fd: os.close(fd) for fd in pair]

    def do_write(self):
        offset, content = self.place(), self.bytes()
        return self.onOpen(lambda fd: os.pwrite(fd, content, offset), f"{offset} {len(content)}")

    do_write2 = do_write3 = do_write

    def do_scatter(self):
        """So many pieces that the list of a file's blocks becomes a tree."""
        action = self.random.choice(["write", "write", "punch", "reserve"])
        places = [self.random.randrange(1200) * 4096 for _ in range(120)]

        def scatter(fd):
            for place in places:
                if action == "write":
                    os.pwrite(fd, b"piece", place)
                else:
                    fallocate(fd, 3 if action == "punch" else 0, place, 4096)
        return self.onOpen(scatter, action)

    def do_append(self):
        content = self.bytes()

        def append(fd):
            os.lseek(fd, 0, os.SEEK_END)
            return os.write(fd, content)
        return self.onOpen(append, len(content))

    def do_read(self):
        offset, length = self.place(), self.random.randrange(50_000)
        return self.onOpen(lambda fd: hash(os.pread(fd, length, offset)), f"{offset} {length}")

    def do_map(self):
        """What is written to memory is in the file, and what is written to the file in memory."""
        offset, content = self.place() // 4096 * 4096, self.random.randbytes(5000)

        def map(fd):
            size = os.fstat(fd).st_size
            if size <= offset:
                return "too short"
            with mmap.mmap(fd, size) as memory:
                part = content[:size - offset]
                memory[offset:offset + len(part)] = part
                seen = os.pread(fd, 6000, offset) == memory[offset:offset + 6000]
                os.pwrite(fd, b"file", offset)
                return seen, memory[offset:offset + 4]
        return self.onOpen(map, offset)

    def do_direct(self):
        """Past the kernel's memory, to what the volume itself has."""
        path, offset = self.path(), self.place() // 4096 * 4096
        content = self.random.randbytes(4096 * self.random.randrange(1, 5))
        writes = self.random.random() < 0.6

        def direct(name):
            fd = os.open(name, os.O_RDWR | os.O_DIRECT | os.O_NONBLOCK)
            try:
                with mmap.mmap(-1, len(content)) as memory:
                    memory[:] = content
                    if writes:
                        os.pwritev(fd, [memory], offset)
                    return hash(memory[:os.preadv(fd, [memory], offset)])
            finally:
                os.close(fd)
        return self.onPaths(direct, path, what=(offset, len(content), writes))

    def do_copyRange(self):
        if len(self.open) < 2:
            return None
        one, other = self.random.sample(range(len(self.open)), 2)
        source, target, length = self.place(), self.place(), self.random.randrange(50_000)
        return f"{one} to {other}", [
            lambda root=root: os.copy_file_range(self.open[one][root], self.open[other][root],
                                                 length, source, target) for root in (0, 1)]

    def do_truncateOpen(self):
        size = self.place()
        return self.onOpen(lambda fd: os.ftruncate(fd, size), size)

    def do_truncate(self):
        size = self.place()
        return self.onPaths(lambda path: os.truncate(path, size), self.path(), what=size)

    def do_allocate(self):
        mode = self.random.choice([0, 1, 3, 16, 17])
        offset, length = self.place(), self.random.randrange(1, 100_000)
        return self.onOpen(lambda fd: fallocate(fd, mode, offset, length), (mode, offset, length))

    do_allocate2 = do_allocate

    def do_statusOfOpen(self):
        def status(fd):
            found = os.fstat(fd)
            return found.st_size, found.st_nlink, oct(found.st_mode)
        return self.onOpen(status)

    def do_sync(self):
        return self.onOpen(os.fsync)

    def do_makeFolder(self):
        path = self.path()
        if path.count("/") < 4 and path not in self.folders and len(self.folders) <= MOST_FOLDERS:
            self.folders.append(path)
        mode = self.random.choice([0o777, 0o755, 0o2775, 0o1777])
        return self.onPaths(lambda name: os.mkdir(name, mode), path)

    def do_removeFolder(self):
        return self.onPaths(os.rmdir, self.path())

    def do_unlink(self):
        return self.onPaths(os.unlink, self.path())

    def do_link(self):
        return self.onPaths(lambda old, new: os.link(old, new, follow_symlinks=False),
                            self.path(), self.path())

    def do_symlink(self):
        target = self.random.choice(["name 1", "t" * 59, "t" * 60, "t" * 4000, "t" * 5000])
        return self.onPaths(lambda path: os.symlink(target, path), self.path(), what=len(target))

    def do_fifo(self):
        return self.onPaths(lambda path: os.mkfifo(path, 0o640), self.path())

    def do_rename(self):
        flags = self.random.choice([0, 0, 0, 1, 2])
        return self.onPaths(lambda old, new: renameAt(old, new, flags), self.path(), self.path(),
                            what=flags)

    do_rename2 = do_rename

    def do_list(self):
        return self.onPaths(lambda path: sorted(os.listdir(path)),
                            self.random.choice(self.folders))

    def do_changeMode(self):
        mode = self.random.choice([0o700, 0o755, 0o2750, 0o4711, 0o1777, 0o666, 0o751])
        return self.onPaths(lambda path: os.chmod(path, mode), self.path(), what=oct(mode))

    def do_changeOwner(self):
        groups = [os.getegid(), -1] + ([5, 70_000] if os.geteuid() == 0 else [])
        group = self.random.choice(groups)
        return self.onPaths(lambda path: os.lchown(path, -1, group), self.path(), what=group)

    def do_setTimes(self):
        times = tuple(self.random.randrange(-(1 << 60), OLD) for _ in range(2))
        return self.onPaths(lambda path: os.utime(path, ns=times, follow_symlinks=False),
                            self.path(), what=times)

    def do_setAttribute(self):
        name, flags = self.random.choice(XATTRS), self.random.choice([0, 0, 1, 2])
        value = self.random.randbytes(self.random.choice([0, 1, 40, 300, 1000]))
        return self.onPaths(lambda path: os.setxattr(path, name, value, flags,
                                                     follow_symlinks=False),
                            self.path(), what=(name, len(value), flags))

    do_setAttribute2 = do_setAttribute

    def do_removeAttribute(self):
        name = self.random.choice(XATTRS + ["system.posix_acl_access", "system.posix_acl_default"])
        return self.onPaths(lambda path: os.removexattr(path, name, follow_symlinks=False),
                            self.path(), what=name)

    def do_setAccessList(self):
        name = self.random.choice(["system.posix_acl_access", "system.posix_acl_default"])
        some = lambda: self.random.choice([4, 5, 6, 7])
        entries = [(0x01, 7, -1)]
        entries += [(0x02, some(), user) for user in self.random.sample([1000, 1001, 1002],
                                                                        self.random.randrange(3))]
        entries += [(0x04, some(), -1)]
        if len(entries) > 2 or self.random.random() < 0.3:
            entries += [(0x10, some(), -1)]
        entries += [(0x20, self.random.randrange(8), -1)]
        entries[1:-1] = sorted(entries[1:-1], key=lambda entry: (entry[0], entry[2]))
        value = struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)
        return self.onPaths(lambda path: os.setxattr(path, name, value), self.path(), what=entries)
