"""What is in the package, and what Debian's own tools say of it."""

import gzip
import pathlib
import re
import struct
import subprocess
import unittest
import xml.etree.ElementTree

import package
from package import PACKAGE, PackageCase, field, output
from quillvane import SOURCE

NAME = "org.quillvane.Quillvane"
EXECUTABLE = {"usr/bin/quillvane", "usr/bin/qv", "usr/libexec/quillvane/hdiutil",
              "usr/libexec/quillvane/ditto", "usr/libexec/quillvane/open"}
SIZES = (16, 22, 24, 32, 48, 64, 128, 256, 512)
ICONS = {"apps": (NAME, SOURCE / "Quillvane/AppIcon.svg"),
         "mimetypes": ("application-vnd.quillvane",
                       SOURCE / "packaging/application-vnd.quillvane.svg")}
SHARED = {f"usr/share/{path}" for path in (
    f"applications/{NAME}.desktop", f"dbus-1/services/{NAME}.service",
    f"mime/packages/{NAME}.xml", f"metainfo/{NAME}.metainfo.xml",
    "nautilus-python/extensions/quillvane.py", "kio/servicemenus/quillvane.desktop",
    "nemo/actions/quillvane.nemo_action",
    "bash-completion/completions/qv", "zsh/vendor-completions/_qv",
    "fish/vendor_completions.d/qv.fish", "doc/quillvane/copyright", "doc/quillvane/changelog.gz",
    "man/man1/quillvane.1.gz", "man/man1/qv.1.gz", "doc/quillvane/html/index.html",
    "doc/quillvane/damaged-items.md", "doc/quillvane/formats.md",
    *(f"icons/hicolor/{size}x{size}/{kind}/{name}.png"
      for kind, (name, _) in ICONS.items() for size in SIZES),
    *(f"icons/hicolor/scalable/{kind}/{name}.svg" for kind, (name, _) in ICONS.items()))}
MANUAL = ("usr/share/man/man1/", "usr/share/doc/quillvane/")


