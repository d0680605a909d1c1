#!/usr/bin/env python3
"""installation_test.py prepare | CLASS...: an administrator's dealings with the packages, from the outside, under Wine.

Installation, the same again, repair, upgrade, downgrade and removal, by the installer package and by the zip, with the
service running, stopped, and held by a companion that ignores the stop; and installations that have to be refused. After
each, the files, the registry and the service control manager are compared with what the administrator's guide says.

`prepare` makes a Wine prefix and two versions of the packages in the directory QUORKERI_WORK, for all classes. It needs
QUORKERI_BUILD, the build tree. Every run is in a network of its own, because the companion's port is fixed."""
import os
import pathlib
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zipfile

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import COMPANION, LIBRARIES, LIMIT, ROOT, SERVICE, Companion, Wine, await_true, in_own_network

BUILD = pathlib.Path(os.environ["QUORKERI_BUILD"])
WORK = pathlib.Path(os.environ["QUORKERI_WORK"])
PREFIX = WORK / "wine"
DRIVE = PREFIX / "drive_c"
OLD, NEW = "1.1.0", "1.2.0"
PRODUCT_KEY = r"HKLM\Software\Quorvane\Keri Wrapper"
UNINSTALL = r"HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall"
KERI_KEY = UNINSTALL + r"\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}"
PRODUCT = "Quorvane Keri Wrapper"
WINE = Wine(PREFIX)
wine, prompt = WINE.run, WINE.prompt


# What an administrator can look at

class Machine:
    """All that an installation can change, seen at one moment by one command: each call of Wine takes its time."""

    SERVICE_KEY = rf"HKLM\SYSTEM\CurrentControlSet\Services\{SERVICE}"

    def __init__(self):
        _, output = prompt(f"sc query {SERVICE}", *(f'echo ==\r\nreg query "{key}" /s' for key in (
            self.SERVICE_KEY, UNINSTALL, PRODUCT_KEY)))
        state, service, programs, product = output.split("==\n")
        match = re.search(r"STATE\s*: \d+\s+(\w+)", state)
        self.state = match[1] if match else None
        self.service = next(iter(self.registry(service).values()), None)
        self.products = [values for values in self.registry(programs).values()
                         if values.get("DisplayName") == PRODUCT]
        self.key = self.registry(product)
        self.files = files(INSTALLATION)

    @staticmethod
    def registry(text: str) -> dict[str, dict[str, str]]:
        """The values by key, as reg prints them."""
        keys: dict[str, dict[str, str]] = {}
        for line in text.splitlines():
            if line.startswith("HK"):
                values = keys.setdefault(line.strip(), {})
            elif match := re.match(r"    (.+?)    REG_[A-Z_]+    ?(.*)", line):
                values[match[1]] = match[2]
        return keys


def machine() -> dict[str, object]:
    return vars(Machine())


ERROR_REPORTING = r"HKLM\Software\Microsoft\Windows\Windows Error Reporting\LocalDumps"


def error_reporting() -> dict[str, dict[str, str]]:
    keys = Machine.registry(prompt(f'reg query "{ERROR_REPORTING}" /s /reg:64')[1])
    return {key.rpartition("\\")[2]: values for key, values in keys.items() if values}


def service_config(start: str, account: str) -> int:
    return wine(BUILD / "tests/setup_tests.exe", "--run-child", "service-config", start, account)[0]


def service_state() -> str | None:
    match = re.search(r"STATE\s*: \d+\s+(\w+)", wine("sc", "query", SERVICE)[1])
    return match[1] if match else None


def files(directory: pathlib.Path) -> list[str]:
    """Every file, and every directory that has none, with slashes."""
    if not directory.exists():
        return []
    paths = [path for path in directory.rglob("*") if path.is_file() or not any(path.iterdir())]
    return sorted(path.relative_to(directory).as_posix() + ("/" if path.is_dir() else "") for path in paths)


# One installation

INSTALLATION = DRIVE / "Quorkeri"
INSTALLDIR = r"C:\Quorkeri"
BIN = INSTALLATION / "bin"
THE_COMPANION = Companion(BIN)
COMPANION_FILES = [f"bin/{COMPANION}", "bin/quorkeri_wrapper.records", "bin/quorkeri_wrapper.settings"]
EMPTY = ["assets/", "work/dumps/", "work/tmp/"]
LOG = ["work/logs/service.log"]
COPIES = [f"bin/{name}" for name in LIBRARIES]


def package(version: str, ending: str) -> pathlib.Path:
    return WORK / f"quorkeri-service-{version}-win32.{ending}"


def stage(version: str) -> pathlib.Path:
    return WORK / f"stage-{version}" / f"quorkeri-service-{version}"


