// The writer's side of the cases, which leads: it fills the table, changes it, tells the reader's
// side what to do and prints a row for each case: peer, n, case, unit, figure.

#pragma once

#include <thread>

#include <sys/prctl.h>
#include <sys/wait.h>

#include <csignal>

#include "ReaderSide.h"

namespace bench {

template < class Peer >
class WriterSide {
public:
    explicit WriterSide( const Options& options )
        : options_( options ),
          n_( options.config.n ),
          control_( *shared< Control >() ),
          draws_( n_, options.skew, 12345 ),
          label_( labelOf( options ) ) {
        if ( pipe( keys_ ) != 0 ) {
            die( "pipe" );
        }
    }

    void run() {
        if constexpr ( requires { Peer::grows; } ) {
            if ( options_.wants( "memory_grown" ) || options_.wants( "insert_grown" ) ) {
                runGrown();
            }
        }
        startReader(); // before there is a table: it inherits nothing of that
        pin( options_.writerCore );
        const size_t before = residentBytes();
        {
            Writer writer( options_.config );
            writer_ = &writer;
            fill( "insert", "memory", before );
            readerCases();
            updates( 1, "update" );
            updates( 1000, "update_b1000" );
            if constexpr ( Peer::scope != Scope::single ) {
                mixed();
                paced();
                drain();
            }
            ask( Command::quit );
            join();
        }
    }

private:
    using Writer = typename Peer::Writer;
    using Reader = typename Peer::Reader;

    static std::string labelOf( const Options& options ) {
        std::string label = Peer::name;
        if ( sizeof( Key ) != 16 ) {
            label += "-k" + std::to_string( sizeof( Key ) );
        }
        return options.skew > 0 ? label + "-zipf" : label;
    }
    void row( const char* name, const char* unit, double figure ) const {
        if ( options_.wants( name ) ) {
            printf( "%s,%llu,%s,%s,%.3f\n", label_.c_str(), ( unsigned long long )n_, name, unit,
                    figure );
            fflush( stdout );
        }
    }
    // A row that a healthy run does not have.
    void bad( const char* name ) const {
        if ( control_.bad != 0 && !requires { Peer::unchecked; } ) {
            printf( "%s,%llu,%s,BAD,%llu\n", label_.c_str(), ( unsigned long long )n_, name,
                    ( unsigned long long )control_.bad );
            fflush( stdout );
        }
    }

    // --- The reader

    void startReader() {
        if constexpr ( Peer::scope == Scope::processes ) {
            if constexpr ( requires { Peer::before_fork( options_.config ); } ) {
                Peer::before_fork( options_.config );
            }
            process_ = fork();
            if ( process_ == 0 ) {
                prctl( PR_SET_PDEATHSIG, SIGKILL );
                ReaderSide< Reader >( control_, options_, keys_[ 0 ] ).serve();
                _exit( 0 );
            }
            if ( process_ < 0 ) {
                die( "fork" );
            }
        } else {
            thread_ = std::thread(
                [ this ] { ReaderSide< Reader >( control_, options_, keys_[ 0 ] ).serve(); } );
        }
    }
    void join() {
        if ( process_ > 0 ) {
            waitpid( process_, nullptr, 0 );
        } else {
            thread_.join();
        }
    }
    void await() {
        while ( !control_.finished() ) {
            sleepWhile( control_.command, control_.command.load(), 100000000u );
            failIfGone();
        }
    }
    void awaitStart() {
        while ( control_.started.load( std::memory_order_acquire ) == 0 ) {
            usleep( 20 );
            failIfGone();
        }
    }
    void failIfGone() {
        if ( process_ > 0 && !control_.finished() &&
             waitpid( process_, nullptr, WNOHANG ) == process_ && !control_.finished() ) {
            fprintf( stderr, "%s: the reader died\n", label_.c_str() );
            _exit( 3 );
        }
    }
    void ask( Command c ) {
        control_.give( c );
        await();
    }

    // --- Filling

    void fill( const char* insertCase, const char* memoryCase, size_t residentBefore ) {
        const uint64_t from = now();
        for ( uint64_t i = 0; i < n_; ) {
            writer_->begin();
            for ( const uint64_t end = std::min( n_, i + 1000 ); i < end; ++i ) {
                const Key key = keyOf( i );
                writer_->insert( key, valueOf( key, version_, 0 ) );
            }
            writer_->commit();
        }
        row( insertCase, "ns/op", double( now() - from ) / double( n_ ) );
        size_t bytes = 0;
        if constexpr ( requires { writer_->memory(); } ) {
            bytes = writer_->memory();
        } else {
            bytes = residentBytes() - residentBefore;
        }
        row( memoryCase, "B/entry", double( bytes ) / double( n_ ) );
    }

    // A table that was not told how large it gets, in a process that has had no other.
    void runGrown() {
        const pid_t child = fork();
        if ( child == 0 ) {
            prctl( PR_SET_PDEATHSIG, SIGKILL );
            pin( options_.writerCore );
            const Config config { options_.config.dir + "/grown", 0 };
            std::filesystem::create_directory( config.dir );
            const size_t before = residentBytes();
            Writer writer( config );
            writer_ = &writer;
            fill( "insert_grown", "memory_grown", before );
            std::error_code ignored;
            std::filesystem::remove_all( config.dir, ignored );
            _exit( 0 );
        }
        int status = 0;
        if ( child < 0 || waitpid( child, &status, 0 ) != child || status != 0 ) {
            fprintf( stderr, "%s: could not be filled without its size\n", label_.c_str() );
        }
    }

