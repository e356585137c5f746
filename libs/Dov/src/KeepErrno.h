// -*- C++ -*-
#pragma once

#include <cerrno>

namespace Dov {

// Puts errno back as it was.
class KeepErrno {
public:
    KeepErrno() = default;
    ~KeepErrno() { errno = kept_; }
    KeepErrno( const KeepErrno& ) = delete;
    KeepErrno& operator=( const KeepErrno& ) = delete;

private:
    const int kept_ = errno;
};

} // namespace Dov
