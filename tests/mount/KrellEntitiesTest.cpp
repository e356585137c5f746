// The counts of mounted entities.

#include <Qel/Describe>
#include <Qel/GenericIf>
#include <QelKrell/Generic>
#include <QelKrell/KrellEntities>

#include <map>
#include <random>
#include <stdexcept>

#include <gmock/gmock.h>

#include "Raised.h"
#include "TraceLog.h"

namespace {

using Qel::genericValue;
using Qel::String;
using Qel::U32;
using QelKrell::KrellEntities;
using QelKrellTest::raised;
using testing::ElementsAre;

// Notes what it was told: the name, with the count at that time.
class Recorder : public KrellEntities::Notifiee {
public:
    explicit Recorder( const KrellEntities::Ptr& entities ) {
        notifierIs( entities );
        isRegisteredNotifieeIs( true );
    }
    void onCount( const String& name ) override {
        told.push_back( name.stdString() + "=" + std::to_string( notifier()->count( name ) ) );
    }
    void onCount() override { told.push_back( "all" ); }
    void onCountqelImmediate() override { told.push_back( "immediate" ); }
    void onIsNondestructing() override { told.push_back( "isNondestructing" ); }

    std::vector< std::string > take() { return std::exchange( told, {} ); }

    std::vector< std::string > told;
};

class KrellEntitiesTest : public testing::Test {
protected:
    KrellEntities::Ptr entities = Qel::newEntity< KrellEntities >( "counts" );
    Qel::Ptr< Recorder > recorder = new Recorder( entities );
};

// --- Counting

TEST_F( KrellEntitiesTest, AnAbsentNameCountsZero ) {
    EXPECT_EQ( entities->count( "x" ), 0u );
    EXPECT_EQ( entities->path( "x" ), 0u );
    EXPECT_EQ( entities->counts(), 0u );
    EXPECT_TRUE( recorder->take().empty() );
}

TEST_F( KrellEntitiesTest, IncrementsFromNothing ) {
    EXPECT_EQ( entities->countInc( "x", 1 ), 1u );
    EXPECT_EQ( entities->countInc( "x", 1 ), 2u );
    EXPECT_EQ( entities->countInc( "x", 40 ), 42u );
    EXPECT_EQ( entities->count( "x" ), 42u );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=1", "x=2", "x=42" ) );
}

TEST_F( KrellEntitiesTest, DecrementWrapsAroundBelowZero ) {
    EXPECT_EQ( entities->countDec( "y", 1 ), 4294967295U );
    EXPECT_EQ( entities->count( "y" ), 4294967295U );
    EXPECT_EQ( entities->countInc( "y", 3 ), 2u );
    EXPECT_THAT( recorder->take(), ElementsAre( "y=4294967295", "y=2" ) );
}

TEST_F( KrellEntitiesTest, AnEntryThatReachesZeroStays ) {
    entities->countInc( "x", 1 );
    EXPECT_EQ( entities->countDec( "x", 1 ), 0u );
    EXPECT_EQ( entities->counts(), 1u );
    EXPECT_EQ( entities->countDel( "x" ), 0u );
    EXPECT_EQ( entities->counts(), 0u );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=1", "x=0", "x=0" ) );
}

TEST_F( KrellEntitiesTest, DeletionReturnsTheCountThatWasThere ) {
    entities->newCount( "x", 7 );
    EXPECT_EQ( entities->countDel( "x" ), 7u );
    EXPECT_EQ( entities->count( "x" ), 0u );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=7", "x=0" ) );
    EXPECT_EQ( entities->countDel( "x" ), 0u );
    EXPECT_TRUE( recorder->take().empty() );
}

TEST_F( KrellEntitiesTest, OnlyAChangeIsNotified ) {
    entities->countIs( "x", 5 );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=5" ) );
    entities->countIs( "x", 5 );
    entities->countInc( "x", 0 );
    entities->countDec( "x", 0 );
    EXPECT_TRUE( recorder->take().empty() );
    entities->countIs( "x", 6 );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=6" ) );
    // An entry that is made is a change, whatever it counts.
    entities->countIs( "zero", 0 );
    EXPECT_THAT( recorder->take(), ElementsAre( "zero=0" ) );
    EXPECT_EQ( entities->counts(), 2u );
}

TEST_F( KrellEntitiesTest, NewCountReturnsItsNode ) {
    const auto node = entities->newCount( "x", 3 );
    EXPECT_EQ( node->key(), "x" );
    EXPECT_EQ( node->count(), 3u );
    entities->countInc( "x", 1 );
    EXPECT_EQ( node->count(), 4u );
    entities->countNotify( "x", node );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=3", "x=4", "x=4" ) );
}

TEST_F( KrellEntitiesTest, BothWaysOfDeletingAllTellOfEachEntry ) {
    for ( const bool byPath : { false, true } ) {
        entities->countIs( "a", 1 );
        entities->countIs( "b", 2 );
        entities->countIs( "c", 3 );
        recorder->take();
        byPath ? entities->pathDelAll() : entities->countDelAll();
        EXPECT_EQ( entities->counts(), 0u );
        EXPECT_THAT( recorder->take(), testing::UnorderedElementsAre( "a=0", "b=0", "c=0" ) );
    }
}

TEST_F( KrellEntitiesTest, AgreesWithAModel ) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE( "seed " + std::to_string( seed ) );
    std::mt19937 random( seed );
    std::map< std::string, U32 > model;
    for ( int i = 0; i < 5000; ++i ) {
        const std::string name = "/sys/Krell/e" + std::to_string( random() % 60 );
        const U32 n = random() % 3 == 0 ? U32( random() ) : random() % 3;
        switch ( random() % 5 ) {
        case 0:
            EXPECT_EQ( entities->countInc( String( name ), n ), model[ name ] += n );
            break;
        case 1:
            EXPECT_EQ( entities->countDec( String( name ), n ), model[ name ] -= n );
            break;
        case 2:
            entities->countIs( String( name ), model[ name ] = n );
            break;
        case 3:
            EXPECT_EQ( entities->countDel( String( name ) ),
                       model.contains( name ) ? model[ name ] : 0 );
            model.erase( name );
            break;
        default:
            EXPECT_EQ( entities->count( String( name ) ),
                       model.contains( name ) ? model[ name ] : 0 );
        }
        EXPECT_EQ( entities->path( String( name ) ), entities->count( String( name ) ) );
    }
    EXPECT_EQ( entities->counts(), model.size() );
    std::map< std::string, U32 > seen;
    for ( KrellEntities::CountIterator it = entities->countIterator(); it.next(); ) {
        seen[ it->key().stdString() ] = it->count();
    }
    EXPECT_EQ( seen, model );
}

