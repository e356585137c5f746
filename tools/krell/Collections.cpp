#include "Collections.h"

#include <algorithm>
#include <filesystem>

#include <Krell/Incarnation>
#include <Krell/Platform>
#include <Krell/RootPath>

namespace KrellTool {

namespace fs = std::filesystem;
using Krell::Directory;
using Krell::Layout;
using Krell::Segments;
using Krell::WriterLock;

namespace {

constexpr const char* files[] = { "slots",     "buckets", "conquer.1",
                                  "conquer.2", "fenix",   "last-owner" };

bool isCollection( const std::string& directory ) {
    std::error_code none;
    return fs::is_regular_file( fs::symlink_status( directory + "/last-owner", none ) ) ||
           fs::is_regular_file( fs::symlink_status( directory + "/slots", none ) );
}

Krell::Platform::DebugHandler& handler() {
    static auto* const only = Krell::Platform::getDebugHandler( "KrellTool" );
    return *only;
}

// One that fits any header; what stands in the files is asked first.
Layout anyLayout() {
    Layout layout;
    layout.entityType = layout.valueType = "?";
    layout.keySize = 1;
    return layout;
}

std::unique_ptr< Segments > attached( const std::shared_ptr< const Directory >& directory,
                                      const Layout& layout ) {
    auto segments = std::make_unique< Segments >( handler(), directory, layout );
    std::string why;
    if ( !segments->attach( Dov::SharedMem::readOnly, why ) ) {
        throw Krell::RuntimeException( why );
    }
    if ( !segments->headersAreValid( 0, why ) ) {
        throw Krell::CorruptionDetectedException( why );
    }
    return segments;
}

std::unique_ptr< Segments > segmentsOf( const Place& place ) {
    auto directory = std::make_shared< const Directory >( Directory::open( place.directory ) );
    if ( !directory->isOpen() ) {
        throw Krell::RuntimeException( place.directory + ": there is no such directory" );
    }
    const Layout stored = attached( directory, anyLayout() )->storedLayout();
    stored.check();
    auto segments = attached( directory, stored );
    std::string why;
    if ( !segments->extentsAreValid( why ) ) {
        throw Krell::CorruptionDetectedException( why );
    }
    return segments;
}

U64 bytesOf( const Place& place ) {
    U64 sum = 0;
    for ( const char* file : files ) {
        std::error_code none;
        const auto size = fs::file_size( place.directory + "/" + file, none );
        sum += none ? 0 : size;
    }
    return sum;
}

void askLock( const Directory& directory, Facts& facts ) {
    try {
        facts.owner = WriterLock::ownerOf( directory ).value_or( Krell::Owner() );
        facts.writer = WriterLock::holderOf( directory );
        if ( const Krell::Fd file = WriterLock::fileOf( directory ) ) {
            const Krell::Reigns reigns =
                WriterLock::reignsOf( file, directory.pathOf( WriterLock::fileName_ ) );
            facts.reigns = std::max( reigns.over, reigns.current );
        }
    } catch ( const Krell::Exception& e ) {
        facts.writer = WriterLock::unknownHolder_;
        facts.problem = e.msg();
    }
}

} // namespace

std::string rootDirectory() { return Krell::RootPath::root(); }

std::string pathBelowRoot( const std::string& said ) {
    const std::string root = rootDirectory();
    std::string path = said.rfind( root + "/", 0 ) == 0 ? said.substr( root.size() ) : said;
    while ( !path.empty() && path.back() == '/' ) {
        path.pop_back();
    }
    return path.empty() || path.front() == '/' ? path : "/" + path;
}

std::vector< Place > placesBelow(
    const std::string& path, const std::function< void( const std::string& why ) >& unreadable ) {
    const std::string root = rootDirectory();
    std::vector< Place > places;
    std::vector< std::string > open { path };
    while ( !open.empty() ) {
        const std::string at = std::move( open.back() );
        open.pop_back();
        const std::string directory = root + at;
        if ( isCollection( directory ) && !at.empty() ) {
            const std::size_t slash = at.rfind( '/' );
            places.push_back( { at, at.substr( 0, slash ), at.substr( slash + 1 ), directory } );
            continue;
        }
        std::error_code error;
        fs::directory_iterator it( directory, error );
        for ( ; !error && it != fs::directory_iterator(); it.increment( error ) ) {
            if ( it->symlink_status( error ).type() == fs::file_type::directory ) {
                open.push_back( at + "/" + it->path().filename().string() );
            }
        }
        if ( error && error != std::errc::no_such_file_or_directory &&
             error != std::errc::not_a_directory ) {
            unreadable( directory + ": " + error.message() );
        }
    }
    std::sort( places.begin(), places.end(),
               []( const Place& a, const Place& b ) { return a.path < b.path; } );
    return places;
}

Facts factsOf( const Place& place ) {
    Facts facts;
    facts.place = place;
    facts.bytes = bytesOf( place );
    try {
        const Directory directory = Directory::open( place.directory );
        if ( !directory.isOpen() ) {
            throw Krell::RuntimeException( place.directory + ": there is no such directory" );
        }
        askLock( directory, facts );
        facts.isMarkedCorrupt = directory.exists( Krell::Incarnation::markerFile_ );
        facts.fenix = Krell::Incarnation::presentFenix( directory );
        if ( facts.fenix == 0 ) {
            facts.absent = true;
            return facts;
        }
        const auto segments = segmentsOf( place );
        facts.layout = segments->layout();
        const Segments::SlotHeader header( segments->header() );
        facts.entries = header.occupiedSlots;
        facts.capacity = header.numSlots.count;
        facts.sequence = header.sequence;
        facts.isInUse = header.flags & Segments::inUse_;
        facts.readable = true;
    } catch ( const Krell::Exception& e ) {
        facts.problem = e.msg();
    }
    return facts;
}

Contents::Contents( const Place& place )
    : segments_( segmentsOf( place ) ), table_( segments_.get() ) {}

void Contents::forEach( const std::function< bool( const U64* key, const U64* value ) >& f ) {
    U64 key[ Layout::wordsOf( Layout::sizeLimit_ ) ];
    U64 value[ Layout::wordsOf( Layout::sizeLimit_ ) ];
    for ( U32 index = 0; index < table_.slotCount(); ++index ) {
        U64 version = 0;
        if ( table_.copySlot( index, key, value, version ) && !f( key, value ) ) {
            return;
        }
    }
}

} // namespace KrellTool
