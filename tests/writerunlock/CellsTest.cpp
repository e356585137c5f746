// Every event in every state of the two state machines. The tests are named by the cells of the
// tables in docs/writer-unlock.md: STATE_EVENT.

#include "writerunlock/Watching.h"

#include <filesystem>

#include <Krell/Exception>
#include <Qel/Exception>

namespace {

using QelKrellTest::Writer;
namespace fs = std::filesystem;

// --- The collection library's

// What a cell works with.
class Bench : public QelKrellTest::Watching {
public:
    void TestBody() override {}

    void into( const std::string& state ) {
        const bool free = state == "waiting" || state == "idleFree";
        const bool listens = state == "listening" || state == "idleHeard";
        writer =
            std::make_unique< Writer >( directory, listens ? Writer::listening : Writer::silent );
        if ( free ) {
            writer.reset();
        }
        sm->connectedIs( !state.starts_with( "idle" ) );
        settle();
    }
    void takeOver( Writer::Manner manner ) {
        successor = std::make_unique< Writer >( directory, Writer::whenFree, manner );
        writer->kill();
        successor->started();
    }

    void connect() { sm->connectedIs( true ); }
    void disconnect() { sm->connectedIs( false ); }
    void release() { writer->release(); }
    void die() { writer->kill(); }
    void takeOverListening() { takeOver( Writer::listening ); }
    void takeOverSilent() { takeOver( Writer::silent ); }
    void comeListening() { writer = std::make_unique< Writer >( directory, Writer::listening ); }
    void comeSilent() { writer = std::make_unique< Writer >( directory ); }
    void comeAndGo() {
        comeSilent();
        writer->exit();
    }
    void listen() { writer->listen(); }
    void hangUp() { writer->hangUp(); }
    void remove() { fs::remove_all( directory ); }
    void lookFails() {
        fs::rename( directory, scratch.path( "away" ) );
        fs::create_directory_symlink( scratch.path( "away" ), directory );
    }
    void time() { clock.advance( 1.5 ); }
    void destroy() { sm = nullptr; }

