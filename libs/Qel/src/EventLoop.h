// -*- C++ -*-
// The one epoll loop behind System.
//
// Two epoll sets. The inner one holds the watched descriptors; it is made anew when it holds a file
// that can no longer be taken out, because its descriptor was closed behind our back while a
// duplicate of it lives. The outer one holds the inner one, the timer of the clock's earliest
// wake-up, and the event by which stop() ends a wait; its descriptor is what embedders wait for, so
// it stays.

#pragma once

#include <atomic>
#include <map>
#include <memory>

#include <Qel/Clock>
#include <Qel/FileDescriptor>

namespace Qel {

// An open descriptor of our own.
class OwnedFd {
public:
    // `made` as a system call returned it. SystemException when it failed.
    OwnedFd( int made, const char* call );
    ~OwnedFd();
    OwnedFd( const OwnedFd& ) = delete;
    OwnedFd& operator=( const OwnedFd& ) = delete;

    operator int() const noexcept { return fd_; }

private:
    int fd_;
};

class EventLoop {
public:
    // Made on first use. SystemException when the system has no descriptors left.
    static EventLoop& eventLoop();
    // The earliest wake-up of a clock may have changed.
    static void handleClock() noexcept;

    static void stop() noexcept;
    // Whether a stop was asked for; forgets it.
    bool takeStop() noexcept;

    // Watches `fd`, which nobody watches yet, and returns the watch's number, never 0. When the
    // number was that of a closed file that is still being watched, `former` is who did: it is
    // without descriptor now and its reactors are to be told. SystemException when it cannot be
    // watched.
    U64 watch( int fd, FileDescriptor& owner, FileDescriptor::Ptr& former );
    void unwatch( U64 id ) noexcept;

    int descriptor();

    // Whether something may end a wait of `maxSeconds`, stop() aside.
    bool canWake( Seconds maxSeconds ) const;
    bool turn( Seconds maxSeconds );

    // While it lives, the loop runs. InternalException when it does already.
    class Running {
    public:
        Running( EventLoop& loop, const char* operation );
        ~Running();
        Running( const Running& ) = delete;
        Running& operator=( const Running& ) = delete;

    private:
        EventLoop& loop_;
    };

private:
    struct Watch {
        U64 id; // a serial above the descriptor's number
        FileDescriptor* owner;
    };
    using Watches = std::map< int, Watch >; // by descriptor
    struct Descriptors {
        Descriptors();
        OwnedFd outer;
        OwnedFd timer;
        OwnedFd wake;
        std::unique_ptr< OwnedFd > inner;
    };

    EventLoop();

    void ownProcess();
    void addInner( int inner ) const;
    void rebuildInner();
    FileDescriptor* ownerOf( U64 id ) const noexcept;
    FileDescriptor& takeClosed( Watches::iterator at );
    bool dropClosed();
    void armTimer() noexcept;
    bool serveDescriptors();
    void drainWake() noexcept;

    const Clock::Ptr clock_;
    int process_; // whose descriptors these are
    std::unique_ptr< Descriptors > descriptors_;
    Watches watches_;
    U32 lastSerial_ = 0;
    bool isInnerStale_ = false;
    bool isRunning_ = false;
    Seconds timerTime_ = neverTime; // what the timer is set to; NaN: unknown
};

} // namespace Qel
