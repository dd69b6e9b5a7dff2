"""A client of the X server that looks at the screen and at nothing else: when something was drawn,
what the screen shows, and how soon a window answers a ping. The protocol is spoken here, as no
library in between is wanted in a measurement to the millisecond.
"""

import array
import select
import socket
import struct
import time

BACKGROUND = 0x7A2E91  # a colour that no program draws
EVERY = 8  # of so many rows, one is looked at

CHANGE_ATTRIBUTES, INTERN_ATOM, GET_PROPERTY, SEND_EVENT, CLEAR, GET_IMAGE, QUERY_EXTENSION = (
    2, 16, 20, 25, 61, 73, 98)
DAMAGE_VERSION, DAMAGE_CREATE, DAMAGE_SUBTRACT = 0, 1, 3
ANSWERS = 1 << 17 | 1 << 19  # masks, one of which goes with each program's answer to a ping
NOT_EMPTY = 3
FAKE_INPUT = 2
KEY_PRESS, KEY_RELEASE, CLIENT_MESSAGE = 2, 3, 33
TAB = 23  # the key's number on every keyboard here
PATIENCE = 5  # seconds

class ScreenError(Exception):
    pass


class Screen:
    """A connection to a display on this machine that asks for no authorization."""

    def __init__(self, display):
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(f"/tmp/.X11-unix/X{display.removeprefix(':')}")
        self._input = b""
        self._sequence = 0
        self._replies = {}
        self._damaged = []  # moments
        self._pongs = []  # moments
        self._setUp()
        self._paint()
        self._watch()

    def close(self):
        self._socket.close()

    # The protocol

    def _setUp(self):
        self._socket.sendall(struct.pack("<BxHHHHxx", ord("l"), 11, 0, 0, 0))
        status, length = struct.unpack("<B5xH", self._take(8))
        answer = self._take(length * 4)
        if status != 1:
            raise ScreenError(f"the X server refuses: {answer!r}")
        self._identifier, = struct.unpack_from("<I", answer, 4)
        vendor, = struct.unpack_from("<H", answer, 16)
        screen = 32 + (vendor + 3 & ~3) + answer[21] * 8
        self.root, = struct.unpack_from("<I", answer, screen)
        self.width, self.height = struct.unpack_from("<HH", answer, screen + 20)

    def _take(self, size):
        """So many bytes from the server."""
        while len(self._input) < size:
            received = self._socket.recv(1 << 20)
            if not received:
                raise ScreenError("the X server has ended")
            self._input += received
        taken, self._input = self._input[:size], self._input[size:]
        return taken

    def _send(self, code, detail, content):
        """Sends a request; its number."""
        content += bytes(-len(content) % 4)
        self._socket.sendall(struct.pack("<BBH", code, detail, 1 + len(content) // 4) + content)
        self._sequence = self._sequence + 1 & 0xFFFF
        return self._sequence

    def _receive(self):
        """One message of the server is taken and put where it belongs."""
        message = self._take(32)
        now = time.monotonic()
        kind = message[0] & 0x7F
        number, = struct.unpack_from("<H", message, 2)
        if kind == 1:
            length, = struct.unpack_from("<I", message, 4)
            self._replies[number] = message + self._take(length * 4)
        elif kind == 0 and message[1] != 3:  # 3: a window that has gone meanwhile
            raise ScreenError(f"X error {message[1]} for request {message[10]}")
        elif kind == self._damageNotify:
            self._damaged.append(now)
        elif kind == CLIENT_MESSAGE:
            if struct.unpack_from("<II", message, 8) == (self._protocols, self._ping):
                self._pongs.append(now)

    _damageNotify = _protocols = _ping = None

    def _reply(self, number):
        while number not in self._replies:
            self._receive()
        return self._replies.pop(number)

    def _poll(self, until):
        """Takes messages until one has come or the moment has."""
        left = until - time.monotonic()
        if self._input or select.select([self._socket], [], [], max(0, left))[0]:
            self._receive()

    def _atom(self, name):
        number = self._send(INTERN_ATOM, 0, struct.pack("<Hxx", len(name)) + name.encode())
        return struct.unpack_from("<I", self._reply(number), 8)[0]

    # The picture

    def _paint(self):
        mask = 1 << 1 | 1 << 11  # colour of the background, events
        self._send(CHANGE_ATTRIBUTES, 0, struct.pack("<IIII", self.root, mask, BACKGROUND,
                                                     ANSWERS))
        self._send(CLEAR, 0, struct.pack("<IHHHH", self.root, 0, 0, 0, 0))

    def _extension(self, name):
        """The number of its requests and of its first event."""
        number = self._send(QUERY_EXTENSION, 0, struct.pack("<Hxx", len(name)) + name.encode())
        present, request, event = struct.unpack_from("<BBB", self._reply(number), 8)
        if not present:
            raise ScreenError(f"the X server has no {name}")
        return request, event

    def _watch(self):
        self._damage, self._damageNotify = self._extension("DAMAGE")
        self._test, _ = self._extension("XTEST")
        self._reply(self._send(self._damage, DAMAGE_VERSION, struct.pack("<II", 1, 1)))
        self._send(self._damage, DAMAGE_CREATE,
                   struct.pack("<IIBxxx", self._identifier, self.root, NOT_EMPTY))
        self._protocols, self._ping = self._atom("WM_PROTOCOLS"), self._atom("_NET_WM_PING")
        self._clients = self._atom("_NET_CLIENT_LIST")

    def _again(self):
        """Asks to be told of the next drawing."""
        self._send(self._damage, DAMAGE_SUBTRACT, struct.pack("<III", self._identifier, 0, 0))

    def _forget(self):
        """What has been drawn and answered so far is of no interest."""
        self._again()
        self._atom("ATOM")  # whose answer comes after all that was on its way
        self._damaged.clear()
        self._pongs.clear()
        self._again()

    def look(self):
        """The pixels of every so many rows, as one array."""
        numbers = [self._send(GET_IMAGE, 2, struct.pack("<IhhHHI", self.root, 0, row, self.width, 1,
                                                        0xFFFFFF))
                   for row in range(0, self.height, EVERY)]
        pixels = array.array("I")
        for number in numbers:
            pixels.frombytes(self._reply(number)[32:])
        return pixels

    def isEmpty(self):
        """Whether there is nothing but the background."""
        return all(pixel & 0xFFFFFF == BACKGROUND for pixel in self.look())

    def drawings(self, seconds):
        """Yields the moment of each drawing within so many seconds from now. Before the next one is
        waited for, the taker may look."""
        end = time.monotonic() + seconds
        self._forget()
        while time.monotonic() < end:
            self._poll(end)
            if self._damaged:
                moment = self._damaged[0]
                self._damaged.clear()
                self._again()
                yield moment

    # Windows

    def windows(self):
        """The windows of programs that the window manager knows."""
        number = self._send(GET_PROPERTY, 0, struct.pack("<IIIII", self.root, self._clients, 0, 0,
                                                       99))
        answer = self._reply(number)
        return list(struct.unpack_from(f"<{struct.unpack_from('<I', answer, 16)[0]}I", answer, 32))

    def ping(self, window, number):
        """Asks the program of the window whether it is there."""
        event = struct.pack("<BBHIIIIIII", CLIENT_MESSAGE, 32, 0, window, self._protocols,
                            self._ping, number, window, 0, 0)
        self._send(SEND_EVENT, 0, struct.pack("<II", window, 0) + event)

    def press(self, key):
        """Presses and releases a key, as the keyboard does."""
        for event in (KEY_PRESS, KEY_RELEASE):
            self._send(self._test, FAKE_INPUT, struct.pack("<BBxxI24x", event, key, 0))

    def tryWindow(self, window, goesOn, period):
        """While `goesOn`, pings the window and presses Tab, which it has to show; again when both
        are answered and the period is over. The seconds that each answer took, and each drawing."""
        answers, drawings = [], []
        while goesOn():
            self._forget()
            sent = time.monotonic()
            self.ping(window, len(answers))
            self.press(TAB)
            while not (self._pongs and self._damaged):
                if time.monotonic() > sent + PATIENCE:
                    raise ScreenError(f"no answer within {PATIENCE} seconds")
                self._poll(sent + PATIENCE)
            while time.monotonic() < sent + period:
                self._poll(sent + period)
            answers.append(self._pongs[0] - sent)
            drawings.append(self._damaged[0] - sent)
        return answers, drawings
