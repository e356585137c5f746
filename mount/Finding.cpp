#include <cstring>

#include <Krell/DirNode>
#include <Qel/Text>
#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include "mount/MountTrace.h"

namespace QelKrell {

namespace {

using Node = std::shared_ptr< Krell::DirNode >;

// Without one leading "/" and all trailing ones.
Qel::String8 normalised( const Qel::String8& path ) {
    std::size_t begin = path.empty() || path[ 0 ] != '/' ? 0 : 1;
    std::size_t end = path.length();
    while ( end > begin && path[ end - 1 ] == '/' ) {
        --end;
    }
    return path.substr( begin, end - begin );
}

// A path below the directory is asked for: none that leads out of it, none that a NUL byte would
// cut short.
void needPathBelow( const Qel::String8& path, const Qel::String8& below ) {
    const std::string framed = "/" + below.stdString() + "/";
    if ( framed.find( "/../" ) != std::string::npos || framed.find( '\0' ) != std::string::npos ) {
        const Qel::String8 message =
            "Mount::find() path: " + Qel::valueToStrep( path ) +
            " has a component that is no name: '..' or one with a NUL byte";
        traceMount( errorLevel, [ & ]( std::ostream& text ) { text << message; } );
        throw Qel::InternalException( message );
    }
}

bool isSelfOrParent( const char* name ) {
    return std::strcmp( name, "." ) == 0 || std::strcmp( name, ".." ) == 0;
}

// Whether a regular file of that name shows that its directory holds a collection. Every name does,
// also one that no version of this library writes, but for the marker of a corruption: that is left
// in a directory whose collection is gone.
bool marksCollection( const char* name ) { return std::strcmp( name, "corruption-detected" ) != 0; }

[[noreturn]] void refuseTop() {
    const Qel::String8 message =
        "Mount::find() detected that the search path is a collection directory";
    traceMount( errorLevel, [ & ]( std::ostream& text ) { text << message; } );
    throw Qel::InternalException( message );
}

// The directory above `node`'s is a mounted entity; counts it under its path below the root.
void countEntity( const Krell::DirNode& node,
                  const Qel::String8& rootPath,
                  KrellEntities& counts ) {
    if ( !node.parent() ) {
        refuseTop();
    }
    const Qel::String8 name( node.parent()->path().substr( rootPath.length() ) );
    traceMount( stepLevel, [ & ]( std::ostream& text ) {
        text << "Mount::find() found entity '" << name << "'";
    } );
    counts.countIs( name, 1 );
}

// Depth first; a node's parent is where the walk goes on after it.
void walk( Node node, const Qel::String8& rootPath, KrellEntities& counts ) {
    while ( node ) {
        const dirent* entry = node->readEntry();
        if ( !entry ) {
            node = node->parent();
        } else if ( entry->d_type == DT_DIR ) {
            if ( !isSelfOrParent( entry->d_name ) ) {
                node = std::make_shared< Krell::DirNode >(
                    mountHandler(), node->path() + "/" + entry->d_name, node );
            }
        } else if ( entry->d_type == DT_REG && marksCollection( entry->d_name ) ) {
            countEntity( *node, rootPath, counts );
        }
    }
}

} // namespace

Qel::Entity::Ptr Mount::find( Qel::String8 path ) const {
    traceMount( operationLevel,
                [ & ]( std::ostream& text ) { text << "Mount::find() path: " << path; } );
    const KrellEntities::Ptr counts = krellEntitiesFactory( "KrellEntities" );
    const Qel::String8 prefix = krellDir_->fullName().substr( 1 );
    const Qel::String8 below = normalised( path );
    needPathBelow( path, below );
    const Qel::String8 top = rootPath_ + "/" + prefix + ( below.empty() ? below : "/" + below );
    try {
        walk( std::make_shared< Krell::DirNode >( mountHandler(), top.stdString(), nullptr ),
              rootPath_, *counts );
    } catch ( const Krell::Exception& e ) {
        throwQelKrellException( e );
    }
    return counts;
}

} // namespace QelKrell
