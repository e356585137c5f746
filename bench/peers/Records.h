// Records that a table of pointers refers to: they stay where they are.

#pragma once

#include <memory>
#include <vector>

#include "SequenceLocked.h"

namespace bench {

struct Record {
    Key key;
    SequenceLocked value;
};

// Room for n at once; without n, room is made block by block.
class Records {
public:
    explicit Records( uint64_t n ) { room( n ? n : 4096 ); }
    Record& add( const Key& key, const Value& value ) {
        if ( used_ == size_ ) {
            room( size_ );
        }
        Record* const record = new ( &blocks_.back()[ used_++ ] ) Record { key, {} };
        record->value.store( value );
        return *record;
    }

private:
    struct Free {
        void operator()( Record* p ) const { free( p ); }
    };
    void room( uint64_t n ) {
        auto* const block = static_cast< Record* >( malloc( n * sizeof( Record ) ) );
        if ( !block ) {
            die( "malloc" );
        }
        blocks_.emplace_back( block );
        size_ = n;
        used_ = 0;
    }

    std::vector< std::unique_ptr< Record[], Free > > blocks_;
    uint64_t size_ = 0; // of the last block
    uint64_t used_ = 0;
};

} // namespace bench
