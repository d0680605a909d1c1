"""layers_test.py ROOT: each kind of forbidden include, planted in a small tree, is found and both files are named."""
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(sys.argv.pop(1))
TABLE = "| 2 | `upper` | above |\n| 1 | `lower` | below |\n| 1 | `beside` | next to it |\n"
HEADERS = ("core/upper/core_a.h", "core/lower/core_b.h", "core/beside/core_c.h", "core/lower/core_b_platform.h",
           "core/lower/internal/core_d.h", "utl/utl_e.h", "service/main.h")


class Layers(unittest.TestCase):
    def check(self, *includes):
        with tempfile.TemporaryDirectory() as name:
            tree = {"core/README.md": TABLE, **dict.fromkeys(HEADERS, "")}
            for source, header in includes:
                tree[source] = tree.get(source, "") + f'#include "{header}"\n'
            for path, text in tree.items():
                (Path(name) / path).parent.mkdir(parents=True, exist_ok=True)
                (Path(name) / path).write_text(text, encoding="utf-8")
            run = subprocess.run([ROOT / "scripts/lib/check-layers", name], capture_output=True, text=True, check=False)
            return run.returncode, run.stdout

    def assert_found(self, *names, includes):
        code, text = self.check(*includes)
        self.assertEqual((1, 1), (code, text.count("\n")), text)
        for name in names:
            self.assertIn(name, text)

    def test_accepts_what_runs_downwards(self):
        self.assertEqual((0, ""), self.check(
            ("core/upper/core_a.cpp", "core/lower/core_b.h"), ("core/lower/core_b.cpp", "core/lower/internal/core_d.h"),
            ("core/lower/core_b_win32.cpp", "core/lower/core_b_platform.h"), ("utl/utl_e.cpp", "core/upper/core_a.h"),
            ("service/main.cpp", "utl/utl_e.h")))

    def test_finds_what_breaks_a_rule(self):
        for source, header, reason in (
                ("core/lower/core_b.cpp", "core/upper/core_a.h", "only lower levels"),
                ("core/lower/core_b.cpp", "core/beside/core_c.h", "only lower levels"),
                ("core/lower/core_b.cpp", "utl/utl_e.h", "core may include only core"),
                ("utl/utl_e.cpp", "service/main.h", "utl may include only core, utl"),
                ("core/upper/core_a.cpp", "core/lower/internal/core_d.h", "private to core/lower"),
                ("core/upper/core_a.cpp", "core/lower/core_b_platform.h", "private to core/lower")):
            with self.subTest(source=source, header=header):
                self.assert_found(source, header, reason, includes=[(source, header)])

    def test_finds_a_circle_of_units(self):
        self.assert_found("core/lower/core_b.h includes core/lower/internal/core_d.h",
                          "core/lower/internal/core_d.cpp includes core/lower/core_b.h", "circle",
                          includes=[("core/lower/core_b.h", "core/lower/internal/core_d.h"),
                                    ("core/lower/internal/core_d.cpp", "core/lower/core_b.h")])

    def test_finds_a_source_without_its_header(self):
        self.assert_found("core/upper/core_f.cpp", "core/upper/core_f.h",
                          includes=[("core/upper/core_f.cpp", "core/lower/core_b.h")])
        self.assert_found("core/upper/core_b_win32.cpp", "core/lower/core_b.h",
                          includes=[("core/upper/core_b_win32.cpp", "core/lower/core_b.h")])

    def test_finds_a_room_that_nothing_lists(self):
        self.assert_found("core/attic/core_g.h", includes=[("core/attic/core_g.h", "core/lower/core_b.h")])


if __name__ == "__main__":
    unittest.main()
