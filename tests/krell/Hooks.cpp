#include "Hooks.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Krell/Exception>

namespace KrellTest {

namespace {

class NamedHandler : public Krell::Platform::DebugHandler {
public:
    explicit NamedHandler( const std::string& name ) : name_( name ) {}
    bool enabled( int level ) override { return namedHandlerLevels().contains( level ); }
    void dump( const std::stringstream& text, int level ) override {
        namedHandlerLines().push_back( name_ + " " + std::to_string( level ) + " " + text.str() );
    }

private:
    std::string name_;
};

class LengthPrinter : public Krell::Platform::ValuePrinter {
public:
    LengthPrinter( std::string type, int size )
        : text_( type + " of " + std::to_string( size ) + " bytes" ) {}
    std::string toString( void* ) override { return text_; }

private:
    std::string text_;
};

template < class T >
void removeFrom( std::vector< T* >& list, T* one ) {
    list.erase( std::remove( list.begin(), list.end(), one ), list.end() );
}

int exitStatus( pid_t pid ) {
    int status = 0;
    while ( ::waitpid( pid, &status, 0 ) < 0 ) {
        if ( errno != EINTR ) {
            throw std::runtime_error( "waitpid failed" );
        }
    }
    return WIFEXITED( status ) ? WEXITSTATUS( status ) : 128 + WTERMSIG( status );
}

} // namespace

TestTimer::TestTimer( Krell::Platform::TimeoutHandler* h ) : handler( h ) {
    timers().push_back( this );
}

TestTimer::~TestTimer() { removeFrom( timers(), this ); }

void TestTimer::setTimeout( double s ) {
    seconds = s;
    armed = true;
}

void TestTimer::fire() {
    armed = false;
    handler->timeout();
}

TestFd::TestFd( Krell::Platform::FdEventHandler* h ) : handler( h ) { fds().push_back( this ); }

TestFd::~TestFd() { removeFrom( fds(), this ); }

TestWatch::TestWatch( Krell::Platform::InotifyHandler* h ) : handler( h ) {
    watches().push_back( this );
}

TestWatch::~TestWatch() { removeFrom( watches(), this ); }

std::vector< TestTimer* >& timers() {
    static std::vector< TestTimer* > list;
    return list;
}

std::vector< TestFd* >& fds() {
    static std::vector< TestFd* > list;
    return list;
}

std::vector< TestWatch* >& watches() {
    static std::vector< TestWatch* > list;
    return list;
}

unsigned fireTimers() {
    unsigned fired = 0;
    for ( TestTimer* timer : std::vector< TestTimer* >( timers() ) ) {
        const auto& live = timers();
        if ( std::find( live.begin(), live.end(), timer ) != live.end() && timer->armed ) {
            timer->fire();
            ++fired;
        }
    }
    return fired;
}

std::set< int >& namedHandlerLevels() {
    static std::set< int > levels;
    return levels;
}

std::vector< std::string >& namedHandlerLines() {
    static std::vector< std::string > lines;
    return lines;
}

TraceRecorder::TraceRecorder() {
    Qel::traceObserverIs( [ this ]( const Qel::TraceRecord& r ) { records.push_back( r ); } );
    Qel::traceSinkIs( []( const Qel::String& ) {} );
}

TraceRecorder::~TraceRecorder() {
    Qel::traceObserverIs( nullptr );
    Qel::traceSinkIs( nullptr );
}

std::vector< std::string > TraceRecorder::lines() const {
    std::vector< std::string > result;
    for ( const Qel::TraceRecord& r : records ) {
        result.push_back( std::to_string( r.level ) + " " + r.source.stdString() + ":" +
                          std::to_string( r.line ) + " " + r.function.stdString() + " " +
                          r.text.stdString() );
    }
    return result;
}

TestRoot::TestRoot() {
    char name[] = "/dev/shm/krelltest.XXXXXX";
    if ( !::mkdtemp( name ) || ::chmod( name, 0755 ) != 0 ) {
        throw std::runtime_error( "no directory for the test under /dev/shm" );
    }
    path_ = name;
    if ( const char* const former = ::getenv( "KRELL_ROOT" ) ) {
        former_ = former;
    }
    ::setenv( "KRELL_ROOT", name, 1 );
}

TestRoot::~TestRoot() {
    if ( former_.empty() ) {
        ::unsetenv( "KRELL_ROOT" );
    } else {
        ::setenv( "KRELL_ROOT", former_.c_str(), 1 );
    }
    std::error_code ignored;
    std::filesystem::remove_all( path_, ignored );
}

std::string bytesOf( const std::string& path ) {
    std::ifstream file( path, std::ios::binary );
    if ( !file ) {
        throw std::runtime_error( "cannot read " + path );
    }
    return std::string( std::istreambuf_iterator< char >( file ), {} );
}

void bytesInto( const std::string& path, const std::string& bytes ) {
    std::ofstream file( path, std::ios::binary | std::ios::trunc );
    file << bytes;
    file.close();
    if ( !file ) {
        throw std::runtime_error( "cannot write " + path );
    }
}

int modeOf( const std::string& path ) {
    std::error_code error;
    const auto status = std::filesystem::symlink_status( path, error );
    return error || status.type() == std::filesystem::file_type::not_found
               ? -1
               : int( status.permissions() );
}

int inChild( const std::function< int() >& body ) {
    const pid_t pid = ::fork();
    if ( pid == 0 ) {
        int status = 99;
        try {
            status = body();
        } catch ( ... ) {
        }
        ::_exit( status );
    }
    return exitStatus( pid );
}

Child::Child( const std::function< bool() >& body ) {
    int up[ 2 ];
    int down[ 2 ];
    if ( ::pipe2( up, O_CLOEXEC ) != 0 || ::pipe2( down, O_CLOEXEC ) != 0 ) {
        throw std::runtime_error( "no pipe" );
    }
    pid_ = ::fork();
    char byte = 'x';
    if ( pid_ == 0 ) {
        ::close( up[ 0 ] );
        ::close( down[ 1 ] );
        try {
            byte = body() ? '1' : '0';
        } catch ( const Krell::Exception& ) {
        }
        if ( ::write( up[ 1 ], &byte, 1 ) == 1 && ::read( down[ 0 ], &byte, 1 ) >= 0 ) {
            ::_exit( 0 );
        }
        ::_exit( 1 );
    }
    ::close( up[ 1 ] );
    ::close( down[ 0 ] );
    toChild_ = down[ 1 ];
    const bool reported = ::read( up[ 0 ], &byte, 1 ) == 1 && byte != 'x';
    ::close( up[ 0 ] );
    result_ = byte == '1';
    if ( !reported ) {
        kill( SIGKILL );
        throw std::runtime_error( "the child did not do its part" );
    }
}

Child::~Child() { kill( SIGKILL ); }

void Child::kill( int signal ) {
    if ( pid_ ) {
        ::kill( pid_, signal );
        wait();
    }
}

void Child::finish() {
    if ( pid_ ) {
        ::close( toChild_ );
        toChild_ = -1;
        wait();
    }
}

void Child::wait() {
    if ( toChild_ >= 0 ) {
        ::close( toChild_ );
        toChild_ = -1;
    }
    exitStatus( pid_ );
    pid_ = 0;
}

} // namespace KrellTest

namespace Krell::Platform {

DebugHandler* getDebugHandler( const std::string& name ) {
    return new KrellTest::NamedHandler( name );
}

ValuePrinter* getValuePrinter( std::string typeName, int size ) {
    return new KrellTest::LengthPrinter( std::move( typeName ), size );
}

InotifyControl* getInotifyControl( InotifyHandler* handler ) {
    return new KrellTest::TestWatch( handler );
}

FdControl* getFdControl( FdEventHandler* handler ) { return new KrellTest::TestFd( handler ); }

TimerControl* getTimerControl( TimeoutHandler* handler ) {
    return new KrellTest::TestTimer( handler );
}

// One turn: every armed timer. The result is how many there were.
int doEventLoop() { return int( KrellTest::fireTimers() ); }

int doEventLoop( double ) { return doEventLoop(); }

} // namespace Krell::Platform
