"""What the tests of this folder share: qv's commands, and a tree with everything that is hard."""

import contextlib
import os
import pathlib
import random
import re
import subprocess

import quillvane
from quillvane import QV

PASSWORD = "correct horse – \\ \"battery\" staple "
KEY = re.compile(r"([A-Z2-7]{4}-){7}[A-Z2-7]{4}")


def keyFile(item):
    """Where the key file of an item, or of a working image, lies."""
    item = pathlib.Path(item)
    return item.with_name(f".{item.name}.qvkeys")


class ItemCase(quillvane.Case):
    """A test of qv's commands, which run in `work`."""

    def qv(self, *words, secrets=(PASSWORD,), **options):
        """Runs a command that gets its secrets, one a line, on standard input."""
        stdin = "".join(secret + "\n" for secret in secrets)
        return self.run_(QV, *words, *(["--stdin"] if secrets else []), stdin=stdin, **options)

    def succeed(self, *words, **options):
        """Runs a command that has to succeed; what it prints, without the line feed at the end."""
        result = self.qv(*words, **options)
        self.assertEqual(0, result.returncode, result)
        return result.stdout.removesuffix("\n")

    def assertFails(self, *words, says, **options):
        """Runs a command that has to fail with exactly this message after its progress."""
        result = self.qv(*words, **options)
        self.assertEqual((1, ""), (result.returncode, result.stdout), result)
        self.assertEndsWith("\n" + says + "\n", "\n" + result.stderr)
        return result

    def assertRefused(self, *words, **options):
        """Runs a command that has to fail with this message and change nothing."""
        before = quillvane.describe(self.work)
        self.assertFails(*words, **options)
        self.assertEqual([], quillvane.differences(before, quillvane.describe(self.work)))
        self.assertNothingRuns()

    def assertOffered(self, path, says):
        """What comes before the line that offers to finish or undo what was left."""
        text, offer = says[:-1].rsplit("\n", 1)
        self.assertTrue(offer.endswith(
            f' To end this: qv finish "{path}" or qv undo "{path}"'), says)
        return text + "\n"

    def assertEndsWith(self, expected, text):
        self.assertEqual(expected, text[-len(expected):])

    def faulty(self, inject, *words, secrets=(PASSWORD,), children=True, timeout=60):
        """Runs qv with faults in the system calls of it and its tools, or of its main thread alone;
        its status and all it says. A volume's server that stays goes on with its faults."""
        log = self.directory / "said"
        with open(log, "w+") as said:
            # Detached (-D), strace does not keep us waiting for such a server.
            process = subprocess.Popen(
                ["strace", "-D", *(["-f"] if children else []), "-qq", "-o", "/dev/null", "-e",
                 f"trace={inject.split(':')[0]}", "-e", f"inject={inject}",
                 QV, *words, "--stdin"], cwd=self.work, text=True,
                # A traced process cannot trace itself, as the leak checker has to.
                env=self.environment | {"ASAN_OPTIONS": "detect_leaks=0"},
                stdin=subprocess.PIPE, stdout=said, stderr=said)
            # One that is killed at its start does not read it.
            with contextlib.suppress(BrokenPipeError), process.stdin:
                process.stdin.write("".join(secret + "\n" for secret in secrets))
            process.wait(timeout)
            said.seek(0)
            return process.returncode, said.read()

    def lock(self, folder, **options):
        """Protects a folder; its item's path and recovery key."""
        item, key = self.succeed("lock", folder, **options).rsplit("\n", 1)
        self.assertRegex(key, f"^{KEY.pattern}$")
        return pathlib.Path(item), key

    def open(self, item, *options, **more):
        return pathlib.Path(self.succeed("open", item, *options, **more))

    def close(self, item):
        self.assertEqual("", self.succeed("close", item, secrets=()))
        self.assertNothingRuns()

    def remove(self, item, *options, **more):
        return pathlib.Path(self.succeed("remove", item, *options, **more))

    def assertNothingRuns(self):
        self.assertEqual([], quillvane.mountsBelow(self.directory))
        self.assertEqual([], quillvane.serversOf(self.directory))

    def assertNothingLeft(self, *entries, notes=0):
        """Nothing is there but these entries of `work` and so many notes of operations that have not
        come to their end, and nothing runs."""
        self.assertNothingRuns()
        self.assertEqual(sorted(map(str, entries)), sorted(os.listdir(self.work)))
        for place in (self.home, self.runtime):
            files = [entry for entry in place.rglob("*") if not entry.is_dir()]
            self.assertEqual([], [file for file in files if file not in self.notes()])
        self.assertEqual(notes, len(self.notes()))

    def notes(self):
        """The notes of operations that have not come to their end."""
        return list((self.home / ".local/state/quillvane/operations").glob("*"))

    def smallFolder(self, name="Docs"):
        """Makes a folder with one file; its path."""
        folder = self.work / name
        folder.mkdir(parents=True)
        (folder / "file").write_text("content")
        return folder

    def smallItem(self, name="Docs"):
        """An item made of such a folder, and its recovery key."""
        return self.lock(self.smallFolder(name))


