"""A volume and a plain directory under the same random operations.

Arguments: --seconds N (20 unless told), --seed N.
"""

import argparse
import multiprocessing
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

    def test_manyAtOnceDoNotDisturbEachOther(self):
        """Each process has folders of its own, all share the volume's blocks, inodes and journal."""
        jobs = []
        for number in range(4):
            roots = [self.volume / f"root{number}", self.directory / f"plain{number}"]
            for root in roots:
                root.mkdir(mode=0o755)
            jobs.append((roots, options.seed * 1000 + number, options.seconds / 2))
        with multiprocessing.Pool(len(jobs)) as processes:
            results = processes.starmap(exercise, jobs)
        print(f"{sum(results)} operations at once")
        self.assertGreater(min(results), 100)
        self.reattach()
        for roots, seed, _ in jobs:
            Exerciser(roots, random.Random(seed)).compare()


def exercise(roots, seed, seconds):
    """Answers how many operations were done in the time."""
    exerciser = Exerciser(roots, random.Random(seed))
    steps = 0
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        exerciser.step()
        steps += 1
        if steps % 500 == 0:
            exerciser.compare()
    exerciser.closeAll()
    exerciser.compare()
    return steps


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--seed", type=int, default=1)
    _, rest = parser.parse_known_args(namespace=options)
    unittest.main(argv=sys.argv[:1] + rest)
