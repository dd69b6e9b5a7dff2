"""docs/interruptions.md as the tests read it: what is on the disk when an operation was interrupted
or has failed, what the user is told of it, and what becomes of it."""

import dataclasses
import os
import pathlib
import re

import power_loss

DOCUMENT = pathlib.Path(__file__).resolve().parents[2] / "docs/interruptions.md"
NOTHING = "-"
REFUSED = "refused"


@dataclasses.dataclass(frozen=True)
class Row:
    """A line of a table, as its cells stand there."""
    operation: str  # the heading above the table
    phases: str  # what was going on, with commas between
    disk: str
    told: str  # the text that the cell's letter stands for
    finish: str = NOTHING  # what `qv finish` gives: "folder" or "item"
    undo: str = NOTHING
    again: str = ""  # what the operation gives, or what there is to do

    def covers(self, operation, phase, disk, told):
        return ((self.operation, self.disk, self.told) == (operation, disk, told)
                and (phase is None or phase in self.phases.split(", ")))


def rows():
    """All of them, in their order."""
    found = []
    for section in DOCUMENT.read_text().split("\n## ")[1:]:
        texts = {letter: " ".join(text.split()) for letter, text in
                 re.findall(r"^- ([A-Z]): (.*(?:\n  .*)*)", section, re.M)}
        operation = section.partition("\n")[0]
        for line in re.findall(r"^\| (.*) \|$", section, re.M)[1:]:
            phases, disk, *cells = line.split(" | ")
            if len(cells) == 1:
                found.append(Row(operation, phases, disk, NOTHING, again=cells[0]))
            else:
                told, *outcomes = cells
                found.append(Row(operation, phases, disk, texts.get(told, told), *outcomes))
    return found


def rowOf(operation, phase, disk, told):
    """The only one that says this, of any phase without one; nothing when there is not just one."""
    fitting = [row for row in ROWS if row.covers(operation, phase, disk, told)]
    return fitting[0] if len(fitting) == 1 else None


ROWS = rows()

# The names of an operation's steps, each with the call that it begins with: its name, and what its
# path, or the second one, looks like.
IMAGE = r"work/\.Quillvane-[-0-9A-F]{36}\.sparseimage"
TEMPORARY = r"work/\.quillvane-[0-9a-f]{16}\.tmp"
PHASES = {
    "protect": (
        ("making the image", {"openat"}, IMAGE),
        ("completing the image", {"openat"}, TEMPORARY),
        ("deleting the folder", power_loss.MOVES, "work/Docs/.*"),
        ("naming the item", {"openat"}, TEMPORARY),
        ("ending", power_loss.MOVES, r"work/Docs\.quillvane"),
    ),
    "remove": (
        ("filling the folder", {"mkdir"}, "work/Docs"),
        ("deleting the item", power_loss.ENDS, r"work/Docs\.quillvane"),
        ("ending", power_loss.ENDS, r"work/\.Docs\.quillvane\.qvkeys"),
    ),
    "change": (
        ("writing the key file", {"openat"}, TEMPORARY),
        ("ending", power_loss.MOVES, r"work/\.Docs\.quillvane\.qvkeys"),
    ),
    "open": (
        ("hiding the item", {"openat"}, TEMPORARY),
        ("making the folder", power_loss.MOVES, r"work/\.hidden"),
    ),
    "close": (
        ("taking the folder away", power_loss.ENDS, "work/Docs"),
        ("ending", power_loss.ENDS, r"work/\.hidden"),
    ),
}
FIRST = "beginning"
FAILED, SUCCEEDED = "after a failure", "after success"
UNNOTED = "after success on a failing disk"


def phase(operation, calls):
    """What was going on when these were made."""
    steps, reached = PHASES[operation], 0
    for call in calls:
        for _, names, path in steps[reached:reached + 1]:
            reached += call.name in names and bool(re.fullmatch(path, call.second or call.path))
    return steps[reached - 1][0] if reached else FIRST


def folderIn(work, isWhole):
    if isWhole(work / "Docs"):
        return "folder"
    if (work / "Docs").is_dir() and not os.listdir(work / "Docs"):
        return "empty folder"
    return "part of the folder"


def onDisk(work, isWhole):
    """What of the folder and its item is in a directory; temporary files are not told."""
    names = set(os.listdir(work))
    kinds = (
        (folderIn(work, isWhole), "Docs"),
        ("list of hidden names", r"\.hidden"),
        ("image", IMAGE),
        ("image's key file", rf"work/\.{IMAGE.removeprefix('work/')}\.qvkeys"),
        ("item", r"Docs\.quillvane"),
        ("item's key file", r"\.Docs\.quillvane\.qvkeys"),
    )
    return ", ".join(kind for kind, pattern in kinds
                     if any(re.fullmatch(pattern.removeprefix("work/"), name) for name in names))
