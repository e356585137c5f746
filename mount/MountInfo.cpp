#include <QelKrell/MountInfo>

#include "values/ValueType.h"

namespace QelKrell {

namespace {

// The map as an entry of the type table: in text it is "None", in comparison it counts.
struct CollectionInfoEntry : Qel::EntryBase {
    using Map = MountInfo::CollectionInfoMap;
    static constexpr bool isData = true;
    Map MountInfo::*member;

    void declare( Qel::IntrospectionReactor& reactor ) const;
    Qel::String print( const MountInfo& ) const { return "None"; }
    void parse( MountInfo&,
                Qel::StringIteratorConst& it,
                const Qel::StringIteratorConst& end ) const {
        Qel::needString( it, end, " None" );
    }
    bool equal( const MountInfo& a, const MountInfo& b ) const {
        const Map& left = a.*member;
        const Map& right = b.*member;
        if ( left.size() != right.size() ) {
            return false;
        }
        for ( Map::Iterator it( left ); it.next(); ) {
            const auto other = right.find( it->key() );
            if ( !other || !( it->collectionInfo() == other->collectionInfo() ) ) {
                return false;
            }
        }
        return true;
    }
};

} // namespace

constexpr auto describe( const CollectionInfo* ) {
    return Qel::valueType< CollectionInfo >(
        "QelKrell::CollectionInfo", Qel::attribute( "name", &CollectionInfo::name_ ),
        Qel::attribute( "size", &CollectionInfo::size_, Qel::low32Bits ) );
}

constexpr auto describe( const MountInfo* ) {
    return Qel::valueType< MountInfo >(
        "QelKrell::MountInfo", Qel::attribute( "mode", &MountInfo::mode_ ),
        Qel::attribute( "cleanup", &MountInfo::cleanup_ ),
        CollectionInfoEntry { { "collectionInfo" }, &MountInfo::collectionInfo_ } );
}

namespace {

// Reads, writes and deletes entries of the map by name.
class CollectionInfoAccess : public Qel::AttrAccess {
public:
    Qel::GenericValue readAt( const void* o, const Qel::GenericValue& index ) const override {
        return Qel::genericValue( info( o ).collectionInfo( *index.as< Qel::String8 >() ) );
    }
    // The index is the value's own name; another one would store it where nobody looks for it.
    void writeAt( void* o,
                  const Qel::GenericValue& index,
                  const Qel::GenericValue& value ) const override {
        const auto& v = *value.as< CollectionInfo >();
        if ( v.name() != *index.as< Qel::String8 >() ) {
            throw Qel::BadIndexException(
                "bad index on attribute 'collectionInfo': the value's name is '" + v.name() + "'" );
        }
        static_cast< MountInfo* >( o )->collectionInfoIs( v );
    }
    void deleteAt( void* o, const Qel::GenericValue& index ) const override {
        static_cast< MountInfo* >( o )->collectionInfoDel( *index.as< Qel::String8 >() );
    }
    std::vector< Qel::GenericValue > indices( const void* o ) const override {
        std::vector< Qel::GenericValue > names;
        for ( auto it = info( o ).collectionInfoIterator(); it.next(); ) {
            names.push_back( Qel::genericValue( it->key() ) );
        }
        return names;
    }
    bool canWriteAt() const override { return true; }
    bool canDeleteAt() const override { return true; }
    const std::type_info* valueInfo() const override { return &typeid( CollectionInfo ); }
    const std::type_info* indexInfo() const override { return &typeid( Qel::String8 ); }
    Qel::String indexTypeName() const override { return Qel::typeNameOf< Qel::String8 >(); }

private:
    static const MountInfo& info( const void* o ) { return *static_cast< const MountInfo* >( o ); }
};

void CollectionInfoEntry::declare( Qel::IntrospectionReactor& reactor ) const {
    reactor.defNoninstantiatingAttr( name, Qel::typeNameOf< CollectionInfo >(),
                                     Qel::AttrFlags::isCollection_,
                                     std::make_shared< CollectionInfoAccess >() );
}

} // namespace

MountInfo::MountInfo( const MountInfo& other ) : MountInfo( other.mode_, other.cleanup_ ) {
    for ( auto it = other.collectionInfoIterator(); it.next(); ) {
        newCollectionInfo( it->collectionInfo() );
    }
}

MountInfo& MountInfo::operator=( const MountInfo& other ) {
    if ( this != &other ) {
        mode_ = other.mode_;
        cleanup_ = other.cleanup_;
        collectionInfo_.clear();
        for ( auto it = other.collectionInfoIterator(); it.next(); ) {
            newCollectionInfo( it->collectionInfo() );
        }
    }
    return *this;
}

MountInfo::~MountInfo() = default;

CollectionInfo MountInfo::collectionInfo( const Qel::String8& name ) const {
    const auto node = collectionInfo_.find( name );
    return node ? node->info_ : CollectionInfo();
}

void MountInfo::collectionInfoIs( const CollectionInfo& info ) {
    const auto node = collectionInfo_.find( info.name() );
    if ( node ) {
        node->info_ = info;
    } else {
        newCollectionInfo( info );
    }
}

Qel::Ptr< MountInfo::QelCollectionInfo > MountInfo::newCollectionInfo(
    const CollectionInfo& info ) {
    Qel::Ptr< QelCollectionInfo > node = new QelCollectionInfo( info );
    collectionInfo_.insert( node );
    return node;
}

void MountInfo::collectionInfoDel( const Qel::String8& name ) { collectionInfo_.remove( name ); }

void MountInfo::collectionInfoDelAll() { collectionInfo_.clear(); }

QELKRELL_VALUE_TYPE( CollectionInfo )
QELKRELL_VALUE_TYPE( MountInfo )

} // namespace QelKrell
