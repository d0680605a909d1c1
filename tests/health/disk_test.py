"""disk_test.py HEALTH SERVICE COMPANION [TEST...]: the health check of a service whose disk is full, or nearly so, where the
system does not report enough, and of a companion that does not listen."""
import contextlib
import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import LIMIT, SILENT, Companion, Wine, await_true, in_own_network  # noqa: E402

HEALTH, SERVICE, COMPANION = map(pathlib.Path, sys.argv[1:4])
IS_WINDOWS = HEALTH.suffix == ".exe"
if "DeafTest" in sys.argv:
    in_own_network()
del sys.argv[1:4]


class Installed(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="quorkeri-disk-")
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        self.logs = self.root / "work/logs"
        self.logs.mkdir(parents=True)
        self.companion = Companion(self.root / "bin")
        self.companion.put(COMPANION)
        for program in (HEALTH, SERVICE):
            shutil.copy(program, self.root / "bin")

    def ask(self, **more):
        """The exit code and the names of the findings."""
        command = [self.root / "bin" / HEALTH.name, "--json"]
        if IS_WINDOWS:
            code, text = Wine().run(*command)
        else:
            done = subprocess.run(command, capture_output=True, text=True, timeout=LIMIT, check=False, **more)
            code, text = done.returncode, done.stdout
        told = json.loads(text)
        self.assertEqual(told["code"], code)
        return code, [finding["name"] for finding in told["findings"]]


class FiguresTest(Installed):
    @unittest.skipIf(IS_WINDOWS, "the line is the same bytes there")
    def test_are_what_monitoring_reads(self):
        line = subprocess.run([self.root / "bin" / HEALTH.name], capture_output=True, text=True, timeout=LIMIT, check=False).stdout
        self.assertEqual((line.count("\n"), line.count("|")), (1, 1))
        read = ("use Monitoring::Plugin::Performance; for (Monitoring::Plugin::Performance->parse_perfstring(<STDIN>)) { my $limits ="
                " $_->threshold; print join(' ', $_->label, map { $limits->get_status($_) } 0, 1, 2, 19, 20, 49, 50, 499, 500), qq(\n) }")
        told = subprocess.run(["perl", "-e", read], input=line.partition("|")[2], capture_output=True, text=True, check=True).stdout
        self.assertEqual(told.splitlines(), ["restarts 0 1 1 1 2 2 2 2 2", "companions 1 0 1 1 1 1 1 1 1",
                                             "orphans 0 2 2 2 2 2 2 2 2", "free 2 2 2 2 2 2 1 1 0"])


class ManagerTest(Installed):
    @unittest.skipUnless(IS_WINDOWS, "Linux has no service manager")
    def test_one_that_does_not_answer(self):
        wine = Wine(HEALTH.resolve().parents[2] / "wine-no-manager")
        self.assertEqual(wine.run("cmd", "/c", "exit")[0], 0)  # makes the prefix
        environment = wine.environment | {"WINEPREFIX": str(wine.prefix), "WINEDEBUG": "-all"}
        subprocess.run(["wineserver", "-w"], env=environment, check=True, timeout=LIMIT)
        self.addCleanup(subprocess.run, ["wineserver", "-k"], env=environment, check=False)
        with open(self.root / "told", "w+b") as told:
            subprocess.run(["wine", self.root / "bin" / HEALTH.name], env=environment | {"WINEDLLOVERRIDES": "services.exe=d"},
                           stdin=subprocess.DEVNULL, stdout=told, stderr=subprocess.DEVNULL, timeout=LIMIT, check=False)
            told.seek(0)
            self.assertIn("[service-unknown] Windows does not report the state of the service: ", told.read().decode())


class PortTest(Installed):
    def test_a_holder_that_the_system_does_not_name(self):
        """Wine knows nothing of Linux' programs, and Linux tells a plain user nothing of another's."""
        if not IS_WINDOWS and os.geteuid() != 0:
            self.skipTest("no right to become another user")
        if IS_WINDOWS and not subprocess.check_output(["wine", "--version"]).startswith(b"wine-8."):
            self.skipTest("newer Wines list no sockets of Linux' programs")
        for directory in (self.root, self.root / "bin"):
            directory.chmod(0o755)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("127.0.0.1", 34002))
            self.assertIn("port-unknown", self.ask(**({} if IS_WINDOWS else {"user": 65534}))[1])


class DeafTest(Installed):
    """Takes more than a minute, so it runs beside the others, in a network of its own."""

    def test_a_companion_that_does_not_listen_gets_a_minute(self):
        self.companion.settings.write_text("mute")
        with subprocess.Popen([self.root / "bin" / SERVICE.name, "service-console"], **SILENT) as process:
            try:
                self.companion.await_event()
                self.assertNotIn("port-unheld", self.ask()[1])
                await_true("the finding", lambda: "port-unheld" in self.ask()[1])
            finally:
                process.kill()
                os.kill(int(self.companion.records("ready")[0][1]), signal.SIGKILL)


class DiskTest(Installed):
    def mount(self, size):
        # Not in a name space of its own: Wine's server opens the files, and sees the mount only here.
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={size}", "none", self.logs], capture_output=True, check=False)
        if done.returncode:
            self.skipTest(f"no right to mount: {done.stderr.decode().strip()}")
        self.addCleanup(subprocess.run, ["umount", "--lazy", self.logs], check=True)

    @contextlib.contextmanager
    def service(self):
        words = [self.root / "bin" / SERVICE.name, "service-console"]
        process = Wine().start(*words) if IS_WINDOWS else subprocess.Popen(words, **SILENT)
        try:
            self.companion.await_event()
            yield
        finally:
            process.kill()
            process.wait(LIMIT)
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as stop:
                stop.sendto(b"0123456789", ("127.0.0.1", 34002))
            self.companion.await_event("ending")

    def test_little_room_is_a_warning(self):
        self.mount("200m")
        self.assertIn("disk-low", self.ask()[1])

    def test_a_service_on_a_full_disk_has_no_log_and_this_is_said(self):
        self.mount("1m")
        with contextlib.suppress(OSError):
            (self.logs / "filling").write_bytes(bytes(2 << 20))
        with self.service():
            code, findings = self.ask()
            self.assertEqual(code, 2)
            self.assertLessEqual({"disk-full", "log-missing"}, set(findings))
            self.assertNotIn("service-stopped", findings)


if __name__ == "__main__":
    unittest.main()
