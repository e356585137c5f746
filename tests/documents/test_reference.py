#!/usr/bin/env python3
"""The reference of the headers: what Doxygen is shown, and what it makes of all of them.

usage: test_reference.py SOURCE
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap
import unittest
import xml.etree.ElementTree

SOURCE = sys.argv.pop(1)
REFERENCE = os.path.join(SOURCE, "docs", "reference")
PATIENCE = 120  # seconds
sys.path.insert(0, REFERENCE)
import coverage  # noqa: E402
import headers  # noqa: E402


class WhatDoxygenIsShown(unittest.TestCase):
    def shown(self, text, path="libs/Qel/include/Qel/Thing"):
        text = textwrap.dedent(text).lstrip("\n")
        shown = headers.filtered(os.path.join(SOURCE, path), text)
        self.assertEqual(shown.count("\n"), text.count("\n"), "lines were added or taken away")
        return shown

    def body(self, text):
        """What becomes of declarations in a namespace; without the essay."""
        head = "// -*- C++ -*-\n// Things.\n\n#pragma once\n\nnamespace Qel {\n"
        return self.shown(head + textwrap.dedent(text).lstrip("\n") + "}\n").split(
            "namespace Qel {\n")[1].removesuffix("}\n")

    def same(self, text):
        text = textwrap.dedent(text).lstrip("\n")
        self.assertEqual(self.body(text), text)

    def test_a_comment_above_a_declaration(self):
        self.assertEqual(self.body("""
            // Makes one.
            //
            // Or two.
            int make();
            """), "/// Makes one.\n///\n/// Or two.\nint make();\n")

    def test_above_classes_members_enumerations_aliases_templates_and_macros(self):
        for declaration in ("class A {\npublic:\n};\n", "struct QEL_API A {};\n", "using A = int;\n",
                            "enum class A { one };\n", "template < class T >\nint f( T );\n",
                            "[[noreturn]] void f();\n", "#define A 1\n", "QEL_THING( A );\n"):
            self.assertEqual(self.body("// What.\n" + declaration), "/// What.\n" + declaration)

    def test_comments_that_document_nothing_stay(self):
        self.same("// Alone.\n\nint f();\n")
        self.same("// Why.\nstatic_assert( true );\n")
        self.same("// Why.\n#if 1\n#endif\n")
        self.same("int f() {\n    // Why.\n    int a = 0; // how\n    return a;\n}\n")
        self.same("constexpr int a[] = {\n    // One.\n    1, // one\n};\n")
        self.same("class A {\n    // Below are friends.\n};\n")
        self.same("void f( int a, // first\n        int b );\n")
        self.same("class A {\npublic: // for all\n    // What follows is inside.\nprivate:\n};\n")

    def test_labels_begin_sections(self):
        self.assertEqual(self.body("""
            // Finds it.
            //   returns  false: none
            //   errors   RangeException when
            //            it is none
            //   threads  any
            //   cost     O(1)
            bool find();
            """), """\
/// Finds it.
/// \\returns false: none
/// \\errors RangeException when
/// it is none
/// \\threads any
/// \\cost O(1)
bool find();
""")

    def test_labels_in_running_text(self):
        self.assertEqual(self.body("""
            // It.
            //
            // Threads: one, or two.
            // Costs nothing. Errors: none.
            class A {};
            """), "/// It.\n///\n/// \\threads One, or two.\n/// Costs nothing. Errors: none.\n"
                  "class A {};\n")

    def test_code_and_tables_stay_as_they_are(self):
        self.assertEqual(self.body("""
            // As here:
            //
            //     a = `b` < c;
            //
            //     d;
            //
            // And so:
            //   offset  what
            //   0       <magic>
            //
            // End.
            class A {};
            """), """\
/// As here:
/// \\code{.cpp}
///     a = `b` < c;
///
///     d; \\endcode
///
/// And so: \\code{.unparsed}
///   offset  what
///   0       <magic> \\endcode
///
/// End.
class A {};
""")

    def test_text_has_no_commands(self):
        self.assertEqual(self.body("""
            // A \\t and @b, <C> & `D< E >`
            // 100%, #5, a * b, `over
            // lines` -- or `so.
            int f();
            """), """\
/// A \\\\t and \\@b, \\<C\\> \\& <code>D\\< E \\></code>
/// 100\\%, \\#5, a \\* b, <code>over
/// lines</code> \\-- or `so.
int f();
""")

    def test_comments_behind_members(self):
        self.assertEqual(self.body("""
            struct A {
                int a = 0;  // one
                int bc = 0; // two,
                            // and more
                void f() {} // three
            };
            enum E {
                x, // four
                y  // five
            };
            } // namespace Inner
            """), """\
