// One collection, processes of both widths: all four pairings of writer and reader.

#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Programs.h"
#include "Torture.h"
#include "cross/Cross.h"

using KrellTest::TestRoot;

namespace {

// A program of one width, with a pipe from its standard output.
class Program {
public:
    Program( const std::string& path, const std::string& root, const std::string& command ) {
        int out[ 2 ];
        EXPECT_EQ( ::pipe( out ), 0 );
        pid_ = ::fork();
        if ( pid_ == 0 ) {
            ::dup2( out[ 1 ], 1 );
            ::close( out[ 0 ] );
            ::execl( path.c_str(), path.c_str(), root.c_str(), command.c_str(), nullptr );
            ::_exit( 127 );
        }
        ::close( out[ 1 ] );
        out_ = out[ 0 ];
    }
    ~Program() {
        if ( pid_ > 0 ) {
            ::kill( pid_, SIGKILL );
            wait();
        }
        ::close( out_ );
    }
    // Until it has printed something, or ended without.
    bool waitForWord() {
        char byte;
        return ::read( out_, &byte, 1 ) == 1;
    }
    // Its exit status, or 128 + the signal that ended it.
    int wait() {
        int status = 0;
        EXPECT_EQ( ::waitpid( pid_, &status, 0 ), pid_ );
        pid_ = 0;
        return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
    }

private:
    pid_t pid_ = 0;
    int out_ = -1;
};

struct Pairing {
    const char* name;
    bool writerIs32;
    bool readerIs32;
};

void PrintTo( const Pairing& pairing, std::ostream* os ) { *os << pairing.name; }

class CrossTest : public testing::TestWithParam< Pairing > {
protected:
    void SetUp() override {
        writer = pathOf( "cross-writer", GetParam().writerIs32 );
        reader = pathOf( "cross-reader", GetParam().readerIs32 );
        if ( writer.empty() || reader.empty() ) {
            GTEST_SKIP() << QelKrellTest::noProgram32;
        }
    }
    static std::string pathOf( const char* name, bool is32 ) {
        return is32 ? QelKrellTest::program32( name ) : QelKrellTest::program( name );
    }
    // A round on a root of its own; its checks are the programs' own.
    void repeat( const std::function< void() >& round ) {
        while ( torture.goesOn() && !HasFailure() ) {
            root.reset();
            root = std::make_unique< TestRoot >();
            round();
            torture.count( "wrong", HasFailure() );
        }
    }
    int run( const std::string& program, const char* command ) {
        torture.count( "processes" );
        return Program( program, root->path(), command ).wait();
    }

    QelKrellTest::Torture torture { "widths", 1 };
    std::unique_ptr< TestRoot > root;
    std::string writer;
    std::string reader;
};

TEST_P( CrossTest, WhatOneWritesTheOtherReads ) {
    repeat( [ & ] {
        ASSERT_EQ( run( writer, "fill" ), 0 );
        EXPECT_EQ( run( reader, "check" ), 0 );
    } );
}

TEST_P( CrossTest, WhatAKilledOneLeftTheOtherTakesOver ) {
    repeat( [ & ] {
        ASSERT_EQ( run( writer, "kill" ), 128 + SIGKILL );
        EXPECT_EQ( run( reader, "check" ), 0 );
        EXPECT_EQ( run( reader, "takeover" ), 0 );
        ASSERT_EQ( run( writer, "kill" ), 128 + SIGKILL ) << "and back again";
    } );
}

TEST_P( CrossTest, ValuesAreWholeBesideAWriterFlatOut ) {
    repeat( [ & ] {
        Program flat( writer, root->path(), "flat" );
        ASSERT_TRUE( flat.waitForWord() );
        EXPECT_EQ( run( reader, "flat" ), 0 );
    } );
}

TEST_P( CrossTest, AShadowEndsWithTheWritersLastState ) {
    repeat( [ & ] {
        Program followed( writer, root->path(), "follow" );
        ASSERT_TRUE( followed.waitForWord() );
        EXPECT_EQ( run( reader, "follow" ), 0 );
    } );
}

INSTANTIATE_TEST_SUITE_P( Widths,
                          CrossTest,
                          testing::Values( Pairing { "SameAndSame", false, false },
                                           Pairing { "SameAnd32", false, true },
                                           Pairing { "32AndSame", true, false },
                                           Pairing { "32And32", true, true } ),
                          []( const auto& info ) { return std::string( info.param.name ); } );

} // namespace
