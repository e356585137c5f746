// Writers in child processes that are killed or stopped at the n-th place that they pass.

#pragma once

#include <functional>
#include <string>

#include <sys/types.h>

#include <Krell/CrashPoint>

namespace KrellTest {

// What became of a child that was to be killed at a place.
struct Crash {
    bool died;         // false: it passed fewer places and went through
    std::string place; // where it died
};

// Runs `prepare` and then `body` in a child, which is killed when `body` passes its n-th place (n
// from 1). A child that ends otherwise than by this or by the end of `body` is a
// std::runtime_error.
Crash killedAt( unsigned n,
                const std::function< void() >& prepare,
                const std::function< void() >& body );

// The same for the first place of that name.
Crash killedAt( const char* place,
                const std::function< void() >& prepare,
                const std::function< void() >& body );

// A child that stops itself (SIGSTOP) when `body` passes its n-th place, and is killed at the end
// of the object's life.
class Stopped {
public:
    Stopped( unsigned n,
             const std::function< void() >& prepare,
             const std::function< void() >& body );
    ~Stopped();
    Stopped( const Stopped& ) = delete;
    Stopped& operator=( const Stopped& ) = delete;

    bool stopped() const { return stopped_; } // false: it passed fewer places and ended
    const std::string& place() const { return place_; }

private:
    pid_t pid_;
    bool stopped_;
    std::string place_;
};

// Sanitizers make each child slow: they try every n-th place, all others every one.
#if defined( __SANITIZE_ADDRESS__ ) || defined( __SANITIZE_THREAD__ )
inline constexpr unsigned stride = 3;
#else
inline constexpr unsigned stride = 1;
#endif

} // namespace KrellTest
