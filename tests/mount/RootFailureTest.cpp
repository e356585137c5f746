// Roots that cannot be used: each a clear error, and nothing changed.

#include <QelKrell/Exception>
#include <QelKrell/KrellMount>

#include <csignal>
#include <fstream>
#include <set>

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "Raised.h"
#include "mount/Child.h"
#include "mount/Mounted.h"

namespace {

namespace fs = std::filesystem;

using MountBench::plantType;
using QelKrellTest::asReader;
using QelKrellTest::asWriter;
using QelKrellTest::Channel;
using QelKrellTest::Child;
using QelKrellTest::Mounted;
using QelKrellTest::path;
using QelKrellTest::readingOf;
using QelKrellTest::Site;
using testing::AllOf;
using testing::HasSubstr;

// What doMount answers: "mounted STATUS", or the exception's class and message.
std::string answer( const QelKrell::MountInfo& info ) {
    Site site( false );
    try {
        site.mount.handleInitialized();
        site.mount.doMount( path, plantType, info );
        const auto plant = Qel::ptrCast< MountBench::Plant >( site.mount.getEntity( path ) );
        return "mounted " + std::to_string( plant->reading.control().mountStatus() );
    } catch ( const QelKrell::MemoryResourceException& e ) {
        return std::string( "memory: " ) + e.what();
    } catch ( const QelKrell::InvalidInitializeException& e ) {
        return std::string( "invalid: " ) + e.what();
    } catch ( const Qel::PermissionException& e ) {
        return std::string( "permission: " ) + e.what();
    } catch ( const Qel::InternalException& e ) {
        return std::string( "internal: " ) + e.what();
    }
}

class RootFailure : public testing::Test {
protected:
    // The names of all that stands below the root, with the sizes of files.
    std::set< std::string > contents() const {
        std::set< std::string > all;
        for ( const auto& entry : fs::recursive_directory_iterator( root.path() ) ) {
            all.insert( entry.path().string() + ( entry.is_regular_file()
                                                      ? " " + std::to_string( entry.file_size() )
                                                      : "" ) );
        }
        return all;
    }
    // The answers to a writer and to a reader, in a process without rights.
    std::pair< std::string, std::string > asNobody() const {
        Child child( []( const Channel& channel ) {
            constexpr uid_t nobody = 65534;
            if ( setgid( nobody ) != 0 || setuid( nobody ) != 0 ) {
                channel.say( "no other user" );
                return;
            }
            channel.say( answer( asWriter( 10 ) ) );
            channel.say( answer( asReader ) );
        } );
        const std::string writer = child.hear();
        return { writer, child.hear() };
    }

