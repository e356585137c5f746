#include <Norvo/EntityManager>
#include <Qel/Assert>
#include <QelKrell/KrellMount>

#include "mount/MountTrace.h"

namespace QelKrell {

namespace {

constexpr const char* source = "src-includes/QelKrell/KrellMount";
constexpr Qel::SourcePosition doUnmountPosition {
    source, 231, "void QelKrell::Mount::doUnmount(Qel::String) const"
};
constexpr const char* entityFunction =
    "void QelKrell::unmountCohabEntity(const Qel::Entity::Ptr&, const Qel::Dir::Ptr&, bool)";
constexpr Qel::SourcePosition entityPosition { source, 281, entityFunction };
constexpr Qel::SourcePosition countPosition { source, 290, entityFunction };
constexpr const char* dirFunction =
    "void QelKrell::unmountCohabDir(const Qel::Dir::Ptr&, const Qel::Dir::Ptr&, bool)";
constexpr Qel::SourcePosition dirPosition { source, 318, dirFunction };
constexpr Qel::SourcePosition currentDirPosition { source, 334, dirFunction };

void traceUnmounting( const Qel::String8& path ) {
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doUnmount() unmounting '" << path << "'";
    } );
}

bool isEmpty( const Qel::Dir& dir ) { return dir.entrys() == 0 && dir.subdirs() == 0; }

// The walk of a subtree, depth first, without recursion: a place in each directory from the start
// to the current one.
class DirWalk {
public:
    explicit DirWalk( const Qel::Dir::Ptr& start ) { enter( start ); }

    const Qel::Dir::Ptr& current() const { return places_.back().dir; }
    bool atStart() const { return places_.size() == 1; }
    // Goes down into the next sub-directory that was not visited yet; false when there is none.
    bool down() {
        Qel::Dir::SubdirIterator& next = places_.back().next;
        if ( !next.next() ) {
            return false;
        }
        enter( next->dir() );
        return true;
    }
    void up() { places_.pop_back(); }

private:
    struct Place {
        Qel::Dir::Ptr dir;
        Qel::Dir::SubdirIterator next;
    };

    void enter( const Qel::Dir::Ptr& dir ) {
        Qel::assertThat( bool( dir ), "currentDir", currentDirPosition );
        places_.push_back( { dir, dir->subdirIterator() } );
    }

    std::vector< Place > places_;
};

// Releases one reference to each entity that stands in `dir` itself.
void unmountEntries( const Qel::Dir::Ptr& dir, const Qel::Dir::Ptr& topDir ) {
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "unmountCohabDir() entering directory '" << dir->name() << "'";
    } );
    for ( auto it = dir->entryIterator(); it.next(); ) {
        unmountCohabEntity( it->entity(), topDir, false );
    }
}

} // namespace

void Mount::doUnmount( Qel::String8 path ) const {
    const bool local = em_->local();
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doUnmount() path: " << path << " local: " << local;
    } );
    Qel::assertThat( !path.empty(), "!path.empty() && \"path is empty\"", doUnmountPosition );
    if ( const Qel::Entity::Ptr entity = getQelEntity( path ) ) {
        if ( local ) {
            unmountCohabEntity( entity, krellDir_, true );
            return;
        }
        traceUnmounting( path );
        Qel::Dir::Ptr parent = entity->parent();
        parent->entryDel( entity->name() );
        cleanupEmptyDirs( parent, krellDir_ );
    } else if ( const Qel::Dir::Ptr dir = getDir( path, krellDir_ ) ) {
        if ( local ) {
            unmountCohabDir( dir, krellDir_ );
            return;
        }
        traceUnmounting( path );
        Qel::Dir::Ptr parent = dir->parent();
        parent->subdirDel( dir->name() );
        cleanupEmptyDirs( parent, krellDir_ );
    }
}

void Mount::doUnmountAll() const {
    const bool local = em_->local();
    traceMount( operationLevel,
                [ & ]( std::ostream& text ) { text << "Mount::doUnmountAll() local: " << local; } );
    if ( local ) {
        unmountCohabDir( krellDir_, krellDir_ );
        return;
    }
    traceMount( operationLevel, []( std::ostream& text ) {
        text << "Mount::doUnmountAll() unmounting all Krell entities";
    } );
    krellDir_->subdirDelAll();
    for ( auto it = krellDir_->entryIterator(); it.next(); ) {
        krellDir_->entryDel( it->entity()->name() );
    }
}

void unmountCohabEntity( const Qel::Entity::Ptr& entity,
                         const Qel::Dir::Ptr& topDir,
                         bool cleanupDirs ) {
    Qel::assertThat( bool( entity ), "entity", entityPosition );
    const Qel::Name name = entity->name();
    const Qel::String8 entityFullName = entity->fullName();
    const KrellEntities::Ptr krellEntities = Qel::Entity::singletonIs< KrellEntities >();
    Qel::assertThat( krellEntities->count( entityFullName ) != 0,
                     "krellEntities->count( entityFullName )", countPosition );
    const Qel::U32 count = krellEntities->countDec( entityFullName, 1 );
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "unmountCohabEntity() decremented ref count of '" << entityFullName << "' to "
             << count;
    } );
    if ( count != 0 ) {
        return;
    }
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "unmountCohabEntity() unmounting '" << entityFullName << "'";
    } );
    Qel::Dir::Ptr parent = entity->parent();
    parent->entryDel( name );
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "unmountCohabEntity() deleted entry '" << name << "' from directory '"
             << parent->fullName() << "'";
    } );
    krellEntities->countDel( entityFullName );
    if ( cleanupDirs ) {
        cleanupEmptyDirs( parent, topDir );
    }
}

void unmountCohabDir( const Qel::Dir::Ptr& dir, const Qel::Dir::Ptr& topDir, bool ) {
    Qel::assertThat( bool( dir ), "dir", dirPosition );
    DirWalk walk( dir );
    unmountEntries( walk.current(), topDir );
    for ( ;; ) {
        if ( walk.down() ) {
            unmountEntries( walk.current(), topDir );
            continue;
        }
        if ( walk.atStart() ) {
            Qel::Dir::Ptr parent = dir->parent();
            cleanupEmptyDirs( parent, topDir );
            return;
        }
        const Qel::Dir::Ptr done = walk.current();
        walk.up();
        if ( isEmpty( *done ) ) {
            walk.current()->subdirDel( done->name() );
        }
    }
}

void cleanupEmptyDirs( Qel::Dir::Ptr& dir, const Qel::Dir::Ptr& topDir ) {
    while ( !( dir == topDir ) && isEmpty( *dir ) ) {
        traceMount( stepLevel, [ & ]( std::ostream& text ) {
            text << "cleanupEmptyDirs() deleting empty directory '" << dir->fullName() << "'";
        } );
        const Qel::Dir::Ptr parent = dir->parent();
        if ( !parent || parent == dir ) {
            return; // the root has nowhere to go
        }
        parent->subdirDel( dir->name() );
        dir = parent;
    }
}

} // namespace QelKrell
