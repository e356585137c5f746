// What the next writer makes of what it finds.

#include <filesystem>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Torture.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;

namespace {

class TakeoverTest : public testing::Test {
protected:
    static constexpr const char* place = "sys/Krell/e/c/";

    // Four entries, left by a writer that detached.
    void make( U32 slots = 8 ) {
        TestCollection writer( layout );
        writer.asWriter( slots );
        for ( U64 n = 1; n <= 4; ++n ) {
            put( writer, n, n * 10 );
        }
        fenix = writer.fenixId();
        sequence = writer.sequence();
    }
    static void put( TestCollection& writer, U64 key, U64 value ) {
        const U64 words[ 2 ] = { value, ~value };
        writer.writer().put< 1, 2 >( &key, words );
    }
    static std::map< U64, U64 > contentsOf( TestCollection& collection ) {
        std::map< U64, U64 > contents;
        collection.table().forEach< 1, 2 >( [ & ]( const U64* k, const U64* v ) {
            EXPECT_EQ( v[ 0 ], ~v[ 1 ] );
            contents[ *k ] = v[ 0 ];
        } );
        return contents;
    }
    std::string pathOf( const std::string& file ) const { return root / ( place + file ); }
    void change( const std::string& file, const std::function< void( std::string& ) >& how ) {
        std::string bytes = bytesOf( pathOf( file ) );
        how( bytes );
        bytesInto( pathOf( file ), bytes );
    }
    static U64& word( std::string& bytes, std::size_t at ) {
        return *reinterpret_cast< U64* >( bytes.data() + at );
    }
    static std::size_t slotAt( U32 index ) { return 200 + index * 48; }

    void expectTakenOver() {
        TestCollection next( layout );
        next.asWriter();
        EXPECT_EQ( next.fenixId(), fenix );
        EXPECT_EQ( contentsOf( next ), whole );
        EXPECT_TRUE( next.validate() );
    }
    void expectNew( const std::string& reason ) {
        namedHandlerLevels() = { 3 };
        namedHandlerLines().clear();
        TestCollection next( layout );
        next.asWriter();
        EXPECT_NE( next.fenixId(), fenix );
        EXPECT_EQ( contentsOf( next ), ( std::map< U64, U64 >() ) );
        EXPECT_TRUE( next.validate() );
        ASSERT_EQ( namedHandlerLines().size(), 1U );
        EXPECT_NE( namedHandlerLines()[ 0 ].find( reason ), std::string::npos )
            << namedHandlerLines()[ 0 ];
        EXPECT_FALSE( std::filesystem::exists( pathOf( "corruption-detected" ) ) );
        namedHandlerLevels().clear();
    }

