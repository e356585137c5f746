// Things that others put in a collection's tree: what is no file or directory of its own is refused
// or replaced, and nothing outside of the tree is touched, nor anybody kept waiting.

#include <algorithm>

#include <gtest/gtest.h>

#include "Torture.h"
#include "mount/Mounted.h"
#include "trust/Plants.h"
#include "trust/Shared.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Mounted;
using QelKrellTest::Torture;

// Something that a process does with the collection. Returns whether it saw what is outside.
struct Action {
    const char* name;
    std::function< bool() > run;
};

// What is planted at and who acts.
struct Subject {
    std::string collection; // below the root
    std::function< void( U64 round ) > fill;
    std::vector< Action > actions;
};

bool seesOutside( Table& table ) {
    const auto contents = table.contents();
    return std::any_of( contents.begin(), contents.end(),
                        []( const auto& entry ) { return entry.second == Victims::round; } );
}

bool follows( QelKrell::QelKrellType role ) {
    Table table;
    table.as( role ).poll();
    table.poll();
    return seesOutside( table );
}

const Subject controls {
    place,
    Grounds::fillTable,
    {
        { "writing",
          [] {
              Table table;
              table.as( QelKrell::writer, 10 );
              const bool seen = seesOutside( table );
              for ( U64 key = 0; key < 500; ++key ) { // grows
                  table.put( key, 2 );
              }
              return seen;
          } },
        { "reading", [] { return follows( QelKrell::reader ); } },
        { "following keys", [] { return follows( QelKrell::keyshadow ); } },
        { "following values", [] { return follows( QelKrell::shadow ); } },
        { "looking at the owner", [] { return Table().owner().empty() && false; } },
        { "validating", [] { return !Table().as( QelKrell::reader ).validate() && false; } },
        { "cleaning up",
          [] {
              Table().cleanup();
              return false;
          } },
    }
};

bool seesOutside( const Mounted& plant ) {
    bool seen = false;
    for ( const MountBench::Reading& reading : plant->reading ) {
        seen = seen || reading.takenAt >> 40 == Victims::round;
    }
    return seen;
}

// Outside there is another entity beside it.
void fillPlant( U64 round ) {
    const Mounted plant( QelKrellTest::asWriter( 10 ) );
    for ( U32 sensor = 0; sensor < Grounds::entries; ++sensor ) {
        plant->reading.is( QelKrellTest::readingOf( sensor, U32( round ) ) );
    }
    if ( round == Victims::round ) {
        const std::string south = getenv( "KRELL_ROOT" ) + std::string( "/sys/Krell/site/south/x" );
        std::filesystem::create_directories( south );
        std::ofstream( south + "/slots" ) << "x";
    }
}

bool mounts( QelKrell::QelKrellType role ) {
    const Mounted plant { QelKrell::MountInfo( role ) };
    Qel::System::runOnce( 0 );
    return seesOutside( plant );
}

const Subject mountings {
    "sys/Krell/site/north/reading",
    fillPlant,
    {
        { "a writer's mount",
          [] {
              const Mounted plant( QelKrellTest::asWriter( 10 ) );
              const bool seen = seesOutside( plant );
              for ( U32 sensor = 0; sensor < 500; ++sensor ) {
                  plant->reading.is( QelKrellTest::readingOf( sensor, 2 ) );
              }
              return seen;
          } },
        { "a writer's mount with cleaning up",
          [] { return seesOutside( Mounted( QelKrellTest::asWriter( 10, true ) ) ); } },
        { "a reader's mount", [] { return mounts( QelKrell::reader ); } },
        { "a key shadow's mount", [] { return mounts( QelKrell::keyshadow ); } },
        { "a shadow's mount", [] { return mounts( QelKrell::shadow ); } },
        { "finding",
          [] {
              QelKrellTest::Site site( false );
              site.mount.handleInitialized();
              site.mount.find( "" );
              return QelKrellTest::mounts( "/sys/Krell/site/south" ) != 0;
          } },
        { "cleaning up without a mount",
          [] {
              QelKrellTest::Site site( false );
              site.mount.handleInitialized();
              site.mount.cleanup( QelKrellTest::path );
              return false;
          } },
    }
};

