"""The operations that faults are made in: how each begins, what it runs, and how it must end."""

import os
import re

import endings
import in_place
import interruptions
import power_loss
import quillvane
from endings import ITEM, KEY
from items import PASSWORD

NEW_PASSWORD = "another password, in full"


class Operation:
    """One for each test case, whose `work` it happens in. What fails there fails the test."""

    name = None  # as the table of interruptions calls it
    program = "qv"  # the one that carries it out, by means of others
    secrets = PASSWORD  # what its commands read
    serving = {0: False, 1: False}  # whether the volume is served in the end, by exit status
    settling = 5  # seconds that other processes may take to end
    # What qv says when it fails and leaves more than there was.
    leaves = ()
    existing = (f"work/{ITEM}", f"work/{KEY}")  # when it begins
    unsettled = "(?!)"  # what need not last when it has succeeded

    def __init__(self, case):
        self.case = case
        self.item = case.work / ITEM

    def prepare(self):
        self.case.startWithItem()

    def commands(self):
        """The last one is the operation."""
        raise NotImplementedError

    def ignoring(self, description):
        """The folder's description, but for what the operation itself may have changed."""
        return description

    def assertNothingLost(self):
        return self.case.judge.assertNothingLost(self.case.work, ignoring=self.ignoring)

    def assertComplete(self):
        """Everything that success promises."""
        raise NotImplementedError

    def assertTidy(self):
        """What success brings beyond that, unless something fails."""

    def assertAsBefore(self):
        """Everything that failure promises."""
        self.assertEntries(ITEM, KEY)
        self.assertItem()

    def disk(self):
        """What is there when it begins, and how much of it would last."""
        return power_loss.Disk(self.existing)

    def isWhole(self):
        """Whether the folder is there in the clear then, all of it."""
        return False

    def assertLasts(self, run, failed):
        """What success promises lasts through a power failure although these calls have failed,
        or is noted, so that it is seen to again."""
        disk = self.disk()
        for call in run.calls:
            if call not in failed:
                disk.follow(call)
        noted = [path for path in disk.existing if path.endswith(".note") and disk.lasts(path)]
        left = [path for path in disk.unsettled("work") if not re.fullmatch(self.unsettled, path)]
        self.case.assertTrue(noted or not left, left)

    def startAgain(self, where, run, made, ending):
        """The operation was cut short after these calls, or has failed, with everything where
        `assertNothingLost` has found it: now it is ended in this way, and nothing hidden stays."""

    def rowOf(self, run, made, disk, told=interruptions.NOTHING, operation=None):
        """The row of the table that says so."""
        operation = operation or self.name
        phase = self.phase(run, made, told)
        row = interruptions.rowOf(operation, phase, disk, told)
        self.case.assertIsNotNone(
            row, f"{operation}: | {phase} | {disk} | {told} | is not in the table")
        self.case.met.add(row)
        return row

    def phase(self, run, made, told):
        if run.status == 0:
            return interruptions.UNNOTED if run.fault == "on" else interruptions.SUCCEEDED
        if run.status is not None and told == interruptions.NOTHING:
            return interruptions.FAILED
        return interruptions.phase(self.name, made)

    def assertEntries(self, *names):
        """These are there, and key files whose removal has failed, which a note tells."""
        notes = [note.read_text() for note in (self.case.scene / "home").rglob("*.note")]
        found = [name for name in os.listdir(self.case.work) if name in names or not (
            name.endswith(".qvkeys") and any(name[1:-len(".qvkeys")] in note for note in notes))]
        self.case.assertEqual(sorted(names), sorted(found))

    def assertItem(self, password=PASSWORD):
        self.case.assertTrue(
            self.case.judge.hasEverything(self.item, password, ignoring=self.ignoring))

    def assertFolder(self):
        self.case.assertTrue(self.case.judge.isWhole(self.case.work / "Docs"))


