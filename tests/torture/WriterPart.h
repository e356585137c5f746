// The writer of an entity's collections, at full speed: insertions, updates, deletions, many at
// once, reconciliations, growth. Every change stands in the oracle's books.

#pragma once

#include "torture/Part.h"

namespace TortureTest {

class WriterPart : public Part {
public:
    // `cleared`: the collections were begun anew by this mount, which the books know of.
    WriterPart(
        Stage& stage, Scene& scene, Qel::Entity& entity, Post post, U32 number, bool cleared );

    void work( Random& random ) override;
    bool agrees() override;
    // One change in each collection.
    void pulse( Random& random ) override;
    // Goes round the queue of each collection that often, in its size at the end.
    void lap( Random& random ) override;
    U32 connections() override;

private:
    void takeOver( Shelf& shelf );
    void change( Shelf& shelf, Random& random );
    void put( Shelf& shelf, U32 key );
    void remove( Shelf& shelf, U32 key );
    void putMany( Shelf& shelf, Random& random );
    void reconcile( Shelf& shelf, Random& random );
    static U32 someKey( Shelf& shelf, Random& random );
};

} // namespace TortureTest
