"""A stock Linux kernel, run as an ordinary process, with the disk image under test as its disk."""

import os
import pathlib
import re
import select
import shutil
import signal
import subprocess
import tempfile
import time

import quillvane

HERE = pathlib.Path(__file__).resolve().parent
KERNEL = "linux.uml"
WIDE_REGISTERS = quillvane.BUILD / "tests/kernel/libwide-registers.so"


class GuestError(Exception):
    """The kernel did not come to its end; the text is its console."""


def reasonNotToRun():
    """Why no such kernel runs here; None where it does."""
    try:
        with tempfile.TemporaryDirectory() as scratch:
            Guest(scratch).run("test -d /sys/module/dm_crypt")
    except (OSError, GuestError, AssertionError) as error:
        reason = re.search("panic.*|not found.*|no dm-crypt|No such.*", str(error))
        return "user-mode Linux with dm-crypt does not run here: " + (
            reason[0] if reason else str(error))
    return None


class Guest:
    """Runs shell scripts under the kernel. They find their own directory, which is the host's
    `scratch`, at /run/scratch, an empty mount point at /run/volume and, when an image is given, the
    image as /dev/ubda. All else is the host's own root, read-only."""

    def __init__(self, scratch):
        self.scratch = pathlib.Path(scratch)
        self.scratch.mkdir(exist_ok=True)
        self.console = ""
        self._process = None

    def start(self, job, image=None, readOnly=False):
        """Boots and begins with the script."""
        (self.scratch / "job").write_text(job)
        for name in ("log", "status"):
            (self.scratch / name).unlink(missing_ok=True)
        self.console = ""
        command = [KERNEL, "mem=256M", "rootfstype=hostfs", "ro", "quiet", f"init={HERE}/init",
                   "con=null", "con0=null,fd:1", f"uml_dir={self.scratch}/", f"umid=kernel",
                   f"scratch={self.scratch}"]
        if image is not None:
            command.append(f"ubd0{'r' if readOnly else ''}={image}")
        environment = {"PATH": "/usr/bin:/bin", "HOME": str(self.scratch), "TERM": "dumb",
                       "LD_PRELOAD": str(WIDE_REGISTERS)}
        self._process = subprocess.Popen(
            command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, start_new_session=True, cwd=self.scratch)

    def run(self, job, image=None, seconds=60, **options):
        """Runs the script to the kernel's end; its output. Throws GuestError when the kernel does
        not end in time, and AssertionError when the script fails."""
        self.start(job, image, **options)
        try:
            self._readConsole(seconds)
            self._process.wait(10)
        except subprocess.TimeoutExpired:
            raise GuestError(f"The kernel did not end:\n{self.console}") from None
        finally:
            self.kill()
        log = self._read("log")
        status = self._read("status").strip()
        if not status:
            raise GuestError(f"The kernel ended early:\n{self.console}\n{log}")
        assert status == "0", f"the script ended with {status}:\n{log}\n{self.console}"
        return log

    def waitFor(self, word, seconds=60):
        """Waits until the script has written the word to /dev/console."""
        self._readConsole(seconds, word)
        if word not in self.console:
            raise GuestError(f"No {word!r} on the console:\n{self.console}\n{self._read('log')}")

    def kill(self):
        """Ends the kernel as a power cut does: nothing more of it reaches the image."""
        if self._process is None:
            return
        try:
            os.killpg(self._process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass  # it has ended, and all its processes with it
        self._process.wait()
        self._process.stdout.close()
        self._process = None
        shutil.rmtree(self.scratch / "kernel", ignore_errors=True)  # its sockets

    def _readConsole(self, seconds, word=None):
        end = time.monotonic() + seconds
        while word is None or word not in self.console:
            left = end - time.monotonic()
            if left <= 0 or not select.select([self._process.stdout], [], [], left)[0]:
                raise GuestError(f"Nothing after {seconds} s:\n{self.console}\n{self._read('log')}")
            data = os.read(self._process.stdout.fileno(), 65536)
            if not data:
                return
            self.console += data.decode(errors="replace")

    def _read(self, name):
        try:
            return (self.scratch / name).read_text(errors="replace")
        except FileNotFoundError:
            return ""
