"""The table of faults says what ran, and nothing is called held that proved nothing."""

import contextlib
import io
import os
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest

import run

# Stands for a test program: lists two tests, and does what the script says.
PROGRAM = """#!/bin/bash
case "$*" in
*--gtest_list_tests*) printf 'Random.\\n  One\\n  DISABLED_Two\\n  Three # comment\\n'; exit ;;
esac
%s
"""


class Torture(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        rows = run.ROWS
        self.addCleanup(setattr, run, "ROWS", rows)
        self.addCleanup(signal.signal, signal.SIGINT, signal.getsignal(signal.SIGINT))
        run.ROWS = [("kills", "processes die", [("tests", "*")])]

    def path(self, name):
        return os.path.join(self.directory.name, name)

    def make(self, script, width="bin64"):
        os.makedirs(self.path(width), exist_ok=True)
        program = os.path.join(self.path(width), "tests")
        with open(program, "w", encoding="utf-8") as file:
            file.write(PROGRAM % script)
        os.chmod(program, os.stat(program).st_mode | stat.S_IXUSR)

    def words(self, *more):
        return ["0.01", "--seed", "7", "--jobs", "1", "--bin64", self.path("bin64"),
                "--bin32", self.path("bin32"), "--out", self.path("out"), *more]

    def run_it(self, *more):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            status = run.main(self.words(*more))
        return status, printed.getvalue()

    def test_figures_of_all_tests_are_added(self):
        self.make("echo torture kills seed=$KRELL_SEED rounds=2 kills=1 torn=0 'longestUs<=9'\n"
                  "echo torture kills seed=$KRELL_SEED rounds=9 kills=1200 torn=0 "
                  "\"longestUs<=$KRELL_SEED\"")
        status, printed = self.run_it()
        self.assertEqual(status, 0, printed)
        self.assertIn("kills                64  held    processes die", printed)
        self.assertIn("kills 2,400, torn 0, longestUs up to 8", printed)
        self.assertIn("2 of 2 tests, seeds 7 to 8", printed)
        with open(self.path("out/table.txt"), encoding="utf-8") as table:
            self.assertIn(table.read().strip(), printed)

    def test_each_width_has_its_line(self):
        self.make("echo torture kills kills=5")
        self.make("echo torture kills kills=7", "bin32")
        _, printed = self.run_it()
        self.assertIn("kills 10\n", printed)
        self.assertIn("kills 14\n", printed)
        _, printed = self.run_it("--bits", "32")
        self.assertNotIn("kills 10\n", printed)

    def test_a_test_that_fails_is_told_with_its_replay(self):
        self.make("echo torture kills kills=5; exit 3")
        status, printed = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("kills                64  FAILED", printed)
        self.assertIn("exit status 3", printed)
        self.assertRegex(printed, r"replay: QELKRELL_BIN=\S+ .*KRELL_SEED=7 QELKRELL_TORTURE=1 "
                         r"\S+tests --gtest_filter=Random.One")

    def test_a_figure_that_must_be_none_fails(self):
        self.make("echo torture kills kills=5 torn=1")
        status, printed = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("(torn 1)", printed)

    def test_a_test_without_figures_fails(self):
        self.make("true")
        status, printed = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("it prints no figures", printed)

    def test_a_test_that_dies_is_told_by_its_signal(self):
        self.make("echo torture kills kills=5; kill -SEGV $$")
        status, printed = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("signal 11", printed)

    def test_a_test_that_never_ends_is_killed_with_what_it_started(self):
        self.addCleanup(setattr, run, "PATIENCE", run.PATIENCE)
        run.PATIENCE = 0
        self.make(f"sleep 1000 & echo $! >> {self.path('children')}; trap '' INT; wait; wait")
        status, printed = self.run_it()
        self.assertEqual(status, 1)
        self.assertIn("hung", printed)
        with open(self.path("children"), encoding="utf-8") as children:
            for pid in map(int, children):
                self.assertFalse(lives(pid))

    def test_what_was_skipped_is_told_with_the_reason(self):
        self.make("printf 'x.cpp:3: Skipped\\nno other users here\\n[  SKIPPED ] Random.One\\n'")
        status, printed = self.run_it()
        self.assertEqual(status, 0, printed)
        self.assertIn("not run", printed)
        self.assertIn("2 skipped: no other users here", printed)

    def test_a_filter_that_names_no_test_is_an_error(self):
        self.make("true")
        with open(os.path.join(self.path("bin64"), "tests"), "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\n")
        with self.assertRaisesRegex(SystemExit, "has no test"):
            self.run_it()

    def test_a_program_that_is_not_there_is_an_error(self):
        with self.assertRaisesRegex(SystemExit, "is not built"):
            self.run_it()

    def test_the_end_of_the_time_leaves_the_rest_and_says_so(self):
        self.make("sleep 1.5; echo torture kills kills=5")
        status, printed = self.run_it()
        self.assertEqual(status, 0, printed)
        self.assertIn("1 of 2 tests", printed)

    def test_ctrl_c_ends_with_the_table_so_far(self):
        self.make(f"trap 'echo torture kills kills=3; exit 0' INT; touch {self.path('began')}\n"
                  "while :; do sleep 0.01; done")
        script = ("import run, sys; run.ROWS = [('kills', 'processes die', [('tests', '*')])]; "
                  "sys.exit(run.main(sys.argv[1:]))")
        words = self.words()
        words[0] = "60"
        process = subprocess.Popen([sys.executable, "-B", "-c", script, *words],
                                   cwd=os.path.dirname(os.path.abspath(run.__file__)),
                                   stdout=subprocess.PIPE, text=True)
        while not os.path.exists(self.path("began")):
            time.sleep(0.01)
        process.send_signal(signal.SIGINT)
        printed = process.communicate()[0]
        self.assertEqual(process.returncode, 0, printed)
        self.assertIn("kills 3\n", printed)
        self.assertIn("1 of 2 tests", printed)
        self.assertIn("interrupted", printed)

    def test_bad_words_are_named(self):
        for words, complaint in ((["--row", "kisses"], "no row 'kisses'"), (["0"], "minutes"),
                                 (["--jobs", "0"], "at a time"), (["soon"], "soon")):
            said = io.StringIO()
            with contextlib.redirect_stderr(said), self.assertRaises(SystemExit):
                run.arguments(words)
            self.assertIn(complaint, said.getvalue())


class Rows(unittest.TestCase):
    def test_every_row_that_a_source_names_is_in_the_table(self):
        named = set()
        for directory, _, files in os.walk(run.TESTS):
            for file in files:
                if file.endswith((".cpp", ".h")):
                    with open(os.path.join(directory, file), encoding="utf-8") as source:
                        named.update(run.re.findall(r'Torture \w+\(\s*"([^"]+)"', source.read()))
        self.assertGreater(len(named), 0)
        self.assertLessEqual(named, {name for name, _, _ in run.ROWS})


def lives(pid):
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
            return file.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


if __name__ == "__main__":
    unittest.main()
