// What the tests of the writer-unlock state machine have in common.

#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

#include <Qel/System>
#include <QelKrell/WriterUnlock>
#include <gmock/gmock.h>

#include "platform/ManualClock.h"
#include "platform/Scratch.h"
#include "platform/Tracing.h"
#include "writerunlock/Writer.h"

namespace QelKrellTest {

// Calls a function at each count.
class CountReactor : public QelKrell::WriterUnlock::Notifiee {
public:
    explicit CountReactor( std::function< void() > then ) : then_( std::move( then ) ) {}
    void onCount() override { then_(); }

private:
    std::function< void() > then_;
};

// A collection's directory, and a state machine that looks at it.
class Watching : public testing::Test {
public:
    // One turn of the loop, in which no time passes.
    static bool turn() { return Qel::System::runOnce( 0 ); }
    // As many as there is something to do in; no time passes.
    static void settle() {
        while ( turn() ) {
        }
    }
    // The time after which a connected state machine looks by itself.
    void tick() { clock.advance( 0.1 ); }

    // The state that it is in, by what it waits for.
    std::string state() const {
        const double next = Qel::ActivityManager::activityManager()->config()->clock()->timeMin();
        if ( next == Qel::neverTime ) {
            const bool connected = sm && sm->helper() && sm->connected();
            return watchesDirectories() ? "deaf" : connected ? "listening" : "idle";
        }
        // 1 s, but for the clock's granularity
        return !watchesDirectories() ? "blind" : next - clock.now() > 0.5 ? "waiting" : "watching";
    }
    // Whether this process has a directory watched.
    static bool watchesDirectories() {
        for ( const auto& file : std::filesystem::directory_iterator( "/proc/self/fdinfo" ) ) {
            std::ifstream in( file.path() );
            for ( std::string line; std::getline( in, line ); ) {
                if ( line.starts_with( "inotify wd:" ) ) {
                    return true;
                }
            }
        }
        return false;
    }

    Qel::Ptr< CountReactor > onCount( std::function< void() > then ) {
        Qel::Ptr< CountReactor > made = new CountReactor( std::move( then ) );
        made->notifierIs( counter );
        made->isRegisteredNotifieeIs( true );
        return made;
    }

    Tracing tracing { "" };
    ManualClock clock;
    Scratch scratch;
    std::string directory = scratch.path( "collection" );
    QelKrell::WriterUnlock::Ptr counter = QelKrell::writerUnlockFactory( "unlocks" );
    QelKrell::WriterUnlockSm::Ptr sm =
        QelKrell::writerUnlockSmFactory( directory, "reading", counter );
};

} // namespace QelKrellTest
