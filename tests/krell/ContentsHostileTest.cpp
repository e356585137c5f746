// Bytes of a collection's files, flipped again and again before and under every role: each call
// returns, with an answer or an exception, and a next writer is at work whatever stands there.

#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include "Torture.h"
#include "krell/QueueSupport.h"
#include "mount/Child.h"

using namespace KrellTest;
using QelKrellTest::Channel;
using QelKrellTest::Torture;

namespace {

constexpr U64 keys = 20; // of either kind
constexpr unsigned flipsARound = 4000;
constexpr unsigned flipsAtOnce = 16;    // at most, before everything is as it was
constexpr unsigned flipsAnOpening = 64; // of a role

std::array< U64, 2 > keyOfNumber( U64 n ) {
    return n % 2 ? collidingKey( n / 2 ) : std::array< U64, 2 > { n / 2, n / 2 };
}

void put( TestCollection& writer, U64 n, U64 seed ) {
    writer.writer().put< 2, 2 >( keyOfNumber( n ).data(), wholeValue< 2 >( seed ).data() );
}

// A file under the role, and what it held at first.
class HostileFile {
public:
    explicit HostileFile( const std::string& path ) : whole_( bytesOf( path ) ), mapped_( path ) {}

    void restore() { std::memcpy( &mapped_[ 0 ], whole_.data(), whole_.size() ); }

    // Changes some bytes of the part that begins and ends there; how many.
    unsigned flip( std::mt19937_64& random, std::size_t from, std::size_t to ) {
        to = std::min( to, whole_.size() );
        const std::size_t width = random() % 2 ? 1 : random() % 2 ? 4 : 8;
        const std::size_t at = from + random() % ( to - from ) / width * width;
        const std::size_t other = from + random() % ( to - from );
        const unsigned how = random() % 4;
        unsigned changed = 0;
        for ( std::size_t i = 0; i < width && at + i < to; ++i ) {
            char& byte = mapped_[ at + i ];
            const char before = byte;
            byte = how == 0   ? char( byte ^ ( 1 << random() % 8 ) )
                   : how == 1 ? char( random() )
                   : how == 2 ? char( i ? 0 : random() % 80 )
                              : whole_[ std::min( other + i, to - 1 ) ];
            changed += byte != before;
        }
        return changed;
    }
    std::size_t size() const { return whole_.size(); }

private:
    const std::string whole_;
    MappedFile mapped_;
};

// What a child does: opens the role again and again, and calls it between flips.
class Flipping {
public:
    using Files = std::map< std::string, std::string >; // names and bytes

    Flipping( const std::string& directory,
              const Files& files,
              QelKrell::QelKrellType role,
              U64 seed )
        : directory_( directory ), files_( files ), role_( role ), random_( seed ) {}
    void run() {
        while ( flips_ < flipsARound && !testing::Test::HasFailure() ) {
            storeAll();
            hostile_ = std::make_unique< Hostile >( directory_ );
            if ( random_() % 4 == 0 ) {
                flipSome();
            }
            TestCollection collection( layoutOf( 2, 2 ) );
            allowed( [ & ] { collection.init( role_, false, 64 ); } );
            const unsigned end = flips_ + flipsAnOpening;
            while ( flips_ < end ) {
                flipSome();
                allowed( [ & ] { call( collection ); } );
                if ( random_() % flipsAtOnce == 0 ) {
                    hostile_->restore();
                }
            }
            allowed( [ & ] { collection.detach(); } );
            if ( random_() % 8 == 0 ) {
                takeOver();
            }
        }
    }
    std::string figures() const {
        return std::to_string( flips_ ) + " " + std::to_string( calls_ );
    }

private:
    struct Hostile {
        explicit Hostile( const std::string& directory )
            : slots( directory + "/slots" ),
              buckets( directory + "/buckets" ),
              queue( directory + "/conquer.1" ) {}
        void restore() {
            slots.restore();
            buckets.restore();
            queue.restore();
        }
        HostileFile slots;
        HostileFile buckets;
        HostileFile queue;
    };

