// What an event of a directory watch means to the collection library.

#pragma once

#include <string>

#include <Krell/Platform>
#include <Qel/Types>

namespace QelKrell {

// One event, in the system's terms.
struct WatchEvent {
    Qel::S32 descriptor = 0;
    Qel::U32 mask = 0;
    Qel::U32 cookie = 0;
    std::string name; // of the entry that it is about; empty: the watched object itself
};

// Tells the handler, which may destroy the watch. An error counts before a name, a name before the
// mask.
inline void forward( const WatchEvent& event, Krell::Platform::InotifyHandler& handler ) {
    constexpr Qel::U32 deletedOrMoved = 0x400 | 0x800; // the watched object itself
    if ( event.descriptor < 0 ) {
        handler.watchError( "watch descriptor error" );
    } else if ( !event.name.empty() ) {
        handler.watchEvent( event.name );
    } else if ( event.mask & deletedOrMoved ) {
        handler.watchGone();
    }
}

} // namespace QelKrell
