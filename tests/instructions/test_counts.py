"""The comparison of instruction counts refuses what it has to, and says why."""

import contextlib
import io
import os
import tempfile
import unittest
from unittest import mock

import counts

HERE = os.path.dirname(os.path.abspath(__file__))
TOOLCHAIN = "GCC 12.2.0, glibc 2.36, x86-64"


def some(toolchain=TOOLCHAIN, **numbers):
    return counts.Counts(toolchain, {name: counts.Count(number, f"what {name} is")
                                     for name, number in numbers.items()})


class Comparison(unittest.TestCase):
    def found(self, recorded, counted):
        return list(counts.complaints(recorded, counted))

    def test_equal_counts_pass(self):
        self.assertEqual(self.found(some(find=60.0, parse=9000.5), some(find=60.0, parse=9000.5)),
                         [])

    def test_counts_within_the_slack_pass(self):
        recorded = some(find=60.0, parse=9000.0)
        for find, parse in ((63.0, 9270.0), (54.0, 8100.0)):
            self.assertEqual(self.found(recorded, some(find=find, parse=parse)), [])

    def test_count_that_is_more_fails(self):
        self.assertEqual(self.found(some(find=60.0, miss=40.0), some(find=63.1, miss=40.0)),
                         ["find: more instructions: recorded 60.0, counted 63.1"])
        self.assertEqual(self.found(some(parse=9000.0), some(parse=9270.1)),
                         ["parse: more instructions: recorded 9000.0, counted 9270.1"])

    def test_count_that_is_much_fewer_fails_with_the_hint(self):
        self.assertEqual(self.found(some(find=60.0), some(find=53.9)),
                         [f"find: fewer instructions: recorded 60.0, counted 53.9; {counts.HINT}"])

    def test_small_count_has_the_least_slack(self):
        self.assertEqual(self.found(some(step=10.0), some(step=13.0)), [])
        self.assertEqual(self.found(some(step=10.0), some(step=7.0)), [])
        self.assertEqual(len(self.found(some(step=10.0), some(step=13.1))), 1)
        self.assertEqual(len(self.found(some(step=10.0), some(step=6.9))), 1)

    def test_missing_operation_fails(self):
        self.assertEqual(
            self.found(some(find=60.0, miss=40.0), some(find=60.0)),
            [f"miss: recorded 40.0, but not counted; if it is gone, {counts.HINT}"])

    def test_unknown_operation_fails(self):
        self.assertEqual(self.found(some(find=60.0), some(find=60.0, miss=40.0)),
                         [f"miss: counted 40.0, but not recorded; {counts.HINT}"])

    def test_operation_that_is_another_one_now_fails(self):
        other = counts.Counts(TOOLCHAIN, {"find": counts.Count(60.0, "a find of two keys")})
        self.assertEqual(
            self.found(some(find=60.0), other),
            [f"find: recorded as 'what find is', now 'a find of two keys'; {counts.HINT}"])


class Files(unittest.TestCase):
    def test_written_counts_read_back(self):
        for counted in (some(find=60.2, drain_shadow=12345.6), some("Clang 14, x86-64", a=0.1)):
            self.assertEqual(counts.parsed(counts.written(counted), "f"), counted)

    def test_bad_files_are_refused_with_the_line(self):
        head = f"toolchain: {TOOLCHAIN}\n"
        for text, why in (
                ("find 60.0 a find\n", "f: no line 'toolchain: ...'"),
                (head + head, "f:2: not an operation, its count and what it is: " + head.strip()),
                (head + "find 60 a find\n", "f:2: not an operation"),
                (head + "find 60.0\n", "f:2: not an operation"),
                (head + "find -60.0 a find\n", "f:2: not an operation"),
                (head + "\nfind 60.0 a find\nfind 61.0 a find\n", "f:4: find is there twice")):
            with self.assertRaises(counts.Refused) as raised:
                counts.parsed(text, "f")
            self.assertIn(why, str(raised.exception))

    def test_the_recorded_file_is_as_it_would_be_written(self):
        with open(os.path.join(HERE, "counts.txt"), encoding="utf-8") as file:
            text = file.read()
        recorded = counts.parsed(text, "counts.txt")
        self.assertGreater(len(recorded.of), 10)
        self.assertEqual(counts.written(recorded), text)


class Counting(unittest.TestCase):
    def test_count_is_the_total_by_how_often_it_was_done(self):
        counted = counts.evaluated(f"{TOOLCHAIN}\nfind\t4\tone find\nscan\t1\ta scan\n", [243, 99])
        self.assertEqual(counted.toolchain, TOOLCHAIN)
        self.assertEqual(counted.of, {"find": counts.Count(60.8, "one find"),
                                      "scan": counts.Count(99.0, "a scan")})

    def test_output_that_does_not_fit_is_refused(self):
        good = f"{TOOLCHAIN}\nfind\t4\tone find\n"
        for output, totals, why in (
                ("", [], "output is not as it must be"),
                (TOOLCHAIN + "\n", [], "output is not as it must be"),
                (good + "scan\t4\n", [240, 1], "output is not as it must be"),
                (good, [], "1 operations, but callgrind counted 0 times"),
                (good, [240, 1], "1 operations, but callgrind counted 2 times"),
                (good, [0], "callgrind counted nothing for find"),
                (good + "find\t4\tone find\n", [240, 240], "the program does find twice")):
            with self.assertRaises(counts.Refused) as raised:
                counts.evaluated(output, totals)
            self.assertIn(why, str(raised.exception))


