"""Everything is killed at system calls picked from all that change the disk, and such calls fail:
nothing is lost, and no more is claimed than is true. `faults` does it at all of them. Needs root,
to supervise programs of any user."""

import random
import re
import subprocess
import sys
import unittest

import endings
import faulted
import items
import judge
import operations
import power_loss
import quillvane
import second_writer
from faulted import ERRORS, ORDINARY, SEED, FaultCase

ITEM, KEY = f"work/{operations.ITEM}", f"work/{operations.KEY}"


class Sampled:
    """What is tried with each operation."""

    operation = None
    every = 2  # one in so many calls of the operation's own program
    tools = 10  # calls of its tools at which everything is killed
    errors = 8  # and that fail

    def whole(self):
        """The operation, and a run without a fault."""
        operation = self.operation(self)
        run = self.perform(operation, settle=0)
        with self.told(run):
            self.assertEqual(0, run.status)
            operation.assertTidy()
            operation.assertLasts(run, [])
            self.assertInOrder(operation, run.calls)
            self.assertJudged(operation, run, 0, run.calls)
        return operation, run

    def testKilled(self):
        operation, run = self.whole()
        for number, program in faulted.points(run.calls, operation.program, self.tools,
                                              self.every):
            with self.subTest(f"{number} of {program or 'all'}"):
                self.killAt(operation, number, program)

    def testOneProcessKilled(self):
        operation, run = self.whole()
        tools = [call.number for call in run.calls if call.program != operation.program]
        for number in sorted(random.Random(SEED).sample(tools, min(self.errors, len(tools)))):
            with self.subTest(f"process of {number}"):
                self.killOneAt(operation, number)

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


class ProtectAsRoot(Sampled, FaultCase):
    operation = operations.Protect
    every = 8
    tools = 3
    errors = 2


class RemoveAsUser(Sampled, FaultCase):
    operation = operations.Remove
    user = ORDINARY


class RemoveAsRoot(Sampled, FaultCase):
    operation = operations.Remove
    every = 8
    tools = 3
    errors = 2


class EndedAsUser(FaultCase):
    """Finishing and undoing what was interrupted."""

    user = ORDINARY
    runs = 6  # of each, half of them killed and half with a failing call

    def sweep(self, name):
        operation = operations.ENDINGS[name](self)
        run = self.perform(operation, settle=0)
        with self.told(run):
            self.assertEqual(0, run.status)
            operation.assertLasts(run, [])
            self.assertInOrder(operation, run.calls)
            self.assertJudged(operation, run, 0, run.calls)
        source = random.Random(SEED)
        disk = [call.number for call in run.calls if call.place == "disk"]
        for turn, number in enumerate(source.sample(disk, min(self.runs, len(disk)))):
            if turn % 2:
                with self.subTest(f"{name} {number}"):
                    self.killAt(operation, number)
            else:
                error = source.choice(ERRORS)
                with self.subTest(f"{name} {number} {error} once"):
                    self.failAt(operation, number, error)


for name in operations.ENDINGS:
    setattr(EndedAsUser, f"test-{name}", lambda self, name=name: self.sweep(name))


class SecondWriter(FaultCase):
    """Another program writes into the folder meanwhile."""

    user = ORDINARY

    def sweep(self, kind, own, tools):
        operation = kind(self)
        calls = self.perform(operation, settle=0).calls
        source = random.Random(SEED)
        for writing in second_writer.WRITINGS:
            for program, picks in (("qv", own), (None, tools)):
                numbers = [call.number for call in calls if program in (None, call.program)]
                for place in sorted(source.sample(range(1, len(numbers) + 1), picks)):
                    with self.subTest(f"{writing} at {place} of {program or 'all'}"):
                        second_writer.attempt(self, operation, writing, place, program)

    def testProtecting(self):
        self.sweep(operations.Protect, own=4, tools=2)

    def testRemoving(self):
        self.sweep(operations.Remove, own=2, tools=4)


class ChangeAsUser(Sampled, FaultCase):
    operation = operations.Change
    every = 1
    user = ORDINARY


class OpenAsUser(Sampled, FaultCase):
    operation = operations.Open
    every = 1
    tools = 4
    errors = 4
    user = ORDINARY


class CloseAsUser(Sampled, FaultCase):
    operation = operations.Close
    every = 1
    tools = 4
    errors = 4
    user = ORDINARY


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

    def testStateThatIsNotInTheTable(self):
        run = self.perform(self.operation)
        for name in (operations.ITEM, operations.KEY):
            (self.work / name).rename(self.directory / name)
        self.putFolder()
        self.assertRaisesRegex(AssertionError, "is not in the table", self.operation.startAgain,
                               "folder", run, run.calls, endings.FINISH)

    def testDeletionBeforeTheSuccessorLasts(self):
        run = self.perform(self.operation)
        def mistakes(isLeftOut):
            calls = [call for call in run.calls if not isLeftOut(call)]
            return list(power_loss.mistakes(calls, power_loss.Disk(), isWhole=True))
        self.assertEqual([], mistakes(lambda call: False))
        for path in (r"\.sparseimage$", r"^work$", r"\.tmp$"):
            self.assertNotEqual([], mistakes(lambda call: call.name in power_loss.SYNCS
                                             and re.search(path, call.path)), path)

    def testFilesWrittenUnseen(self):
        class Maps(operations.Protect):
            def commands(self):
                return [[sys.executable, "-c",
                         "import mmap;"
                         "file = open('Docs/photo', 'r+b'); mmap.mmap(file.fileno(), 0)"]]
        with self.assertRaisesRegex(AssertionError, "maps work/Docs/photo for writing"):
            self.perform(Maps(self))


if __name__ == "__main__":
    unittest.main()
