#!/usr/bin/env python3
"""Counts the instructions of the hot operations, and compares them with those that are recorded.

usage: counts.py [--record] PROGRAM [FILE]

PROGRAM is instruction-counts, built optimised; it runs under callgrind. FILE holds the recorded
counts: counts.txt beside this script if not given. Prints a table of both; the exit status is 1
when an operation takes more instructions than the slack allows or so much fewer that the record
says nothing any more, or when one of the two does not have it. They are not compared when PROGRAM
was built with another toolchain than the one recorded: the status is 77 then.

--record writes FILE anew with what was counted.
"""

import collections
import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIPPED = 77
LIMIT_S = 300
# Equal code has equal counts, but the C and C++ libraries get updates.
MORE_SHARE = 0.03
FEWER_SHARE = 0.10
LEAST_SLACK = 3.0
# By which the C library chooses among its memcpy and the like.
PROCESSOR_FEATURES = ("SSSE3", "SSE4_1", "SSE4_2", "AVX", "AVX2", "AVX512F", "AVX512VL",
                      "AVX512BW", "BMI1", "BMI2", "LZCNT", "MOVBE", "ERMS", "FSRM", "RTM")
HINT = "record it: ./dev instructions --record"

HEAD = """# Instructions that each hot operation takes, loop included, optimised as the libraries are for
# their users; docs/testing.md says how they are counted and compared. Keys of 16 bytes and values
# of 48 where nothing else is said. Written by: ./dev instructions --record
"""
TOOLCHAIN = re.compile(r"toolchain: (\S.*)")
LINE = re.compile(r"(\S+) +(\d+\.\d) +(\S.*)")
TOTALS = re.compile(r"^totals: (\d+)$", re.MULTILINE)

# What a file records, or what was counted: count by name, with its description.
Counts = collections.namedtuple("Counts", "toolchain of")
Count = collections.namedtuple("Count", "number what")


class Refused(Exception):
    """Nothing can be counted or compared; the text says why."""


