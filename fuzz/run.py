#!/usr/bin/env python3
"""Runs the fuzz targets, one after the other, each from its corpus in the tree on.

Prints one line a target. New inputs go to OUT/corpus/TARGET, findings to OUT/found/TARGET. Ctrl-C
ends the target under way and prints the table so far. Exit status 1 when anything was found; the
commands that replay it are printed.
"""

import argparse
import hashlib
import os
import re
import shlex
import signal
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
TARGETS = "text generic mount find headers segments queue".split()
SMALL = 900  # bytes of an input in the tree
INPUT_SECONDS = 25  # more than this for one input is a finding
COLUMNS = "{:<10}{:>14}{:>10}{:>12}{:>10}"
SANITIZERS = {"UBSAN_OPTIONS": "print_stacktrace=1"}


def arguments(words):
    parser = argparse.ArgumentParser(prog="./dev fuzz", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("target", nargs="?", metavar="TARGET", help="one of " + " ".join(TARGETS))
    parser.add_argument("seconds", nargs="?", type=int, metavar="SECONDS",
                        help="of each target; without it, 60 are shared by all")
    parser.add_argument("--bin", default="build/fuzz/bin", help=argparse.SUPPRESS)
    parser.add_argument("--out", default="build/fuzz", help=argparse.SUPPRESS)
    parser.add_argument("--merge", action="store_true",
                        help="runs nothing: makes the corpora in the tree anew, from what is there "
                        "and what was new")
    options = parser.parse_args(words)
    if options.target and options.target.isdigit() and options.seconds is None:
        options.target, options.seconds = None, int(options.target)
    if options.target and options.target not in TARGETS:
        parser.error(f"no target '{options.target}'; there are: {' '.join(TARGETS)}")
    options.targets = [options.target] if options.target else TARGETS
    if options.seconds is None:
        options.seconds = max(1, 60 // len(options.targets))
    if options.seconds < 1:
        parser.error("a target runs for 1 second at least")
    return options


class Target:
    """One target: its program, its directories, and what came of running it."""

    def __init__(self, name, options):
        self.name = name
        self.program = os.path.join(options.bin, "fuzz-" + name)
        self.corpus = os.path.join(HERE, "corpus", name)
        self.new = os.path.join(options.out, "corpus", name)
        self.found = os.path.join(options.out, "found", name)
        self.log = os.path.join(options.out, f"fuzz-{name}.log")
        for directory in (self.new, self.found):
            os.makedirs(directory, exist_ok=True)
        self.findings = []

    def command(self, seconds):
        command = [self.program, "-print_final_stats=1", "-print_funcs=0", "-entropic=0",
                   f"-max_total_time={seconds}", f"-timeout={INPUT_SECONDS}",
                   f"-artifact_prefix={self.found}/"]
        dictionary = os.path.join(HERE, self.name + ".dict")
        if os.path.exists(dictionary):
            command.append("-dict=" + dictionary)
        return command + [self.new, self.corpus]

    def run(self, seconds, environment):
        """Runs it; false when it was interrupted."""
        before = set(os.listdir(self.found))
        with open(self.log, "w", encoding="utf-8") as log:
            # In a group of its own: Ctrl-C reaches it through this program only, and once.
            process = subprocess.Popen(self.command(seconds), stdout=log, stderr=log,
                                       stdin=subprocess.DEVNULL, env=environment,
                                       start_new_session=True)
            whole = wait(process)
        self.findings = sorted(os.path.join(self.found, name)
                               for name in set(os.listdir(self.found)) - before)
        if whole and process.returncode != 0 and not self.findings:
            self.findings = [self.log]  # it ended without leaving an input
        return whole

    def statistic(self, name):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            numbers = re.findall(rf"stat::{name}:\s+(\d+)", log.read())
        return int(numbers[-1]) if numbers else 0

    def line(self):
        return COLUMNS.format(self.name, self.statistic("number_of_executed_units"),
                              self.statistic("average_exec_per_sec"),
                              self.statistic("new_units_added"), len(self.findings))

    def merge(self, environment):
        """Leaves in the tree the fewest of the small inputs that reach what all of them reach."""
        with tempfile.TemporaryDirectory() as scratch:
            record = os.path.join(scratch, "record")
            merged = os.path.join(scratch, "merged")
            os.mkdir(merged)
            subprocess.run([self.program, "-set_cover_merge=1", "-use_counters=0", f"-max_len={SMALL}",
                            "-merge_control_file=" + record, merged, self.corpus, self.new],
                           check=True, env=environment, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
            chosen = cover(features(record))
        kept = {name: read(name) for name in chosen}
        for name in os.listdir(self.corpus):
            os.remove(os.path.join(self.corpus, name))
        for bytes_ in kept.values():
            with open(os.path.join(self.corpus, hashlib.sha1(bytes_).hexdigest()), "wb") as file:
                file.write(bytes_)
        print(f"{self.name}: {len(kept)} inputs, {sum(map(len, kept.values()))} bytes")


def read(path):
    with open(path, "rb") as file:
        return file.read()


def features(record):
    """From libFuzzer's record of a merge: what each small input reaches, by its path."""
    with open(record, encoding="utf-8") as file:
        lines = file.read().splitlines()
    paths = lines[2:2 + int(lines[0])]
    reached = {}
    for words in (line.split() for line in lines[2 + len(paths):]):
        path = paths[int(words[1])]
        if words[0] == "FT" and os.path.getsize(path) < SMALL:
            reached[path] = set(words[2:])
    return reached


def cover(reached):
    """Inputs that together reach everything, chosen by how much each adds."""
    chosen = []
    while reached:
        best = max(reached, key=lambda path: (len(reached[path]), -os.path.getsize(path)))
        added = reached.pop(best)
        chosen.append(best)
        reached = {path: rest for path, all_ in reached.items() if (rest := all_ - added)}
    return chosen


def wait(process):
    try:
        process.wait()
        return True
    except KeyboardInterrupt:
        process.send_signal(signal.SIGINT)
        try:
            process.wait(INPUT_SECONDS)
        except (KeyboardInterrupt, subprocess.TimeoutExpired):
            process.kill()
            process.wait()
        return False


def report(targets):
    found = [(t, path) for t in targets for path in t.findings]
    for target, path in found:
        print(f"\n{target.name}: {path}")
        if path != target.log:
            print(f"  replay: {shlex.join([target.program, path])}")
        print(f"  what it said: {target.log}")
    return 1 if found else 0


def main(words):
    options = arguments(words)
    targets = [Target(name, options) for name in options.targets]
    environment = dict(SANITIZERS, **os.environ)
    if options.merge:
        for target in targets:
            target.merge(environment)
        return 0
    for target in targets:
        if not os.access(target.program, os.X_OK):
            sys.exit(f"{target.program} is not built; ./dev fuzz builds it")
    print(COLUMNS.format("target", "executions", "a second", "new units", "crashes"), flush=True)
    run = []
    with tempfile.TemporaryDirectory(prefix="qelkrell-fuzz-", dir="/dev/shm") as scratch:
        environment["QELKRELL_FUZZ_ROOT"] = scratch
        for target in targets:
            run.append(target)
            whole = target.run(options.seconds, environment)
            print(target.line(), flush=True)
            if not whole:
                print(f"interrupted; {len(targets) - len(run)} targets did not run")
                break
    return report(run)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
