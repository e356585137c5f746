// Every interleaving of a sleeping reader and a publishing writer, on processors that hold stores
// back: none ends with the reader asleep and behind. And that the model finds what is left out.

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

enum class Fence { byWriter, bySleeper };

enum class Broken {
    nothing,
    writerHasNoFence,
    readerHasNoFence,
    readerLooksOnce,
    readerDrainsAfterItArmed,
    ticketsRepeat,
    writerLooksBeforeItPublishes,
    fenceForAllIsForTheSleeperOnly, // also: the writer is not enlisted, the two disagree
    fenceForAllComesBeforeTheTicket,
    fenceForAllComesAfterTheLastLook,
};

constexpr int publishes = 3;

// Stores that are on their way to memory, oldest first.
using Buffer = std::vector< int >;

struct ModelState {
    int head = 0, armed = 0, kicks = 0;             // shared
    int writerAt = 0, published = 0, kickedFor = 0; // the writer
    Buffer headStores;
    int readerAt = 0, seen = 0, ticket = 0; // the reader
    Buffer armedStores;

    auto key() const {
        return std::tie( head, armed, kicks, writerAt, published, kickedFor, headStores, readerAt,
                         seen, ticket, armedStores );
    }
    bool operator<( const ModelState& o ) const { return key() < o.key(); }
};

class Model {
public:
    explicit Model( Broken broken, Fence fence ) : broken_( broken ), fence_( fence ) {
        explore( ModelState() );
    }

    std::size_t states() const { return known_.size(); }
    unsigned stuck() const { return stuck_; }   // ends in which the reader sleeps and is behind
    unsigned sleeps() const { return sleeps_; } // states in which it sleeps
    unsigned ends() const { return ends_; }

private:
    enum Writer { publish, writerFence, look, kick, publishLate };
    enum Reader {
        drain,
        earlyFence,
        arm,
        readerFence,
        writersFence,
        lookAgain,
        lateFence,
        swallow,
        sleep,
        disarm,
    };

    void explore( const ModelState& first ) {
        std::vector< ModelState > open { first };
        while ( !open.empty() ) {
            const ModelState state = open.back();
            open.pop_back();
            if ( known_.insert( state ).second ) {
                const std::size_t before = open.size();
                reachStores( state, open );
                reachWriter( state, open );
                reachReader( state, open );
                count( state, open.size() == before );
            }
        }
    }

    void count( const ModelState& s, bool isEnd ) {
        sleeps_ += s.readerAt == sleep;
        ends_ += isEnd;
        stuck_ += isEnd && !( s.readerAt == sleep && s.seen == s.head && s.published == publishes );
    }

    static void reachStores( const ModelState& s, std::vector< ModelState >& open ) {
        if ( !s.headStores.empty() ) {
            ModelState next = s;
            next.head = next.headStores.front();
            next.headStores.erase( next.headStores.begin() );
            open.push_back( next );
        }
        if ( !s.armedStores.empty() ) {
            ModelState next = s;
            next.armed = next.armedStores.front();
            next.armedStores.erase( next.armedStores.begin() );
            open.push_back( next );
        }
    }

    void reachWriter( const ModelState& s, std::vector< ModelState >& open ) const {
        const bool lookFirst = broken_ == Broken::writerLooksBeforeItPublishes;
        ModelState next = s;
        switch ( s.writerAt ) {
        case publish:
            if ( s.published == publishes ) {
                return;
            }
            if ( lookFirst ) {
                next.writerAt = look;
                break;
            }
            next.headStores.push_back( ++next.published );
            next.writerAt = writerFence;
            break;
        case writerFence:
            if ( fence_ == Fence::byWriter && broken_ != Broken::writerHasNoFence &&
                 !s.headStores.empty() ) {
                return;
            }
            next.writerAt = lookFirst ? publish : look;
            break;
        case look: {
            const bool wake = s.armed != 0 && s.armed != s.kickedFor;
            next.kickedFor = wake ? s.armed : s.kickedFor;
            next.writerAt = wake ? kick : lookFirst ? publishLate : publish;
            break;
        }
        case kick:
            ++next.kicks;
            next.writerAt = lookFirst ? publishLate : publish;
            break;
        default:
            next.headStores.push_back( ++next.published );
            next.writerAt = writerFence;
        }
        open.push_back( next );
    }

