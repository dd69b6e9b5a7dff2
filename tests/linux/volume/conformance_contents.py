"""What is in files: opening, writing, sizes, holes, copies inside the kernel, locks, attributes,
listings and what is told of changes."""

import contextlib
import ctypes
import fcntl
import hashlib
import itertools
import mmap
import multiprocessing
import os
import select
import struct

from sites import ALICE, BOB, KINDS, call, fallocate, libc

KEEP_SIZE, PUNCH, COLLAPSE, ZERO, INSERT, UNSHARE = 1, 2, 8, 16, 32, 64


def digest(name):
    with open(name, "rb") as file:
        return hashlib.file_digest(file, "sha1").hexdigest()


def opening(site):
    flags = {"create": os.O_CREAT, "exclusive": os.O_CREAT | os.O_EXCL, "truncate": os.O_TRUNC,
             "folder": os.O_DIRECTORY, "no link": os.O_NOFOLLOW, "append": os.O_APPEND,
             "direct": os.O_DIRECT, "synchronous": os.O_SYNC, "path": os.O_PATH,
             "no time": os.O_NOATIME, "folder made": os.O_DIRECTORY | os.O_CREAT,
             "create no link": os.O_CREAT | os.O_NOFOLLOW, "plain": 0}
    for kind, (label, flag), way in itertools.product(
            KINDS + ["missing", "link to file", "link to folder", "link to itself"], flags.items(),
            (os.O_RDONLY, os.O_WRONLY, os.O_RDWR)):
        name = site.fresh()
        if kind in KINDS:
            site.make(kind, name, mode=0o666)
        elif kind == "link to file":
            os.symlink(site.file(b"abc"), name)
        elif kind == "link to folder":
            os.symlink(site.folder(), name)
        elif kind == "link to itself":
            os.symlink(name, name)
        site.note(f"{kind} {label} {way}", opened, site, name, flag | way | os.O_NONBLOCK)
        with site.as_(BOB):
            site.note(f"{kind} {label} {way} by another", opened, site, name,
                      flag | way | os.O_NONBLOCK)


def opened(site, name, flags):
    with site.open(name, flags, 0o640) as fd:
        status = os.fstat(fd)
        return oct(status.st_mode), status.st_size if not os.path.isdir(name) else 0


def modes_do_not_bind_who_has_it_open(site):
    site_folder = site.folder(mode=0o777)
    for mode in (0, 0o444, 0o200):
        name = f"{site_folder}/{mode}"
        with site.as_(ALICE):
            with site.open(name, os.O_RDWR | os.O_CREAT | os.O_EXCL, mode) as fd:
                site.note("write", os.write, fd, b"content")
                site.note("truncate", os.ftruncate, fd, 3)
                site.note("longer", os.ftruncate, fd, 30)
                site.note("reserve", fallocate, fd, 0, 0, 100)
                site.note("read", os.pread, fd, 100, 0)
                site.note("mode", os.fchmod, fd, 0)
                site.note("then write", os.pwrite, fd, b"more", 50)
                site.note("xattr", os.setxattr, fd, "user.a", b"1")
            site.note("open again", os.open, name, os.O_RDWR)
        site.facts(name)


def sizes(site):
    for start, size in itertools.product((0, 1, 4095, 4096, 4097, 100_000),
                                         (0, 1, 4095, 4096, 4097, 8192, 99_999, 1 << 30, 1 << 40,
                                          (1 << 44) - 4096, 1 << 44, (1 << 63) - 1, -1)):
        name = site.file(b"x" * start)
        site.note(f"{start} to {size}", os.truncate, name, size)
        site.facts(name)
        if size < 1 << 20:
            site.note("content", digest, name)
            site.note("longer again", os.truncate, name, 120_000)
            site.note("content then", digest, name)
    with site.open(site.file()) as fd:
        for offset in ((1 << 44) - 8192, (1 << 44) - 1, 1 << 44, (1 << 63) - 2, -1):
            site.note(f"write at {offset}", os.pwrite, fd, b"xy", offset)
            site.note("size", lambda: os.fstat(fd).st_size)
            site.note(f"read at {offset}", os.pread, fd, 10, offset)
        site.note("seek beyond", os.lseek, fd, 1 << 44, os.SEEK_SET)
        site.note("seek before", os.lseek, fd, -1, os.SEEK_SET)
    for kind in KINDS[1:]:
        site.note(f"truncate {kind}", os.truncate, site.make(kind), 0)


