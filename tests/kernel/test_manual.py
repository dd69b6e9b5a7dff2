"""The manual's commands for who has the recovery key and not the program, run as they stand there."""

import re
import unittest

import guest
import quillvane
from quillvane import QV

CHAPTER = quillvane.SOURCE / "docs/manual/without-quillvane.adoc"
# As root, on the item's directory; what asks for the passphrase gets it.
PREPARE = """
modprobe -d /run/modules loop
sudo() { "$@"; }
cryptsetup() {
    if [ "$1" = open ]; then printf '%s\\n' "$passphrase" | command cryptsetup "$@"
    else command cryptsetup "$@"; fi
}
cd /run/scratch
"""


class ManualTest(quillvane.Case):
    def setUp(self):
        super().setUp()
        reason = guest.reasonNotToRun()
        if reason:
            self.skipTest(reason)
        self.guest = guest.Guest(self.directory / "scratch")
        self.addCleanup(self.guest.kill)

    def testCommandsOpenAnItem(self):
        blocks = re.findall(r"\[source,shell\]\n----\n(.*?)\n----", CHAPTER.read_text(), re.DOTALL)
        open_, close, enlarge = blocks
        self.assertIn("cryptsetup open", enlarge)
        folder = self.guest.scratch / "Docs"
        folder.mkdir()
        (folder / "letter").write_text("Dear Ada\n")
        result = self.run_(QV, "lock", "--stdin", folder, stdin="pw\n")
        self.assertEqual(0, result.returncode, result)
        key = result.stdout.splitlines()[1]
        spell, *rest = open_.splitlines()
        self.assertIn("XXXX-XXXX-XXXX-XXXX-XXXX-XXXX-XXXX-XXXX", spell)
        spell = re.sub(r"XXXX(-XXXX)+", key, spell).split("#")[0]
        said = self.guest.run(
            PREPARE + f"passphrase=$({spell})\n" + "\n".join(rest) + "\n" +
            "cat /mnt/letter; df -k /mnt\necho from Linux >/mnt/answer\n" + close + "\n" +
            enlarge + "\nmount /dev/mapper/docs /mnt; df -k /mnt\n" + close + "\n", seconds=120)
        self.assertIn("Dear Ada\n", said)
        before, after = (int(size) for size in re.findall(r"^/dev/\S+ +(\d+) ", said, re.MULTILINE))
        self.assertGreater(after, before + 900_000)
        (place,) = self.run_(QV, "open", "--stdin", f"{folder}.quillvane",
                             stdin="pw\n").stdout.splitlines()
        with open(f"{place}/answer") as answer:
            self.assertEqual("from Linux\n", answer.read())
        self.assertEqual(0, self.run_(QV, "close", place).returncode)


if __name__ == "__main__":
    unittest.main()
