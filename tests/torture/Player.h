// One process of a tortured system. It does with each entity what its scene says, follows orders,
// and may be killed at any instant.

#pragma once

#include <memory>

#include <Qel/FileDescriptor>

#include "mount/Site.h"
#include "torture/Part.h"

namespace TortureTest {

// Descriptors that a player has from its parent.
struct Wires {
    int stage;  // of the pages
    int orders; // readable when there is a new order
    int bell;   // a byte for each answer
};

class Player {
public:
    Player( Stage& stage, U32 number, const Wires& wires );
    ~Player();
    Player( const Player& ) = delete;
    Player& operator=( const Player& ) = delete;

    // Until it is told to end; the process's status.
    int run();

private:
    class OrderWatch;
    struct Place { // of an entity
        Post post;
        Qel::Entity::Ptr entity;
        std::unique_ptr< Part > part;
    };
    struct Level { // resources
        std::size_t descriptors = 0;
        std::size_t mappings = 0;
        bool operator==( const Level& ) const = default;
    };

    bool is( U32 habit ) const { return ( scene_.habits & habit ) != 0; }
    void count( Figure figure, U64 n = 1, const std::string& what = "" ) {
        Stage::count( scene_, figure, n, what );
    }
    void play();
    void take( Order order );
    void work();
    void turn( double seconds );
    void poll();
    void move();
    void leave( U32 number );
    void mount( U32 number, Post post );
    bool clear( U32 number );
    QelKrell::MountInfo infoFor( Post post );
    void look();
    void write( Order order );
    void agree();
    bool isLevel();
    Level level() const;
    std::string unlevel() const;
    void leaveAll();
    void answer();
    bool writes() const;
    // Writers have to turn their event loop, or nobody connects.
    bool polls() const { return is( Habits::polling ) && !writes(); }

    Stage& stage_;
    Scene& scene_;
    const Wires wires_;
    Random random_;
    QelKrellTest::Site site_;
    Qel::Ptr< Qel::FileDescriptor > orders_;
    Qel::Ptr< OrderWatch > watch_;
    U32 taken_ = 0; // order
    bool working_ = false;
    bool ended_ = false;
    std::vector< Place > places_;
    Level bare_;  // with nothing mounted
    Level level_; // when it agreed first with these posts
};

// A player of its own in a process that has just been forked.
[[noreturn]] void playAndExit( Stage& stage, U32 number, const Wires& wires );

} // namespace TortureTest
