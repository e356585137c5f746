// Counts of times by their size, for percentiles of millions of them in little memory.

#pragma once

#include <array>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace bench {

// Values up to 127 are kept exactly, larger ones to one part in 128. Two can be added up.
class Histogram {
public:
    void record( uint64_t value ) {
        ++counts_[ placeOf( value ) ];
        ++count_;
        max_ = value > max_ ? value : max_;
    }
    void add( const Histogram& other ) {
        for ( size_t i = 0; i < counts_.size(); ++i ) {
            counts_[ i ] += other.counts_[ i ];
        }
        count_ += other.count_;
        max_ = other.max_ > max_ ? other.max_ : max_;
    }

    uint64_t count() const { return count_; }
    uint64_t max() const { return max_; }

    // The smallest value that a share q (0 to 1) of all values does not exceed; 0 without values.
    uint64_t quantile( double q ) const {
        const auto wanted = uint64_t( std::ceil( q * double( count_ ) ) );
        uint64_t below = 0;
        for ( size_t i = 0; i < counts_.size(); ++i ) {
            below += counts_[ i ];
            if ( below >= wanted && below > 0 ) {
                const uint64_t top = topOf( i );
                return top < max_ ? top : max_;
            }
        }
        return max_;
    }

private:
    static constexpr unsigned bits_ = 7;
    static constexpr uint64_t exact_ = uint64_t( 1 ) << bits_;

    // Places of a power of two and up to the next: exact_ of them.
    static size_t placeOf( uint64_t value ) {
        if ( value < exact_ ) {
            return size_t( value );
        }
        const unsigned shift = unsigned( std::bit_width( value ) ) - bits_ - 1;
        return size_t( ( uint64_t( shift ) << bits_ ) + ( value >> shift ) );
    }
    // The largest value of a place.
    static uint64_t topOf( size_t place ) {
        if ( place < 2 * exact_ ) {
            return place;
        }
        const unsigned shift = unsigned( ( place >> bits_ ) - 1 );
        return ( ( ( place & ( exact_ - 1 ) ) + exact_ + 1 ) << shift ) - 1;
    }

    std::array< uint64_t, ( 65 - bits_ ) << bits_ > counts_ {};
    uint64_t count_ = 0;
    uint64_t max_ = 0;
};

} // namespace bench
