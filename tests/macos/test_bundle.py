"""What the bundle tells the system about itself, and its icons."""

import os
import pathlib
import plistlib
import struct
import subprocess
import tempfile
import unittest
import xml.dom.minidom

SOURCE = pathlib.Path(os.environ["QUILLVANE_TEST_SOURCE"])
BUILD = pathlib.Path(os.environ["QUILLVANE_TEST_BUILD"])
VERSION = os.environ["QUILLVANE_TEST_VERSION"]
DRAWINGS = {"AppIcon": SOURCE / "Quillvane/AppIcon.svg",
            "DocumentIcon": SOURCE / "packaging/application-vnd.quillvane.svg"}


class InfoTest(unittest.TestCase):
    def setUp(self):
        self.file = BUILD / "macos/Info.plist"
        self.info = plistlib.loads(self.file.read_bytes())

    def testTellsWhatTheProgramIs(self):
        expected = {"CFBundleIdentifier": "org.quillvane.Quillvane", "CFBundleName": "Quillvane",
                    "CFBundleExecutable": "Quillvane", "CFBundlePackageType": "APPL",
                    "CFBundleShortVersionString": VERSION, "CFBundleVersion": "1",
                    "LSMinimumSystemVersion": "13.0", "NSHighResolutionCapable": True,
                    "LSApplicationCategoryType": "public.app-category.utilities"}
        self.assertEqual(expected, {key: self.info.get(key) for key in expected})
        self.assertIn("NSHumanReadableCopyright", self.info)

    def testOpensItems(self):
        (exported,) = self.info["UTExportedTypeDeclarations"]
        self.assertEqual(["public.data"], exported["UTTypeConformsTo"])
        tags = exported["UTTypeTagSpecification"]
        self.assertEqual(["quillvane"], tags["public.filename-extension"])
        (document,) = self.info["CFBundleDocumentTypes"]
        self.assertEqual([exported["UTTypeIdentifier"]], document["LSItemContentTypes"])
        self.assertEqual(("Editor", "Owner"), (document["CFBundleTypeRole"], document["LSHandlerRank"]))

    def testItsIconsAreMade(self):
        (exported,) = self.info["UTExportedTypeDeclarations"]
        (document,) = self.info["CFBundleDocumentTypes"]
        self.assertEqual(set(DRAWINGS), {self.info["CFBundleIconFile"], exported["UTTypeIconFile"],
                                         document["CFBundleTypeIconFile"]})

    def testNothingIsSaidTwice(self):
        # A parser of property lists takes the last of two entries with one key.
        for dictionary in xml.dom.minidom.parse(str(self.file)).getElementsByTagName("dict"):
            keys = [node.firstChild.data for node in dictionary.childNodes
                    if node.nodeName == "key"]
            self.assertEqual(sorted(set(keys)), sorted(keys))


class IconTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.work = pathlib.Path(folder.name)

    def make(self, drawing, icon):
        return subprocess.run([BUILD / "bin/make-icon", drawing, icon], capture_output=True,
                              text=True)

    def testHoldsAPictureOfEachSize(self):
        # The codes of the format, and the pixels that each stands for.
        sizes = {b"ic11": 32, b"ic12": 64, b"ic07": 128, b"ic13": 256, b"ic08": 256,
                 b"ic14": 512, b"ic09": 512, b"ic10": 1024}
        for name, drawing in DRAWINGS.items():
            with self.subTest(name):
                made = self.make(drawing, self.work / "icon.icns")
                self.assertEqual((0, "", ""), (made.returncode, made.stdout, made.stderr))
                icon = (self.work / "icon.icns").read_bytes()
                self.assertEqual((b"icns", len(icon)), struct.unpack(">4sI", icon[:8]))
                found = {}
                rest = icon[8:]
                while rest:
                    code, length = struct.unpack(">4sI", rest[:8])
                    self.assertEqual(b"\x89PNG\r\n\x1a\n", rest[8:16])
                    width, height = struct.unpack(">II", rest[24:32])
                    self.assertEqual(width, height)
                    # A picture of one colour would be a few bytes of each line at most.
                    self.assertGreater(length, 10 * width)
                    found[code] = width
                    rest = rest[length:]
                self.assertEqual(sizes, found)

    def testAnotherProgramReadsIt(self):
        self.make(DRAWINGS["AppIcon"], self.work / "icon.icns")
        subprocess.run(["icns2png", "-x", "-o", self.work, self.work / "icon.icns"], check=True,
                       stdout=subprocess.DEVNULL)
        # It knows but the older codes.
        self.assertEqual(["icon_1024x1024x32.png", "icon_256x256x32.png", "icon_512x512x32.png"],
                         sorted(picture.name for picture in self.work.glob("*.png")))

    def testTellsWhyThereIsNone(self):
        (self.work / "torn.svg").write_text("<svg")
        made = self.make(self.work / "torn.svg", self.work / "torn.icns")
        self.assertEqual(1, made.returncode)
        self.assertIn("torn.svg", made.stderr)
        self.assertFalse((self.work / "torn.icns").exists())
        made = self.make(DRAWINGS["AppIcon"], self.work / "missing/AppIcon.icns")
        self.assertEqual(1, made.returncode)
        self.assertIn("AppIcon.icns: ", made.stderr)


if __name__ == "__main__":
    unittest.main()
