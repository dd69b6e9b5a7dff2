"""Which volumes are unmounted: real volumes, by all the ways in which they go."""

import os
import signal
import subprocess
import unittest

from event_printer import EventPrinter
from quillvane import Case, mounts, serversOf, tool

PASSPHRASE = "mDq3VpJ0c2hLrZ8eYw1nB5tUxKs=\n"


class MountsTest(Case):
    def setUp(self):
        super().setUp()
        for bus in ("SESSION", "SYSTEM"):  # none is needed
            self.environment[f"DBUS_{bus}_BUS_ADDRESS"] = f"unix:path={self.directory}/nowhere"
        self._images = 0

    def volume(self, place):
        """Makes a volume and mounts it there; the path of the place."""
        place.mkdir(exist_ok=True)
        self._images += 1
        image = self.work / f"{self._images}.quillvane"
        self._hdiutil("create", "-size", "20m", "-encryption", "AES-256", "-stdinpass",
                      "-volname", "Docs", "-fs", "APFS", "-type", "SPARSE", image)
        self.mount(image, place)
        return place

    def mount(self, image, place):
        self._hdiutil("attach", "-stdinpass", "-nobrowse", "-owners", "on", "-mountpoint", place,
                      image)

    def detach(self, place, *options):
        self._hdiutil("detach", *options, place)

    def _hdiutil(self, *arguments):
        result = self.run_(tool("hdiutil"), *arguments, stdin=PASSPHRASE)
        self.assertEqual((0, ""), (result.returncode, result.stderr))

    def test_ways_to_go(self):
        ways = {
            "detached": self.detach,
            "by force": lambda place: self.detach(place, "-force"),
            "by fusermount": lambda place: subprocess.run(["fusermount3", "-u", place], check=True),
            "while in use": lambda place: subprocess.run(["fusermount3", "-uz", place], check=True),
        }
        early = self.volume(self.work / "mounted before the program starts")
        printer = EventPrinter(self)
        for name, unmount in ways.items():
            with self.subTest(name):
                place = self.volume(self.work / name)
                used = os.open(place, os.O_RDONLY) if name == "while in use" else None
                unmount(place)
                printer.expect(f"unmounted {place}")
                if used is not None:
                    os.close(used)
        self.detach(early)
        printer.expect(f"unmounted {early}")
        printer.assertIdle()
        printer.end()

    def test_server_that_dies(self):
        place, other = self.volume(self.work / "dead"), self.volume(self.work / "alive")
        printer = EventPrinter(self)
        servers = serversOf(self.work / "1.quillvane")
        self.assertEqual(1, len(servers))
        os.kill(servers[0], signal.SIGKILL)
        self.detach(other)  # something follows: the dead one is still mounted
        printer.expect(f"unmounted {other}")
        subprocess.run(["fusermount3", "-u", place], check=True)
        printer.expect(f"unmounted {place}")
        printer.end()

    def test_names_of_any_kind(self):
        names = ("two  words ", "line\nfeed", "back\\slash \\040", "naïve – 写真", "tab\there", " -",
                 "#x")
        places = [self.volume(self.work / name) for name in names]
        printer = EventPrinter(self)  # now, so that it has seen them all
        for place in places:
            self.detach(place)
            printer.expect("unmounted " + str(place).replace("\n", "\\n"))
        printer.end()

    # An ordinary user's fusermount3 runs as root, which cannot look into the outer volume.
    @unittest.skipUnless(os.geteuid() == 0, "mounts that an ordinary user cannot make")
    def test_volume_inside_a_volume(self):
        printer = EventPrinter(self)
        outer = self.volume(self.work / "outer")
        inner = self.volume(outer / "inner")
        self.detach(inner)
        printer.expect(f"unmounted {inner}")
        self.detach(outer)
        printer.expect(f"unmounted {outer}")
        printer.end()

    def test_three_between_two_looks(self):
        places = [self.volume(self.work / name) for name in ("c", "a", "b")]
        kept = self.volume(self.work / "kept")
        printer = EventPrinter(self)  # now, so that it has seen them all
        printer.pause()
        for place in reversed(places):
            self.detach(place)
        printer.resume()
        printer.expect(*[f"unmounted {place}" for place in places])
        self.detach(kept)
        printer.expect(f"unmounted {kept}")
        printer.end()

    def test_there_again_before_anybody_looked(self):
        place, other = self.volume(self.work / "back"), self.volume(self.work / "other")
        printer = EventPrinter(self)  # now, so that it has seen both
        printer.pause()
        self.detach(place)
        self.mount(self.work / "1.quillvane", place)
        self.detach(other)
        printer.resume()
        printer.expect(f"unmounted {other}")
        self.detach(place)
        printer.expect(f"unmounted {place}")
        printer.end()

    @unittest.skipUnless(os.geteuid() == 0, "mounts that an ordinary user cannot make")
    def test_three_in_one_step(self):
        parent = self.work / "parent"
        parent.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", parent], check=True)
        places = [self.volume(parent / name) for name in ("c", "a", "b")]
        printer = EventPrinter(self)
        subprocess.run(["umount", "--lazy", parent], check=True)
        printer.expect(*[f"unmounted {place}" for place in places])
        printer.end()

    @unittest.skipUnless(os.geteuid() == 0, "mounts that an ordinary user cannot make")
    def test_others_come_and_go_without_end(self):
        places = [self.volume(self.work / name) for name in ("a", "b")]
        others = self.work / "others"
        others.mkdir()
        printer = EventPrinter(self)
        # Enough for a table of several pages, which changes while it is read.
        churn = subprocess.Popen(["sh", "-c", '''
            cd "$1"
            for n in $(seq 60); do mkdir $n; mount -t tmpfs tmpfs $n; done
            echo full
            for n in $(seq 60); do umount $n; mount -t tmpfs tmpfs $n; done
            for n in $(seq 60); do umount $n; done
        ''', "churn", others], stdout=subprocess.PIPE)
        self.assertEqual(b"full\n", churn.stdout.readline())
        self.detach(places[0])
        self.assertEqual(0, churn.wait())
        churn.stdout.close()
        self.detach(places[1])
        printer.expect(f"unmounted {places[0]}", f"unmounted {places[1]}")
        printer.assertIdle()
        printer.end()
        self.assertEqual([], [place for place, _ in mounts() if str(self.work) in place])


if __name__ == "__main__":
    unittest.main()
