#include <QelKrell/KrellEntities>

#include <Qel/Describe>

namespace QelKrell {

constexpr auto describe( const KrellEntities* ) {
    using K = KrellEntities;
    return Qel::entityType< K >(
        "QelKrell::KrellEntities",
        Qel::indexed( "count", &K::count, &K::names, &K::countIs, &K::countDel ),
        Qel::indexed( "path", &K::path, &K::names ),
        Qel::property( "isNondestructing", &K::isNondestructing, &K::isNondestructingIs ),
        Qel::property( "zeroReferences", &K::zeroReferences, &K::zeroReferencesIs ) );
}

KrellEntities::KrellEntities( const Qel::Name& name ) : Entity( name, _fwkType() ) {}

KrellEntities::~KrellEntities() = default;

Qel::U32 KrellEntities::count( Qel::String8 name ) const {
    const auto node = counts_.find( name );
    return node ? node->count_ : 0;
}

Qel::U32 KrellEntities::path( Qel::String8 name ) const { return count( std::move( name ) ); }

std::vector< Qel::String8 > KrellEntities::names() const {
    std::vector< Qel::String8 > all;
    for ( CountIterator it = countIterator(); it.next(); ) {
        all.push_back( it->key() );
    }
    return all;
}

Qel::Ptr< KrellEntities::QelCount > KrellEntities::newCount( Qel::String8 name, Qel::U32 value ) {
    Qel::Ptr< QelCount > node = new QelCount( name, value );
    counts_.insert( node );
    countNotify( name, node );
    return node;
}

void KrellEntities::countIs( Qel::String8 name, Qel::U32 value ) {
    const auto node = counts_.find( name );
    if ( !node ) {
        newCount( name, value );
    } else if ( node->count_ != value ) {
        node->count_ = value;
        countNotify( name, node );
    }
}

Qel::U32 KrellEntities::countInc( Qel::String8 name, Qel::U32 n ) {
    const Qel::U32 value = count( name ) + n;
    countIs( std::move( name ), value );
    return value;
}

Qel::U32 KrellEntities::countDec( Qel::String8 name, Qel::U32 n ) {
    const Qel::U32 value = count( name ) - n;
    countIs( std::move( name ), value );
    return value;
}

Qel::U32 KrellEntities::countDel( Qel::String8 name ) {
    const auto node = counts_.remove( name );
    if ( !node ) {
        return 0;
    }
    const Qel::U32 value = node->count_;
    countNotify( name, node );
    return value;
}

void KrellEntities::countDelAll() {
    for ( CountIterator it = countIterator(); it.next(); ) {
        countDel( it->key() );
    }
}

void KrellEntities::countNotify( const Qel::String8& name, const Qel::Ptr< QelCount >& ) {
    notifiees_.notify( [ & ]( NotifieeConst& n ) { n.onCount( name ); } );
}

void KrellEntities::isNondestructingIs( bool on ) {
    if ( on != isNondestructing() ) {
        Entity::isNondestructingIs( on );
        notifiees_.notify( []( NotifieeConst& n ) { n.onIsNondestructing(); } );
    }
}

void KrellEntities::zeroReferencesIs( bool on ) { Entity::zeroReferencesIs( on ); }

Qel::Ptr< Qel::QelType > KrellEntities::_fwkType() {
    static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< KrellEntities >() );
    return *type;
}

KrellEntities::Ptr krellEntitiesFactory( const Qel::Name& name ) {
    return Qel::Entity::singletonIs< KrellEntities >( name );
}

} // namespace QelKrell
