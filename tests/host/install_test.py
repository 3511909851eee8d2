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


def run(*command, **environment):
    """Standard output of a command that must succeed."""
    done = subprocess.run([str(word) for word in command], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env={**os.environ, **environment}, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{command}: {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.work = pathlib.Path(cls.folder.name)
        cls.prefix = cls.work / "prefix"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)
        cls.lib = next(cls.prefix.rglob("libzel_utils.so.1")).parent

    def pkg_config(self, *options):
        return run("pkg-config", *options, "zel_utils",
                   PKG_CONFIG_PATH=str(self.lib / "pkgconfig")).split()

    def check_hosts(self, hello, facade):
        library_path = {"LD_LIBRARY_PATH": str(self.lib)}
        self.assertEqual(json.loads(run(hello, **library_path))["rsp"], 11)
        with tempfile.TemporaryDirectory(dir=self.work) as data:
            self.assertEqual(run(facade, data, **library_path),
                             f"ready in {data}\ngreeting: hello\nmessage 42 of type 7: from%20the%20host\n")

    def test_each_header_compiles_alone(self):
        flags = ["-Wall", "-Wextra", "-Werror", "-fsyntax-only", *self.pkg_config("--cflags")]
        include = self.prefix / "include"
        headers = [str(path.relative_to(include)) for path in include.rglob("*.h")]
        self.assertTrue(C_HEADERS < set(headers))
        self.assertIn("zel_platform/logger.h", headers)

        def compile_alone(header, compiler, language, standard):
            source = self.work / f"{header.replace('/', '_')}.{language}"
            source.write_text(f"#include <{header}>\n#include <{header}>\nint main(void);\n")
            run(compiler, f"-std={standard}", *flags, source)

        jobs = [(header, "c++", "cpp", "c++17") for header in headers]
        jobs += [(header, "cc", "c", "c11") for header in C_HEADERS]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            for done in [pool.submit(compile_alone, *job) for job in jobs]:
                done.result()

    def test_hosts_through_find_package(self):
        build = self.work / "hosts"
        run("cmake", "-S", EXAMPLES, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("cmake", "--build", build)
        self.check_hosts(build / "hello_host", build / "facade_host")
        wrong = self.work / "wrong"
        wrong.mkdir()
        (wrong / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.16)\nproject(wrong)\n"
            "find_package(zel_utils 2)\nif(zel_utils_FOUND)\n"
            'message(FATAL_ERROR "a version to come was found")\nendif()\n')
        run("cmake", "-S", wrong, "-B", wrong / "build", f"-DCMAKE_PREFIX_PATH={self.prefix}")

    def test_hosts_through_pkg_config(self):
        self.assertEqual(self.pkg_config("--modversion"), [VERSION])
        flags = self.pkg_config("--cflags", "--libs")
        hello, facade = self.work / "hello", self.work / "facade"
        run("cc", "-std=c11", EXAMPLES / "hello_host.c", "-o", hello, *flags)
        run("c++", "-std=c++17", EXAMPLES / "facade_host.cpp", "-o", facade, *flags)
        self.check_hosts(hello, facade)

    def test_host_in_python_and_the_console(self):
        reply = run(sys.executable, "-B", EXAMPLES / "hello_host.py",
                    LD_LIBRARY_PATH=str(self.lib))
        self.assertEqual(json.loads(reply)["rsp"], 11)
        self.assertIn("usage: zelctl", run(self.prefix / "bin" / "zelctl", "--help"))

    def test_debian_packages(self):
        out = self.work / "packages"
        run("cpack", "-G", "DEB", "--config", BUILD / "CPackConfig.cmake", "-B", out)
        packages = {path.name.split("_")[0]: path for path in out.glob("*.deb")}
        self.assertEqual(set(packages), {"libzel-utils1", "libzel-utils-dev"})
        field = lambda name, which: run("dpkg-deb", "-f", packages[name], which).strip()
        names = lambda name: [line.split(maxsplit=5)[5] for line in
                              run("dpkg-deb", "--contents", packages[name]).splitlines()]

        self.assertEqual(field("libzel-utils1", "Version"), VERSION)
        for library in ("libc6", "libjsoncpp25", "libssl3", "libstdc++6"):
            self.assertRegex(field("libzel-utils1", "Depends"), re.escape(library) + r"\b")
        self.assertEqual(field("libzel-utils-dev", "Depends"),
                         f"libzel-utils1 (= {VERSION}), libjsoncpp-dev")
        runtime, dev = "\n".join(names("libzel-utils1")), "\n".join(names("libzel-utils-dev"))
        for name in (f"libzel_utils.so.{VERSION}", "libzel_utils.so.1 ->", "libzel_platform.so.1 ->",
                     "/usr/bin/zelctl"):
            self.assertIn(name, runtime)
        for name in ("/usr/include/zel_utils/CommonUtil.h", "/usr/include/zel_platform/logger.h",
                     "libzel_utils.so ->", "zel_utilsConfig.cmake", "zel_utils.pc"):
            self.assertIn(name, dev)
            self.assertNotIn(name, runtime)
        self.assertNotIn(str(BUILD), runtime + dev)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
