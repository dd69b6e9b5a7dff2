"""Another program that adds, saves and renames files in the folder while it is protected, or while
its protection is removed; and whether what it wrote is kept."""

import os

import items
import judge

DRAFT = judge.DRAFT
WRITTEN = DRAFT.swapcase()
assert len(WRITTEN) == len(DRAFT) and WRITTEN != DRAFT
# What it does in the folder, which fails when that is gone, what it has written, and where that can
# be then. A program saves in place what it has read before: into a file that has been made, but not
# been filled yet, it has nothing to save.
WRITINGS = {
    "adds": (f"test -d Docs && printf {WRITTEN} > Docs/new", WRITTEN, ("new",)),
    "saves": (f"grep -qF {DRAFT} Docs/draft && printf {WRITTEN} 1<> Docs/draft", WRITTEN,
              ("draft",)),
    "replaces": (f"test -f Docs/draft && printf {WRITTEN} > Docs/new && mv Docs/new Docs/draft",
                 WRITTEN, ("draft", "new")),
    "relinks": (f"test -L Docs/link && printf {WRITTEN} > Docs/new && mv Docs/new Docs/link",
                WRITTEN, ("link", "new")),
    "renames": ("mv Docs/draft Docs/new", DRAFT, ("draft", "new")),
}


def ignoring(places):
    """Describes all but what it may have changed."""
    def kept(description):
        kept = {path: dict(entry) for path, entry in description.items()
                if os.fsdecode(path) not in places}
        del kept[b"."]["mtime"]
        return kept
    return kept


def attempt(case, operation, writing, number, by=None):
    """One run, in which it writes before a call, unless the run ends before it comes so far."""
    commands, written, places = WRITINGS[writing]
    wrote = case.directory / "wrote"
    wrote.unlink(missing_ok=True)
    run = case.latest = writeAt(case, operation, number, commands, wrote, by)
    with case.told(run):
        case.assertIn(run.status, (0, 1))
        case.judge.assertNothingLost(case.work, ignoring=ignoring(places))
        if not wrote.exists():
            return
        case.assertTrue(isKept(case, written, places), f"{writing}: deleted")
        if operation.name == "protect" and run.status == 0 and (case.work / "Docs").exists():
            case.assertIn('"Docs', run.says)


def writeAt(case, operation, number, commands, witness, by):
    program = case.directory / "writer"
    user = f"setpriv --reuid={case.user} --regid={case.user} --clear-groups" if case.user else ""
    program.write_text(f"#!/bin/sh\ncd '{case.work}'\n"
                       f"{user} sh -c '{commands}' 2>/dev/null && touch '{witness}'\n")
    program.chmod(0o755)
    return case.perform(operation, "--meanwhile-at", number, "--meanwhile", program,
                        *(["--by", by] if by else []))


def isKept(case, written, places):
    """Whether a file with these contents is in the folder or in an image, in one of the places."""
    def hasIt(folder):
        return any((folder / name).is_file() and (folder / name).read_text() == written
                   for name in places)
    return hasIt(case.work / "Docs") or any(
        items.keyFile(image).is_file() and case.judge.holds(image, hasIt)
        for image in case.judge.images(case.work))
