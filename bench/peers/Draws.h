// Which entry is next: uniformly random, or by Zipf's law, where a few entries get most of it.

#pragma once

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "Payload.h"

namespace bench {

class Random {
public:
    explicit Random( uint64_t seed ) : state_( seed ) {}
    uint64_t next() { return mixed( state_ += 0x9e3779b97f4a7c15u ); }
    // n is at most 2^32.
    uint64_t below( uint64_t n ) { return ( ( next() >> 32 ) * n ) >> 32; }
    double unit() { return double( next() >> 11 ) * 0x1p-53; }
    void stir( uint64_t x ) { state_ += x; }

private:
    uint64_t state_;
};

// Ranks 0 to n - 1, rank r about as often as 1 / ( r + 1 )^theta, for 0 < theta < 1; after Gray and
// others, "Quickly generating billion-record synthetic databases" (1994).
class Zipf {
public:
    Zipf( uint64_t n, double theta ) : n_( n ), theta_( theta ) {
        for ( uint64_t i = 1; i <= n; ++i ) {
            zeta_ += std::pow( double( i ), -theta );
        }
        const double two = 1 + std::pow( 0.5, theta );
        slope_ = n > 2 ? ( 1 - std::pow( 2.0 / double( n ), 1 - theta ) ) / ( 1 - two / zeta_ ) : 1;
    }
    uint64_t next( Random& random ) const {
        const double u = random.unit();
        if ( u * zeta_ < 1 ) {
            return 0;
        }
        if ( u * zeta_ < 1 + std::pow( 0.5, theta_ ) ) {
            return std::min< uint64_t >( 1, n_ - 1 );
        }
        const double rank = double( n_ ) * std::pow( slope_ * u - slope_ + 1, 1 / ( 1 - theta_ ) );
        return std::min( uint64_t( rank ), n_ - 1 );
    }

private:
    uint64_t n_;
    double theta_;
    double zeta_ = 0;
    double slope_ = 1;
};

// Numbers of entries below n. A skewed sequence is drawn beforehand, since drawing takes longer
// than a lookup, and comes round after a million. A copy goes on where the original stands; a local
// one is cheaper to draw from than a member.
class Draws {
public:
    // skew 0: uniform; else Zipf's theta.
    Draws( uint64_t n, double skew, uint64_t seed ) : n_( n ), random_( seed ) {
        if ( skew > 0 ) {
            const Zipf zipf( n, skew );
            auto drawn = std::make_shared< std::vector< uint32_t > >( mask_ + 1 );
            for ( uint32_t& one : *drawn ) {
                // Frequent ones are strewn over all that was inserted.
                one = uint32_t( mixed( zipf.next( random_ ) ) % n );
            }
            at_ = random_.below( mask_ + 1 );
            first_ = drawn->data();
            drawn_ = std::move( drawn );
        }
    }
    uint64_t next() { return first_ ? first_[ at_++ & mask_ ] : random_.below( n_ ); }
    // The next one depends on x from now on.
    void stir( uint64_t x ) {
        random_.stir( x );
        at_ += x;
    }

private:
    static constexpr uint64_t mask_ = ( 1u << 20 ) - 1;

    uint64_t n_;
    Random random_;
    std::shared_ptr< const std::vector< uint32_t > > drawn_;
    const uint32_t* first_ = nullptr; // of the drawn ones
    uint64_t at_ = 0;
};

} // namespace bench
