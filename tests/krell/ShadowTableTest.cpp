// What a reader's copy tells of the keys of a collection, case by case.

#include <memory>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include <Krell/ShadowTable>

#include "krell/EngineSupport.h"

using namespace KrellTest;
using Krell::ShadowTable;
using Change = Krell::ShadowTable::Change;

namespace {

// --- Cases by hand

// Runs a script on a copy of one-word keys and values and tells what it says of each step.
//   "aKS=V"  key K stands in slot S with value V     "vS"  slot S is vacated    "V"  all are
//   "s"      settles                                 "1"   settles one key      "c"  clears
//   "tK"     key K was there
class Script {
public:
    explicit Script( unsigned valueWords ) : table_( 1, valueWords ) {}

    std::string run( const std::string& steps ) {
        std::istringstream in( steps );
        std::string told;
        for ( std::string step; in >> step; ) {
            told += run( step[ 0 ], step ) + ( in.eof() ? "" : " " );
        }
        return told + " | " + view();
    }

    const ShadowTable& table() const { return table_; }

private:
    std::string run( char operation, const std::string& step ) {
        switch ( operation ) {
        case 'a':
            return occupied( step );
        case 'v':
            table_.vacated( U32( step[ 1 ] - '0' ) );
            return "-";
        case 'V':
            table_.allVacated();
            return "-";
        case 'c':
            table_.clear();
            return "-";
        case 't': {
            const U64 key = static_cast< unsigned char >( step[ 1 ] );
            table_.wasThere( &key );
            return "-";
        }
        default:
            return settle( operation == '1' );
        }
    }

    std::string occupied( const std::string& step ) {
        const U64 key = static_cast< unsigned char >( step[ 1 ] );
        const U64 value = step.size() > 4 ? U64( step[ 4 ] - '0' ) : 0;
        return table_.occupied( U32( step[ 2 ] - '0' ), &key, &value ) == Change::inserted
                   ? "new" + old( key )
                   : "was" + old( key );
    }

    std::string settle( bool one ) {
        std::string told;
        table_.settle( [ & ]( const U64* key ) {
            told += char( *key ) + old( *key );
            return !one;
        } );
        return "(" + told + ")";
    }

    std::string old( U64 key ) const {
        U64 value = 9;
        return table_.oldValueOf( &key, &value ) ? std::to_string( value ) : "";
    }

    std::string view() const {
        std::string text;
        for ( U64 key = 'A'; key <= 'Z'; ++key ) {
            if ( const U64* value = table_.find< 1 >( &key ) ) {
                text += char( key ) + ( table_.valueWords() ? std::to_string( *value ) : "" );
            }
        }
        return text;
    }

