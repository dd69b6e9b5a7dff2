"""What the compiler and the linker add against attacks, in every program of the package."""

import json
import re
import unittest

from package import ARCHITECTURE, PackageCase, output
from quillvane import BUILD

WANTED = {
    "Position Independent Executable": "yes",
    "Stack protected": "yes",
    "Read-only relocations": "yes",
    "Immediate binding": "yes",
}
# Said of a program for whose calls the compiler knows no sizes to check.
NOTHING_TO_FORTIFY = "no, only unprotected functions found!"
ENDBR64 = b"\xf3\x0f\x1e\xfa"


def objects():
    """The object files of the programs."""
    return [path for folder in ("Quillvane", "qv", "linux") for path in (BUILD / folder).rglob("*.o")]


class Hardening(PackageCase):
    def testEveryProgram(self):
        self.assertEqual(4, len(self.programs()))
        for program in self.programs():
            # Its exit status is of no use: see below for what it cannot see.
            report = self.run_("hardening-check", program).stdout
            found = dict(re.findall(r"^ (.+?): (.+)$", report, re.MULTILINE))
            self.assertEqual(WANTED, {name: found.get(name) for name in WANTED}, program)
            fortified = found["Fortify Source functions"]
            if fortified != NOTHING_TO_FORTIFY:
                self.assertTrue(fortified.startswith("yes"), report)

    def testEverySourceIsCompiledSo(self):
        commands = [entry for entry in json.loads((BUILD / "compile_commands.json").read_text())
                    if "/tests/" not in entry["file"]]
        self.assertGreater(len(commands), 100)
        for entry in commands:
            for option in ("-D_FORTIFY_SOURCE=3", "-O2", "-fstack-protector-strong",
                           "-fstack-clash-protection"):
                self.assertIn(f" {option} ", entry["command"], entry["file"])

    @unittest.skipUnless(ARCHITECTURE == "amd64", "marks of x86-64")
    def testJumpsEndAtMarks(self):
        # Debian's start-up code has none, so no program on it can be marked as a whole, which is
        # all that hardening-check looks at. Our own part of each is.
        self.assertGreater(len(objects()), 100)
        notes = output("readelf", "--notes", "--wide", *objects())
        for text in re.split(r"^File: ", notes, flags=re.MULTILINE)[1:]:
            self.assertIn("IBT, SHSTK", text, text.splitlines()[0])
        for program in self.programs():
            self.assertGreater(program.read_bytes().count(ENDBR64), 100, program)


if __name__ == "__main__":
    unittest.main()
