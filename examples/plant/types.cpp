// The types by name: linked into the programs beside, and a library of its own that others load.

#include <Qel/TypeLibrary>

#include "Plant.h"

QEL_TYPES( "power", Reading, Pump, Plant );