    std::unique_ptr< Writer > writer;
    std::unique_ptr< Writer > successor;
};

struct Cell {
    const char* state;
    const char* event;
    void ( Bench::*act )();
    const char* next;
    Qel::U32 releases;
};

void PrintTo( const Cell& cell, std::ostream* os ) { *os << cell.state << " " << cell.event; }

const Cell cells[] = {
    { "idle", "Connect", &Bench::connect, "watching", 0 },
    { "idleHeard", "Connect", &Bench::connect, "listening", 0 },
    { "idleFree", "Connect", &Bench::connect, "waiting", 0 },
    { "idle", "Disconnect", &Bench::disconnect, "idle", 0 },
    { "idle", "Release", &Bench::release, "idle", 0 },
    { "idle", "Death", &Bench::die, "idle", 0 },
    { "idle", "TakenOver", &Bench::takeOverListening, "idle", 0 },
    { "idleFree", "WriterComes", &Bench::comeListening, "idle", 0 },
    { "idleFree", "WriterComesAndGoes", &Bench::comeAndGo, "idle", 0 },
    { "idle", "HolderListens", &Bench::listen, "idle", 0 },
    { "idleHeard", "HolderHangsUp", &Bench::hangUp, "idle", 0 },
    { "idle", "Removed", &Bench::remove, "idle", 0 },
    { "idle", "LookFails", &Bench::lookFails, "idle", 0 },
    { "idle", "Time", &Bench::time, "idle", 0 },
    { "idle", "Destroyed", &Bench::destroy, "idle", 0 },

    { "listening", "Connect", &Bench::connect, "listening", 0 },
    { "listening", "Disconnect", &Bench::disconnect, "idle", 0 },
    { "listening", "Release", &Bench::release, "waiting", 1 },
    { "listening", "Death", &Bench::die, "waiting", 1 },
    { "listening", "TakenOver", &Bench::takeOverListening, "listening", 1 },
    { "listening", "TakenOverBySilent", &Bench::takeOverSilent, "watching", 1 },
    { "listening", "HolderHangsUp", &Bench::hangUp, "watching", 0 },
    { "listening", "Removed", &Bench::remove, "listening", 0 },
    { "listening", "LookFails", &Bench::lookFails, "listening", 0 },
    { "listening", "Time", &Bench::time, "listening", 0 },
    { "listening", "Destroyed", &Bench::destroy, "idle", 0 },

    { "watching", "Connect", &Bench::connect, "watching", 0 },
    { "watching", "Disconnect", &Bench::disconnect, "idle", 0 },
    { "watching", "Release", &Bench::release, "waiting", 1 },
    { "watching", "Death", &Bench::die, "waiting", 1 },
    { "watching", "TakenOver", &Bench::takeOverListening, "listening", 1 },
    { "watching", "TakenOverBySilent", &Bench::takeOverSilent, "watching", 1 },
    { "watching", "HolderListens", &Bench::listen, "listening", 0 },
    { "watching", "Removed", &Bench::remove, "waiting", 1 },
    { "watching", "LookFails", &Bench::lookFails, "watching", 0 },
    { "watching", "Time", &Bench::time, "watching", 0 },
    { "watching", "Destroyed", &Bench::destroy, "idle", 0 },

    { "waiting", "Connect", &Bench::connect, "waiting", 0 },
    { "waiting", "Disconnect", &Bench::disconnect, "idle", 0 },
    { "waiting", "WriterComes", &Bench::comeListening, "listening", 0 },
    { "waiting", "SilentWriterComes", &Bench::comeSilent, "waiting", 0 }, // until the timer
    { "waiting", "WriterComesAndGoes", &Bench::comeAndGo, "waiting", 1 },
    { "waiting", "Removed", &Bench::remove, "waiting", 0 },
    { "waiting", "LookFails", &Bench::lookFails, "watching", 0 }, // every 0.1 s
    { "waiting", "Time", &Bench::time, "waiting", 0 },
    { "waiting", "Destroyed", &Bench::destroy, "idle", 0 },
};

class Cells : public testing::TestWithParam< Cell > {};

TEST_P( Cells, LeadToTheirState ) {
    const Cell& cell = GetParam();
    Bench bench;
    bench.into( cell.state );
    const std::string state = cell.state;
    ASSERT_EQ( bench.state(), state.starts_with( "idle" ) ? "idle" : state );
    ASSERT_EQ( bench.counter->count(), 0u );
    ( bench.*cell.act )();
    bench.settle();
    EXPECT_EQ( bench.state(), cell.next );
    EXPECT_EQ( bench.counter->count(), cell.releases );
}

INSTANTIATE_TEST_SUITE_P( All, Cells, testing::ValuesIn( cells ), []( const auto& info ) {
    return std::string( info.param.state ) + "_" + info.param.event;
} );

// --- The entity's

class EntityBench : public QelKrellTest::Watching {
public:
    void TestBody() override {}

    void into( const std::string& state ) {
        if ( state == "connected" || state == "disconnected" ) {
            sm->connectedIs( true );
        }
        if ( state == "disconnected" ) {
            sm->connectedIs( false );
        }
        if ( state == "destroyed" ) {
            sm->handleDestruction();
        }
    }
    std::string entityState() const {
        return !sm               ? "gone"
               : !sm->helper()   ? "destroyed"
               : sm->connected() ? "connected"
               : everConnected   ? "disconnected"
                                 : "created";
    }

    void connect() { sm->connectedIs( true ); }
    void disconnect() { sm->connectedIs( false ); }
    void unlock() { sm->helper()->handleUnlocked(); }
    void initialise() { sm->handleInitialized(); }
    void handleDestruction() { sm->handleDestruction(); }
    void destroy() { sm = nullptr; }

