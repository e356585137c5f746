// Every interleaving of a sleeping reader and a publishing writer, on processors that hold stores
// back: none ends with the reader asleep and behind. And that the model finds what is left out.

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

enum class Broken {
    nothing,
    writerHasNoFence,
    readerHasNoFence,
    readerLooksOnce,
    readerDrainsAfterItArmed,
    ticketsRepeat,
    writerLooksBeforeItPublishes,
};

constexpr int publishes = 3;

// Stores that are on their way to memory, oldest first, at most two of one word.
using Buffer = std::vector< int >;

struct State {
    int head = 0, armed = 0, kicks = 0;             // shared
    int writerAt = 0, published = 0, kickedFor = 0; // the writer
    Buffer headStores;
    int readerAt = 0, seen = 0, ticket = 0; // the reader
    Buffer armedStores;

    auto key() const {
        return std::tie( head, armed, kicks, writerAt, published, kickedFor, headStores, readerAt,
                         seen, ticket, armedStores );
    }
    bool operator<( const State& o ) const { return key() < o.key(); }
};

class Model {
public:
    explicit Model( Broken broken ) : broken_( broken ) { explore( State() ); }

    std::size_t states() const { return known_.size(); }
    unsigned stuck() const { return stuck_; }   // ends in which the reader sleeps and is behind
    unsigned sleeps() const { return sleeps_; } // states in which it sleeps
    unsigned ends() const { return ends_; }

private:
    enum Writer { publish, writerFence, look, kick, done };
    enum Reader { drain, arm, readerFence, lookAgain, swallow, sleep, disarm };

    void explore( const State& first ) {
        std::vector< State > open { first };
        while ( !open.empty() ) {
            const State state = open.back();
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

    void count( const State& s, bool isEnd ) {
        sleeps_ += s.readerAt == sleep;
        ends_ += isEnd;
        stuck_ += isEnd && !( s.readerAt == sleep && s.seen == s.head && s.published == publishes );
    }

    static void reachStores( const State& s, std::vector< State >& open ) {
        if ( !s.headStores.empty() ) {
            State next = s;
            next.head = next.headStores.front();
            next.headStores.erase( next.headStores.begin() );
            open.push_back( next );
        }
        if ( !s.armedStores.empty() ) {
            State next = s;
            next.armed = next.armedStores.front();
            next.armedStores.erase( next.armedStores.begin() );
            open.push_back( next );
        }
    }

    void reachWriter( const State& s, std::vector< State >& open ) const {
        const bool lookFirst = broken_ == Broken::writerLooksBeforeItPublishes;
        State next = s;
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
            if ( broken_ != Broken::writerHasNoFence && !s.headStores.empty() ) {
                return;
            }
            next.writerAt = lookFirst ? publish : look;
            break;
        case look: {
            const bool wake = s.armed != 0 && s.armed != s.kickedFor;
            next.kickedFor = wake ? s.armed : s.kickedFor;
            next.writerAt = wake ? kick : publish;
            if ( lookFirst ) {
                next.headStores.push_back( ++next.published );
                next.writerAt = wake ? kick : writerFence;
            }
            break;
        }
        default:
            ++next.kicks;
            next.writerAt = lookFirst ? writerFence : publish;
        }
        open.push_back( next );
    }

    void reachReader( const State& s, std::vector< State >& open ) const {
        State next = s;
        switch ( s.readerAt ) {
        case drain:
            next.seen = s.head;
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
            next.readerAt = broken_ == Broken::readerLooksOnce ? sleep : lookAgain;
            break;
        case lookAgain:
            next.readerAt = s.head != s.seen                              ? disarm
                            : broken_ == Broken::readerDrainsAfterItArmed ? swallow
                                                                          : sleep;
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
    std::set< State > known_;
    unsigned stuck_ = 0;
    unsigned sleeps_ = 0;
    unsigned ends_ = 0;
};

TEST( DoorbellModelTest, AReaderThatSleepsForGoodIsCurrent ) {
    const Model model( Broken::nothing );
    EXPECT_EQ( model.stuck(), 0U );
    EXPECT_GT( model.ends(), 0U );
    EXPECT_GT( model.sleeps(), 0U );
    EXPECT_GT( model.states(), 500U );
    ::testing::Test::RecordProperty( "states", int( model.states() ) );
}

TEST( DoorbellModelTest, EachPartOfTheProtocolIsNeeded ) {
    EXPECT_GT( Model( Broken::writerHasNoFence ).stuck(), 0U );
    EXPECT_GT( Model( Broken::readerHasNoFence ).stuck(), 0U );
    EXPECT_GT( Model( Broken::readerLooksOnce ).stuck(), 0U );
    EXPECT_GT( Model( Broken::readerDrainsAfterItArmed ).stuck(), 0U );
    EXPECT_GT( Model( Broken::ticketsRepeat ).stuck(), 0U );
    EXPECT_GT( Model( Broken::writerLooksBeforeItPublishes ).stuck(), 0U );
}

} // namespace
