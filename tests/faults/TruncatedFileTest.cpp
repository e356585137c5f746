// Files are made shorter while a process is in the middle of an operation on them: after any of its
// instructions.

#include <algorithm>
#include <cmath>
#include <filesystem>

#include <gmock/gmock.h>

#include <Dov/FaultGuard>

#include "Torture.h"
#include "Tracer.h"
#include "faults/Operations.h"
#include "faults/Shared.h"

using namespace FaultsTest;
using KrellTest::wholeValue;
using QelKrellTest::Torture;
using QelKrellTest::Tracer;

namespace {

constexpr std::uintmax_t pageBytes = 4096;

// What the child found; shared with it.
struct CutTally {
    unsigned good = 0;     // answers that were right
    unsigned reported = 0; // calls that reported corruption
    unsigned torn = 0;
    unsigned missed = 0;
    unsigned late = 0; // of these, after a follower looked at the sizes of the files
    Wrong wrong;       // anything else that must not be
};
using SharedTally = Shared< CutTally >;

// The keys 1 to `keys`, and a process that works on them.
class Worker {
public:
    Worker( const SharedTally& tally, U64 keys ) : tally_( tally ), keys_( keys ) {}

    void open( QelKrell::QelKrellType role ) {
        handle_ = std::make_unique< TestCollection >( layout() );
        handle_->init( role, false, 0 );
        handle_->yieldTimeIs( 10 );
        role_ = role;
    }
    TestCollection& handle() { return *handle_; }

    // `call`, whose exceptions are told.
    template < class F >
    void tell( F&& call ) {
        try {
            call();
        } catch ( const Krell::CorruptionDetectedException& ) {
            ++tally_->reported;
        } catch ( const Krell::Exception& e ) {
            tally_->wrong.add( e.name() + ": " + e.msg() );
        } catch ( const std::exception& e ) {
            tally_->wrong.add( e.what() );
        }
    }
    void judge( U64 key, const U64* value ) {
        if ( !value ) {
            ++tally_->missed;
        } else if ( !std::equal( value, value + valueWords,
                                 wholeValue< valueWords >( key * 10 ).begin() ) ) {
            ++tally_->torn;
        } else {
            ++tally_->good;
        }
    }

    void find( U64 key ) {
        tell( [ & ] {
            U64 value[ valueWords ];
            const bool found = handle_->table().find< 1, valueWords >( &key, value );
            judge( key, found ? value : nullptr );
        } );
    }
    void findAll() {
        for ( U64 key = 1; key <= keys_; ++key ) {
            find( key );
        }
    }
    void findMany() {
        tell( [ & ] {
            std::vector< U64 > all( keys_ );
            for ( U64 i = 0; i < keys_; ++i ) {
                all[ i ] = i + 1;
            }
            handle_->table().findMany< 1, valueWords >(
                all.data(), all.size(),
                [ & ]( std::size_t i, const U64* value ) { judge( i + 1, value ); } );
        } );
    }
    void iterate() {
        tell( [ & ] {
            U64 seen = 0;
            handle_->table().forEach< 1, valueWords >( [ & ]( const U64* key, const U64* value ) {
                judge( *key, value );
                ++seen;
            } );
            tally_->missed += unsigned( keys_ - std::min( seen, keys_ ) );
        } );
    }
    // Drains; what was notified must be so.
    void follow() {
        tell( [ & ] { handle_->timeout(); } );
        for ( const std::string& failure : handle_->failures ) {
            tally_->reported += failure.find( "shortened" ) != std::string::npos;
        }
        for ( const auto& change : handle_->changes ) {
            tally_->missed += !change.present;
        }
        if ( handle_->view() && handle_->view()->size() != 0 ) { // a round at a time
            tally_->missed += handle_->view()->size() != keys_ && handle_->failures.empty();
        }
        handle_->changes.clear();
    }
    void write( U64 round ) {
        tell( [ & ] { put( *handle_, 1 + round % keys_, keys_ + round % 3 ); } );
        tell( [ & ] {
            const U64 key = keys_ + 1;
            handle_->writer().del< 1 >( &key );
            const U64 other = keys_ + 2;
            handle_->writer().del< 1 >( &other );
        } );
    }

