"""What the login manager, screen savers and the session manager tell, and what buses may do."""

import os
import signal
import socket
import time
import unittest

import dbus
import dbus.lowlevel

from buses import BusCase, CLIENT, LOGIN, MOCK
from event_printer import EventPrinter
from quillvane import eventually

OTHER_USER = os.getuid() + 1
HELD = [("shutdown", "Quillvane", "Closing the open Smart Folders", "delay")]


class LoginManagerTest(BusCase):
    def setUp(self):
        super().setUp()
        self.login = self.logind()

    def printer(self):
        """A running program that listens: the delay is the last thing it asks for."""
        printer = EventPrinter(self)
        self.assertEqual(HELD, self.login.waitForInhibitors(1))
        return printer

    def test_locks(self):
        session = self.login.addSession("c1", os.getuid())
        second = self.login.addSession("c2", os.getuid())
        printer = self.printer()
        self.login.lock(session)
        printer.expect("screen locked")
        self.login.setLockedHint(session, True)
        printer.expect("screen locked")
        self.login.setLockedHint(session, False)
        self.login.lock(second)
        self.login.setLockedHint(second, True)
        printer.expect("screen locked", "screen locked")
        printer.end()

    def test_other_changes_of_a_session(self):
        session = self.login.addSession("c1", os.getuid())
        printer = self.printer()
        for changed in ({"IdleHint": True}, {"LockedHint": False, "IdleHint": True}):
            self.login.call("UpdateProperties", LOGIN + ".Session", changed, path=session,
                            interface=MOCK)
        self.login.emit("Unlock", path=session, interface=LOGIN + ".Session")
        self.login.call("UpdateProperties", LOGIN + ".Session",
                        {"IdleHint": False, "Class": "user", "LockedHint": True, "Active": True},
                        path=session, interface=MOCK)
        printer.expect("screen locked")
        self.login.prepareForShutdown(True)
        printer.expect("powering off")
        printer.end()

    def test_another_users_session(self):
        theirs = self.login.addSession("c1", OTHER_USER)
        ours = self.login.addSession("c2", os.getuid())
        printer = self.printer()
        self.login.lock(theirs)
        self.login.setLockedHint(theirs, True)
        self.login.prepareForShutdown(False)
        self.login.prepareForShutdown(True)
        printer.expect("powering off")
        self.login.lock(ours)
        printer.expect("screen locked")
        printer.end()

    def test_session_of_nobody_known_counts_as_ours(self):
        session = "/org/freedesktop/login1/session/c1"
        self.login.addObject(session, LOGIN + ".Session")
        printer = self.printer()
        self.login.lock(session)
        printer.expect("screen locked")
        printer.end()

    def test_signals_for_us_alone_are_not_the_login_managers(self):
        session = self.login.addSession("c1", os.getuid())
        printer = self.printer()
        self.login.forge("PrepareForShutdown", "b", True)
        self.login.forge("Lock", "", path=session, interface=LOGIN + ".Session")
        self.login.lock(session)
        printer.expect("screen locked")
        self.assertEqual(HELD, self.login.inhibitors())
        printer.end()

    def test_power_off(self):
        printer = self.printer()
        printer.sayReady()  # nobody asked
        self.assertEqual(HELD, self.login.inhibitors())
        self.login.prepareForShutdown(True)
        printer.expect("powering off")
        self.assertEqual(HELD, self.login.inhibitors())
        printer.sayReady()
        self.assertEqual([], self.login.waitForInhibitors(0))
        # Called off, and asked for again.
        self.login.prepareForShutdown(False)
        self.assertEqual(HELD, self.login.waitForInhibitors(1))
        self.login.prepareForShutdown(True)
        printer.expect("powering off")
        printer.sayReady()
        self.assertEqual([], self.login.waitForInhibitors(0))
        printer.end()

    def test_power_off_called_off_before_we_were_ready(self):
        printer = self.printer()
        self.login.prepareForShutdown(True)
        self.login.prepareForShutdown(False)
        printer.expect("powering off")
        printer.sayReady()  # too late: the delay is for the next time
        self.login.prepareForShutdown(False)
        self.login.prepareForShutdown(True)
        printer.expect("powering off")
        self.assertEqual(HELD, self.login.inhibitors())
        printer.sayReady()
        self.assertEqual([], self.login.waitForInhibitors(0))
        printer.end()

    def test_the_end_gives_the_delay_back(self):
        printer = self.printer()
        printer.end()
        self.assertEqual([], self.login.waitForInhibitors(0))

    def test_login_manager_starts_anew(self):
        printer = self.printer()
        self.login.stop()
        self.login = self.logind()
        self.assertEqual(HELD, self.login.waitForInhibitors(1))
        session = self.login.addSession("c1", os.getuid())
        self.login.lock(session)
        printer.expect("screen locked")
        self.login.prepareForShutdown(True)
        printer.expect("powering off")
        printer.sayReady()
        self.assertEqual([], self.login.waitForInhibitors(0))
        printer.end()


