"""The accessibility tree of a program, as assistive technology sees it."""

import dbus

ACCESSIBLE = "org.a11y.atspi.Accessible"
# Numbers of states that AT-SPI defines.
CHECKED, ENABLED, FOCUSED, SHOWING = 4, 8, 12, 25


class Element:
    """One object of the program's accessibility tree."""

    def __init__(self, connection, name, path):
        self._connection, self._name, self.path = connection, name, path
        self._object = connection.get_object(name, path, introspect=False)

    def _call(self, interface, method, *arguments):
        return self._object.get_dbus_method(method, interface)(*arguments, timeout=20)

    def _property(self, interface, name):
        return self._call("org.freedesktop.DBus.Properties", "Get", interface, name)

    @property
    def name(self):
        return str(self._property(ACCESSIBLE, "Name"))

    @property
    def description(self):
        return str(self._property(ACCESSIBLE, "Description"))

    @property
    def role(self):
        return str(self._call(ACCESSIBLE, "GetRoleName"))

    @property
    def text(self):
        """What is in a text, as it is shown: the mask in place of what is masked."""
        return str(self._call("org.a11y.atspi.Text", "GetText", dbus.Int32(0), dbus.Int32(-1)))

    @property
    def extents(self):
        """(x, y, width, height) on the screen."""
        return tuple(map(int, self._call("org.a11y.atspi.Component", "GetExtents",
                                         dbus.UInt32(0))))

    @property
    def middle(self):
        x, y, width, height = self.extents
        return x + width // 2, y + height // 2

    def has(self, state):
        low, high = self._call(ACCESSIBLE, "GetState")
        return bool((low | high << 32) >> state & 1)

    def focus(self):
        self._call("org.a11y.atspi.Component", "GrabFocus")

    def act(self, action):
        """Does the action of this name, as assistive technology does."""
        names = [str(each[0]) for each in self._call("org.a11y.atspi.Action", "GetActions")]
        self._call("org.a11y.atspi.Action", "DoAction", dbus.Int32(names.index(action)))

    def children(self):
        return [Element(self._connection, str(name), str(path))
                for name, path in self._call(ACCESSIBLE, "GetChildren")
                if not path.endswith("/null")]

    def all(self):
        """This one and all below it that can be seen now, in the tree's order."""
        yield self
        for child in self._unlessGone(self.children, []):
            if self._unlessGone(lambda: child.has(SHOWING), False):
                yield from child.all()

    @staticmethod
    def _unlessGone(question, otherwise):
        try:
            return question()
        except dbus.DBusException:
            return otherwise
