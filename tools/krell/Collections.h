// The collections below a root directory, as their files show them: nothing is written, no lock is
// taken, no writer is called.

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Krell/ReaderTable>
#include <Krell/WriterLock>

namespace KrellTool {

using Qel::U32;
using Qel::U64;

// One collection's directory.
struct Place {
    std::string path;   // below the root, with "/" before each component
    std::string entity; // the path without the last component
    std::string name;   // the last component
    std::string directory;
};

// Below `path` of the root, sorted. A path that is none: nothing.
//   errors  RuntimeException naming a directory that cannot be read, unless `unreadable` takes it
std::vector< Place > placesBelow(
    const std::string& path, const std::function< void( const std::string& why ) >& unreadable );

// What a collection's files say at an instant.
struct Facts {
    Place place;
    bool readable = false; // the fields from `layout` on say something
    std::string problem;   // why not
    bool absent = false;   // it is not: there are no contents, as after a clean-up

    Krell::Owner owner; // who wrote last
    pid_t writer = 0;   // who writes: 0 nobody, WriterLock::unknownHolder_ not to be told
    U64 reigns = 0;     // how often it was written
    bool isMarkedCorrupt = false;

    Krell::Layout layout;
    U32 fenix = 0;
    U32 entries = 0;
    U32 capacity = 0;
    U64 sequence = 0;
    U64 bytes = 0;        // of its files
    bool isInUse = false; // a writer has it open, or died with it
};
Facts factsOf( const Place& place );

// A collection that is read through its stored layout.
class Contents {
public:
    // Krell::Exception when it cannot be read.
    explicit Contents( const Place& place );

    const Krell::Layout& layout() const { return segments_->layout(); }
    Krell::Segments& segments() { return *segments_; }
    Krell::ReaderTable& table() { return table_; }
    const Krell::ReaderTable& table() const { return table_; }
    // f( key, value ), words in their fixed-width form, for each entry, until it returns false.
    void forEach( const std::function< bool( const U64* key, const U64* value ) >& f );

private:
    std::unique_ptr< Krell::Segments > segments_;
    Krell::ReaderTable table_;
};

// The root directory of all collections.
std::string rootDirectory();
// What a user may say: below the root with or without "/" before it, or absolute. Without "/" at
// the end.
std::string pathBelowRoot( const std::string& said );

} // namespace KrellTool