def program_files() -> list[str]:
    """What the packages bring."""
    return [name for name in files(stage(OLD)) if not name.endswith("/")]


def program_of(version: str) -> bytes:
    return (stage(version) / "bin" / SERVICE).read_bytes()


def put_companion(settings: str = "") -> None:
    THE_COMPANION.put(BUILD / "tests/companion" / COMPANION, settings)


def running_programs() -> dict[str, list[int]]:
    return WINE.programs(SERVICE, COMPANION)


def msiexec(*words: str, limit: float = LIMIT) -> tuple[int, str]:
    """The exit code, and the log."""
    log = DRIVE / "msiexec.log"
    log.unlink(missing_ok=True)
    code, _ = prompt(f"start /wait msiexec {' '.join(words)} /qn /l*v C:\\msiexec.log", limit=limit)
    content = log.read_bytes() if log.exists() else b""
    return code, content.decode("utf-16-le" if content[1:2] == b"\0" else "utf-8", "replace").replace("\r", "")


def install(version: str, *words: str) -> tuple[int, str]:
    return msiexec("/i", Wine.path(package(version, "msi")), *words)


def remove(version: str, *words: str) -> tuple[int, str]:
    return msiexec("/x", Wine.path(package(version, "msi")), *words)


class OnOneMachine(unittest.TestCase):
    """Every test begins on a machine without the product and with the Keri software, and leaves it so."""

    maxDiff = None

    def setUp(self) -> None:
        self.addCleanup(self.clear)

    def clear(self) -> None:
        now = Machine()
        for product in now.products:
            remove(product["DisplayVersion"], "PURGE=1", "STOPTIMEOUT=0")
        now = Machine() if now.products else now
        if now.state:
            wine("sc", "stop", SERVICE)
            WINE.end_programs(COMPANION)
            wine("sc", "delete", SERVICE)
        WINE.end_programs(SERVICE, COMPANION)
        shutil.rmtree(INSTALLATION, ignore_errors=True)
        if vars(now) != self.NOTHING:
            self.assertEqual(machine(), self.NOTHING)

    NOTHING = {"files": [], "service": None, "state": None, "products": [], "key": {}}

    def assertSucceeded(self, result: tuple[int, str]) -> str:
        self.assertEqual(result[0], 0, result[1][-3000:])
        return result[1]

    def assertService(self, now: Machine | None = None) -> None:
        """Registered as service-install does it, and running."""
        now = now or Machine()
        self.assertIsNotNone(now.service)
        wanted = {"ImagePath": rf"{INSTALLDIR}\bin\{SERVICE}", "DisplayName": "Quorvane Keri Wrapper", "Type": "0x10",
                  "Start": "0x2", "ErrorControl": "0x1", "ObjectName": "LocalSystem"}
        self.assertEqual({name: now.service.get(name) for name in wanted}, wanted)
        self.assertEqual(now.state, "RUNNING")
        self.assertEqual(len(running_programs().get(SERVICE, [])), 1)

    def assertNothingLeft(self, left: list[str]) -> None:
        self.assertEqual(running_programs(), {})
        self.assertEqual(machine(), {**self.NOTHING, "files": sorted(left)})

    def assertInstalled(self, version: str) -> None:
        """By the package, with a companion beside it; the libraries come a moment after the start."""
        await_true("the six libraries are copied", lambda: all((BIN / name).exists() for name in LIBRARIES))
        now = Machine()
        self.assertEqual(now.files, sorted(program_files() + COMPANION_FILES + EMPTY + LOG + COPIES))
        self.assertEqual((BIN / SERVICE).read_bytes(), program_of(version))
        self.assertService(now)
        (product,) = now.products
        self.assertEqual(product["DisplayVersion"], version)
        self.assertEqual(product["InstallLocation"], INSTALLDIR + "\\")
        self.assertEqual([values["InstallDir"] for values in now.key.values()], [INSTALLDIR + "\\"])

    # The states before an action, and what an administrator would add to the command then.
    STATES = (("running", ()), ("stopped", ()), ("held", ("STOPTIMEOUT=1",)))

    def begin(self, state: str, version: str = OLD) -> None:
        self.clear()
        put_companion("ignore all" if state == "held" else "")
        self.assertSucceeded(install(version, f"INSTALLDIR={INSTALLDIR}"))
        THE_COMPANION.await_event()
        if state == "stopped":
            self.assertEqual(wine("net", "stop", SERVICE)[0], 0)
            self.assertEqual(service_state(), "STOPPED")


