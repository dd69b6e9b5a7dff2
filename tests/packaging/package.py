"""The Debian package of this build, which the test packaging/build makes."""

import os
import re
import subprocess

from quillvane import BUILD, Case


def version():
    """The version that this build was configured with."""
    cache = (BUILD / "CMakeCache.txt").read_text()
    return re.search(r"^CMAKE_PROJECT_VERSION:STATIC=(.+)$", cache, re.MULTILINE)[1]


def output(*command):
    # dpkg complains of a home that it may not look into.
    return subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, check=True,
                          text=True, env=os.environ | {"HOME": "/"}).stdout


ARCHITECTURE = output("dpkg", "--print-architecture").strip()
PACKAGE = BUILD / f"quillvane_{version()}_{ARCHITECTURE}.deb"


def field(name):
    """A field of the package's control file."""
    return output("dpkg-deb", "--field", PACKAGE, name).strip()


class PackageCase(Case):
    """A test with the package's files below `self.root`, its control files in `self.control`."""

    def setUp(self):
        super().setUp()
        self.root, self.control = self.directory / "root", self.directory / "control"
        output("dpkg-deb", "--extract", PACKAGE, self.root)
        output("dpkg-deb", "--control", PACKAGE, self.control)

    def files(self):
        """Every file of the package, by its path below the root."""
        return sorted(path.relative_to(self.root) for path in self.root.rglob("*")
                      if not path.is_dir())

    def programs(self):
        """The compiled ones."""
        return [self.root / path for path in self.files()
                if (self.root / path).read_bytes().startswith(b"\x7fELF")]
