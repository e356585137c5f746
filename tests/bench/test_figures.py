"""Medians, ratios within a round, targets, tables and the page of the benchmarks."""

import contextlib
import io
import os
import stat
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
BENCH = os.path.join(HERE, "..", "..", "bench")
sys.path.insert(0, BENCH)

import figures  # noqa: E402
import page     # noqa: E402
import run      # noqa: E402


def figures_of(*rows):
    found = figures.Figures()
    for row in rows:
        found.add([str(field) for field in row])
    return found


def rows(peer, case, *by_round, n=1000, unit="ns/op"):
    return [(number, peer, n, case, unit, figure) for number, figure in enumerate(by_round)]


def target(of, limit=0.7, case="hit", low=0, high=float("inf")):
    return figures.Target(case, of, limit, low, high)


class Figures(unittest.TestCase):
    def test_the_median_is_over_rounds(self):
        found = figures_of(*rows("a", "hit", 5, 1, 3))
        self.assertEqual(found.median("a", 1000, "hit"), 3)
        self.assertEqual(found.spread("a", 1000, "hit"), (1, 5))
        self.assertIsNone(found.median("a", 1000, "miss"))

    def test_a_ratio_is_taken_within_each_round(self):
        # The machine was three times slower in the second round; the ratio did not change.
        found = figures_of(*rows("a", "hit", 10, 30, 10), *rows("b", "hit", 20, 60, 20))
        self.assertEqual(found.ratio(("a", 1000, "hit"), ("b", 1000, "hit")), (0.5, 3))

    def test_a_round_that_only_one_of_them_has_does_not_count(self):
        found = figures_of(*rows("a", "hit", 10, 10, 10), (1, "b", 1000, "hit", "ns/op", 40))
        self.assertEqual(found.ratio(("a", 1000, "hit"), ("b", 1000, "hit")), (0.25, 1))

    def test_no_common_round_is_no_ratio(self):
        found = figures_of(*rows("a", "hit", 10))
        self.assertEqual(found.ratio(("a", 1000, "hit"), ("b", 1000, "hit")), (None, 0))

    def test_the_best_peer_is_the_one_of_the_least_median(self):
        found = figures_of(*rows("ck_hs", "hit", 1, 50, 50), *rows("ck_ht", "hit", 40, 40, 40))
        self.assertEqual(found.best(figures.IN_PROCESS, 1000, "hit"), "ck_ht")
        self.assertIsNone(found.best(figures.IN_PROCESS, 1000, "miss"))

    def test_wrong_values_are_counted_and_are_no_figure(self):
        found = figures_of((0, "a", 1000, "hit", "BAD", 3), (1, "a", 1000, "hit", "BAD", 4))
        self.assertIsNone(found.median("a", 1000, "hit"))
        self.assertIn("7 values", figures.bad_lines(found)[0])

    def test_a_row_that_is_none_is_refused_with_its_place(self):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "raw.csv")
            for line, why in (("0,a,1000,hit,ns/op", "5 fields"),
                              ("0,a,many,hit,ns/op,1", "no number"),
                              ("0,a,1000,hit,ns/op,fast", "no number")):
                with open(path, "w", encoding="utf-8") as file:
                    file.write(",".join(figures.HEADER) + "\n0,a,1000,hit,ns/op,1\n" + line + "\n")
                with self.assertRaisesRegex(ValueError, f"raw.csv:3: .*{why}"):
                    figures.Figures().read(path)


