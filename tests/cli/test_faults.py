"""Everything is killed at system calls picked from all that change the disk, and such calls fail:
nothing is lost, and no more is claimed than is true. `faults` does it at all of them. Needs root,
to supervise programs of any user."""

import random
import subprocess
import sys
import unittest

import faulted
import items
import judge
import operations
import power_loss
import quillvane
from faulted import ERRORS, ORDINARY, SEED, FaultCase

ITEM, KEY = f"work/{operations.ITEM}", f"work/{operations.KEY}"


class Sampled:
    """What is tried with each operation."""

    operation = None
    every = 1  # one in so many calls of the operation's own program
    tools = 20  # calls of its tools at which everything is killed
    errors = 15  # and that fail

    def whole(self):
        """The operation, and a run without a fault."""
        operation = self.operation(self)
        run = self.perform(operation, settle=0)
        with self.told(run):
            self.assertEqual(0, run.status)
            operation.assertTidy()
            self.assertJudged(operation, run)
        return operation, run

    def testKilled(self):
        operation, run = self.whole()
        for number, program in faulted.points(run.calls, operation.program, self.tools,
                                              self.every):
            with self.subTest(f"{number} of {program or 'all'}"):
                self.killAt(operation, number, program)

    def testFailing(self):
        operation, run = self.whole()
        source = random.Random(SEED)
        for number, program in faulted.points(run.calls, operation.program, self.errors,
                                              self.every):
            error, onwards = source.choice(ERRORS), source.random() < 0.3
            how = "on" if onwards else "once"
            with self.subTest(f"{number} of {program or 'all'} {error} {how}"):
                self.failAt(operation, number, error, onwards, program)


class ProtectAsUser(Sampled, FaultCase):
    operation = operations.Protect
    user = ORDINARY

    def testNothingIsDeletedBeforeItsSuccessorLasts(self):
        _, run = self.whole()
        deleting = False
        for call, disk in power_loss.replay(run):
            image = [path for path in disk.existing if path.endswith(".sparseimage")]
            if call.name in power_loss.ENDS and call.path.startswith("work/Docs/"):
                deleting = True
                self.assertEqual(1, len(image))
                self.assertTrue(disk.lasts(image[0]), disk.unsettled("work"))
                self.assertTrue(disk.lasts(workingKey(image[0])), disk.unsettled("work"))
            elif call.name in power_loss.MOVES and call.second == ITEM:
                self.assertTrue(disk.lasts(KEY), disk.unsettled("work"))
            elif call.name in power_loss.ENDS and call.path.endswith(".sparseimage.qvkeys"):
                self.assertTrue(disk.lasts(ITEM) and disk.lasts(KEY), disk.unsettled("work"))
        self.assertTrue(deleting)

    def testSuccessLasts(self):
        _, run = self.whole()
        disk = power_loss.Disk()
        for call in run.calls:
            disk.follow(call)
        self.assertEqual([], disk.unsettled("work"))


class ProtectAsRoot(Sampled, FaultCase):
    operation = operations.Protect
    every = 3
    tools = 5
    errors = 3


class RemoveAsUser(Sampled, FaultCase):
    operation = operations.Remove
    user = ORDINARY

    def testNothingIsDeletedBeforeItsSuccessorLasts(self):
        _, run = self.whole()
        ends = []
        for call, disk in power_loss.replay(run, [ITEM, KEY]):
            if call.name in power_loss.ENDS and call.path in (ITEM, KEY):
                ends.append(call.path)
                self.assertTrue(disk.lasts("work/Docs"), disk.unsettled("work"))
        self.assertEqual([ITEM, KEY], ends)

    def testSuccessLasts(self):
        _, run = self.whole()
        disk = power_loss.Disk([ITEM, KEY])
        for call in run.calls:
            if call.name in power_loss.ENDS and call.path == KEY:
                self.assertEqual([], disk.unsettled(ITEM))  # its password needs the key file
            disk.follow(call)
        self.assertEqual([], disk.unsettled("work"))


class RemoveAsRoot(Sampled, FaultCase):
    operation = operations.Remove
    every = 3
    tools = 5
    errors = 3


