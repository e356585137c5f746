#!/usr/bin/env python3
"""Everything that a page of the documents shows, run: test_pages.py SOURCE BUILD COMPILER PAGE"""

import collections
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import harness
import pages

SOURCE, BUILD, COMPILER, PAGE = sys.argv[1:5]
del sys.argv[1:]


class Use:
    """A directory as `./dev build` leaves it, made of what is built already, and one to work in."""

    def __init__(self):
        self.root = tempfile.mkdtemp(prefix="qelkrell-documents-")
        self.krell = tempfile.mkdtemp(prefix="qelkrell-documents-", dir="/dev/shm")
        self.directory = os.path.join(self.root, "work")

    def fill(self, others):
        use = os.path.join(self.directory, "build", "use")
        os.makedirs(use)
        for name in ("bin", "lib", "python"):
            if others:  # may not be able to go where the build is
                os.makedirs(os.path.join(use, name))
                subprocess.run(["cp", "-rL", *self.used(name), os.path.join(use, name)], check=True)
            else:
                os.symlink(os.path.join(BUILD, name), os.path.join(use, name))
        if others:
            os.chmod(self.root, 0o755)
            os.chmod(self.krell, 0o755)
        shutil.copy(os.path.join(SOURCE, "cmake", "environment"), use)
        os.symlink(os.path.join(SOURCE, "examples"), os.path.join(self.directory, "examples"))
        subprocess.run(["cmake", "--install", BUILD, "--prefix", os.path.join(use, "installed")],
                       check=True, stdout=subprocess.DEVNULL)
        kept = {name: os.environ[name] for name in ("PATH", "HOME", "LANG") if name in os.environ}
        self.environment = dict(kept, KRELL_ROOT=os.path.join(self.krell, "krell"),
                                PYTHONDONTWRITEBYTECODE="1", QELKRELL=use)
        script = f". {use}/environment; env -0"
        found = subprocess.run(["bash", "-c", script], env=self.environment, check=True,
                               stdout=subprocess.PIPE).stdout.decode().split("\0")
        # The page that tells of the environment sources it by itself.
        self.sourced = dict(line.split("=", 1) for line in found if "=" in line)

    @staticmethod
    def used(name):
        """What the pages use of a directory of the build: a small part of what tests leave there."""
        pattern = {"bin": "plant-*", "lib": "lib*plant*", "python": "qelkrell"}[name]
        return glob.glob(os.path.join(BUILD, name, pattern)) + \
            ([os.path.join(BUILD, name, "krell")] if name == "bin" else [])

    def close(self):
        with open("/proc/self/mounts", encoding="utf-8") as file:
            for line in file:
                if line.split()[1].startswith(self.root):
                    subprocess.run(["umount", "-l", line.split()[1]], check=False)
        shutil.rmtree(self.root, ignore_errors=True)
        shutil.rmtree(self.krell, ignore_errors=True)


def can_be_root():
    """Whether it is root, and one that may do what root does: in containers it often may not."""
    command = ["unshare", "--mount", "--pid", "--fork", "--mount-proc", "--net", "mount", "-t",
               "tmpfs", "tmpfs", "/mnt"]
    return os.getuid() == 0 and subprocess.run(command, stdout=subprocess.DEVNULL, check=False,
                                               stderr=subprocess.DEVNULL).returncode == 0


class Page(unittest.TestCase):
    def sessions(self, use, blocks):
        """What is typed to Python, as one session; line numbers are those of the page."""
        with open(os.path.join(SOURCE, PAGE), encoding="utf-8") as file:
            lines = ["\n"] * len(file.readlines())
        for block in blocks:
            if block.language == "pycon":
                block.used = True
                for number, line in enumerate(block.lines, block.line):
                    lines[number] = line + "\n"
        session = os.path.join(use.root, os.path.basename(PAGE))
        with open(session, "w", encoding="utf-8") as file:
            file.writelines(lines)
        done = subprocess.run(["/usr/bin/python3", "-m", "doctest", "-o", "ELLIPSIS", session],
                              text=True, cwd=use.directory, env=use.sourced, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)

    def test_everything_that_it_shows(self):
        how = pages.PAGES[PAGE]
        if "root" in how and not can_be_root():
            self.skipTest("only root can do this: " + how["root"])
        narrow = os.environ.get("QELKRELL_BIN32")
        if "width" in how and not narrow:
            self.skipTest("there are no programs of 32 bits")
        use = Use()
        self.addCleanup(use.close)
        use.fill("root" in how)
        if "width" in how:
            os.symlink(os.path.dirname(narrow), os.path.join(use.directory, "build", "use32"))
        blocks = harness.blocks_of(SOURCE, PAGE)
        said = how.get("said", {})
        console = harness.Console(use.directory, use.environment if how.get("sources") else
                                  use.sourced, said)
        self.addCleanup(console.close)
        for name in how.get("files", ()):
            shutil.copy(os.path.join(SOURCE, name), use.directory)
        if "run" in how:
            how["run"](self, use, blocks, COMPILER)
        for block in blocks:
            if block.used:
                continue
            if block.language == "console":
                console.run(block)
            elif block.argument:
                console.file(block)
        console.finish()
        if "then" in how:
            how["then"](self, use, blocks)
        self.sessions(use, blocks)
        unused = collections.Counter(block.language for block in blocks if not block.used)
        left = {language: count for language, (count, _) in how.get("left", {}).items()}
        self.assertEqual(unused, left, "no test runs one of these: " + ", ".join(
            str(block) for block in blocks if not block.used))
        with open(os.path.join(SOURCE, PAGE), encoding="utf-8") as file:
            text = file.read()
        for command in said:
            self.assertIn(command, text, f"{PAGE}: {command} is not said any more")


unittest.main()
