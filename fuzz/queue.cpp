// A change queue with anything in it, over slots that are sound: a drain ends, what it names can be
// looked at, and after an exception the next one begins anew.
//
// Input: a byte of flags; then changes, until it ends, those after the first half of them while a
// drain is under way.

#include <Krell/Incarnation>
#include <Krell/QueueReader>

#include "Collection.h"

namespace {

using namespace QelKrellFuzz;
using Krell::QueueReader;
using Drain = QueueReader::Drain;

constexpr unsigned mostChanges = 64;
constexpr unsigned drains = 6;
constexpr unsigned sealed = 1;       // the checksum fits
constexpr unsigned changedUnder = 2; // the queue is mapped before it changes
constexpr unsigned cutShort = 4;     // the file is shorter
constexpr unsigned stopped = 8;      // each drain stops at every second slot

// All that one reader is told, drain by drain; `between` is called in the middle of it.
class Follower {
public:
    Follower( const Collection& collection, bool stops )
        : incarnation_(
              Krell::Incarnation::attach( debug_,
                                          std::make_shared< const Krell::Directory >(
                                              Krell::Directory::open( collection.directory() ) ),
                                          Collection::layout() ) ),
          table_( incarnation_.segments() ),
          stops_( stops ) {
        demand( incarnation_.exists(), "not attached to sound segments" );
        queue_.emplace( *incarnation_.segments(), table_ );
    }

    template < class F >
    void drainAll( F&& between ) {
        for ( unsigned i = 0; i < drains; ++i ) {
            answersBelow( [ & ] { queue_->isPending(); } );
            answersBelow( [ & ] { drain(); } );
            if ( i == drains / 2 ) {
                between();
            }
        }
    }

private:
    void drain() {
        U64 told = 0;
        const Drain last = queue_->drain( [ & ]( U32 slot ) {
            U64 key[ 2 ] = {};
            table_.look( slot, key );
            demand( ++told <= most_, "a drain without an end" );
            return !stops_ || told % 2 != 0;
        } );
        demand( last != Drain::stopped || stops_, "stopped without being asked to" );
        demand( last != Drain::empty || told == 0, "told and empty" );
    }

    static constexpr U64 most_ = 100000; // far more than there are places
    KrellTest::RecordingDebugHandler debug_;
    Krell::Incarnation incarnation_;
    Krell::ReaderTable table_;
    std::optional< QueueReader > queue_;
    const bool stops_;
};

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const Root root;
    static const Collection collection( root );
    static const Collection::Regions regions = collection.queue();
    Input input( data, size );
    const unsigned flags = input.byte();
    const unsigned length = input.byte();
    Collection::Files files = collection.files();
    Collection::Files before = files;
    for ( unsigned i = 0; i < mostChanges && !input.atEnd(); ++i ) {
        before = i % 2 ? before : files;
        change( files, regions, input );
    }
    if ( flags & sealed ) {
        seal( files, collection.queueFile() );
        seal( before, collection.queueFile() );
    }
    const bool under = flags & changedUnder;
    if ( !under && ( flags & cutShort ) ) {
        std::string& bytes = before[ collection.queueFile() ];
        bytes.resize( bytes.size() * length / 255 );
    }
    collection.store( under ? collection.files() : before );
    Follower follower( collection, flags & stopped );
    follower.drainAll( [ & ] { collection.overwrite( files ); } );
    return 0;
}
