// A file system runs full: a real one of each size, and one whose allocations fail from the n-th
// on.

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "SystemCalls.h"
#include "Torture.h"
#include "Tracer.h"
#include "faults/Operations.h"
#include "faults/Shared.h"

using namespace FaultsTest;
using KrellTest::wholeValue;
using QelKrellTest::Torture;
using QelKrellTest::Tracer;

namespace {

constexpr unsigned pageSize = 4096;
constexpr U64 enough = 40000; // keys that fit into no file system of these sizes

// A file system of its own for this process, of that many pages, at `at`. False where the process
// may not have one.
bool mountPages( unsigned pages, const std::string& at ) {
    const uid_t user = ::getuid();
    if ( ::unshare( CLONE_NEWNS ) != 0 ) {
        if ( ::unshare( CLONE_NEWNS | CLONE_NEWUSER ) != 0 ) {
            return false;
        }
        std::ofstream( "/proc/self/uid_map" ) << "0 " << user << " 1\n";
    }
    const std::string options = "size=" + std::to_string( pages * pageSize );
    return ::mount( nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr ) == 0 &&
           ::mount( "tmpfs", at.c_str(), "tmpfs", 0, options.c_str() ) == 0;
}

struct Tally {
    unsigned refusals = 0;
    unsigned lost = 0;
    unsigned collections = 0; // that fitted
    bool mounted = true;
    Wrong wrong;
};

// A writer and a reader of one collection, and what must be in it: the keys 1 to `keys`, of which
// the first may have another value.
class Table {
public:
    explicit Table( const Shared< Tally >& tally ) : tally_( tally ) {}

    // Whether `call` was refused for want of space.
    template < class F >
    bool refused( F&& call ) {
        try {
            call();
            return false;
        } catch ( const Krell::MemoryResourceException& e ) {
            ++tally_->refusals;
            if ( e.msg().empty() ) {
                tally_->wrong.add( "a refusal that says nothing" );
            }
            return true;
        }
    }
    bool open() {
        return !refused( [ & ] { writer_ = writerOf( 1 ); } );
    }
    bool follow() {
        return !refused( [ & ] { reader_ = readerOf(); } );
    }
    // Inserts until that is refused, `most` at the most; how many came in.
    U64 insert( U64 most ) {
        const U64 before = keys_;
        refused( [ & ] {
            for ( ; keys_ - before < most; ++keys_ ) {
                put( *writer_, keys_ + 1, keys_ + 1 );
            }
        } );
        return keys_ - before;
    }
    // A full table can be changed, and what was deleted makes room.
    void change( U64 round ) {
        if ( keys_ == 0 ) {
            return;
        }
        first_ = round;
        const U64 one = 1;
        writer_->writer().put< 1, valueWords >( &one, wholeValue< valueWords >( round ).data() );
        const U64 last = keys_;
        if ( last > 1 ) {
            if ( !writer_->writer().del< 1 >( &last ) ) {
                ++tally_->lost;
            }
            if ( refused( [ & ] { put( *writer_, last, last ); } ) ) {
                tally_->wrong.add( "a deleted key's slot was not used again" );
                --keys_;
            }
        }
    }
    void check() {
        for ( TestCollection* each : { writer_.get(), reader_.get() } ) {
            if ( each ) {
                check( *each );
            }
        }
    }
    // Detached and opened again: all of it is there then, and stays if it is refused.
    void takeOver() {
        writer_->detach();
        refused( [ & ] { writer_->asWriter(); } );
        isOpen_ = writer_->mountStatus() != 0;
    }
    bool isOpen() const { return isOpen_; }
    void poll() {
        if ( reader_ ) {
            reader_->timeout();
            if ( !reader_->failures.empty() ) {
                tally_->wrong.add( "a follower failed: " + reader_->failures.front() );
            }
        }
    }
    U64 keys() const { return keys_; }

private:
    void check( TestCollection& each ) {
        if ( each.mountStatus() == 0 ) {
            return;
        }
        U64 seen = 0;
        each.table().forEach< 1, valueWords >( [ & ]( const U64*, const U64* ) { ++seen; } );
        if ( seen != keys_ ) {
            tally_->lost += unsigned( std::max( seen, keys_ ) - std::min( seen, keys_ ) );
            tally_->wrong.add( std::to_string( seen ) + " keys of " + std::to_string( keys_ ) );
        }
        for ( U64 key = 1; key <= keys_; ++key ) {
            U64 value[ valueWords ] = {};
            const auto wanted = wholeValue< valueWords >( key == 1 && first_ ? first_ : key * 10 );
            const bool found = each.table().find< 1, valueWords >( &key, value );
            tally_->lost += !found || !std::equal( wanted.begin(), wanted.end(), value );
        }
        if ( !each.validate() ) {
            tally_->wrong.add( "it is not valid" );
        }
    }

