#include <QelKrell/RootPath>

#include <memory>

#include <Krell/Exception>
#include <Krell/Platform>
#include <Krell/RootPath>
#include <Qel/Describe>
#include <QelKrell/Exception>

template <>
inline constexpr const char* Qel::foreignName< Krell::RootPath > = "Krell::RootPath";

namespace QelKrell {

constexpr auto describe( const RootPath* ) {
    using R = RootPath;
    return Qel::objectType< R >(
        "QelKrell::RootPath", Qel::property( "create", &R::create ),
        Qel::property( "filename", &R::filename ),
        Qel::operation( "removeFile", &R::removeFile, { "name" } ),
        Qel::operation( "exists", &R::exists ),
        Qel::operation( "fullPath", &R::fullPath, { "name" } ),
        Qel::operation( "handleDestruction", &R::handleDestruction ),
        Qel::property( "initialized", &R::initialized, &R::initializedIs ),
        Qel::operation( "handleInitialized", &R::handleInitialized ),
        Qel::property( "rootPathPtr", &R::rootPathPtr, &R::rootPathPtrIs ) );
}

namespace {

const Qel::Unit< RootPath > unit( "root path" );
const Qel::Name krellNameAttr( "krellName" );

// This unit's debug handler.
Krell::Platform::DebugHandler& debug() {
    static auto* const handler = Krell::Platform::getDebugHandler( "Krell" );
    return *handler;
}

// What `call` returns; the collection library's exceptions leave as framework exceptions.
template < class F >
auto translated( F&& call ) {
    try {
        return call();
    } catch ( const Krell::Exception& e ) {
        throwQelKrellException( e );
    }
}

} // namespace

RootPath::RootPath( const Qel::String8& filename, bool create )
    : filename_( filename ), create_( create ) {
    handleInitialized();
}

RootPath::~RootPath() { handleDestruction(); }

void RootPath::handleInitialized() {
    if ( initialized_ ) {
        return;
    }
    translated( [ this ] {
        auto made = std::make_unique< Krell::RootPath >( debug(), filename_.stdString(), create_ );
        // An earlier one that was not usable.
        const std::unique_ptr< Krell::RootPath > replaced( rootPathPtr_ );
        rootPathPtrIs( made.release() );
        if ( rootPathPtr_->ready() ) {
            initializedIs( true );
        }
    } );
}

void RootPath::handleDestruction() {
    delete rootPathPtr_;
    rootPathPtrIs( nullptr );
}

Qel::String8 RootPath::fullPath( const Qel::String8& name ) const {
    return translated(
        [ & ] { return Qel::String8( rootPathPtr_->fullPath( name.stdString() ) ); } );
}

void RootPath::removeFile( const Qel::String8& name ) {
    translated( [ & ] { rootPathPtr_->removeFile( name.stdString() ); } );
}

bool RootPath::exists() const {
    return translated( [ this ] { return rootPathPtr_->exists(); } );
}

void RootPath::cleanup() {
    translated( [ this ] { rootPathPtr_->cleanup(); } );
}

Qel::Ptr< Qel::QelType > RootPath::_fwkType() {
    static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< RootPath >() );
    return *type;
}

Qel::Ptr< Qel::QelType > RootPath::fwkType() const { return _fwkType(); }

RootPath::Ptr rootPathFactory( const Qel::String8& filename, bool create ) {
    return new RootPath( filename, create );
}

} // namespace QelKrell