class Targets(unittest.TestCase):
    found = figures_of(*rows("qelkrell", "hit", 10, 10), *rows("ck_hs", "hit", 20, 20),
                       *rows("ck_ht", "hit", 16, 16), *rows("lmdb", "hit", 100, 50),
                       *rows("qelkrell", "hit", 30, n=100000))

    def verdicts(self, *targets):
        return figures.judged(self.found, targets)

    def test_the_best_in_process_peer_is_the_measure(self):
        verdict = self.verdicts(target("in-process"))[0]
        self.assertEqual((verdict.peer, verdict.ratio, verdict.rounds), ("ck_ht", 0.625, 2))
        self.assertEqual(figures.word(verdict), "met")

    def test_a_ratio_above_the_limit_is_missed_and_one_at_it_is_met(self):
        self.assertEqual(figures.word(self.verdicts(target("in-process", 0.624))[0]), "MISSED")
        self.assertEqual(figures.word(self.verdicts(target("in-process", 0.625))[0]), "met")

    def test_a_named_peer_is_the_measure(self):
        self.assertAlmostEqual(self.verdicts(target("lmdb"))[0].ratio, 0.15)

    def test_what_was_not_measured_is_not_met(self):
        for of in ("boost_ipc", "boost_ipc/memory", "nobody"):
            verdict = self.verdicts(target(of))[0]
            self.assertEqual(figures.word(verdict), "not measured")

    def test_a_target_holds_for_its_sizes_only(self):
        self.assertEqual([v.n for v in self.verdicts(target("lmdb"))], [1000, 100000])
        self.assertEqual([v.n for v in self.verdicts(target("lmdb", high=1000))], [1000])
        self.assertEqual([v.n for v in self.verdicts(target("lmdb", low=1001))], [100000])

    def test_a_figure_is_its_own_measure(self):
        met, missed = self.verdicts(target("figure", 10, high=1000), target("figure", 9, high=1000))
        self.assertEqual((figures.word(met), figures.word(missed)), ("met", "MISSED"))

    def test_a_reference_without_size_serves_every_size(self):
        found = figures_of(*rows("qelkrell", "wake_p50", 21, unit="ns"),
                           *rows("wake_eventfd_epoll", "oneway_p50", 20, n=0, unit="ns"))
        verdict = figures.judged(
            found, [target("wake_eventfd_epoll/oneway_p50", 1.1, "wake_p50")])[0]
        self.assertAlmostEqual(verdict.ratio, 1.05)

    def test_the_table_of_targets_can_be_read_and_names_known_peers_and_cases(self):
        targets = figures.read_targets(os.path.join(BENCH, "targets.csv"))
        self.assertGreater(len(targets), 20)
        peers = figures.PIPED + ("redis", "wake_eventfd_epoll", "in-process", "pipe", "figure")
        for one in targets:
            self.assertIn(one.case, figures.PEER_CASES)
            self.assertIn(one.of.partition("/")[0], peers)
            self.assertGreater(one.limit, 0)

    def test_sizes_without_dots_are_refused(self):
        with self.assertRaisesRegex(ValueError, "'1000' is not FROM..TO"):
            figures.bounds("1000")


class Report(unittest.TestCase):
    found = figures_of(*rows("absl_flat", "hit", 10), *rows("qelkrell", "hit", 15),
                       *rows("qelkrell-k8", "hit", 12),
                       *rows("wake_eventfd", "oneway_p50", 7, n=0, unit="ns"),
                       *rows("qelkrell", "build", 1, unit="ms"),
                       *rows("qelkrell", "build", 10, n=10000, unit="ms"),
                       *rows("qelkrell", "build", 200, n=100000, unit="ms"),
                       *rows("qelkrell-32bit", "build", 3, unit="ms"))

    def test_each_figure_is_in_its_table(self):
        tables = dict(figures.tables(self.found, []))
        self.assertEqual(tables["Medians at n = 1000"],
                         [["case", "unit", "absl_flat", "qelkrell"],
                          ["hit", "ns/op", "10.0", "15.0"]])
        self.assertEqual(tables["Other keys and skewed draws at n = 1000"][1],
                         ["hit", "ns/op", "15.0", "12.0"])
        self.assertEqual(tables["Ratios to absl_flat at n = 1000"][1], ["hit", "1.50"])
        self.assertEqual(tables["Waking up, without tables"][1][:2], ["wake_eventfd", "7.00"])
        self.assertEqual(tables["Without peers"][1],
                         ["build", "1000", "ms", "1.00", "1.00", "3.00", "3.00"])

    def test_a_time_that_grows_faster_than_n_is_named(self):
        straight = figures_of(*rows("qelkrell", "build", 1, unit="ms"),
                              *rows("qelkrell", "build", 10, n=10000, unit="ms"))
        self.assertEqual(page.scaling_rows(straight)[1][-2:], ["1.00", "as n"])
        self.assertEqual(page.scaling_rows(self.found)[1][-2:], ["1.30", "FASTER"])

    def test_growth_is_that_of_the_last_decade(self):
        self.assertEqual(page.growth([10, 100, 1000], [1, 1, 100])[0], 100)
        self.assertAlmostEqual(page.growth([10, 100, 1000], [1, 1, 100])[1], 2)
        self.assertAlmostEqual(page.growth([1000, 3162, 10000], [1, 9, 10])[1], 1)
        self.assertAlmostEqual(page.growth([1, 10000], [1, 10000])[1], 1)
        self.assertEqual(page.growth([100, 1000], [0, 5]), (100, None))

    def test_sizes_stand_side_by_side(self):
        head = ["case", "n", "unit", "median", "worst"]
        self.assertEqual(
            page.across([head, ["build", "1000", "ms", "2", "9"], ["build", "30", "ms", "1", "9"],
                         ["read", "-", "ns/op", "5", "9"], ["find", "30", "ns/op", "4", "9"]]),
            [["case", "unit", "30", "1000", "-"], ["build", "ms", "1", "2", ""],
             ["read", "ns/op", "", "", "5"], ["find", "ns/op", "4", "", ""]])
        self.assertEqual(page.across([head, ["build", "30", "ms", "1", "9"]])[0],
                         ["case", "unit", "30"])

    def test_memory_is_told_in_gigabytes(self):
        self.assertEqual(page.gigabytes("24684084 kB"), "25 GB")
        self.assertEqual(page.gigabytes(""), "?")
        self.assertEqual(page.gigabytes("many"), "many")

    def test_the_page_has_every_table_and_escapes_names(self):
        found = figures_of(*rows("<a&b>", "hit", 10), (0, "x", 1000, "hit", "BAD", 1))
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "index.html")
            page.write(found, [], path)
            with open(path, encoding="utf-8") as file:
                text = file.read()
        self.assertIn("&lt;a&amp;b&gt;", text)
        self.assertNotIn("<a&b>", text)
        self.assertIn("1 values", text)

    def test_figures_are_short(self):
        for figure, text in ((None, "-"), (0.123, "0.12"), (0.0041, "0.0041"), (12.34, "12.3"),
                             (1234, "1234"), (123456, "123k"), (12345678, "12.3M")):
            self.assertEqual(figures.short(figure), text)


