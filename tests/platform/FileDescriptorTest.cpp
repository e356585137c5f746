// Readability of file descriptors, as the collection library waits for it.

#include <QelKrell/Platform>

#include <fcntl.h>
#include <unistd.h>

#include <memory>

#include <Qel/Exception>
#include <Qel/System>
#include <gmock/gmock.h>

#include "Raised.h"
#include "platform/Tracing.h"

namespace {

using QelKrellTest::Coverage;
using QelKrellTest::Message;
using QelKrellTest::Tracing;
using testing::ElementsAre;
using testing::IsEmpty;

class Pipe {
public:
    Pipe() { EXPECT_EQ( pipe2( fds_, O_CLOEXEC | O_NONBLOCK ), 0 ); }
    ~Pipe() {
        close( fds_[ 0 ] );
        close( fds_[ 1 ] );
    }
    Pipe( const Pipe& ) = delete;
    Pipe& operator=( const Pipe& ) = delete;

    int readEnd() const noexcept { return fds_[ 0 ]; }
    void put() const { EXPECT_EQ( write( fds_[ 1 ], "x", 1 ), 1 ); }
    void drain() const {
        char bytes[ 64 ];
        while ( read( fds_[ 0 ], bytes, sizeof bytes ) > 0 ) {
        }
    }

private:
    int fds_[ 2 ] = { -1, -1 };
};

class FdHandler : public Krell::Platform::FdEventHandler {
public:
    void fdEvent( int fd ) override {
        events.push_back( fd );
        if ( then ) {
            then();
        }
    }
    std::vector< int > events;
    std::function< void() > then;
};

Message fdMessage( unsigned line, const std::string& function, const std::string& text ) {
    return { "Krell", "Platform", line, function, 5, "QelKrell::FileDescriptor::" + text };
}

class FileDescriptor : public testing::Test {
protected:
    QelKrell::FileDescriptor& adapter() {
        return dynamic_cast< QelKrell::FileDescriptor& >( *control );
    }
    static bool turn() { return Qel::System::runOnce( 0 ); }

    Tracing tracing { "" };
    Pipe pipe;
    FdHandler handler;
    std::unique_ptr< Krell::Platform::FdControl > control { Krell::Platform::getFdControl(
        &handler ) };
};

TEST_F( FileDescriptor, IsMadeIdleOnAFrameworkDescriptor ) {
    EXPECT_EQ( control->getFd(), -1 );
    EXPECT_EQ( adapter().file()->name(), Qel::Name( "PlatformFd" ) );
    EXPECT_EQ( adapter().notifiee()->fd(), -1 );
    EXPECT_TRUE( adapter().notifiee()->isRegisteredNotifiee() );
    EXPECT_EQ( adapter().notifiee()->notifier(), adapter().file().get() );
}

TEST_F( FileDescriptor, ANullFrameworkDescriptorIsRefused ) {
    const auto make = [ this ] { QelKrell::FileDescriptor( &handler, nullptr ); };
    EXPECT_EQ( QelKrellTest::raised< Qel::RangeException >( make ), "null ValidPtr" );
}

TEST_F( FileDescriptor, ForwardsReadabilityTurnByTurn ) {
    control->setFd( pipe.readEnd() );
    EXPECT_FALSE( turn() );
    EXPECT_THAT( handler.events, IsEmpty() );
    pipe.put();
    EXPECT_TRUE( turn() );
    EXPECT_TRUE( turn() );
    EXPECT_THAT( handler.events, ElementsAre( pipe.readEnd(), pipe.readEnd() ) );
    pipe.drain();
    EXPECT_FALSE( turn() );
    EXPECT_EQ( handler.events.size(), 2u );
}

TEST_F( FileDescriptor, OneCounterValueIsForwardedOnce ) {
    control->setFd( pipe.readEnd() );
    pipe.put();
    turn();
    adapter().notifiee()->onReadableCount();
    adapter().notifiee()->onReadableCount();
    EXPECT_EQ( handler.events.size(), 1u );
    turn();
    EXPECT_EQ( handler.events.size(), 2u );
}

TEST_F( FileDescriptor, AnotherDescriptorReplacesTheFirst ) {
    const Pipe other;
    control->setFd( pipe.readEnd() );
    control->setFd( other.readEnd() );
    EXPECT_EQ( control->getFd(), other.readEnd() );
    pipe.put();
    EXPECT_FALSE( turn() );
    other.put();
    EXPECT_TRUE( turn() );
    EXPECT_THAT( handler.events, ElementsAre( other.readEnd() ) );
}

TEST_F( FileDescriptor, AfterDelFdNothingComes ) {
    control->setFd( pipe.readEnd() );
    pipe.put();
    control->delFd();
    EXPECT_EQ( control->getFd(), -1 );
    EXPECT_FALSE( turn() );
    EXPECT_THAT( handler.events, IsEmpty() );
}

TEST_F( FileDescriptor, ADescriptorThatCannotBeWatchedChangesNothing ) {
    control->setFd( pipe.readEnd() );
    EXPECT_THROW( control->setFd( 1 << 20 ), Qel::SystemException );
    EXPECT_EQ( control->getFd(), pipe.readEnd() );
    EXPECT_EQ( adapter().notifiee()->fd(), pipe.readEnd() );
    pipe.put();
    turn();
    EXPECT_EQ( handler.events.size(), 1u );
}

TEST_F( FileDescriptor, TheHandlerMayDestroyTheAdapter ) {
    control->setFd( pipe.readEnd() );
    pipe.put();
    handler.then = [ this ] { control.reset(); };
    turn();
    turn();
    EXPECT_EQ( handler.events.size(), 1u );
    EXPECT_FALSE( control );
}

TEST_F( FileDescriptor, MessagesStandWhereTheyStood ) {
    tracing.settingsAre( "Krell/*" );
    const auto fd = std::to_string( pipe.readEnd() );
    control.reset( Krell::Platform::getFdControl( &handler ) );
    tracing.taken();
    control.reset( Krell::Platform::getFdControl( &handler ) );
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( fdMessage( 179, "FileDescriptor", "FileDescriptor() done, ref:1" ),
                              fdMessage( 145, "orphan", "Notifiee::orphan() fd:-1" ),
                              fdMessage( 199, "delFd", "delFd() deleting fd:-1" ),
                              fdMessage( 136, "~Notifiee", "Notifiee::~Notifiee() fd:-1" ) ) );
    control->setFd( pipe.readEnd() );
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( fdMessage( 191, "setFd", "setFd() registering fd:" + fd ) ) );
    pipe.put();
    turn();
    adapter().notifiee()->onReadableCount();
    const Message readable =
        fdMessage( 157, "onReadableCount", "onReadableCount() fd:" + fd + " readableCount:1" );
    EXPECT_THAT( tracing.taken(), ElementsAre( readable, readable ) );
    for ( const std::string& context : tracing.contexts() ) {
        EXPECT_EQ( context, "<unknown>" );
    }
}

