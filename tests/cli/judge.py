"""What is left of a folder and its item when an operation was cut short is judged here, on copies,
and from images that are opened anew."""

import base64
import os
import pathlib
import re
import subprocess

import items
import quillvane
from items import PASSWORD

VAULT_KEY = quillvane.BUILD / "bin/vault-key"
# Stands in names and contents of the folder that is protected.
MARKER = b"nobody may read these words"
# All that is in the file "draft".
DRAFT = "This-is-a-draft"


class Judge:
    """Knows what the folder was like, and judges in a place of its own for a test case. All that it
    finds wrong fails the test."""

    def __init__(self, case, before, place):
        self.case = case
        self.before = before
        self.place = place

    def isWhole(self, folder, ignoring=lambda description: description):
        """Whether everything is there in the clear; `ignoring` takes out what does not matter."""
        if not folder.is_dir() or folder.is_symlink():
            return False
        return not quillvane.differences(ignoring(self.before),
                                         ignoring(quillvane.describe(folder)))

    def opens(self, image, *options, secret=PASSWORD, **more):
        """Whether an item or a working image opens with a secret and has everything."""
        return self.holds(image, lambda volume: self.isWhole(volume, **more), *options,
                          secret=secret)

    def holds(self, image, isSo, *options, secret=PASSWORD):
        """Whether it opens, and something is so of its volume."""
        item = self._copied(image)
        result = self.case.qv("open", *options, item, secrets=(secret,))
        if result.returncode != 0:
            return False
        try:
            return isSo(pathlib.Path(result.stdout.removesuffix("\n")))
        finally:
            self.case.qv("close", item, secrets=())

    def hasEverything(self, image, password=PASSWORD, **more):
        """The same for the password and for the recovery key, each on a copy of its own."""
        if not items.keyFile(image).is_file():
            return False
        key = self.recoveryKey(image, password)
        return (key is not None and self.opens(image, secret=password, **more)
                and self.opens(image, "--recovery-key", secret=key, **more))

    def recoveryKey(self, image, password):
        """The one that was shown, or nothing when the key file is none or not this password's."""
        result = subprocess.run([VAULT_KEY, items.keyFile(image)], input=password.encode(),
                                stdout=subprocess.PIPE)
        if result.returncode != 0:
            return None
        text = base64.b32encode(bytes.fromhex(result.stdout.decode())).decode()
        return "-".join(text[at:at + 4] for at in range(0, len(text), 4))

    def images(self, work):
        return [work / name for name in sorted(os.listdir(work))
                if re.fullmatch(r"\.Quillvane-.*\.sparseimage|.*\.quillvane", name)]

    def assertNothingLost(self, work, **more):
        """Where everything is: in the folder, or in an image."""
        if self.isWhole(work / "Docs", **more):
            return "folder"
        for image in self.images(work):
            if self.hasEverything(image, **more):
                return "image"
        return self.case.fail(f"lost: {sorted(os.listdir(work))}")

    def assertNoPlaintext(self, directory, but=None):
        """No file has anything of the folder in its name or contents, but for what lies there."""
        for folder, folders, files in os.walk(os.fsencode(directory)):
            folders[:] = [name for name in folders
                          if but is None or os.path.join(folder, name) != os.fsencode(but)]
            for name in folders + files:
                self.case.assertNotIn(MARKER, name)
            for name in files:
                path = os.path.join(folder, name)
                if os.path.isfile(path) and not os.path.islink(path):
                    self.case.assertFalse(quillvane.holds(path, [MARKER]), path)

    def _copied(self, image):
        """A copy under an item's name, with its key file."""
        quillvane.removeTree(self.place)
        self.place.mkdir()
        item = self.place / "Docs.quillvane"
        for file, copy in ((image, item), (items.keyFile(image), items.keyFile(item))):
            subprocess.run(["cp", "--sparse=always", file, copy], check=True)
        return item


def makeFolder(folder):
    """Makes a small folder with one of each kind, and the marker wherever it can be; its path."""
    mark = MARKER.decode()
    (folder / "letters").mkdir(parents=True)
    (folder / "empty").mkdir()
    (folder / "letters" / mark).write_text(f"Dear Ada, {mark}.\n")
    (folder / "page").write_bytes((MARKER + b"\n") * 200)
    (folder / "photo").write_bytes(quillvane.pseudoRandom(300_001, 1) + MARKER)
    (folder / "nothing").write_bytes(b"")
    (folder / "draft").write_text(DRAFT)
    os.link(folder / "photo", folder / "letters/photo")
    os.symlink(mark, folder / "link")
    os.mkfifo(folder / "fifo", 0o640)
    with open(folder / "sparse", "wb") as file:
        file.seek(2 << 20)
        file.write(MARKER)
        file.truncate(3 << 20)
    (folder / "page").chmod(0o400)
    os.setxattr(folder / "letters", "user.tag", MARKER)
    os.utime(folder / "letters", ns=(7, 1_100_000_000_000_000_007))
    os.utime(folder, ns=(9, 1_500_000_000_000_000_009))
    return folder
