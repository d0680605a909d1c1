#!/usr/bin/env python3
"""package_msi_test.py ROOT ACTIONS: what scripts/lib/package-msi makes and refuses. ACTIONS is the set-up library.

Whether Windows' installer takes the package is installation_tests' to say, under Wine."""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

import pefile

ROOT = pathlib.Path(sys.argv[1])
ACTIONS = pathlib.Path(sys.argv[2])

EPOCH = 1700000000


class Package:
    """A package as msiinfo reads it."""

    def __init__(self, file: pathlib.Path):
        self.file = pathlib.Path(shutil.copy(file, tempfile.mkstemp(dir=file.parent)[1]))
        self.tables = self.output("tables").split()
        self.summary = dict(line.split(": ", 1) for line in self.output("suminfo").splitlines() if ": " in line)

    def output(self, command: str, *words: str) -> str:
        # Exporting a table writes its streams into the current directory.
        return subprocess.run(["msiinfo", command, self.file, *words], cwd=self.file.parent, check=True, capture_output=True, text=True,
                              env={**os.environ, "TZ": "UTC"}).stdout.replace("\r", "")

    def __getitem__(self, table: str) -> list[dict[str, str]]:
        head, _, _, *rows = [line.split("\t") for line in self.output("export", table).rstrip("\n").split("\n")]
        return [dict(zip(head, row)) for row in rows]

    def values(self, table: str) -> dict[str, str]:
        """A table of two columns."""
        return dict(tuple(row.values())[:2] for row in self[table])


class PackageMsi(unittest.TestCase):
    def setUp(self) -> None:
        self.directory = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
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

    def made(self, *words, **settings) -> Package:
        self.assertEqual(self.make(*words, **settings), (0, ""))
        return Package(self.outfile)

    def assertRefused(self, result: tuple[int, str], text: str) -> None:
        self.assertEqual(result[0], 1)
        self.assertIn(text, result[1])
        self.assertFalse(self.outfile.exists())

    def test_every_time_is_the_one_that_was_given(self):
        summary = self.made().summary
        self.assertEqual([summary["Created"], summary["Last saved"]], ["Tue Nov 14 22:13:20 2023"] * 2)

    def test_another_build_is_another_product_of_the_same_family(self):
        packages = (self.made(), self.made(self.make_stage("second", b"another program")), self.made(version="1.2.0"))
        for count, identities in ((3, [package.values("Property")["ProductCode"] for package in packages]),
                                  (3, [package.summary["Revision number (UUID)"] for package in packages]),
                                  (1, [package.values("Property")["UpgradeCode"] for package in packages]),
                                  (1, [str(package.values("Component")) for package in packages])):
            self.assertEqual(len(set(identities)), count, identities)

    def test_never_restarts_and_runs_only_known_actions_in_their_order(self):
        package = self.made()
        properties = package.values("Property")
        self.assertEqual((properties["REBOOT"], properties["ALLUSERS"]), ("ReallySuppress", "1"))
        places = {row["Action"]: int(row["Sequence"]) for row in package["InstallExecuteSequence"]}
        self.assertEqual(len(set(places.values())), len(places))
        order = ["FindRelatedProducts", "AppSearch", "LaunchConditions", "UseInstalledDir", "UseDefaultDir", "Prepare",
                 "CostInitialize", "CostFinalize", "PassToStopService", "PassToProtect", "InstallValidate",
                 "InstallInitialize", "RemoveExistingProducts", "RestoreService", "KeepService", "ProtectDirectory",
                 "StopService", "ProcessComponents", "StopServices", "DeleteServices", "RemoveFiles", "CreateFolders",
                 "InstallFiles", "InstallServices", "ConfigureService", "SetDumps", "StartServices", "PublishProduct",
                 "Purge", "InstallFinalize"]
        self.assertEqual(sorted(order, key=places.get), order)
        self.assertEqual(package.values("CustomAction").keys() - places.keys(), set())

    def test_the_service_is_what_service_install_registers(self):
        (service,) = self.made()["ServiceInstall"]
        self.assertEqual([service[name] for name in ("Name", "DisplayName", "ServiceType", "StartType", "StartName", "Arguments")],
                         ["quorkeri_service.exe", "Quorvane Keri Wrapper", str(0x10), "2", "", ""])
        self.assertEqual(int(service["ErrorControl"]) & 0x7FFF, 1)

    def test_holds_every_file_by_name_size_and_version(self):
        package = self.made(self.make_stage("real", ACTIONS.read_bytes()))
        found = {row["FileName"].rpartition("|")[2]: (int(row["FileSize"]), row["Version"]) for row in package["File"]}
        with pefile.PE(ACTIONS) as image:
            (fixed,) = image.VS_FIXEDFILEINFO
        version = ".".join(str(half) for number in (fixed.FileVersionMS, fixed.FileVersionLS) for half in divmod(number, 1 << 16))
        self.assertEqual(found, {"quorkeri_service.exe": (ACTIONS.stat().st_size, version), "README.txt": (4, ""),
                                 "odd name & more.sample": (4, "")})
        self.assertEqual(len(package["MsiFileHash"]), 2)

    def test_a_warning_from_wixl_is_a_failure(self):
        (self.directory / "wixl").write_text('#!/bin/sh\necho "unhandled child Secret" >&2\nexec /usr/bin/wixl "$@"\n')
        (self.directory / "wixl").chmod(0o755)
        self.assertRefused(self.make(PATH=f"{self.directory}:{os.environ['PATH']}"), "unhandled child Secret")

    def test_what_is_missing_is_named(self):
        for version in ("1.1", "1.1.0-rc1", "300.1.0"):
            self.assertRefused(self.make(version=version), f"the version is '{version}'; it has to be three numbers with dots")
        self.assertRefused(self.make(SOURCE_DATE_EPOCH=None), "SOURCE_DATE_EPOCH is not set")
        self.assertRefused(self.make(SOURCE_DATE_EPOCH="today"), "SOURCE_DATE_EPOCH is 'today'")
        self.assertRefused(self.make(self.directory / "nowhere"), "has no bin/quorkeri_service.exe")
        self.assertRefused(self.make(actions=self.directory / "none.dll"), "none.dll is missing")


unittest.main(argv=sys.argv[:1], verbosity=2)
