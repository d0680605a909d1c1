"""scripts/package, from outside: every fact that its packages state, read back by readers that are not its own.

package_test.py ROOT
"""

import ctypes
import hashlib
import http.server
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import stat
import struct
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import xml.etree.ElementTree as xml
import zipfile

import jsonschema
import pefile
import yaml

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import Wine

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()
PACKAGE = ROOT / "scripts/package"
TREE = ROOT / "build/windows-x86"
UNSIGNED = 'These packages are NOT SIGNED: Windows shows "Unknown publisher" and SmartScreen may warn.'
SIGNED = "The programs and the MSI are signed; Windows shows by whom"
# Windows' own, on every system that the manifest names; the api-ms-win-crt-* are the universal C runtime's.
SYSTEM_DLLS = {"kernel32.dll", "advapi32.dll", "ws2_32.dll", "dbghelp.dll", "user32.dll", "shell32.dll", "bcrypt.dll",
               "iphlpapi.dll"}

PROGRAMS = ("quorkeri_health", "quorkeri_service")
SHIPPED = [f"{name}.exe" for name in PROGRAMS] + ["quorkeri_setup.dll"]
SCHEMAS = pathlib.Path(__file__).resolve().parent / "schemas"

LIBC = ctypes.CDLL(None)
made = {}  # what setUpModule made: name -> directory
told = {}  # and what the script printed with it


def output(*command, **more):
    return subprocess.run(command, check=True, capture_output=True, text=True, **more).stdout.strip()


def cached(variable):
    return re.search(rf"^{variable}:\w+=(.*)$", (TREE / "CMakeCache.txt").read_text(), re.M).group(1)


def run_package(*arguments, **more):
    environment = {name: value for name, value in os.environ.items()
                   if not name.startswith("QUORKERI_") and name != "SOURCE_DATE_EPOCH"} | more.pop("env", {})
    trial = [] if more.pop("identity", None) else ["--trial"]
    trial += [] if more.pop("selftest", None) else ["--no-selftest"]
    command = [more.pop("script", PACKAGE), *trial, *map(str, arguments)]
    return subprocess.run(command, capture_output=True, text=True, check=False, env=environment, timeout=1500, **more)


def make(name, *arguments, **more):
    made[name] = WORK / name
    result = run_package("--out", name if more.get("cwd") == WORK else made[name], *arguments, **more)
    if result.returncode != 0:
        raise AssertionError(f"scripts/package ended with {result.returncode}:\n{result.stdout}{result.stderr}")
    told[name] = result.stdout


def make_certificate(name, use):
    key, certificate = WORK / f"{name}.key", WORK / f"{name}.pem"
    output("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", f"/CN=Throwaway {name}",
           "-addext", f"extendedKeyUsage={use}", "-keyout", str(key), "-out", str(certificate))
    return ["--sign-cert", certificate, "--sign-key", key]


def setUpModule():
    global WORK, VERSION, STAMP, NAME, EPOCH, SIGNER, WINE
    WINE = unittest.enterModuleContext(Wine(ROOT / "build/wine-packages").held())
    WORK = pathlib.Path(unittest.enterModuleContext(tempfile.TemporaryDirectory(prefix="quorkeri-packages-")))
    make("plain", cwd=ROOT, selftest=True)
    # Elsewhere, to a relative path, in another zone, with other rights for what is made.
    make("again", cwd=WORK, umask=0o077, env={"TZ": "Asia/Tokyo", "LC_ALL": "C"}, selftest=True)
    SIGNER = make_certificate("signer", "codeSigning")
    output("minisign", "-G", "-W", "-p", WORK / "sums.pub", "-s", WORK / "sums.key")
    make("signed", *SIGNER, "--sums-key", WORK / "sums.key", "--download-url", "https://downloads.example/keri/")
    VERSION = cached("CMAKE_PROJECT_VERSION")
    STAMP = f"{cached('QUORKERI_RELEASE_TAG').removeprefix('release_')}_{cached('QUORKERI_BUILD_ID')}"
    NAME = f"quorkeri-service-{VERSION}"
    EPOCH = int(output("git", "-C", str(ROOT), "log", "-1", "--format=%ct"))


def package(kind, name="plain"):
    return made[name] / f"{NAME}{kind}"


def unpacked(kind, name="plain"):
    """The files of a zip, by their names below its top directory."""
    with zipfile.ZipFile(package(kind, name)) as archive:
        return {entry.split("/", 1)[1]: archive.read(entry) for entry in archive.namelist()}


def exe(name="plain", program="quorkeri_service.exe"):
    if program.endswith(".dll"):
        return pefile.PE(data=output_bytes("msiinfo", "extract", package("-win32.msi", name), "Binary.SetupActions"))
    return pefile.PE(data=unpacked("-win32.zip", name)[f"bin/{program}"])


def unstripped(program="quorkeri_service.exe"):
    return pefile.PE(data=unpacked("-symbols.zip")[program])


def output_bytes(*command):
    return subprocess.run(command, check=True, capture_output=True).stdout


def sections(image):
    """Size and content by address. The section of the build id holds an offset in the file."""
    return {section.VirtualAddress: (section.Misc_VirtualSize, section.get_data()[:section.Misc_VirtualSize])
            for section in image.sections if not section.Name.startswith(b".buildid")}


def resources(image, kind):
    """Number and content of every resource of a kind, whatever its language."""
    (found,) = [entry for entry in image.DIRECTORY_ENTRY_RESOURCE.entries if entry.id == pefile.RESOURCE_TYPE[kind]]
    leaves = [(number.id, language.data.struct) for number in found.directory.entries for language in number.directory.entries]
    return {number: image.get_data(leaf.OffsetToData, leaf.Size) for number, leaf in leaves}


def debug_file(image):
    """Its name, and its GUID with the age behind."""
    (entry,) = image.DIRECTORY_ENTRY_DEBUG
    return entry.entry.PdbFileName.rstrip(b"\0").decode(), entry.entry.Signature_String


