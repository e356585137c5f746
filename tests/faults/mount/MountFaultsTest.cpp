// Mounting an entity with two collections, and finding entities, while each system call in turn
// kills the process or fails.

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include <gmock/gmock.h>

#include <Krell/Directory>
#include <Qel/Exception>
#include <Qel/System>

#include "Descriptors.h"
#include "SystemCalls.h"
#include "Torture.h"
#include "Tracer.h"
#include "mount/Mounted.h"

using namespace QelKrellTest;

namespace {

constexpr unsigned stride = 19; // calls, in a run of the tests

// What stands below the root, and who has it mounted.
struct Place {
    Root root;
    std::unique_ptr< Mounted > mounted;
};

struct Operation {
    const char* name;
    bool arranged; // with an entity that a process left there
    std::function< void( Place& ) > operate;
};

// A change, and the event loop's turns until readers may have heard of it.
void turn( Place& place, Qel::U32 round ) {
    if ( round != 0 ) {
        ( *place.mounted )->reading.is( readingOf( 1, round ) );
    }
    for ( unsigned i = 0; i < 4; ++i ) {
        Qel::System::runOnce( 0 );
    }
}

void mountAs( Place& place, const QelKrell::MountInfo& info ) {
    place.mounted.reset(); // a process has one system database of that name
    place.mounted = std::make_unique< Mounted >( info );
}

const std::vector< Operation > operations {
    { "mount a new entity as writer", false,
      []( Place& p ) {
          mountAs( p, asWriter( 10 ) );
          turn( p, 1 );
      } },
    { "mount an entity as writer", true,
      []( Place& p ) {
          mountAs( p, asWriter() );
          turn( p, 1 );
      } },
    { "mount as reader", true,
      []( Place& p ) {
          mountAs( p, asReader );
          turn( p, 0 );
      } },
    { "find", true,
      []( Place& ) {
          Site site( false );
          site.mount.handleInitialized();
          site.mount.find( "" );
          if ( mounts( "/sys/Krell/site/north" ) != 1 ) {
              throw Qel::InternalException( "not found" );
          }
      } },
    { "clean up", true,
      []( Place& ) {
          Site site( false );
          site.mount.handleInitialized();
          site.mount.cleanup( path );
      } },
};

constexpr Qel::U32 there = 5; // entries of an arranged collection

void arrange() {
    Mounted plant( asWriter( 10 ) );
    for ( Qel::U32 i = 0; i < there; ++i ) {
        plant->reading.is( readingOf( i, 0 ) );
        plant->limit.is( { Qel::FixedString< 16 >( std::to_string( i ).c_str() ), 1 } );
    }
}

// What a reader that comes, and then the next writer, find wrong; empty: nothing.
std::string fault( const Operation& operation, bool cleaned ) {
    try {
        Qel::U32 before = 0;
        {
            Mounted reader( asReader );
            for ( const auto size : { reader->reading.size(), reader->limit.size() } ) {
                if ( size != 0 && size != there && !( size == 1 && !operation.arranged ) ) {
                    return "a reader sees " + std::to_string( size ) + " entries";
                }
                if ( operation.arranged && !cleaned && size != there ) {
                    return "a reader misses entries";
                }
            }
            before = reader->reading.size();
        }
        Mounted writer( asWriter( 10 ) );
        if ( writer->reading.size() != before ) {
            return "the next writer has another number of entries than a reader";
        }
        writer->reading.is( readingOf( 100, 1 ) );
        writer->limit.is( { Qel::FixedString< 16 >( "x" ), 1 } );
        if ( !writer->reading.control().validate() || !writer->limit.control().validate() ) {
            return "the next writer's collections are not valid";
        }
    } catch ( const std::exception& e ) {
        return e.what();
    }
    return "";
}

std::vector< std::string > temporariesBelow( const std::string& root ) {
    std::vector< std::string > found;
    for ( const auto& entry : std::filesystem::recursive_directory_iterator( root ) ) {
        if ( entry.path().filename().string().find( ".tmp-" ) != std::string::npos ) {
            found.push_back( entry.path() );
        }
    }
    return found;
}

// So that what the process makes once and keeps is there: its event loop, its watches.
void warmUp( const Root& root ) {
    {
        Place place; // its root is the one for now
        mountAs( place, asWriter( 4 ) );
        turn( place, 1 );
        mountAs( place, asReader );
        turn( place, 0 );
    }
    setenv( "KRELL_ROOT", root.path().c_str(), 1 );
}

std::size_t mappingsOf( const Root& root ) {
    std::ifstream maps( "/proc/self/maps" );
    std::size_t n = 0;
    for ( std::string line; std::getline( maps, line ); ) {
        n += line.find( root.path() + "/" ) != std::string::npos ||
             line.find( "krell-doorbell" ) != std::string::npos;
    }
    return n;
}

class MountFaults : public testing::Test {
protected:
    // Runs `f( operation, n, random )` for calls of one operation a round until it says that there
    // is none.
    template < class F >
    void forCalls( Torture& torture, F&& f ) {
        std::mt19937_64 random( torture.seed() );
        const unsigned step = Torture::isLong() ? 1 : stride;
        while ( torture.goesOn() ) {
            SCOPED_TRACE( "KRELL_SEED=" + std::to_string( torture.seed() ) + " round " +
                          std::to_string( torture.rounds() ) );
            const Operation& operation =
                operations[ ( torture.seed() + torture.rounds() ) % operations.size() ];
            for ( unsigned n = 1 + unsigned( random() % step );
                  f( operation, n, random() ) && !HasFailure(); n += step ) {
            }
            if ( skipped ) {
                GTEST_SKIP() << "this process may not trace its children";
            }
        }
    }
    // To call n; false when there is none.
    bool toCall( Tracer& child, unsigned n, const Operation& operation ) {
        if ( !child.allowed() ) {
            skipped = true;
            return false;
        }
        EXPECT_TRUE( child.stopped() ) << operation.name << " was not prepared";
        for ( unsigned i = 0; i < n && !HasFailure(); ++i ) {
            if ( !child.toCall() ) {
                EXPECT_TRUE( child.stopped() ) << operation.name << " failed by itself";
                return false;
            }
        }
        return !HasFailure();
    }

