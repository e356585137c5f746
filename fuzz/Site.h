// A mount manager in an entity tree and a root directory that are empty at first, for one run.

#pragma once

#include <csignal>

#include <sys/resource.h>

#include <Norvo/EntityManager>
#include <QelKrell/KrellMount>

#include "Fuzzing.h"

namespace QelKrellFuzz {

// While it lives, the kernel refuses files beyond that size, so that no input fills the machine's
// memory.
class FileLimit {
public:
    explicit FileLimit( rlim_t bytes ) {
        std::signal( SIGXFSZ, SIG_IGN );
        demand( ::getrlimit( RLIMIT_FSIZE, &before_ ) == 0, "no limit on files" );
        set( { bytes, before_.rlim_max } );
    }
    ~FileLimit() { set( before_ ); }
    FileLimit( const FileLimit& ) = delete;
    FileLimit& operator=( const FileLimit& ) = delete;

private:
    static void set( const rlimit& limit ) {
        demand( ::setrlimit( RLIMIT_FSIZE, &limit ) == 0, "no limit on files" );
    }

    rlimit before_ {};
};

class Site {
public:
    Site( const Root& root, bool local )
        : em( Norvo::entityManagerFactory( "sys", local ) ), mount( em ) {
        root.clear();
        mount.handleInitialized();
    }
    ~Site() {
        if ( const auto counts = Qel::Entity::singleton< QelKrell::KrellEntities >() ) {
            counts->countDelAll();
        }
        const Qel::Dir::Ptr top = Qel::Dir::globalDir();
        top->subdirDelAll();
        top->entryDelAll();
    }
    Site( const Site& ) = delete;
    Site& operator=( const Site& ) = delete;

    Norvo::EntityManager::Ptr em;
    QelKrell::Mount mount;
};

// How many mounts are counted under a name.
inline Qel::U32 countOf( const std::string& name ) {
    const auto counts = Qel::Entity::singleton< QelKrell::KrellEntities >();
    return counts ? counts->count( name ) : 0;
}

} // namespace QelKrellFuzz
