"""The libraries serve programs outside the tree; the service's installation does not contain them.

libraries_test.py CMAKE BINARY COMPILER LIBRARIES [wine]

BINARY is the tree's build directory, LIBRARIES the CMAKE_PREFIX_PATH where it found Abseil.
"""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
import quorkeri_wine

CMAKE, BINARY, COMPILER, LIBRARIES, *MORE = sys.argv[1:]
IS_WINDOWS = MORE == ["wine"]
del sys.argv[1:]
CONSUMER = pathlib.Path(__file__).with_name("consumer")


def cmake(*words):
    done = subprocess.run([CMAKE, *map(str, words)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


class LibrariesTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="consumer of the libraries ")))
        self.prefix = self.folder / "installed"

    def succeed(self, *words):
        code, output = cmake(*words)
        self.assertEqual(code, 0, output)

    def configure(self, prefix_path, toolchain=None):
        """With the flags that a compiler has by itself."""
        compiler = f"-DCMAKE_CXX_COMPILER={COMPILER}"
        if IS_WINDOWS:
            installed = self.prefix / "lib/cmake/quorkeri/toolchain-windows-x86.cmake"
            compiler = f"-DCMAKE_TOOLCHAIN_FILE={toolchain or installed}"
        return cmake("-S", self.folder / "consumer", "-B", self.folder / "build", "-G", "Ninja", compiler,
                     f"-DCMAKE_PREFIX_PATH={prefix_path}")

    def install_libraries(self):
        self.succeed("--install", BINARY, "--prefix", self.prefix, "--component", "libraries")
        shutil.copytree(CONSUMER, self.folder / "consumer")
        headers = self.prefix / "include/quorkeri"
        lines = [f'#include "{path.relative_to(headers)}"\n' for path in sorted(headers.rglob("*.h")) if path.parent.name != "internal"]
        (self.folder / "consumer/headers.cpp").write_text("".join(lines), "utf-8")

    def test_a_program_outside_the_tree_builds_and_runs(self):
        self.install_libraries()
        code, output = self.configure(f"{self.prefix};{LIBRARIES}")
        self.assertEqual(code, 0, output)
        self.succeed("--build", self.folder / "build")
        if IS_WINDOWS:
            code, output = quorkeri_wine.Wine().run(self.folder / "build/consumer.exe", cwd=self.folder)
        else:
            done = subprocess.run([self.folder / "build/consumer"], cwd=self.folder, stdout=subprocess.PIPE, text=True,
                                  stderr=subprocess.STDOUT, check=False)
            code, output = done.returncode, done.stdout
        self.assertEqual(code, 5, output)
        self.assertTrue(output.startswith("[CRIT] main - ready\n"), output)
        lines = quorkeri_wine.text_of(self.folder / "consumer.log").splitlines()
        self.assertEqual([line[23:] for line in lines if "ready" in line],
                         ["main - ready", "main - ready [1 times in 0 seconds]"])
        self.assertIn("(3 bytes)", "".join(lines))

    def test_another_release_of_abseil_is_refused_by_name(self):
        self.install_libraries()
        abseil = self.folder / "other"
        (abseil / "absl/base").mkdir(parents=True)
        (abseil / "absl/base/options.h").write_text("#define ABSL_OPTION_INLINE_NAMESPACE_NAME lts_1\n", "utf-8")
        (abseil / "abslConfig.cmake").write_text(
            "add_library(absl::base INTERFACE IMPORTED)\n"
            f'set_target_properties(absl::base PROPERTIES INTERFACE_INCLUDE_DIRECTORIES "{abseil}")\n', "utf-8")
        code, output = self.configure(f"{self.prefix};{abseil}")
        self.assertNotEqual(code, 0)
        self.assertRegex(" ".join(output.split()), r"is release 'lts_1', but quorkeri was compiled with '\w+'")

    @unittest.skipUnless(IS_WINDOWS, "one runtime library")
    def test_another_runtime_library_is_refused_by_name(self):
        self.install_libraries()
        toolchain = self.folder / "toolchain.cmake"
        toolchain.write_text(f"set(CMAKE_SYSTEM_NAME Windows)\nset(CMAKE_CXX_COMPILER {COMPILER})\n", "utf-8")
        code, output = self.configure(f"{self.prefix};{LIBRARIES}", toolchain)
        self.assertNotEqual(code, 0)
        self.assertIn("needs the universal C runtime", " ".join(output.split()))

    def test_the_installation_of_the_service_does_not_contain_them(self):
        self.succeed("--install", BINARY, "--prefix", self.prefix)
        self.assertEqual({path.name for path in self.prefix.iterdir()}, {"bin", "settings", "assets", "work"})


if __name__ == "__main__":
    unittest.main()
