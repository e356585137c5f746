#include "torture/FollowerPart.h"

#include <algorithm>

namespace TortureTest {

namespace {

constexpr U32 looksOfAPiece = 32;

} // namespace

FollowerPart::FollowerPart( Stage& stage, Scene& scene, Qel::Entity& entity, Post post, U32 number )
    : Part( stage, scene, entity, post, number ), role_( QelKrell::QelKrellType( post.role ) ) {
    for ( const auto& shelf : shelves() ) {
        sides_.push_back( { shelf.get(), nullptr, std::vector< U32 >( maxKeys, noStamp ),
                            std::vector< U32 >( maxKeys, noStamp ) } );
    }
    for ( Side& side : sides_ ) {
        side.watch = side.shelf->watch( [ this, &side ]( U32 key ) { handleKey( side, key ); } );
    }
}

// A look that needs more of the files than is mapped fails when a new incarnation took their place;
// the follower attaches to that in its next round.
template < class F >
void FollowerPart::unlessReplaced( F&& look ) {
    try {
        look();
    } catch ( const Qel::Exception& e ) {
        if ( std::string( e.what() ).find( "a new incarnation replaced" ) == std::string::npos ) {
            throw;
        }
        count( Figure::replaced );
    }
}

void FollowerPart::handleKey( Side& side, U32 key ) {
    count( Figure::notifications );
    if ( key >= side.shelf->book().keys() ) {
        count( Figure::foreign, 1, "told of a key that is none" );
        return;
    }
    if ( hasItsOwnView() && side.shelf->previous( key ) != side.told[ key ] ) {
        count( Figure::stale, 1,
               "a shadow's old value is not the one that it told last: key " +
                   std::to_string( key ) );
    }
    U32 stamp = noStamp; // if the files were replaced: what is there now is told anew
    unlessReplaced( [ & ] { stamp = lookAt( side, key ); } );
    side.told[ key ] = stamp;
}

U32 FollowerPart::lookAt( Side& side, U32 key ) {
    const Book::Look look( side.shelf->book(), key );
    const U32 stamp = side.shelf->find( key );
    judge( side, key, stamp,
           hasItsOwnView() ? Book::Look::Found::good
                           : look.found( stamp, side.shelf->control().fenixId() ) );
    return stamp;
}

void FollowerPart::judge( Side& side, U32 key, U32 stamp, Book::Look::Found found ) {
    using Found = Book::Look::Found;
    count( Figure::reads );
    const bool torn = stamp == tornStamp;
    const bool backwards =
        !torn && stamp != noStamp && numberOf( stamp ) < numberOf( side.seen[ key ] );
    if ( torn || backwards || found != Found::good ) [[unlikely]] {
        const Figure figure = torn                          ? Figure::torn
                              : found == Found::missed      ? Figure::missed
                              : found == Found::resurrected ? Figure::resurrected
                                                            : Figure::stale;
        count( figure, 1,
               "key " + std::to_string( key ) + " stamp " + std::to_string( stamp ) +
                   " seen before " + std::to_string( side.seen[ key ] ) + " role " +
                   std::to_string( role_ ) );
    }
    if ( !torn && stamp != noStamp ) {
        side.seen[ key ] = stamp;
    }
}

void FollowerPart::work( Random& random ) {
    unlessReplaced( [ & ] { lookAround( sides_[ random( shelvesOfEntity ) ], random ); } );
}

void FollowerPart::lookAround( Side& side, Random& random ) {
    if ( random.oneIn( 64 ) ) {
        listAll( side );
    } else if ( random.oneIn( 8 ) ) {
        findSome( side, random );
    } else {
        for ( U32 i = 0; i < looksOfAPiece; ++i ) {
            lookAt( side, random( side.shelf->book().keys() ) );
        }
    }
}

void FollowerPart::look() {
    for ( Side& side : sides_ ) {
        unlessReplaced( [ & ] {
            for ( U32 key = 0; key < side.shelf->book().keys(); ++key ) {
                lookAt( side, key );
            }
        } );
    }
}

void FollowerPart::findSome( Side& side, Random& random ) {
    std::vector< U32 > keys;
    std::vector< Book::Look > looks;
    for ( U32 i = 0; i < looksOfAPiece; ++i ) {
        keys.push_back( random( side.shelf->book().keys() ) );
        looks.emplace_back( side.shelf->book(), keys.back() );
    }
    std::vector< U32 > stamps;
    side.shelf->findMany( keys, stamps );
    const U32 fenix = side.shelf->control().fenixId();
    for ( U32 i = 0; i < keys.size(); ++i ) {
        judge( side, keys[ i ], stamps[ i ],
               hasItsOwnView() ? Book::Look::Found::good : looks[ i ].found( stamps[ i ], fenix ) );
    }
}

// What is there throughout has to be listed.
void FollowerPart::listAll( Side& side ) {
    Book& book = side.shelf->book();
    std::vector< Book::Look > looks;
    for ( U32 key = 0; key < book.keys(); ++key ) {
        looks.emplace_back( book, key );
    }
    const std::vector< U32 > listed = side.shelf->list( false );
    const U32 fenix = side.shelf->control().fenixId();
    for ( U32 key = 0; key < listed.size(); ++key ) {
        judge( side, key, listed[ key ],
               hasItsOwnView() ? Book::Look::Found::good
                               : looks[ key ].found( listed[ key ], fenix ) );
    }
}

// A reader can miss a deletion; then the key is not there when it looks.
bool FollowerPart::hasLevelled( Side& side, U32 key ) {
    const U32 done = side.shelf->book().done( key );
    if ( isThere( done ) ) {
        return side.told[ key ] == done;
    }
    if ( role_ == QelKrell::reader && side.shelf->find( key ) == noStamp ) {
        side.told[ key ] = noStamp;
    }
    return side.told[ key ] == noStamp;
}

bool FollowerPart::agrees() {
    bool agrees = false;
    unlessReplaced( [ & ] { agrees = allLevelled(); } );
    return agrees;
}

bool FollowerPart::allLevelled() {
    for ( Side& side : sides_ ) {
        for ( U32 key = 0; key < side.shelf->book().keys(); ++key ) {
            if ( !hasLevelled( side, key ) ) {
                return false;
            }
        }
        if ( !showsWhatIsDone( *side.shelf ) ) {
            return false;
        }
    }
    return true;
}

std::string FollowerPart::difference() {
    std::string text = "role " + std::to_string( role_ );
    for ( Side& side : sides_ ) {
        Krell::Control& control = side.shelf->control();
        text += " status " + std::to_string( control.mountStatus() ) + " sequence " +
                std::to_string( control.sequence() ) + " drained " +
                std::to_string( control.readerCounters().conquerSequence );
        for ( U32 key = 0; key < side.shelf->book().keys(); ++key ) {
            if ( !hasLevelled( side, key ) ) {
                text += " key " + std::to_string( key ) + " told " +
                        std::to_string( side.told[ key ] ) + " shown " +
                        std::to_string( side.shelf->find( key ) ) + " done " +
                        std::to_string( side.shelf->book().done( key ) );
                break;
            }
        }
    }
    return text;
}

} // namespace TortureTest
