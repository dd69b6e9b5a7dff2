"""The key file as its bytes say it is, and every way in which it can be damaged."""

import base64
import hashlib
import json
import os
import subprocess
import unittest

import items
from items import PASSWORD

MISSING = "The key file next to the item is missing: use your recovery key to get back in."
UNREADABLE = "The key file is unreadable: use your recovery key to get back in."
REFUSED = "Wrong password: can't open the vault."


class KeyFileTest(items.ItemCase):
    def setUp(self):
        super().setUp()
        self.item, self.key = self.smallItem()
        self.keyFile = items.keyFile(self.item)

    def testRecord(self):
        seen = set()
        for _ in range(2):
            text = self.keyFile.read_bytes()
            self.assertLess(len(text), 200)
            self.assertEqual(0o100600, self.keyFile.stat().st_mode)
            self.assertEqual(0o100600, self.item.stat().st_mode)
            record = json.loads(text)
            self.assertEqual(["version", "kdf", "iterations", "salt", "wrapped"], list(record))
            self.assertEqual((1, "pbkdf2-sha256", 210000),
                             (record["version"], record["kdf"], record["iterations"]))
            salt = base64.b64decode(record["salt"], validate=True)
            wrapped = base64.b64decode(record["wrapped"], validate=True)
            self.assertEqual((16, 48), (len(salt), len(wrapped)))
            seen |= {salt, wrapped[:12]}
            self.assertNotIn(b"\n", text)
            self.assertNotIn(b": ", text)
            self.assertNothingLeft(self.item.name, self.keyFile.name)
            self.succeed("change", self.item, secrets=(PASSWORD, PASSWORD))
        self.assertEqual(4, len(seen), "salt and nonce must be new each time")

    def testRecoveryKeyOpensTheImageWithoutThisProgram(self):
        self.assertTrue(self.opensWithCryptsetup(self.key))
        self.assertFalse(self.opensWithCryptsetup(("B" if self.key[0] == "A" else "A") +
                                                  self.key[1:]))

    def opensWithCryptsetup(self, key):
        passphrase = base64.b64encode(base64.b32decode(key.replace("-", "")))
        result = subprocess.run(["/usr/sbin/cryptsetup", "luksOpen", "--test-passphrase",
                                 "--key-file", "-", self.item], input=passphrase,
                                stderr=subprocess.PIPE)
        self.assertIn(result.returncode, (0, 2), result)
        return result.returncode == 0

    def record(self, **members):
        return json.dumps(json.loads(self.good) | members).encode()

    def damaged(self):
        """Each damage with a function that does it to the absent key file."""
        path = self.keyFile
        contents = {
            "empty": b"", "not JSON": b"no key\n", "cut short": self.good[:-10],
            "not an object": b"[]", "binary": os.urandom(166), "no text": b'{"kdf":"\xff"}',
            "too long": self.good + b" " * (1 << 21),
            "iterations in quotes": self.record(iterations="210000"),
            "iterations of half": self.record(iterations=0.5),
            "salt a number": self.record(salt=1), "wrapped null": self.record(wrapped=None),
            "kdf a list": self.record(kdf=[]), "version in quotes": self.record(version="1"),
        }
        for member in json.loads(self.good):
            record = json.loads(self.good)
            del record[member]
            contents[f"without {member}"] = json.dumps(record).encode()
        for name, content in contents.items():
            yield name, lambda content=content: path.write_bytes(content)
        yield "missing", lambda: None
        yield "directory", path.mkdir
        yield "FIFO", lambda: os.mkfifo(path)
        yield "dangling link", lambda: path.symlink_to("nowhere")
        yield "circular link", lambda: path.symlink_to(path.name)

    def clear(self):
        if self.keyFile.is_dir():
            self.keyFile.rmdir()
        else:
            self.keyFile.unlink(missing_ok=True)

    def testUndecodable(self):
        self.good = self.keyFile.read_bytes()
        image = self.imageState()
        for name, damage in self.damaged():
            with self.subTest(name):
                self.clear()
                damage()
                self.assertFails("change", self.item, secrets=(PASSWORD, "new"), says=MISSING)
                for command in ("open", "remove"):
                    self.assertFails(command, self.item, says=REFUSED)
                self.assertEqual(image, self.imageState())
        self.assertNothingRuns()
        self.clear()
        self.open(self.item, "--recovery-key", secrets=(self.key,))
        self.close(self.item)

    def imageState(self):
        with open(self.item, "rb") as file:
            start = hashlib.sha256(file.read(8 << 20)).hexdigest()
        status = self.item.stat()
        return start, status.st_size, status.st_blocks, status.st_mtime_ns

    def testUnusable(self):
        self.good = self.keyFile.read_bytes()
        short = base64.b64encode(b"x" * 27).decode()
        wrapped = bytearray(base64.b64decode(json.loads(self.good)["wrapped"]))
        wrapped[20] ^= 1
        for says, members in ((UNREADABLE, {"salt": "no base64"}), (UNREADABLE, {"wrapped": "="}),
                              (UNREADABLE, {"salt": "AAA"}), ("Wrong password.", {"wrapped": short}),
                              ("Wrong password.", {"wrapped": ""}),
                              ("Wrong password.", {"iterations": 209999}),
                              ("Wrong password.", {"salt": base64.b64encode(b"x" * 16).decode()}),
                              ("Wrong password.", {"wrapped": base64.b64encode(wrapped).decode()})):
            with self.subTest(members):
                damaged = self.record(**members)
                self.keyFile.write_bytes(damaged)
                self.assertFails("open", self.item, says=says)
                self.assertFails("remove", self.item, says=says)
                self.assertFails("change", self.item, secrets=(PASSWORD, "new"), says=says)
                self.assertEqual(damaged, self.keyFile.read_bytes())
        self.assertNothingLeft(self.item.name, self.keyFile.name)

    def testAbsurdIterationsStopTheProgram(self):
        self.good = self.keyFile.read_bytes()
        for iterations in (-1, 1 << 32):
            self.keyFile.write_bytes(self.record(iterations=iterations))
            result = self.qv("open", self.item)
            self.assertNotIn(result.returncode, (0, 1, 2))
            self.assertEqual("", result.stdout)
        self.assertNothingLeft(self.item.name, self.keyFile.name)

    def testReadLeniently(self):
        self.good = self.keyFile.read_bytes()
        for members in ({"version": 2}, {"kdf": "another"}, {"note": "an extra member"}):
            self.keyFile.write_bytes(self.record(**members))
            self.open(self.item)
            self.close(self.item)
        turned = dict(reversed(json.loads(self.good).items()))
        self.keyFile.write_text(json.dumps(turned, indent=4).replace("/", "\\/"))
        self.open(self.item)
        self.close(self.item)

    def testOlderIterationCountIsRaised(self):
        self.good = self.keyFile.read_bytes()
        # The recovery key needs no key file, so that this makes a whole new one.
        self.keyFile.write_bytes(self.record(iterations=1000))
        self.succeed("change", self.item, "--recovery-key", secrets=(self.key, "new"))
        self.assertEqual(210000, json.loads(self.keyFile.read_text())["iterations"])
        self.open(self.item, secrets=("new",))

    def testItemMovedAwayFromItsKeyFile(self):
        (self.work / "elsewhere").mkdir()
        moved = self.item.rename(self.work / "elsewhere" / self.item.name)
        self.assertFails("open", moved, says=REFUSED)
        self.assertFails("remove", moved, says=REFUSED)
        self.assertFails("change", moved, secrets=(PASSWORD, "new"), says=MISSING)
        self.open(moved, "--recovery-key", secrets=(self.key,))
        self.close(moved)
        self.keyFile.rename(items.keyFile(moved))
        self.assertEqual(self.work / "elsewhere/Docs", self.remove(moved))

    def testMistypedRecoveryKeyIsFoundOutByTheImage(self):
        wrong = ("B" if self.key[0] == "A" else "A") + self.key[1:]
        self.assertFails("open", self.item, "--recovery-key", secrets=(wrong,), says=REFUSED)
        invalid = "Invalid recovery key. Check that you typed it correctly."
        for text in (self.key[:-1], self.key + "AA", "", "0189-0189"):
            self.assertFails("open", self.item, "--recovery-key", secrets=(text,), says=invalid)
            self.assertFails("remove", self.item, "--recovery-key", secrets=(text,), says=invalid)
            self.assertFails("change", self.item, "--recovery-key", secrets=(text, "new"),
                             says=invalid)
        # A change with it is carried out, and leaves the right recovery key as the way back in.
        self.succeed("change", self.item, "--recovery-key", secrets=(wrong, "new"))
        self.assertFails("open", self.item, secrets=("new",), says=REFUSED)
        self.remove(self.item, "--recovery-key", secrets=(self.key.lower().replace("-", "\t"),))


if __name__ == "__main__":
    unittest.main()
