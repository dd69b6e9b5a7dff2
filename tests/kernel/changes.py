"""What each side does to a mounted volume, so that the other has to cope with it.

As a program: changes.py STEP FOLDER LISTING takes the step of that name (or none, with "look") and
then writes a description of the tree (see quillvane.describe).
"""

import ctypes
import os
import pathlib
import pickle
import socket
import subprocess
import sys
import traceback

import quillvane

MANY = 10_000   # entries, more than one block of a hash tree's index holds leaves for
BLOCK = 4096
LONG = "ü" * 127


def lockedTree(folder):
    """Makes the folder that becomes an item; devices only when that is allowed."""
    folder = quillvane.makeTree(folder)
    (folder / "crowd").mkdir()
    for number in range(5000):
        (folder / f"crowd/{number:04} – наименование").write_text(f"{number}\n")
    (folder / "composed é").write_text("one code point\n")
    (folder / "composed e\u0301").write_text("two code points\n")
    (folder / LONG).mkdir()
    os.setxattr(folder / "crowd", "user.large", quillvane.pseudoRandom(2000, 2))
    os.symlink("y" * 59, folder / "link inside the inode")
    os.symlink("z" * 60, folder / "link in a block")
    if os.geteuid() == 0:
        os.mknod(folder / "null", 0o20620, os.makedev(1, 3))
        os.mknod(folder / "disk", 0o60600, os.makedev(259, 1 << 18))
        os.lchown(folder / "dangling", 12345, 23456)
        os.chown(folder / "letters/run.sh", 70000, 80000)
        os.setxattr(folder / "null", "trusted.note", b"root's own")
    os.utime(folder / "photo.raw", ns=(1, 4_102_444_800_999_999_999))  # in 2100
    os.utime(folder, ns=(9, 1_500_000_000_000_000_009))
    return folder


def byKernel(folder):
    """The first turn of the kernel: new things of every kind."""
    new = folder / "by the kernel"
    new.mkdir()
    _makeNames(new / "hashed", range(MANY))
    _writeLarge(new / "large", 160)
    _writeFragments(new / "fragments", 3000)
    with open(new / "sparse", "wb") as file:
        for offset in (0, 5 << 20, 300 << 20):
            os.pwrite(file.fileno(), b"island", offset)
        file.truncate(1 << 30)
    with open(new / "reserved", "wb") as file:
        os.posix_fallocate(file.fileno(), 0, 8 << 20)
        os.pwrite(file.fileno(), b"in the middle", 3 << 20)
        _reserveBeyondEnd(file, 8 << 20, 1 << 20)
    _kinds(new)
    _attributes(new, os.getuid())
    for number in range(0, 5000, 5):
        os.unlink(folder / f"crowd/{number:04} – наименование")
    for number in range(1, 1000, 5):
        os.rename(folder / f"crowd/{number:04} – наименование", folder / f"crowd/renamed {number}")
    os.rename(folder / "letters/empty folder", new / "empty folder")
    os.rename(folder / "empty", folder / "letters/ada.txt")
    with open(folder / "photo.raw", "ab") as file:
        file.write(b"appended by the kernel")
    os.truncate(folder / "sparse", 6_000_000)
    os.removexattr(folder / "crowd", "user.large")


def byServer(folder):
    """Our turn on what the kernel left."""
    new = folder / "by the kernel"
    for number in range(0, MANY, 3):
        os.unlink(new / f"hashed/name {number}")
    _makeNames(new / "hashed", range(MANY, MANY + 500))
    for number in range(1, 300, 3):
        os.rename(new / f"hashed/name {number}", new / f"hashed/renamed {number} {'ü' * 100}")
    _writeFragments(new / "fragments", 500, start=1)
    with open(new / "reserved", "r+b") as file:
        os.pwrite(file.fileno(), b"by the server", (5 << 20) + 17)
        os.pwrite(file.fileno(), b"beyond the old end", (8 << 20) + 5000)
    with open(new / "large", "ab") as file:
        file.write(quillvane.pseudoRandom(40 << 20, 3))
    os.truncate(new / "sparse", 301 << 20)
    os.setxattr(new / "attributes", "user.large", quillvane.pseudoRandom(1000, 4))
    os.removexattr(new / "attributes", "user.small")
    os.unlink(new / "hard link")
    os.link(new / "large", folder / "large too")
    os.rename(new / "empty folder", folder / "empty folder")
    os.mkdir(folder / "empty folder/not any more")
    os.rmdir(folder / LONG)
    os.unlink(folder / "composed é")
    subprocess.run(["setfacl", "-x", f"u:{os.getuid() + 7}", new / "attributes"], check=True)


def byKernelAgain(folder):
    """The kernel goes on with what our turn left."""
    _makeNames(folder / "by the kernel/hashed", range(2 * MANY, 2 * MANY + 2000))
    _makeNames(folder / "empty folder/not any more", range(300))
    _writeFragments(folder / "by the kernel/fragments", 1500, start=1)
    os.unlink(folder / "by the kernel/large")
    os.truncate(folder / "large too", 100 << 20)
    for number in range(2, 5000, 5):
        os.unlink(folder / f"crowd/{number:04} – наименование")


