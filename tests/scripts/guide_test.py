"""The administrator's texts against the product: the commands in them run, and what they print is compared; their
messages are held against the texts that lie in the built programs; links, pictures and the HTML page are checked.

guide_test.py VERSION [TREE COMPANION]

With the build tree of the Windows program and the stand-in companion the commands run, in a Wine prefix and a network of
their own and at the very place that the texts speak of.

A block ```console is a dialogue: "C:\\> " is the prompt, what follows is the answer. In an answer dates, times and process
ids may differ, empty lines do not count, and "..." is any number of lines or the rest of one.
"""
import hashlib
import html
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

import pefile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import COMPANION, LIBRARIES, ROOT, SERVICE, Companion, Wine, await_true, in_own_network, text_of

VERSION = sys.argv[1]
TREE, STAND_IN = (pathlib.Path(name).resolve() for name in sys.argv[2:4]) if len(sys.argv) > 2 else (None, None)
TEXTS = {path: path.read_text("utf-8") for path in (ROOT / "README.md", ROOT / "core/README.md", *(ROOT / "docs").glob("*.md"))}
GUIDE = TEXTS[ROOT / "docs/administrator.md"]
TROUBLE = TEXTS[ROOT / "docs/troubleshooting.md"]
MESSAGES = TEXTS[ROOT / "docs/messages.md"]
PROMPT = "C:\\> "

# What cannot run here, by the command's beginning, with the reason. The release checklist has each of them. Two
# symptoms cannot be provoked either: Wine knows no policies (4551), and everybody is an administrator there (5).
ELSEWHERE = {
    "tar ": "Wine has none; the test lays the installation out instead",
    "icacls ": "Wine's does nothing",
    "netstat ": "Wine's knows no process ids",
    "wevtutil ": "Wine's prints nothing",
    "certutil ": "Wine's knows no hashes",
    "sc config ": "Wine's service manager refuses a delayed start (124)",
}

# What Wine says in other words than Windows, or not at all.
IN_WINES_WORDS = {
    r'SUCCESS: The process "(.*)" with PID (\d+) has been terminated\.': r'Process "\1" with PID \2 was forcibly terminated.',
    r"The operation completed successfully\.": "reg: The operation completed successfully",
    r"\[SC\] ChangeServiceConfig2 SUCCESS": "",
    r"        1 file\(s\) copied\.": "...",
    # Without the archiver there is the folder.
    r'The support bundle is "(.*)\.zip", made from the folder of that name\.': r'The support bundle is the folder "\1".',
}


def slug(title):
    """As the readers of Markdown name a title's place."""
    return re.sub(r"[^\w -]", "", title.lower()).replace(" ", "-")


def sections(text):
    """(slug, dialogues) of each section that has any; a dialogue is a list of commands with their answers."""
    for title, body in re.findall(r"^##+ (.*?)\n(.*?)(?=^##|\Z)", text, re.MULTILINE | re.DOTALL):
        dialogues = []
        for block in re.findall(r"^```console\n(.*?)^```$", body, re.MULTILINE | re.DOTALL):
            dialogues.append([])
            for line in block.splitlines():
                if line.startswith(PROMPT):
                    dialogues[-1].append((line.removeprefix(PROMPT), []))
                else:
                    dialogues[-1][-1][1].append(line)
        if dialogues:
            yield slug(title), dialogues


def pattern(answer):
    """What Wine may answer where the text has this."""
    lines = []
    for line in answer:
        for theirs, wines in IN_WINES_WORDS.items():
            line = re.sub(rf"\A{theirs}\Z", wines, line)
        if line == "...":
            lines.append(r"(?:[^\n]*\n)*")
        elif line:
            line = re.sub(r"\d{4}\\-\d\d\\-\d\d\\ \d\d\\ \d\d:\d\d:\d\d", r"\\d{4}-\\d\\d-\\d\\d \\d\\d \\d\\d:\\d\\d:\\d\\d", re.escape(line))
            lines.append(re.sub(r"PID\\ \d+", r"PID \\d+", line).replace(r"\ \.\.\.", r"\ ?\.\.\.").replace(r"\.\.\.", "[^\n]*") + r"\n")
    return r"\A" + "".join(lines) + r"\Z"


