// What one process does with one mounted entity: writes its collections, or follows them.

#pragma once

#include <memory>
#include <random>
#include <vector>

#include "torture/Shelf.h"
#include "torture/Stage.h"

namespace TortureTest {

class Random {
public:
    explicit Random( U64 seed ) : engine_( seed ) {}
    // Below n.
    U32 operator()( U32 n ) { return U32( engine_() % n ); }
    bool oneIn( U32 n ) { return ( *this )( n ) == 0; }

private:
    std::mt19937_64 engine_;
};

class Part {
public:
    Part( Stage& stage, Scene& scene, Qel::Entity& entity, Post post, U32 number );
    virtual ~Part() = default;
    Part( const Part& ) = delete;
    Part& operator=( const Part& ) = delete;

    // A piece of its work.
    virtual void work( Random& random ) = 0;
    virtual void look() {}
    // Whether all that can be seen here is what the books say, once nobody writes.
    virtual bool agrees() = 0;
    // Why it does not.
    virtual std::string difference() { return ""; }
    virtual void pulse( Random& ) {}
    virtual void lap( Random& ) {}
    // Descriptors that come and go with other processes.
    virtual U32 connections() { return 0; }
    bool allConnected();

    const std::vector< std::unique_ptr< Shelf > >& shelves() const { return shelves_; }

protected:
    void count( Figure figure, U64 n = 1, const std::string& what = "" ) {
        Stage::count( scene_, figure, n, what );
    }
    Stage& stage() { return stage_; }
    // Whether both ways of reading show what the book says is done.
    bool showsWhatIsDone( Shelf& shelf );

private:
    Stage& stage_;
    Scene& scene_;
    std::vector< std::unique_ptr< Shelf > > shelves_;
};

} // namespace TortureTest
