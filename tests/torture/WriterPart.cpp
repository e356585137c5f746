#include "torture/WriterPart.h"

#include <algorithm>

namespace TortureTest {

namespace {

constexpr U32 changesOfAPiece = 64;
constexpr U32 mostAtOnce = 8;

} // namespace

WriterPart::WriterPart(
    Stage& stage, Scene& scene, Qel::Entity& entity, Post post, U32 number, bool cleared )
    : Part( stage, scene, entity, post, number ) {
    for ( const auto& shelf : shelves() ) {
        if ( cleared ) {
            shelf->book().endClear( shelf->control().fenixId() );
            if ( !showsWhatIsDone( *shelf ) ) {
                count( Figure::foreign, 1, "entries in a collection that was cleaned up" );
            }
        } else {
            takeOver( *shelf );
        }
    }
}

// Compares the whole collection with what the writers before did.
void WriterPart::takeOver( Shelf& shelf ) {
    Book& book = shelf.book();
    const U32 fenix = shelf.control().fenixId();
    const std::vector< U32 > found = shelf.list( true );
    for ( U32 key = 0; key < found.size(); ++key ) {
        if ( shelf.find( key ) != found[ key ] ) {
            count( Figure::lost, 1, "find and iteration differ for key " + std::to_string( key ) );
        }
    }
    if ( !shelf.control().validate() ) {
        count( Figure::torn, 1, "the structure after a takeover" );
    }
    count( Figure::takeovers, book.fenix() == fenix );
    const Book::Verdict verdict = book.settle( found, fenix );
    count( Figure::undecided, verdict.undecided );
    count( Figure::torn, verdict.torn, verdict.what );
    count( Figure::lost, verdict.lost, verdict.what );
    count( Figure::resurrected, verdict.resurrected, verdict.what );
    count( Figure::foreign, verdict.foreign, verdict.what );
}

void WriterPart::work( Random& random ) {
    Shelf& shelf = *shelves()[ random( shelvesOfEntity ) ];
    for ( U32 i = 0; i < changesOfAPiece; ++i ) {
        change( shelf, random );
    }
}

void WriterPart::change( Shelf& shelf, Random& random ) {
    const U32 kind = random( 512 );
    if ( kind == 0 ) {
        reconcile( shelf, random );
    } else if ( kind == 1 ) {
        if ( shelf.control().capacity() < shelf.book().keys() ) {
            shelf.control().resize();
        }
    } else if ( kind < 16 ) {
        putMany( shelf, random );
    } else {
        const U32 key = someKey( shelf, random );
        if ( kind < 160 && isThere( shelf.book().done( key ) ) ) {
            remove( shelf, key );
        } else {
            put( shelf, key );
        }
    }
}

// A few keys come as often as all the others.
U32 WriterPart::someKey( Shelf& shelf, Random& random ) {
    const U32 keys = shelf.book().keys();
    return random( random.oneIn( 2 ) ? std::min( keys, 4U ) : keys );
}

void WriterPart::put( Shelf& shelf, U32 key ) {
    if ( !shelf.is( key, shelf.book().begin( key, true ) ) ) {
        count( Figure::lost, 1, "a value that differs was taken for the one there" );
    }
    shelf.book().finish( key );
    count( Figure::changes );
}

void WriterPart::remove( Shelf& shelf, U32 key ) {
    shelf.book().begin( key, false );
    if ( !shelf.del( key ) ) {
        count( Figure::lost, 1, "a key that is there was not found by del()" );
    }
    shelf.book().finish( key );
    count( Figure::changes );
}

void WriterPart::putMany( Shelf& shelf, Random& random ) {
    std::vector< U32 > keys;
    std::vector< U32 > stamps;
    for ( U32 i = 0; i < mostAtOnce; ++i ) {
        const U32 key = someKey( shelf, random );
        if ( std::find( keys.begin(), keys.end(), key ) == keys.end() ) {
            keys.push_back( key );
            stamps.push_back( shelf.book().begin( key, true ) );
        }
    }
    shelf.isMany( keys, stamps );
    for ( const U32 key : keys ) {
        shelf.book().finish( key );
    }
    count( Figure::changes, keys.size() );
}

// Some of the entries hold still, the others are swept away.
void WriterPart::reconcile( Shelf& shelf, Random& random ) {
    Book& book = shelf.book();
    shelf.mark();
    std::vector< U32 > swept;
    for ( U32 key = 0; key < book.keys(); ++key ) {
        const U32 done = book.done( key );
        if ( isThere( done ) ) {
            if ( random.oneIn( 8 ) ) {
                swept.push_back( key );
            } else if ( shelf.is( key, done ) ) {
                count( Figure::lost, 1, "an equal value was taken for another" );
            }
        }
    }
    for ( const U32 key : swept ) {
        book.begin( key, false );
    }
    if ( shelf.sweep() != swept.size() ) {
        count( Figure::lost, 1, "sweep() removed other entries than were marked" );
    }
    for ( const U32 key : swept ) {
        book.finish( key );
    }
    count( Figure::changes, swept.size() );
}

void WriterPart::pulse( Random& random ) {
    for ( const auto& shelf : shelves() ) {
        put( *shelf, someKey( *shelf, random ) );
    }
}

void WriterPart::lap( Random& random ) {
    for ( const auto& shelf : shelves() ) {
        const auto& queue = *shelf->control().writer().queue();
        const auto appended = [ & ] { return queue.notifications() + queue.compactions(); };
        const U64 start = appended();
        for ( U32 key = 0; key < shelf->book().keys(); ++key ) {
            put( *shelf, key );
        }
        while ( appended() - start < stage().laps * queue.places() ) {
            change( *shelf, random );
        }
        stage().capacities[ &shelf->page() - stage().books ] = shelf->control().capacity();
    }
}

bool WriterPart::agrees() {
    return std::all_of( shelves().begin(), shelves().end(), [ & ]( const auto& shelf ) {
        return showsWhatIsDone( *shelf ) && shelf->control().validate();
    } );
}

U32 WriterPart::connections() {
    U32 sum = 0;
    for ( const auto& shelf : shelves() ) {
        sum += shelf->control().doorbell()->connections();
    }
    return sum;
}

} // namespace TortureTest