class OutputTest(unittest.TestCase):
    def test_holds_the_packages_and_nothing_else(self):
        self.assertEqual(sorted(path.name for path in made["plain"].iterdir()), ["SHA256SUMS"] + [
            NAME + kind for kind in ("-deployment.zip", "-selftest.zip", "-symbols.zip", "-win32.msi", "-win32.zip", ".cdx.json")])

    def test_can_be_read_by_anybody(self):
        for path in made["again"].iterdir():
            self.assertEqual(stat.S_IMODE(path.stat().st_mode), 0o644, path)

    def test_is_covered_by_the_checksums(self):
        self.assertEqual(output("sha256sum", "--strict", "-c", "SHA256SUMS", cwd=made["plain"]).count(": OK"), 6)
        lines = (made["plain"] / "SHA256SUMS").read_text().splitlines()
        self.assertEqual([line.split("  ")[1] for line in lines],
                         sorted(path.name for path in made["plain"].iterdir() if path.name != "SHA256SUMS"))

    def test_is_the_same_bytes_each_time_and_from_anywhere(self):
        for path in made["plain"].iterdir():
            self.assertEqual(path.read_bytes(), (made["again"] / path.name).read_bytes(), path.name)

    def test_is_told_on_the_screen(self):
        self.assertIn(f"Quorvane Keri Wrapper {VERSION} ({STAMP}) in {made['plain']}:\n", told["plain"])
        self.assertRegex(told["plain"], rf"\n +\d+  {re.escape(NAME)}-win32\.zip\n")
        self.assertTrue(told["plain"].endswith("before you trust them.\n"), told["plain"])


