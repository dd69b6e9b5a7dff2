"""The program that prints the system's events, as the tests drive it."""

import os
import pathlib
import select
import signal
import subprocess
import time

from quillvane import BUILD

PATIENCE = 10  # seconds


class EventPrinter:
    """Runs from construction on, in a test's environment; the test's clean-up ends it."""

    def __init__(self, test, **options):
        self._test = test
        self._text = ""
        self._process = subprocess.Popen(
            [BUILD / "bin/event-printer"], env=test.environment, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, **options)
        test.addCleanup(self._cleanUp)
        self.expect("started")

    def _cleanUp(self):
        self._process.kill()
        self._process.wait()
        self._process.stdin.close()
        self._process.stdout.close()

    def _line(self):
        end = time.monotonic() + PATIENCE
        while "\n" not in self._text:
            ready, _, _ = select.select([self._process.stdout], [], [], end - time.monotonic())
            piece = os.read(self._process.stdout.fileno(), 1 << 16) if ready else b""
            if not piece:
                return f"(nothing but {self._text!r})"
            self._text += piece.decode()
        line, self._text = self._text.split("\n", 1)
        return line

    def expect(self, *lines):
        """Fails unless these are the next lines. To see that something prints nothing, let
        something follow that does."""
        self._test.assertEqual(list(lines), [self._line() for _ in lines])

    def sayReady(self):
        self._process.stdin.write(b"ready\n")
        self._process.stdin.flush()
        self.expect("told that we are ready")

    def send(self, number):
        self._process.send_signal(number)

    def pause(self):
        """Whatever happens until `resume` finds the program busy."""
        self.send(signal.SIGSTOP)

    def resume(self):
        self.send(signal.SIGCONT)

    def assertIdle(self):
        """Fails if the program does anything without a reason."""
        before = self._switches()
        time.sleep(0.3)
        self._test.assertLess(self._switches() - before, 5, "how often it was woken")

    def _switches(self):
        status = pathlib.Path(f"/proc/{self._process.pid}/status").read_text()
        return sum(int(line.split()[1]) for line in status.splitlines()
                   if "ctxt_switches" in line)

    def end(self):
        """Lets the program end by itself; fails unless it does so at once and well."""
        start = time.monotonic()
        self._process.stdin.close()
        self.expectEnd()
        self._test.assertLess(time.monotonic() - start, 5)

    def expectEnd(self):
        self.expect("ended")
        self._test.assertEqual(0, self._process.wait(PATIENCE))
