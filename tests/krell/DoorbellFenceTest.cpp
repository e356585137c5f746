// Who executes the writer's fence: the sleeper where both sides can, else the writer; and that both
// sides always think the same.

#include <Krell/Doorbell>
#include <Krell/DoorbellFence>

#include <gmock/gmock.h>

#include <sys/wait.h>

#include "krell/DoorbellSupport.h"
#include "krell/EngineSupport.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using State = DoorbellCaller::State;
using Message = DoorbellMessage;

// What a child says of itself.
constexpr int asExpected = 0;
constexpr int wrong = 1;
constexpr int cannotRefuse = 77;

bool systemCan() { return DoorbellFence::enlist() && DoorbellFence::forAll(); }

class DoorbellFenceTest : public testing::Test {
protected:
    bool connect( DoorbellCaller& caller ) {
        return caller.call( *directory_ ) &&
               turnUntil( [ & ] { return caller.state() == State::connected; } );
    }
    bool connect() {
        bell_.open( directory_ );
        return connect( caller_ );
    }
    bool kickArrives( DoorbellCaller& caller, const Told& told ) {
        const unsigned before = told.kicked;
        caller.arm();
        bell_.ring();
        return caller.armed() && turnUntil( [ & ] { return told.kicked != before; } );
    }
    bool isAgreedOn( Message::Fence fence ) const {
        return caller_.fence() == fence && bell_.fences() == ( fence == Message::byWriter ? 1 : 0 );
    }
    // In a child to which the system refuses that command.
    int refused( int command, int error, const std::function< bool() >& body ) {
        return inChild( [ & ] {
            if ( !refuseMembarrier( command, error ) ) {
                return cannotRefuse;
            }
            return body() ? asExpected : wrong;
        } );
    }

    TestRoot root_;
    RecordingDebugHandler debug_;
    std::shared_ptr< const Directory > directory_ =
        std::make_shared< const Directory >( Directory::create( root_ / "c" ) );
    Doorbell bell_ { debug_ };
    Told told_;
    DoorbellCaller caller_ { debug_, told_ };
};

TEST_F( DoorbellFenceTest, WhereBothSidesCanTheSleeperPays ) {
    if ( !systemCan() ) {
        GTEST_SKIP() << "this system has no fence for all";
    }
    ASSERT_TRUE( connect() );
    EXPECT_TRUE( isAgreedOn( Message::bySleeper ) );
    EXPECT_TRUE( kickArrives( caller_, told_ ) );
    EXPECT_TRUE( kickArrives( caller_, told_ ) );
}

TEST_F( DoorbellFenceTest, WhereEitherSideCannotTheWriterPays ) {
    for ( const int command : { commandOfWriters, commandOfReaders } ) {
        for ( const int error : { ENOSYS, EINVAL, EPERM } ) {
            const int result = refused( command, error, [ & ] {
                const bool can =
                    command == commandOfWriters ? DoorbellFence::enlist() : DoorbellFence::forAll();
                return !can && errno == error && connect() && isAgreedOn( Message::byWriter ) &&
                       kickArrives( caller_, told_ ) && kickArrives( caller_, told_ );
            } );
            if ( result == cannotRefuse ) {
                GTEST_SKIP() << "this system refuses nothing on demand";
            }
            EXPECT_EQ( result, asExpected ) << command << ' ' << error;
        }
    }
}

