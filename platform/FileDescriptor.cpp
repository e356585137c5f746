// Readability of file descriptors for the collection library.

#include <QelKrell/Platform>

#include <utility>

#include <Qel/Exception>

#include "platform/Positions.h"
#include "values/DirectTrace.h"

namespace QelKrell {

using position::stepLevel;

FileDescriptor::FileDescriptor( Krell::Platform::FdEventHandler* handler,
                                const Qel::Ptr< Qel::FileDescriptor >& file )
    : handler_( handler ), file_( file ) {
    if ( !file_ ) {
        throw Qel::RangeException( "null ValidPtr" );
    }
    notifiee_ = new Notifiee( this, file_->descriptor() );
    notifiee_->notifierIs( file_ );
    notifiee_->isRegisteredNotifieeIs( true );
    directTrace( stepLevel, position::fdDone, [ this ]( std::ostream& text ) {
        text << "QelKrell::FileDescriptor::FileDescriptor() done, ref:" << notifiee_->references();
    } );
}

FileDescriptor::~FileDescriptor() {
    notifiee_->orphan();
    FileDescriptor::delFd();
    notifiee_ = nullptr;
}

void FileDescriptor::setFd( int fd ) {
    directTrace( stepLevel, position::setFd, [ fd ]( std::ostream& text ) {
        text << "QelKrell::FileDescriptor::setFd() registering fd:" << fd;
    } );
    file_->notifyOnReadableIs( true );
    file_->descriptorIs( fd );
    notifiee_->fdIs( fd );
}

void FileDescriptor::delFd() {
    directTrace( stepLevel, position::delFd, [ this ]( std::ostream& text ) {
        text << "QelKrell::FileDescriptor::delFd() deleting fd:" << file_->descriptor();
    } );
    file_->descriptorIs( -1 );
}

int FileDescriptor::getFd() const { return file_->descriptor(); }

FileDescriptor::Notifiee::~Notifiee() {
    directTrace( stepLevel, position::fdNotifieeGone, [ this ]( std::ostream& text ) {
        text << "QelKrell::FileDescriptor::Notifiee::~Notifiee() fd:" << fd_;
    } );
}

void FileDescriptor::Notifiee::orphan() {
    directTrace( stepLevel, position::fdOrphan, [ this ]( std::ostream& text ) {
        text << "QelKrell::FileDescriptor::Notifiee::orphan() fd:" << fd_;
    } );
    owner_ = nullptr;
}

void FileDescriptor::Notifiee::onReadableCount() {
    if ( !owner_ ) {
        directTrace( stepLevel, position::fdIgnoringOrphan, [ this ]( std::ostream& text ) {
            text << "QelKrell::FileDescriptor::Notifiee::onReadableCount() fd:" << fd_
                 << " ignoring orphan";
        } );
        return;
    }
    const Qel::U32 count = owner_->file_->readableCount();
    directTrace( stepLevel, position::fdOnReadableCount, [ & ]( std::ostream& text ) {
        text << "QelKrell::FileDescriptor::onReadableCount() fd:" << owner_->file_->descriptor()
             << " readableCount:" << count;
    } );
    if ( std::exchange( owner_->lastReadableCount_, count ) != count ) {
        owner_->handler_->fdEvent( owner_->getFd() );
    }
}

} // namespace QelKrell

namespace Krell::Platform {

FdControl* getFdControl( FdEventHandler* handler ) {
    return new QelKrell::FileDescriptor( handler, new Qel::FileDescriptor( "PlatformFd" ) );
}

} // namespace Krell::Platform
