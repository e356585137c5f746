// The benchmarks' histogram, against the sorted values themselves.

#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "bench/peers/Histogram.h"

namespace {

using bench::Histogram;

std::unique_ptr< Histogram > histogramOf( const std::vector< uint64_t >& values ) {
    auto histogram = std::make_unique< Histogram >();
    for ( const uint64_t value : values ) {
        histogram->record( value );
    }
    return histogram;
}

// The smallest value that a share q does not exceed.
uint64_t quantileOf( std::vector< uint64_t > values, double q ) {
    std::sort( values.begin(), values.end() );
    const double place = std::ceil( q * double( values.size() ) );
    return values[ place > 1 ? size_t( place ) - 1 : 0 ];
}

constexpr double quantiles[] = { 0, 0.001, 0.1, 0.5, 0.9, 0.99, 0.999, 1 };

TEST( Histogram, IsZeroWithoutValues ) {
    const auto histogram = histogramOf( {} );
    EXPECT_EQ( histogram->count(), 0u );
    EXPECT_EQ( histogram->max(), 0u );
    EXPECT_EQ( histogram->quantile( 0.5 ), 0u );
}

TEST( Histogram, KeepsSmallValuesExactly ) {
    std::vector< uint64_t > values;
    for ( uint64_t i = 0; i < 128; ++i ) {
        values.insert( values.end(), i % 7 + 1, i );
    }
    const auto histogram = histogramOf( values );
    for ( const double q : quantiles ) {
        EXPECT_EQ( histogram->quantile( q ), quantileOf( values, q ) ) << q;
    }
}

TEST( Histogram, KeepsLargeValuesToOnePartIn128 ) {
    std::mt19937_64 random( 11 );
    std::vector< uint64_t > values;
    for ( int i = 0; i < 20000; ++i ) {
        values.push_back( random() >> ( random() % 64 ) ); // of every magnitude
    }
    const auto histogram = histogramOf( values );
    for ( const double q : quantiles ) {
        const uint64_t exact = quantileOf( values, q );
        EXPECT_GE( histogram->quantile( q ), exact ) << q;
        EXPECT_LE( histogram->quantile( q ) - exact, exact / 128 ) << q;
    }
}

TEST( Histogram, KeepsEachBorderOfAPowerOfTwo ) {
    for ( unsigned bit = 0; bit < 64; ++bit ) {
        for ( const uint64_t value : { ( uint64_t( 1 ) << bit ) - 1, uint64_t( 1 ) << bit,
                                       ( uint64_t( 1 ) << bit ) + 1 } ) {
            EXPECT_EQ( histogramOf( { value } )->quantile( 0.5 ), value );
        }
    }
    EXPECT_EQ( histogramOf( { UINT64_MAX } )->quantile( 0.5 ), UINT64_MAX );
}

TEST( Histogram, KeepsTheLargestExactly ) {
    const auto histogram = histogramOf( { 3, 123456789, 17 } );
    EXPECT_EQ( histogram->max(), 123456789u );
    EXPECT_EQ( histogram->quantile( 1 ), 123456789u );
}

TEST( Histogram, AddsUp ) {
    std::vector< uint64_t > all;
    const auto sum = std::make_unique< Histogram >();
    std::mt19937_64 random( 12 );
    for ( int part = 0; part < 3; ++part ) {
        std::vector< uint64_t > some;
        for ( int i = 0; i < 1000; ++i ) {
            some.push_back( random() % 100000 );
        }
        sum->add( *histogramOf( some ) );
        all.insert( all.end(), some.begin(), some.end() );
    }
    const auto whole = histogramOf( all );
    EXPECT_EQ( sum->count(), all.size() );
    EXPECT_EQ( sum->max(), whole->max() );
    for ( const double q : quantiles ) {
        EXPECT_EQ( sum->quantile( q ), whole->quantile( q ) ) << q;
    }
}

} // namespace
