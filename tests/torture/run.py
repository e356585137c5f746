#!/usr/bin/env python3
"""Injects every fault that the system survives, again and again, and prints one table of all.

A row is a fault. What injects it are tests that take longer when they are asked to (tests/Torture.h),
the fuzz targets and the models. The time is shared equally by the rows, and in a row by its tests.
Progress is printed meanwhile; Ctrl-C ends the rounds under way and prints the table so far. What
was run, with its seed, stands in OUT/ROW-BITS-N.log; what failed is printed with the command that
replays it, and the exit status is 1 then.
"""

import argparse
import itertools
import os
import random
import re
import shlex
import signal
import subprocess
import sys
import threading
import time

TESTS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
ROOT = os.path.dirname(TESTS)
PATIENCE = 300  # seconds beyond its time after which a test hangs
PROGRESS = 10   # seconds between two lines
FAULTLESS = set("torn lost missed stale resurrected hung hangs crashed crashes leaked deaths wrong notAgain "
                "rescued-by-timer doubleOwners halfMade left followed blocked changed disturbed "
                "findings".split())

# name, fault, what injects it: (program, tests), or ("fuzz", targets), or ("models", files)
ROWS = [
    ("steps", "writer killed at any instruction",
     [("test-krell-crash", "*StepTest*")]),
    ("random-kills", "random processes killed under load",
     [("test-torture", "RandomKills*"), ("test-krell", "TakeoverTest.RandomKills*")]),
    ("stopped-writer", "writer killed or stopped between any two stores",
     [("test-krell-crash", "*KillTest*")]),
    ("stopped-reader", "reader stopped or killed",
     [("test-torture", "StoppedReader*")]),
    ("no-space", "no space",
     [("test-faults", "NoSpace*")]),
    ("failing-calls", "system calls fail", [("test-faults", "FailingCalls*"), ("test-faults-mount", "*FailingCall*")]),
    ("truncated-file", "file truncated under a mapping", [("test-faults", "Truncated*")]),
    ("hostile-contents", "bits flipped, hostile contents and partners",
     [("test-krell", "*HostileTest.*Random*:*HostileTest.EveryFlipped*"),
      ("test-trust", "Hostile*")]),
    ("fuzz", "hostile input",
     [("fuzz", "text generic mount find headers segments queue")]),
    ("wrap", "versions and counters wrap", [("test-krell", "QueueNumbersTest.AllPass*:QueueNumbersTest.*WhileVersions*")]),
    ("growth-while-reading", "growth while reading",
     [("test-krell", "ReaderConcurrencyTest.APresentKey*")]),
    ("wake-up", "a change when a reader falls asleep",
     [("test-krell", "*DoorbellWake*.AReader*")]),
    ("two-writers", "two writers, replaced lock file, reused pid",
     [("test-trust", "TwoWriters*:ReusedPid*")]),
    ("fork", "a writer forks", [("test-trust", "Fork*")]),
    ("clock", "the clock jumps", [("test-trust", "ClockTest.Jumps*")]),
    ("killed-creating", "killed while creating", [("test-faults", "KilledCreating*"), ("test-faults-mount", "*KilledMount*")]),
    ("widths", "32- and 64-bit processes together", [("test-cross", "*")]),
    ("trust", "other users, planted links and files", [("test-trust", "*RightsTest.*:PlantedTest.*:ExchangedTest.*")]),
    ("limits", "limits", [("test-torture", "Limits*"), ("test-trust", "LimitsTest.*:LargeValuesTest.*:ManyTest.*")]),
    ("soak", "everything at once", [("test-torture", "Soak*")]),
    ("models", "every interleaving of a model, and its mutants",
     [("models", "chain growth incarnation lock queue slot wakeup")]),
]


