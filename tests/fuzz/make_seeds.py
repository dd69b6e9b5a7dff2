#!/usr/bin/env python3
"""make_seeds.py FOLDER: makes the seeds of the fuzz targets, in FOLDER/volume and FOLDER/luks_header.

They are volumes and headers as the tools of others make them, in the form that
tests/fuzz/SparseInput.h describes. Those in tests/data/fuzz were made by this script, but for the
ones whose names begin with "found": these are inputs that once did harm.
Needs e2fsprogs and cryptsetup.
"""

import os
import pathlib
import re
import struct
import subprocess
import sys
import tempfile

UNIT = 4096
FIX_CHECKSUMS = 1
MARK = b"\0" * 8  # a gap that is worth a new patch


def encoded(image):
    output = [struct.pack("<BBH", FIX_CHECKSUMS, 0, len(image) // UNIT)]
    for number in range(len(image) // UNIT):
        unit = image[number * UNIT:(number + 1) * UNIT]
        at = 0
        while (found := re.compile(rb"[^\0]").search(unit, at)) is not None:
            end = unit.find(MARK, found.start())
            end = len(unit) if end < 0 else end
            data = unit[found.start():end].rstrip(b"\0")
            output.append(struct.pack("<HHH", number, found.start(), len(data)) + data)
            at = end
    return b"".join(output)


def run(*command, **options):
    subprocess.run([str(word) for word in command], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL, **options)


def tree(folder):
    """A bit of everything that a volume can hold."""
    (folder / "directory/below").mkdir(parents=True)
    (folder / "file").write_bytes(b"contents\n" * 3)
    (folder / "directory/empty").write_bytes(b"")
    os.link(folder / "file", folder / "directory/second name")
    (folder / "short link").symlink_to("file")
    (folder / "long link").symlink_to("x" * 200)
    os.mkfifo(folder / "directory/below/fifo")
    os.setxattr(folder / "file", "user.short", b"value")
    os.setxattr(folder / "directory", "user.long", b"v" * 600)
    with open(folder / "sparse", "wb") as file:  # enough pieces for a tree of extents
        for piece in range(90):
            file.seek(piece * 3 * UNIT)
            file.write(b"x")


def volume(name, target, blocks, features, *options, many=0, optimize=False):
    with tempfile.TemporaryDirectory() as work:
        work = pathlib.Path(work)
        (work / "tree").mkdir()
        tree(work / "tree")
        for number in range(many):
            (work / "tree/directory" / f"name {number} of many {'y' * 60}").touch()
        image = work / "image"
        run("/usr/sbin/mke2fs", "-q", "-F", "-t", "ext4", "-b", UNIT, "-I", 256, "-m", 0,
            "-O", features, "-U", "11111111-2222-3333-4444-555555555555",
            "-E", "hash_seed=11111111-2222-3333-4444-666666666666,root_owner=0:0,nodiscard",
            "-d", work / "tree", *options, image, blocks)
        if optimize:  # makes a hash tree, as a kernel would
            subprocess.run(["/usr/sbin/e2fsck", "-fyD", image], stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL, check=False)
        subprocess.run(["/usr/sbin/e2fsck", "-fn", image], check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        (target / name).write_bytes(encoded(image.read_bytes()))


def header(name, target, *options):
    """Both headers; keyslots would be noise, so no passphrase opens it. The name has no digits, which
    the target would take for a high cost."""
    with tempfile.TemporaryDirectory() as work:
        image = pathlib.Path(work) / "image"
        image.write_bytes(bytes(20 << 20))
        cryptsetup = ["/usr/sbin/cryptsetup", "--batch-mode", "--key-file", "-"]
        run(*cryptsetup, "luksFormat", "--type", "luks2", "--luks2-metadata-size", "16k",
            "--luks2-keyslots-size", "512k", "--offset", 2048,
            "--uuid", "aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee", *options, image,
            input=b"passphrase")
        content = image.read_bytes()
        (target / name).write_bytes(encoded(content[:32768] + bytes(2 << 20)))


def main():
    folder = pathlib.Path(sys.argv[1])
    target = folder / "volume"
    target.mkdir(parents=True, exist_ok=True)
    volume("checksums", target, 512, "metadata_csum,64bit,^has_journal", "-N", 64)
    volume("journal", target, 1536, "metadata_csum,64bit", "-N", 64, "-J", "size=4")
    volume("hash_tree", target, 512, "metadata_csum,64bit,^has_journal", "-N", 160, many=110,
           optimize=True)
    volume("groups", target, 512, "metadata_csum,meta_bg,^resize_inode,64bit,^has_journal",
           "-N", 64, "-g", 256)
    volume("plain", target, 512, "^metadata_csum,^64bit,^has_journal,^flex_bg", "-N", 64)
    volume("old_checksums", target, 512, "^metadata_csum,uninit_bg,^64bit,^has_journal",
           "-N", 64)
    volume("block_lists", target, 512,
           "^metadata_csum,^extents,^64bit,^has_journal,^flex_bg,^dir_index", "-N", 64)

    target = folder / "luks_header"
    target.mkdir(parents=True, exist_ok=True)
    quick = ("--pbkdf", "pbkdf2", "--pbkdf-force-iterations", "1000")
    header("ours", target, *quick, "--sector-size", "4096", "--key-size", "512")
    header("small_sectors", target, *quick, "--sector-size", "512", "--key-size", "256")
    header("argon2", target, "--pbkdf", "argon2id", "--pbkdf-force-iterations", "4",
           "--pbkdf-memory", "32", "--pbkdf-parallel", "1")


if __name__ == "__main__":
    main()
