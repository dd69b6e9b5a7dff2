"""What the program can say: the texts in its sources."""

import re

import quillvane

FOLDERS = "Quillvane", "linux", "qv"
# A comment goes first, so that what looks like a text in it is none.
TOKEN = re.compile(r'(?P<comment>//[^\n]*|/\*.*?\*/)|"(?P<text>(?:\\.|[^"\\\n])*)"|(?P<other>\S)',
                   re.DOTALL)
ESCAPES = {"n": "\n", "t": "\t"}


def textsIn(source):
    """The texts of a C++ or QML source; those that stand next to each other are one."""
    texts, adjacent = [], False
    for token in TOKEN.finditer(source):
        if token["text"] is not None:
            text = re.sub(r"\\(.)", lambda escape: ESCAPES.get(escape[1], escape[1]), token["text"])
            texts[-1:] = [texts[-1] + text] if adjacent else texts[-1:] + [text]
        adjacent = token["text"] is not None or (token["comment"] is not None and adjacent)
    return texts


def programTexts():
    """Every text of the program as it is built here."""
    return {text for folder in FOLDERS for file in (quillvane.SOURCE / folder).rglob("*")
            if file.suffix in (".cpp", ".h", ".qml") for text in textsIn(file.read_text())}
