#include "mount/Plant.h"

namespace MountBench {

namespace {

const Qel::Unit< Reading, Limit, Plant > unit( "mount bench" );

} // namespace

} // namespace MountBench
