"""The package on a Debian that has nothing else: installed, used by an ordinary user for all that
the program is for, replaced and removed while a volume is open, and taken away without a trace."""

import os
import pathlib
import shutil
import signal
import subprocess
import time
import unittest

import dbus

import quillvane
from clean_root import USER, CleanRoot
from package import PACKAGE, field
from quillvane import describe, differences, eventually, makeTree

NAME = "org.quillvane.Quillvane"
PATH = "/" + NAME.replace(".", "/")
PASSWORD, OTHER = "correct horse", "battery staple"
BUS = "/tmp/session-bus"
ITEM = "Documents.quillvane"


class Install(quillvane.Case):
    def setUp(self):
        super().setUp()
        begin = time.monotonic()
        place, self.ada = self.directory / "root", self.directory / "ada"
        place.mkdir()
        self.addCleanup(subprocess.run, ["umount", "-q", "-R", "-l", place])
        self.root = CleanRoot(place, self.ada)
        self._tell("a root of its own", begin)

    def test(self):
        for step in (self.installing, self.theMainJob, self.replacing, self.theWindow,
                     self.startingByTheBus, self.removing, self.purging):
            begin = time.monotonic()
            step()
            self._tell(step.__name__, begin)

    @staticmethod
    def _tell(what, begin):
        print(f"{what}: {time.monotonic() - begin:.1f} s", flush=True)

    # Steps

    def installing(self):
        depends = [part.split(" ")[0] for part in field("Depends").split(", ")]
        # The bus is the test's own wish.
        self.root.apt("install", "dbus-daemon", *depends)
        self.before = self.root.files()
        shutil.copy(PACKAGE, self.root.path / "tmp/quillvane.deb")
        said = self.root.apt("install", "/tmp/quillvane.deb")
        self.assertIn("0 upgraded, 1 newly installed", said)
        self.assertEqual("", self.root.run("dpkg", "--verify", "quillvane"))

    def theMainJob(self):
        tree = makeTree(self.ada / "Documents")
        subprocess.run(["chown", "-hR", f"{USER}:{USER}", tree], check=True)
        before = describe(tree)
        locked = self.qv("lock", "--stdin", "Documents", secrets=[PASSWORD])
        self.assertEqual(f"/home/ada/{ITEM}", locked[0])
        self.assertFalse(tree.exists())
        self.assertEqual(["/home/ada/Volumes/Documents"],
                         self.qv("open", "--stdin", ITEM, secrets=[PASSWORD]))
        self.write("Volumes/Documents/new file", "written inside")
        self.qv("close", ITEM)
        self.qv("change", "--stdin", ITEM, secrets=[PASSWORD, OTHER])
        self.qv("remove", "--stdin", ITEM, secrets=[OTHER])
        self.assertEqual("written inside", (tree / "new file").read_text())
        (tree / "new file").unlink()
        os.utime(tree, ns=(0, 1_500_000_000_000_000_009))  # as `makeTree` left it
        self.assertEqual([], differences(before, describe(tree)))
        self.qv("lock", "--stdin", "Documents", secrets=[PASSWORD])

    def replacing(self):
        """Another version comes while a Smart Folder is open and its program runs."""
        smart = subprocess.Popen(**self.root.asUser("qv", "smart", "--stdin", ITEM),
                                 stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                 stderr=subprocess.PIPE, text=True)
        smart.stdin.write(PASSWORD + "\n")
        smart.stdin.close()
        self.assertEqual("/home/ada/Documents\n", smart.stdout.readline())
        self.root.run("dpkg", "-i", "/tmp/quillvane.deb")
        self.write("Documents/after replacing", "kept")
        smart.send_signal(signal.SIGINT)
        self.assertEqual(0, smart.wait(60), smart.stderr.read())
        for stream in (smart.stdout, smart.stderr):
            stream.close()
        self.assertFalse((self.ada / "Documents").exists())

    def theWindow(self):
        self.startBus()
        window = subprocess.Popen(
            **self.root.asUser("quillvane", QT_QPA_PLATFORM="offscreen",
                               DBUS_SESSION_BUS_ADDRESS="unix:path=" + BUS),
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.assertTrue(eventually(lambda: self.bus.name_has_owner(NAME), 30), "it does not run")
        # It answers when its window is made, or else ends. This display has no front for a window,
        # and says so of each that is to come there.
        self.application().Activate(dbus.Dictionary({}, signature="sv"))
        self.assertIsNone(window.poll())
        window.terminate()
        self.assertEqual(("This plugin does not support raise()\n", 0),
                         (window.communicate(timeout=30)[0], window.returncode))

    def startingByTheBus(self):
        self.assertFalse(self.bus.name_has_owner(NAME))
        self.application().Open([f"file:///home/ada/{ITEM}"], dbus.Dictionary({}, signature="sv"))
        daemon = self.bus.get_object(dbus.BUS_DAEMON_NAME, dbus.BUS_DAEMON_PATH)
        number = int(daemon.GetConnectionUnixProcessID(NAME, dbus_interface=dbus.BUS_DAEMON_IFACE))
        self.assertEqual(b"/usr/bin/quillvane\0",
                         pathlib.Path(f"/proc/{number}/cmdline").read_bytes())
        self.assertEqual(USER, os.stat(f"/proc/{number}").st_uid)
        os.kill(number, signal.SIGTERM)
        self.assertTrue(eventually(lambda: not self.bus.name_has_owner(NAME), 30))

    def removing(self):
        """The package goes while a volume is open, which stays until its user closes it."""
        odd = "to root's \x1b[31m \x9b terminal"
        self.asUser("mkdir", odd)
        self.qv("lock", "--stdin", odd, secrets=[PASSWORD])
        volumes = [self.qv("open", "--stdin", item, secrets=[PASSWORD])[0]
                   for item in (ITEM, odd + ".quillvane")]
        said = self.root.run("dpkg", "--remove", "quillvane")
        for name in ("Documents", "to root's _[31m ? terminal"):
            self.assertIn(f"Quillvane: still open: /home/ada/Volumes/{name} (its user closes it with "
                          "fusermount3 -u)\n", said)
        self.write("Volumes/Documents/after removing", "kept")
        for volume in volumes:
            self.asUser("fusermount3", "-u", volume)
        self.assertTrue(eventually(lambda: not self.servers(), 30), "the server stays")
        self.root.run("dpkg", "-i", "/tmp/quillvane.deb")
        self.qv("remove", "--stdin", ITEM, secrets=[PASSWORD])
        for name in ("after replacing", "after removing"):
            self.assertEqual("kept", (self.ada / "Documents" / name).read_text())

    def purging(self):
        """Even where nothing tells what is mounted, as in a root that is only being prepared."""
        subprocess.run(["umount", self.root.path / "proc"], check=True)
        self.root.run("dpkg", "--purge", "quillvane")
        self.assertEqual(self.before, self.root.files())

    # What they are made of

    def asUser(self, *command, secrets=()):
        result = subprocess.run(**self.root.asUser(*command), text=True, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE,
                                input="".join(secret + "\n" for secret in secrets))
        self.assertEqual(0, result.returncode, (command, result.stdout, result.stderr))
        return result.stdout.splitlines()

    def qv(self, *words, secrets=()):
        return self.asUser("qv", *words, secrets=secrets)

    def write(self, path, text):
        """Writes into a volume, which nobody but the user can enter."""
        self.asUser("sh", "-c", 'printf %s "$2" >"$1"', "sh", path, text)

    @staticmethod
    def servers():
        """Processes of the tool that serves volumes."""
        found = []
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                if (process / "exe").readlink().match("libexec/quillvane/hdiutil*"):
                    found.append(process.name)
            except OSError:
                pass  # it has ended meanwhile
        return found

    def startBus(self):
        """The user's session bus as Debian has it, but that root, who runs this, may use it."""
        (self.root.path / "tmp/session-bus.conf").write_text(
            "<busconfig><include>/usr/share/dbus-1/session.conf</include>"
            '<policy context="mandatory"><allow user="root"/></policy></busconfig>')
        daemon = subprocess.Popen(
            **self.root.asUser("dbus-daemon", "--config-file=/tmp/session-bus.conf", "--nofork",
                               "--nopidfile", "--address=unix:path=" + BUS, "--print-address",
                               QT_QPA_PLATFORM="offscreen"),
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        self.addCleanup(daemon.stdout.close)
        self.assertTrue(daemon.stdout.readline(), "the bus does not start")
        self.bus = dbus.bus.BusConnection(f"unix:path={self.root.path}{BUS}")
        self.bus.set_exit_on_disconnect(False)
        self.addCleanup(self.bus.close)

    def application(self):
        return dbus.Interface(self.bus.get_object(NAME, PATH, introspect=False),
                              "org.freedesktop.Application")


if __name__ == "__main__":
    unittest.main()
