"""How an operation that was cut short, or has failed, is brought to an end: finished, undone or
simply called again, as the user would in the directory where it happened."""

import os
import shlex
import subprocess

import interruptions
import quillvane
from items import PASSWORD

ENDINGS = FINISH, UNDO, AGAIN = ("finish", "undo", "again")
ITEM = "Docs.quillvane"
KEY = f".{ITEM}.qvkeys"
NOTHING = 'Nothing was interrupted with "'
KEPT = "key file kept"
COMMANDS = {"protect": ("lock", "Docs"), "remove": ("remove", ITEM)}


class Ending:
    """Of a protection ("protect") or a removal ("remove") in the `work` of a test case."""

    def __init__(self, case, operation):
        self.case = case
        self.told = self._listed()
        self.operation = operation
        if self.told.startswith(("Removing ", "The protection ")):
            self.operation = "remove"  # by which a protection is undone
        self.command, name = COMMANDS[self.operation]
        self.operand = case.work / name
        if self.told != interruptions.NOTHING:
            case.assertEqual(["qv", FINISH, str(self.operand), "or", "qv", UNDO, str(self.operand)],
                             shlex.split(self.commands))

    def _listed(self):
        """What `qv finish` lists, which is one operation at most."""
        result = self._qv("finish")
        self.case.assertEqual((0, ""), (result.returncode, result.stderr))
        lines = result.stdout.splitlines() or [interruptions.NOTHING]
        self.case.assertEqual(1, len(lines), lines)
        text, _, self.commands = lines[0].partition(" To end this: ")
        return text.replace(str(self.case.work), "D")

    def end(self, ending, row):
        """Ends it; what comes of that is told by its row of the table."""
        if ending == AGAIN and self._calledAgain(row):
            return
        if row.told == interruptions.NOTHING:
            refused = self._qv(FINISH if ending == AGAIN else ending, self.operand, "--stdin")
            self._assertFailure(refused, NOTHING)
            self.assertEnded("folder" if row.disk.startswith("folder") else "item")
        elif ending == UNDO:
            self._assertSuccess(self._qv(UNDO, self.operand, "--stdin"))
            if row.undo == KEPT:  # for an item that was moved; here it is not needed
                (self.case.work / KEY).unlink()
            self.assertEnded("folder" if row.undo == KEPT else row.undo)
        else:
            self._assertSuccess(self._qv(FINISH, self.operand, "--stdin"))
            self.assertEnded(row.finish)

    def _calledAgain(self, row):
        """Whether the same operation, called again, has gone to its end."""
        result = self._qv(self.command, self.operand, "--stdin")
        if row.again == interruptions.REFUSED:
            self._assertFailure(result)
            return False
        self._assertSuccess(result)
        self.assertEnded(row.again)
        return True

    def assertEnded(self, outcome):
        """Only the folder or only the item is there, and nothing else anywhere, and nothing runs."""
        case = self.case
        case.assertTrue(quillvane.eventually(lambda: not self._running()), self._running())
        entries = sorted(os.listdir(case.work))
        if outcome == "folder":
            case.assertEqual(["Docs"], entries)
            case.assertTrue(case.judge.isWhole(case.work / "Docs"))
        else:
            case.assertEqual(sorted([ITEM, KEY]), entries)
            case.assertTrue(case.judge.opens(case.work / ITEM))
        for place in ("home", "runtime"):
            files = [path for path in (case.scene / place).rglob("*") if not path.is_dir()]
            case.assertEqual([], files)

    def _running(self):
        return [*quillvane.mountsBelow(self.case.scene), *quillvane.serversOf(self.case.scene)]

    def _qv(self, *words):
        user = self.case.user
        identity = {"user": user, "group": user, "extra_groups": []} if user else {}
        return subprocess.run([quillvane.QV, *words], cwd=self.case.work, input=PASSWORD + "\n",
                              env=self.case.sceneEnvironment, text=True, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, **identity)

    def _assertSuccess(self, result):
        self.case.assertEqual(0, result.returncode, result)

    def _assertFailure(self, result, says=""):
        self.case.assertEqual((1, ""), (result.returncode, result.stdout), result)
        self.case.assertIn(says, result.stderr)
