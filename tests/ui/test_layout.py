"""Every mode and sheet at several sizes and scales: all of it can be seen."""

import unittest

import window
from accessible import SHOWING
from window import WindowCase

SIZES = (760, 520), (920, 640), (1600, 1000)
CONTROLS = {"push button", "page tab", "text", "check box", "combo box", "link"}


def overlap(a, b):
    """Whether two places (left, top, right, bottom) share any."""
    return a[0] < b[2] and b[0] < a[2] and a[1] < b[3] and b[1] < a[3]


def common(a, b):
    return max(a[0], b[0]), max(a[1], b[1]), min(a[2], b[2]), min(a[3], b[3])


def place(element):
    x, y, width, height = element.extents
    return x, y, x + width, y + height


class Layout(WindowCase):
    size = "1680x1100"

    def setUp(self):
        super().setUp()
        self.acceptTerms()

    def test_everything_is_seen(self):
        item = self.makeItem()
        folder = self.makeFolder("A folder whose name is rather long, as they sometimes are")
        self.start()
        self._protectUntilTheSheet(folder)
        self._lookAt("recovery key", "Recovery key")
        self.takeRecoveryKey()
        self.mode(1)
        titles = ["Lock a folder", "Open a protected folder", "Remove password protection",
                  "Change the password", "Open as a Smart Folder"]
        for mode, title in enumerate(titles, 1):
            self.mode(mode)
            self._lookAt(title, title)
        for name in ("Guide", "About Quillvane"):
            self.press(name, "push button")
            self._lookAt(name, "Close")
            self.key_("Escape")
            self.find(titles[-1])
        self.openFromOutside(item)
        self._lookAt("item", "Cancel")
        self.quit()
        self.interruptDeletion(self.makeFolder("Ein Ordner, der lang heißt und Übungen enthält"))
        self.start()
        self._lookAt("interrupted", "Later")
        self.quit()

    def _protectUntilTheSheet(self, folder):
        self.resize(*SIZES[0])
        self.protect(folder)
        self.waitForFocus("Recovery key", 60)

    def _lookAt(self, what, name):
        """Looks at what there is, of which an element has this name, at each size."""
        for size in SIZES:
            self.resize(*size)
            self.find(name)
            with self.subTest(what=what, size=size, scale=self.scale):
                seen = list(self._places(self.window, place(self.window), place(self.window)))
                self._assertInside(seen)
                self._assertApart(seen)
            self.picture(f"{size[0]}x{size[1]}-{what.replace(' ', '-')}")

    def _places(self, element, clip, bounds):
        """(element, place, what of it can be seen, what it must not leave) of all below. What is in
        a panel scrolls: it may be above or below what is seen of that."""
        if element.role == "panel":
            clip = common(clip, place(element))
            bounds = clip[0], float("-inf"), clip[2], float("inf")
        for child in (each for each in element.children() if each.has(SHOWING)):
            here = place(child)
            yield child, here, common(here, clip), bounds
            yield from self._places(child, clip, bounds)

    def _assertInside(self, seen):
        self.assertGreater(len(seen), 5)
        for element, here, _, bounds in seen:
            self.assertTrue(here[0] < here[2] and here[1] < here[3],
                            f"{element.role} {element.name!r} has no size: {here}")
            self.assertEqual(here, common(here, bounds),
                             f"{element.role} {element.name!r} leaves {bounds}")

    def _assertApart(self, seen):
        """No control and no text on another, but for an eye in its line, and none on the bar."""
        bars = [here for element, here, _, _ in seen if element.role == "status bar"]
        parts = [(element, visible) for element, _, visible, _ in seen
                 if element.role in CONTROLS | {"heading"}
                 and visible[0] < visible[2] and visible[1] < visible[3]]
        for number, (element, here) in enumerate(parts):
            for bar in bars:
                self.assertFalse(overlap(here, bar), f"{element.name!r} is on the status bar")
            for other, there in parts[number + 1:]:
                eye = "password" in other.name and element.role == "text"
                self.assertTrue(eye or not overlap(here, there),
                                f"{element.name!r} is on {other.name!r}: {here}, {there}")


class LayoutAtScale2(Layout):
    size, scale = "3360x2200", "2"


if __name__ == "__main__":
    window.requireTools("strace")
    unittest.main()
