// A root directory for collection files that lives as long as the benchmark.

#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace Bench {

// In memory, or where BENCH_DIR says.
class ScratchRoot {
public:
    ScratchRoot() {
        const char* const parent = getenv( "BENCH_DIR" );
        path_ = std::string( parent ? parent : "/dev/shm" ) + "/qelkrell-bench-XXXXXX";
        if ( !mkdtemp( path_.data() ) ) {
            throw std::system_error( errno, std::generic_category(), path_ );
        }
        setenv( "KRELL_ROOT", path_.c_str(), 1 );
    }
    ~ScratchRoot() {
        std::error_code ignored;
        std::filesystem::remove_all( path_, ignored );
    }
    ScratchRoot( const ScratchRoot& ) = delete;
    ScratchRoot& operator=( const ScratchRoot& ) = delete;

private:
    std::string path_;
};

} // namespace Bench