def arguments(words):
    parser = argparse.ArgumentParser(prog="./dev torture", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", nargs="?", type=float, default=10, metavar="MINUTES",
                        help="of all rows together; by default 10")
    parser.add_argument("--row", action="append", metavar="ROW", default=[],
                        help="only this one; may be given again: " +
                        " ".join(name for name, _, _ in ROWS))
    parser.add_argument("--bits", type=int, choices=(32, 64), help="only the programs of this width")
    parser.add_argument("--seed", type=int, help="of the first test; the others' follow from it")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N",
                        help="tests at a time; by default one a processor")
    parser.add_argument("--list", action="store_true", help="only name the tests of each row")
    parser.add_argument("--bin64", default="build/dev/bin", help=argparse.SUPPRESS)
    parser.add_argument("--bin32", default="build/i386/bin", help=argparse.SUPPRESS)
    parser.add_argument("--bin-fuzz", default="build/fuzz/bin", help=argparse.SUPPRESS)
    parser.add_argument("--out", default="build/torture", help=argparse.SUPPRESS)
    options = parser.parse_args(words)
    known = [name for name, _, _ in ROWS]
    for row in options.row:
        if row not in known:
            parser.error(f"no row '{row}'; there are: {' '.join(known)}")
    if options.minutes <= 0:
        parser.error(f"it takes more than {options.minutes} minutes")
    if options.jobs < 1:
        parser.error("one test at a time at least")
    if options.seed is None:
        options.seed = random.randrange(1 << 32)
    return options


class Unit:
    """A test of a row: its command, and what came of it."""

    def __init__(self, row, bits, command, environment):
        self.row = row
        self.bits = bits
        self.command = command
        self.environment = environment
        self.seconds = 0
        self.seed = 0
        self.log = ""
        self.process = None
        self.state = "waiting"  # running, held, skipped, failed
        self.reason = ""

    def run(self, stopped):
        """Runs it to its end; `stopped` ends it after the round under way."""
        environment = dict(os.environ, **self.environment, KRELL_SEED=str(self.seed),
                           QELKRELL_TORTURE=str(self.seconds))
        self.state = "running"
        command = [word.replace("@SECONDS", str(max(1, int(self.seconds)))) for word in self.command]
        with open(self.log, "w", encoding="utf-8") as log:
            # In a group of its own: Ctrl-C reaches it through this program only, and once.
            self.process = subprocess.Popen(command, stdout=log, stderr=subprocess.STDOUT,
                                            stdin=subprocess.DEVNULL, env=environment,
                                            start_new_session=True)
            hangs = self.wait(time.monotonic() + self.seconds + PATIENCE, stopped)
        self.judge(hangs, stopped.is_set())

    def wait(self, limit, stopped):
        asked = False
        while self.process.poll() is None:
            time.sleep(0.05)
            if stopped.is_set() and not asked:
                self.process.send_signal(signal.SIGINT)
                limit = min(limit, time.monotonic() + PATIENCE)
                asked = True
            if time.monotonic() > limit:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait()
                return True
        return False

    def judge(self, hangs, stopped):
        text = self.text()
        figures = self.figures()
        status = self.process.returncode
        bad = [f"{name} {n}" for (name, _), n in figures.items() if name in FAULTLESS and n]
        if hangs:
            self.fail("hung")
        elif bad:
            self.fail(", ".join(bad))
        elif status == 77 or ("[  SKIPPED ]" in text and status == 0):
            self.state = "skipped"
            reason = re.search(r"Skipped\n(.*)|^skipped: (.*)", text, re.MULTILINE)
            self.reason = next(filter(None, reason.groups()), "") if reason else ""
        elif stopped and status == -signal.SIGINT:
            self.state = "waiting"  # it does not know how to end early
        elif status != 0:
            self.fail(f"exit status {status}" if status > 0 else f"signal {-status}")
        elif not figures and not stopped:
            self.fail("it prints no figures")
        else:
            self.state = "held"

    def fail(self, reason):
        self.state = "failed"
        self.reason = reason

    def text(self):
        with open(self.log, encoding="utf-8", errors="replace") as log:
            return log.read()

    def figures(self):
        """Of its last line of each kind: a number for each name, and how such numbers add up."""
        if not self.log or not os.path.exists(self.log):
            return {}
        last = {}
        for line in self.text().split("\n"):
            words = line.split()
            if words[:1] == ["torture"] and len(words) > 1:
                last[words[1]] = words[2:]
        figures = {}
        for words in last.values():
            for word in words:
                match = re.fullmatch(r"([A-Za-z][\w-]*)(<?=)(\d+)", word)
                if match and match[1] not in ("seed", "rounds"):
                    add(figures, (match[1], match[2]), int(match[3]))
        return figures

    def replay(self):
        settings = dict(self.environment, KRELL_SEED=self.seed, QELKRELL_TORTURE=self.seconds)
        return " ".join([f"{k}={shlex.quote(str(v))}" for k, v in settings.items()] +
                        [shlex.quote(word) for word in self.command])