    ShadowTable table_;
};

struct Case {
    const char* steps;
    const char* told;
    U32 mismatches = 0;
};

const Case cases[] = {
    { "s", "() | " },
    { "v3 V s", "- - () | " },
    { "aA0=1", "new | A1" },
    { "aA0=1 aA0=2", "new was1 | A2" },
    { "aA0=1 aA0=2 s", "new was1 () | A2" },
    { "aA0=1 aB1=2 aC7=3", "new new new | A1B2C3" },
    // A deleted key is found until it is settled.
    { "aA0=1 v0", "new - | A1" },
    { "aA0=1 v0 s", "new - (A1) | " },
    { "aA0=1 v0 s s", "new - (A1) () | " },
    { "aA0=1 v0 v0 s", "new - - (A1) | " },
    { "aA0=1 s v0 s aA0=2", "new () - (A1) new | A2" },
    // In the order in which they went.
    { "aA0=1 aB1=2 aC2=3 v1 v2 v0 s", "new new new - - - (B2C3A1) | " },
    { "aA0=1 aB1=2 aC2=3 v1 v2 v0 1 1 s", "new new new - - - (B2) (C3) (A1) | " },
    { "aA0=1 aB1=2 v1 v0 1", "new new - - (B2) | A1" },
    // Moved: vacated first, or met first in its new slot.
    { "aA0=1 v0 aA1=2 s", "new - was1 () | A2" },
    { "aA0=1 aA1=2 v0 s", "new was1 - () | A2" },
    { "aA0=1 aA1=2 v0 v1 s", "new was1 - - (A2) | " },
    { "aA0=1 v0 aA0=2 v0 s", "new - was1 - (A2) | " },
    // Back from the middle, the front and the end of those that are gone.
    { "aA0=1 aB1=2 aC2=3 v0 v1 v2 aB5=4 s", "new new new - - - was2 (A1C3) | B4" },
    { "aA0=1 aB1=2 aC2=3 v0 v1 v2 aA5=4 s", "new new new - - - was1 (B2C3) | A4" },
    { "aA0=1 aB1=2 aC2=3 v0 v1 v2 aC5=4 s", "new new new - - - was3 (A1B2) | C4" },
    { "aA0=1 aB1=2 v0 v1 aA0=4 v0 s", "new new - - was1 - (B2A4) | " },
    // Replaced in its slot.
    { "aA0=1 aB0=2", "new new | A1B2", 1 },
    { "aA0=1 aB0=2 s", "new new (A1) | B2", 1 },
    { "aA0=1 aB0=2 v0 s", "new new - (A1B2) | ", 1 },
    { "aA0=1 aB0=2 aA1=3 s", "new new was1 () | A3B2", 1 },
    { "aA0=1 aB0=2 aA0=3 s", "new new was1 (B2) | A3", 2 },
    // Two keys that change places.
    { "aA0=1 aB1=2 aB0=3 aA1=4 s", "new new was2 was1 () | A4B3", 1 },
    // Another incarnation.
    { "aA0=1 aB1=2 V s", "new new - (A1B2) | " },
    { "aA4=1 aB1=2 V aA0=1 s", "new new - was1 (B2) | A1" },
    { "aA0=1 aB1=2 v1 V aC0=3 s", "new new - - new (B2A1) | C3" },
    { "aA0=1 V V s V s", "new - - (A1) - () | " },
    { "aA0=1 aB1=2 v0 c s", "new new - - () | " },
    { "aA0=1 v0 c aA0=2 v0 s", "new - - new - (A2) | " },
    // Gone without having been told of.
    { "tA", "- | A0" },
    { "tA s s", "- (A0) () | " },
    { "tA aA0=1 s", "- was0 () | A1" },
    { "aA0=1 tA s", "new - () | A1" },
    { "aA0=1 v0 tA s", "new - - (A1) | " },
    { "aA0=1 tB v0 s", "new - - (B0A1) | " },
};

TEST( ShadowTable, TellsWhatEveryStepMeans ) {
    for ( const Case& one : cases ) {
        Script script( 1 );
        EXPECT_EQ( script.run( one.steps ), one.told ) << one.steps;
        EXPECT_EQ( script.table().mismatches(), one.mismatches ) << one.steps;
    }
}

TEST( ShadowTable, KeysOnlyTellsTheSameWithoutValues ) {
    const std::pair< const char*, const char* > keyCases[] = {
        { "aA0 aA0", "new was9 | A" },
        { "aA0 aB0 s", "new new (A9) | B" },
        { "aA0 aB1 v1 v0 aA3 s", "new new - - was9 (B9) | A" },
    };
    for ( const auto& [ steps, told ] : keyCases ) {
        EXPECT_EQ( Script( 0 ).run( steps ), told ) << steps;
    }
}

TEST( ShadowTable, OldValueIsThatOfTheLastChangeOnly ) {
    ShadowTable table( 1, 1 );
    const U64 a = 'A', b = 'B', one = 1, two = 2;
    U64 old = 0;
    table.occupied( 0, &a, &one );
    EXPECT_FALSE( table.oldValueOf( &a, &old ) );
    table.occupied( 0, &a, &two );
    EXPECT_FALSE( table.oldValueOf( &b, &old ) );
    ASSERT_TRUE( table.oldValueOf( &a, &old ) );
    EXPECT_EQ( old, 1U );
    table.occupied( 1, &b, &one );
    EXPECT_FALSE( table.oldValueOf( &a, &old ) );
    table.occupied( 0, &a, &one );
    table.vacated( 5 );
    EXPECT_FALSE( table.oldValueOf( &a, &old ) );
    table.occupied( 0, &a, &one );
    table.allVacated();
    EXPECT_FALSE( table.oldValueOf( &a, &old ) );
}

// --- Settling

TEST( ShadowTable, SettlingMayChangeTheCopy ) {
    ShadowTable table( 1, 1 );
    const U64 value = 1;
    for ( U64 key = 0; key < 4; ++key ) {
        table.occupied( U32( key ), &key, &value );
    }
    table.vacated( 0 );
    table.vacated( 1 );
    table.vacated( 2 );
    std::vector< U64 > named;
    table.settle( [ & ]( const U64* key ) {
        named.push_back( *key );
        if ( *key == 0 ) { // comes back while it is named; one returns, one more goes
            EXPECT_EQ( table.occupied( 7, key, &value ), Change::inserted );
            const U64 back = 1;
            EXPECT_EQ( table.occupied( 8, &back, &value ), Change::replaced );
            table.vacated( 3 );
        }
    } );
    EXPECT_EQ( named, ( std::vector< U64 > { 0, 2, 3 } ) );
    EXPECT_EQ( table.size(), 2U );
}

TEST( ShadowTable, SettlingMayClearOrDestroyTheCopy ) {
    auto table = std::make_unique< ShadowTable >( 1, 1 );
    const auto fill = [ & ] {
        for ( const U64 key : { 1, 2, 3 } ) {
            table->occupied( U32( key ), &key, &key );
        }
        table->allVacated();
    };
    unsigned named = 0;
    fill();
    table->settle( [ & ]( const U64* ) {
        ++named;
        table->clear();
    } );
    EXPECT_EQ( named, 1U );
    EXPECT_EQ( table->size(), 0U );
    fill();
    table->settle( [ & ]( const U64* ) {
        ++named;
        table.reset();
        return false;
    } );
    EXPECT_EQ( named, 2U );
}

TEST( ShadowTable, AnExceptionWhileSettlingLeavesTheRest ) {
    ShadowTable table( 1, 1 );
    for ( const U64 key : { 1, 2, 3 } ) {
        table.occupied( U32( key ), &key, &key );
    }
    table.allVacated();
    EXPECT_THROW( table.settle( []( const U64* ) { throw std::runtime_error( "" ); } ),
                  std::runtime_error );
    std::vector< U64 > named;
    table.settle( [ & ]( const U64* key ) { named.push_back( *key ); } );
    EXPECT_EQ( named, ( std::vector< U64 > { 2, 3 } ) );
}

// --- Iteration

TEST( ShadowTable, EntriesThatStayAreMetOnceWhileOthersComeAndGo ) {
    constexpr U64 pinned = 100;
    const U64 seed = seedOfRun();
    SCOPED_TRACE( "KRELL_SEED=" + std::to_string( seed ) );
    std::mt19937_64 random( seed );
    ShadowTable table( 1, 1 );
    std::map< U64, unsigned > met;
    std::map< U64, const U64* > places;
    for ( U64 key = 0; key < pinned; ++key ) {
        table.occupied( U32( key ), &key, &key );
        places[ key ] = table.find< 1 >( &key );
    }
    for ( U32 index = 0; index < table.capacityUsed(); ++index ) {
        const U64 passing = pinned + random() % 1000;
        const U64 moving = random() % pinned;
        if ( random() % 3 == 0 ) {
            table.vacated( U32( passing ) );
        } else if ( random() % 3 == 0 ) {
            table.settle( []( const U64* ) {} );
        } else {
            table.occupied( U32( passing ), &passing, &passing );
        }
        table.occupied( U32( 2000 + random() % pinned * pinned + moving ), &moving, &moving );
        const U64* key = nullptr;
        const U64* value = nullptr;
        if ( table.entryAt( index, key, value ) ) {
            met[ *key ] += *key == *value;
        }
    }
    for ( U64 key = 0; key < pinned; ++key ) {
        EXPECT_EQ( met[ key ], 1U );
        EXPECT_EQ( places[ key ], table.find< 1 >( &key ) );
    }
    EXPECT_GT( table.capacityUsed(), pinned );
}

} // namespace
