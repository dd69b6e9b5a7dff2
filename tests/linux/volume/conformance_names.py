"""Creating, linking, renaming and removing: every kind of entry, every error, every link count."""

import contextlib
import errno
import itertools
import os
import shutil
import stat
import subprocess

from sites import (AT_FDCWD, KINDS, call, fallocate, madeBy, outcome, removed, renameAt)

NOREPLACE, EXCHANGE, WHITEOUT = 1, 2, 4
# What every call that takes a name does with one that leads nowhere.
CALLS = {
    "stat": os.stat, "lstat": os.lstat, "open": lambda name: os.close(os.open(name, os.O_RDONLY)),
    "create": lambda name: os.close(os.open(name, os.O_CREAT, 0o644)),
    "create anew": lambda name: os.close(os.open(name, os.O_CREAT | os.O_EXCL, 0o644)),
    "open folder": lambda name: os.close(os.open(name, os.O_RDONLY | os.O_DIRECTORY)),
    "open no link": lambda name: os.close(os.open(name, os.O_RDONLY | os.O_NOFOLLOW)),
    "open to write": lambda name: os.close(os.open(name, os.O_WRONLY | os.O_NONBLOCK)),
    "truncate": lambda name: os.truncate(name, 3), "chmod": lambda name: os.chmod(name, 0o700),
    "chown": lambda name: os.chown(name, 5, 5), "lchown": lambda name: os.lchown(name, 6, 6),
    "mkdir": os.mkdir, "mkfifo": os.mkfifo, "mknod": lambda name: os.mknod(name, 0o20644, 259),
    "symlink": lambda name: os.symlink("x", name), "readlink": os.readlink, "unlink": os.unlink,
    "rmdir": os.rmdir, "listdir": lambda name: sorted(os.listdir(name)),
    "utime": lambda name: os.utime(name, (7, 8)),
    "link from": lambda name: os.link(name, "linked", follow_symlinks=False),
    "link to": lambda name: os.link("present", name), "rename": lambda name: os.rename(name, "moved"),
    "rename to": lambda name: os.rename("present", name),
    "getxattr": lambda name: os.getxattr(name, "user.a"),
    "setxattr": lambda name: os.setxattr(name, "user.a", b"1"), "listxattr": os.listxattr,
    "chdir": lambda name: entered(name),
}


def entered(name):
    back = os.open(".", os.O_RDONLY)
    try:
        os.chdir(name)
        os.fchdir(back)
    finally:
        os.close(back)


def quiet(work, *arguments):
    """As `work`, without what differs between any two file systems."""
    result = work(*arguments)
    return described(result) if isinstance(result, os.stat_result) else result


def described(status):
    return oct(status.st_mode), status.st_nlink, status.st_uid


def errors_of_names(site):
    awkward = ["missing", "missing/x", "file/x", "file/", "file/.", "folder/", "folder/.", "folder/..",
               ".", "..", "", "loop", "loop/x", "dangling", "dangling/", "to folder", "to folder/",
               "to file", "to file/", "n" * 255, "n" * 256, "folder/" + "n" * 256, "fifo/x", "full",
               "full/", "to loop", "/".join(["folder/.."] * 420) + "/x", "a\nb\\ \x7f"]
    for label, work in CALLS.items():
        for name in awkward:
            holder = site.fresh()
            os.mkdir(holder)
            os.chdir(holder)
            site.file(b"12345", name="file")
            site.file(b"x", name="present")
            site.make("fifo", "fifo")
            os.mkdir("folder")
            os.makedirs("full/inner")
            for target, link in (("loop", "loop"), ("nowhere", "dangling"), ("folder", "to folder"),
                                 ("file", "to file"), ("loop", "to loop")):
                os.symlink(target, link)
            site.note(f"{label} {name:.20}", quiet, work, name)
            site.note(f"{label} {name:.20}: after", lambda: sorted(
                (name, described(os.lstat(name))) for name in os.listdir(".")))
            os.chdir(site.root)


def paths_up_to_the_longest(site):
    for length in (4094, 4095, 4096, 4097):
        folder = "/".join(["d" * 250] * 15)
        os.makedirs(folder, exist_ok=True)
        name = folder + "/" + "f" * (length - 1 - len(folder) - 1)
        for kind in ("regular", "directory", "fifo", "symlink"):
            site.note(f"{kind} {length}", madeBy, kind, name)
            site.note(f"{kind} {length} seen", lambda: stat.S_IFMT(os.lstat(name).st_mode))
            site.note(f"{kind} {length} removed", removed, name)
    for length in (1, 58, 59, 60, 61, 254, 4094, 4095, 4096):
        link = site.fresh()
        site.note(f"target of {length}", os.symlink, "t" * length, link)
        site.note(f"target of {length} read", os.readlink, link)
        site.facts(link)


