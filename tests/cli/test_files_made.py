"""The main job makes no file but those that belong to it, and leaves the keys in none of them.
Needs root, for a traced program that starts the helper with its special rights."""

import base64
import os
import re
import subprocess
import unittest

import items
import quillvane
from items import PASSWORD

NEW_PASSWORD = "another password, in full"
CONTENT = "content that must not be seen by anybody"
# A file that was made: its path in the call, or that of a relative name's directory before it.
MADE = re.compile(r'open(?:at)?\((?:AT_FDCWD<[^>]*>, |\d+<([^>]*)>, )?"([^"]*)", '
                  r"[^)]*(?:O_CREAT|__O_TMPFILE)[^)]*\) = \d")
IMAGE = r"\.Quillvane-[-0-9A-F]{36}\.sparseimage"
NOTE = r"\.local/state/quillvane/operations/[0-9a-f]{32}\.note"
KEY_FILE = r"\.quillvane-[0-9a-f]{16}\.tmp"  # takes its name when it is whole


class FilesMadeTest(items.ItemCase):
    def trace(self, *words, secrets):
        """Runs qv, and closes what it opens; what it prints and which files any process made."""
        log = self.directory / "trace"
        calls = "open,openat,openat2,creat,memfd_create,mknod,mknodat"
        command = ["strace", "-f", "-y", "--seccomp-bpf", "-s", "4096", "-o", log,
                   "-e", f"trace={calls}", quillvane.QV, *words, "--stdin"]
        with subprocess.Popen(command, cwd=self.work, env=self.environment, text=True,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL) as strace:
            strace.stdin.write("".join(secret + "\n" for secret in secrets))
            strace.stdin.close()
            printed = strace.stdout.readline()
            if words[0] == "open":  # strace goes on as long as the volume's server
                self.succeed("close", "Docs.quillvane", secrets=())
            printed += strace.stdout.read()
        self.assertEqual(0, strace.returncode)
        text = log.read_text(errors="replace")
        log.unlink()
        self.assertNotRegex(text, r"(openat2|creat|memfd_create|mknod|mknodat)\(")
        return printed, [os.path.join(*found.groups("")) for found in MADE.finditer(text)]

    def assertOnlyMade(self, made, *patterns):
        """Every file was made in `work` under such a name, or by the tools among themselves."""
        places = [f"{re.escape(str(self.work))}/{pattern}" for pattern in patterns]
        places += [f"{re.escape(str(self.home))}/{NOTE}",
                   f"{re.escape(str(self.runtime))}/quillvane/.*", "/dev/null"]
        self.assertEqual([], [path for path in made
                              if not any(re.fullmatch(place, path) for place in places)])

    def assertNowhere(self, *secrets):
        """No file's content or name has a secret in it."""
        for folder, folders, files in os.walk(self.directory):
            for name in folders + files:
                for secret in secrets:
                    self.assertNotIn(secret, os.fsencode(name))
            for name in files:
                path = os.path.join(folder, name)
                self.assertFalse(quillvane.holds(path, secrets), path)

    def test(self):
        (self.work / "Docs").mkdir()
        (self.work / "Docs/file").write_text(CONTENT)
        printed, made = self.trace("lock", "Docs", secrets=[PASSWORD])
        self.assertTrue(any(re.search(IMAGE, path) for path in made), "the trace sees nothing")
        # The copy in the volume is mounted below the tools' private directory.
        self.assertOnlyMade(made, IMAGE, KEY_FILE)
        key = printed.splitlines()[1]
        vaultKey = base64.b32decode(key.replace("-", ""))
        secrets = [text.encode() for text in (PASSWORD, NEW_PASSWORD, CONTENT, key,
                                              key.replace("-", ""))]
        secrets += [vaultKey, base64.b64encode(vaultKey), vaultKey.hex().encode()]
        self.assertNowhere(*secrets)

        item = "Docs.quillvane"
        _, made = self.trace("open", item, secrets=[PASSWORD])
        self.assertOnlyMade(made)
        _, made = self.trace("open", "--recovery-key", item, secrets=[key])
        self.assertOnlyMade(made)
        _, made = self.trace("change", item, secrets=[PASSWORD, NEW_PASSWORD])
        self.assertOnlyMade(made, KEY_FILE)
        _, made = self.trace("change", item, "--recovery-key", secrets=[key, PASSWORD])
        self.assertOnlyMade(made, KEY_FILE)
        self.assertNowhere(*secrets)
        _, made = self.trace("remove", item, secrets=[PASSWORD])
        self.assertOnlyMade(made, "Docs/file")
        (self.work / "Docs/file").unlink()
        self.assertNowhere(*secrets)


if __name__ == "__main__":
    unittest.main()
