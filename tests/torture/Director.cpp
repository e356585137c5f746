#include "torture/Director.h"

#include <cmath>

#include <time.h>

#include "Programs.h"

namespace TortureTest {

Director::Director( System& system,
                    Random& random,
                    QelKrellTest::Torture& torture,
                    const Plot& plot )
    : system_( system ),
      random_( random ),
      torture_( torture ),
      plot_( plot ),
      has32Bits_( !QelKrellTest::program32( "torture-player" ).empty() ),
      types_( system.entities() ) {}

void Director::begin() {
    for ( U32 player = 0; player < system_.players(); ++player ) {
        if ( player < system_.entities() ) {
            system_.postIs( player, player, { true, QelKrell::writer } );
        }
        restart( player );
    }
}

void Director::episode() {
    moment();
    U32 turn = random_( plot_.kill + plot_.stop + plot_.handOver + plot_.recreate + plot_.pulse +
                        plot_.agree );
    const auto isTurnOf = [ & ]( U32 weight ) {
        const bool is = turn < weight;
        turn -= is ? 0 : weight;
        return is;
    };
    if ( isTurnOf( plot_.kill ) ) {
        kill();
    } else if ( isTurnOf( plot_.stop ) ) {
        stop();
    } else if ( isTurnOf( plot_.handOver ) ) {
        handOver();
    } else if ( isTurnOf( plot_.recreate ) ) {
        recreate();
    } else if ( isTurnOf( plot_.pulse ) ) {
        pulse();
    } else {
        agree();
    }
}

// As likely some microseconds as some milliseconds.
void Director::moment() {
    const double share = random_( 1U << 20 ) / double( 1U << 20 );
    const timespec pause { 0, long( 1000 * std::pow( double( plot_.longestMoment ), share ) ) };
    ::nanosleep( &pause, nullptr );
}

bool Director::agree() {
    if ( !system_.agree() ) {
        return false;
    }
    system_.checkFiles();
    return system_.orders( Order::work );
}

// Each change has to reach all of them: none follows that would.
void Director::pulse() {
    constexpr U32 pulses = 10;
    bool goesOn = system_.agree();
    for ( U32 i = 0; i < pulses && goesOn; ++i ) {
        moment();
        goesOn = system_.orders( Order::pulse ) && system_.orders( Order::agree );
        torture_.count( "pulses" );
    }
    if ( goesOn ) {
        system_.orders( Order::work );
    }
}

// --- Kills

void Director::kill() {
    const U32 writer = system_.writerOf( random_( system_.entities() ) );
    const U32 player = random_.oneIn( 4 ) ? someLiving() : writer;
    if ( random_.oneIn( 2 ) && system_.isDone( player ) ) { // it has mounted, and is at work
        moment();
    }
    bool writes = false;
    for ( U32 entity = 0; entity < system_.entities(); ++entity ) {
        writes = writes || system_.writerOf( entity ) == player;
    }
    countKill( writes, system_.kill( player ) );
    for ( U32 entity = 0; entity < system_.entities(); ++entity ) {
        if ( system_.writerOf( entity ) == player ) {
            succeed( entity, random_.oneIn( 4 ) ? anotherThan( player ) : player );
        }
    }
    restart( player );
}

void Director::countKill( bool writer, Phase phase ) {
    torture_.count( "kills" );
    torture_.count( "kills-in-changes", writer && phase == Phase::changing );
    torture_.count( "kills-in-mounts", phase == Phase::mounting );
}

// The writer is dead; that one is the next.
void Director::succeed( U32 entity, U32 player ) {
    const U32 dead = system_.writerOf( entity );
    system_.postIs( dead, entity, Post() );
    const bool cleanup = random_.oneIn( 16 );
    const Post post { true, QelKrell::writer, types_[ entity ], cleanup };
    if ( player == dead ) {
        system_.postIs( player, entity, post );
    } else if ( system_.isDone( player ) ) {
        system_.postIs( player, entity, post );
        system_.order( player, Order::move );
    }
}

void Director::restart( U32 player ) {
    takeFollowersPosts( player );
    system_.habitsAre( player, random_( 32 ) & ~( random_.oneIn( 2 ) ? Habits::polling : 0 ) );
    system_.start( player, random_( ~0U ), has32Bits_ && random_.oneIn( 4 ) );
}

// Of all entities that it does not write.
void Director::takeFollowersPosts( U32 player ) {
    for ( U32 entity = 0; entity < system_.entities(); ++entity ) {
        if ( system_.writerOf( entity ) != player ) {
            system_.postIs( player, entity, followersPost( entity ) );
        }
    }
}

Post Director::followersPost( U32 entity ) {
    static constexpr U32 roles[] = { QelKrell::shadow, QelKrell::reader, QelKrell::keyshadow };
    const bool taken = !random_.oneIn( 4 );
    return taken ? Post { true, roles[ random_( 3 ) ], types_[ entity ] } : Post();
}

U32 Director::someLiving() {
    U32 player;
    do {
        player = random_( system_.players() );
    } while ( !system_.lives( player ) );
    return player;
}

U32 Director::anotherThan( U32 player ) {
    U32 other;
    do {
        other = someLiving();
    } while ( other == player );
    return other;
}

// --- Stops

// Whoever it is, all that only follow go on reading meanwhile.
void Director::stop() {
    const U32 player = someLiving();
    std::vector< U32 > followers;
    for ( U32 other = 0; other < system_.players(); ++other ) {
        bool follows = other != player && system_.lives( other );
        for ( U32 entity = 0; entity < system_.entities(); ++entity ) {
            follows = follows && system_.writerOf( entity ) != other;
        }
        if ( follows && system_.isDone( other ) ) {
            followers.push_back( other );
        }
    }
    system_.stop( player );
    torture_.count( "stops" );
    moment();
    for ( const U32 follower : followers ) {
        system_.order( follower, Order::look );
    }
    for ( const U32 follower : followers ) {
        system_.isDone( follower );
    }
    system_.resume( player );
}

// --- Successors

void Director::handOver() {
    const U32 entity = random_( system_.entities() );
    const U32 former = system_.writerOf( entity );
    const U32 next = anotherThan( former );
    if ( !system_.isDone( former ) || !system_.isDone( next ) ) {
        return;
    }
    system_.postIs( former, entity, followersPost( entity ) );
    system_.order( former, Order::move );
    if ( system_.isDone( former ) ) {
        system_.postIs( next, entity, { true, QelKrell::writer, types_[ entity ] } );
        system_.order( next, Order::move );
        torture_.count( "handovers" );
    }
}

// Everybody leaves; then the entity is of the other type, and empty.
void Director::recreate() {
    const U32 entity = random_( system_.entities() );
    const U32 writer = system_.writerOf( entity );
    if ( !system_.isDone() ) {
        return;
    }
    std::vector< U32 > followers;
    for ( U32 player = 0; player < system_.players(); ++player ) {
        if ( player != writer && system_.post( player, entity ).taken ) {
            followers.push_back( player );
        }
        system_.postIs( player, entity, Post() );
    }
    if ( !system_.orders( Order::move ) ) {
        return;
    }
    for ( U32 i = 0; i < shelvesOfEntity; ++i ) {
        Book book( system_.stage().books[ entity * shelvesOfEntity + i ] );
        book.beginClear();
        book.endClear( 0 );
    }
    types_[ entity ] ^= 1;
    system_.postIs( writer, entity, { true, QelKrell::writer, types_[ entity ] } );
    system_.order( writer, Order::move );
    if ( !system_.isDone( writer ) ) {
        return;
    }
    for ( const U32 player : followers ) {
        system_.postIs( player, entity, followersPost( entity ) );
        system_.order( player, Order::move );
    }
    torture_.count( "layouts" );
}

} // namespace TortureTest