class Script(unittest.TestCase):
    """The whole script, with a valgrind that prints what the test says."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = directory.name
        self.file = os.path.join(self.directory, "counts.txt")
        path = mock.patch.dict(os.environ, PATH=f"{self.directory}:{os.environ['PATH']}")
        path.start()
        self.addCleanup(path.stop)

    def valgrind(self, names, total=600, toolchain=TOOLCHAIN, status=0):
        """Each operation is done ten times; their totals are total, total + 10 and so on."""
        lines = ["#!/bin/sh",
                 'for a; do case $a in --callgrind-out-file=*) out=${a#*=};; esac; done',
                 f"echo '{toolchain}'"]
        for i, name in enumerate(names):
            lines.append(f"printf '{name}\\t10\\twhat it is\\n'")
            lines.append(f"echo 'totals: {total + 10 * i}' >$out.{i + 1}")
        lines += ["echo 'totals: 9' >$out", "echo oops >&2", f"exit {status}"]
        path = os.path.join(self.directory, "valgrind")
        with open(path, "w", encoding="utf-8") as file:
            file.write("\n".join(lines) + "\n")
        os.chmod(path, 0o755)

    def run_script(self, *arguments):
        """Its status, and what it printed."""
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed), contextlib.redirect_stderr(printed):
            status = counts.main([*arguments])
        return status, printed.getvalue()

    def recorded(self):
        with open(self.file, encoding="utf-8") as file:
            return file.read()

    def record(self, names, **valgrind):
        self.valgrind(names, **valgrind)
        status, printed = self.run_script("--record", "program", self.file)
        self.assertEqual(status, 0, printed)

    def test_what_was_recorded_passes(self):
        names = [f"operation-{i}" for i in range(12)]
        self.record(names)
        self.assertIn("operation-11      71.0  what it is\n", self.recorded())
        status, printed = self.run_script("program", self.file)
        self.assertEqual(status, 0, printed)
        self.assertIn("operation-11            71.0      71.0\n", printed)

    def test_more_instructions_fail(self):
        self.record(["find"])
        before = self.recorded()
        self.valgrind(["find"], total=700)
        status, printed = self.run_script("program", self.file)
        self.assertEqual(status, 1)
        self.assertIn("find: more instructions: recorded 60.0, counted 70.0", printed)
        self.assertEqual(self.recorded(), before)

    def test_another_toolchain_is_skipped_with_the_reason(self):
        self.record(["find"])
        self.valgrind(["find"], total=9999, toolchain="Clang 14, glibc 2.36, x86-64")
        status, printed = self.run_script("program", self.file)
        self.assertEqual(status, counts.SKIPPED)
        self.assertEqual(printed, f"skipped: the counts are recorded for {TOOLCHAIN}; this is "
                                  "Clang 14, glibc 2.36, x86-64\n")

    def test_recording_replaces_everything(self):
        self.record(["find", "gone"])
        self.record(["find", "new"], total=500, toolchain="GCC 13")
        recorded = counts.parsed(self.recorded(), self.file)
        self.assertEqual(recorded.toolchain, "GCC 13")
        self.assertEqual({name: count.number for name, count in recorded.of.items()},
                         {"find": 50.0, "new": 51.0})

    def test_program_that_fails_records_nothing(self):
        self.record(["find"])
        before = self.recorded()
        self.valgrind(["find"], total=700, status=3)
        status, printed = self.run_script("--record", "program", self.file)
        self.assertEqual(status, 1)
        self.assertIn("program ended with status 3:\noops", printed)
        self.assertEqual(self.recorded(), before)

    def test_missing_file_is_an_error_that_names_it(self):
        self.valgrind(["find"])
        status, printed = self.run_script("program", self.file)
        self.assertEqual(status, 1)
        self.assertIn(self.file, printed)

    def test_no_valgrind_is_an_error(self):
        with mock.patch.dict(os.environ, PATH=self.directory):
            status, printed = self.run_script("program", self.file)
        self.assertEqual(status, 1)
        self.assertIn("there is no valgrind", printed)

    def test_wrong_arguments_print_the_usage(self):
        for arguments in ((), ("--record",), ("--recrod", "program"), ("program", "a", "b")):
            status, printed = self.run_script(*arguments)
            self.assertEqual(status, 2)
            self.assertIn("usage: counts.py", printed)


if __name__ == "__main__":
    unittest.main()
