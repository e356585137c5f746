// Followers of every depth beside a writer that does not stop for them: threads, for the race
// detector, and processes. What they were told ends with the writer's last state.

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;
using QelKrell::QelKrellType;

namespace {

constexpr unsigned words = 4;
constexpr U64 changesAtLeast = 100000;
constexpr U64 changesAtMost = 16000000;
// Then the followers on the writer's own processor have their turn: one that gets it only after a
// whole slice of the writer's is always lapped, and never sees what the others see.
constexpr U64 burst = 1000;
constexpr U64 pinned = 8;     // keys that are always there
constexpr U64 churning = 40;  // keys that come and go
constexpr U64 growing = 1900; // keys that come one by one
// ThreadSanitizer takes a mapping where another thread had one before for a race with that one's.
#ifdef __SANITIZE_THREAD__
constexpr bool threadsMap = false;
#else
constexpr bool threadsMap = true;
#endif
using Value = std::array< U64, words >;
using Contents = std::map< U64, Value >;

std::string textOf( const QelKrell::ReaderCounters& counters ) {
    std::ostringstream text;
    text << "notified " << counters.conquerNotified << ", tombed " << counters.conquerTombed
         << ", restarts " << counters.conquerRestarts << ", probes " << counters.conquerProbes
         << ", resizes " << counters.conquerResizes << ", yields " << counters.conquerYields;
    return text.str();
}

// Keeps what it can conclude from what it is told.
class Listener : public TestCollection {
public:
    // `pace`: changes for which it does nothing after each drain, so that the writer laps it.
    // `grows`: it is to meet growth of the queue.
    Listener( const Krell::Layout& layout,
              QelKrellType role,
              U64 pace,
              double yieldTime,
              bool grows = true )
        : TestCollection( layout ), role( role ), pace_( pace ), grows_( grows ) {
        init( role, false, 0 );
        yieldTimeIs( yieldTime );
    }

    // A round; whether all that is to be met was met.
    bool step() {
        if ( sequence() >= next_ ) {
            poll();
            const bool ended = mountStatus() && readerCounters().conquerYields == yields_;
            next_ = ended ? sequence() + pace_ : 0;
        } else {
            std::this_thread::yield();
        }
        const QelKrell::ReaderCounters counters = readerCounters();
        yields_ = counters.conquerYields;
        const bool ownWay = pace_ == 0 ? counters.conquerTombed > 0
                                       : counters.conquerRestarts > 3 && counters.conquerProbes > 0;
        return counters.conquerNotified > 300 && ownWay &&
               ( counters.conquerResizes > 0 || !grows_ ) && deletions > 0;
    }
    // The writer is at rest.
    void finish() {
        yieldTimeIs( 1000 );
        for ( unsigned i = 0; i < 4; ++i ) {
            poll();
        }
    }
    // What is not as it has to be, in a few words; empty when all is well.
    std::string complaint( const Contents& wanted ) {
        if ( torn || !failures.empty() ) {
            return std::to_string( torn ) + " torn values, " +
                   ( failures.empty() ? std::string() : failures[ 0 ] );
        }
        for ( const auto& [ key, value ] : wanted ) {
            const auto found = mirror.find( key );
            if ( found == mirror.end() || found->second != value ) {
                return "key " + std::to_string( key ) +
                       ( found == mirror.end() ? " is missing" : " has a stale value" );
            }
        }
        // A reader does not hear of deletions whose slots were used again.
        if ( role != QelKrell::reader && mirror.size() != wanted.size() ) {
            return std::to_string( mirror.size() - wanted.size() ) + " deletions were not told";
        }
        return role == QelKrell::shadow ? complaintOfView( wanted ) : std::string();
    }
    Contents contents() {
        Contents contents;
        table().forEach< 1, words >( [ & ]( const U64* key, const U64* value ) {
            std::copy_n( value, words, contents[ *key ].begin() );
        } );
        return contents;
    }

    const QelKrellType role;
    Contents mirror;
    U64 torn = 0;
    U64 deletions = 0;

protected:
    void handleChanged( const U64* key, bool present ) override {
        Value value {};
        deletions += !present;
        if ( !present || !table().find< 1, words >( key, value.data() ) ) {
            mirror.erase( *key );
            return;
        }
        torn += !isWhole( value );
        mirror[ *key ] = value;
        if ( role == QelKrell::shadow ) {
            const U64* const copy = view()->find( key );
            torn += !copy || !isWhole( *reinterpret_cast< const Value* >( copy ) );
        }
    }

private:
    std::string complaintOfView( const Contents& wanted ) {
        for ( const auto& [ key, value ] : wanted ) {
            const U64* const copy = view()->find( &key );
            if ( !copy || !std::equal( value.begin(), value.end(), copy ) ) {
                return "the view is not right of key " + std::to_string( key );
            }
        }
        return view()->size() == wanted.size() ? "" : "the view has more than there is";
    }

