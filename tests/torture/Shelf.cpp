#include "torture/Shelf.h"

#include <stdexcept>

namespace TortureTest {

namespace {

template < class Collection >
class ShelfOf final : public Shelf {
public:
    using Value = typename Collection::Value;

    ShelfOf( Collection& collection, BookPage& page ) : Shelf( page ), collection_( collection ) {}

    Krell::Control& control() override { return collection_.core(); }
    U32 find( U32 key ) override {
        Value value;
        return collection_.find( key, value ) ? stampOf( value, key ) : noStamp;
    }
    U32 previous( U32 key ) override {
        const auto value = collection_.previous( key );
        return value ? stampOf( *value, key ) : noStamp;
    }
    std::vector< U32 > list( bool still ) override {
        std::vector< U32 > stamps( book().keys(), noStamp );
        for ( const Value& value : collection_ ) {
            if ( value.key >= stamps.size() ) {
                throw std::runtime_error( "there is a key " + std::to_string( value.key ) );
            }
            U32& stamp = stamps[ value.key ];
            stamp = still && stamp != noStamp ? tornStamp : stampOf( value, value.key );
        }
        return stamps;
    }
    void findMany( std::span< const U32 > keys, std::vector< U32 >& stamps ) override {
        stamps.clear();
        collection_.findMany( keys, [ & ]( U32 key, const Value* value ) {
            stamps.push_back( value ? stampOf( *value, key ) : noStamp );
        } );
    }

    bool is( U32 key, U32 stamp ) override {
        return collection_.is( madeOf< Value >( key, stamp ) );
    }
    bool del( U32 key ) override { return collection_.del( key ); }
    void isMany( std::span< const U32 > keys, std::span< const U32 > stamps ) override {
        std::vector< Value > values;
        for ( std::size_t i = 0; i < keys.size(); ++i ) {
            values.push_back( madeOf< Value >( keys[ i ], stamps[ i ] ) );
        }
        collection_.isMany( values );
    }
    void mark() override { collection_.mark(); }
    U32 sweep() override { return collection_.sweep(); }

    Watch watch( std::function< void( U32 key ) > reaction ) override {
        return collection_.onEntry( std::move( reaction ) );
    }

private:
    static U32 stampOf( const Value& value, U32 key ) {
        return value.key == key && isWhole( value ) ? value.stamp : tornStamp;
    }

    Collection& collection_;
};

template < class Collection >
std::unique_ptr< Shelf > shelfOf( Collection& collection, BookPage& page ) {
    return std::make_unique< ShelfOf< Collection > >( collection, page );
}

template < class Entity >
std::unique_ptr< Shelf > shelfIn( Entity& entity, U32 which, BookPage& page ) {
    return which == 0 ? shelfOf( entity.small, page ) : shelfOf( entity.large, page );
}

} // namespace

std::unique_ptr< Shelf > Shelf::of( Qel::Entity& entity, U32 type, U32 which, BookPage& page ) {
    return type == 0 ? shelfIn( dynamic_cast< Ledger& >( entity ), which, page )
                     : shelfIn( dynamic_cast< Album& >( entity ), which, page );
}

} // namespace TortureTest
