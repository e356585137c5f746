// Processes that follow a writer, to be stopped and killed.

#pragma once

#include <csignal>
#include <functional>

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <Qel/System>

#include "bench/Store.h"

namespace Bench {

inline Qel::U64 now() {
    timespec t;
    clock_gettime( CLOCK_MONOTONIC, &t );
    return Qel::U64( t.tv_sec ) * 1000000000u + Qel::U64( t.tv_nsec );
}

// What a follower's process tells the benchmark.
struct FollowerNews {
    std::atomic< Qel::U64 > notified;
    std::atomic< Qel::U64 > toldAt; // of the last notification
};

// A process that follows in that role until it is killed.
class FollowerProcess {
public:
    explicit FollowerProcess( QelKrell::QelKrellType role )
        : news_( new ( mmap( nullptr,
                             sizeof( FollowerNews ),
                             PROT_READ | PROT_WRITE,
                             MAP_SHARED | MAP_ANONYMOUS,
                             -1,
                             0 ) ) FollowerNews() ),
          pid_( fork() ) {
        if ( pid_ == 0 ) {
            prctl( PR_SET_PDEATHSIG, SIGKILL );
            follow( role );
        }
    }
    ~FollowerProcess() {
        kill( pid_, SIGKILL );
        waitpid( pid_, nullptr, 0 );
        munmap( news_, sizeof( FollowerNews ) );
    }
    FollowerProcess( const FollowerProcess& ) = delete;
    FollowerProcess& operator=( const FollowerProcess& ) = delete;

    const FollowerNews& news() const { return *news_; }
    void stop() {
        kill( pid_, SIGSTOP );
        int status = 0;
        waitpid( pid_, &status, WUNTRACED );
    }
    void go() { kill( pid_, SIGCONT ); }

private:
    [[noreturn]] void follow( QelKrell::QelKrellType role ) {
        const StorePtr store = open( role, 0 );
        const auto watch = store->entry.onEntry( [ & ]( const auto& ) {
            news_->toldAt.store( now() );
            news_->notified.fetch_add( 1, std::memory_order_relaxed );
        } );
        for ( ;; ) {
            Qel::System::runOnce( 1 );
        }
    }

    FollowerNews* const news_;
    const pid_t pid_;
};

inline void turnUntil( const std::function< bool() >& holds ) {
    while ( !holds() ) {
        Qel::System::runOnce( 0.001 );
    }
}

} // namespace Bench
