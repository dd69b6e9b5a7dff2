"""What the tests share in which processes are killed: whatever happens, the folder is there whole, or
an item or a working image that the password opens and in which everything is."""

import os
import pathlib
import subprocess
import time

import items
import quillvane

# The steps of both operations, as far as their messages tell.
LOCK = ("Checking", "Calculating", "Creating", "Mounting", "Copying contents into",
        "Copying contents… ", "Verifying", "Ejecting", "Deleting", "Finalizing", "Done")
REMOVE = ("Checking", "Opening", "Creating", "Extracting contents…\n", "Extracting contents… ",
          "Verifying", "Ejecting", "Deleting", "Done")


class KillCase(items.ItemCase):
    """Tests in `work`, which is made anew for each kill, with the folder "Docs" or its item."""

    def useFolder(self, folder):
        """Takes this folder, which must lie elsewhere, as the one to protect."""
        self.original = folder
        self.before = quillvane.describe(folder)
        self.prepared = self.directory / "prepared"
        self.prepared.mkdir()
        subprocess.run(["cp", "-a", folder, self.prepared / "Docs"], check=True)
        self.item, _ = self.lock(self.prepared / "Docs")

    def startOver(self):
        quillvane.removeTree(self.home / ".local")
        quillvane.removeTree(self.work)
        self.work.mkdir()

    def startWithFolder(self):
        self.startOver()
        subprocess.run(["cp", "-a", self.original, self.work / "Docs"], check=True)

    def startWithItem(self):
        self.startOver()
        for file in (self.item, items.keyFile(self.item)):
            subprocess.run(["cp", "-a", "--sparse=always", file, self.work], check=True)

    def settle(self):
        """Ends what a killed process has left running, as the user would or a restart does."""
        def ended():
            for point in quillvane.mountsBelow(self.directory):
                self.run_(quillvane.tool("hdiutil"), "detach", "-force", point)
            return not quillvane.mountsBelow(self.directory) and not self.processes()
        self.assertTrue(quillvane.eventually(ended, 30),
                        (quillvane.mountsBelow(self.directory), self.processes()))

    def processes(self):
        """The command lines of all processes that have to do with this test."""
        found = []
        for number in quillvane.serversOf(self.directory):
            try:
                found.append(pathlib.Path(f"/proc/{number}/cmdline").read_bytes())
            except OSError:
                continue
        return [line for line in found if line]

    def isWhole(self, folder):
        return folder.is_dir() and not quillvane.differences(self.before,
                                                             quillvane.describe(folder))

    def images(self):
        """Items and working images that have a key file beside them."""
        names = [name for name in os.listdir(self.work)
                 if name.endswith((".quillvane", ".sparseimage"))]
        return [self.work / name for name in names if items.keyFile(self.work / name).exists()]

    def assertNothingLost(self):
        """The folder is whole, or an image opens with its password and has everything."""
        self.settle()
        if self.isWhole(self.work / "Docs"):
            return "folder"
        place = self.directory / "found"
        for image in self.images():
            quillvane.removeTree(place)
            place.mkdir()
            items.keyFile(image).rename(place / ".Docs.quillvane.qvkeys")
            result = self.qv("remove", image.rename(place / "Docs.quillvane"))
            if result.returncode == 0 and self.isWhole(place / "Docs"):
                return "image"
        self.fail(f"lost: {sorted(os.listdir(self.work))} has neither folder nor image")

    def assertNothingLeftButFolder(self):
        """After a failure that was reported: the folder, and nothing else, even soon after."""
        self.assertSettled()
        self.assertNothingLeft("Docs")
        self.assertTrue(self.isWhole(self.work / "Docs"))

    def assertNothingLeftButItem(self):
        self.assertSettled()
        self.assertNothingLeft("Docs.quillvane", ".Docs.quillvane.qvkeys")
        self.assertEqual("image", self.assertNothingLost())

    def assertSettled(self):
        """A process that lost its reader or its file system takes a moment to notice."""
        def settled():
            return not quillvane.mountsBelow(self.directory) and not self.processes()
        self.assertTrue(quillvane.eventually(settled),
                        (quillvane.mountsBelow(self.directory), self.processes()))

    def start(self, *words):
        """Starts qv, given its password."""
        process = subprocess.Popen([quillvane.QV, *words, "--stdin"], cwd=self.work, text=True,
                                   env=self.environment, stdin=subprocess.PIPE,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        process.stdin.write(items.PASSWORD + "\n")
        process.stdin.close()
        process.stdin = None
        return process

    def killQvAt(self, step, *words):
        """Kills qv alone when its progress has come to `step`."""
        process = self.start(*words)
        while not (line := process.stderr.readline()).startswith(step):
            self.assertNotEqual("", line, f"ended before {step!r}")
        process.kill()
        process.communicate(timeout=60)

    def processWith(self, *words, seconds=30):
        """Waits for a process below this test's directory with these arguments; its number."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            for number in filter(str.isdigit, os.listdir("/proc")):
                try:
                    with open(f"/proc/{number}/cmdline", "rb") as file:
                        line = os.fsdecode(file.read()).split("\0")
                except OSError:
                    continue
                if line[0].endswith(words[0]) and set(words[1:]) <= set(line):
                    return int(number)
        self.fail(f"no process {words}")