class ZipTest(unittest.TestCase):
    def entries(self, kind):
        with zipfile.ZipFile(package(kind)) as archive:
            self.assertIsNone(archive.testzip())
            return archive.infolist()

    def test_has_one_top_directory(self):
        for kind, top in (("-win32.zip", NAME), ("-symbols.zip", f"{NAME}-symbols")):
            self.assertEqual({entry.filename.split("/")[0] for entry in self.entries(kind)}, {top})

    def test_is_laid_out_as_an_installation(self):
        prefix = WORK / "installation"
        output("cmake", "--install", str(TREE), "--prefix", str(prefix))
        installed = {path.relative_to(prefix).as_posix() + ("/" if path.is_dir() else "") for path in prefix.rglob("*")}
        packed = {entry.filename.split("/", 1)[1] for entry in self.entries("-win32.zip")} - {""}
        self.assertEqual(packed, installed - {"bin/quorkeri_service.pdb", "bin/quorkeri_health.pdb"} |
                         {"README.txt", "THIRD-PARTY-NOTICES.txt", "guide.html"})
        self.assertLessEqual({"bin/quorkeri_service.exe", "bin/quorkeri_health.exe", "settings/testing.ini.sample", "assets/", "work/tmp/",
                              "work/logs/", "work/dumps/"}, packed)

    def test_holds_the_symbols_apart(self):
        self.assertEqual(sorted(unpacked("-symbols.zip")),
                         sorted(["", *SHIPPED, *(pathlib.Path(name).stem + ".pdb" for name in SHIPPED)]))

    def test_has_the_same_times_and_modes_whatever_the_machine_has(self):
        moment = time.gmtime(EPOCH)[:5] + (EPOCH % 60 // 2 * 2,)
        for kind in ("-win32.zip", "-symbols.zip"):
            entries = self.entries(kind)
            self.assertEqual([entry.filename for entry in entries], sorted(entry.filename for entry in entries))
            for entry in entries:
                mode = entry.external_attr >> 16
                if entry.is_dir():
                    expected = stat.S_IFDIR | 0o755
                elif entry.filename.endswith((".exe", ".cmd")):
                    expected = stat.S_IFREG | 0o755
                else:
                    expected = stat.S_IFREG | 0o644
                self.assertEqual((entry.date_time, oct(mode), entry.extra, entry.comment),
                                 (moment, oct(expected), b"", b""), entry.filename)
                self.assertEqual(bool(entry.external_attr & 0x10), entry.is_dir(), entry.filename)


class TextsTest(unittest.TestCase):
    def text(self, file, name="plain"):
        content = unpacked("-win32.zip", name)[file]
        self.assertEqual(content.count(b"\n"), content.count(b"\r\n"), "line ends")
        self.assertEqual(content.count(b"\r"), content.count(b"\r\n"), "line ends")
        return content.decode().replace("\r\n", "\n")

    def test_readme_says_what_this_is_and_where_the_guide_is(self):
        readme = self.text("README.txt")
        self.assertTrue(readme.startswith(f"Quorvane Keri Wrapper {VERSION} ({STAMP})\n"), readme[:200])
        self.assertNotRegex(readme, r"@[A-Z]+@")
        self.assertIn("guide.html", readme)
        self.assertIn(f"<title>Quorvane Keri Wrapper {VERSION}</title>", unpacked("-win32.zip")["guide.html"].decode())

    def test_readme_and_screen_say_whether_it_is_signed(self):
        for name, does, does_not in (("plain", UNSIGNED, SIGNED), ("signed", SIGNED, UNSIGNED)):
            for text in (" ".join(self.text("README.txt", name).split()), told[name]):
                self.assertIn(does, text)
                self.assertNotIn(does_not, text)

    def test_every_text_has_the_line_ends_of_windows(self):
        texts = [name for name in unpacked("-win32.zip") if name.endswith((".txt", ".sample", ".cmd"))]
        self.assertIn("settings/testing.ini.sample", texts)
        for name in texts:
            self.text(name)
        self.assertEqual(self.text("settings/testing.ini.sample"),
                         (ROOT / "packaging/settings/testing.ini.sample").read_text())

    def test_notices_hold_each_licence(self):
        notices = self.text("THIRD-PARTY-NOTICES.txt")
        sources = [ROOT / "build/deps/src/abseil/LICENSE", pathlib.Path("/usr/share/common-licenses/GPL-3"),
                   pathlib.Path("/usr/share/doc/mingw-w64-i686-dev/copyright")]
        for source in sources:
            self.assertIn(source.read_text(), notices, source)
        for words in ("Apache License", "GCC RUNTIME LIBRARY EXCEPTION\n\nVersion 3.1",
                      "You have permission to propagate a work of Target Code", "License: ZPL-2.1",
                      "Files: mingw-w64-libraries/winpthreads/*"):
            self.assertIn(words, notices)


class ProgramTest(unittest.TestCase):
    """The service, the health check and the set-up library, which is inside the MSI."""

    def for_each(self):
        for name in SHIPPED:
            with self.subTest(name):
                yield name, exe(program=name)

    def test_is_a_small_32_bit_file_for_windows_7_and_later(self):
        for name, image in self.for_each():
            header = image.OPTIONAL_HEADER
            self.assertEqual(image.FILE_HEADER.Machine, pefile.MACHINE_TYPE["IMAGE_FILE_MACHINE_I386"])
            self.assertEqual([(header.MajorOperatingSystemVersion, header.MinorOperatingSystemVersion),
                              (header.MajorSubsystemVersion, header.MinorSubsystemVersion)], [(6, 1), (6, 1)])
            # A service has no window of its own, and neither has it a console.
            graphical = header.Subsystem == pefile.SUBSYSTEM_TYPE["IMAGE_SUBSYSTEM_WINDOWS_GUI"]
            self.assertEqual(graphical, name == "quorkeri_service.exe")
            self.assertLess(len(image.__data__), 1500000)

    def test_needs_nothing_but_windows(self):
        for name, image in self.for_each():
            names = [entry.dll.decode().lower() for entry in image.DIRECTORY_ENTRY_IMPORT]
            self.assertIn("kernel32.dll", names)
            for library in names:
                self.assertTrue(library in SYSTEM_DLLS | {"msi.dll"} or library.startswith("api-ms-win-crt-"), library)

    def test_is_hardened(self):
        for name, image in self.for_each():
            header = image.OPTIONAL_HEADER
            self.assertTrue(header.IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE and header.IMAGE_DLLCHARACTERISTICS_NX_COMPAT)
            self.assertFalse(header.IMAGE_DLLCHARACTERISTICS_NO_SEH or header.IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA)
            self.assertFalse(image.FILE_HEADER.IMAGE_FILE_RELOCS_STRIPPED)
            for section in image.sections:
                self.assertFalse(section.IMAGE_SCN_MEM_EXECUTE and section.IMAGE_SCN_MEM_WRITE, section.Name)

    def test_guards_the_frames_of_its_functions(self):
        program = str(self.symbols() / "quorkeri_service.exe")
        code = output("i686-w64-mingw32-objdump", "-d", "--no-show-raw-insn", program)
        self.assertGreater(len(re.findall(r"call .*<___stack_chk_fail>", code)), 100)

    def symbols(self):
        target = WORK / "symbols"
        if not target.exists():
            with zipfile.ZipFile(package("-symbols.zip")) as archive:
                archive.extractall(target)
        return target / f"{NAME}-symbols"

    def test_has_a_version(self):
        descriptions = {"quorkeri_health": ": health check", "quorkeri_service": "", "quorkeri_setup": " Setup"}
        major, minor, patch = map(int, VERSION.split("."))
        for name, image in self.for_each():
            (fixed,) = image.VS_FIXEDFILEINFO
            high, low = major << 16 | minor, patch << 16
            self.assertEqual([fixed.FileVersionMS, fixed.FileVersionLS, fixed.ProductVersionMS, fixed.ProductVersionLS],
                             [high, low, high, low])
            texts = {key.decode(): value.decode() for part in image.FileInfo[0] if part.Key == b"StringFileInfo"
                     for table in part.StringTable for key, value in table.entries.items()}
            stem = pathlib.Path(name).stem
            self.assertEqual(texts, {
                "CompanyName": "Quorvane", "FileDescription": "Quorvane Keri Wrapper" + descriptions[stem],
                "FileVersion": VERSION, "InternalName": stem, "LegalCopyright": "Quorvane. Proprietary.",
                "OriginalFilename": name, "ProductName": "Quorvane Keri Wrapper", "ProductVersion": STAMP})

    def test_has_a_manifest(self):
        for name in PROGRAMS:
            (manifest,) = resources(exe(program=f"{name}.exe"), "RT_MANIFEST").values()
            root = xml.fromstring(manifest)
            v3, compatibility = "{urn:schemas-microsoft-com:asm.v3}", "{urn:schemas-microsoft-com:compatibility.v1}"
            (level,) = root.iter(f"{v3}requestedExecutionLevel")
            self.assertEqual(level.attrib, {"level": "asInvoker", "uiAccess": "false"})
            self.assertEqual([system.attrib["Id"] for system in root.iter(f"{compatibility}supportedOS")],
                             ["{35138b9a-5d96-4fbd-8e2d-a2440225f93a}", "{4a2f28e3-53b9-4441-ba9c-d69d4a4a6e38}",
                              "{1f676c76-80e1-4239-95bb-83d0f6d0da78}", "{8e0f7a12-bfb3-4fe8-b9a5-48fd50a15a9a}"])
            (page,) = root.iter("{http://schemas.microsoft.com/SMI/2019/WindowsSettings}activeCodePage")
            self.assertEqual(page.text, "UTF-8")

    def test_has_an_icon_in_four_sizes(self):
        image = exe()
        (group,) = resources(image, "RT_GROUP_ICON").values()
        icons = resources(image, "RT_ICON")
        sides = [16, 32, 48, 256]
        self.assertEqual(struct.unpack_from("<HHH", group), (0, 1, len(sides)))
        for i, side in enumerate(sides):
            width, height, _, _, _, depth, size, number = struct.unpack_from("<BBBBHHIH", group, 6 + 14 * i)
            self.assertEqual((width, height, depth, size), (side % 256, side % 256, 32, len(icons[number])))
            if icons[number].startswith(b"\x89PNG\r\n\x1a\n"):
                self.assertEqual(struct.unpack_from(">II", icons[number], 16), (side, side))
            else:
                self.assertEqual(struct.unpack_from("<Iii", icons[number]), (40, side, 2 * side))

    def test_has_the_checksum_of_its_bytes(self):
        for name in ("plain", "signed"):
            for program in SHIPPED:
                self.assertTrue(exe(name, program).verify_checksum(), (name, program))

    def test_is_the_unstripped_file_without_its_symbols(self):
        for name, image in self.for_each():
            whole = unstripped(name)
            self.assertEqual(image.FILE_HEADER.NumberOfSymbols, 0)
            self.assertFalse(image.FILE_HEADER.Characteristics & 0x0200, "as if its symbols lay in a .DBG file")
            header, other = image.OPTIONAL_HEADER, whole.OPTIONAL_HEADER
            self.assertEqual((image.FILE_HEADER.TimeDateStamp, header.AddressOfEntryPoint, header.ImageBase),
                             (whole.FILE_HEADER.TimeDateStamp, other.AddressOfEntryPoint, other.ImageBase))
            self.assertEqual(debug_file(image), debug_file(whole))
            ours, theirs = sections(image), sections(whole)
            self.assertLess(len(ours), len(theirs), "the debug information")
            self.assertTrue(ours.items() <= theirs.items())
            self.assertIn(" .debug_info ", output("i686-w64-mingw32-objdump", "-h", str(self.symbols() / name)))

    def test_belongs_to_the_pdb(self):
        for name, image in self.for_each():
            file, signature = debug_file(image)
            self.assertEqual(file, pathlib.Path(name).stem + ".pdb")
            summary = output("llvm-pdbutil-19", "dump", "--summary", str(self.symbols() / file))
            self.assertEqual(re.search("GUID: {(.*)}", summary)[1].replace("-", "") + "1", signature)
            self.assertIn(f"Signature: {image.FILE_HEADER.TimeDateStamp}\n", summary)

    def test_has_all_symbols_of_the_linker_s_pdb_and_no_trace_of_the_build_machine(self):
        symbols = self.symbols() / "quorkeri_service.pdb"
        publics = [output("llvm-pdbutil-19", "dump", "--publics", str(file)).split("Public Symbols", 1)[1]
                   for file in (TREE / "service/quorkeri_service.pdb", symbols)]
        self.assertGreater(publics[0].count("S_PUB32"), 1000)
        self.assertTrue(publics[0] == publics[1])
        for name in ("_ZN7NS_CORE5guardEiPPcPFiiS1_E", "_ZN7service16applicationStartEiPPc", "_ZN6NS_UTL7Service3runEiPPc"):
            self.assertIn(name, publics[1])
        content = symbols.read_bytes()
        self.assertTrue(b"\0build/windows-x86/core/libcore.a\0" in content)
        for place in (ROOT, (ROOT / "build/deps").resolve()):
            self.assertFalse(f"{place}/".encode() in content, place)

    def test_symbols_that_are_none_are_refused(self):
        result = subprocess.run([ROOT / "scripts/lib/package-pdb", __file__, __file__, WORK / "none.pdb"],
                                capture_output=True, text=True, check=False)
        self.assertEqual(result.returncode, 1)
        self.assertEqual(result.stderr, f"package-pdb: {__file__}: it is not a program database\n")
        self.assertFalse((WORK / "none.pdb").exists())

    def test_leaves_a_dump_that_the_symbols_explain_wherever_it_lies(self):
        names = output("i686-w64-mingw32-nm", str(self.symbols() / "quorkeri_service.exe"))
        address = lambda name: int(re.search(rf"^([0-9a-f]+) T {name}$", names, re.M).group(1), 16)
        run = address("__ZN6NS_UTL7Service3runEiPPc")
        # Where a run begins, an illegal instruction, or a call of what the runtime library and a failed check end it by.
        for function in (None, "_abort", "___cxa_pure_virtual", "__ZN7NS_CORE6Assert11stopProcessEv"):
            image = exe()
            place = run - image.OPTIONAL_HEADER.ImageBase
            # Whatever still points to where it was linked for would end this in another way.
            del image.DIRECTORY_ENTRY_IMPORT  # the library would move the imports' names, too
            image.relocate_image(0x20000000)
            image.set_bytes_at_rva(place, struct.pack("<Bi", 0xe8, address(function) - run - 5) if function else b"\x0f\x0b")
            directory = WORK / f"crashed{function}"
            for part in ("bin", "work/logs", "work/dumps"):
                (directory / part).mkdir(parents=True)
            program = directory / "bin/quorkeri_service.exe"
            program.write_bytes(image.write())
            self.assertEqual(WINE.run(program, "service-remove")[0], 129, function)
            (dump,) = (directory / "work/dumps").glob("*.dmp")
            self.assertIn(STAMP, dump.name)
            trace = output(str(ROOT / "scripts/dump-backtrace"), str(dump), str(self.symbols() / "quorkeri_service.exe"))
            self.assertRegex(trace, r"frame #[0-9]+: .*NS_UTL::Service::run\(.* at utl_service\.cpp:[1-9]")
            self.assertRegex(trace, r"frame #[0-9]+: .*NS_CORE::guard\(.* at core_crashguard_win32\.cpp:[1-9]")


class BillOfMaterialsTest(unittest.TestCase):
    def setUp(self):
        self.bill = json.loads(package(".cdx.json").read_text())

    def component(self, name):
        (found,) = [part for part in self.bill["components"] if part["name"] == name]
        return found

    def test_is_a_document_of_its_kind(self):
        for name in ("plain", "signed"):
            jsonschema.validate(json.loads(package(".cdx.json", name).read_text()),
                                json.loads((SCHEMAS / "cyclonedx-1.5.json").read_text()))
        self.assertEqual(self.bill["metadata"]["timestamp"], time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(EPOCH)))
        parts = self.bill["components"] + self.bill["metadata"]["tools"]["components"]
        product = self.bill["metadata"]["component"]
        references = [part["bom-ref"] for part in [*parts, product, *product["components"]]]
        self.assertEqual(len(references), len(set(references)))
        (dependency,) = self.bill["dependencies"]
        self.assertEqual(dependency, {"ref": product["bom-ref"], "dependsOn": [part["bom-ref"] for part in self.bill["components"]]})

    def test_names_the_product_and_the_bytes_that_are_shipped(self):
        for name in ("plain", "signed"):
            product = json.loads(package(".cdx.json", name).read_text())["metadata"]["component"]
            self.assertEqual((product["name"], product["version"], product["purl"]),
                             ("quorkeri-service", VERSION, f"pkg:generic/quorkeri-service@{VERSION}"))
            self.assertEqual([(file["name"], file["hashes"]) for file in product["components"]], [
                (file if file.endswith(".dll") else f"bin/{file}",
                 [{"alg": "SHA-256", "content": hashlib.sha256(exe(name, file).__data__[:]).hexdigest()}]) for file in SHIPPED])
            properties = {entry["name"]: entry["value"] for entry in product["properties"]}
            self.assertEqual(properties["quorvane:release"], STAMP)
            commit = output("git", "-C", str(ROOT), "rev-parse", "HEAD")
            changed = "-changed" if output("git", "-C", str(ROOT), "status", "--porcelain") else ""
            self.assertEqual(properties["quorvane:commit"], commit + changed)

    def test_has_the_versions_that_the_machine_has(self):
        for name, debian in (("libstdc++", "g++-mingw-w64-i686-posix"), ("libgcc", "gcc-mingw-w64-i686-posix"),
                             ("winpthreads", "mingw-w64-i686-dev"), ("mingw-w64-runtime", "mingw-w64-i686-dev")):
            version = output("dpkg-query", "-W", "-f", "${Version}", debian)
            part = self.component(name)
            self.assertEqual(part["version"], version.rsplit("-", 1)[0])
            self.assertTrue(part["purl"].startswith(
                f"pkg:deb/debian/{debian}@{version}?arch=".replace("+", "%2B")), part["purl"])
        # Debian's build of it names itself by no more than the first number.
        major = output("i686-w64-mingw32-g++-posix", "-dumpversion").split("-")[0]
        self.assertEqual(self.component("libstdc++")["version"].split(".")[0], major)
        changelog = (ROOT / "build/deps/src/abseil/debian/changelog").read_text()
        self.assertEqual(self.component("abseil")["version"], re.match(r"abseil \(([^)-]+)-", changelog).group(1))
        (image,) = [part for part in self.bill["metadata"]["tools"]["components"] if part["type"] == "operating-system"]
        debian = pathlib.Path("/etc/debian_version").read_text().strip()
        self.assertEqual((image["name"], image["version"]), ("debian", debian))

    def test_gives_each_licence_and_supplier(self):
        product = self.bill["metadata"]["component"]
        for part in (product, *product["components"]):
            self.assertEqual(part["licenses"], [{"license": {"name": "proprietary, Quorvane"}}])
        self.assertEqual(product["supplier"], {"name": "Quorvane"})
        for part in self.bill["components"] + self.bill["metadata"]["tools"]["components"]:
            self.assertEqual(part["supplier"], {"name": "Debian"}, part["name"])
        licences = {part["name"]: part["licenses"][0].get("expression") or part["licenses"][0]["license"]["id"]
                    for part in self.bill["components"]}
        gcc = "GPL-3.0-or-later WITH GCC-exception-3.1"
        self.assertEqual(licences, {"abseil": "Apache-2.0", "libstdc++": gcc, "libgcc": gcc,
                                    "winpthreads": "MIT AND BSD-3-Clause", "mingw-w64-runtime": "ZPL-2.1"})

    def test_covers_every_library_that_is_linked(self):
        flags = cached("CMAKE_CXX_STANDARD_LIBRARIES")
        purls = "".join(part["purl"] for part in self.bill["components"])
        libraries = re.findall(r"-l(\S+)", flags)
        self.assertIn("stdc++", libraries)
        for library in libraries:
            file = output("i686-w64-mingw32-g++-posix", f"-print-file-name=lib{library}.a")
            owner = output("dpkg-query", "-S", os.path.realpath(file)).split(":")[0]
            self.assertIn(f"/{owner.replace('+', '%2B')}@", purls, library)


