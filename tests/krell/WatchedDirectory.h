// For tests of watched directories: the system's events at a time of the test's choice, and a
// handler that counts what it is told.

#pragma once

#include <array>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

#include <sys/inotify.h>

#include <Krell/DirectoryWatch>
#include <Krell/Fd>

#include "krell/Hooks.h"

namespace KrellTest {

// The system's watch. Its events wait until the test asks for them; the test can do something
// around each setting, or refuse it.
class RealWatch : public Krell::Platform::InotifyControl {
public:
    explicit RealWatch( Krell::Platform::InotifyHandler* h )
        : handler( h ), fd_( inotify_init1( IN_NONBLOCK | IN_CLOEXEC ) ) {
        only = this;
    }
    ~RealWatch() override { only = nullptr; }

    void setWatch( const std::string& path ) override {
        ++settings;
        if ( path == path_ && number_ >= 0 ) {
            return;
        }
        call( beforeSetting );
        if ( !refusal.empty() ) {
            throw std::runtime_error( refusal );
        }
        const int number = inotify_add_watch( fd_.get(), path.c_str(), mask );
        if ( number < 0 ) {
            throw std::runtime_error( std::strerror( errno ) );
        }
        number_ = number;
        path_ = path;
        call( afterSetting );
    }
    void delWatch() override {
        if ( number_ >= 0 ) {
            inotify_rm_watch( fd_.get(), number_ );
        }
        number_ = -1;
        path_.clear();
    }
    std::string getWatch() const override { return path_; }

    // Tells all events that are there by now.
    static void tellAll() {
        alignas( inotify_event ) std::array< char, 65536 > buffer;
        ssize_t length = 0;
        while ( only && ( length = ::read( only->fd_.get(), buffer.data(), buffer.size() ) ) > 0 ) {
            for ( ssize_t at = 0; only && at < length; ) {
                const auto* event = reinterpret_cast< const inotify_event* >( &buffer[ at ] );
                at += ssize_t( sizeof( inotify_event ) + event->len );
                if ( event->wd == only->number_ ) {
                    only->tell( *event );
                }
            }
        }
    }

    static inline RealWatch* only = nullptr;
    static inline unsigned settings = 0;
    static inline std::string refusal;
    static inline std::function< void() > beforeSetting;
    static inline std::function< void() > afterSetting;

    Krell::Platform::InotifyHandler* const handler;

private:
    static constexpr unsigned mask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_CLOSE_WRITE;

    static void call( const std::function< void() >& hook ) {
        if ( hook ) {
            hook();
        }
    }
    void tell( const inotify_event& event ) {
        if ( event.len > 0 ) {
            handler->watchEvent( event.name );
        } else if ( event.mask & ( IN_DELETE_SELF | IN_MOVE_SELF ) ) {
            handler->watchGone();
        }
    }

    const Krell::Fd fd_;
    int number_ = -1;
    std::string path_;
};

inline Krell::Platform::InotifyControl* makeRealWatch( Krell::Platform::InotifyHandler* handler ) {
    return new RealWatch( handler );
}

class WatchedDirectory : public testing::Test, public Krell::DirectoryWatch::Handler {
protected:
    WatchedDirectory() {
        RealWatch::settings = 0;
        debug.levels = { 1 };
    }
    ~WatchedDirectory() {
        RealWatch::refusal.clear();
        RealWatch::beforeSetting = RealWatch::afterSetting = nullptr;
    }

    void handleDirectoryChanged() override {
        ++told_;
        if ( onTold ) {
            onTold();
        }
    }

    void make( const std::string& name ) const {
        std::filesystem::create_directories( root / name );
    }
    void remove( const std::string& name ) const { std::filesystem::remove_all( root / name ); }
    void move( const std::string& from, const std::string& to ) const {
        std::filesystem::rename( root / from, root / to );
    }

    // How often the handler is told of what has happened by now, or was already.
    unsigned told() {
        RealWatch::tellAll();
        return std::exchange( told_, 0 );
    }
    // Where the watch stands, below the root.
    std::string place() const {
        const std::string path = RealWatch::only ? RealWatch::only->getWatch() : "";
        return path == root.path()                     ? "."
               : path.starts_with( root.path() + "/" ) ? path.substr( root.path().size() + 1 )
                                                       : path;
    }

    TestRoot root;
    RecordingDebugHandler debug;
    std::unique_ptr< Krell::DirectoryWatch > watch =
        std::make_unique< Krell::DirectoryWatch >( debug, *this, &makeRealWatch );
    std::function< void() > onTold;

private:
    unsigned told_ = 0;
};

} // namespace KrellTest
