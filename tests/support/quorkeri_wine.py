"""What the tests in Python share: waiting for an event, Wine, the stand-in companion, a network of one's own.

A test puts this directory first into sys.path; it needs no arguments. The tests of the native twin use the parts without
Wine."""
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
SERVICE = "quorkeri_service.exe"
COMPANION = "quorkeri_wrapper.exe"
LIBRARIES = ("ClientSocketServices.dll", "DHS.dll", "DHSAttributes.dll", "DHS_Commands.dll", "SocketServices.dll",
             "TracerX-Logger.dll")
LIMIT = 180  # seconds for anything that has to happen; far more than ten times what a quiet machine needs

SILENT = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}


def await_true(what, condition, limit=LIMIT):
    """What `condition` returned, once that counts as true. `what` says what did not happen, as a text or a function."""
    end = time.monotonic() + limit
    while not (found := condition()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {limit} s: {what() if callable(what) else what}")
        time.sleep(0.02)
    return found


def text_of(path):
    """Empty where there is no such file yet."""
    try:
        return pathlib.Path(path).read_text("utf-8", "replace").replace("\r", "")
    except OSError:
        return ""


class Wine:
    """A prefix: the tree's own, which the test run holds, or one of the test's at `prefix`."""

    def __init__(self, prefix=None):
        self.prefix = prefix and pathlib.Path(prefix)
        self.environment = os.environ | {"LC_ALL": "C.UTF-8"} | ({"QUORKERI_WINEPREFIX": str(prefix)} if prefix else {})

    @staticmethod
    def path(path):
        """As Windows programs name a file of this machine."""
        return "Z:" + str(path).replace("/", "\\")

    def run(self, *words, limit=LIMIT, **more):
        """The lowest byte of a program's exit code, and what it printed."""
        # Into a file: a program that Wine starts in passing, and that runs on, would keep a pipe open.
        with tempfile.TemporaryFile() as output:
            done = subprocess.run([ROOT / "scripts/lib/wine-run", *words], env=self.environment, check=False,
                                  stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, timeout=limit, **more)
            output.seek(0)
            return done.returncode, output.read().decode("utf-8", "replace").replace("\r", "")

    def start(self, *words, **more):
        """A program that runs beside the test, which has to end it."""
        return subprocess.Popen([ROOT / "scripts/lib/wine-run", *words], env=self.environment, **SILENT | more)

    def prompt(self, *lines, limit=LIMIT):
        """Lines at the command prompt: the last one's whole exit code, which Linux would cut, and what was printed.
        Needs a prefix of the test's own."""
        batch = self.prefix / "drive_c/line.cmd"
        batch.write_text("\r\n".join(["@echo off", *lines, "echo ended with %errorlevel%", ""]), "utf-8", newline="")
        said, _, code = self.run("cmd", "/c", r"C:\line.cmd", limit=limit)[1].rpartition("ended with ")
        return int(code), said

    @contextlib.contextmanager
    def held(self):
        """Services live no longer than the prefix's last program. At the end everything in the prefix ends."""
        hold = ROOT / "scripts/lib/wine-hold"
        subprocess.run([hold, "start"], env=self.environment, check=True)
        try:
            yield self
        finally:
            subprocess.run([hold, "stop"], env=self.environment, check=True)

    def programs(self, *names):
        """Process ids by program name, of the prefix's programs of these names, as Linux sees them."""
        found = {}
        for process in pathlib.Path("/proc").glob("[0-9]*"):
            try:
                name = process.joinpath("cmdline").read_bytes().split(b"\0")[0].decode("utf-8", "replace").rpartition("\\")[2]
                if name in names and f"WINEPREFIX={self.prefix}".encode() in process.joinpath("environ").read_bytes().split(b"\0"):
                    found.setdefault(name, []).append(int(process.name))
            except OSError:
                continue  # ended meanwhile
        return found

    def end_programs(self, *names):
        for process in sum(self.programs(*names).values(), []):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
        await_true(f"{names} are gone", lambda: not self.programs(*names))


class Companion:
    """The stand-in companion in a `bin` directory: its settings, and what it has written about itself."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory)
        self.settings = self.directory / "quorkeri_wrapper.settings"
        self.file = self.directory / "quorkeri_wrapper.records"

    def put(self, program, settings="", name=COMPANION):
        self.directory.mkdir(parents=True, exist_ok=True)
        # By another name first: a companion that runs is not written into.
        (self.directory / "new.tmp").write_bytes(pathlib.Path(program).read_bytes())
        (self.directory / "new.tmp").chmod(0o755)
        (self.directory / "new.tmp").replace(self.directory / name)
        self.settings.write_text(settings, "utf-8")

    def records(self, event=None):
        """Each is time, process id, event, text; those of one event, or all."""
        found = [line.split(" ", 3) for line in text_of(self.file).splitlines()]
        return [words for words in found if event in (None, words[2])]

    def await_event(self, event="ready", count=1, limit=LIMIT):
        await_true(lambda: f"the companion's {event} for time {count}; its records: {text_of(self.file)}",
                   lambda: len(self.records(event)) >= count, limit)


def in_own_network():
    """Starts the script again in a network name space with nothing but the loopback: the companion's port is fixed."""
    if os.environ.get("QUORKERI_OWN_NETWORK"):
        return
    command = ["unshare", "--net", "--mount", *([] if os.geteuid() == 0 else ["--map-root-user"]), "sh", "-c",
               'ip link set lo up && QUORKERI_OWN_NETWORK=1 exec "$@"', "sh", sys.executable, "-B", *sys.argv]
    os.execvp("unshare", command)