def names_of_every_byte(site):
    for size in (1, 4, 100, 254, 255, 256, 300):
        for kind in KINDS:
            if kind == "socket" and size > 100:
                continue
            name = "x" * size
            site.note(f"{kind} {size}", madeBy, kind, name)
            site.note(f"{kind} {size} listed", lambda: sorted(os.listdir(".")))
            site.note(f"{kind} {size} removed", removed, name)
        os.close(os.open("source", os.O_CREAT, 0o644))
        site.note(f"link {size}", os.link, "source", "x" * size)
        site.note(f"rename {size}", os.rename, "source", "x" * size)
        for name in ("source", "x" * size):
            outcome(os.unlink, name)
    raw = [bytes([byte]) for byte in range(1, 256) if byte not in b"/."]
    for name in raw + [b"\xff\xfe", b"...", b". ", "ä".encode(), "ä".encode()]:
        site.note(f"{name!r}", lambda: os.close(os.open(name, os.O_CREAT | os.O_EXCL, 0o644)))
    site.note("all of them", lambda: sorted(os.listdir(b".")))


def creating(site):
    for kind, mode, umask in itertools.product(
            KINDS, (0, 0o111, 0o644, 0o777, 0o7777, 0o4751), (0, 0o022, 0o077, 0o777)):
        name = site.fresh()
        before = os.umask(umask)
        site.note(f"{kind} {mode:o} umask {umask:o}", madeBy, kind, name, mode)
        os.umask(before)
        site.facts(name)
        site.note("again", madeBy, kind, name, mode)
        site.note("removed as a file", os.unlink, name)
        site.note("removed as a folder", os.rmdir, name)
        site.note("gone", lambda: os.lstat(name).st_mode)


def links(site):
    for kind in KINDS:
        name = site.make(kind)
        other, third = site.fresh(), site.fresh()
        site.note(f"{kind}", os.link, name, other, follow_symlinks=False)
        site.note(f"{kind} again", os.link, name, other, follow_symlinks=False)
        site.note(f"{kind} of the link", os.link, other, third, follow_symlinks=False)
        for each in (name, other, third):
            site.facts(each)
        site.note("same", lambda: os.lstat(name).st_ino == os.lstat(third).st_ino)
        site.note("changed through one", os.chmod, third, 0o201)
        site.note("moved onto its link", os.rename, name, other)
        site.note("names", lambda: sorted(os.listdir(".")))
        site.note("one gone", os.unlink, other)
        site.facts(third)
    site.note("through a symbolic link", os.link, site.make("symlink"), "followed")
    site.facts("followed")
    folder = site.folder()
    site.note("of a removed file", linkOfRemoved, site, folder)


def linkOfRemoved(site, folder):
    name = site.file()
    with site.open(name) as fd:
        os.unlink(name)
        os.link(f"/proc/self/fd/{fd}", f"{folder}/back", follow_symlinks=True)


def folders_count_their_folders(site):
    def counts():
        return [os.stat(name).st_nlink for name in (".", "a", "b")]
    for name in ("a", "b"):
        os.mkdir(name)
    for label, work in [
            ("make", lambda: os.mkdir("a/1")), ("second", lambda: os.mkdir("a/2")),
            ("file", lambda: site.make("regular", "a/f")),
            ("across", lambda: os.rename("a/1", "b/1")), ("within", lambda: os.rename("b/1", "b/3")),
            ("over", lambda: os.rename("a/2", "b/3")), ("exchange", lambda: renameAt("a/f", "b/3", 2)),
            ("back", lambda: renameAt("a/f", "b/3", 2)), ("remove", lambda: os.rmdir("b/3")),
            ("onto itself", lambda: os.rename("a", "a")), ("into itself", lambda: os.rename("a", "a/x")),
            ("parent", lambda: os.lstat("b/..").st_ino == os.lstat(".").st_ino)]:
        site.note(label, work)
        site.note(f"{label}: counts", counts)


