// What the tests of the writer-unlock state machine have in common.

#pragma once

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
protected:
    // One turn of the loop, in which no time passes.
    static bool turn() { return Qel::System::runOnce( 0 ); }
    // The time after which a connected state machine looks by itself.
    void tick() { clock.advance( 0.1 ); }

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
