"""qv smart closes by itself after the time that was asked for, by the computer's own clock."""

import time
import unittest

from test_smart import CLOSED, Manager, SmartCase


class SmartIdleTest(SmartCase):
    def testClosesAfterAMinute(self):
        item = self.makeItem()
        manager = Manager(self, item, "--minutes", "1").waitUntilOpen()
        begin = time.monotonic()
        self.assertEqual(0, manager.end(120))
        self.assertGreaterEqual(time.monotonic() - begin, 59)
        self.assertEqual(CLOSED.format("Docs"), manager.messages()[-1])
        self.assertClosed(item)


if __name__ == "__main__":
    unittest.main()