    // New files: nobody has them mapped.
    void storeAll() const {
        for ( const auto& entry : std::filesystem::directory_iterator( directory_ ) ) {
            std::filesystem::remove_all( entry.path() );
        }
        for ( const auto& [ name, bytes ] : files_ ) {
            bytesInto( directory_ + "/" + name, bytes );
        }
    }
    // Headers, which are short, as often as what is behind them.
    void flipSome() {
        constexpr std::size_t slotsAt = Krell::Segments::slotsAt_;
        constexpr std::size_t lookasideAt = 4096;
        constexpr std::size_t arraysAt = lookasideAt + 64;
        constexpr std::size_t end = ~std::size_t( 0 );
        switch ( random_() % 8 ) {
        case 0:
            flips_ += hostile_->slots.flip( random_, 0, slotsAt );
            break;
        case 1:
        case 2:
            flips_ += hostile_->slots.flip( random_, slotsAt, end );
            break;
        case 3:
            flips_ += hostile_->buckets.flip( random_, 0, sizeof( Krell::BucketsHeader ) );
            break;
        case 4:
            flips_ += hostile_->buckets.flip( random_, lookasideAt, arraysAt );
            break;
        case 5:
            flips_ += hostile_->buckets.flip( random_, arraysAt, end );
            break;
        case 6:
            flips_ += hostile_->queue.flip( random_, 0, sizeof( Krell::QueueHeader ) );
            break;
        default:
            flips_ += hostile_->queue.flip( random_, sizeof( Krell::QueueHeader ), 1024 );
        }
    }

    void allowed( const std::function< void() >& f ) {
        ++calls_;
        try {
            f();
        } catch ( const Krell::Exception& e ) {
            EXPECT_FALSE( e.msg().empty() );
            EXPECT_TRUE( e.id() == Krell::CorruptionDetectedException::id_ ||
                         e.id() == Krell::InvalidInitializeException::id_ )
                << e.name() << ": " << e.msg();
        }
    }
    void call( TestCollection& collection ) {
        if ( collection.writerIfOpen() && random_() % 2 ) {
            change( collection );
        } else {
            read( collection );
        }
    }
    void change( TestCollection& collection ) {
        const U64 n = random_() % ( 4 * keys );
        switch ( random_() % 8 ) {
        case 0:
        case 1:
            collection.writer().del< 2 >( keyOfNumber( n ).data() );
            break;
        case 2:
            collection.writer().mark();
            collection.writer().sweep< 2 >( []( const U64* ) {} );
            break;
        default:
            put( collection, n, random_() );
        }
    }
    void read( TestCollection& collection ) {
        U64 key[ 2 ];
        U64 value[ 2 ];
        U64 version = 0;
        Krell::ReaderTable& table = collection.table();
        const auto wanted = keyOfNumber( random_() % ( 2 * keys + 8 ) );
        const U32 slot = U32( random_() % ( random_() % 8 ? 70 : ~U32( 0 ) ) );
        switch ( random_() % 12 ) {
        case 0:
            table.contains( wanted.data() );
            break;
        case 1: {
            const std::array< std::array< U64, 2 >, 3 > all { wanted, keyOfNumber( 1 ),
                                                              keyOfNumber( 2 ) };
            table.findMany< 2, 2 >( all[ 0 ].data(), all.size(), []( std::size_t, const U64* ) {} );
            break;
        }
        case 2:
            table.forEach< 2, 2 >( []( const U64*, const U64* ) {} );
            break;
        case 3:
        case 4:
            collection.poll();
            break;
        case 5:
            collection.validate();
            std::filesystem::remove( directory_ + "/corruption-detected" );
            break;
        case 6:
            table.look( slot, key );
            break;
        case 7:
            table.readSlot< 2, 2 >( slot, key, value, version );
            break;
        case 8:
            table.copySlot( slot, key, value, version );
            break;
        default:
            table.find< 2, 2 >( wanted.data(), value );
        }
    }
    void takeOver() {
        TestCollection writer( layoutOf( 2, 2 ) );
        writer.asWriter();
        for ( U64 n = 0; n < 4 * keys; ++n ) {
            put( writer, n, n );
        }
        EXPECT_TRUE( writer.validate() );
        TestCollection reader( layoutOf( 2, 2 ) );
        reader.asReader();
        std::array< U64, 2 > value {};
        for ( U64 n = 0; n < 4 * keys; ++n ) {
            EXPECT_TRUE( ( reader.table().find< 2, 2 >( keyOfNumber( n ).data(), value.data() ) ) );
            EXPECT_EQ( value, wholeValue< 2 >( n ) );
        }
    }

