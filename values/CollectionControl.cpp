#include <QelKrell/CollectionControl>

#include <Krell/ControlBase>
#include <Krell/Exception>
#include <Qel/Describe>
#include <QelKrell/Exception>

namespace Qel {

template <>
inline constexpr const char* foreignName< Krell::ControlBase > = "Krell::ControlBase";

} // namespace Qel

namespace QelKrell {

namespace {

// Callers by name see framework exceptions only.
struct Translated {
    template < class F >
    static Qel::GenericValue run( F&& f ) {
        try {
            return f();
        } catch ( const Krell::Exception& e ) {
            throwQelKrellException( e );
        }
    }
};

} // namespace

constexpr auto describe( const CollectionControl* ) {
    using C = CollectionControl;
    return Qel::valueType< C >(
        "QelKrell::CollectionControl", Qel::attribute( "control", &C::control_ ),
        Qel::operation< Translated >( "writerCounters", &C::writerCounters ),
        Qel::operation< Translated >( "readerCounters", &C::readerCounters ),
        Qel::operation< Translated >( "init", &C::init, { "mode", "isLocal", "size" } ),
        Qel::operation< Translated >( "cleanup", &C::cleanup ),
        Qel::operation< Translated >( "rootPath", &C::rootPath ),
        Qel::operation< Translated >( "krellName", &C::krellName ),
        Qel::operation< Translated >( "validate", &C::validate ),
        Qel::operation< Translated >( "mountStatus", &C::mountStatus ),
        Qel::operation< Translated >( "sequence", &C::sequence ),
        Qel::operation< Translated >( "fenixId", &C::fenixId ),
        Qel::operation< Translated >( "owner", &C::owner ),
        Qel::operation< Translated >( "detach", &C::detach ),
        Qel::operation< Translated >( "resize", &C::resize ),
        Qel::operation< Translated >( "maxSize", &C::maxSize ),
        Qel::operation< Translated >( "capacity", &C::capacity ),
        Qel::operation< Translated >( "notifying", &C::notifying, { "notifying_" } ),
        Qel::operation< Translated >( "yieldTimeIs", &C::yieldTimeIs,
                                      { Qel::argument( "yieldTime", "Qel::Seconds" ) } ),
        Qel::operation< Translated >( "sampleIs", &C::sampleIs, { "sample" } ) );
}

namespace {

const Qel::Unit< CollectionControl > unit( "collection control" );

Qel::String8 fromStandard( const std::string& s ) { return Qel::String8( s ); }

} // namespace

CollectionControl::CollectionControl( Qel::StringIteratorConst& it,
                                      const Qel::StringIteratorConst& end )
    : control_( Qel::TextOf< Krell::ControlBase* >::parse( it, end ) ) {}

bool CollectionControl::operator==( const CollectionControl& other ) const {
    return control_ == other.control_;
}

bool CollectionControl::operator!() const { return control_ == nullptr; }

Qel::Ptr< Qel::QelType > CollectionControl::_fwkType() {
    static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< CollectionControl >() );
    return *type;
}

Qel::Ptr< Qel::QelType > CollectionControl::fwkType() const { return _fwkType(); }

void CollectionControl::init( QelKrellType mode, bool isLocal, unsigned int size ) {
    switch ( mode ) {
    case writer:
    case shadow:
    case reader:
    case keyshadow:
        break;
    default:
        throw InvalidInitializeException( "Unrecognized QelKrellType" +
                                          Qel::decimalSigned( mode ) );
    }
    try {
        control_->init( mode, isLocal, size );
    } catch ( const Krell::InvalidInitializeException& e ) {
        throw InvalidInitializeException( e.msg() );
    } catch ( const Krell::CorruptionDetectedException& e ) {
        throw CorruptionDetectedException( e.msg() );
    }
}

QelMountStatus CollectionControl::mountStatus() const {
    const int status = control_->mountStatus();
    if ( status < none || status > connected ) {
        throw InvalidMountStatusException( "Unrecognized Krell::MountStatus" +
                                           Qel::decimalSigned( status ) );
    }
    return QelMountStatus( status );
}

void CollectionControl::cleanup() { control_->cleanup(); }

bool CollectionControl::validate() { return control_->validate(); }

Qel::U64 CollectionControl::sequence() const { return control_->sequence(); }

unsigned int CollectionControl::fenixId() const { return control_->fenixId(); }

void CollectionControl::detach() { control_->detach(); }

bool CollectionControl::resize() const { return control_->resize(); }

unsigned int CollectionControl::maxSize() const { return control_->maxSize(); }

unsigned int CollectionControl::capacity() const { return control_->capacity(); }

void CollectionControl::notifying( bool on ) const { control_->notifying( on ); }

bool CollectionControl::yieldTimeIs( const double& seconds ) const {
    return control_->yieldTimeIs( seconds );
}

void CollectionControl::sampleIs( unsigned int sample ) const { control_->sampleIs( sample ); }

Qel::String8 CollectionControl::owner() const { return fromStandard( control_->owner() ); }

Qel::String8 CollectionControl::krellName() const { return fromStandard( control_->krellName() ); }

Qel::String8 CollectionControl::rootPath() const { return fromStandard( control_->rootPath() ); }

WriterCounters CollectionControl::writerCounters() const {
    try {
        return control_->writerCounters();
    } catch ( const Krell::UnimplementedException& e ) {
        throw Qel::NoImplementationException( e.msg() );
    }
}

ReaderCounters CollectionControl::readerCounters() const {
    try {
        return control_->readerCounters();
    } catch ( const Krell::UnimplementedException& e ) {
        throw Qel::NoImplementationException( e.msg() );
    }
}

Qel::String valueToStrep( const CollectionControl& v ) {
    return Qel::pointerToStrep( Qel::foreignName< Krell::ControlBase >, v.control() );
}

std::ostream& operator<<( std::ostream& os, const CollectionControl& v ) {
    return os << valueToStrep( v );
}

} // namespace QelKrell
