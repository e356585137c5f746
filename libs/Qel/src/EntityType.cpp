// What ties entities to the type system: their types, generic interfaces and making by type name.

#include <map>
#include <ostream>

#include <Qel/Describe>
#include <Qel/Dir>
#include <Qel/Trace>

namespace Qel {

namespace {

TraceHandle& trace() {
    static auto* const handle = new TraceHandle( "QelEntity", false );
    return *handle;
}

void traceRefusal( const String& why ) {
    constexpr int errorLevel = 0;
    if ( trace().enabled( errorLevel ) || coverageStream_ ) {
        std::stringstream text;
        text << "Entity::newEntity() " << why;
        traceHelper( trace().name(), "<unknown>", text, errorLevel, trace().enabled( errorLevel ),
                     "Entity", 41, "newEntity" );
    }
}

// The attributes that every entity has.
class NameAccess : public AttrAccess {
public:
    GenericValue read( const void* o ) const override {
        return GenericValue::of< Name >( static_cast< const Entity* >( o )->name() );
    }
};
class SelfAccess : public AttrAccess {
public:
    GenericValue read( const void* o ) const override {
        return GenericValue::of< Entity::Ptr >(
            const_cast< Entity* >( static_cast< const Entity* >( o ) ) );
    }
};

Ptr< QelType > makeEntityType() {
    TypeOps ops;
    ops.info = &typeid( Entity );
    ops.fromEntity = []( Entity* e ) -> void* { return e; };
    Ptr< QelType > type = new QelType( "Qel::Entity", ops );
    // The last two ids below those of derived types.
    constexpr U32 firstBaseId = QelType::firstOwnAttrId_ - 2;
    type->firstAttrIdIs( firstBaseId );
    QelAttr name;
    name.name = "name";
    name.typeName = "Qel::Name";
    name.flags = AttrFlags::isReadOnly_;
    name.access = std::make_shared< NameAccess >();
    type->attrIs( name );
    QelAttr self;
    self.name = "entity";
    self.typeName = "Qel::Entity::Ptr";
    self.flags = AttrFlags::isReadOnly_;
    self.access = std::make_shared< SelfAccess >();
    type->attrIs( self );
    type->introspectedIs( true );
    type->hasGenericIfSupportIs( true );
    type->typeNodeIs( "Qel::Entity" );
    return type;
}

Ptr< QelType > makeDirType() {
    TypeOps ops;
    ops.info = &typeid( Dir );
    ops.fromEntity = []( Entity* e ) -> void* { return static_cast< Dir* >( e ); };
    Ptr< QelType > type = new QelType( "Qel::Dir", ops, Entity::_fwkType() );
    type->introspectedIs( true );
    type->hasGenericIfSupportIs( true );
    type->typeNodeIs( "Qel::Dir" );
    return type;
}

const Ptr< QelType > entityTypes[] = { Entity::_fwkType(), Dir::_fwkType() };

using Singletons = std::map< const QelType*, Entity::Ptr >;

Singletons& singletons() {
    static Singletons all;
    return all;
}

} // namespace

Ptr< QelType > Entity::_fwkType() {
    static const auto type = new Qel::Ptr< QelType >( makeEntityType() );
    return *type;
}

Ptr< QelType > Dir::_fwkType() {
    static const auto type = new Qel::Ptr< QelType >( makeDirType() );
    return *type;
}

Entity::Entity( const Name& name, const Qel::Ptr< QelType >& type )
    : name_( name ), type_( type ) {}

Ptr< QelType > Entity::fwkType() const { return type_ ? type_ : _fwkType(); }

Ptr< GenericIf > Entity::genericIf() {
    Qel::Ptr< GenericIf > generic = fwkType()->genericIf();
    generic->entityIs( this, false );
    return generic;
}

Ptr< GenericIf > Entity::genericIf() const {
    Qel::Ptr< GenericIf > generic = fwkType()->genericIf();
    generic->entityIs( const_cast< Entity* >( this ), true );
    return generic;
}

Entity::Ptr Entity::newEntity( const String& typeName, const Name& name ) {
    return newEntity( typeName, name, nullptr );
}

Entity::Ptr Entity::newEntity( const String& typeName,
                               const Name& name,
                               const Qel::Ptr< Dir >& parent ) {
    const Qel::Ptr< QelType > type = QelType::typeNode( typeName );
    if ( !type || !type->isEntity() ) {
        traceRefusal( type ? "type '" + typeName + "' is not made by name"
                           : "there is no type '" + typeName + "'" );
        return nullptr;
    }
    Ptr entity = type->ops().newEntity( name );
    if ( parent ) {
        try {
            ExpectException refused;
            parent->entryIs( entity );
        } catch ( const Exception& e ) {
            traceRefusal( e.msg() );
            return nullptr;
        }
    }
    return entity;
}

Entity::Ptr Entity::singleton( TypeFunction type ) {
    const auto found = singletons().find( type().get() );
    return found == singletons().end() ? nullptr : found->second;
}

Entity::Ptr Entity::singletonIs( TypeFunction typeFunction, const Name& name ) {
    const Qel::Ptr< QelType > type = typeFunction();
    Ptr& entity = singletons()[ type.get() ];
    if ( !entity ) {
        entity = newEntity( type->fullName(), name.empty() ? Name( type->shortName() ) : name );
    }
    return entity;
}

void Entity::singletonDel( TypeFunction type ) { singletons().erase( type().get() ); }

std::ostream& operator<<( std::ostream& os, const Entity::Ptr& entity ) {
    return os << entityToStrep( entity.get() );
}

} // namespace Qel
