#include <QelKrell/WriterUnlock>

#include <Qel/Describe>

namespace QelKrell {

constexpr auto describe( const WriterUnlock* ) {
    using W = WriterUnlock;
    return Qel::entityType< W >( "QelKrell::WriterUnlock",
                                 Qel::property( "count", &W::count, &W::countIs ) );
}

namespace {

const Qel::Unit< WriterUnlock, WriterUnlockSm > unit( "writer unlock" );
const Qel::Name isNondestructingAttr( "isNondestructing" );
const Qel::Name countAttr( "count" );
const Qel::Name entityPathAttr( "entityPath" );

} // namespace

WriterUnlock::WriterUnlock( const Qel::Name& name ) : Entity( name, _fwkType() ) {}

WriterUnlock::~WriterUnlock() = default;

void WriterUnlock::countIs( Qel::U32 value ) {
    if ( value != count_ ) {
        count_ = value;
        notifiees_.notify( []( Notifiee& n ) { n.onCount(); } );
    }
}

void WriterUnlock::isNondestructingIs( bool on ) {
    if ( on != isNondestructing() ) {
        Entity::isNondestructingIs( on );
        notifiees_.notify( []( Notifiee& n ) { n.onIsNondestructing(); } );
    }
}

void WriterUnlock::zeroReferencesIs( bool on ) {
    if ( on != zeroReferences() ) {
        Entity::zeroReferencesIs( on );
        notifiees_.notify( []( Notifiee& n ) { n.onIsNondestructing(); } );
    }
}

Qel::Ptr< Qel::QelType > WriterUnlock::_fwkType() {
    static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< WriterUnlock >() );
    return *type;
}

WriterUnlock::Ptr writerUnlockFactory( const Qel::Name& name ) { return new WriterUnlock( name ); }

} // namespace QelKrell
