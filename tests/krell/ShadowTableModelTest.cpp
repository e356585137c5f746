// What a reader's copy knows of keys, against a model, and with too little memory.

#include <algorithm>
#include <optional>

#include <gtest/gtest.h>

#include <Krell/ShadowTable>

#include "krell/Allocations.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;
using Krell::ShadowTable;
using Change = Krell::ShadowTable::Change;

namespace {

using Words = std::vector< U64 >;

// What a copy has to know, as plainly as can be.
struct Model {
    std::map< U32, Words > slots;    // standing keys
    std::map< Words, Words > values; // of all keys of the view
    std::vector< Words > gone;
    U32 mismatches = 0;

    // Empty: inserted. Otherwise the old value.
    std::optional< Words > occupied( U32 slot, const Words& key, const Words& value ) {
        if ( const auto there = slots.find( slot ); there != slots.end() && there->second != key ) {
            ++mismatches;
            vacated( slot );
        }
        std::erase( gone, key );
        std::erase_if( slots, [ & ]( const auto& one ) { return one.second == key; } );
        slots[ slot ] = key;
        std::optional< Words > old;
        if ( const auto known = values.find( key ); known != values.end() ) {
            old = known->second;
        }
        values[ key ] = value;
        return old;
    }

    void vacated( U32 slot ) {
        if ( const auto there = slots.find( slot ); there != slots.end() ) {
            gone.push_back( there->second );
            slots.erase( there );
        }
    }

    void allVacated() {
        while ( !slots.empty() ) {
            vacated( slots.begin()->first );
        }
    }

    void wasThere( const Words& key, std::size_t valueWords ) {
        if ( values.emplace( key, Words( valueWords ) ).second ) {
            gone.push_back( key );
        }
    }

    // The key that settling names next, and its value.
    std::pair< Words, Words > takeGone() {
        const Words key = gone.front();
        gone.erase( gone.begin() );
        return { key, values.extract( key ).mapped() };
    }
};

// A copy and its model, changed together and compared.
class Compared {
public:
    Compared( unsigned keyWords, unsigned valueWords ) : table( keyWords, valueWords ) {}

    void occupied( U32 slot, const Words& key, const Words& value ) {
        const Change change = table.occupied( slot, key.data(), value.data() );
        const std::optional< Words > old = model.occupied( slot, key, value );
        ASSERT_EQ( change, old ? Change::replaced : Change::inserted );
        ASSERT_EQ( oldValueOf( key ), old );
    }

    void vacated( U32 slot ) {
        table.vacated( slot );
        model.vacated( slot );
    }

    void allVacated() {
        table.allVacated();
        model.allVacated();
    }

    void wasThere( const Words& key ) {
        table.wasThere( key.data() );
        model.wasThere( key, table.valueWords() );
    }

    // Names at most `limit` keys.
    void settle( std::size_t limit ) {
        const std::size_t wanted = std::min( limit, model.gone.size() );
        std::size_t named = 0;
        if ( limit == 0 ) {
            return;
        }
        table.settle( [ & ]( const U64* key ) {
            named += !testing::Test::HasFatalFailure();
            compareGone( Words( key, key + table.keyWords() ) );
            return named < limit && !testing::Test::HasFatalFailure();
        } );
        ASSERT_EQ( named, wanted );
    }

    void compare() const {
        ASSERT_EQ( table.size(), model.values.size() );
        ASSERT_EQ( table.settled(), model.gone.empty() );
        ASSERT_EQ( table.mismatches(), model.mismatches );
        std::map< Words, Words > seen;
        for ( U32 index = 0; index < table.capacityUsed(); ++index ) {
            const U64* key = nullptr;
            const U64* value = nullptr;
            if ( table.entryAt( index, key, value ) ) {
                const Words words( key, key + table.keyWords() );
                ASSERT_TRUE( seen.emplace( words, valueAt( value ) ).second ) << "met twice";
                ASSERT_EQ( table.find( key ), value );
            }
        }
        ASSERT_EQ( seen, model.values );
    }

    std::optional< Words > oldValueOf( const Words& key ) const {
        Words old( table.valueWords() );
        return table.oldValueOf( key.data(), old.data() ) ? std::optional( old ) : std::nullopt;
    }

    ShadowTable table;
    Model model;

private:
    void compareGone( const Words& key ) {
        ASSERT_FALSE( model.gone.empty() );
        const auto [ wanted, value ] = model.takeGone();
        ASSERT_EQ( key, wanted );
        ASSERT_EQ( table.find( key.data() ), nullptr );
        ASSERT_EQ( oldValueOf( key ), value );
        ASSERT_EQ( table.size(), model.values.size() );
    }

