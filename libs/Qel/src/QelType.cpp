#include <Qel/QelType>

#include <algorithm>
#include <map>
#include <mutex>

#include <Qel/Assert>
#include <Qel/Exception>
#include <Qel/GenericIf>

namespace Qel {

namespace {

constexpr SourcePosition flagsPosition {
    "src-includes/Qel/QelAttr", 41,
    "Qel::QelAttr::QelAttrIntrospectionFlags::QelAttrIntrospectionFlags(Qel::U32)"
};

struct Registry {
    std::mutex mutex;
    std::map< std::string, Ptr< QelType >, std::less<> > types;
};

// Never destroyed: types are used by the destructors of other static objects.
Registry& registry() {
    static auto* const r = new Registry;
    return *r;
}

String kindOf( const QelAttr& attr ) {
    const String type = attr.typeName.empty() ? String( "nothing" ) : attr.typeName;
    if ( attr.isFunction() ) {
        return "an operation that returns " + type;
    }
    return attr.isCollection() ? "a collection of " + type : type;
}

} // namespace

QelAttr::QelAttrIntrospectionFlags::QelAttrIntrospectionFlags( U32 value ) : value_( value ) {
    assertThat( value <= 0x3f, "QelAttrIntrospectionFlags::value > 0x3f not allowed",
                flagsPosition );
}

QelType::QelType( const String& fullName, const TypeOps& ops, const Ptr< QelType >& base )
    : fullName_( fullName ), ops_( ops ), base_( base ) {}

QelType::~QelType() = default;

String QelType::shortName() const {
    const std::size_t colon = fullName_.rfind( ':' );
    return colon == String::npos ? fullName_ : fullName_.substr( colon + 1 );
}

Ptr< QelType > QelType::typeNode( const String& fullName ) {
    Registry& r = registry();
    const std::lock_guard guard( r.mutex );
    const auto found = r.types.find( fullName.stdString() );
    return found == r.types.end() ? nullptr : found->second;
}

std::vector< String > QelType::typeNames() {
    Registry& r = registry();
    const std::lock_guard guard( r.mutex );
    std::vector< String > names;
    for ( const auto& [ name, type ] : r.types ) {
        names.emplace_back( name );
    }
    return names;
}

void QelType::typeNodeIs( const String& fullName ) {
    Registry& r = registry();
    const std::lock_guard guard( r.mutex );
    const auto [ at, isNew ] = r.types.try_emplace( fullName.stdString(), this );
    if ( !isNew && at->second != this ) {
        throw RangeException( "there is a type named " + fullName + " already" );
    }
    nodeName_ = fullName;
}

void QelType::attrIs( QelAttr attr ) {
    attr.id = nextId_++;
    attr.owner = this;
    attrs_.push_back( std::make_unique< const QelAttr >( std::move( attr ) ) );
}

std::vector< const QelAttr* > QelType::attributes() const {
    std::vector< const QelAttr* > all;
    if ( base_ ) {
        all = base_->attributes();
    }
    std::transform( attrs_.begin(), attrs_.end(), std::back_inserter( all ),
                    []( const auto& a ) { return a.get(); } );
    return all;
}

const QelAttr* QelType::attr( const String& name ) const noexcept {
    for ( const auto& a : attrs_ ) {
        if ( a->name == name ) {
            return a.get();
        }
    }
    return base_ ? base_->attr( name ) : nullptr;
}

const QelAttr* QelType::attr( U32 id ) const noexcept {
    for ( const auto& a : attrs_ ) {
        if ( a->id == id ) {
            return a.get();
        }
    }
    return base_ ? base_->attr( id ) : nullptr;
}

String QelType::attrName( U32 id ) const {
    const QelAttr* a = attr( id );
    return a ? a->name : String( "unknown" );
}

String QelType::differenceOf( const QelType& other ) const {
    for ( const auto& a : attrs_ ) {
        const QelAttr* const b = other.attr( a->name );
        if ( !b ) {
            return "it has no " + a->name;
        }
        if ( a->typeName != b->typeName || a->flags.value() != b->flags.value() ) {
            return a->name + " is " + kindOf( *b ) + ", not " + kindOf( *a );
        }
        if ( a->id != b->id ) {
            return a->name + " has another place";
        }
    }
    if ( other.attrs_.size() > attrs_.size() ) {
        return "it has " + other.attrs_[ attrs_.size() ]->name + " more";
    }
    if ( enumValues_ != other.enumValues_ ) {
        return "it has other values";
    }
    if ( ops_.size != other.ops_.size ) {
        return "it has " + decimal( other.ops_.size ) + " bytes, not " + decimal( ops_.size );
    }
    return String();
}

void QelType::enumValueIs( S64 number, const String& name ) {
    enumValues_.emplace_back( number, name );
}

Ptr< GenericIf > QelType::genericIf() { return new GenericIf( this ); }

GenericValue::GenericValue( std::shared_ptr< const void > value,
                            const std::type_info& info,
                            Ptr< QelType > type )
    : value_( std::move( value ) ), info_( &info ), type_( std::move( type ) ) {}
GenericValue::~GenericValue() = default;
GenericValue::GenericValue( const GenericValue& ) = default;
GenericValue::GenericValue( GenericValue&& ) noexcept = default;
GenericValue& GenericValue::operator=( GenericValue o ) noexcept {
    value_ = std::move( o.value_ );
    info_ = o.info_;
    type_ = std::move( o.type_ );
    return *this;
}

String GenericValue::typeName() const { return type_ ? type_->fullName() : String( "none" ); }

String GenericValue::strep() const {
    return type_ ? type_->ops().print( value_.get() ) : String( "None" );
}

bool GenericValue::operator==( const GenericValue& o ) const {
    if ( !info_ || !o.info_ ) {
        return info_ == o.info_;
    }
    return *info_ == *o.info_ && type_->ops().equal( value_.get(), o.value_.get() );
}

} // namespace Qel
