#include <Qel/TypeOf>

#include <Qel/Dir>

namespace Qel {

namespace {

template < class T >
Ptr< QelType > builtin( const char* name ) {
    Ptr< QelType > type = plainType< T >( name );
    if ( type->ops().copy ) {
        TypeOps ops = type->ops();
        ops.wireSize = ops.size;
        ops.decode = ops.copy;
        type = new QelType( name, ops );
        type->isValueIs( true );
    }
    type->introspectedIs( true );
    type->typeNodeIs( name );
    return type;
}

// Finds the entity at a full name: an entry first, then a directory.
Entity::Ptr entityAt( const String& fullName, const String& typeName ) {
    Dir::Ptr dir = Dir::globalDir();
    if ( fullName == "/" ) {
        return dir;
    }
    if ( fullName.empty() || fullName[ 0 ] != '/' ) {
        return nullptr; // the name of an entity without a parent
    }
    std::size_t start = 1;
    for ( std::size_t slash = fullName.find( '/', start ); dir && slash != String::npos;
          start = slash + 1, slash = fullName.find( '/', start ) ) {
        dir = dir->subdir( fullName.substr( start, slash - start ) );
    }
    if ( !dir || start > fullName.length() ) {
        return nullptr;
    }
    const String name = fullName.substr( start );
    const Entity::Ptr entry = dir->entityRef( name );
    if ( entry && entry->fwkType()->fullName() == typeName ) {
        return entry;
    }
    const Dir::Ptr subdir = dir->subdir( name );
    return subdir && subdir->fwkType()->fullName() == typeName ? Entity::Ptr( subdir ) : nullptr;
}

} // namespace

#define QEL_BUILTIN( T, NAME )                                                                     \
    Ptr< QelType > fwkTypeOf( const T* ) {                                                         \
        static const auto type = new Ptr< QelType >( builtin< T >( NAME ) );                       \
        return *type;                                                                              \
    }
QEL_BUILTIN( bool, "bool" )
QEL_BUILTIN( U8, "U8" )
QEL_BUILTIN( U16, "U16" )
QEL_BUILTIN( U32, "U32" )
QEL_BUILTIN( U64, "U64" )
QEL_BUILTIN( S8, "S8" )
QEL_BUILTIN( S16, "S16" )
QEL_BUILTIN( S32, "S32" )
QEL_BUILTIN( S64, "S64" )
QEL_BUILTIN( float, "float" )
QEL_BUILTIN( double, "double" )
QEL_BUILTIN( String, "Qel::String8" )
QEL_BUILTIN( Name, "Qel::Name" )
#undef QEL_BUILTIN

namespace {

// Built-in types are found by name from the start.
const Ptr< QelType > builtins[] = { typeOf< bool >(),  typeOf< U8 >(),     typeOf< U16 >(),
                                    typeOf< U32 >(),   typeOf< U64 >(),    typeOf< S8 >(),
                                    typeOf< S16 >(),   typeOf< S32 >(),    typeOf< S64 >(),
                                    typeOf< float >(), typeOf< double >(), typeOf< String >(),
                                    typeOf< Name >() };

} // namespace

String entityToStrep( const Entity* entity ) {
    if ( !entity ) {
        return "None";
    }
    return "Entity(" + valueToStrep( entity->fwkType()->fullName() ) + ", " +
           valueToStrep( entity->fullName() ) + ")";
}

Entity::Ptr sequenceToEntity( StringIteratorConst& it, const StringIteratorConst& end ) {
    skipWhiteSpace( it, end );
    if ( it != end && *it == 'N' ) {
        needString( it, end, "None" );
        return nullptr;
    }
    needString( it, end, "Entity" );
    needString( it, end, " ( " );
    const String typeName = sequenceToValue( it, end, static_cast< String* >( nullptr ) );
    needString( it, end, " , " );
    const String fullName = sequenceToValue( it, end, static_cast< String* >( nullptr ) );
    needString( it, end, " )" );
    const Entity::Ptr entity = entityAt( fullName, typeName );
    if ( !entity ) {
        throw RangeException( "there is no " + typeName + " at '" + fullName + "'" );
    }
    return entity;
}

void refuseEntity( const Entity& entity, const String& wantedType ) {
    throw RangeException( "expected a " + wantedType + " but '" + entity.fullName() + "' is a " +
                          entity.fwkType()->fullName() );
}

} // namespace Qel