def renames(site):
    """Each kind over each, in one folder and across two, with each flag."""
    states = ["missing", "full folder"] + KINDS
    for source, target, across, flags in itertools.product(
            states, states, (False, True), (0, NOREPLACE, EXCHANGE, NOREPLACE | EXCHANGE)):
        holder = site.folder()
        os.mkdir(f"{holder}/in")
        os.mkdir(f"{holder}/out")
        one, other = f"{holder}/in/one", f"{holder}/{'out' if across else 'in'}/other"
        for state, name in ((source, one), (target, other)):
            if state == "full folder":
                os.makedirs(f"{name}/inner")
            elif state != "missing":
                site.make(state, name)
        label = f"{source} over {target}, {across} {flags}"
        site.note(label, renameAt, one, other, flags)
        site.note(f"{label}: after", tree, holder)


def tree(top):
    found = []
    for folder, folders, files in os.walk(top):
        found += [(name, described(os.lstat(f"{folder}/{name}"))) for name in folders + files]
    return sorted(found)


def odd_renames(site):
    os.makedirs("a/b/c")
    os.makedirs("other/full")
    site.file(b"1", name="file")
    os.link("file", "same")
    os.symlink("a", "to a")
    for old, new in [("a", "a/b"), ("a", "a/b/c/d"), ("a/b", "a"), ("a/b/c", "a"), ("a", "a"),
                     ("a/.", "x"), ("a/..", "x"), ("a", "x/."), (".", "x"), ("..", "x"), ("a", ".."),
                     ("a", "other/."), ("file", "same"), ("file", "file"), ("file/", "x"),
                     ("file", "x/"), ("a/", "x/"), ("x/", "a"), ("to a", "link"), ("to a/", "link"),
                     ("file", "other"), ("other", "file"), ("a", "other"), ("other/full", "a/b"),
                     ("missing", "file"), ("missing", "missing"), ("", "x"), ("file", "")]:
        for flags in (0, NOREPLACE, EXCHANGE):
            site.note(f"{old} to {new} {flags}", renameAt, old, new, flags)
            site.note("after", tree, ".")
    for flags in (8, 5, 6, 7, 0x100):
        site.note(f"flags {flags}", renameAt, "file", "same", flags)


def leaving_a_whiteout(site):
    os.mkdir("folder")
    for target in ("new", "present", "folder/new"):
        name = site.file(b"x")
        if target == "present":
            site.make("regular", target)
        site.note(target, renameAt, name, target, WHITEOUT)
        site.facts(name)
        site.facts(target)
        site.note("and once more", renameAt, name, "white", WHITEOUT | NOREPLACE)
        site.facts(name)
        outcome(os.unlink, "white")


def removing(site):
    for kind in KINDS:
        name = site.make(kind)
        site.note(f"rmdir {kind}", os.rmdir, name)
        site.note(f"unlink {kind}", os.unlink, name)
        site.note(f"unlink {kind} again", os.unlink, name)
    os.makedirs("full/inner")
    for name in ("full", "full/.", "full/..", "full/inner/", "full/inner/..", ".", "..", "full/inner/."):
        site.note(f"rmdir {name}", os.rmdir, name)
        site.note(f"unlink {name}", os.unlink, name)
    os.makedirs("gone")
    fd = os.open("gone", os.O_RDONLY)
    os.rmdir("gone")
    for label, work in {
            "stat": lambda: os.fstat(fd).st_nlink, "list": lambda: os.listdir(fd),
            "create": lambda: os.open("x", os.O_CREAT, dir_fd=fd),
            "mkdir": lambda: os.mkdir("x", dir_fd=fd), "up": lambda: os.stat("..", dir_fd=fd).st_nlink,
            "symlink": lambda: os.symlink("x", "y", dir_fd=fd),
            "link": lambda: os.link(site.file(), "x", dst_dir_fd=fd),
            "rename": lambda: os.rename(site.file(), "x", dst_dir_fd=fd),
            "look": lambda: os.stat("x", dir_fd=fd), "sync": lambda: os.fsync(fd)}.items():
        site.note(f"in a removed folder: {label}", work)
    os.close(fd)


