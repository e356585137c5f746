// Collections for the engine's tests: a control that records what it is told, and keys to order.

#pragma once

#include <array>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <Krell/Control>

#include "krell/Hooks.h"

namespace KrellTest {

using Qel::U32;
using Qel::U64;

Krell::Layout layoutOf( U32 keyWords, U32 valueWords );

// "sys/Krell/e/c" below the root, unless another path is given.
class TestCollection : public Krell::Control {
public:
    struct Change {
        std::vector< U64 > key;
        bool present;
        bool operator==( const Change& ) const = default;
    };

    explicit TestCollection( const Krell::Layout& layout, std::string path = "sys/Krell/e/c" )
        : Krell::Control( layout ), path_( std::move( path ) ) {}

    TestCollection& asWriter( U32 size = 0 );
    TestCollection& asReader();

    // The last that was told of each key of one word, and forgets it.
    std::map< U64, bool > takeChanges();

    std::vector< Change > changes;
    std::vector< std::string > failures;
    unsigned attachments = 0;
    std::function< void( U64 ) > onChanged;

protected:
    std::string collectionPath() const override { return path_; }
    void handleChanged( const U64* key, bool present ) override;
    void handleAttached() override { ++attachments; }
    void handleFailed( const Krell::Exception& e ) override { failures.push_back( e.msg() ); }

private:
    const std::string path_;
};

// A value that shows by itself whether it is whole: all words follow from the first.
template < unsigned V >
std::array< U64, V > wholeValue( U64 seed ) {
    std::array< U64, V > value;
    for ( unsigned i = 0; i < V; ++i ) {
        value[ i ] = seed + i * 0x9e3779b97f4a7c15u;
    }
    return value;
}
template < std::size_t V >
bool isWhole( const std::array< U64, V >& value ) {
    return value == wholeValue< V >( value[ 0 ] );
}

// Different keys of two words, all of one hash.
std::array< U64, 2 > collidingKey( U64 number );

// Whether two threads may run at the same time.
bool canRace();

// Of a random test: printed with failures, and taken from KRELL_SEED if that is set.
U64 seedOfRun();

template < unsigned K, unsigned V >
std::map< std::vector< U64 >, std::vector< U64 > > contentsOf( Krell::ReaderTable& table ) {
    std::map< std::vector< U64 >, std::vector< U64 > > contents;
    table.forEach< K, V >( [ & ]( const U64* key, const U64* value ) {
        contents[ std::vector< U64 >( key, key + K ) ] = std::vector< U64 >( value, value + V );
    } );
    return contents;
}

// The message of the exception of that kind which `f` throws; a failure when it throws none.
template < class E, class F >
std::string messageOf( F&& f ) {
    try {
        f();
    } catch ( const E& e ) {
        return e.msg();
    } catch ( const Krell::Exception& e ) {
        return "another exception, " + e.name() + ": " + e.msg();
    }
    return "no exception";
}

} // namespace KrellTest