// --- Reactors

TEST_F( KrellEntitiesTest, ReactorsAreToldInTheOrderOfRegistration ) {
    static std::vector< int > order;
    order.clear();
    class Ordered : public KrellEntities::Notifiee {
    public:
        Ordered( const KrellEntities::Ptr& entities, int number ) : number_( number ) {
            notifierIs( entities );
            isRegisteredNotifieeIs( true );
        }
        void onCount( const String& ) override { order.push_back( number_ ); }

    private:
        int number_;
    };
    const Qel::Ptr< Ordered > first = new Ordered( entities, 1 );
    const Qel::Ptr< Ordered > second = new Ordered( entities, 2 );
    Qel::Ptr< Ordered > third = new Ordered( entities, 3 );
    entities->countInc( "x", 1 );
    EXPECT_THAT( order, ElementsAre( 1, 2, 3 ) );
    second->isRegisteredNotifieeIs( false );
    third = nullptr;
    entities->countInc( "x", 1 );
    EXPECT_THAT( order, ElementsAre( 1, 2, 3, 1 ) );
}

TEST_F( KrellEntitiesTest, AThrowingReactorDoesNotStopTheOthers ) {
    class Thrower : public KrellEntities::Notifiee {
    public:
        explicit Thrower( const KrellEntities::Ptr& entities ) {
            notifierIs( entities );
            isRegisteredNotifieeIs( true );
        }
        void onCount( const String& ) override { throw std::runtime_error( "from a reactor" ); }
        void onException( std::exception_ptr e ) override {
            caught = raised< std::runtime_error >( [ & ] { std::rethrow_exception( e ); } );
        }
        std::string caught;
    };
    const Qel::Ptr< Thrower > thrower = new Thrower( entities );
    const Qel::Ptr< Recorder > later = new Recorder( entities );
    EXPECT_EQ( entities->countInc( "x", 1 ), 1u );
    EXPECT_EQ( thrower->caught, "from a reactor" );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=1" ) );
    EXPECT_THAT( later->take(), ElementsAre( "x=1" ) );
}

TEST_F( KrellEntitiesTest, ARoundIsNotChangedByItsReactors ) {
    // Detaches `victim` and attaches `newcomer` when it is told.
    class Meddler : public KrellEntities::Notifiee {
    public:
        explicit Meddler( const KrellEntities::Ptr& entities ) {
            notifierIs( entities );
            isRegisteredNotifieeIs( true );
        }
        void onCount( const String& ) override {
            victim->isRegisteredNotifieeIs( false );
            if ( !newcomer ) {
                newcomer = new Recorder( notifier() );
            }
        }
        Qel::Ptr< Recorder > victim;
        Qel::Ptr< Recorder > newcomer;
    };
    const Qel::Ptr< Meddler > meddler = new Meddler( entities );
    meddler->victim = new Recorder( entities );
    entities->countInc( "x", 1 );
    EXPECT_TRUE( meddler->victim->take().empty() ); // left before its turn came
    EXPECT_TRUE( meddler->newcomer->take().empty() );
    entities->countInc( "x", 1 );
    EXPECT_THAT( meddler->newcomer->take(), ElementsAre( "x=2" ) );
    meddler->victim = nullptr;
}

// --- The entity

