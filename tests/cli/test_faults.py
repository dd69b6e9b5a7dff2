"""Everything is killed at system calls picked from all that change the disk, and such calls fail, the
same ones each time: nothing is lost, and no more is claimed than is true. `faults` does it at all of
them. Needs root, to supervise programs of any user."""

import random
import unittest

import faulted
import operations
import power_loss
from faulted import ERRORS, ORDINARY, SEED, FaultCase

ITEM, KEY = f"work/{operations.ITEM}", f"work/{operations.KEY}"


class Sampled:
    """What is tried with each operation."""

    operation = None
    tools = 20  # calls of the tools at which everything is killed
    errors = 15

    def whole(self):
        """The operation, and a run without a fault."""
        operation = self.operation(self)
        run = self.perform(operation, settle=0)
        with self.told(run):
            self.assertEqual(0, run.status)
            self.assertJudged(operation, run)
        return operation, run

    def testKilled(self):
        operation, run = self.whole()
        for number in faulted.points(run.calls, self.tools):
            with self.subTest(number):
                self.killAt(operation, number)

    def testFailing(self):
        operation, run = self.whole()
        source = random.Random(SEED)
        for number in faulted.points(run.calls, self.errors):
            error = source.choice(ERRORS)
            with self.subTest(f"{number} {error}"):
                self.failAt(operation, number, error, onwards=source.random() < 0.3)


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


class ProtectAsRoot(Sampled, FaultCase):
    operation = operations.Protect
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


class RemoveAsRoot(Sampled, FaultCase):
    operation = operations.Remove
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
                self.assertEqual([], disk.unsettled(call.path))
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


def workingKey(image):
    return f"work/.{image.removeprefix('work/')}.qvkeys"


if __name__ == "__main__":
    unittest.main()
