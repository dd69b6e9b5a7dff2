"""Plays the same steps in two directories and compares what comes of each."""

import contextlib
import ctypes
import errno
import os
import re
import stat
import time

libc = ctypes.CDLL(None, use_errno=True)

KINDS = ["regular", "directory", "fifo", "block", "character", "socket", "symlink"]
ROOT, ALICE, BOB = 0, 1001, 1002
FRIENDS, STRANGERS = 2001, 2002  # groups
AT_FDCWD = -100
# Longer than any clock that stamps files stands still.
TICK = 0.012


def call(function, *arguments):
    """Calls a function of the C library; raises OSError when it answers -1."""
    result = getattr(libc, function)(*arguments)
    if result == -1:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number))
    return result


def renameAt(old, new, flags):
    call("renameat2", AT_FDCWD, os.fsencode(old), AT_FDCWD, os.fsencode(new), flags)


def fallocate(fd, mode, offset, length):
    call("fallocate", fd, mode, ctypes.c_long(offset), ctypes.c_long(length))


def outcome(work, *arguments, **named):
    """What the work answers, or the name of the error."""
    try:
        return work(*arguments, **named)
    except OSError as error:
        return errno.errorcode[error.errno]


class Site:
    """A directory, with what came of the steps done there. Names are relative to it, and it is the
    working directory meanwhile."""

    def __init__(self, root):
        self.root = os.fspath(root)
        self.notes = []
        self.made = 0

    def note(self, label, work, *arguments, **named):
        """Does a step whose outcome must be the same everywhere; answers it."""
        result = outcome(work, *arguments, **named)
        self.notes.append((label, result))
        return result

    @contextlib.contextmanager
    def as_(self, user, group=None, groups=()):
        """Steps inside are those of the user, without privileges unless it is root."""
        os.setgroups(list(groups))
        os.setegid(user if group is None else group)
        os.seteuid(user)
        try:
            yield
        finally:
            os.seteuid(0)
            os.setegid(0)
            os.setgroups([])

    @contextlib.contextmanager
    def open(self, name, flags=os.O_RDWR, mode=0o644):
        fd = os.open(name, flags, mode)
        try:
            yield fd
        finally:
            os.close(fd)

    def fresh(self):
        """A name that nothing has yet."""
        self.made += 1
        return f"entry{self.made}"

    def make(self, kind, name=None, mode=None, owner=ROOT, group=ROOT):
        """An entry of the kind; its name."""
        name = name or self.fresh()
        madeBy(kind, name, 0o755 if kind == "directory" else 0o644)
        os.lchown(name, owner, group)
        if mode is not None and kind != "symlink":
            os.chmod(name, mode)
        return name

    def folder(self, mode=0o755, owner=ROOT, group=ROOT):
        return self.make("directory", mode=mode, owner=owner, group=group)

    def file(self, content=b"", **attributes):
        name = self.make("regular", **attributes)
        with self.open(name, os.O_WRONLY) as fd:
            os.write(fd, content)
        return name

    def facts(self, name, label="facts"):
        """Notes what must be the same of an entry."""
        return self.note(f"{label} of {name}", lambda: described(os.lstat(name)))

    def stamps(self, label, names, work, *arguments, **named):
        """Does a step and notes which times of which entries it changes."""
        before = [times(name) for name in names]
        time.sleep(TICK)
        self.note(label, work, *arguments, **named)
        after = [times(name) for name in names]
        changed = [f"{place}: " + " ".join(field for field, old, new in
                                          zip(("accessed", "modified", "changed"), one, other)
                                          if old != new)
                   for place, (one, other) in enumerate(zip(before, after))
                   if one is not None and other is not None]
        self.note(f"{label}: times", lambda: changed)


def madeBy(kind, name, mode=0o644):
    """Makes an entry by the call for its kind, with the mode given to the call."""
    if kind == "regular":
        os.close(os.open(name, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode))
    elif kind == "directory":
        os.mkdir(name, mode)
    elif kind == "symlink":
        os.symlink("nowhere", name)
    else:
        types = {"fifo": stat.S_IFIFO, "block": stat.S_IFBLK, "character": stat.S_IFCHR,
                 "socket": stat.S_IFSOCK}
        # A number that no driver has, so that opening it does no harm.
        device = os.makedev(240, 77) if kind in ("block", "character") else 0
        os.mknod(name, types[kind] | mode, device)


def removed(name):
    """Removes an entry of any kind."""
    remove = os.rmdir if stat.S_ISDIR(os.lstat(name).st_mode) else os.unlink
    remove(name)


def described(status):
    kind = stat.S_IFMT(status.st_mode)
    size = status.st_size if kind != stat.S_IFDIR else "any"
    return (oct(status.st_mode), status.st_uid, status.st_gid, status.st_nlink, size,
            status.st_rdev)


def times(name):
    """Of an open file or an entry; nothing when it is not there."""
    try:
        status = os.fstat(name) if isinstance(name, int) else os.lstat(name)
    except FileNotFoundError:
        return None
    return status.st_atime_ns, status.st_mtime_ns, status.st_ctime_ns


def play(case, root):
    """Plays the case in a directory of its own below `root`; its notes."""
    place = os.path.join(root, case.__name__)
    os.mkdir(place)
    os.chmod(place, 0o755)
    back = os.open(".", os.O_RDONLY)
    os.chdir(place)
    try:
        site = Site(place)
        case(site)
        return site.notes
    finally:
        os.fchdir(back)
        os.close(back)


def compare(case, roots, exceptions):
    """Plays the case in both; (number of checks, those that differ, those that may differ).

    `exceptions` gives for some cases a pattern of labels, and the reason why the outcome there is
    another one."""
    ours, theirs = (play(case, root) for root in roots)
    differing, excused = [], []
    labels = [label for label, _ in ours]
    if labels != [label for label, _ in theirs]:
        return len(labels), [f"{case.__name__}: not the same steps"], []
    pattern = exceptions.get(case.__name__, ("(?!)", ""))[0]
    for (label, one), (_, other) in zip(ours, theirs):
        if one == other:
            continue
        text = f"{case.__name__}: {label}: {one!r:.200} instead of {other!r:.200}"
        (excused if re.fullmatch(pattern, label) else differing).append(text)
    return len(labels), differing, excused