class MsiInstall(OnOneMachine):
    def test_one_command_leaves_a_running_service(self):
        put_companion()
        log = self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}"))
        THE_COMPANION.await_event()
        self.assertInstalled(OLD)
        self.assertNotIn("reboot", log.lower().replace("property(s): reboot = reallysuppress", ""))

    def test_without_a_companion_or_the_keri_software(self):
        wine("reg", "delete", KERI_KEY, "/f")
        try:
            self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}"))
            self.assertService()
            self.assertEqual(files(INSTALLATION), sorted(program_files() + EMPTY + LOG))
            self.assertSucceeded(remove(OLD))
            self.assertNothingLeft(LOG)
        finally:
            register_keri()

    def test_the_default_directory_has_no_blank_and_is_closed(self):
        log = self.assertSucceeded(install(OLD))
        directory = DRIVE / "QuorkeriService"
        self.assertIn(r"made 'C:\QuorkeriService', where only administrators and SYSTEM may write", log)
        self.assertIn("only administrators and SYSTEM may read the dumps", log)
        # What Wine makes of the rights: nothing is left for others to write, and of the dumps nothing to read.
        self.assertEqual([path for path in directory.rglob("*") if path.stat().st_mode & 0o002], [])
        self.assertEqual((directory / "work/dumps").stat().st_mode & 0o007, 0)
        self.assertEqual(Machine().service["ImagePath"], rf"C:\QuorkeriService\bin\{SERVICE}")
        self.assertSucceeded(remove(OLD, "PURGE=1"))
        self.assertFalse(directory.exists())

    def test_dumps_that_were_there_are_closed(self):
        put_companion()
        dumps = INSTALLATION / "work/dumps"
        dumps.mkdir(parents=True)
        (dumps / "old.dmp").write_bytes(b"memory")
        self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}"))
        for path in (dumps, dumps / "old.dmp"):
            self.assertEqual(path.stat().st_mode & 0o007, 0, path)

    def test_the_service_is_set_up_for_an_administrator(self):
        log = self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}", "DELAYEDSTART=1", "WERDUMPS=1"))
        # Wine's service manager refuses both.
        self.assertRegex(log, r'recovery actions: "C:\\Quorkeri\\bin\\quorkeri_health.exe" --recover after a minute, twice|'
                              "this system did not accept recovery actions")
        self.assertRegex(log, "the service starts delayed|this system did not accept a delayed start")
        self.assertEqual(Machine().service["Description"], "Keeps the companion program of the Keri software running.")
        wanted = {"DumpFolder": INSTALLDIR + r"\work\dumps", "DumpType": "0x2", "DumpCount": "0x5"}
        self.assertEqual(error_reporting(), {SERVICE: wanted, COMPANION: wanted})
        self.assertSucceeded(install(OLD, "WERDUMPS=0"))
        self.assertEqual(error_reporting(), {})
        # Another's settings stay, and a removal takes back what is ours.
        wine("reg", "add", rf"{ERROR_REPORTING}\{SERVICE}", "/v", "DumpFolder", "/d", r"C:\Elsewhere", "/f", "/reg:64")
        self.assertIn(f"has settings for '{SERVICE}' already; they stay", self.assertSucceeded(install(OLD, "WERDUMPS=1")))
        self.assertEqual(error_reporting(), {SERVICE: {"DumpFolder": r"C:\Elsewhere"}, COMPANION: wanted})
        self.assertSucceeded(remove(OLD))
        self.assertEqual(error_reporting(), {SERVICE: {"DumpFolder": r"C:\Elsewhere"}})
        wine("reg", "delete", ERROR_REPORTING, "/f", "/reg:64")

    def test_the_same_package_again_keeps_it_working(self):
        for state, words in self.STATES:
            with self.subTest(service=state):
                self.begin(state)
                self.assertSucceeded(install(OLD, *words))
                self.assertInstalled(OLD)


class MsiRepair(OnOneMachine):
    def test_brings_back_what_is_damaged_and_missing(self):
        for state, words in self.STATES:
            with self.subTest(service=state):
                self.begin(state)
                (INSTALLATION / "settings" / "testing.ini.sample").unlink()
                if state == "stopped":
                    (BIN / SERVICE).write_bytes(b"damaged")
                self.assertSucceeded(install(OLD, "REINSTALL=ALL", *words))
                self.assertInstalled(OLD)