class SilentLoginManagerTest(BusCase):
    def test_a_session_whose_user_is_not_told_counts_as_ours(self):
        # This connection has no loop, so it answers nothing.
        connection = self.systemBus.connection()
        connection.request_name(LOGIN)
        printer = EventPrinter(self)
        self.assertTrue(eventually(lambda: self._listens(connection)))
        start = time.monotonic()
        connection.send_message(dbus.lowlevel.SignalMessage(
            "/org/freedesktop/login1/session/c1", LOGIN + ".Session", "Lock"))
        connection.flush()
        printer.expect("screen locked")
        self.assertLess(time.monotonic() - start, 5)
        printer.end()

    @staticmethod
    def _listens(connection):
        rules = connection.get_object("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                      introspect=False).get_dbus_method(
            "GetAllMatchRules", "org.freedesktop.DBus.Debug.Stats")()
        return any("PrepareForShutdown" in rule for of in rules.values() for rule in of)


class SessionBusTest(BusCase):
    def setUp(self):
        super().setUp()
        self.manager = self.sessionManager()

    def printer(self):
        printer = EventPrinter(self)
        self.assertEqual([("quillvane", "")], self.manager.waitForCalls("RegisterClient"))
        return printer

    def test_screen_savers(self):
        printer = self.printer()
        for name, path in (("org.freedesktop.ScreenSaver", "/org/freedesktop/ScreenSaver"),
                           ("org.gnome.ScreenSaver", "/org/gnome/ScreenSaver"),
                           ("org.freedesktop.ScreenSaver", "/ScreenSaver")):
            with self.subTest(name=name, path=path):
                saver = self.screenSaver(name, path)
                saver.setActive(True)
                printer.expect("screen locked")
                saver.setActive(False)
                saver.emit("SomethingElse", "b", True)
                saver.setActive(True)
                self.manager.askClient("EndSession")
                printer.expect("screen locked", "powering off")
                saver.stop()
        printer.end()

    def test_more_at_once_than_is_handled_in_one_go(self):
        printer = self.printer()
        saver = self.screenSaver()
        printer.pause()
        for _ in range(300):
            saver.setActive(True)
        printer.resume()
        printer.expect(*["screen locked"] * 300)
        printer.assertIdle()
        printer.end()

    def test_question_is_answered_at_once(self):
        printer = self.printer()
        self.manager.askClient("QueryEndSession")
        self.assertEqual([(True, "")], self.manager.waitForResponses(1))
        printer.end()

    def test_log_out_waits_until_we_are_ready(self):
        printer = self.printer()
        printer.sayReady()  # nobody asked
        self.manager.askClient("EndSession")
        printer.expect("powering off")
        self.assertEqual([], self.manager.responses())
        printer.sayReady()
        self.assertEqual([(True, "")], self.manager.waitForResponses(1))
        printer.sayReady()  # the answer was given
        self.manager.askClient("QueryEndSession")
        self.assertEqual(2, len(self.manager.waitForResponses(2)))
        printer.end()

    def test_log_out_called_off(self):
        printer = self.printer()
        self.manager.askClient("EndSession")
        printer.expect("powering off")
        self.manager.askClient("CancelEndSession")
        self.manager.askClient("QueryEndSession")
        self.assertEqual(1, len(self.manager.waitForResponses(1)))
        printer.sayReady()
        self.manager.askClient("EndSession")
        printer.expect("powering off")
        self.assertEqual(1, len(self.manager.responses()))
        printer.end()

    def test_stop_ends_the_program(self):
        printer = self.printer()
        self.manager.askClient("Stop")
        printer.expect("powering off")
        printer.expectEnd()

    def test_the_end_is_told(self):
        self.printer().end()
        self.assertEqual([(self.manager.client,)], self.manager.waitForCalls("UnregisterClient"))

    def test_what_other_clients_are_told(self):
        other = "/org/gnome/SessionManager/Client2"
        self.manager.addObject(other, CLIENT)
        printer = self.printer()
        for name in ("QueryEndSession", "EndSession"):
            self.manager.emit(name, "u", dbus.UInt32(0), path=other, interface=CLIENT)
        self.manager.emit("Stop", path=other, interface=CLIENT)
        self.manager.askClient("EndSession")
        printer.expect("powering off")
        self.assertEqual([], self.manager.responses())
        printer.end()

    def test_session_manager_starts_anew(self):
        printer = self.printer()
        self.manager.stop()
        self.manager = self.sessionManager()
        self.assertEqual([("quillvane", "")], self.manager.waitForCalls("RegisterClient"))
        self.manager.askClient("EndSession")
        printer.expect("powering off")
        printer.sayReady()
        self.assertEqual([(True, "")], self.manager.waitForResponses(1))
        printer.end()

    def test_both_routes_to_power_off(self):
        login = self.logind()
        printer = self.printer()
        login.waitForInhibitors(1)
        login.prepareForShutdown(True)
        printer.expect("powering off")
        self.manager.askClient("EndSession")
        printer.expect("powering off")
        printer.sayReady()
        self.assertEqual([], login.waitForInhibitors(0))
        self.assertEqual([(True, "")], self.manager.waitForResponses(1))
        printer.end()