TEST_F( KrellEntitiesTest, FlagsAreKept ) {
    EXPECT_FALSE( entities->isNondestructing() );
    EXPECT_FALSE( entities->zeroReferences() );
    entities->isNondestructingIs( true );
    EXPECT_TRUE( entities->isNondestructing() );
    EXPECT_FALSE( entities->zeroReferences() );
    EXPECT_THAT( recorder->take(), ElementsAre( "isNondestructing" ) );
    entities->isNondestructingIs( true );
    EXPECT_TRUE( recorder->take().empty() );
    entities->zeroReferencesIs( true );
    EXPECT_TRUE( entities->zeroReferences() );
    entities->isNondestructingIs( false );
    EXPECT_FALSE( entities->isNondestructing() );
    EXPECT_TRUE( entities->zeroReferences() );
}

TEST_F( KrellEntitiesTest, TheSingletonIsMadeOnce ) {
    Qel::Entity::singletonDel( &KrellEntities::_fwkType );
    EXPECT_FALSE( Qel::Entity::singleton< KrellEntities >() );
    const KrellEntities::Ptr one = QelKrell::krellEntitiesFactory( "mounted" );
    ASSERT_TRUE( one );
    EXPECT_EQ( one->name(), Qel::Name( "mounted" ) );
    EXPECT_EQ( QelKrell::krellEntitiesFactory( "other" ), one );
    EXPECT_EQ( Qel::Entity::singleton< KrellEntities >(), one );
    EXPECT_EQ( one->fwkType(), KrellEntities::_fwkType() );
    Qel::Entity::singletonDel( &KrellEntities::_fwkType );
}

// --- By name

TEST_F( KrellEntitiesTest, CountsAreReadSetAndDeletedByName ) {
    const auto generic = entities->genericIf();
    generic->attributeIs( "count", genericValue( "x" ), genericValue( U32( 5 ) ) );
    EXPECT_EQ( entities->count( "x" ), 5u );
    EXPECT_EQ( generic->attribute( "count", genericValue( "x" ) ).strep(), "5" );
    EXPECT_EQ( generic->attribute( "path", genericValue( "x" ) ).strep(), "5" );
    EXPECT_EQ( generic->attribute( "count", genericValue( "y" ) ).strep(), "0" );
    generic->attributeDel( "count", genericValue( "x" ) );
    EXPECT_EQ( entities->counts(), 0u );
    EXPECT_THAT( recorder->take(), ElementsAre( "x=5", "x=0" ) );
    generic->attributeIs( "isNondestructing", genericValue( true ) );
    generic->attributeIs( "zeroReferences", genericValue( true ) );
    EXPECT_EQ( generic->attribute( "isNondestructing" ).strep(), "True" );
    EXPECT_TRUE( entities->zeroReferences() );
    EXPECT_EQ( generic->attribute( "name" ).strep(), "'counts'" );
}

TEST_F( KrellEntitiesTest, GenericRefusalsChangeNothing ) {
    entities->countIs( "x", 5 );
    recorder->take();
    KrellEntities::GenericIf_ generic( *entities );
    KrellEntities::GenericIf_ constant( std::as_const( *entities ) );
    const auto x = genericValue( "x" );
    const auto one = genericValue( U32( 1 ) );
    EXPECT_EQ(
        raised< Qel::OpNotSupportedException >( [ & ] { generic.attributeIs( "path", x, one ); } ),
        "attribute 'path' is read-only" );
    EXPECT_EQ(
        raised< Qel::OpNotSupportedException >( [ & ] { generic.attributeDel( "path", x ); } ),
        "attribute 'path' is read-only" );
    EXPECT_EQ( raised< Qel::BadIndexException >( [ & ] { generic.attribute( "count" ); } ),
               "bad index on attribute 'count': it needs one" );
    EXPECT_EQ( raised< Qel::BadIndexException >( [ & ] { generic.attributeIs( "count", one ); } ),
               "bad index on attribute 'count': it needs one" );
    EXPECT_EQ(
        raised< Qel::BadIndexException >( [ & ] { generic.attribute( "isNondestructing", x ); } ),
        "bad index on attribute 'isNondestructing': it takes none" );
    EXPECT_EQ( raised< Qel::TypeException >( [ & ] { generic.attribute( "count", one ); } ),
               "the index of attribute 'count' takes a Qel::String8, not a U32" );
    EXPECT_EQ( raised< Qel::TypeException >( [ & ] { generic.attributeIs( "count", x, x ); } ),
               "attribute 'count' takes a U32, not a Qel::String8" );
    EXPECT_EQ( raised< Qel::OpNotSupportedException >( [ & ] { generic.call( "count" ); } ),
               "attribute 'count' is not an operation" );
    EXPECT_EQ( raised< Qel::UnknownAttributeException >( [ & ] { generic.call( "countInc" ); } ),
               "QelKrell::KrellEntities has no attribute 'countInc'" );
    const char* constError = "attempting to modify a const instance";
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] { constant.attributeIs( "count", x, one ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] { constant.attributeDel( "count", x ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeIs( "zeroReferences", genericValue( true ) ); } ),
               constError );
    EXPECT_EQ( constant.attribute( "count", x ).strep(), "5" );
    EXPECT_EQ( entities->count( "x" ), 5u );
    EXPECT_FALSE( entities->zeroReferences() );
    EXPECT_TRUE( recorder->take().empty() );
}

} // namespace
