#!/usr/bin/env python3
"""Checks the rules of docs/style.md that a program can check.

usage: style.py ROOT

Prints FILE:LINE and what is wrong for each violation; exit status 1 when there are any.
"""

import collections
import os
import re
import sys

import cxx

MAX_FILE_LINES = 600
MAX_FUNCTION_LINES = 70
MAX_COLUMNS = 100
TEXT_SUFFIXES = (".cpp", ".h", ".py", ".cmake", ".txt", ".sh", ".map", ".in", ".json", ".yml")
MARK = "// -*- C++ -*-"
# Traces and assertions carry fixed positions; only tests may ask where they stand.
LINE_MACRO_ALLOWED = ("tests/", "bench/", "fuzz/")

SYNC = re.compile(r"\bSYNC\(\s*([\w.-]+)\s*\)")
# Left out of the text before a brace, to see whether a function stands there.
PREFIX = re.compile(
    r"template\s*<(?:[^<>]|<(?:[^<>]|<[^<>]*>)*>)*>|\b(?:public|private|protected)\s*:|\[\[[^\]]*\]\]"
)
NOT_A_FUNCTION = re.compile(r"\s*(?:inline\s+)?(?:namespace|class|struct|union|enum|concept)\b")
INITIALIZERS = re.compile(r"\)[^():]*:(?!:)")


def is_text(path):
    name = os.path.basename(path)
    return cxx.is_cxx(path) or name == "dev" or path == ".ci/run" or path.endswith(TEXT_SUFFIXES)


def check_lines(path, text):
    lines = text.split("\n")
    if lines[-1] == "":
        lines.pop()
    else:
        yield len(lines), "no newline at the end of the file"
    if len(lines) > MAX_FILE_LINES:
        yield len(lines), f"{len(lines)} lines, more than {MAX_FILE_LINES}"
    for number, line in enumerate(lines, 1):
        if "\t" in line:
            yield number, "tab"
        if line != line.rstrip():
            yield number, "blank at the end of the line"
        if cxx.is_cxx(path) and len(line) > MAX_COLUMNS:
            yield number, f"{len(line)} columns, more than {MAX_COLUMNS}"


def check_header(path, text):
    if not cxx.is_header(path):
        return
    if not path.endswith(".h") and text.split("\n", 1)[0] != MARK:
        yield 1, f"the first line of a header is '{MARK}'"
    if not re.search(r"^#pragma once$", cxx.blanked(text), re.MULTILINE):
        yield 1, "no '#pragma once'"


def check_line_macro(path, text):
    if path.startswith(LINE_MACRO_ALLOWED):
        return
    for match in re.finditer(r"\b__LINE__\b", cxx.blanked(text)):
        yield text.count("\n", 0, match.start()) + 1, "__LINE__: positions are named constants"


def is_function(before):
    """Whether the text since the last statement or block, before a brace, heads a function."""
    before = PREFIX.sub("", before)
    return "(" in before and not NOT_A_FUNCTION.match(before)


def functions(code):
    """Yields (first line, last line) of the outermost function bodies in blanked code."""
    code = re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*", lambda m: "\n" * m[0].count("\n"), code,
                  flags=re.MULTILINE)
    stack = []  # of each open brace, whether it is a scope that may hold functions
    head = 0    # where the text before the next brace begins
    opened = 0  # line of the current function's first brace
    pending = False  # between the braces of a constructor's initializers and its body
    for match in re.finditer(r"[{};]", code):
        at, c = match.span()[0], match[0]
        if c == "{":
            outermost = all(stack)
            function = outermost and (pending or is_function(code[head:at]))
            if function and not pending:
                opened = code.count("\n", 0, at) + 1
                initializers = INITIALIZERS.search(PREFIX.sub("", code[head:at])) is not None
            stack.append(outermost and not function)
        elif c == "}" and stack:
            if not stack.pop() and all(stack):
                follows = code[at + 1:].lstrip()[:1]
                pending = initializers and follows in (",", "{")
                if not pending:
                    yield opened, code.count("\n", 0, at) + 1
        head = at + 1


def check_functions(path, text):
    for first, last in functions(cxx.blanked(text)):
        if last - first + 1 > MAX_FUNCTION_LINES:
            yield first, f"function of {last - first + 1} lines, more than {MAX_FUNCTION_LINES}"


def check(root):
    violations = []
    sync_points = collections.defaultdict(list)
    for path in cxx.tracked(root):
        if not is_text(path):
            continue
        text = cxx.read(root, path)
        found = list(check_lines(path, text))
        if cxx.is_cxx(path):
            for rule in (check_header, check_line_macro, check_functions):
                found += rule(path, text)
            for line, comment in cxx.comments(text):
                for name in SYNC.findall(comment):
                    sync_points[name].append((path, line))
        violations += [f"{path}:{line}: {what}" for line, what in sorted(found)]
    for name, places in sorted(sync_points.items()):
        if len(places) < 2:
            path, line = places[0]
            violations.append(f"{path}:{line}: SYNC( {name} ) has no partner")
    return violations


if __name__ == "__main__":
    sys.exit(cxx.report(check(sys.argv[1])))