def reserving(site):
    modes = [0, KEEP_SIZE, PUNCH, PUNCH | KEEP_SIZE, ZERO, ZERO | KEEP_SIZE, COLLAPSE, INSERT,
             COLLAPSE | KEEP_SIZE, UNSHARE, 4, 128, 1 << 20]
    ranges = [(0, 4096), (100, 50), (4000, 200), (4096, 8192), (0, 1), (19_000, 5000),
              (30_000, 100), (0, 0), (-1, 5), (5, -1), ((1 << 63) - 5, 10), (1 << 44, 4096),
              ((1 << 44) - 4096, 4096)]
    for mode, (offset, length), content in itertools.product(modes, ranges, (b"abcde" * 4000, b"")):
        name = site.file(content)
        with site.open(name) as fd:
            site.note(f"{mode} {offset} {length} of {len(content)}", fallocate, fd, mode, offset,
                      length)
            site.note(f"{mode} size", lambda: os.fstat(fd).st_size)
            site.note(f"{mode} content",
                      lambda: digest(name) if os.fstat(fd).st_size < 1 << 20 else "long")
        os.unlink(name)
    with site.open(site.file(), os.O_RDONLY) as fd:
        site.note("read only", fallocate, fd, 0, 0, 10)
    for kind in ("directory", "fifo"):
        with site.open(site.make(kind), os.O_RDONLY | os.O_NONBLOCK) as fd:
            site.note(kind, fallocate, fd, 0, 0, 10)
    with site.open(site.file()) as fd:
        site.note("posix", os.posix_fallocate, fd, 100, 10_000)
        site.note("posix size", lambda: os.fstat(fd).st_size)
        site.note("posix nothing", os.posix_fallocate, fd, 100, 0)


def holes(site):
    name = site.fresh()
    with site.open(name, os.O_RDWR | os.O_CREAT) as fd:
        for offset in (0, 40_960, 81_920 + 17):
            os.pwrite(fd, b"x" * 4096, offset)
        os.ftruncate(fd, 200_000)
        os.fsync(fd)
        for place, whence in itertools.product(
                (0, 1, 4095, 4096, 40_959, 40_960, 45_056, 81_920, 90_111, 90_112, 199_999,
                 200_000, -1),
                (os.SEEK_DATA, os.SEEK_HOLE)):
            site.note(f"seek {place} {whence}", os.lseek, fd, place, whence)
        site.note("occupied", lambda: os.fstat(fd).st_blocks)
        fallocate(fd, PUNCH | KEEP_SIZE, 40_960, 4096)
        site.note("punched", os.lseek, fd, 4096, os.SEEK_DATA)
        site.note("occupied then", lambda: os.fstat(fd).st_blocks)
    with site.open(site.file()) as fd:
        site.note("nothing", os.lseek, fd, 0, os.SEEK_DATA)


def appending(site):
    """Several writers of one file each append whole records."""
    name = site.file()
    with multiprocessing.Pool(4) as writers:
        writers.starmap(appendRecords, [(os.path.abspath(name), number) for number in range(4)])
    with open(name, "rb") as file:
        records = [file.read(100) for _ in range(2000)]
    site.note("each record whole",
              lambda: sorted({(record[:1], len(set(record))) for record in records}))
    site.note("all",
              lambda: sorted(records.count(bytes([65 + number]) * 100) for number in range(4)))
    with site.open(name, os.O_WRONLY | os.O_APPEND) as fd:
        site.note("in spite of the place", lambda: (os.pwrite(fd, b"end", 0), os.fstat(fd).st_size))
        os.ftruncate(fd, 5)
        site.note("after a truncate", lambda: (os.write(fd, b"x"), os.fstat(fd).st_size))


