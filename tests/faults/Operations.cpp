#include "faults/Operations.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include <signal.h>
#include <unistd.h>

namespace FaultsTest {

using KrellTest::wholeValue;

namespace {

constexpr U64 some = 20;  // keys
constexpr U64 many = 300; // more than that many slots: both tables and the queue grow
constexpr unsigned looks = 60;

// "" or what is wrong with the keys of `collection`.
std::string count( TestCollection& collection, U64& keys ) {
    std::set< U64 > listed;
    bool whole = true;
    collection.table().forEach< 1, valueWords >( [ & ]( const U64* k, const U64* v ) {
        std::array< U64, valueWords > value;
        std::copy_n( v, valueWords, value.begin() );
        whole = whole && value == wholeValue< valueWords >( *k * 10 ) && listed.insert( *k ).second;
    } );
    keys = listed.size();
    if ( !whole ) {
        return "a value is torn, or a key is there twice";
    }
    for ( U64 key = 1; key <= keys + 1; ++key ) {
        U64 value[ valueWords ];
        const bool found = collection.table().find< 1, valueWords >( &key, value );
        if ( found != ( key <= keys ) || found != listed.contains( key ) ) {
            return "key " + std::to_string( key ) + " of " + std::to_string( keys );
        }
    }
    return "";
}

void nothingBefore( Scene& ) {}

void keysBefore( Scene& ) { put( *writerOf( 8 ), 1, some ); }

// A writer that died.
void crashBefore( Scene& ) {
    KrellTest::inChild( [] {
        const auto writer = writerOf( 8 );
        put( *writer, 1, some );
        ::kill( ::getpid(), SIGKILL );
        return 0;
    } );
}

void formerBefore( Scene& ) {
    TestCollection writer( formerLayout() );
    writer.asWriter( 8 );
    for ( U64 key = 1; key <= some; ++key ) {
        const U64 value = 10 * key;
        writer.writer().put< 1, 1 >( &key, &value );
    }
}

void openWriter( Scene& scene ) { scene.writer = writerOf( 8 ); }

void openBoth( Scene& scene ) {
    scene.writer = writerOf( 8 );
    scene.reader = readerOf();
}

// What arrived at both ends, until nothing more does.
void exchange() {
    for ( unsigned i = 0; i < 8; ++i ) {
        for ( KrellTest::TestFd* const fd : std::vector( KrellTest::fds() ) ) {
            if ( std::ranges::count( KrellTest::fds(), fd ) && fd->watched >= 0 ) {
                fd->fire();
            }
        }
    }
}

// A failure that a follower was told of instead of being thrown.
void tell( TestCollection& reader ) {
    if ( !reader.failures.empty() ) {
        throw Krell::RuntimeException( reader.failures.front() );
    }
}

bool isEmpty( const Seen& s ) { return s.kind == Seen::present && s.keys == 0; }
bool hasSome( const Seen& s ) { return s.kind == Seen::present && s.keys == some; }

const std::vector< Operation > all {
    { "create", nothingBefore, nothingBefore, []( Scene& s ) { s.writer = writerOf( 8 ); },
      []( const Seen& s ) { return s.kind == Seen::nothing || isEmpty( s ); }, isEmpty },
    { "replace", formerBefore, nothingBefore, []( Scene& s ) { s.writer = writerOf( 8 ); },
      []( const Seen& s ) { // nothing: between the renamings
          return s.kind == Seen::nothing || ( s.kind == Seen::former && s.keys == some ) ||
                 isEmpty( s );
      },
      isEmpty },
    { "take over", crashBefore, nothingBefore, []( Scene& s ) { s.writer = writerOf(); }, hasSome,
      hasSome },
    { "grow", keysBefore, openWriter, []( Scene& s ) { put( *s.writer, some + 1, many ); },
      []( const Seen& s ) { return s.kind == Seen::present && s.keys >= some && s.keys <= many; },
      []( const Seen& s ) { return s.kind == Seen::present && s.keys == many; } },
    { "detach", keysBefore, openWriter, []( Scene& s ) { s.writer->detach(); }, hasSome, hasSome },
    { "clean up", keysBefore, nothingBefore, []( Scene& ) { TestCollection( layout() ).cleanup(); },
      []( const Seen& s ) { return s.kind == Seen::nothing || hasSome( s ); },
      []( const Seen& s ) { return s.kind == Seen::nothing; } },
    { "read", keysBefore, nothingBefore,
      []( Scene& s ) {
          s.reader = readerOf();
          U64 keys = 0;
          if ( const std::string fault = count( *s.reader, keys ); !fault.empty() ) {
              throw Krell::RuntimeException( fault );
          }
          s.reader->timeout();
          tell( *s.reader );
      },
      hasSome, hasSome },
    { "connect and sleep", keysBefore, openBoth,
      []( Scene& s ) {
          s.reader->timeout();
          exchange();
          s.reader->timeout();
          put( *s.writer, 1, some ); // nothing changes
          exchange();
          tell( *s.reader );
      },
      hasSome, hasSome },
    { "map what has grown", keysBefore,
      []( Scene& s ) {
          openBoth( s );
          s.reader->timeout();
          put( *s.writer, some + 1, many );
      },
      []( Scene& s ) {
          for ( U64 key = 1; key <= many; ++key ) {
              U64 value[ valueWords ];
              if ( !s.reader->table().find< 1, valueWords >( &key, value ) ) {
                  throw Krell::RuntimeException( "missed" );
              }
          }
          s.reader->timeout();
          tell( *s.reader );
      },
      []( const Seen& s ) { return s.kind == Seen::present && s.keys == many; },
      []( const Seen& s ) { return s.kind == Seen::present && s.keys == many; } },
    { "root path", nothingBefore, nothingBefore,
      []( Scene& ) {
          KrellTest::RecordingDebugHandler handler;
          const Krell::RootPath path( handler, "sys/Krell/e", true );
          if ( !path.ready() ) {
              throw Krell::RuntimeException( "not made" );
          }
      },
      []( const Seen& s ) { return s.kind == Seen::nothing; },
      []( const Seen& s ) { return s.kind == Seen::nothing; } },
};

} // namespace

Krell::Layout layout() { return KrellTest::layoutOf( 1, valueWords ); }
Krell::Layout formerLayout() { return KrellTest::layoutOf( 1, 1 ); }

std::unique_ptr< TestCollection > writerOf( U32 size ) {
    auto writer = std::make_unique< TestCollection >( layout() );
    writer->asWriter( size );
    return writer;
}

std::unique_ptr< TestCollection > readerOf() {
    auto reader = std::make_unique< TestCollection >( layout() );
    reader->asReader();
    return reader;
}

void put( TestCollection& writer, U64 first, U64 last ) {
    for ( U64 key = first; key <= last; ++key ) {
        writer.writer().put< 1, valueWords >( &key, wholeValue< valueWords >( key * 10 ).data() );
    }
}

const std::vector< Operation >& operations() { return all; }

Seen seenByReader() {
    Seen seen;
    try {
        const auto reader = readerOf();
        for ( unsigned i = 0; i < looks; ++i ) {
            reader->timeout();
        }
        seen.kind = reader->mountStatus() == 0 ? Seen::nothing : Seen::present;
        seen.fault = count( *reader, seen.keys );
        if ( seen.kind == Seen::present && !reader->validate() ) {
            seen.fault = "it is not valid";
        }
    } catch ( const Krell::InvalidInitializeException& ) {
        TestCollection reader( formerLayout() );
        reader.asReader();
        seen.kind = Seen::former;
        seen.keys = KrellTest::contentsOf< 1, 1 >( reader.table() ).size();
    } catch ( const Krell::Exception& e ) {
        seen.fault = e.name() + ": " + e.msg();
    }
    return seen;
}

std::string faultOfNextWriter( const Scene& scene,
                               const Seen& seen,
                               std::vector< std::string >& left ) {
    try {
        const auto writer = writerOf();
        U64 keys = 0;
        if ( const std::string fault = count( *writer, keys ); !fault.empty() ) {
            return "the next writer: " + fault;
        }
        if ( keys != ( seen.kind == Seen::present ? seen.keys : 0 ) ) {
            return "the next writer has " + std::to_string( keys ) + " keys, a reader saw " +
                   std::to_string( seen.keys );
        }
        put( *writer, keys + 1, keys + 100 );
        if ( !writer->validate() || seenByReader().keys != keys + 100 ) {
            return "the next writer cannot go on";
        }
    } catch ( const Krell::Exception& e ) {
        return "the next writer: " + e.name() + ": " + e.msg();
    }
    const std::set< std::string > known { "slots", "buckets",    "conquer.1",
                                          "fenix", "last-owner", "conquer.2" };
    for ( const auto& entry : std::filesystem::directory_iterator( scene.place() ) ) {
        if ( !known.contains( entry.path().filename() ) ) {
            left.push_back( entry.path().filename() );
        }
    }
    return "";
}

} // namespace FaultsTest
