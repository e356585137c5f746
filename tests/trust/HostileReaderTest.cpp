// A reader of the group that does all it can to its writer: at the doorbell's socket, and with the
// page that it passes there. The writer goes on, and what it keeps for its readers is bounded.

#include <iterator>
#include <random>

#include <Krell/Doorbell>
#include <Qel/System>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "Descriptors.h"
#include "Torture.h"
#include "krell/DoorbellSupport.h"
#include "trust/Grounds.h"
#include "trust/Shared.h"

namespace {

using namespace TrustTest;
using Krell::DoorbellMessage;
using Krell::DoorbellPage;
using Krell::Fd;
using KrellTest::connectRaw;
using KrellTest::hungUp;
using KrellTest::memoryFile;
using KrellTest::sendRaw;
using QelKrellTest::Torture;

// What the processes of one round tell.
struct AttackTally {
    std::atomic< U64 > changes;     // by the writer
    std::atomic< U64 > attacks;     // by the hostile reader
    std::atomic< U64 > descriptors; // of the writer, the most
    std::atomic< U64 > left;        // of the writer at the end, beyond those at the beginning
    std::atomic< U64 > kilobytes;   // by which the writer grew
    std::atomic< U64 > behind;      // of the honest reader at the end
    std::atomic< bool > attacked;   // no attacker any more
    std::atomic< bool > followed;   // the honest reader has seen the last change
};

constexpr U64 lastOfKeys = 1000;

U64 residentKilobytes() {
    std::ifstream file( "/proc/self/statm" );
    U64 size = 0;
    U64 resident = 0;
    file >> size >> resident;
    return resident * U64( sysconf( _SC_PAGESIZE ) ) / 1024;
}

// One attacker, with the connections that it keeps.
class Attacker {
public:
    Attacker( std::string path, AttackTally& tally, U64 seed )
        : path_( std::move( path ) ), tally_( tally ), random_( seed ) {}

    void attack() {
        static constexpr void ( Attacker::*attacks[] )() = {
            &Attacker::garbage,   &Attacker::admitted,    &Attacker::flood, &Attacker::closes,
            &Attacker::manyFiles, &Attacker::badPage,     &Attacker::wild,  &Attacker::silent,
            &Attacker::repeated,  &Attacker::shutsItDown,
        };
        ( this->*attacks[ random_() % std::size( attacks ) ] )();
        ++tally_.attacks;
        if ( kept_.size() >= mostKept ) {
            kept_.erase( kept_.begin(), kept_.begin() + long( random_() % kept_.size() ) );
        }
    }

private:
    static constexpr std::size_t mostKept = 200;
    static constexpr int goodSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE;

    struct Connection {
        Fd socket;
        Krell::DoorbellPagePtr page;
    };

    std::string randomBytes( std::size_t most ) {
        std::string bytes( random_() % most, '\0' );
        for ( char& c : bytes ) {
            c = char( random_() );
        }
        return bytes;
    }
    DoorbellMessage hello() const {
        return DoorbellMessage::of( DoorbellMessage::hello, DoorbellMessage::byWriter );
    }
    Fd connected() const { return connectRaw( path_ ); }
    void keep( Fd socket, Krell::DoorbellPagePtr page = nullptr ) {
        if ( socket ) {
            kept_.push_back( { std::move( socket ), std::move( page ) } );
        }
    }
    // With a page that it can write.
    Connection greeted() {
        Connection one { connected(), nullptr };
        const Fd file = memoryFile( DoorbellPage::size_, 0 );
        void* const at =
            mmap( nullptr, DoorbellPage::size_, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0 );
        one.page.reset( static_cast< DoorbellPage* >( at ) );
        fcntl( file.get(), F_ADD_SEALS, goodSeals );
        const DoorbellMessage message = hello();
        sendRaw( one.socket.get(), &message, sizeof message, { file.get() } );
        return one;
    }

    void garbage() {
        const Fd socket = connected();
        const std::string bytes = randomBytes( 300 );
        sendRaw( socket.get(), bytes.data(), bytes.size(), {} );
    }
    void admitted() { // asks for kicks and never receives one
        Connection one = greeted();
        for ( DoorbellPage::Line& line : one.page->lines ) {
            Dov::Atomics::storeRelease( &line.word, random_() | 1 );
        }
        keep( std::move( one.socket ), std::move( one.page ) );
    }
    void wild() { // in all pages that are known to the writer
        for ( Connection& one : kept_ ) {
            if ( one.page ) {
                DoorbellPage::Line& line = one.page->lines[ random_() % DoorbellPage::lines_ ];
                Dov::Atomics::storeRelease( &line.word, random_() );
            }
        }
    }
    void flood() {
        Connection one = greeted();
        const std::string bytes = randomBytes( 2000 );
        for ( int i = 0; i < 2000 && sendRaw( one.socket.get(), bytes.data(), bytes.size(), {} );
              ++i ) {
        }
        keep( std::move( one.socket ), std::move( one.page ) );
    }
    void closes() { greeted(); }
    void shutsItDown() {
        Connection one = greeted();
        shutdown( one.socket.get(), random_() % 2 ? SHUT_WR : SHUT_RD );
        keep( std::move( one.socket ), std::move( one.page ) );
    }
    void manyFiles() {
        Fd socket = connected();
        const Fd page = memoryFile( DoorbellPage::size_, goodSeals );
        const DoorbellMessage message = hello();
        const std::size_t number = 2 + random_() % 250;
        sendRaw( socket.get(), &message, sizeof message, std::vector< int >( number, page.get() ) );
        keep( std::move( socket ) );
    }
    // One that can be taken away, and is.
    void badPage() {
        Fd socket = connected();
        const int seals[] = { 0, F_SEAL_SHRINK, F_SEAL_GROW, F_SEAL_WRITE, F_SEAL_FUTURE_WRITE };
        const off_t sizes[] = { 0, 1, 4095, 4096, 1 << 20 };
        const Fd page = memoryFile( sizes[ random_() % std::size( sizes ) ],
                                    seals[ random_() % std::size( seals ) ] );
        const DoorbellMessage message = hello();
        sendRaw( socket.get(), &message, sizeof message, { page.get() } );
        if ( ftruncate( page.get(), 0 ) == 0 || hungUp( socket.get() ) ) {
            keep( std::move( socket ) );
        }
    }
    void silent() {
        for ( int i = 0; i < 50; ++i ) {
            keep( connected() );
        }
    }
    void repeated() {
        Connection one = greeted();
        const DoorbellMessage message = hello();
        sendRaw( one.socket.get(), &message, sizeof message, { 0, 1, 2 } );
        keep( std::move( one.socket ), std::move( one.page ) );
    }

