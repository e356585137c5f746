// Many processes that want to be the writer while another one removes, renames, links and replaces
// the lock file and its directory: at most one holds a lock that anybody respects.

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>

#include <Krell/WriterLock>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>

#include "Torture.h"
#include "mount/Site.h"
#include "trust/Shared.h"

namespace {

using namespace TrustTest;
using Krell::Directory;
using Krell::WriterLock;
using Qel::U64;
using QelKrellTest::Torture;
namespace fs = std::filesystem;

constexpr std::size_t candidates = 5;

// What the processes of one round tell. A lock is respected while its file is the one that the name
// means; `generation` is odd while somebody changes names, and another one afterwards.
struct Tally {
    std::atomic< U64 > generation;
    std::atomic< U64 > attempts;
    std::atomic< U64 > holds;
    std::atomic< U64 > respected;
    std::atomic< U64 > doubleOwners;
    std::atomic< U64 > unfound; // locked without a change of names, and yet not by the name's file
    std::atomic< U64 > failures;
    std::atomic< bool > over;
    std::atomic< U64 > owners[ candidates ]; // generation in which it is respected, or 0
};

void yieldAtRandom( std::mt19937_64& random ) {
    for ( auto n = random() % 3; n > 0; --n ) {
        sched_yield();
    }
}

// One process that becomes the writer again and again.
class Candidate {
public:
    Candidate( std::string directory, Tally& tally, std::size_t self, U64 seed )
        : directory_( std::move( directory ) ), tally_( tally ), self_( self ), random_( seed ) {}

    void attempt() {
        const U64 before = tally_.generation;
        WriterLock lock;
        ++tally_.attempts;
        try {
            if ( lock.tryLock( Directory::create( directory_ ) ) ) {
                ++tally_.holds;
                hold( before );
            }
        } catch ( const Krell::Exception& ) { // replaced again and again, or gone meanwhile
            ++tally_.failures;
        }
    }

private:
    void hold( U64 before ) {
        const U64 generation = tally_.generation;
        const bool named = holdsTheNamedFile();
        const bool still = generation % 2 == 0 && generation == tally_.generation;
        tally_.unfound += still && generation == before && !named;
        if ( still && named ) {
            ++tally_.respected;
            tally_.owners[ self_ ] = generation;
            lookForOthers( generation );
            yieldAtRandom( random_ );
            tally_.owners[ self_ ] = 0;
        }
    }
    void lookForOthers( U64 generation ) {
        for ( std::size_t other = 0; other < candidates; ++other ) {
            tally_.doubleOwners += other != self_ && tally_.owners[ other ] == generation;
        }
    }
    // By the descriptors of this process: one of them carries the lock.
    bool holdsTheNamedFile() const {
        constexpr int most = 64;
        struct stat named;
        if ( lstat( ( directory_ + "/last-owner" ).c_str(), &named ) != 0 ) {
            return false;
        }
        for ( int fd = 3; fd < most; ++fd ) {
            struct stat status;
            if ( fstat( fd, &status ) == 0 && status.st_ino == named.st_ino &&
                 status.st_dev == named.st_dev ) {
                return true;
            }
        }
        return false;
    }

    const std::string directory_;
    Tally& tally_;
    const std::size_t self_;
    std::mt19937_64 random_;
};

// Changes what the names mean.
class Replacer {
public:
    Replacer( std::string directory, Tally& tally, U64 seed )
        : directory_( std::move( directory ) ), tally_( tally ), random_( seed ) {}

    void disturb() {
        static constexpr void ( Replacer::*ways[] )() = {
            &Replacer::remove, &Replacer::replace,  &Replacer::takeAside,     &Replacer::bringBack,
            &Replacer::link,   &Replacer::linkBack, &Replacer::moveDirectory, &Replacer::swap,
        };
        ++tally_.generation;
        ( this->*ways[ random_() % std::size( ways ) ] )();
        ++tally_.generation;
        yieldAtRandom( random_ );
    }

private:
    std::string file() const { return directory_ + "/last-owner"; }
    std::string other() { return directory_ + ".x" + std::to_string( random_() % 3 ); }

    void remove() { fs::remove( file(), ignored_ ); }
    void replace() {
        const std::string made = other();
        std::ofstream( made ) << "x";
        fs::rename( made, file(), ignored_ );
    }
    void takeAside() { fs::rename( file(), other(), ignored_ ); }
    void bringBack() { fs::rename( other(), file(), ignored_ ); }
    void link() { fs::create_hard_link( file(), other(), ignored_ ); }
    void linkBack() {
        fs::remove( file(), ignored_ );
        fs::create_hard_link( other(), file(), ignored_ );
    }
    void moveDirectory() {
        const std::string aside = directory_ + ".d" + std::to_string( random_() % 3 );
        fs::remove_all( aside, ignored_ );
        fs::rename( directory_, aside, ignored_ );
        if ( random_() % 2 ) {
            fs::rename( directory_ + ".d" + std::to_string( random_() % 3 ), directory_, ignored_ );
        }
    }
    void swap() { // with a lock file of another directory
        const std::string elsewhere = directory_ + ".d" + std::to_string( random_() % 3 );
        fs::rename( elsewhere + "/last-owner", file(), ignored_ );
    }

    const std::string directory_;
    Tally& tally_;
    std::mt19937_64 random_;
    std::error_code ignored_;
};

TEST( TwoWritersTest, AtMostOneHoldsALockThatIsRespected ) {
    constexpr U64 fewestAttempts = 100;
    constexpr U64 fewestDisturbances = 100;
    Torture torture( "two-writers", 3 );
    std::mt19937_64 random( torture.seed() );
    while ( torture.goesOn() ) {
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds() );
        const QelKrellTest::Root root;
        const std::string directory = root.path() + "/coll";
        const Shared< Tally > tally;
        tally->generation = 2; // 0 stands for none
        const Milestones milestones;
        std::vector< std::unique_ptr< Process > > processes;
        for ( std::size_t i = 0; i < candidates; ++i ) {
            processes.push_back( std::make_unique< Process >( [ &, seed = random() ] {
                Candidate candidate( directory, *tally, i, seed );
                const Milestone done = milestones.mine();
                for ( U64 n = 1; !tally->over; ++n ) {
                    candidate.attempt();
                    done.tellOnce( n >= fewestAttempts );
                }
                return 0;
            } ) );
        }
        processes.push_back( std::make_unique< Process >( [ &, seed = random() ] {
            Replacer replacer( directory, *tally, seed );
            const Milestone done = milestones.mine();
            for ( U64 n = 1; !tally->over; ++n ) {
                replacer.disturb();
                done.tellOnce( n >= fewestDisturbances );
            }
            return 0;
        } ) );
        const bool reached = milestones.reached( processes.size() );
        EXPECT_TRUE( reached );
        tally->over = true;
        for ( const auto& process : processes ) {
            EXPECT_EQ( process->wait(), 0 );
        }
        EXPECT_EQ( tally->doubleOwners, 0U );
        EXPECT_EQ( tally->unfound, 0U );
        EXPECT_GT( tally->respected, 0U );
        torture.count( "attempts", tally->attempts );
        torture.count( "holds", tally->holds );
        torture.count( "respected", tally->respected );
        torture.count( "doubleOwners", tally->doubleOwners + tally->unfound );
        torture.count( "replaced", tally->generation / 2 );
        torture.count( "hung", !reached );
    }
}

} // namespace