    QelKrellTest::Root root;
};

class RootOfAnotherUser : public RootFailure {
protected:
    void SetUp() override {
        if ( geteuid() != 0 ) {
            GTEST_SKIP() << "only the superuser can become another user";
        }
    }
};

TEST_F( RootOfAnotherUser, OneThatMayNotBeEnteredIsRefused ) {
    chmod( root.path().c_str(), 0700 );
    const auto [ writer, reader ] = asNobody();
    EXPECT_THAT( writer, AllOf( testing::StartsWith( "permission: " ), HasSubstr( root.path() ),
                                HasSubstr( "Permission denied" ) ) );
    EXPECT_THAT( reader, AllOf( testing::StartsWith( "permission: " ), HasSubstr( root.path() ),
                                HasSubstr( "Permission denied" ) ) );
    EXPECT_TRUE( contents().empty() );
}

TEST_F( RootOfAnotherUser, OneThatMayNotBeWrittenServesReadersOnly ) {
    chmod( root.path().c_str(), 0555 );
    const auto [ writer, reader ] = asNobody();
    EXPECT_THAT( writer, AllOf( testing::StartsWith( "permission: " ), HasSubstr( root.path() ),
                                HasSubstr( "Permission denied" ) ) );
    EXPECT_EQ( reader, "mounted 0" ); // there is nothing yet to attach to
    EXPECT_TRUE( contents().empty() );
}

TEST_F( RootOfAnotherUser, AnotherUsersCollectionIsNeitherReadNorWritten ) {
    Child maker( []( const Channel& channel ) {
        Mounted plant( asWriter( 10 ) );
        plant->reading.is( readingOf( 1, 1 ) );
        channel.say( "made" );
        channel.hear();
    } );
    ASSERT_EQ( maker.hear(), "made" );
    maker.kill();
    chmod( root.path().c_str(), 0755 );
    const auto before = contents();
    const auto [ writer, reader ] = asNobody();
    EXPECT_THAT( writer, AllOf( testing::StartsWith( "permission: " ), HasSubstr( root.path() ) ) );
    EXPECT_THAT( reader, AllOf( testing::StartsWith( "permission: " ), HasSubstr( root.path() ) ) );
    EXPECT_EQ( contents(), before );
    Mounted plant( asWriter() );
    EXPECT_TRUE( plant->reading( 1 ) );
}

TEST_F( RootFailure, ARelativeOrEmptyOneIsRefused ) {
    for ( const char* bad : { "relative", "./x", "" } ) {
        setenv( "KRELL_ROOT", bad, 1 );
        EXPECT_THAT( answer( asWriter() ),
                     AllOf( testing::StartsWith( "invalid: " ), HasSubstr( "KRELL_ROOT" ) ) );
        EXPECT_THAT( answer( asReader ),
                     AllOf( testing::StartsWith( "invalid: " ), HasSubstr( "KRELL_ROOT" ) ) );
    }
}

TEST_F( RootFailure, OneThatIsAFileIsRefused ) {
    const std::string file = root.path() + "/file";
    std::ofstream( file ) << "text";
    setenv( "KRELL_ROOT", file.c_str(), 1 );
    EXPECT_THAT( answer( asWriter() ), HasSubstr( file ) );
    EXPECT_THAT( answer( asWriter() ), HasSubstr( "Not a directory" ) );
    EXPECT_EQ( fs::file_size( file ), 4u );
}

TEST_F( RootFailure, AMissingOneIsMadeByTheWriterAndAwaitedByTheReader ) {
    const std::string missing = root.path() + "/missing";
    setenv( "KRELL_ROOT", missing.c_str(), 1 );
    EXPECT_EQ( answer( asReader ), "mounted 0" );
    EXPECT_FALSE( fs::exists( missing ) );
    EXPECT_EQ( answer( asWriter() ), "mounted 1" );
    EXPECT_TRUE( fs::exists( missing + "/sys/Krell/site/north/reading/slots" ) );
}

TEST_F( RootFailure, ALinkInTheWayIsNotFollowed ) {
    fs::create_directory( root.path() + "/elsewhere" );
    fs::create_directory_symlink( root.path() + "/elsewhere", root.path() + "/sys" );
    for ( const auto& info : { asWriter(), asReader } ) {
        EXPECT_THAT( answer( info ), AllOf( testing::Not( testing::StartsWith( "mounted 1" ) ),
                                            HasSubstr( root.path() + "/sys" ) ) );
    }
    EXPECT_TRUE( fs::is_empty( root.path() + "/elsewhere" ) );
}

// A file system without room, as the process sees it: no file may grow beyond the limit.
void limitFiles( rlim_t bytes ) {
    std::signal( SIGXFSZ, SIG_IGN );
    rlimit limit {};
    ASSERT_EQ( getrlimit( RLIMIT_FSIZE, &limit ), 0 );
    limit.rlim_cur = bytes;
    ASSERT_EQ( setrlimit( RLIMIT_FSIZE, &limit ), 0 );
}

TEST_F( RootFailure, OneThatIsFullIsRefusedAndNothingHalfMadeIsSeen ) {
    for ( const rlim_t room : { 0U, 64U, 4096U } ) {
        Child child( [ room ]( const Channel& channel ) {
            limitFiles( room );
            channel.say( answer( asWriter( 100000 ) ) );
            limitFiles( RLIM_INFINITY );
            channel.say( answer( asReader ) );
            channel.say( answer( asWriter( 100000 ) ) );
        } );
        EXPECT_THAT( child.hear(),
                     AllOf( testing::StartsWith( "memory: " ), HasSubstr( root.path() ),
                            HasSubstr( "File too large" ) ) );
        EXPECT_EQ( child.hear(), "mounted 0" );
        EXPECT_EQ( child.hear(), "mounted 1" );
        EXPECT_EQ( child.wait(), 0 );
        fs::remove_all( root.path() + "/sys" );
    }
}

TEST_F( RootFailure, ACollectionThatCannotGrowStaysAsItWas ) {
    Child child( [ this ]( const Channel& channel ) {
        Mounted plant( asWriter( 8 ) );
        const std::string slots = root.path() + "/sys/Krell/site/north/reading/slots";
        const auto fill = [ & ] {
            Qel::U32 n = plant->reading.size();
            while ( n < 100000 && plant->reading.is( readingOf( n, 1 ) ) ) {
                ++n;
            }
        };
        limitFiles( fs::file_size( slots ) );
        std::string what = "nothing was refused";
        try {
            fill();
        } catch ( const QelKrell::MemoryResourceException& e ) {
            what = e.what();
        }
        channel.say( what );
        const Qel::U32 size = plant->reading.size();
        EXPECT_GE( size, 8u );
        for ( Qel::U32 i = 0; i < size; ++i ) {
            EXPECT_TRUE( plant->reading( i ) ) << i;
        }
        EXPECT_FALSE( plant->reading( size ) );
        EXPECT_TRUE( plant->reading.control().validate() );
        EXPECT_TRUE( plant->reading.is( readingOf( 0, 2 ) ) ) << "an update needs no room";
        limitFiles( RLIM_INFINITY );
        fill();
        EXPECT_EQ( plant->reading.size(), 100000u );
        channel.say( "grown" );
    } );
    EXPECT_THAT( child.hear(), AllOf( HasSubstr( root.path() ), HasSubstr( "File too large" ) ) );
    EXPECT_EQ( child.hear(), "grown" );
    EXPECT_EQ( child.wait(), 0 );
}

} // namespace