TEST_F( FileDescriptor, MessagesNameTheOldDescriptorAfterDelFd ) {
    const auto fd = std::to_string( pipe.readEnd() );
    control->setFd( pipe.readEnd() );
    tracing.settingsAre( "Krell/5" );
    control->delFd();
    EXPECT_EQ( adapter().notifiee()->fd(), pipe.readEnd() );
    adapter().notifiee()->onReadableCount();
    control.reset();
    EXPECT_THAT(
        tracing.taken(),
        ElementsAre( fdMessage( 199, "delFd", "delFd() deleting fd:" + fd ),
                     fdMessage( 157, "onReadableCount", "onReadableCount() fd:-1 readableCount:0" ),
                     fdMessage( 145, "orphan", "Notifiee::orphan() fd:" + fd ),
                     fdMessage( 199, "delFd", "delFd() deleting fd:-1" ),
                     fdMessage( 136, "~Notifiee", "Notifiee::~Notifiee() fd:" + fd ) ) );
}

TEST_F( FileDescriptor, ALateNotificationIsTracedAndDropped ) {
    const auto fd = std::to_string( pipe.readEnd() );
    control->setFd( pipe.readEnd() );
    auto notifiee = adapter().notifiee();
    control.reset();
    tracing.settingsAre( "Krell/5" );
    notifiee->onReadableCount();
    EXPECT_THAT( tracing.taken(), ElementsAre( fdMessage( 118, "onReadableCount",
                                                          "Notifiee::onReadableCount() fd:" + fd +
                                                              " ignoring orphan" ) ) );
    EXPECT_THAT( handler.events, IsEmpty() );
    notifiee = nullptr;
    EXPECT_THAT( tracing.taken(),
                 ElementsAre( fdMessage( 136, "~Notifiee", "Notifiee::~Notifiee() fd:" + fd ) ) );
}

TEST_F( FileDescriptor, TheCoverageStreamSeesEveryMessage ) {
    const Coverage coverage;
    control->delFd();
    control.reset();
    EXPECT_EQ( coverage.text(), "QelKrell::FileDescriptor::delFd() deleting fd:-1\n"
                                "QelKrell::FileDescriptor::Notifiee::orphan() fd:-1\n"
                                "QelKrell::FileDescriptor::delFd() deleting fd:-1\n"
                                "QelKrell::FileDescriptor::Notifiee::~Notifiee() fd:-1\n" );
    EXPECT_THAT( tracing.taken(), IsEmpty() );
}

TEST_F( FileDescriptor, NothingIsTracedBelowTheLevel ) {
    tracing.settingsAre( "Krell/0-4+6-9" );
    control->setFd( pipe.readEnd() );
    control.reset();
    EXPECT_THAT( tracing.taken(), IsEmpty() );
}

} // namespace
