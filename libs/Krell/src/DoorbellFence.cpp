#include <Krell/DoorbellFence>

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Krell {

namespace {

bool call( int command ) noexcept { return ::syscall( SYS_membarrier, command, 0, 0 ) == 0; }

} // namespace

bool DoorbellFence::enlist() noexcept { return call( MEMBARRIER_CMD_REGISTER_GLOBAL_EXPEDITED ); }

bool DoorbellFence::forAll() noexcept { return call( MEMBARRIER_CMD_GLOBAL_EXPEDITED ); }

} // namespace Krell
