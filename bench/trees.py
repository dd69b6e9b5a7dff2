"""What is stored: trees of random content whose shape is the same every time, and what is done with
them to prepare a measurement.
"""

import io
import os
import random
import tarfile

from competitors import run

MIB = 1 << 20
PER_FOLDER = 250


def makeTree(folder, files, sizes, mebibytes):
    """Small files of random content, and a large one; how many bytes they are together."""
    source = random.Random(1)
    total = 0
    for number in range(files):
        if number % PER_FOLDER == 0:
            place = folder / f"folder {number // PER_FOLDER}"
            place.mkdir(parents=True)
        content = os.urandom(source.randint(*sizes))
        (place / f"file {number}").write_bytes(content)
        total += len(content)
    if mebibytes:
        writeLarge(folder / "large", mebibytes)
    return total + mebibytes * MIB


def writeLarge(path, mebibytes):
    with open(path, "wb") as file:
        for _ in range(mebibytes):
            file.write(os.urandom(MIB))


def writeSourceArchive(path, files):
    """An archive of a tree like that of a large program's sources, two to five folders deep with
    about 14 files each, most of a few KiB and some of hundreds; how many bytes they are together.
    """
    source = random.Random(2)
    noise = os.urandom(2 * MIB)
    total = 0
    with tarfile.open(path, "w") as archive:
        folders = ["source"]
        addFolder(archive, folders[0])
        for number in range(files):
            if number % 14 == 0:
                folders.append(subfolder(source, folders))
                addFolder(archive, folders[-1])
            size = min(int(source.lognormvariate(8.4, 1.3)), MIB)
            start = source.randrange(MIB)
            entry = archiveEntry(f"{folders[-1]}/module_{number}.c")
            entry.size = size
            archive.addfile(entry, io.BytesIO(noise[start:start + size]))
            total += size
    return total


def subfolder(source, folders):
    while True:
        parent = source.choice(folders)
        if parent.count("/") < 5:
            return f"{parent}/part_{len(folders)}"


def addFolder(archive, name):
    entry = archiveEntry(name)
    entry.type = tarfile.DIRTYPE
    entry.mode = 0o755
    archive.addfile(entry)


def archiveEntry(name):
    entry = tarfile.TarInfo(name)
    entry.mtime = 1_700_000_000
    entry.uid, entry.gid = os.geteuid(), os.getegid()
    return entry


def readAll(tree):
    """Reads every file to its end."""
    run("sh", "-c", 'find "$1" -type f -exec cat {} + >/dev/null', "sh", tree)


def statAll(tree):
    """Looks at the size and time of everything, as its type alone would come with the names."""
    run("sh", "-c", 'find "$1" -printf "%s %T@\\n" >/dev/null', "sh", tree)


def warm(tree):
    """Has the tree in the page cache, and nothing else waiting for the disk."""
    readAll(tree)
    run("sync")
