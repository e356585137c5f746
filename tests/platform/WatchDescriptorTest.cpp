// Directory watches of the collection library, on the system's own events.

#include <QelKrell/Platform>

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include <Qel/Exception>
#include <Qel/System>
#include <gmock/gmock.h>

#include "Raised.h"
#include "platform/InotifyLimit.h"
#include "platform/Scratch.h"
#include "platform/Tracing.h"
#include "platform/WatchEvent.h"

namespace {

using QelKrellTest::Message;
using QelKrellTest::Tracing;
using testing::AllOf;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

class WatchHandler : public Krell::Platform::InotifyHandler {
public:
    void watchError( const std::string& text ) override { add( "error " + text ); }
    void watchGone() override { add( "gone" ); }
    void watchEvent( const std::string& name ) override { add( "event " + name ); }

    std::vector< std::string > events;
    std::function< void() > then;

private:
    void add( const std::string& event ) {
        events.push_back( event );
        if ( then ) {
            then();
        }
    }
};

Message watchMessage( unsigned line, const std::string& function, const std::string& text ) {
    return { "Krell", "Platform", line, function, 5, "QelKrell::WatchDescriptor::" + text };
}

class WatchDescriptor : public testing::Test {
protected:
    QelKrell::WatchDescriptor& adapter() {
        return dynamic_cast< QelKrell::WatchDescriptor& >( *control );
    }
    // Everything that the system has to tell.
    void drain() {
        while ( Qel::System::runOnce( 0 ) ) {
        }
    }
    void touch( const std::string& name ) { std::ofstream( scratch.path( name ) ) << "x"; }

