// A shared collection as its user sees it: changes, reads, reactions, access by name.

#include <Qel/GenericIf>
#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include <map>
#include <random>

#include <gmock/gmock.h>

#include "Raised.h"
#include "mount/Mounted.h"

namespace {

using MountBench::Limit;
using MountBench::Plant;
using MountBench::Reading;
using Qel::genericValue;
using Qel::U32;
using QelKrellTest::asWriter;
using QelKrellTest::Mounted;
using QelKrellTest::raised;
using QelKrellTest::readingOf;
using QelKrellTest::same;
using testing::ElementsAre;

// Written both ways: in this process's own memory, and in files.
class CollectionTest : public testing::TestWithParam< bool > {
protected:
    QelKrellTest::Root root;
    Mounted plant { asWriter( 4 ), GetParam() };
};

INSTANTIATE_TEST_SUITE_P( Local, CollectionTest, testing::Bool() );

TEST_P( CollectionTest, IsEmptyAtFirst ) {
    EXPECT_EQ( plant->reading.size(), 0u );
    EXPECT_FALSE( plant->reading( 1 ) );
    EXPECT_TRUE( plant->reading.begin() == plant->reading.end() );
    EXPECT_FALSE( plant->reading.del( 1 ) );
}

TEST_P( CollectionTest, InsertsReplacesAndRemoves ) {
    EXPECT_TRUE( plant->reading.is( { 7, 21.5, 1 } ) );
    EXPECT_TRUE( plant->reading.is( { 7, 22.5, 2 } ) );
    EXPECT_FALSE( plant->reading.is( { 7, 22.5, 2 } ) ) << "nothing changed";
    EXPECT_EQ( plant->reading.size(), 1u );
    EXPECT_EQ( plant->reading( 7 )->celsius, 22.5 );
    EXPECT_EQ( plant->reading( 7 )->takenAt, 2u );
    EXPECT_EQ( plant->reading( 7 )->sensor, 7u );
    EXPECT_TRUE( plant->reading.del( 7 ) );
    EXPECT_FALSE( plant->reading.del( 7 ) );
    EXPECT_EQ( plant->reading.size(), 0u );
}

TEST_P( CollectionTest, FindLeavesTheValueAloneWhenTheKeyIsAbsent ) {
    plant->reading.is( { 7, 21.5, 1 } );
    Reading r { 9, 9, 9 };
    EXPECT_FALSE( plant->reading.find( 8, r ) );
    EXPECT_TRUE( same( r, { 9, 9, 9 } ) );
    EXPECT_TRUE( plant->reading.find( 7, r ) );
    EXPECT_TRUE( same( r, { 7, 21.5, 1 } ) );
}

// More than a batch, keys that come twice, new and known and equal ones: each in its turn.
TEST_P( CollectionTest, ManyAreWrittenAsOneByOne ) {
    for ( U32 i = 0; i < 40; ++i ) {
        plant->reading.is( { i, 1.0, i } );
    }
    std::vector< U32 > told;
    const auto watch =
        plant->reading.onEntry( [ & ]( const U32& sensor ) { told.push_back( sensor ); } );
    std::vector< Reading > values;
    std::vector< U32 > changed;
    for ( U32 i = 0; i < 200; ++i ) {
        const U32 sensor = i * 7 % 90;
        const bool equal = i < 13 && sensor < 40;
        values.push_back( { sensor, equal ? 1.0 : i + 2.0, equal ? sensor : i } );
        if ( !equal ) {
            changed.push_back( sensor );
        }
    }
    plant->reading.isMany( values );
    EXPECT_EQ( told, changed );
    EXPECT_EQ( plant->reading.size(), 90u );
    std::map< U32, Reading > last;
    for ( const Reading& r : values ) {
        last[ r.sensor ] = r;
    }
    for ( const auto& [ sensor, r ] : last ) {
        EXPECT_TRUE( same( *plant->reading( sensor ), r ) ) << sensor;
    }
    plant->reading.isMany( {} );
    EXPECT_EQ( told, changed );
}

TEST( CollectionRoleTest, AReaderDoesNotWriteManyEither ) {
    const QelKrellTest::Root root;
    const Mounted reader { QelKrell::MountInfo( QelKrell::reader ), false };
    const std::vector< Reading > values { { 7, 2, 2 } };
    EXPECT_THROW( reader->reading.isMany( values ), QelKrell::InvalidInitializeException );
    EXPECT_EQ( reader->reading.size(), 0u );
}

TEST_P( CollectionTest, KeysMayBeText ) {
    EXPECT_TRUE( plant->limit.is( { "high", 90 } ) );
    EXPECT_TRUE( plant->limit.is( { "", 1 } ) );
    EXPECT_TRUE( plant->limit.is( { "sixteen letters!", 2 } ) );
    EXPECT_EQ( plant->limit( "high" )->value, 90 );
    EXPECT_EQ( plant->limit( "" )->value, 1 );
    EXPECT_EQ( plant->limit( "sixteen letters!" )->value, 2 );
    EXPECT_FALSE( plant->limit( "hig" ) );
    EXPECT_THROW( plant->limit( "seventeen letters" ), Qel::RangeException );
}

TEST_P( CollectionTest, AgreesWithAModelBeyondItsFirstSize ) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE( "seed " + std::to_string( seed ) );
    std::mt19937 random( seed );
    std::map< U32, Reading > model;
    for ( int i = 0; i < 20000; ++i ) {
        const U32 key = random() % 3000;
        const Reading r { key, double( random() ), random() };
        switch ( random() % 4 ) {
        case 0:
            EXPECT_EQ( plant->reading.del( key ), model.erase( key ) == 1 );
            break;
        case 1: {
            const auto found = plant->reading( key );
            ASSERT_EQ( bool( found ), model.contains( key ) );
            EXPECT_TRUE( !found || same( *found, model[ key ] ) );
            break;
        }
        default:
            EXPECT_TRUE( plant->reading.is( r ) );
            model[ key ] = r;
        }
    }
    EXPECT_EQ( plant->reading.size(), model.size() );
    for ( const Reading& r : plant->reading ) {
        const auto at = model.find( r.sensor );
        ASSERT_TRUE( at != model.end() );
        EXPECT_TRUE( same( at->second, r ) );
        model.erase( at );
    }
    EXPECT_TRUE( model.empty() );
    EXPECT_TRUE( plant->reading.control().validate() );
    plant->reading.delAll();
    EXPECT_EQ( plant->reading.size(), 0u );
}

