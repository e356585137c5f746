// What a collection holds, against a model: one process, every way to store it.

#include <gtest/gtest.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;
using Krell::PutResult;

namespace {

template < unsigned K, unsigned V >
class EngineModel {
public:
    using Key = std::array< U64, K >;
    using Value = std::array< U64, V >;

    EngineModel( TestCollection& collection, U64 seed )
        : collection_( collection ), random_( seed ) {}

    void run( unsigned operations, unsigned keys ) {
        for ( unsigned i = 0; i < operations; ++i ) {
            step( keys );
            if ( i % ( operations / 8 ) == 0 ) {
                check( keys );
            }
        }
        check( keys );
    }

    void check( unsigned keys ) {
        std::map< std::vector< U64 >, std::vector< U64 > > wanted;
        for ( const auto& [ key, value ] : model_ ) {
            wanted[ std::vector< U64 >( key.begin(), key.end() ) ] =
                std::vector< U64 >( value.begin(), value.end() );
        }
        ASSERT_EQ( ( contentsOf< K, V >( collection_.table() ) ), wanted );
        for ( unsigned n = 0; n < keys; ++n ) {
            Value value {};
            const auto found = model_.find( key( n ) );
            ASSERT_EQ( ( collection_.table().find< K, V >( key( n ).data(), value.data() ) ),
                       found != model_.end() );
            ASSERT_EQ( collection_.table().contains( key( n ).data() ), found != model_.end() );
            if ( found != model_.end() ) {
                ASSERT_EQ( value, found->second );
            }
        }
        ASSERT_EQ( collection_.table().occupied(), model_.size() );
        ASSERT_TRUE( collection_.validate() );
    }

    static Key key( unsigned n ) {
        Key key {};
        key[ K - 1 ] = n * U64( 0x100000001 );
        return key;
    }

    std::map< Key, Value > model_;

private:
    void step( unsigned keys ) {
        const Key k = key( unsigned( random_() % keys ) );
        const auto present = model_.find( k );
        if ( random_() % 4 == 0 ) {
            ASSERT_EQ( collection_.writer().del< K >( k.data() ), present != model_.end() );
            model_.erase( k );
            return;
        }
        Value value {};
        for ( U64& word : value ) {
            word = random_() % 3; // often the value that is there
        }
        const PutResult wanted = present == model_.end()    ? PutResult::inserted
                                 : present->second == value ? PutResult::unchanged
                                                            : PutResult::updated;
        const U64 before = collection_.sequence();
        ASSERT_EQ( ( collection_.writer().put< K, V >( k.data(), value.data() ) ), wanted );
        ASSERT_EQ( collection_.sequence(), before + ( wanted != PutResult::unchanged ) );
        model_[ k ] = value;
    }