def appendRecords(name, number):
    fd = os.open(name, os.O_WRONLY | os.O_APPEND)
    for _ in range(500):
        os.write(fd, bytes([65 + number]) * 100)
    os.close(fd)


def direct(site):
    name = site.file(b"a" * 10_000)
    with site.open(name, os.O_RDWR | os.O_DIRECT) as fd, mmap.mmap(-1, 8192) as block, \
            site.open(name) as plain:
        site.note("read", lambda: (os.preadv(fd, [block], 0), block[:10]))
        site.note("read the end", os.preadv, fd, [block], 8192)
        block[:] = b"b" * 8192
        site.note("write", os.pwritev, fd, [block], 4096)
        site.note("seen", digest, name)
        os.pwrite(plain, b"c" * 100, 50)
        site.note("plain seen", lambda: (os.preadv(fd, [block], 0), block[48:53]))
        site.note("beyond", os.preadv, fd, [block], 40_960)
    for flag in (os.O_SYNC, os.O_DSYNC):
        with site.open(name, os.O_RDWR | flag) as fd:
            site.note("synchronous", os.write, fd, b"sync")


def mapping(site):
    name = site.file(b"x" * 10_000)
    with site.open(name) as fd, mmap.mmap(fd, 10_000) as memory, mmap.mmap(fd, 10_000) as other, \
            mmap.mmap(fd, 10_000, flags=mmap.MAP_PRIVATE) as own:
        memory[5000] = 65
        site.note("the other sees it", lambda: other[4999:5002])
        site.note("read sees it", os.pread, fd, 3, 4999)
        os.pwrite(fd, b"zz", 100)
        site.note("it sees a write", lambda: memory[99:103])
        own[0] = 66
        site.note("private stays private", os.pread, fd, 2, 0)
        memory.flush()
        os.ftruncate(fd, 6000)
        site.note("end", os.pread, fd, 10, 5998)
        os.ftruncate(fd, 10_000)
        site.note("zeros behind", lambda: memory[5998:6002])
    site.note("content", digest, name)


def copies_inside_the_kernel(site):
    source = site.file(bytes(range(256)) * 1000)
    for label, work in {
            "copy_file_range": lambda one, other: os.copy_file_range(one, other, 100_001, 7, 3),
            "copy beyond": lambda one, other: os.copy_file_range(one, other, 100, 1 << 20, 0),
            "sendfile": lambda one, other: os.sendfile(other, one, 5, 50_000),
            "splice": spliced,
            "vectors": lambda one, other: os.writev(other, [b"a", b"", b"bc"])}.items():
        target = site.fresh()
        with site.open(source) as one, site.open(target, os.O_RDWR | os.O_CREAT) as other:
            site.note(label, work, one, other)
        site.note("result", digest, target)
    with site.open(source) as fd:
        site.note("onto itself", os.copy_file_range, fd, fd, 1000, 0, 500)
        site.note("elsewhere in itself", os.copy_file_range, fd, fd, 1000, 0, 100_000)
        site.note("clone", lambda: fcntl.ioctl(fd, 0x40049409, fd))
    site.note("source then", digest, source)


def spliced(one, other):
    reading, writing = os.pipe()
    try:
        moved = os.splice(one, writing, 30_000, offset_src=11)
        return moved, os.splice(reading, other, moved, offset_dst=9)
    finally:
        os.close(reading)
        os.close(writing)


