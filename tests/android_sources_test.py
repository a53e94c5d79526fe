#!/usr/bin/env python3
"""scripts/android-sources.py names every file on which the device builds' lists and the host
library disagree, and the build file that is wrong; host-only files are no disagreement."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCRIPT = os.path.join(SOURCE, "scripts", "android-sources.py")
BP = "Android.bp"
NDK = "android/CMakeLists.txt"


def add_file(path):
    def change(root):
        os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
        with open(os.path.join(root, path), "w") as f:
            f.write("int corvaneUnused() { return 0; }\n")
    return change


def remove_file(path):
    return lambda root: os.remove(os.path.join(root, path))


def replace_in(build_file, old, new):
    def change(root):
        path = os.path.join(root, build_file)
        with open(path) as f:
            text = f.read()
        assert old in text, f"{old} not in {build_file}"
        with open(path, "w") as f:
            f.write(text.replace(old, new, 1))
    return change


CASES = [
    ("unchanged", [], []),
    ("a new library file",
     [add_file("core/model/extra.cpp")],
     [f"{BP}: missing core/model/extra.cpp", f"{NDK}: missing core/model/extra.cpp"]),
    ("a new host seam file", [add_file("platform/host/extra.cpp")], []),
    ("a file removed but still listed",
     [remove_file("core/server/server.cpp")],
     [f"{BP}: lists core/server/server.cpp, which does not exist",
      f"{NDK}: lists core/server/server.cpp, which does not exist"]),
    ("a host-only file listed for the device",
     [replace_in(NDK, "platform/android/devicepath.cpp",
                 "platform/android/devicepath.cpp platform/host/properties.cpp")],
     [f"{NDK}: lists platform/host/properties.cpp, which is host-only"]),
    ("a device seam file no build compiles",
     [add_file("platform/android/extra.cpp")],
     ["platform/android/extra.cpp: compiled by neither"]),
    ("a glob in place of the list",
     [replace_in(BP, '"utils/stringutils.cpp"', '"utils/*.cpp"')],
     [f"{BP}: lists a glob (utils/*.cpp)", f"{BP}: missing utils/stringutils.cpp"]),
]


class AndroidSourcesTest(unittest.TestCase):
    def test_reports_each_disagreement_with_its_build_file(self):
        for name, changes, expected in CASES:
            with self.subTest(name), tempfile.TemporaryDirectory() as temp:
                root = os.path.join(temp, "tree")
                shutil.copytree(SOURCE, root, ignore=shutil.ignore_patterns(
                    ".git", "build*", "sysroot*"))
                for change in changes:
                    change(root)
                result = subprocess.run([sys.executable, SCRIPT, "--root", root],
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True)
                problems = [line for line in result.stdout.splitlines()
                            if not line.endswith("between the host library and the device builds")]
                self.assertEqual(result.returncode, 1 if expected else 0, result.stdout)
                if expected:
                    self.assertEqual(len(problems), len(expected), result.stdout)
                    for line, start in zip(sorted(problems), sorted(expected)):
                        self.assertTrue(line.startswith(start), f"{line!r} vs {start!r}")


if __name__ == "__main__":
    unittest.main()
