// A whole collection with anything in its slots, buckets and queue, before and under every role:
// reading, iterating, following, validating and changing come back, with an answer or an exception,
// and a next writer always takes over.
//
// Input: a byte of flags; then changes, until it ends.

#include "Collection.h"

namespace {

using namespace QelKrellFuzz;

constexpr unsigned mostChanges = 64;
constexpr unsigned readersMask = 3;   // one role, or all three
constexpr unsigned changedUnder = 4;  // the role is open when the contents change
constexpr unsigned markerStays = 8;   // when a role left one
constexpr unsigned changedTwice = 16; // and the writer meets other contents again
constexpr unsigned writerUnder = 32;  // a writer is at work when the contents change

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const Root root;
    static const Collection collection( root );
    Input input( data, size );
    const unsigned flags = input.byte();
    Collection::Files files = collection.files();
    for ( unsigned i = 0; i < mostChanges && !input.atEnd(); ++i ) {
        change( files, collection.contents(), input );
    }
    const bool under = flags & changedUnder;
    collection.store( under ? collection.files() : files );
    const QelKrell::QelKrellType roles[] = { QelKrell::reader, QelKrell::keyshadow,
                                             QelKrell::shadow };
    for ( unsigned i = 0; i < std::size( roles ); ++i ) {
        if ( ( flags & readersMask ) == readersMask || ( flags & readersMask ) == i ) {
            follow( roles[ i ],
                    under ? [ & ] { collection.overwrite( files ); } : std::function< void() >() );
        }
    }
    if ( flags & writerUnder ) {
        write( [ & ] { collection.overwrite( files ); } );
    }
    if ( !( flags & markerStays ) ) {
        std::filesystem::remove( collection.directory() + "/corruption-detected" );
    }
    takeOver();
    if ( flags & changedTwice ) {
        collection.store( files );
        takeOver();
    }
    return 0;
}
