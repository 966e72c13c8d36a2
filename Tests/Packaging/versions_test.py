"""The version's one home is CMakeLists.txt; the histories that name it must not fall behind."""

import re
import unittest

from staged import SOURCE, STAGE


class Versions(unittest.TestCase):
    def test_of_the_build_and_of_both_histories_are_the_same(self):
        installed = next(STAGE.glob("usr/lib/**/gantrel.pc")).read_text()
        version = re.search(r"^Version: (\d+\.\d+\.\d+)$", installed, re.M)[1]
        self.assertEqual(re.search(r"^## \[([\d.]+)\]", (SOURCE / "CHANGELOG.md").read_text(), re.M)[1], version)
        self.assertRegex((SOURCE / "debian/changelog").read_text(), rf"^gantrel \({re.escape(version)}\) ")


if __name__ == "__main__":
    unittest.main()