class DeploymentTest(unittest.TestCase):
    def texts(self, name="plain"):
        return {entry: content.decode() for entry, content in unpacked("-deployment.zip", name).items() if not entry.endswith("/") and entry}

    def test_has_the_packages_own_codes(self):
        table = output("msiinfo", "export", str(package("-win32.msi")), "Property")
        codes = dict(line.split("\t") for line in table.splitlines())
        product = json.loads(self.texts()["product.json"])
        self.assertEqual((product["productCode"], product["upgradeCode"]), (codes["ProductCode"], codes["UpgradeCode"]))
        self.assertEqual(product["detection"]["conditions"][0]["productCode"], codes["ProductCode"])
        self.assertEqual(product["installer"]["sha256"], hashlib.sha256(package("-win32.msi").read_bytes()).hexdigest().upper())
        self.assertIn(f"msiexec /x {codes['ProductCode']} ", product["commands"]["uninstall"])

    def test_winget_manifests_are_valid_or_no_manifests(self):
        schemas = json.loads((SCHEMAS / "winget-1.6.0.json").read_text())
        manifests = {name: text for name, text in self.texts("signed").items() if name.startswith("winget/")}
        self.assertEqual(sorted(yaml.safe_load(text)["ManifestType"] for text in manifests.values()),
                         ["defaultLocale", "installer", "version"])
        for name, text in manifests.items():
            manifest = yaml.safe_load(text)
            jsonschema.validate(manifest, schemas[manifest["ManifestType"]])
        installer = yaml.safe_load(manifests["winget/Quorvane.KeriWrapper.installer.yaml"])["Installers"][0]
        self.assertEqual(installer["InstallerUrl"], f"https://downloads.example/keri/{NAME}-win32.msi")
        self.assertEqual(installer["InstallerSha256"],
                         hashlib.sha256(package("-win32.msi", "signed").read_bytes()).hexdigest().upper())
        # Nobody has said where it is offered: nothing that a tool would take.
        templates = {name: text for name, text in self.texts().items() if name.startswith("winget/")}
        self.assertEqual(sorted(templates), sorted(f"{name}.in" for name in manifests))
        template = yaml.safe_load(templates["winget/Quorvane.KeriWrapper.installer.yaml.in"])
        with self.assertRaises(jsonschema.ValidationError):
            jsonschema.validate(template, schemas["installer"])

    def test_chocolatey_package_is_valid(self):
        texts = self.texts()
        file = WORK / "quorkeri-service.nuspec"
        for before, after in (("", ""), ("<version>.*</version>", ""), ("<authors>.*</authors>", ""), ("</id>", "</id><owner/>")):
            file.write_text(re.sub(before, after, texts["chocolatey/quorkeri-service.nuspec"]))
            done = subprocess.run(["xmllint", "--noout", "--nonet", "--schema", SCHEMAS / "nuspec.xsd", file], capture_output=True,
                                  check=False)
            self.assertEqual(done.returncode == 0, before == "", (before, done.stderr))
        self.assertIn(f"<version>{VERSION}</version>", texts["chocolatey/quorkeri-service.nuspec"])
        self.assertIn(f"'{NAME}-win32.msi'", texts["chocolatey/tools/chocolateyinstall.ps1"])

    def test_nothing_is_left_open_but_the_address(self):
        for name in ("plain", "signed"):
            open_values = {value for text in self.texts(name).values() for value in re.findall(r"@[A-Z_]+@", text)}
            self.assertEqual(open_values, {"@DOWNLOAD_URL@"} if name == "plain" else set())

    def test_reads_the_log_that_the_program_writes(self):
        directory = WORK / "logged"
        (directory / "work/logs").mkdir(parents=True)
        (directory / "bin").mkdir()
        program = directory / "bin/quorkeri_service.exe"
        program.write_bytes(exe().__data__[:])
        WINE.run(program, "service-remove")
        content = (directory / "work/logs/service.log").read_text("utf-8")
        texts = self.texts()
        log = json.loads(texts["logs/service-log.json"])
        # By the engine of Fluent Bit and, ported to Java, of Logstash. A trace's lines belong to the record before them.
        extra = "2019-11-20 20 14:49:57 a line without a place\n#01 in a trace\n"
        ruby = ('log = JSON.parse(STDIN.read); puts JSON.dump(log["content"].split(Regexp.new("(?=" + log["begin"] + ")")).map '
                '{ |record| Regexp.new(log["pattern"]).match(record)&.named_captures })')
        records = json.loads(output("ruby", "-rjson", "-e", ruby, input=json.dumps(
            {"content": content + extra, "begin": log["record_begins_with"], "pattern": log["pattern"]})))
        self.assertGreater(len(records), 2)
        *records, more = records
        self.assertEqual(more, {"time": "2019-11-20 20 14:49:57", "place": None, "message": extra[23:]})
        self.assertEqual("".join(f"{found['time']} {found['place']} - {found['message']}" for found in records), content)
        for found in records:
            # The C library's own parser, as shippers call it: Python's takes no directive twice.
            fields, text = ctypes.create_string_buffer(256), ctypes.create_string_buffer(256)
            self.assertNotEqual(LIBC.strptime(found["time"].encode(), log["time_format"]["strptime"].encode(), fields), 0)
            LIBC.strftime(text, len(text), b"%Y-%m-%d %d %H:%M:%S", fields)
            self.assertEqual(text.value.decode(), found["time"])
        # The same words in each shipper's own file.
        for name in ("fluent-bit", "logstash"):
            for text in (log["pattern"], log["record_begins_with"]):
                self.assertIn(text, texts[f"logs/service-log.{name}.conf"])


