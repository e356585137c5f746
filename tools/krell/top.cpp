// krell top: the busiest collections, live.

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <thread>

#define NCURSES_NOMACROS
#include <ncurses.h>
#include <nlohmann/json.hpp>

#include "Rates.h"

namespace KrellTool {

using nlohmann::json;

namespace {

constexpr const char* heading =
    "CHANGES/s     KEYS/s    ENTRIES   CAPACITY READERS        LAG RESTARTS REMAPS  COLLECTION, "
    "WRITER, SLOWEST READER";

std::string nameOf( const Process& process ) {
    return process.command + " (pid " + std::to_string( process.pid ) + ")";
}

std::string lineOf( const Activity& one ) {
    char keys[ 20 ] = "-";
    if ( one.keysPerSecond ) {
        std::snprintf( keys, sizeof keys, "%.0f", *one.keysPerSecond );
    }
    char numbers[ 160 ];
    std::snprintf( numbers, sizeof numbers, "%9.0f %10s %10u %10u %7zu %10s %8llu %6llu  ",
                   one.changesPerSecond, keys, one.facts.entries, one.facts.capacity, one.readers,
                   one.lags.empty() ? "-" : std::to_string( one.lags.front().changes ).c_str(),
                   static_cast< unsigned long long >( one.restarts ),
                   static_cast< unsigned long long >( one.remaps ) );
    std::string line = numbers + one.facts.place.path;
    line += one.facts.writer != 0 ? ", " + one.facts.owner.description() : ", no writer";
    line += one.lags.empty() ? "" : ", " + nameOf( one.lags.front().process );
    line += one.facts.readable || one.facts.absent ? "" : " " + one.facts.problem;
    return line;
}

std::string lineOf( const Lag& lag ) {
    char number[ 80 ];
    std::snprintf( number, sizeof number, "%61llu  ",
                   static_cast< unsigned long long >( lag.changes ) );
    return number + nameOf( lag.process );
}

struct Line {
    std::string text;
    bool isImportant = false;
};

// The table, without its heading.
std::vector< Line > linesOf( const std::vector< Activity >& all, bool withReaders ) {
    std::vector< Line > lines;
    for ( const Activity& one : all ) {
        lines.push_back( { lineOf( one ), one.isFreshlyRestarted } );
        for ( std::size_t i = 0; withReaders && i < one.lags.size(); ++i ) {
            lines.push_back( { lineOf( one.lags[ i ] ) } );
        }
    }
    return lines;
}

json jsonOf( const Activity& one ) {
    json j { { "path", one.facts.place.path },   { "changesPerSecond", one.changesPerSecond },
             { "keysPerSecond", nullptr },       { "entries", one.facts.entries },
             { "capacity", one.facts.capacity }, { "sequence", one.facts.sequence },
             { "readers", one.readers },         { "restarts", one.restarts },
             { "remaps", one.remaps },           { "lags", json::array() } };
    if ( one.keysPerSecond ) {
        j[ "keysPerSecond" ] = *one.keysPerSecond;
    }
    for ( const Lag& lag : one.lags ) {
        j[ "lags" ].push_back( { { "pid", lag.process.pid },
                                 { "command", lag.process.command },
                                 { "changes", lag.changes } } );
    }
    return j;
}

// The whole terminal, while it lives.
class Screen {
public:
    Screen() {
        ::initscr();
        ::cbreak();
        ::noecho();
        ::curs_set( 0 );
    }
    ~Screen() { ::endwin(); }
    Screen( const Screen& ) = delete;
    Screen& operator=( const Screen& ) = delete;

    void show( const std::vector< Activity >& all, double seconds, bool withReaders ) {
        ::erase();
        double changes = 0;
        for ( const Activity& one : all ) {
            changes += one.changesPerSecond;
        }
        char text[ 200 ];
        std::snprintf( text, sizeof text,
                       "%s: %zu collections, %.0f changes/s; every %.1f s; r readers, q end",
                       rootDirectory().c_str(), all.size(), changes, seconds );
        line( 0, text, A_NORMAL );
        line( 2, heading, A_REVERSE );
        const std::vector< Line > lines = linesOf( all, withReaders );
        for ( int i = 0; i < LINES - 3 && std::size_t( i ) < lines.size(); ++i ) {
            const Line& one = lines[ std::size_t( i ) ];
            line( 3 + i, one.text, one.isImportant ? A_BOLD : A_NORMAL );
        }
        ::refresh();
    }
    // The key that was typed; 0 for none within that time.
    static char wait( double seconds ) {
        ::timeout( int( std::min( seconds, 1e6 ) * 1000 ) );
        const int key = ::getch();
        return key > 0 && key < 128 ? char( key ) : '\0';
    }

private:
    static void line( int y, const std::string& text, int attribute ) {
        ::attrset( attribute );
        ::mvaddnstr( y, 0, text.c_str(), COLS );
        ::attrset( A_NORMAL );
    }
};

int printOnce( const Options& options ) {
    Rates rates( options.path );
    std::this_thread::sleep_for( std::chrono::duration< double >( options.seconds ) );
    const auto all = rates.look();
    if ( options.json ) {
        json out = json::array();
        for ( const Activity& one : all ) {
            out.push_back( jsonOf( one ) );
        }
        std::cout << out.dump( 2 ) << "\n";
        return 0;
    }
    std::cout << heading << "\n";
    for ( const Line& line : linesOf( all, options.readers ) ) {
        std::cout << line.text << "\n";
    }
    return 0;
}

} // namespace

int top( const Options& options ) {
    if ( options.once || options.json ) {
        return printOnce( options );
    }
    Rates rates( options.path );
    Screen screen;
    bool withReaders = options.readers;
    for ( char key = 0; key != 'q' && key != 'Q'; key = Screen::wait( options.seconds ) ) {
        withReaders = key == 'r' || key == 'R' ? !withReaders : withReaders;
        screen.show( rates.look(), options.seconds, withReaders );
    }
    return 0;
}

} // namespace KrellTool