    const U64 pace_;
    const bool grows_;
    U64 next_ = 0;
    U32 yields_ = 0;
};

// Changes of all kinds, the same for each number.
void change( Krell::WriterTable& writer, U64 n ) {
    const auto put = [ & ]( U64 key ) {
        writer.put< 1, words >( &key, wholeValue< words >( n * 2654435761u ).data() );
    };
    put( n % pinned );
    const U64 key = pinned + n % churning;
    if ( n % 7 < 4 ) {
        put( key );
    } else {
        writer.del< 1 >( &key );
    }
    if ( n % 50 == 0 && n / 50 < growing ) {
        put( 1000 + n / 50 );
    }
}

struct Kind {
    QelKrellType role;
    U64 pace;
    double yieldTime;
};
const std::vector< Kind > kinds = {
    { QelKrell::reader, 0, 1000 }, { QelKrell::reader, 10000, 0 },
    { QelKrell::keyshadow, 0, 0 }, { QelKrell::keyshadow, 10000, 1000 },
    { QelKrell::shadow, 0, 1000 }, { QelKrell::shadow, 10000, 0 },
};

void expectMet( const QelKrell::WriterCounters& counters, bool grows = true ) {
    EXPECT_EQ( counters.conquerResizes > 1, grows );
    EXPECT_GT( counters.conquerCompactions, 0U );
    EXPECT_GT( counters.conquerTombstones, 0U );
}

TEST( FollowConcurrencyTest, ThreadsEndWithTheWritersLastState ) {
    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, words );
    TestCollection writer( layout );
    writer.asWriter( threadsMap ? 2 : 2 * growing );
    for ( U64 key = 0; key < pinned; ++key ) {
        change( writer.writer(), key );
    }
    // Timers and descriptors of the tests belong to one thread: they are made here.
    std::vector< std::unique_ptr< Listener > > listeners;
    for ( const Kind& kind : kinds ) {
        listeners.push_back( std::make_unique< Listener >( layout, kind.role, kind.pace,
                                                           kind.yieldTime, threadsMap ) );
        listeners.back()->poll();
    }
    std::atomic< unsigned > satisfied { 0 };
    std::atomic< bool > stopped { false };
    std::vector< std::thread > threads;
    for ( auto& listener : listeners ) {
        threads.emplace_back( [ & ] {
            for ( bool met = false; !stopped; ) {
                if ( listener->step() && !met ) {
                    met = true;
                    ++satisfied;
                }
            }
            listener->finish();
        } );
    }
    U64 n = 0;
    for ( ; n < changesAtMost && ( n < changesAtLeast || satisfied < listeners.size() ); ++n ) {
        change( writer.writer(), n );
        if ( n % burst == 0 ) {
            std::this_thread::yield();
        }
    }
    stopped = true;
    for ( std::thread& thread : threads ) {
        thread.join();
    }
    EXPECT_EQ( satisfied, listeners.size() );
    const Contents wanted = listeners[ 0 ]->contents();
    EXPECT_GT( wanted.size(), growing );
    for ( auto& listener : listeners ) {
        const std::string name = "role " + std::to_string( int( listener->role ) ) + ": ";
        EXPECT_EQ( listener->complaint( wanted ), "" ) << name;
        EXPECT_EQ( listener->sequence(), writer.sequence() );
        EXPECT_EQ( listener->readerCounters().conquerSequence, writer.sequence() );
        std::cout << name << textOf( listener->readerCounters() ) << std::endl;
    }
    expectMet( writer.writerCounters(), threadsMap );
    EXPECT_TRUE( writer.validate() );
    std::cout << n << " rounds of changes" << std::endl;
}

// A follower in another process: a byte up when it has attached, one when all was met, and, told to
// end, what it thinks.
class FollowerProcess {
public:
    FollowerProcess( const Krell::Layout& layout, const Kind& kind ) {
        int up[ 2 ];
        int down[ 2 ];
        if ( ::pipe2( up, O_CLOEXEC ) != 0 || ::pipe2( down, O_CLOEXEC ) != 0 ) {
            throw std::runtime_error( "no pipe" );
        }
        pid_ = ::fork();
        if ( pid_ == 0 ) {
            ::prctl( PR_SET_PDEATHSIG, SIGKILL );
            ::close( up[ 0 ] );
            ::close( down[ 1 ] );
            std::string result = "an exception";
            try {
                result = follow( layout, kind, up[ 1 ], down[ 0 ] );
            } catch ( const Krell::Exception& e ) {
                result = e.msg();
            } catch ( ... ) {
            }
            const ssize_t size = ::write( up[ 1 ], result.data(), result.size() );
            ::_exit( size == ssize_t( result.size() ) ? 0 : 1 );
        }
        ::close( up[ 1 ] );
        ::close( down[ 0 ] );
        fromChild_ = up[ 0 ];
        toChild_ = down[ 1 ];
    }
    ~FollowerProcess() {
        if ( pid_ > 0 ) {
            result();
        }
    }
    FollowerProcess( const FollowerProcess& ) = delete;
    FollowerProcess& operator=( const FollowerProcess& ) = delete;

