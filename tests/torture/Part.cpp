#include "torture/Part.h"

#include <algorithm>

namespace TortureTest {

Part::Part( Stage& stage, Scene& scene, Qel::Entity& entity, Post post, U32 number )
    : stage_( stage ), scene_( scene ) {
    for ( U32 i = 0; i < shelvesOfEntity; ++i ) {
        BookPage& page = stage.books[ number * shelvesOfEntity + i ];
        shelves_.push_back( Shelf::of( entity, post.type, i, page ) );
    }
}

bool Part::allConnected() {
    return std::all_of( shelves_.begin(), shelves_.end(), []( const auto& shelf ) {
        return shelf->control().mountStatus() == QelKrell::connected;
    } );
}

bool Part::showsWhatIsDone( Shelf& shelf ) {
    const std::vector< U32 > listed = shelf.list( true );
    for ( U32 key = 0; key < listed.size(); ++key ) {
        const U32 done = shelf.book().done( key );
        const U32 expected = isThere( done ) ? done : noStamp;
        if ( listed[ key ] != expected || shelf.find( key ) != expected ) {
            return false;
        }
    }
    return true;
}

} // namespace TortureTest