def locks(site):
    name = site.file(b"0123456789")
    lock = struct.Struct("hhqqi4x")
    with site.open(name) as one, site.open(name) as other:
        site.note("flock", fcntl.flock, one, fcntl.LOCK_EX | fcntl.LOCK_NB)
        site.note("taken", fcntl.flock, other, fcntl.LOCK_SH | fcntl.LOCK_NB)
        site.note("freed", fcntl.flock, one, fcntl.LOCK_UN)
        site.note("then", fcntl.flock, other, fcntl.LOCK_SH | fcntl.LOCK_NB)
        site.note("range", fcntl.fcntl, one, 37, lock.pack(fcntl.F_WRLCK, 0, 2, 3, 0))
        for start, length in ((0, 2), (2, 1), (4, 0), (5, 5)):
            site.note(f"other range {start}", lambda: lock.unpack(fcntl.fcntl(
                other, 36, lock.pack(fcntl.F_WRLCK, 0, start, length, 0)))[0])
        site.note("lease", fcntl.fcntl, one, fcntl.F_SETLEASE, fcntl.F_RDLCK)


def attributes(site):
    names = ["user.a", "user." + "n" * 250, "user." + "n" * 251, "trusted.a", "security.a",
             "security.capability", "system.a", "system.posix_acl_access", "other.a", "user.",
             "user", "", "trusted."]
    for kind, name, who in itertools.product(KINDS, names, (0, ALICE, BOB)):
        entry = site.make(kind, owner=ALICE, mode=0o644)
        with site.as_(who):
            label = f"{name:.30} on {kind} by {who}"
            for flags in (2, 0, 1):
                site.note(f"{label} set {flags}", os.setxattr, entry, name, b"value", flags,
                          follow_symlinks=False)
            site.note(f"{label} get", os.getxattr, entry, name, follow_symlinks=False)
            site.note(f"{label} list", lambda: sorted(os.listxattr(entry, follow_symlinks=False)))
            site.note(f"{label} remove", os.removexattr, entry, name, follow_symlinks=False)
            site.note(f"{label} remove again", os.removexattr, entry, name, follow_symlinks=False)
    for size in (0, 1, 3000, 3900, 4000, 4096, 60_000, 65_536, 65_537):
        entry = site.file()
        site.note(f"size {size}", os.setxattr, entry, "user.a", b"v" * size)
        site.note(f"size {size} get", lambda: len(os.getxattr(entry, "user.a")))
        site.note("second", os.setxattr, entry, "user.b", b"w" * 50)
        site.note("list", lambda: sorted(os.listxattr(entry)))
        room = ctypes.create_string_buffer(2)
        site.note("no room", lambda: call("getxattr", entry.encode(), b"user.a", room, 2))
        site.note("no room to list", lambda: call("listxattr", entry.encode(), room, 2))
    entry = site.file()
    count = 0
    with contextlib.suppress(OSError):
        while count < 300:
            os.setxattr(entry, f"user.number{count}", b"v" * 20)
            count += 1
    site.note("very many", lambda: 40 < count < 300 and len(os.listxattr(entry)) == count)


def capabilities_are_lost(site):
    capability = struct.pack("<IIIII", 0x02000001, 1 << 10, 0, 0, 0)
    for label, work in {
            "write": lambda name: withOpen(name, lambda fd: os.write(fd, b"x")),
            "truncate": lambda name: os.truncate(name, 1),
            "open to truncate": lambda name: os.close(os.open(name, os.O_WRONLY | os.O_TRUNC)),
            "reserve": lambda name: withOpen(name, lambda fd: fallocate(fd, 0, 0, 9000)),
            "chown": lambda name: os.chown(name, 5, 5), "chmod": lambda name: os.chmod(name, 0o777),
            "chown to nobody": lambda name: os.chown(name, -1, -1),
            "link": lambda name: os.link(name, name + "x")}.items():
        for who in (0, ALICE):
            name = site.file(b"program", mode=0o777, owner=ALICE)
            os.setxattr(name, "security.capability", capability)
            with site.as_(who):
                site.note(f"{label} by {who}", work, name)
            site.note("left", lambda: os.listxattr(name))