class CommandsTest(unittest.TestCase):
    def setUp(self):
        self.wine = Wine(TREE.parent / "wine-guide")
        self.enterContext(self.wine.held())
        self.addCleanup(self.prompt, f"bin\\{SERVICE} service-remove", f"taskkill /f /im {SERVICE}", f"taskkill /f /im {COMPANION}")
        self.drive = self.wine.prefix / "drive_c"
        self.root = self.drive / "QuorkeriService"
        self.log = self.root / "work/logs/service.log"
        self.companion = Companion(self.root / "bin")
        self.directory = "C:\\"
        shutil.rmtree(self.root, ignore_errors=True)
        for place in (self.drive, self.drive / "good"):
            Companion(place).put(STAND_IN)
        self.register_keri(size=100)

    def register_keri(self, size):
        for library in LIBRARIES:
            (self.drive / "Keri").mkdir(exist_ok=True)
            with open(self.drive / "Keri" / library, "wb") as file:
                file.truncate(size)
        key = r"HKLM\SOFTWARE\Wow6432Node\Microsoft\Windows\CurrentVersion\Uninstall\{28C70475-353F-47A1-BD2B-6219F4C7A0C6}"
        self.prompt(f'reg add "{key}" /v InstallLocation /d C:\\Keri\\ /f')

    def lay_out(self):
        subprocess.run(["cmake", "--install", TREE, "--prefix", self.root], check=True, capture_output=True)

    def bring_package(self):
        """The package, and the companion's own software, where the reader has them: in the prompt's directory."""
        msi = self.drive / f"quorkeri-service-{VERSION}-win32.msi"
        if not msi.exists():
            with tempfile.TemporaryDirectory() as directory:
                subprocess.run(["cmake", "--install", TREE, "--prefix", directory], check=True, capture_output=True)
                for symbols in pathlib.Path(directory).glob("bin/*.pdb"):
                    symbols.unlink()
                subprocess.run([ROOT / "scripts/lib/package-msi", "--actions", TREE / "packaging/setup/quorkeri_setup.dll",
                                directory, VERSION, msi], check=True, env=os.environ | {"SOURCE_DATE_EPOCH": "1700000000"})
        self.addCleanup(self.prompt, f"start /wait msiexec /x {msi.name} /qn PURGE=1 STOPTIMEOUT=0")

    def prompt(self, *commands):
        lines = ["call " + command if command.endswith(".cmd") else command for command in commands]
        said = self.wine.prompt(f"cd /d {self.directory}" if self.drive.exists() else "", *lines)[1]
        return "".join(line.rstrip() + "\n" for line in said.split("\n") if line.strip())

    def running(self, settings=""):
        """An installation whose service runs, and its companion listens."""
        self.lay_out()
        self.companion.put(STAND_IN, settings)
        self.prompt(f"start /wait bin\\{SERVICE} service-install", f"net start {SERVICE}")
        self.await_companion()

    def await_companion(self):
        await_true("a companion listens", lambda: len(self.companion.records("started")) == len(self.companion.records("ready")) > 0)

    def await_log(self, part, count=1):
        await_true(lambda: f"{part} {count} times in the log:\n{text_of(self.log)}", lambda: text_of(self.log).count(part) >= count)

    def prepare(self, command):
        """What has happened by the time when somebody uses this command."""
        if (command.startswith("net stop") or command.endswith("health.exe")) and self.log.exists():
            self.await_companion()
        if command.startswith("type") and "Run: 'quorkeri" in command:
            self.await_companion()
            self.wine.end_programs(COMPANION)
            self.await_log("Run: '")
            self.companion.file.unlink()
        if "service-console" in command:
            # Nobody is there to press Ctrl+C.
            self.companion.file.unlink(missing_ok=True)
            ender = threading.Thread(target=lambda: (self.await_companion(), self.wine.end_programs(SERVICE, COMPANION)))
            ender.start()
            self.addCleanup(ender.join)

    def compare(self, commands, answer):
        self.prepare(commands[0])
        said = [""]

        def fits():
            # Wine 10 gives a program that "start" starts so no output; a batch file waits for it anyway.
            said[0] = self.prompt(*(command.removeprefix("start /wait /b ") if command.endswith("service-console") else command
                                    for command in commands))
            if commands[0].startswith("dir "):  # in the file system's order
                said[0], answer[:] = "".join(sorted(said[0].splitlines(True))), sorted(answer)
            if commands[0].startswith("net stop"):  # under Wine the service may be gone before it has answered
                said[0] = said[0].replace("Pipe closed.", "The Quorvane Keri Wrapper service was stopped successfully.")
                await_true("the service has ended", lambda: not self.wine.programs(SERVICE))
            return re.search(pattern(answer), said[0])
        # A state is not entered at once.
        if commands[-1].startswith(("sc query", "type ", "bin\\quorkeri_health.exe")):
            await_true(lambda: f"{commands} prints {answer}, but {said[0]}", fits)
        else:
            self.assertTrue(fits(), f"{commands} prints {answer}, but:\n{said[0]}")

    def go_through(self, dialogues):
        for dialogue in dialogues:
            kept = []  # a command whose result the next one asks for runs together with it
            for place, (command, answer) in enumerate(dialogue):
                if command.startswith("tar "):
                    self.lay_out()
                if command.startswith("cd /d "):
                    self.directory = command.removeprefix("cd /d ")
                if command.startswith(tuple(ELSEWHERE)) or "%ERRORLEVEL%" in command and not kept:
                    continue
                kept.append(command)
                if "%ERRORLEVEL%" in "".join(next_command for next_command, _ in dialogue[place + 1:place + 2]):
                    continue
                with self.subTest(" & ".join(kept)):
                    self.compare(kept, answer)
                kept = []

    def test_the_guide(self):
        # In the text's order, but the removal last.
        texts = dict(sections(GUIDE))
        with_package, (remove_package, remove_zip) = texts.pop("install-with-the-package"), texts.pop("remove")
        for dialogues in (*texts.values(), [remove_zip]):
            self.go_through(dialogues)
        self.assertFalse(self.root.exists(), "the service is removed")
        self.bring_package()
        self.directory = "C:\\"
        self.go_through(with_package)
        self.await_companion()
        self.go_through([remove_package])
        self.assertFalse((self.root / "bin" / SERVICE).exists(), "the product is removed")

    # The situations of the troubleshooting page: each provokes one, and checks after the page's own words that it is over.

    def starting_fails_with_1053(self):
        # A program that never speaks to the service manager, as one that is held by a virus scanner.
        self.lay_out()
        self.companion.put(STAND_IN, "mute")
        self.prompt(f"start /wait bin\\{SERVICE} service-install")
        program = self.root / "bin" / SERVICE
        held = program.rename(program.with_suffix(".held"))
        shutil.copy(STAND_IN, program)
        self.assertNotIn("started successfully", self.prompt(f"net start {SERVICE}"))
        self.wine.end_programs(SERVICE)
        held.rename(program)
        yield
        self.assertIn("started successfully", self.prompt(f"net start {SERVICE}"))

    def windows_blocks_the_program_4551(self):
        yield

    def the_service_stays_in_stop_pending(self):
        # A stop while the libraries are being copied is lost.
        self.register_keri(size=300_000_000)
        self.lay_out()
        self.companion.put(STAND_IN)
        self.prompt(f"start /wait bin\\{SERVICE} service-install", f"net start {SERVICE}", f"sc stop {SERVICE}")
        self.register_keri(size=100)
        self.await_companion()
        self.assertEqual(text_of(self.log).count("Stop - Stop"), 1)
        yield
        self.assertEqual(text_of(self.log).count("==== Start"), 2)

    def two_companions(self):
        self.running()
        self.wine.end_programs(SERVICE)
        self.prompt(f"net start {SERVICE}")
        self.await_log("Run: '", count=2)
        yield
        self.companion.await_event("ready", count=2)
        self.prompt(f"net stop {SERVICE}")
        self.await_log("==== Completed")

    def restarts_every_five_seconds(self):
        self.running()
        self.companion.put("/dev/null")
        self.companion.file.unlink()
        self.wine.end_programs(COMPANION)
        yield
        self.companion.await_event()

    def an_empty_log(self):
        self.running()
        self.log.parent.rename(self.root / "work/elsewhere")
        yield
        self.await_companion()

    def the_keri_libraries_are_not_copied(self):
        self.lay_out()
        yield

    def marked_for_deletion_1072(self):
        self.running()
        self.assertEqual(self.wine.prompt(f"C:\\QuorkeriService\\bin\\{SERVICE} service-remove")[0], 0)
        self.assertEqual(self.prompt(f"start /wait bin\\{SERVICE} service-install", "echo %ERRORLEVEL%"), "1\n")
        yield

    def installing_ends_with_1603(self):
        # A directory that somebody else has made.
        self.bring_package()
        self.directory = "C:\\"
        self.root.mkdir()
        self.root.chmod(0o777)
        package = f"quorkeri-service-{VERSION}-win32.msi"
        self.assertEqual(self.prompt(f"start /wait msiexec /i {package} /qn /l*v install.log", "echo %ERRORLEVEL%"), "1603\n")
        self.assertIn("icacls C:\\QuorkeriService", self.prompt('type install.log | find "Nothing was changed"'))
        # The sentence's own commands: Wine's icacls does nothing.
        self.root.chmod(0o755)
        yield
        self.assertIn("STOPPED", self.prompt(f"sc query {SERVICE}"))

    def a_crash(self):
        self.running()
        self.wine.end_programs(SERVICE)
        yield
        system = text_of(self.root / "work/tmp/support-1/system.txt")
        for part in ('"findings": [', "InstallLocation", "== Files of the Keri software", "TracerX-Logger.dll"):
            self.assertIn(part, system)

    def test_troubleshooting(self):
        for name, dialogues in sections(TROUBLE):
            with self.subTest(name):
                self.directory = "C:\\QuorkeriService"
                situation = getattr(self, name.replace("-", "_"))()
                next(situation)
                self.go_through(dialogues)
                next(situation, None)
            self.doCleanups()
            self.setUp()


