"""The benchmarks of the volume still run, and leave nothing behind. Competitors that are not
installed are missed by none.
"""

import pathlib
import re
import shutil
import sys
import unittest

from quillvane import BUILD, Case, mountsBelow

BENCH = pathlib.Path(__file__).resolve().parents[2] / "bench"
ROWS = ("copying in", "reading", "find with stat", "random reads", "random writes", "untar",
        "deleting", "qv lock")


class VolumeBenchmarkTest(Case):
    def bench(self, name, *options):
        """What it prints."""
        result = self.run_(sys.executable, BENCH / name, "--quick", "--build", BUILD,
                           "--directory", self.work, *options)
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        self.assertEqual([], mountsBelow(self.work))
        self.assertEqual([], list(self.work.glob("quillvane-bench-*")))
        return result.stdout

    def test_measuresEachRow(self):
        text = self.bench("volume", "--only", "ours", "gocryptfs", "loop")
        self.assertIn("left out: cryfs: not among --only", text)
        self.assertIn("left out: ext4 on a loop device, not encrypted: only root", text)
        for title in ROWS:
            if "random" in title and not shutil.which("fio"):
                self.assertIn("fio is not installed", text)
                print("not measured, as fio is not installed:", title)
                continue
            self.assertRegex(text, rf"(?m)^\| [^|]*{re.escape(title)}[^|]*\|[^|]*\|"
                                   r" \d+\.\d\d · \d+\.\d\d s \|", title)

    def test_measuresTheScale(self):
        text = self.bench("volume_scale")
        self.assertEqual(4, len(re.findall(r"(?m)^\| [\d,]+ files in .*(\| [\d.]+ \([\d.]+\) ){4}"
                                           r"\| [1-9]\d*\.\d MiB \|$", text)), text)


if __name__ == "__main__":
    unittest.main()
