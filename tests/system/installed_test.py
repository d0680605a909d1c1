"""The installed program when something goes wrong: as a service on Windows (under Wine), in console mode on Linux.

installed_test.py CMAKE BUILD COMPANION [SYSTEM_TESTS PROGRAM]

BUILD is installed with CMAKE as a set-up program would do it, into a directory of the test's own. The crash is a real
one of the running program: on Linux its main thread is sent the signal, on Windows it is made to jump to the address 0.
What else can crash it, and what else can be in the report's way, is tests/core/crash's. PROGRAM is what was built, with
the symbols that an installed one may be without.
"""

import ctypes
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import LIMIT, ROOT, SILENT, Companion, Wine, await_true, in_own_network, text_of

CMAKE, BUILD = sys.argv[1:3]
COMPANION = pathlib.Path(sys.argv[3])
SYSTEM_TESTS, PROGRAM = (sys.argv[4:6] + [None] * 2)[:2]
IS_WINDOWS = SYSTEM_TESTS is not None
if not IS_WINDOWS:
    in_own_network()
del sys.argv[1:6]

SCRIPTS = ROOT / "scripts"
STOP_PORT = 34002
VERSION = "tag_ravelin_1_1_final_0_191120-144957"
CRASH_RESULT = 4294967169 if IS_WINDOWS else 129
DUMP = (".\\work\\dumps\\" if IS_WINDOWS else "./work/dumps/") + f"quorkeri_service-{VERSION}.dmp"
WRITTEN = f"Wrote minidump for 'quorkeri_service' to '{DUMP}', version '{VERSION}'"
FAILED = f"Failed to write minidump for 'quorkeri_service' to '{DUMP}', version '{VERSION}' ("

LIBC = ctypes.CDLL(None, use_errno=True)
SYS_TGKILL = 234  # of this machine's processor


class LinuxProgram:
    """Console mode: there is no service manager."""

    def __init__(self, root):
        self.root = root
        self.process = None

    def start(self):
        # From elsewhere, as a service manager would.
        self.process = subprocess.Popen([self.root / "bin" / "quorkeri_service", "service-console"], cwd="/",
                                        **SILENT)

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        return self.process.wait(LIMIT)

    def crash(self, number):
        """The result."""
        LIBC.syscall(SYS_TGKILL, self.process.pid, self.process.pid, number)
        return self.process.wait(LIMIT)

    def runs(self):
        return self.process.poll() is None

    def remove(self):
        if self.process and self.runs():
            self.process.kill()
            self.process.wait()


class WindowsService:
    """Under the service control manager."""

    def __init__(self, root):
        self.root = root
        # Wine takes running programs that are one file for one program, and mixes up their paths.
        self.helper = root.parent / "system_tests.exe"
        shutil.copy(SYSTEM_TESTS, self.helper)
        # An earlier test that was ended from outside may have left one.
        self.wine([self.helper, "--run-child", "remove-left-service"])
        self.wine([root / "bin" / "quorkeri_service.exe", "service-install"])
        (root / "work" / "logs" / "service.log").unlink()

    @staticmethod
    def wine(command):
        return Wine().run(*command)[1]

    def command(self, word):
        """The service manager's error."""
        return int(self.wine([self.helper, "--run-child", "service-command", word]))

    def start(self):
        error = self.command("start")
        assert error == 0, error

    def stop(self):
        return self.command("1")

    def crash(self, _):
        """The result of a main thread that jumps to where there is no code, once the wait for the service's end is over."""
        with open(self.root / "crash.txt", "w+", encoding="utf-8") as output:
            caller = Wine().start(self.helper, "--run-child", "crash-main-thread", stdout=output)
            said = lambda: (self.root / "crash.txt").read_text(encoding="utf-8").split()
            await_true("nothing was called", lambda: "called" in said() or caller.poll() is not None)
            self.stop()
            caller.wait(2 * LIMIT)
            return int(said()[1])

    def remove(self):
        self.wine([self.helper, "--run-child", "remove-left-service"])


