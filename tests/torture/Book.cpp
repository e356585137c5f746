#include "torture/Book.h"

#include <algorithm>

namespace TortureTest {

namespace {

std::string told( const char* what, U32 key, U32 found, U32 done, U32 begun ) {
    return std::string( what ) + ": key " + std::to_string( key ) + " found " +
           std::to_string( found ) + " done " + std::to_string( done ) + " begun " +
           std::to_string( begun );
}

} // namespace

U32 Book::begin( U32 key, bool present ) {
    const U32 number = page_->number + 1;
    store( page_->number, number );
    const U32 stamp = number * 2 + present;
    store( page_->begun[ key ], stamp );
    return stamp;
}

void Book::endClear( U32 fenix ) {
    store( page_->fenix, fenix );
    for ( U32 key = 0; key < page_->keys; ++key ) {
        begin( key, false );
        finish( key );
    }
    store( page_->clears, page_->clears + 1 );
}

// The writer died in the midst of a removal: all or nothing of it was done.
void Book::settleClear( const std::vector< U32 >& found, U32 fenix ) {
    if ( std::all_of( found.begin(), found.end(), []( U32 stamp ) { return stamp == noStamp; } ) ) {
        endClear( fenix );
    } else {
        store( page_->clears, page_->clears + 1 );
    }
}

Book::Verdict Book::settle( const std::vector< U32 >& found, U32 fenix ) {
    if ( isClearing() ) {
        settleClear( found, fenix );
    }
    fenixIs( fenix );
    Verdict verdict;
    for ( U32 key = 0; key < page_->keys; ++key ) {
        const U32 stamp = decided( key, found[ key ], verdict );
        if ( numberOf( load( page_->seen[ key ] ) ) > numberOf( stamp ) ) {
            ++verdict.resurrected;
            verdict.what =
                told( "resurrected", key, found[ key ], done( key ), load( page_->begun[ key ] ) );
        }
        store( page_->begun[ key ], stamp );
        store( page_->done[ key ], stamp );
    }
    return verdict;
}

// The stamp of the state that the key has, as it was found.
U32 Book::decided( U32 key, U32 found, Verdict& verdict ) const {
    const U32 done = page_->done[ key ];
    const U32 begun = page_->begun[ key ];
    verdict.undecided += done != begun;
    const auto bad = [ & ]( U32& count, const char* what ) {
        ++count;
        verdict.what = told( what, key, found, done, begun );
        return begun;
    };
    if ( found == tornStamp ) {
        return bad( verdict.torn, "torn" );
    }
    if ( found == noStamp ) {
        return !isThere( done ) ? done : !isThere( begun ) ? begun : bad( verdict.lost, "lost" );
    }
    if ( found == done || found == begun ) {
        return found;
    }
    return numberOf( found ) < numberOf( done ) ? bad( verdict.lost, "lost" )
                                                : bad( verdict.foreign, "foreign" );
}

// Only a look at the incarnation that the writer writes, with no removal meanwhile, has to find the
// latest.
Book::Look::Found Book::Look::found( U32 stamp, U32 fenix ) const {
    const U32 begun = load( page_.begun[ key_ ] );
    const bool comparable = load( page_.clears ) == clears_ && clears_ % 2 == 0 &&
                            fenix == fenix_ && load( page_.fenix ) == fenix_;
    if ( !comparable ) {
        return Found::good;
    }
    const bool still = begun == done_;
    if ( stamp == noStamp ) {
        return still && isThere( done_ ) ? Found::missed : Found::good;
    }
    if ( numberOf( stamp ) < numberOf( done_ ) || ( stamp != done_ && still ) ) {
        return Found::stale;
    }
    if ( numberOf( stamp ) > numberOf( begun ) ) {
        return Found::resurrected;
    }
    if ( numberOf( load( page_.seen[ key_ ] ) ) < numberOf( stamp ) ) {
        store( page_.seen[ key_ ], stamp );
    }
    return Found::good;
}

} // namespace TortureTest
