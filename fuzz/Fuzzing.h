// What the fuzz targets share: how an input is taken apart, what counts as an answer, and a root
// directory of their own.
//
// A target is a source NAME.cpp with LLVMFuzzerTestOneInput. With libFuzzer it is `fuzz-NAME`; with
// replay.cpp, and any compiler, `test-fuzz-NAME` of the ordinary tests. Whatever the input is, a
// target ends in time and says nothing; a finding ends the process. A target starts each run from
// the same state, so that an input means the same wherever it is run.

#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <string_view>

#include <unistd.h>

#include <Krell/Exception>
#include <Qel/Exception>
#include <Qel/Trace>

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size );

namespace QelKrellFuzz {

[[noreturn]] inline void finding( const std::string& what ) {
    std::fprintf( stderr, "FINDING: %s\n", what.c_str() );
    std::abort();
}
inline void demand( bool holds, const std::string& what ) {
    if ( !holds ) {
        finding( what );
    }
}

// An input, read from its front to its end; behind the end everything is 0 and empty.
class Input {
public:
    Input( const std::uint8_t* data, std::size_t size )
        : bytes_( reinterpret_cast< const char* >( data ), size ) {}

    bool atEnd() const { return bytes_.empty(); }
    unsigned byte() { return unsigned( std::uint8_t( take( 1 ).append( 1, '\0' )[ 0 ] ) ); }
    // Less than `count`.
    unsigned below( unsigned count ) { return byte() % count; }
    template < class T >
    T number() {
        T value {};
        const std::string bytes = take( sizeof value );
        std::memcpy( &value, bytes.data(), bytes.size() );
        return value;
    }
    // Up to the next line feed, which is taken too: dictionaries and people write such texts.
    std::string line() {
        const std::size_t end = bytes_.find( '\n' );
        std::string text = take( end );
        take( 1 );
        return text;
    }
    std::string take( std::size_t count ) {
        std::string some( bytes_.substr( 0, count ) );
        bytes_.remove_prefix( some.size() );
        return some;
    }
    std::string rest() { return take( std::string::npos ); }

private:
    std::string_view bytes_;
};

// Runs `f` and returns whether it ended without an exception. One of the framework's is an answer
// like any other, as long as it says something; any other is a finding.
template < class F >
bool answers( F&& f ) {
    try {
        f();
        return true;
    } catch ( const Qel::Exception& e ) {
        demand( !e.msg().empty(), "an exception without a message" );
        return false;
    } catch ( const Krell::Exception& e ) {
        finding( "an exception of the collection library: " + e.name() + ": " + e.msg() );
    } catch ( const std::exception& e ) {
        finding( std::string( "a foreign exception: " ) + e.what() );
    }
}

// The same where the collection library itself is called.
template < class F >
bool answersBelow( F&& f ) {
    bool done = true;
    return answers( [ & ] {
               try {
                   f();
               } catch ( const Krell::Exception& e ) {
                   demand( !e.msg().empty(), "an exception without a message" );
                   done = false;
               }
           } ) &&
           done;
}

// Neither traces nor errors that are answers are written while a target runs.
class Silence {
public:
    Silence() {
        Qel::traceSinkIs( []( const Qel::String& ) {} );
    }
    Silence( const Silence& ) = delete;
    Silence& operator=( const Silence& ) = delete;

private:
    const Qel::ExpectException expected_;
};

// A directory of the process's own in the memory file system, named as the root of the collection
// files, and removed at exit.
class Root {
public:
    Root() {
        const char* parent = std::getenv( "QELKRELL_FUZZ_ROOT" );
        path_ = std::string( parent ? parent : "/dev/shm" ) + "/qelkrell-fuzz-XXXXXX";
        demand( ::mkdtemp( path_.data() ) && ::setenv( "KRELL_ROOT", path_.c_str(), 1 ) == 0,
                "no directory " + path_ );
    }
    ~Root() {
        std::error_code ignored;
        std::filesystem::remove_all( path_, ignored );
    }
    Root( const Root& ) = delete;
    Root& operator=( const Root& ) = delete;

    const std::string& path() const { return path_; }
    std::string operator/( const std::string& below ) const { return path_ + "/" + below; }
    // Takes away what stands in it.
    void clear() const {
        for ( const auto& entry : std::filesystem::directory_iterator( path_ ) ) {
            std::filesystem::remove_all( entry.path() );
        }
    }

private:
    std::string path_;
};

} // namespace QelKrellFuzz