class MsiUpgrade(OnOneMachine):
    def test_replaces_the_program_and_runs_it(self):
        for state, words in self.STATES:
            with self.subTest(service=state):
                self.begin(state)
                (INSTALLATION / "settings" / "testing.ini").write_text("[general]\n")
                self.assertSucceeded(install(NEW, *words))
                self.assertTrue((INSTALLATION / "settings" / "testing.ini").exists())
                (INSTALLATION / "settings" / "testing.ini").unlink()
                self.assertInstalled(NEW)

    def test_keeps_what_an_administrator_has_set(self):
        """The registration may be kept, as on Windows, or made anew, as Wine does when it removes the earlier version."""
        for kept in (True, False):
            with self.subTest(registration_kept=kept):
                self.begin("running")
                self.assertEqual(service_config("3", r"NT AUTHORITY\LocalService"), 0)
                wine("sc", "description", SERVICE, "Ours since 2019 | do not touch")
                if kept:
                    self.assertSucceeded(remove(OLD, "UPGRADINGPRODUCTCODE={00000000-0000-0000-0000-000000000001}"))
                self.assertSucceeded(install(NEW, f"INSTALLDIR={INSTALLDIR}"))
                THE_COMPANION.await_event(count=2)
                service = Machine().service
                self.assertEqual([service[name] for name in ("Start", "ObjectName", "Description")],
                                 ["0x3", r"NT AUTHORITY\LocalService", "Ours since 2019 | do not touch"])
                self.assertEqual(service_state(), "RUNNING")

    def test_does_not_start_a_disabled_service(self):
        self.begin("stopped")
        self.assertEqual(service_config("4", "LocalSystem"), 0)
        self.assertIn("the service is disabled, stays so and is not started", self.assertSucceeded(install(NEW)))
        self.assertEqual((service_state(), Machine().service["Start"]), ("STOPPED", "0x4"))

    def test_a_removal_within_an_upgrade_keeps_the_registration_and_the_libraries(self):
        # What Windows tells the earlier version that it removes; Wine does not.
        self.begin("running")
        self.assertSucceeded(remove(OLD, "UPGRADINGPRODUCTCODE={00000000-0000-0000-0000-000000000001}"))
        now = Machine()
        self.assertEqual(now.state, "STOPPED")
        self.assertEqual(now.files, sorted(COMPANION_FILES + LOG + COPIES))
        self.assertSucceeded(install(NEW, f"INSTALLDIR={INSTALLDIR}"))
        THE_COMPANION.await_event(count=2)
        self.assertInstalled(NEW)

    def test_into_another_directory(self):
        self.begin("running")
        other = DRIVE / "Elsewhere"
        try:
            self.assertSucceeded(install(NEW, r"INSTALLDIR=C:\Elsewhere"))
            self.assertEqual(files(INSTALLATION), sorted(COMPANION_FILES + LOG))
            now = Machine()
            self.assertEqual(now.service["ImagePath"], rf"C:\Elsewhere\bin\{SERVICE}")
            self.assertEqual(now.state, "RUNNING")
            self.assertEqual((other / "bin" / SERVICE).read_bytes(), program_of(NEW))
            self.assertSucceeded(remove(NEW, "PURGE=1"))
            self.assertFalse(other.exists())
        finally:
            shutil.rmtree(other, ignore_errors=True)


class MsiDowngrade(OnOneMachine):
    def test_is_refused_and_changes_nothing(self):
        for state, words in self.STATES:
            with self.subTest(service=state):
                self.begin(state, NEW)
                before, programs = machine(), running_programs()
                code, log = install(OLD, *words)
                self.assertEqual(code, 1603)
                self.assertIn(f"A newer version of Quorvane Keri Wrapper is installed already. Nothing was changed. To go "
                              f"back to version {OLD}, remove the newer one first", log)
                self.assertEqual(machine(), before)
                self.assertEqual(running_programs(), programs)