    // The sleeper's, in the writer's thread: all that this one stored reaches memory, at any place.
    void fenceInWriter( ModelState& next, Reader place ) const {
        const Reader right = broken_ == Broken::fenceForAllComesBeforeTheTicket    ? earlyFence
                             : broken_ == Broken::fenceForAllComesAfterTheLastLook ? lateFence
                                                                                   : writersFence;
        if ( fence_ == Fence::bySleeper && place == right &&
             broken_ != Broken::fenceForAllIsForTheSleeperOnly && !next.headStores.empty() ) {
            next.head = next.headStores.back();
            next.headStores.clear();
        }
    }

    void reachReader( const ModelState& s, std::vector< ModelState >& open ) const {
        ModelState next = s;
        switch ( s.readerAt ) {
        case drain:
            next.seen = s.head;
            next.readerAt = earlyFence;
            break;
        case earlyFence:
            fenceInWriter( next, earlyFence );
            next.readerAt = arm;
            break;
        case arm:
            next.ticket = broken_ == Broken::ticketsRepeat ? 1 : s.ticket + 1;
            next.armedStores.push_back( next.ticket );
            next.readerAt = readerFence;
            break;
        case readerFence:
            if ( broken_ != Broken::readerHasNoFence && !s.armedStores.empty() ) {
                return;
            }
            next.readerAt = writersFence;
            break;
        case writersFence:
            fenceInWriter( next, writersFence );
            next.readerAt = broken_ == Broken::readerLooksOnce ? sleep : lookAgain;
            break;
        case lookAgain:
            next.readerAt = s.head != s.seen ? disarm : lateFence;
            break;
        case lateFence:
            fenceInWriter( next, lateFence );
            next.readerAt = broken_ == Broken::readerDrainsAfterItArmed ? swallow : sleep;
            break;
        case swallow:
            next.kicks = 0;
            next.readerAt = sleep;
            break;
        case sleep:
            if ( s.kicks == 0 ) {
                return;
            }
            next.kicks = 0;
            next.readerAt = disarm;
            break;
        default:
            next.armedStores.push_back( 0 );
            next.readerAt = drain;
        }
        open.push_back( next );
    }

    const Broken broken_;
    const Fence fence_;
    std::set< ModelState > known_;
    unsigned stuck_ = 0;
    unsigned sleeps_ = 0;
    unsigned ends_ = 0;
};

TEST( DoorbellModelTest, AReaderThatSleepsForGoodIsCurrent ) {
    for ( const Fence fence : { Fence::byWriter, Fence::bySleeper } ) {
        const Model model( Broken::nothing, fence );
        EXPECT_EQ( model.stuck(), 0U );
        EXPECT_GT( model.ends(), 0U );
        EXPECT_GT( model.sleeps(), 0U );
        EXPECT_GT( model.states(), 500U );
        ::testing::Test::RecordProperty( fence == Fence::byWriter ? "statesByWriter"
                                                                  : "statesBySleeper",
                                         int( model.states() ) );
    }
}

TEST( DoorbellModelTest, EachPartOfTheProtocolIsNeeded ) {
    for ( const Fence fence : { Fence::byWriter, Fence::bySleeper } ) {
        for ( const Broken broken :
              { Broken::readerHasNoFence, Broken::readerLooksOnce, Broken::readerDrainsAfterItArmed,
                Broken::ticketsRepeat, Broken::writerLooksBeforeItPublishes } ) {
            EXPECT_GT( Model( broken, fence ).stuck(), 0U ) << int( fence ) << ' ' << int( broken );
        }
    }
    EXPECT_GT( Model( Broken::writerHasNoFence, Fence::byWriter ).stuck(), 0U );
    for ( const Broken broken :
          { Broken::fenceForAllIsForTheSleeperOnly, Broken::fenceForAllComesBeforeTheTicket,
            Broken::fenceForAllComesAfterTheLastLook } ) {
        EXPECT_GT( Model( broken, Fence::bySleeper ).stuck(), 0U ) << int( broken );
    }
}

} // namespace
