#!/usr/bin/env python3
"""Installs a build into an empty directory and uses what is there.

usage: install.py CMAKE BUILD_DIRECTORY COMPILER

Programs use the public headers as a user would: one through find_package, and one through
pkg-config where that is installed. The tool and the Python package run, where they were built. Each
component has its own files alone. Exit status 1 when any step fails.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile

PROGRAM = """
#include <Krell/Exception>
#include <Qel/String8>
#include <QelKrell/KrellMount>
int main() {
    const QelKrell::MountInfo info;
    return Qel::String( QelKrell::valueToStrep( info ) ).empty();
}
"""
PROJECT = """
cmake_minimum_required( VERSION 3.25 )
project( user LANGUAGES CXX )
find_package( QelKrell 0.1 REQUIRED )
add_executable( user user.cpp )
target_link_libraries( user PRIVATE QelKrell::QelKrell )
"""


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    if done.returncode != 0:
        print(" ".join(command), "failed:", done.stdout, sep="\n")
        sys.exit(1)
    return done.stdout


def find_package(cmake, compiler, prefix, source):
    build = os.path.join(source, "build")
    run(cmake, "-S", source, "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_CXX_COMPILER={compiler}")
    run(cmake, "--build", build)
    run(os.path.join(build, "user"))


def pkg_config(compiler, prefix, source):
    if shutil.which("pkg-config") is None:
        print("pkg-config is not installed: its file was not tried")
        return
    for directory, _, files in os.walk(prefix):
        if "qelkrell.pc" in files:
            break
    flags = run("pkg-config", "--cflags", "--libs", "qelkrell",
                env={**os.environ, "PKG_CONFIG_PATH": directory}).split()
    program = os.path.join(source, "user-pkg-config")
    run(compiler, "-std=c++20", os.path.join(source, "user.cpp"), "-o", program, *flags,
        f"-Wl,-rpath,{os.path.dirname(directory)}")
    run(program)


def headers(compiler, prefix, source):
    """No header needs one that is not installed."""
    include = os.path.join(prefix, "include")
    names = sorted(os.path.relpath(os.path.join(directory, name), include)
                   for directory, _, files in os.walk(include) for name in files)
    path = os.path.join(source, "headers.cpp")
    with open(path, "w", encoding="utf-8") as file:
        file.write("".join(f"#include <{name}>\n" for name in names))
    run(compiler, "-std=c++20", "-fsyntax-only", "-I", include, path)


def examples(cmake, compiler, prefix, source):
    """The smallest of the installed examples, in an environment that shows it nothing."""
    build = os.path.join(source, "plant")
    run(cmake, "-S", os.path.join(prefix, "share/doc/libqelkrell-dev/examples/plant"), "-B", build,
        "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}", f"-DCMAKE_CXX_COMPILER={compiler}")
    run(cmake, "--build", build, "--target", "plant-list")
    root = os.path.join(source, "root")
    os.mkdir(root)
    run(os.path.join(build, "plant-list"), env={"KRELL_ROOT": root})


def tool(build, prefix):
    if not os.path.exists(os.path.join(build, "bin/krell")):
        print("the tool is not built: not tried")
        return
    run(os.path.join(prefix, "bin/krell"), "--help", env={})


def python(build, prefix):
    if not os.path.exists(os.path.join(build, "python")):
        print("the Python package is not built: not tried")
        return
    found = run("/usr/bin/python3", "-B", "-c", "import qelkrell; print( qelkrell.__file__ )",
                env={"PYTHONPATH": os.path.join(prefix, "lib/python3/dist-packages")})
    if not found.startswith(prefix):
        sys.exit(f"the Python package came from {found}, not from {prefix}")


# Of each component, what its files' paths are like; and none is of two components.
COMPONENTS = {
    "runtime": r"lib/.*\.so\.[\d.]+",
    "development": r"include/.*|lib/.*\.so|lib/.*/(cmake|pkgconfig)/.*|lib/(cmake|pkgconfig)/.*"
                   r"|share/doc/libqelkrell-dev/.*",
    "tools": r"bin/krell|share/doc/qelkrell-tools/.*",
    "python": r"lib/python3/dist-packages/qelkrell/.*|share/doc/python3-qelkrell/.*",
}


def components(cmake, build, prefix, directory):
    def files(top):
        return {os.path.relpath(os.path.join(place, name), top)
                for place, _, names in os.walk(top) for name in names}
    parts = set()
    for component, pattern in COMPONENTS.items():
        part = os.path.join(directory, component)
        run(cmake, "--install", build, "--prefix", part, "--component", component)
        strange = [path for path in sorted(files(part))
                   if path in parts or not re.fullmatch(pattern, path)]
        if strange:
            sys.exit(f"component {component} has {strange}")
        parts |= files(part)
    if parts != files(prefix):
        sys.exit(f"in no component: {sorted(files(prefix) - parts)}")


def main(cmake, build, compiler):
    with tempfile.TemporaryDirectory() as directory:
        prefix = os.path.join(directory, "prefix")
        source = os.path.join(directory, "source")
        run(cmake, "--install", build, "--prefix", prefix)
        os.mkdir(source)
        for name, text in (("user.cpp", PROGRAM), ("CMakeLists.txt", PROJECT)):
            with open(os.path.join(source, name), "w", encoding="utf-8") as file:
                file.write(text)
        find_package(cmake, compiler, prefix, source)
        pkg_config(compiler, prefix, source)
        headers(compiler, prefix, source)
        examples(cmake, compiler, prefix, source)
        tool(build, prefix)
        python(build, prefix)
        components(cmake, build, prefix, directory)


if __name__ == "__main__":
    main(*sys.argv[1:])
