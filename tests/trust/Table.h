// A collection as a Krell control has it, in the real event loop, and what stands in it.

#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include <Krell/Control>
#include <Qel/System>

namespace TrustTest {

using Qel::U32;
using Qel::U64;

inline constexpr const char* place = "sys/Krell/plant/reading";

inline Krell::Layout layoutOf( U32 keyBytes, U32 valueBytes ) {
    Krell::Layout layout;
    layout.entityType = "Test::Entity";
    layout.valueType = "Test::Value";
    layout.keySize = keyBytes;
    layout.valueSize = valueBytes;
    layout.hash = keyBytes * 10000 + valueBytes;
    layout.text = std::to_string( keyBytes ) + " bytes to " + std::to_string( valueBytes );
    return layout;
}

// Keys of one word and values of three, that show by themselves whether they are whole.
class Table : public Krell::Control {
public:
    using Value = std::array< U64, 3 >;

    explicit Table( std::string path = place, const Krell::Layout& layout = layoutOf( 8, 24 ) )
        : Krell::Control( layout ), path_( std::move( path ) ) {}

    Table& as( QelKrell::QelKrellType role, U32 size = 0 ) {
        init( role, false, size );
        return *this;
    }
    static Value valueOf( U64 key, U64 round ) {
        return { round, key * 0x9e3779b97f4a7c15u + round, ~round };
    }
    void put( U64 key, U64 round ) { writer().put< 1, 3 >( &key, valueOf( key, round ).data() ); }
    void del( U64 key ) { writer().del< 1 >( &key ); }

    // The round in which each key was written, by iteration. Values that are not whole are counted.
    std::map< U64, U64 > contents() {
        std::map< U64, U64 > result;
        table().forEach< 1, 3 >( [ & ]( const U64* key, const U64* value ) {
            const Value whole = valueOf( *key, value[ 0 ] );
            torn += !std::equal( whole.begin(), whole.end(), value );
            result[ *key ] = value[ 0 ];
        } );
        return result;
    }

    std::vector< std::string > failures; // of rounds
    U64 changes = 0;                     // told
    U64 torn = 0;

protected:
    std::string collectionPath() const override { return path_; }
    void handleChanged( const U64*, bool ) override { ++changes; }
    void handleFailed( const Krell::Exception& e ) override { failures.push_back( e.msg() ); }

private:
    const std::string path_;
};

} // namespace TrustTest