    bool skipped = false;
};

TEST_F( MountFaults, AKilledMountLeavesNothingHalfMade ) {
    Torture torture( "killed-creating", operations.size() );
    for ( const char* figure : { "kills", "halfMade", "left" } ) {
        torture.count( figure, 0 );
    }
    forCalls( torture, [ & ]( const Operation& operation, unsigned n, std::uint64_t random ) {
        Place place;
        if ( operation.arranged ) {
            arrange();
        }
        Tracer child( [] {}, [ & ] { operation.operate( place ); } );
        if ( !toCall( child, n, operation ) ) {
            return false;
        }
        const std::string where = std::string( operation.name ) + ", call " + std::to_string( n ) +
                                  ", " + nameOfCall( child.number() );
        if ( random % 2 ) {
            child.finishCall();
        }
        child.kill();
        torture.count( "kills" );
        const std::string what = fault( operation, operation.name == std::string( "clean up" ) );
        torture.count( "halfMade", !what.empty() );
        EXPECT_EQ( what, "" ) << where;
        const auto left = temporariesBelow( place.root.path() );
        torture.count( "left", left.size() );
        EXPECT_THAT( left, testing::IsEmpty() ) << where;
        return true;
    } );
}

// The child's part of the next test.
class Attempt {
public:
    Attempt( const Operation& operation, Place& place )
        : operation_( operation ), place_( place ) {}

    void prepare() {
        alarm( 120 ); // a hang
        warmUp( place_.root );
        before_ = level();
    }
    void operate() {
        try {
            operation_.operate( place_ );
            done_ = true;
        } catch ( const Qel::Exception& e ) {
            text_ = e.what();
        } catch ( const std::exception& e ) {
            foreign_ = std::string( "a foreign exception: " ) + e.what();
        }
    }
    [[noreturn]] void judge() {
        const std::string what = result();
        if ( !what.empty() ) {
            std::cout << operation_.name << ": " << what << "; it said " << text_ << std::endl;
        }
        _exit( what.empty() ? 0 : what.find( "left" ) != std::string::npos ? 11 : 10 );
    }

private:
    std::pair< std::size_t, std::size_t > level() const {
        return { openDescriptors(), mappingsOf( place_.root ) };
    }
    std::string result() {
        if ( !foreign_.empty() || ( !done_ && text_.empty() ) ) {
            return foreign_.empty() ? "an exception that says nothing" : foreign_;
        }
        place_.mounted.reset();
        if ( level() != before_ ) {
            return "descriptors or mappings are left";
        }
        try {
            operation_.operate( place_ );
        } catch ( const std::exception& e ) {
            // What is cleaned up already has no type any more.
            if ( operation_.name != std::string( "clean up" ) ) {
                return std::string( "again, it fails: " ) + e.what();
            }
        }
        place_.mounted.reset();
        if ( level() != before_ ) {
            return "again, descriptors or mappings are left";
        }
        return fault( operation_, operation_.name == std::string( "clean up" ) );
    }

    const Operation& operation_;
    Place& place_;
    std::pair< std::size_t, std::size_t > before_;
    bool done_ = false;
    std::string text_;
    std::string foreign_;
};

TEST_F( MountFaults, AFailingCallIsToldAndLeavesNothing ) {
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
    GTEST_SKIP() << "the sanitizer's own system calls would fail too";
#endif
    Torture torture( "failing-calls", operations.size() );
    for ( const char* figure : { "calls", "failures", "leaked", "crashed", "hung", "wrong" } ) {
        torture.count( figure, 0 );
    }
    forCalls( torture, [ & ]( const Operation& operation, unsigned n, std::uint64_t random ) {
        std::size_t errors = 1;
        for ( std::size_t which = 0; which < errors; ++which ) {
            Place place;
            if ( operation.arranged ) {
                arrange();
            }
            Attempt attempt( operation, place );
            Tracer child( [ & ] { attempt.prepare(); }, [ & ] { attempt.operate(); },
                          [ & ] { attempt.judge(); } );
            if ( !toCall( child, n, operation ) ) {
                return false;
            }
            const std::vector< int > possible = errorsOf( child );
            errors =
                Torture::isLong() ? possible.size() : std::min< std::size_t >( 1, possible.size() );
            if ( possible.empty() ) {
                return true;
            }
            torture.count( "calls", which == 0 );
            const int error = possible[ ( which + random ) % possible.size() ];
            const std::string where = std::string( operation.name ) + ", call " +
                                      std::to_string( n ) + ", " + nameOfCall( child.number() ) +
                                      ", error " + std::to_string( error );
            child.failCall( error );
            const int status = child.finish();
            torture.count( "failures" );
            const bool hung = WIFSIGNALED( status ) && WTERMSIG( status ) == SIGALRM;
            const int outcome = WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
            torture.count( "hung", hung );
            torture.count( "leaked", outcome == 11 );
            torture.count( "wrong", outcome == 10 );
            torture.count( "crashed", !hung && outcome != 0 && outcome != 10 && outcome != 11 );
            EXPECT_EQ( outcome, 0 ) << where << ", status " << status;
        }
        return true;
    } );
}

} // namespace
