"""The keyboard: the terms, the modes, the sheets, and where Tab goes."""

import unittest

import window
from quillvane import eventually
from window import CHECKED, ENABLED, PASSWORD, WindowCase

LATER = ["Show password", "Use recovery key instead"]


class Terms(WindowCase):
    def test_accepting(self):
        self.start()
        self.picture("gate")
        agree = "Agree and continue"
        tick = ("I have read, understood, and accept the Terms of Use and the End User License "
                "Agreement.")
        for ticked in (False, True, False):
            self.waitForState(tick, CHECKED, ticked)
            self.waitForState(agree, ENABLED, ticked)
            if not ticked:
                self.assertDisabled(agree)
            self.press(tick)
        self.waitForState(tick, CHECKED)
        self.picture("ticked")
        self.press(agree)
        self.find("Lock a folder")
        self.picture("accepted")
        self.quit()
        self.start()
        self.find("Lock a folder")
        self.quit()


class Keyboard(WindowCase):
    def setUp(self):
        super().setUp()
        self.acceptTerms()
        self.start()

    def test_modes(self):
        titles = ["Lock a folder", "Open a protected folder", "Remove password protection",
                  "Change the password", "Open as a Smart Folder"]
        for number in (5, 4, 3, 2, 1):
            self.mode(number)
            self.find(titles[number - 1], "heading")
            self.picture(f"mode-{number}")
        for number, title in enumerate(("Lock", "Open", "Remove", "Change", "Smart")):
            self.press(title)
            self.find(titles[number], "heading")
        self.quit()

    def test_sheets(self):
        for button, sheet in (("Guide", "Guide"), ("About Quillvane", "About Quillvane")):
            self.press(button, "push button")
            self.find(sheet, "dialog")
            self.picture(sheet.split()[0])
            self.mode(2)  # the window beneath is out of reach
            self.key_("Escape")
            self.assertTrue(eventually(lambda: not self.look(sheet, "dialog")))
            self.find("Lock a folder", "heading")
            self.waitForFocus(button)
        self.quit()

    def test_tab_order(self):
        # At the least size, at which what has the keyboard must scroll into view.
        order = {1: ["Choose the folder to protect…", "Password", "Show password",
                     "Repeat password", "Show password", "Lock with password"],
                 2: ["Choose a locked item to open…", "Password", *LATER, "Open"],
                 3: ["Choose a locked item to turn back into a folder…", "Password", *LATER,
                     "Remove password"],
                 4: ["Choose a locked item…", "Password", *LATER, "New password", "Show password",
                     "Repeat new password", "Show password", "Change password"],
                 5: ["Choose a folder to make smart…", "Password", "Show password",
                     "Repeat password", "Show password", "Create Smart Folder",
                     "Choose a Smart Folder…", "Password", *LATER, "Open in place",
                     "Auto-close after"]}
        self.resize(760, 520)
        for number, names in order.items():
            self.mode(number)
            self.find(names[0])
            seen = self._goRound("Tab")
            self.assertIn("\n".join(names), "\n".join(seen))
            for name in ("Lock", "Guide", "About Quillvane"):
                self.assertIn(name, seen)
        back = self._goRound("shift+Tab")
        self.assertEqual(self._cycle(seen), self._cycle(back[::-1]))
        self.quit()

    def _goRound(self, key):
        """The names of what has the focus, from one key to the next, until it is back."""
        seen, paths = [], []
        while (element := self.next(key)).path not in paths:
            self._assertInView(element)
            paths.append(element.path)
            seen.append(element.name)
            self.picture("tab")
        return seen

    def _cycle(self, names):
        """The same round, begun at the same place."""
        start = names.index("Guide")
        return names[start:] + names[:start]

    def _assertInView(self, element):
        left, top, width, height = self.window.extents
        bar = self.find("Ready", "status bar").extents[1]

        def inView():
            x, y, w, h = element.extents
            return left <= x and x + w <= left + width and top <= y and y + h <= bar
        self.assertTrue(eventually(inView, 3), f"{element.name!r} is at {element.extents}")

    def test_protecting_by_keys_alone(self):
        folder = self.makeFolder("Docs")
        self.reach("Choose the folder to protect…")
        self.key_("Return")
        self.answerPanel("Choose the folder to protect", folder)
        self.find("Docs")
        self.typeInto(self.reach("Password"), PASSWORD)
        self.typeInto(self.reach("Repeat password"), PASSWORD)
        self.reach("Lock with password")
        self.key_("space")
        self.waitForFocus("Recovery key", 60)
        self.reach("I saved my recovery key")
        self.key_("space")
        self.waitForState("I saved my recovery key", CHECKED)
        self.reach("Continue")
        self.key_("Return")
        self.waitUntilGone("Save your recovery key now")
        self.mode(2)
        self.find("Open a protected folder")
        self.reach("Choose a locked item to open…")
        self.quit()


if __name__ == "__main__":
    window.requireTools()
    unittest.main()
