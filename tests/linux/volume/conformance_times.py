"""Which times each call changes, which it leaves, and which can be set."""

import fcntl
import itertools
import mmap
import os
import struct

from sites import ALICE, BOB, KINDS, call, fallocate, madeBy, outcome, removed, renameAt

AT_SYMLINK_NOFOLLOW = 0x100
NOW, OMIT = (1 << 30) - 1, (1 << 30) - 2


def setTimes(name, accessed, modified, flags=AT_SYMLINK_NOFOLLOW):
    """Times as pairs of seconds and nanoseconds."""
    call("utimensat", -100, os.fsencode(name), struct.pack("qqqq", *accessed, *modified), flags)


def creation(site):
    for kind in KINDS:
        folder = site.folder()
        name = f"{folder}/entry"
        site.stamps(f"{kind} made", [folder], madeBy, kind, name)
        site.note("its own are one moment", lambda: len({os.lstat(name).st_mtime_ns,
                                                         os.lstat(name).st_ctime_ns,
                                                         os.lstat(name).st_atime_ns}))
        both = [folder, name]
        site.stamps(f"{kind} made again", both, madeBy, kind, name)
        site.stamps("looked at", both, os.lstat, f"{folder}/missing")
        site.stamps("chmod", both, os.chmod, name, 0o600)
        site.stamps("chmod to the same", both, os.chmod, name, 0o600)
        site.stamps("chown", both, os.lchown, name, 5, 6)
        site.stamps("chown to the same", both, os.lchown, name, 5, 6)
        site.stamps("chown to nobody", both, os.lchown, name, -1, -1)
        site.stamps("utime", both, os.utime, name, (1, 2), follow_symlinks=False)
        site.stamps("xattr", both, os.setxattr, name, "trusted.a", b"1", follow_symlinks=False)
        site.stamps("xattr read", both, lambda: len(os.listxattr(name, follow_symlinks=False)))
        site.stamps("xattr removed", both, os.removexattr, name, "trusted.a",
                    follow_symlinks=False)
        site.stamps("no xattr removed", both, outcome, os.removexattr, name, "trusted.b",
                    follow_symlinks=False)
        site.stamps("access", both, os.access, name, os.R_OK, follow_symlinks=False)
        site.stamps("removed", [folder], removed, name)
    with site.as_(ALICE):
        site.stamps("refused", ["."], outcome, os.chmod, ".", 0o777)


def links_and_renames(site):
    for kind, target in itertools.product(KINDS, ["nothing"] + KINDS):
        one, other = site.folder(), site.folder()
        name, new = site.make(kind, f"{one}/name"), f"{other}/new"
        if target != "nothing":
            site.make(target, new)
        watched = [one, other, name]
        inode = os.open(name, os.O_PATH | os.O_NOFOLLOW)
        site.stamps(f"{kind} linked", [one, other, inode], os.link, name, f"{one}/linked",
                    follow_symlinks=False)
        site.stamps("unlinked", [one, other, inode], os.unlink, f"{one}/linked")
        site.stamps(f"not renamed over {target}", watched, renameAt, name, new, 1)
        site.stamps(f"renamed over {target}", [one, other, inode], os.rename, name, new)
        os.close(inode)
    one, other = site.folder(), site.folder()
    a, b = site.make("regular", f"{one}/a"), site.make("directory", f"{other}/b")
    moved = [os.open(name, os.O_PATH) for name in (a, b)]
    site.stamps("exchanged", [one, other], renameAt, a, b, 2)
    site.stamps("exchanged back", moved, renameAt, a, b, 2)
    site.stamps("onto itself", [one, other, a, b], os.rename, a, a)
    for fd in moved:
        os.close(fd)


def contents(site):
    name = site.file(b"0123456789" * 1000)
    with site.open(name) as fd:
        for label, work in {
                "write": lambda: os.pwrite(fd, b"x", 5), "write nothing": lambda: os.pwrite(fd, b"", 5),
                "longer": lambda: os.ftruncate(fd, 20_000), "shorter": lambda: os.ftruncate(fd, 5000),
                "same": lambda: os.ftruncate(fd, 5000), "by name": lambda: os.truncate(name, 4000),
                "same by name": lambda: os.truncate(name, 4000),
                "too long": lambda: outcome(os.ftruncate, fd, 1 << 62),
                "reserve": lambda: fallocate(fd, 0, 0, 9000),
                "reserve again": lambda: fallocate(fd, 0, 0, 9000),
                "reserve beyond": lambda: fallocate(fd, 1, 0, 19_000),
                "punch": lambda: fallocate(fd, 3, 0, 5000), "zero": lambda: fallocate(fd, 16, 0, 50),
                "sync": lambda: os.fsync(fd), "seek": lambda: os.lseek(fd, 0, os.SEEK_HOLE),
                "lock": lambda: fcntl.flock(fd, fcntl.LOCK_EX),
                "truncated by open": lambda: os.close(os.open(name, os.O_WRONLY | os.O_TRUNC)),
                "empty by open": lambda: os.close(os.open(name, os.O_WRONLY | os.O_TRUNC)),
                "truncate empty": lambda: os.truncate(name, 0),
                "opened": lambda: os.close(os.open(name, os.O_RDWR | os.O_CREAT, 0o600))}.items():
            site.stamps(label, [name, "."], work)
        os.pwrite(fd, bytes(9000), 0)
        with mmap.mmap(fd, 8192) as memory:
            def change():
                memory[5] = 7
                memory.flush()
            # When the write is noted is up to the system; after a flush it is.
            site.stamps("mapped", [name], change)
            site.note("content", os.pread, fd, 9, 0)


