"""Private D-Bus buses for tests, and the desktop's services on them, played by python-dbusmock.

For /usr/bin/python3, whose packages have dbus and dbusmock (see `isolated`).
"""

import signal
import subprocess
import sys

import dbus
import dbus.lowlevel

from quillvane import Case, eventually

MOCK = "org.freedesktop.DBus.Mock"
LOGIN = "org.freedesktop.login1"
LOGIN_MANAGER = LOGIN + ".Manager"
SESSION_MANAGER = "org.gnome.SessionManager"
CLIENT = SESSION_MANAGER + ".ClientPrivate"

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>{kind}</type>
  <listen>unix:path={socket}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


class Bus:
    """A bus daemon of the test's own; it runs as whoever runs the test."""

    def __init__(self, directory, kind):
        self.kind = kind
        self.address = f"unix:path={directory / kind}-bus"
        self._configuration = directory / f"{kind}-bus.conf"
        self._configuration.write_text(
            CONFIGURATION.format(kind=kind, socket=f"{directory / kind}-bus"))
        self._daemon = self._connection = None
        self.start()

    def start(self):
        """Starts the daemon, or starts it again at the same address."""
        (self._configuration.parent / f"{self.kind}-bus").unlink(missing_ok=True)
        self._daemon = subprocess.Popen(
            ["dbus-daemon", "--nofork", "--nopidfile", f"--config-file={self._configuration}",
             "--print-address"], stdout=subprocess.PIPE, text=True)
        if not self._daemon.stdout.readline():
            raise RuntimeError(f"the {self.kind} bus does not start")

    def connection(self):
        """The test's own connection; it cannot receive signals, for want of a loop."""
        if not self._connection:
            self._connection = dbus.bus.BusConnection(self.address)
            self._connection.set_exit_on_disconnect(False)
        return self._connection

    def hasOwner(self, name):
        return self.connection().name_has_owner(name)

    def freeze(self):
        """From now on nobody answers, as long as `thaw` is not called."""
        self._daemon.send_signal(signal.SIGSTOP)

    def thaw(self):
        self._daemon.send_signal(signal.SIGCONT)

    def stop(self):
        if self._connection:
            self._connection.close()
            self._connection = None
        self._daemon.kill()
        self._daemon.wait()
        self._daemon.stdout.close()


class Mock:
    """A service played by a dbusmock process, with one object to begin with. As with real services,
    all is there before the name is: it is prepared under another one."""

    def __init__(self, bus, name, path, interface, environment, methods=()):
        self.bus, self.path, self.interface = bus, path, interface
        self.name = name + ".preparing"
        self._process = subprocess.Popen(
            [sys.executable, "-B", "-m", "dbusmock", f"--{bus.kind}", self.name, path, interface],
            env=environment, stdout=subprocess.DEVNULL)
        if not eventually(self._answers):
            self.stop()
            raise RuntimeError(f"{name} does not start")
        self.addMethods(interface, *methods)
        self.prepare()
        self.call("AddMethod", MOCK, "Claim", "s", "", "self.connection.request_name(args[0])",
                  interface=MOCK)
        self.call("Claim", name, interface=MOCK)
        self.name = name

    def prepare(self):
        """What a kind of service has beyond its first object."""

    def addMethods(self, interface, *methods, path=None):
        """Each is (name, signature, signature of the result, Python code)."""
        self.call("AddMethods", interface, dbus.Array(methods, signature="(ssss)"), path=path,
                  interface=MOCK)

    def addObject(self, path, interface, *methods):
        self.call("AddObject", path, interface, dbus.Dictionary({}, signature="sv"),
                  dbus.Array(methods, signature="(ssss)"), interface=MOCK)

    def _answers(self):
        try:
            self.call("GetCalls", interface=MOCK)
            return True
        except dbus.DBusException:
            return False

    def call(self, method, *arguments, path=None, interface=None):
        """Calls a method of an object of the service; its result."""
        target = self.bus.connection().get_object(self.name, path or self.path, introspect=False)
        return target.get_dbus_method(method, interface or self.interface)(*arguments)

    def emit(self, name, signature="", *arguments, path=None, interface=None):
        """Emits a signal of an object of the service."""
        self.call("EmitSignal", interface or self.interface, name, signature,
                  dbus.Array(arguments, signature="v"), path=path, interface=MOCK)

    def forge(self, name, signature, *arguments, path=None, interface=None):
        """Has another client send such a signal to each client of the bus."""
        connection = self.bus.connection()
        names = connection.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus").ListNames(
            dbus_interface="org.freedesktop.DBus")
        for client in names:
            if client.startswith(":"):
                message = dbus.lowlevel.SignalMessage(path or self.path,
                                                      interface or self.interface, name)
                message.append(*arguments, signature=signature)
                message.set_destination(client)
                connection.send_message(message)
        connection.flush()

    def calls(self, method, path=None):
        """The arguments of every call of the method so far, oldest first."""
        return [tuple(arguments) for _, arguments in
                self.call("GetMethodCalls", method, path=path, interface=MOCK)]

    def waitForCalls(self, method, count=1, path=None):
        """Waits until the method was called this often; as `calls`."""
        eventually(lambda: len(self.calls(method, path)) >= count)
        return self.calls(method, path)

    def stop(self):
        """Ends the service: its name loses its owner."""
        self._process.kill()
        self._process.wait()


