"""The collector, from outside: its lines, its folder, and that nothing ends it.

collector_test.py COLLECTOR
"""

import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest

COLLECTOR = sys.argv.pop(1)

REPORT = """<?xml version="1.0" encoding="utf-8"?>
<assert>
  <type>ASSERT</type>  <file>core_x</file>
  <line>12</line>
  <condition>a &lt; b</condition>
  <message>MESSAGE</message>  <backtrace>BACKTRACE</backtrace>  <level>1</level>
  <count>2</count>
  <total>7</total>
  <utc>1574262224</utc>
  <server>service.exe</server>
  <product>p</product>
  <swver>tag_1</swver>
  <hostname>host</hostname>
  <os>win_i686</os>
  <build_id>191120-144957</build_id>
  <build_time>Nov 20 2019 16:03:44</build_time>
  <action>continue</action>
</assert>"""


def report(message=b"m", backtrace=b""):
    return REPORT.encode().replace(b"MESSAGE", message).replace(b"BACKTRACE", backtrace)


class CollectorTest(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.folder = self.root / "kept"
        self.start("--port", "0")
        self.socket = self.enterContext(socket.socket(socket.AF_INET, socket.SOCK_DGRAM))

    def start(self, *arguments):
        self.process = self.enterContext(subprocess.Popen(
            [sys.executable, COLLECTOR, "--address", "127.0.0.1", "--folder", self.folder, *arguments],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, encoding="utf-8"))
        self.addCleanup(self.process.kill)
        first = self.process.stdout.readline()
        self.assertRegex(first, r"^listening on 127\.0\.0\.1 port \d+, ")
        self.port = int(first.split("port ")[1].split(",")[0])

    def line_for(self, data):
        self.socket.sendto(data, ("127.0.0.1", self.port))
        return self.process.stdout.readline().rstrip("\n")

    def kept(self):
        return [(path.suffix, path.read_bytes()) for path in sorted(self.folder.iterdir())]

    def test_prints_a_line_for_a_report_and_keeps_it(self):
        line = self.line_for(report(b"it&apos;s so\nhere", b"Backtrace START"))
        self.assertRegex(line, r"^\d\d:\d\d:\d\d 127\.0\.0\.1 ASSERT core_x:12 \(a < b\) it's so here - 2 new, 7 in "
                               r"all, continue - service\.exe tag_1 \(191120-144957, win_i686\) on host, with a "
                               r"backtrace \[\d{8}-\d{6}-000001\.xml\]$")
        self.assertEqual(self.kept(), [(".xml", report(b"it&apos;s so\nhere", b"Backtrace START"))])

    def test_prints_a_line_for_a_request_for_logs(self):
        line = self.line_for(b"<sendlogs>\n  <file>f</file>\n  <line>3</line>\n  <server>s</server>\n</sendlogs>")
        self.assertIn(" s asks for logs: f 3 [", line)

    def test_replaces_characters_that_xml_does_not_allow(self):
        data = report(b"\x1b[2J \x00 \xff\xfe end")
        line = self.line_for(data)
        self.assertIn("\ufffd[2J \ufffd \ufffd\ufffd end - 2 new", line)
        self.assertEqual(self.kept(), [(".xml", data)])

    def test_reports_and_keeps_malformed_datagrams_and_goes_on(self):
        bombs = [b"", b"hello", report()[:200], b"\xff" * 1000, b"<other/>", b"<assert>" * 5000,
                 b'<!DOCTYPE a [<!ENTITY b "c">]><assert>&b;</assert>', bytes(range(256)) * 200]
        for data in bombs:
            self.assertIn(f"malformed datagram of {len(data)} bytes: ", self.line_for(data))
        self.assertIn("ASSERT core_x:12", self.line_for(report()))
        self.assertEqual(self.kept(), [(".malformed", data) for data in bombs] + [(".xml", report())])

    def test_accepts_a_report_without_its_parts(self):
        self.assertIn("? ?:? (?) - ? new, ? in all, ?", self.line_for(b"<assert/>"))

    def test_goes_on_when_the_folder_is_gone(self):
        self.folder.rmdir()
        self.assertIn("[not kept: ", self.line_for(report()))
        self.folder.mkdir()
        self.assertIn(".xml]", self.line_for(report()))

    def test_listens_on_the_port_of_the_settings(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as free:
            free.bind(("127.0.0.1", 0))
            port = free.getsockname()[1]
        ini = self.root / "testing.ini"
        ini.write_text(f"send_port 1\n# x\n[general]\nsend_port {port}\nsend_port 65535\n[assert]\nsend_port 2\n")
        self.start("--settings", str(ini))
        self.assertEqual(self.port, port)
        self.assertIn("ASSERT core_x:12", self.line_for(report()))

    def test_says_why_it_cannot_listen(self):
        second = subprocess.run([sys.executable, COLLECTOR, "--address", "127.0.0.1", "--port", str(self.port),
                                 "--folder", self.folder], capture_output=True, text=True, check=False)
        self.assertEqual(second.returncode, 1)
        self.assertRegex(second.stderr, r"^collector: .*in use\n$")

    def test_ends_quietly_when_terminated(self):
        self.process.terminate()
        self.assertEqual(self.process.wait(), 0)
        self.assertEqual(self.process.stdout.read(), "")


if __name__ == "__main__":
    unittest.main()
