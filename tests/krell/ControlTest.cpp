// Opening a collection in its roles, notifications, and what tools ask a control object.

#include <cmath>
#include <filesystem>
#include <limits>

#include <gtest/gtest.h>

#include <unistd.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;
using QelKrell::QelKrellType;

namespace {

class ControlTest : public testing::Test {
protected:
    static void put( TestCollection& writer, U64 key, U64 value ) {
        writer.writer().put< 1, 1 >( &key, &value );
    }
    static void del( TestCollection& writer, U64 key ) { writer.writer().del< 1 >( &key ); }
    static bool find( TestCollection& collection, U64 key, U64& value ) {
        return collection.table().find< 1, 1 >( &key, &value );
    }
    std::string place() const { return root / "sys/Krell/e/c"; }

    const Krell::Layout layout = layoutOf( 1, 1 );
    TestRoot root;
};

using Changes = std::map< U64, bool >;

TEST_F( ControlTest, NothingIsOpenAtFirst ) {
    TestCollection c( layout );
    U64 value = 0;
    EXPECT_EQ( c.mountStatus(), 0 );
    EXPECT_EQ( c.sequence(), 0U );
    EXPECT_EQ( c.fenixId(), 0U );
    EXPECT_EQ( c.owner(), "" );
    EXPECT_EQ( c.capacity(), 0U );
    EXPECT_EQ( c.maxSize(), Krell::Segments::maxSlotsOf( layout ) );
    EXPECT_EQ( c.krellName(), "sys/Krell/e/c" );
    EXPECT_EQ( c.rootPath(), place() );
    EXPECT_FALSE( c.validate() );
    EXPECT_FALSE( c.resize() );
    EXPECT_FALSE( find( c, 1, value ) );
    EXPECT_EQ( c.table().occupied(), 0U );
    c.detach();
    c.cleanup();
    c.poll();
    EXPECT_EQ( messageOf< Krell::InvalidInitializeException >( [ & ] { c.writer(); } ),
               "sys/Krell/e/c is not open for writing" );
    EXPECT_FALSE( std::filesystem::exists( place() ) );
}

TEST_F( ControlTest, AWriterMakesTheCollectionAndAReaderSeesIt ) {
    TestCollection writer( layout );
    writer.asWriter( 10 );
    EXPECT_EQ( writer.mountStatus(), 1 );
    EXPECT_EQ( writer.capacity(), 10U );
    EXPECT_NE( writer.fenixId(), 0U );
    put( writer, 5, 50 );
    TestCollection reader( layout );
    reader.asReader();
    U64 value = 0;
    EXPECT_EQ( reader.mountStatus(), 1 );
    EXPECT_TRUE( find( reader, 5, value ) );
    EXPECT_EQ( value, 50U );
    EXPECT_EQ( reader.fenixId(), writer.fenixId() );
    EXPECT_EQ( reader.sequence(), 1U );
    EXPECT_EQ( reader.owner(), writer.owner() );
    EXPECT_NE( reader.owner().find( "(pid " + std::to_string( ::getpid() ) + ")" ),
               std::string::npos );
    EXPECT_TRUE( reader.validate() );
    EXPECT_EQ( modeOf( place() ), 0750 );
    for ( const char* file : { "/slots", "/buckets", "/fenix" } ) {
        EXPECT_EQ( modeOf( place() + file ), 0640 );
    }
    EXPECT_EQ( bytesOf( place() + "/fenix" ), bytesOf( place() + "/slots" ).substr( 12, 4 ) );
}

TEST_F( ControlTest, ARoleThatIsNoneIsRefused ) {
    TestCollection c( layout );
    c.asWriter();
    EXPECT_EQ( messageOf< Krell::InvalidInitializeException >(
                   [ & ] { c.init( QelKrellType( 4 ), false, 0 ); } ),
               "there is no role 4" );
    EXPECT_EQ( c.mountStatus(), 1 ) << "a refused role changes nothing";
    put( c, 1, 1 );
}

TEST_F( ControlTest, LayoutsBeyondTheLimitsAreRefused ) {
    const auto message = [ & ]( const std::function< void( Krell::Layout& ) >& change ) {
        Krell::Layout wrong = layout;
        change( wrong );
        TestCollection c( wrong );
        return messageOf< Krell::InvalidInitializeException >( [ & ] { c.asWriter(); } );
    };
    EXPECT_EQ( message( []( Krell::Layout& l ) { l.keySize = 0; } ),
               "the layout's key size is 0 bytes; it can be 1 to 4096" );
    EXPECT_EQ( message( []( Krell::Layout& l ) { l.valueSize = 4097; } ),
               "the layout's value size is 4097 bytes; it can be 0 to 4096" );
    EXPECT_EQ( message( []( Krell::Layout& l ) { l.entityType.clear(); } ),
               "the layout's entity type is empty" );
    EXPECT_EQ( message( []( Krell::Layout& l ) { l.valueType = std::string( 64, 'x' ); } ),
               "the layout's value type '" + std::string( 64, 'x' ) +
                   "' has 64 bytes; the most is 63" );
    EXPECT_FALSE( std::filesystem::exists( place() ) );
}

TEST_F( ControlTest, AnotherLayoutIsRefusedWithBothNamed ) {
    TestCollection writer( layout );
    writer.asWriter();
    Krell::Layout other = layout;
    other.hash = 0xabc;
    other.text = "another text";
    TestCollection reader( other );
    EXPECT_EQ(
        messageOf< Krell::InvalidInitializeException >( [ & ] { reader.asReader(); } ),
        place() + ": the collection holds Test::Value in Test::Entity (key 8 bytes, value 8 bytes, "
                  "layout 000003e9: key 1 words, value 1), but this process wants Test::Value in "
                  "Test::Entity (key 8 bytes, value 8 bytes, layout 00000abc: another text)" );
    EXPECT_EQ( reader.mountStatus(), 0 );
    EXPECT_TRUE( writer.validate() );
}

TEST_F( ControlTest, ASecondWriterIsRefusedWithTheFirstNamed ) {
    Child first( [ & ] {
        TestCollection* const writer = new TestCollection( layout ); // open until the child ends
        writer->asWriter();
        return true;
    } );
    TestCollection second( layout );
    try {
        second.asWriter();
        FAIL();
    } catch ( const Krell::DuplicateWriterException& e ) {
        EXPECT_EQ( e.detail(), U32( first.pid() ) );
        EXPECT_NE( e.msg().find( place() ), std::string::npos ) << e.msg();
        EXPECT_NE( e.msg().find( "(pid " + std::to_string( first.pid() ) + ")" ),
                   std::string::npos )
            << e.msg();
    }
    EXPECT_EQ( second.mountStatus(), 0 );
    EXPECT_THROW( second.cleanup(), Krell::DuplicateWriterException );
    EXPECT_TRUE( std::filesystem::exists( place() + "/slots" ) );
    first.kill( SIGKILL );
    second.asWriter();
    EXPECT_EQ( second.mountStatus(), 1 );
    TestCollection third( layout );
    EXPECT_THROW( third.asWriter(), Krell::DuplicateWriterException );
    second.detach();
    third.asWriter();
    EXPECT_EQ( third.mountStatus(), 1 );
}

TEST_F( ControlTest, OpeningAgainKeepsTheCollectionOpen ) {
    TestCollection c( layout );
    c.asWriter( 4 );
    put( c, 1, 10 );
    const U32 fenix = c.fenixId();
    Krell::WriterTable* const table = &c.writer();
    c.asWriter( 4 );
    EXPECT_EQ( &c.writer(), table );
    c.asWriter( 100 );
    EXPECT_EQ( c.capacity(), 100U );
    EXPECT_EQ( c.fenixId(), fenix );
    c.asReader();
    EXPECT_THROW( c.writer(), Krell::InvalidInitializeException );
    U64 value = 0;
    EXPECT_TRUE( find( c, 1, value ) );
    EXPECT_EQ( c.mountStatus(), 1 );
    TestCollection writer( layout );
    writer.asWriter(); // the lock was let go
    EXPECT_EQ( writer.fenixId(), fenix );
}

TEST_F( ControlTest, ALocalCollectionIsThisObjectsOwn ) {
    TestCollection c( layout );
    c.init( QelKrell::writer, true, 3 );
    put( c, 1, 10 );
    EXPECT_EQ( c.mountStatus(), 1 );
    EXPECT_EQ( c.capacity(), 3U );
    EXPECT_TRUE( c.validate() );
    EXPECT_TRUE( c.resize() );
    EXPECT_EQ( c.capacity(), 6U );
    EXPECT_NE( c.owner().find( std::to_string( ::getpid() ) ), std::string::npos );
    TestCollection reader( layout );
    reader.init( QelKrell::reader, true, 0 );
    EXPECT_EQ( reader.mountStatus(), 1 );
    EXPECT_EQ( reader.table().occupied(), 0U );
    EXPECT_FALSE( reader.resize() );
    reader.timeout();
    EXPECT_THROW( reader.writer(), Krell::InvalidInitializeException );
    EXPECT_FALSE( std::filesystem::exists( place() ) );
    c.detach();
    EXPECT_EQ( c.mountStatus(), 0 );
    c.init( QelKrell::writer, true, 0 );
    EXPECT_EQ( c.table().occupied(), 0U );
}

TEST_F( ControlTest, AReaderBeforeItsWriterAttachesByItsTimer ) {
    TestCollection reader( layout );
    reader.asReader();
    EXPECT_EQ( reader.mountStatus(), 0 );
    ASSERT_EQ( timers().size(), 1U );
    EXPECT_TRUE( timers()[ 0 ]->armed );
    EXPECT_EQ( timers()[ 0 ]->seconds, 0.02 );
    EXPECT_EQ( fireTimers(), 1U );
    EXPECT_EQ( reader.mountStatus(), 0 );
    TestCollection writer( layout );
    writer.asWriter();
    put( writer, 1, 10 );
    EXPECT_EQ( fireTimers(), 1U );
    EXPECT_EQ( reader.mountStatus(), 1 );
    EXPECT_EQ( reader.attachments, 1U );
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, true } } ) );
    EXPECT_TRUE( timers()[ 0 ]->armed );
    reader.detach();
    EXPECT_FALSE( timers()[ 0 ]->armed );
    EXPECT_EQ( reader.mountStatus(), 0 );
}

