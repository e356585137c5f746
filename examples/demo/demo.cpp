// The demo: separate processes share live data, and one of them is killed.
//
//   demo [--reader32 PROGRAM]
//
// A writer keeps the machine's network interfaces and processes in shared memory; two readers, the
// second of another width if a program for it is given, follow. The writer is killed in the middle
// and another takes over. The exit status says whether everything that was written was there to the
// end.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "Child.h"
#include "Session.h"

namespace {

constexpr double startSeconds = 10;  // at most, for a process to say that it is ready or done
constexpr double watchSeconds = 2.2; // for which the readers are shown

volatile std::sig_atomic_t interrupted = 0;

// A fresh root for the collection files, removed at the end.
class TemporaryRoot {
public:
    TemporaryRoot() : path_( "/dev/shm/qelkrell-demo-XXXXXX" ) {
        if ( !mkdtemp( path_.data() ) ) {
            throw std::system_error( errno, std::generic_category(), path_ );
        }
        setenv( "KRELL_ROOT", path_.c_str(), 1 );
    }
    ~TemporaryRoot() {
        std::error_code ignored;
        std::filesystem::remove_all( path_, ignored );
    }
    TemporaryRoot( const TemporaryRoot& ) = delete;
    TemporaryRoot& operator=( const TemporaryRoot& ) = delete;

private:
    std::string path_;
};

void say( const std::string& what ) {
    std::printf( "%s\n", what.c_str() );
    std::fflush( stdout );
}

bool same( const std::string& what, const std::string& wanted, const std::string& got ) {
    const bool good = !wanted.empty() && wanted == got;
    say( ( good ? "good: " : "BAD: " ) + what + ": " + got + ( good ? "" : ", wanted " + wanted ) );
    return good;
}

// What a reader that comes now, in this process, finds.
std::string digestNow() {
    const Demo::Session session { QelKrell::MountInfo( QelKrell::reader ) };
    return Demo::digest( *session.machine() );
}

// The last words of a process that is told to end.
std::string finish( Demo::Child& child, const std::string& start ) {
    child.signal( SIGTERM );
    Demo::show( { &child }, startSeconds, [] { return false; } );
    const int status = child.wait();
    return status == 0 ? child.said( start + "final " )
                       : "it ended with status " + std::to_string( status );
}

bool play( const std::string& programs, const std::string& reader32 ) {
    const auto never = [] { return interrupted != 0; };
    const auto wait = [ & ]( const std::vector< Demo::Child* >& all, Demo::Child& one,
                             const char* line ) {
        Demo::show( all, startSeconds, [ & ] { return interrupted || !one.said( line ).empty(); } );
    };
    const std::string reader = programs + "/demo-reader";
    const std::string writer = programs + "/demo-writer";

    say( "== a writer starts, then two readers" );
    Demo::Child first( writer );
    wait( { &first }, first, "writer: writing " );
    Demo::Child left( reader );
    Demo::Child right( reader32.empty() ? reader : reader32 );
    Demo::show( { &first, &left, &right }, watchSeconds, never );

    say( "== the writer is killed; the readers go on with what it wrote" );
    first.signal( SIGKILL );
    first.wait();
    const std::string kept = digestNow();
    Demo::show( { &left, &right }, watchSeconds / 2, never );

    say( "== another writer takes over" );
    Demo::Child second( writer );
    const std::vector< Demo::Child* > all { &second, &left, &right };
    wait( all, second, "writer: writing " );
    Demo::show( all, watchSeconds, never );

    say( "== the end: the writer stops, then the readers" );
    const std::string final = finish( second, "writer: " );
    const std::string width = std::to_string( sizeof( void* ) * 8 );
    const std::string leftFinal = finish( left, "reader (" + width + " bits): " );
    const std::string rightFinal =
        finish( right, "reader (" + ( reader32.empty() ? width : "32" ) + " bits): " );
    const bool tookOver = same( "the second writer took over what the first one left", kept,
                                second.said( "writer: took over " ) );
    const bool leftGood = same( "the first reader ends with the writer's state", final, leftFinal );
    const bool rightGood =
        same( "the second reader ends with the writer's state", final, rightFinal );
    return tookOver && leftGood && rightGood && !interrupted;
}

} // namespace

int main( int argc, char** argv ) {
    std::string reader32;
    for ( int i = 1; i < argc; ++i ) {
        if ( std::strcmp( argv[ i ], "--reader32" ) == 0 && i + 1 < argc ) {
            reader32 = argv[ ++i ];
        } else {
            std::fprintf( stderr,
                          "demo: '%s' is no argument of mine; usage: demo [--reader32 PROGRAM]\n",
                          argv[ i ] );
            return 2;
        }
    }
    const auto interrupt = []( int ) { interrupted = 1; };
    std::signal( SIGINT, interrupt );
    std::signal( SIGTERM, interrupt );
    try {
        const TemporaryRoot root;
        return play( std::filesystem::canonical( "/proc/self/exe" ).parent_path(), reader32 ) ? 0
                                                                                              : 1;
    } catch ( const Qel::Exception& e ) {
        std::fprintf( stderr, "demo: %s\n", e.what() );
    } catch ( const std::exception& e ) {
        std::fprintf( stderr, "demo: %s\n", e.what() );
    }
    return 1;
}
