// A process that called surviveShortenedFiles() outlives its collections' files.

#include <QelKrell/FaultGuard>

#include <filesystem>
#include <optional>

#include <gmock/gmock.h>

#include <QelKrell/Exception>

#include "mount/Child.h"
#include "mount/Mounted.h"

using namespace QelKrellTest;

namespace {

class Shortened : public testing::Test {
protected:
    static constexpr Qel::U32 entries = 2000;

    Shortened() {
        Mounted plant( asWriter( entries ) );
        for ( Qel::U32 i = 0; i < entries; ++i ) {
            plant->reading.is( readingOf( i, 1 ) );
        }
        plant->limit.is( { Qel::FixedString< 16 >( "high" ), 7 } );
    }
    void cut( const char* file ) const {
        std::filesystem::resize_file( root.path() + "/sys/Krell/site/north/reading/" + file, 0 );
    }
    template < class F >
    static bool isCorrupt( F&& f ) {
        try {
            f();
        } catch ( const QelKrell::CorruptionDetectedException& ) {
            return true;
        }
        return false;
    }

    Root root;
};

TEST_F( Shortened, AReaderIsToldAndGoesOnWithTheNextWriter ) {
    for ( const char* file : { "slots", "buckets" } ) {
        Child child( [ & ]( const Channel& channel ) {
            QelKrell::surviveShortenedFiles();
            QelKrell::surviveShortenedFiles();
            Mounted plant( asReader );
            channel.say( "mounted" );
            EXPECT_EQ( channel.hear(), "cut" );
            EXPECT_TRUE( isCorrupt( [ & ] { plant->reading( 5 ); } ) );
            EXPECT_TRUE( isCorrupt( [ & ] { plant->reading.size(); } ) );
            EXPECT_TRUE( isCorrupt( [ & ] {
                for ( const auto& r : plant->reading ) {
                    EXPECT_TRUE( same( r, readingOf( r.sensor, 1 ) ) );
                }
            } ) );
            EXPECT_TRUE( plant->limit( Qel::FixedString< 16 >( "high" ) ) ) << "another collection";
            EXPECT_TRUE( loopUntil( [ & ] {
                return std::filesystem::exists(
                    root.path() + "/sys/Krell/site/north/reading/corruption-detected" );
            } ) );
            channel.say( "told" );
            EXPECT_EQ( channel.hear(), "written" );
            EXPECT_TRUE( loopUntil( [ & ] {
                try {
                    return bool( plant->reading( 77 ) );
                } catch ( const QelKrell::CorruptionDetectedException& ) {
                    return false;
                }
            } ) );
            channel.say( "done" );
        } );
        ASSERT_EQ( child.hear(), "mounted" );
        cut( file );
        child.say( "cut" );
        ASSERT_EQ( child.hear(), "told" );
        Mounted writer( asWriter( entries ) );
        EXPECT_EQ( writer->reading.size(), 0U );
        for ( Qel::U32 i = 0; i < entries; ++i ) {
            writer->reading.is( readingOf( i, 1 ) );
        }
        child.say( "written" );
        EXPECT_EQ( child.hear(), "done" );
        EXPECT_EQ( child.wait(), 0 );
    }
}

TEST_F( Shortened, AWriterIsToldAndMountsAgain ) {
    for ( const char* file : { "slots", "buckets", "conquer.1", "conquer.2" } ) {
        Child child( [ & ]( const Channel& channel ) {
            QelKrell::surviveShortenedFiles();
            std::optional< Mounted > mounted( std::in_place, asWriter( entries ) );
            Mounted& plant = *mounted;
            if ( !root.has( std::string( "sys/Krell/site/north/reading/" ) + file ) ) {
                return channel.say( "done" ); // the other one is in use
            }
            cut( file );
            EXPECT_TRUE( isCorrupt( [ & ] {
                for ( Qel::U32 i = 0; i < 2 * entries; ++i ) {
                    plant->reading.is( readingOf( i, 2 ) );
                }
            } ) );
            EXPECT_TRUE( isCorrupt( [ & ] { plant->reading.del( 3 ); } ) );
            EXPECT_TRUE( plant->limit.is( { Qel::FixedString< 16 >( file ), 1 } ) );
            mounted.reset();
            mounted.emplace( asWriter( entries ) );
            EXPECT_TRUE( plant->reading.is( readingOf( 1, 3 ) ) );
            EXPECT_TRUE( plant->reading.control().validate() );
            channel.say( "done" );
        } );
        EXPECT_EQ( child.hear(), "done" ) << file;
        EXPECT_EQ( child.wait(), 0 ) << file;
    }
}

TEST_F( Shortened, WithoutTheCallTheProcessEnds ) {
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
    GTEST_SKIP() << "the sanitizer has a handler of its own";
#endif
    Child child( [ & ]( const Channel& channel ) {
        Mounted plant( asReader );
        cut( "slots" );
        plant->reading( 5 );
        channel.say( "lives" );
    } );
    EXPECT_EQ( child.hear(), "" );
    EXPECT_EQ( WTERMSIG( child.wait() ), SIGBUS );
}

} // namespace
