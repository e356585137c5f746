// -*- C++ -*-
// The helper programs that tests start: tests/FOLDER/programs/NAME.cpp is program NAME.

#pragma once

#include <climits>
#include <cstdlib>
#include <string>

#include <unistd.h>

namespace QelKrellTest {

// The directory of this build's programs: QELKRELL_BIN, or where the running program stands.
inline std::string programDirectory() {
    if ( const char* named = std::getenv( "QELKRELL_BIN" ) ) {
        return named;
    }
    char path[ PATH_MAX ];
    const ssize_t length = readlink( "/proc/self/exe", path, sizeof path );
    const std::string self( path, length > 0 ? std::size_t( length ) : 0 );
    return self.substr( 0, self.rfind( '/' ) );
}

// Path of this build's helper program of that name.
inline std::string program( const std::string& name ) { return programDirectory() + "/" + name; }

// Path of the 32-bit build's helper program, or empty when there is none: a mixed-width test then
// skips and prints noProgram32.
inline std::string program32( const std::string& name ) {
    const char* directory = std::getenv( "QELKRELL_BIN32" );
    const std::string path = directory ? std::string( directory ) + "/" + name : std::string();
    return path.empty() || access( path.c_str(), X_OK ) != 0 ? std::string() : path;
}

inline constexpr const char* noProgram32 =
    "no 32-bit helper programs: ./dev test builds them where the 32-bit packages are installed";

} // namespace QelKrellTest