    const Krell::Layout layout = layoutOf( 1, 2 );
    const std::map< U64, U64 > whole { { 1, 10 }, { 2, 20 }, { 3, 30 }, { 4, 40 } };
    TestRoot root;
    U32 fenix = 0;
    U64 sequence = 0;
};

TEST_F( TakeoverTest, ADetachedCollectionIsTakenOver ) {
    make();
    expectTakenOver();
}

TEST_F( TakeoverTest, MoreRoomIsMadeWhenItIsWanted ) {
    make( 8 );
    TestCollection next( layout );
    next.asWriter( 100 );
    EXPECT_EQ( next.fenixId(), fenix );
    EXPECT_EQ( next.capacity(), 100U );
    EXPECT_EQ( contentsOf( next ), whole );
    next.detach();
    next.asWriter( 10 );
    EXPECT_EQ( next.capacity(), 100U ) << "a table does not shrink";
}

TEST_F( TakeoverTest, ADifferentLayoutGivesANewIncarnation ) {
    {
        TestCollection other( layoutOf( 1, 3 ) );
        other.asWriter();
        fenix = other.fenixId();
    }
    expectNew(
        "the layout was Test::Value in Test::Entity (key 8 bytes, value 24 bytes, layout 000003eb: "
        "key 1 words, value 3)" );
}

TEST_F( TakeoverTest, ASmallerFileOfAnotherLayoutGivesANewIncarnation ) {
    {
        TestCollection other( layoutOf( 512, 512 ) );
        other.asWriter( 1 );
        fenix = other.fenixId();
    }
    expectNew( "the layout was" );
    {
        TestCollection other( layoutOf( 512, 512 ) );
        other.asWriter( 1 );
        EXPECT_TRUE( other.validate() );
    }
}

TEST_F( TakeoverTest, TheMarkerGivesANewIncarnation ) {
    make();
    bytesInto( pathOf( "corruption-detected" ), "" );
    expectNew( "the contents are marked as corrupt" );
}

TEST_F( TakeoverTest, MissingFilesGiveANewIncarnation ) {
    for ( const char* file : { "slots", "buckets", "fenix" } ) {
        make();
        std::filesystem::remove( pathOf( file ) );
        expectNew( std::string( file ) == "fenix" ? "there is no stamp"
                                                  : "No such file or directory" );
    }
}

TEST_F( TakeoverTest, ForeignFilesGiveANewIncarnation ) {
    for ( const char* file : { "slots", "buckets", "fenix" } ) {
        for ( const std::string& bytes :
              { std::string(), std::string( "x" ), std::string( 100000, '\xff' ) } ) {
            SCOPED_TRACE( file + std::to_string( bytes.size() ) );
            make();
            bytesInto( pathOf( file ), bytes );
            expectNew( "new: " );
        }
    }
}

TEST_F( TakeoverTest, AnotherStampGivesANewIncarnation ) {
    make();
    change( "fenix", []( std::string& bytes ) { bytes[ 1 ] ^= 1; } );
    expectNew( "bad fenix" );
    make();
    change( "buckets", []( std::string& bytes ) { bytes[ 13 ] ^= 1; } );
    expectNew( "bad fenix" );
}

TEST_F( TakeoverTest, UnusableSlotsGiveANewIncarnation ) {
    make();
    change( "slots", []( std::string& bytes ) { word( bytes, slotAt( 2 ) ) |= 6; } );
    expectNew( "slot 2 has no valid state" );
    make();
    change( "slots", []( std::string& bytes ) { word( bytes, slotAt( 2 ) ) |= 1; } );
    expectNew( "slot 2 is being written, but not by the change in the lookaside record" );
    make();
    change( "slots", []( std::string& bytes ) { word( bytes, slotAt( 3 ) + 24 ) ^= 1; } );
    expectNew( "slot 3 holds a key of another hash" );
    make();
    change( "buckets", []( std::string& bytes ) { word( bytes, 64 ) += U64( 1 ) << 30; } );
    expectNew( "bad table word" );
    make();
    change( "buckets", []( std::string& bytes ) { word( bytes, 64 ) ^= 1; } );
    expectNew( "names no bucket array" );
}

TEST_F( TakeoverTest, ALookasideRecordThatNoWriterMadeGivesANewIncarnation ) {
    make();
    change( "buckets", []( std::string& bytes ) { word( bytes, 4096 + 8 ) = 999; } );
    expectNew( "slot 999 is named by a lookaside record that no writer made" );
    make();
    change( "buckets", []( std::string& bytes ) {
        word( bytes, 4096 ) = Krell::SlotVersion( 1000, Krell::SlotVersion::occupied ).word();
        word( bytes, 4096 + 8 ) = 5;
    } );
    expectNew( "slot 5 is not the one that the lookaside record changes" );
    make();
    change( "buckets", []( std::string& bytes ) {
        word( bytes, 4096 ) = Krell::SlotVersion( 1000, Krell::SlotVersion::dead ).word();
        word( bytes, 4096 + 8 ) = 1;
    } );
    expectNew( "slot 1 is named by a lookaside record that no writer made" );
}

TEST_F( TakeoverTest, TheNewerOfTwoEqualKeysCounts ) {
    make();
    change( "slots", []( std::string& bytes ) {
        bytes.replace( slotAt( 5 ), 48, bytes, slotAt( 1 ), 48 ); // key 2 once more
        word( bytes, slotAt( 5 ) ) = Krell::SlotVersion( 50, Krell::SlotVersion::occupied ).word();
        word( bytes, slotAt( 5 ) + 32 ) = 222;
        word( bytes, slotAt( 5 ) + 40 ) = ~U64( 222 );
    } );
    TestCollection next( layout );
    next.asWriter();
    EXPECT_EQ( next.fenixId(), fenix );
    EXPECT_EQ( contentsOf( next ),
               ( std::map< U64, U64 > { { 1, 10 }, { 2, 222 }, { 3, 30 }, { 4, 40 } } ) );
    EXPECT_EQ( next.sequence(), 50U );
    EXPECT_TRUE( next.validate() );
}

TEST_F( TakeoverTest, ListsAndCountsAreMadeAnewFromTheSlots ) {
    make();
    change( "slots", []( std::string& bytes ) {
        word( bytes, 160 ) = 0;                  // occupied, first free
        word( bytes, 184 ) = 0x0000000700000007; // last retired, count
        word( bytes, 192 ) = 1;                  // sequence
    } );
    TestCollection next( layout );
    next.asWriter();
    EXPECT_EQ( contentsOf( next ), whole );
    EXPECT_EQ( next.table().occupied(), 4U );
    EXPECT_EQ( next.sequence(), sequence );
    EXPECT_TRUE( next.validate() );
}

TEST_F( TakeoverTest, RepeatedTakeoversDoNotMakeTheFilesGrow ) {
    make( 2000 );
    expectTakenOver();
    expectTakenOver();
    const auto slots = std::filesystem::file_size( pathOf( "slots" ) );
    const auto buckets = std::filesystem::file_size( pathOf( "buckets" ) );
    for ( int i = 0; i < 20; ++i ) {
        expectTakenOver();
    }
    EXPECT_EQ( std::filesystem::file_size( pathOf( "slots" ) ), slots );
    EXPECT_EQ( std::filesystem::file_size( pathOf( "buckets" ) ), buckets );
}

TEST_F( TakeoverTest, AnUncleanStopBeforeARestartOfTheMachineGivesANewIncarnation ) {
    const auto restart = [ & ]( std::string& text ) {
        const std::size_t at = text.find( "boot-id: " ) + 9;
        text.replace( at, 8, "00000000" );
    };
    make();
    change( "last-owner", restart );
    expectTakenOver(); // it had detached
    const int status = inChild( [ & ] {
        TestCollection writer( layout );
        writer.asWriter();
        ::kill( ::getpid(), SIGKILL );
        return 0;
    } );
    ASSERT_EQ( status, 128 + SIGKILL );
    change( "last-owner", restart );
    expectNew( "the machine was started anew, and the writer had not detached" );
}

TEST_F( TakeoverTest, AKilledWritersCollectionIsTakenOver ) {
    make();
    ASSERT_EQ( inChild( [ & ] {
                   TestCollection writer( layout );
                   writer.asWriter();
                   ::kill( ::getpid(), SIGKILL );
                   return 0;
               } ),
               128 + SIGKILL );
    expectTakenOver();
}

// What a killed writer wrote, by an account of its own: `done` was put before `begun` went up.
struct Account {
    U64 begun[ 64 ];
    U64 done[ 64 ];
};

void writeFlatOut( Account& account, const Krell::Layout& layout, U64 seed, int ready ) {
    TestCollection writer( layout );
    writer.asWriter();
    std::mt19937_64 random( seed );
    if ( ::write( ready, "r", 1 ) != 1 ) {
        ::_exit( 1 );
    }
    for ( ;; ) {
        const U64 key = random() % 64;
        const U64 next = Dov::Atomics::loadRelaxed( &account.begun[ key ] ) + 1;
        Dov::Atomics::storeRelease( &account.begun[ key ], next );
        const U64 words[ 2 ] = { next, ~next };
        if ( next % 5 == 0 ) {
            writer.writer().del< 1 >( &key );
        } else {
            writer.writer().put< 1, 2 >( &key, words );
        }
        Dov::Atomics::storeRelease( &account.done[ key ], next );
    }
}

TEST_F( TakeoverTest, RandomKillsLoseNothing ) {
    void* const page = ::mmap( nullptr, sizeof( Account ), PROT_READ | PROT_WRITE,
                               MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
    ASSERT_NE( page, MAP_FAILED );
    Account& account = *static_cast< Account* >( page );
    QelKrellTest::Torture torture( "random-kills", 40 );
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) );
    std::mt19937_64 random( torture.seed() );
    U64 changes = 0;
    while ( torture.goesOn() ) {
        int ready[ 2 ];
        ASSERT_EQ( ::pipe( ready ), 0 );
        const pid_t pid = ::fork();
        ASSERT_GE( pid, 0 );
        if ( pid == 0 ) {
            try {
                writeFlatOut( account, layout, random(), ready[ 1 ] );
            } catch ( ... ) {
            }
            ::_exit( 1 );
        }
        char byte;
        ::close( ready[ 1 ] );
        ASSERT_EQ( ::read( ready[ 0 ], &byte, 1 ), 1 );
        ::close( ready[ 0 ] );
        // As many of the writer's changes as the dice say, then the kill.
        const U64 wanted = Dov::Atomics::loadAcquire( &account.done[ 0 ] ) + random() % 50;
        while ( Dov::Atomics::loadAcquire( &account.done[ 0 ] ) < wanted &&
                ::kill( pid, 0 ) == 0 ) {
            ::sched_yield();
        }
        ::kill( pid, SIGKILL );
        int status = 0;
        ASSERT_EQ( ::waitpid( pid, &status, 0 ), pid );
        ASSERT_TRUE( WIFSIGNALED( status ) );
        torture.count( "kills" );

        TestCollection next( layout );
        next.asWriter();
        std::map< U64, U64 > kept = contentsOf( next );
        for ( U64 key = 0; key < 64; ++key ) {
            const auto holds = [ & ]( U64 change ) {
                return change == 0 || change % 5 == 0
                           ? !kept.contains( key )
                           : kept.contains( key ) && kept[ key ] == change;
            };
            const bool either = holds( account.done[ key ] ) || holds( account.begun[ key ] );
            torture.count( "lost", !either );
            ASSERT_TRUE( either ) << "key " << key << " done " << account.done[ key ] << " begun "
                                  << account.begun[ key ];
            // The account goes on with what is there.
            if ( !holds( account.done[ key ] ) ) {
                account.done[ key ] = account.begun[ key ];
            } else {
                account.begun[ key ] = account.done[ key ];
            }
            changes += account.done[ key ];
        }
        ASSERT_TRUE( next.validate() );
    }
    ASSERT_GT( changes, 0U );
    ::munmap( page, sizeof( Account ) );
}

} // namespace
