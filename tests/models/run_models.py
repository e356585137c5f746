#!/usr/bin/env python3
"""Checks a model of a protocol with all its variants and mutants.

usage: run_models.py MODEL.pml...
       run_models.py --skip REASON

Each model lists its runs in its opening comment: the definitions, whether the claims must hold or
fail, and what it is. A run that must hold has to be searched completely without an error; one that
must fail has to end with a violated assertion. Prints a table of all runs, and the reasons of those
that are not as they must be; the exit status is 1 then. --skip prints the reason, and its status
is 77.
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import time

RUN = re.compile(r"^ \*   ((?:[A-Z]+=\d+ ?)+) +(hold|fail)  +(\S.*)$")
REST = re.compile(r"^ \* {20,}(\S.*)$")
STATES = re.compile(r"^\s*(\d+(?:\.\d+)?(?:e\+\d+)?) states, stored", re.MULTILINE)
ERRORS = re.compile(r"errors: (\d+)$", re.MULTILINE)
VIOLATED = re.compile(r"^pan:1: (assertion violated .*?) \(at depth", re.MULTILINE)
INCOMPLETE = ("search not completed", "max search depth too small", "out of memory", "-DMEMLIM",
              "hash array")
SKIPPED = 77
MAX_DEPTH = 20000
MEMORY_MB = 2000
LEAST_STATES = 1000  # of a run that holds; fewer are no proof of anything
LIMIT_S = 600


class Run:
    def __init__(self, definitions, must, text):
        self.definitions = definitions.split()
        self.must = must
        self.text = text
        self.verdict = "broken"
        self.states = 0
        self.seconds = 0.0
        self.reason = ""

    def is_good(self):
        return self.verdict == self.must


def runs_of(path):
    """The runs that a model's opening comment lists; their order is that of the table."""
    runs = []
    with open(path, encoding="utf-8") as file:
        comment = file.read().split("*/", 1)[0]
    follows = False
    for line in comment.split("\n"):
        match = RUN.match(line)
        rest = REST.match(line)
        if match:
            runs.append(Run(*match.groups()))
        elif rest and follows:
            runs[-1].text += " " + rest[1]
        follows = match is not None or (follows and rest is not None)
    return runs


def complaints_of(runs):
    """What is wrong with a list of runs: a model that cannot fail proves nothing."""
    for must in ("hold", "fail"):
        if not any(run.must == must for run in runs):
            yield f"no run that must {must}"
    names = [" ".join(run.definitions) for run in runs]
    for name in sorted(set(names)):
        if names.count(name) > 1:
            yield f"{name} is listed more than once"


def call(arguments, directory):
    result = subprocess.run(arguments, cwd=directory, stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True, check=False, timeout=LIMIT_S)
    return result.returncode, result.stdout


def judge(output):
    """The verdict of a verifier's output, its states, and why it is that."""
    errors = ERRORS.search(output)
    states = STATES.search(output)
    count = int(float(states[1])) if states else 0
    if not errors or count == 0:
        return "broken", count, "the search has no result"
    violated = VIOLATED.search(output)
    if int(errors[1]) > 0:
        if violated:
            return "fail", count, violated[1]
        other = re.search(r"^pan:1: (.*)$", output, re.MULTILINE)
        return "broken", count, other[1] if other else "an error of another kind"
    for sign in INCOMPLETE:
        if sign in output:
            return "broken", count, f"not searched completely: {sign}"
    if count < LEAST_STATES:
        return "broken", count, f"{count} states are too few"
    return "hold", count, ""


def check(path, run):
    """Builds the verifier of one run and runs it."""
    started = time.monotonic()
    with tempfile.TemporaryDirectory() as directory:
        defines = [f"-D{definition}" for definition in run.definitions]
        status, output = call(["spin", "-a", *defines, os.path.abspath(path)], directory)
        if status == 0 and os.path.exists(os.path.join(directory, "pan.c")):
            # What must fail does so soon: the compiler would take longer than the search.
            optimise = "-O1" if run.must == "hold" else "-O0"
            status, output = call(["gcc", optimise, "-w", "-DSAFETY", "-DCOLLAPSE",
                                   f"-DMEMLIM={MEMORY_MB}", "-o", "pan", "pan.c"], directory)
            if status == 0:
                _, output = call(["./pan", f"-m{MAX_DEPTH}", "-w22"], directory)
        run.verdict, run.states, run.reason = judge(output)
        if run.verdict == "broken":
            run.reason += "\n" + output
    run.seconds = time.monotonic() - started


def check_model(path):
    """Checks all runs of a model and prints its table; whether all are as they must be."""
    model = os.path.splitext(os.path.basename(path))[0]
    runs = runs_of(path)
    complaints = list(complaints_of(runs))
    for complaint in complaints:
        print(f"{path}: {complaint}")
    for run in runs:
        check(path, run)
        sign = " " if run.is_good() else "!"
        print(f"{sign} {model:<12} {' '.join(run.definitions):<28} must {run.must}  "
              f"{run.verdict:<6} {run.states:>9} states {run.seconds:6.1f} s  {run.text}",
              flush=True)
    for run in runs:
        if not run.is_good():
            print(f"{path}: {' '.join(run.definitions)} must {run.must}: "
                  f"{run.verdict}: {run.reason or 'no error was found'}")
    # For ./dev torture.
    held = [run for run in runs if run.must == "hold"]
    print(f"torture {model} runs={len(held)} mutants={len(runs) - len(held)} "
          f"states={sum(int(run.states) for run in held)} "
          f"wrong={sum(not run.is_good() for run in runs)}")
    return not complaints and all(run.is_good() for run in runs)


def main(paths):
    if not paths:
        sys.exit(__doc__)
    if paths[0] == "--skip":
        print("skipped:", " ".join(paths[1:]))
        return SKIPPED
    for tool in ("spin", "gcc"):
        if not shutil.which(tool):
            sys.exit(f"{tool} is not installed")
    results = [check_model(path) for path in paths]
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
