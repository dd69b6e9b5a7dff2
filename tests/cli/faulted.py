"""Runs of an operation in which a system call that changes the disk fails, or before which all
processes are killed; and how such a run is judged."""

import contextlib
import dataclasses
import os
import random
import re
import signal
import subprocess
import unittest

import endings
import judge
import kills
import power_loss
import quillvane

FAULTS = quillvane.BUILD / "bin/faults"
ERRORS = ("ENOSPC", "EIO", "EACCES")
SEED = 20_241_121
# Everybody else's user number on Debian.
ORDINARY = 65534


@dataclasses.dataclass
class Call:
    """A line of the log."""
    number: int
    program: str
    name: str
    place: str
    path: str
    second: str = ""


@dataclasses.dataclass
class Run:
    """How a run went."""
    calls: list
    status: int | None  # of the operation; nothing when it was killed
    attended: bool  # whether something still ran in the end
    says: str
    fault: str | None = None  # whether one call failed, "once", or all from it "on"

    def __str__(self):
        last = "".join(f"\n  {call}" for call in self.calls[-3:])
        return f"{len(self.calls)} calls, status {self.status}, says {self.says!r}, last{last}"


class FaultCase(kills.KillCase):
    """Runs operations in `scene`, which is made anew for each, as root or as an ordinary user."""

    user = None  # a number, or root
    latest = None  # run
    met = set()  # rows of the table of interruptions, by all cases
    ending = None  # how what is interrupted is ended; by the number of the fault unless told

    def setUp(self):
        super().setUp()
        self.scene = self.directory / "scene"
        self.work = self.scene / "work"
        self.work.mkdir(parents=True)
        self.sceneEnvironment = self.environment | {
            "HOME": str(self.scene / "home"), "XDG_RUNTIME_DIR": str(self.scene / "runtime")}
        self.directory.chmod(0o711)
        self.directory.parent.chmod(0o711)
        folder = judge.makeFolder(self.directory / "original/Docs")
        if self.user:
            self.giveAway(folder)
        self.useFolder(folder)
        if self.user:
            self.giveAway(self.prepared)
        self.judge = judge.Judge(self, self.before, self.directory / "judged")
        self.addition = self.directory / "added"
        self.addition.write_bytes(judge.MARKER * 10)
        self.addedEntry = quillvane.describe(self.directory)[b"added"]

    def giveAway(self, *places):
        subprocess.run(["chown", "-R", "-h", f"{self.user}:{self.user}", *places], check=True)

    def startOver(self):
        quillvane.removeTree(self.scene)
        for place in (self.scene, self.work, self.scene / "home", self.scene / "runtime"):
            place.mkdir(mode=0o700)

    def perform(self, operation, *fault, settle=None):
        """One run from the start; the fault is made of options of `faults`."""
        operation.prepare()
        self.latest = self.runIt(operation, *fault, settle=settle)
        return self.latest

    def runIt(self, operation, *fault, settle=None):
        """A run in the scene as it is."""
        secrets, log = self.directory / "secrets", self.directory / "log"
        secrets.write_text(operation.secrets)
        if self.user:
            self.giveAway(self.scene)
            fault += ("--user", self.user)
        words = [FAULTS, "--below", self.scene, "--log", log, "--stdin", secrets,
                 "--settle", operation.settling if settle is None else settle, *fault]
        for number, command in enumerate(operation.commands()):
            words += ["--then"] * (number > 0) + command
        result = subprocess.run([str(word) for word in words], cwd=self.work,
                                env=self.sceneEnvironment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                timeout=180)
        if result.returncode == 77:
            raise unittest.SkipTest(result.stdout)
        self.assertEqual(0, result.returncode, result.stdout)
        return parsed(log.read_text(), result.stdout)

    def killAt(self, operation, number, by=None):
        """Everything is killed before this call, which is one of all or of those that a program
        makes, unless the run ends before it comes so far."""
        run = self.perform(operation, "--stop-at", number, *counting(by), settle=0)
        with self.told(run):
            self.assertIn(run.status, (None, 0))
            made = run.calls if run.status == 0 else run.calls[:-1]
            self.assertJudged(operation, run, number, made)
            self.assertInOrder(operation, made)

    def killOneAt(self, operation, number):
        """The process is killed that is about to make such a call; the others go on."""
        run = self.perform(operation, "--kill-at", number)
        if run.status == -signal.SIGKILL:
            run.status = None
        with self.told(run):
            self.assertIn(run.status, (None, 0, 1))
            if run.status == 1:
                self.assertReported(operation, run)
            made = [call for call in run.calls if call.number != number]
            self.assertJudged(operation, run, number, made)

    def failAt(self, operation, number, error, onwards=False, by=None):
        """Such a call fails, and from it on any other as well if `onwards`."""
        run = self.perform(operation, "--fail-from" if onwards else "--fail-at", number,
                           "--error", error, *counting(by))
        run.fault = "on" if onwards else "once"
        failed = [call for call in run.calls if by in (None, call.program)][number - 1:number]
        with self.told(run):
            self.assertIn(run.status, (0, 1))
            if not onwards:
                self.assertInOrder(operation, [call for call in run.calls if call not in failed])
            if run.status == 1 and not onwards:
                self.assertReported(operation, run)
            if run.status == 0 and not onwards:
                operation.assertLasts(run, failed)
                self.assertEqual(operation.serving[0], run.attended)
            before = run.calls[:failed[0].number - 1] if failed else run.calls
            self.assertJudged(operation, run, number, before)

    def assertJudged(self, operation, run, number, made):
        """Nothing is lost, and what was interrupted after these calls comes to an end."""
        where = operation.assertNothingLost()
        self.judge.assertNoPlaintext(self.scene, but=self.work / "Docs")
        if run.status == 0:
            operation.assertComplete()
        ending = self.ending or endings.ENDINGS[number % len(endings.ENDINGS)]
        operation.startAgain(where, run, made, ending)

    def assertInOrder(self, operation, calls):
        """Nothing is taken away before what takes its place lasts."""
        self.assertEqual([], list(power_loss.mistakes(
            calls, operation.disk(), operation.isWhole())))

    def assertReported(self, operation, run):
        """A failure leaves what there was, unless its message says more."""
        lines = run.says.splitlines()
        if not any(line.startswith(operation.leaves) for line in lines):
            self.assertEqual(operation.serving[1], run.attended)
            operation.assertAsBefore()

    @contextlib.contextmanager
    def told(self, run):
        """Whatever fails says what run it was."""
        try:
            yield
        except AssertionError as error:
            error.add_note(str(run))
            raise


def parsed(log, says):
    """A run from its log, in which all but plain characters of names are escaped."""
    calls = []
    for line in log.splitlines():
        fields = [re.sub(r"\\x(..)", lambda code: chr(int(code[1], 16)), field)
                  for field in line.split("\t")]
        if fields[0] != "=":
            calls.append(Call(int(fields[0]), *fields[1:]))
    end = fields[1:]
    if end[0] == "stopped":
        return Run(calls, None, True, says)
    status = int(end[1]) if end[0] == "exited" else -int(end[1])
    return Run(calls, status, end[2] == "attended", says)


def counting(program):
    return ["--by", program] if program else []


def points(calls, own, tools, every=1):
    """Numbers of calls to make faults at, each with the program whose calls it counts: every one,
    or one in `every`, of the program `own`, and so many of its tools' among all calls."""
    disk = [call.number for call in calls if call.place == "disk" and call.program != own]
    chosen = random.Random(SEED).sample(disk, min(tools, len(disk)))
    count = sum(call.program == own for call in calls)
    return [(number, None) for number in sorted(chosen)] + [
        (number, own) for number in range(every, count + 1, every)]
