// Room runs out: the operation fails, and everything is as it was.

#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include "FileLimit.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;

namespace {

void put( TestCollection& writer, U64 key, U64 value ) {
    writer.writer().put< 1, 1 >( &key, &value );
}

std::map< U64, U64 > contentsOf( TestCollection& collection ) {
    std::map< U64, U64 > contents;
    collection.table().forEach< 1, 1 >(
        [ & ]( const U64* k, const U64* v ) { contents[ *k ] = *v; } );
    return contents;
}

TEST( WriterSpaceTest, AnInsertThatFindsNoRoomChangesNothing ) {
    TestRoot root;
    TestCollection writer( layoutOf( 1, 1 ) );
    writer.asWriter( 8 );
    TestCollection reader( layoutOf( 1, 1 ) );
    reader.asReader();
    for ( U64 n = 0; n < 8; ++n ) {
        put( writer, n, n );
    }
    const auto before = contentsOf( reader );
    {
        const QelKrellTest::FileLimit limit( 560 );
        for ( U64 n = 100; n < 110; ++n ) {
            const std::string text =
                messageOf< Krell::MemoryResourceException >( [ & ] { put( writer, n, n ); } );
            EXPECT_NE( text.find( "posix_fallocate " + ( root / "sys/Krell/e/c/" ) ),
                       std::string::npos )
                << text;
            EXPECT_NE( text.find( "File too large" ), std::string::npos ) << text;
        }
        EXPECT_EQ( contentsOf( reader ), before );
        EXPECT_EQ( contentsOf( writer ), before );
        EXPECT_EQ( writer.capacity(), 8U );
        EXPECT_TRUE( reader.validate() );
        put( writer, 3, 33 ); // needs no room
        const U64 gone = 5;
        EXPECT_TRUE( writer.writer().del< 1 >( &gone ) );
        put( writer, 200, 1 ); // in the retired slot, sooner than usual
        EXPECT_EQ( contentsOf( reader ).size(), 8U );
        EXPECT_THROW( put( writer, 201, 1 ), Krell::MemoryResourceException );
        EXPECT_THROW( writer.resize(), Krell::MemoryResourceException );
    }
    put( writer, 201, 1 );
    EXPECT_EQ( contentsOf( reader ).size(), 9U );
    EXPECT_TRUE( writer.validate() );
}

TEST( WriterSpaceTest, BucketsThatCannotGrowTakeMoreKeysInLongerChains ) {
    TestRoot root;
    TestCollection writer( layoutOf( 1, 1 ) );
    writer.asWriter( 64 );
    writer.writer().reserve( 64 );
    const QelKrellTest::FileLimit limit( 6000 ); // slots can grow once, the buckets cannot
    U64 n = 0;
    EXPECT_THROW(
        for ( ;; ++n ) { put( writer, n, n ); }, Krell::MemoryResourceException );
    EXPECT_GT( n, 64U );
    EXPECT_EQ( contentsOf( writer ).size(), n );
    EXPECT_TRUE( writer.validate() );
}

TEST( WriterSpaceTest, ACollectionThatFindsNoRoomIsNotMade ) {
    TestRoot root;
    const std::string place = root / "sys/Krell/e/c";
    for ( const rlim_t bytes : { 0, 3, 100, 300, 2000, 4900 } ) {
        SCOPED_TRACE( bytes );
        TestCollection writer( layoutOf( 1, 1 ) );
        TestCollection reader( layoutOf( 1, 1 ) );
        {
            const QelKrellTest::FileLimit limit( bytes );
            EXPECT_THROW( writer.asWriter( 64 ), Krell::MemoryResourceException );
        }
        EXPECT_EQ( writer.mountStatus(), 0 );
        reader.asReader();
        EXPECT_EQ( reader.mountStatus(), 0 );
        writer.asWriter( 64 );
        EXPECT_TRUE( writer.validate() );
        writer.cleanup();
    }
}

TEST( WriterSpaceTest, ATakeoverThatFindsNoRoomLosesNothing ) {
    TestRoot root;
    TestCollection writer( layoutOf( 1, 1 ) );
    writer.asWriter( 64 );
    for ( U64 n = 0; n < 64; ++n ) {
        put( writer, n, n );
    }
    const auto before = contentsOf( writer );
    const U32 fenix = writer.fenixId();
    writer.detach();
    TestCollection reader( layoutOf( 1, 1 ) );
    reader.asReader();
    {
        const QelKrellTest::FileLimit limit( 4300 );
        EXPECT_THROW( writer.asWriter(), Krell::MemoryResourceException );
    }
    EXPECT_EQ( contentsOf( reader ), before );
    writer.asWriter();
    EXPECT_EQ( writer.fenixId(), fenix );
    EXPECT_EQ( contentsOf( writer ), before );
}

} // namespace
