#include "Collection.h"

#include <fstream>

#include <fcntl.h>

#include <Krell/Incarnation>
#include <Krell/Queue>
#include <Krell/QueueSegment>
#include <Krell/Util>

namespace QelKrellFuzz {

namespace {

using KrellTest::TestCollection;
using Files = Collection::Files;

constexpr U64 keys = 20; // of either kind

template < class F >
void forAllKeys( F&& f ) {
    for ( U64 n = 0; n < keys + 4; ++n ) { // the last ones are absent
        f( KrellTest::collidingKey( n ) );
        f( std::array< U64, 2 > { n, n } );
    }
}

void put( TestCollection& writer, const std::array< U64, 2 >& key, U64 seed ) {
    const auto value = KrellTest::wholeValue< 2 >( seed );
    writer.writer().put< 2, 2 >( key.data(), value.data() );
}

bool holds( TestCollection& reader, const std::array< U64, 2 >& key, U64 seed ) {
    std::array< U64, 2 > value {};
    return reader.table().find< 2, 2 >( key.data(), value.data() ) &&
           value == KrellTest::wholeValue< 2 >( seed );
}

// The bytes of a file that is there and long enough for its header; else null.
template < class Header >
std::string* read( Files& files, const std::string& name, Header& header ) {
    const auto found = files.find( name );
    if ( found == files.end() || found->second.size() < sizeof header ) {
        return nullptr;
    }
    std::memcpy( static_cast< void* >( &header ), found->second.data(), sizeof header );
    return &found->second;
}
template < class Header >
void writes( std::string& bytes, const Header& header ) {
    std::memcpy( bytes.data(), static_cast< const void* >( &header ), sizeof header );
}

std::size_t distance( const void* from, const void* to ) {
    return std::size_t( static_cast< const char* >( to ) - static_cast< const char* >( from ) );
}

} // namespace

Collection::Collection( const Root& root ) : directory_( root / path() ) {
    make();
    for ( const auto& entry : std::filesystem::directory_iterator( directory_ ) ) {
        if ( entry.is_regular_file() ) {
            const std::string name = entry.path().filename().string();
            files_[ name ] = KrellTest::bytesOf( entry.path().string() );
        }
    }
    locate();
    Files sealed = files_;
    seal( sealed, queueFile_ );
    demand( sealed == files_, "the checksums are made otherwise than here" );
}

void Collection::make() {
    TestCollection writer( layout(), path() );
    writer.asWriter( 64 );
    for ( U64 round = 0; round < 8; ++round ) {
        for ( U64 n = 0; n < keys; ++n ) {
            put( writer, KrellTest::collidingKey( n ), n + round );
            put( writer, { n, n }, n + round );
        }
        for ( U64 n = 0; n < 4; ++n ) {
            writer.writer().del< 2 >( KrellTest::collidingKey( 2 * n + round % 2 ).data() );
        }
    }
    writer.detach();
}

void Collection::locate() {
    KrellTest::RecordingDebugHandler debug;
    Krell::Segments segments(
        debug, std::make_shared< const Krell::Directory >( Krell::Directory::open( directory_ ) ),
        layout() );
    std::string why;
    demand( segments.attach( Dov::SharedMem::readOnly, why ), why );
    const char* const buckets = reinterpret_cast< const char* >( &segments.bucketsHeader() );
    const std::size_t slotsAt = distance( &segments.header(), segments.slots() );
    const std::size_t lookasideAt = distance( buckets, &segments.lookaside() );
    const std::size_t linesAt = distance( buckets, segments.lines() );
    const std::size_t fixed = offsetof( Krell::BucketsHeader, tableWord );
    const std::size_t mark = offsetof( Krell::QueueHeader, mark );
    queueFile_ = Krell::QueueSegment::fileNameOf( segments.queueGeneration() );

    headers_ = { { "slots", 0, slotsAt },
                 { "buckets", 0, sizeof( Krell::BucketsHeader ) },
                 { queueFile_, 0, sizeof( Krell::QueueHeader ) } };
    for ( const auto& [ name, bytes ] : files_ ) {
        if ( name != "slots" && name != "buckets" && name != queueFile_ && !bytes.empty() ) {
            headers_.push_back( { name, 0, bytes.size() } );
        }
    }
    contents_ = {
        { "slots", slotsAt, files_[ "slots" ].size() - slotsAt },
        { "buckets", linesAt, files_[ "buckets" ].size() - linesAt },
        { "buckets", lookasideAt, linesAt - lookasideAt },
        { queueFile_, sizeof( Krell::QueueHeader ),
          files_[ queueFile_ ].size() - sizeof( Krell::QueueHeader ) },
        { queueFile_, mark, sizeof( Krell::QueueHeader ) - mark },
        { "buckets", fixed, sizeof( Krell::BucketsHeader ) - fixed },
        { "slots", offsetof( Krell::Segments::SlotHeader, occupiedSlots ),
          slotsAt - offsetof( Krell::Segments::SlotHeader, occupiedSlots ) },
    };
}

Collection::Regions Collection::queue() const {
    return { headers_[ 2 ], contents_[ 3 ], contents_[ 4 ] };
}

void Collection::store( const Files& files ) const {
    for ( const auto& entry : std::filesystem::directory_iterator( directory_ ) ) {
        std::filesystem::remove_all( entry.path() );
    }
    for ( const auto& [ name, bytes ] : files ) {
        KrellTest::bytesInto( directory_ + "/" + name, bytes );
    }
}

void Collection::overwrite( const Files& files ) const {
    for ( const auto& [ name, bytes ] : files ) {
        const int fd = ::open( ( directory_ + "/" + name ).c_str(), O_WRONLY | O_CLOEXEC );
        if ( fd >= 0 ) { // a role may have taken it away
            const ssize_t written = ::pwrite( fd, bytes.data(), bytes.size(), 0 );
            ::close( fd );
            demand( written == ssize_t( bytes.size() ), "cannot write " + name );
        }
    }
}

void change( Files& files, const Collection::Regions& regions, Input& input ) {
    const Collection::Region& region = regions[ input.below( unsigned( regions.size() ) ) ];
    char* const bytes = files[ region.file ].data() + region.at;
    const unsigned what = input.below( 5 );
    const auto place = [ & ]( std::size_t size ) {
        return input.number< std::uint16_t >() * std::size_t( 4 ) % ( region.size - size + 1 );
    };
    const std::size_t word = std::min< std::size_t >( region.size, 8 );
    if ( what == 0 ) {
        const std::string pattern = input.take( input.byte() + 1 );
        for ( std::size_t i = 0; !pattern.empty() && i < region.size; ++i ) {
            bytes[ i ] = pattern[ i % pattern.size() ];
        }
    } else if ( what == 1 ) {
        const std::string some =
            input.take( std::min< std::size_t >( input.below( 64 ), region.size ) );
        std::copy( some.begin(), some.end(), bytes + place( some.size() ) );
    } else if ( what == 2 ) {
        const U64 number = input.number< U64 >();
        std::memcpy( bytes + place( word ), &number, word );
    } else if ( what == 3 ) {
        U32 number = 0;
        const std::size_t size = std::min( word, sizeof number );
        char* const at = bytes + place( size );
        std::memcpy( &number, at, size );
        number += U32( int( input.byte() ) - 128 );
        std::memcpy( at, &number, size );
    } else {
        const std::size_t from = place( word );
        std::memmove( bytes + place( word ), bytes + from, word );
    }
}

void seal( Files& files, const std::string& queueFile ) {
    using Krell::Util::hash;
    Krell::Segments::SlotHeader slots;
    if ( std::string* bytes = read( files, "slots", slots ) ) {
        slots.checksum = slots.doHash();
        writes( *bytes, slots );
    }
    Krell::BucketsHeader buckets;
    std::string* bytes = read( files, "buckets", buckets );
    if ( bytes && buckets.textSize <= bytes->size() - sizeof buckets ) {
        const std::size_t from = offsetof( Krell::BucketsHeader, textSize );
        buckets.checksum = hash( bytes->data() + from,
                                 U32( offsetof( Krell::BucketsHeader, tableWord ) - from ) ) +
                           hash( bytes->data() + sizeof buckets, buckets.textSize );
        writes( *bytes, buckets );
    }
    Krell::QueueHeader queue;
    if ( ( bytes = read( files, queueFile, queue ) ) ) {
        const std::size_t from = offsetof( Krell::QueueHeader, generation );
        queue.checksum =
            hash( bytes->data() + from, U32( offsetof( Krell::QueueHeader, mark ) - from ) );
        writes( *bytes, queue );
    }
}

namespace {

// Each key is looked for by one of the ways that there are, and all by another one.
void doAll( TestCollection& collection ) {
    U64 value[ 2 ];
    std::vector< U64 > all;
    forAllKeys( [ & ]( const std::array< U64, 2 >& key ) {
        all.insert( all.end(), key.begin(), key.end() );
        answersBelow( [ & ] {
            if ( all.size() % 16 == 0 ) {
                collection.table().contains( key.data() );
            } else {
                collection.table().find< 2, 2 >( key.data(), value );
            }
        } );
    } );
    answersBelow( [ & ] {
        collection.table().findMany< 2, 2 >( all.data(), all.size() / 2,
                                             []( std::size_t, const U64* ) {} );
    } );
    std::size_t met = 0;
    answersBelow( [ & ] {
        collection.table().forEach< 2, 2 >( [ & ]( const U64*, const U64* ) { ++met; } );
        demand( met <= collection.table().slotCount(), "more entries than slots" );
    } );
    answersBelow( [ & ] { collection.poll(); } );
    answersBelow( [ & ] { KrellTest::fireTimers(); } );
    answersBelow( [ & ] { collection.poll(); } );
    answersBelow( [ & ] { collection.readerCounters(); } );
    answersBelow( [ & ] { collection.mountStatus(); } );
    answersBelow( [ & ] { collection.sequence(); } );
    answersBelow( [ & ] { collection.fenixId(); } );
    answersBelow( [ & ] { collection.owner(); } );
    answersBelow( [ & ] { collection.capacity(); } );
    answersBelow( [ & ] { collection.resize(); } );
    answersBelow( [ & ] { collection.validate(); } );
}

} // namespace

void follow( QelKrell::QelKrellType role, const std::function< void() >& between ) {
    TestCollection collection( Collection::layout(), Collection::path() );
    answersBelow( [ & ] { collection.init( role, false, 0 ); } );
    doAll( collection );
    if ( between ) {
        between();
        doAll( collection );
    }
    answersBelow( [ & ] { collection.detach(); } );
}

void write( const std::function< void() >& between ) {
    TestCollection writer( Collection::layout(), Collection::path() );
    answersBelow( [ & ] { writer.asWriter(); } );
    for ( U64 round = 0; round < 2; ++round ) {
        U64 n = 0;
        forAllKeys( [ & ]( const std::array< U64, 2 >& key ) {
            answersBelow( [ & ] {
                if ( ++n % 3 == round ) {
                    writer.writer().del< 2 >( key.data() );
                } else {
                    put( writer, key, n );
                }
            } );
        } );
        answersBelow( [ & ] { writer.writer().mark(); } );
        answersBelow( [ & ] { put( writer, { 1, 1 }, 1 ); } );
        answersBelow( [ & ] { writer.writer().sweep< 2 >( []( const U64* ) {} ); } );
        for ( n = 0; n < 40; ++n ) {
            answersBelow( [ & ] { put( writer, { 200 + n, n }, n ); } );
        }
        answersBelow( [ & ] { writer.validate(); } );
        if ( round == 0 ) {
            between();
        }
    }
    answersBelow( [ & ] { writer.detach(); } );
}

void takeOver() {
    TestCollection writer( Collection::layout(), Collection::path() );
    TestCollection reader( Collection::layout(), Collection::path() );
    try {
        writer.asWriter();
        for ( U64 n = 0; n < 40; ++n ) {
            put( writer, { 100 + n, n }, n );
        }
        put( writer, KrellTest::collidingKey( 3 ), 9 );
        writer.writer().del< 2 >( KrellTest::collidingKey( 5 ).data() );
        demand( writer.validate(), "a writer finds its own contents unsound" );
        reader.asReader();
        for ( TestCollection* each : { &writer, &reader } ) {
            for ( U64 n = 0; n < 40; ++n ) {
                demand( holds( *each, { 100 + n, n }, n ), "written and not found" );
            }
            demand( holds( *each, KrellTest::collidingKey( 3 ), 9 ), "updated and not found" );
            demand( !each->table().contains( KrellTest::collidingKey( 5 ).data() ),
                    "deleted and found" );
        }
        demand( reader.validate(), "a reader finds the contents unsound" );
    } catch ( const Krell::Exception& e ) {
        finding( "a writer could not take over: " + e.name() + ": " + e.msg() );
    }
}

} // namespace QelKrellFuzz
