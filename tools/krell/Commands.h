// The tool's commands. Each prints to standard output and returns the exit status.

#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "Collections.h"
#include "Processes.h"

namespace KrellTool {

struct Options {
    std::string path; // below the root, or empty
    bool json = false;
    std::vector< std::string > types; // libraries
    double seconds = 1;               // between two looks
    bool once = false;
    bool readers = false; // each of them on a line
    unsigned changes = 0; // watch: end after so many; 0: never
};

int tree( const Options& options );
int dump( const Options& options );
int watch( const Options& options );
int top( const Options& options );
int who( const Options& options );
int doctor( const Options& options );
int metrics( const Options& options );

// The collections at and below a path; none is an Error that names it.
std::vector< Facts > factsBelow( const std::string& path );

// What a user asked for and cannot have.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// "NAME (pid 4711, uid 1000)"; "nobody".
std::string writerText( const Facts& facts );
// "3 s", "12 min", "5 h", "17 d".
std::string ageText( double seconds );

} // namespace KrellTool
