// A directory of a test's own, gone with all that is in it when the test ends.

#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include <unistd.h>

namespace QelKrellTest {

class Scratch {
public:
    Scratch() {
        const bool inMemory = access( "/dev/shm", W_OK | X_OK ) == 0;
        const std::filesystem::path parent =
            inMemory ? std::filesystem::path( "/dev/shm" ) : std::filesystem::temp_directory_path();
        std::string pattern = ( parent / "qelkrell-XXXXXX" ).string();
        if ( !mkdtemp( pattern.data() ) ) {
            throw std::system_error( errno, std::generic_category(), "mkdtemp" );
        }
        path_ = pattern;
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all( path_, ignored );
    }
    Scratch( const Scratch& ) = delete;
    Scratch& operator=( const Scratch& ) = delete;

    const std::string& path() const noexcept { return path_; }
    std::string path( const std::string& name ) const { return path_ + "/" + name; }

private:
    std::string path_;
};

} // namespace QelKrellTest