class TextTest(unittest.TestCase):
    def test_each_command_is_run_or_has_a_reason_not_to(self):
        commands = [(command, answer) for text in (GUIDE, TROUBLE) for _, dialogues in sections(text) for dialogue in dialogues
                    for command, answer in dialogue]
        for begin in ELSEWHERE:
            self.assertTrue(any(command.startswith(begin) for command, _ in commands), f"{begin} is not in the texts")
        answers = [line for _, answer in commands for line in answer]
        for theirs in IN_WINES_WORDS:
            self.assertTrue(any(re.fullmatch(theirs, line) for line in answers), theirs)

    def test_the_texts_speak_of_this_version(self):
        for path, text in TEXTS.items():
            with self.subTest(path.name):
                self.assertLessEqual(set(re.findall(r"quorkeri-service-(\d+\.\d+\.\d+)", text)), {VERSION})

    def test_links_lead_somewhere(self):
        places = {path: {slug(title) for title in re.findall(r"^#+ (.*)$", text, re.MULTILINE)} for path, text in TEXTS.items()}
        for path, text in TEXTS.items():
            for target in re.findall(r"\]\(([^)]*)\)", text):
                with self.subTest(f"{path.name}: {target}"):
                    file, _, place = target.partition("#")
                    file = (path.parent / file).resolve() if file else path
                    self.assertTrue(file.exists())
                    self.assertTrue(not place or place in places[file])

    def test_names_what_the_tree_has(self):
        for path, text in TEXTS.items():
            for name in re.findall(r"`((?:scripts|docs|tests|packaging|cmake|core|utl|service|health)/[\w./-]*\w)`", text):
                with self.subTest(f"{path.name}: {name}"):
                    self.assertTrue((ROOT / name).exists() or "core_crc" in name)  # the example of a new unit

    def test_pictures_are_not_older_than_their_sources(self):
        for source in (ROOT / "docs/pictures").glob("*.dot"):
            self.assertIn(hashlib.sha256(source.read_bytes()).hexdigest(), source.with_suffix(".svg").read_text("utf-8"),
                          f"{source.name} has changed: run scripts/lib/draw-pictures")

    def test_the_picture_of_the_rooms_has_their_levels(self):
        rooms = re.findall(r"^\| (\d+) \| `(\w+)` \|", TEXTS[ROOT / "core/README.md"], re.MULTILINE)
        picture = (ROOT / "docs/pictures/rooms.dot").read_text("utf-8")
        self.assertEqual(sorted(rooms), sorted(re.findall(r'label="(\d+)  (\w+)"', picture)))

    def test_the_guide_knows_every_key_of_the_settings(self):
        for sample in ("testing.ini", "testing.alt.ini"):
            for line in (ROOT / "packaging/settings" / (sample + ".sample")).read_text("utf-8").splitlines():
                if line and not line.startswith(("#", "[")):
                    self.assertIn(f"`{line.split()[0]}`", GUIDE)


