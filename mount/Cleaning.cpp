#include <cstring>

#include <Krell/DirNode>
#include <Krell/KrellTest>
#include <Qel/Assert>
#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include "mount/Controls.h"
#include "mount/MountTrace.h"

namespace QelKrell {

namespace {

constexpr const char* source = "src-includes/QelKrell/KrellMount";
constexpr Qel::SourcePosition typePosition {
    source, 402, "Qel::String8 QelKrell::findEntityType(const Qel::String8&, const Qel::String8&)"
};
constexpr Qel::SourcePosition entityPosition { source, 449,
                                               "void QelKrell::Mount::cleanup(Qel::String) const" };

void traceType( const char* what,
                const Qel::String8& type,
                const char* then,
                const std::string& path ) {
    traceMount( operationLevel, [ & ]( std::ostream& text ) {
        text << "Mount::cleanup() " << what << type << then << path;
    } );
}

// The entity type that the "slots" file in `path` records; empty when it cannot be read.
Qel::String8 recordedType( const std::string& path ) {
    Qel::String8 type;
    if ( !Krell::KrellTest::getEntityType( path, type ) ) {
        traceType( "failed to read entity type from ", "", "", path );
    } else if ( type.empty() ) {
        traceType( "found an empty entity type for ", "", "", path );
    } else {
        traceType( "successfully read entity type '", type, "' from ", path );
    }
    return type;
}

bool holdsSlots( const std::string& path ) {
    const Krell::DirNode node( mountHandler(), path, nullptr );
    while ( const dirent* entry = node.readEntry() ) {
        if ( entry->d_type == DT_REG && std::strcmp( entry->d_name, "slots" ) == 0 ) {
            return true;
        }
    }
    return false;
}

// The type recorded by the first of the entity's collections that has one; they all record the
// same.
Qel::String8 findEntityType( const Qel::String8& rootPath, const Qel::String8& entityFullPath ) {
    Qel::assertThat( !rootPath.empty() && !entityFullPath.empty(),
                     "!rootPath.empty() && !entityFullPath.empty()", typePosition );
    const Krell::DirNode node( mountHandler(), ( rootPath + "/" + entityFullPath ).stdString(),
                               nullptr );
    while ( const dirent* entry = node.readEntry() ) {
        const std::string name = entry->d_name;
        if ( entry->d_type != DT_DIR || name == "." || name == ".." ) {
            continue;
        }
        const std::string path = node.path() + "/" + name;
        const Qel::String8 type = holdsSlots( path ) ? recordedType( path ) : Qel::String8();
        if ( !type.empty() ) {
            return type;
        }
    }
    return Qel::String8();
}

void cleanCollections( const Qel::Entity::Ptr& entity ) {
    const Qel::Ptr< Qel::GenericIf > generic = entity->genericIf();
    for ( const Qel::QelAttr* attr : generic->type()->attributes() ) {
        if ( !attr->isCollection() ) {
            continue;
        }
        traceMount( stepLevel, [ & ]( std::ostream& text ) {
            text << "Mount::cleanup() found collection " << attr->name;
        } );
        if ( std::optional< CollectionControl > control = getControl( *generic, attr->name ) ) {
            traceMount( operationLevel, [ & ]( std::ostream& text ) {
                text << "Mount::cleanup() cleaning up " << attr->name;
            } );
            control->cleanup();
        }
    }
}

} // namespace

void Mount::cleanup( Qel::String8 entityPath ) const {
    traceMount( operationLevel,
                [ & ]( std::ostream& text ) { text << "Mount::cleanup() path: " << entityPath; } );
    if ( entityPath.empty() ) {
        traceMount( operationLevel, []( std::ostream& text ) {
            text << "Mount::cleanup() nothing to do since path is empty";
        } );
        return;
    }
    const Qel::String8 fullPath = ( krellDir_->fullName() + "/" + entityPath ).substr( 1 );
    try {
        const Qel::String8 type = findEntityType( rootPath_, fullPath );
        if ( type.empty() ) {
            throw Qel::InternalException(
                "Mount::cleanup() failed to find the entity type of " + entityPath +
                ". All underlying slots files may have been deleted or corrupted." );
        }
        // Its name is its whole path: so its collections are those on disk.
        const Qel::Entity::Ptr entity = Qel::Entity::newEntity( type, fullPath );
        Qel::assertThat( bool( entity ), "entity", entityPosition );
        cleanCollections( entity );
    } catch ( const Krell::Exception& e ) {
        throwQelKrellException( e );
    }
}

} // namespace QelKrell
