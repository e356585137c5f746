#!/usr/bin/env python3
"""Measures this library and what could be used in its place, round by round: every program once,
then every program again, so that a noisy minute of the machine hits all of them.

Prints the medians and how our own figures stand to the targets; a figure's ratio to another one is
taken within a round. Ctrl-C ends the measurement, not the report. docs/benchmarks.md says what
each case is.
"""

import argparse
import csv
import os
import signal
import subprocess
import sys
import tempfile
import time

import figures
import page

HERE = os.path.dirname(os.path.abspath(__file__))
PEERS = "null absl stdmap ck_hs ck_ht urcu dpdk lmdb boost tdb redis qelkrell".split()
VARIED = "ck_hs boost qelkrell".split()  # also with other keys and with skewed draws
OWN = "own-scaling own-growth own-followers own-generic".split()
# The largest n that is worth the time.
LARGEST = {"redis": 1_000_000, "tdb": 1_000_000}
SKEW = "0.99"
SCRATCH = "SCRATCH"  # in a command: the directory for files of tables


def arguments(words):
    parser = argparse.ArgumentParser(
        prog="./dev bench", description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("--rounds", type=positive, default=3, help="how often everything is measured (3)")
    add("--sizes", type=numbers, default=[1000, 100000, 1000000], metavar="N,N...",
        help="entries in the tables (1000,100000,1000000)")
    add("--peers", type=names(PEERS), default=PEERS, metavar="NAME,NAME...",
        help=f"of {','.join(PEERS)}")
    add("--cases", type=lambda s: s.split(","), metavar="CASE,CASE...", help="only these")
    add("--seconds", type=float, default=0.15, help="of each case (0.15)")
    add("--variants", action="store_true",
        help="also with keys of 8 and 64 bytes, and with skewed draws")
    add("--own", action="store_true", help="only ours, without peers")
    add("--no-own", action="store_true", help="only the cases that peers have too")
    add("--dir", default="/dev/shm", help="where files of tables stand (/dev/shm)")
    add("--report", metavar="RAW", help="measures nothing: reports what stands in that file")
    add("--bin", default="build/release/bin", help=argparse.SUPPRESS)
    add("--bin32", default="build/bench-i386/bin", help=argparse.SUPPRESS)
    add("--out", default="build/bench", help="where raw.csv and index.html go (build/bench)")
    return parser.parse_args(words)


def positive(text):
    if int(text) < 1:
        raise argparse.ArgumentTypeError(f"'{text}' is less than 1")
    return int(text)


def numbers(text):
    return [positive(word) for word in text.split(",")]


def names(known):
    def parse(text):
        for name in text.split(","):
            if name not in known:
                raise argparse.ArgumentTypeError(f"no '{name}'; there are {','.join(known)}")
        return text.split(",")
    return parse


def peer_commands(options, n):
    """(what it is, program, arguments) of every peer at one size."""
    for peer in options.peers:
        if n > LARGEST.get(peer, n):
            continue
        words = ["-n", str(n), "-s", str(options.seconds), "-d", SCRATCH]
        if options.cases:
            words += ["-c", ",".join(options.cases)]
        yield f"{peer} n={n}", f"peer_{peer}", words
        if options.variants and peer in VARIED:
            for size in (8, 64):
                yield f"{peer} n={n}, keys of {size}", f"peer_{peer}-k{size}", words
            yield f"{peer} n={n}, skewed", f"peer_{peer}", words + ["-z", SKEW]


def commands(options):
    """(what it is, path, arguments) of one round."""
    found = []
    if not options.own:
        for n in options.sizes:
            found += peer_commands(options, n)
        found += [("wake-ups", "wake", ["4000"]), ("busy wake-ups", "wake", ["4000", "busy"])]
    found = [(what, os.path.join(options.bin, name), words) for what, name, words in found]
    if not options.no_own:
        for name in OWN:
            for width, directory in (("", options.bin), (", 32 bit", options.bin32)):
                path = os.path.join(directory, name)
                if not width or os.path.exists(path):
                    found.append((name + width, path, ["-s", str(options.seconds), "-m",
                                                       str(max(options.sizes))]))
    return found


def rows_of(path, words, parent, limit):
    """The rows a program printed, and what went wrong, if anything.

    Its files stand in a directory of its own below `parent`, which is gone afterwards whatever
    becomes of the program.
    """
    with tempfile.TemporaryDirectory(dir=parent, prefix="qelkrell-bench-") as scratch:
        command = [path] + [scratch if word == SCRATCH else word for word in words]
        return output_of(command, dict(os.environ, BENCH_DIR=scratch), limit)


def output_of(command, environment, limit):
    try:
        child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                 text=True, start_new_session=True, env=environment)
    except OSError as error:
        return [], error.strerror
    late = False
    try:
        out, err = child.communicate(timeout=limit)
    except subprocess.TimeoutExpired:
        late = True
    finally:
        if child.poll() is None:  # it and what it started, and nobody else
            os.killpg(child.pid, signal.SIGKILL)
            child.wait()
    if late:
        out, err = child.communicate()[0], f"took more than {limit} s"
    problem = err.strip()
    if child.returncode and not late:
        problem = f"exit status {child.returncode}: {problem}"
    return [row for row in csv.reader(out.splitlines()) if len(row) == 5], problem


def measure(options, into, raw):
    steps = commands(options)
    missing = [path for _, path, _ in steps if not os.path.exists(path)]
    for path in figures.ordered(missing):
        print(f"-- left out, not built: {path}", file=sys.stderr)
    steps = [step for step in steps if os.path.exists(step[1])]
    if not steps:
        raise SystemExit("no benchmark programs are built")
    writer = csv.writer(raw)
    writer.writerow(figures.HEADER)
    start, all_steps = time.monotonic(), len(steps) * options.rounds
    for done in range(all_steps):
        number, (what, path, words) = done // len(steps), steps[done % len(steps)]
        left = (time.monotonic() - start) / done * (all_steps - done) if done else 0
        progress(f"round {number + 1} of {options.rounds}, {done % len(steps) + 1} of "
                 f"{len(steps)}: {what}" + (f"; {left / 60:.0f} min left" if left > 90 else ""))
        rows, problem = rows_of(path, words, options.dir, 300)
        if problem:
            progress(f"{what}: {problem}\n")
        for row in rows:
            writer.writerow([number] + row)
            into.add([str(number)] + row)
        raw.flush()
    progress("")


def progress(text):
    """One line that the next one replaces on a terminal; plain lines elsewhere."""
    if sys.stderr.isatty():
        print(f"\r\x1b[K{text}", end="", file=sys.stderr, flush=True)
    elif text:
        print(f"-- {text.rstrip()}", file=sys.stderr, flush=True)


def main(words):
    options = arguments(words)
    found = figures.Figures()
    os.makedirs(options.out, exist_ok=True)
    if options.report:
        try:
            found.read(options.report)
        except (OSError, ValueError) as error:
            raise SystemExit(f"cannot report: {error}") from None
    else:
        with open(os.path.join(options.out, "raw.csv"), "w", encoding="utf-8", newline="") as raw:
            try:
                measure(options, found, raw)
            except KeyboardInterrupt:
                progress("")
                print("-- interrupted: this is what there is", file=sys.stderr)
    targets = figures.read_targets(os.path.join(HERE, "targets.csv"))
    print("\n".join(figures.text_of(found, targets)))
    path = os.path.join(options.out, "index.html")
    page.write(found, targets, path)
    print(f"\nraw figures: {options.report or os.path.join(options.out, 'raw.csv')}\npage: {path}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