TEST_F( DoorbellFenceTest, TheWriterPaysWhileOneReaderNeedsIt ) {
    if ( !systemCan() ) {
        GTEST_SKIP() << "this system has no fence for all";
    }
    ASSERT_TRUE( connect() );
    ASSERT_EQ( bell_.fences(), 0U );
    int stop[ 2 ];
    ASSERT_EQ( ::pipe2( stop, O_CLOEXEC ), 0 );
    const Fd stopIn( stop[ 0 ] );
    Fd stopOut( stop[ 1 ] );
    const pid_t other = ::fork();
    if ( other == 0 ) {
        stopOut.reset();
        Told told;
        DoorbellCaller caller( debug_, told );
        char byte;
        const bool good = refuseMembarrier( commandOfReaders, EPERM ) && connect( caller ) &&
                          caller.fence() == Message::byWriter;
        caller.arm();
        const bool kicked = good && turnUntil( [ & ] { return told.kicked == 1; } ) &&
                            ::read( stopIn.get(), &byte, 1 ) == 0;
        ::_exit( kicked ? 0 : 1 );
    }
    ASSERT_TRUE( turnUntil( [ & ] { return bell_.connections() == 2; } ) );
    EXPECT_EQ( bell_.fences(), 1U );
    EXPECT_TRUE( kickArrives( caller_, told_ ) );
    while ( bell_.kicksIssued() != 2 ) { // the other one's sleep
        bell_.ring();
    }
    stopOut.reset();
    EXPECT_TRUE( turnUntil( [ & ] { return bell_.connections() == 1; } ) );
    EXPECT_EQ( bell_.fences(), 0U );
    EXPECT_TRUE( kickArrives( caller_, told_ ) );
    int status = 0;
    EXPECT_EQ( ::waitpid( other, &status, 0 ), other );
    EXPECT_EQ( status, 0 );
}

TEST_F( DoorbellFenceTest, AReaderThatLosesTheFenceDoesNotSleepAndCallsAgain ) {
    if ( !systemCan() ) {
        GTEST_SKIP() << "this system has no fence for all";
    }
    const int result = inChild( [ & ] {
        if ( !connect() || !isAgreedOn( Message::bySleeper ) ) {
            return wrong;
        }
        if ( !refuseMembarrier( commandOfReaders, EPERM ) ) {
            return cannotRefuse;
        }
        debug_.levels = { 1 };
        caller_.arm();
        const bool left =
            caller_.state() == State::idle && !caller_.armed() && told_.disconnected == 0 &&
            debug_.lines.size() == 1 &&
            debug_.lines[ 0 ].text.ends_with( " for want of a fence: Operation not permitted" );
        const bool again = left && connect( caller_ );
        settle();
        return again && bell_.connections() == 1 && isAgreedOn( Message::byWriter ) &&
                       kickArrives( caller_, told_ )
                   ? asExpected
                   : wrong;
    } );
    if ( result == cannotRefuse ) {
        GTEST_SKIP() << "this system refuses nothing on demand";
    }
    EXPECT_EQ( result, asExpected );
}

TEST_F( DoorbellFenceTest, AWriterThatCountsOnAFenceThatTheReaderHasNotIsLeft ) {
    const Fd listening = listenRaw( root_ / "c/doorbell" );
    const int result = refused( commandOfReaders, ENOSYS, [ & ] {
        for ( const auto fence : { Message::byWriter, Message::bySleeper } ) {
            if ( !caller_.call( *directory_ ) ) {
                return false;
            }
            const Fd bad( ::accept4( listening.get(), nullptr, nullptr, SOCK_CLOEXEC ) );
            const Message welcome = Message::of( Message::welcome, fence );
            sendRaw( bad.get(), &welcome, sizeof welcome, {} );
            turnUntil( [ & ] { return caller_.state() != State::calling; } );
            const bool taken = caller_.state() == State::connected;
            if ( taken != ( fence == Message::byWriter ) ) {
                return false;
            }
        }
        return told_.connected == 1 && told_.disconnected == 1;
    } );
    if ( result == cannotRefuse ) {
        GTEST_SKIP() << "this system refuses nothing on demand";
    }
    EXPECT_EQ( result, asExpected );
}

TEST_F( DoorbellFenceTest, AForkedChildThatWritesAnewEnlistsItself ) {
    if ( !systemCan() ) {
        GTEST_SKIP() << "this system has no fence for all";
    }
    ASSERT_TRUE( connect() );
    EXPECT_EQ( inChild( [ & ] {
                   const bool none = bell_.fences() == 0 && bell_.connections() == 0;
                   return none && connect() && isAgreedOn( Message::bySleeper ) &&
                                  kickArrives( caller_, told_ )
                              ? 0
                              : 1;
               } ),
               0 );
}

} // namespace
