#include "Shared.h"

#include <Qel/Describe>

namespace QelKrellPython {

using Qel::GenericValue;
using Qel::Ptr;
using Qel::String;

// --- Collection

Collection::Collection( Ptr< Qel::Entity > entity, std::string name )
    : entity_( std::move( entity ) ), face_( entity_->genericIf() ), name_( std::move( name ) ) {}

GenericValue Collection::key( const py::handle& key ) const {
    return fromPython( key, face_->attributeIndexType( String( name_ ) ) );
}

py::object Collection::find( const py::handle& k ) const { return toPython( at( key( k ) ) ); }

bool Collection::contains( const py::handle& k ) const { return bool( at( key( k ) ) ); }

py::list Collection::keys() const {
    py::list keys;
    for ( const GenericValue& k : face_->attributeIndices( String( name_ ) ) ) {
        keys.append( toPython( k ) );
    }
    return keys;
}

// One that went between the list and the look is left out.
py::list Collection::values() const {
    py::list values;
    for ( const GenericValue& k : face_->attributeIndices( String( name_ ) ) ) {
        if ( const GenericValue value = at( k ) ) {
            values.append( toPython( value ) );
        }
    }
    return values;
}

std::size_t Collection::size() const { return face_->attributeIndices( String( name_ ) ).size(); }

void Collection::put( const py::handle& k, const py::handle& value ) {
    const auto type = typeNamed( face_->type()->attr( String( name_ ) )->typeName.stdString() );
    face_->attributeIs( String( name_ ), key( k ), fromPython( value, type ) );
}

bool Collection::del( const py::handle& k ) {
    const GenericValue generic = key( k );
    const bool there = bool( at( generic ) );
    face_->attributeDel( String( name_ ), generic );
    return there;
}

Value Collection::control() const {
    return Value( face_->attribute( String( name_ + "Control" ) ) );
}

Ptr< Qel::Counted > Collection::watch( py::function reaction ) const {
    // Whoever holds the last reference lets it go under the lock too.
    const std::shared_ptr< py::function > held( new py::function( std::move( reaction ) ),
                                                []( py::function* f ) {
                                                    const py::gil_scoped_acquire lock;
                                                    delete f;
                                                } );
    return face_->attributeWatch( String( name_ ), [ held ]( const GenericValue& k ) {
        const py::gil_scoped_acquire lock;
        try {
            ( *held )( toPython( k ) );
        } catch ( py::error_already_set& e ) {
            e.discard_as_unraisable( "a collection's reaction" );
        }
    } );
}

std::string Collection::repr() const {
    return "<collection " + name_ + " of " + entity_->fullName().stdString() + ">";
}

// --- Entity

py::object Entity::attribute( const std::string& name ) const {
    const Qel::QelAttr* const a = attr( name );
    if ( a && a->isCollection() && a->access->indexType() ) {
        return py::cast( Collection( entity_, name ) );
    }
    return toPython( face_->attribute( String( name ) ) );
}

void Entity::attributeIs( const std::string& name, const py::handle& value ) {
    const Qel::QelAttr* const a = attr( name );
    const auto type = a ? Qel::QelType::typeNode( a->typeName ) : nullptr;
    face_->attributeIs( String( name ), type ? fromPython( value, type ) : GenericValue() );
}

py::object Entity::call( const std::string& operation, const py::kwargs& arguments ) const {
    return toPython(
        face_->call( String( operation ), argumentsFrom( *face_->type(), operation, arguments ) ) );
}

bool Entity::isOperation( const std::string& name ) const {
    const Qel::QelAttr* const a = attr( name );
    return a && a->isFunction();
}

py::list Entity::names() const {
    py::list names;
    for ( const Qel::QelAttr* a : face_->type()->attributes() ) {
        names.append( a->name.stdString() );
    }
    return names;
}

std::string Entity::repr() const { return "Entity('" + type() + "', '" + fullName() + "')"; }

// --- Site

Site::Site( const std::string& system, bool local )
    : manager_( Norvo::entityManagerFactory( String( system ), local ) ), mount_( manager_ ) {
    mount_.handleInitialized();
}

Entity Site::mount( const std::string& path,
                    const std::string& type,
                    const std::string& role,
                    const py::dict& sizes,
                    bool cleanup ) {
    QelKrell::MountInfo info( QelKrell::QelKrellTypeInstance( String( role ) ), cleanup );
    const auto node = typeNamed( type );
    for ( const Qel::QelAttr* attr : node->attributes() ) {
        if ( attr->flags.has( Qel::QelAttr::QelAttrIntrospectionFlags::isShared_ ) ) {
            const py::str name( attr->name.stdString() );
            info.collectionInfoIs(
                { attr->name, sizes.contains( name ) ? sizes[ name ].cast< Qel::U32 >() : 0 } );
        }
    }
    for ( const auto& [ name, size ] : sizes ) {
        const Qel::QelAttr* const attr = node->attr( String( py::cast< std::string >( name ) ) );
        if ( !attr || !attr->flags.has( Qel::QelAttr::QelAttrIntrospectionFlags::isShared_ ) ) {
            throw Qel::UnknownAttributeException( String( type ) + " has no shared collection '" +
                                                  String( py::cast< std::string >( name ) ) + "'" );
        }
    }
    return Entity( mount_.doMount( String( path ), String( type ), info ) );
}

void Site::unmount( const std::string& path ) {
    if ( path.empty() ) {
        throw Qel::RangeException( "an empty path: unmount_all() unmounts everything" );
    }
    mount_.doUnmount( String( path ) );
}

void Site::unmountAll() { mount_.doUnmountAll(); }

py::list Site::find( const std::string& path ) {
    if ( !manager_->local() ) { // of which mounts are counted in the same table
        if ( const auto former = Qel::Entity::singleton< QelKrell::KrellEntities >() ) {
            former->countDelAll();
        }
    }
    const auto found = Qel::ptrCast< QelKrell::KrellEntities >( mount_.find( String( path ) ) );
    py::list names;
    for ( const String& name : found->names() ) {
        names.append( name.stdString() );
    }
    return names;
}

void Site::cleanup( const std::string& path ) {
    if ( path.empty() ) {
        throw Qel::RangeException( "an empty path: of what?" );
    }
    mount_.cleanup( String( path ) );
}

} // namespace QelKrellPython
