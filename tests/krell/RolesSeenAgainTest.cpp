// A key shadow that was told of a deletion, and saw the key again when it looked, was not told when
// the key was deleted anew before its next drain.

#include <gtest/gtest.h>

#include "krell/RolesSupport.h"

using namespace KrellTest;

namespace {

// The parameter: whether the follower is a key shadow, or else a reader.
class SeenAgainTest : public RolesTest, public testing::WithParamInterface< bool > {
protected:
    // Key 1 was there, is told of as deleted, and is seen again in the reaction.
    void SetUp() override {
        writer.asWriter( 4 );
        put( 1, 1 );
        follower.init( GetParam() ? QelKrell::keyshadow : QelKrell::reader, false, 0 );
        follower.poll();
        del( 1 );
        follower.takeChanges();
        bool seen = false;
        follower.onKey = [ & ]( U64 key, bool present ) {
            EXPECT_FALSE( present );
            put( key, 2 ); // another process is that fast
            seen = follower.table().contains( &key );
        };
        follower.poll();
        ASSERT_TRUE( seen );
        ASSERT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
        follower.onKey = nullptr;
    }
    void expectNothingMore() {
        follower.changes.clear();
        put( 5, 5 );
        follower.poll();
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 5, true } } ) );
        put( 5, 6 );
        follower.poll();
        EXPECT_EQ( follower.takeChanges(), ( Changes { { 5, true } } ) );
    }

    Listener follower { layout };
};

TEST_P( SeenAgainTest, ItsNextDeletionIsTold ) {
    del( 1 );
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
    expectNothingMore();
}

TEST_P( SeenAgainTest, ItIsToldWhenItStays ) {
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true } } ) );
    del( 1 );
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
    expectNothingMore();
}

TEST_P( SeenAgainTest, ItIsToldOnceWhenItCameInAnotherSlot ) {
    del( 1 );
    put( 2, 2 );
    put( 1, 3 );
    follower.poll();
    EXPECT_EQ( follower.changes.size(), 2U );
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, true }, { 2, true } } ) );
    expectNothingMore();
}

TEST_P( SeenAgainTest, ItsDeletionIsToldThoughItsSlotIsUsedAgain ) {
    if ( !GetParam() ) {
        GTEST_SKIP() << "a reader does not hear of deletions whose slots were used again";
    }
    del( 1 );
    for ( U64 key = 10; key < 20; ++key ) {
        put( key, key );
    }
    follower.poll();
    Changes told = follower.takeChanges();
    EXPECT_EQ( told.size(), 11U );
    EXPECT_FALSE( told.at( 1 ) );
    expectNothingMore();
}

TEST_P( SeenAgainTest, ItsDeletionIsToldThoughTheCollectionIsTakenAway ) {
    if ( !GetParam() ) {
        GTEST_SKIP() << "a reader keeps no keys";
    }
    writer.detach();
    writer.cleanup();
    follower.poll();
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
}

INSTANTIATE_TEST_SUITE_P( Live, SeenAgainTest, testing::Bool(), []( const auto& info ) {
    return std::string( info.param ? "KeyShadow" : "Reader" );
} );

// One that was not seen again is told of once, though its writer goes on.
TEST_F( RolesTest, AKeyThatStaysAwayIsToldOfAsDeletedOnce ) {
    writer.asWriter( 4 );
    put( 1, 1 );
    Listener follower( layout );
    follower.init( QelKrell::keyshadow, false, 0 );
    follower.poll();
    follower.takeChanges();
    del( 1 );
    follower.onKey = [ & ]( U64 key, bool ) {
        if ( key == 1 ) {
            put( 2, 2 );
        }
    };
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 1, false } } ) );
    follower.poll();
    EXPECT_EQ( follower.takeChanges(), ( Changes { { 2, true } } ) );
}

} // namespace