    // By and by a follower looks at the sizes of the files; then nothing wrong is read any more.
    void settle() {
        if ( role_ == QelKrell::writer || handle_->mountStatus() == 0 ) {
            return;
        }
        for ( unsigned i = 0; i < 120; ++i ) {
            handle_->timeout();
        }
        const unsigned before = tally_->torn + tally_->missed;
        findAll();
        iterate();
        tally_->late += tally_->torn + tally_->missed - before;
    }

    // When all is over: whoever comes next makes it anew or has all of it, and who follows goes on.
    void recover() {
        const bool writes = role_ == QelKrell::writer;
        if ( writes ) {
            handle_->detach();
        }
        tell( [ & ] {
            const auto next = writerOf();
            const U64 there = next->table().occupied();
            if ( there != 0 && there != keys_ ) {
                tally_->missed += unsigned( keys_ - std::min( keys_, there ) );
            }
            put( *next, 1, keys_ );
            if ( !next->validate() ) {
                tally_->wrong.add( "the next writer's collection is not valid" );
            }
            if ( !writes ) {
                handle_->init( role_, false, 0 ); // an attachment that failed has closed it
            }
            for ( unsigned i = 0; !writes && i < 200; ++i ) {
                handle_->timeout();
            }
            if ( !writes && handle_->fenixId() != next->fenixId() ) {
                tally_->wrong.add( "the follower does not follow the next writer" );
            }
            const unsigned reported = tally_->reported;
            if ( !writes ) {
                findAll();
                iterate();
            }
            if ( tally_->reported != reported ) {
                tally_->wrong.add( "the next writer's collection is corrupt" );
            }
        } );
    }

private:
    const SharedTally& tally_;
    const U64 keys_;
    std::unique_ptr< TestCollection > handle_;
    QelKrell::QelKrellType role_ = QelKrell::reader;
};

struct Work {
    const char* name;
    QelKrell::QelKrellType role;
    void ( *work )( Worker&, U64 random );
    void ( *after )( Worker& );
};

void look( Worker& w ) {
    w.findAll();
    w.findMany();
    w.iterate();
    w.follow();
}
void writeAgain( Worker& w ) { w.write( 0 ); }

const std::vector< Work > works {
    { "find", QelKrell::reader, []( Worker& w, U64 r ) { w.find( 1 + r % 60 ); }, look },
    { "find many", QelKrell::reader, []( Worker& w, U64 ) { w.findMany(); }, look },
    { "iterate", QelKrell::reader, []( Worker& w, U64 ) { w.iterate(); }, look },
    { "reader's drain", QelKrell::reader, []( Worker& w, U64 ) { w.follow(); }, look },
    { "key shadow's drain", QelKrell::keyshadow, []( Worker& w, U64 ) { w.follow(); }, look },
    { "shadow's drain", QelKrell::shadow, []( Worker& w, U64 ) { w.follow(); },
      []( Worker& w ) { w.follow(); } },
    { "attachment", QelKrell::reader,
      []( Worker& w, U64 ) {
          w.handle().detach();
          w.tell( [ & ] { w.handle().asReader(); } );
          if ( w.handle().mountStatus() != 0 ) {
              w.findAll();
          }
      },
      []( Worker& ) {} },
    { "writing", QelKrell::writer, []( Worker& w, U64 r ) { w.write( r ); }, writeAgain },
    { "take-over", QelKrell::writer,
      []( Worker& w, U64 ) {
          w.handle().detach();
          w.tell( [ & ] { w.handle().asWriter(); } );
      },
      []( Worker& ) {} },
};

class TruncatedFileTest : public testing::Test {
protected:
    TruncatedFileTest() {
        for ( const char* figure :
              { "truncations", "deaths", "torn", "missed", "late", "reported" } ) {
            torture.count( figure, 0 );
        }
    }

