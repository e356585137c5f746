// -*- C++ -*-
// The file that carries a writer's lock: the lock and the text as the system has them. Private to
// WriterLock, which alone may open and close the file.

#pragma once

#include <string>

#include <fcntl.h>

#include <Krell/Fd>
#include <Krell/Owner>
#include <Krell/Reigns>

namespace Krell::LockFile {

// A range for fcntl: all that there is and can be, to be written.
struct flock wholeFile();

// A lock that stands in the way of ours.
struct Blocker {
    pid_t holder = 0; // 0: there is none; WriterLock::unknownHolder_
    U64 reign = 0;    // 0: not numbered
};
// `path` is for messages, here and below.
Blocker blocker( const Fd& file, const std::string& path );

// The first bytes, at most so many; empty when they cannot be read.
std::string beginning( const Fd& file, std::size_t size );
Owner ownerIn( const Fd& file );
// Of a lock that another process holds.
Reigns reignsIn( const Fd& file, const std::string& path );

// Both throw as throwSystemFailure does; a part may be written then.
void writeFromStart( const Fd& file, const std::string& text, const std::string& path );
// In place of what stands there. What is left of a longer text does no harm meanwhile: of each key
// the first line counts.
void writeWhole( const Fd& file, const std::string& text, const std::string& path );

} // namespace Krell::LockFile