TEST_P( CollectionTest, TheWriterIsToldAtOnceAndOnlyOfChanges ) {
    std::vector< U32 > told;
    auto watch = plant->reading.onEntry( [ & ]( const U32& sensor ) { told.push_back( sensor ); } );
    plant->reading.is( { 7, 1, 1 } );
    plant->reading.is( { 7, 1, 1 } );
    plant->reading.is( { 7, 2, 1 } );
    plant->reading.del( 7 );
    plant->reading.del( 7 );
    EXPECT_THAT( told, ElementsAre( 7u, 7u, 7u ) );
    watch = nullptr;
    plant->reading.is( { 8, 1, 1 } );
    EXPECT_EQ( told.size(), 3u );
}

TEST_P( CollectionTest, SizeIsRoomForThatMany ) {
    EXPECT_GE( plant->reading.control().capacity(), 4u );
    plant.remount( asWriter( 5000 ) );
    EXPECT_GE( plant->reading.control().capacity(), 5000u );
    EXPECT_GE( plant->reading.control().maxSize(), plant->reading.control().capacity() );
}

TEST_P( CollectionTest, AReactionOutlivesItsEntity ) {
    int told = 0;
    const auto watch = plant->reading.onEntry( [ & ]( const U32& ) { ++told; } );
    plant->reading.is( { 7, 1, 1 } );
    Plant::Ptr entity = plant.plant();
    plant.site().krell()->subdir( "site" )->entryDel( "north" );
    entity = nullptr;
    EXPECT_EQ( told, 1 );
}

// --- Entities that are not mounted

TEST( UnmountedCollection, IsEmptyAndRefusesChanges ) {
    const QelKrellTest::Root root;
    const auto plant = Qel::newEntity< Plant >( "free" );
    EXPECT_EQ( plant->reading.size(), 0u );
    EXPECT_FALSE( plant->reading( 1 ) );
    EXPECT_TRUE( plant->reading.begin() == plant->reading.end() );
    EXPECT_EQ( plant->reading.control().mountStatus(), QelKrell::none );
    EXPECT_THROW( plant->reading.is( { 1, 1, 1 } ), QelKrell::InvalidInitializeException );
    EXPECT_THROW( plant->reading.del( 1 ), QelKrell::InvalidInitializeException );
}

TEST( UnmountedCollectionDeathTest, OfAnEntityThatWasNotMadeByTypeAborts ) {
    const Qel::Ptr< Plant > plant = new Plant( "bare" );
    EXPECT_DEATH(
        static_cast< void >( plant->reading.size() ),
        testing::StrEq( "src-includes/QelKrell/Collection:133: Core& "
                        "QelKrell::Collection::core() const: Assertion `core_ && \"the collection "
                        "is not bound: make its entity by type\"' failed.\n" ) );
}

// --- By name

class CollectionByName : public testing::Test {
protected:
    CollectionByName() {
        plant->reading.is( { 7, 21.5, 3 } );
        plant->reading.is( { 8, 22.5, 4 } );
    }

    QelKrellTest::Root root;
    Mounted plant { asWriter(), true };
    Qel::Ptr< Qel::GenericIf > generic = plant->genericIf();
    Qel::Ptr< Qel::GenericIf > constant = std::as_const( *plant.plant() ).genericIf();
    const Qel::GenericValue seven = genericValue( U32( 7 ) );
};

