#!/usr/bin/env python3
"""Installs a build into an empty directory and builds programs against what is there.

usage: install.py CMAKE BUILD_DIRECTORY COMPILER

The programs use the public headers as a user would: one through find_package, and one through
pkg-config where that is installed. Exit status 1 when any step fails.
"""

import os
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


if __name__ == "__main__":
    main(*sys.argv[1:])