class MsiRemove(OnOneMachine):
    def test_keeps_logs_dumps_settings_and_the_companion(self):
        for state, words in self.STATES:
            with self.subTest(service=state):
                self.begin(state)
                (INSTALLATION / "settings" / "testing.ini").write_text("[general]\n")
                (INSTALLATION / "work" / "dumps" / "x.dmp").write_bytes(b"dump")
                self.assertSucceeded(remove(OLD, *words))
                self.assertNothingLeft(COMPANION_FILES + LOG + ["settings/testing.ini", "work/dumps/x.dmp"])

    def test_purging_leaves_the_companion_alone(self):
        self.begin("running")
        (INSTALLATION / "settings" / "testing.ini").write_text("[general]\n")
        (INSTALLATION / "work" / "tmp" / "deeper").mkdir()
        (INSTALLATION / "work" / "tmp" / "deeper" / "read-only.txt").write_text("")
        (INSTALLATION / "work" / "tmp" / "deeper" / "read-only.txt").chmod(0o444)
        self.assertSucceeded(remove(OLD, "PURGE=1"))
        self.assertNothingLeft(COMPANION_FILES)

    def test_purging_does_not_follow_a_link(self):
        self.begin("running")
        outside = DRIVE / "Outside"
        outside.mkdir()
        self.addCleanup(shutil.rmtree, outside)
        (outside / "precious.txt").write_text("not the service's")
        (INSTALLATION / "work" / "tmp" / "link").symlink_to(outside)
        log = self.assertSucceeded(remove(OLD, "PURGE=1"))
        self.assertIn(r"work\tmp\link: it leads out of the installation", log)
        self.assertEqual(files(outside), ["precious.txt"])
        (INSTALLATION / "work" / "tmp" / "link").unlink()

    def test_a_service_that_somebody_has_put_in_its_place_stays(self):
        self.begin("stopped")
        other = r"C:\windows\system32\spoolsv.exe"
        wine("sc", "delete", SERVICE)
        wine("sc", "create", SERVICE, "binPath=", other)
        log = self.assertSucceeded(remove(OLD))
        self.assertIn(f"the service runs '{other}' and is left alone", log)
        now = Machine()
        self.assertEqual(now.service["ImagePath"], other)
        self.assertEqual((now.products, now.files), ([], sorted(COMPANION_FILES + LOG)))

    def test_a_companion_that_ignores_the_stop_gets_fifteen_seconds(self):
        self.begin("held")
        began = time.monotonic()
        log = self.assertSucceeded(remove(OLD))
        took = time.monotonic() - began
        self.assertGreaterEqual(took, 15)
        self.assertLess(took, 25)
        self.assertIn("the service waits for its companion", log)
        self.assertIn(rf"ending '{INSTALLDIR}\bin\{COMPANION}'", log)
        self.assertEqual(len(THE_COMPANION.records("datagram")), 1)
        self.assertNothingLeft(COMPANION_FILES + LOG)


class Zip(OnOneMachine):
    """By hand, as the administrator's guide says."""

    def unzip(self, version: str) -> None:
        with tempfile.TemporaryDirectory(dir=DRIVE) as directory:
            with zipfile.ZipFile(package(version, "zip")) as archive:
                archive.extractall(directory)
            shutil.copytree(pathlib.Path(directory) / f"quorkeri-service-{version}", INSTALLATION, dirs_exist_ok=True)

    def service_command(self, word: str) -> int:
        return prompt(rf"start /wait {INSTALLDIR}\bin\{SERVICE} {word}")[0]

    def stop(self, state: str) -> None:
        """net stop; where the companion holds it, ending that from another prompt."""
        if state == "stopped":
            return
        stopping = WINE.start("net", "stop", SERVICE)
        if state == "held":
            await_true("the stop datagram arrives", lambda: THE_COMPANION.records("datagram"))
            self.assertEqual(service_state(), "STOP_PENDING")
            self.assertEqual(wine("taskkill", "/F", "/IM", COMPANION)[0], 0)
        stopping.wait(LIMIT)
        await_true("the service stops", lambda: service_state() == "STOPPED")
        await_true("its process is gone", lambda: running_programs() == {})

    def begin(self, state: str, version: str = OLD) -> None:
        self.clear()
        self.unzip(version)
        put_companion("ignore all" if state == "held" else "")
        self.assertEqual(self.service_command("service-install"), 0)
        self.assertEqual(wine("net", "start", SERVICE)[0], 0)
        THE_COMPANION.await_event()
        if state == "stopped":
            self.stop("running")

    def assertRunsFromZip(self, version: str) -> None:
        await_true("the six libraries are copied", lambda: all((BIN / name).exists() for name in LIBRARIES))
        now = Machine()
        self.assertEqual(now.files, sorted(program_files() + COMPANION_FILES + EMPTY + LOG + COPIES))
        self.assertEqual((BIN / SERVICE).read_bytes(), program_of(version))
        self.assertService(now)
        self.assertEqual(now.products, [])

    def replace(self, before: str, after: str) -> None:
        for state, _ in self.STATES:
            with self.subTest(service=state):
                self.begin(state, before)
                self.stop(state)
                self.unzip(after)
                self.assertEqual(wine("net", "start", SERVICE)[0], 0)
                self.assertRunsFromZip(after)

    def test_install(self):
        self.begin("running")
        self.assertRunsFromZip(OLD)

    def test_install_again_changes_nothing(self):
        for state, _ in self.STATES:
            with self.subTest(service=state):
                self.begin(state)
                before, programs = machine(), running_programs()
                self.assertEqual(self.service_command("service-install"), 0)
                self.assertEqual(machine(), before)
                self.assertEqual(running_programs(), programs)

    def test_repair(self):
        self.replace(OLD, OLD)

    def test_upgrade(self):
        self.replace(OLD, NEW)

    def test_downgrade(self):
        self.replace(NEW, OLD)

    def test_remove(self):
        for state, _ in self.STATES:
            with self.subTest(service=state):
                self.begin(state)
                self.stop(state)
                self.assertEqual(self.service_command("service-remove"), 0)
                self.assertNothingLeft(program_files() + COMPANION_FILES + EMPTY + LOG + COPIES)
                self.assertEqual(prompt(rf"rmdir /s /q {INSTALLDIR}")[0], 0)
                self.assertNothingLeft([])


