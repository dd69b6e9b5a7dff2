"""The volume's server is killed at random moments while programs write to it.

Arguments: --kills N (20 unless told), --seed N.
"""

import argparse
import contextlib
import os
import pathlib
import random
import signal
import sys
import threading
import time
import unittest

from quillvane import eventually, pseudoRandom, serversOf
from volume import VolumeCase

options = argparse.Namespace(kills=20, seed=1)
GONE = None


def hasEnded(process):
    """Also when nobody has asked for its status yet: then all its files are closed."""
    try:
        stat = pathlib.Path(f"/proc/{process}/stat").read_text()
    except (FileNotFoundError, ProcessLookupError):
        return True
    return stat.rsplit(")", 1)[1].split()[0] in "ZX"


class Writer(threading.Thread):
    """Works in a directory of its own until the volume fails. `kept` is what was synced: names and
    contents; `between` holds, for a file that was changed since, the contents it may have instead.
    """

    def __init__(self, directory, seed):
        super().__init__(daemon=True)
        self.directory = pathlib.Path(directory)
        self.random = random.Random(seed)
        self.kept = {}
        self.between = {}

    def run(self):
        with contextlib.suppress(OSError):
            self.directory.mkdir(exist_ok=True)
            while True:
                self.random.choice((self.save, self.save, self.replace, self.remove, self.litter,
                                    self.holdOpen))()

    def content(self):
        return pseudoRandom(self.random.randrange(60_000), self.random.randrange(1 << 30))

    def write(self, path, content):
        with open(path, "wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())

    def save(self):
        """A file with a new name."""
        name = f"saved {self.random.randrange(1 << 30)}"
        content = self.content()
        self.write(self.directory / name, content)
        self.kept[name] = content

    def replace(self):
        """As an editor does: another file is written, and renamed over the first."""
        if not self.kept:
            return
        name = self.random.choice(sorted(self.kept))
        content = self.content()
        self.write(self.directory / "temporary", content)
        self.between.setdefault(name, []).append(content)
        os.rename(self.directory / "temporary", self.directory / name)
        if self.random.random() < 0.5:
            self.syncDirectory()
            self.kept[name] = self.between.pop(name)[-1]

    def remove(self):
        if len(self.kept) < 5:
            return
        name = self.random.choice(sorted(self.kept))
        self.between.setdefault(name, []).append(GONE)
        (self.directory / name).unlink()
        self.syncDirectory()
        del self.kept[name], self.between[name]

    def litter(self):
        """Much that nobody waits for."""
        for number in range(self.random.randrange(30)):
            path = self.directory / f"litter {self.random.randrange(50)}"
            if self.random.random() < 0.5:
                path.unlink(missing_ok=True)
            else:
                path.write_bytes(bytes(self.random.randrange(10_000)))

    def holdOpen(self):
        """A file that loses its name while it is written to."""
        path = self.directory / "nameless"
        with open(path, "wb", buffering=0) as file:
            path.unlink()
            file.write(self.content())

    def syncDirectory(self):
        fd = os.open(self.directory, os.O_RDONLY)
        try:
            os.fsync(fd)
        finally:
            os.close(fd)

    def problems(self):
        for name, content in self.kept.items():
            path = self.directory / name
            found = path.read_bytes() if path.exists() else GONE
            if found not in [content] + self.between.get(name, []):
                yield f"{path}: {'gone' if found is GONE else len(found)}, not {len(content)}"


class CrashTest(VolumeCase):

    size = "200m"

    def test_killedUnderLoad(self):
        for number in range(options.kills):
            with self.subTest(seed=options.seed, kill=number):
                self.killOnce(options.seed * 1000 + number)
        print(f"{options.kills} kills")

    def killServer(self):
        (server,) = serversOf(self.image)
        os.kill(server, signal.SIGKILL)
        self.assertTrue(eventually(lambda: hasEnded(server)))

    def killOnce(self, seed):
        writers = [Writer(self.volume / str(number), seed * 10 + number) for number in range(3)]
        for writer in writers:
            writer.start()
        time.sleep(random.Random(seed).random() * 0.6)
        self.killServer()
        for writer in writers:
            writer.join()
        self.attach()
        for writer in writers:
            self.assertEqual([], list(writer.problems()))
        self.detach()
        self.assertWhole()
        self.attach()

    def test_replaysQuickly(self):
        """However much there is on the volume, only the journal is looked at."""
        for number in range(3000):
            self.fileWith(f"file {number}", b"%d" % number)
        os.fsync(self.open_(self.volume, os.O_RDONLY))
        self.killServer()
        begin = time.monotonic()
        self.attach()
        self.assertLess(time.monotonic() - begin, 2)
        self.assertEqual(3000, len(os.listdir(self.volume)))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--kills", type=int, default=20)
    parser.add_argument("--seed", type=int, default=1)
    _, rest = parser.parse_known_args(namespace=options)
    unittest.main(argv=sys.argv[:1] + rest)
