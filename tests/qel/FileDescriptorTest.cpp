// Descriptors in the event loop: counts, refusals, and descriptors closed behind the loop's back.

#include <gmock/gmock.h>

#include <csignal>
#include <functional>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Qel/Clock>
#include <Qel/Exception>
#include <Qel/FileDescriptor>
#include <Qel/System>

#include "TraceCapture.h"

namespace {

using Qel::FileDescriptor;
using Qel::System;
using QelTest::TraceCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class Watcher : public FileDescriptor::Notifiee {
public:
    explicit Watcher( const FileDescriptor::Ptr& file, std::function< void() > action = nullptr )
        : action_( std::move( action ) ) {
        notifierIs( file );
        isRegisteredNotifieeIs( true );
    }
    void onReadableCount() override {
        ++readable;
        if ( action_ ) {
            action_();
        }
    }
    void onDescriptor() override { ++descriptor; }

    int readable = 0;
    int descriptor = 0;

private:
    std::function< void() > action_;
};

class FileDescriptorTest : public testing::Test {
protected:
    FileDescriptorTest() {
        EXPECT_EQ( 0, socketpair( AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends ) );
        watched->notifyOnReadableIs( true );
    }
    ~FileDescriptorTest() override {
        watched->descriptorIs( -1 );
        close( ends[ 0 ] );
        close( ends[ 1 ] );
    }

    void fill() { EXPECT_EQ( 1, write( ends[ 1 ], "x", 1 ) ); }
    void drain() {
        char byte;
        EXPECT_EQ( 1, read( ends[ 0 ], &byte, 1 ) );
    }
    template < class F >
    static std::string refusal( F&& call ) {
        const Qel::ExpectException expected( Qel::SystemException::id_ );
        try {
            call();
        } catch ( const Qel::SystemException& e ) {
            return e.what();
        }
        return "no refusal";
    }
    static std::string number( int fd ) { return std::to_string( fd ); }

    int ends[ 2 ] = { -1, -1 };
    FileDescriptor::Ptr watched = new FileDescriptor( "watched" );
};

TEST_F( FileDescriptorTest, CountsEachTurnThatFindsItReadable ) {
    watched->descriptorIs( ends[ 0 ] );
    const Qel::Ptr< Watcher > watcher = new Watcher( watched );
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_EQ( 0U, watched->readableCount() );
    fill();
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 2U, watched->readableCount() );
    EXPECT_EQ( 2, watcher->readable );
    drain();
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_EQ( 2U, watched->readableCount() );
}

TEST_F( FileDescriptorTest, EndOfFileIsReadable ) {
    watched->descriptorIs( ends[ 0 ] );
    shutdown( ends[ 1 ], SHUT_WR );
    EXPECT_TRUE( System::runOnce( Qel::neverTime ) );
    EXPECT_EQ( 1U, watched->readableCount() );
}

TEST_F( FileDescriptorTest, IsWatchedOnlyWhenBothAreSet ) {
    fill();
    EXPECT_FALSE( System::runOnce( 0 ) );
    watched->notifyOnReadableIs( false );
    watched->descriptorIs( ends[ 0 ] );
    EXPECT_FALSE( System::runOnce( 0 ) );
    watched->notifyOnReadableIs( true );
    watched->notifyOnReadableIs( true );
    EXPECT_TRUE( System::runOnce( 0 ) );
    watched->descriptorIs( -1 );
    watched->descriptorIs( -1 );
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_EQ( -1, watched->descriptor() );
}

TEST_F( FileDescriptorTest, TellsOfANewDescriptor ) {
    const Qel::Ptr< Watcher > watcher = new Watcher( watched );
    watched->descriptorIs( ends[ 0 ] );
    watched->descriptorIs( ends[ 0 ] );
    EXPECT_EQ( 1, watcher->descriptor );
    watched->descriptorIs( -1 );
    EXPECT_EQ( 2, watcher->descriptor );
}

TEST_F( FileDescriptorTest, ServesManyInOneTurn ) {
    constexpr std::size_t many = 60;
    std::vector< FileDescriptor::Ptr > files;
    std::vector< int > fds;
    fill();
    for ( std::size_t i = 0; i < many; ++i ) {
        fds.push_back( dup( ends[ 0 ] ) );
        files.push_back( new FileDescriptor( Qel::decimal( i ) ) );
        files.back()->descriptorIs( fds.back() );
        files.back()->notifyOnReadableIs( true );
    }
    System::runOnce( 0 );
    for ( std::size_t i = 0; i < many; ++i ) {
        EXPECT_EQ( 1U, files[ i ]->readableCount() );
        files[ i ]->descriptorIs( -1 );
        close( fds[ i ] );
    }
}