struct A {
    int a = 0;  ///< one
    int bc = 0; ///< two,
                ///< and more
    void f() {} ///< three
};
enum E {
    x, ///< four
    y  ///< five
};
} // namespace Inner
""")

    def test_a_setter_and_an_overload_share_the_comment(self):
        shown = self.body("""
            class A {
                // How many.
                int count() const;
                void countIs( int );
                void other();
                void countIs( long );

                // Adds.
                void add( int );
                void add( long );

                // From nothing.
                A( int );
                ~A();
                A( const A& ) = delete;
                A( std::string text );
            };
            """)
        self.assertEqual(re.findall(r"/\*\* (.*) \*/ +(.*);", shown),
                         [("How many.", "void countIs( int )"), ("Adds.", "void add( long )"),
                          ("From nothing.", "A( std::string text )")])

    def test_groups_of_members(self):
        self.assertEqual(self.body("""
            class A {
                // --- Reading. By anybody,
                // at any time.

                // Reads.
                int get();

                // --- Writing
                int put();

            private:
            };
            """), """\
class A {
/** \\name Reading

By anybody, at any time. */ /**@{*/
    /// Reads.
    int get();

/**@}*/ /** \\name Writing
 */ /**@{*/     int put();

/**@}*/ private:
};
""")

    def test_the_essay_describes_the_class_of_the_files_name(self):
        shown = self.shown("""
            // -*- C++ -*-
            // Things that `are`. And more.

            #pragma once

            namespace Qel {

            class Other {};

            // One of them.
            class QEL_API Thing : public Other {
            };

            } // namespace Qel
            """).split("\n")
        self.assertEqual(shown[:2],
                         ["/// \\class Qel::Thing",
                          "/// Things that <code>are</code>. And more. \\header{Qel/Thing}"])
        self.assertEqual(shown[3], "/** \\file Qel/Thing Things that <code>are</code>. */")
        self.assertEqual(shown[9], "/// \\details One of them.")

    def test_the_essay_describes_the_file_where_there_are_more(self):
        for declarations in ("class A {};\nclass B {};\n", "int f();\n", "class A {};\nMORE( B );\n"):
            shown = self.shown("// -*- C++ -*-\n// Things.\n#pragma once\n\nnamespace Qel {\n" +
                               declarations + "}\n").split("\n")
            self.assertEqual(shown[:3], ["/// \\file Qel/Thing", "/// Things.", "#pragma once"])

    def test_every_class_above_is_told_its_header(self):
        for declaration in ("class B {\n};\n", "template < class T >\nclass B {\n};\n",
                            "class QEL_API B : public C,\n                  private D {\n};\n"):
            self.assertEqual(self.body("class A {};\n// What.\n" + declaration),
                             "class A {};\n/// What. \\header{Qel/Thing}\n" + declaration)
        self.same("class A {};\nclass B;\n")

    def test_every_header_keeps_its_lines(self):
        checked = 0
        for path in headers.cxx.cxx_files(SOURCE):
            if headers.cxx.is_header(path) and "." not in os.path.basename(path):
                text = headers.cxx.read(SOURCE, path)
                shown = headers.filtered(os.path.join(SOURCE, path), text)
                self.assertEqual(shown.count("\n"), text.count("\n"), path)
                checked += 1
        self.assertGreater(checked, 50)


class WhatTheCoverageFinds(unittest.TestCase):
    def missing(self, members):
        with tempfile.TemporaryDirectory() as directory:
            with open(os.path.join(directory, "classA.xml"), "w", encoding="utf-8") as file:
                file.write(f"""<doxygen><compounddef kind="class" prot="public">
                    <compoundname>N::A</compoundname><briefdescription>An A.</briefdescription>
                    <location file="N/A" line="1"/>{members}</compounddef></doxygen>""")
            return coverage.missing(directory, "N")

    @staticmethod
    def function(name, arguments="()", prot="public", text="", file="N/A"):
        return (f'<memberdef kind="function" prot="{prot}"><name>{name}</name>'
                f"<argsstring>{arguments}</argsstring><detaileddescription>{text}"
                f'</detaileddescription><location file="{file}" line="7"/></memberdef>')

    def test_a_function_without_a_comment(self):
        self.assertEqual(self.missing(self.function("f") + self.function("g", text="What.")),
                         (3, [("N/A", 7, "N::A::f")]))

    def test_operators_that_are_calls_or_conversions_need_one(self):
        for name in ("operator()", "operator Key"):
            self.assertEqual(self.missing(self.function(name)), (2, [("N/A", 7, "N::A::" + name)]))

    def test_what_needs_none(self):
        for member in (self.function("f", prot="private"), self.function("A"), self.function("~A"),
                       self.function("h", "()=default"), self.function("operator=="),
                       self.function("valueToStrep"), self.function("f", file="M/A")):
            self.assertEqual(self.missing(member)[1], [], member)


@unittest.skipUnless(shutil.which("doxygen"), "needs doxygen")
class WhatDoxygenMakes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.mkdtemp(prefix="qelkrell-reference-")
        cls.addClassCleanup(shutil.rmtree, cls.directory)
        with open(os.path.join(REFERENCE, "Doxyfile"), encoding="utf-8") as file:
            settings = file.read()
        settings += f"\nOUTPUT_DIRECTORY = {cls.directory}\nGENERATE_XML = YES\n"
        cls.done = subprocess.run(["doxygen", "-"], input=settings, cwd=SOURCE, text=True,
                                  capture_output=True, timeout=PATIENCE)

    def compound(self, name):
        path = os.path.join(self.directory, "xml", name + ".xml")
        return xml.etree.ElementTree.parse(path).find("compounddef")

    def page(self, name):
        with open(os.path.join(self.directory, "html", name), encoding="utf-8") as file:
            return file.read()

    def test_it_has_nothing_to_warn_of(self):
        self.assertEqual((self.done.returncode, self.done.stdout + self.done.stderr), (0, ""))

    def test_the_bindings_public_names_are_documented(self):
        checked, missing = coverage.missing(os.path.join(self.directory, "xml"), "QelKrell")
        self.assertEqual(missing, [])
        self.assertGreater(checked, 150)

    def test_the_pages_that_readers_begin_with(self):
        links = re.findall(r'<a class="el" href="([^"#]*)[^>]*>([^<]*)</a>', self.page("index.html"))
        for page, name in (("classQelKrell_1_1Collection.html", "QelKrell::Collection::find"),
                           ("classQelKrell_1_1Mount.html", "QelKrell::Mount::doMount"),
                           ("classQel_1_1TraceHandle.html", "Qel::TraceHandle"),
                           ("TypeLibrary.html", "QEL_TYPES")):
            self.assertIn((page, name), links)

    def test_a_contract_has_its_sections(self):
        find = next(m for m in self.compound("classQelKrell_1_1Collection").iter("memberdef")
                    if m.findtext("name") == "find")
        sections = find.findall(".//simplesect")
        self.assertEqual([s.get("kind") for s in sections], ["return", "par", "par"])
        self.assertEqual([s.findtext("title") for s in sections], [None, "Errors", "Cost"])

    def test_classes_name_their_header(self):
        for name in ("Mount", "MountException"):
            header = {"Mount": "KrellMount", "MountException": "Exception"}[name]
            self.assertIn(f"#include &lt;QelKrell/{header}&gt;",
                          self.page(f"classQelKrell_1_1{name}.html"))

    def test_internals_are_left_out(self):
        pages = os.listdir(os.path.join(self.directory, "html"))
        collection = self.page("classQelKrell_1_1Collection.html")
        self.assertIn("findMany", collection)
        self.assertNotIn("findHashed", collection)
        self.assertEqual([p for p in pages if "Detail" in p], [])

    def test_lines_are_those_of_the_headers(self):
        roots = ("src-includes", "libs/Qel/include", "libs/Krell/include", "collection")
        checked = 0
        for name in ("classQelKrell_1_1Collection", "classQelKrell_1_1Mount", "classQel_1_1Dir",
                     "classKrell_1_1Control", "classKrell_1_1DirNode"):
            for member in self.compound(name).iter("memberdef"):
                place = member.find("location")
                file = next(path for path in (os.path.join(SOURCE, root, place.get("file"))
                                              for root in roots) if os.path.exists(path))
                with open(file, encoding="utf-8") as header:
                    line = header.read().split("\n")[int(place.get("line")) - 1]
                if not re.match(r"\s*[A-Z_]+\(", line):  # what a macro declares
                    self.assertIn(member.findtext("name").lstrip("~"), line, (file, place.attrib))
                    checked += 1
        self.assertGreater(checked, 80)


if __name__ == "__main__":
    unittest.main()
