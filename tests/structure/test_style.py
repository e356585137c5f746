"""The style check finds what it is there to find, and nothing in a clean tree."""

import os
import tempfile
import unittest

import style

HEADER = "// -*- C++ -*-\n#pragma once\n"


class StyleCheck(unittest.TestCase):
    def check(self, files):
        with tempfile.TemporaryDirectory() as root:
            for path, text in files.items():
                os.makedirs(os.path.join(root, os.path.dirname(path)), exist_ok=True)
                with open(os.path.join(root, path), "w", encoding="utf-8") as file:
                    file.write(text)
            return style.check(root)

    def body(self, lines):
        return "\n".join(["    g();"] * (lines - 2))

    def test_clean_tree_passes(self):
        self.assertEqual(self.check({
            "libs/Qel/include/Qel/A": HEADER + "// SYNC( publish ): pairs with the load in f\n",
            "mount/a.cpp": "// SYNC( publish ): pairs with the store in A\nvoid f() {}\n",
            "build/dev/junk.cpp": "\t",
        }), [])

    def test_tab(self):
        self.assertEqual(self.check({"dev": "a\n\tb\n"}), ["dev:2: tab"])

    def test_trailing_blank(self):
        self.assertEqual(self.check({"a.cpp": "int a; \n"}),
                         ["a.cpp:1: blank at the end of the line"])

    def test_last_line_without_newline(self):
        self.assertEqual(self.check({"a.cpp": "int a;"}),
                         ["a.cpp:1: no newline at the end of the file"])

    def test_columns(self):
        self.assertEqual(self.check({"a.cpp": "//" + "x" * 98 + "\n"}), [])
        self.assertEqual(self.check({"a.cpp": "//" + "x" * 99 + "\n"}),
                         ["a.cpp:1: 101 columns, more than 100"])

    def test_file_length(self):
        self.assertEqual(self.check({"a.cpp": "\n" * 600}), [])
        self.assertEqual(self.check({"a.cpp": "\n" * 601}),
                         ["a.cpp:601: 601 lines, more than 600"])

    def test_header_without_guard(self):
        self.assertEqual(self.check({"src-includes/QelKrell/A": "// -*- C++ -*-\n"}),
                         ["src-includes/QelKrell/A:1: no '#pragma once'"])
        self.assertEqual(self.check({"tests/a.h": "// #pragma once\n"}),
                         ["tests/a.h:1: no '#pragma once'"])

    def test_header_without_mark(self):
        self.assertEqual(self.check({"collection/Krell/A": "#pragma once\n"}),
                         ["collection/Krell/A:1: the first line of a header is '// -*- C++ -*-'"])

    def test_line_macro(self):
        self.assertEqual(self.check({"tests/a.cpp": "int a = __LINE__;\n"}), [])
        self.assertEqual(self.check({"mount/a.cpp": "// __LINE__\nint a = __LINE__;\n"}),
                         ["mount/a.cpp:2: __LINE__: positions are named constants"])

    def test_function_length(self):
        for head in ("void f() {", "template < class T >\nvoid C< T >::f( int a ) const {",
                     "C::C( int a )\n    : a_ { a }, b_( 1 ), c_ { 2 } {",
                     "class D {\npublic:\n    int f() const {",
                     "namespace n {\n[[noreturn]] static inline bool f( const char* s = \"{\" ) {"):
            first = head.count("\n") + 1
            self.assertEqual(self.check({"a.cpp": f"{head}\n{self.body(70)}\n}}\n"}), [], head)
            self.assertEqual(self.check({"a.cpp": f"{head}\n{self.body(71)}\n}}\n"}),
                             [f"a.cpp:{first}: function of 71 lines, more than 70"], head)

    def test_blocks_count_to_their_function(self):
        text = "void f() {\n    if ( a ) {\n" + self.body(72) + "\n    }\n}\n"
        self.assertEqual(self.check({"a.cpp": text}),
                         ["a.cpp:1: function of 74 lines, more than 70"])

    def test_long_classes_and_tables_are_no_functions(self):
        members = "    int a() { return 1'000; }\n" * 80
        rows = "    { \"a\", f( '{' ), { 1 } },\n" * 80
        self.assertEqual(self.check({
            "a.cpp": "class QEL_API A : public B {\n" + members + "};\n",
            "b.cpp": "namespace {\nconst Row rows[] = {\n" + rows + "};\n} // namespace\n",
            "c.cpp": "struct alignas( 8 ) A {\n" + members + "};\n",
        }), [])

    def test_sync_point_without_partner(self):
        self.assertEqual(self.check({"mount/a.cpp": "\n// SYNC( publish ): pairs with B\n"}),
                         ["mount/a.cpp:2: SYNC( publish ) has no partner"])
        self.assertEqual(self.check({"mount/a.cpp": "int a = SYNC( publish );\n"}), [])


if __name__ == "__main__":
    unittest.main()
