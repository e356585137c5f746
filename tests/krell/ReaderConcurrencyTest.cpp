// Readers beside a writer that does not stop for them: threads on one mapping, for the race
// detector, and processes.

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Torture.h"
#include "krell/EngineSupport.h"

using namespace KrellTest;

namespace {

constexpr unsigned words = 6;
using Value = std::array< U64, words >;

std::array< U64, 2 > keyOf( U64 n ) { return { n, n * 7 }; }

struct Counts {
    U64 good = 0;
    U64 torn = 0;
    U64 missed = 0; // of a key that is always there
};

// Reads keys [0, pinned), which are always there, and [pinned, keys), which come and go.
void readOnce( Krell::ReaderTable& table, U64 n, U64 pinned, Counts& counts ) {
    Value value {};
    if ( !table.find< 2, words >( keyOf( n ).data(), value.data() ) ) {
        counts.missed += n < pinned;
    } else if ( isWhole( value ) ) {
        ++counts.good;
    } else {
        ++counts.torn;
    }
}

void write( Krell::WriterTable& writer, U64 n, U64 seed ) {
    const Value value = wholeValue< words >( seed );
    writer.put< 2, words >( keyOf( n ).data(), value.data() );
}

// A writer in another process, until it is killed.
class FlatOutWriter {
public:
    explicit FlatOutWriter( const std::function< void( TestCollection&, U64 ) >& change,
                            const std::function< void( TestCollection& ) >& prepare,
                            const Krell::Layout& layout,
                            U32 slots ) {
        int ready[ 2 ];
        EXPECT_EQ( ::pipe( ready ), 0 );
        pid_ = ::fork();
        if ( pid_ == 0 ) {
            try {
                TestCollection writer( layout );
                writer.asWriter( slots );
                prepare( writer );
                if ( ::write( ready[ 1 ], "r", 1 ) == 1 ) {
                    for ( U64 n = 0;; ++n ) {
                        change( writer, n );
                    }
                }
            } catch ( ... ) {
            }
            ::_exit( 1 );
        }
        char byte;
        ::close( ready[ 1 ] );
        EXPECT_EQ( ::read( ready[ 0 ], &byte, 1 ), 1 );
        ::close( ready[ 0 ] );
    }
    ~FlatOutWriter() { stop(); }
    // Whether it was still at work.
    bool stop() {
        if ( pid_ <= 0 ) {
            return false;
        }
        ::kill( pid_, SIGKILL );
        int status = 0;
        ::waitpid( pid_, &status, 0 );
        pid_ = 0;
        return WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL;
    }

private:
    pid_t pid_ = 0;
};

TEST( ReaderConcurrencyTest, ThreadsReadWholeValuesBesideAWriter ) {
    const Krell::Layout layout = layoutOf( 2, words );
    Krell::Platform::DebugHandler* const handler = Krell::Platform::getDebugHandler( "test" );
    Krell::Incarnation incarnation = Krell::Incarnation::local( *handler, layout, 2048 );
    Krell::WriterTable writer( *incarnation.segments() );
    writer.reserve( 2048 ); // so that nothing is mapped anew
    constexpr U64 pinned = 32;
    constexpr U64 keys = 64;
    for ( U64 n = 0; n < pinned; ++n ) {
        write( writer, n, n );
    }
    std::atomic< bool > enough { false };
    Counts counts[ 2 ];
    std::atomic< U64 > visits[ 2 ] {};
    const auto read = [ & ]( unsigned who ) {
        Krell::ReaderTable table( incarnation.segments() );
        for ( U64 n = 0; !enough; ++n ) {
            readOnce( table, n % keys, pinned, counts[ who ] );
            if ( n % 256 == 0 ) {
                U64 seen = 0;
                table.forEach< 2, words >( [ & ]( const U64* key, const U64* value ) {
                    Value copy;
                    std::copy( value, value + words, copy.begin() );
                    counts[ who ].torn += !isWhole( copy );
                    seen += key[ 0 ] < pinned;
                } );
                counts[ who ].missed += seen != pinned;
                ++visits[ who ];
            }
        }
    };
    std::thread readers[ 2 ] = { std::thread( read, 0 ), std::thread( read, 1 ) };
    std::mt19937_64 random( seedOfRun() );
    for ( U64 i = 0; i < 100000 || visits[ 0 ] < 4 || visits[ 1 ] < 4; ++i ) {
        const U64 n = random() % keys;
        if ( n >= pinned && random() % 2 ) {
            writer.del< 2 >( keyOf( n ).data() );
        } else {
            write( writer, n, random() );
        }
    }
    enough = true;
    for ( std::thread& reader : readers ) {
        reader.join();
    }
    for ( const Counts& c : counts ) {
        EXPECT_EQ( c.torn, 0U );
        EXPECT_EQ( c.missed, 0U );
        EXPECT_GT( c.good, 0U );
    }
    delete handler;
}

TEST( ReaderConcurrencyTest, ProcessesReadWholeValuesBesideAWriterFlatOut ) {
    TestRoot root;
    const Krell::Layout layout = layoutOf( 2, words );
    FlatOutWriter writer( []( TestCollection& w, U64 n ) { write( w.writer(), n % 4, n ); },
                          []( TestCollection& w ) {
                              for ( U64 n = 0; n < 4; ++n ) {
                                  write( w.writer(), n, n );
                              }
                          },
                          layout, 8 );
    TestCollection reader( layout );
    reader.asReader();
    Counts counts;
    // As long as it takes to have met the writer in every way.
    for ( U64 n = 0; n < 200'000'000; ++n ) {
        readOnce( reader.table(), n % 4, 4, counts );
        if ( n > 200'000 && reader.table().chainRestarts() > 0 &&
             reader.table().usedLookaside() > 0 ) {
            break;
        }
    }
    EXPECT_TRUE( writer.stop() );
    EXPECT_EQ( counts.torn, 0U );
    EXPECT_EQ( counts.missed, 0U );
    EXPECT_GT( counts.good, 0U );
    EXPECT_GT( reader.table().chainRestarts(), 0U );
    EXPECT_GT( reader.table().usedLookaside(), 0U );
}

TEST( ReaderConcurrencyTest, LargeValuesAreReadWhole ) {
    constexpr unsigned many = 512;
    using Large = std::array< U64, many >;
    TestRoot root;
    const Krell::Layout layout = layoutOf( 1, many );
    const auto put = []( TestCollection& w, U64 n ) {
        const U64 key = 5;
        const Large value = wholeValue< many >( n );
        w.writer().put< 1, many >( &key, value.data() );
    };
    FlatOutWriter writer(
        put, [ & ]( TestCollection& w ) { put( w, 0 ); }, layout, 2 );
    TestCollection reader( layout );
    reader.asReader();
    const U64 key = 5;
    U64 good = 0;
    for ( U64 n = 0; n < 20000; ++n ) {
        Large value {};
        ASSERT_TRUE( ( reader.table().find< 1, many >( &key, value.data() ) ) );
        ASSERT_TRUE( isWhole( value ) );
        ++good;
    }
    EXPECT_TRUE( writer.stop() );
    EXPECT_GT( good, 0U );
}

TEST( ReaderConcurrencyTest, APresentKeyIsNeverMissedWhileTablesGrow ) {
    constexpr U64 pinned = 16;
    QelKrellTest::Torture torture( "growth-while-reading", 3 );
    U64 lookups = 0;
    U32 remaps = 0;
    U64 restarts = 0;
    while ( torture.goesOn() && !HasFailure() ) {
        TestRoot root;
        const Krell::Layout layout = layoutOf( 2, words );
        // Inserts, some of which are deleted again; from few slots on.
        std::mt19937_64 random( torture.seed() + torture.rounds() );
        const U64 gone = 2 + random() % 4;
        const U32 size = 2 + U32( random() % 50 );
        FlatOutWriter writer(
            [ gone ]( TestCollection& w, U64 n ) {
                if ( n < 80000 ) {
                    write( w.writer(), 1000 + n, n );
                    if ( n % gone == 0 ) {
                        w.writer().del< 2 >( keyOf( 1000 + n / 2 ).data() );
                    }
                }
                write( w.writer(), n % pinned, n );
            },
            []( TestCollection& w ) {
                for ( U64 n = 0; n < pinned; ++n ) {
                    write( w.writer(), n, n );
                }
            },
            layout, size );
        TestCollection reader( layout );
        reader.asReader();
        Counts counts;
        U64 n = 0;
        for ( ; reader.table().occupied() < 30000 || n < 100000; ++n ) {
            readOnce( reader.table(), n % pinned, pinned, counts );
        }
        U64 seen = 0;
        reader.table().forEach< 2, words >(
            [ & ]( const U64* key, const U64* ) { seen += key[ 0 ] < pinned; } );
        EXPECT_EQ( seen, pinned );
        EXPECT_TRUE( writer.stop() );
        EXPECT_EQ( counts.torn, 0U );
        EXPECT_EQ( counts.missed, 0U );
        lookups += n;
        remaps += reader.table().slotResizes();
        restarts += reader.table().chainRestarts();
        torture.count( "lookups", n );
        torture.count( "remaps", reader.table().slotResizes() );
        torture.count( "torn", counts.torn );
        torture.count( "missed", counts.missed + ( pinned - seen ) );
    }
    EXPECT_GT( lookups, 0U );
    EXPECT_GT( remaps, 0U );
    EXPECT_GT( restarts, 0U );
}

} // namespace
