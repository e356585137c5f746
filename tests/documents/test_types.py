#!/usr/bin/env python3
"""Types that cannot be shared do not compile, and the compiler's first error says why.

usage: test_types.py COMPILER INCLUDE-DIRECTORY... [-- FLAG...]
"""

import re
import subprocess
import sys
import unittest

ARGUMENTS = sys.argv[1:]
del sys.argv[1:]
FLAGS = ARGUMENTS[ARGUMENTS.index("--") + 1:] if "--" in ARGUMENTS else []
COMPILER, *INCLUDES = ARGUMENTS[:ARGUMENTS.index("--")] if "--" in ARGUMENTS else ARGUMENTS

SOURCE = """
#include <map>
#include <Qel/FixedString>
#include <Qel/TypeLibrary>
#include <QelKrell/Collection>

%(before)s
struct Thing {
    %(key)s key {};
    %(value)s value {};
};
constexpr auto describe( const Thing* ) {
    return Qel::valueType< Thing >( "Test::Thing", %(table)s );
}
class Things : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Thing::key > thing;
};
constexpr auto describe( const Things* ) {
    return Qel::entityType< Things >( "Test::Things",
                                      QelKrell::collection( "thing", &Things::thing ) );
}
QEL_TYPES( "test", Thing, Things );
void use( Things& things ) {
    things.thing.is( {} );
    things.thing.del( {} );
}
"""
TABLE = 'Qel::attribute( "key", &Thing::key ), Qel::attribute( "value", &Thing::value )'
COLOUR = """
enum class Colour : Qel::U8 { red, green };
constexpr auto describe( const Colour* ) {
    return Qel::enumType< Colour >( "Test::Colour", Qel::enumValue( "red", Colour::red ),
                                    Qel::enumValue( "green", Colour::green ) );
}
"""
PLACE = """
struct Place {
    Qel::S32 x = 0;
    Qel::S32 y = 0;
};
constexpr auto describe( const Place* ) {
    return Qel::valueType< Place >( "Test::Place", Qel::attribute( "x", &Place::x ),
                                    Qel::attribute( "y", &Place::y ) );
}
"""


def errors(key="Qel::U32", value="Qel::U32", before="", table=TABLE):
    source = SOURCE % {"key": key, "value": value, "before": before, "table": table}
    done = subprocess.run([COMPILER, "-std=c++20", "-fsyntax-only", "-x", "c++", "-", *FLAGS,
                           *("-I" + directory for directory in INCLUDES)], input=source, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return re.findall(r"error: (.*)", done.stdout), done.stdout


class Types(unittest.TestCase):
    def good(self, **kind):
        found, text = errors(**kind)
        self.assertEqual(found, [], text)

    def bad(self, sentence, **kind):
        found, text = errors(**kind)
        self.assertTrue(found, "it compiles")
        self.assertIn(sentence, found[0].replace("static assertion failed: ", ""), text[:3000])

    def test_what_can_be_shared(self):
        for number in ("bool", "Qel::U8", "Qel::S64", "Qel::FixedString< 7 >",
                       "std::array< Qel::U16, 3 >"):
            self.good(key=number, value=number)
        self.good(value="double")
        for address in ("Qel::Ipv4Address", "Qel::Ipv6Address", "Qel::MacAddress"):
            self.good(key=address, value=address, before="#include <Qel/Addresses>\n")
        self.good(key="Colour", value="std::array< Colour, 2 >", before=COLOUR)
        self.good(key="Place", value="std::array< Place, 2 >", before=PLACE)

    def test_a_pointer(self):
        for pointer in ("int*", "const char*"):
            self.bad("a pointer means nothing in another process: hold the key of what it points to",
                     value=pointer)

    def test_text_without_a_width(self):
        for text in ("std::string", "Qel::String", "std::string_view"):
            self.bad("text in shared memory needs a fixed width: use Qel::FixedString< N >",
                     value=text)

    def test_a_key_with_a_fraction(self):
        self.bad("floating-point numbers make no keys: 0.0 and -0.0 are equal but differ in their "
                 "bytes", key="double")

    def test_a_type_without_a_table(self):
        self.bad("this type has no table: declare describe( const T* ) beside it",
                 before="struct Bare { int x; };", value="Bare")

    def test_a_key_that_is_not_in_the_table(self):
        self.bad("the key is not an attribute in the value type's table",
                 table='Qel::attribute( "value", &Thing::value )')

    def test_a_container(self):
        self.bad("this type has no table", value="std::map< int, int >")


unittest.main()