    Tracing tracing { "" };
    QelKrellTest::Scratch scratch;
    WatchHandler handler;
    std::unique_ptr< Krell::Platform::InotifyControl > control { Krell::Platform::getInotifyControl(
        &handler ) };
};

TEST_F( WatchDescriptor, IsMadeIdleOnAFrameworkWatch ) {
    EXPECT_EQ( control->getWatch(), "" );
    EXPECT_EQ( adapter().watch()->name(), Qel::Name( "PlatformWatcher" ) );
    EXPECT_TRUE( adapter().notifiee()->isRegisteredNotifiee() );
    EXPECT_EQ( adapter().notifiee()->notifier(), adapter().watch().get() );
}

TEST_F( WatchDescriptor, ANullFrameworkWatchIsRefused ) {
    const auto make = [ this ] { QelKrell::WatchDescriptor( &handler, nullptr ); };
    EXPECT_EQ( QelKrellTest::raised< Qel::RangeException >( make ), "null ValidPtr" );
}

TEST_F( WatchDescriptor, NamesTheEntriesThatChanged ) {
    control->setWatch( scratch.path() );
    EXPECT_EQ( control->getWatch(), scratch.path() );
    std::filesystem::create_directory( scratch.path( "made" ) );
    std::filesystem::rename( scratch.path( "made" ), scratch.path( "moved" ) );
    std::filesystem::remove( scratch.path( "moved" ) );
    drain();
    EXPECT_THAT( handler.events,
                 ElementsAre( "event made", "event made", "event moved", "event moved" ) );
}

TEST_F( WatchDescriptor, EveryEventOfAQueueIsForwarded ) {
    control->setWatch( scratch.path() );
    std::vector< std::string > expected;
    for ( int i = 0; i < 200; ++i ) {
        const auto name = std::to_string( i );
        std::filesystem::create_directory( scratch.path( name ) );
        expected.push_back( "event " + name );
    }
    drain();
    EXPECT_EQ( handler.events, expected );
}

TEST_F( WatchDescriptor, TellsOnceThatTheDirectoryWasDeleted ) {
    std::filesystem::create_directory( scratch.path( "d" ) );
    control->setWatch( scratch.path( "d" ) );
    std::filesystem::remove( scratch.path( "d" ) );
    drain();
    EXPECT_THAT( handler.events, ElementsAre( "gone" ) );
}

TEST_F( WatchDescriptor, TellsThatTheDirectoryWasMoved ) {
    std::filesystem::create_directory( scratch.path( "d" ) );
    control->setWatch( scratch.path( "d" ) );
    std::filesystem::rename( scratch.path( "d" ), scratch.path( "e" ) );
    drain();
    EXPECT_THAT( handler.events, ElementsAre( "gone" ) );
}

TEST_F( WatchDescriptor, ADirectoryMadeAgainIsWatchedAgain ) {
    std::filesystem::create_directory( scratch.path( "d" ) );
    control->setWatch( scratch.path( "d" ) );
    std::filesystem::remove( scratch.path( "d" ) );
    drain();
    std::filesystem::create_directory( scratch.path( "d" ) );
    control->setWatch( scratch.path( "d" ) );
    touch( "d/f" );
    drain();
    EXPECT_THAT( handler.events, Contains( "event f" ) );
}

TEST_F( WatchDescriptor, AnotherPathReplacesTheFirst ) {
    std::filesystem::create_directory( scratch.path( "a" ) );
    std::filesystem::create_directory( scratch.path( "b" ) );
    control->setWatch( scratch.path( "a" ) );
    control->setWatch( scratch.path( "b" ) );
    touch( "a/x" );
    touch( "b/y" );
    drain();
    EXPECT_THAT( handler.events, AllOf( Contains( "event y" ), Each( "event y" ) ) );
}

TEST_F( WatchDescriptor, AfterDelWatchNothingComes ) {
    control->setWatch( scratch.path() );
    touch( "x" );
    control->delWatch();
    touch( "y" );
    drain();
    EXPECT_EQ( control->getWatch(), "" );
    EXPECT_THAT( handler.events, IsEmpty() );
}

TEST_F( WatchDescriptor, APathThatCannotBeWatchedChangesNothing ) {
    control->setWatch( scratch.path() );
    EXPECT_THROW( control->setWatch( scratch.path( "missing" ) ), Qel::SystemException );
    EXPECT_EQ( control->getWatch(), scratch.path() );
    std::filesystem::create_directory( scratch.path( "d" ) );
    drain();
    EXPECT_THAT( handler.events, ElementsAre( "event d" ) );
}

TEST_F( WatchDescriptor, ALimitThatIsReachedIsAClearError ) {
    const auto status = QelKrellTest::withInotifyWatches( 0, [ & ] {
        const std::string error = QelKrellTest::raised< Qel::SystemException >(
            [ & ] { control->setWatch( scratch.path() ); } );
        EXPECT_THAT( error, testing::StartsWith( "inotify_add_watch" ) );
        EXPECT_THAT( error, testing::HasSubstr( "'" + scratch.path() + "'" ) );
        EXPECT_THAT( error,
                     testing::HasSubstr( "the limit fs.inotify.max_user_watches is reached" ) );
        EXPECT_EQ( control->getWatch(), "" );
        EXPECT_TRUE( QelKrellTest::inotifyWatchesAre( 1 ) );
        control->setWatch( scratch.path() );
        std::filesystem::create_directory( scratch.path( "made" ) );
        drain();
        EXPECT_THAT( handler.events, ElementsAre( "event made" ) );
    } );
    if ( !status ) {
        GTEST_SKIP() << "a process cannot be given limits of its own here";
    }
    EXPECT_EQ( *status, 0 );
}

TEST_F( WatchDescriptor, LostEventsAreAnError ) {
    int limit = 0;
    std::ifstream( "/proc/sys/fs/inotify/max_queued_events" ) >> limit;
    ASSERT_GT( limit, 0 );
    if ( limit > 100000 ) {
        GTEST_SKIP() << "this machine queues " << limit << " events";
    }
    touch( "a" );
    touch( "b" );
    control->setWatch( scratch.path() );
    // Each in turn: the system joins events that are equal to the one before.
    for ( int i = 0; i < limit + 10; ++i ) {
        const std::string path = scratch.path( i % 2 ? "a" : "b" );
        close( open( path.c_str(), O_WRONLY | O_CLOEXEC ) );
    }
    drain();
    EXPECT_THAT( handler.events, Contains( "error watch descriptor error" ).Times( 1 ) );
    handler.events.clear();
    std::filesystem::create_directory( scratch.path( "after" ) );
    drain();
    EXPECT_THAT( handler.events, ElementsAre( "event after" ) );
}

TEST_F( WatchDescriptor, TheHandlerMayDestroyTheAdapter ) {
    control->setWatch( scratch.path() );
    handler.then = [ this ] { control.reset(); };
    touch( "x" );
    drain();
    EXPECT_EQ( handler.events.size(), 1u );
    EXPECT_FALSE( control );
}

TEST_F( WatchDescriptor, OneCounterValueIsForwardedOnce ) {
    control->setWatch( scratch.path() );
    std::filesystem::create_directory( scratch.path( "d" ) );
    drain();
    adapter().notifiee()->onWatchCount();
    EXPECT_EQ( handler.events.size(), 1u );
}

TEST_F( WatchDescriptor, MessagesStandWhereTheyStood ) {
    tracing.settingsAre( "Krell/5" );
    control.reset( Krell::Platform::getInotifyControl( &handler ) );
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( watchMessage( 291, "WatchDescriptor", "WatchDescriptor() done" ),
                              watchMessage( 246, "orphan", "Notifiee::orphan()" ),
                              watchMessage( 309, "delWatch", "delWatch() deleting watch:" ),
                              watchMessage( 241, "~Notifiee", "Notifiee::~Notifiee()" ) ) );
    const std::string path = scratch.path();
    control->setWatch( path );
    std::filesystem::create_directory( scratch.path( "d" ) );
    drain();
    adapter().notifiee()->onWatchCount();
    control->delWatch();
    EXPECT_THAT(
        tracing.taken(),
        ElementsAre( watchMessage( 303, "setWatch", "setWatch() registering watch:" + path ),
                     watchMessage( 256, "onWatchCount", "onWatchCount()" ),
                     watchMessage( 256, "onWatchCount", "onWatchCount()" ),
                     watchMessage( 309, "delWatch", "delWatch() deleting watch:" + path ) ) );
}

