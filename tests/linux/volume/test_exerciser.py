"""A volume and a plain directory under the same random operations.

Arguments: --seconds N (20 unless told), --seed N.
"""

import argparse
import random
import sys
import time
import unittest

from exerciser import Exerciser
from volume import VolumeCase

options = argparse.Namespace(seconds=20, seed=1)


class ExerciserTest(VolumeCase):

    size = "512m"

    def test_behavesLikeAPlainDirectory(self):
        plain = self.directory / "plain"
        plain.mkdir(mode=0o755)
        (self.volume / "root").mkdir(mode=0o755)
        exerciser = Exerciser([self.volume / "root", plain], random.Random(options.seed))
        self.opened.callback(exerciser.closeAll)
        steps = succeeded = 0
        end = time.monotonic() + options.seconds
        while time.monotonic() < end:
            succeeded += exerciser.step()
            steps += 1
            if steps % 500 == 0:
                exerciser.compare()
            if steps % 4000 == 0:
                exerciser.closeAll()
                exerciser.compare()
                self.reattach()
                exerciser.compare()
        exerciser.closeAll()
        self.reattach()
        exerciser.compare()
        print(f"{succeeded} of {steps} operations succeeded")
        self.assertGreater(succeeded, steps // 4)
        self.assertGreater(steps, 500)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--seed", type=int, default=1)
    _, rest = parser.parse_known_args(namespace=options)
    unittest.main(argv=sys.argv[:1] + rest)