def add(figures, key, n):
    figures[key] = max(figures.get(key, 0), n) if key[1] == "<=" else figures.get(key, 0) + n


def tests_of(program, tests, environment):
    """The names of a program's tests that a filter lets through, without those that are disabled."""
    out = subprocess.run([program, "--gtest_list_tests", "--gtest_filter=" + tests], check=True,
                         env=dict(os.environ, QELKRELL_TORTURE="1", **environment), capture_output=True,
                         text=True).stdout
    suite, names = "", []
    for line in out.split("\n"):
        line = line.split("#")[0].rstrip()
        if line.startswith("  "):
            names.append(suite + line.strip())
        elif line.endswith("."):
            suite = line
    return [name for name in names if "DISABLED_" not in name]


def units_of(row, bits, options):
    """All of a row that this width has. A filter that lets no test through is an error."""
    units = []
    for kind, what in row[2]:
        if kind == "fuzz":
            if bits == 64:
                units += [Unit(row[0], bits, [sys.executable, "-B", os.path.join(ROOT, "fuzz/run.py"),
                                              "--bin", options.bin_fuzz, target, "@SECONDS"], {})
                          for target in what.split() if os.path.isdir(options.bin_fuzz)]
        elif kind == "models":
            if bits == 64:
                units += [Unit(row[0], bits,
                               [sys.executable, "-B", os.path.join(TESTS, "models/run_models.py"),
                                os.path.join(TESTS, "models", model + ".pml")], {})
                          for model in what.split()]
        else:
            units += gtest_units(row[0], bits, kind, what, options)
    return units


def gtest_units(row, bits, program, what, options):
    directory = os.path.abspath(options.bin64 if bits == 64 else options.bin32)
    path = os.path.join(directory, program)
    if not os.access(path, os.X_OK):
        sys.exit(f"{path} is not built; ./dev torture builds it")
    environment = {"QELKRELL_BIN": directory}
    if bits == 64 and os.path.isdir(options.bin32):
        environment["QELKRELL_BIN32"] = os.path.abspath(options.bin32)
    names = tests_of(path, what, environment)
    if not names:
        sys.exit(f"{path} has no test {what}")
    return [Unit(row, bits, [path, "--gtest_filter=" + name], environment) for name in names]


def plan(options):
    """The units in the order in which they run: the rows take turns."""
    rows = [row for row in ROWS if not options.row or row[0] in options.row]
    widths = [options.bits] if options.bits else [64, 32]
    if not os.path.isdir(options.bin32) and widths == [64, 32]:
        widths = [64]
    planned = []
    for row in rows:
        # Of each width in turn, so that both are met although the time may not be enough for all.
        of_widths = [units_of(row, bits, options) for bits in widths]
        units = [unit for pair in itertools.zip_longest(*of_widths) for unit in pair if unit]
        share = options.minutes * 60 * options.jobs / len(rows)
        for i, unit in enumerate(units):
            unit.seconds = max(1, round(share / len(units), 1))
            planned.append((i / len(units), unit))
    units = [unit for _, unit in sorted(planned, key=lambda entry: entry[0])]
    counts = {}
    for i, unit in enumerate(units):
        unit.seed = options.seed + i
        n = counts[unit.row, unit.bits] = counts.get((unit.row, unit.bits), 0) + 1
        unit.log = os.path.join(options.out, f"{unit.row}-{unit.bits}-{n}.log")
    return units