def withOpen(name, work):
    fd = os.open(name, os.O_WRONLY)
    try:
        return work(fd)
    finally:
        os.close(fd)


def seeking_in_a_listing(site):
    """A place in a listing stays what it is while other entries go."""
    class Entry(ctypes.Structure):
        _fields_ = [("inode", ctypes.c_uint64), ("next", ctypes.c_int64),
                    ("length", ctypes.c_uint16), ("kind", ctypes.c_uint8),
                    ("name", ctypes.c_char * 256)]
    libc.opendir.restype = ctypes.c_void_p
    libc.readdir.restype = ctypes.POINTER(Entry)
    libc.telldir.restype = ctypes.c_long
    for number in range(500):
        os.close(os.open(f"f{number:03}", os.O_CREAT, 0o644))
    stream = ctypes.c_void_p(libc.opendir(b"."))
    places, found = [], []
    while entry := libc.readdir(stream):
        found.append(entry.contents.name)
        places.append(libc.telldir(stream))
    site.note("all", lambda: sorted(found))
    same = []
    for index in (0, 7, 123, 250, 480):
        libc.seekdir(stream, ctypes.c_long(places[index]))
        same.append(libc.readdir(stream).contents.name == found[index + 1])
    site.note("places", lambda: same)
    for name in found[:200]:
        if name not in (b".", b".."):
            os.unlink(name)
    libc.seekdir(stream, ctypes.c_long(places[249]))
    site.note("place after removals", lambda: libc.readdir(stream).contents.name == found[250])
    libc.rewinddir(stream)
    left = []
    while entry := libc.readdir(stream):
        left.append(entry.contents.name)
    site.note("what is left", lambda: sorted(left) == sorted(
        name for name in found[200:] + [b".", b".."]) or len(left))
    libc.closedir(stream)


def notifications(site):
    fd = call("inotify_init1", os.O_NONBLOCK)
    call("inotify_add_watch", fd, b".", 0xFFF)
    with site.open("file", os.O_RDWR | os.O_CREAT) as file:
        os.write(file, b"x")
        os.ftruncate(file, 0)
        os.fchmod(file, 0o600)
    os.mkdir("folder")
    os.rename("file", "folder/file")
    os.rename("folder/file", "back")
    os.link("back", "link")
    os.unlink("back")
    os.rmdir("folder")
    events = []
    while select.select([fd], [], [], 0)[0]:
        raw = os.read(fd, 65_536)
        while raw:
            _, mask, _, length = struct.unpack("iIII", raw[:16])
            events.append((hex(mask), raw[16:16 + length].rstrip(b"\0")))
            raw = raw[16 + length:]
    os.close(fd)
    site.note("events", lambda: events)


def facts_of_the_file_system(site):
    found = os.statvfs(".")
    site.note("names", lambda: found.f_namemax)
    site.note("blocks", lambda: (found.f_bsize, found.f_frsize))
    site.note("limits", lambda: [os.pathconf(".", name) for name in
                                 ("PC_NAME_MAX", "PC_PATH_MAX", "PC_NO_TRUNC", "PC_SYMLINK_MAX",
                                  "PC_CHOWN_RESTRICTED")])
    site.note("bits of sizes", lambda: os.pathconf(".", "PC_FILESIZEBITS"))
    site.note("free blocks within all", lambda: found.f_bavail <= found.f_bfree <= found.f_blocks)
    name = site.file(b"x" * 5000)
    site.note("block size", lambda: os.stat(name).st_blksize)
    for size in (0, 1, 4096, 4097, 1_000_000):
        name = site.file(b"x" * size)
        with site.open(name) as fd:
            os.fsync(fd)
        site.note(f"blocks of {size}", lambda: os.stat(name).st_blocks)


CASES = [opening, modes_do_not_bind_who_has_it_open, sizes, reserving, holes, appending, direct,
         mapping, copies_inside_the_kernel, locks, attributes, capabilities_are_lost,
         seeking_in_a_listing, notifications, facts_of_the_file_system]
