"""Rows of measurements: medians over rounds, ratios within a round, and the targets.

A row is what a program printed (peer, n, case, unit, figure) behind the number of its round. All
figures are times or sizes: less is better.
"""

import collections
import csv
import statistics

OURS = "qelkrell"
BASE_LINE = "absl_flat"
IN_PROCESS = ("std_rwlock", "ck_hs", "ck_ht", "urcu_lfht", "dpdk_hash")
PIPED = IN_PROCESS + ("lmdb", "boost_ipc", "tdb")
# The cases that every peer has, in the order of the tables.
PEER_CASES = ("insert", "insert_grown", "memory", "memory_grown", "hit", "hit_dep", "miss",
              "many32", "scan", "update", "update_b1000", "mixed_read", "mixed_write", "wake_p50",
              "wake_p99", "drain_write", "drain_read", "drain_p50", "drain_p99")
VARIANTS = ("-k8", "-k64", "-zipf")  # what a peer's name ends with: other keys, skewed draws
WIDE, NARROW = OURS, OURS + "-32bit"
HEADER = ["round", "peer", "n", "case", "unit", "figure"]
# The base line has one thread; these cases of the others are held against that one of its.
STAND_IN = {"mixed_read": "hit", "mixed_write": "update", "drain_write": "update",
            "drain_read": "update"}

Target = collections.namedtuple("Target", "case of limit low high")
# `ratio` is None where there is nothing to hold ours against.
Verdict = collections.namedtuple("Verdict", "n case of peer ours theirs ratio limit rounds")


class Figures:
    """The rows of a file or of programs, by peer, n and case."""

    def __init__(self):
        self.by_round = collections.defaultdict(dict)  # (peer, n, case) -> {round: figure}
        self.units = {}   # case -> unit
        self.bad = collections.Counter()  # (peer, n, case) -> values that were not right

    def add(self, row):
        """Takes one row; ValueError says what is wrong with it."""
        if len(row) != len(HEADER):
            raise ValueError(f"{len(row)} fields where {len(HEADER)} belong: {','.join(row)}")
        number, peer, n, case, unit, figure = row
        try:
            key, number, figure = (peer, int(n), case), int(number), float(figure)
        except ValueError:
            raise ValueError(f"round, n or figure is no number: {','.join(row)}") from None
        if unit == "BAD":
            self.bad[key] += int(figure)
        else:
            self.by_round[key][number] = figure
            self.units[case] = unit

    def read(self, path):
        with open(path, encoding="utf-8", newline="") as file:
            for number, row in enumerate(csv.reader(file), 1):
                if row and row != HEADER:
                    try:
                        self.add(row)
                    except ValueError as error:
                        raise ValueError(f"{path}:{number}: {error}") from None

    def peers(self):
        return ordered(peer for peer, _, _ in self.by_round)

    def sizes(self):
        return sorted({n for _, n, _ in self.by_round})

    def cases(self):
        return ordered(case for _, _, case in self.by_round)

    def median(self, peer, n, case):
        """None when there is no such row."""
        rounds = self.by_round.get((peer, n, case))
        return statistics.median(rounds.values()) if rounds else None

    def spread(self, peer, n, case):
        """The smallest and the largest figure of all rounds."""
        rounds = self.by_round[peer, n, case].values()
        return min(rounds), max(rounds)

    def ratio(self, ours, theirs):
        """The median of the ratios within one round, and of how many; (None, 0) without any.

        Both are (peer, n, case).
        """
        mine, other = self.by_round.get(ours, {}), self.by_round.get(theirs, {})
        ratios = [mine[r] / other[r] for r in mine if other.get(r)]
        return (statistics.median(ratios), len(ratios)) if ratios else (None, 0)

    def best(self, peers, n, case):
        """Whose median is least; None when none of them has that case."""
        found = [(self.median(p, n, case), p) for p in peers if self.median(p, n, case) is not None]
        return min(found)[1] if found else None


