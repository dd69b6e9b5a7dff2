"""./run, and what it and ./test have in common."""

import os
import resource
import shutil
import signal
import subprocess
import unittest

import quillvane

RUN = quillvane.SOURCE / "run"


class RunTest(quillvane.Case):
    def testHandsItsArgumentsOver(self):
        version = self.run_(RUN, "--version")
        self.assertEqual((0, ""), (version.returncode, version.stderr))
        self.assertEqual(self.run_(quillvane.QV, "--version").stdout, version.stdout)
        (self.work / "a folder").mkdir()
        lock = self.run_(RUN, "lock", "--stdin", "a folder", stdin="x\n")
        self.assertEqual(0, lock.returncode, lock)
        self.assertEqual(f"{self.work}/a folder.quillvane", lock.stdout.splitlines()[0])
        self.assertEqual(1, self.run_(RUN, "open", "--stdin", "a folder.quillvane").returncode)
        self.assertEqual(2, self.run_(RUN, "nonsense").returncode)

    def testTakesNoNoticeableTime(self):
        # Counted as work, not by the clock: other tests may keep the machine busy.
        def work():
            used = resource.getrusage(resource.RUSAGE_CHILDREN)
            return used.ru_utime + used.ru_stime
        before = work()
        self.run_(RUN, "--version")
        self.assertLess(work() - before, 0.2)

    def startDemo(self):
        self.environment["TMPDIR"] = str(self.work)
        return subprocess.Popen([RUN], env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                                start_new_session=True,
                                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

    def assertNothingLeft(self):
        self.assertEqual([], os.listdir(self.work))
        self.assertEqual([], quillvane.mountsBelow(self.directory))
        self.assertEqual([], quillvane.serversOf(self.work))

    def testDemo(self):
        demo = self.startDemo()
        stdout, stderr = demo.communicate(timeout=120)
        self.assertEqual(0, demo.returncode, stdout + stderr)
        self.assertTrue(stdout.splitlines()[-1].startswith("All steps passed: "))
        for command in ("lock", "open", "close", "change", "remove"):
            self.assertIn(f"$ qv {command} ", stdout)
        self.assertNothingLeft()

    def testInterruptedDemo(self):
        for step in ("2.", "4.", "5.", "8."):
            demo = self.startDemo()
            while not (line := demo.stdout.readline()).startswith(step):
                self.assertNotEqual("", line, "ended early")
            os.killpg(demo.pid, signal.SIGINT)  # as Ctrl-C does
            demo.communicate(timeout=120)
            self.assertNotEqual(0, demo.returncode)
            self.assertNothingLeft()


class PackagesTest(quillvane.Case):
    """The installation of packages, with stand-ins for the programs that would change the system."""

    def setUp(self):
        super().setUp()
        self.programs = self.directory / "programs"
        self.programs.mkdir()
        self.log = self.directory / "log"
        self.log.write_text("")
        self.log.chmod(0o666)
        self.directory.chmod(0o755)
        for name in ("bash", "grep", "mktemp", "rm", "cat", "env"):
            (self.programs / name).symlink_to(shutil.which(name))
        shutil.copy(quillvane.SOURCE / "cmake/prepare.sh", self.directory / "prepare.sh")
        (self.directory / "list").write_text("# some packages\nfirst\nsecond\nthird\n")
        self.environment.pop("DEBIAN_FRONTEND", None)
        self.program("dpkg-query", "echo installed second")
        self.program("apt-get", f'echo "apt-get $*, $DEBIAN_FRONTEND" >>{self.log}')

    def program(self, name, body):
        (self.programs / name).write_text(f"#!{self.programs}/bash\n{body}\n")
        (self.programs / name).chmod(0o755)

    def install(self, ordinary=False):
        script = f"set -euo pipefail; source {self.directory}/prepare.sh; " \
                 f"installPackages {self.directory}/list; echo done"
        user = {}
        if ordinary and os.getuid() == 0:
            user = {"user": 65534, "group": 65534, "extra_groups": []}
        result = subprocess.run(["/bin/bash", "-c", script], cwd="/", text=True, capture_output=True,
                                env=self.environment | {"PATH": str(self.programs),
                                                        "TMPDIR": "/tmp"}, **user)
        return result, self.log.read_text().splitlines()

    def requireRoot(self):
        if os.getuid() != 0:
            self.skipTest("what root does is seen as root only")

    def testInstallsWhatIsMissingAndNothingElse(self):
        self.requireRoot()
        result, calls = self.install()
        self.assertEqual((0, "done\n"), (result.returncode, result.stdout), result)
        self.assertEqual("Installing 2 Debian packages: first third\n", result.stderr)
        self.assertEqual(["apt-get update -q, ", "apt-get install -q -y --no-install-recommends "
                          "first third, noninteractive"], calls)

    def testDoesNothingWhenAllIsThere(self):
        self.program("dpkg-query", "printf 'installed %s\\n' third first second")
        result, calls = self.install(ordinary=True)
        self.assertEqual((0, "done\n", ""), (result.returncode, result.stdout, result.stderr))
        self.assertEqual([], calls)

    def testUsesSudo(self):
        self.program("sudo", f'echo "sudo $1" >>{self.log}; exec "$@"')
        result, calls = self.install(ordinary=True)
        self.assertEqual(0, result.returncode, result)
        self.assertEqual(["sudo apt-get", "sudo env"], calls[0::2])

    def testNamesWhatIsMissingWhenItMayNotInstall(self):
        result, calls = self.install(ordinary=True)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertEqual("These Debian packages are missing; install them as root: first third\n",
                         result.stderr)
        self.assertEqual([], calls)

    def testShowsWhyTheInstallationFailed(self):
        self.requireRoot()
        self.program("apt-get", "echo 'no network' >&2; exit 100")
        result, _ = self.install()
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertTrue(result.stderr.endswith(
            "no network\nThe packages could not be installed.\n"), result.stderr)


if __name__ == "__main__":
    unittest.main()