    bool attached() {
        char byte = 0;
        return ::read( fromChild_, &byte, 1 ) == 1 && byte == '+';
    }
    bool met() {
        pollfd polled { fromChild_, POLLIN, 0 };
        char byte = 0;
        if ( !met_ && ::poll( &polled, 1, 0 ) > 0 ) {
            met_ = ::read( fromChild_, &byte, 1 ) == 1 && byte == '!';
            over_ = !met_;
        }
        return met_ || over_;
    }
    // Ends it.
    std::string result() {
        std::string text = ::write( toChild_, ".", 1 ) == 1 ? "" : "it was gone: ";
        ::close( toChild_ );
        char bytes[ 256 ];
        for ( ssize_t size; ( size = ::read( fromChild_, bytes, sizeof bytes ) ) > 0; ) {
            text.append( bytes, std::size_t( size ) );
        }
        ::close( fromChild_ );
        int status = 0;
        ::waitpid( pid_, &status, 0 );
        pid_ = 0;
        return WIFEXITED( status ) && WEXITSTATUS( status ) == 0 ? text : "it died: " + text;
    }

private:
    static std::string follow( const Krell::Layout& layout, const Kind& kind, int up, int down ) {
        Listener listener( layout, kind.role, kind.pace, kind.yieldTime );
        pollfd polled { down, POLLIN, 0 };
        while ( listener.attachments == 0 ) {
            listener.poll();
            std::this_thread::yield();
        }
        if ( ::write( up, "+", 1 ) != 1 ) {
            return "nobody listens";
        }
        for ( bool met = false; ::poll( &polled, 1, 0 ) == 0; ) {
            for ( unsigned i = 0; i < 100; ++i ) {
                if ( listener.step() && !met ) {
                    met = ::write( up, "!", 1 ) == 1;
                }
            }
        }
        listener.finish();
        const std::string complaint = listener.complaint( listener.contents() );
        return complaint.empty() ? "good: " + textOf( listener.readerCounters() ) : complaint;
    }

    pid_t pid_ = -1;
    int fromChild_ = -1;
    int toChild_ = -1;
    bool met_ = false;
    bool over_ = false;
};

TEST( FollowConcurrencyTest, ProcessesEndWithTheWritersLastState ) {
    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, words );
    std::vector< std::unique_ptr< FollowerProcess > > followers;
    for ( const Kind& kind : kinds ) { // before the writer is there
        followers.push_back( std::make_unique< FollowerProcess >( layout, kind ) );
    }
    TestCollection writer( layout );
    writer.asWriter( 2 );
    for ( auto& follower : followers ) {
        ASSERT_TRUE( follower->attached() );
    }
    U64 n = 0;
    for ( bool met = false; n < changesAtMost && ( n < changesAtLeast || !met ); ) {
        for ( unsigned i = 0; i < burst; ++i, ++n ) {
            change( writer.writer(), n );
        }
        std::this_thread::yield();
        met = true;
        for ( auto& follower : followers ) {
            met = follower->met() && met;
        }
    }
    for ( auto& follower : followers ) {
        const std::string result = follower->result();
        EXPECT_EQ( result.substr( 0, 6 ), "good: " ) << result;
        std::cout << result << std::endl;
    }
    expectMet( writer.writerCounters() );
    EXPECT_LT( n, changesAtMost ) << "not everything was met";
    std::cout << n << " rounds of changes" << std::endl;
}

// Whatever the writer does during the search for the place.
TEST( FollowConcurrencyTest, ASearchBesideTheWriterNamesEachSlotOnce ) {
    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, words );
    TestCollection writer( layout );
    constexpr U32 slots = 30; // the queue has a page of places
    writer.asWriter( slots );
    for ( U64 key = 0; key < slots; ++key ) {
        writer.writer().put< 1, words >( &key, wholeValue< words >( key ).data() );
    }
    const auto directory =
        std::make_shared< const Krell::Directory >( Krell::Directory::open( writer.rootPath() ) );
    RecordingDebugHandler debug;
    Krell::Incarnation incarnation = Krell::Incarnation::attach( debug, directory, layout );
    std::atomic< bool > stopped { false };
    U64 drains = 0;
    U64 twice = 0;
    U64 missed = 0;
    U64 restarts = 0;
    std::thread reader( [ & ] {
        Krell::ReaderTable table( incarnation.segments() );
        while ( !stopped && drains < 5000 ) {
            Krell::QueueReader queue( *incarnation.segments(), table ); // searches each time
            std::vector< unsigned > told( slots );
            queue.drain( [ & ]( U32 slot ) {
                twice += told[ slot ]++ != 0;
                return true;
            } );
            missed += U64( std::count( told.begin(), told.end(), 0U ) );
            ++drains;
            restarts += queue.counts().restarts;
        }
        stopped = true;
    } );
    for ( U64 n = 0; !stopped; ++n ) {
        const U64 key = n % 8 ? 0 : n % slots;
        writer.writer().put< 1, words >( &key, wholeValue< words >( n ).data() );
        stopped = stopped || n == changesAtMost;
    }
    reader.join();
    EXPECT_EQ( twice, 0U );
    EXPECT_EQ( missed, 0U );
    EXPECT_GT( drains, 100U );
    EXPECT_GE( restarts, drains );
    std::cout << drains << " drains, " << restarts << " searches" << std::endl;
}

} // namespace
