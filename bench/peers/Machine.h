// The clock, the cores and the memory of the machine that is measured.

#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>

#include <linux/futex.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace bench {

[[noreturn]] inline void die( const char* what ) {
    perror( what );
    _exit( 2 );
}

// Nanoseconds of a clock that all processes share.
inline uint64_t now() {
    timespec t;
    clock_gettime( CLOCK_MONOTONIC, &t );
    return uint64_t( t.tv_sec ) * 1000000000u + uint64_t( t.tv_nsec );
}

// A core that is not there is no error: the scheduler places the thread then.
inline void pin( int core ) {
    cpu_set_t cores;
    CPU_ZERO( &cores );
    CPU_SET( size_t( core ), &cores );
    sched_setaffinity( 0, sizeof cores, &cores );
}

inline void relax() {
#if defined( __x86_64__ ) || defined( __i386__ )
    __builtin_ia32_pause();
#endif
}

// A T that forked processes share.
template < class T >
T* shared() {
    void* const at =
        mmap( nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
    if ( at == MAP_FAILED ) {
        die( "mmap" );
    }
    return new ( at ) T();
}

// Sleeps until the word is not `value` any more, or some time has passed.
inline void sleepWhile( std::atomic< uint32_t >& word, uint32_t value, uint64_t maxNs ) {
    const timespec limit { time_t( maxNs / 1000000000u ), long( maxNs % 1000000000u ) };
    syscall( SYS_futex, &word, FUTEX_WAIT, value, &limit, nullptr, 0 );
}
inline void storeAndWake( std::atomic< uint32_t >& word, uint32_t value ) {
    word.store( value );
    syscall( SYS_futex, &word, FUTEX_WAKE, INT32_MAX, nullptr, nullptr, 0 );
}

// What of this process stands in memory.
inline size_t residentBytes() {
    size_t all = 0;
    size_t resident = 0;
    if ( FILE* const file = fopen( "/proc/self/statm", "r" ) ) {
        if ( fscanf( file, "%zu %zu", &all, &resident ) != 2 ) {
            resident = 0;
        }
        fclose( file );
    }
    return resident * size_t( sysconf( _SC_PAGESIZE ) );
}

// What the files below a directory take, in whole blocks.
inline size_t dir_bytes( const std::string& directory ) {
    size_t sum = 0;
    std::error_code gone;
    for ( const auto& entry : std::filesystem::recursive_directory_iterator( directory, gone ) ) {
        struct stat found;
        if ( lstat( entry.path().c_str(), &found ) == 0 ) {
            sum += size_t( found.st_blocks ) * 512;
        }
    }
    return sum;
}

} // namespace bench