    const Shared< Tally >& tally_;
    std::unique_ptr< TestCollection > writer_;
    std::unique_ptr< TestCollection > reader_;
    bool isOpen_ = true;
    U64 keys_ = 0;
    U64 first_ = 0; // of the first key's value; 0: as it was put
};

// Takes up what is left, to the last page.
void fill( const std::string& directory ) {
    const int fd = ::open( ( directory + "/filler" ).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600 );
    for ( off_t at = 0; ::posix_fallocate( fd, at, pageSize ) == 0; at += pageSize ) {
    }
    ::close( fd );
}

class NoSpaceTest : public testing::Test {
protected:
    NoSpaceTest() {
        for ( const char* figure : { "refusals", "lost", "deaths" } ) {
            torture.count( figure, 0 );
        }
    }

    // A child's end, and what it found.
    void judge( const Shared< Tally >& tally, int status, const std::string& where ) {
        const bool died = status != 0;
        torture.count( "deaths", died );
        torture.count( "refusals", tally->refusals );
        torture.count( "lost", tally->lost );
        torture.count( "collections", tally->collections );
        EXPECT_FALSE( died ) << where << ", status " << status;
        EXPECT_EQ( tally->lost, 0U ) << where << ", seed " << torture.seed();
        EXPECT_EQ( tally->wrong.count, 0U ) << where << ": " << tally->wrong.what;
    }

    Torture torture { "no-space", 10 };
    std::mt19937_64 random { torture.seed() };
};

// In a child, on a file system of `pages` pages.
void fillOne( const Shared< Tally >& tally, const std::string& root, unsigned pages ) {
    KrellTest::bytesInto( root + "/reserve", "" );
    if ( ::truncate( ( root + "/reserve" ).c_str(), 0 ) != 0 ) {
        tally->wrong.add( "no reserve" );
    }
    const int reserve = ::open( ( root + "/reserve" ).c_str(), O_RDWR | O_CLOEXEC );
    const bool reserved = ::posix_fallocate( reserve, 0, off_t( pages / 2 ) * pageSize ) == 0;
    ::close( reserve );
    Table table( tally );
    if ( !reserved || !table.open() ) {
        ::unlink( ( root + "/reserve" ).c_str() );
        return;
    }
    ++tally->collections;
    table.follow();
    table.poll();
    table.insert( enough );
    table.check();
    table.change( 7 );
    fill( root );
    table.check(); // a hole would need a page now
    table.change( 8 );
    table.insert( enough );
    table.check();
    table.poll();
    table.takeOver();
    table.check();
    ::unlink( ( root + "/filler" ).c_str() );
    ::unlink( ( root + "/reserve" ).c_str() );
    if ( !table.isOpen() ) {
        table.takeOver();
    }
    if ( !table.isOpen() ) {
        return; // it needs more than there is to be taken over
    }
    table.poll();
    table.check();
    table.insert( enough );
    table.check();
}

TEST_F( NoSpaceTest, AFullFileSystemRefusesAndLosesNothing ) {
    bool mounted = true;
    while ( mounted && torture.goesOn() ) {
        const unsigned pages = Torture::isLong() ? 1 + unsigned( torture.rounds() % 120 )
                                                 : 1 + unsigned( random() % 120 );
        KrellTest::TestRoot root;
        const Shared< Tally > tally;
        const int status = KrellTest::inChild( [ & ] {
            ::alarm( 120 );
            tally->mounted = mountPages( pages, root.path() );
            if ( tally->mounted ) {
                fillOne( tally, root.path(), pages );
            }
            return 0;
        } );
        judge( tally, status, "a file system of " + std::to_string( pages ) + " pages" );
        mounted = tally->mounted;
    }
    if ( !mounted ) {
        GTEST_SKIP() << "this process may not mount a file system, also not in a namespace";
    }
}

TEST_F( NoSpaceTest, EveryAllocationMayBeTheFirstToFail ) {
    constexpr unsigned stride = 7;
    const unsigned step = Torture::isLong() ? 1 : stride;
    unsigned first = 1 + unsigned( random() % step ); // that fails, with all after it
    while ( torture.goesOn() ) {
        Scene scene;
        const Shared< Tally > tally;
        Table table( tally );
        bool open = false;
        const U64 keys = 400 + random() % 800;
        Tracer child( [] { ::alarm( 120 ); },
                      [ & ] {
                          open = table.open();
                          if ( open ) {
                              table.follow();
                              table.insert( keys );
                              table.change( 7 );
                          }
                      },
                      [ & ] {
                          if ( !open ) {
                              open = table.open();
                          }
                          table.poll();
                          table.check();
                          table.insert( keys );
                          table.check();
                      } );
        if ( !child.allowed() ) {
            GTEST_SKIP() << "this process may not trace its children";
        }
        unsigned allocations = 0;
        while ( child.toCall() ) {
            if ( child.number() == SYS_fallocate && ++allocations >= first ) {
                child.failCall( ENOSPC );
            }
        }
        EXPECT_TRUE( child.stopped() );
        judge( tally, child.finish(), "allocations from the " + std::to_string( first ) + ". on" );
        first = allocations < first ? 1 + unsigned( random() % step ) : first + step;
    }
}

} // namespace