    void round( const Work& work ) {
        const U64 keys = 60 + random() % ( random() % 2 ? 60 : 900 );
        Scene scene;
        {
            const auto writer = writerOf( U32( random() % 2 * keys ) );
            put( *writer, 1, keys );
        }
        const SharedTally tally;
        Worker worker( tally, keys );
        const U64 chosen = random();
        Tracer child(
            [ & ] {
                ::alarm( 120 );
                Dov::FaultGuard::install();
                worker.open( work.role );
                if ( random() % 4 != 0 && work.role != QelKrell::shadow ) {
                    work.work( worker, chosen + 1 ); // what is bound and mapped first is
                }
            },
            [ & ] { work.work( worker, chosen ); },
            [ & ] {
                work.after( worker );
                worker.settle();
                worker.recover();
            } );
        if ( !child.allowed() ) {
            skipped = true;
            return;
        }
        ASSERT_TRUE( child.stopped() ) << work.name;
        unsigned steps =
            unsigned( std::exp( double( random() % 1000 ) / 1000 * std::log( 8000 ) ) );
        for ( unsigned i = 0; i < steps && child.step(); ++i ) {
        }
        const std::string what = truncate( scene );
        const int status = child.finish();
        judge( tally, status,
               std::string( work.name ) + " of " + std::to_string( keys ) + " keys, after " +
                   std::to_string( steps ) + " instructions: " + what );
    }

    // Some file, to some length; whether that is the end of a page.
    std::string truncate( const Scene& scene ) {
        std::vector< std::filesystem::path > files;
        for ( const auto& entry : std::filesystem::directory_iterator( scene.place() ) ) {
            const std::string name = entry.path().filename();
            if ( name == "slots" || name == "buckets" || name.starts_with( "conquer." ) ) {
                files.push_back( entry.path() );
            }
        }
        if ( files.empty() ) {
            return "no file";
        }
        std::sort( files.begin(), files.end() );
        const std::filesystem::path file = files[ random() % files.size() ];
        const std::uintmax_t size = std::filesystem::file_size( file );
        std::uintmax_t length = random() % ( size + 1 );
        atPage = random() % 3 != 0;
        if ( atPage ) {
            length = length / pageBytes * pageBytes;
        }
        EXPECT_EQ( ::truncate( file.c_str(), off_t( length ) ), 0 );
        torture.count( "truncations" );
        return file.filename().string() + " of " + std::to_string( size ) + " bytes to " +
               std::to_string( length );
    }

    void judge( const SharedTally& tally, int status, const std::string& where ) {
        const bool died = !WIFEXITED( status ) || WEXITSTATUS( status ) != 0;
        torture.count( "deaths", died );
        EXPECT_FALSE( died ) << where << ", status " << status;
        torture.count( "reported", tally->reported );
        torture.count( "good", tally->good );
        EXPECT_EQ( tally->wrong.count, 0U ) << where << ": " << tally->wrong.what;
        torture.count( "late", tally->late );
        EXPECT_EQ( tally->late, 0U ) << where;
        if ( atPage ) {
            torture.count( "torn", tally->torn );
            torture.count( "missed", tally->missed );
            EXPECT_EQ( tally->torn, 0U ) << where;
            EXPECT_EQ( tally->missed, 0U ) << where;
        } else { // zeros to the end of the page, of which the system says nothing
            torture.count( "zeroed", tally->torn + tally->missed );
        }
    }

    Torture torture { "truncated-file", 5 };
    std::mt19937_64 random { torture.seed() };
    bool atPage = true;
    bool skipped = false;
};

TEST_F( TruncatedFileTest, TheProcessLivesAndTakesNothingForGoodThatIsNot ) {
    while ( torture.goesOn() ) {
        SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + " round " +
                      std::to_string( torture.rounds() ) );
        for ( const Work& work : works ) {
            round( work );
        }
        if ( skipped ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
    }
}

} // namespace