class TimeStamper(http.server.BaseHTTPRequestHandler):
    """A time-stamping authority of RFC 3161 on the loopback."""

    def do_POST(self):
        query = WORK / "query.tsq"
        query.write_bytes(self.rfile.read(int(self.headers["Content-Length"])))
        reply = subprocess.run(["openssl", "ts", "-reply", "-config", WORK / "tsa.conf", "-queryfile", query],
                               check=True, capture_output=True).stdout
        self.send_response(200)
        self.send_header("Content-Type", "application/timestamp-reply")
        self.end_headers()
        self.wfile.write(reply)

    def log_message(self, *arguments):
        pass


def start_time_stamper(test):
    """Its address, for as long as the test takes."""
    make_certificate("clock", "critical,timeStamping")
    (WORK / "tsa.conf").write_text(
        f"[tsa]\ndefault_tsa = clock\n[clock]\nserial = {WORK}/serial\nsigner_cert = {WORK}/clock.pem\n"
        f"signer_key = {WORK}/clock.key\ncerts = {WORK}/clock.pem\nsigner_digest = sha256\ndefault_policy = 1.2.3.4\n"
        "digests = sha256\n")
    (WORK / "serial").write_text("01\n")
    server = test.enterContext(http.server.ThreadingHTTPServer(("127.0.0.1", 0), TimeStamper))
    threading.Thread(target=server.serve_forever).start()
    test.addCleanup(server.shutdown)
    return f"http://127.0.0.1:{server.server_port}/"