class Logind(Mock):
    """org.freedesktop.login1 on the system bus."""

    def __init__(self, bus, environment):
        super().__init__(bus, LOGIN, "/org/freedesktop/login1", LOGIN_MANAGER, environment)

    def prepare(self):
        self.call("AddTemplate", "logind", dbus.Dictionary({}, signature="sv"), interface=MOCK)

    def addSession(self, name, user):
        """Adds a session of the user with this number; the session's object."""
        return self.call("AddSession", name, "seat0", dbus.UInt32(user), f"user{user}", True,
                         interface=MOCK)

    def lock(self, session):
        """What `loginctl lock-session` leads to."""
        self.emit("Lock", path=session, interface=LOGIN + ".Session")

    def setLockedHint(self, session, locked):
        """What a screen locker tells when it has locked."""
        self.call("SetLockedHint", locked, path=session, interface=LOGIN + ".Session")

    def prepareForShutdown(self, start):
        self.emit("PrepareForShutdown", "b", start)

    def inhibitors(self):
        """Those that are held now: (what, who, why, mode)."""
        return [tuple(str(text) for text in entry[:4]) for entry in self.call("ListInhibitors")]

    def waitForInhibitors(self, count):
        eventually(lambda: len(self.inhibitors()) == count)
        return self.inhibitors()


class ScreenSaver(Mock):
    """A screen saver on the session bus, under any of the names that are in use."""

    def setActive(self, active):
        self.emit("ActiveChanged", "b", active)


class SessionManager(Mock):
    """org.gnome.SessionManager on the session bus. The first client that registers is `client`."""

    client = "/org/gnome/SessionManager/Client1"

    def __init__(self, bus, environment):
        super().__init__(bus, SESSION_MANAGER, "/org/gnome/SessionManager", SESSION_MANAGER,
                         environment)

    def prepare(self):
        self.addObject(self.client, CLIENT, ("EndSessionResponse", "bs", "", ""))
        self.addMethods(
            SESSION_MANAGER,
            ("RegisterClient", "ss", "o", f"ret = dbus.ObjectPath('{self.client}')"),
            ("UnregisterClient", "o", "", ""))

    def askClient(self, signalName):
        """Emits QueryEndSession, EndSession, CancelEndSession or Stop for the client."""
        flags = ("u", dbus.UInt32(0)) if signalName in ("QueryEndSession", "EndSession") else ()
        self.emit(signalName, *flags, path=self.client, interface=CLIENT)

    def responses(self):
        """The client's answers so far: (is it fine?, reason)."""
        return [(bool(fine), str(reason))
                for fine, reason in self.calls("EndSessionResponse", self.client)]

    def waitForResponses(self, count):
        eventually(lambda: len(self.responses()) >= count)
        return self.responses()


class BusCase(Case):
    """A test with a session bus and a "system" bus of its own, `self.sessionBus` and
    `self.systemBus`, which are those of `self.environment` too. All is ended afterwards."""

    def setUp(self):
        super().setUp()
        self.sessionBus = self._bus("session")
        self.systemBus = self._bus("system")

    def _bus(self, kind):
        bus = Bus(self.directory, kind)
        self.addCleanup(bus.stop)
        self.environment[f"DBUS_{kind.upper()}_BUS_ADDRESS"] = bus.address
        return bus

    def _kept(self, mock):
        self.addCleanup(mock.stop)
        return mock

    def mock(self, bus, name, path, interface, *methods):
        """Any other service; for `methods` see `Mock.addMethods`."""
        return self._kept(Mock(bus, name, path, interface, self.environment, methods))

    def logind(self):
        return self._kept(Logind(self.systemBus, self.environment))

    def screenSaver(self, name="org.freedesktop.ScreenSaver", path=None):
        """The screen saver under this name; its object is named like it unless `path` is given."""
        place = path or "/" + name.replace(".", "/")
        return self._kept(ScreenSaver(self.sessionBus, name, place, name, self.environment))

    def sessionManager(self):
        return self._kept(SessionManager(self.sessionBus, self.environment))