def removed_but_open(site):
    name = site.file(b"content", mode=0o644)
    with site.open(name) as fd:
        os.unlink(name)
        for label, work in {
                "status": lambda: described(os.fstat(fd)), "read": lambda: os.pread(fd, 20, 0),
                "write": lambda: os.pwrite(fd, b"more", 7), "truncate": lambda: os.ftruncate(fd, 3),
                "mode": lambda: os.fchmod(fd, 0o600), "owner": lambda: os.fchown(fd, 5, 5),
                "times": lambda: os.utime(fd, (1, 2)), "xattr": lambda: os.setxattr(fd, "user.a", b"1"),
                "xattr read": lambda: os.getxattr(fd, "user.a"),
                "reserve": lambda: fallocate(fd, 0, 0, 9000), "sync": lambda: os.fsync(fd),
                "through proc": lambda: os.close(os.open(f"/proc/self/fd/{fd}", os.O_RDONLY)),
                "status after": lambda: described(os.fstat(fd))}.items():
            site.note(label, work)
    with site.open(site.file(b"1")) as fd, site.open(site.file(b"2")) as over:
        names = sorted(os.listdir("."))
        os.rename(names[0], names[1])
        site.note("replaced", lambda: (os.fstat(over).st_nlink, os.fstat(fd).st_nlink,
                                       os.pread(over, 9, 0)))


def temporary_files(site):
    site.note("open", lambda: os.close(os.open(".", os.O_TMPFILE | os.O_RDWR, 0o600)))


def listing_while_entries_come_and_go(site):
    for number in range(300):
        os.close(os.open(f"old{number}", os.O_CREAT, 0o644))
    found = []
    with os.scandir(".") as entries:
        for number, entry in enumerate(entries):
            found.append(entry.name)
            with contextlib.suppress(OSError):
                os.unlink(f"old{299 - number}")
            if number < 100:
                os.close(os.open(f"new{number}", os.O_CREAT, 0o644))
    site.note("none twice", lambda: len(found) == len(set(found)))
    site.note("left", lambda: sorted(os.listdir(".")))
    held = [name for name in found if name.startswith("old")]
    site.note("what stayed was listed", lambda: set(os.listdir(".")) - set(found) - {
        f"new{number}" for number in range(100)})
    site.note("at least half", lambda: len(held) >= 100)


def most_links(site):
    site.file(name="file")
    made = 1
    with contextlib.suppress(OSError):
        while made < 66_000:
            os.link("file", f"link{made}")
            made += 1
    site.note("links", lambda: (made, os.stat("file").st_nlink))
    site.note("one more", os.link, "file", "more")
    site.note("one less", os.unlink, "link5")
    site.note("one more then", os.link, "file", "more")
    for name in os.listdir("."):
        os.unlink(name)


def system_call_errors(site):
    name = site.file(b"1234")
    for label, work in {
            "unlinkat flags": lambda: call("unlinkat", AT_FDCWD, name.encode(), 0x4000),
            "linkat flags": lambda: call("linkat", AT_FDCWD, b"a", AT_FDCWD, b"b", 0x4000),
            "link empty": lambda: os.link("", "x"), "not a folder": lambda: os.listdir(name),
            "closed": lambda: os.fstat(9999), "name in a file": lambda: os.stat("x", dir_fd=9999),
            "read only": lambda: withFile(site, name, os.O_RDONLY, lambda fd: os.write(fd, b"1")),
            "write only": lambda: withFile(site, name, os.O_WRONLY, lambda fd: os.read(fd, 1)),
            "path only": lambda: withFile(site, name, os.O_PATH, lambda fd: os.read(fd, 1)),
            "folder read": lambda: withFile(site, ".", os.O_RDONLY, lambda fd: os.read(fd, 1)),
            "folder to write": lambda: os.open(".", os.O_WRONLY),
            "folder created": lambda: os.open(".", os.O_RDONLY | os.O_CREAT),
            "running program": lambda: runAndWrite(site)}.items():
        site.note(label, work)


def withFile(site, name, flags, work):
    with site.open(name, flags) as fd:
        return work(fd)


def runAndWrite(site):
    shutil.copy("/bin/sleep", "program")
    running = subprocess.Popen(["./program", "100"])
    try:
        found = []
        for work in (lambda: os.open("program", os.O_WRONLY), lambda: os.truncate("program", 1)):
            try:
                found.append(work())
            except OSError as error:
                found.append(errno.errorcode[error.errno])
        return found
    finally:
        running.kill()
        running.wait()


CASES = [errors_of_names, paths_up_to_the_longest, names_of_every_byte, creating, links,
         folders_count_their_folders, renames, odd_renames, leaving_a_whiteout, removing,
         removed_but_open, temporary_files, listing_while_entries_come_and_go, most_links,
         system_call_errors]
