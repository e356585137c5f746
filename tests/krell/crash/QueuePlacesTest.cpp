// The changes that are killed in the change queue meet what they are named for.

#include <set>

#include <gtest/gtest.h>

#include <Krell/CrashPoint>

#include "krell/crash/KillFixture.h"

using namespace KrellTest;

namespace {

std::set< std::string > passed;

std::set< std::string > placesOf( const char* name ) {
    for ( const Change& change : allChanges() ) {
        if ( change.name == std::string( name ) ) {
            TestRoot root;
            TestCollection writer( layoutOf( 2, valueWords ) );
            writer.asWriter( change.size );
            Both both( &writer );
            change.prepare( both );
            passed.clear();
            Krell::crashPointHandler = []( const char* place ) { passed.insert( place ); };
            change.change( both );
            Krell::crashPointHandler = nullptr;
            return passed;
        }
    }
    return {};
}

TEST( QueuePlacesTest, MovesRoundsAndGrowthAreMet ) {
    for ( const char* name : { "UpdateThatMovesEntries", "DeleteThatMovesEntries" } ) {
        const auto places = placesOf( name );
        EXPECT_TRUE( places.count( "queue: entry moved" ) ) << name;
        EXPECT_TRUE( places.count( "queue: moved entries marked" ) ) << name;
        EXPECT_TRUE( places.count( "queue: tail stored" ) ) << name;
    }
    const auto round = placesOf( "UpdateThatBeginsARound" );
    EXPECT_TRUE( round.count( "queue: former round stored" ) );
    EXPECT_TRUE( round.count( "queue: round stored" ) );
    EXPECT_TRUE( placesOf( "InsertThatGrowsTheQueue" ).count( "queue: file grown" ) );
    EXPECT_FALSE( placesOf( "Update" ).count( "queue: tail stored" ) );
}

} // namespace
