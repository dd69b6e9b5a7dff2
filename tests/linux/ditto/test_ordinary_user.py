"""What an ordinary user may not do is either excused (owners) or named, never silent."""

import os
import shutil
import subprocess
import unittest

from support import DITTO, DittoTest, metadata, run

NOBODY = 65534


class OrdinaryUser(DittoTest):
    """Run as root, who can set the stage; the program runs as nobody."""

    where = "/var/tmp"  # nobody may enter it

    def setUp(self):
        self.needs_root("playing an ordinary user and somebody else")
        super().setUp()
        os.chmod(self.place, 0o777)
        self.program = os.path.join(self.place, "ditto")
        shutil.copy(DITTO, self.program)
        os.chown(self.source, NOBODY, NOBODY)

    def ditto_as_user(self, groups=()):
        held = ["--groups=" + ",".join(map(str, groups))] if groups else ["--clear-groups"]
        return subprocess.run(["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", *held,
                               self.program, self.source, self.destination],
                              capture_output=True, check=False, timeout=100)

    def write_as_user(self, name, mode=0o644):
        path = self.write(name)
        os.chown(path, NOBODY, NOBODY)
        os.chmod(path, mode)
        return path

    def test_own_files_are_copied_exactly(self):
        os.mkdir(self.path("closed"))
        os.chown(self.path("closed"), NOBODY, NOBODY)
        os.setxattr(self.write_as_user("closed/a", 0o400), "user.x", b"1")
        self.write_as_user("tool", 0o4755)
        self.write_as_user("locked", 0o444)
        os.symlink("x", self.path("link"))
        os.lchown(self.path("link"), NOBODY, NOBODY)
        run("setfacl", "-m", "u:3000:rw", self.path("locked"))
        os.chmod(self.path("closed"), 0o500)
        before = metadata(self.source)
        result = self.ditto_as_user()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(metadata(self.destination), before)

    def test_others_files_become_the_users_own(self):
        os.chown(self.write("theirs"), 3000, 3000)
        os.chown(self.write("tool"), 3000, 3000)
        os.chmod(self.path("tool"), 0o6755)
        result = self.ditto_as_user()
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        for name, mode in (("theirs", 0o644), ("tool", 0o755)):
            found = os.stat(self.copied(name))
            self.assertEqual((found.st_uid, found.st_gid), (NOBODY, NOBODY))
            self.assertEqual(found.st_mode & 0o7777, mode, "lends nobody's rights to others")

    def test_groups_the_user_belongs_to_are_kept(self):
        os.chown(self.write("shared"), NOBODY, 3001)
        os.chmod(self.path("shared"), 0o2754)
        os.chown(self.write("theirs"), 3000, 3001)
        result = self.ditto_as_user(groups=[3001])
        self.assertEqual((result.returncode, result.stderr), (0, b""))
        self.assertEqual(os.stat(self.copied("shared")).st_gid, 3001)
        self.assertEqual(os.stat(self.copied("shared")).st_mode & 0o7777, 0o2754)
        self.assertEqual(os.stat(self.copied("theirs")).st_gid, 3001)

    def test_what_cannot_be_read_is_named_each(self):
        self.write_as_user("fine")
        self.write_as_user("secret", 0o000)
        os.mkdir(self.path("private"), 0o700)
        self.write("private/x")
        os.mkdir(self.path("listed only"))
        self.write("listed only/y")
        os.chmod(self.path("listed only"), 0o744)
        result = self.ditto_as_user()
        self.assertEqual(sorted(result.stderr.decode().splitlines()),
                         ["ditto: Docs/listed only/y: cannot be examined: Permission denied",
                          "ditto: Docs/private: cannot be read: Permission denied",
                          "ditto: Docs/secret: cannot be read: Permission denied"])
        self.assertEqual(result.returncode, 1)

    def test_device_nodes_and_capabilities_are_named(self):
        os.mknod(self.path("null"), 0o20666, os.makedev(1, 3))
        tool = self.write_as_user("tool", 0o755)
        run("/usr/sbin/setcap", "cap_net_raw+ep", tool)
        result = self.ditto_as_user()
        self.assertEqual(sorted(result.stderr.decode().splitlines()),
                         ["ditto: Docs/null: cannot be created: Operation not permitted",
                          "ditto: Docs/tool: attribute security.capability cannot be set: "
                          "Operation not permitted"])

    def test_destination_where_the_user_may_not_write(self):
        self.write_as_user("a")
        os.chmod(self.place, 0o755)
        result = self.ditto_as_user()
        self.assert_fails(result,
                          f"ditto: {self.destination}: cannot be created: Permission denied")


if __name__ == "__main__":
    unittest.main()
