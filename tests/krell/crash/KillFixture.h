// The changes whose writer is killed, and what must hold afterwards.

#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "Torture.h"
#include "krell/EngineSupport.h"

namespace KrellTest {

inline constexpr unsigned valueWords = 5;
using Key = std::array< U64, 2 >;
using Value = std::array< U64, valueWords >;
using Contents = std::map< Key, Value >;

// Puts and deletes on a collection and, alike, on a model.
class Both {
public:
    explicit Both( TestCollection* collection ) : collection( collection ) {}

    void put( const Key& key, U64 seed ) {
        const Value value = wholeValue< valueWords >( seed );
        if ( collection ) {
            collection->writer().put< 2, valueWords >( key.data(), value.data() );
        }
        model[ key ] = value;
    }
    void del( const Key& key ) {
        if ( collection ) {
            collection->writer().del< 2 >( key.data() );
        }
        model.erase( key );
    }
    void grow() {
        if ( collection ) {
            collection->writer().grow();
        }
    }

    TestCollection* const collection;
    Contents model;
};

inline Key key( U64 n ) { return { n, n ^ 0x5555 }; }

struct Change {
    const char* name;
    U32 size;
    void ( *prepare )( Both& );
    void ( *change )( Both& );
};

void PrintTo( const Change& change, std::ostream* os );

// Every kind of change that a writer makes.
const std::vector< Change >& allChanges();

class KillTest : public testing::TestWithParam< Change > {
protected:
    // `row`: of the figures.
    explicit KillTest( const char* row = "stopped-writer" ) : torture( row, 1 ) {
        Both model( nullptr );
        change.prepare( model );
        before = model.model;
        change.change( model );
        after = model.model;
    }

    void repeat( const std::function< void() >& round ) {
        while ( torture.goesOn() && !HasFailure() ) {
            round();
        }
    }

    // In a child: the state before, made by a writer that stays open.
    void prepare() {
        writer = std::make_unique< TestCollection >( layout );
        writer->asWriter( change.size );
        Both both( writer.get() );
        change.prepare( both );
    }
    void apply() {
        Both both( writer.get() );
        change.change( both );
    }

    // What a reader sees, key by key and by iteration; both must be alike and whole.
    Contents seenBy( TestCollection& reader ) {
        Contents seen;
        for ( const Contents* contents : { &before, &after } ) {
            for ( const auto& entry : *contents ) {
                Value value {};
                const auto begin = std::chrono::steady_clock::now();
                const bool found =
                    reader.table().find< 2, valueWords >( entry.first.data(), value.data() );
                torture.most( "longestReadNs",
                              U64( ( std::chrono::steady_clock::now() - begin ).count() ) );
                if ( found ) {
                    const bool whole = isWhole( value );
                    torture.count( "torn", !whole );
                    EXPECT_TRUE( whole );
                    seen[ entry.first ] = value;
                }
            }
        }
        return seen;
    }
    // Whether it is the state before the change or the one after it.
    bool isOneOfBoth( const Contents& contents ) {
        const bool either = contents == before || contents == after;
        torture.count( "lost", !either );
        return either;
    }
    static Contents listedBy( TestCollection& collection ) {
        Contents listed;
        collection.table().forEach< 2, valueWords >( [ & ]( const U64* k, const U64* v ) {
            Value value;
            std::copy( v, v + valueWords, value.begin() );
            EXPECT_TRUE( listed.emplace( Key { k[ 0 ], k[ 1 ] }, value ).second ) << "twice";
        } );
        return listed;
    }

    // What a shadow keeps for itself.
    static Contents viewOf( TestCollection& shadow ) {
        Contents contents;
        const U64* k = nullptr;
        const U64* v = nullptr;
        for ( U32 i = 0; i < shadow.view()->capacityUsed(); ++i ) {
            if ( shadow.view()->entryAt( i, k, v ) ) {
                Value value;
                std::copy( v, v + valueWords, value.begin() );
                contents[ Key { k[ 0 ], k[ 1 ] } ] = value;
            }
        }
        return contents;
    }

    // After a kill: takes over and checks; `seen` is what a reader saw before that.
    void takeOverAndCheck( const Contents& seen ) {
        TestCollection next( layout );
        next.asWriter();
        const Contents kept = listedBy( next );
        ASSERT_TRUE( isOneOfBoth( kept ) );
        torture.count( "resurrected", seen == after && kept != after );
        if ( seen == after ) {
            ASSERT_EQ( kept, after ) << "a change that a reader saw was undone";
        }
        ASSERT_EQ( seenBy( next ), kept );
        ASSERT_TRUE( next.validate() );
        goOn( next );
    }

    // The next writer is a whole one: it can change everything.
    void goOn( TestCollection& next ) {
        Both both( &next );
        for ( U64 n = 0; n < 40; ++n ) {
            both.put( key( 1000 + n ), n );
        }
        for ( const auto& entry : after ) {
            both.put( entry.first, 5 );
        }
        for ( const auto& entry : before ) {
            both.del( entry.first );
        }
        for ( const auto& entry : after ) {
            both.del( entry.first );
        }
        for ( U64 n = 0; n < 80; ++n ) {
            both.put( key( 2000 + n ), n );
        }
        ASSERT_EQ( listedBy( next ), both.model );
        ASSERT_TRUE( next.validate() );
    }

    QelKrellTest::Torture torture;
    const Change change = GetParam();
    const Krell::Layout layout = layoutOf( 2, valueWords );
    Contents before;
    Contents after;
    std::unique_ptr< TestCollection > writer;
};

} // namespace KrellTest