class Interruptible(Operation):
    """One that leaves a note when it is interrupted, so that it can be finished and undone."""

    def startAgain(self, where, run, made, ending):
        case = self.case
        disk = interruptions.onDisk(case.work, case.judge.isWhole)
        ended = endings.Ending(case, self.name)
        row = self.rowOf(run, made, disk, ended.told, ended.operation)
        ended.end(ending, row)


class Protect(Interruptible):
    name = "protect"
    existing = ()
    leaves = ("Couldn't eject the volume.", "Your data is safe in the vault",
              "Final rename failed.", 'Protecting "Docs" in ')

    def prepare(self):
        self.case.startWithFolder()

    def commands(self):
        return [[quillvane.QV, "lock", "Docs", "--stdin"]]

    def isWhole(self):
        return True

    def assertComplete(self):
        self.assertEntries(ITEM, KEY)
        self.assertItem()
        self.case.judge.assertNoPlaintext(self.case.scene)

    def assertAsBefore(self):
        self.assertEntries("Docs")
        self.assertFolder()


class Remove(Interruptible):
    name = "remove"
    leaves = ("Couldn't eject the volume.", "Your data is safe in the vault",
              f'Removing the protection of "{ITEM}" in ')

    def commands(self):
        return [[quillvane.QV, "remove", ITEM, "--stdin"]]

    def assertComplete(self):
        self.assertEntries("Docs")
        self.assertFolder()


class Ended(Interruptible):
    """What was interrupted at a call of a program is finished or undone."""

    interrupted = None  # the operation
    at = None  # whether a call is the one before which everything is killed
    verb = None
    outcome = None  # "folder" or "item"

    def __init__(self, case):
        super().__init__(case)
        self.first = self.interrupted(case)
        self.name = self.first.name
        self.stop = None  # options of the run that is interrupted
        self.earlier = []  # calls that it has made

    def prepare(self):
        case = self.case
        if not self.stop:
            calls = case.perform(self.first, settle=0).calls
            found = next(call for call in calls if self.at(call))
            number = [call for call in calls if call.program == found.program].index(found) + 1
            self.stop = ("--stop-at", number, "--by", found.program)
        self.first.prepare()
        run = case.runIt(self.first, *self.stop, settle=0)
        case.assertIsNone(run.status)
        self.earlier = run.calls[:-1]

    def commands(self):
        operand = endings.COMMANDS[self.name][1]
        return [[quillvane.QV, self.verb, operand, "--stdin"]]

    def disk(self):
        disk = self.first.disk()
        for call in self.earlier:
            disk.follow(call)
        return disk

    def isWhole(self):
        return self.first.isWhole() and not any(
            call.name in power_loss.ENDS and call.path.startswith("work/Docs")
            for call in self.earlier)

    def assertComplete(self):
        if self.outcome == "folder":
            self.assertEntries("Docs")
            self.assertFolder()
        else:
            self.assertEntries(ITEM, KEY)
            self.assertItem()

    def assertAsBefore(self):
        """It can be finished and undone still, see `startAgain`."""

    def phase(self, run, made, told):
        return None


def ended(interrupted, at, verb, outcome):
    return type("Ended", (Ended,), {"interrupted": interrupted, "at": staticmethod(at),
                                    "verb": verb, "outcome": outcome})


def isNoteOfDeletion(call):
    return call.name == "write" and call.path.endswith(".note") and call.number > NOTE_IS_MADE


NOTE_IS_MADE = 20  # calls
# Everything that is killed has come to this: by the state's name, the operation and the next call.
STATES = {
    "copied": (Protect, isNoteOfDeletion),
    # A file has its other name then.
    "deleting": (Protect, lambda call: call.path.startswith("work/Docs/letters/.quillvane-") and
                 call.name in power_loss.ENDS and call.place == "disk"),
    "unnamed": (Protect, lambda call: call.second == f"work/{ITEM}"),
    "incomplete": (Remove, lambda call: call.name == "symlinkat"),
    "restored": (Remove, lambda call: call.path == f"work/{ITEM}" and
                 call.name in power_loss.ENDS),
}
ENDINGS = {
    f"{verb}-{state}": ended(interrupted, at, verb,
                             "item" if (verb == "finish") == (interrupted is Protect) else "folder")
    for state, (interrupted, at) in STATES.items() for verb in (endings.FINISH, endings.UNDO)
}


