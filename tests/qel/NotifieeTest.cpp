// Rounds of notifications: order, attaching and detaching inside them, failures, deaths.

#include <gmock/gmock.h>

#include <functional>

#include <Qel/Exception>
#include <Qel/Notifiee>

#include "TraceCapture.h"

namespace {

using QelTest::TraceCapture;
using testing::ElementsAre;
using testing::IsEmpty;

class Source : public Qel::Counted {
public:
    class Notifiee;
    Qel::NotifieeList< Notifiee >& notifiees() { return notifiees_; }
    void changed();

private:
    Qel::NotifieeList< Notifiee > notifiees_;
};

class Source::Notifiee : public Qel::NotifieeOf< Source, Source::Notifiee > {
public:
    virtual void onChange() = 0;
};

void Source::changed() {
    notifiees_.notify( []( Notifiee& n ) { n.onChange(); } );
}

using Log = std::vector< std::string >;

class Reactor : public Source::Notifiee {
public:
    Reactor( Log& log, std::string name, std::function< void() > action = nullptr )
        : log_( log ), name_( std::move( name ) ), action( std::move( action ) ) {}
    ~Reactor() override { log_.push_back( "~" + name_ ); }

    void onChange() override {
        log_.push_back( name_ );
        if ( action ) {
            action();
        }
    }

private:
    Log& log_;
    std::string name_;

public:
    std::function< void() > action;
};

class NotifieeTest : public testing::Test {
protected:
    Qel::Ptr< Reactor > reactor( const char* name, std::function< void() > action = nullptr ) {
        Qel::Ptr< Reactor > made = new Reactor( log, name, std::move( action ) );
        made->notifierIs( source );
        made->isRegisteredNotifieeIs( true );
        return made;
    }

    Log log;
    Qel::Ptr< Source > source = new Source;
};

TEST_F( NotifieeTest, RegisteredReactorsAreCalledInOrder ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    EXPECT_EQ( 2U, source->notifiees().size() );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "b" ) );
    a->isRegisteredNotifieeIs( false );
    a->isRegisteredNotifieeIs( true );
    log.clear();
    source->changed();
    EXPECT_THAT( log, ElementsAre( "b", "a" ) );
}

TEST_F( NotifieeTest, UnregisteredOrDetachedReactorIsNotCalled ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    a->isRegisteredNotifieeIs( false );
    EXPECT_EQ( source.get(), a->notifier() );
    b->notifierIs( nullptr );
    EXPECT_EQ( nullptr, b->notifier() );
    EXPECT_TRUE( source->notifiees().empty() );
    source->changed();
    EXPECT_THAT( log, IsEmpty() );
    b->notifierIs( source );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "b" ) );
}

TEST_F( NotifieeTest, RegistrationDoesNotKeepAReactorAlive ) {
    auto a = reactor( "a" );
    a = nullptr;
    EXPECT_TRUE( source->notifiees().empty() );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "~a" ) );
}

TEST_F( NotifieeTest, MovesBetweenNotifiers ) {
    const auto a = reactor( "a" );
    const Qel::Ptr< Source > other = new Source;
    a->notifierIs( other );
    source->changed();
    EXPECT_THAT( log, IsEmpty() );
    other->changed();
    EXPECT_THAT( log, ElementsAre( "a" ) );
}

TEST_F( NotifieeTest, DeadNotifierLeavesItsReactorsWithoutOne ) {
    const auto registered = reactor( "a" );
    const auto unregistered = reactor( "b" );
    unregistered->isRegisteredNotifieeIs( false );
    source = nullptr;
    EXPECT_EQ( nullptr, registered->notifier() );
    EXPECT_EQ( nullptr, unregistered->notifier() );
    unregistered->isRegisteredNotifieeIs( true );
    source = new Source;
    registered->notifierIs( source );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a" ) );
}

TEST_F( NotifieeTest, DetachedInARoundIsSkippedInIt ) {
    Qel::Ptr< Reactor > c;
    const auto a = reactor( "a", [ & ] { c->notifierIs( nullptr ); } );
    const auto b = reactor( "b" );
    c = reactor( "c" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "b" ) );
}

TEST_F( NotifieeTest, DetachingItselfInARoundStopsNoOther ) {
    Qel::Ptr< Reactor > a;
    a = reactor( "a", [ & ] { a->isRegisteredNotifieeIs( false ); } );
    const auto b = reactor( "b" );
    source->changed();
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "b", "b" ) );
}

TEST_F( NotifieeTest, AttachedInARoundWaitsForTheNext ) {
    Qel::Ptr< Reactor > late;
    const auto a = reactor( "a", [ & ] {
        if ( !late ) {
            late = reactor( "late" );
        }
    } );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a" ) );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "a", "late" ) );
}

