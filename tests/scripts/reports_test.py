"""The program's reports, from its settings to the collector's folder.

reports_test.py PROGRAM COLLECTOR
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

COLLECTOR = sys.argv.pop(2)
PROGRAM = sys.argv.pop(1)


class ReportsTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        for name in ("bin", "elsewhere", "settings", "work/logs"):
            (self.root / name).mkdir(parents=True)

    def run_program(self, where, working_directory):
        """A start that ends by itself: there is no service manager here."""
        program = self.root / where / "quorkeri_service"
        shutil.copy(PROGRAM, program)
        subprocess.run([program, "service-install"], cwd=working_directory, timeout=600, check=False,
                       stdout=subprocess.DEVNULL)

    def start_collector(self):
        process = subprocess.Popen(
            [sys.executable, COLLECTOR, "--address", "127.0.0.1", "--port", "0", "--folder", str(self.root / "kept")],
            stdout=subprocess.PIPE, text=True, encoding="utf-8")
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        port = int(process.stdout.readline().split("port ")[1].split(",")[0])
        (self.root / "settings" / "testing.ini").write_text(
            f"[general]\nsend_address 127.0.0.1\nsend_port {port}\n[assert]\nsend enable\nbacktrace enable\n")
        return process

    def test_a_failed_check_reaches_the_collector(self):
        collector = self.start_collector()
        # The program does not lie in "bin", which is a failed check.
        self.run_program("elsewhere", self.root)
        line = collector.stdout.readline()
        self.assertIn(" ASSERT utl_service:41 (CHECKF) bin - 1 new, 1 in all, continue - quorkeri_service tag_", line)
        self.assertIn(", with a backtrace [", line)
        (document,) = (self.root / "kept").iterdir()
        self.assertIn(b"  <product>ravelin</product>\n", document.read_bytes())
        self.assertIn(b"NS_UTL::Service::Service", document.read_bytes())

    def test_an_excluded_check_does_not(self):
        collector = self.start_collector()
        (self.root / "settings" / "assert.exclude").write_text("utl_service 41 2035-01-01\n")
        self.run_program("elsewhere", self.root)
        (self.root / "settings" / "assert.exclude").unlink()
        self.run_program("elsewhere", self.root)
        self.assertIn(" ASSERT utl_service:41 ", collector.stdout.readline())
        self.assertEqual(len(list((self.root / "kept").iterdir())), 1)

    def test_the_installations_settings_count_wherever_the_program_is_started(self):
        for directory in (self.root, self.root / "elsewhere"):
            (directory / "settings").mkdir(exist_ok=True)
            (directory / "settings" / "testing.ini").write_text("[nonsense]\n")
            (directory / "settings" / "assert.exclude").write_text("a 1 x\n")
        self.run_program("bin", self.root / "elsewhere")
        log = (self.root / "work" / "logs" / "service.log").read_text()
        self.assertIn("NS_CORE::TestInterface::loadIni - unhandled section 'nonsense'", log)
        self.assertIn("CORE::TestInterface::loadExclusions - 'settings/assert.exclude': 1 entries ignored", log)


if __name__ == "__main__":
    unittest.main()