def reading(site):
    """A time of access from before the last change is the next moment that something is read."""
    name, folder = site.file(b"content"), site.folder()
    site.make("regular", f"{folder}/inner")
    link = site.make("symlink")
    for each, label, work in ((name, "file", lambda: withRead(site, name)),
                              (folder, "folder", lambda: os.listdir(folder)),
                              (link, "link", lambda: os.readlink(link))):
        setTimes(each, (1000, 0), (2000, 0))
        site.stamps(f"reading a {label}", [each], work)


def withRead(site, name):
    with site.open(name, os.O_RDONLY) as fd:
        return os.read(fd, 10)


def setting(site):
    moments = [(0, 0), (1, 999_999_999), (-1, 0), (-1, 1), (-86_401, 500_000_000), (1 << 31, 1),
               ((1 << 31) - 1, 1), (-(1 << 31), 0), (1 << 32, 123), ((1 << 34) - 1, 5),
               ((3 << 32) + (1 << 31) - 1, 9), ((3 << 32) + (1 << 31), 9), (-(1 << 31) - 1, 9),
               (1 << 40, 0), (-(1 << 40), 0)]
    for kind, moment in itertools.product(KINDS, moments):
        name = site.make(kind)
        site.note(f"{kind} {moment}", setTimes, name, moment, (77, 88))
        site.note("read", exactTimes, name)
        site.note(f"{kind} {moment} modified", setTimes, name, (55, 66), moment)
        site.note("read", exactTimes, name)
    name = site.file()
    setTimes(name, (3, 4), (5, 6))
    for wrong in ((0, -1), (0, 1_000_000_000), (0, 1 << 40), (0, NOW - 2)):
        site.note(f"{wrong}", setTimes, name, wrong, (1, 1))
        site.note("read", exactTimes, name)
    site.note("flags", setTimes, name, (1, 1), (1, 1), 0x4000)


def exactTimes(name):
    status = os.lstat(name)
    return status.st_atime_ns, status.st_mtime_ns


def who_may_set(site):
    choices = [(7, 8), (0, NOW), (0, OMIT)]
    for kind, mode, (accessed, modified), who in itertools.product(
            ("regular", "directory", "symlink"), (0o644, 0o666, 0o000),
            itertools.product(choices, repeat=2), (0, ALICE, BOB)):
        name = site.make(kind, mode=mode, owner=ALICE)
        setTimes(name, (1000, 1), (2000, 2))
        with site.as_(who):
            site.stamps(f"{kind} {mode:o} {accessed} {modified} by {who}", [name], setTimes, name,
                        accessed, modified)
        # The moment itself differs, what was set or kept does not.
        site.note("those that are not the moment",
                  lambda: [moment for moment in exactTimes(name) if moment < 10**15])
    for mode, who in itertools.product((0o644, 0o666, 0o222), (0, ALICE, BOB)):
        name = site.file(mode=mode, owner=ALICE)
        with site.as_(who):
            site.stamps(f"the moment for {mode:o} by {who}", [name], os.utime, name)


def times_survive_what_follows(site):
    """What was set stays until something changes it, also behind the kernel's memory."""
    name = site.file(b"some")
    fd = os.open(name, os.O_RDWR)
    os.pwrite(fd, b"more", 0)
    os.utime(fd, ns=(1_000_000_007, 2_000_000_009))
    os.close(fd)
    site.note("after closing", exactTimes, name)
    os.rename(name, "renamed")
    os.chmod("renamed", 0o600)
    os.link("renamed", "linked")
    site.note("after the rest", exactTimes, "linked")
    with site.open("linked") as fd:
        os.fsync(fd)
    site.note("after a sync", exactTimes, "linked")


CASES = [creation, links_and_renames, contents, reading, setting, who_may_set,
         times_survive_what_follows]