TEST_F( CollectionByName, StandsInTheTypeTableWithItsControl ) {
    std::vector< std::string > attributes;
    for ( const Qel::QelAttr* attr : generic->type()->attributes() ) {
        attributes.push_back(
            ( attr->name + " " + attr->typeName + " " + Qel::decimal( attr->flags.value() ) )
                .stdString() );
    }
    EXPECT_THAT( attributes, ElementsAre( "name Qel::Name 8", "entity Qel::Entity::Ptr 8",
                                          "staff U32 2", "reading MountBench::Reading 36",
                                          "readingControl QelKrell::CollectionControl 8",
                                          "limit MountBench::Limit 36",
                                          "limitControl QelKrell::CollectionControl 8" ) );
}

TEST_F( CollectionByName, EntriesAreReadSetAndDeleted ) {
    EXPECT_EQ( constant->attribute( "reading", seven ).strep(),
               "Value('MountBench::Reading', ** {'sensor': 7, 'celsius': 21.5, 'takenAt': 3})" );
    EXPECT_FALSE( constant->attribute( "reading", genericValue( U32( 9 ) ) ) );
    EXPECT_EQ( constant->attribute( "reading", genericValue( U32( 9 ) ) ).strep(), "None" );
    generic->attributeIs( "reading", seven, genericValue( Reading { 7, 1, 2 } ) );
    EXPECT_TRUE( same( *plant->reading( 7 ), { 7, 1, 2 } ) );
    generic->attributeDel( "reading", seven );
    EXPECT_FALSE( plant->reading( 7 ) );
    const auto keys = constant->attributeIndices( "reading" );
    ASSERT_EQ( keys.size(), 1u );
    EXPECT_EQ( keys[ 0 ].strep(), "8" );
}

TEST_F( CollectionByName, ChangesAreToldWhileTheWatchLives ) {
    std::vector< Qel::String > told;
    auto watch = constant->attributeWatch(
        "reading", [ & ]( const Qel::GenericValue& key ) { told.push_back( key.strep() ); } );
    EXPECT_EQ( constant->attributeIndexType( "reading" )->fullName(), "U32" );
    plant->reading.is( { 7, 1, 2 } );
    generic->attributeDel( "reading", seven );
    EXPECT_THAT( told, ElementsAre( "7", "7" ) );
    watch = nullptr;
    plant->reading.is( { 7, 1, 2 } );
    EXPECT_EQ( told.size(), 2u );
    EXPECT_EQ( raised< Qel::BadIndexException >(
                   [ & ] { constant->attributeWatch( "staff", []( const auto& ) {} ); } ),
               "bad index on attribute 'staff': it takes none" );
    EXPECT_FALSE( raised< Qel::UnknownAttributeException >( [ & ] {
                      constant->attributeWatch( "none", []( const auto& ) {} );
                  } ).empty() );
}

TEST_F( CollectionByName, TheControlIsReadButNotSet ) {
    const auto control = generic->attribute( "readingControl" );
    ASSERT_TRUE( control.as< QelKrell::CollectionControl >() );
    EXPECT_EQ( *control.as< QelKrell::CollectionControl >(), plant->reading.control() );
    EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                   [ & ] { generic->attributeIs( "readingControl", control ); } ),
               "attribute 'readingControl' is read-only" );
}

TEST_F( CollectionByName, RefusalsChangeNothing ) {
    const auto other = genericValue( Reading { 9, 1, 2 } );
    EXPECT_EQ( raised< Qel::BadIndexException >(
                   [ & ] { generic->attributeIs( "reading", seven, other ); } ),
               "the index 7 is not the key of Value('MountBench::Reading', ** {'sensor': 9, "
               "'celsius': 1.0, "
               "'takenAt': 2})" );
    EXPECT_EQ( raised< Qel::BadIndexException >( [ & ] { generic->attribute( "reading" ); } ),
               "bad index on attribute 'reading': it needs one" );
    EXPECT_EQ( raised< Qel::TypeException >(
                   [ & ] { generic->attribute( "reading", genericValue( "7" ) ); } ),
               "the index of attribute 'reading' takes a U32, not a Qel::String8" );
    EXPECT_EQ( raised< Qel::TypeException >( [ & ] {
                   generic->attributeIs( "reading", seven, genericValue( Limit { "a", 1 } ) );
               } ),
               "attribute 'reading' takes a MountBench::Reading, not a MountBench::Limit" );
    const char* constError = "attempting to modify a const instance";
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] {
                   constant->attributeIs( "reading", seven, genericValue( Reading { 7, 1, 2 } ) );
               } ),
               constError );
    EXPECT_EQ(
        raised< Qel::ConstException >( [ & ] { constant->attributeDel( "reading", seven ); } ),
        constError );
    EXPECT_TRUE( same( *plant->reading( 7 ), { 7, 21.5, 3 } ) );
    EXPECT_EQ( plant->reading.size(), 2u );
}

} // namespace