class ChangeAsUser(Sampled, FaultCase):
    operation = operations.Change
    user = ORDINARY

    def testSuccessLasts(self):
        _, run = self.whole()
        disk = power_loss.Disk([ITEM, KEY])
        for call in run.calls:
            if call.name in power_loss.MOVES:
                self.assertNotIn(call.path, disk.contents)
            disk.follow(call)
        self.assertEqual([], disk.unsettled("work"))


class OpenAsUser(Sampled, FaultCase):
    operation = operations.Open
    user = ORDINARY


class CloseAsUser(Sampled, FaultCase):
    operation = operations.Close
    user = ORDINARY

    def testSuccessLasts(self):
        _, run = self.whole()
        disk = power_loss.Disk([ITEM, KEY, "work/.hidden", "work/Docs"])
        for call in run.calls:
            disk.follow(call)
        # An empty folder that comes back is taken away by the next start.
        self.assertEqual([], [path for path in disk.unsettled("work") if path != "work/Docs"])


class JudgeTest(FaultCase):
    """The judge finds what is wrong."""

    def setUp(self):
        super().setUp()
        self.startWithItem()
        self.operation = operations.Protect(self)
        self.folder = self.work / "Docs"
        self.item = self.work / operations.ITEM

    def assertLost(self):
        with self.assertRaisesRegex(AssertionError, "^lost: "):
            self.operation.assertNothingLost()

    def putFolder(self):
        subprocess.run(["cp", "-a", self.original, self.folder], check=True)

    def testImageThatIsGone(self):
        self.operation.assertComplete()
        self.item.unlink()
        self.assertLost()

    def testKeyFileThatIsGone(self):
        items.keyFile(self.item).unlink()
        self.assertLost()

    def testImageThatIsDamaged(self):
        with open(self.item, "r+b") as file:
            file.write(bytes(1 << 16))
        self.assertLost()

    def testFolderThatLacksSomething(self):
        self.item.unlink()
        self.putFolder()
        self.assertEqual("folder", self.operation.assertNothingLost())
        (self.folder / "nothing").unlink()
        self.assertLost()

    def testLeftover(self):
        (self.work / ".quillvane-0123456789abcdef.tmp").touch()
        self.assertRaises(AssertionError, self.operation.assertComplete)

    def testPlaintext(self):
        self.judge.assertNoPlaintext(self.scene)
        (self.scene / "home/copy").write_bytes(bytes(1 << 20) + judge.MARKER)
        self.assertRaises(AssertionError, self.judge.assertNoPlaintext, self.scene)

    def testNameInTheClear(self):
        self.putFolder()
        self.judge.assertNoPlaintext(self.scene, but=self.folder)
        self.folder.rename(self.work / "Other")
        for file in self.work.glob("Other/[!l]*"):  # all but the folder with the name in it
            subprocess.run(["rm", "-r", file], check=True)
        (self.work / "Other/letters" / judge.MARKER.decode()).write_text("")
        self.assertRaises(AssertionError, self.judge.assertNoPlaintext, self.scene)

    def testProgramThatDeletesFirst(self):
        class DeletesFirst(operations.Protect):
            def commands(self):
                return [["/bin/sh", "-c", 'rm -r Docs && exec "$0" lock Docs', quillvane.QV]]
        operation = DeletesFirst(self)
        run = self.perform(operation)
        self.assertEqual(1, run.status)
        with self.assertRaisesRegex(AssertionError, "^lost: "):
            self.killAt(operation, len(run.calls))

    def testFilesWrittenUnseen(self):
        class Maps(operations.Protect):
            def commands(self):
                return [[sys.executable, "-c",
                         "import mmap;"
                         "file = open('Docs/photo', 'r+b'); mmap.mmap(file.fileno(), 0)"]]
        with self.assertRaisesRegex(AssertionError, "maps work/Docs/photo for writing"):
            self.perform(Maps(self))


def workingKey(image):
    return f"work/.{image.removeprefix('work/')}.qvkeys"


if __name__ == "__main__":
    unittest.main()