    // --- The cases

    void readerCase( Command c, const char* name ) {
        if ( options_.wants( name ) ) {
            ask( c );
            row( name, "ns/op", double( control_.ns ) / double( control_.operations ) );
            bad( name );
        }
    }
    void readerCases() {
        ask( Command::open );
        ask( Command::warm );
        bad( "warm" );
        readerCase( Command::hit, "hit" );
        readerCase( Command::hitDependent, "hit_dep" );
        readerCase( Command::miss, "miss" );
        readerCase( Command::many, "many32" );
        readerCase( Command::scan, "scan" );
    }

    // Random updates, so many to a commit, until they are enough; returns how many they were.
    template < class Enough >
    uint64_t update( unsigned batch, Enough&& enough ) {
        uint64_t done = 0;
        do {
            for ( unsigned i = 0; i < 64; i += batch ) {
                writer_->begin();
                for ( unsigned j = 0; j < batch; ++j ) {
                    const Key key = keyOf( draws_.next() );
                    writer_->update( key, valueOf( key, ++version_, 0 ) );
                }
                writer_->commit();
                done += batch;
            }
        } while ( !enough() );
        return done;
    }
    void updates( unsigned batch, const char* name ) {
        if ( options_.wants( name ) ) {
            const auto limit = uint64_t( options_.seconds * 1e9 );
            const uint64_t from = now();
            const uint64_t done = update( batch, [ & ] { return now() - from >= limit; } );
            row( name, "ns/op", double( now() - from ) / double( done ) );
        }
    }
    void mixed() {
        if ( options_.wants( "mixed_read" ) || options_.wants( "mixed_write" ) ) {
            control_.give( Command::mixed );
            awaitStart();
            const uint64_t from = now();
            const uint64_t done = update( 1, [ & ] { return control_.finished(); } );
            const uint64_t to = now();
            await();
            row( "mixed_read", "ns/op", double( control_.ns ) / double( control_.operations ) );
            row( "mixed_write", "ns/op", double( to - from ) / double( done ) );
            bad( "mixed_read" );
        }
    }

    void publish( uint64_t stamp ) {
        const Key key = keyOf( draws_.next() );
        const Value value = valueOf( key, ++version_, stamp );
        writer_->begin();
        if constexpr ( Reader::native_changes ) {
            writer_->update_notify( key, value );
        } else {
            writer_->update( key, value );
        }
        writer_->commit();
        if ( !Reader::native_changes && write( keys_[ 1 ], &key, sizeof key ) != sizeof key ) {
            die( "write to the pipe" );
        }
    }
    // Lets the reader take what is on its way, then ends the command.
    void stopFollowing() {
        usleep( 60000 );
        control_.stop.store( 1, std::memory_order_release );
        await();
    }
    // A change each 100 microseconds: the reader sleeps between two.
    void paced() {
        if ( options_.wants( "wake_p50" ) || options_.wants( "wake_p99" ) ) {
            control_.give( Command::paced );
            awaitStart();
            const uint64_t from = now();
            const uint64_t end = from + uint64_t( options_.seconds * 2e9 );
            for ( uint64_t next = from; next < end; next += 100000 ) {
                while ( now() < next ) {
                    relax();
                }
                publish( now() );
            }
            stopFollowing();
            row( "wake_p50", "ns", double( control_.p50 ) );
            row( "wake_p99", "ns", double( control_.p99 ) );
            bad( "wake_p50" );
        }
    }
    void drain() {
        if ( !options_.wants( "drain_write" ) && !options_.wants( "drain_read" ) &&
             !options_.wants( "drain_p50" ) && !options_.wants( "drain_p99" ) ) {
            return;
        }
        control_.give( Command::drain );
        awaitStart();
        const uint64_t from = now();
        const uint64_t end = from + uint64_t( options_.seconds * 2e9 );
        uint64_t done = 0;
        uint64_t to = from;
        do {
            for ( unsigned i = 0; i < 16; ++i ) {
                publish( to );
            }
            done += 16;
            to = now();
        } while ( to < end );
        stopFollowing();
        const double ns = double( to - from );
        row( "drain_write", "ns/op", ns / double( done ) );
        row( "drain_read", "ns/op", ns / double( std::max< uint64_t >( control_.operations, 1 ) ) );
        row( "drain_p50", "ns", double( control_.p50 ) );
        row( "drain_p99", "ns", double( control_.p99 ) );
        bad( "drain_write" );
    }

    const Options& options_;
    const uint64_t n_;
    Control& control_;
    Draws draws_;
    const std::string label_;
    int keys_[ 2 ] = { -1, -1 };
    pid_t process_ = -1;
    std::thread thread_;
    Writer* writer_ = nullptr;
    uint64_t version_ = 1;
};

// The whole run of one peer; its files stand in a directory of their own meanwhile.
template < class Peer >
int run( int argc, char** argv ) {
    Options options = optionsOf( argc, argv );
    options.config.dir += "/peer-" + std::to_string( getpid() );
    std::error_code error;
    if ( !std::filesystem::create_directory( options.config.dir, error ) ) {
        fprintf( stderr, "%s: %s\n", options.config.dir.c_str(), error.message().c_str() );
        return 2;
    }
    WriterSide< Peer >( options ).run();
    std::filesystem::remove_all( options.config.dir, error );
    return 0;
}

} // namespace bench