    bool everConnected = false;
};

struct EntityCell {
    const char* state;
    const char* event;
    void ( EntityBench::*act )();
    const char* next;
    bool connected; // the attribute, afterwards
    Qel::U32 releases;
    bool refused;
};

void PrintTo( const EntityCell& cell, std::ostream* os ) { *os << cell.state << " " << cell.event; }

const EntityCell entityCells[] = {
    { "created", "Connect", &EntityBench::connect, "connected", true, 0, false },
    { "created", "Disconnect", &EntityBench::disconnect, "created", false, 0, false },
    { "created", "Unlocked", &EntityBench::unlock, "created", false, 0, false },
    { "created", "Initialised", &EntityBench::initialise, "created", false, 0, false },
    { "created", "HandleDestruction", &EntityBench::handleDestruction, "destroyed", false, 0,
      false },
    { "created", "Destroyed", &EntityBench::destroy, "gone", false, 0, false },

    { "connected", "Connect", &EntityBench::connect, "connected", true, 0, false },
    { "connected", "Disconnect", &EntityBench::disconnect, "disconnected", false, 0, false },
    { "connected", "Unlocked", &EntityBench::unlock, "connected", true, 1, false },
    { "connected", "Initialised", &EntityBench::initialise, "connected", true, 0, false },
    { "connected", "HandleDestruction", &EntityBench::handleDestruction, "destroyed", true, 0,
      false },
    { "connected", "Destroyed", &EntityBench::destroy, "gone", false, 0, false },

    { "disconnected", "Connect", &EntityBench::connect, "connected", true, 0, false },
    { "disconnected", "Disconnect", &EntityBench::disconnect, "disconnected", false, 0, false },
    { "disconnected", "Unlocked", &EntityBench::unlock, "disconnected", false, 0, false },
    { "disconnected", "Initialised", &EntityBench::initialise, "disconnected", false, 0, false },
    { "disconnected", "HandleDestruction", &EntityBench::handleDestruction, "destroyed", false, 0,
      false },
    { "disconnected", "Destroyed", &EntityBench::destroy, "gone", false, 0, false },

    { "destroyed", "Connect", &EntityBench::connect, "destroyed", true, 0, true },
    { "destroyed", "Disconnect", &EntityBench::disconnect, "destroyed", false, 0, true },
    { "destroyed", "Initialised", &EntityBench::initialise, "created", false, 0, false },
    { "destroyed", "HandleDestruction", &EntityBench::handleDestruction, "destroyed", false, 0,
      false },
    { "destroyed", "Destroyed", &EntityBench::destroy, "gone", false, 0, false },
};

class EntityCells : public testing::TestWithParam< EntityCell > {};

TEST_P( EntityCells, LeadToTheirState ) {
    const EntityCell& cell = GetParam();
    EntityBench bench;
    bench.into( cell.state );
    const std::string state = cell.state;
    bench.everConnected = state == "connected" || state == "disconnected";
    ASSERT_EQ( bench.entityState(), state );
    const auto act = [ & ] { ( bench.*cell.act )(); };
    if ( cell.refused ) {
        EXPECT_THROW( act(), Qel::InternalException );
    } else {
        act();
    }
    EXPECT_EQ( bench.entityState(), cell.next );
    EXPECT_EQ( bench.sm && bench.sm->connected(), cell.connected );
    EXPECT_EQ( bench.counter->count(), cell.releases );
    const bool looks = bench.sm && bench.sm->helper() && cell.connected;
    EXPECT_EQ( bench.state(), looks ? "waiting" : "idle" ) << "the helper goes along";
}

INSTANTIATE_TEST_SUITE_P( All,
                          EntityCells,
                          testing::ValuesIn( entityCells ),
                          []( const auto& info ) {
                              return std::string( info.param.state ) + "_" + info.param.event;
                          } );

} // namespace
