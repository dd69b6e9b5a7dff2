"""The operations that faults are made in: how each begins, what it runs, and how it must end."""

import os

import in_place
import items
import quillvane
from items import PASSWORD

NEW_PASSWORD = "another password, in full"
ITEM = "Docs.quillvane"
KEY = ".Docs.quillvane.qvkeys"


class Operation:
    """One for each test case, whose `work` it happens in. What fails there fails the test."""

    program = "qv"  # the one that carries it out, by means of others
    secrets = PASSWORD  # what its commands read
    serving = {0: False, 1: False}  # whether the volume is served in the end, by exit status
    settling = 5  # seconds that other processes may take to end
    # What qv says when it fails and leaves more than there was.
    leaves = ()

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

    def startAgain(self, where):
        """The operation is begun again after it was cut short or has failed, with everything where
        `assertNothingLost` has found it. Whatever finishes or undoes interrupted work belongs here,
        and then that nothing hidden stays."""

    def assertEntries(self, *names):
        """These are there, and key files that could not be removed, which is no failure."""
        found = set(os.listdir(self.case.work)) - (self.case.orphans - set(names))
        self.case.assertEqual(sorted(names), sorted(found))

    def assertItem(self, password=PASSWORD):
        self.case.assertTrue(
            self.case.judge.hasEverything(self.item, password, ignoring=self.ignoring))

    def assertFolder(self):
        self.case.assertTrue(self.case.judge.isWhole(self.case.work / "Docs"))


class Protect(Operation):
    leaves = ("Couldn't eject the volume.", "Your data is safe in the vault",
              "Final rename failed.")

    def prepare(self):
        self.case.startWithFolder()

    def commands(self):
        return [[quillvane.QV, "lock", "Docs", "--stdin"]]

    def assertComplete(self):
        self.assertEntries(ITEM, KEY)
        self.assertItem()
        self.case.judge.assertNoPlaintext(self.case.scene)

    def assertAsBefore(self):
        self.assertEntries("Docs")
        self.assertFolder()

    def startAgain(self, where):
        if where == "folder":
            self.case.succeed("lock", self.case.work / "Docs")
            self.assertItem()


class Remove(Operation):
    leaves = ("Couldn't eject the volume.", "Your data is safe in the vault")

    def commands(self):
        return [[quillvane.QV, "remove", ITEM, "--stdin"]]

    def assertComplete(self):
        self.assertEntries("Docs")
        self.assertFolder()


class Change(Operation):
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

    def startAgain(self, where):
        current = PASSWORD if where == "old" else NEW_PASSWORD
        self.case.succeed("change", self.item, secrets=(current, "the last password"))


class Open(Operation):
    """Opening in place."""

    program = "in-place"
    serving = {0: True, 1: False}
    settling = 2

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

    def startAgain(self, where):
        result = self.case.run_(in_place.DRIVER, "recover", self.item)
        self.case.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
        for unfinished in self.case.work.glob(".quillvane-*.tmp"):
            unfinished.unlink()
        self.assertEntries(ITEM, KEY)


class Close(Open):
    """Closing in place, right after something was written."""

    serving = {0: False, 1: True}

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