class Refusing(OnOneMachine):
    def assertRefused(self, action, sentence: str) -> None:
        before = machine()
        code, log = action()
        self.assertEqual(code, 1603, log)
        self.assertIn(sentence, log)
        self.assertEqual(machine(), before)


class MsiRefusals(Refusing):
    """What cannot be installed leaves a sentence in the log and the machine as it was."""

    def drive(self) -> list[str]:
        return sorted(path.name for path in DRIVE.iterdir() if path.name not in ("msiexec.log", "line.cmd"))

    def test_a_directory_that_makes_no_sense(self):
        (DRIVE / "plain.txt").write_text("a file")
        before = self.drive()
        example = "Choose a directory such as C:\\QuorkeriService. Nothing was changed."
        for directory, sentence in (
                ("Quorkeri", "It has to be a full path on a local drive: a letter, a colon, a backslash, a name. " + example),
                (r"\\server\share\Quorkeri", "It has to be a full path on a local drive"),
                ("C:Quorkeri", "It has to be a full path on a local drive"),
                ("C:\\", "The root of a drive cannot be the installation's directory. " + example),
                (r'"C:\Quor keri"', "A blank in it is not safe: the service's path is registered without quotes"),
                (r"C:\Quor'keri", "It has a character that a directory's path must not have"),
                (r"C:\Quorkeri/x", "It has a character that a directory's path must not have"),
                (r"C:\Quorkeri\..\x", "No part of it may be empty or end in a dot"),
                (r"C:\Quorkeri\\x", "No part of it may be empty or end in a dot"),
                ("C:\\" + "x" * 200, "It is too long for the files below it"),
                (r"Q:\Quorkeri", "There is no such drive"),
                (r"C:\plain.txt\Quorkeri", "'C:\\plain.txt' is a file, and the installation needs a directory there"),
                (r"C:\plain.txt", "'C:\\plain.txt' is a file, and the installation needs a directory there")):
            with self.subTest(directory=directory):
                self.assertRefused(lambda: install(OLD, f"INSTALLDIR={directory}"), sentence)
                self.assertEqual(self.drive(), before)

    def test_a_value_that_makes_no_sense(self):
        for name, values, sentence in (("STOPTIMEOUT", ("x", "-1", "601", "1.5"), "a number of seconds from 0 to 600"),
                                       *((name, ("2", "yes"), "0 or 1") for name in ("ALLOWOPENDIR", "DELAYEDSTART", "WERDUMPS"))):
            for value in values:
                with self.subTest(f"{name}={value}"):
                    self.assertRefused(lambda: install(OLD, f"{name}={value}"), f"{name} is '{value}'. It has to be {sentence}.")

    def test_the_sentence_is_found_in_the_log(self):
        self.assertEqual(install(OLD, "INSTALLDIR=here")[0], 1603)
        code, said = prompt('type C:\\msiexec.log | find "Nothing was changed"')
        self.assertEqual((code, said), (0, "INSTALLDIR is 'here'. It has to be a full path on a local drive: a letter, a colon, "
                                           "a backslash, a name. Choose a directory such as C:\\QuorkeriService. Nothing was "
                                           "changed.\n"))

    def test_a_directory_that_cannot_be_written(self):
        full = DRIVE / "ReadOnly"
        full.mkdir(exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "none", full], check=True)
        try:
            self.assertRefused(lambda: install(OLD, r"INSTALLDIR=C:\ReadOnly\Quorkeri"),
                               "No file can be made in 'C:\\ReadOnly'")
        finally:
            subprocess.run(["umount", full], check=True)

    def test_the_keri_softwares_own_directory(self):
        wine("reg", "add", KERI_KEY, "/v", "InstallLocation", "/d", INSTALLDIR + r"\bin", "/f")
        try:
            self.assertRefused(lambda: install(OLD, f"INSTALLDIR={INSTALLDIR}"),
                               rf"'{INSTALLDIR}\bin' is where the Keri software is installed.")
        finally:
            register_keri()

    def test_a_service_of_that_name_that_is_somebody_elses(self):
        wine("sc", "create", SERVICE, "binPath=", r"C:\windows\system32\spoolsv.exe")
        self.assertRefused(lambda: install(OLD, f"INSTALLDIR={INSTALLDIR}"),
                           r"is registered already and runs 'C:\windows\system32\spoolsv.exe'")
        wine("sc", "delete", SERVICE)

    def test_a_service_that_waits_for_its_deletion(self):
        self.begin("running")
        wine("sc", "delete", SERVICE)
        self.assertRefused(lambda: install(NEW), "is marked for deletion and goes away when every program")
        wine("sc", "stop", SERVICE)

    def test_a_held_file(self):
        self.begin("running")
        (BIN / "held.dll").write_bytes(b"")
        other = DRIVE / "Other"
        other.mkdir()
        shutil.copy(BUILD / "tests/companion" / COMPANION, other / "holder.exe")
        (other / "quorkeri_wrapper.settings").write_text(f"hold ..\\Quorkeri\\bin\\held.dll\nmute\n")
        holder = WINE.start(Wine.path(other / "holder.exe"))
        try:
            await_true("the file is held", lambda: "ready" in (other / "quorkeri_wrapper.records").read_text()
                       if (other / "quorkeri_wrapper.records").exists() else False)
            programs = running_programs()
            for name, action in (("repair", lambda: install(OLD, "REINSTALL=ALL")), ("removal", lambda: remove(OLD)),
                                 ("upgrade", lambda: install(NEW))):
                with self.subTest(action=name):
                    self.assertRefused(action, rf"'{INSTALLDIR}\bin\held.dll' is held open by another program")
                    self.assertService()
                    self.assertEqual(running_programs(), programs)
        finally:
            holder.kill()
            holder.wait()
            shutil.rmtree(other)

    def test_a_library_in_use_by_another_program(self):
        # Found only after the service has stopped, which has to run again then.
        self.begin("running")
        shutil.copy(BIN / COMPANION, BIN / "other.exe")
        (BIN / "quorkeri_wrapper.settings").write_text("mute\n")
        other = WINE.start(Wine.path(BIN / "other.exe"))
        try:
            THE_COMPANION.await_event(count=2)
            (BIN / "quorkeri_wrapper.settings").write_text("")
            self.assertRefused(lambda: install(OLD, "REINSTALL=ALL"),
                               rf"'{INSTALLDIR}\bin\other.exe' is held open by another program")
            THE_COMPANION.await_event(count=3)
            self.assertService()
        finally:
            other.kill()
            other.wait()


