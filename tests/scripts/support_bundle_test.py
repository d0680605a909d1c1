"""The support bundle, from an installation to what is in it.

support_bundle_test.py SERVICE SCRIPT [WINE_RUN COMPANION]

The Windows command runs under Wine's command interpreter, which lacks the Windows archiver and answers some of the
questions with an error; both are told and neither stops the command.
"""

import hashlib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import SERVICE as NAME
from quorkeri_wine import Companion, Wine

SERVICE, SCRIPT = map(pathlib.Path, sys.argv[1:3])
HEALTH = SERVICE.parents[1] / "health" / SERVICE.name.replace("service", "health")
WINE = sys.argv[3:4]
COMPANION = sys.argv[4:5]
del sys.argv[1:]


class SupportBundleTest(unittest.TestCase):
    def setUp(self):
        self.elsewhere = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        # Whatever a prompt makes of blanks, signs and letters.
        self.root = self.elsewhere / "Kéri Ж & (Söhne) 100"
        self.files = {
            "work/logs/service.log": b"2026-01-02 02 03:04:05 Run - Running\n",
            "work/logs/service.log.old": b"the one before\n",
            "work/logs/dumps.log": b"history\n",
            "work/dumps/quorkeri_service-tag_x.dmp": bytes(range(256)) * 100,
            "settings/testing.ini": b"[general]\n",
            "settings/assert.exclude": b"",
        }
        self.others = {
            "settings/testing.ini.sample": b"a sample",
            "work/logs/other.log": b"somebody else's",
            "work/tmp/support-1": b"a file that has the name already",
            "assets/secret.txt": b"no business of ours",
        }
        for name, content in (self.files | self.others).items():
            (self.root / name).parent.mkdir(parents=True, exist_ok=True)
            (self.root / name).write_bytes(content)
        (self.root / "bin").mkdir()
        self.script = self.root / "bin" / SCRIPT.name
        shutil.copy(SCRIPT, self.script)
        for program in (SERVICE, HEALTH):
            shutil.copy(program, self.root / "bin" / program.name)

    def run_it(self, where=None, script=None, code=0):
        """What it says; it has to end with this code."""
        script = script or self.script
        command = [script]
        # With a path that has these signs the interpreter needs "call", and Wine's then makes 1 of every failure.
        if WINE:
            command = WINE + (["cmd", "/c", script.name] if where == script.parent else
                              ["cmd", "/c", "call", Wine.path(script)])
        done = subprocess.run(command, cwd=where or self.elsewhere, timeout=600, check=False, stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.assertEqual(done.returncode, code, done.stdout)
        return done.stdout

    def bundled(self, number):
        folder = self.root / "work/tmp" / f"support-{number}"
        return {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*") if path.is_file()}

    def snapshot(self):
        return {path: path.read_bytes() for path in self.root.rglob("*") if path.is_file()}

    def assert_gathered(self, number):
        bundled = self.bundled(number)
        system = bundled.pop("system.txt")
        self.assertEqual(bundled, {name.removeprefix("work/"): content for name, content in self.files.items()})
        return system.decode("utf-8", "replace")

    def assert_refused(self, sentence):
        before = self.snapshot()
        self.assertRegex(self.run_it(code=1), sentence)
        self.assertEqual(self.snapshot(), before)

    def test_it_gathers_what_is_asked_for_and_nothing_else(self):
        before = self.snapshot()
        said = self.run_it()
        system = self.assert_gathered(2)
        self.assertIn(str(SERVICE.stat().st_size), system.replace(",", ""))
        self.assertIn("== Hash of the service", system)
        self.assertIn('"findings": [', system)
        self.assertIn(b"Dumps hold memory", said)
        self.assertIn("service.log.old", system)
        # Nothing that was there is gone or changed.
        after = self.snapshot()
        self.assertEqual({path: after.get(path) for path in before}, before)

    def test_it_says_where_the_bundle_is(self):
        said = self.run_it().decode("utf-8", "replace")
        place = "work\\tmp\\support-2" if WINE else "work/tmp/support-2.tar.gz"
        self.assertRegex(said, r"\AThe support bundle is [^\n]*" + place.replace("\\", "\\\\").replace(".", r"\."))
        if not WINE:
            with tarfile.open(self.root / "work/tmp/support-2.tar.gz") as archive:
                names = {member.name for member in archive if member.isfile()}
            self.assertEqual(names, {"support-2/" + name for name in self.bundled(2)})
            self.assert_gathered(2)

    def test_each_run_makes_a_new_one(self):
        for number in (2, 3):
            self.run_it(self.root / "bin")
            self.assert_gathered(number)
        self.assertEqual((self.root / "work/tmp/support-1").read_bytes(), b"a file that has the name already")

    def test_it_does_with_an_empty_installation(self):
        for name in self.files | self.others:
            (self.root / name).unlink()
        (self.root / "work/tmp").rmdir()
        self.run_it()
        self.assertEqual(list(self.bundled(1)), ["system.txt"])

    def test_without_logs_it_says_so(self):
        shutil.rmtree(self.root / "work/logs")
        self.assert_refused(rb'\AThere is no directory "[^\n]*logs"\.\r?\nThis command works in')

    def test_where_nothing_can_be_written_it_says_so(self):
        shutil.rmtree(self.root / "work/tmp")
        (self.root / "work/tmp").write_text("not a directory")
        self.assert_refused(rb'\A"[^\n]*tmp" cannot be written: nothing was collected\.')


class NativeTest(SupportBundleTest):
    def test_a_file_that_cannot_be_read_is_told_and_the_rest_is_there(self):
        # Root may read everything but what is no file at all.
        log = self.root / "work/logs/service.log"
        log.unlink()
        log.symlink_to("/proc/self/mem")
        self.addCleanup((self.root / "work/tmp/support-2/logs/service.log").unlink, missing_ok=True)
        said = self.run_it(code=2)
        self.assertIn(b"Could not be copied: ", said)
        self.assertIn(b"Not everything could be copied. The rest is there.", said)
        self.assertEqual(self.bundled(2)["logs/dumps.log"], b"history\n")

    def test_the_hash_is_the_services(self):
        self.run_it()
        self.assertIn(hashlib.sha256(SERVICE.read_bytes()).hexdigest(), self.assert_gathered(2))

    def test_a_running_service_is_listed(self):
        # A program of that name, where the service would be.
        program = self.root / "bin/quorkeri_service"
        shutil.copy("/bin/sleep", program)
        process = self.enterContext(subprocess.Popen([program, "60"]))
        self.addCleanup(process.kill)
        self.run_it()
        # Its path has blanks, so that it is not known by its name; the plain case is.
        plain = self.elsewhere / "plain" / "bin"
        shutil.copytree(self.root / "bin", plain)
        (plain.parent / "work/logs").mkdir(parents=True)
        other = self.enterContext(subprocess.Popen([plain / "quorkeri_service", "60"]))
        self.addCleanup(other.kill)
        self.run_it(script=plain / SCRIPT.name)
        self.assertRegex((plain.parent / "work/tmp/support-1/system.txt").read_text(), rf"\n *{other.pid} ")


class WindowsTest(SupportBundleTest):
    def test_the_command_is_plain_ascii_with_windows_line_ends(self):
        content = SCRIPT.read_bytes()
        self.assertTrue(content.isascii())
        self.assertEqual(content.count(b"\n"), content.count(b"\r\n"))
        self.assertTrue(content.endswith(b"\r\n"))

    def test_a_file_that_is_held_open_is_told_and_the_rest_is_there(self):
        place = Companion(self.elsewhere / "companion")
        log = os.path.relpath(self.root / "work/logs/service.log", place.directory).replace("/", "\\")
        place.put(COMPANION[0], f"hold {log}\nmute\n")
        holder = self.enterContext(Wine().start(place.directory / "quorkeri_wrapper.exe"))
        self.addCleanup(holder.kill)
        place.await_event()
        said = self.run_it(self.root / "bin", code=2)
        self.assertRegex(said, rb'\ACould not be copied: "[^\n]*service.log"\r\n')
        self.assertIn(b"Not everything could be copied. The rest is there.", said)
        self.files.pop("work/logs/service.log")
        self.assert_gathered(2)

    def test_the_registration_is_told(self):
        # By hand, because other tests register the service from their own place.
        self.addCleanup(Wine().run, "sc", "delete", NAME)
        self.assertEqual(Wine().run("sc", "create", NAME, "binPath=", Wine.path(self.root / "bin" / NAME))[0], 0)
        self.run_it()
        system = self.assert_gathered(2)
        self.assertRegex(system, r"ImagePath\s+REG_\w+\s+Z:\\")
        self.assertIn("STATE              : 1  STOPPED", system)

    def test_the_questions_are_asked(self):
        self.run_it()
        system = self.assert_gathered(2)
        questions = re.sub(r'"C:\\windows\\System32\\(?:[^"\n]*\\)?(\w+)\.exe"', r"\1", system, flags=re.IGNORECASE)
        for question in ("ver", f'sc qc "{NAME}"', f'sc queryex "{NAME}"', f'sc qfailure "{NAME}"',
                         f'tasklist /v /fi "imagename eq {NAME}"',
                         'tasklist /v /fi "imagename eq quorkeri_wrapper.exe"', "certutil -hashfile ", "powershell ",
                         "icacls ", "netstat -ano -p UDP", "wevtutil qe System ", "reg query "):
            self.assertIn(": " + question, questions)

    def test_programs_of_the_current_directory_are_not_asked(self):
        for name in ("sc", "reg", "certutil", "tasklist", "powershell", "tar"):
            (self.root / "bin" / f"{name}.cmd").write_bytes(b"@echo planted\r\n")
        self.run_it(self.root / "bin")
        self.assertNotRegex(self.assert_gathered(2), r"(?m)^planted")


if __name__ == "__main__":
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(WindowsTest if WINE else NativeTest)
    sys.exit(not unittest.TextTestRunner().run(suite).wasSuccessful())
