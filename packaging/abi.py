#!/usr/bin/env python3
"""Compares the binary interface of the libraries with that of a release, by abidiff.

usage: abi.py release [TAG]    this tree with the tag; without one, the last v* that it came from
       abi.py compare OLD NEW  two installations, each below its own prefix

Where a library's soname is the same, programs built with the old one are started with the new one:
then anything but an addition is an error, and abidiff's report is shown. Exit status 1 then.
"""

import glob
import os
import re
import subprocess
import sys

LIBRARIES = ("Qel", "Dov", "Norvo", "Krell", "QelKrell")
# What abidiff's exit status says.
FAILED, CHANGED = 1 | 2, 4 | 8


class Failed(Exception):
    pass


def run(*command, **options):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False, **options)
    if done.returncode != 0:
        raise Failed(f"{' '.join(command)}\nended with status {done.returncode}:\n{done.stdout}")
    return done.stdout


def library(prefix, name):
    """The path of the library itself, below the prefix; None when there is none."""
    found = [p for p in glob.glob(f"{prefix}/lib/**/lib{name}.so.*", recursive=True)
             if not os.path.islink(p)]
    return found[0] if found else None


def soname(path):
    found = re.search(r"\(SONAME\).*\[(.*)\]", run("readelf", "-dW", path))
    if not found:
        raise Failed(f"{path} has no soname")
    return found[1]


def abidiff(old, new, *options):
    """Exit status and report; a change of a type counts when a public header has the type."""
    done = subprocess.run(
        ["abidiff", *options, "--headers-dir1", os.path.join(old[0], "include"), "--headers-dir2",
         os.path.join(new[0], "include"), old[1], new[1]],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode & FAILED or done.returncode < 0:
        raise Failed(f"abidiff could not compare {old[1]} with {new[1]}:\n{done.stdout}")
    return done.returncode & CHANGED, done.stdout


def compare_library(old_prefix, new_prefix, name):
    """Whether programs built with the old one may be started with the new one."""
    paths = library(old_prefix, name), library(new_prefix, name)
    if paths[0] is None:
        print(f"lib{name}: new")
        return True
    if paths[1] is None:
        print(f"lib{name}: gone, which no soname says")
        return False
    before, after = soname(paths[0]), soname(paths[1])
    if before != after:
        print(f"lib{name}: {before} is {after} now, and so may differ in anything")
        return True
    old, new = (old_prefix, paths[0]), (new_prefix, paths[1])
    changed, report = abidiff(old, new, "--no-added-syms")
    if changed:
        print(f"lib{name}: incompatible, but still {after}:\n{report}")
        return False
    added, report = abidiff(old, new)
    print(f"lib{name}: compatible" + (f", with additions:\n{report}" if added else ""))
    return True


def compare(old, new):
    compatible = [compare_library(old, new, name) for name in LIBRARIES]
    if all(compatible):
        return 0
    print("A change like this takes a new minor version: `project( ... VERSION ... )` in "
          "CMakeLists.txt.")
    return 1


def installed(source, directory):
    """Builds and installs a source tree with debug information; the prefix."""
    prefix = os.path.join(directory, "installed")
    build = os.path.join(directory, "build")
    parts = [f"-DQELKRELL_{part}=OFF"
             for part in ("TESTS", "BENCH", "EXAMPLES", "INSTRUCTIONS", "PYTHON", "TOOLS", "FUZZ")]
    run("cmake", "-S", source, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
        "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g -DNDEBUG", *parts)
    run("cmake", "--build", build, "--parallel", str(os.cpu_count()))
    run("rm", "-rf", prefix)
    run("cmake", "--install", build, "--prefix", prefix)
    return prefix


def tagged_source(tag, directory):
    """The tree of the tag, taken out of the repository."""
    source = os.path.join(directory, "source")
    try:
        commit = run("git", "rev-parse", "--verify", "--quiet", tag + "^{commit}").strip()
    except Failed:
        raise Failed(f"there is no tag or commit '{tag}'") from None
    run("rm", "-rf", source)
    os.makedirs(source)
    archive = source + ".tar"
    run("git", "archive", "-o", archive, commit)
    run("tar", "-C", source, "-xf", archive)
    return source


def last_release():
    """The last tag v* before this tree; None without one."""
    done = subprocess.run(["git", "describe", "--tags", "--abbrev=0", "--match", "v[0-9]*"],
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    return done.stdout.strip() or None


def release(tag=None):
    os.chdir(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    tag = tag or last_release()
    if tag is None:
        print("no release to compare with: no tag v* leads to this tree")
        return 0
    directory = os.path.abspath("build/abi")
    source = tagged_source(tag, os.path.join(directory, "old"))
    print(f"-- building {tag} and this tree", flush=True)
    old = installed(source, os.path.join(directory, "old"))
    new = installed(os.getcwd(), os.path.join(directory, "new"))
    print(f"-- comparing with {tag}", flush=True)
    return compare(old, new)


def main(command, *arguments):
    try:
        return {"release": release, "compare": compare}[command](*arguments)
    except Failed as failed:
        print(failed)
        return 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