class Contents(PackageCase):
    def testHasEveryFileAndNoOther(self):
        found = {str(path) for path in self.files()}
        self.assertEqual(set(), (EXECUTABLE | SHARED) - found)
        others = {path for path in found - EXECUTABLE - SHARED if not path.startswith(MANUAL)}
        self.assertEqual(set(), others)

    def testModesAndOwners(self):
        for line in output("dpkg-deb", "--contents", PACKAGE).splitlines():
            mode, owner, _, _, _, path = line.split(maxsplit=5)
            path = path.removeprefix("./")
            wanted = ("drwxr-xr-x" if path.endswith("/") or not path
                      else "-rwxr-xr-x" if path in EXECUTABLE else "-rw-r--r--")
            self.assertEqual((wanted, "root/root"), (mode, owner), line)

    def testEveryFileHasItsSum(self):
        sums = (self.control / "md5sums").read_text().splitlines()
        self.assertEqual([str(path) for path in self.files()],
                         sorted(line.split(maxsplit=1)[1] for line in sums))
        self.assertEqual(0, self.run_("md5sum", "--check", "--quiet", self.control / "md5sums",
                                      cwd=self.root).returncode)

    def testProgramsAreStrippedAndFindLibrariesTheUsualWay(self):
        self.assertEqual(4, len(self.programs()))
        for program in self.programs():
            self.assertNotIn("PATH", output("readelf", "--dynamic", program), program)
            sections = output("readelf", "--section-headers", "--wide", program)
            self.assertNotRegex(sections, r"\.symtab|\.debug_", program)

    def testDependsOnWhatItCalls(self):
        depends = {part.split()[0] for part in field("Depends").split(", ")}
        modules = {line for line in (SOURCE / "cmake/packages-build.txt").read_text().split()
                   if line.startswith("qml6-module-")}
        self.assertGreater(len(modules), 4)
        called = modules | {"e2fsprogs", "fuse3", "xdg-utils"}
        linked = {"libc6", "libcryptsetup12", "libfuse3-3", "libext2fs2", "libqt6svg6",
                  "libqt6quick6", "libssl3"}
        self.assertEqual(set(), (called | linked) - depends)
        self.assertEqual([], [name for name in depends if name.endswith("-dev")])
        # The paths that are compiled in are those of the packages named.
        for program, owner in (("/usr/bin/fusermount3", "fuse3"), ("/usr/sbin/mke2fs", "e2fsprogs"),
                               ("/usr/sbin/e2fsck", "e2fsprogs"), ("/usr/bin/xdg-open", "xdg-utils")):
            found = subprocess.run(["dpkg-query", "--search", "*" + program.removeprefix("/usr")],
                                   stdout=subprocess.PIPE, text=True).stdout
            self.assertRegex(found, rf"(?m)^{owner}: (/usr)?{program.removeprefix('/usr')}$")

    def testIconsHaveTheirSizes(self):
        icons = self.root / "usr/share/icons/hicolor"
        for kind, (name, drawing) in ICONS.items():
            self.assertEqual(drawing.read_bytes(),
                             (icons / f"scalable/{kind}/{name}.svg").read_bytes())
            for size in SIZES:
                picture = (icons / f"{size}x{size}/{kind}/{name}.png").read_bytes()
                self.assertEqual(b"\x89PNG\r\n\x1a\n", picture[:8])
                self.assertEqual((size, size), struct.unpack(">II", picture[16:24]))

    def testAllTellTheSameVersion(self):
        version = package.version()
        self.assertEqual(version, field("Version"))
        self.assertEqual(f"qv {version}", output(self.root / "usr/bin/qv", "--version").strip())
        changelog = gzip.open(self.root / "usr/share/doc/quillvane/changelog.gz", "rt").read()
        self.assertTrue(changelog.startswith(f"quillvane ({version}) "), changelog[:40])
        metainfo = xml.etree.ElementTree.parse(
            self.root / f"usr/share/metainfo/{NAME}.metainfo.xml")
        self.assertEqual(version, metainfo.find("releases/release").get("version"))

    def testNamesTheProgramsByTheirPlace(self):
        for path, line in ((f"applications/{NAME}.desktop", "Exec=/usr/bin/quillvane %U"),
                           (f"dbus-1/services/{NAME}.service", "Exec=/usr/bin/quillvane"),
                           ("kio/servicemenus/quillvane.desktop",
                            "Exec=/usr/bin/quillvane --protect %u"),
                           ("nemo/actions/quillvane.nemo_action",
                            "Exec=/usr/bin/quillvane --protect %U")):
            text = (self.root / "usr/share" / path).read_text()
            self.assertIn(line, text.splitlines(), path)
            self.assertNotIn("@", text, path)


class Validation(PackageCase):
    def assertClean(self, *command):
        result = self.run_(*command)
        self.assertEqual((0, ""), (result.returncode, result.stdout + result.stderr))

    def testLintian(self):
        overrides = pathlib.Path("usr/share/lintian/overrides/quillvane")
        self.assertNotIn(overrides, self.files())
        self.assertClean("lintian", "--fail-on", "error,warning", PACKAGE)

    def testDesktopFile(self):
        self.assertClean("desktop-file-validate",
                         self.root / f"usr/share/applications/{NAME}.desktop")

    def testMetainfo(self):
        result = self.run_("appstreamcli", "validate", "--no-net", "--no-color",
                           self.root / f"usr/share/metainfo/{NAME}.metainfo.xml")
        self.assertEqual(0, result.returncode, result)
        self.assertNotRegex(result.stdout, r"(?m)^[EWI]: ")

    def testMimeType(self):
        mime = self.root / "usr/share/mime"
        self.environment["XDG_DATA_DIRS"] = str(mime.parent)
        self.assertClean("update-mime-database", mime)
        self.assertEqual(["application/vnd.quillvane:*.quillvane"],
                         re.findall(r"^[^#].*$", (mime / "globs").read_text(), re.MULTILINE))
        self.assertEqual("application/vnd.quillvane application/octet-stream\n",
                         (mime / "subclasses").read_text())
        # The icon's name follows from the type's.
        self.assertIn("application-vnd.quillvane", ICONS["mimetypes"])


if __name__ == "__main__":
    unittest.main()