class InstalledTest(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())) / "installation"
        subprocess.run([CMAKE, "--install", BUILD, "--prefix", self.root], check=True, stdout=subprocess.DEVNULL)
        self.companion = Companion(self.root / "bin")
        self.companion.put(COMPANION)
        self.program = (WindowsService if IS_WINDOWS else LinuxProgram)(self.root)
        self.addCleanup(self.end_companion)
        self.addCleanup(self.program.remove)

    # The companion, which outlives a service that crashes.

    def await_companion(self):
        await_true(lambda: "the companion is not ready; the log: " + self.log(), lambda: self.companion.records("ready"))

    def end_companion(self):
        """As the service's stop would; nobody minds a datagram too much."""
        if self.companion.records("started"):
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_port:
                any_port.sendto(b"x", ("127.0.0.1", STOP_PORT))
            await_true("the companion stays", lambda: self.companion.records("ending"))

    def log(self):
        return text_of(self.root / "work" / "logs" / "service.log")

    def await_log(self, text):
        await_true(lambda: f"no {text!r} in\n{self.log()}", lambda: text in self.log())

    def dump(self):
        return self.root / "work" / "dumps" / f"quorkeri_service-{VERSION}.dmp"

    def expect_history(self, count=1):
        line = r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d: quorkeri_service " + VERSION + r"\n"
        history = (self.root / "work" / "logs" / "dumps.log").read_text(encoding="utf-8")
        self.assertRegex(history.replace("\r", ""), rf"\A({line}){{{count}}}\Z")

    def backtrace(self):
        """What a debugger says of the dump; on Linux the dump says it itself."""
        if not IS_WINDOWS:
            return self.dump().read_text(encoding="utf-8")
        found = subprocess.run([SCRIPTS / "dump-backtrace", self.dump(), PROGRAM], capture_output=True, text=True,
                               check=False)
        self.assertEqual(found.returncode, 0, found.stdout + found.stderr)
        return found.stdout

    def expect_frames(self, *names):
        """In that order, innermost first."""
        text = self.backtrace()
        self.assertRegex(text.split("\n\n")[0], r"[\s\S]*".join(names))
        return text

    def start(self):
        self.program.start()
        self.await_companion()


class CrashTest(InstalledTest):
    def setUp(self):
        super().setUp()
        # No library: the service must neither load these in place of the system's nor fail to start.
        for name in ("dbghelp.dll", "dbgcore.dll"):
            (self.root / "bin" / name).write_text("not a library")

    def test_leaves_dump_lines_and_result(self):
        self.start()
        self.assertEqual(self.program.crash(signal.SIGSEGV), CRASH_RESULT)
        self.assertTrue(self.log().rstrip().endswith(WRITTEN), self.log())
        self.expect_history()
        if IS_WINDOWS:
            self.expect_frames(r"frame #0: 0x0+\n", r"NS_UTL::Service::runService\(", r"at utl_service\.cpp:\d+",
                               r"service::main\(", r"at main\.cpp:\d+", r"(CrashGuard::run|NS_CORE::guard)\(",
                               r"at core_crashguard_win32\.cpp:\d+", "WinMain")
        else:
            text = self.expect_frames(r"in NS_UTL::ProcessUtils::start\(\) at utl_processutils\.cpp:\d+",
                                      r"in service::Supervisor::run\(\) at ",
                                      r"in NS_UTL::Service::run\w*\(\) at ",
                                      r"in service::main\(\) at main\.cpp:\d+",
                                      r"CrashGuard::run\(\) at core_crashguard_linux\.cpp:\d+ \(quorkeri_service\)")
            self.assertTrue(text.startswith(f"quorkeri_service {VERSION}\nSIGSEGV (code "), text)

    def test_with_a_full_disk_says_so(self):
        dumps = str(self.root / "work" / "dumps").encode()
        if LIBC.mount(b"small", dumps, b"tmpfs", 0, b"size=4096") != 0:
            self.skipTest("no right to mount: " + os.strerror(ctypes.get_errno()))
        self.addCleanup(LIBC.umount, dumps)
        self.start()
        self.assertEqual(self.program.crash(signal.SIGSEGV), CRASH_RESULT)
        self.assertIn(FAILED + ("" if IS_WINDOWS else "No space left on device)"), self.log())
        self.assertNotIn(WRITTEN, self.log())
        self.expect_history()

    def test_with_a_log_that_cannot_be_written_leaves_dump_and_history(self):
        (self.root / "work" / "logs" / "service.log").mkdir()
        self.start()
        self.assertEqual(self.program.crash(signal.SIGABRT), CRASH_RESULT)
        self.assertGreater(self.dump().stat().st_size, 100)
        self.expect_history()