    Words valueAt( const U64* value ) const {
        return table.valueWords() == 0 ? Words() : Words( value, value + table.valueWords() );
    }
};

// --- Against the model

// Every operation on three slots and three keys; the value tells the step.
constexpr unsigned operations = 9 + 3 + 1 + 2 + 1;

void apply( Compared& both, unsigned operation, U64 step ) {
    if ( operation < 9 ) {
        both.occupied( operation / 3, { operation % 3 }, { step } );
    } else if ( operation < 12 ) {
        both.vacated( operation - 9 );
    } else if ( operation == 12 ) {
        both.allVacated();
    } else if ( operation < 15 ) {
        both.settle( operation == 13 ? 1 : 99 );
    } else {
        both.wasThere( { 2 } );
    }
}

// All sequences; the first step is one of the many that only differ by names.
TEST( ShadowTable, EverySequenceOfAFewStepsAgreesWithTheModel ) {
    constexpr unsigned steps = 6;
    U64 sequences = 1;
    U64 mismatches = 0;
    for ( unsigned length = 0; length < steps; ++length, sequences *= operations ) {
        for ( U64 sequence = 0; sequence < sequences; ++sequence ) {
            Compared both( 1, 1 );
            apply( both, 0, 0 );
            U64 rest = sequence;
            for ( U64 step = 1; step <= length; ++step, rest /= operations ) {
                apply( both, unsigned( rest % operations ), step );
            }
            both.compare();
            both.settle( 99 );
            both.compare();
            ASSERT_FALSE( HasFatalFailure() ) << length << " steps, sequence " << sequence;
            mismatches += both.table.mismatches();
        }
    }
    EXPECT_GT( mismatches, 0U );
}

struct Shape {
    unsigned keyWords;
    unsigned valueWords;
    bool colliding = false; // all keys of one hash
};

Words keyOf( const Shape& shape, U64 number ) {
    Words key( shape.keyWords, number * 3 );
    key[ 0 ] = number;
    if ( shape.colliding ) {
        const auto words = collidingKey( number );
        key.assign( words.begin(), words.end() );
    }
    return key;
}

class ShadowTableShape : public testing::TestWithParam< Shape > {};

TEST_P( ShadowTableShape, RandomStepsAgreeWithTheModel ) {
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    Compared both( GetParam().keyWords, GetParam().valueWords );
    for ( unsigned step = 0; step < 6000; ++step ) {
        const U64 span = step < 3000 ? 50 : 600;
        const U32 slot = U32( random() % span );
        const U64 choice = random() % 1000;
        if ( choice < 700 ) {
            both.occupied( slot, keyOf( GetParam(), random() % span ),
                           Words( GetParam().valueWords, step ) );
        } else if ( choice < 950 ) {
            both.vacated( slot );
        } else if ( choice < 990 ) {
            both.settle( random() % 20 );
        } else if ( choice < 998 ) {
            both.wasThere( keyOf( GetParam(), random() % span ) );
        } else {
            both.allVacated();
        }
        ASSERT_FALSE( HasFatalFailure() ) << "step " << step;
        if ( step % 100 == 0 ) {
            both.compare();
        }
    }
    both.settle( 10000 );
    both.compare();
}

INSTANTIATE_TEST_SUITE_P( Shapes,
                          ShadowTableShape,
                          testing::Values( Shape { 1, 0 },
                                           Shape { 1, 1 },
                                           Shape { 2, 6 },
                                           Shape { 5, 3 },
                                           Shape { 2, 1, true } ),
                          []( const auto& shape ) {
                              return std::to_string( shape.param.keyWords ) + "Key" +
                                     std::to_string( shape.param.valueWords ) + "Value" +
                                     ( shape.param.colliding ? "Colliding" : "" );
                          } );

// --- Memory

TEST( ShadowTable, HoldsNoMemoryBeforeTheFirstEntryAndAfterClear ) {
    const U64 before = allocations;
    ShadowTable table( 2, 3 );
    const U64 key[ 2 ] = { 1, 2 };
    const U64 value[ 3 ] = {};
    table.vacated( 5 );
    table.allVacated();
    table.settle( []( const U64* ) {} );
    EXPECT_EQ( table.find< 2 >( key ), nullptr );
    EXPECT_EQ( table.find( key ), nullptr );
    EXPECT_EQ( allocations, before );
    EXPECT_EQ( table.bytes(), 0U );
    EXPECT_EQ( table.resizes(), 0U );
    table.occupied( 0, key, value );
    EXPECT_GT( table.bytes(), 5 * sizeof( U64 ) );
    EXPECT_GT( table.resizes(), 0U );
    table.clear();
    EXPECT_EQ( table.bytes(), 0U );
    EXPECT_GT( table.resizes(), 0U );
    table.countersReset();
    EXPECT_EQ( table.resizes(), 0U );
}

TEST( ShadowTable, AllocatesNothingWhileNothingGrows ) {
    constexpr U32 keys = 1000;
    ShadowTable table( 2, 2 );
    const auto fill = [ & ]( U32 shift ) {
        for ( U32 n = 0; n < keys; ++n ) {
            const U64 key[ 2 ] = { n, n + shift };
            table.occupied( n, key, key );
        }
    };
    fill( 0 );
    fill( 1 ); // as many gone as standing
    table.settle( []( const U64* ) {} );
    const U64 before = allocations;
    const U32 resizes = table.resizes();
    const std::size_t bytes = table.bytes();
    U64 named = 0;
    for ( U32 shift = 2; shift < 20; ++shift ) {
        table.allVacated();
        fill( shift - 1 );
        fill( shift );
        table.settle( [ & ]( const U64* key ) { named += table.find< 2 >( key ) == nullptr; } );
    }
    EXPECT_EQ( allocations, before );
    EXPECT_EQ( named, 18U * keys );
    EXPECT_EQ( table.resizes(), resizes );
    EXPECT_EQ( table.bytes(), bytes );
    EXPECT_LT( resizes, 40U );
}

// Makes every allocation of every growth fail in turn.
TEST( ShadowTable, IsAsItWasWhenMemoryRunsOut ) {
    Compared both( 2, 1 );
    U64 failures = 0;
    for ( U64 n = 0; n < 300; ++n ) {
        const Words key { n, 1 };
        const Words value { n };
        const U32 slot = U32( n % 5 == 4 ? n - 1 : n ); // some take another key's slot
        const std::size_t bytes = both.table.bytes();
        for ( U64 left = 0;; ++left ) {
            bool failed = false;
            const U64 before = allocations;
            try {
                const FewAllocations few( left );
                both.table.occupied( slot, key.data(), value.data() );
            } catch ( const Krell::MemoryResourceException& e ) {
                failed = true;
                ++failures;
                EXPECT_EQ( e.msg(), "out of memory" ); // none for a longer text either
            }
            if ( !failed ) {
                EXPECT_LE( allocations - before, left );
                break;
            }
            ASSERT_NO_FATAL_FAILURE( both.compare() );
            EXPECT_EQ( both.table.find< 2 >( key.data() ), nullptr );
        }
        both.model.occupied( slot, key, value );
        both.compare();
        EXPECT_GE( both.table.bytes(), bytes );
        ASSERT_FALSE( HasFatalFailure() ) << n;
    }
    EXPECT_GT( failures, 10U );
    both.settle( 1000 );
    both.compare();
}

TEST( ShadowTable, AKeyOfTheViewNeedsNoMemoryToMove ) {
    ShadowTable table( 1, 1 );
    U64 key = 0;
    for ( ; key < 20; ++key ) {
        table.occupied( U32( key ), &key, &key );
    }
    const FewAllocations none( 0 );
    try {
        for ( ; key < 100; ++key ) { // until one more would have to grow it
            table.occupied( U32( key ), &key, &key );
        }
    } catch ( const Krell::MemoryResourceException& ) {
    }
    ASSERT_LT( key, 100U );
    const U64 moved = 3;
    const U64 value = 7;
    EXPECT_EQ( table.occupied( 5, &moved, &value ), Change::replaced );
    EXPECT_EQ( *table.find< 1 >( &moved ), 7U );
    EXPECT_EQ( table.mismatches(), 1U );
    EXPECT_EQ( table.size(), key );
}

TEST( ShadowTable, SaysWhatItHasNoMemoryFor ) {
    ShadowTable table( 1, 2 );
    const U64 words[ 2 ] = { 1, 2 };
    table.occupied( 3, words, words );
    largestAllocation = std::size_t( 1 ) << 30;
    EXPECT_EQ( messageOf< Krell::MemoryResourceException >(
                   [ & ] { table.occupied( 0xffffffffu, words + 1, words ); } ),
               "no memory for a reader's copy of more than 1 entries of 40 bytes" );
    largestAllocation = ~std::size_t( 0 );
    EXPECT_EQ( table.size(), 1U );
    EXPECT_EQ( table.find< 1 >( words + 1 ), nullptr );
    EXPECT_NE( table.find< 1 >( words ), nullptr );
}

} // namespace
