// Directory watches for the collection library.

#include <QelKrell/Platform>

#include <utility>

#include <Qel/Exception>

#include "platform/Positions.h"
#include "platform/WatchEvent.h"
#include "values/DirectTrace.h"

namespace QelKrell {

using position::stepLevel;

WatchDescriptor::WatchDescriptor( Krell::Platform::InotifyHandler* handler,
                                  const Qel::Ptr< Dov::WatchDescriptor >& watch )
    : handler_( handler ), watch_( watch ) {
    if ( !watch_ ) {
        throw Qel::RangeException( "null ValidPtr" );
    }
    notifiee_ = new Notifiee( this );
    notifiee_->notifierIs( watch_ );
    notifiee_->isRegisteredNotifieeIs( true );
    directTrace( stepLevel, position::watchDone, []( std::ostream& text ) {
        text << "QelKrell::WatchDescriptor::WatchDescriptor() done";
    } );
}

WatchDescriptor::~WatchDescriptor() {
    notifiee_->orphan();
    WatchDescriptor::delWatch();
    notifiee_ = nullptr;
}

void WatchDescriptor::setWatch( const std::string& path ) {
    directTrace( stepLevel, position::setWatch, [ & ]( std::ostream& text ) {
        text << "QelKrell::WatchDescriptor::setWatch() registering watch:" << path;
    } );
    watch_->pathIs( Qel::String( path ) );
}

void WatchDescriptor::delWatch() {
    directTrace( stepLevel, position::delWatch, [ & ]( std::ostream& text ) {
        text << "QelKrell::WatchDescriptor::delWatch() deleting watch:" << watch_->path();
    } );
    watch_->pathIs( "" );
}

std::string WatchDescriptor::getWatch() const { return watch_->path().stdString(); }

WatchDescriptor::Notifiee::~Notifiee() {
    directTrace( stepLevel, position::watchNotifieeGone, []( std::ostream& text ) {
        text << "QelKrell::WatchDescriptor::Notifiee::~Notifiee()";
    } );
}

void WatchDescriptor::Notifiee::orphan() {
    directTrace( stepLevel, position::watchOrphan, []( std::ostream& text ) {
        text << "QelKrell::WatchDescriptor::Notifiee::orphan()";
    } );
    owner_ = nullptr;
}

void WatchDescriptor::Notifiee::onWatchCount() {
    if ( !owner_ ) {
        directTrace( stepLevel, position::watchIgnoringOrphan, []( std::ostream& text ) {
            text << "QelKrell::WatchDescriptor::Notifiee::onWatchCount() ignoring orphan";
        } );
        return;
    }
    directTrace( stepLevel, position::watchOnWatchCount, []( std::ostream& text ) {
        text << "QelKrell::WatchDescriptor::onWatchCount()";
    } );
    const Qel::U32 count = owner_->watch_->watchCount();
    if ( std::exchange( owner_->lastWatchCount_, count ) == count ) {
        return;
    }
    const Dov::WatchDescriptor& watch = *owner_->watch_;
    const WatchEvent event { watch.eventDescriptor(), watch.eventMask(), watch.eventCookie(),
                             watch.eventName().stdString() };
    forward( event, *owner_->handler_ );
}

} // namespace QelKrell

namespace Krell::Platform {

InotifyControl* getInotifyControl( InotifyHandler* handler ) {
    return new QelKrell::WatchDescriptor( handler, new Dov::WatchDescriptor( "PlatformWatcher" ) );
}

} // namespace Krell::Platform
