// What 1, 8 and 64 processes that follow one writer cost it.
//
//   awake    every follower is stopped while awake: the writer looks at each and wakes none
//   asleep   every follower sleeps before each change, and each change wakes them all
//   running  they follow as fast as the machine lets them

#include "bench/own/Own.h"

namespace Bench {
namespace {

constexpr U64 entries = 100000;

using Followers = std::vector< std::unique_ptr< FollowerProcess > >;

bool allAsleep( const StorePtr& writer, std::size_t count ) {
    const auto peers = writer->entry.core().doorbell()->peers();
    return peers.size() == count &&
           std::all_of( peers.begin(), peers.end(), []( const auto& p ) { return p.asleep; } );
}

void running( const StorePtr& writer, const std::string& name, double seconds ) {
    bench::Random random( 1 );
    const auto before = writer->entry.control().writerCounters();
    U64 changes = 0;
    rowOfOne( entries, "followed_by_" + name + "_running", seconds, [ & ]( U64 i ) {
        writer->entry.is( entryOf( random.below( entries ), i + 1 ) );
        ++changes;
    } );
    const auto spent = writer->entry.control().writerCounters() - before;
    row( entries, "kicks_of_" + name + "_running", "per change",
         double( spent.kicksIssued ) / double( changes ) );
}

void asleep( const StorePtr& writer, const std::string& name, std::size_t count, double seconds ) {
    U64 ns = 0;
    U64 changes = 0;
    for ( const U64 end = now() + U64( seconds * 2e9 ); now() < end || changes == 0; ++changes ) {
        turnUntil( [ & ] { return allAsleep( writer, count ); } );
        ns += nsOf( [ & ] { writer->entry.is( entryOf( changes % entries, now() ) ); } );
    }
    row( entries, "followed_by_" + name + "_asleep", "ns/op", double( ns ) / double( changes ) );
}

void awake( const StorePtr& writer,
            const std::string& name,
            const Followers& followers,
            double seconds ) {
    turnUntil( [ & ] { return allAsleep( writer, followers.size() ); } );
    for ( const auto& follower : followers ) {
        follower->stop();
    }
    writer->entry.is( entryOf( 0, now() ) ); // the last one that wakes anybody
    const auto before = writer->entry.control().writerCounters();
    bench::Random random( 1 );
    rowOfOne( entries, "followed_by_" + name + "_awake", seconds,
              [ & ]( U64 i ) { writer->entry.is( entryOf( random.below( entries ), i + 2 ) ); } );
    const auto spent = writer->entry.control().writerCounters() - before;
    need( spent.kicksIssued == 0, "stopped followers are not woken again" );
    for ( const auto& follower : followers ) {
        follower->go();
    }
}

void followedBy( std::size_t count, double seconds ) {
    Filled filled( entries );
    filled.reader = nullptr;
    Followers followers;
    for ( std::size_t i = 0; i < count; ++i ) {
        followers.push_back( std::make_unique< FollowerProcess >( QelKrell::reader ) );
    }
    turnUntil( [ & ] { return filled.writer->entry.core().doorbell()->connections() == count; } );
    const std::string name = std::to_string( count );
    awake( filled.writer, name, followers, seconds );
    if ( count > 0 ) {
        asleep( filled.writer, name, count, seconds );
        running( filled.writer, name, seconds );
    }
}

} // namespace
} // namespace Bench

int main( int argc, char** argv ) {
    const Bench::Limits limits = Bench::limitsOf( argc, argv );
    for ( const std::size_t count : { 0, 1, 8, 64 } ) {
        Bench::followedBy( count, limits.seconds );
    }
    return 0;
}
