#include <Qel/GenericIf>

#include <Qel/Entity>
#include <Qel/Exception>

namespace Qel {

namespace {

using Flags = QelAttr::QelAttrIntrospectionFlags;

String quoted( const String& name ) { return "'" + name + "'"; }

[[noreturn]] void refuseOperation( const String& name ) {
    throw OpNotSupportedException( "operation " + quoted( name ) +
                                   " is not supported as an attribute" );
}

[[noreturn]] void refuseChange( const String& name ) {
    throw OpNotSupportedException( "attribute " + quoted( name ) + " is read-only" );
}

void needType( const String& what,
               const String& wantedName,
               const std::type_info* wanted,
               const GenericValue& value ) {
    if ( !wanted || !value.holds( *wanted ) ) {
        throw TypeException( what + " takes a " + wantedName + ", not a " + value.typeName() );
    }
}

// The arguments in declaration order.
std::vector< GenericValue > matched( const QelAttr& op, const GenericArguments& given ) {
    std::vector< GenericValue > ordered( op.arguments.size() );
    std::vector< bool > seen( op.arguments.size() );
    for ( const auto& [ name, value ] : given ) {
        std::size_t i = 0;
        while ( i < op.arguments.size() && op.arguments[ i ].name != name ) {
            ++i;
        }
        if ( i == op.arguments.size() ) {
            throw UnknownArgumentException( "operation " + quoted( op.name ) +
                                            " takes no argument " + quoted( name ) );
        }
        if ( seen[ i ] ) {
            throw RepeatedArgumentException( "operation " + quoted( op.name ) +
                                             " was given argument " + quoted( name ) + " twice" );
        }
        seen[ i ] = true;
        ordered[ i ] = value;
    }
    for ( std::size_t i = 0; i < seen.size(); ++i ) {
        if ( !seen[ i ] ) {
            throw MissingArgumentException( "operation " + quoted( op.name ) + " needs argument " +
                                            quoted( op.arguments[ i ].name ) );
        }
    }
    for ( std::size_t i = 0; i < seen.size(); ++i ) {
        const QelAttr::Argument& a = op.arguments[ i ];
        needType( "argument " + quoted( a.name ) + " of operation " + quoted( op.name ), a.typeName,
                  a.info, ordered[ i ] );
    }
    return ordered;
}

} // namespace

AttrAccess::~AttrAccess() = default;
GenericValue AttrAccess::read( const void* ) const {
    throw OpNotSupportedException( "the attribute cannot be read" );
}
void AttrAccess::write( void*, const GenericValue& ) const {
    throw OpNotSupportedException( "the attribute is read-only" );
}
GenericValue AttrAccess::readAt( const void*, const GenericValue& ) const {
    throw BadIndexException( "the attribute has no index" );
}
void AttrAccess::writeAt( void*, const GenericValue&, const GenericValue& ) const {
    throw BadIndexException( "the attribute has no index" );
}
void AttrAccess::deleteAt( void*, const GenericValue& ) const {
    throw BadIndexException( "the attribute has no index" );
}
std::vector< GenericValue > AttrAccess::indices( const void* ) const {
    throw BadIndexException( "the attribute has no index" );
}
GenericValue AttrAccess::call( void*, const std::vector< GenericValue >& ) const {
    throw OpNotSupportedException( "the attribute is not an operation" );
}

Ptr< QelType > AttrAccess::indexType() const { return nullptr; }
Ptr< Counted > AttrAccess::watch( const void*, IndexReaction ) const {
    throw OpNotSupportedException( "the attribute tells no changes" );
}

GenericIf::GenericIf( const Ptr< QelType >& type ) : type_( type ) {}
GenericIf::~GenericIf() = default;

void GenericIf::instanceIs( void* object ) noexcept {
    object_ = object;
    const_ = false;
    entity_ = nullptr;
}

void GenericIf::instanceIs( const void* object ) noexcept {
    instanceIs( const_cast< void* >( object ) );
    const_ = true;
}

void GenericIf::entityIs( const Ptr< Entity >& entity, bool isConst ) {
    entity_ = entity;
    object_ = type_->ops().fromEntity( entity.get() );
    const_ = isConst;
}

void GenericIf::bytesAre( const void* bytes, std::size_t size ) {
    const TypeOps& ops = type_->ops();
    if ( ops.copy && size == ops.size ) {
        held_ = ops.copy( bytes );
    } else if ( ops.decode && size == ops.wireSize ) {
        held_ = ops.decode( bytes );
    } else {
        throw TypeException( "a " + type_->fullName() + " does not fit into " + decimal( size ) +
                             " bytes" );
    }
    instanceIs( held_.address() );
}

String GenericIf::strep() const {
    if ( !object_ || !type_->ops().print ) {
        throw InternalException( "no value of type " + type_->fullName() + " is bound" );
    }
    return type_->ops().print( object_ );
}

const QelAttr& GenericIf::found( const String& name ) const {
    const QelAttr* attr = type_->attr( name );
    if ( !attr ) {
        throw UnknownAttributeException( type_->fullName() + " has no attribute " +
                                         quoted( name ) );
    }
    return *attr;
}

// The named attribute for use as a scalar or with an index.
const QelAttr& GenericIf::data( const String& name, bool indexed ) const {
    const QelAttr& attr = found( name );
    if ( attr.isFunction() ) {
        refuseOperation( name );
    }
    if ( attr.isCollection() != indexed ) {
        throw BadIndexException( "bad index on attribute " + quoted( name ) +
                                 ( indexed ? ": it takes none" : ": it needs one" ) );
    }
    return attr;
}

void GenericIf::needChangeable() const {
    if ( const_ ) {
        throw ConstException( "attempting to modify a const instance" );
    }
}

void* GenericIf::object( const QelAttr& attr ) const {
    if ( !object_ ) {
        throw InternalException( "no value of type " + type_->fullName() + " is bound" );
    }
    return entity_ ? attr.owner->ops().fromEntity( entity_.get() ) : object_;
}

GenericValue GenericIf::read( const QelAttr& attr ) const {
    return attr.access->read( object( attr ) );
}

U32 GenericIf::attributeId( const String& name ) const { return found( name ).id; }

GenericValue GenericIf::attribute( U32 id ) const {
    const QelAttr* attr = type_->attr( id );
    if ( !attr ) {
        throw UnknownAttributeException( type_->fullName() + " has no attribute of id " +
                                         decimal( id ) );
    }
    return read( data( attr->name, false ) );
}

GenericValue GenericIf::attribute( const String& name ) const {
    return read( data( name, false ) );
}

GenericValue GenericIf::attribute( const String& name, const GenericValue& index ) const {
    const QelAttr& attr = data( name, true );
    needType( "the index of attribute " + quoted( name ), attr.access->indexTypeName(),
              attr.access->indexInfo(), index );
    return attr.access->readAt( object( attr ), index );
}

std::vector< GenericValue > GenericIf::attributeIndices( const String& name ) const {
    const QelAttr& attr = data( name, true );
    return attr.access->indices( object( attr ) );
}

Ptr< QelType > GenericIf::attributeIndexType( const String& name ) const {
    return data( name, true ).access->indexType();
}

Ptr< Counted > GenericIf::attributeWatch( const String& name,
                                          AttrAccess::IndexReaction reaction ) const {
    const QelAttr& attr = data( name, true );
    return attr.access->watch( object( attr ), std::move( reaction ) );
}

void GenericIf::attributeIs( const String& name, const GenericValue& value ) {
    const QelAttr& attr = found( name );
    if ( attr.isFunction() ) {
        refuseOperation( name );
    }
    needChangeable();
    data( name, false );
    if ( attr.flags.has( Flags::isReadOnly_ ) || !attr.access->canWrite() ) {
        refuseChange( name );
    }
    needType( "attribute " + quoted( name ), attr.typeName, attr.access->valueInfo(), value );
    attr.access->write( object( attr ), value );
}

void GenericIf::attributeIs( const String& name,
                             const GenericValue& index,
                             const GenericValue& value ) {
    const QelAttr& attr = found( name );
    if ( attr.isFunction() ) {
        refuseOperation( name );
    }
    needChangeable();
    data( name, true );
    if ( !attr.access->canWriteAt() ) {
        refuseChange( name );
    }
    needType( "the index of attribute " + quoted( name ), attr.access->indexTypeName(),
              attr.access->indexInfo(), index );
    needType( "attribute " + quoted( name ), attr.typeName, attr.access->valueInfo(), value );
    attr.access->writeAt( object( attr ), index, value );
}

void GenericIf::attributeDel( const String& name, const GenericValue& index ) {
    const QelAttr& attr = found( name );
    if ( attr.isFunction() ) {
        refuseOperation( name );
    }
    needChangeable();
    data( name, true );
    if ( !attr.access->canDeleteAt() ) {
        refuseChange( name );
    }
    needType( "the index of attribute " + quoted( name ), attr.access->indexTypeName(),
              attr.access->indexInfo(), index );
    attr.access->deleteAt( object( attr ), index );
}

GenericValue GenericIf::call( const String& operation, const GenericArguments& arguments ) {
    const QelAttr& op = found( operation );
    if ( !op.isFunction() ) {
        throw OpNotSupportedException( "attribute " + quoted( operation ) +
                                       " is not an operation" );
    }
    if ( op.flags.has( Flags::isMutating_ ) ) {
        needChangeable();
    }
    const std::vector< GenericValue > ordered = matched( op, arguments );
    return op.access->call( object( op ), ordered );
}

} // namespace Qel
