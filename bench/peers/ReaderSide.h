// The reader's side of the cases: it lives in a process or thread of its own, on its own core.

#pragma once

#include <poll.h>

#include "Control.h"
#include "Draws.h"
#include "Histogram.h"
#include "Options.h"

namespace bench {

constexpr unsigned kMany = 32;  // keys in a batch lookup
constexpr unsigned chunk = 128; // lookups between two looks at the clock

template < class Reader >
class ReaderSide {
public:
    // keys: where a pipe carries the keys of changes, for peers without changes of their own.
    ReaderSide( Control& control, const Options& options, int keys )
        : control_( control ),
          options_( options ),
          keys_( keys ),
          n_( options.config.n ),
          draws_( n_, options.skew, mixed( now() ) ) {}

    // Does what it is told until it is told to quit.
    void serve() {
        pin( options_.readerCore );
        for ( Command c = Command::none; c != Command::quit; ) {
            c = control_.take();
            handle( c );
            rest();
            control_.sink = control_.sink ^ sink_;
            if ( c == Command::quit ) {
                reader_.reset();
            }
            control_.finish();
        }
    }

private:
    void handle( Command c ) {
        const auto limit = uint64_t( options_.seconds * 1e9 );
        switch ( c ) {
        case Command::open:
            reader_ = std::make_unique< Reader >( options_.config );
            break;
        case Command::warm:
            warm( limit / 4 );
            break;
        case Command::hit:
            look< false >( limit, 0 );
            break;
        case Command::hitDependent:
            lookDependently( limit );
            break;
        case Command::miss:
            look< false >( limit, n_ );
            break;
        case Command::many:
            lookMany( limit );
            break;
        case Command::scan:
            scan( limit );
            break;
        case Command::mixed:
            start();
            look< true >( 2 * limit, 0 );
            break;
        case Command::paced:
        case Command::drain:
            follow();
            break;
        default:
            break;
        }
    }

    void start() { control_.started.store( 1, std::memory_order_release ); }
    void rest() {
        if constexpr ( requires { reader_->rest(); } ) {
            if ( reader_ ) {
                reader_->rest();
            }
        }
    }

    // Calls step(), which does some operations and says how many, until the time is over.
    template < class Step >
    void timed( uint64_t limit, Step&& step ) {
        uint64_t operations = 0;
        const uint64_t from = now();
        uint64_t to = from;
        do {
            operations += step();
            to = now();
        } while ( to - from < limit );
        control_.operations = operations;
        control_.ns = to - from;
    }

    // Lookups of random entries from number `first` on; from n on there are none.
    template < bool Check >
    void look( uint64_t limit, uint64_t first ) {
        uint64_t bad = 0;
        uint64_t sum = 0;
        Draws draws = draws_;
        timed( limit, [ & ] {
            Value v {};
            for ( unsigned i = 0; i < chunk; ++i ) {
                const Key key = keyOf( first + draws.next() );
                const bool found = reader_->get( key, v );
                bad += found != ( first == 0 );
                if ( found ) {
                    sum ^= used( v );
                    bad += Check && !intact( key, v );
                }
            }
            return chunk;
        } );
        control_.bad += bad;
        sink_ ^= sum;
        draws_ = draws;
    }

    void lookDependently( uint64_t limit ) {
        uint64_t bad = 0;
        Draws draws = draws_;
        timed( limit, [ & ] {
            Value v {};
            for ( unsigned i = 0; i < chunk; ++i ) {
                bad += !reader_->get( keyOf( draws.next() ), v );
                draws.stir( used( v ) >> 63 );
            }
            return chunk;
        } );
        control_.bad += bad;
        draws_ = draws;
    }

    void lookMany( uint64_t limit ) {
        uint64_t bad = 0;
        uint64_t sum = 0;
        Draws draws = draws_;
        timed( limit, [ & ] {
            Key keys[ kMany ];
            Value values[ kMany ] = {};
            bool found[ kMany ];
            for ( Key& key : keys ) {
                key = keyOf( draws.next() );
            }
            if constexpr ( requires { reader_->get_many( keys, values, found, kMany ); } ) {
                reader_->get_many( keys, values, found, kMany );
            } else {
                for ( unsigned i = 0; i < kMany; ++i ) {
                    found[ i ] = reader_->get( keys[ i ], values[ i ] );
                }
            }
            for ( unsigned i = 0; i < kMany; ++i ) {
                bad += !found[ i ];
                sum ^= used( values[ i ] );
            }
            return kMany;
        } );
        control_.bad += bad;
        sink_ ^= sum;
        draws_ = draws;
    }

    uint64_t scanOnce() {
        uint64_t sum = 0;
        uint64_t count = 0;
        reader_->scan( [ & ]( const Key& key, const Value& v ) {
            sum ^= key.a ^ used( v );
            ++count;
        } );
        sink_ ^= sum;
        return count;
    }
    void scan( uint64_t limit ) {
        timed( limit, [ & ] {
            const uint64_t count = scanOnce();
            control_.bad += count != n_;
            return std::max< uint64_t >( count, 1 );
        } );
    }
    // Brings everything into this process's page tables and caches.
    void warm( uint64_t limit ) {
        scanOnce();
        look< true >( limit, 0 );
    }

    void follow() {
        Histogram ages;
        uint64_t seen = 0;
        const auto got = [ & ]( const Key& key, const Value& v ) {
            ages.record( now() - v.w[ 1 ] );
            control_.bad += !intact( key, v );
            ++seen;
        };
        if constexpr ( requires { reader_->subscribe(); } ) {
            reader_->subscribe();
        }
        start();
        if constexpr ( Reader::native_changes ) {
            while ( !control_.stopped() ) {
                reader_->wait_changes( got, 20 );
            }
        } else {
            followPipe( got );
        }
        control_.operations = seen;
        control_.p50 = ages.quantile( 0.5 );
        control_.p99 = ages.quantile( 0.99 );
    }

    template < class Got >
    void followPipe( Got&& got ) {
        for ( ;; ) {
            rest();
            pollfd readable { keys_, POLLIN, 0 };
            if ( poll( &readable, 1, 20 ) <= 0 ) {
                if ( control_.stopped() ) {
                    return;
                }
                continue;
            }
            Key keys[ 256 ];
            const ssize_t size = read( keys_, keys, sizeof keys );
            for ( ssize_t i = 0; i < size / ssize_t( sizeof( Key ) ); ++i ) {
                Value v {};
                if ( reader_->get( keys[ i ], v ) ) {
                    got( keys[ i ], v );
                } else {
                    ++control_.bad;
                }
            }
        }
    }

    Control& control_;
    const Options& options_;
    const int keys_;
    const uint64_t n_;
    Draws draws_;
    std::unique_ptr< Reader > reader_;
    uint64_t sink_ = 0;
};

} // namespace bench