class MsiOpenDirectory(Refusing):
    """A directory that others can write to is refused: LocalSystem would run what they put there. Wine shows a file's owner
    and rights as far as Linux has them."""

    def open_ways(self):
        """What is made open, by whom it can be changed as Wine says it, and how it is opened."""
        (BIN / "settings").mkdir(parents=True)
        (BIN / COMPANION).write_text("")
        for path, name in ((INSTALLATION, INSTALLDIR), (BIN, INSTALLDIR + r"\bin"),
                           (BIN / COMPANION, rf"{INSTALLDIR}\bin\{COMPANION}")):
            yield name, lambda: path.chmod(0o777), lambda: path.chmod(0o755)
            yield name, lambda: shutil.chown(path, "nobody"), lambda: shutil.chown(path, os.getuid())

    def test_is_refused_until_it_is_closed(self):
        for name, open_it, close_it in self.open_ways():
            open_it()
            self.assertRefused(lambda: install(OLD, f"INSTALLDIR={INSTALLDIR}"),
                               f"'{name}' belongs to '")
            close_it()
        (BIN / COMPANION).unlink()
        (BIN / "settings").rmdir()
        put_companion()
        self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}"))
        THE_COMPANION.await_event()
        # And later: neither repaired nor upgraded, and the service runs on.
        INSTALLATION.chmod(0o777)
        for action in (lambda: install(OLD, "REINSTALL=ALL"), lambda: install(NEW)):
            self.assertRefused(action, rf"(icacls {INSTALLDIR} /setowner *S-1-5-32-544 /T & icacls {INSTALLDIR} /reset /T & ")
            self.assertService()
        self.assertSucceeded(remove(OLD))

    def test_a_directory_above_that_others_may_rename(self):
        above = DRIVE / "Above"
        above.mkdir()
        self.addCleanup(shutil.rmtree, above)
        above.chmod(0o777)
        self.assertRefused(lambda: install(OLD, r"INSTALLDIR=C:\Above\Quorkeri"), r"'C:\Above' belongs to '")

    def test_a_property_overrules_it_and_the_log_says_so(self):
        put_companion()
        INSTALLATION.chmod(0o777)
        log = self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}", "ALLOWOPENDIR=1"))
        self.assertIn(f"ALLOWOPENDIR=1: the service will run there, although '{INSTALLDIR}' belongs to '", log)
        self.assertService()

    def test_a_file_with_the_name_of_the_write_probe_stays(self):
        BIN.mkdir(parents=True)
        (BIN / "quorkeri_setup_0.tmp").write_text("somebody's")
        self.assertSucceeded(install(OLD, f"INSTALLDIR={INSTALLDIR}"))
        self.assertEqual((BIN / "quorkeri_setup_0.tmp").read_text(), "somebody's")


