"""What an ordinary user may not do on a volume."""

import errno
import os
import socket
import unittest

from volume import VolumeCase


class PermissionsTest(VolumeCase):

    def test_modesAreObeyed(self):
        file = self.fileWith("file", b"secret")
        folder = self.volume / "folder"
        folder.mkdir()
        (folder / "inner").write_bytes(b"x")
        file.chmod(0o000)
        for flags in (os.O_RDONLY, os.O_WRONLY, os.O_RDWR):
            with self.assertErrno(errno.EACCES):
                os.open(file, flags)
        file.chmod(0o400)
        with self.assertErrno(errno.EACCES):
            os.open(file, os.O_WRONLY)
        self.assertTrue(os.access(file, os.R_OK))
        self.assertFalse(os.access(file, os.W_OK))
        self.assertFalse(os.access(file, os.X_OK))
        folder.chmod(0o500)
        for attempt in (lambda: (folder / "new").write_bytes(b""), (folder / "inner").unlink,
                        lambda: os.rename(file, folder / "file"), lambda: os.link(file, folder / "l")):
            with self.assertErrno(errno.EACCES):
                attempt()
        folder.chmod(0o600)
        with self.assertErrno(errno.EACCES):
            (folder / "inner").stat()
        folder.chmod(0o300)
        self.assertEqual(b"x", (folder / "inner").read_bytes())
        with self.assertErrno(errno.EACCES):
            os.listdir(folder)
        folder.chmod(0o700)

    def test_privilegesAreNeeded(self):
        file = self.fileWith("file")
        for attempt in (lambda: os.chown(file, 0, -1), lambda: os.chown(file, -1, 0),
                        lambda: os.mknod(self.volume / "device", 0o20600, os.makedev(1, 3)),
                        lambda: os.setxattr(file, "trusted.a", b""),
                        lambda: os.setxattr(file, "security.a", b"")):
            with self.assertErrno(errno.EPERM):
                attempt()
        self.assertEqual([], os.listxattr(self.volume))

    def test_accessListsAreObeyed(self):
        file = self.fileWith("file", b"x", 0o000)
        self.succeed("setfacl", "-m", f"u::-,g::-,o::-,u:12345:rw", file)
        with self.assertErrno(errno.EACCES):
            file.read_bytes()  # the owner's own entry decides
        self.succeed("setfacl", "-m", "u::r", file)
        self.assertEqual(b"x", file.read_bytes())

    def test_socketsOnTheVolumeConnect(self):
        os.chdir(self.volume)
        self.opened.callback(os.chdir, "/")
        with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX) as caller:
            listener.bind("socket")
            listener.listen()
            caller.connect("socket")
            with listener.accept()[0] as answering:
                caller.sendall(b"hello")
                self.assertEqual(b"hello", answering.recv(10))

    def test_fifosCarryBytes(self):
        fifo = self.volume / "fifo"
        os.mkfifo(fifo)
        reading = self.open_(fifo, os.O_RDONLY | os.O_NONBLOCK)
        writing = self.open_(fifo, os.O_WRONLY)
        os.write(writing, b"through")
        self.assertEqual(b"through", os.read(reading, 20))


if __name__ == "__main__":
    unittest.main()