class Change(Operation):
    name = "change"
    secrets = f"{PASSWORD}\n{NEW_PASSWORD}\n"

    def commands(self):
        return [[quillvane.QV, "change", ITEM, "--stdin"]]

    def assertNothingLost(self):
        """One of the two passwords opens the item, and no more than one."""
        judge = self.case.judge
        found = [password for password in (PASSWORD, NEW_PASSWORD)
                 if judge.hasEverything(self.item, password)]
        self.case.assertEqual(1, len(found), found)
        return "old" if found == [PASSWORD] else "new"

    def assertComplete(self):
        self.assertEntries(ITEM, KEY)
        self.case.assertEqual("new", self.assertNothingLost())

    def assertAsBefore(self):
        self.assertEntries(ITEM, KEY)
        self.case.assertEqual("old", self.assertNothingLost())

    def startAgain(self, where, run, made, ending):
        self.rowOf(run, made, f"the {where} password opens the item")
        current = PASSWORD if where == "old" else NEW_PASSWORD
        self.case.succeed("change", self.item, secrets=(current, "the last password"))


class Open(Operation):
    """Opening in place."""

    name = "open"
    program = "in-place"
    serving = {0: True, 1: False}
    settling = 2
    # Hiding the item is best effort, and an empty folder is taken away by the next start.
    unsettled = rf"work/Docs|work/\.hidden|{interruptions.TEMPORARY}"

    def commands(self):
        return [[in_place.DRIVER, "open", self.item]]

    def assertComplete(self):
        """Killed, all that is left of the open folder is the place where it was."""
        entries = set(os.listdir(self.case.work))
        self.case.assertEqual({ITEM, KEY}, entries - {"Docs", ".hidden"})
        if "Docs" in entries:
            self.case.assertEqual([], os.listdir(self.case.work / "Docs"))
        if ".hidden" in entries:
            self.case.assertEqual(f"{ITEM}\n", (self.case.work / ".hidden").read_text())
        self.assertItem()

    def assertTidy(self):
        self.assertEntries(ITEM, KEY, "Docs", ".hidden")

    def startAgain(self, where, run, made, ending):
        self.rowOf(run, made, interruptions.onDisk(self.case.work, lambda folder: False))
        result = self.case.run_(in_place.DRIVER, "recover", self.item)
        self.case.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
        for unfinished in self.case.work.glob(".quillvane-*.tmp"):
            unfinished.unlink()
        self.assertEntries(ITEM, KEY)


class Close(Open):
    """Closing in place, right after something was written."""

    name = "close"
    serving = {0: False, 1: True}
    leaves = ("hdiutil: detach failed - the volume's server ended unexpectedly",)

    def commands(self):
        return [[in_place.DRIVER, "open", self.item],
                ["/bin/cp", self.case.addition, self.case.work / "Docs/added"],
                [in_place.DRIVER, "close", self.item]]

    def ignoring(self, description):
        kept = {path: dict(entry) for path, entry in description.items() if path != b"added"}
        del kept[b"."]["mtime"]
        return kept

    def assertComplete(self):
        super().assertComplete()
        self.case.assertTrue(self.case.judge.opens(self.item, ignoring=self._withAddition))

    def assertTidy(self):
        self.assertEntries(ITEM, KEY)

    def assertAsBefore(self):
        """The volume stays open, and can be closed later."""

    def _withAddition(self, description):
        kept = self.ignoring(description)
        expected = description is self.case.before
        entry = self.case.addedEntry if expected else description.get(b"added", {})
        return kept | {b"added": {"content": entry.get("content")}}
