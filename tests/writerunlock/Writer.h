// Writers in processes of their own.

#pragma once

#include <string>

#include <sys/types.h>

namespace QelKrellTest {

// A child process that locks a collection's directory, making it when it is missing, and does as it
// is told. Every call returns when the child has done it. Killed and reaped by the destructor.
class Writer {
public:
    enum Start { atOnce, whenFree };
    enum Manner { silent, listening }; // without and with a doorbell, from its locking on

    // `whenFree`: the child waits for a lock that is held; started() waits for the child.
    explicit Writer( const std::string& directory, Start start = atOnce, Manner manner = silent );
    Writer( const std::string& directory, Manner manner ) : Writer( directory, atOnce, manner ) {}
    ~Writer();
    Writer( const Writer& ) = delete;
    Writer& operator=( const Writer& ) = delete;

    pid_t pid() const noexcept { return pid_; }
    // Waits until it holds the lock.
    void started();

    void release();     // the lock; the process lives on
    void lockAgain();   // after release(), in its manner
    void listen();      // opens a doorbell
    void hangUp();      // closes it, and keeps the lock
    void turn();        // of its event loop, until there is nothing to do
    void cleanup();     // after release(): removes the collection's files
    void becomeOther(); // execs a program that knows nothing of locks
    // Forks a process that shares its descriptors and stays until the writer object goes;
    // cloneChild() does so by a bare system call.
    void forkChild();
    void cloneChild();
    void exit();
    void kill(); // SIGKILL

private:
    void run( const std::string& directory, Start start );
    void lock();
    void obey( char command );
    void stay();
    void order( char command );
    void tell( char command );
    void answer( char c );
    void expectAnswer( char c );
    void reap();

    Manner manner_;
    pid_t pid_ = -1;
    int commands_ = -1; // to the child; in the child: from the parent
    int answers_ = -1;  // from the child; in the child: to the parent
};

} // namespace QelKrellTest
