// Who may do what with a collection, by the modes that its users set up: three users, everything
// that a control and a mount can do. What the system's rights do not allow is refused by name, and
// then nothing has changed; what they allow is done.

#include <iterator>

#include <gtest/gtest.h>

#include "Torture.h"
#include "mount/Child.h"
#include "mount/Mounted.h"
#include "trust/Grounds.h"
#include "trust/Rights.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Mounted;
using QelKrellTest::Torture;

struct Modes {
    mode_t directories;
    mode_t files;
    mode_t doorbell;
};

Modes randomModes( std::mt19937_64& random ) {
    static constexpr mode_t directories[] = { 0700, 0710, 0711, 0750, 0751,
                                              0755, 0770, 0775, 0777, 01777 };
    static constexpr mode_t files[] = { 0600, 0640, 0644, 0660, 0664, 0666 };
    static constexpr mode_t sockets[] = { 0600, 0660, 0666 };
    return { directories[ random() % std::size( directories ) ],
             files[ random() % std::size( files ) ], sockets[ random() % std::size( sockets ) ] };
}

// What one user's process found, as text that ends with one line for each fault.
class Findings {
public:
    explicit Findings( std::string root ) : root_( std::move( root ) ) {}

    // Unless it `may`, the action must be refused clearly, and so that the root's path is told.
    void judge( const char* what, bool may, const std::function< void() >& action ) {
        judgeRefusal( what, may, refusalOf( action ) );
    }
    void judgeRefusal( const char* what, bool may, const std::string& refusal ) {
        ++attempts_;
        refused_ += !refusal.empty();
        // Whether an unreadable slots file is told as one is not for Mount::cleanup() to know.
        const bool noType =
            refusal.find( "failed to find the entity type of site/north" ) != std::string::npos;
        const bool clear = noType || ( refusal.find( "ermission" ) != std::string::npos &&
                                       refusal.find( root_ ) != std::string::npos );
        if ( may != refusal.empty() || ( !may && !clear ) ) {
            faults_ += std::string( what ) + ( may ? " may be done: " : " may not be done: " ) +
                       ( refusal.empty() ? "done" : refusal ) + "\n";
        }
    }
    void fault( const std::string& text ) { faults_ += text + "\n"; }
    std::string text() const {
        return std::to_string( attempts_ ) + " " + std::to_string( refused_ ) + "\n" + faults_;
    }

private:
    const std::string root_;
    unsigned attempts_ = 0;
    unsigned refused_ = 0;
    std::string faults_;
};

class RightsTest : public testing::Test {
protected:
    void SetUp() override {
        if ( const std::string why = whyNoUsers(); !why.empty() ) {
            GTEST_SKIP() << why;
        }
    }
    // What the user's process said: counted, and its faults are failures.
    static void take( Torture& torture, const User& user, const std::string& said ) {
        std::istringstream text( said );
        unsigned attempts = 0;
        unsigned refused = 0;
        text >> attempts >> refused;
        text.ignore();
        const std::string faults( std::istreambuf_iterator< char >( text ), {} );
        EXPECT_GT( attempts, 0U ) << user.name << " said: " << said;
        EXPECT_EQ( faults, "" ) << user.name;
        torture.count( "attempts", attempts );
        torture.count( "refused", refused );
        torture.count( "blocked", said == hung );
    }
};

// --- Controls

class ControlRightsTest : public RightsTest {
protected:
    static void set( const Grounds& grounds, const Modes& modes ) {
        for ( const auto& entry : std::filesystem::directory_iterator( grounds.collection() ) ) {
            const mode_t mode = entry.is_socket() ? modes.doorbell : modes.files;
            EXPECT_EQ( chmod( entry.path().c_str(), mode ), 0 );
        }
        grounds.setDirectories();
    }
    static std::string beside( const Grounds& grounds ) {
        Findings found( grounds.root() );
        const Rights rights( grounds.collection() );
        Table table;
        found.judge( "reading", rights.reading(), [ & ] { table.as( QelKrell::reader ); } );
        if ( rights.reading() && table.contents().size() != Grounds::entries ) {
            found.fault( "not all is read" );
        }
        table.detach();
        for ( const auto role : { QelKrell::reader, QelKrell::keyshadow, QelKrell::shadow } ) {
            follow( role, rights, found );
        }
        found.judge( "looking at the lock", rights.lookingAtTheLock(), [ & ] { table.owner(); } );
        const std::string second = refusalOf( [ & ] { table.as( QelKrell::writer ); } );
        if ( !rights.locking() ) {
            found.judgeRefusal( "writing beside the writer", false, second );
        } else if ( !second.starts_with( "DuplicateWriterException: " + grounds.collection() ) ) {
            found.fault( "a second writer: " + second );
        }
        return found.text();
    }
    static void follow( QelKrell::QelKrellType role, const Rights& rights, Findings& found ) {
        if ( !rights.reading() ) {
            return;
        }
        Table table;
        table.as( role ).poll();
        std::string all;
        for ( const std::string& failure : table.failures ) {
            all += failure + "\n";
        }
        found.judgeRefusal( "following", rights.following() && rights.connecting(), all );
    }
    static std::string alone( const Grounds& grounds, U64 round ) {
        Findings found( grounds.root() );
        const Rights rights( grounds.collection() );
        {
            Table table;
            const bool may = rights.writing();
            found.judge( "writing", may, [ & ] { table.as( QelKrell::writer ); } );
            for ( U64 key = 0; may && key < Grounds::entries; ++key ) {
                table.put( key, round );
            }
        }
        return found.text();
    }
    static std::string cleaning( const Grounds& grounds ) {
        Findings found( grounds.root() );
        const Rights rights( grounds.collection() );
        const bool may = rights.cleaningUp();
        found.judge( "cleaning up", may, [] { Table().cleanup(); } );
        const bool there = access( grounds.file( "slots" ).c_str(), F_OK ) == 0;
        if ( may ? there : rights.entering() && !there ) {
            found.fault( "the files are " + std::string( there ? "there" : "gone" ) );
        }
        return found.text();
    }
    // Entries as of one of two rounds, by one who may read everything.
    static bool holds( U64 round, U64 other ) {
        Table table;
        table.as( QelKrell::reader );
        const auto contents = table.contents();
        bool right = contents.size() == Grounds::entries && table.torn == 0;
        for ( const auto& [ key, written ] : contents ) {
            right = right && ( written == round || written == other );
        }
        return right;
    }
};

