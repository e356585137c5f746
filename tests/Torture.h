// Faults that are injected again and again: as often as is quick in a run of the tests, and for as
// long as ./dev torture says.

#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <string>

#include <unistd.h>

namespace QelKrellTest {

// One test's part of a row of the table that ./dev torture prints. Its figures go to the standard
// output, as a line that ends a test and, in a long run, as one a second meanwhile:
//
//     torture ROW seed=5 rounds=17 kills=17 torn=0 longestUs<=1234
//
// Each line replaces the one before it; "=" is added up over all tests of the row, of "<=" the
// largest counts. To be used by one thread.
//
//     Torture torture( "random-kills", 20 );
//     std::mt19937_64 random( torture.seed() );
//     while ( torture.goesOn() ) {
//         ... torture.count( "kills" ); ...
//     }
class Torture {
public:
    // `small`: the rounds in a run of the tests. A long run takes QELKRELL_TORTURE seconds, but one
    // round at least.
    Torture( const char* row, std::uint64_t small ) : row_( row ), small_( small ) {
        if ( const char* given = std::getenv( "KRELL_SEED" ) ) {
            seed_ = std::strtoull( given, nullptr, 0 );
        } else {
            seed_ = std::random_device()();
        }
        if ( isLong() ) { // asked for between rounds: it interrupts no system call of a round
            const sigset_t interrupt = onlyInterrupt();
            ::sigprocmask( SIG_BLOCK, &interrupt, nullptr );
        }
    }
    ~Torture() {
        if ( ::getpid() == process_ ) { // not for a forked child
            print();
        }
    }
    Torture( const Torture& ) = delete;
    Torture& operator=( const Torture& ) = delete;

    // Whether there is to be another round, which is counted then. Ctrl-C ends a long run.
    bool goesOn() {
        const auto now = Clock::now();
        const bool more =
            isLong() ? rounds_ == 0 || ( now < end_ && !interrupted() ) : rounds_ < small_;
        if ( isLong() && now >= nextLine_ ) {
            print();
            nextLine_ = now + std::chrono::seconds( 1 );
        }
        rounds_ += more;
        return more;
    }

    static bool isLong() { return std::getenv( "QELKRELL_TORTURE" ) != nullptr; }

    // KRELL_SEED if that is set; stands in the line. A round's own follows from it and its number.
    std::uint64_t seed() const { return seed_; }
    std::uint64_t rounds() const { return rounds_; } // with the present one

    // Figures of the row. One that has to stay 0 is to be named with 0 all the same.
    void count( const std::string& figure, std::uint64_t n = 1 ) { sums_[ figure ] += n; }
    void most( const std::string& figure, std::uint64_t n ) {
        std::uint64_t& most = mosts_[ figure ];
        most = n > most ? n : most;
    }

private:
    using Clock = std::chrono::steady_clock;

    static sigset_t onlyInterrupt() {
        sigset_t set;
        ::sigemptyset( &set );
        ::sigaddset( &set, SIGINT );
        return set;
    }
    static bool interrupted() {
        sigset_t pending;
        return ::sigpending( &pending ) == 0 && ::sigismember( &pending, SIGINT ) == 1;
    }
    static std::chrono::duration< double > longTime() {
        const char* const seconds = std::getenv( "QELKRELL_TORTURE" );
        return std::chrono::duration< double >( seconds ? std::strtod( seconds, nullptr ) : 0 );
    }
    void print() const {
        std::ostringstream line;
        line << "torture " << row_ << " seed=" << seed_ << " rounds=" << rounds_;
        for ( const auto& [ figure, n ] : sums_ ) {
            line << " " << figure << "=" << n;
        }
        for ( const auto& [ figure, n ] : mosts_ ) {
            line << " " << figure << "<=" << n;
        }
        std::cout << line.str() << std::endl;
    }

    const std::string row_;
    const std::uint64_t small_;
    const pid_t process_ = ::getpid();
    const Clock::time_point end_ =
        Clock::now() + std::chrono::duration_cast< Clock::duration >( longTime() );
    Clock::time_point nextLine_ = Clock::now();
    std::uint64_t seed_ = 0;
    std::uint64_t rounds_ = 0;
    std::map< std::string, std::uint64_t > sums_;
    std::map< std::string, std::uint64_t > mosts_;
};

} // namespace QelKrellTest
