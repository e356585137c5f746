// A follower of an entity's collections. It keeps what its notifications told, looks at the
// collections besides, and holds both against the oracle's books.

#pragma once

#include "torture/Part.h"

namespace TortureTest {

class FollowerPart : public Part {
public:
    FollowerPart( Stage& stage, Scene& scene, Qel::Entity& entity, Post post, U32 number );

    // Looks at some keys, now and then at all.
    void work( Random& random ) override;
    // At each key, at once.
    void look() override;
    bool agrees() override;
    std::string difference() override;

private:
    struct Side {
        Shelf* shelf;
        Shelf::Watch watch;
        std::vector< U32 > told; // stamps, from notifications
        std::vector< U32 > seen; // the latest stamps
    };

    template < class F >
    void unlessReplaced( F&& look );
    void handleKey( Side& side, U32 key );
    U32 lookAt( Side& side, U32 key );
    void judge( Side& side, U32 key, U32 stamp, Book::Look::Found found );
    void lookAround( Side& side, Random& random );
    void findSome( Side& side, Random& random );
    void listAll( Side& side );
    bool allLevelled();
    bool hasLevelled( Side& side, U32 key );
    bool hasItsOwnView() const { return role_ == QelKrell::shadow; }

    const QelKrell::QelKrellType role_;
    std::vector< Side > sides_;
};

} // namespace TortureTest
