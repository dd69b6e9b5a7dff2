"""Starts of the application, one or many, and items that come from the file manager."""

import os
import queue
import signal
import subprocess
import threading
import time
import unittest
import urllib.parse

import dbus

import buses
import quillvane

DRIVER = str(quillvane.BUILD / "bin/test-application-start")
NAME = "org.quillvane.Quillvane"
PATH = "/org/quillvane/Quillvane"
APPLICATION = "org.freedesktop.Application"
ERROR = "org.freedesktop.DBus.Error."


def url(path):
    """A path as a file manager writes it."""
    return "file://" + urllib.parse.quote(os.fsencode(path))


class Start:
    """A start of the application, with the lines that it prints."""

    def __init__(self, test, *arguments, **environment):
        self._process = subprocess.Popen(
            [DRIVER, *arguments], cwd=test.work, env=test.environment | environment,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self._lines = queue.Queue()
        self._reader = threading.Thread(target=self._read)
        self._reader.start()
        test.addCleanup(self.kill)

    def _read(self):
        for line in self._process.stdout:
            self._lines.put(line.decode().rstrip("\n"))

    def line(self, seconds=20):
        """The next line; None when the program has ended or says nothing for so long."""
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            try:
                return self._lines.get(timeout=0.02)
            except queue.Empty:
                if not self._reader.is_alive() and self._lines.empty():
                    return None
        return None

    def lines(self, count):
        """The next lines, in order of the alphabet: some come in no order of their own."""
        return sorted(self.line() or "" for _ in range(count))

    def rest(self):
        """All lines that nobody has asked for yet, once the program has ended."""
        self._reader.join()
        lines = []
        while not self._lines.empty():
            lines.append(self._lines.get())
        return lines

    def send(self, number):
        self._process.send_signal(number)

    def quit(self):
        """Begins to quit; `end` completes it."""
        self._process.stdin.write(b"quit\n")
        self._process.stdin.flush()

    def end(self):
        """Quits, or waits for the end of a start that ends by itself; status and complaints."""
        if not self._process.stdin.closed:
            self._process.stdin.close()
        status = self._process.wait(timeout=30)
        return status, self._process.stderr.read().decode()

    def kill(self):
        self._process.kill()
        self._process.wait()
        self._reader.join()
        for stream in (self._process.stdin, self._process.stdout, self._process.stderr):
            stream.close()


class StartCase(buses.BusCase):
    def setUp(self):
        super().setUp()
        # What Qt's own threads do is hidden from the thread sanitizer, and would look like races.
        self.environment["TSAN_OPTIONS"] = ":".join(
            [os.environ.get("TSAN_OPTIONS", ""), "ignore_noninstrumented_modules=1"])

    def start(self, *arguments, **environment):
        return Start(self, *arguments, **environment)

    def running(self, *arguments, **environment):
        """A start that has become the running instance."""
        start = self.start(*arguments, **environment)
        self.assertEqual("running", start.line())
        return start

    def assertHandedOver(self, start):
        self.assertEqual((0, ""), start.end())
        self.assertEqual(["handed over"], start.rest())

    def assertEndsWell(self, start, *lines):
        self.assertEqual((0, ""), start.end())
        self.assertEqual([*lines, "ending"], start.rest())

    def application(self, name=NAME):
        """The running instance as others see it."""
        return dbus.Interface(
            self.sessionBus.connection().get_object(name, PATH, introspect=False), APPLICATION)

    def open(self, *uris, **platformData):
        """What a file manager does; it comes back when the instance has answered."""
        self.application().Open(dbus.Array(uris, signature="s"),
                                dbus.Dictionary(platformData, signature="sv"))


class ArgumentsTest(StartCase):
    def testOpensTheItemOfItsArguments(self):
        for name in ("Docs.quillvane", "a b\n%20?#.quillvane", "näme.QUILLVANE",
                     b"\xff\xfe\xed\xa0\x80.quillvane", "-x.quillvane"):
            start = self.running("--", name)
            self.assertEqual("pending " + url(os.fsencode(self.work) + b"/" + os.fsencode(name)),
                             start.line())
            self.assertEndsWell(start)

    def testOpensTheFirstItemOnly(self):
        start = self.running("notes.txt", "/One.quillvane", "file:///Two.quillvane")
        self.assertEqual("pending file:///One.quillvane", start.line())
        self.assertEndsWell(start)

    def testOpensNothingElse(self):
        self.assertEndsWell(self.running("notes.txt", ".quillvane", "file://elsewhere/a.quillvane"))

    def testKnowsNoOptions(self):
        start = self.start("--help", "Docs.quillvane")
        self.assertEqual((2, "unknown option: --help\n"), start.end())
        self.assertEqual([], start.rest())

    def testPrintsWithoutADisplay(self):
        for option, beginning in (("--help", "usage: quillvane "), ("--version", "Quillvane 0.")):
            printed = subprocess.run([quillvane.BUILD / "bin/quillvane", option], env={},
                                     stdout=subprocess.PIPE, check=True, text=True).stdout
            self.assertTrue(printed.startswith(beginning), printed)

    def testOffersTheFolderOfItsArguments(self):
        name = b"a b\n%\xff#"
        start = self.running("--protect", name)
        self.assertEqual("protect " + url(os.fsencode(self.work) + b"/" + name), start.line())
        self.assertEndsWell(start)

    def testOffersNothingWithoutAFolder(self):
        start = self.start("--protect")
        self.assertEqual((2, "--protect takes one folder of this computer\n"), start.end())
        self.assertEqual([], start.rest())

    def testRunsAloneWithoutABus(self):
        for address in ("", f"unix:path={self.directory}/nowhere", "nonsense"):
            self.environment["DBUS_SESSION_BUS_ADDRESS"] = address
            starts = [self.running(f"/{number}.quillvane") for number in range(2)]
            for number, start in enumerate(starts):
                self.assertEqual(f"pending file:///{number}.quillvane", start.line())
                self.assertEndsWell(start)

    def testSurvivesTheEndOfTheBus(self):
        start = self.running()
        self.sessionBus.stop()
        time.sleep(0.2)
        self.assertEndsWell(start)
        self.sessionBus.start()

    def testQuitsSoonWhenTheBusHangs(self):
        start = self.running()
        self.sessionBus.freeze()
        self.addCleanup(self.sessionBus.thaw)
        begin = time.monotonic()
        self.assertEndsWell(start)
        self.assertLess(time.monotonic() - begin, 5)


class OtherStartTest(StartCase):
    def testHandsItsItemsOver(self):
        first = self.running()
        name = b"a b\n%\xff#.quillvane"
        self.assertHandedOver(self.start("notes.txt", name, "/Two.quillvane"))
        self.assertEqual(["activated - -", "pending " + url(bytes(self.work) + b"/" + name)],
                         first.lines(2))
        self.assertHandedOver(self.start("notes.txt"))
        self.assertEqual("activated - -", first.line())
        self.assertEndsWell(first)

    def testBringsTheWindowToTheFront(self):
        first = self.running(DESKTOP_STARTUP_ID="its-own", XDG_ACTIVATION_TOKEN="its own")
        self.assertHandedOver(self.start(DESKTOP_STARTUP_ID="id_TIME1"))
        self.assertEqual("activated id_TIME1 -", first.line())
        self.assertHandedOver(self.start(XDG_ACTIVATION_TOKEN="tökén"))
        self.assertEqual("activated - tökén", first.line())
        self.assertEndsWell(first)

    def testHandsItsFolderOver(self):
        first = self.running()
        name = b"a b\n%\xff#"
        self.assertHandedOver(self.start("--protect", name, XDG_ACTIVATION_TOKEN="token"))
        self.assertEqual(
            ["activated - token", "protect " + url(os.fsencode(self.work) + b"/" + name)],
            first.lines(2))
        self.assertEndsWell(first)

    def testTwoAtTheSameMomentAreOneInstance(self):
        for _ in range(20):
            starts = [self.start(f"/{number}.quillvane") for number in range(2)]
            said = [start.line() for start in starts]
            self.assertEqual(["handed over", "running"], sorted(said))
            instance, other = starts if said[0] == "running" else reversed(starts)
            self.assertEqual(
                ["activated - -", "pending file:///0.quillvane", "pending file:///1.quillvane"],
                instance.lines(3))
            self.assertEqual((0, ""), other.end())
            self.assertEndsWell(instance)

    def testComplainsOfAnInstanceThatDoesNotAnswer(self):
        first = self.running()
        first.send(signal.SIGSTOP)
        begin = time.monotonic()
        status, complaint = self.start("/Docs.quillvane").end()
        self.assertEqual(1, status)
        self.assertRegex(complaint, r"\AQuillvane is already running but does not answer\.[^\n]*\n\Z")
        self.assertLess(time.monotonic() - begin, 6)
        first.send(signal.SIGCONT)
        # It has got the item all the same.
        self.assertEqual(["activated - -", "pending file:///Docs.quillvane"], first.lines(2))
        first.kill()

    def testTakesThePlaceOfAnInstanceThatDies(self):
        first = self.running()
        first.send(signal.SIGSTOP)
        second = self.start("/Docs.quillvane")
        self.assertIsNone(second.line(0.5))
        first.send(signal.SIGKILL)
        self.assertEqual("running", second.line())
        self.assertEqual("pending file:///Docs.quillvane", second.line())
        self.assertEndsWell(second)

    def testFindsNobodyAfterAKill(self):
        first = self.running()
        first.kill()
        self.assertEndsWell(self.running())

    def testIsAnInstanceOfItsOwnWhileTheFormerEnds(self):
        first = self.running("/One.quillvane")
        self.assertEqual("pending file:///One.quillvane", first.line())
        first.quit()
        self.assertEqual("ending", first.line())
        second = self.running("/Two.quillvane")
        self.assertEqual("pending file:///Two.quillvane", second.line())
        self.assertHandedOver(self.start("/Three.quillvane"))
        self.assertEqual(["activated - -", "pending file:///Three.quillvane"], second.lines(2))
        self.assertEqual((0, ""), first.end())
        self.assertEqual([], first.rest())
        self.assertEndsWell(second)

    def testAnItemThatComesWhileTheInstanceQuitsIsNotLost(self):
        first = self.running(QUIT_WHEN_ACTIVATED="yes")
        second = self.start("/Docs.quillvane")
        self.assertEqual("running", second.line())
        self.assertEqual("pending file:///Docs.quillvane", second.line())
        self.assertEqual((0, ""), first.end())
        self.assertEqual(["activated - -", "ending"], first.rest())
        self.assertEndsWell(second)

    def testAnItemThatComesWithTheRequestToQuitIsNotLost(self):
        # Both wait while the instance is stopped; it may find them in any order.
        first = self.running()
        first.send(signal.SIGSTOP)
        first.quit()
        second = self.start("/Docs.quillvane")
        self.assertIsNone(second.line(0.5))
        first.send(signal.SIGCONT)
        role = second.line()
        first.end()
        second.end()
        opener = first if role == "handed over" else second
        self.assertIn("pending file:///Docs.quillvane", opener.rest())


class BusTest(StartCase):
    def testOpensWhatAFileManagerAsksFor(self):
        instance = self.running()
        for name in ("Docs.quillvane", "a b\n%20?#.quillvane", "näme.QUILLVANE",
                     b"\xff\xfe.quillvane", "Docs.quillvane"):
            item = url(b"/" + os.fsencode(name))
            self.open("file:///notes.txt", item, "file:///Other.quillvane",
                      **{"desktop-startup-id": "id", "activation-token": "token"})
            self.assertEqual(["activated id token", "pending " + item], instance.lines(2))
        self.assertEndsWell(instance)

    def testTakesTheWordsOfGdbus(self):
        instance = self.running()
        call = ["gdbus", "call", "--session", "--dest", NAME, "--object-path", PATH, "--method"]
        for method, arguments, lines in (
                ("Activate", ["{}"], ["activated - -"]),
                ("Open", ["['file:///Docs.quillvane']", "{'activation-token': <'token'>}"],
                 ["activated - token", "pending file:///Docs.quillvane"]),
                ("ActivateAction", ["new-window", "[<'any'>, <1>]", "{}"], ["activated - -"]),
                ("ActivateAction", ["protect", "[<'file:///Docs'>]", "{}"],
                 ["activated - -", "protect file:///Docs"])):
            result = self.run_(*call, f"{APPLICATION}.{method}", *arguments)
            self.assertEqual((0, "()\n", ""), (result.returncode, result.stdout, result.stderr))
            self.assertEqual(lines, instance.lines(len(lines)))
        self.assertEndsWell(instance)

    def testShowsTheInterfaceOfTheStandard(self):
        instance = self.running()
        text = self.sessionBus.connection().get_object(NAME, PATH, introspect=False).Introspect(
            dbus_interface="org.freedesktop.DBus.Introspectable")
        interface = text[text.index(f'<interface name="{APPLICATION}">'):]
        interface = interface[:interface.index("</interface>")]
        self.assertEqual(
            {"Activate": ["a{sv}"], "Open": ["as", "a{sv}"],
             "ActivateAction": ["s", "av", "a{sv}"]},
            {method.split('"')[0]: [arg.split('"')[0] for arg in method.split('type="')[1:]]
             for method in interface.split('<method name="')[1:]})
        self.assertNotIn("signal", interface)
        self.assertEndsWell(instance)

    def testIgnoresWhatMakesNoSense(self):
        instance = self.running()
        self.open(*(["Docs.quillvane", "/Docs.quillvane", "", "file:", "file:Docs.quillvane",
                     "file:///a%00.quillvane", "file:///a%zz.quillvane", "file:///a%2f.quillvane",
                     "file://elsewhere/a.quillvane", "http://localhost/a.quillvane",
                     "file:///a.quillvane#b", "file:///a.quillvane?b", "%", "\n"] * 5000))
        self.assertEqual("activated - -", instance.line())
        self.open("file:///" + "x" * 1_000_000 + ".txt",
                  **{"activation-token": "x" * 1_000_000, "desktop-startup-id": dbus.Int32(1),
                     "other": dbus.Array([dbus.Struct((1, "a"))], signature="(is)")})
        self.assertEqual("activated - -", instance.line())
        self.open()
        self.assertEqual("activated - -", instance.line())
        self.assertEndsWell(instance)

    def testIgnoresActionsThatMakeNoSense(self):
        instance = self.running()
        for action, *parameter in (
                ("protect",), ("protect", "file:///a", "file:///b"), ("protect", "/a"),
                ("protect", "file://elsewhere/a"), ("protect", dbus.Int32(1)),
                ("protect", dbus.Array(["file:///a"], signature="s")), ("Protect", "file:///a")):
            self.application().ActivateAction(action, dbus.Array(parameter, signature="v"),
                                              dbus.Dictionary({}, signature="sv"))
            self.assertEqual("activated - -", instance.line())
        self.assertEndsWell(instance)

    def testRefusesCallsOfTheWrongShape(self):
        instance = self.running()
        target = self.sessionBus.connection().get_object(NAME, PATH, introspect=False)
        for method, arguments in (("Open", ("file:///a.quillvane",)), ("Activate", (1,)),
                                  ("Quit", ()), ("release", ()), ("start", ())):
            with self.assertRaises(dbus.DBusException, msg=method) as raised:
                target.get_dbus_method(method, APPLICATION)(*arguments)
            self.assertEqual(ERROR + "UnknownMethod", raised.exception.get_dbus_name())
        self.assertEndsWell(instance)

    def testAnEndingInstanceHasGivenUpItsName(self):
        instance = self.running()
        self.assertTrue(self.sessionBus.hasOwner(NAME))
        instance.quit()
        self.assertEqual("ending", instance.line())
        self.assertFalse(self.sessionBus.hasOwner(NAME))
        self.assertEqual((0, ""), instance.end())
        self.assertEqual([], instance.rest())


class BusActivationTest(StartCase):
    """The bus starts the application for a call."""

    def setUp(self):
        super().setUp()
        self.report = self.directory / "report"
        self.report.touch()
        services = self.directory / "services"
        services.mkdir()
        script = self.directory / "application"
        # Its input is the FIFO's, so that it ends with the test.
        self.input = self.directory / "input"
        os.mkfifo(self.input)
        variables = " ".join(f"{name}='{self.environment[name]}'"
                             for name in ("XDG_RUNTIME_DIR", "TSAN_OPTIONS"))
        script.write_text(f"#!/bin/sh\nexport {variables}\n"
                          f"exec '{DRIVER}' <>'{self.input}' >>'{self.report}' 2>&1\n")
        script.chmod(0o755)
        (services / f"{NAME}.service").write_text(
            f"[D-BUS Service]\nName={NAME}\nExec={script}\n")
        self.sessionBus.stop()
        configuration = self.directory / "session-bus.conf"
        configuration.write_text(configuration.read_text().replace(
            "</busconfig>", f"<servicedir>{services}</servicedir></busconfig>"))
        self.sessionBus.start()
        self.addCleanup(self._end)

    def _end(self):
        """The bus's child knows the address of the bus, which is in our directory."""
        for server in quillvane.serversOf(self.directory):
            os.kill(server, signal.SIGKILL)

    def reported(self, count):
        quillvane.eventually(lambda: len(self.report.read_text().splitlines()) >= count)
        return sorted(self.report.read_text().splitlines())

    def testNoCallIsLost(self):
        self.open("file:///Docs.quillvane", **{"activation-token": "token"})
        self.assertEqual(["activated - token", "pending file:///Docs.quillvane", "running"],
                         self.reported(3))
        self.assertHandedOver(self.start("/Two.quillvane"))
        self.assertIn("pending file:///Two.quillvane", self.reported(5))


if __name__ == "__main__":
    unittest.main()