class SettingsTest(InstalledTest):
    """Files that nobody has checked: the service says what it does not understand, and runs."""

    FILES = ("testing.ini", "assert.exclude")

    def write(self, testing, exclude):
        for name, content in zip(self.FILES, (testing, exclude)):
            (self.root / "settings" / name).write_bytes(content)

    def expect_running(self, *messages):
        self.start()
        for message in messages:
            self.await_log(message)
        self.assertIn("Run - Running", self.log())
        self.assertEqual(self.program.stop(), 0)
        await_true("the service runs on", lambda: self.companion.records("ending"))

    def test_directories_in_their_place(self):
        for name in self.FILES:
            (self.root / "settings" / name).mkdir()
        # On Windows a directory does not open, and is as good as no file.
        self.expect_running(*([] if IS_WINDOWS else [
            f"CORE::readSettingsFile - failed reading 'settings/{name}': Is a directory" for name in self.FILES]))

    def test_a_hundred_megabytes_of_no_text_at_all(self):
        noise = b"[nonsense]\n" + random.Random(7).randbytes(300_000)
        self.write(noise, noise)
        for name in self.FILES:
            os.truncate(self.root / "settings" / name, 100 << 20)
        self.expect_running("NS_CORE::TestInterface::loadIni - unhandled section 'nonsense'")

    def test_files_that_were_cut_while_they_were_written(self):
        self.write(b"[general]\nsend_port 25001\n[assert]\nsend ena", b"core_x 1 2035-01-01\ncore_x 2 2035-")
        self.expect_running("Log at core_testinterface:679",
                            "'settings/assert.exclude': 1 entries ignored, their dates are not YYYY-MM-DD")


class ReportsTest(InstalledTest):
    """The service manager starts the process where no settings are. A control that the service does not know is a failed
    check, and so is a program that does not lie in "bin"."""

    CHECK = "utl_service_win32:180 (CHECKF) 130" if IS_WINDOWS else "utl_service:41 (CHECKF) bin"

    def start_collector(self):
        collector = self.enterContext(subprocess.Popen(
            [sys.executable, SCRIPTS / "collector", "--address", "127.0.0.1", "--port", "0", "--folder",
             self.root / "kept"], stdout=subprocess.PIPE, text=True, encoding="utf-8"))
        self.addCleanup(collector.kill)
        port = collector.stdout.readline().split("port ")[1].split(",")[0]
        (self.root / "settings" / "testing.ini").write_text(
            f"[general]\nsend_address 127.0.0.1\nsend_port {port}\n[assert]\nsend enable\nbacktrace enable\n")
        return collector

    def test_a_failed_check_reaches_the_collector(self):
        collector = self.start_collector()
        if IS_WINDOWS:
            self.start()
            self.assertEqual(self.program.command("130"), 0)
            self.assertEqual(self.program.stop(), 0)
        else:
            program = shutil.copy(self.root / "bin" / "quorkeri_service", self.root)
            subprocess.run([program, "service-install"], cwd=self.root, check=False, **SILENT)
        line = collector.stdout.readline()
        self.assertRegex(line, rf" ASSERT {re.escape(self.CHECK)} - 1 new, 1 in all, continue - quorkeri_service\S* tag_")
        self.assertIn(", with a backtrace [", line)
        (document,) = (self.root / "kept").iterdir()
        self.assertIn(b"  <product>ravelin</product>\n", document.read_bytes())
        self.assertRegex(document.read_text(encoding="utf-8"),
                         r"#01 in NS_CORE::TestInterface::trace\(\) .*\(quorkeri_service\S*\)\n[\s\S]*\n#\d\d in "
                         r"NS_UTL::Service::(controlHandler|Service)\(\) .*\(quorkeri_service\S*\)\n")

    @unittest.skipUnless(IS_WINDOWS, "the log that says so is not there yet")
    def test_an_excluded_check_does_not(self):
        collector = self.start_collector()
        (self.root / "settings" / "assert.exclude").write_text("utl_service_win32 180 2035-01-01\n")
        self.start()
        self.assertEqual(self.program.command("130"), 0)
        self.await_log("EXCLUDED_ASSERT failed at utl_service_win32:180 (CHECKF) (130)")
        self.assertEqual(self.program.stop(), 0)
        await_true("the service runs on", lambda: self.companion.records("ending"))
        collector.terminate()
        self.assertEqual(collector.stdout.read(), "")


if __name__ == "__main__":
    unittest.main(verbosity=2)