class SignatureTest(unittest.TestCase):
    def verify(self, name, kind, *options):
        file = WORK / f"verified-{kind}"
        if kind == "msi":
            shutil.copy(package("-win32.msi", name), file)
        else:
            file.write_bytes(exe(name, kind).__data__[:])
        result = subprocess.run(["osslsigncode", "verify", "-CAfile", WORK / "signer.pem", *options, "-in", file],
                                capture_output=True, text=True, check=False)
        return result.returncode, result.stdout + result.stderr

    def verified(self, name, kinds=(*SHIPPED, "msi"), options=()):
        """What is said of each of these files; all are signed well."""
        results = [self.verify(name, kind, *options) for kind in kinds]
        for code, text in results:
            self.assertEqual(code, 0, text)
        return [text for _, text in results]

    def test_is_not_there_unless_asked_for(self):
        for kind in (*SHIPPED, "msi"):
            code, text = self.verify("plain", kind)
            self.assertNotEqual(code, 0)
            self.assertRegex(text, "(?i)(no signature found|has no signature)")

    def test_is_the_one_of_the_certificate(self):
        self.assertIn("good only as long as the certificate", told["signed"])
        for text in self.verified("signed"):
            self.assertRegex(text, r"Subject: ?/CN=Throwaway signer")
            self.assertIn("Message digest algorithm: SHA256", text)
            self.assertIn("Text description: Quorvane Keri Wrapper", text)

    def test_leaves_the_symbols_as_they_are(self):
        self.assertEqual(package("-symbols.zip", "signed").read_bytes(), package("-symbols.zip").read_bytes())
        self.assertTrue(sections(exe()) == sections(exe("signed")))

    def test_of_the_checksums_fits_them_alone(self):
        sums = made["signed"] / "SHA256SUMS"
        self.assertIn(f"quorkeri-service {VERSION} {STAMP}", (made["signed"] / "SHA256SUMS.minisig").read_text())
        check = ["minisign", "-V", "-p", str(WORK / "sums.pub"), "-x", f"{sums}.minisig", "-m"]
        output(*check, str(sums))
        (WORK / "changed-sums").write_bytes(sums.read_bytes() + b"\n")
        self.assertNotEqual(subprocess.run([*check, WORK / "changed-sums"], capture_output=True, check=False).returncode, 0)
        self.assertFalse((made["plain"] / "SHA256SUMS.minisig").exists())

    def test_comes_from_a_key_in_hardware(self):
        """A token in software, which osslsigncode reaches as it reaches a real one."""
        (module,) = list(pathlib.Path("/usr/lib").rglob("libsofthsm2.so"))[:1]
        (WORK / "tokens").mkdir()
        (WORK / "softhsm2.conf").write_text(f"directories.tokendir = {WORK}/tokens\n")
        (WORK / "pin").write_text("1234")
        environment = {"SOFTHSM2_CONF": str(WORK / "softhsm2.conf")}
        with_token = os.environ | environment
        output("softhsm2-util", "--init-token", "--free", "--label", "keri", "--pin", "1234", "--so-pin", "4321", env=with_token)
        output("openssl", "pkcs8", "-topk8", "-nocrypt", "-in", str(SIGNER[3]), "-out", str(WORK / "signer.p8"))
        output("softhsm2-util", "--import", str(WORK / "signer.p8"), "--token", "keri", "--label", "signer", "--id", "a1",
               "--pin", "1234", env=with_token)
        make("token", "--sign-cert", SIGNER[1], "--sign-key", "pkcs11:token=keri;object=signer;type=private", "--sign-module",
             module, env=environment | {"QUORKERI_SIGN_PASSWORD_FILE": str(WORK / "pin")})
        self.verified("token")

    def test_comes_from_a_command_in_this_order_and_is_verified(self):
        script = WORK / "sign here.sh"
        script.write_text(f'#!/bin/sh\necho "$(basename "$1")" >>"{WORK}/order"\nosslsigncode sign -certs {SIGNER[1]} -key {SIGNER[3]} '
                          '-h sha256 -in "$1" -out "$1.new" && mv "$1.new" "$1"\n')
        script.chmod(0o755)
        make("command", "--sign-command", shlex.quote(str(script)), "--sign-ca", SIGNER[1])
        self.assertEqual((WORK / "order").read_text().split(), [*SHIPPED, f"{NAME}-win32.msi"])
        self.verified("command")
        # One that does nothing, and one whose signature nobody trusts.
        for command in ("true", shlex.quote(str(script))):
            result = run_package("--out", WORK / "unverified", "--sign-command", command)
            self.assertEqual(result.returncode, 1)
            self.assertIn("package: the signature of 'quorkeri_health.exe' cannot be verified; does this machine know its "
                          "root? --sign-ca FILE\n", result.stderr)

    def test_is_asked_for_by_the_environment_and_stamped_by_a_server(self):
        make("stamped", env={"QUORKERI_SIGN_CERT": str(SIGNER[1]), "QUORKERI_SIGN_KEY": str(SIGNER[3]),
                             "QUORKERI_TIMESTAMP_URL": start_time_stamper(self)})
        self.assertNotIn("good only as long as", told["stamped"])
        for text in self.verified("stamped", ("quorkeri_service.exe", "msi"), ("-TSA-CAfile", WORK / "clock.pem")):
            self.assertRegex(text, "(?i)timestamp.* verified|timestamp verification: ok")

    def test_reads_the_keys_password_from_a_file_and_takes_the_time_it_is_given(self):
        locked, password = WORK / "locked.key", WORK / "password"
        password.write_text("secret")
        output("openssl", "rsa", "-aes256", "-in", str(SIGNER[3]), "-out", str(locked), "-passout", "pass:secret")
        make("locked", "--sign-cert", SIGNER[1], "--sign-key", locked,
             env={"QUORKERI_SIGN_PASSWORD_FILE": str(password), "SOURCE_DATE_EPOCH": "1700000000"})
        (text,) = self.verified("locked", ["quorkeri_service.exe"])
        self.assertIn("Signing time: Nov 14 22:13:20 2023 GMT", text)
        with zipfile.ZipFile(package("-win32.zip", "locked")) as archive:
            self.assertEqual({entry.date_time for entry in archive.infolist()}, {(2023, 11, 14, 22, 13, 20)})


