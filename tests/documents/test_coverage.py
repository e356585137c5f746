#!/usr/bin/env python3
"""No block of a document without a test: test_coverage.py SOURCE

And what finds the blocks, and what compares, finds and compares.
"""

import os
import re
import sys
import tempfile
import unittest

import harness
import pages

SOURCE = sys.argv[1]
del sys.argv[1:]


def documents(source):
    """README.md and every page below docs, as paths in the tree."""
    found = ["README.md"]
    for directory, _, files in os.walk(os.path.join(source, "docs")):
        found += [os.path.relpath(os.path.join(directory, file), source) for file in files
                  if file.endswith(".md")]
    return sorted(found)


def uncovered(source, known):
    """Blocks on pages that no test knows."""
    return [str(block) for page in documents(source) if page not in known
            for block in harness.blocks_of(source, page)]


class Coverage(unittest.TestCase):
    def test_every_page_with_a_block_is_run(self):
        self.assertEqual(uncovered(SOURCE, {**pages.PAGES, **pages.INTERNAL}), [])

    def test_what_is_listed_is_there_and_has_blocks(self):
        for page in [*pages.PAGES, *pages.INTERNAL]:
            self.assertTrue(harness.blocks_of(SOURCE, page), page)

    def test_every_page_has_its_test(self):
        with open(os.path.join(SOURCE, "tests/documents/CMakeLists.txt"),
                  encoding="utf-8") as file:
            listed = re.search(r"set\( pages([^)]*)\)", file.read()).group(1).split()
        self.assertEqual(sorted(listed), sorted(pages.PAGES))

    def test_links_lead_to_something(self):
        for page in documents(SOURCE):
            with open(os.path.join(SOURCE, page), encoding="utf-8") as file:
                text = re.sub(r"^```.*?^```$|`[^`]*`", "", file.read(), flags=re.M | re.S)
            for link in re.findall(r"\]\(([^)#\s]+)[^)]*\)", text):
                where = os.path.join(SOURCE, os.path.dirname(page), link)
                if "://" not in link:
                    self.assertTrue(os.path.exists(where), f"{page}: {link}")


class Limits(unittest.TestCase):
    def rows(self, page):
        with open(os.path.join(SOURCE, page), encoding="utf-8") as file:
            return [[cell.strip() for cell in line.strip("|\n").split("|")] for line in file
                    if line.startswith("|")]

    def test_numbers_are_those_of_the_headers(self):
        headers = ""
        for directory, _, files in os.walk(os.path.join(SOURCE, "libs/Krell/include")):
            for name in files:
                with open(os.path.join(directory, name), encoding="utf-8") as file:
                    headers += file.read()
        named = [row for row in self.rows("docs/limits.md") if row[-1].endswith("Limit_`") or
                 row[-1].startswith("`max")]
        self.assertEqual(len(named), 5)
        for _, number, name in named:
            found = re.findall(r"U32 " + name.strip("`") + r" = (\w+);", headers)
            self.assertEqual([int(one.rstrip("u"), 0) for one in found],
                             [int(number.replace(",", ""))], name)

    def test_ratios_are_those_of_the_benchmarks(self):
        measured = {row[0].split("`")[1]: row for row in self.rows("docs/benchmarks.md")
                    if len(row) == 6 and row[0].startswith("`")}
        missed = [row for row in self.rows("docs/limits.md") if len(row) == 4 and "to" in row[1]]
        self.assertEqual(len(missed), 9)
        for name, ratio, target, _ in missed:
            row = measured[name.split("`")[1]]
            figures = [float(figure) for figure in row[1:5] if figure]
            self.assertEqual([float(one) for one in ratio.split(" to ")],
                             [min(figures), max(figures)], name)
            self.assertEqual(float(target), float(row[5]), name)
            self.assertGreater(max(figures), float(target), name)


class Harness(unittest.TestCase):
    def blocks(self, text):
        with tempfile.TemporaryDirectory() as directory:
            with open(os.path.join(directory, "README.md"), "w", encoding="utf-8") as file:
                file.write(text)
            found = harness.blocks_of(directory, "README.md")
            return [(b.line, b.language, b.argument, b.text) for b in found], \
                uncovered(directory, {})

    def test_blocks_are_found(self):
        self.assertEqual(self.blocks("a\n\n```cpp x.h\nint x;\n\n```\nb\n"),
                         ([(3, "cpp", "x.h", "int x;\n\n")], ["README.md:3"]))
        self.assertEqual(self.blocks("a\n\n    x\n    y\nb\n"),
                         ([(3, "indented", "", "    x\n    y\n")], ["README.md:3"]))
        self.assertEqual(self.blocks("a\n  b\n- c\n\n      d\n\n1. e\n   f\n"), ([], []))
        self.assertEqual(self.blocks("- a\n\nb\n\n    c\n")[1], ["README.md:5"])
        self.assertRaises(AssertionError, self.blocks, "```\na\n")

    def test_lines_are_compared(self):
        for wanted, got in (("a", "a"), ("a...c", "abc"), ("a...", "a"), ("...", ""),
                            ("...\nb", "a\na\nb"), ("a\n...", "a\nx\ny"), ("(.*)", "(.*)")):
            self.assertTrue(harness.matches(wanted.split("\n"), got.split("\n")), wanted)
        for wanted, got in (("a", "b"), ("a...c", "ab"), ("a", "a\nb"), (".*", "a"),
                            ("a\n...\nc", "a\nb"), ("a...b", "a\nb")):
            self.assertFalse(harness.matches(wanted.split("\n"), got.split("\n")), wanted)

    def terminal(self, *blocks):
        harness_patience, harness.PATIENCE = harness.PATIENCE, 2
        try:
            with tempfile.TemporaryDirectory() as directory:
                console = harness.Console(directory, dict(os.environ))
                try:
                    for info, text in blocks:
                        block = harness.Block("page", 1, info, "a `file`")
                        block.lines = text.split("\n")
                        if info.startswith("console"):
                            console.run(block)
                        else:
                            console.file(block)
                    console.finish()
                finally:
                    console.close()
        finally:
            harness.PATIENCE = harness_patience

    def test_consoles_are_run_in_order(self):
        self.terminal(("console", "$ x=1\n$ echo $x\n1"), ("console", "$ echo $x; false\n1"))
        self.terminal(("console a", "$ cat -\n> hello\nhello"), ("console a", "> more\nmore\n^C"))
        self.terminal(("console", "$ mkdir d\n$ cd d"), ("text file", "b"),
                      ("console", "$ cat ../d/file\nb"))
        self.terminal(("console", "$ (sleep 0.3; echo late > log) &\n$ cat log\nlate"))
        self.terminal(("console a", "$ sleep 0.2; echo b &\nb"), ("console", "$ echo a\\\n  b\nab"))

    def test_what_differs_is_refused(self):
        for blocks in ([("console", "$ echo a\nb")], [("console", "$ echo a")],
                       [("console", "$ false")], [("console", "$ sleep 9")],
                       [("console a", "$ echo a; sleep 9\nb")],
                       [("console a", "$ echo a; echo b\na"), ("console a", "$ true")],
                       [("text other", "a")]):
            with self.assertRaises(AssertionError, msg=str(blocks)):
                self.terminal(*blocks)


unittest.main()
