#!/usr/bin/env python3
"""Installs the built library into an empty prefix and uses it from there as a host would.

Usage: install_test.py BUILD_DIRECTORY EXAMPLES
"""

import concurrent.futures
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

BUILD, EXAMPLES = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
VERSION = re.search(r"^CMAKE_PROJECT_VERSION:\w+=(.+)$",
                    (BUILD / "CMakeCache.txt").read_text(), re.M).group(1)
C_HEADERS = {"zel_utils/publicInc/CommonUtilEntry.h", "zel_utils/publicInc/ZelExport.h"}


def run(*command):
    """Standard output of a command that must succeed."""
    done = subprocess.run(command, text=True, capture_output=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def pkg_config(*options):
    return run("pkg-config", *options, "zel_utils").split()


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.work = pathlib.Path(folder.name)
        cls.prefix = cls.work / "prefix"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        lib = next(cls.prefix.rglob("libzel_utils.so.1")).parent
        os.environ.update(LD_LIBRARY_PATH=str(lib), PKG_CONFIG_PATH=f"{lib}/pkgconfig")

    def check_hosts(self, hello, facade):
        self.assertEqual(json.loads(run(hello))["rsp"], 11)
        with tempfile.TemporaryDirectory(dir=self.work) as data:
            self.assertEqual(run(facade, data), f"ready in {data}\ngreeting: hello\n"
                             "message 42 of type 7: from%20the%20host\n")

    def test_each_header_compiles_alone(self):
        flags = ["-Wall", "-Wextra", "-Werror", "-fsyntax-only", *pkg_config("--cflags")]
        include = self.prefix / "include"
        headers = [str(path.relative_to(include)) for path in include.rglob("*.h")]
        self.assertLess({*C_HEADERS, "zel_platform/logger.h"}, set(headers))
        jobs = [(header, "c++", "cpp", "c++17") for header in headers]
        jobs += [(header, "cc", "c", "c11") for header in C_HEADERS]

        def compile_alone(job):
            header, compiler, suffix, standard = job
            source = self.work / f"{header.replace('/', '_')}.{suffix}"
            source.write_text(f"#include <{header}>\n#include <{header}>\nint main(void);\n")
            run(compiler, f"-std={standard}", *flags, source)

        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(compile_alone, jobs))

    def test_hosts_through_find_package(self):
        build = self.work / "hosts"
        run("cmake", "-S", EXAMPLES, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("cmake", "--build", build)
        self.check_hosts(build / "hello_host", build / "facade_host")

    def test_hosts_through_pkg_config(self):
        self.assertEqual(pkg_config("--modversion"), [VERSION])
        flags = pkg_config("--cflags", "--libs")
        hello, facade = self.work / "hello", self.work / "facade"
        run("cc", "-std=c11", EXAMPLES / "hello_host.c", "-o", hello, *flags)
        run("c++", "-std=c++17", EXAMPLES / "facade_host.cpp", "-o", facade, *flags)
        self.check_hosts(hello, facade)

    def test_host_in_python_and_the_console(self):
        reply = run(sys.executable, "-B", EXAMPLES / "hello_host.py")
        self.assertEqual(json.loads(reply)["rsp"], 11)
        # Which finds its libraries itself.
        usage = run("env", "-u", "LD_LIBRARY_PATH", self.prefix / "bin/zelctl", "--help")
        self.assertIn("usage: zelctl", usage)

    def test_debian_packages(self):
        out = self.work / "packages"
        run("cpack", "-G", "DEB", "--config", BUILD / "CPackConfig.cmake", "-B", out)
        runtime, dev = sorted(out.glob("*.deb"), key=lambda path: "-dev" in path.name)
        fields = run("dpkg-deb", "-f", runtime)
        for field in (r"Package: libzel-utils1\n", rf"Version: {VERSION}\n", r"Depends:.*\blibc6\b",
                      r"Depends:.*\blibjsoncpp25\b", r"Depends:.*\blibssl3\b"):
            self.assertRegex(fields, field)
        self.assertIn(f"Depends: libzel-utils1 (= {VERSION}), libjsoncpp-dev\n",
                      run("dpkg-deb", "-f", dev))
        for package, other, names in (
            (runtime, dev, (f"libzel_utils.so.{VERSION}", "libzel_utils.so.1 ->",
                            "libzel_platform.so.1 ->", "/usr/bin/zelctl")),
            (dev, runtime, ("/usr/include/zel_utils/CommonUtil.h", "libzel_utils.so ->",
                            "/usr/include/zel_platform/logger.h", "zel_utilsConfig.cmake",
                            "zel_utils.pc")),
        ):
            for name in names:
                self.assertIn(name, run("dpkg-deb", "--contents", package))
                self.assertNotIn(name, run("dpkg-deb", "--contents", other))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
