"""The driver of the models calls a run right only if it proves something."""

import contextlib
import io
import os
import tempfile
import unittest

import run_models

# Counts to a number; the claim is that it stays below LIMIT.
COUNTER = """/* A counter.
 *
 * Run                Must    What it is
{runs}
 */
#ifndef LIMIT
#define LIMIT 30000
#endif
short n = 0;
active proctype counter() {{
    do
    :: n < {most} -> n++; assert( n < LIMIT )
    :: n == {most} -> {end}
    od
}}
"""
HOLDS = " *   MUTANT=0           hold    the protocol"
FAILS = " *   MUTANT=1 LIMIT=9   fail    a limit that is too low"


def output_of(errors, states, text=""):
    return f"{text}\nState-vector 20 byte, errors: {errors}\n    {states} states, stored\n"


class Driver(unittest.TestCase):
    def check(self, *runs, most=2000, end="break"):
        """Whether a model with these runs is right, and what was printed of it."""
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "counter.pml")
            with open(path, "w", encoding="utf-8") as file:
                file.write(COUNTER.format(runs="\n".join(runs), most=most, end=end))
            printed = io.StringIO()
            with contextlib.redirect_stdout(printed):
                good = run_models.check_model(path)
        return good, printed.getvalue()

    def test_right_model_with_a_mutant_that_fails_passes(self):
        good, printed = self.check(HOLDS, FAILS)
        self.assertTrue(good, printed)
        self.assertIn("a limit that is too low", printed)

    def test_model_that_fails_is_refused(self):
        good, printed = self.check(" *   MUTANT=0 LIMIT=9   hold    the protocol", FAILS)
        self.assertFalse(good)
        self.assertIn("MUTANT=0 LIMIT=9 must hold: fail: assertion violated (n<9)", printed)

    def test_mutant_that_holds_is_refused(self):
        good, printed = self.check(HOLDS, " *   MUTANT=1           fail    nothing is wrong")
        self.assertFalse(good)
        self.assertIn("MUTANT=1 must fail: hold: no error was found", printed)

    def test_deadlock_is_no_violated_claim(self):
        good, printed = self.check(HOLDS, " *   MUTANT=1           fail    it stops", end="false")
        self.assertFalse(good)
        self.assertIn("MUTANT=1 must fail: broken: invalid end state", printed)

    def test_few_states_prove_nothing(self):
        self.assertEqual(run_models.judge(output_of(0, 999)),
                         ("broken", 999, "999 states are too few"))

    def test_search_that_is_too_deep_is_refused(self):
        good, printed = self.check(HOLDS, FAILS, most=run_models.MAX_DEPTH)
        self.assertFalse(good)
        self.assertIn("not searched completely: max search depth too small", printed)

    def test_model_that_cannot_be_built_is_refused(self):
        good, printed = self.check(HOLDS, FAILS, end="nonsense(")
        self.assertFalse(good)
        self.assertIn("MUTANT=0 must hold: broken: the search has no result", printed)
        self.assertIn("undeclared variable: nonsense", printed)

    def test_model_without_mutants_is_refused(self):
        good, printed = self.check(HOLDS)
        self.assertFalse(good)
        self.assertIn("no run that must fail", printed)

    def test_run_that_is_listed_twice_is_refused(self):
        good, printed = self.check(HOLDS, FAILS, FAILS)
        self.assertFalse(good)
        self.assertIn("MUTANT=1 LIMIT=9 is listed more than once", printed)

    def test_memory_that_runs_out_is_not_complete(self):
        text = "pan: reached -DMEMLIM bound"
        self.assertEqual(run_models.judge(output_of(0, 5000, text)),
                         ("broken", 5000, "not searched completely: -DMEMLIM"))

    def test_states_are_read_in_either_form(self):
        self.assertEqual(run_models.judge(output_of(0, "1.2e+06")), ("hold", 1200000, ""))


if __name__ == "__main__":
    unittest.main()
