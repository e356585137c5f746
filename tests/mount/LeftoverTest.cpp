// What a mount leaves that failed half-way, and how it goes away.

#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include <gtest/gtest.h>

#include "Raised.h"
#include "mount/Plant.h"
#include "mount/Site.h"

namespace {

using MountBench::plantType;
using QelKrell::MountInfo;
using QelKrellTest::mounts;
using QelKrellTest::raised;
using QelKrellTest::Root;
using QelKrellTest::Site;

constexpr Qel::U32 tooMany = 0xffffffff; // slots

MountInfo writerOf( Qel::U32 size ) {
    MountInfo info( QelKrell::writer );
    info.collectionInfoIs( { "reading", size } );
    return info;
}

class Leftover : public testing::TestWithParam< bool > {
protected:
    Leftover() { site.mount.handleInitialized(); }

    std::string failToMount( const char* path ) {
        return raised< Qel::MemoryLimitExceededException >(
            [ & ] { site.mount.doMount( path, plantType, writerOf( tooMany ) ); } );
    }

    const Root root;
    Site site { GetParam() };
};

TEST_P( Leftover, AnEntityStaysUncounted ) {
    EXPECT_NE( failToMount( "a/b/e" ).find( "4294967295 slots are wanted" ), std::string::npos );
    EXPECT_TRUE( site.mount.getEntity( "a/b/e" ) );
    EXPECT_EQ( mounts( "/sys/Krell/a/b/e" ), 0U );
}

// An entity that a failed mount had created could not be got rid of with a local entity manager:
// unmounting what was never counted ends the process, and nothing said what else to do.
TEST_P( Leftover, AnEntityGoesAfterAMountThatNamesNoCollection ) {
    failToMount( "a/b/e" );
    const auto entity = site.mount.doMount( "a/b/e", plantType, MountInfo( QelKrell::writer ) );
    EXPECT_EQ( entity, site.mount.getEntity( "a/b/e" ) );
    EXPECT_EQ( mounts( "/sys/Krell/a/b/e" ), GetParam() ? 1U : 0U );
    site.mount.doUnmount( "a/b/e" );
    EXPECT_FALSE( site.mount.getEntity( "a/b/e" ) );
    EXPECT_EQ( site.krell()->subdirs(), 0U );
    EXPECT_EQ( mounts( "/sys/Krell/a/b/e" ), 0U );
}

TEST_P( Leftover, AnEntityIsTakenUpByAMountThatSucceeds ) {
    failToMount( "e" );
    const auto entity = site.mount.doMount( "e", plantType, writerOf( 8 ) );
    EXPECT_EQ( entity->fullName(), "/sys/Krell/e" );
    site.mount.doUnmount( "e" );
    EXPECT_FALSE( site.mount.getEntity( "e" ) );
}

INSTANTIATE_TEST_SUITE_P( Managers,
                          Leftover,
                          testing::Bool(),
                          []( const testing::TestParamInfo< bool >& info ) {
                              return info.param ? "Local" : "Shared";
                          } );

class LeftoverOfALocalMount : public testing::Test {
protected:
    LeftoverOfALocalMount() { site.mount.handleInitialized(); }
    Site site { true };
};

TEST_F( LeftoverOfALocalMount, IsNotUnmounted ) {
    EXPECT_THROW( site.mount.doMount( "a/e", plantType, writerOf( tooMany ) ), Qel::Exception );
    for ( const char* path : { "a/e", "a" } ) {
        EXPECT_DEATH( site.mount.doUnmount( path ), "krellEntities->count\\( entityFullName \\)" );
    }
    EXPECT_DEATH( site.mount.doUnmountAll(), "krellEntities->count\\( entityFullName \\)" );
}

} // namespace
