// Entities to mount, each with one shared collection.

#pragma once

#include <Norvo/EntityManager>
#include <QelKrell/Collection>
#include <QelKrell/KrellMount>

#include <sys/resource.h>

#include "bench/ScratchRoot.h"

namespace Bench {

struct Flag {
    Qel::U32 id = 0;
    Qel::U32 value = 0;
};
constexpr auto describe( const Flag* ) {
    return Qel::valueType< Flag >( "Bench::Flag", Qel::attribute( "id", &Flag::id ),
                                   Qel::attribute( "value", &Flag::value ) );
}

class Board : public Qel::Entity {
public:
    using Qel::Entity::Entity;
    QelKrell::Collection< &Flag::id > flag;
};
constexpr auto describe( const Board* ) {
    return Qel::entityType< Board >( "Bench::Board", QelKrell::collection( "flag", &Board::flag ) );
}

inline const Qel::Unit< Flag, Board > boardUnit( "bench board" );

inline Qel::String8 pathOf( Qel::S64 i ) {
    return "row" + Qel::decimal( Qel::U64( i / 100 ) ) + "/board" +
           Qel::decimal( Qel::U64( i % 100 ) );
}

inline const QelKrell::Mount& mounts( bool local ) {
    const auto made = []( const char* name, bool isLocal ) {
        QelKrell::Mount mount( Norvo::entityManagerFactory( name, isLocal ) );
        mount.handleInitialized();
        return mount;
    };
    static const QelKrell::Mount localMount = made( "bench-local", true );
    static const QelKrell::Mount sharedMount = made( "bench-shared", false );
    return local ? localMount : sharedMount;
}

// A writer holds up to four descriptors for each collection: its directory, its lock and two
// segments. Returns how many there can be.
inline Qel::U64 raiseDescriptorLimit() {
    constexpr rlim_t wanted = 65536;
    rlimit limit {};
    getrlimit( RLIMIT_NOFILE, &limit );
    const rlimit high { std::max( wanted, limit.rlim_cur ), std::max( wanted, limit.rlim_max ) };
    if ( setrlimit( RLIMIT_NOFILE, &high ) != 0 ) { // only root goes beyond the hard limit
        limit.rlim_cur = limit.rlim_max;
        setrlimit( RLIMIT_NOFILE, &limit );
    }
    getrlimit( RLIMIT_NOFILE, &limit );
    return limit.rlim_cur;
}

} // namespace Bench
