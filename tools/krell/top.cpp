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
    "CHANGES/s    ENTRIES   CAPACITY READERS        LAG  COLLECTION, WRITER, SLOWEST READER";

std::string lineOf( const Activity& one ) {
    char numbers[ 80 ];
    std::snprintf( numbers, sizeof numbers, "%9.0f %10u %10u %7zu %10s  ", one.changesPerSecond,
                   one.facts.entries, one.facts.capacity, one.readers,
                   one.slowest ? std::to_string( one.slowest->lag ).c_str() : "-" );
    std::string line = numbers + one.facts.place.path;
    line += one.facts.writer != 0 ? ", " + one.facts.owner.description() : ", no writer";
    if ( one.slowest ) {
        line += ", " + one.slowest->process.command + " (pid " +
                std::to_string( one.slowest->process.pid ) + ")";
    }
    line += one.restarted ? " RESTARTED" : "";
    line += one.grew ? " grew" : "";
    line += one.facts.readable || one.facts.absent ? "" : " " + one.facts.problem;
    return line;
}

json jsonOf( const Activity& one ) {
    json j { { "path", one.facts.place.path },
             { "changesPerSecond", one.changesPerSecond },
             { "entries", one.facts.entries },
             { "capacity", one.facts.capacity },
             { "sequence", one.facts.sequence },
             { "readers", one.readers },
             { "restarted", one.restarted },
             { "grew", one.grew },
             { "slowest", nullptr } };
    if ( one.slowest ) {
        j[ "slowest" ] = { { "pid", one.slowest->process.pid },
                           { "command", one.slowest->process.command },
                           { "lag", one.slowest->lag } };
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

    void show( const std::vector< Activity >& all, double seconds ) {
        ::erase();
        double changes = 0;
        for ( const Activity& one : all ) {
            changes += one.changesPerSecond;
        }
        char text[ 200 ];
        std::snprintf( text, sizeof text,
                       "%s: %zu collections, %.0f changes/s; every %.1f s, q ends",
                       rootDirectory().c_str(), all.size(), changes, seconds );
        line( 0, text, A_NORMAL );
        line( 2, heading, A_REVERSE );
        for ( int i = 0; i < LINES - 3 && std::size_t( i ) < all.size(); ++i ) {
            const Activity& one = all[ std::size_t( i ) ];
            line( 3 + i, lineOf( one ), one.restarted ? A_BOLD : A_NORMAL );
        }
        ::refresh();
    }
    // False when the user wants no more.
    static bool wait( double seconds ) {
        ::timeout( int( seconds * 1000 ) );
        const int key = ::getch();
        return key != 'q' && key != 'Q';
    }

private:
    static void line( int y, const std::string& text, int attribute ) {
        ::attrset( attribute );
        ::mvaddnstr( y, 0, text.c_str(), COLS );
        ::attrset( A_NORMAL );
    }
};

int printOnce( const Options& options ) {
    const Sample before = Sample::of( options.path );
    std::this_thread::sleep_for( std::chrono::duration< double >( options.seconds ) );
    const auto all = activities( before, Sample::of( options.path ) );
    if ( options.json ) {
        json out = json::array();
        for ( const Activity& one : all ) {
            out.push_back( jsonOf( one ) );
        }
        std::cout << out.dump( 2 ) << "\n";
        return 0;
    }
    std::cout << heading << "\n";
    for ( const Activity& one : all ) {
        std::cout << lineOf( one ) << "\n";
    }
    return 0;
}

} // namespace

int top( const Options& options ) {
    if ( options.once || options.json ) {
        return printOnce( options );
    }
    Sample before = Sample::of( options.path );
    Screen screen;
    screen.show( activities( before, before ), options.seconds );
    while ( Screen::wait( options.seconds ) ) {
        Sample now = Sample::of( options.path );
        screen.show( activities( before, now ), options.seconds );
        before = std::move( now );
    }
    return 0;
}

} // namespace KrellTool
