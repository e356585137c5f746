// The libraries' exceptions as Python's.

#pragma once

#include <pybind11/pybind11.h>

namespace QelKrellPython {

// Makes a Python exception for each of theirs, under its name, in the module; `Error` is the base
// of all. Where Python has a usual one, that is a base too: RangeException is a ValueError.
void addErrors( pybind11::module_& module );

} // namespace QelKrellPython