    const std::string path_;
    AttackTally& tally_;
    std::mt19937_64 random_;
    std::vector< Connection > kept_;
};

class HostileReaderTest : public testing::Test {
protected:
    static constexpr U64 fewestChanges = 2000;
    static constexpr U64 fewestAttacks = 200;

    // Writes beside its event loop until the attack is over and the honest reader is up to date.
    static int write( AttackTally& tally, const Milestone& ready, const Milestone& done ) {
        Table table;
        table.as( QelKrell::writer, 100 );
        table.put( 0, 1 );
        ready.tellOnce( true );
        while ( table.doorbell()->connections() == 0 ) { // the honest one
            Qel::System::runOnce( 1 );
        }
        const U64 descriptors = QelKrellTest::openDescriptors();
        const U64 kilobytes = residentKilobytes();
        for ( U64 n = 1; !tally.attacked; ++n ) {
            table.put( n % 100, n );
            ++tally.changes;
            Qel::System::runOnce( 0 );
            tally.descriptors =
                std::max< U64 >( tally.descriptors, n % 64 ? 0 : QelKrellTest::openDescriptors() );
            done.tellOnce( n >= fewestChanges );
        }
        table.put( lastOfKeys, 1 );
        while ( !tally.followed || table.doorbell()->connections() > 1 ) {
            Qel::System::runOnce( 0.1 );
        }
        while ( Qel::System::runOnce( 0 ) ) { // hears of those that never said hello
        }
        tally.left = std::max( U64( QelKrellTest::openDescriptors() ), descriptors ) - descriptors;
        tally.kilobytes = std::max( residentKilobytes(), kilobytes ) - kilobytes;
        return 0;
    }
    static int follow( AttackTally& tally ) {
        Table table;
        table.as( QelKrell::shadow );
        const auto there = [ & ] {
            U64 key = lastOfKeys;
            return table.view() && table.view()->find( &key );
        };
        while ( !there() ) {
            Qel::System::runOnce( 1 );
        }
        tally.behind = table.failures.size();
        tally.followed = true;
        return 0;
    }
    static int attack( const Grounds& grounds,
                       AttackTally& tally,
                       U64 seed,
                       const Milestone& done ) {
        if ( whyNoUsers().empty() && !become( member ) ) {
            return 1;
        }
        Attacker attacker( grounds.file( "doorbell" ), tally, seed );
        for ( ;; ) {
            attacker.attack();
            done.tellOnce( tally.attacks >= fewestAttacks );
        }
    }
};

TEST_F( HostileReaderTest, HarmsItselfOnly ) {
    Torture torture( "hostile-contents", 2 );
    std::mt19937_64 random( torture.seed() );
    for ( const char* figure : { "attacks", "crashes", "hangs", "leaked" } ) {
        torture.count( figure, 0 );
    }
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds() );
        const Grounds grounds( 0750 );
        const Shared< AttackTally > tally;
        const Milestones started;
        const Milestones done;
        Process writer( [ & ] {
            const bool may = !whyNoUsers().empty() || become( owner );
            return may ? write( *tally, started.mine(), done.mine() ) : 1;
        } );
        ASSERT_TRUE( started.reached( 1 ) );
        Process honest( [ & ] { return follow( *tally ); } );
        Process hostile(
            [ &, seed = random() ] { return attack( grounds, *tally, seed, done.mine() ); } );
        const bool wentOn = done.reached( 2 );
        EXPECT_TRUE( wentOn ) << "changes " << tally->changes << " attacks " << tally->attacks;
        hostile.kill();
        tally->attacked = true;
        const int readers = honest.wait();
        const int writers = writer.wait();
        EXPECT_EQ( readers, 0 );
        EXPECT_EQ( writers, 0 );
        EXPECT_EQ( tally->left, 0U );
        EXPECT_LT( tally->descriptors, Krell::Doorbell::maxConnections_ + 100 );
        torture.count( "attacks", tally->attacks );
        torture.count( "changes", tally->changes );
        torture.count( "hangs",
                       !wentOn + ( readers == Process::late ) + ( writers == Process::late ) );
        torture.count( "crashes", readers > 128 || writers > 128 );
        torture.count( "leaked", tally->left );
        torture.most( "descriptors", tally->descriptors );
        torture.most( "grownKb", tally->kilobytes );
    }
}

} // namespace