class Programs(unittest.TestCase):
    """The driver, with programs that the test writes."""

    def run_with(self, scripts, *words):
        """(exit status, standard output, standard error, rows) of a run with these programs."""
        with tempfile.TemporaryDirectory() as directory:
            for name, script in scripts.items():
                path = os.path.join(directory, name)
                with open(path, "w", encoding="utf-8") as file:
                    file.write("#!/bin/sh\n" + script)
                os.chmod(path, stat.S_IRWXU)
            out, err = io.StringIO(), io.StringIO()
            with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
                status = run.main(["--bin", directory, "--bin32", directory, "--out", directory,
                                   "--dir", directory, "--sizes", "100", *words])
            with open(os.path.join(directory, "raw.csv"), encoding="utf-8") as file:
                found = file.read().splitlines()
            left = [name for name in os.listdir(directory) if name.startswith("qelkrell-bench-")]
            self.assertEqual(left, [])
            return status, out.getvalue(), err.getvalue(), found

    def test_rounds_are_interleaved(self):
        status, _, _, found = self.run_with(
            {"peer_absl": "echo absl_flat,100,hit,ns/op,1",
             "peer_ck_hs": "echo ck_hs,100,hit,ns/op,2"},
            "--peers", "absl,ck_hs", "--rounds", "2", "--no-own")
        self.assertEqual(status, 0)
        self.assertEqual(found[1:], ["0,absl_flat,100,hit,ns/op,1", "0,ck_hs,100,hit,ns/op,2",
                                     "1,absl_flat,100,hit,ns/op,1", "1,ck_hs,100,hit,ns/op,2"])

    def test_what_a_program_says_when_it_fails_is_told_and_its_rows_are_kept(self):
        _, _, err, found = self.run_with(
            {"peer_absl": "echo absl_flat,100,hit,ns/op,1; echo no room >&2; exit 3"},
            "--peers", "absl", "--rounds", "1", "--no-own")
        self.assertIn("exit status 3: no room", err)
        self.assertEqual(found[1:], ["0,absl_flat,100,hit,ns/op,1"])

    def test_a_program_that_is_not_built_is_left_out(self):
        _, _, err, _ = self.run_with({"peer_absl": "echo absl_flat,100,hit,ns/op,1"},
                                     "--peers", "absl,redis", "--rounds", "1", "--no-own")
        self.assertRegex(err, "left out, not built: .*/peer_redis")

    def test_files_of_a_program_are_gone_afterwards(self):
        self.run_with({"peer_absl": "while [ $1 != -d ]; do shift; done; echo x > $2/left; exit 1"},
                      "--peers", "absl", "--rounds", "1", "--no-own")

    def test_a_program_that_takes_too_long_is_ended_and_its_rows_are_kept(self):
        script = "echo a,1,hit,ns/op,1; exec tail -f /dev/null"
        found, problem = run.output_of(["/bin/sh", "-c", script], os.environ, 0.2)
        self.assertEqual(found, [["a", "1", "hit", "ns/op", "1"]])
        self.assertEqual(problem, "took more than 0.2 s")

    def test_a_file_that_is_not_there_or_has_other_rows_is_no_report(self):
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "raw.csv")
            for text in (None, "a,b\n"):
                if text:
                    with open(path, "w", encoding="utf-8") as file:
                        file.write(text)
                with self.assertRaisesRegex(SystemExit, "cannot report: .*raw.csv"):
                    run.main(["--report", path, "--out", directory])

    def test_unknown_peers_are_refused(self):
        err = io.StringIO()
        with contextlib.redirect_stderr(err), self.assertRaises(SystemExit):
            run.arguments(["--peers", "absl,nobody"])
        self.assertIn("no 'nobody'", err.getvalue())


if __name__ == "__main__":
    unittest.main()
