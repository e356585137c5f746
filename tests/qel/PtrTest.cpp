// Counted objects: when they die, flags beside the count, casts.

#include <gmock/gmock.h>

#include <thread>
#include <vector>

#include <Qel/Ptr>

namespace {

struct Item : Qel::Counted {
    explicit Item( int& deaths ) : deaths_( deaths ) {}
    ~Item() override { ++deaths_; }
    int& deaths_;
};

struct Special : Item {
    using Item::Item;
};

TEST( Ptr, LastReferenceDestroysTheObject ) {
    int deaths = 0;
    Qel::Ptr< Item > a = new Item( deaths );
    EXPECT_EQ( 1U, a->references() );
    Qel::Ptr< Item > b = a;
    EXPECT_EQ( 2U, b->references() );
    a = nullptr;
    EXPECT_EQ( 0, deaths );
    EXPECT_EQ( 1U, b->references() );
    b = std::move( b );
    b = Qel::Ptr< Item >();
    EXPECT_EQ( 1, deaths );
}

TEST( Ptr, FlagsAreNoReferences ) {
    int deaths = 0;
    Qel::Ptr< Item > a = new Item( deaths );
    a->lifeFlagIs( Qel::Counted::isNondestructingFlag_, true );
    a->lifeFlagIs( Qel::Counted::zeroReferencesFlag_, true );
    EXPECT_TRUE( a->lifeFlag( Qel::Counted::isNondestructingFlag_ ) );
    EXPECT_EQ( 1U, a->references() );
    a->lifeFlagIs( Qel::Counted::isNondestructingFlag_, false );
    EXPECT_FALSE( a->lifeFlag( Qel::Counted::isNondestructingFlag_ ) );
    EXPECT_TRUE( a->lifeFlag( Qel::Counted::zeroReferencesFlag_ ) );
    a = nullptr;
    EXPECT_EQ( 1, deaths );
}

TEST( Ptr, ReferencesTakenByTheDestructorDoNotDestroyAgain ) {
    static int deaths;
    deaths = 0;
    struct Clinging : Qel::Counted {
        ~Clinging() override {
            ++deaths;
            const Qel::Ptr< Clinging > self( this );
            EXPECT_EQ( 1U, self->references() );
        }
    };
    Qel::Ptr< Clinging > a = new Clinging;
    a = nullptr;
    EXPECT_EQ( 1, deaths );
}

TEST( Ptr, ReferencesMayBeCopiedAndReleasedOnAnyThread ) {
    int deaths = 0;
    constexpr int threads = 4;
    {
        const Qel::Ptr< Item > shared = new Item( deaths );
        std::vector< std::jthread > running;
        for ( int t = 0; t < threads; ++t ) {
            running.emplace_back( [ mine = shared ] {
                for ( int i = 0; i < 10000; ++i ) {
                    const Qel::Ptr< Item > copy = mine;
                    EXPECT_GE( copy->references(), 2U );
                }
            } );
        }
    }
    EXPECT_EQ( 1, deaths );
}

TEST( Ptr, CastsKeepTheObjectOrGiveNull ) {
    int deaths = 0;
    const Qel::Ptr< Item > plain = new Item( deaths );
    const Qel::Ptr< Item > special = new Special( deaths );
    EXPECT_EQ( nullptr, Qel::ptrCast< Special >( plain ) );
    const Qel::Ptr< Special > cast = Qel::ptrCast< Special >( special );
    EXPECT_EQ( special, cast );
    EXPECT_EQ( 2U, special->references() );
    const Qel::Ptr< Item > up = cast;
    EXPECT_EQ( special.get(), up.get() );
    EXPECT_EQ( nullptr, Qel::ptrCast< Special >( Qel::Ptr< Item >() ) );
}

} // namespace
