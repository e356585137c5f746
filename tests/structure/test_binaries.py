"""The checks of binaries find what they are there to find. COMPILER and FLAGS choose the build."""

import os
import shutil
import subprocess
import tempfile
import unittest

import binaries

# One literal; its own NUL ends the last name.
NAMES = "".join(f'"{name}\\0"' for name in binaries.TYPE_NAMES)[:-3] + '"'
RETAINED = "used, retain, "


def section(names, attributes=RETAINED):
    return (f"extern const char types[];\n__attribute__(( {attributes}section( \".qel.type\" ) )) "
            f"const char types[] = {names};\n")


class BinariesCheck(unittest.TestCase):
    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.compiler = [os.environ.get("COMPILER", "g++"), *os.environ.get("FLAGS", "").split()]

    def library(self, name, text, *flags):
        source = os.path.join(self.directory.name, name + ".cpp")
        path = os.path.join(self.directory.name, f"lib{name}.so")
        with open(source, "w", encoding="utf-8") as file:
            file.write(text)
        subprocess.run([*self.compiler, "-std=c++20", "-shared", "-fPIC", source, "-o", path,
                        f"-Wl,-soname,lib{name}.so", *flags], check=True)
        return path

    def test_exports_of_own_namespace_pass(self):
        library = self.library(
            "Qel", "#include <ostream>\nnamespace Qel { struct A { virtual ~A(); }; A::~A() {}\n"
            "struct V : virtual A { ~V() override; }; V::~V() {}\n"
            "struct B { virtual void f() const {} }; struct C : A, B { void f() const override; };"
            "void C::f() const {} template < class T > int g( T ) { static int n; return ++n; }\n"
            "template int g( A* );\n"
            "std::ostream& operator<<( std::ostream& s, const A& ) { return s; } }\n")
        self.assertEqual(binaries.check_exports(library), [])

    def test_foreign_exports_are_found(self):
        library = self.library(
            "Dov", "#include <vector>\nnamespace Dov { struct A { int a; };\n"
            "void f( std::vector< A >& v ) { v.push_back( A() ); } }\n"
            "namespace Qel { void g() {} } namespace Dovetail { void h() {} } int i;\n")
        found = "\n".join(binaries.check_exports(library))
        for name in ("std::vector<Dov::A", "exports Qel::g()", "exports Dovetail::h()",
                     "exports i "):
            self.assertIn(name, found)
        self.assertNotIn("exports Dov::f", found)

    def test_text_functions_of_the_bindings_types_pass(self):
        text = ("namespace QelKrell { struct A {}; void f() {} } namespace Qel { struct B {};\n"
                "template < class T > T strepToValue( T* ) { return T(); }\n")
        fine = self.library("QelKrell", text + "template QelKrell::A strepToValue( QelKrell::A* );}")
        self.assertEqual(binaries.check_exports(fine), [])
        strange = self.library("QelKrell", text + "template B strepToValue( B* ); }")
        self.assertEqual(len(binaries.check_exports(strange)), 1)

    def test_library_that_exports_nothing_is_found(self):
        library = self.library("Qel", "int a;\n", "-fvisibility=hidden")
        self.assertEqual(binaries.check_exports(library), [f"{library} exports nothing"])

    @unittest.skipIf("-m32" in os.environ.get("FLAGS", ""), "symbols are recorded for 64 bits")
    def test_symbols_do_not_depend_on_the_optimiser(self):
        text = ("#include <string>\nnamespace Qel { int data = 1; extern const int fixed = 2;\n"
                "inline int shared = 3; inline int& own() { static int i = 4; return i; }\n"
                "struct Pure { virtual void f() = 0; virtual ~Pure() = default; };\n"
                "struct Header : Pure { void f() override {} };\n"
                "struct Source : Pure { void f() override; virtual void g(); };\n"
                "struct Thrown { int a; }; template < class T > T twice( T t ) { return t + t; }\n"
                "void Source::f() { throw Thrown { own() + shared }; } void Source::g() {}\n"
                "int use( Pure* p ) { Header h; h.f(); p->f(); return twice( data ); } }\n")
        expected = ["Qel::Source::f()", "Qel::Source::g()", "Qel::data", "Qel::fixed",
                    "Qel::use(Qel::Pure*)", "typeinfo for Qel::Source",
                    "typeinfo name for Qel::Source", "vtable for Qel::Source"]
        for level in ("-O0", "-O1", "-O2", "-O3"):
            self.assertEqual(binaries.symbols(self.library("Qel", text, level)), expected, level)

    @unittest.skipIf("-m32" in os.environ.get("FLAGS", ""), "symbols are recorded for 64 bits")
    def test_changes_of_symbols_are_named(self):
        path = os.path.join(self.directory.name, "Qel.txt")
        text = "namespace Qel { struct A { A(); A( int ); }; A::A() {} %s }\n"
        old = self.library("Qel", text % "A::A( int ) {}")
        self.assertIn(f"{path} is not there", binaries.check_symbols(old, path)[0])
        self.assertEqual(binaries.check_symbols(old, path, "--record"), [])
        with open(path, encoding="utf-8") as file:
            self.assertEqual(file.read(), "Qel::A::A()  [1 2]\nQel::A::A(int)  [1 2]\n")
        self.assertEqual(binaries.check_symbols(old, path), [])
        new = self.library("Qel", text % "void f( A& ) {}")
        self.assertEqual(binaries.check_symbols(new, path)[:2],
                         ["libQel.so no longer exports Qel::A::A(int)  [1 2]",
                          "libQel.so newly exports Qel::f(Qel::A&)"])

    def test_needed_libraries(self):
        qel = self.library("Qel", "int qel;\n")
        other = self.library("Other", "int other;\n")
        fine = self.library("Dov", "int dov;\n", "-Wl,--no-as-needed", qel)
        self.assertEqual(binaries.check_needed(fine), [])
        self.assertIn("libOther.so", "".join(binaries.check_needed(
            self.library("Dov", "int dov;\n", "-Wl,--no-as-needed", qel, other))))
        self.assertIn("libDov.so", "".join(binaries.check_needed(
            self.library("Norvo", "int norvo;\n", "-Wl,--no-as-needed", fine))))

    def test_calls_into_libatomic(self):
        os.mkdir(os.path.join(self.directory.name, "bin"))
        fine = self.library("Qel", "#include <atomic>\nstd::atomic< int > a; int f() {return ++a;}\n")
        calls = self.library("Dov", "extern \"C\" int __atomic_load_64();\n"
                                    "int f() { return __atomic_load_64(); }\n")
        bin_directory = os.path.join(self.directory.name, "bin")
        shutil.copy(fine, bin_directory)
        self.assertEqual(binaries.check_atomics(bin_directory), [])
        copied = shutil.copy(calls, bin_directory)
        self.assertEqual(binaries.check_atomics(bin_directory), [f"{copied} calls __atomic_load_64"])

    def test_type_section(self):
        self.assertEqual(binaries.check_types(self.library("QelKrell", section(NAMES))), [])

    def test_type_section_that_is_wrong_or_missing(self):
        first, second = (f'"{n}\\0"' for n in binaries.TYPE_NAMES[:2])
        for text in ("int a;\n", section(NAMES[:-1] + '\\0"'), section(NAMES.replace(first, "")),
                     section(NAMES.replace(first + second, second + first))):
            self.assertNotEqual(binaries.check_types(self.library("QelKrell", text)), [], text)

    def test_type_section_survives_only_when_retained(self):
        kept = os.path.join(self.directory.name, "kept.cpp")
        lost = os.path.join(self.directory.name, "lost.cpp")
        with open(kept, "w", encoding="utf-8") as file:
            file.write(section(NAMES))
        with open(lost, "w", encoding="utf-8") as file:
            file.write(section(NAMES, ""))
        self.assertEqual(binaries.check_types_of_source(kept, *self.compiler), [])
        self.assertNotEqual(binaries.check_types_of_source(lost, *self.compiler), [])


if __name__ == "__main__":
    unittest.main()