class TroubleWithBusesTest(BusCase):
    def test_services_start_after_the_program(self):
        printer = EventPrinter(self)
        login = self.logind()
        self.assertEqual(1, len(login.waitForInhibitors(1)))
        login.prepareForShutdown(True)
        printer.expect("powering off")
        printer.assertIdle()
        printer.end()

    def test_no_buses(self):
        addresses = [f"unix:path={self.directory}/nowhere", "nonsense", "", None]
        for address in addresses:
            with self.subTest(address=address):
                for bus in ("SESSION", "SYSTEM"):
                    self.environment[f"DBUS_{bus}_BUS_ADDRESS"] = address
                if address is None:
                    # Without addresses the usual places count.
                    for name in ("DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS",
                                 "XDG_RUNTIME_DIR"):
                        del self.environment[name]
                printer = EventPrinter(self)
                printer.sayReady()
                printer.assertIdle()
                printer.end()

    def test_a_later_address_works(self):
        address = self.environment["DBUS_SYSTEM_BUS_ADDRESS"]
        self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path=/nowhere;{address}"
        login = self.logind()
        printer = EventPrinter(self)
        self.assertEqual(HELD, login.waitForInhibitors(1))
        printer.end()

    def test_nobody_answers(self):
        place = str(self.directory / "deaf")
        with socket.socket(socket.AF_UNIX) as deaf:
            deaf.bind(place)
            deaf.listen(0)
            self.environment["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={place}"
            self.environment["DBUS_SESSION_BUS_ADDRESS"] = f"unix:path={place}"
            start = time.monotonic()
            printer = EventPrinter(self)
            self.assertLess(time.monotonic() - start, 5)
            printer.sayReady()
            printer.assertIdle()
            printer.end()
            # Now that nobody is even waited for.
            waiting = [self._connected(place) for _ in range(3)]
            EventPrinter(self).end()
            for other in waiting:
                other.close()

    @staticmethod
    def _connected(place):
        other = socket.socket(socket.AF_UNIX)
        other.setblocking(False)
        try:
            other.connect(place)
        except BlockingIOError:
            pass  # nobody more can wait
        return other

    def test_buses_that_wake_up(self):
        login = self.logind()
        session = login.addSession("c1", os.getuid())
        self.systemBus.freeze()
        self.sessionBus.freeze()
        printer = EventPrinter(self)
        printer.sayReady()
        printer.assertIdle()
        self.systemBus.thaw()
        self.assertEqual(HELD, login.waitForInhibitors(1))
        login.lock(session)
        printer.expect("screen locked")
        # And one that falls asleep while the program ends.
        self.systemBus.freeze()
        printer.end()

    def test_buses_that_hang_when_we_are_ready(self):
        login = self.logind()
        manager = self.sessionManager()
        printer = EventPrinter(self)
        login.waitForInhibitors(1)
        manager.waitForCalls("RegisterClient")
        manager.askClient("EndSession")
        login.prepareForShutdown(True)
        printer.expect("powering off", "powering off")
        self.sessionBus.freeze()
        self.systemBus.freeze()
        printer.sayReady()
        self.systemBus.thaw()
        self.assertEqual([], login.waitForInhibitors(0))
        self.sessionBus.thaw()
        self.assertEqual(1, len(manager.waitForResponses(1)))
        printer.end()

    def test_buses_that_die(self):
        login = self.logind()
        manager = self.sessionManager()
        printer = EventPrinter(self)
        login.waitForInhibitors(1)
        manager.waitForCalls("RegisterClient")
        login.prepareForShutdown(True)
        manager.askClient("EndSession")
        printer.expect("powering off", "powering off")
        self.systemBus.stop()
        self.sessionBus.stop()
        printer.assertIdle()
        printer.sayReady()
        printer.send(signal.SIGTERM)
        printer.expect(f"signal {signal.SIGTERM:d}")
        printer.end()


if __name__ == "__main__":
    unittest.main()
