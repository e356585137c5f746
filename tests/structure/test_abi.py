"""`./dev abi` tells compatible from incompatible, by two releases of tiny libraries."""

import contextlib
import io
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../packaging"))
import abi  # noqa: E402

HEADER = """
#pragma once
namespace Qel { struct A { int first = 0;%s int get() const; }; int f( const A& );%s }
"""
SOURCE = """
#include "Qel.h"
namespace Qel { int A::get() const { return first; } int f( const A& a ) { return a.get(); }%s
struct Hidden { int a;%s }; int hidden( const Hidden& h ) { return h.a; } }
"""


@unittest.skipIf(shutil.which("abidiff") is None, "abidiff is not installed")
class Abi(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.old = self.release("old", HEADER % ("", ""), SOURCE % ("", ""))

    def release(self, name, header, source, soname="libQel.so.0.1"):
        prefix = os.path.join(self.directory.name, name)
        os.makedirs(prefix + "/include")
        os.makedirs(prefix + "/lib")
        for path, text in (("include/Qel.h", header), ("Qel.cpp", source)):
            with open(os.path.join(prefix, path), "w", encoding="utf-8") as file:
                file.write(text)
        subprocess.run([os.environ.get("COMPILER", "g++"), "-g", "-shared", "-fPIC", "-I",
                        prefix + "/include", prefix + "/Qel.cpp", "-o",
                        prefix + "/lib/libQel.so.0.1.0", f"-Wl,-soname,{soname}"], check=True)
        return prefix

    def compared(self, new):
        printed = io.StringIO()
        with contextlib.redirect_stdout(printed):
            compatible = abi.compare_library(self.old, new, "Qel")
        return compatible, printed.getvalue()

    def test_the_same_is_compatible(self):
        self.assertEqual(self.compared(self.old), (True, "libQel: compatible\n"))

    def test_an_added_function_is_compatible(self):
        new = self.release("new", HEADER % ("", " int g();"), SOURCE % (" int g() { return 1; }", ""))
        compatible, printed = self.compared(new)
        self.assertTrue(compatible)
        self.assertIn("Qel::g", printed)

    def test_a_type_that_no_header_has_may_change(self):
        new = self.release("new", HEADER % ("", ""), SOURCE % ("", " int b;"))
        self.assertEqual(self.compared(new), (True, "libQel: compatible\n"))

    def test_a_new_member_is_incompatible(self):
        new = self.release("new", HEADER % (" int second = 0;", ""), SOURCE % ("", ""))
        compatible, printed = self.compared(new)
        self.assertFalse(compatible)
        self.assertIn("libQel: incompatible, but still libQel.so.0.1:\n", printed)
        self.assertIn("'int second'", printed)

    def test_a_removed_function_is_incompatible(self):
        header, source = HEADER % ("", ""), SOURCE % ("", "")
        new = self.release("new", header.replace("int f(", "inline int f("), source.replace(
            "int f( const A& a ) { return a.get(); }", ""))
        compatible, printed = self.compared(new)
        self.assertFalse(compatible)
        self.assertIn("Qel::f(const Qel::A&)", printed)

    def test_another_soname_may_differ_in_anything(self):
        new = self.release("new", HEADER % (" int second = 0;", ""), SOURCE % ("", ""),
                           "libQel.so.0.2")
        self.assertEqual(self.compared(new), (
            True, "libQel: libQel.so.0.1 is libQel.so.0.2 now, and so may differ in anything\n"))

    def test_a_library_that_went_is_incompatible(self):
        self.assertEqual(self.compared(self.directory.name)[0], False)

    def test_a_broken_library_is_an_error(self):
        new = self.release("new", HEADER % ("", ""), SOURCE % ("", ""))
        with open(new + "/lib/libQel.so.0.1.0", "r+b") as file:
            file.truncate(4096)
        with self.assertRaises(abi.Failed):
            self.compared(new)


if __name__ == "__main__":
    unittest.main()
