"""selftest_test.py BUILD prepare|TEST...: makes the bundle that travels to a real Windows, or tests it, unpacked far from the
build tree into a Wine prefix and a network of its own: it runs whole, refuses what it must not touch, and cleans up after an
interrupted run."""
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree
import zipfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import COMPANION, ROOT, SERVICE, Wine, await_true, in_own_network, text_of

BUILD = pathlib.Path(sys.argv[1]).resolve()


def cached(name):
    return re.search(rf"^{name}:\w+=(.*)", text_of(BUILD / "CMakeCache.txt"), re.MULTILINE)[1]


WHOLE_RUN = 2500  # seconds
VERSION = cached("CMAKE_PROJECT_VERSION")
KERI = r"HKLM\SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}"
WER = r"HKLM\SOFTWARE\Microsoft\Windows\Windows Error Reporting\LocalDumps\quorkeri_service.exe"
SET_UP = r"HKLM\SOFTWARE\Quorvane"
PRODUCT = r"HKLM\SOFTWARE\Microsoft\Windows\CurrentVersion\Uninstall\{00000000-0000-0000-0000-000000000001}"
VIEW = {KERI: ["/reg:64"], WER: ["/reg:64"], PRODUCT: ["/reg:32"], SET_UP: ["/reg:32"]}
PROGRAMS = sorted(BUILD.glob("tests/*_tests.exe"))
ARCHIVE = BUILD / "tests/selftest.zip"


def prepare():
    ARCHIVE.unlink(missing_ok=True)
    with tempfile.TemporaryDirectory(prefix="selftest-") as directory:
        stage = pathlib.Path(directory)
        subprocess.run(["cmake", "--install", BUILD, "--prefix", stage], check=True, stdout=subprocess.DEVNULL)
        subprocess.run([ROOT / "scripts/lib/strip-program", cached("CMAKE_STRIP"), *stage.glob("bin/*.exe")], check=True)
        subprocess.run([ROOT / "scripts/lib/package-selftest", BUILD, stage, stage / "bin",
                        BUILD / "packaging/setup/quorkeri_setup.dll", VERSION, ARCHIVE], check=True,
                       env=os.environ | {"SOURCE_DATE_EPOCH": "1574261397"})


def tests_in(output):
    return sum(line.startswith("  ") and "DISABLED_" not in line for line in output.splitlines())


class SelfTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory(prefix="selftest-")))
        cls.bundle = cls.directory / "bundle"
        with zipfile.ZipFile(ARCHIVE) as files:
            files.extractall(cls.bundle)
        cls.wine = cls.enterClassContext(Wine(cls.directory / "prefix").held())
        cls.drive = cls.wine.prefix / "drive_c"

    def selftest(self, *words, limit=300):
        return self.wine.prompt(f"call {Wine.path(self.bundle / 'selftest.cmd')} " + " ".join(words), limit=limit)

    def assert_refused(self, sentence):
        code, text = self.selftest("/y")
        self.assertEqual(1, code, text)
        self.assertIn(sentence, text)
        self.assert_not_begun()

    def assert_not_begun(self):
        self.assertEqual([], [name for name in ("work", "selftest-made.txt") if (self.bundle / name).exists()])
        self.assertNotEqual(0, self.wine.run("sc", "query", SERVICE)[0])

    def assert_untouched(self):
        self.assert_not_begun()
        self.assertEqual([], [path.name for path in self.drive.glob("Quorkeri*")])
        self.assertEqual([], [key for key in VIEW if self.has_key(key)])
        self.assertEqual({}, self.wine.programs(COMPANION, SERVICE, "msiexec.exe"))

    def test_refuses_what_it_must_not_touch(self):
        missing = self.bundle / "tests/files/keri.reg"
        kept = missing.read_bytes()
        missing.unlink()
        self.assert_refused("'tests/files/keri.reg' is missing or damaged")
        missing.write_bytes(kept)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as user:
            user.bind(("127.0.0.1", 34002))
            self.assert_refused("UDP port 34002")
        for key, sentence in ((KERI, "The Keri software is installed here"),
                              (WER, "Windows Error Reporting has settings for 'quorkeri_service.exe' here"),
                              (PRODUCT, "The product is installed here")):
            self.wine.run("reg", "add", key, "/v", "DisplayName", "/d", "Quorvane Keri Wrapper", "/f", *VIEW[key])
            self.assert_refused(sentence)
            self.wine.run("reg", "delete", key if key != WER else WER.rpartition("\\")[0], "/f", *VIEW[key])
        for name in ("QuorkeriSelftest", "QuorkeriService"):
            (self.drive / name).mkdir()
            self.assert_refused(f"The directory 'C:\\{name}' is there")
            (self.drive / name).rmdir()
        self.wine.run("sc", "create", SERVICE, "binPath=", r"C:\other.exe")
        code, text = self.selftest("/y")
        self.assertEqual((1, True), (code, "is installed here" in text), text)
        self.wine.run("sc", "delete", SERVICE)
        self.assertEqual((1, 0), (self.selftest("/n")[0], self.selftest("/clean")[0]))
        self.assert_untouched()

    def test_a_choice_without_tests_fails(self):
        code, text = self.selftest("/y", "/only", "NoSuchTest")
        self.assertEqual((1, True), (code, "\n1 passed, 1 failed, 0 skipped\n" in text), text)
        self.assert_untouched()

    def kill_run(self, only, what, is_there):
        """Ends the self-test in the middle of this test, when it has made what is waited for."""
        runner = self.wine.start(Wine.path(self.bundle / "selftest.exe"), "/y", "/only", only)
        await_true(what, is_there, limit=300)
        for process in sum(self.wine.programs("selftest.exe").values(), []):
            os.kill(process, signal.SIGKILL)
        runner.wait()
        code, text = self.selftest("/y")
        self.assertEqual((1, True), (code, "selftest.cmd /clean" in text), text)

    def has_key(self, key):
        return self.wine.run("reg", "query", key, *VIEW[key])[0] == 0

    def test_cleans_up_what_a_killed_run_left(self):
        self.kill_run("Supervision.StopsTwoHundredTimes", "a companion runs", lambda: self.wine.programs(COMPANION))
        self.assertEqual((0, ""), self.selftest("/clean"))
        self.assert_untouched()

    def test_cleans_up_an_installation_that_a_killed_run_left(self):
        """The product, its directory and its settings of error reporting."""
        self.kill_run("Installing.SetsTheServiceUpForAnAdministrator", "error reporting is set", lambda: self.has_key(WER))
        # An installation that has begun goes on.
        await_true("the installer ends", lambda: not self.wine.programs("msiexec.exe"), limit=300)
        self.assertTrue((self.drive / "QuorkeriSelftest").exists())
        self.assertEqual((0, ""), self.selftest("/clean"))
        self.assertNotEqual(0, self.wine.run("reg", "query", WER.rpartition("\\")[0], "/reg:64")[0])
        self.assert_untouched()

    def test_runs_whole(self):
        kept = self.enterContext((BUILD / "tests/selftest-report.xml").open("wb"))  # for whoever counts the tests
        expected = sum(tests_in(self.wine.run(str(program), "--gtest_list_tests")[1]) for program in PROGRAMS)
        # Elsewhere there is no build tree: a test that takes a file from there has to fail here, too.
        subprocess.run(["mount", "-t", "tmpfs", "none", BUILD], check=True)
        code, text = self.selftest("/y", limit=WHOLE_RUN)
        with (self.bundle / "selftest-report.xml").open("rb") as report:
            shutil.copyfileobj(report, kept)
        results = xml.etree.ElementTree.parse(self.bundle / "selftest-report.xml").getroot()
        skipped = [(case.get("name"), case.find("skipped").get("message")) for case in results.iter("testcase") if case.find("skipped") is not None]
        self.assertEqual(0, code, text_of(self.bundle / "selftest-report.txt"))
        self.assertEqual(expected + 1, len(results), "each test of the tree, and that the machine is as it was")
        self.assertEqual(f"{expected + 1 - len(skipped)} passed, 0 failed, {len(skipped)} skipped", text.splitlines()[-1])
        self.assertEqual([], [name for name, reason in skipped if reason == "no reason given"])
        report = text_of(self.bundle / "selftest-report.txt")
        self.assertEqual([], [name for name, reason in skipped if f" {name}: " not in report])
        self.assert_untouched()


if __name__ == "__main__":
    if sys.argv[2:] == ["prepare"]:
        sys.exit(prepare())
    in_own_network()
    del sys.argv[1]
    unittest.main(verbosity=2)