def ordered(names):
    return list(dict.fromkeys(names))


def bounds(text):
    """'100..' -> (100, infinity)."""
    low, dots, high = text.partition("..")
    if not dots:
        raise ValueError(f"'{text}' is not FROM..TO")
    return int(low or 0), float(high or "inf")


def read_targets(path):
    targets = []
    with open(path, encoding="utf-8", newline="") as file:
        lines = [line for line in file if line.strip() and not line.startswith("#")]
    for row in csv.reader(lines[1:]):
        if len(row) != 4:
            raise ValueError(f"{path}: a target has 4 fields: {','.join(row)}")
        low, high = bounds(row[3])
        targets.append(Target(row[0], row[1], float(row[2]), low, high))
    return targets


def rival(figures, target, n):
    """The (peer, n, case) that a target is about; None without one or when there is no such row."""
    peers = {"in-process": IN_PROCESS, "pipe": PIPED}.get(target.of)
    if peers:
        best = figures.best(peers, n, target.case)
        return (best, n, target.case) if best else None
    peer, _, case = target.of.partition("/")
    for size in (n, 0):  # references have no size
        key = (peer, size, case or target.case)
        if key in figures.by_round:
            return key
    return None


def judged(figures, targets, ours=OURS):
    """A verdict for each target at each size that was measured."""
    verdicts = []
    for target in targets:
        for n in figures.sizes():
            mine = figures.median(ours, n, target.case)
            if mine is None or not target.low <= n <= target.high:
                continue
            if target.of == "figure":
                rounds = len(figures.by_round[ours, n, target.case])
                verdicts.append(Verdict(n, target.case, target.of, "", mine, None, mine,
                                        target.limit, rounds))
                continue
            key = rival(figures, target, n)
            ratio, rounds = figures.ratio((ours, n, target.case), key) if key else (None, 0)
            verdicts.append(Verdict(n, target.case, target.of, key[0] if key else "", mine,
                                    figures.median(*key) if key else None, ratio, target.limit,
                                    rounds))
    return verdicts


def word(verdict):
    if verdict.ratio is None:
        return "not measured"
    return "met" if verdict.ratio <= verdict.limit else "MISSED"


def short(figure):
    """A figure in about four characters."""
    if figure is None:
        return "-"
    for limit, divisor, suffix in ((1e4, 1, ""), (1e7, 1e3, "k"), (1e10, 1e6, "M")):
        if abs(figure) < limit:
            figure /= divisor
            if abs(figure) < 1:
                return f"{figure:.2g}{suffix}"
            digits = 0 if abs(figure) >= 100 else 1 if abs(figure) >= 10 else 2
            return f"{figure:.{digits}f}{suffix}"
    return f"{figure:.3g}"


def aligned(rows):
    """Lines of a table; the first row is its head, the first column stands left."""
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    return ["  ".join(cell.ljust(w) if i == 0 else cell.rjust(w)
                      for i, (cell, w) in enumerate(zip(row, widths))).rstrip() for row in rows]


def case_rows(figures, n, varied=False):
    """Head and rows of the medians of one size: a row a case, a column a peer.

    `varied`: of the variants and what they are variants of, else of all others.
    """
    peers = figures.peers()
    bases = {p.removesuffix(v) for p in peers for v in VARIANTS if p.endswith(v)}
    if varied:
        peers = sorted(p for p in peers if p in bases or p.endswith(VARIANTS))
    else:
        peers = [p for p in peers if not p.endswith(VARIANTS)]
    cases = [c for c in PEER_CASES if any((p, n, c) in figures.by_round for p in peers)]
    peers = [p for p in peers if any((p, n, c) in figures.by_round for c in cases)]
    if not cases or (varied and len(peers) <= len(bases)):
        return []
    return [["case", "unit"] + peers] + [
        [case, figures.units[case]] + [short(figures.median(p, n, case)) for p in peers]
        for case in cases]


