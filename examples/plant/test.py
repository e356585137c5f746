#!/usr/bin/env python3
"""Runs the plant's programs as a reader of theirs would: test.py DIRECTORY-OF-PROGRAMS TYPES-LIBRARY"""

import os
import queue
import shutil
import signal
import subprocess
import sys
import tempfile
import threading

PATIENCE = 60  # seconds
PROGRAMS, TYPES = sys.argv[1:]


class Program:
    """One of them, with its lines as they come."""

    def __init__(self, name, *arguments):
        self.process = subprocess.Popen([os.path.join(PROGRAMS, "plant-" + name), *arguments],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)
        self.lines = queue.Queue()
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def say(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def expect(self, *wanted):
        """These lines come next, in any order."""
        got = [self.lines.get(timeout=PATIENCE) for _ in wanted]
        assert sorted(got) == sorted(wanted), f"{got} instead of {wanted}"

    def end(self):
        self.process.stdin.close()
        assert self.process.wait(PATIENCE) == 0, "it failed"

    def kill(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait(PATIENCE)


def listed():
    return subprocess.run([os.path.join(PROGRAMS, "plant-list")], check=True, text=True,
                          stdout=subprocess.PIPE).stdout.split("\n")[:-1]


def test():
    assert listed() == []
    reader, deletions, unlock = Program("reader"), Program("deletions"), Program("unlock")
    unlock.expect("watching")

    writer = Program("writer")
    writer.say("7 21.5")
    reader.expect("7: 21.5")
    deletions.expect("sensor 7 is there")
    writer.say("8 -3")
    reader.expect("8: -3")
    deletions.expect("sensor 8 is there")
    writer.say("nonsense")
    writer.expect("writer: neither a reading nor gone: nonsense")
    writer.say("8 gone")
    deletions.expect("sensor 8 went")
    writer.say("9 40")
    reader.expect("8 is gone", "9: 40")
    deletions.expect("sensor 9 is there")
    writer.kill()
    unlock.expect("the writer let go: 1")
    assert listed() == ["7: 21.5", "9: 40"]

    writer = Program("writer", "--restart")
    writer.say("7 21.5\n10 1\n")
    writer.expect("1 swept")
    deletions.expect("sensor 9 went", "sensor 10 is there")
    reader.expect("9 is gone", "10: 1")  # and nothing of 7
    writer.end()
    unlock.expect("the writer let go: 2")
    assert listed() == ["7: 21.5", "10: 1"]
    for program in (reader, deletions, unlock):
        program.kill()

    names = open(TYPES, "rb").read()
    for name in (b"Power::Reading\0", b"Power::Pump\0", b"Power::Plant\0"):
        assert name in names


def main():
    root = tempfile.mkdtemp(prefix="qelkrell-plant-", dir="/dev/shm")
    os.environ["KRELL_ROOT"] = root
    try:
        test()
    finally:
        shutil.rmtree(root)


main()
