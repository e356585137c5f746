// Redis over a unix socket: the server, a writer and a reader on the same cores. A batch goes out
// as one pipeline. A change is a SET and a PUBLISH of its key; the subscriber gets the values with
// one MGET for all keys that came together.

#include "bench.hpp"

#include <hiredis/hiredis.h>

#include <poll.h>
#include <sys/prctl.h>

#include <csignal>

using namespace bench;

namespace {

struct Free {
    void operator()( redisReply* reply ) const { freeReplyObject( reply ); }
};
using Reply = std::unique_ptr< redisReply, Free >;

std::string socketOf( const Config& c ) { return c.dir + "/redis"; }

redisContext* call( const Config& c ) {
    for ( int attempts = 0; attempts < 500; ++attempts ) { // until the server listens
        redisContext* const server = redisConnectUnix( socketOf( c ).c_str() );
        if ( server && !server->err ) {
            return server;
        }
        redisFree( server );
        usleep( 10000 );
    }
    die( "redis" );
}

Reply one( redisContext* server, const char* command ) {
    return Reply( static_cast< redisReply* >( redisCommand( server, command ) ) );
}

[[noreturn]] void serve( const Config& c ) {
    prctl( PR_SET_PDEATHSIG, SIGKILL );
    if ( !freopen( "/dev/null", "w", stdout ) || !freopen( "/dev/null", "w", stderr ) ) {
        _exit( 1 );
    }
    execlp( "redis-server", "redis-server", "--save", "", "--appendonly", "no", "--port", "0",
            "--unixsocket", socketOf( c ).c_str(), "--client-output-buffer-limit", "pubsub", "0",
            "0", "0", "--dir", c.dir.c_str(), static_cast< char* >( nullptr ) );
    _exit( 127 );
}

bool valueIn( const redisReply& reply, Value& v ) {
    if ( reply.type != REDIS_REPLY_STRING || reply.len != sizeof v ) {
        return false;
    }
    memcpy( &v, reply.str, sizeof v );
    return true;
}

} // namespace

struct Peer {
    static constexpr const char* name = "redis";
    static constexpr Scope scope = Scope::processes;

    static void before_fork( const Config& c ) {
        if ( fork() == 0 ) {
            serve( c );
        }
        redisFree( call( c ) );
    }

    struct Writer {
        redisContext* server;
        unsigned unanswered = 0;
        size_t before;
        explicit Writer( const Config& c ) : server( call( c ) ), before( used() ) {}
        ~Writer() {
            one( server, "SHUTDOWN NOSAVE" );
            redisFree( server );
        }
        size_t used() {
            const Reply info = one( server, "INFO memory" );
            const char* const at = info ? strstr( info->str, "used_memory:" ) : nullptr;
            return at ? strtoull( at + strlen( "used_memory:" ), nullptr, 10 ) : 0;
        }
        void begin() {}
        void commit() {
            for ( ; unanswered > 0; --unanswered ) {
                void* reply = nullptr;
                if ( redisGetReply( server, &reply ) != REDIS_OK ) {
                    die( "redis" );
                }
                freeReplyObject( reply );
            }
        }
        void insert( const Key& k, const Value& v ) {
            redisAppendCommand( server, "SET %b %b", &k, sizeof k, &v, sizeof v );
            ++unanswered;
        }
        void update( const Key& k, const Value& v ) { insert( k, v ); }
        void update_notify( const Key& k, const Value& v ) {
            insert( k, v );
            redisAppendCommand( server, "PUBLISH changes %b", &k, sizeof k );
            ++unanswered;
        }
        size_t memory() { return used() - before; }
    };

    struct Reader {
        static constexpr bool native_changes = true;
        const Config config;
        redisContext* server;
        redisContext* changes = nullptr;
        explicit Reader( const Config& c ) : config( c ), server( call( c ) ) {}
        bool get( const Key& k, Value& v ) {
            const Reply reply(
                static_cast< redisReply* >( redisCommand( server, "GET %b", &k, sizeof k ) ) );
            return reply && valueIn( *reply, v );
        }
        void get_many( const Key* k, Value* v, bool* found, unsigned n ) {
            std::vector< const char* > words { "MGET" };
            std::vector< size_t > sizes { 4 };
            for ( unsigned i = 0; i < n; ++i ) {
                words.push_back( reinterpret_cast< const char* >( &k[ i ] ) );
                sizes.push_back( sizeof( Key ) );
            }
            const Reply reply( static_cast< redisReply* >(
                redisCommandArgv( server, int( words.size() ), words.data(), sizes.data() ) ) );
            for ( unsigned i = 0; i < n; ++i ) {
                found[ i ] =
                    reply && i < reply->elements && valueIn( *reply->element[ i ], v[ i ] );
            }
        }
        template < class F >
        void tell( const std::vector< Key >& keys, F&& f ) {
            std::vector< Value > values( keys.size() );
            const auto found = std::make_unique< bool[] >( keys.size() );
            get_many( keys.data(), values.data(), found.get(), unsigned( keys.size() ) );
            for ( size_t i = 0; i < keys.size(); ++i ) {
                if ( found[ i ] ) {
                    f( keys[ i ], values[ i ] );
                }
            }
        }
        static Key keyIn( const redisReply& reply ) {
            Key k;
            memcpy( static_cast< void* >( &k ), reply.str, sizeof k );
            return k;
        }
        template < class F >
        void scan( F&& f ) {
            std::string cursor = "0";
            do {
                const Reply reply = one( server, ( "SCAN " + cursor + " COUNT 1000" ).c_str() );
                cursor = reply->element[ 0 ]->str;
                const redisReply& some = *reply->element[ 1 ];
                std::vector< Key > keys;
                for ( size_t i = 0; i < some.elements; ++i ) {
                    keys.push_back( keyIn( *some.element[ i ] ) );
                }
                if ( !keys.empty() ) {
                    tell( keys, f );
                }
            } while ( cursor != "0" );
        }
        void subscribe() {
            if ( !changes ) {
                changes = call( config );
                one( changes, "SUBSCRIBE changes" );
            }
        }
        template < class F >
        void wait_changes( F&& f, int ms ) {
            pollfd readable { changes->fd, POLLIN, 0 };
            if ( poll( &readable, 1, ms ) <= 0 || redisBufferRead( changes ) != REDIS_OK ) {
                return;
            }
            std::vector< Key > keys;
            for ( void* got = nullptr;
                  redisReaderGetReply( changes->reader, &got ) == REDIS_OK && got; ) {
                const Reply reply( static_cast< redisReply* >( got ) );
                keys.push_back( keyIn( *reply->element[ 2 ] ) );
                got = nullptr;
            }
            if ( !keys.empty() ) {
                tell( keys, f );
            }
        }
    };
};

int main( int c, char** v ) { return run< Peer >( c, v ); }
