#include <Dov/WatchDescriptor>

#include <Qel/Exception>

#include "Inotify.h"

namespace Dov {

WatchDescriptor::WatchDescriptor( const Qel::Name& name ) : Entity( name ) {}

WatchDescriptor::~WatchDescriptor() {
    if ( watch_ >= 0 ) {
        Inotify::inotify().unwatch( *this, watch_ );
    }
}

void WatchDescriptor::pathIs( const Qel::String& path ) {
    if ( path.find( '\0' ) != Qel::String::npos ) {
        throw Qel::RangeException( "watch '" + fullName() + "': the path holds a NUL byte" );
    }
    if ( path == path_ && ( watch_ >= 0 || path.empty() ) ) {
        return;
    }
    const Qel::S32 watch = path.empty() ? -1 : Inotify::inotify().watch( *this, path );
    if ( watch_ >= 0 && watch_ != watch ) {
        Inotify::inotify().unwatch( *this, watch_ );
    }
    watch_ = watch;
    path_ = path;
}

void WatchDescriptor::eventIs( Qel::S32 descriptor,
                               Qel::U32 mask,
                               Qel::U32 cookie,
                               const Qel::String& name ) {
    eventDescriptor_ = descriptor;
    eventMask_ = mask;
    eventCookie_ = cookie;
    eventName_ = name;
    ++watchCount_;
    notifiees_.notify( []( Notifiee& n ) { n.onWatchCount(); } );
}

} // namespace Dov
