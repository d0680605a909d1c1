"""The exe is a function of the sources and of the build's settings, and tells those of them that name the build.

build_test.py SOURCE BINARY LIBRARIES BUILD_TYPE RELEASE_TAG BUILD_ID BUILD_DATE BUILD_TIME

BINARY is what has been built of SOURCE with these settings. The product is built again in another directory, without a
compile cache and in another environment.
"""

import calendar
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

import pefile

SOURCE, BINARY = map(pathlib.Path, sys.argv[1:3])
LIBRARIES, BUILD_TYPE, *STAMP = sys.argv[3:]
del sys.argv[1:]

SETTINGS = ("QUORKERI_RELEASE_TAG", "QUORKERI_BUILD_ID", "QUORKERI_BUILD_DATE", "QUORKERI_BUILD_TIME")
OTHER_STAMP = ("release_build_test_2", "310203-040506", "Feb  3 2031", "07:08:09")
ENVIRONMENT = {"PATH": os.environ["PATH"], "HOME": "/nonexistent", "TZ": "Pacific/Auckland", "LC_ALL": "C",
               "CCACHE_DISABLE": "1"}
PROGRAM = pathlib.Path("service/quorkeri_service.exe")
SYMBOLS = pathlib.Path("service/quorkeri_service.pdb")


def run(*command):
    result = subprocess.run(command, env=ENVIRONMENT, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                            errors="replace", check=False)
    if result.returncode != 0:
        raise AssertionError(f"{command} failed:\n{result.stdout[-8000:]}")
    return result.stdout


def configure(tree, stamp):
    run("cmake", "-S", tree, "-B", tree / "build/windows-x86", "--preset", "windows-x86",
        f"-DCMAKE_PREFIX_PATH={LIBRARIES}", f"-DCMAKE_BUILD_TYPE={BUILD_TYPE}",
        *(f"-D{name}={value}" for name, value in zip(SETTINGS, stamp)))


def build(tree):
    return run("cmake", "--build", tree / "build/windows-x86", "--target", "quorkeri_service")


def header_time(program):
    with pefile.PE(program, fast_load=True) as image:
        return image.FILE_HEADER.TimeDateStamp


def symbols_of(tree, binary):
    """The symbols as they are handed out: the linker has no way to leave out its clock and its inputs' places."""
    with tempfile.TemporaryDirectory() as directory:
        settled = pathlib.Path(directory) / SYMBOLS.name
        run(SOURCE / "scripts/lib/package-pdb", binary / SYMBOLS, binary / PROGRAM, settled,
            f"{pathlib.Path(LIBRARIES).resolve().parent}/=build/deps/", f"{tree}/=", f"{tree}=.")
        return settled.read_bytes()


def first_difference(one, other):
    for at, (left, right) in enumerate(zip(one, other)):
        if left != right:
            return f"differ from byte {at} on: {one[at - 32:at + 64]!r} and {other[at - 32:at + 64]!r}"
    return None if len(one) == len(other) else f"{len(one)} and {len(other)} bytes"


def report_of(program):
    """What the program says of itself to a collector."""
    with tempfile.TemporaryDirectory() as directory, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as collector:
        collector.bind(("127.0.0.1", 0))
        collector.settimeout(120)
        root = pathlib.Path(directory)
        for name in ("settings", "work/logs", "elsewhere"):
            (root / name).mkdir(parents=True)
        (root / "settings/testing.ini").write_text(
            f"[general]\nsend_address 127.0.0.1\nsend_port {collector.getsockname()[1]}\n[assert]\nsend enable\n")
        shutil.copy(program, root / "elsewhere")
        # It does not lie in "bin", which is a failed check; and there is nothing to remove.
        subprocess.run([SOURCE / "scripts/lib/wine-run", root / "elsewhere" / program.name, "service-remove"], cwd=root,
                       timeout=600, check=False)
        return collector.recv(65536).decode()


class BuildTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.tree = directory / "another-place" / "with-a-longer-name-than-the-first"
        shutil.copytree(SOURCE, cls.tree, symlinks=True,
                        ignore=lambda where, names: {"build", ".git"} & set(names) if where == str(SOURCE) else ())
        cls.binary = cls.tree / "build/windows-x86"
        configure(cls.tree, STAMP)
        build(cls.tree)
        cls.program = (cls.binary / PROGRAM).read_bytes()
        cls.symbols = symbols_of(cls.tree, cls.binary)

    def test_another_directory_gives_the_same_program(self):
        self.assertIsNone(first_difference((BINARY / PROGRAM).read_bytes(), self.program))

    def test_another_directory_gives_the_same_set_up_library(self):
        library = "packaging/setup/quorkeri_setup.dll"
        run("cmake", "--build", self.binary, "--target", "quorkeri_setup")
        self.assertIsNone(first_difference((BINARY / library).read_bytes(), (self.binary / library).read_bytes()))

    def test_another_directory_gives_the_same_symbols(self):
        self.assertIsNone(first_difference(symbols_of(SOURCE, BINARY), self.symbols))

    def test_its_shipped_programs_are_all_that_an_installation_needs(self):
        run("cmake", "--build", self.binary, "--target", "shipped_programs")
        with tempfile.TemporaryDirectory() as directory:
            run("cmake", "--install", self.binary, "--prefix", directory)

    def test_nothing_tells_where_it_was_built(self):
        for place in (SOURCE, SOURCE.resolve(), pathlib.Path(LIBRARIES).resolve().parents[2], self.tree):
            self.assertNotIn(str(place).encode() + b"/", self.program)
            self.assertNotIn(str(place).encode() + b"/", self.symbols)

    def test_the_header_has_the_time_of_the_build_id(self):
        moment = calendar.timegm(time.strptime(STAMP[1], "%y%m%d-%H%M%S"))
        self.assertEqual(header_time(BINARY / PROGRAM), moment)

    def test_other_settings_are_what_the_program_tells(self):
        with tempfile.TemporaryDirectory() as kept:
            first = pathlib.Path(kept) / PROGRAM.name
            first.write_bytes(self.program)
            before = report_of(first)
        self.addCleanup(build, self.tree)
        self.addCleanup(configure, self.tree, STAMP)
        configure(self.tree, OTHER_STAMP)
        steps = build(self.tree)
        # One source knows them; the version that Windows shows is the only other place.
        self.assertEqual(sorted(re.findall(r"Building \w+ object \S*/([\w.]+)\.(?:obj|res)", steps)),
                         ["core_rcsname.cpp", "service_resources.rc"], steps)
        after = report_of(self.binary / PROGRAM)
        # What a report tells of these, and of nothing else but its own time.
        same = re.compile("<(utc|swver|build_id|build_time)>.*?</")
        self.assertEqual(same.sub("", before), same.sub("", after))
        self.assertIn(f"<swver>{STAMP[0].removeprefix('release_')}</swver>", before)
        self.assertIn(f"<build_id>{STAMP[1]}</build_id>", before)
        self.assertIn(f"<build_time>{STAMP[2]} {STAMP[3]}</build_time>", before)
        self.assertIn("<swver>build_test_2</swver>", after)
        self.assertIn("<build_id>310203-040506</build_id>", after)
        self.assertIn("<build_time>Feb  3 2031 07:08:09</build_time>", after)
        self.assertEqual(header_time(self.binary / PROGRAM), calendar.timegm((2031, 2, 3, 4, 5, 6)))


if __name__ == "__main__":
    unittest.main()
