// A child process that is run by single instructions, or from system call to system call, by
// ptrace(2): to stop it at any of them, to kill it there, or to have a call fail.
//
//     Tracer child( [] { ...before... }, [] { ...what is traced... } );
//     ASSERT_TRUE( child.stopped() );
//     while ( child.toCall() ) {
//         if ( ...it is the one... ) {
//             child.failCall( ENOSPC ); // or kill(), or doCall() and kill()
//         }
//     }
//
// Only the child's first thread is traced, and none of its own children.

#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include <signal.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace QelKrellTest {

class Tracer {
public:
    using Action = std::function< void() >;

    // The child runs `prepare` and stops; then `body` runs traced, and the child stops again.
    // After that, finish() has it run `after` and end. An exception ends it with failed_.
    Tracer(
        const Action& prepare, const Action& body, const Action& after = [] {} ) {
        pid_ = ::fork();
        if ( pid_ < 0 ) {
            throw std::runtime_error( "fork failed" );
        }
        if ( pid_ == 0 ) {
            run( prepare, body, after );
        }
        status_ = wait();
        if ( stopped() && ptrace( PTRACE_SETOPTIONS, PTRACE_O_TRACESYSGOOD ) != 0 ) {
            throw std::runtime_error( "PTRACE_SETOPTIONS failed" );
        }
    }
    ~Tracer() { kill(); }
    Tracer( const Tracer& ) = delete;
    Tracer& operator=( const Tracer& ) = delete;

    // Whether this process may trace its children.
    bool allowed() const { return !WIFEXITED( status_ ) || WEXITSTATUS( status_ ) != refused_; }
    // At one of the two stops.
    bool stopped() const { return WIFSTOPPED( status_ ) && WSTOPSIG( status_ ) == SIGSTOP; }
    // Gone, by this status of waitpid(2).
    bool gone() const { return WIFEXITED( status_ ) || WIFSIGNALED( status_ ); }
    int status() const { return status_; }
    pid_t pid() const { return pid_; }

    // One instruction; false when it led to the end of the body.
    bool step() {
        go( PTRACE_SINGLESTEP, 0 );
        return WIFSTOPPED( status_ ) && WSTOPSIG( status_ ) == SIGTRAP;
    }

    // On to where the next system call is about to be made: what the kernel was to do has not been
    // done yet. False when there is none any more: the body has ended, or the child is gone.
    bool toCall() {
        if ( !finishCall() ) {
            return false;
        }
        while ( toStopAtCall() ) {
            const __ptrace_syscall_info info = callInfo();
            if ( info.op == PTRACE_SYSCALL_INFO_ENTRY ) {
                number_ = long( info.entry.nr );
                for ( unsigned i = 0; i < 6; ++i ) {
                    arguments_[ i ] = info.entry.args[ i ];
                }
                inCall_ = !isMark();
                if ( inCall_ ) {
                    return true;
                }
            }
        }
        return false;
    }
    // Of the call that toCall() came to.
    long number() const { return number_; }
    std::uint64_t argument( unsigned i ) const { return arguments_[ i ]; }

    // The call is made; false when the child is gone by it.
    bool finishCall() {
        if ( inCall_ ) {
            inCall_ = false;
            return toStopAtCall();
        }
        return !gone();
    }
    // The call is not made, and the child finds that it failed with this error.
    void failCall( int error ) {
        user_regs_struct registers = get();
        numberOf( registers ) = Register( -1 );
        set( registers );
        if ( finishCall() ) {
            registers = get();
            resultOf( registers ) = Register( -error );
            set( registers );
        }
    }

    // Ends it where it stands.
    void kill() noexcept {
        if ( pid_ > 0 && !gone() ) {
            ::kill( pid_, SIGKILL );
            while ( !gone() && ::waitpid( pid_, &status_, 0 ) == pid_ ) {
            }
        }
    }
    // Lets it run to its end, untraced but for signals; the status of waitpid(2).
    int finish() {
        int signal = 0;
        while ( !gone() ) {
            go( PTRACE_CONT, signal );
            signal = signalToPass();
        }
        return status_;
    }

    static constexpr int refused_ = 77; // exit status: tracing is not allowed
    static constexpr int failed_ = 76;  // an exception

private:
#if defined( __x86_64__ )
    using Register = unsigned long long;
    static Register& numberOf( user_regs_struct& registers ) { return registers.orig_rax; }
    static Register& resultOf( user_regs_struct& registers ) { return registers.rax; }
#else
    using Register = long;
    static Register& numberOf( user_regs_struct& registers ) { return registers.orig_eax; }
    static Register& resultOf( user_regs_struct& registers ) { return registers.eax; }
#endif

    [[noreturn]] static void run( const Action& prepare, const Action& body, const Action& after ) {
        if ( ::ptrace( PTRACE_TRACEME, 0, nullptr, nullptr ) != 0 ) {
            ::_exit( refused_ );
        }
        const pid_t self = ::getpid();
        try {
            prepare();
            ::kill( self, SIGSTOP );
            body();
            ::kill( self, SIGSTOP );
            after();
        } catch ( ... ) {
            ::_exit( failed_ );
        }
        ::_exit( 0 );
    }
    // The call by which the child stops itself.
    bool isMark() const { return number_ == SYS_kill && arguments_[ 1 ] == SIGSTOP; }

    // Signals but those of tracing are passed on.
    bool toStopAtCall() {
        constexpr int atCall = SIGTRAP | 0x80;
        int signal = 0;
        do {
            go( PTRACE_SYSCALL, signal );
            signal = signalToPass();
        } while ( WIFSTOPPED( status_ ) && WSTOPSIG( status_ ) != atCall && !stopped() );
        return WIFSTOPPED( status_ ) && !stopped();
    }
    int signalToPass() const {
        const int signal = WIFSTOPPED( status_ ) ? WSTOPSIG( status_ ) : 0;
        return signal == SIGSTOP || signal == SIGTRAP ? 0 : signal & 0x7f;
    }
    __ptrace_syscall_info callInfo() const {
        __ptrace_syscall_info info {};
        if ( ::ptrace( PTRACE_GET_SYSCALL_INFO, pid_, sizeof info, &info ) <= 0 ) {
            throw std::runtime_error( "PTRACE_GET_SYSCALL_INFO failed" );
        }
        return info;
    }
    user_regs_struct get() const {
        user_regs_struct registers {};
        if ( ::ptrace( PTRACE_GETREGS, pid_, nullptr, &registers ) != 0 ) {
            throw std::runtime_error( "PTRACE_GETREGS failed" );
        }
        return registers;
    }
    void set( user_regs_struct& registers ) const {
        if ( ::ptrace( PTRACE_SETREGS, pid_, nullptr, &registers ) != 0 ) {
            throw std::runtime_error( "PTRACE_SETREGS failed" );
        }
    }

    long ptrace( __ptrace_request request, long data ) const {
        return ::ptrace( request, pid_, nullptr, data );
    }
    void go( __ptrace_request how, int signal ) {
        if ( ptrace( how, signal ) != 0 && errno != ESRCH ) { // ESRCH: somebody killed it
            throw std::runtime_error( "ptrace failed, error " + std::to_string( errno ) );
        }
        status_ = wait();
    }
    int wait() const {
        int status = 0;
        if ( ::waitpid( pid_, &status, 0 ) != pid_ ) {
            throw std::runtime_error( "waitpid failed" );
        }
        return status;
    }

    pid_t pid_ = 0;
    int status_ = 0;
    bool inCall_ = false; // between the two stops of a call
    long number_ = -1;
    std::uint64_t arguments_[ 6 ] = {};
};

} // namespace QelKrellTest
