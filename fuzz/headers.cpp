// Headers and small files of a collection with anything in them: attaching in each role comes back,
// with an answer or an exception, and a next writer always takes over.
//
// Input: a byte of flags; then changes, until it ends, of which one in eight gives a file another
// size or takes it away.

#include "Collection.h"

namespace {

using namespace QelKrellFuzz;

constexpr unsigned mostChanges = 16;
constexpr unsigned sealed = 1;      // the checksums fit
constexpr unsigned markerStays = 2; // when a role left one
constexpr unsigned writerFirst = 4; // no role before it

void resize( Collection::Files& files, const Collection::Regions& regions, Input& input ) {
    const std::string& file = regions[ input.below( unsigned( regions.size() ) ) ].file;
    const unsigned size = input.number< std::uint16_t >();
    if ( size == 0xffff ) {
        files.erase( file );
    } else if ( const auto found = files.find( file ); found != files.end() ) {
        found->second.resize( size % ( 3 * found->second.size() + 1 ), char( size >> 12 ) );
    }
}

// A change needs the whole region.
bool isWhole( const Collection::Files& files, const Collection::Regions& regions ) {
    return std::all_of( regions.begin(), regions.end(), [ & ]( const Collection::Region& region ) {
        const auto found = files.find( region.file );
        return found != files.end() && found->second.size() >= region.at + region.size;
    } );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const Root root;
    static const Collection collection( root );
    Input input( data, size );
    const unsigned flags = input.byte();
    Collection::Files files = collection.files();
    for ( unsigned i = 0; i < mostChanges && !input.atEnd(); ++i ) {
        if ( input.below( 8 ) == 7 ) {
            resize( files, collection.headers(), input );
        } else if ( isWhole( files, collection.headers() ) ) {
            change( files, collection.headers(), input );
        }
    }
    if ( flags & sealed ) {
        seal( files, collection.queueFile() );
    }
    collection.store( files );
    if ( !( flags & writerFirst ) ) {
        for ( const auto role : { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
            follow( role, nullptr );
            if ( !( flags & markerStays ) ) {
                std::filesystem::remove( collection.directory() + "/corruption-detected" );
            }
        }
    }
    takeOver();
    return 0;
}