TEST_F( ControlTest, ThePollTimeIsTheTimersTime ) {
    TestCollection reader( layout );
    EXPECT_TRUE( reader.pollTimeIs( 0.5 ) );
    reader.asReader();
    EXPECT_EQ( timers()[ 0 ]->seconds, 0.5 );
    EXPECT_TRUE( reader.pollTimeIs( 2 ) );
    EXPECT_EQ( timers()[ 0 ]->seconds, 2 );
    for ( const double wrong :
          { 0.0, -1.0, std::nan( "" ), std::numeric_limits< double >::infinity() } ) {
        EXPECT_FALSE( reader.pollTimeIs( wrong ) );
    }
    EXPECT_EQ( timers()[ 0 ]->seconds, 2 );
}

TEST_F( ControlTest, EachChangeIsNotified ) {
    TestCollection writer( layout );
    writer.asWriter( 100 );
    put( writer, 1, 10 );
    put( writer, 2, 20 );
    TestCollection reader( layout );
    reader.asReader();
    EXPECT_EQ( reader.attachments, 1U );
    EXPECT_TRUE( reader.changes.empty() );
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), Changes() );
    put( writer, 2, 21 );
    put( writer, 2, 22 );
    put( writer, 3, 30 );
    reader.poll();
    EXPECT_EQ( reader.changes.size(), 2U ) << "changes of one key come as one";
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 2, true }, { 3, true } } ) );
    del( writer, 1 );
    put( writer, 2, 22 ); // no change
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, false } } ) );
    put( writer, 4, 1 );
    del( writer, 4 );
    put( writer, 1, 11 );
    reader.poll();
    const Changes changes = reader.takeChanges();
    EXPECT_EQ( changes.at( 4 ), false );
    EXPECT_TRUE( reader.failures.empty() );
}