class PageTest(unittest.TestCase):
    """The page that ships: one file, whose links lead to places in it."""

    def test_the_page(self):
        with tempfile.TemporaryDirectory() as directory:
            page = pathlib.Path(directory) / "guide.html"
            subprocess.run([ROOT / "scripts/lib/package-guide", VERSION, page], check=True)
            text = page.read_text("utf-8")
            if shutil.which("chromium"):
                for name, width in (("desktop", 1200), ("phone", 500)):
                    subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", f"--window-size={width},3000",
                                    f"--screenshot={ROOT}/build/guide-{name}.png", page.as_uri()], check=True, capture_output=True)
        places = re.findall(r'\sid="([^"]*)"', text)
        self.assertEqual(len(places), len(set(places)), "each place has a name of its own")
        links = [html.unescape(target) for target in re.findall(r'\s(?:href|src)="([^"]*)"', text)]
        self.assertGreater(len(links), 50)
        for target in links:
            self.assertTrue(target.startswith(("data:", "#")), target)
            self.assertTrue(target.startswith("data:") or target[1:] in places, target)
        # Newer versions of pandoc put a drawing into the page as an element of its own.
        self.assertEqual(text.count("<svg") + sum(target.startswith("data:image/svg") for target in links), 1, "the picture")


class MessagesTest(unittest.TestCase):
    """Every text that the built programs can log has its row, and no row is about another text.

    The texts come out of the archives that the programs are linked from: whatever has at least two words and is not listed
    here, with its reason, is a message.
    """

    OTHERS = {
        "parts of a report to the collector": r"</|<\?xml|<assert|<log_url|<sendlogs|Backtrace (START|END)|Stack with 0 frames",
        "the C++ library's": r"basic_string|__pos|invalid vector|GCC: |!<arch>",
        "what a failed check says in its brackets": r"can't open|core_varargs:|format='|logger changed|rate limit changed|mallocing"
                                                    r"|i_dto|fromUtf8|code point|continuation byte|sequence|invalid lead byte",
        "at the level that is off": r"failed to chmod|failed to get|failed to initialise|failed to load|running '%s' in console",
        "names and layouts": r"Quorvane Keri Wrapper|Nov 20 2019|\$Name: |%p:|\[clone |%um, %02ds|delta=|%s %s|  <\[|\[%s\] |#%02d in|%[Ym]-"
                             r"|\A at %s:%d| const| volatile|%s: %s\Z|Windows Registry|internal error: |\AGASSERT failed at \Z",
        "the Linux twin's": r"registry export|unknown root|a backslash in quoted",
        "what an internal error of the logger says": r"\A - (log levels|no log level|observer is)|\[%u\?\?\]",
    }

    @classmethod
    def setUpClass(cls):
        cache = (TREE / "CMakeCache.txt").read_text("utf-8")
        (strip,) = re.findall(r"^CMAKE_STRIP:\w+=(.*)$", cache, re.MULTILINE)
        content = b""
        with tempfile.TemporaryDirectory() as directory:
            for archive in ("core/libcore.a", "utl/libutl.a", "service/libservice_lib.a"):
                stripped = pathlib.Path(directory) / "stripped.a"
                subprocess.run([strip, "-g", "-o", stripped, TREE / archive], check=True)
                content += stripped.read_bytes()
        cls.texts = {text.decode().strip("\n") for text in re.findall(rb"[\x09\x0a\x20-\x7e]{4,}(?=\0)", content)}
        with pefile.PE(TREE / "packaging/setup/quorkeri_setup.dll") as image:
            (setup,) = [section.get_data() for section in image.sections if section.Name.startswith(b".rdata")]
        cls.setup_texts = {text.decode("utf-16le").strip() for text in re.findall(rb"(?:[\x20-\x7e]\0){6,}", setup)}
        log, _, installer = MESSAGES.partition("\n## The installer's log")
        log, _, cls.findings = log.partition("\n## Health findings")
        rows = re.findall(r"^\| (.*?) \| ", log.replace("\\|", "¦"), re.MULTILINE)
        cls.told = [text.replace("¦", "|") for row in rows for text in re.findall(r"`([^`]*)`", row)]
        cls.health = re.findall(r"^  ([a-z-]+) \(([A-Z]+)\)$", Wine(TREE.parent / "wine-guide").run(TREE / "health/quorkeri_health.exe", "--help")[1], re.MULTILINE)
        cls.installer = re.sub(r"\s+", " ", installer.replace("\\|", "|"))

    @staticmethod
    def expected(text):
        """The texts that a format can become; Windows' own words may come behind."""
        return re.sub(r"%[0-9]*[a-z]+", ".*", re.sub(r"([().\[\]?*+|\\])", r"\\\1", text)) + r"(: .+)?"

    def messages(self):
        return {text for text in self.texts if len(re.findall(r"[A-Za-z]{2}", text)) and " " in text.strip()
                and not any(re.search(other, text) for other in self.OTHERS.values())}

    def test_each_message_has_its_row(self):
        messages = self.messages()
        self.assertGreater(len(messages), 60)
        told = self.told + re.findall(r"`([^`]*)`", MESSAGES.partition("These are logged before")[2].partition("\n## ")[0])
        for text in sorted(messages):
            with self.subTest(text):
                self.assertTrue(any(re.fullmatch(self.expected(text), row) for row in told), "docs/messages.md has no row for this")

    def test_no_row_is_about_what_nobody_says(self):
        expected = [self.expected(text) for text in self.texts]
        # Made of several texts, or named in words.
        known = {"signalHandler", "GASSERT", "service.log", "service-console"}
        for row in self.told:
            if row not in known:
                with self.subTest(row):
                    self.assertTrue(any(re.fullmatch(pattern, row) for pattern in expected))

    def test_each_finding_of_the_health_command_has_its_row(self):
        rows = re.findall(r"^\| (`.*?) \| ([A-Z]+) \|", self.findings, re.MULTILINE)
        told = [(name, weight) for names, weight in rows for name in re.findall(r"`([^`]*)`", names)]
        self.assertGreater(len(told), 30)
        self.assertEqual(sorted(told), sorted(self.health))

    def test_each_sentence_of_the_installer_has_its_row(self):
        for text in sorted(self.setup_texts):
            for part in re.split(r"Nothing was changed\.|'|: |\. ", text):
                part = part.strip(" ,.:")
                if len(part.split()) > 2 and not part.startswith("SOFTWARE\\"):
                    with self.subTest(part):
                        # The end of a narrow text in front looks like a letter more.
                        self.assertTrue(part in self.installer or part[1:] in self.installer)


if TREE is None:
    del CommandsTest, MessagesTest

if __name__ == "__main__":
    if TREE is not None:
        in_own_network()
    unittest.main(argv=sys.argv[:1])