TEST_F( FileDescriptorTest, ReactorsMayTakeEachOtherOut ) {
    const int copy = dup( ends[ 0 ] );
    FileDescriptor::Ptr other = new FileDescriptor( "other" );
    watched->descriptorIs( ends[ 0 ] );
    other->descriptorIs( copy );
    other->notifyOnReadableIs( true );
    const Qel::Ptr< Watcher > a = new Watcher( watched, [ & ] { other->descriptorIs( -1 ); } );
    const Qel::Ptr< Watcher > b = new Watcher( other, [ & ] { watched->descriptorIs( -1 ); } );
    fill();
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, watched->readableCount() + other->readableCount() );
    other = nullptr;
    close( copy );
}

TEST_F( FileDescriptorTest, MayDieInItsOwnNotification ) {
    watched->descriptorIs( ends[ 0 ] );
    fill();
    FileDescriptor::Ptr dying = watched;
    watched = new FileDescriptor( "spare" );
    const Qel::Ptr< Watcher > watcher = new Watcher( dying, [ & ] { dying = nullptr; } );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1, watcher->readable );
    EXPECT_EQ( nullptr, watcher->notifier() );
    EXPECT_FALSE( System::runOnce( 0 ) );
}

TEST_F( FileDescriptorTest, ClosedDescriptorIsRefusedAndTheOldOneStays ) {
    watched->descriptorIs( ends[ 0 ] );
    const int gone = dup( ends[ 0 ] );
    close( gone );
    EXPECT_EQ( "epoll_ctl of descriptor " + number( gone ) +
                   " ('watched'): Bad file descriptor (errno 9)",
               refusal( [ & ] { watched->descriptorIs( gone ); } ) );
    EXPECT_EQ( ends[ 0 ], watched->descriptor() );
    fill();
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, watched->readableCount() );
}

TEST_F( FileDescriptorTest, DescriptorOfAnotherIsRefused ) {
    watched->descriptorIs( ends[ 0 ] );
    const FileDescriptor::Ptr second = new FileDescriptor( "second" );
    second->notifyOnReadableIs( true );
    EXPECT_EQ( "epoll_ctl of descriptor " + number( ends[ 0 ] ) +
                   " ('second'): File exists (errno 17) - it is watched by 'watched' already",
               refusal( [ & ] { second->descriptorIs( ends[ 0 ] ); } ) );
    EXPECT_EQ( -1, second->descriptor() );
    second->notifyOnReadableIs( false );
    second->descriptorIs( ends[ 0 ] );
    EXPECT_NE( "no refusal", refusal( [ & ] { second->notifyOnReadableIs( true ); } ) );
    EXPECT_FALSE( second->notifyOnReadable() );
    fill();
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, watched->readableCount() );
    EXPECT_EQ( 0U, second->readableCount() );
}

TEST_F( FileDescriptorTest, RegularFileIsRefused ) {
    const int file = open( "/proc/self/exe", O_RDONLY | O_CLOEXEC );
    EXPECT_EQ(
        "epoll_ctl of descriptor " + number( file ) +
            " ('watched'): Operation not permitted (errno 1) - regular files and directories are "
            "always readable and cannot be watched",
        refusal( [ & ] { watched->descriptorIs( file ); } ) );
    EXPECT_EQ( -1, watched->descriptor() );
    EXPECT_FALSE( System::runOnce( 0 ) );
    close( file );
}

TEST_F( FileDescriptorTest, NegativeNumbersAreRefused ) {
    const Qel::ExpectException quiet;
    EXPECT_THROW( watched->descriptorIs( -2 ), Qel::RangeException );
    EXPECT_EQ( -1, watched->descriptor() );
}