TEST_F( NotifieeTest, DetachedAndAttachedAgainInARoundWaitsForTheNext ) {
    Qel::Ptr< Reactor > b;
    const auto a = reactor( "a", [ & ] {
        b->isRegisteredNotifieeIs( false );
        b->isRegisteredNotifieeIs( true );
    } );
    b = reactor( "b" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a" ) );
}

TEST_F( NotifieeTest, RoundHoldsTheReactorsThatItCalls ) {
    Qel::Ptr< Reactor > a;
    Qel::Ptr< Reactor > b;
    a = reactor( "a", [ & ] {
        b = nullptr; // still held by the round, and still attached
        a = nullptr;
    } );
    b = reactor( "b" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "b", "~a", "~b" ) );
    EXPECT_TRUE( source->notifiees().empty() );
}

TEST_F( NotifieeTest, RoundsNest ) {
    int depth = 0;
    const auto a = reactor( "a", [ & ] {
        if ( ++depth == 1 ) {
            source->changed();
        }
    } );
    const auto b = reactor( "b" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "a", "b", "b" ) );
}

TEST_F( NotifieeTest, RoundEndsWhenTheNotifierDiesInIt ) {
    const auto a = reactor( "a", [ & ] { source = nullptr; } );
    const auto b = reactor( "b" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a" ) );
    EXPECT_EQ( nullptr, a->notifier() );
    EXPECT_EQ( nullptr, b->notifier() );
}

TEST_F( NotifieeTest, NestedRoundsEndWhenTheNotifierDies ) {
    int depth = 0;
    const auto a = reactor( "a", [ & ] {
        if ( ++depth == 1 ) {
            source->changed();
        } else {
            source = nullptr;
        }
    } );
    const auto b = reactor( "b" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "a" ) );
}

TEST_F( NotifieeTest, EveryoneMayLeaveInARound ) {
    const auto a = reactor( "a", [ & ] { source->notifiees().clear(); } );
    const auto b = reactor( "b" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a" ) );
    EXPECT_EQ( nullptr, b->notifier() );
}

TEST_F( NotifieeTest, ReactorUnderConstructionOrDestructionIsNotCalled ) {
    struct Eager : Source::Notifiee {
        Eager( const Qel::Ptr< Source >& source, int& calls ) : source_( source ), calls_( calls ) {
            notifierIs( source );
            isRegisteredNotifieeIs( true );
            source->changed();
        }
        ~Eager() override { source_->changed(); }
        void onChange() override { ++calls_; }
        Qel::Ptr< Source > source_;
        int& calls_;
    };
    int calls = 0;
    Qel::Ptr< Eager > eager = new Eager( source, calls );
    EXPECT_EQ( 0, calls );
    source->changed();
    EXPECT_EQ( 1, calls );
    eager = nullptr;
    EXPECT_EQ( 1, calls );
}

TEST_F( NotifieeTest, ExceptionsAreTracedAndTheRoundGoesOn ) {
    const TraceCapture trace;
    const auto a = reactor( "a", [] {
        const Qel::ExpectException quiet;
        throw Qel::InternalException( "broken" );
    } );
    const auto b = reactor( "b", [] { throw 7; } );
    const auto c = reactor( "c" );
    source->changed();
    EXPECT_THAT( log, ElementsAre( "a", "b", "c" ) );
    EXPECT_THAT(
        trace.texts(),
        ElementsAre( "QelReactor 0 a reactor threw: broken",
                     "QelReactor 0 a reactor threw: an exception that is no std::exception" ) );
    EXPECT_EQ( trace.records[ 0 ].source, "Notifiee" );
    EXPECT_EQ( 29U, trace.records[ 0 ].line );
    EXPECT_EQ( trace.records[ 0 ].function, "onException" );
}

class Careful : public Source::Notifiee {
public:
    void onChange() override { throw std::runtime_error( "mine" ); }
    void onException( std::exception_ptr exception ) override {
        ++caught;
        if ( rethrows ) {
            std::rethrow_exception( exception );
        }
    }
    int caught = 0;
    bool rethrows = false;
};

TEST_F( NotifieeTest, ExceptionGoesToTheReactorThatThrewIt ) {
    const TraceCapture trace;
    const Qel::Ptr< Careful > careful = new Careful;
    careful->notifierIs( source );
    careful->isRegisteredNotifieeIs( true );
    const auto b = reactor( "b" );
    source->changed();
    EXPECT_EQ( 1, careful->caught );
    EXPECT_THAT( log, ElementsAre( "b" ) );
    EXPECT_THAT( trace.texts(), IsEmpty() );
}

TEST_F( NotifieeTest, FailingOnExceptionIsTracedAndTheRoundGoesOn ) {
    const TraceCapture trace;
    const Qel::Ptr< Careful > careful = new Careful;
    careful->rethrows = true;
    careful->notifierIs( source );
    careful->isRegisteredNotifieeIs( true );
    const auto b = reactor( "b" );
    source->changed();
    source->changed();
    EXPECT_EQ( 2, careful->caught );
    EXPECT_THAT( log, ElementsAre( "b", "b" ) );
    EXPECT_EQ( "QelReactor 0 a reactor's onException() threw: mine", trace.texts().at( 0 ) );
    EXPECT_EQ( trace.records[ 0 ].function, "reactorFailed" );
    EXPECT_EQ( 43U, trace.records[ 0 ].line );
}

} // namespace