    const std::string directory_;
    const Files& files_;
    const QelKrell::QelKrellType role_;
    std::mt19937_64 random_;
    std::unique_ptr< Hostile > hostile_;
    unsigned flips_ = 0;
    U64 calls_ = 0;
};

class ContentsHostileTest : public testing::TestWithParam< int > {
protected:
    ContentsHostileTest() {
        TestCollection writer( layoutOf( 2, 2 ) );
        writer.asWriter( 64 );
        for ( U64 round = 0; round < 8; ++round ) {
            for ( U64 n = 0; n < 2 * keys; ++n ) {
                put( writer, n, n + round );
            }
            for ( U64 n = 0; n < 8; ++n ) {
                writer.writer().del< 2 >( keyOfNumber( 2 * n + round % 2 ).data() );
            }
        }
        writer.detach();
        for ( const auto& entry : std::filesystem::directory_iterator( directory ) ) {
            if ( entry.is_regular_file() ) {
                files[ entry.path().filename().string() ] = bytesOf( entry.path().string() );
            }
        }
    }
    // In a child, so that one that dies or does not come back is a figure too.
    void round( Torture& torture, U64 seed ) {
        QelKrellTest::Child child( [ & ]( const Channel& test ) {
            Flipping flipping( directory, files, QelKrell::QelKrellType( GetParam() ), seed );
            flipping.run();
            test.say( testing::Test::HasFailure() ? "refused otherwise" : flipping.figures() );
        } );
        const std::string heard = child.hear();
        const int status = child.kill(); // of one that has ended already, its own end
        const bool silent = heard.empty();
        const bool hangs = silent && WIFSIGNALED( status ) && WTERMSIG( status ) == SIGKILL;
        std::istringstream figures( heard );
        U64 flips = 0;
        U64 calls = 0;
        EXPECT_TRUE( figures >> flips >> calls ) << ( hangs    ? "it hangs"
                                                      : silent ? "it died"
                                                               : heard );
        torture.count( "flips", flips );
        torture.count( "calls", calls );
        torture.count( "crashes", silent && !hangs );
        torture.count( "hangs", hangs );
    }

    TestRoot root;
    const std::string directory = root / "sys/Krell/e/c";
    Flipping::Files files;
};

TEST_P( ContentsHostileTest, EveryCallReturnsBetweenRandomFlips ) {
    Torture torture( "hostile-contents", 8 );
    while ( torture.goesOn() && !HasFailure() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + ", round " +
                      std::to_string( torture.rounds() ) );
        round( torture, torture.seed() + torture.rounds() );
    }
}

std::string nameOf( const testing::TestParamInfo< int >& info ) {
    const char* const names[] = { "Writer", "Shadow", "Reader", "KeyShadow" };
    return names[ info.param ];
}
INSTANTIATE_TEST_SUITE_P(
    Roles,
    ContentsHostileTest,
    testing::Values( QelKrell::writer, QelKrell::shadow, QelKrell::reader, QelKrell::keyshadow ),
    nameOf );

} // namespace