TEST_F( ControlTest, WhatAReaderIsToldEndsWithTheWritersLastState ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    TestCollection writer( layout );
    writer.asWriter( 4096 ); // slots are not used again within the test
    TestCollection reader( layout );
    reader.asReader();
    std::map< U64, U64 > told;
    for ( unsigned round = 0; round < 200; ++round ) {
        for ( unsigned i = random() % 20; i > 0; --i ) {
            const U64 key = random() % 30;
            if ( random() % 3 == 0 ) {
                del( writer, key );
            } else {
                put( writer, key, random() );
            }
        }
        reader.poll();
        for ( const auto& change : reader.changes ) {
            U64 value = 0;
            if ( find( reader, change.key[ 0 ], value ) ) {
                told[ change.key[ 0 ] ] = value;
            } else {
                told.erase( change.key[ 0 ] );
            }
        }
        reader.changes.clear();
        std::map< U64, U64 > wanted;
        writer.table().forEach< 1, 1 >(
            [ & ]( const U64* k, const U64* v ) { wanted[ *k ] = *v; } );
        ASSERT_EQ( told, wanted );
    }
}

TEST_F( ControlTest, NothingIsNotifiedWhileNotificationsAreOff ) {
    TestCollection writer( layout );
    writer.asWriter();
    TestCollection reader( layout );
    reader.notifying( false );
    reader.asReader();
    put( writer, 1, 10 );
    put( writer, 2, 10 );
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), Changes() );
    U64 value = 0;
    EXPECT_TRUE( find( reader, 1, value ) );
    reader.notifying( true );
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
}

