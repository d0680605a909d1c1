"""commands_test.py ROOT: the developer's commands explain themselves and refuse words that they do not know."""
import subprocess
import sys
import unittest
from pathlib import Path

SCRIPTS = Path(sys.argv.pop(1)) / "scripts"


def run(name, *words):
    done = subprocess.run([SCRIPTS / name, *words], capture_output=True, text=True, check=False, timeout=600)
    return done.returncode, done.stdout, done.stderr


class Commands(unittest.TestCase):
    def test_tests_name_their_parts(self):
        code, text, _ = run("test", "--help")
        self.assertEqual(0, code)
        for part in ("linux", "windows-x86", "asan", "tsan", "fuzz", "tidy", "layers", "format"):
            self.assertIn(f"\n  {part} ", text)

    def test_unknown_words_are_refused(self):
        self.assertEqual((2, "", "test: 'windows' is not a part of the tests; see 'scripts/test --help'\n"), run("test", "linux", "windows"))
        for name in ("setup", "demo"):
            code, _, errors = run(name, "everything")
            self.assertEqual(2, code)
            self.assertIn(f"usage: {name}", errors)


if __name__ == "__main__":
    unittest.main()
