// Debug handlers.

#include <QelKrell/Debug>

#include <memory>

#include <gmock/gmock.h>

#include "platform/Tracing.h"

namespace {

using QelKrellTest::Coverage;
using QelKrellTest::Message;
using QelKrellTest::Tracing;
using testing::ElementsAre;
using testing::IsEmpty;

std::unique_ptr< Krell::Platform::DebugHandler > handlerOf( const std::string& name ) {
    return std::unique_ptr< Krell::Platform::DebugHandler >(
        Krell::Platform::getDebugHandler( name ) );
}

TEST( Debug, BearsItsNameAndIsOffAtFirst ) {
    const Tracing tracing( "" );
    const auto handler = handlerOf( "DebugTest" );
    const auto* debug = dynamic_cast< QelKrell::Debug* >( handler.get() );
    ASSERT_TRUE( debug );
    EXPECT_EQ( debug->name(), "DebugTest" );
    for ( int level = -1; level <= 10; ++level ) {
        EXPECT_FALSE( handler->enabled( level ) ) << level;
    }
}

TEST( Debug, IsEnabledWhereFacilityAndLevelAre ) {
    Tracing tracing( "DebugTest/1+5" );
    const auto handler = handlerOf( "DebugTest" );
    EXPECT_TRUE( handler->enabled( 1 ) );
    EXPECT_TRUE( handler->enabled( 5 ) );
    EXPECT_FALSE( handler->enabled( 0 ) );
    EXPECT_FALSE( handler->enabled( 9 ) );
    tracing.settingsAre( "DebugTest/*,-DebugTest" );
    EXPECT_FALSE( handler->enabled( 5 ) );
}

TEST( Debug, EnabledDoesNotLookAtTheCoverageStream ) {
    const Tracing tracing( "" );
    const Coverage coverage;
    EXPECT_FALSE( handlerOf( "DebugTest" )->enabled( 5 ) );
}

TEST( Debug, DumpWritesOneLineAtItsOwnPosition ) {
    Tracing tracing( "DebugTest/*" );
    const auto handler = handlerOf( "DebugTest" );
    std::stringstream text;
    text << "one\ntwo\\";
    handler->dump( text, 3 );
    EXPECT_THAT( tracing.taken(), ElementsAre( Message { "DebugTest", "src-includes/QelKrell/Debug",
                                                         43, "dump", 3, "one\\ntwo\\\\" } ) );
    EXPECT_THAT( tracing.contexts(), ElementsAre( "" ) );
}

TEST( Debug, DumpTakesTheWholeTextHoweverMuchWasRead ) {
    Tracing tracing( "DebugTest/*" );
    std::stringstream text( "first second" );
    std::string first;
    text >> first;
    handlerOf( "DebugTest" )->dump( text, 5 );
    EXPECT_EQ( tracing.taken().at( 0 ).text, "first second" );
}

TEST( Debug, DumpAsksNobody ) {
    Tracing tracing( "-DebugTest" );
    const Coverage coverage;
    const auto handler = handlerOf( "DebugTest" );
    std::stringstream text;
    text << "a\tb";
    handler->dump( text, 5 );
    EXPECT_EQ( tracing.taken().size(), 1u );
    EXPECT_EQ( coverage.text(), Qel::escapedTraceString( "a\tb" ).stdString() + "\n" );
}

TEST( Debug, HandlersOfOneNameAreSwitchedTogether ) {
    const Tracing tracing( "DebugTest/5" );
    const auto one = handlerOf( "DebugTest" );
    const auto other = handlerOf( "DebugTest" );
    EXPECT_TRUE( one->enabled( 5 ) );
    EXPECT_TRUE( other->enabled( 5 ) );
}

} // namespace
