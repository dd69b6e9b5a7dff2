"""No secret is where another process could read it: not in an argument, not in an environment
variable, and not in a file that an operation leaves or makes on its way."""

import base64
import os
import subprocess
import unittest

import quillvane
from quillvane import QV

PASSWORD = "the password, in full"
CONTENT = "content that must not be seen"


def written(path):
    """What a file holds apart from its holes."""
    found = []
    with open(path, "rb") as file:
        end = os.fstat(file.fileno()).st_size
        at = 0
        while at < end:
            try:
                at = os.lseek(file.fileno(), at, os.SEEK_DATA)
            except OSError:  # nothing but a hole up to the end
                break
            hole = os.lseek(file.fileno(), at, os.SEEK_HOLE)
            found.append(os.pread(file.fileno(), hole - at, at))
            at = hole
    return b"".join(found)


class SecretsTest(quillvane.Case):
    def trace(self, *words, secrets):
        """Runs qv under strace; its output, and every program started with all that it was given,
        and every file that any process wrote to with what was written."""
        log = self.directory / "trace"
        # The leak checker traces, and a process is traced by one at a time.
        self.environment["ASAN_OPTIONS"] = "detect_leaks=0"
        strace = subprocess.Popen(
            ["strace", "-f", "--seccomp-bpf", "-y", "-v", "-s", "100000", "-o", log,
             "-e", "trace=execve,write,pwrite64,writev,pwritev,sendto,sendmsg",
             QV, *words, "--stdin"], cwd=self.work, env=self.environment, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        strace.stdin.write("".join(secret + "\n" for secret in secrets))
        strace.stdin.close()
        strace.stdin = None
        if words[0] == "open":  # strace goes on as long as the volume's server
            self.assertIn("Volumes", strace.stdout.readline())
            self.assertEqual(0, self.run_(QV, "close", words[1]).returncode)
        stdout, stderr = strace.communicate(timeout=120)
        self.assertEqual(0, strace.returncode, stderr)
        return stdout, log.read_text(errors="replace").splitlines()

    def assertKept(self, lines, *secrets):
        started = [line for line in lines if "execve(" in line]
        self.assertTrue(any("libexec/quillvane/hdiutil" in line for line in started))
        # A pipe is how a secret reaches the tools; a file or a socket is not.
        written = [line for line in lines if "execve(" not in line and "<pipe:" not in line]
        for secret in secrets:
            self.assertEqual([], [line for line in started if secret in line])
            self.assertEqual([], [line for line in written if secret in line])

    def test(self):
        (self.work / "Docs").mkdir()
        (self.work / "Docs/file").write_text(CONTENT)
        stdout, lines = self.trace("lock", "Docs", secrets=[PASSWORD])
        key = stdout.splitlines()[1]
        passphrase = base64.b64encode(base64.b32decode(key.replace("-", ""))).decode()
        secrets = [PASSWORD, passphrase, key]
        self.assertKept(lines, *secrets)
        self.assertTrue(any(passphrase in line for line in lines), "the trace sees nothing")

        _, lines = self.trace("open", "Docs.quillvane", secrets=[PASSWORD])
        self.assertKept(lines, *secrets)
        _, lines = self.trace("change", "Docs.quillvane", secrets=[PASSWORD, "another one"])
        for secret in (*secrets, "another one"):
            self.assertEqual([], [line for line in lines if secret in line])

        for folder, _, files in os.walk(self.directory):
            for name in files:
                if name != "trace":
                    found = written(os.path.join(folder, name))
                    for secret in (*secrets, CONTENT):
                        self.assertNotIn(secret.encode(), found, name)

        _, lines = self.trace("remove", "Docs.quillvane", secrets=["another one"])
        self.assertKept(lines, *secrets, "another one")
        self.assertEqual(CONTENT, (self.work / "Docs/file").read_text())


if __name__ == "__main__":
    unittest.main()
