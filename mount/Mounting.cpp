#include <Krell/Exception>
#include <Norvo/EntityManager>
#include <Qel/Assert>
#include <Qel/GenericIf>
#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include "mount/Controls.h"
#include "mount/MountTrace.h"

namespace QelKrell {

namespace {

constexpr Qel::SourcePosition doMountPosition {
    "src-includes/QelKrell/KrellMount", 152,
    "Qel::Entity::Ptr QelKrell::Mount::doMount(Qel::String, Qel::String, const "
    "QelKrell::MountInfo&) const"
};

[[noreturn]] void refuse( const Qel::String8& message ) {
    traceMount( errorLevel, [ & ]( std::ostream& text ) { text << message; } );
    throw MountException( message );
}

[[noreturn]] void refuseNested() { refuse( "Mount::doMount() nested entities are not supported" ); }

// The components of a path, every one of which must be a name.
std::vector< Qel::String8 > components( const Qel::String8& path ) {
    std::vector< Qel::String8 > all;
    for ( std::size_t start = 0, slash = 0; slash != Qel::String8::npos; start = slash + 1 ) {
        slash = path.find( '/', start );
        all.push_back( path.substr( start, slash == Qel::String8::npos ? slash : slash - start ) );
        const Qel::String8& name = all.back();
        if ( name.empty() || name == "." || name == ".." ) {
            refuse( "Mount::doMount() path: " + path + " has a component that is no name: '" +
                    name + "'" );
        }
    }
    return all;
}

Qel::Dir::Ptr enterDirectory( const Qel::Dir::Ptr& dir, const Qel::String8& component ) {
    if ( const Qel::Dir::Ptr subdir = dir->subdir( component ) ) {
        traceMount( stepLevel, [ & ]( std::ostream& text ) {
            text << "Mount::doMount() entering directory '" << component << "'";
        } );
        return subdir;
    }
    if ( dir->entityRef( component ) ) {
        refuseNested();
    }
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doMount() creating directory '" << component << "'";
    } );
    return dir->subdirIs( component );
}

Qel::Entity::Ptr createEntity( const Qel::Dir::Ptr& krellDir,
                               const Qel::String8& path,
                               const Qel::String8& type ) {
    const std::vector< Qel::String8 > names = components( path );
    Qel::Dir::Ptr dir = krellDir;
    for ( std::size_t i = 0; i + 1 < names.size(); ++i ) {
        dir = enterDirectory( dir, names[ i ] );
    }
    const Qel::String8& name = names.back();
    if ( dir->subdir( name ) ) {
        refuseNested();
    }
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doMount() creating entity '" << name << "'";
    } );
    dir->newEntity( type, name );
    Qel::Entity::Ptr entity = dir->entityRef( name );
    if ( !entity ) {
        refuse( "Mount::doMount() unable to create entity" );
    }
    traceMount( operationLevel,
                [ & ]( std::ostream& text ) { text << "Mount::doMount() created " << entity; } );
    return entity;
}

void needType( const Qel::Entity::Ptr& entity,
               const Qel::String8& path,
               const Qel::String8& type ) {
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doMount() found existing entity at '" << path << "'";
    } );
    const Qel::String8 present = entity->fwkType()->fullName();
    if ( present != type ) {
        refuse( "Mount::doMount() path: " + path + " already exists with type: " + present );
    }
}

void openCollection( CollectionControl& control,
                     QelKrellType mode,
                     bool local,
                     bool cleanup,
                     const CollectionInfo& info ) {
    if ( cleanup ) {
        traceMount( operationLevel, [ & ]( std::ostream& text ) {
            text << "Mount::doMount() cleaning up " << info.name();
        } );
        control.cleanup();
    }
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doMount() initializing " << info.name();
    } );
    control.init( mode, local, info.size() );
    if ( !local && mode == writer && control.mountStatus() != attached ) {
        throw InvalidMountStatusException( "Mount::doMount() writer not attached" );
    }
}

void mountCollection( Qel::GenericIf& entity,
                      QelKrellType mode,
                      bool local,
                      bool cleanup,
                      const CollectionInfo& info ) {
    if ( std::optional< CollectionControl > control = getControl( entity, info.name() ) ) {
        try {
            openCollection( *control, mode, local, cleanup, info );
        } catch ( const Krell::Exception& e ) {
            throwQelKrellException( e );
        }
    }
}

void openCollections( const Qel::Entity::Ptr& entity, const MountInfo& mountInfo, bool local ) {
    const Qel::Ptr< Qel::GenericIf > generic = entity->genericIf();
    if ( mountInfo.mode() == writer ) {
        for ( auto it = mountInfo.collectionInfoIterator(); it.next(); ) {
            mountCollection( *generic, writer, local, mountInfo.cleanup(), it->collectionInfo() );
        }
        return;
    }
    if ( local ) {
        return;
    }
    for ( const Qel::QelAttr* attr : generic->type()->attributes() ) {
        if ( attr->name != "entity" ) {
            traceMount( stepLevel, [ & ]( std::ostream& text ) {
                text << "Mount::doMount() found collection " << attr->name;
            } );
            mountCollection( *generic, mountInfo.mode(), local, mountInfo.cleanup(),
                             CollectionInfo( attr->name, 0 ) );
        }
    }
}

} // namespace

Qel::Entity::Ptr Mount::doMount( Qel::String8 entityPath,
                                 Qel::String8 entityType,
                                 const MountInfo& mountInfo ) const {
    const bool local = em_->local();
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::doMount() path: " << entityPath << " type: " << entityType
             << " mode: " << mountInfo.mode() << " local: " << local;
    } );
    Qel::assertThat( !entityPath.empty(), "!entityPath.empty() && \"path is empty\"",
                     doMountPosition );
    Qel::Entity::Ptr entity = getQelEntity( entityPath );
    if ( entity ) {
        needType( entity, entityPath, entityType );
    } else {
        entity = createEntity( krellDir_, entityPath, entityType );
    }
    openCollections( entity, mountInfo, local );
    if ( local ) {
        const Qel::U32 count = Qel::Entity::singletonIs< KrellEntities >()->countInc(
            krellDir_->fullName() + "/" + entityPath, 1 );
        traceMount( stepLevel, [ & ]( std::ostream& text ) {
            text << "Mount::doMount() incremented ref count of '" << entity->fullName() << "' to "
                 << count;
        } );
    }
    return entity;
}

} // namespace QelKrell
