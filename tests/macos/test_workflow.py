"""The workflow of a public CI names what is there."""

import json
import os
import pathlib
import re
import subprocess
import unittest

import yaml

SOURCE = pathlib.Path(os.environ["QUILLVANE_TEST_SOURCE"])
BUILD = pathlib.Path(os.environ["QUILLVANE_TEST_BUILD"])


class WorkflowTest(unittest.TestCase):
    def setUp(self):
        self.workflow = yaml.safe_load((SOURCE / ".github/workflows/macos.yml").read_text())
        self.steps = [step for job in self.workflow["jobs"].values() for step in job["steps"]]
        self.commands = [step["run"] for step in self.steps if "run" in step]

    def words(self, option):
        """What follows the option in any of the commands."""
        return re.findall(rf"{option}[ =](\S+)", "\n".join(self.commands))

    def testHasAJobForEachSystem(self):
        self.assertEqual({"linux", "macos"}, set(self.workflow["jobs"]))
        self.assertEqual(["macos-15-intel", "macos-15"],
                         self.workflow["jobs"]["macos"]["strategy"]["matrix"]["runner"])
        self.assertIn(".ci/run", self.commands)
        self.assertTrue(os.access(SOURCE / ".ci/run", os.X_OK))

    def testActionsHaveAVersion(self):
        actions = [step["uses"] for step in self.steps if "uses" in step]
        self.assertTrue(actions)
        for action in actions:
            self.assertRegex(action, r"^actions/[a-z-]+@v\d+\.\d+\.\d+$")

    def testCommandsAreShell(self):
        for command in self.commands:
            self.assertEqual(0, subprocess.run(["bash", "-n", "-c", command]).returncode, command)

    def testPresetsAndTargetsAndLabelsAreThere(self):
        presets = json.loads((SOURCE / "CMakePresets.json").read_text())
        for kind in ("configurePresets", "buildPresets", "testPresets"):
            names = {preset["name"] for preset in presets[kind]}
            self.assertLessEqual(set(self.words("--preset")), names)
        for target in self.words("--target"):
            known = subprocess.run(["ninja", "-C", BUILD, "-t", "query", target],
                                   capture_output=True, text=True)
            self.assertEqual(0, known.returncode, known.stderr)
        self.assertEqual(3, len(self.words("--preset")))

    def testTheTestsThatAreRunAreBuilt(self):
        self.assertEqual(["unit"], self.words("--label-regex"))
        self.assertIn("LABELS unit", (SOURCE / "tests/CMakeLists.txt").read_text())
        # The release preset leaves them out.
        self.assertEqual(["ON"], self.words("-DQUILLVANE_UNIT_TESTS"))
        self.assertIn("option(QUILLVANE_UNIT_TESTS", (SOURCE / "tests/CMakeLists.txt").read_text())

    def testTheDiskImageIsWhereItIsLookedFor(self):
        recipe = (SOURCE / "packaging/macos/CMakeLists.txt").read_text()
        self.assertIn("set(CPACK_GENERATOR DragNDrop)", recipe)
        (folder,) = self.words("-B")
        (config,) = self.words("--config")
        (path,) = [step["with"]["path"] for step in self.steps if "with" in step]
        self.assertEqual([f"{folder}/CPackConfig.cmake", f"{folder}/*.dmg"], [config, path])
        self.assertEqual(SOURCE / folder, SOURCE / "build" / self.words("--preset")[0])


if __name__ == "__main__":
    unittest.main()