def untilPowerCut(folder):
    """Syncs the first part of what it does, says so on the console and goes on without an end."""
    (folder / "synced").mkdir()
    _makeNames(folder / "synced", range(1000))
    os.rename(folder / "letters/ada.txt", folder / "synced/ada.txt")
    os.unlink(folder / "photo.raw")
    with open(folder / "synced/content", "wb") as file:
        file.write(quillvane.pseudoRandom(1 << 20, 5))
        os.fsync(file.fileno())
    descriptor = os.open(folder / "synced", os.O_RDONLY)
    os.fsync(descriptor)
    print("READY FOR THE POWER CUT", flush=True)
    for number in range(1 << 30):
        _makeNames(folder, [f"unsynced {number}"])
        if number % 50 == 0:
            os.fsync(descriptor)


def _makeNames(folder, numbers):
    folder.mkdir(exist_ok=True)
    for number in numbers:
        path = folder / f"name {number}"
        with open(path, "xb") as file:
            if str(number).endswith("00"):
                file.write(b"%d\n" % hash(number))


def _writeLarge(path, mebibytes):
    block = quillvane.pseudoRandom(1 << 20, 6)
    with open(path, "xb") as file:
        for number in range(mebibytes):
            file.write(b"%04d" % number + block[4:])


def _writeFragments(path, count, start=0):
    """Writes every other block, so that there are as many extents and their tree gets depth."""
    with open(path, "r+b" if path.exists() else "xb") as file:
        for number in range(count):
            os.pwrite(file.fileno(), b"%8d" % number * 400, (2 * number + start) * BLOCK)


def _reserveBeyondEnd(file, offset, length):
    keepSize = 1
    libc = ctypes.CDLL(None, use_errno=True)
    arguments = (ctypes.c_int(file.fileno()), ctypes.c_int(keepSize), ctypes.c_long(offset),
                 ctypes.c_long(length))
    if libc.fallocate(*arguments) != 0:
        raise OSError(ctypes.get_errno(), "fallocate")


def _kinds(folder):
    os.symlink("large", folder / "link")
    os.symlink("q" * 4000, folder / "longest link")
    os.link(folder / "large", folder / "hard link")
    os.mkfifo(folder / "fifo")
    with socket.socket(socket.AF_UNIX) as endpoint:
        # The address of a socket is short, wherever the folder is.
        os.chdir(folder)
        endpoint.bind("socket")
    (folder / LONG).write_text(LONG)
    deep = folder
    for level in range(50):
        deep = deep / f"level {level}"
        deep.mkdir()
    (deep / "bottom").write_text("found\n")
    for year, time in ((1910, -1_893_456_000_000_000_001), (2400, 13_569_465_600_123_456_789)):
        (folder / str(year)).touch()
        os.utime(folder / str(year), ns=(time, time))
    if os.geteuid() == 0:
        os.mknod(folder / "device", 0o20600, os.makedev(10, 1 << 17))
        os.chown(folder / "fifo", 4_000_000_000, 3_000_000_000)


def _attributes(folder, owner):
    file = folder / "attributes"
    file.write_text("many\n")
    os.setxattr(file, "user.small", b"in the inode")
    os.setxattr(file, "user.large", quillvane.pseudoRandom(2500, 8))
    os.setxattr(file, "user.empty", b"")
    (folder / "shares a block").write_text("of attributes\n")
    for path in (folder / "shares a block", folder / "also shares it"):
        path.touch()
        os.setxattr(path, "user.large", quillvane.pseudoRandom(3000, 9))
    subprocess.run(["setfacl", "-m", f"u:{owner + 7}:rw,g:{owner + 8}:r,m::r", file], check=True)
    subprocess.run(["setfacl", "-d", "-m", f"u:{owner + 7}:rwx", folder], check=True)


def asOwner(folder, step):
    """Takes the step in a process of the folder's owner, so that what is new belongs to him."""
    owner = os.stat(folder)
    child = os.fork()
    if child == 0:
        status = 1
        try:
            if os.geteuid() != owner.st_uid:
                os.setgroups([])
                os.setgid(owner.st_gid)
                os.setuid(owner.st_uid)
            step(folder)
            status = 0
        except BaseException:
            traceback.print_exc()
        finally:
            sys.stderr.flush()
            os._exit(status)
    _, status = os.waitpid(child, 0)
    if status != 0:
        sys.exit("the step failed")


def main():
    step, folder, listing = sys.argv[1], pathlib.Path(sys.argv[2]), sys.argv[3]
    if step != "look":
        asOwner(folder, globals()[step])
    with open(listing, "wb") as file:
        pickle.dump(quillvane.describe(folder), file)


if __name__ == "__main__":
    main()
