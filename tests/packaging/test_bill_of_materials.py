"""The bill of materials names what is published, what it needs and what it is made with."""

import hashlib
import json
import os
import re
import subprocess
import unittest

from package import PACKAGE, field, output, version
from quillvane import Case, SOURCE

LISTS = [SOURCE / f"cmake/packages-{name}.txt" for name in ("build", "package")]


class BillOfMaterials(Case):
    def setUp(self):
        super().setUp()
        self.source = self.directory / f"quillvane-{version()}.tar.gz"
        self.source.write_bytes(b"an archive")

    def made(self, *lists):
        return subprocess.run([SOURCE / "packaging/bill-of-materials", PACKAGE, self.source, *lists],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              env=os.environ | {"SOURCE_DATE_EPOCH": "1700000000"})

    def read(self):
        result = self.made(*LISTS)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        return json.loads(result.stdout)

    def testHasWhatSpdxWants(self):
        document = self.read()
        self.assertEqual("SPDX-2.3", document["spdxVersion"])
        self.assertEqual("2023-11-14T22:13:20Z", document["creationInfo"]["created"])
        names = [document["SPDXID"], *(entry["SPDXID"] for entry in document["packages"])]
        self.assertEqual(len(names), len(set(names)))
        for name in names:
            self.assertRegex(name, r"\ASPDXRef-[A-Za-z0-9.-]+\Z")
        for relation in document["relationships"]:
            self.assertIn(relation["spdxElementId"], names)
            self.assertIn(relation["relatedSpdxElement"], names)
        for entry in document["packages"]:
            for needed in ("name", "versionInfo", "downloadLocation", "licenseConcluded"):
                self.assertTrue(entry[needed], entry)

    def testChecksumsAreThoseOfTheFiles(self):
        sums = {entry["packageFileName"]: entry["checksums"][0]["checksumValue"]
                for entry in self.read()["packages"] if "checksums" in entry}
        self.assertEqual({file.name: hashlib.sha256(file.read_bytes()).hexdigest()
                          for file in (PACKAGE, self.source)}, sums)

    def related(self, kind, end):
        document = self.read()
        names = {entry["SPDXID"]: entry for entry in document["packages"]}
        return {names[relation[end]]["name"]: names[relation[end]]["versionInfo"]
                for relation in document["relationships"] if relation["relationshipType"] == kind}

    def testNamesWhatThePackageNeeds(self):
        needed = self.related("DEPENDS_ON", "relatedSpdxElement")
        wanted = {re.match(r"[a-z0-9.+-]+", choice)[0] for choice in field("Depends").split(", ")
                  if "|" not in choice}
        self.assertLessEqual({"libssl3", "libcryptsetup12", "fuse3"}, wanted)
        self.assertLessEqual(wanted, set(needed))
        for name, found in needed.items():
            self.assertEqual(output("dpkg-query", "-W", "-f", "${Version}", name), found)

    def testWhatThePackageNeedsIsThereWhereItIsMade(self):
        """Libraries come with their headers; all else has to be in the lists itself."""
        listed = {line for file in LISTS for line in file.read_text().splitlines()}
        needed = {part.split(" ")[0] for part in field("Depends").split(", ")}
        programs = {name for name in needed if not name.startswith("lib")}
        self.assertLess({"fuse3", "qml6-module-qtquick"}, programs)
        self.assertEqual(set(), programs - listed)

    def testNamesWhatItIsMadeWith(self):
        used = self.related("BUILD_DEPENDENCY_OF", "spdxElementId")
        for name in ("g++", "nlohmann-json3-dev", "asciidoctor"):
            self.assertIn(name, used)

    def testWhatIsNotInstalledIsNotPassedOver(self):
        missing = self.directory / "list"
        missing.write_text("# comment\nno-such-package\n")
        result = self.made(missing)
        self.assertEqual(1, result.returncode)
        self.assertIn("the package no-such-package is not installed", result.stderr)


if __name__ == "__main__":
    unittest.main()
