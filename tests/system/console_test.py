"""Console mode at a terminal: its lines appear there, and what is typed there ends it.

console_test.py SERVICE COMPANION [WINE_RUN UTL_TESTS]

The native program is given a pseudo-terminal of its own. The Windows program runs under Wine, which makes a Windows
console of such a terminal: what a console program writes comes out with its screen's control sequences, and Control-C
comes in as a console event. Ctrl+Break has no key on a terminal, and this Wine refuses to generate its event, so it is
left to the test of the handler.
"""

import io
import os
import pathlib
import re
import shutil
import signal
import sys
import tempfile
import termios
import tty
import unittest

import pexpect

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from quorkeri_wine import LIMIT, Companion, Wine, await_true, text_of

SERVICE, COMPANION = map(pathlib.Path, sys.argv[1:3])
WINE = sys.argv[3:5]
del sys.argv[1:5]

CONTROL_C = b"\x03"
# Nobody has registered the Keri software: what console mode says of itself on an ordinary machine.
COMPLAINT = "[CRIT] getKeriInstallDir - "


def plain(screen):
    """What a reader sees of a terminal's bytes: blanks for a step to the right, nothing for other sequences."""
    stepped = re.sub(rb"\x1b\[(\d*)C", lambda step: b" " * int(step[1] or 1), screen)
    text = re.sub(rb"\x1b(\[[?0-9;]*[A-Za-z]|\][^\x07]*\x07)", b"", stepped)
    return text.replace(b"\r", b"").decode("utf-8", "replace")


def make_raw():
    """The terminal hands on what is typed, but for the key that interrupts."""
    tty.setraw(0)
    mode = termios.tcgetattr(0)
    mode[3] |= termios.ISIG
    termios.tcsetattr(0, termios.TCSANOW, mode)


class Terminal(pexpect.spawn):
    """A program at a terminal of its own."""

    def __init__(self, command, directory):
        self.shown = io.BytesIO()
        super().__init__(command[0], command[1:], cwd=directory, env=os.environ | {"TERM": "xterm"}, timeout=LIMIT,
                         preexec_fn=make_raw if WINE else None)
        self.logfile_read = self.shown

    def close(self, force=True):
        """Waits for a program that it ends; the base class gives up after a moment."""
        if self.isalive():
            self.kill(signal.SIGKILL)
            self.wait()
        super().close(force)

    def screen(self):
        return plain(self.shown.getvalue())

    def await_true(self, what, is_true):
        def is_true_or_over():
            return self.expect([pexpect.EOF, pexpect.TIMEOUT], timeout=0) == 0 or is_true()
        await_true(lambda: f"{what}; the screen: {self.screen()!r}", is_true_or_over)
        if not is_true():
            raise AssertionError(f"{what}; the screen: {self.screen()!r}")

    def await_text(self, text):
        self.await_true(f"no {text!r}", lambda: text in self.screen())

    def await_end(self):
        self.expect(pexpect.EOF)
        return self.wait()


class ConsoleTest(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="console ")))
        for name in ("bin", "settings", "work/logs"):
            (self.root / name).mkdir(parents=True)
        self.program = self.root / "bin" / SERVICE.name
        shutil.copy(SERVICE, self.program)
        self.companion = Companion(self.root / "bin")
        self.companion.put(COMPANION)

    def at_terminal(self, *command):
        terminal = Terminal([str(word) for word in command], self.root)
        self.addCleanup(terminal.close)
        return terminal

    def log(self):
        return text_of(self.root / "work/logs/service.log")

    def await_companion(self, terminal):
        terminal.await_true("the companion does not run", lambda: self.companion.records("ready"))

    def assert_stopped_once(self):
        self.assertEqual(len(self.companion.records("datagram")), 1)
        self.assertEqual(self.log().count(" Stop - Stop\n"), 1)


class NativeTest(ConsoleTest):
    def test_lines_appear_and_control_c_stops_it(self):
        terminal = self.at_terminal(self.program, "service-console")
        terminal.await_text(COMPLAINT)
        self.await_companion(terminal)
        terminal.send(CONTROL_C)
        self.assertEqual(terminal.await_end(), 0)
        self.assert_stopped_once()
        # Nothing but the logger's own lines, and the terminal's echo of the key.
        self.assertRegex(terminal.screen(), r"\A\[CRIT\] getKeriInstallDir - [^\n]+\n\^C\Z")


