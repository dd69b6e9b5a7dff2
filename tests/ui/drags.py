"""Dragging files from the window of another program into ours."""

import pathlib
import subprocess

from quillvane import BUILD, eventually

SOURCE = str(BUILD / "bin/drag-source")


class Drag:
    """Files that the pointer holds. `case` is the test, whose window they are dragged to."""

    place = 1100, 60  # of the source, beside where the tests have the program's window

    def __init__(self, case, paths):
        self._case = case
        uris = [pathlib.Path(path).as_uri() for path in paths]
        self._answers = case.directory / "drag"
        with open(self._answers, "w") as answers:
            self._source = subprocess.Popen([SOURCE, *uris], env=case.environment, stdout=answers,
                                            stdin=subprocess.DEVNULL)
        case.addCleanup(self._end)
        window = case.xdotool("search", "--sync", "--onlyvisible", "--pid",
                              str(self._source.pid)).split()[0]
        left, top = self.place
        case.xdotool("windowmove", window, str(left), str(top))

        def moved():
            where = dict(line.split("=") for line in case.xdotool(
                "getwindowgeometry", "--shell", window).splitlines())
            return int(where["X"]) >= left
        case.assertTrue(eventually(moved), "the other program's window is not moved")
        case.xdotool("mousemove", "--window", window, "40", "40")
        case.xdotool("mousedown", "1")

    def _end(self):
        self._source.kill()
        self._source.wait()

    def _moveTo(self, x, y):
        self._case.xdotool("mousemove", str(x), str(y))

    def _lines(self):
        return self._answers.read_text().splitlines()

    def hover(self, element, answer):
        """Moves over the element until it answers "copy" or "none" to what is dragged."""
        x, y = element.middle

        def answered():
            nonlocal x
            x += 1 if x % 2 else -1  # the program sees movements, not places
            self._moveTo(x, y)
            return self._lines()[-1:] == ["over " + answer]
        self._case.assertTrue(eventually(answered), f"{element.name!r} answers {self._lines()}")

    def drop(self):
        """Lets go, and waits until the program has dealt with what was dropped."""
        self._case.xdotool("mouseup", "1")
        self._case.assertTrue(eventually(lambda: "done" in self._lines()), "the drag does not end")
        self._end()
        self._case.waitUntilActive()
