#include "torture/Stage.h"

#include <algorithm>

namespace TortureTest {

static_assert( sizeof( Scene ) % 64 == 0 && sizeof( BookPage ) % 4 == 0 );

const char* nameOf( Figure figure ) {
    static constexpr const char* names[ figureCount ] = {
        "changes",     "reads",   "notifications", "sleeps", "replaced", "takeovers",
        "undecided",   "agreed",  "torn",          "lost",   "missed",   "stale",
        "resurrected", "foreign", "hung",          "leaked", "crashed",  "rescued-by-timer"
    };
    return names[ U32( figure ) ];
}

Post Post::of( U32 word ) {
    Post post;
    post.taken = word != 0;
    if ( post.taken ) {
        post.role = ( word - 1 ) % 8;
        post.type = ( word - 1 ) / 8 % 8;
        post.cleanup = ( word - 1 ) / 64 != 0;
    }
    return post;
}

void Stage::count( Scene& scene, Figure figure, U64 n, const std::string& what ) {
    U64& word = scene.figures[ U32( figure ) ];
    Dov::Atomics::storeRelease( &word, word + n );
    if ( n != 0 && isFault( figure ) && scene.what[ 0 ] == '\0' ) {
        const std::string text = std::string( nameOf( figure ) ) + ": " + what;
        scene.what[ text.copy( scene.what, sizeof scene.what - 1 ) ] = '\0';
    }
}

} // namespace TortureTest
