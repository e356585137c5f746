#include "Procfs.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace Demo {

namespace {

// "eth0: 12 0 ... 34 ...": the name, then eight figures of what came in and eight of what went out.
bool parseInterface( const std::string& line, Interface& out ) {
    const std::size_t colon = line.find( ':' );
    if ( colon == std::string::npos ) {
        return false;
    }
    const std::size_t first = line.find_first_not_of( ' ' );
    std::istringstream figures( line.substr( colon + 1 ) );
    Qel::U64 skipped = 0;
    out.name =
        Qel::FixedString< 16 >::clipped( std::string_view( line ).substr( first, colon - first ) );
    figures >> out.receivedBytes;
    for ( int i = 0; i < 7; ++i ) {
        figures >> skipped;
    }
    figures >> out.sentBytes;
    return bool( figures );
}

// "PID (COMMAND) STATE PARENT ...": the command may hold blanks and parentheses.
bool parseProcess( const std::string& line, Process& out ) {
    const std::size_t open = line.find( '(' );
    const std::size_t close = line.rfind( ')' );
    if ( open == std::string::npos || close == std::string::npos ) {
        return false;
    }
    out.pid = Qel::U32( std::stoul( line ) );
    out.command = Qel::FixedString< 16 >::clipped(
        std::string_view( line ).substr( open + 1, close - open - 1 ) );
    std::istringstream rest( line.substr( close + 1 ) );
    std::string field;
    Qel::U64 user = 0;
    Qel::U64 system = 0;
    rest >> field >> out.parent;
    for ( int i = 0; i < 9; ++i ) {
        rest >> field;
    }
    rest >> user >> system;
    for ( int i = 0; i < 6; ++i ) {
        rest >> field;
    }
    rest >> out.startTicks;
    out.cpuTicks = user + system;
    return bool( rest );
}

} // namespace

std::vector< Interface > readInterfaces() {
    std::vector< Interface > all;
    std::ifstream file( "/proc/net/dev" );
    for ( std::string line; std::getline( file, line ); ) {
        Interface interface;
        if ( parseInterface( line, interface ) ) {
            all.push_back( interface );
        }
    }
    return all;
}

std::vector< Process > readProcesses() {
    std::vector< Process > all;
    for ( const auto& entry : std::filesystem::directory_iterator( "/proc" ) ) {
        const std::string name = entry.path().filename();
        if ( !std::all_of( name.begin(), name.end(),
                           []( char c ) { return c >= '0' && c <= '9'; } ) ) {
            continue;
        }
        std::ifstream file( entry.path() / "stat" ); // gone by now, perhaps
        std::string line;
        Process process;
        if ( std::getline( file, line ) && parseProcess( line, process ) ) {
            all.push_back( process );
        }
    }
    return all;
}

} // namespace Demo
