"""What the benchmarks of the program and of the volume share: clocks, memory, caches, the place."""

import contextlib
import itertools
import os
import pathlib
import platform
import signal
import subprocess
import sys
import threading
import time

from competitors import PASSWORD, run

CACHES = "/proc/sys/vm/drop_caches"


@contextlib.contextmanager
def timed(times, name):
    """Adds the seconds that the block takes to the list times[name]."""
    start = time.monotonic()
    yield
    times.setdefault(name, []).append(time.monotonic() - start)


def secondsOf(action):
    """How long the call takes."""
    start = time.monotonic()
    action()
    return time.monotonic() - start


def timedCommand(qv, verb, path):
    """Runs qv; how long the whole takes, and each step that it announces."""
    words = [qv, verb, path] + ([] if verb == "close" else ["--stdin"])
    start = time.monotonic()
    process = subprocess.Popen(words, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE)
    process.stdin.write("" if verb == "close" else PASSWORD + "\n")
    process.stdin.close()
    moments, text = [("before the first step", start)], []
    for line in process.stderr:
        moments.append((line.strip().rstrip("0123456789% …"), time.monotonic()))
        text.append(line)
    process.stdout.read()
    if process.wait() != 0:
        raise RuntimeError(f"qv {verb} failed: {''.join(text)}")
    end = time.monotonic()
    steps = {}  # one that is announced several times is one step
    for (step, since), (_, until) in itertools.pairwise(moments + [("", end)]):
        steps[step] = steps.get(step, 0.0) + until - since
    return end - start, steps


def warmCachesBecause():
    """Why what is said to be read cold comes from the caches; None when it does not."""
    return None if os.access(CACHES, os.W_OK) and os.geteuid() == 0 else (
        "only root may drop the caches")


def dropCaches():
    """Everything is on the disk and, as far as permitted, nothing in memory."""
    run("sync")
    if not warmCachesBecause():
        pathlib.Path(CACHES).write_text("3\n")


class PeakMemory:
    """Follows the peak resident size of the server of an image until the server has ended."""

    def __init__(self, image):
        self.image = str(image)
        self.status = pathlib.Path(f"/proc/{self._server()}/status")
        self.peak = 0
        self.thread = threading.Thread(target=self._watch)
        self.thread.start()

    def _server(self):
        """By its command line, as the server lets nobody look at what it has open."""
        for process in pathlib.Path("/proc").iterdir():
            with contextlib.suppress(OSError):  # ended meanwhile
                if process.name.isdigit() and self.image in (
                        (process / "cmdline").read_bytes().decode(errors="replace").split("\0")):
                    return process.name
        raise RuntimeError("the volume's server is not found")

    def _watch(self):
        with contextlib.suppress(OSError):
            while "VmHWM" in (text := self.status.read_text()):
                self.peak = int(text.split("VmHWM:")[1].split()[0]) * 1024
                time.sleep(0.02)

    def end(self):
        self.thread.join()
        return self.peak


def report(line=""):
    print(line, flush=True)


def makeHome(place):
    """A home of our own, where volumes appear."""
    for name in ("HOME", "XDG_RUNTIME_DIR"):
        os.environ[name] = str(place / name)
        os.mkdir(os.environ[name], mode=0o700)


def checkPlace(place):
    kind = run("stat", "-f", "-c", "%T", place).strip()
    if kind in ("tmpfs", "ramfs"):
        sys.exit(f"{place} is in memory ({kind}); name a directory on a disk with --directory")
    report(f"{platform.platform()}, {os.cpu_count()} processors, {kind} at {place}")


def checkRoom(place, needed):
    """Ends the program when fewer bytes than `needed` are free at the place."""
    status = os.statvfs(place)
    free = status.f_bavail * status.f_frsize
    if free < needed:
        sys.exit(f"{place} has {free >> 20} MiB free and {needed >> 20} are needed; name another "
                 "directory with --directory")


def load():
    return ", ".join(f"{value:.1f}" for value in os.getloadavg())


def endOnSignals():
    """The signals that end a program do it as an exception, so that everything is cleaned up."""
    def end(number, _):
        raise KeyboardInterrupt(signal.Signals(number).name)

    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, end)
