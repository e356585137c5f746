// -*- C++ -*-
// Hands text forms to a Python interpreter, which must take each as an expression.

#pragma once

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <Qel/String8>

namespace QelKrellTest {

// `expected` by kind: "str" the bytes in hexadecimal, "int" the digits, "float" the eight bytes of
// the double, most significant first, in hexadecimal, "nan" and "any" nothing.
struct PythonCase {
    const char* kind;
    Qel::String text;
    std::string expected;
};

inline bool havePython() { return std::system( "python3 -c '' >/dev/null 2>&1" ) == 0; }

inline std::string hexOf( std::string_view bytes ) {
    std::string out;
    for ( const char c : bytes ) {
        char digits[ 3 ];
        std::snprintf( digits, sizeof digits, "%02x",
                       unsigned( static_cast< unsigned char >( c ) ) );
        out += digits;
    }
    return out;
}

inline constexpr const char* pythonChecker = R"(
import math, struct, sys
env = {'__builtins__': {'float': float, 'True': True, 'False': False, 'None': None},
       'Value': lambda *name, **attributes: (name, attributes),
       'Pointer': lambda name, address: (name, address),
       'Entity': lambda name, path: (name, path)}
def check(kind, text, expected):
    v = eval(text, env)
    if kind == 'str':
        return type(v) is str and v.encode('latin-1').hex() == expected
    if kind == 'int':
        return type(v) is int and v == int(expected)
    if kind == 'float':
        return type(v) is float and struct.pack('>d', v).hex() == expected
    if kind == 'nan':
        return type(v) is float and math.isnan(v)
    return True
good = 0
for line in open(sys.argv[1], encoding='ascii'):
    kind, expected, text = line.rstrip('\n').split('\t')
    try:
        if check(kind, text, expected):
            good += 1
        else:
            print('reads differently:', text)
    except Exception as e:
        print(repr(e), 'in', text)
print(good)
)";

// What the checker printed: the number of good texts, behind a line for each bad one.
inline std::string askPython( const std::vector< PythonCase >& cases ) {
    char directory[] = "/tmp/qelkrell-python-XXXXXX";
    if ( !mkdtemp( directory ) ) {
        return "no temporary directory";
    }
    const std::string script = std::string( directory ) + "/check.py";
    const std::string data = std::string( directory ) + "/cases";
    std::ofstream( script ) << pythonChecker;
    {
        std::ofstream out( data );
        for ( const PythonCase& c : cases ) {
            out << c.kind << '\t' << c.expected << '\t' << c.text << '\n';
        }
    }
    std::string printed;
    if ( FILE* pipe = popen( ( "python3 '" + script + "' '" + data + "' 2>&1" ).c_str(), "r" ) ) {
        std::array< char, 4096 > buffer;
        while ( const std::size_t n = std::fread( buffer.data(), 1, buffer.size(), pipe ) ) {
            printed.append( buffer.data(), n );
        }
        pclose( pipe );
    }
    unlink( script.c_str() );
    unlink( data.c_str() );
    rmdir( directory );
    return printed;
}

} // namespace QelKrellTest
