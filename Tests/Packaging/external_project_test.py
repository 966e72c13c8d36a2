"""A project of somebody else's, the one of Documentation/quickstart.md and README.md, against an installed copy."""

import concurrent.futures
import itertools
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from staged import SOURCE, STAGE, eventually, run, socket_path

PREFIX = STAGE / "usr"
PYTHON = PREFIX / "lib/python3/dist-packages"
ENVIRONMENT = {**os.environ, "PYTHONPATH": str(PYTHON), "MYPYPATH": str(PYTHON), "PKG_CONFIG_PATH": str(next(PREFIX.glob("lib/**/gantrel.pc")).parent)}


def flags(what):
    return run("pkg-config", what, "gantrel", env=ENVIRONMENT).split()


class ExternalProject(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        page = "".join((SOURCE / name).read_text() for name in ("Documentation/quickstart.md", "README.md"))
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = Path(folder.name)
        # A block of code that begins with a file's name as a comment is that file.
        for name, code in re.findall(r"^```\w+\n((?:// |# )[\w.]+\n)(.*?)^```", page, re.M | re.S):
            (cls.folder / name.split()[1]).write_text(code)
        consoles = [re.search(rf"^```console\n([^`]*build/{name}.*?)^```", page, re.M | re.S)[1]
                    for name in ("ask", "later")]
        cls.told = [re.findall(r"^[^$].*", console, re.M) for console in consoles]

    def assert_that_they_find_each_other(self, offer, ask, *others):
        runtime_directory = self.enterContext(tempfile.TemporaryDirectory())
        environment = {**ENVIRONMENT, "XDG_RUNTIME_DIR": runtime_directory}

        def start(*command):
            process = self.enterContext(subprocess.Popen(command, env=environment, text=True,
                                                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL))
            self.addCleanup(process.kill)
            return process

        start(PREFIX / "lib/gantrel/GantrelAgent.app/Contents/Linux/GantrelAgent")
        eventually(lambda: os.path.exists(socket_path(runtime_directory)))
        registered = start(*offer).stdout.readline()
        told = registered + "".join(run(*command, env=environment) for command in (ask, *others))
        self.assertEqual(told.splitlines(), sum(self.told[:1 + len(others)], []))

    def test_builds_with_find_package(self):
        build = self.folder / "build"
        run("cmake", "-G", "Ninja", "-S", self.folder, "-B", build, f"-DCMAKE_PREFIX_PATH={PREFIX}")
        run("cmake", "--build", build)
        self.assert_that_they_find_each_other([build / "offer"], [build / "ask"], [build / "later"])

    def test_builds_with_pkg_config_and_speaks_with_python(self):
        for name in "offer", "ask", "hello":
            run("g++", "-std=c++20", f"{name}.cpp", "-o", name, *flags("--cflags"), *flags("--libs"),
                cwd=self.folder)
        commands = [[[self.folder / name], [sys.executable, self.folder / f"{name}.py"]] for name in ("offer", "ask")]
        for offer, ask in [*itertools.product(*commands), ([self.folder / "hello", "offer"], [self.folder / "hello"])]:
            self.assert_that_they_find_each_other(offer, ask)
        run("g++", "-std=c++20", "-fsyntax-only", "-include", "Meeting.h", "-x", "c++", os.devnull, *flags("--cflags"), cwd=self.folder)

    def test_has_types_in_python_that_a_strict_checker_accepts(self):
        for checked in [PYTHON / "gantrel"], [self.folder / "offer.py", self.folder / "ask.py"]:
            run("mypy", "--strict", f"--cache-dir={os.devnull}", *checked, env=ENVIRONMENT)

    def test_is_told_which_types_an_interface_may_use(self):
        arguments = "const char*", "std::vector<float>", "std::optional<Platform::Value>"
        answers = "std::optional<std::optional<int> >", "std::map<int, bool>"
        source = f"""
            #include "Platform/XPC/NSXPCConnection.h"
            struct Structure {{
              char field;
              static consteval auto fields() {{ return Platform::Fields(Platform::field<&Structure::field>("field")); }}
            }};
            void read(Platform::Decoder& decoder, Structure& structure) {{ decode(decoder, structure); }}
            struct Wrong {{
              virtual void wrong({", ".join(arguments)}, const Platform::Text&,
                                 Platform::Reply<Platform::Value, {", ".join(answers)}>) = 0;
              static consteval auto protocol() {{
                return Platform::Protocol("Wrong", Platform::method<&Wrong::wrong>("a:b:c:d:e:"));
              }}
            }};
            constexpr auto name = Wrong::protocol().name;"""
        done = subprocess.run(["g++", "-std=c++20", "-fsyntax-only", *flags("--cflags"), "-x", "c++", "-"],
                              input=source, text=True, stderr=subprocess.PIPE)
        told = re.findall(r"RequireWireType<(.*?) ?>.?:$", done.stderr, re.M)
        errors = re.findall(r"error: static assertion failed: .*a Text .*Documentation/quickstart\.md", done.stderr)
        self.assertEqual(sorted(told), sorted([*arguments, *answers, "char"]))
        self.assertEqual(len(errors), len(told))

    def test_can_include_each_header_alone_and_sees_no_system_header(self):
        headers = sorted((PREFIX / "include/gantrel").rglob("*.h"))
        self.assertGreater(len(headers), 20)
        compiler = ["g++", "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                    *flags("--cflags"), "-x", "c++", "-include"]
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            list(pool.map(lambda header: run(*compiler, header, os.devnull), headers))
        for header in headers:
            self.assertNotRegex(header.read_text(), "#include <.*[./].*>")

    def test_is_given_the_version_that_both_histories_tell_of(self):
        """The version's one home is CMakeLists.txt; the histories that name it must not fall behind."""
        version = run("pkg-config", "--modversion", "gantrel", env=ENVIRONMENT).strip()
        self.assertEqual(re.search(r"^## \[([\d.]+)\]", (SOURCE / "CHANGELOG.md").read_text(), re.M)[1], version)
        self.assertRegex((SOURCE / "debian/changelog").read_text(), rf"^gantrel \({re.escape(version)}\) ")


if __name__ == "__main__":
    unittest.main()