def base_line_rows(figures, n):
    """The same as ratios to the base line within a round; only the cases that it has."""
    peers = [p for p in figures.peers() if p != BASE_LINE and not p.endswith(VARIANTS)]
    peers = [p for p in peers if any((p, n, c) in figures.by_round for c in PEER_CASES)]
    rows = []
    for case in PEER_CASES:
        against = (BASE_LINE, n, STAND_IN.get(case, case))
        ratios = [figures.ratio((p, n, case), against)[0] for p in peers]
        if any(r is not None for r in ratios):
            rows.append([case] + ["-" if r is None else f"{r:.2f}" for r in ratios])
    return [["case"] + peers] + rows if rows else []


def reference_rows(figures):
    """What waking a process takes without a table: a row each way."""
    names = [p for p in figures.peers() if (p, 0, "oneway_p50") in figures.by_round]
    rows = [[p] + [short(figures.median(p, 0, c)) for c in ("oneway_p50", "oneway_p99")]
            for p in names]
    return [["one way", "p50 ns", "p99 ns"]] + rows if rows else []


def own_cases(figures):
    """(case, n) of what only ours has, in the order of measurement."""
    return [(case, n) for case in figures.cases() for n in figures.sizes()
            if case not in PEER_CASES and (WIDE, n, case) in figures.by_round]


def own_rows(figures):
    """A row a case and size: 64 bit, 32 bit and their ratio; the worst of all rounds."""
    rows = [["case", "n", "unit", "median", "worst", "32 bit", "32 of 64"]]
    for case, n in own_cases(figures):
        ratio, _ = figures.ratio((NARROW, n, case), (WIDE, n, case))
        rows.append([case, str(n) if n else "-", figures.units[case],
                     short(figures.median(WIDE, n, case)), short(figures.spread(WIDE, n, case)[1]),
                     short(figures.median(NARROW, n, case)),
                     "-" if ratio is None else f"{ratio:.2f}"])
    return rows if len(rows) > 1 else []


def target_rows(verdicts):
    rows = [["case", "n", "of", "ours", "theirs", "ratio", "at most", "rounds", ""]]
    for v in verdicts:
        of = v.of if not v.peer or v.peer == v.of.partition("/")[0] else f"{v.of}: {v.peer}"
        rows.append([v.case, str(v.n), of, short(v.ours), short(v.theirs),
                     "-" if v.ratio is None else f"{v.ratio:.3g}", f"{v.limit:g}", str(v.rounds),
                     word(v)])
    return rows


def bad_lines(figures):
    return [f"{peer} n={n} {case}: {count} values that were missing, torn or another key's"
            for (peer, n, case), count in figures.bad.items()]


def tables(figures, targets):
    """(heading, rows) of all tables, without empty ones."""
    verdicts = judged(figures, targets)
    found = [("Targets", target_rows(verdicts) if verdicts else []),
             ("Waking up, without tables", reference_rows(figures))]
    for n in figures.sizes():
        found += [(f"Medians at n = {n}", case_rows(figures, n)),
                  (f"Other keys and skewed draws at n = {n}", case_rows(figures, n, True)),
                  (f"Ratios to {BASE_LINE} at n = {n}", base_line_rows(figures, n))]
    found.append(("Without peers", own_rows(figures)))
    return [(heading, rows) for heading, rows in found if rows]


def summary(figures, targets):
    words = [word(v) for v in judged(figures, targets)]
    return ", ".join(f"{words.count(w)} {w.lower()}" for w in ("met", "MISSED", "not measured"))


def text_of(figures, targets):
    """All tables, as lines; the targets last, where they are seen."""
    lines = []
    found = tables(figures, targets)
    for heading, rows in sorted(found, key=lambda table: table[0] == "Targets"):
        lines += [heading, ""] + aligned(rows) + [""]
    if found and found[0][0] == "Targets":
        lines.append(summary(figures, targets))
    return lines + bad_lines(figures)
