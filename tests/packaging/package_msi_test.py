#!/usr/bin/env python3
"""package_msi_test.py ROOT ACTIONS: what scripts/lib/package-msi makes and refuses. ACTIONS is the set-up library.

Whether Windows' installer takes the package is installation_test.py's to say, under Wine."""
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1])
ACTIONS = pathlib.Path(sys.argv[2])
sys.path.insert(0, str(ROOT / "scripts" / "lib"))
import compoundfile
import msidatabase

EPOCH = 1700000000


class PackageMsi(unittest.TestCase):
    def setUp(self) -> None:
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        self.stage = self.make_stage("stage")
        self.outfile = self.directory / "out.msi"

    def make_stage(self, name: str, program: bytes = b"program") -> pathlib.Path:
        stage = self.directory / name
        for directory in ("bin", "settings", "work/logs"):
            (stage / directory).mkdir(parents=True)
        (stage / "bin" / "quorkeri_service.exe").write_bytes(program)
        (stage / "settings" / "odd name & more.sample").write_text("text")
        (stage / "README.txt").write_text("text")
        return stage

    def make(self, stage: pathlib.Path | None = None, version: str = "1.1.0", actions: pathlib.Path = ACTIONS,
             **environment: str | None) -> tuple[int, str]:
        settings = {**os.environ, "SOURCE_DATE_EPOCH": str(EPOCH), **environment}
        done = subprocess.run([ROOT / "scripts/lib/package-msi", "--actions", actions, stage or self.stage, version, self.outfile],
                              env={name: value for name, value in settings.items() if value is not None},
                              capture_output=True, text=True)
        return done.returncode, done.stdout + done.stderr

    def made(self, *words, **settings) -> msidatabase.Database:
        self.assertEqual(self.make(*words, **settings), (0, ""))
        return msidatabase.Database(self.outfile.read_bytes())

    def assertRefused(self, result: tuple[int, str], text: str) -> None:
        self.assertEqual(result[0], 1)
        self.assertIn(text, result[1])
        self.assertFalse(self.outfile.exists())

    @staticmethod
    def properties(database: msidatabase.Database) -> dict[str, str]:
        return {row["Property"]: row["Value"] for row in database["Property"].rows}

    def test_the_same_files_give_the_same_bytes_whenever_and_wherever(self):
        self.made()
        first = self.outfile.read_bytes()
        other = self.make_stage("a place with another name")
        for path in other.rglob("*"):
            os.utime(path, (1, 1))
        self.made(other, TZ="Asia/Tokyo")
        self.assertEqual(self.outfile.read_bytes(), first)

    def test_every_time_is_the_one_that_was_given(self):
        self.made()
        first = self.outfile.read_bytes()
        self.made(SOURCE_DATE_EPOCH=str(EPOCH + 86400))
        self.assertNotEqual(self.outfile.read_bytes(), first)

    def test_another_build_is_another_product_of_the_same_family(self):
        first = self.made()
        second = self.made(self.make_stage("second", b"another program"))
        third = self.made(version="1.2.0")
        codes = [self.properties(database)["ProductCode"] for database in (first, second, third)]
        self.assertEqual(len(set(codes)), 3)
        self.assertEqual(len({database.package_code() for database in (first, second, third)}), 3)
        self.assertEqual(len({self.properties(database)["UpgradeCode"] for database in (first, second, third)}), 1)
        components = [{row["Component"]: row["ComponentId"] for row in database["Component"].rows}
                      for database in (first, second, third)]
        self.assertEqual(components[0], components[1])
        self.assertEqual(components[0], components[2])

    def test_never_restarts_and_runs_only_known_actions_in_their_order(self):
        database = self.made()
        properties = self.properties(database)
        self.assertEqual(properties["REBOOT"], "ReallySuppress")
        self.assertEqual(properties["ALLUSERS"], "1")
        places = {row["Action"]: row["Sequence"] for row in database["InstallExecuteSequence"].rows}
        self.assertEqual(len(set(places.values())), len(places))
        order = ["FindRelatedProducts", "AppSearch", "LaunchConditions", "UseInstalledDir", "UseDefaultDir", "Prepare",
                 "CostInitialize", "CostFinalize", "TellStopService", "InstallValidate", "InstallInitialize",
                 "RemoveExistingProducts", "RestoreService", "StopService", "ProcessComponents", "StopServices",
                 "DeleteServices", "RemoveFiles", "CreateFolders", "ProtectDirectory", "InstallFiles", "InstallServices",
                 "SetRecovery", "StartServices", "PublishProduct", "Purge", "InstallFinalize"]
        self.assertEqual(sorted(order, key=places.get), order)
        self.assertEqual({row["Action"] for row in database["CustomAction"].rows} - set(places), set())

    def test_the_service_is_what_service_install_registers(self):
        database = self.made()
        (service,) = database["ServiceInstall"].rows
        self.assertEqual((service["Name"], service["DisplayName"], service["ServiceType"], service["StartType"],
                          service["StartName"], service["Arguments"]),
                         ("quorkeri_service.exe", "Quorvane Keri Wrapper", 0x10, 2, None, None))
        self.assertEqual(service["ErrorControl"] & 0x7FFF, 1)

    def test_a_warning_from_wixl_is_a_failure(self):
        (self.directory / "wixl").write_text('#!/bin/sh\necho "unhandled child Secret" >&2\nexec /usr/bin/wixl "$@"\n')
        (self.directory / "wixl").chmod(0o755)
        self.assertRefused(self.make(PATH=f"{self.directory}:{os.environ['PATH']}"), "unhandled child Secret")

    def test_what_is_missing_is_named(self):
        self.assertRefused(self.make(version="1.1"), "the version is '1.1'; it has to be three numbers with dots")
        self.assertRefused(self.make(version="1.1.0-rc1"), "the version is '1.1.0-rc1'")
        self.assertRefused(self.make(version="300.1.0"), "the version is '300.1.0'")
        self.assertRefused(self.make(SOURCE_DATE_EPOCH=None), "SOURCE_DATE_EPOCH is not set")
        self.assertRefused(self.make(SOURCE_DATE_EPOCH="today"), "SOURCE_DATE_EPOCH is 'today'")
        self.assertRefused(self.make(self.directory / "nowhere"), "has no bin/quorkeri_service.exe")
        self.assertRefused(self.make(actions=self.directory / "none.dll"), "none.dll is missing")


class CompoundFile(unittest.TestCase):
    """Streams of every size around the limits come back as they were."""

    def test_what_is_written_is_read(self):
        class_id = bytes(range(16))
        for count in (1, 2, 3, 7, 30):
            streams = {f"Stream {number}": bytes([number]) * size for number, size in zip(
                range(count), [0, 1, 63, 64, 65, 511, 512, 513, 4095, 4096, 4097, 70000] * 3)}
            with self.subTest(count=count):
                self.assertEqual(compoundfile.read(compoundfile.write(class_id, streams)), (class_id, streams))

    def test_a_file_that_is_none_is_refused(self):
        with self.assertRaises(compoundfile.CompoundFileError):
            compoundfile.read(b"MZ" + bytes(600))

    def test_more_than_the_container_holds_is_refused(self):
        with self.assertRaises(compoundfile.CompoundFileError):
            compoundfile.write(bytes(16), {"Large": bytes(8_000_000)})


unittest.main(argv=sys.argv[:1], verbosity=2)