TEST_F( ControlTest, ARoundEndsWithTheYieldTimeAndTheNextGoesOn ) {
    TestCollection writer( layout );
    writer.asWriter( 1000 );
    for ( U64 n = 0; n < 1000; ++n ) {
        put( writer, n, n );
    }
    TestCollection reader( layout );
    EXPECT_TRUE( reader.yieldTimeIs( 0 ) );
    reader.asReader();
    std::vector< std::size_t > told;
    for ( int i = 0; i < 5; ++i ) {
        reader.poll();
        told.push_back( reader.changes.size() );
    }
    EXPECT_EQ( told, ( std::vector< std::size_t > { 8, 16, 24, 32, 40 } ) );
    EXPECT_EQ( reader.readerCounters().conquerYields, 5U );
    for ( int i = 0; i < 121; ++i ) {
        reader.poll();
    }
    EXPECT_EQ( reader.takeChanges().size(), 1000U );
    for ( const double wrong :
          { -1.0, std::nan( "" ), std::numeric_limits< double >::infinity() } ) {
        EXPECT_FALSE( reader.yieldTimeIs( wrong ) );
    }
    // Of what changes during the rounds, nothing is lost.
    put( writer, 999, 1 );
    reader.poll();
    put( writer, 0, 1 );
    put( writer, 998, 1 );
    for ( int i = 0; i < 8; ++i ) {
        reader.poll();
    }
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 0, true }, { 998, true }, { 999, true } } ) );
    EXPECT_TRUE( reader.yieldTimeIs( 1000 ) );
    put( writer, 1, 5 );
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, true } } ) );
}

TEST_F( ControlTest, ACallbackMayCloseAndOpenTheCollection ) {
    TestCollection writer( layout );
    writer.asWriter();
    put( writer, 1, 10 );
    put( writer, 2, 20 );
    TestCollection reader( layout );
    reader.asReader();
    reader.onChanged = [ & ]( U64 ) { reader.detach(); };
    reader.poll();
    EXPECT_EQ( reader.changes.size(), 1U );
    EXPECT_EQ( reader.mountStatus(), 0 );
    EXPECT_FALSE( timers()[ 0 ]->armed );
    reader.onChanged = [ & ]( U64 key ) {
        if ( key == 1 && reader.changes.size() < 3 ) {
            reader.detach();
            reader.asReader();
        }
    };
    reader.asReader();
    reader.poll();
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
    EXPECT_EQ( reader.mountStatus(), 1 );
}

