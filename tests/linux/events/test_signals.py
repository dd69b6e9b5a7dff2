"""The signals that ask a program to end, in a real process."""

import signal
import unittest

from event_printer import EventPrinter
from quillvane import Case

ENDING = (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT)


class SignalsTest(Case):
    def test_they_are_told_and_do_not_end_the_program(self):
        printer = EventPrinter(self)
        for number in ENDING * 2:
            printer.send(number)
            printer.expect(f"signal {number:d}")
        printer.assertIdle()
        printer.end()

    def test_what_the_caller_ignored_stays_ignored(self):
        def ignoreHangUp():
            signal.signal(signal.SIGHUP, signal.SIG_IGN)
        printer = EventPrinter(self, preexec_fn=ignoreHangUp)
        printer.send(signal.SIGHUP)
        printer.send(signal.SIGTERM)
        printer.expect(f"signal {signal.SIGTERM:d}")
        printer.end()


if __name__ == "__main__":
    unittest.main()
