"""README.md against the product: its commands are run and what they print is compared, its tables are held against the
sources.

readme_test.py ROOT VERSION [TREE COMPANION]

With the build tree of the Windows program and the stand-in companion the commands run as well: in a Wine prefix of their
own, on an installation at the very place that the text speaks of. Without them only the tables are looked at.

A block ```console is a dialogue: "C:\\> " is the prompt, what follows is the answer. In an answer dates, times and process
ids may be others, empty lines do not count, and "..." is any number of lines.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import time
import unittest

ROOT = pathlib.Path(sys.argv[1])
VERSION = sys.argv[2]
TREE, COMPANION = map(pathlib.Path, sys.argv[3:5]) if len(sys.argv) > 3 else (None, None)

TEXT = (ROOT / "README.md").read_text("utf-8")
PROMPT = "C:\\> "
LIMIT = 20  # seconds for what is waited for

# What cannot run here, by the command's beginning, with the reason.
ELSEWHERE = {
    "mkdir C:\\Quorvane & tar ": "Wine has no tar; the installation is laid out by the test",
    "icacls ": "Wine's does nothing: the rights are looked at on Windows before a release",
    "tasklist ": "Wine's prints nothing",
    "powershell ": "Wine has none",
    "sc config quorkeri_service.exe start= delayed-auto": "Wine's service manager refuses it (124)",
    "start /wait msiexec ": "the package's own tests install and remove it",
}

# What Wine says in other words than Windows.
IN_WINES_WORDS = {
    'SUCCESS: The process "quorkeri_wrapper.exe" with PID 4711 has been terminated.':
        'Process "quorkeri_wrapper.exe" with PID 4711 was forcibly terminated.',
    "The operation completed successfully.": "reg: The operation completed successfully",
    "[SC] ChangeServiceConfig2 SUCCESS": None,
    # Without the archiver there is the folder.
    'The support bundle is "C:\\Quorvane\\quorkeri-service-1.1.0\\work\\tmp\\support-1.zip", made from the folder of that name.':
        'The support bundle is the folder "C:\\Quorvane\\quorkeri-service-1.1.0\\work\\tmp\\support-1".',
}


def dialogues():
    """The blocks, each a list of commands with their answers."""
    for block in re.findall(r"^```console\n(.*?)^```$", TEXT, re.MULTILINE | re.DOTALL):
        dialogue = []
        for line in block.splitlines():
            if line.startswith(PROMPT):
                dialogue.append((line.removeprefix(PROMPT), []))
            else:
                dialogue[-1][1].append(line)
        yield dialogue


def reason_against(command):
    return next((reason for begin, reason in ELSEWHERE.items() if command.startswith(begin)), None)


def pattern(answer):
    """What Wine may answer where the text has this."""
    lines = []
    for line in answer:
        line = IN_WINES_WORDS.get(line, line)
        if line == "...":
            lines.append(r"(?:[^\n]*\n)*")
        elif line:
            line = re.escape(line)
            line = re.sub(r"\d{4}\\-\d\d\\-\d\d\\ \d\d\\ \d\d:\d\d:\d\d", r"\\d{4}-\\d\\d-\\d\\d \\d\\d \\d\\d:\\d\\d:\\d\\d", line)
            lines.append(re.sub(r"PID\\ \d+", r"PID \\d+", line) + r"\n")
    return "".join(lines)


def plain(output):
    lines = output.decode("utf-8", "replace").replace("\r", "").split("\n")
    return "".join(line.rstrip() + "\n" for line in lines if line.strip())


class Wine:
    """A prefix with the installation, held for the whole dialogue."""

    def __init__(self):
        self.environment = os.environ | {"QUORKERI_WINEPREFIX": str(TREE.parent / "wine-readme")}
        self.root = TREE.parent / "wine-readme/drive_c/Quorvane" / f"quorkeri-service-{VERSION}"
        self.script("wine-hold", "start")

    def script(self, name, *words, timeout=120):
        return subprocess.run([ROOT / "scripts/lib" / name, *words], env=self.environment, timeout=timeout, check=False,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

    def set_up(self):
        shutil.rmtree(self.root.parent, ignore_errors=True)
        done = subprocess.run(["cmake", "--install", TREE, "--prefix", self.root], check=False, capture_output=True)
        if done.returncode:
            raise RuntimeError(done.stderr)

    def put_companion(self, settings=""):
        (self.root / "bin/quorkeri_wrapper.records").unlink(missing_ok=True)
        (self.root / "bin/quorkeri_wrapper.settings").write_text(settings, "utf-8")
        shutil.copy(COMPANION, self.root / "bin/new.exe")
        (self.root / "bin/new.exe").replace(self.root / "bin/quorkeri_wrapper.exe")

    def await_line(self, file, part):
        until = time.monotonic() + LIMIT
        file = self.root / file
        while not file.exists() or part not in file.read_text("utf-8"):
            if time.monotonic() > until:
                raise AssertionError(f"no {part!r} in {file}")
            time.sleep(0.05)

    def await_companion(self):
        self.await_line("bin/quorkeri_wrapper.records", " ready ")

    def run(self, commands):
        """In one prompt, in bin, one after the other; what they print together."""
        batch = self.root.parent.parent / "dialogue.cmd"
        lines = ["@echo off", f"cd /d C:\\Quorvane\\quorkeri-service-{VERSION}\\bin"]
        lines += ["call " + command if command.endswith(".cmd") else command for command in commands]
        batch.write_bytes("".join(line + "\r\n" for line in lines).encode())
        return plain(self.script("wine-run", "cmd", "/c", "C:\\dialogue.cmd", timeout=60).stdout)

    def close(self):
        self.run(["quorkeri_service.exe service-remove", "taskkill /f /im quorkeri_wrapper.exe",
                  "taskkill /f /im quorkeri_service.exe"])
        self.script("wine-hold", "stop")


class CommandsTest(unittest.TestCase):
    def setUp(self):
        self.wine = Wine()
        self.addCleanup(self.wine.close)
        self.wine.set_up()

    def prepare(self, command):
        """What has happened by the time when somebody uses this command."""
        if command.startswith("sc query") and not (self.wine.root / "bin/quorkeri_wrapper.exe").exists():
            # The service has begun without a companion, which comes now.
            self.wine.await_line("work/logs/service.log", "Run: 'quorkeri_wrapper.exe' failed")
            self.wine.put_companion()
            self.wine.await_companion()
        if command.startswith("taskkill"):
            self.wine.put_companion("ignore all\n")
            self.wine.run(["net start quorkeri_service.exe"])
            self.wine.await_companion()
            self.wine.run(["net stop quorkeri_service.exe"])
            self.assertIn("STOP_PENDING", self.wine.run(["sc query quorkeri_service.exe"]))

    def compare(self, commands, answer):
        until = time.monotonic() + LIMIT
        said = self.wine.run(commands)
        # A state is not entered at once.
        while "sc query" in commands[-1] and not re.fullmatch(pattern(answer), said) and time.monotonic() < until:
            said = self.wine.run(commands)
        self.assertRegex(said, r"\A" + pattern(answer) + r"\Z", commands)

    def test_print_what_the_text_says(self):
        ran = 0
        for dialogue in dialogues():
            kept = []  # a command without an answer runs together with the next one, which may ask for its result
            for place, (command, answer) in enumerate(dialogue):
                if reason_against(command):
                    continue
                self.prepare(command)
                kept.append(command)
                ran += 1
                asked_next = dialogue[place + 1:place + 2]
                if not answer and asked_next and "%ERRORLEVEL%" in asked_next[0][0]:
                    continue
                with self.subTest(" & ".join(kept)):
                    self.compare(kept, answer)
                kept = []
        self.assertGreater(ran, 15)


class TextTest(unittest.TestCase):
    def test_each_command_is_run_or_has_a_reason_not_to(self):
        commands = [command for dialogue in dialogues() for command, _ in dialogue]
        for begin in ELSEWHERE:
            self.assertTrue(any(command.startswith(begin) for command in commands), f"{begin} is not in the text")
        answers = [line for dialogue in dialogues() for _, answer in dialogue for line in answer]
        for line in IN_WINES_WORDS:
            self.assertIn(line, answers)

    def test_speaks_of_this_version(self):
        self.assertEqual(set(re.findall(r"quorkeri-service-(\d+\.\d+\.\d+)", TEXT)), {VERSION})

    def test_links_lead_somewhere(self):
        titles = {re.sub(r"[^a-z0-9 -]", "", title.lower()).replace(" ", "-")
                  for title in re.findall(r"^#+ (.*)$", TEXT, re.MULTILINE)}
        for target in re.findall(r"\]\(([^)]*)\)", TEXT):
            if target.startswith("#"):
                self.assertIn(target[1:], titles)
            else:
                self.assertTrue((ROOT / target).exists(), target)

    def test_names_what_the_tree_has(self):
        for name in re.findall(r"\b(?:scripts|docs|tests|packaging|bench|core|utl|service)/[\w./-]*\w", TEXT):
            if name != "scripts/setup" and not name.startswith("service/registry"):
                self.assertTrue((ROOT / name).exists() or (ROOT / (name + "/")).exists(), name)

    def test_knows_every_property_of_the_package(self):
        script = (ROOT / "scripts/lib/package-msi").read_text("utf-8")
        (secure,) = re.findall(r'"SecureCustomProperties"\}, Value="([^"]*)"', script)
        # The package's own, which nobody gives.
        settable = set(secure.split(";")) - {"INSTALLEDDIR", "NEWERFOUND", "OTHERFOUND"}
        self.assertEqual(set(re.findall(r"^\| `([A-Z]+)` \|", TEXT, re.MULTILINE)), settable)

    def test_knows_every_key_of_the_settings(self):
        for sample in ("testing.ini", "testing.alt.ini"):
            lines = (ROOT / "packaging/settings" / (sample + ".sample")).read_text("utf-8").splitlines()
            for line in lines:
                if line and not line.startswith(("#", "[")):
                    self.assertIn(f"`{line.split()[0]}`", TEXT)


class MessagesTest(unittest.TestCase):
    """Every text that the Windows program can log has its row, and no row is about another one."""

    def messages(self):
        """But for those at the level that is off."""
        call = re.compile(r'(?:MLOG\(\s*(\w+),[^"]*?(?:"[^"]*",\s*|\w+,\s*)|logText\(\s*[\w:]+,\s*|(?:logLimited|MLOG_LIMITED)\([^"]*"[^"]*",\s*|'
                          r'logLastError\(|formatString\(\s*)((?:"(?:[^"\\]|\\.)*"\s*)+)', re.DOTALL)
        logged = re.compile(r"failed open '|Failed to set working|minidump|Invalid parameter|times in")
        for folder in ("core", "utl", "service"):
            for source in sorted((ROOT / folder).rglob("*.cpp")):
                if source.name.endswith("_linux.cpp") or source.name == "utl_regfile.cpp":
                    continue
                for match in call.finditer(source.read_text("utf-8")):
                    text = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', match[2]))
                    is_log = not match[0].startswith("formatString") or logged.search(text)
                    if is_log and match[1] != "Norm" and text.replace("\\n", ""):
                        # The system's text comes behind these.
                        behind = ": %s" if re.search("failed open '|Failed to set working", text) else ""
                        yield source.name, text.replace("\\n", "") + behind

    def told(self):
        table = TEXT.split("\n| message | ")[1].split("\n\n")[0]
        rows = [row.replace("\\|", "|") for row in re.findall(r"^\| (.*?) \| ", table, re.MULTILINE)]
        return [text for row in rows for text in re.findall(r"`([^`]*)`", row)]

    def expected(self):
        """The source and the text of each message, and the texts that it can become."""
        for source, text in self.messages():
            # A signal's number has a row in words, and some lines are an other's words alone.
            if text not in ("%d", "%s: %s"):
                yield source, text, re.sub(r"%[a-z]+", ".+", re.sub(r"([().\[\]?*+|\\])", r"\\\1", text))

    def test_has_its_row(self):
        told = self.told()
        found = 0
        for source, text, expected in self.expected():
            found += 1
            with self.subTest(source):
                self.assertTrue(any(re.fullmatch(expected, row) for row in told), f"no row for: {text}")
        self.assertGreater(found, 70)

    def test_no_row_is_about_what_nobody_says(self):
        expected = [pattern for _, _, pattern in self.expected()]
        # Made by the logger itself, and named in words.
        known = {"Log at …:…", "signalHandler", "GASSERT", "service.log", "bin", "InstallLocation", "settings\\assert.exclude",
                 "testing.ini", "assert.exclude"}
        for row in self.told():
            if row not in known:
                with self.subTest(row):
                    self.assertTrue(any(re.fullmatch(pattern, row) for pattern in expected))

    def test_the_figures_are_the_programs(self):
        host = (ROOT / "utl/utl_service.h").read_text("utf-8")
        supervision = (ROOT / "service/supervision.h").read_text("utf-8")
        (limit,) = re.findall(r"kLogFileLimit = (\d+);", host)
        self.assertIn(f"above {int(limit):,} bytes", TEXT)
        (port,) = re.findall(r"kStopPort = (\d+);", supervision)
        self.assertIn(f"UDP port {port} ", TEXT)
        (pause,) = re.findall(r"kRestartDelayMs = (\d+);", supervision)
        self.assertEqual(pause, "5000")
        self.assertIn("started again in five seconds", TEXT)


if TREE is None:
    del CommandsTest

if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