TEST_F( ControlRightsTest, AreTheSystems ) {
    Torture torture( "trust", 5 );
    std::mt19937_64 random( torture.seed() );
    for ( const char* figure : { "attempts", "refused", "blocked", "changed" } ) {
        torture.count( figure, 0 );
    }
    while ( torture.goesOn() ) {
        const Modes modes = randomModes( random );
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds()
                      << std::oct << " modes " << modes.directories << " " << modes.files << " "
                      << modes.doorbell );
        const Grounds grounds( modes.directories );
        grounds.fill( 1 );
        {
            QelKrellTest::Child writer( []( const QelKrellTest::Channel& channel ) {
                Table table;
                const bool became = become( owner );
                table.as( QelKrell::writer );
                channel.say( became ? "at work" : "not the owner" );
                channel.hear();
            } );
            ASSERT_EQ( writer.hear(), "at work" );
            set( grounds, modes );
            const std::string before = pictureOf( grounds.root() );
            for ( const User& user : users ) {
                take( torture, user, asUser( user, [ & ] { return beside( grounds ); } ) );
            }
            const bool changed = pictureOf( grounds.root() ) != before;
            EXPECT_FALSE( changed );
            torture.count( "changed", changed );
        }
        U64 last = 1;
        for ( const User& user : users ) {
            set( grounds, modes );
            take( torture, user, asUser( user, [ & ] { return alone( grounds, last + 1 ); } ) );
            const bool kept = holds( last, last + 1 );
            EXPECT_TRUE( kept ) << user.name;
            torture.count( "changed", !kept );
            ++last;
            EXPECT_TRUE( asUser( owner, [ & ] { return alone( grounds, last ); } ).size() > 0 );
        }
        for ( const User& user : users ) {
            grounds.fill( 1 );
            set( grounds, modes );
            take( torture, user, asUser( user, [ & ] { return cleaning( grounds ); } ) );
        }
    }
}

// --- Mounts

class MountRightsTest : public RightsTest {
protected:
    static std::string directoryOf( const Grounds& grounds, const char* name ) {
        return grounds.root() + "/sys/Krell/site/north/" + name;
    }
    static void make( const Grounds& grounds ) {
        const auto body = [] {
            Mounted plant( QelKrellTest::asWriter( 10 ) );
            plant->reading.is( QelKrellTest::readingOf( 1, 1 ) );
            return std::string();
        };
        EXPECT_EQ( asUser( owner, body ), "" );
        grounds.setDirectories();
    }
    static std::string tries( const Grounds& grounds ) {
        Findings found( grounds.root() );
        const Rights limit( directoryOf( grounds, "limit" ) );
        const Rights reading( directoryOf( grounds, "reading" ) );
        const bool entering = Rights( grounds.root() ).entering();
        found.judge( "a reader's mount", entering && limit.reading() && reading.reading(),
                     [] { Mounted plant( QelKrellTest::asReader ); } );
        found.judge( "a writer's mount", entering && limit.writing() && reading.writing(),
                     [] { Mounted plant( QelKrellTest::asWriter( 9 ) ); } );
        QelKrellTest::Site site( false );
        found.judge( "beginning", entering, [ & ] { site.mount.handleInitialized(); } );
        if ( entering ) {
            found.judge( "finding", Rights( grounds.root() + "/sys/Krell" ).entering(),
                         [ & ] { site.mount.find( "" ); } );
            found.judge( "cleaning up",
                         limit.reading() && limit.cleaningUp() && reading.cleaningUp(),
                         [ & ] { site.mount.cleanup( QelKrellTest::path ); } );
        }
        return found.text();
    }
};

TEST_F( MountRightsTest, AreTheSystems ) {
    Torture torture( "trust", 3 );
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() ) {
        const Modes modes = randomModes( random );
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds()
                      << std::oct << " modes " << modes.directories );
        const Grounds grounds( modes.directories );
        for ( const User& user : users ) {
            make( grounds );
            take( torture, user, asUser( user, [ & ] { return tries( grounds ); } ) );
        }
    }
}

} // namespace
