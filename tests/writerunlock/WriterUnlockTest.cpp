// The counter of released writer locks.

#include <QelKrell/WriterUnlock>

#include <Qel/Exception>
#include <Qel/GenericIf>
#include <Qel/Introspection>
#include <Qel/TypeOf>
#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Writes what it is told, under its name.
class UnlockReactor : public QelKrell::WriterUnlock::Notifiee {
public:
    UnlockReactor( std::string name, std::vector< std::string >& log )
        : name_( std::move( name ) ), log_( log ) {}
    void onCount() override { add( "count" ); }
    void onIsNondestructing() override { add( "isNondestructing" ); }
    void onException( std::exception_ptr ) override { log_.push_back( name_ + " exception" ); }

    std::function< void() > then;

private:
    void add( const std::string& what ) {
        log_.push_back( name_ + " " + what );
        if ( then ) {
            then();
        }
    }

    std::string name_;
    std::vector< std::string >& log_;
};

class WriterUnlock : public testing::Test {
protected:
    Qel::Ptr< UnlockReactor > reactor( const std::string& name ) {
        Qel::Ptr< UnlockReactor > made = new UnlockReactor( name, log );
        made->notifierIs( counter );
        made->isRegisteredNotifieeIs( true );
        return made;
    }
    std::vector< std::string > taken() { return std::exchange( log, {} ); }

    std::vector< std::string > log;
    QelKrell::WriterUnlock::Ptr counter = QelKrell::writerUnlockFactory( "unlocks" );
};

TEST_F( WriterUnlock, BeginsAtNoneWithoutReactors ) {
    EXPECT_EQ( counter->name(), Qel::Name( "unlocks" ) );
    EXPECT_EQ( counter->count(), 0u );
    EXPECT_TRUE( counter->notifiees().empty() );
    EXPECT_EQ( counter->references(), 1u );
}

TEST_F( WriterUnlock, NotifiesChangesOnly ) {
    const auto a = reactor( "a" );
    counter->countIs( 0 );
    counter->countInc( 0 );
    EXPECT_THAT( taken(), IsEmpty() );
    counter->countIs( 7 );
    EXPECT_EQ( counter->count(), 7u );
    EXPECT_THAT( taken(), ElementsAre( "a count" ) );
    counter->countIs( 7 );
    counter->countInc( 0 );
    EXPECT_THAT( taken(), IsEmpty() );
    counter->countInc( 3 );
    EXPECT_EQ( counter->count(), 10u );
    EXPECT_THAT( taken(), ElementsAre( "a count" ) );
}

TEST_F( WriterUnlock, WrapsAroundAndNotifies ) {
    const auto a = reactor( "a" );
    counter->countIs( 4294967295u );
    taken();
    counter->countInc( 1 );
    EXPECT_EQ( counter->count(), 0u );
    EXPECT_THAT( taken(), ElementsAre( "a count" ) );
}

TEST_F( WriterUnlock, TheNewValueStandsWhenReactorsAreCalled ) {
    const auto a = reactor( "a" );
    Qel::U32 seen = 0;
    a->then = [ & ] { seen = counter->count(); };
    counter->countIs( 5 );
    EXPECT_EQ( seen, 5u );
}

TEST_F( WriterUnlock, CallsInListOrder ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    const auto c = reactor( "c" );
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count", "b count", "c count" ) );
}

TEST_F( WriterUnlock, AReactorThatDetachesItselfStopsNobody ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    a->then = [ & ] { a->isRegisteredNotifieeIs( false ); };
    counter->countInc( 1 );
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count", "b count", "b count" ) );
}

TEST_F( WriterUnlock, OneDetachedBeforeItsTurnIsSkipped ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    const auto c = reactor( "c" );
    a->then = [ & ] { b->notifierIs( nullptr ); };
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count", "c count" ) );
}

TEST_F( WriterUnlock, OneAttachedMeanwhileWaitsForTheNextRound ) {
    const auto a = reactor( "a" );
    Qel::Ptr< UnlockReactor > b;
    a->then = [ & ] {
        if ( !b ) {
            b = reactor( "b" );
        }
    };
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count" ) );
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count", "b count" ) );
}

TEST_F( WriterUnlock, OneThatThrowsStopsNobody ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    a->then = [] { throw std::string( "x" ); };
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count", "a exception", "b count" ) );
}

TEST_F( WriterUnlock, TheCounterMayGoInItsOwnRound ) {
    const auto a = reactor( "a" );
    const auto b = reactor( "b" );
    a->then = [ & ] { counter = nullptr; };
    counter->countInc( 1 );
    EXPECT_THAT( taken(), ElementsAre( "a count" ) );
    EXPECT_EQ( b->notifier(), nullptr );
}

TEST_F( WriterUnlock, LeavesItsReactorsWhenItGoes ) {
    const auto a = reactor( "a" );
    counter = nullptr;
    EXPECT_EQ( a->notifier(), nullptr );
}

TEST_F( WriterUnlock, LifeCycleFlagsAreRecordedAndNotified ) {
    const auto a = reactor( "a" );
    counter->isNondestructingIs( true );
    EXPECT_TRUE( counter->isNondestructing() );
    counter->zeroReferencesIs( true );
    EXPECT_TRUE( counter->zeroReferences() );
    EXPECT_THAT( taken(), ElementsAre( "a isNondestructing", "a isNondestructing" ) );
    counter->isNondestructingIs( true );
    EXPECT_THAT( taken(), IsEmpty() );
    EXPECT_EQ( counter->references(), 1u );
}

TEST_F( WriterUnlock, IsATypeOfTheFramework ) {
    const auto type = Qel::QelType::typeNode( "QelKrell::WriterUnlock" );
    ASSERT_TRUE( type );
    EXPECT_EQ( type, counter->fwkType() );
    EXPECT_EQ( type, QelKrell::WriterUnlock::_fwkType() );
    EXPECT_TRUE( type->isEntity() );
    EXPECT_TRUE( type->hasGenericIfSupport() );
    EXPECT_EQ( type->attrName( 258 ), "count" );
    EXPECT_EQ( type->attrName( 259 ), "unknown" );
    EXPECT_EQ( type->attr( "count" )->typeName, "U32" );
    EXPECT_EQ( type->attrName( type->attr( "name" )->id ), "name" );
    const auto made = Qel::Entity::newEntity( "QelKrell::WriterUnlock", "x" );
    EXPECT_TRUE( Qel::ptrCast< QelKrell::WriterUnlock >( made ) );
    EXPECT_THAT( Qel::registeredUnits(), testing::Contains( Qel::String( "writer unlock" ) ) );
}

TEST_F( WriterUnlock, CountIsReadAndSetByName ) {
    const auto a = reactor( "a" );
    const auto generic = counter->genericIf();
    generic->attributeIs( "count", Qel::genericValue( 9u ) );
    EXPECT_EQ( counter->count(), 9u );
    EXPECT_EQ( generic->attribute( 258 ).strep(), "9" );
    EXPECT_THAT( taken(), ElementsAre( "a count" ) );
    EXPECT_THROW( generic->attributeIs( "count", Qel::genericValue( "9" ) ), Qel::TypeException );
    EXPECT_THROW(
        std::as_const( *counter ).genericIf()->attributeIs( "count", Qel::genericValue( 1u ) ),
        Qel::ConstException );
    EXPECT_EQ( counter->count(), 9u );
}

} // namespace
