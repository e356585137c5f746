// What a collection must hold, for keys and values of one shape: written, followed in each role,
// and taken over from a writer that was killed.

#pragma once

#include <array>
#include <map>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Torture.h"
#include "mount/Site.h"
#include "trust/Shared.h"
#include "trust/Table.h"

namespace TrustTest {

// Keys of K words and values of V, of which the last word has `odd` bytes fewer than 8 that count.
template < unsigned K, unsigned V >
class Limits {
public:
    using Key = std::array< U64, K >;
    using Value = std::array< U64, V ? V : 1 >;
    using Contents = std::map< Key, Value >;
    using MakeKey = Key ( * )( U64 );

    Limits( U64 entries, MakeKey makeKey, unsigned odd = 0 )
        : entries_( entries ), makeKey_( makeKey ), odd_( V ? odd : 0 ) {}

    // How many entries are not as they should be, for whomever.
    U64 lost() {
        Process writer( [ & ] { // is killed without a word
            Table table( place, layout() );
            table.as( QelKrell::writer, 4 );
            Contents unused;
            write( table, 1, unused );
            ::kill( getpid(), SIGKILL );
            return 0;
        } );
        U64 lost = writer.wait() != 128 + SIGKILL;
        Contents expected = contentsAfter( 1 );
        Table reader( place, layout() );
        Table keys( place, layout() );
        Table shadow( place, layout() );
        for ( Table* table : { &reader, &keys, &shadow } ) {
            table->yieldTimeIs( 3600 ); // each poll ends with everything told
        }
        reader.as( QelKrell::reader ).poll();
        keys.as( QelKrell::keyshadow ).poll();
        shadow.as( QelKrell::shadow ).poll();
        lost += missing( reader, keys, shadow, expected );
        Table next( place, layout() );
        next.as( QelKrell::writer );
        lost += different( contentsOf( next ), expected );
        write( next, 2, expected );
        for ( Table* table : { &reader, &keys, &shadow } ) {
            table->poll();
        }
        lost += missing( reader, keys, shadow, expected );
        return lost + !next.validate() + !reader.validate();
    }
    static U64 hashes( U64 entries, MakeKey makeKey ) {
        std::map< U32, U64 > counts;
        for ( U64 n = 0; n < entries; ++n ) {
            ++counts[ Krell::hashWords( makeKey( n ).data(), K ) ];
        }
        return counts.size();
    }

private:
    Krell::Layout layout() const { return layoutOf( 8 * K, 8 * V - odd_ ); }

    Value valueOf( U64 n, U64 round ) const {
        Value value {};
        for ( unsigned i = 0; i < V; ++i ) {
            value[ i ] = ( n + 1 ) * 0x9e3779b97f4a7c15u + round + i;
        }
        if ( V ) {
            value[ V ? V - 1 : 0 ] &= ~U64( 0 ) >> 8 * odd_;
        }
        return value;
    }
    // Compiled once for each shape: it takes long for large ones.
    [[gnu::noinline]] void put( Table& table, U64 n, U64 round, Contents& contents ) const {
        const Key key = makeKey_( n );
        const Value value = valueOf( n, round );
        table.writer().put< K, V >( key.data(), value.data() );
        contents[ key ] = value;
    }
    // Inserts all, replaces every second, removes every third.
    void write( Table& table, U64 round, Contents& contents ) const {
        for ( U64 n = 0; n < entries_; ++n ) {
            put( table, n, 10 * round, contents );
        }
        for ( U64 n = 0; n < entries_; n += 2 ) {
            put( table, n, 10 * round + 1, contents );
        }
        for ( U64 n = round % 3; n < entries_; n += 3 ) {
            const Key key = makeKey_( n );
            table.writer().del< K >( key.data() );
            contents.erase( key );
        }
    }
    Contents contentsAfter( U64 round ) const { // of the first writer
        Contents contents;
        for ( U64 n = 0; n < entries_; ++n ) {
            if ( n % 3 != round % 3 ) {
                contents[ makeKey_( n ) ] = valueOf( n, 10 * round + ( n % 2 == 0 ) );
            }
        }
        return contents;
    }
    static Contents contentsOf( Table& table ) {
        Contents contents;
        table.table().forEach< K, V >( [ & ]( const U64* key, const U64* value ) {
            Value& copy = contents[ keyFrom( key ) ];
            copy = {};
            std::copy( value, value + V, copy.data() );
        } );
        return contents;
    }
    static Key keyFrom( const U64* words ) {
        Key key;
        std::copy( words, words + K, key.data() );
        return key;
    }
    static U64 different( const Contents& found, const Contents& expected ) {
        U64 wrong = found.size() > expected.size() ? found.size() - expected.size() : 0;
        for ( const auto& [ key, value ] : expected ) {
            const auto at = found.find( key );
            wrong += at == found.end() || at->second != value;
        }
        return wrong;
    }
    U64 missing( Table& reader, Table& keys, Table& shadow, const Contents& expected ) const {
        U64 lost = different( contentsOf( reader ), expected );
        lost += different( manyOf( reader ), expected );
        lost += keys.shadow()->size() != expected.size();
        lost += shadow.view()->size() != expected.size();
        for ( const auto& [ key, value ] : expected ) {
            Value found {};
            lost += !reader.table().find< K, V >( key.data(), found.data() ) || found != value;
            lost += !keys.shadow()->template find< K >( key.data() );
            const U64* const copy = shadow.view()->template find< K >( key.data() );
            lost += !copy || !std::equal( value.data(), value.data() + V, copy );
        }
        return lost;
    }
    Contents manyOf( Table& reader ) const {
        std::vector< U64 > keys;
        for ( U64 n = 0; n < entries_; ++n ) {
            const Key key = makeKey_( n );
            keys.insert( keys.end(), key.begin(), key.end() );
        }
        Contents contents;
        reader.table().findMany< K, V >(
            keys.data(), entries_, [ & ]( std::size_t i, const U64* value ) {
                if ( value ) {
                    Value& copy = contents[ keyFrom( keys.data() + K * i ) ];
                    copy = {};
                    std::copy( value, value + V, copy.data() );
                }
            } );
        return contents;
    }

    const U64 entries_;
    const MakeKey makeKey_;
    const unsigned odd_;
};

template < unsigned K >
std::array< U64, K > plainKey( U64 n ) {
    std::array< U64, K > key;
    for ( unsigned i = 0; i < K; ++i ) {
        key[ i ] = n + i;
    }
    return key;
}

template < unsigned K, unsigned V >
[[gnu::noinline]] void oneSize( QelKrellTest::Torture& torture ) {
    constexpr U64 entries = 40;
    const unsigned odd = unsigned( torture.rounds() % 8 );
    const QelKrellTest::Root root;
    const U64 lost = Limits< K, V >( entries, plainKey< K >, odd ).lost();
    EXPECT_EQ( lost, 0U ) << "keys of " << K << " words, values of " << V;
    torture.count( "sizes" );
    torture.count( "lost", lost );
}

template < unsigned... V >
void valueSizes( QelKrellTest::Torture& torture, std::integer_sequence< unsigned, V... > ) {
    ( oneSize< 1, V >( torture ), ... );
}

} // namespace TrustTest