    TestCollection& collection_;
    std::mt19937_64 random_;
};

template < class Shape >
class EngineModelTest : public testing::Test {};

template < unsigned K, unsigned V >
struct Shape {
    static constexpr unsigned keyWords = K;
    static constexpr unsigned valueWords = V;
};
using Shapes = testing::Types< Shape< 1, 0 >,
                               Shape< 1, 1 >,
                               Shape< 2, 6 >,
                               Shape< 5, 3 >,
                               Shape< 1, 512 >,
                               Shape< 512, 1 > >;
TYPED_TEST_SUITE( EngineModelTest, Shapes );

TYPED_TEST( EngineModelTest, LocalMemoryHoldsWhatTheModelHolds ) {
    constexpr unsigned K = TypeParam::keyWords;
    constexpr unsigned V = TypeParam::valueWords;
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    TestCollection collection( layoutOf( K, V ) );
    collection.init( QelKrell::writer, true, 1 );
    EngineModel< K, V >( collection, seed ).run( 4000, 300 );
}

TYPED_TEST( EngineModelTest, FilesHoldWhatTheModelHoldsThroughTakeovers ) {
    constexpr unsigned K = TypeParam::keyWords;
    constexpr unsigned V = TypeParam::valueWords;
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    TestRoot root;
    TestCollection collection( layoutOf( K, V ) );
    EngineModel< K, V > model( collection, seed );
    collection.asWriter( 2 );
    const U32 fenix = collection.fenixId();
    for ( unsigned round = 0; round < 6; ++round ) {
        model.run( 800, 300 );
        const U64 sequence = collection.sequence();
        collection.detach();
        ASSERT_FALSE( collection.table().attached() );
        collection.asWriter();
        ASSERT_EQ( collection.fenixId(), fenix );
        ASSERT_EQ( collection.sequence(), sequence );
        model.check( 300 );
    }
}

TEST( EngineTest, KeysOfOneHashAreKeptApart ) {
    TestCollection collection( layoutOf( 2, 1 ) );
    collection.init( QelKrell::writer, true, 0 );
    constexpr U64 count = 600;
    ASSERT_EQ( Krell::hashWords( collidingKey( 1 ).data(), 2 ),
               Krell::hashWords( collidingKey( 2 ).data(), 2 ) );
    for ( U64 n = 0; n < count; ++n ) {
        ASSERT_EQ( ( collection.writer().put< 2, 1 >( collidingKey( n ).data(), &n ) ),
                   PutResult::inserted );
    }
    for ( U64 n = 0; n < count; n += 2 ) {
        ASSERT_TRUE( collection.writer().del< 2 >( collidingKey( n ).data() ) );
    }
    for ( U64 n = 0; n < count; ++n ) {
        U64 value = 0;
        ASSERT_EQ( ( collection.table().find< 2, 1 >( collidingKey( n ).data(), &value ) ),
                   n % 2 == 1 );
        ASSERT_TRUE( n % 2 == 0 || value == n );
    }
    ASSERT_TRUE( collection.validate() );
}

TEST( EngineTest, DeletedSlotsAreReusedOldestFirst ) {
    TestCollection collection( layoutOf( 1, 1 ) );
    collection.init( QelKrell::writer, true, 32 );
    for ( U64 n = 0; n < 32; ++n ) {
        collection.writer().put< 1, 1 >( &n, &n );
    }
    std::vector< U64 > keyOfSlot( 32 );
    const auto look = [ & ] {
        for ( U32 slot = 0; slot < 32; ++slot ) {
            collection.table().look( slot, &keyOfSlot[ slot ] );
        }
    };
    look();
    const std::vector< U64 > before = keyOfSlot;
    for ( U64 n : { 7, 3, 5 } ) {
        ASSERT_TRUE( collection.writer().del< 1 >( &n ) );
    }
    look();
    ASSERT_EQ( keyOfSlot, before ) << "the keys of deleted entries stand there for a while";
    for ( U64 n : { 100, 101 } ) {
        collection.writer().put< 1, 1 >( &n, &n );
    }
    look();
    ASSERT_EQ( collection.capacity(), 32U );
    ASSERT_EQ( keyOfSlot[ 7 ], 100U );
    ASSERT_EQ( keyOfSlot[ 3 ], 101U );
    ASSERT_EQ( keyOfSlot[ 5 ], 5U );
}

TEST( EngineTest, AManyTimesRefilledTableDoesNotGrow ) {
    TestCollection collection( layoutOf( 1, 1 ) );
    collection.init( QelKrell::writer, true, 128 );
    for ( U64 n = 0; n < 100000; ++n ) {
        const U64 old = n - 64;
        collection.writer().put< 1, 1 >( &n, &n );
        if ( n >= 64 ) {
            ASSERT_TRUE( collection.writer().del< 1 >( &old ) );
        }
    }
    ASSERT_EQ( collection.capacity(), 128U );
    ASSERT_EQ( collection.table().occupied(), 64U );
    ASSERT_TRUE( collection.validate() );
}

TEST( EngineTest, ReservedRoomIsThereAtOnce ) {
    TestCollection collection( layoutOf( 1, 1 ) );
    collection.init( QelKrell::writer, true, 1 );
    collection.writer().reserve( 5000 );
    const U64 base = collection.writerCounters().slotBaseAddress;
    for ( U64 n = 0; n < 5000; ++n ) {
        collection.writer().put< 1, 1 >( &n, &n );
    }
    ASSERT_EQ( collection.capacity(), 5000U );
    ASSERT_EQ( collection.writerCounters().slotBaseAddress, base );
    ASSERT_TRUE( collection.writer().grow() );
    ASSERT_EQ( collection.capacity(), 10000U );
}

TEST( EngineTest, MoreSlotsThanTheFormatAllowsAreRefused ) {
    TestCollection collection( layoutOf( 1, 1 ) );
    ASSERT_EQ( messageOf< Krell::MemoryLimitException >(
                   [ & ] { collection.init( QelKrell::writer, true, 0xffffffffu ); } ),
               "4294967295 slots are wanted in local memory; the most is " +
                   std::to_string( collection.maxSize() ) );
    ASSERT_EQ( collection.mountStatus(), 0 );
    collection.init( QelKrell::writer, true, 4 );
    ASSERT_THROW( collection.writer().reserve( 0x80000000u ), Krell::MemoryLimitException );
    ASSERT_EQ( collection.capacity(), 4U );
}

} // namespace
