// -*- C++ -*-
// The process's one inotify instance, and who waits for what of it.
//
// The system gives one number to all watches of one object, so several WatchDescriptors may share a
// number. The instance exists while there are watches.

#pragma once

#include <map>
#include <vector>

#include <Dov/WatchDescriptor>
#include <Qel/FileDescriptor>

namespace Dov {

class Inotify {
public:
    static Inotify& inotify();

    // Watches `path` for `watcher` and returns the watch's number.
    Qel::S32 watch( WatchDescriptor& watcher, const Qel::String& path );
    void unwatch( WatchDescriptor& watcher, Qel::S32 watch ) noexcept;

private:
    using Watches = std::multimap< Qel::S32, WatchDescriptor* >;
    class Reactor : public Qel::FileDescriptor::Notifiee {
        void onReadableCount() override { inotify().handleReadable(); }
    };

    Inotify();

    void open();
    void close() noexcept;
    void ownProcess();
    Qel::S32 add( const Qel::String& path );
    Watches::iterator find( Qel::S32 watch, const WatchDescriptor* watcher ) noexcept;

    void handleReadable();
    bool deliver( Qel::S32 watch, Qel::U32 mask, Qel::U32 cookie, const char* name );
    void end( const Watches& ended, Qel::S32 watch, Qel::U32 mask );

    int process_ = 0;         // whose instance it is
    int fd_ = -1;             // the instance; -1: none
    Qel::U32 generation_ = 0; // of the instance: numbers start anew with each
    Watches watches_;
    Qel::FileDescriptor::Ptr file_;
    Qel::Ptr< Reactor > reactor_;
};

} // namespace Dov
