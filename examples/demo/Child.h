// A child process of the demo, and the lines that it prints.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace Demo {

class Child {
public:
    // Starts the program with its standard output in a pipe. std::system_error when it cannot.
    explicit Child( const std::string& program );
    // Kills the child if it still runs.
    ~Child();
    Child( const Child& ) = delete;
    Child& operator=( const Child& ) = delete;

    void signal( int number ) const;
    // Waits for the end; the exit status, or 128 and the signal's number.
    int wait();
    // What to wait on for more output; -1 once there is no more.
    int output() const { return output_; }
    // Reads what is there, waiting for something; each whole line is printed and kept as the last.
    void showSome();
    // The last line that begins with `start`, without that; empty when there was none.
    std::string said( const std::string& start ) const;

private:
    pid_t pid_ = -1;
    int output_ = -1;
    std::string partial_;
    std::vector< std::string > lines_;
};

// Shows the children's lines as they come, until `done()`, no child has more to say, or the time is
// over.
void show( const std::vector< Child* >& children,
           double seconds,
           const std::function< bool() >& done );

} // namespace Demo
