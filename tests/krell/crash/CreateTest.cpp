// A writer is killed at every place of making a collection, of replacing one, and of taking one
// away.

#include <algorithm>
#include <filesystem>

#include <gtest/gtest.h>

#include "krell/EngineSupport.h"
#include "krell/crash/Crash.h"

using namespace KrellTest;

namespace {

// More rounds than a reader lets pass between two looks at the stamp's file.
constexpr unsigned manyRounds = 60;

class CreateTest : public testing::Test {
protected:
    using WholeContents = std::map< std::vector< U64 >, std::vector< U64 > >;

    static void poll( TestCollection& reader ) {
        for ( unsigned i = 0; i < manyRounds; ++i ) {
            reader.timeout();
        }
    }
    static WholeContents contentsOf( TestCollection& collection ) {
        return KrellTest::contentsOf< 1, 2 >( collection.table() );
    }
    static void put( TestCollection& writer, U64 key ) {
        const U64 value[ 2 ] = { key, ~key };
        writer.writer().put< 1, 2 >( &key, value );
    }
    void makeOld() {
        TestCollection writer( layout );
        writer.asWriter( 8 );
        for ( U64 n = 1; n <= 4; ++n ) {
            put( writer, n );
        }
        oldContents = contentsOf( writer );
        oldFenix = writer.fenixId();
    }
    std::vector< std::string > files() const {
        std::vector< std::string > names;
        for ( const auto& entry : std::filesystem::directory_iterator( root / "sys/Krell/e/c" ) ) {
            const std::string name = entry.path().filename();
            names.push_back( name.starts_with( "conquer." ) ? "conquer" : name );
        }
        std::sort( names.begin(), names.end() );
        return names;
    }

    const Krell::Layout layout = layoutOf( 1, 2 );
    const std::vector< std::string > wholeSet { "buckets", "conquer",    "doorbell",
                                                "fenix",   "last-owner", "slots" };
    const std::map< U64, bool > allDeleted {
        { 1, false }, { 2, false }, { 3, false }, { 4, false }
    };
    TestRoot root;
    WholeContents oldContents;
    U32 oldFenix = 0;
};

TEST_F( CreateTest, WhatIsHalfMadeIsNotVisible ) {
    unsigned kills = 0;
    bool seen = false;
    bool unseen = false;
    for ( unsigned n = 1;; n += stride ) {
        std::filesystem::remove_all( root / "sys" );
        TestCollection early( layout );
        early.asReader();
        ASSERT_EQ( early.mountStatus(), 0 );
        const Crash crash = killedAt(
            n, [] {}, [ & ] { TestCollection( layout ).asWriter( 8 ); } );
        if ( !crash.died ) {
            break;
        }
        ++kills;
        SCOPED_TRACE( "killed at " + crash.place );
        TestCollection reader( layout );
        reader.asReader();
        ( reader.mountStatus() ? seen : unseen ) = true;
        ASSERT_EQ( contentsOf( reader ), WholeContents() );
        ASSERT_EQ( reader.validate(), reader.mountStatus() == 1 );

        TestCollection writer( layout );
        writer.asWriter();
        put( writer, 7 );
        poll( reader );
        poll( early );
        ASSERT_EQ( files(), wholeSet );
        for ( TestCollection* each : { &reader, &early } ) {
            ASSERT_EQ( each->fenixId(), writer.fenixId() );
            ASSERT_EQ( contentsOf( *each ), contentsOf( writer ) );
            ASSERT_EQ( each->takeChanges(), ( std::map< U64, bool > { { 7, true } } ) );
            ASSERT_EQ( each->failures, std::vector< std::string >() );
        }
    }
    ASSERT_GE( kills, stride == 1 ? 6U : 1U );
    if ( stride == 1 ) {
        ASSERT_TRUE( seen && unseen );
    }
}

// A writer that died while it wrote the stamp left a file of a name that no writer removed.
TEST_F( CreateTest, AHalfWrittenStampGoesWithTheNextWriter ) {
    ASSERT_TRUE( killedAt(
                     "temporary: made", [] {}, [ & ] { TestCollection( layout ).asWriter( 8 ); } )
                     .died );
    ASSERT_NE( files(), wholeSet );
    TestCollection writer( layout );
    writer.asWriter();
    EXPECT_EQ( files(), wholeSet );
}

TEST_F( CreateTest, ANewIncarnationReplacesTheOldOneAtOnce ) {
    unsigned kills = 0;
    for ( unsigned n = 1;; n += stride ) {
        std::filesystem::remove_all( root / "sys" );
        makeOld();
        TestCollection reader( layout );
        reader.asReader();
        poll( reader );
        ASSERT_EQ( reader.takeChanges().size(), 4U );
        bytesInto( root / "sys/Krell/e/c/corruption-detected", "" );
        const Crash crash = killedAt(
            n, [] {}, [ & ] { TestCollection( layout ).asWriter( 8 ); } );
        SCOPED_TRACE( "killed at " + crash.place );
        poll( reader );
        const bool isOld = reader.fenixId() == oldFenix;
        ASSERT_EQ( reader.mountStatus(), 1 );
        ASSERT_EQ( contentsOf( reader ), isOld ? oldContents : WholeContents() );

        TestCollection writer( layout );
        writer.asWriter();
        ASSERT_NE( writer.fenixId(), oldFenix );
        ASSERT_EQ( contentsOf( writer ), WholeContents() );
        ASSERT_EQ( files(), wholeSet );
        poll( reader );
        ASSERT_EQ( reader.fenixId(), writer.fenixId() );
        ASSERT_EQ( reader.takeChanges(), allDeleted );
        if ( !crash.died ) {
            break;
        }
        ++kills;
    }
    ASSERT_GE( kills, stride == 1 ? 6U : 1U );
}

TEST_F( CreateTest, ACollectionIsTakenAwayAtOnce ) {
    unsigned kills = 0;
    for ( unsigned n = 1;; n += stride ) {
        std::filesystem::remove_all( root / "sys" );
        makeOld();
        TestCollection reader( layout );
        reader.asReader();
        poll( reader );
        reader.takeChanges();
        const Crash crash = killedAt(
            n, [] {}, [ & ] { TestCollection( layout ).cleanup(); } );
        SCOPED_TRACE( "killed at " + crash.place );
        poll( reader );
        ASSERT_EQ( reader.mountStatus(), 0 );
        ASSERT_EQ( contentsOf( reader ), WholeContents() );
        ASSERT_EQ( reader.takeChanges(), allDeleted );

        TestCollection writer( layout );
        writer.asWriter();
        ASSERT_NE( writer.fenixId(), oldFenix );
        ASSERT_EQ( contentsOf( writer ), WholeContents() );
        put( writer, 7 );
        poll( reader );
        ASSERT_EQ( contentsOf( reader ), contentsOf( writer ) );
        ASSERT_EQ( reader.takeChanges(), ( std::map< U64, bool > { { 7, true } } ) );
        if ( !crash.died ) {
            break;
        }
        ++kills;
    }
    ASSERT_GE( kills, stride == 1 ? 5U : 1U );
}

} // namespace
