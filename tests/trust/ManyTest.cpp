// Very many entries, written by one process and followed by others of 32 bits, in every role, while
// the tables grow.

#include <csignal>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Programs.h"
#include "Torture.h"
#include "mount/Site.h"

namespace {

using QelKrellTest::program;
using QelKrellTest::program32;
using QelKrellTest::Torture;

#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

constexpr const char* roles[] = { "reader", "keyshadow", "shadow" };

// A program with pipes to its standard input and from its standard output. Killed with this object.
class Program {
public:
    explicit Program( std::vector< std::string > arguments ) {
        int in[ 2 ];
        int out[ 2 ];
        EXPECT_EQ( pipe2( in, O_CLOEXEC ), 0 );
        EXPECT_EQ( pipe2( out, O_CLOEXEC ), 0 );
        std::vector< char* > all;
        for ( std::string& one : arguments ) {
            all.push_back( one.data() );
        }
        all.push_back( nullptr );
        pid_ = fork();
        if ( pid_ == 0 ) {
            dup2( in[ 0 ], 0 );
            dup2( out[ 1 ], 1 );
            execv( all[ 0 ], all.data() );
            _exit( 127 );
        }
        close( in[ 0 ] );
        close( out[ 1 ] );
        in_ = in[ 1 ];
        out_ = out[ 0 ];
    }
    ~Program() {
        if ( pid_ > 0 ) {
            kill( pid_, SIGKILL );
            wait();
        }
        close( in_ );
        close( out_ );
    }
    Program( const Program& ) = delete;
    Program& operator=( const Program& ) = delete;

    // The next line; "" when it ends, or says nothing for two minutes.
    std::string hear() const {
        constexpr int longestMs = 120'000;
        std::string line;
        char byte = 0;
        for ( pollfd p { out_, POLLIN, 0 };
              poll( &p, 1, longestMs ) == 1 && read( out_, &byte, 1 ) == 1 && byte != '\n'; ) {
            line += byte;
        }
        return line;
    }
    void say( const std::string& line ) const {
        EXPECT_EQ( ::write( in_, line.data(), line.size() ), ssize_t( line.size() ) );
    }
    int wait() {
        int status = -1;
        waitpid( pid_, &status, 0 );
        pid_ = -1;
        return status;
    }

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
};

TEST( ManyTest, EntriesReachReadersOf32BitsInEveryRole ) {
    const std::string reader =
        sizeof( void* ) == 4 ? program( "trust-reader" ) : program32( "trust-reader" );
    if ( reader.empty() ) {
        GTEST_SKIP() << QelKrellTest::noProgram32;
    }
    Torture torture( "limits", 1 );
    const std::uint64_t entries = sanitized ? 100'000 : Torture::isLong() ? 1'000'000 : 300'000;
    const std::string number = std::to_string( entries );
    while ( torture.goesOn() ) {
        const QelKrellTest::Root root;
        Program writer( { program( "trust-writer" ), root.path(), number } );
        ASSERT_EQ( writer.hear(), "begun" );
        std::vector< std::unique_ptr< Program > > readers;
        for ( const char* role : roles ) {
            readers.push_back( std::make_unique< Program >(
                std::vector< std::string > { reader, root.path(), number, role } ) );
            EXPECT_EQ( readers.back()->hear(), "attached" );
        }
        writer.say( "\n" );
        const bool done = writer.hear() == "done";
        EXPECT_TRUE( done );
        for ( const auto& one : readers ) {
            const std::string kilobytes = one->hear();
            EXPECT_NE( kilobytes, "" ) << "hung, or ended";
            const bool right = !kilobytes.empty() && one->wait() == 0;
            EXPECT_TRUE( right );
            torture.count( "lost", !right );
            torture.most( "readerKb", std::strtoull( kilobytes.c_str(), nullptr, 10 ) );
        }
        torture.count( "hung", !done );
        torture.most( "entries", entries );
    }
}

} // namespace
