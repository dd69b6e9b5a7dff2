"""A directory of very many entries: nothing may take a time that grows with their square."""

import os
import random
import time
import unittest

from volume import VolumeCase

COUNT = 100_000


class BigDirectoryTest(VolumeCase):

    size = "256m"

    def name(self, number):
        return f"{self.volume}/many/photograph number {number:06}.jpeg"

    def timed(self, what, work):
        begin = time.monotonic()
        result = work()
        print(f"{what}: {time.monotonic() - begin:.2f} s")
        return result

    def create(self):
        for number in range(COUNT):
            os.close(os.open(self.name(number), os.O_CREAT | os.O_EXCL | os.O_WRONLY))

    def test_holdsVeryManyEntries(self):
        begin = time.monotonic()
        os.mkdir(f"{self.volume}/many")
        self.timed("create", self.create)
        self.timed("attach again", self.reattach)
        names = self.timed("list", lambda: os.listdir(f"{self.volume}/many"))
        self.assertEqual({os.path.basename(self.name(number)) for number in range(COUNT)},
                         set(names))
        chosen = random.Random(1).sample(range(COUNT), 20_000)
        self.timed("look up", lambda: [os.stat(self.name(number)) for number in chosen])
        self.timed("miss", lambda: [os.path.exists(self.name(COUNT + number))
                                    for number in range(20_000)])
        self.timed("rename", lambda: [os.rename(self.name(number), self.name(COUNT + number))
                                      for number in chosen])
        self.assertEqual(COUNT, len(os.listdir(f"{self.volume}/many")))
        self.timed("remove", lambda: self.succeed("rm", "-r", f"{self.volume}/many"))
        self.assertEqual([], os.listdir(self.volume))
        # Far more than a sanitizer needs, far less than a search through the whole for each.
        self.assertLess(time.monotonic() - begin, 240)


if __name__ == "__main__":
    unittest.main()
