#include <Qel/FileDescriptor>

#include <Qel/Exception>

#include "EventLoop.h"

namespace Qel {

FileDescriptor::FileDescriptor( const Name& name ) : Entity( name ) {}

FileDescriptor::~FileDescriptor() { unwatch(); }

void FileDescriptor::unwatch() noexcept {
    if ( watch_ != 0 ) {
        EventLoop::eventLoop().unwatch( watch_ );
        watch_ = 0;
    }
}

void FileDescriptor::descriptorIs( int descriptor ) {
    if ( descriptor < -1 ) {
        throw RangeException( "descriptor " + decimalSigned( descriptor ) + " of '" + fullName() +
                              "': -1 is the only negative one" );
    }
    if ( descriptor == descriptor_ ) {
        renew();
        return;
    }
    Ptr former;
    U64 watch = 0;
    if ( descriptor >= 0 && notifyOnReadable_ ) {
        watch = EventLoop::eventLoop().watch( descriptor, *this, former );
    }
    unwatch();
    watch_ = watch;
    descriptor_ = descriptor;
    handleDescriptor(); // this object may be gone after it
    if ( former ) {
        former->handleDescriptor();
    }
}

// Watches again: the number may stand for another file by now.
void FileDescriptor::renew() {
    if ( watch_ == 0 ) {
        return;
    }
    unwatch();
    Ptr former;
    try {
        watch_ = EventLoop::eventLoop().watch( descriptor_, *this, former );
    } catch ( const SystemException& ) {
        descriptor_ = -1;
        handleDescriptor();
        throw;
    }
}

void FileDescriptor::notifyOnReadableIs( bool on ) {
    Ptr former;
    if ( on && descriptor_ >= 0 && watch_ == 0 ) {
        watch_ = EventLoop::eventLoop().watch( descriptor_, *this, former );
    } else if ( !on ) {
        unwatch();
    }
    notifyOnReadable_ = on;
    if ( former ) {
        former->handleDescriptor();
    }
}

void FileDescriptor::handleReadable() {
    ++readableCount_;
    notifiees_.notify( []( Notifiee& n ) { n.onReadableCount(); } );
}

void FileDescriptor::handleDescriptor() {
    notifiees_.notify( []( Notifiee& n ) { n.onDescriptor(); } );
}

} // namespace Qel
