// Libraries of types: what they list is told without running them; what they bring can be mounted.

#include <Qel/TypeLibrary>

#include <filesystem>
#include <fstream>
#include <random>

#include <gmock/gmock.h>
#include <unistd.h>

#include <QelKrell/Generic>

#include "Programs.h"
#include "Raised.h"
#include "mount/Child.h"
#include "mount/Site.h"

namespace {

using QelKrellTest::Channel;
using QelKrellTest::Child;
using QelKrellTest::Root;
using QelKrellTest::Site;
using testing::ElementsAre;
using testing::HasSubstr;

std::string library( const char* name ) {
    return QelKrellTest::program( std::string( "types-" ) + name + ".so" );
}

QelKrell::MountInfo infoFor( QelKrell::QelKrellType role ) {
    QelKrell::MountInfo info( role );
    info.collectionInfoIs( { "reading", 10 } );
    return info;
}

// A value of that type by its text form.
Qel::GenericValue valueOf( const char* type, const Qel::String& text ) {
    const auto node = Qel::QelType::typeNode( type );
    auto at = text.begin();
    return node->ops().parse( at, text.end() );
}

std::string what( const std::function< void() >& body ) {
    try {
        body();
    } catch ( const Qel::RangeException& e ) {
        return e.what();
    } catch ( const Qel::SystemException& e ) {
        return std::string( "system: " ) + e.what();
    }
    return "";
}

TEST( TypeLibraryTest, NamesAreListedWithoutLoading ) {
    EXPECT_THAT( Qel::typeNamesIn( library( "first" ) ),
                 ElementsAre( "Plug::Reading", "Plug::Plant" ) );
    EXPECT_FALSE( Qel::QelType::typeNode( "Plug::Plant" ) );
}

TEST( TypeLibraryTest, NamesAreListedFromLibrariesOfTheOtherWidth ) {
    const std::string other = QelKrellTest::program32( "types-first.so" );
    if ( other.empty() ) {
        GTEST_SKIP() << QelKrellTest::noProgram32;
    }
    EXPECT_THAT( Qel::typeNamesIn( other ), ElementsAre( "Plug::Reading", "Plug::Plant" ) );
    EXPECT_THAT( what( [ & ] { Qel::loadTypes( other ); } ), HasSubstr( "cannot load " ) );
}

TEST( TypeLibraryTest, OurOwnLibraryListsItsTypes ) {
    const auto directory = std::filesystem::path( QelKrellTest::programDirectory() ).parent_path();
    const auto names = Qel::typeNamesIn( directory / "lib" / "libQelKrell.so" );
    EXPECT_EQ( names.size(), 12U );
    EXPECT_EQ( names.front(), "QelKrell::ReaderCounters" );
}

TEST( TypeLibraryTest, WhatIsNoListIsRefusedWithItsName ) {
    const Root root;
    EXPECT_THAT( what( [] { Qel::typeNamesIn( "/nowhere/x.so" ); } ),
                 HasSubstr( "system: open /nowhere/x.so: No such file" ) );
    const std::string silent = library( "silent" );
    EXPECT_EQ( what( [ & ] { Qel::typeNamesIn( silent ); } ),
               silent + " lists no types: it has no section .qel.type" );
    EXPECT_EQ( what( [ & ] { Qel::loadTypes( silent ); } ),
               silent + " lists no types: it has no section .qel.type" );
    for ( const std::string& path : { std::string( "/dev/zero" ), std::string( "/" ),
                                      std::string( "/proc/self/exe/" ).substr( 0, 5 ) } ) {
        EXPECT_EQ( what( [ & ] { Qel::typeNamesIn( path ); } ), path + " is no shared library" );
    }
    const std::string text = root.path() + "/text.so";
    std::ofstream( text ) << "this is not a library, although it is long enough for a header";
    EXPECT_EQ( what( [ & ] { Qel::typeNamesIn( text ); } ), text + " is no shared library" );
    const std::string liar = library( "liar" );
    EXPECT_EQ( what( [ & ] { Qel::loadTypes( liar ); } ),
               liar + " lists the type Plug::Missing, but does not register it" );
}

// Files that were cut, and others' bytes in their headers.
TEST( TypeLibraryTest, DamagedFilesAreRefusedOrRead ) {
    const Root root;
    std::ifstream in( library( "first" ), std::ios::binary );
    const std::string whole { std::istreambuf_iterator< char >( in ), {} };
    const std::string path = root.path() + "/damaged.so";
    const auto tryBytes = [ & ]( const std::string& bytes ) {
        std::ofstream( path, std::ios::binary ) << bytes;
        what( [ & ] { Qel::typeNamesIn( path ); } );
    };
    std::mt19937_64 random( 20261121 );
    for ( int i = 0; i < 200; ++i ) {
        tryBytes( whole.substr( 0, random() % whole.size() ) );
    }
    const std::size_t sections = whole.size() - 64 * 40; // where section headers stand, about
    for ( int i = 0; i < 2000; ++i ) {
        std::string bytes = whole;
        const std::size_t at =
            i % 2 ? random() % 64 : sections + random() % ( whole.size() - sections );
        bytes[ at ] = char( random() );
        tryBytes( bytes );
    }
}

// In a process of its own: what was loaded stays.
TEST( TypeLibraryTest, ALoadedTypeIsMountedWrittenAndReadByName ) {
    const Root root;
    Child child( []( const Channel& channel ) {
        Qel::loadTypes( library( "first" ) );
        const auto names = Qel::loadTypes( library( "first" ) ); // again: nothing
        Site site( false );
        site.mount.handleInitialized();
        const auto plant =
            site.mount.doMount( "plant", "Plug::Plant", infoFor( QelKrell::writer ) );
        const auto face = plant->fwkType()->genericIf();
        face->entityIs( plant, false );
        const auto reading =
            valueOf( "Plug::Reading", "Value('Plug::Reading', ** {'sensor': 7, 'celsius': 21.5, "
                                      "'takenAt': 3})" );
        face->attributeIs( "reading", Qel::genericValue( Qel::U32( 7 ) ), reading );
        channel.say( Qel::decimal( names.size() ).stdString() );
        channel.say(
            face->attribute( "reading", Qel::genericValue( Qel::U32( 7 ) ) ).strep().stdString() );
    } );
    EXPECT_EQ( child.hear(), "2" );
    EXPECT_EQ( child.hear(), "Value('Plug::Reading', ** {'sensor': 7, 'celsius': 21.5, 'takenAt': "
                             "3})" );
}

// Two versions cannot be in one process: the later is refused, each time, and the former works on.
TEST( TypeLibraryTest, AnotherVersionOfAKnownTypeIsRefused ) {
    const Root root;
    Child child( []( const Channel& channel ) {
        Qel::loadTypes( library( "first" ) );
        channel.say( what( [] { Qel::loadTypes( library( "second" ) ); } ) );
        channel.say( what( [] { Qel::loadTypes( library( "second" ) ); } ) );
        const Qel::String text = "Value('Plug::Reading', ** {'sensor': 7, 'celsius': 21.5, "
                                 "'takenAt': 3})";
        channel.say( valueOf( "Plug::Reading", text ).strep().stdString() );
    } );
    const std::string refusal = library( "second" ) +
                                ": there is another type named Plug::Reading already: of the new "
                                "one, celsius is float, not double";
    EXPECT_EQ( child.hear(), refusal );
    EXPECT_EQ( child.hear(), refusal );
    EXPECT_THAT( child.hear(), HasSubstr( "'takenAt': 3" ) );
}

// A process of one version meets the collection of another.
TEST( TypeLibraryTest, AnotherVersionIsRefusedWithTheAttributesThatDiffer ) {
    const Root root;
    const auto mountAs = []( const char* version, QelKrell::QelKrellType role ) {
        return [ version, role ]( const Channel& channel ) {
            Qel::loadTypes( library( version ) );
            Site site( false );
            site.mount.handleInitialized();
            std::string refusal = "mounted";
            try {
                site.mount.doMount( "plant", "Plug::Plant", infoFor( role ) );
            } catch ( const Qel::Exception& e ) {
                refusal = e.what();
            }
            channel.say( refusal );
            channel.hear();
        };
    };
    Child writer( mountAs( "first", QelKrell::writer ) );
    ASSERT_EQ( writer.hear(), "mounted" );
    for ( const auto role : { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
        Child reader( mountAs( "second", role ) );
        const std::string refusal = reader.hear();
        EXPECT_THAT( refusal, HasSubstr( "the collection holds Plug::Reading in Plug::Plant" ) );
        EXPECT_THAT( refusal, HasSubstr( "; value celsius: double@0 there, float@0 here; value "
                                         "takenAt: U64@8 there, absent here" ) );
    }
    Child second( mountAs( "second", QelKrell::writer ) );
    EXPECT_THAT( second.hear(), HasSubstr( " is written by " ) );
    Child same( mountAs( "first", QelKrell::reader ) );
    EXPECT_EQ( same.hear(), "mounted" );
}

} // namespace
