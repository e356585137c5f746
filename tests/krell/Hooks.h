// What the collection library's tests give it in place of an embedding program: a debug handler
// that records, and timers, descriptors and watches that fire when a test says so.

#pragma once

#include <cerrno>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <Krell/Platform>
#include <Qel/Trace>

namespace KrellTest {

class RecordingDebugHandler : public Krell::Platform::DebugHandler {
public:
    struct Line {
        std::string text;
        int level;
        bool operator==( const Line& ) const = default;
    };

    bool enabled( int level ) override {
        errno = EIO; // a handler may leave anything there
        return allLevels || levels.contains( level );
    }
    void dump( const std::stringstream& text, int level ) override {
        lines.push_back( { text.str(), level } );
    }

    bool allLevels = false;
    std::set< int > levels;
    std::vector< Line > lines;
};

// A timer that is over when the test says so.
class TestTimer : public Krell::Platform::TimerControl {
public:
    explicit TestTimer( Krell::Platform::TimeoutHandler* handler );
    ~TestTimer() override;
    void setTimeout( double seconds ) override;
    void delTimeout() override { armed = false; }
    // As the clock would: once for each time that was set.
    void fire();

    Krell::Platform::TimeoutHandler* const handler;
    bool armed = false;
    double seconds = 0; // last set
};

class TestFd : public Krell::Platform::FdControl {
public:
    explicit TestFd( Krell::Platform::FdEventHandler* handler );
    ~TestFd() override;
    void setFd( int fd ) override { watched = fd; }
    void delFd() override { watched = -1; }
    int getFd() const override { return watched; }
    void fire() { handler->fdEvent( watched ); }

    Krell::Platform::FdEventHandler* const handler;
    int watched = -1;
};

class TestWatch : public Krell::Platform::InotifyControl {
public:
    explicit TestWatch( Krell::Platform::InotifyHandler* handler );
    ~TestWatch() override;
    void setWatch( const std::string& path ) override { watched = path; }
    void delWatch() override { watched.clear(); }
    std::string getWatch() const override { return watched; }

    Krell::Platform::InotifyHandler* const handler;
    std::string watched;
};

// The controls that live at present, oldest first.
std::vector< TestTimer* >& timers();
std::vector< TestFd* >& fds();
std::vector< TestWatch* >& watches();

// Fires every armed timer once; how many there were. Controls may come and go meanwhile.
unsigned fireTimers();

// Levels at which the handlers that the library obtains by name are enabled, and what they dumped.
std::set< int >& namedHandlerLevels();
std::vector< std::string >& namedHandlerLines();

// Records the trace lines that are written while it lives, with their positions.
class TraceRecorder {
public:
    TraceRecorder();
    ~TraceRecorder();
    TraceRecorder( const TraceRecorder& ) = delete;
    TraceRecorder& operator=( const TraceRecorder& ) = delete;

    // "LEVEL SOURCE:LINE FUNCTION TEXT" of each.
    std::vector< std::string > lines() const;
    std::vector< Qel::TraceRecord > records;
};

// A directory of its own under the memory file system, removed with what is in it at the end, and
// named as the root of the collection files while it lives.
class TestRoot {
public:
    TestRoot();
    ~TestRoot();
    TestRoot( const TestRoot& ) = delete;
    TestRoot& operator=( const TestRoot& ) = delete;

    const std::string& path() const { return path_; }
    std::string operator/( const std::string& name ) const { return path_ + "/" + name; }

private:
    std::string path_;
    std::string former_; // that stands again afterwards
};

// The bytes of a file, and a file of those bytes.
std::string bytesOf( const std::string& path );
void bytesInto( const std::string& path, const std::string& bytes );
// Permission bits of what stands there; -1 when nothing does.
int modeOf( const std::string& path );

// Runs `body` in a forked child and returns its exit status: what `body` returns, or 128 + the
// signal that ended it.
int inChild( const std::function< int() >& body );

// A forked child that runs `body`, then reports and waits for the test. A child that
// does not get to the report fails the construction with an exception.
class Child {
public:
    explicit Child( const std::function< bool() >& body );
    ~Child();
    Child( const Child& ) = delete;
    Child& operator=( const Child& ) = delete;

    pid_t pid() const { return pid_; }
    // What `body` returned.
    bool result() const { return result_; }
    // Ends it by that signal and waits until it is gone.
    void kill( int signal );
    // Lets it end by itself, with the destructors of `body`'s captures not run.
    void finish();

private:
    void wait();

    pid_t pid_ = 0;
    int toChild_ = -1;
    bool result_ = false;
};

} // namespace KrellTest
