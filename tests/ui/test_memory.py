"""The window: what of the secrets is left in the program's memory after an operation. For root, who
alone may look there."""

import unittest

import window
from window import WindowCase

SECRET = "a rather unusual password"


class Memory(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def _copies(self, secret):
        """How often the whole text stands in the memory, as the toolkit's characters and as UTF-8."""
        found = 0
        process = f"/proc/{self.program.pid}"
        with open(process + "/maps") as maps, open(process + "/mem", "rb", 0) as memory:
            for line in maps:
                places, permissions = line.split()[:2]
                if not permissions.startswith("rw"):
                    continue
                begin, end = (int(place, 16) for place in places.split("-"))
                memory.seek(begin)
                contents = memory.read(end - begin)
                found += sum(contents.count(secret.encode(code)) for code in ("utf-16-le", "utf-8"))
        return found

    def test_after_protecting(self):
        folder = self.makeFolder("Docs")
        self.start()
        self.choose("Choose the folder to protect…", "Choose the folder to protect", folder)
        self.fill("Password", SECRET)
        self.fill("Repeat password", SECRET)
        self.assertGreater(self._copies(SECRET), 0)
        self.key_("Return")
        self.waitForFocus("Recovery key", 60)
        key = self.find("Recovery key").text
        self.assertEqual(0, self._copies(SECRET))
        self.assertGreater(self._copies(key), 0)
        self.takeRecoveryKey()
        self.find("Locked. Your folder is protected:", prefix=True)
        self.assertEqual(0, self._copies(SECRET))
        self.quit()


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