def parsed(text, name):
    """The counts that a file records."""
    toolchain = None
    of = {}
    for number, line in enumerate(text.splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        head = TOOLCHAIN.fullmatch(line)
        match = LINE.fullmatch(line)
        if head and toolchain is None:
            toolchain = head[1]
        elif not match:
            raise Refused(f"{name}:{number}: not an operation, its count and what it is: {line}")
        elif match[1] in of:
            raise Refused(f"{name}:{number}: {match[1]} is there twice")
        else:
            of[match[1]] = Count(float(match[2]), match[3])
    if toolchain is None:
        raise Refused(f"{name}: no line 'toolchain: ...'")
    return Counts(toolchain, of)


def written(counts):
    width = max(len(name) for name in counts.of)
    lines = [f"{name:<{width}} {count.number:9.1f}  {count.what}\n"
             for name, count in counts.of.items()]
    return f"{HEAD}toolchain: {counts.toolchain}\n\n{''.join(lines)}"


def evaluated(output, totals):
    """The counts, from the program's output and the totals that callgrind wrote in its order."""
    toolchain, *lines = output.splitlines() or [""]
    operations = [line.split("\t") for line in lines]
    if not toolchain or not operations or any(len(fields) != 3 for fields in operations):
        raise Refused(f"the program's output is not as it must be:\n{output}")
    if len(totals) != len(operations):
        raise Refused(f"{len(operations)} operations, but callgrind counted {len(totals)} times")
    of = {}
    for (name, times, what), total in zip(operations, totals):
        if name in of:
            raise Refused(f"the program does {name} twice")
        if total == 0:
            raise Refused(f"callgrind counted nothing for {name}")
        of[name] = Count(round(total / int(times), 1), what)
    return Counts(toolchain, of)


def complaints(recorded, counted):
    """What is wrong with the counts, a line each."""
    for name, (number, what) in counted.of.items():
        was = recorded.of.get(name)
        if was is None:
            yield f"{name}: counted {number:.1f}, but not recorded; {HINT}"
            continue
        both = f"recorded {was.number:.1f}, counted {number:.1f}"
        if number > was.number + max(MORE_SHARE * was.number, LEAST_SLACK):
            yield f"{name}: more instructions: {both}"
        elif number < was.number - max(FEWER_SHARE * was.number, LEAST_SLACK):
            yield f"{name}: fewer instructions: {both}; {HINT}"
        elif what != was.what:
            yield f"{name}: recorded as '{was.what}', now '{what}'; {HINT}"
    for name, was in recorded.of.items():
        if name not in counted.of:
            yield f"{name}: recorded {was.number:.1f}, but not counted; if it is gone, {HINT}"


def table(recorded, counted):
    lines = [f"{'operation':<18} {'recorded':>9} {'counted':>9}"]
    for name in [*counted.of, *(name for name in recorded.of if name not in counted.of)]:
        columns = [f"{counts.of[name].number:9.1f}" if name in counts.of else f"{'-':>9}"
                   for counts in (recorded, counted)]
        lines.append(f"{name:<18} {columns[0]} {columns[1]}")
    return "\n".join(lines)


def totals_in(directory):
    """What callgrind counted, in the order of its files out.1, out.2 and so on."""
    files = [f for f in glob.glob(os.path.join(directory, "out.*")) if re.search(r"\.\d+$", f)]
    totals = []
    for path in sorted(files, key=lambda f: int(f.rsplit(".", 1)[1])):
        with open(path, encoding="utf-8", errors="replace") as file:
            match = TOTALS.search(file.read())
        if not match:
            raise Refused(f"{os.path.basename(path)} has no totals")
        totals.append(int(match[1]))
    return totals


def environment():
    """Nothing is bound while it counts, and no code is chosen by the processor's features."""
    result = dict(os.environ)
    result["LD_BIND_NOW"] = "1"
    result["GLIBC_TUNABLES"] = "glibc.cpu.hwcaps=" + ",".join(f"-{f}" for f in PROCESSOR_FEATURES)
    return result


def fixed_addresses():
    """The prefix of commands whose addresses are the same each time, where that is possible."""
    prefix = ["setarch", "-R"]
    if not shutil.which(prefix[0]):
        return []
    result = subprocess.run([*prefix, "true"], stderr=subprocess.DEVNULL, check=False)
    return prefix if result.returncode == 0 else []


def count(program):
    """Runs the program under callgrind."""
    if not shutil.which("valgrind"):
        raise Refused("there is no valgrind")
    with tempfile.TemporaryDirectory() as directory:
        command = [*fixed_addresses(), "valgrind", "--tool=callgrind", "--collect-atstart=no",
                   "--toggle-collect=Instructions::collected(*",
                   "--dump-after=Instructions::counted(*",
                   f"--callgrind-out-file={directory}/out", os.path.abspath(program)]
        result = subprocess.run(command, env=environment(), stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, check=False, timeout=LIMIT_S)
        if result.returncode != 0:
            raise Refused(f"{program} ended with status {result.returncode}:\n{result.stderr}")
        return evaluated(result.stdout, totals_in(directory))


def record(path, counted):
    new = path + ".new"
    with open(new, "w", encoding="utf-8") as file:
        file.write(written(counted))
    os.replace(new, path)


def compare(path, counted):
    with open(path, encoding="utf-8") as file:
        recorded = parsed(file.read(), path)
    if recorded.toolchain != counted.toolchain:
        print(f"skipped: the counts are recorded for {recorded.toolchain}; this is "
              f"{counted.toolchain}")
        return SKIPPED
    print(table(recorded, counted))
    found = list(complaints(recorded, counted))
    for complaint in found:
        print(f"{path}: {complaint}")
    return 1 if found else 0


def main(arguments):
    recording = arguments[:1] == ["--record"]
    paths = arguments[1:] if recording else arguments
    if not 1 <= len(paths) <= 2 or paths[0].startswith("-"):
        print(__doc__, file=sys.stderr)
        return 2
    here = os.path.dirname(os.path.abspath(__file__))
    path = paths[1] if len(paths) == 2 else os.path.join(here, "counts.txt")
    try:
        counted = count(paths[0])
        if not recording:
            return compare(path, counted)
        record(path, counted)
        print(written(counted), end="")
        return 0
    except (Refused, OSError, subprocess.TimeoutExpired) as refusal:
        print(f"counts.py: {refusal}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