class Runner:
    """Runs units, several at a time, until all have run, the time is over or somebody stops it."""

    def __init__(self, units, jobs, seconds):
        self.units = units
        self.stopped = threading.Event()
        self.interrupted = False
        self.begin = time.monotonic()
        self.end = self.begin + seconds
        self.queue = list(units)
        self.lock = threading.Lock()
        self.workers = [threading.Thread(target=self.work) for _ in range(jobs)]

    def work(self):
        while True:
            with self.lock:
                if not self.queue or self.stopped.is_set() or time.monotonic() > self.end:
                    return
                unit = self.queue.pop(0)
            unit.run(self.stopped)
            if unit.state == "failed":
                print(f"FAILED {unit.row} {unit.bits} ({unit.reason}): {unit.log}", flush=True)

    def run(self):
        signal.signal(signal.SIGINT, self.interrupt)
        for worker in self.workers:
            worker.start()
        shown = self.begin
        while any(worker.is_alive() for worker in self.workers):
            time.sleep(0.1)
            if time.monotonic() >= shown + PROGRESS:
                shown = time.monotonic()
                self.show(shown)
            # Tests end by themselves; those that began late are told.
            if time.monotonic() > self.end + PROGRESS:
                self.stopped.set()

    def interrupt(self, *_):
        if self.interrupted:  # once more: at once
            for unit in self.units:
                if unit.state == "running" and unit.process:
                    os.killpg(unit.process.pid, signal.SIGKILL)
        self.interrupted = True
        self.stopped.set()

    def show(self, now):
        under_way = [unit for unit in self.units if unit.state == "running"]
        done = sum(unit.state not in ("waiting", "running") for unit in self.units)
        print(f"{clock(now - self.begin)} of {clock(self.end - self.begin)}, {done} of "
              f"{len(self.units)} tests: " +
              "; ".join(f"{unit.row} {unit.bits}: {words(unit.figures())}" for unit in under_way),
              flush=True)


def clock(seconds):
    return f"{int(seconds) // 60}:{int(seconds) % 60:02}"


def words(figures):
    return ", ".join(f"{name} {'up to ' if kind == '<=' else ''}{n:,}"
                     for (name, kind), n in figures.items())


def table(units):
    """The lines of the table: one for each row and width."""
    lines = []
    for name, fault, _ in ROWS:
        for bits in (64, 32):
            mine = [unit for unit in units if unit.row == name and unit.bits == bits]
            if mine:
                lines.append(line_of(name, fault, bits, mine))
    return lines


def line_of(name, fault, bits, units):
    figures = {}
    for unit in units:
        for key, n in unit.figures().items():
            add(figures, key, n)
    states = {state: [unit for unit in units if unit.state == state]
              for state in ("held", "failed", "skipped", "waiting")}
    result = "FAILED" if states["failed"] else "held" if states["held"] else "not run"
    ran = len(units) - len(states["waiting"])
    notes = [f"{ran} of {len(units)} tests"]
    if states["skipped"]:
        reasons = sorted({unit.reason for unit in states["skipped"]})
        notes.append(f"{len(states['skipped'])} skipped: {'; '.join(reasons)}")
    seeds = [unit.seed for unit in units if unit.state != "waiting"]
    if seeds:
        notes.append(f"seeds {min(seeds)} to {max(seeds)}")
    return (f"{name:<21}{bits}  {result:<8}{fault}\n{'':<25}{words(figures) or '-'}\n"
            f"{'':<25}{', '.join(notes)}")


def main(arguments_):
    options = arguments(arguments_)
    units = plan(options)
    if options.list:
        for unit in units:
            print(unit.row, unit.bits, shlex.join(unit.command))
        return 0
    os.makedirs(options.out, exist_ok=True)
    print(f"{len(units)} tests, {options.jobs} at a time, {options.minutes:g} minutes, "
          f"seed {options.seed}; Ctrl-C ends it with the table so far", flush=True)
    runner = Runner(units, options.jobs, options.minutes * 60)
    runner.run()
    text = "\n".join(table(units))
    with open(os.path.join(options.out, "table.txt"), "w", encoding="utf-8") as file:
        file.write(text + "\n")
    print(f"\n{text}\n\n{clock(time.monotonic() - runner.begin)}, seed {options.seed}" +
          (", interrupted" if runner.interrupted else ""))
    failed = [unit for unit in units if unit.state == "failed"]
    for unit in failed:
        print(f"FAILED {unit.row} {unit.bits}: {unit.reason}\n  replay: {unit.replay()}\n"
              f"  what it said: {unit.log}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
