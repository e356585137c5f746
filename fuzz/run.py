#!/usr/bin/env python3
"""Runs the fuzz targets, some at a time, each from its corpus in the tree on.

Prints how far they are, then a table with a line a target. New inputs go to OUT/corpus/TARGET,
findings to OUT/found/TARGET. Ctrl-C ends the targets under way and prints the table so far. Exit
status 1 when anything was found; the commands that replay it are printed. KRELL_SEED, when set, is
the seed of each target.
"""

import argparse
import hashlib
import os
import random
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TARGETS = "text generic mount find headers segments queue".split()
SMALL = 900  # bytes of an input in the tree
LARGEST = 1024  # bytes of any input: larger ones take longer and say little more
FOUND = "finding-"  # begins the names of inputs in the tree that once were findings
INPUT_SECONDS = 25  # more than this for one input is a finding
PROGRESS_SECONDS = 10  # between two looks that are printed
COLUMNS = "{:<10}{:>14}{:>10}{:>10}{:>12}{:>10}"
# Of each allocation no more is kept than what tells that it is misused: the replay of a finding,
# without these, tells the rest.
FAST = "malloc_context_size=1:quarantine_size_mb=8"


def arguments(words):
    parser = argparse.ArgumentParser(prog="./dev fuzz", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("target", nargs="?", metavar="TARGET", help="one of " + " ".join(TARGETS))
    parser.add_argument("seconds", nargs="?", type=int, metavar="SECONDS",
                        help="of each target; without it, all of them take 60")
    parser.add_argument("--jobs", type=int, default=os.cpu_count() or 1, metavar="N",
                        help="targets at a time; one for each processor without it")
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
        at_a_time = min(options.jobs, len(options.targets))
        options.seconds = max(1, 60 * at_a_time // len(options.targets))
    if options.seconds < 1:
        parser.error("a target runs for 1 second at least")
    if options.jobs < 1:
        parser.error("one target at a time at least")
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
        given = int(os.environ.get("KRELL_SEED", "0"), 0) % (1 << 32)
        self.seed = given or random.randrange(1, 1 << 32)
        self.process = None
        self.before = set()
        self.findings = []

    def command(self, seconds):
        command = [self.program, "-print_final_stats=1", "-print_funcs=0", "-entropic=0",
                   f"-seed={self.seed}", f"-max_total_time={seconds}", f"-max_len={LARGEST}",
                   f"-timeout={INPUT_SECONDS}",
                   f"-report_slow_units={INPUT_SECONDS}", f"-artifact_prefix={self.found}/"]
        dictionary = os.path.join(HERE, self.name + ".dict")
        if os.path.exists(dictionary):
            command.append("-dict=" + dictionary)
        return command + [self.new, self.corpus]

    def start(self, seconds, environment):
        self.before = set(os.listdir(self.found))
        with open(self.log, "w", encoding="utf-8") as log:
            # In a group of its own: Ctrl-C reaches it through this program only, and once.
            self.process = subprocess.Popen(self.command(seconds), stdout=log, stderr=log,
                                            stdin=subprocess.DEVNULL, env=environment,
                                            start_new_session=True)

    def ended(self, interrupted=False):
        """Whether it has; then its findings are known."""
        if self.process.poll() is None:
            return False
        self.findings = sorted(os.path.join(self.found, name)
                               for name in set(os.listdir(self.found)) - self.before)
        if not interrupted and self.process.returncode != 0 and not self.findings:
            self.findings = [self.log]  # it ended without leaving an input
        return True

    def wait_interrupted(self):
        try:
            self.process.wait(INPUT_SECONDS)
        except (KeyboardInterrupt, subprocess.TimeoutExpired):
            self.process.kill()
            self.process.wait()
        self.ended(interrupted=True)

    def last(self, pattern):
        """The number in the last match in its log, or 0."""
        if not os.path.exists(self.log):
            return 0
        with open(self.log, encoding="utf-8", errors="replace") as log:
            numbers = re.findall(pattern, log.read(), re.MULTILINE)
        return int(numbers[-1]) if numbers else 0

    def executions(self):
        return max(self.last(r"^#(\d+)"), self.last(r"stat::number_of_executed_units:\s+(\d+)"))

    def coverage(self):
        return self.last(r"^#\d+.* cov: (\d+)")

    def line(self):
        return COLUMNS.format(self.name, self.executions(),
                              self.last(r"stat::average_exec_per_sec:\s+(\d+)"), self.coverage(),
                              self.last(r"stat::new_units_added:\s+(\d+)"), len(self.findings))

    def figures(self):
        """A line as tests/Torture.h prints them."""
        return (f"torture fuzz-{self.name} seed={self.seed} executions={self.executions()} "
                f"findings={len(self.findings)} coverage<={self.coverage()}")

    def merge(self, environment):
        """Leaves in the tree the fewest of the small inputs that reach what all of them reach, and
        those that once were findings."""
        with tempfile.TemporaryDirectory() as scratch:
            record = os.path.join(scratch, "record")
            merged = os.path.join(scratch, "merged")
            os.mkdir(merged)
            subprocess.run([self.program, "-set_cover_merge=1", "-use_counters=0", f"-max_len={SMALL}",
                            "-merge_control_file=" + record, merged, self.corpus, self.new],
                           check=True, env=environment, stdout=subprocess.DEVNULL,
                           stderr=subprocess.DEVNULL)
            chosen = cover(features(record))
        kept = {name: read(name) for name in chosen
                if not os.path.basename(name).startswith(FOUND)}
        for name in os.listdir(self.corpus):
            if not name.startswith(FOUND):
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


def run(targets, options, environment):
    """Runs them; those that were begun, in their order. Ctrl-C ends it."""
    begun, running = [], []
    look = time.monotonic() + PROGRESS_SECONDS
    try:
        while running or len(begun) < len(targets):
            while len(running) < options.jobs and len(begun) < len(targets):
                begun.append(targets[len(begun)])
                running.append(begun[-1])
                begun[-1].start(options.seconds, environment)
            time.sleep(0.05)
            running = [target for target in running if not target.ended()]
            if time.monotonic() >= look:
                for target in running:
                    print(target.figures() if "QELKRELL_TORTURE" in os.environ else
                          f"-- {target.name}: {target.executions()} executions, "
                          f"coverage {target.coverage()}", flush=True)
                look = time.monotonic() + PROGRESS_SECONDS
    except KeyboardInterrupt:
        for target in running:
            target.process.send_signal(signal.SIGINT)
        for target in running:
            target.wait_interrupted()
        print(f"interrupted; {len(targets) - len(begun)} targets did not run")
    return begun


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
    environment = dict({"UBSAN_OPTIONS": "print_stacktrace=1"}, **os.environ)
    environment["ASAN_OPTIONS"] = ":".join([FAST, *filter(None, [os.environ.get("ASAN_OPTIONS")])])
    if options.merge:
        for target in targets:
            target.merge(environment)
        return 0
    for target in targets:
        if not os.access(target.program, os.X_OK):
            sys.exit(f"{target.program} is not built; ./dev fuzz builds it")
    with tempfile.TemporaryDirectory(prefix="qelkrell-fuzz-", dir="/dev/shm") as scratch:
        environment["QELKRELL_FUZZ_ROOT"] = scratch
        begun = run(targets, options, environment)
    print(COLUMNS.format("target", "executions", "a second", "coverage", "new units", "crashes"))
    for target in begun:
        print(target.line())
    status = report(begun)
    for target in begun:
        print(target.figures(), flush=True)
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
