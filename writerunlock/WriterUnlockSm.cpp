#include <QelKrell/WriterUnlock>

#include <memory>

#include <Krell/RootPath>
#include <Qel/Assert>
#include <Qel/Describe>

#include "platform/DebugText.h"

template <>
inline constexpr const char* Qel::foreignName< QelKrell::WriterUnlockHelper > =
    "QelKrell::WriterUnlockHelper";

namespace QelKrell {

constexpr auto describe( const WriterUnlockSm* ) {
    using S = WriterUnlockSm;
    return Qel::objectType< S >( "QelKrell::WriterUnlockSm",
                                 Qel::property( "entityPath", &S::entityPath ),
                                 Qel::property( "instanceName", &S::instanceName ),
                                 Qel::property( "writerUnlock", &S::writerUnlock ),
                                 Qel::property( "helper", &S::helper, &S::helperIs ),
                                 Qel::property( "connected", &S::connected, &S::connectedIs ),
                                 Qel::operation( "handleDestruction", &S::handleDestruction ),
                                 Qel::property( "initialized", &S::initialized, &S::initializedIs ),
                                 Qel::operation( "handleInitialized", &S::handleInitialized ) );
}

namespace {

constexpr int stepLevel = 5;

constexpr const char* source = "src-includes/QelKrell/WriterUnlock";
constexpr Qel::SourcePosition needsWriterUnlock {
    source, 16, "void QelKrell::WriterUnlockSm::handleInitialized()"
};
constexpr Qel::SourcePosition needsInitialized {
    source, 47, "void QelKrell::WriterUnlockSm::connectedIs(bool)"
};

// This unit's debug handler.
Krell::Platform::DebugHandler& debug() {
    static auto* const handler = Krell::Platform::getDebugHandler( "KrellWriterUnlock" );
    return *handler;
}

} // namespace

WriterUnlockSm::WriterUnlockSm( const Qel::Name& name,
                                const Qel::String8& instanceName,
                                const WriterUnlock::Ptr& writerUnlock )
    : Entity( name, _fwkType() ), instanceName_( instanceName ), writerUnlock_( writerUnlock ) {
    handleInitialized();
}

WriterUnlockSm::~WriterUnlockSm() {
    handleDestruction();
    notifiees_.clear();
}

void WriterUnlockSm::helperIs( WriterUnlockHelper* helper ) {
    if ( helper != helper_ ) {
        helper_ = helper;
        notifiees_.notify( []( Notifiee& n ) { n.onHelper(); } );
    }
}

void WriterUnlockSm::initializedIs( bool initialized ) {
    if ( initialized != initialized_ ) {
        initialized_ = initialized;
        notifiees_.notify( []( Notifiee& n ) { n.onInitialized(); } );
    }
}

void WriterUnlockSm::handleInitialized() {
    debugText( debug(), stepLevel, [ this ]( std::ostream& text ) {
        text << "QelKrell::WriterUnlockSm::handleInitialized() for name= " << name()
             << ", instanceName=" << instanceName_;
    } );
    Qel::assertThat( bool( writerUnlock_ ), "writerUnlock_ != __null", needsWriterUnlock );
    const std::string instance = instanceName_ == "" ? "None" : instanceName_.stdString();
    const Krell::RootPath root( debug(), name().string().stdString(), false );
    auto made = std::make_unique< WriterUnlockHelper >( debug(), instance, root, this );
    const std::unique_ptr< WriterUnlockHelper > replaced( helper_ );
    helperIs( made.release() );
    initialized_ = true;
    if ( connected_ ) { // initialised anew
        helper_->doConnect();
    }
}

void WriterUnlockSm::connectedIs( bool connected ) {
    debugText( debug(), stepLevel, [ connected ]( std::ostream& text ) {
        text << "QelKrell::WriterUnlockSm::connectedIs( " << connected << " ) invoked";
    } );
    Qel::assertThat(
        initialized_,
        "initialized_ && \"QelKrell::WriterUnlockSm::connectedIs() failed: not initialized\"",
        needsInitialized );
    connected_ = connected;
    if ( !helper_ ) {
        throw Qel::InternalException( "QelKrell::WriterUnlockSm '" + name().string() +
                                      "' has released its helper" );
    }
    if ( connected ) {
        helper_->doConnect();
    } else {
        helper_->doDisconnect();
    }
}

void WriterUnlockSm::handleDestruction() {
    debugText( debug(), stepLevel, []( std::ostream& text ) {
        text << "QelKrell::WriterUnlockSm::~WriterUnlockSm()";
    } );
    delete helper_;
    helperIs( nullptr );
}

void WriterUnlockSm::isNondestructingIs( bool on ) {
    if ( on != isNondestructing() ) {
        Entity::isNondestructingIs( on );
        notifiees_.notify( []( Notifiee& n ) { n.onIsNondestructing(); } );
    }
}

void WriterUnlockSm::zeroReferencesIs( bool on ) {
    if ( on != zeroReferences() ) {
        Entity::zeroReferencesIs( on );
        notifiees_.notify( []( Notifiee& n ) { n.onIsNondestructing(); } );
    }
}

Qel::Ptr< Qel::QelType > WriterUnlockSm::_fwkType() {
    static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< WriterUnlockSm >() );
    return *type;
}

WriterUnlockHelper::WriterUnlockHelper( Krell::Platform::DebugHandler& debug,
                                        const std::string& instance,
                                        const Krell::RootPath& root,
                                        QelKrell::WriterUnlockSm* owner )
    : Krell::WriterUnlockSm( debug, instance, root ), owner_( owner ) {}

WriterUnlockHelper::~WriterUnlockHelper() = default;

void WriterUnlockHelper::handleUnlocked() {
    debugText( debug(), stepLevel, [ this ]( std::ostream& text ) {
        text << "WriterUnlockHelper::handleUnlocked() for instanceName=" << instance()
             << ", connected=" << owner_->connected();
    } );
    if ( owner_->connected() ) {
        // A reactor may let the state machine go, and this helper with it.
        const WriterUnlock::Ptr counter = owner_->writerUnlock();
        counter->countInc( 1 );
    }
}

WriterUnlockSm::Ptr writerUnlockSmFactory( const Qel::Name& name,
                                           const Qel::String8& instanceName,
                                           const WriterUnlock::Ptr& writerUnlock ) {
    return new WriterUnlockSm( name, instanceName, writerUnlock );
}

} // namespace QelKrell