// Does one thing as the owner would, and judges it.
class PlantedTest : public testing::Test {
protected:
    void SetUp() override {
        if ( const std::string why = whyNoUsers(); !why.empty() ) {
            GTEST_SKIP() << why;
        }
        for ( const char* figure : { "plants", "refused", "followed", "blocked", "changed" } ) {
            torture.count( figure, 0 );
        }
    }
    // Below the root: a directory on the way to the collection, itself, or a file in it.
    std::string placeOf( const Subject& subject ) {
        static constexpr const char* files[] = {
            "slots",      "buckets",  "conquer.1",           "conquer.2",     "fenix",
            "last-owner", "doorbell", "corruption-detected", "slots.tmp-1-1", "doorbell.tmp-1-1"
        };
        std::string path = subject.collection;
        if ( random() % 4 ) {
            return path + "/" + files[ random() % std::size( files ) ];
        }
        for ( auto up = random() % 3; up > 0; --up ) {
            path.resize( path.rfind( '/' ) == path.npos ? path.size() : path.rfind( '/' ) );
        }
        return path;
    }
    // In the place of what is there. By that user where the system lets him, else by this process.
    static bool put( const Plant& plant, const std::string& at, const User& by ) {
        std::filesystem::remove_all( at );
        return asUser( by, [ & ] { return plant.make( at ) ? "done" : ""; } ) == "done" ||
               plant.make( at );
    }
    void act( const Action& action, const Plant& plant, const Victims& victims ) {
        const std::string said = asUser( owner, [ & ] { return resultOf( action ); } );
        SCOPED_TRACE( testing::Message() << action.name << " said: " << said );
        const bool followed = plant.isLink && ( said == outside || victims.visited() );
        EXPECT_FALSE( followed );
        EXPECT_TRUE( isClear( said ) );
        EXPECT_TRUE( victims.unchanged() ) << victims.difference();
        torture.count( "refused", isClear( said ) && said != "" && said != outside );
        torture.count( "followed", followed );
        torture.count( "blocked", said == hung );
        torture.count( "changed", !victims.unchanged() );
    }
    static constexpr const char* outside = "outside";
    static std::string resultOf( const Action& action ) {
        bool seen = false;
        const std::string refusal = refusalOf( [ & ] { seen = action.run(); } );
        return seen ? outside : refusal;
    }
    // Done, or refused so that one knows where to look: by the root's path, or by what was asked
    // for.
    static bool isClear( const std::string& said ) {
        const bool spelled = said.find( "failed to find the entity type of" ) != said.npos ||
                             said.find( "the search path is a collection directory" ) != said.npos;
        return said == "" || said == outside || spelled ||
               ( ( said.find( "xception: " ) != said.npos || said.starts_with( "framework: " ) ) &&
                 said.find( "/root" ) != said.npos );
    }
    void plantEach( const Subject& subject ) {
        const Grounds grounds( 0777 );
        grounds.asOwner( [ & ] { subject.fill( 1 ); } );
        const Victims victims( grounds, subject.collection, subject.fill );
        const std::string below = placeOf( subject );
        const std::vector< Plant > plants = plantsFor( below, victims );
        const Plant& plant = plants[ random() % plants.size() ];
        const User& by = users[ random() % std::size( users ) ];
        SCOPED_TRACE( testing::Message()
                      << "KRELL_SEED=" << torture.seed() << " round " << torture.rounds() << ": "
                      << plant.name << " at " << below << " by the " << by.name );
        std::vector< Action > actions = subject.actions;
        std::shuffle( actions.begin(), actions.end(), random );
        for ( const Action& action : actions ) {
            torture.count( "plants", put( plant, grounds.root() + "/" + below, by ) );
            act( action, plant, victims );
        }
    }

    Torture torture { "trust", 10 };
    std::mt19937_64 random { torture.seed() };
};

// While others exchange what stands there between two looks.
class ExchangedTest : public PlantedTest {
protected:
    // Puts plants in places and takes them away again, until it is killed.
    [[noreturn]] void exchange( const Grounds& grounds,
                                const Subject& subject,
                                const Victims& victims,
                                bool symbolic,
                                Counter& plants ) {
        namespace fs = std::filesystem;
        for ( ;; ) {
            const std::string below = placeOf( subject );
            const std::string at = grounds.root() + "/" + below;
            const std::string aside = grounds.root() + "/aside";
            const std::string made = grounds.root() + "/made";
            const std::vector< Plant > all = plantsFor( below, victims );
            const Plant& plant = all[ random() % all.size() ];
            std::error_code ignored;
            if ( plant.isHardLink == symbolic || !plant.make( made ) ) {
                continue;
            }
            fs::rename( at, aside, ignored );
            fs::rename( made, at, ignored );
            for ( auto n = random() % 2000; n > 0; --n ) { // some looks long
                std::atomic_signal_fence( std::memory_order_seq_cst );
            }
            ++plants;
            fs::remove_all( at, ignored );
            fs::rename( aside, at, ignored );
            fs::remove_all( made, ignored );
            fs::remove_all( aside, ignored );
        }
    }
    void raceOnce( const Subject& subject ) {
        const Grounds grounds( 0777 );
        grounds.asOwner( [ & ] { subject.fill( 1 ); } );
        const Victims victims( grounds, subject.collection, subject.fill );
        const User by = users[ random() % std::size( users ) ];
        SCOPED_TRACE( testing::Message() << "KRELL_SEED=" << torture.seed() << " round "
                                         << torture.rounds() << " by the " << by.name );
        const bool symbolic = random() % 2; // or hard links, and nothing else
        const Shared< Counter > plants;
        Process planter( [ & ] {
            become( by );
            exchange( grounds, subject, victims, symbolic, *plants );
            return 0;
        } );
        const Plant any { "any", nullptr, symbolic };
        for ( unsigned i = 0; i < 10 || *plants < 20; ++i ) {
            act( subject.actions[ random() % subject.actions.size() ], any, victims );
        }
        planter.kill();
        torture.count( "plants", *plants );
    }
};

TEST_F( ExchangedTest, ControlsTouchNothingOutside ) {
    while ( torture.goesOn() && !HasFailure() ) {
        raceOnce( controls );
    }
}

TEST_F( ExchangedTest, MountsTouchNothingOutside ) {
    while ( torture.goesOn() && !HasFailure() ) {
        raceOnce( mountings );
    }
}

TEST_F( PlantedTest, ControlsRefuseOrReplaceAndFollowNothing ) {
    while ( torture.goesOn() && !HasFailure() ) {
        plantEach( controls );
    }
}

TEST_F( PlantedTest, MountsRefuseOrReplaceAndFollowNothing ) {
    while ( torture.goesOn() && !HasFailure() ) {
        plantEach( mountings );
    }
}

} // namespace
