// A value under a sequence lock of its own, for peers that map a key to an address and no more.

#pragma once

#include "Machine.h"
#include "Payload.h"

namespace bench {

// One thread stores, any number load; a load goes round again when a store came between.
class SequenceLocked {
public:
    void store( const Value& v ) {
        const uint64_t sequence = sequence_.load( std::memory_order_relaxed );
        sequence_.store( sequence + 1, std::memory_order_relaxed );
        std::atomic_thread_fence( std::memory_order_release );
        for ( unsigned i = 0; i < 6; ++i ) {
            words_[ i ].store( v.w[ i ], std::memory_order_relaxed );
        }
        sequence_.store( sequence + 2, std::memory_order_release );
    }
    void load( Value& v ) const {
        for ( ;; relax() ) {
            const uint64_t before = sequence_.load( std::memory_order_acquire );
            if ( before % 2 != 0 ) {
                continue;
            }
            for ( unsigned i = 0; i < 6; ++i ) {
                v.w[ i ] = words_[ i ].load( std::memory_order_relaxed );
            }
            std::atomic_thread_fence( std::memory_order_acquire );
            if ( sequence_.load( std::memory_order_relaxed ) == before ) {
                return;
            }
        }
    }
    void prefetch() const {
        __builtin_prefetch( &sequence_ );
        __builtin_prefetch( &words_[ 5 ] );
    }

private:
    std::atomic< uint64_t > sequence_ { 0 };
    std::atomic< uint64_t > words_[ 6 ] = {};
};

} // namespace bench