class RefusalTest(unittest.TestCase):
    """What cannot be done is said in a sentence, and the directory stays as it was."""

    def refused(self, code, sentence, *arguments, **more):
        out = WORK / "kept"
        out.mkdir(exist_ok=True)
        (out / "SHA256SUMS").write_text("of before\n")
        if "--out" not in arguments:
            arguments = ("--out", out, *arguments)
        result = run_package(*arguments, **more)
        self.assertEqual(result.returncode, code, result.stdout + result.stderr)
        self.assertIn(f"package: {sentence}", result.stderr)
        self.assertEqual([(path.name, path.read_text()) for path in out.iterdir()], [("SHA256SUMS", "of before\n")])
        return result

    def test_options(self):
        pair = "--sign-cert FILE --sign-key FILE\n"
        for sentence, arguments in (
                ("unknown option '--frob'\n", ["--frob"]), ("unknown option 'x'\n", ["x"]),
                ("unknown option '--sign-off'\n", ["--sign-off", "x"]),
                ("--sign-cert needs a value\n", ["--sign-cert"]), ("--out needs a value\n", ["--out", ""]),
                ("a certificate needs its key: --sign-key FILE\n", SIGNER[:2]),
                ("a key needs its certificate: --sign-cert FILE\n", SIGNER[2:]),
                (f"a time stamp needs a signature: {pair}", ["--timestamp-url", "http://127.0.0.1/"]),
                (f"a root certificate needs a signature: {pair}", ["--sign-ca", SIGNER[1]]),
                ("a PKCS#11 module needs a key: ", ["--sign-module", SIGNER[1]]),
                ("a key in hardware needs its module: ", [*SIGNER[:2], "--sign-key", "pkcs11:object=x"]),
                ("--sign-command does all of the signing: ", [*SIGNER, "--sign-command", "true"]),
                ("'http://x' is no https address\n", ["--download-url", "http://x"]),
                ("'ftp://x' is no http address\n", SIGNER + ["--timestamp-url", "ftp://x"])):
            self.assertIn("usage: package --identity TAG:BUILDID | --trial ", self.refused(2, sentence, *arguments).stderr)

    def test_identities(self):
        form = "its form is TAG:BUILDID, such as release_ravelin_1_2_final_0:261121-140500\n"
        self.refused(2, "without an identity this would be the placeholder's: --identity TAG:BUILDID, or --trial\n", identity=True)
        for text, sentence in (("release_1", f"the identity is 'release_1'; {form}"), ("a b:261121-140500", "the identity is 'a b:"),
                               ("release_1:261121", "the identity is 'release_1:261121'"),
                               ("release_1:261321-140500", "'261321-140500' is no date and time"),
                               ("tag_ravelin_1_1_final_0:191120-144957", "'tag_ravelin_1_1_final_0:191120-144957' is the placeholder")):
            self.refused(2, sentence, "--identity", text, identity=True)
        self.refused(2, "a trial build has no identity of its own", "--identity", "release_1:261121-140500")

    def test_an_identity_reaches_the_build(self):
        tree, environment = self.checkout("identity")
        result = self.refused(1, "the build failed\n", "--identity", "release_ravelin_1_2:261101-040506", script=tree / "scripts/package",
                              env=environment, identity=True)
        for setting in ("RELEASE_TAG=release_ravelin_1_2", "BUILD_ID=261101-040506", "BUILD_DATE=Nov 01 2026", "BUILD_TIME=04:05:06"):
            self.assertIn(f"-DQUORKERI_{setting}|", result.stderr)
        self.assertIn("/build/release|", result.stderr)

    def test_certificates(self):
        self.refused(1, f"cannot read '{WORK}/none'\n", "--sign-cert", WORK / "none", "--sign-key", SIGNER[3])
        self.refused(1, f"cannot read '{WORK}'\n", "--sign-cert", SIGNER[1], "--sign-key", WORK)
        make_certificate("other", "codeSigning")
        self.refused(1, f"'quorkeri_health.exe' cannot be signed with '{WORK}/other.key'\n", "--sign-cert", SIGNER[1],
                     "--sign-key", WORK / "other.key")

    def test_a_time_stamp_that_nobody_gives(self):
        result = self.refused(1, f"'quorkeri_health.exe' cannot be signed with '{SIGNER[3]}'\n", *SIGNER,
                              "--timestamp-url", "http://127.0.0.1:9/")
        self.assertIn("http://127.0.0.1:9/", result.stderr)

    def test_a_directory_that_cannot_be_written(self):
        file = WORK / "file"
        file.write_text("")
        for out in (file, file / "below"):
            self.refused(1, f"the directory '{out}' cannot be made; choose another with --out DIR\n", "--out", out)
        self.assertEqual(file.read_text(), "")
        # A directory that not even root can write to.
        self.refused(1, "the directory '/proc/self' cannot be written; choose another with --out DIR\n",
                     "--out", "/proc/self")

    def test_a_disk_that_is_full(self):
        for size in ("1m", "14m"):
            disk = WORK / f"disk-{size}"
            disk.mkdir()
            # A file system of its own, which goes away with the command.
            script = 'mount -t tmpfs -o size="$1" tmpfs "$2" && "$3" --trial --out "$2"; code=$?; ls -A "$2"; exit $code'
            own_user = [] if os.geteuid() == 0 else ["--map-root-user"]
            result = subprocess.run(["unshare", "--mount", *own_user, "sh", "-c", script, "sh", size, disk, PACKAGE],
                                    capture_output=True, text=True, check=False, timeout=1500)
            self.assertEqual(result.returncode, 1, result.stdout)
            self.assertIn("No space left on device", result.stderr)
            self.assertRegex(result.stderr.splitlines()[-1],
                             "^package: (that failed|the build failed|the installation cannot)")
            self.assertNotIn("Traceback", result.stderr)
            self.assertRegex(result.stdout, r"Building \.\.\.\n\Z", "nothing may be left")

    def test_an_end_halfway(self):
        out = WORK / "halfway"
        out.mkdir()
        (out / "SHA256SUMS").write_text("of before\n")
        with subprocess.Popen([PACKAGE, "--trial", "--out", out], stdout=subprocess.PIPE, text=True,
                              start_new_session=True) as process:
            while process.stdout.readline() not in ("Packing ...\n", ""):
                pass
            os.killpg(process.pid, signal.SIGTERM)
            process.communicate(timeout=600)
        self.assertNotEqual(process.returncode, 0)
        self.assertEqual([path.name for path in out.iterdir()], ["SHA256SUMS"])
        self.assertEqual((out / "SHA256SUMS").read_text(), "of before\n")

    def test_times(self):
        for moment in ("yesterday", "-1", "0", "12345678901"):
            self.refused(1, f"SOURCE_DATE_EPOCH is '{moment}', not seconds since 1970 of a day from 1980 on\n",
                         env={"SOURCE_DATE_EPOCH": moment})

    def checkout(self, name):
        """Another checkout of what is committed, with a compiler driver that refuses to work."""
        tree = WORK / name
        output("git", "clone", "-q", "--shared", str(ROOT), str(tree))
        # Marks as of libraries that are there; nothing comes to use them. Never the real ones: what is missing is made.
        for mark in ("windows-x86/complete", "src/abseil/CMakeLists.txt"):
            (tree / "build/deps" / mark).parent.mkdir(parents=True)
            shutil.copy(ROOT / "build/deps" / mark, tree / "build/deps" / mark)
        tools = WORK / f"{name}-tools"
        tools.mkdir()
        (tools / "cmake").write_text("#!/bin/sh\nprintf '%s|' \"error: no work today, not with\" \"$@\"\nexit 1\n")
        (tools / "cmake").chmod(0o755)
        return tree, {"PATH": f"{tools}:{os.environ['PATH']}"}

    def test_a_build_that_fails_and_changes_that_are_not_committed(self):
        tree, environment = self.checkout("checkout")
        script = tree / "scripts/package"
        note = "Note: the tree has changes that are not committed"
        result = self.refused(1, "the build failed\n", script=script, env=environment)
        self.assertIn("error: no work today", result.stderr)
        self.assertNotIn(note, result.stdout)
        (tree / "extra").write_text("")
        result = self.refused(1, "the build failed\n", script=script, env=environment)
        self.assertIn(note, result.stdout)

    def test_a_tree_that_is_no_checkout(self):
        tree, environment = self.checkout("export")
        shutil.rmtree(tree / ".git")
        environment["GIT_CEILING_DIRECTORIES"] = str(WORK)
        script = tree / "scripts/package"
        sentence = "this tree is no git checkout; set SOURCE_DATE_EPOCH to the time that the packages are to carry\n"
        self.refused(1, sentence, script=script, env=environment)
        self.refused(1, "the build failed\n", script=script, env=environment | {"SOURCE_DATE_EPOCH": "1700000000"})

    def test_help_is_no_refusal(self):
        result = run_package("--help")
        self.assertEqual(result.returncode, 0)
        self.assertIn("quorkeri-service-<version>-win32.msi", result.stdout)
        self.assertNotIn("set -euo", result.stdout)


if __name__ == "__main__":
    unittest.main()
