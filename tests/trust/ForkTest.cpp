// A writer that also follows others forks, spawns and executes at random moments: the children's
// handles are dead, nothing of the parent's is disturbed, and its lock goes when it dies, whoever
// of its children lives.

#include <algorithm>
#include <random>

#include <Krell/WriterLock>
#include <gtest/gtest.h>
#include <spawn.h>

#include "Torture.h"
#include "mount/Child.h"
#include "mount/Mounted.h"
#include "trust/Shared.h"
#include "trust/Table.h"
#include "trust/Users.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Mounted;
using QelKrellTest::readingOf;
using QelKrellTest::Torture;

constexpr const char* otherPlace = "sys/Krell/other/c"; // written by another process
constexpr const char* latePlace = "sys/Krell/late/c";   // made when the forks are over
constexpr U32 sensors = 50;
constexpr U32 lastSensor = 1000;
constexpr U64 lastKey = 1000;

enum Stage { started, forked, lateMade };

struct Tally {
    std::atomic< U64 > forks;
    std::atomic< U64 > wrongChildren;
    std::atomic< U64 > written[ sensors ]; // round of each sensor, by the parent
    std::atomic< bool > upToDate;          // the parent's reader
};

// The process under test: writes a plant, follows two collections, and forks.
class Parent {
public:
    Parent( Tally& tally, int untilReleased, U64 seed )
        : tally_( tally ), untilReleased_( untilReleased ), random_( seed ) {
        other_.as( QelKrell::shadow );
        late_.as( QelKrell::reader );
    }

    void work( unsigned steps ) {
        for ( unsigned i = 0; i < steps; ++i ) {
            const U32 sensor = U32( random_() % sensors );
            plant_->reading.is( readingOf( sensor, i + 1 ) );
            tally_.written[ sensor ] = i + 1;
            if ( random_() % 8 == 0 ) {
                Qel::System::runOnce( 0 );
            }
            if ( random_() % 8 == 0 ) {
                fork();
            }
        }
    }
    void writeLast() { plant_->reading.is( readingOf( lastSensor, 1 ) ); }
    bool followsOther() {
        U64 key = lastKey;
        return other_.view()->find( &key ) && other_.failures.empty();
    }
    bool followsLate() { return late_.contents().contains( lastKey ); }

private:
    void fork() {
        ++tally_.forks;
        switch ( random_() % 4 ) {
        case 0:
            return spawn();
        case 1:
            return execute();
        default:
            return forkPlain();
        }
    }
    void spawn() {
        char name[] = "true";
        char* arguments[] = { name, nullptr };
        pid_t pid = 0;
        const int failed = posix_spawn( &pid, "/bin/true", nullptr, nullptr, arguments, environ );
        tally_.wrongChildren += failed || statusOf( pid ) != 0;
    }
    void execute() {
        const pid_t pid = vfork();
        if ( pid == 0 ) {
            execl( "/bin/true", "true", nullptr );
            _exit( 1 );
        }
        tally_.wrongChildren += statusOf( pid ) != 0;
    }
    // Some children live on.
    void forkPlain() {
        const bool stays = living_ < 3 && random_() % 4 == 0;
        living_ += stays;
        const unsigned kind = unsigned( random_() % 4 );
        const pid_t pid = ::fork();
        if ( pid == 0 ) {
            const bool right = actAsChild( kind );
            char byte;
            while ( stays && read( untilReleased_, &byte, 1 ) > 0 ) {
            }
            _exit( right ? 0 : 1 );
        }
        if ( !stays ) {
            tally_.wrongChildren += statusOf( pid ) != 0;
        }
    }
    bool actAsChild( unsigned kind ) {
        const std::string refusal =
            refusalOf( [ & ] { plant_->reading.is( readingOf( 1, 4711 ) ); } );
        const std::string removal = refusalOf( [ & ] { plant_->reading.del( 1 ); } );
        const char* const text = "this process was forked from the writer of ";
        bool right = refusal.find( text ) != refusal.npos && removal.find( text ) != removal.npos;
        if ( kind == 0 ) {
            Qel::System::runOnce( 0 );
            other_.poll();
            late_.poll();
        } else if ( kind == 1 ) {
            other_.detach();
            late_.detach();
            plant_->reading.core().detach();
        } else if ( kind == 2 ) { // the parent is still the writer
            Krell::Control& control = plant_->reading.core();
            control.detach();
            const std::string second =
                refusalOf( [ & ] { control.init( QelKrell::writer, false, 0 ); } );
            right = right && second.ends_with( "is written by test-trust (pid " +
                                               std::to_string( getppid() ) + ")" );
        }
        return right;
    }
    static int statusOf( pid_t pid ) {
        int status = -1;
        waitpid( pid, &status, 0 );
        return status;
    }

