"""A program on a terminal of its own, as somebody at the keyboard has it."""

import fcntl
import os
import pty
import select
import signal
import struct
import termios
import time


class Terminal:
    """Starts a command on a new terminal that it controls; its standard output goes to `stdout`,
    a file, when that is given, and to the terminal otherwise."""

    def __init__(self, command, environment, cwd, stdout=None, columns=80):
        self.output = b""  # everything that appeared, in full
        self._read = 0     # how much of it `expect` has passed
        self.status = None
        self.child, self.descriptor = pty.fork()
        if self.child == 0:
            try:
                fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
                for number in (signal.SIGINT, signal.SIGTSTP, signal.SIGQUIT, signal.SIGHUP):
                    signal.signal(number, signal.SIG_DFL)
                if stdout is not None:
                    os.dup2(stdout.fileno(), 1)
                os.chdir(cwd)
                os.execve(command[0], [str(word) for word in command],
                          environment | {"TERM": "xterm"})
            finally:
                os._exit(127)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.status is None:
            os.kill(self.child, signal.SIGKILL)
            os.waitpid(self.child, 0)
        os.close(self.descriptor)

    def _readMore(self, seconds):
        if not select.select([self.descriptor], [], [], seconds)[0]:
            return False
        try:
            data = os.read(self.descriptor, 65536)
        except OSError:  # the last process has closed the terminal
            data = b""
        self.output += data
        return bool(data)

    def expect(self, text, seconds=60):
        """Waits until `text` has appeared after what earlier calls waited for."""
        wanted = text.encode()
        end = time.monotonic() + seconds
        while wanted not in self.output[self._read:]:
            if not self._readMore(max(0.0, end - time.monotonic())):
                raise AssertionError(f"{text!r} did not appear in {self.output!r}")
        self._read = self.output.index(wanted, self._read) + len(wanted)

    def send(self, text):
        os.write(self.descriptor, text.encode())

    def answer(self, prompt, text):
        """Waits for a question and types the answer, while the terminal shows nothing of it."""
        self.expect(prompt)
        assert not self.echoes(), f"the terminal shows what is typed after {prompt!r}"
        self.send(text + "\n")

    def echoes(self):
        return bool(termios.tcgetattr(self.descriptor)[3] & termios.ECHO)

    def resize(self, columns):
        fcntl.ioctl(self.descriptor, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))

    def waitUntilStopped(self):
        _, status = os.waitpid(self.child, os.WUNTRACED)
        assert os.WIFSTOPPED(status), f"ended with {status} in place of stopping"

    def wait(self, seconds=120):
        """Waits for the end and returns the exit status, negative for a signal."""
        end = time.monotonic() + seconds
        while True:
            self._readMore(0.02)
            child, status = os.waitpid(self.child, os.WNOHANG)
            if child:
                break
            if time.monotonic() > end:
                raise AssertionError(f"still running after {seconds} s: {self.output!r}")
        self.status = os.waitstatus_to_exitcode(status)
        while self._readMore(0.0):
            pass
        return self.status