TEST_F( ControlTest, ANewIncarnationIsAttachedToAndToldAsDifferences ) {
    TestCollection writer( layout );
    writer.asWriter();
    for ( U64 n = 1; n <= 3; ++n ) {
        put( writer, n, n );
    }
    TestCollection reader( layout );
    reader.asReader();
    reader.poll();
    reader.takeChanges();
    const U32 old = reader.fenixId();
    writer.cleanup();
    writer.asWriter();
    put( writer, 3, 33 );
    put( writer, 4, 44 );
    reader.poll();
    EXPECT_NE( reader.fenixId(), old );
    EXPECT_EQ( reader.fenixId(), writer.fenixId() );
    EXPECT_EQ( reader.attachments, 2U );
    EXPECT_EQ( reader.readerCounters().slotResizes, 1U );
    EXPECT_EQ( reader.takeChanges(),
               ( Changes { { 1, false }, { 2, false }, { 3, true }, { 4, true } } ) );
}

TEST_F( ControlTest, AnIncarnationOfAnotherLayoutIsToldOnceAsAFailure ) {
    TestCollection writer( layout );
    writer.asWriter();
    put( writer, 1, 1 );
    TestCollection reader( layout );
    reader.asReader();
    reader.poll();
    reader.takeChanges();
    writer.detach();
    TestCollection other( layoutOf( 1, 2 ) );
    other.asWriter();
    reader.poll();
    reader.poll();
    EXPECT_EQ( reader.mountStatus(), 0 );
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, false } } ) );
    ASSERT_EQ( reader.failures.size(), 1U );
    EXPECT_NE( reader.failures[ 0 ].find( "the collection holds" ), std::string::npos );
    other.detach();
    writer.asWriter();
    put( writer, 2, 2 );
    reader.poll();
    EXPECT_EQ( reader.mountStatus(), 1 );
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 2, true } } ) );
}

TEST_F( ControlTest, AReplacedDirectoryIsNoticed ) {
    TestCollection writer( layout );
    writer.asWriter();
    put( writer, 1, 1 );
    TestCollection reader( layout );
    reader.asReader();
    reader.poll();
    writer.detach();
    std::filesystem::rename( place(), root / "elsewhere" );
    for ( int i = 0; i < 60; ++i ) {
        reader.poll();
    }
    EXPECT_EQ( reader.mountStatus(), 0 );
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 1, false } } ) );
    writer.asWriter();
    put( writer, 2, 2 );
    reader.poll();
    EXPECT_EQ( reader.takeChanges(), ( Changes { { 2, true } } ) );
}

TEST_F( ControlTest, CleanupRemovesTheFilesAndKeepsTheLockFile ) {
    TestCollection writer( layout );
    writer.asWriter();
    bytesInto( place() + "/conquer.1", "x" );
    bytesInto( place() + "/corruption-detected", "" );
    bytesInto( place() + "/somebody's", "x" );
    writer.cleanup();
    EXPECT_EQ( writer.mountStatus(), 0 );
    std::set< std::string > left;
    for ( const auto& entry : std::filesystem::directory_iterator( place() ) ) {
        left.insert( entry.path().filename() );
    }
    EXPECT_EQ( left, ( std::set< std::string > { "last-owner", "somebody's" } ) );
    EXPECT_NE( writer.owner(), "" );
    writer.cleanup();
    writer.asWriter();
    EXPECT_EQ( writer.mountStatus(), 1 );
}

TEST_F( ControlTest, AForkedChildOfTheWriterCannotWriteAndDisturbsNothing ) {
    TestCollection writer( layout );
    writer.asWriter();
    put( writer, 1, 10 );
    EXPECT_EQ( inChild( [ & ] {
                   const U64 key = 2;
                   const bool refused =
                       messageOf< Krell::RuntimeException >( [ & ] { put( writer, key, 1 ); } ) ==
                           "this process was forked from the writer of " + place() +
                               " and cannot write it" &&
                       messageOf< Krell::RuntimeException >( [ & ] { del( writer, 1 ); } ) !=
                           "no exception";
                   U64 value = 0;
                   const bool reads = find( writer, 1, value ) && value == 10;
                   writer.detach();
                   return refused && reads ? 0 : 1;
               } ),
               0 );
    EXPECT_EQ( Krell::WriterLock::holderOf( Krell::Directory::open( place() ) ), ::getpid() );
    put( writer, 2, 20 );
    EXPECT_TRUE( writer.validate() );
    // The parent is still marked as at work: were it killed now, a restart of the machine would
    // tell.
    const std::string slots = bytesOf( place() + "/slots" );
    EXPECT_EQ( U32( slots[ 176 ] ) & Krell::Segments::inUse_, U32( Krell::Segments::inUse_ ) );
    writer.detach();
    EXPECT_EQ( U32( bytesOf( place() + "/slots" )[ 176 ] ) & Krell::Segments::inUse_, 0U );
}