    Tally& tally_;
    const int untilReleased_;
    std::mt19937_64 random_;
    Mounted plant_ { QelKrellTest::asWriter( 10 ) };
    Table other_ { otherPlace };
    Table late_ { latePlace };
    unsigned living_ = 0;
};

class ForkTest : public testing::Test {
protected:
    static constexpr unsigned steps = 150;

    // Everything the parent does, and its death.
    static int beParent( Tally& tally,
                         int untilReleased,
                         U64 seed,
                         const Milestone& done,
                         const Milestone& upToDate ) {
        Parent parent( tally, untilReleased, seed );
        parent.work( steps );
        parent.writeLast();
        done.tellOnce( true );
        while ( !parent.followsOther() || !parent.followsLate() ) {
            Qel::System::runOnce( 1 );
        }
        upToDate.tellOnce( true );
        for ( ;; ) {
            Qel::System::runOnce( 1 );
        }
    }
    static int followParent( const Milestone& upToDate ) {
        Mounted plant { QelKrell::MountInfo( QelKrell::shadow ) };
        while ( !plant->reading( lastSensor ) ) {
            Qel::System::runOnce( 1 );
        }
        upToDate.tellOnce( true );
        return 0;
    }
    // Writes all the time, so that the parent is called while it forks.
    static int writeOther( const std::atomic< bool >& over, const Milestone& started ) {
        Table other( otherPlace );
        other.as( QelKrell::writer );
        started.tellOnce( true );
        for ( U64 n = 0; !over; ++n ) {
            other.put( n % 100, n );
            Qel::System::runOnce( 0.0005 );
        }
        other.put( lastKey, 1 );
        for ( ;; ) {
            Qel::System::runOnce( 1 );
        }
    }
    static U64 lostOf( const Tally& tally ) {
        Mounted next( QelKrellTest::asWriter() );
        U64 lost = 0;
        for ( U32 sensor = 0; sensor < sensors; ++sensor ) {
            const auto reading = next->reading( sensor );
            const U64 written = tally.written[ sensor ];
            lost += ( reading ? reading->takenAt >> 40 : 0 ) != written;
        }
        return lost + !next->reading( lastSensor );
    }
};

TEST_F( ForkTest, DisturbsNothing ) {
    Torture torture( "fork", 2 );
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds() );
        const QelKrellTest::Root root;
        const Shared< Tally > tally;
        const Shared< std::atomic< bool > > forksAreOver;
        const Milestones started;
        const Milestones done;
        const Milestones upToDate;
        int release[ 2 ];
        ASSERT_EQ( pipe( release ), 0 );
        Process other( [ & ] { return writeOther( *forksAreOver, started.mine() ); } );
        ASSERT_TRUE( started.reached( 1 ) );
        Process parent( [ &, seed = random() ] {
            close( release[ 1 ] );
            return beParent( *tally, release[ 0 ], seed, done.mine(), upToDate.mine() );
        } );
        Process follower( [ & ] { return followParent( upToDate.mine() ); } );
        const bool over = done.reached( 1 );
        *forksAreOver = true;
        Process late( [] {
            Table table( latePlace );
            table.as( QelKrell::writer );
            table.put( lastKey, 1 );
            for ( ;; ) {
                Qel::System::runOnce( 1 );
            }
            return 0;
        } );
        const bool current = upToDate.reached( 2 );
        parent.kill(); // children of it live
        const bool free = QelKrellTest::Child( []( const QelKrellTest::Channel& channel ) {
                              Mounted next( QelKrellTest::asWriter() );
                              channel.say( "free" );
                          } ).hear() == "free";
        QelKrellTest::Child counting( [ & ]( const QelKrellTest::Channel& channel ) {
            channel.say( std::to_string( lostOf( *tally ) ) );
        } );
        const std::string lost = counting.hear();
        close( release[ 0 ] );
        close( release[ 1 ] );
        EXPECT_TRUE( over );
        EXPECT_TRUE( current );
        EXPECT_TRUE( free );
        EXPECT_EQ( lost, "0" );
        EXPECT_EQ( tally->wrongChildren, 0U );
        torture.count( "forks", tally->forks );
        torture.count( "lost", lost != "0" );
        torture.count( "disturbed", U64( tally->wrongChildren ) + !over + !current + !free );
    }
}

} // namespace