class MsiHalfRemoved(OnOneMachine):
    """Whatever somebody has taken away by hand, installing and removing both lead to an end."""

    def damage_files(self) -> None:
        wine("net", "stop", SERVICE)
        shutil.rmtree(BIN)

    def damage_service(self) -> None:
        wine("net", "stop", SERVICE)
        wine("sc", "delete", SERVICE)

    def damage_directory(self) -> None:
        wine("net", "stop", SERVICE)
        shutil.rmtree(INSTALLATION)

    DAMAGES = ("files", "service", "directory")

    def test_repair_brings_it_back(self):
        for damage in self.DAMAGES:
            with self.subTest(missing=damage):
                self.begin("running")
                getattr(self, f"damage_{damage}")()
                put_companion()
                self.assertSucceeded(install(OLD, "REINSTALL=ALL"))
                THE_COMPANION.await_event()
                self.assertInstalled(OLD)

    def test_an_upgrade_brings_it_back(self):
        for damage in self.DAMAGES:
            with self.subTest(missing=damage):
                self.begin("running")
                getattr(self, f"damage_{damage}")()
                put_companion()
                self.assertSucceeded(install(NEW))
                THE_COMPANION.await_event()
                self.assertInstalled(NEW)

    def test_removal_removes_the_rest(self):
        for damage in self.DAMAGES:
            with self.subTest(missing=damage):
                self.begin("running")
                getattr(self, f"damage_{damage}")()
                self.assertSucceeded(remove(OLD, "PURGE=1"))
                self.assertNothingLeft(COMPANION_FILES if damage == "service" else [])

    def test_the_package_takes_over_what_the_zip_has_installed(self):
        Zip.begin(self, "running")
        self.assertSucceeded(install(NEW, f"INSTALLDIR={INSTALLDIR}"))
        THE_COMPANION.await_event(count=2)
        self.assertInstalled(NEW)

    unzip = Zip.unzip
    service_command = Zip.service_command


# What all tests share

def register_keri() -> None:
    code, output = wine("regedit", "/S", Wine.path(ROOT / "tests/data/keri.reg"))
    if code:
        raise RuntimeError(output)


def set_version(program: pathlib.Path, version: str) -> None:
    """In the version resource: what tells the two versions of the program apart."""
    content = bytearray(program.read_bytes())
    place = content.index(struct.pack("<II", 0xFEEF04BD, 0x00010000))
    major, minor, patch = map(int, version.split("."))
    struct.pack_into("<II", content, place + 8, major << 16 | minor, patch << 16)
    program.write_bytes(content)


def make_packages() -> None:
    environment = {**os.environ, "SOURCE_DATE_EPOCH": "1700000000"}
    for version in (OLD, NEW):
        directory = stage(version)
        subprocess.run(["cmake", "--install", BUILD, "--prefix", directory, "--strip"], check=True,
                       stdout=subprocess.DEVNULL)
        for symbols in (directory / "bin").glob("*.pdb"):
            symbols.unlink()
        (directory / "README.txt").write_text("how to install\r\n")
        set_version(directory / "bin" / SERVICE, version)
        subprocess.run([ROOT / "scripts/lib/package-msi", "--actions", BUILD / "packaging/setup/quorkeri_setup.dll",
                        directory, version, package(version, "msi")], check=True, env=environment)
        subprocess.run([ROOT / "scripts/lib/package-archive", directory.parent, package(version, "zip")], check=True,
                       env=environment)


def prepare() -> None:
    shutil.rmtree(WORK, ignore_errors=True)
    WORK.mkdir(parents=True)
    make_packages()
    with WINE.held():
        keri = DRIVE / "Keri"
        keri.mkdir()
        for name in LIBRARIES:
            (keri / name).write_bytes(name.encode() * 1000)
        register_keri()


def main() -> int:
    in_own_network()
    if sys.argv[1:] == ["prepare"]:
        prepare()
        return 0
    with WINE.held():
        suite = unittest.defaultTestLoader.loadTestsFromNames(sys.argv[1:], module=sys.modules["__main__"])
        return 0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