TEST_F( ControlTest, EachRoleHasItsCounters ) {
    TestCollection writer( layout );
    EXPECT_EQ( messageOf< Krell::UnimplementedException >( [ & ] { writer.writerCounters(); } ),
               "sys/Krell/e/c is not open for writing: it keeps no writer counters" );
    writer.asWriter( 4 );
    EXPECT_EQ( messageOf< Krell::UnimplementedException >( [ & ] { writer.readerCounters(); } ),
               "sys/Krell/e/c is not open for reading: it keeps no reader counters" );
    TestCollection reader( layout );
    reader.asReader();
    for ( U64 n = 0; n < 6; ++n ) {
        put( writer, n, 1 );
    }
    put( writer, 0, 1 );
    put( writer, 0, 2 );
    put( writer, 1, 2 );
    del( writer, 3 );
    const QelKrell::WriterCounters w = writer.writerCounters();
    EXPECT_EQ( w.slotAllocs, 6U );
    EXPECT_EQ( w.slotDeallocs, 1U );
    EXPECT_EQ( w.directWrite, 2U );
    EXPECT_EQ( w.directCommit, 6U );
    EXPECT_EQ( w.conquerSequence, 9U );
    EXPECT_NE( w.slotBaseAddress, 0U );
    reader.poll();
    const QelKrell::ReaderCounters r = reader.readerCounters();
    EXPECT_EQ( r.occupiedSlots, 5U );
    EXPECT_EQ( r.slotResizes, 1U );
    EXPECT_EQ( r.conquerSequence, 9U );
    EXPECT_NE( r.slotBaseAddress, 0U );
    EXPECT_EQ( r.usedLookaside, 0U );
    EXPECT_EQ( messageOf< Krell::UnimplementedException >( [ & ] { reader.writerCounters(); } ),
               "sys/Krell/e/c is not open for writing: it keeps no writer counters" );
}

TEST_F( ControlTest, ResizeDoublesOrMapsAnew ) {
    TestCollection writer( layout );
    writer.asWriter( 100 );
    TestCollection reader( layout );
    reader.asReader();
    EXPECT_FALSE( reader.resize() );
    EXPECT_TRUE( writer.resize() );
    EXPECT_EQ( writer.capacity(), 200U );
    EXPECT_TRUE( reader.resize() );
    EXPECT_FALSE( reader.resize() );
    EXPECT_EQ( reader.capacity(), 200U );
}

TEST_F( ControlTest, TheSampleIsRemembered ) {
    TestCollection c( layout );
    c.sampleIs( 17 );
    EXPECT_EQ( c.sample(), 17U );
}

TEST_F( ControlTest, PathsThatLeadUpwardsAreRefused ) {
    TestCollection c( layout, "sys/../../x" );
    EXPECT_THROW( c.asWriter(), Krell::InvalidInitializeException );
    EXPECT_THROW( c.asReader(), Krell::InvalidInitializeException );
    EXPECT_EQ( c.mountStatus(), 0 );
}

TEST_F( ControlTest, ASymbolicLinkInTheWayIsRefused ) {
    std::filesystem::create_directories( root / "real" );
    std::filesystem::create_symlink( root / "real", root / "sys" );
    TestCollection c( layout );
    EXPECT_THROW( c.asWriter(), Krell::RuntimeException );
    EXPECT_TRUE( std::filesystem::is_empty( root / "real" ) );
}

} // namespace