class WindowsTest(ConsoleTest):
    def setUp(self):
        super().setUp()
        self.addCleanup(self.end_programs)

    def end_programs(self):
        """What a failed test leaves running would fail the others. It works in this test's own directory; the service
        may be about to start the companion again."""
        def are_gone():
            found = [process for process in pathlib.Path("/proc").glob("[0-9]*") if self.works_here(process)]
            for process in found:
                os.kill(int(process.name), signal.SIGKILL)
            return not found
        await_true("the test's programs are gone", are_gone)

    def works_here(self, process):
        try:
            return os.readlink(process / "cwd").startswith(str(self.root))
        except OSError:
            return False  # ended meanwhile

    def wine(self, *words):
        return self.at_terminal(WINE[0], *words)

    def child(self, name, *arguments):
        return self.wine(WINE[1], "--run-child", name, *arguments)

    def parent(self, how, file, *command):
        return self.child("console-parent", how, Wine.path(self.root / file), *command)

    def service(self, how, file="unused"):
        return self.parent(how, file, Wine.path(self.program), "service-console")

    def text(self, how, file="unused", *code_page):
        return self.parent(how, file, Wine.path(WINE[1]), "--run-child", "console-text",
                           Wine.path(self.root / "found"), *code_page)

    def test_its_lines_appear_at_a_prompt(self):
        """The key is another test's: at this prompt Wine makes two events of it, and the second ends any program."""
        prompt = self.wine("cmd")
        prompt.await_text(">")
        prompt.send(b'start /wait /b "" "' + os.fsencode(Wine.path(self.program)) + b'" service-console\r')
        prompt.await_text(COMPLAINT)
        self.await_companion(prompt)

    def test_the_exit_code_and_the_consoles_code_page(self):
        parent = self.service("lend")
        parent.await_text(COMPLAINT)
        self.await_companion(parent)
        parent.send(CONTROL_C)
        parent.await_end()
        self.assert_stopped_once()
        self.assertRegex(parent.screen(), r"\nended with 0, code pages (\d+) \1\n")

    def test_a_program_without_a_console_is_given_its_parents(self):
        """Wine's runtime does not open a stream that began without a handle again, so only the event is seen. It comes
        from the parent, because Wine gives the key to a terminal's own session only."""
        parent = self.service("alone", "now")
        self.await_companion(parent)
        (self.root / "now").touch()
        parent.await_end()
        self.assert_stopped_once()
        self.assertIn("ended with 0,", parent.screen())

    def test_redirected_output_arrives_byte_for_byte(self):
        parent = self.service("redirect", "output")
        self.await_companion(parent)
        parent.send(CONTROL_C)
        parent.await_end()
        self.assertEqual((self.root / "output").read_bytes(),
                         b"[CRIT] getKeriInstallDir - Could not locate KERI install directory from registry\r\n")
        self.assertNotIn("CRIT", parent.screen())

    def test_text_outside_ascii_is_readable(self):
        text = r" é Ж 測試 *\n+"
        for how, page, screen in (("lend", "65001", f"output{text}errors{text}"), ("redirect", "65001", f"errors{text}"),
                                  ("redirect-all", r"(?!65001)\d+", "")):
            parent = self.text(how, "output")
            parent.await_end()
            self.assertRegex((self.root / "found").read_text(), f"^code page {page}$")
            self.assertRegex(parent.screen(), screen + r"ended with 7, code pages (?!65001)(\d+) \1\n")
        self.assertNotIn("errors", parent.screen())
        self.assertEqual((self.root / "output").read_text("utf-8").split(), "output é Ж 測試 errors é Ж 測試".split())

    def test_a_code_page_that_somebody_sets_meanwhile_stays(self):
        parent = self.text("lend", "unused", "850")
        parent.await_end()
        self.assertRegex(parent.screen(), r"ended with 7, code pages (?!850)\d+ 850\n")


if __name__ == "__main__":
    unittest.main(defaultTest="WindowsTest" if WINE else "NativeTest")