TEST_F( WatchDescriptor, ALateNotificationIsTracedAndDropped ) {
    auto notifiee = adapter().notifiee();
    control.reset();
    tracing.settingsAre( "Krell/5" );
    notifiee->onWatchCount();
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( watchMessage( 224, "onWatchCount",
                                            "Notifiee::onWatchCount() ignoring orphan" ) ) );
    EXPECT_THAT( handler.events, IsEmpty() );
}

// What the system cannot be made to send.

std::vector< std::string > forwarded( const QelKrell::WatchEvent& event ) {
    WatchHandler handler;
    QelKrell::forward( event, handler );
    return handler.events;
}

TEST( WatchEvent, ANegativeDescriptorIsAnErrorEvenWithAName ) {
    EXPECT_THAT( forwarded( { -1, 0x100, 0, "x" } ),
                 ElementsAre( "error watch descriptor error" ) );
    EXPECT_THAT( forwarded( { -7, 0x400, 0, "" } ), ElementsAre( "error watch descriptor error" ) );
}

TEST( WatchEvent, ANameComesBeforeTheMask ) {
    EXPECT_THAT( forwarded( { 1, 0xC00, 5, "x" } ), ElementsAre( "event x" ) );
    EXPECT_THAT( forwarded( { 0, 0, 0, "x" } ), ElementsAre( "event x" ) );
}

TEST( WatchEvent, WithoutANameOnlyTheTwoBitsCount ) {
    for ( int bit = 0; bit < 32; ++bit ) {
        const Qel::U32 mask = 1U << bit;
        const bool gone = mask == 0x400 || mask == 0x800;
        EXPECT_EQ( forwarded( { 1, mask, 0, "" } ).size(), gone ? 1u : 0u ) << bit;
    }
    EXPECT_THAT( forwarded( { 1, ~Qel::U32( 0 ), 0, "" } ), ElementsAre( "gone" ) );
    EXPECT_THAT( forwarded( { 1, ~Qel::U32( 0xC00 ), 0, "" } ), IsEmpty() );
}

} // namespace