def addHardNames(folder):
    """Adds a folder of files whose names are hard to handle."""
    names = [
        "with space", " leading", "trailing ", "a\nb", "tab\there", "\\", "back\\slash", "'", '"',
        "`id`", "$HOME", "*", "?", "-rf", "--", "-", "...", "..a", "~", "#", "%s%n", "\x01\x7f",
        "\u00e4 composed", "a\u0308 decomposed", "\u5199\u771f", "\U0001f600",
        "\u202egnp.exe", "n" * 255, "\u00e4" * 127, ".hidden", ".DS_Store", ".Trashes", "lost+found ",
        "CON", "a:b", "a|b",
    ]
    (folder / "names").mkdir()
    for name in [os.fsencode(name) for name in names] + [b"\xff\xfe invalid", b"\xc3("]:
        with open(os.path.join(os.fsencode(folder), b"names", name), "wb") as file:
            file.write(name)


def addModesAndTimes(folder):
    """Adds files with every kind of mode and with times at the ends of what can be kept."""
    place = folder / "modes"
    place.mkdir()
    own = os.geteuid() == 0
    # Nobody but root can read, and so protect, what its mode forbids.
    for mode in (0o400, 0o640, 0o777, 0o4755, 0o2711 if own else 0o711, 0o7777 if own else 0o5777,
                 *((0o000, 0o222, 0o111) if own else ())):
        (place / f"file {mode:o}").write_text("x")
        (place / f"file {mode:o}").chmod(mode)
    for mode in (0o500, 0o1777, 0o2750, *((0o000,) if own else ())):
        (place / f"folder {mode:o}").mkdir()
        (place / f"folder {mode:o}/inside").write_text("x")
        (place / f"folder {mode:o}").chmod(mode)
    for seconds in (-2147483648, -1, 0, 1, 2147483647, 2147483648, 4102444800, 15032385535):
        (place / f"time {seconds}").write_text("x")
        os.utime(place / f"time {seconds}", ns=(0, seconds * 10**9 + 123456789))
    if own:
        os.chown(place / "time 0", 12345, 54321)
        os.chown(place / "folder 500", 4294967294, 65536)
        os.mknod(place / "null", 0o20666, os.makedev(1, 3))
        os.setxattr(place / "time 1", "trusted.mark", b"root's own")


def addLinksAndHoles(folder):
    """Adds symbolic links that lead nowhere, in a circle and out, hard links, holes, attributes."""
    place = folder / "links"
    place.mkdir()
    for name, target in (("loop", "loop"), ("a", "b"), ("b", "a"), ("up", "../.."), ("root", "/"),
                         ("nowhere", "no/such/place"), ("bytes", b"\xff\n"), ("long", "x" * 4000),
                         ("sixty", "y" * 60), ("fifty-nine", "y" * 59)):
        os.symlink(target, place / name)
    (place / "one").write_text("many names")
    for number in range(100):
        os.link(place / "one", place / f"name {number}")
    os.link(place / "nowhere", place / "nowhere too")
    os.mkfifo(place / "fifo")
    os.link(place / "fifo", place / "fifo too")
    with open(place / "holes", "wb") as file:
        for position in (1, 5, 30):
            file.seek(position << 20)
            file.write(b"data")
        file.truncate(48 << 20)
    with open(place / "only a hole", "wb") as file:
        file.truncate(64 << 20)
    os.setxattr(place / "one", "user.empty", b"")
    os.setxattr(place / "one", "user." + "n" * 250, b"\0\xff" * 800)
    (place / "listed").write_text("x")
    subprocess.run(["setfacl", "-m", "u:12345:rw,g:54321:r,m::r", place / "listed"], check=True)
    subprocess.run(["setfacl", "-m", "d:u:12345:rwx", place], check=True)


def addDepth(folder, levels=1500):
    """Adds a chain of folders, far deeper than a path can be long."""
    directory = os.open(folder, os.O_RDONLY)
    for level in range(levels):
        name = f"level {level}"
        os.mkdir(name, dir_fd=directory)
        following = os.open(name, os.O_RDONLY, dir_fd=directory)
        os.close(directory)
        directory = following
    with open(os.open("bottom", os.O_WRONLY | os.O_CREAT, 0o644, dir_fd=directory), "w") as file:
        file.write("found")
    os.close(directory)


def addManyFiles(folder, count, seed=2):
    """Adds small files of a few hundred bytes to some kilobytes, in folders of different sizes."""
    source = random.Random(seed)
    content = source.randbytes(1 << 16)
    for number in range(count):
        place = folder / f"many/{number % 7}/{number % 31}"
        place.mkdir(parents=True, exist_ok=True)
        start = source.randrange(1 << 15)
        (place / f"small file {number}.txt").write_bytes(content[start:start + source.randrange(9000)])
