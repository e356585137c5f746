// The text that names a collection's last writer.

#include <Krell/Owner>

#include <gmock/gmock.h>

#include <unistd.h>

namespace {

using namespace Krell;

TEST( OwnerTest, TextIsReadBack ) {
    const Owner self = Owner::self();
    EXPECT_EQ( self.pid, ::getpid() );
    EXPECT_FALSE( self.empty() );
    EXPECT_EQ( Owner::parse( self.text() ), self );
    EXPECT_EQ( self.description(), self.process + " (pid " + std::to_string( self.pid ) + ")" );
    EXPECT_EQ( Owner().description(), "nobody known" );
}

TEST( OwnerTest, GarbageIsAnEmptyOwner ) {
    for ( const std::string& text :
          { std::string(), std::string( "\n\n" ), std::string( 5000, '\0' ),
            std::string( 5000, 'p' ), std::string( "pid: " ), std::string( "pid: \n" ),
            std::string( "pid: x\n" ), std::string( "pid: 0\n" ), std::string( "pid: -3\n" ),
            std::string( "pid: 12" ), std::string( "pid: 12x\n" ),
            std::string( "pid: 99999999999999\n" ), std::string( "pid:12\n" ),
            std::string( "PID: 12\n" ) } ) {
        EXPECT_TRUE( Owner::parse( text ).empty() ) << text;
        EXPECT_EQ( Owner::parse( text ), Owner() );
    }
}

TEST( OwnerTest, WhatIsMissingOrUnknownIsPassedOver ) {
    const Owner owner = Owner::parse( "colour: red\npid: 12\nprocess\nstart-time: many\n" );
    EXPECT_EQ( owner.pid, 12 );
    EXPECT_EQ( owner.process, "" );
    EXPECT_EQ( owner.startTime, 0U );
    EXPECT_EQ( owner.bootId, "" );
}

TEST( OwnerTest, EveryTruncationIsReadOrEmpty ) {
    const Owner self = Owner::self();
    const std::string text = self.text();
    for ( std::size_t length = 0; length <= text.size(); ++length ) {
        const Owner owner = Owner::parse( text.substr( 0, length ) );
        EXPECT_TRUE( owner.empty() || ( owner.pid == self.pid && owner.process == self.process ) )
            << length;
    }
}

TEST( OwnerTest, OfEachKeyTheFirstLineCounts ) {
    const std::string old = "process: old\npid: 1\nstart-time: 1\nboot-id: o\nuid: 1\n";
    const Owner owner =
        Owner::parse( "process: new\npid: 2\nstart-time: 2\nboot-id: n\nuid: 2\n" + old );
    EXPECT_EQ( owner, ( Owner { "new", 2, 2, "n", 2 } ) );
}

TEST( OwnerTest, NamesCannotBreakTheLines ) {
    Owner owner { "evil\npid: 666\n\x7f", 12, 3, "id\n", 4 };
    const Owner read = Owner::parse( owner.text() );
    EXPECT_EQ( read.pid, 12 );
    EXPECT_EQ( read.process, "evil?pid: 666??" );
    EXPECT_EQ( read.bootId, "id?" );
    owner.process = std::string( 100000, 'x' );
    EXPECT_LE( owner.text().size(), Owner::maxText_ );
    EXPECT_EQ( Owner::parse( owner.text() ).pid, 12 );
}

} // namespace