TEST_F( FileDescriptorTest, DescriptorClosedWhileWatchedIsReportedAndTakenOut ) {
    const TraceCapture trace;
    const int copy = dup( ends[ 0 ] );
    const int last = dup( ends[ 1 ] );
    watched->descriptorIs( copy );
    const Qel::Ptr< Watcher > watcher = new Watcher( watched );
    close( copy ); // the file lives on in ends[ 0 ], so that the system goes on watching it
    fill();
    EXPECT_EQ( System::idle_, System::doRun() );
    EXPECT_EQ( -1, watched->descriptor() );
    EXPECT_EQ( 1, watcher->descriptor );
    EXPECT_EQ( 0, watcher->readable );
    EXPECT_THAT( trace.texts(), ElementsAre( "QelLoop 0 descriptor " + number( copy ) +
                                             " ('watched') was closed while it was watched" ) );
    EXPECT_EQ( trace.records[ 0 ].source, "EventLoop" );
    EXPECT_EQ( 36U, trace.records[ 0 ].line );
    EXPECT_EQ( trace.records[ 0 ].function, "takeClosed" );
    EXPECT_FALSE( System::runOnce( 0 ) );
    close( last );
}

TEST_F( FileDescriptorTest, ReadyDescriptorThatWasClosedIsNotServed ) {
    const TraceCapture trace;
    const int copy = dup( ends[ 0 ] );
    watched->descriptorIs( copy );
    fill();
    close( copy );
    EXPECT_TRUE( System::runOnce( 0 ) ); // without a wait: the event of the closed one comes up
    EXPECT_EQ( 0U, watched->readableCount() );
    EXPECT_EQ( -1, watched->descriptor() );
    EXPECT_EQ( 1U, trace.texts().size() );
    EXPECT_FALSE( System::runOnce( 0 ) );
}

TEST_F( FileDescriptorTest, TakingOutAClosedDescriptorLeavesNothingBehind ) {
    const int copy = dup( ends[ 0 ] );
    watched->descriptorIs( copy );
    close( copy );
    watched->descriptorIs( -1 );
    fill();
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_EQ( 0U, watched->readableCount() );
}

TEST_F( FileDescriptorTest, NumberOfAClosedFileMayBeWatchedAgain ) {
    const TraceCapture trace;
    const int copy = dup( ends[ 0 ] );
    watched->descriptorIs( copy );
    const Qel::Ptr< Watcher > watcher = new Watcher( watched );
    int second[ 2 ];
    ASSERT_EQ( 0, pipe2( second, O_CLOEXEC ) );
    ASSERT_EQ( copy, dup2( second[ 0 ], copy ) ); // closes the former file
    const FileDescriptor::Ptr other = new FileDescriptor( "other" );
    other->notifyOnReadableIs( true );
    other->descriptorIs( copy );
    EXPECT_EQ( -1, watched->descriptor() );
    EXPECT_EQ( 1, watcher->descriptor );
    EXPECT_EQ( 1U, trace.texts().size() );
    fill();
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_EQ( 1, write( second[ 1 ], "x", 1 ) );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, other->readableCount() );
    EXPECT_EQ( 0U, watched->readableCount() );
    other->descriptorIs( -1 );
    for ( const int fd : { copy, second[ 0 ], second[ 1 ] } ) {
        close( fd );
    }
}

TEST_F( FileDescriptorTest, SameNumberSetAgainWatchesTheNewFile ) {
    const int copy = dup( ends[ 0 ] );
    watched->descriptorIs( copy );
    int second[ 2 ];
    ASSERT_EQ( 0, pipe2( second, O_CLOEXEC ) );
    ASSERT_EQ( copy, dup2( second[ 0 ], copy ) );
    watched->descriptorIs( copy );
    fill();
    EXPECT_FALSE( System::runOnce( 0 ) );
    EXPECT_EQ( 1, write( second[ 1 ], "x", 1 ) );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, watched->readableCount() );
    close( copy );
    EXPECT_NE( "no refusal", refusal( [ & ] { watched->descriptorIs( copy ); } ) );
    EXPECT_EQ( -1, watched->descriptor() );
    close( second[ 0 ] );
    close( second[ 1 ] );
}

TEST_F( FileDescriptorTest, ForkedChildHasALoopOfItsOwn ) {
    watched->descriptorIs( ends[ 0 ] );
    EXPECT_FALSE( System::runOnce( 0 ) );
    const pid_t child = fork();
    if ( child == 0 ) {
        const bool idle = !System::runOnce( 0 );
        fill();
        const bool served = System::runOnce( Qel::neverTime ) && watched->readableCount() == 1;
        watched->descriptorIs( -1 ); // must not take the parent's watch out
        _exit( idle && served ? 0 : 1 );
    }
    int status = 0;
    ASSERT_EQ( child, waitpid( child, &status, 0 ) );
    EXPECT_EQ( 0, status );
    EXPECT_TRUE( System::runOnce( 0 ) );
    EXPECT_EQ( 1U, watched->readableCount() );
}

} // namespace
