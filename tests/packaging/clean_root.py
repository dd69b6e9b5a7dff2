"""A Debian of its own: the smallest that debootstrap makes, from the mirror of this computer, with
packages kept in the build folder from one run to the next.

For root, in a mount namespace that nobody else uses: what is mounted here goes with it.
"""

import os
import pathlib
import platform
import shutil
import subprocess
import unittest

from quillvane import BUILD

USER = 1000
CACHE = BUILD / "packaging/cache"
# Nothing of this root is to last, and nobody is asked anything.
APT = ["-q", "-y", "--no-install-recommends", "-o", "DPkg::Options::=--force-unsafe-io",
       "-o", "Acquire::Languages=none", "-o", "APT::Sandbox::User=root"]
# What debootstrap says when it is not to be had here, rather than broken.
IMPOSSIBLE = ("Failed getting release file", "mounted with option noexec or nodev",
              "Cannot install into target")


def mirror():
    """The release of this computer's Debian and where its packages are."""
    release = platform.freedesktop_os_release()
    if release["ID"] != "debian":
        raise unittest.SkipTest(f"{release['PRETTY_NAME']} has no mirror of Debian")
    codename = release["VERSION_CODENAME"]
    listed = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(ORIGIN) $(CODENAME) $(COMPONENT) $(REPO_URI)",
         "Created-By: Packages"], stdout=subprocess.PIPE, check=True, text=True).stdout
    for line in listed.splitlines():
        origin, *rest, address = line.split(" ")
        if (origin, *rest) == ("Debian", codename, "main"):
            return codename, address
    raise unittest.SkipTest(f"apt has no list of {codename}: run apt-get update")


class CleanRoot:
    """The root, at `path`, a directory that is there. Its users' homes are on a disk, below
    `homes`."""

    def __init__(self, path, homes):
        if not shutil.which("debootstrap"):
            raise unittest.SkipTest("debootstrap is not installed")
        codename, address = mirror()
        CACHE.mkdir(parents=True, exist_ok=True)
        self.path = pathlib.Path(path)
        self._mount("-t", "tmpfs", "-o", "mode=755,size=2g", "tmpfs", self.path)
        made = subprocess.run(
            ["debootstrap", "--variant=minbase", f"--cache-dir={CACHE}", codename, self.path,
             address], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if made.returncode:
            if any(text in made.stdout for text in IMPOSSIBLE):
                raise unittest.SkipTest("debootstrap: " + made.stdout.splitlines()[-1])
            raise RuntimeError(made.stdout)
        self._mount("--bind", CACHE, self.path / "var/cache/apt/archives")
        # What a boot makes.
        self._mount("-t", "proc", "proc", self.path / "proc")
        (self.path / "etc/mtab").symlink_to("../proc/self/mounts")
        os.mknod(self.path / "dev/fuse", 0o666 | 0o020000, os.makedev(10, 229))
        os.chmod(self.path / "dev/fuse", 0o666)
        self.run("useradd", "--uid", USER, "ada", "--shell", "/bin/bash")
        self._makeFor(homes)
        (self.path / "home/ada").mkdir()
        self._mount("--bind", homes, self.path / "home/ada")
        self._makeFor(self.path / f"run/user/{USER}")

    @staticmethod
    def _mount(*words):
        subprocess.run(["mount", *map(str, words)], check=True)

    @staticmethod
    def _makeFor(directory):
        directory.mkdir(parents=True, mode=0o700)
        os.chown(directory, USER, USER)

    def run(self, *command, check=True):
        """Runs a command as root; what it prints."""
        result = subprocess.run(
            ["/usr/sbin/chroot", self.path, *map(str, command)], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env={"PATH": "/usr/sbin:/usr/bin", "LC_ALL": "C.UTF-8", "HOME": "/root",
                 "DEBIAN_FRONTEND": "noninteractive"})
        if check and result.returncode:
            raise RuntimeError(f"{command}: {result.returncode}\n{result.stdout}")
        return result.stdout

    def apt(self, *words):
        return self.run("apt-get", *APT, *words)

    def asUser(self, *command, **environment):
        """The words and variables with which `subprocess` runs a command as the user."""
        return {"args": ["/usr/sbin/chroot", f"--userspec={USER}:{USER}", self.path, "env", "-C", "/home/ada",
                         *map(str, command)],
                "env": {"PATH": "/usr/bin", "LC_ALL": "C.UTF-8", "HOME": "/home/ada", "USER": "ada",
                        "XDG_RUNTIME_DIR": f"/run/user/{USER}"} | environment}

    def files(self):
        """Every path but those of the kernel, of users, and of what dpkg and apt note down."""
        left = ("proc", "dev", "home", "run", "tmp", "var/cache", "var/log", "var/lib/dpkg",
                "var/lib/apt")
        pruned = [word for path in left for word in ("-path", f"./{path}", "-prune", "-o")]
        listed = subprocess.run(["find", ".", *pruned, "-print0"], cwd=self.path, check=True,
                                stdout=subprocess.PIPE).stdout
        return set(listed.decode(errors="surrogateescape").split("\0"))
