// Runs a target over files: test-fuzz-NAME FILE-OR-DIRECTORY... A finding ends the process, and the
// last line says in which file.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "Fuzzing.h"

namespace {

using Path = std::filesystem::path;

std::vector< Path > filesAt( const Path& path ) {
    std::vector< Path > files;
    if ( std::filesystem::is_directory( path ) ) {
        for ( const auto& entry : std::filesystem::directory_iterator( path ) ) {
            files.push_back( entry.path() );
        }
        std::sort( files.begin(), files.end() );
    } else {
        files.push_back( path );
    }
    return files;
}

// The file is closed before the target runs, which may count what is open.
bool read( const Path& path, std::vector< char >& bytes ) {
    std::ifstream file( path, std::ios::binary );
    bytes.assign( std::istreambuf_iterator< char >( file ), {} );
    return bool( file );
}

bool replay( const Path& path ) {
    std::vector< char > bytes;
    if ( !read( path, bytes ) ) {
        std::fprintf( stderr, "cannot read %s\n", path.c_str() );
        return false;
    }
    std::fprintf( stderr, "%s\n", path.c_str() );
    LLVMFuzzerTestOneInput( reinterpret_cast< const std::uint8_t* >( bytes.data() ), bytes.size() );
    return true;
}

} // namespace

int main( int argc, char** argv ) {
    std::size_t done = 0;
    for ( int i = 1; i < argc; ++i ) {
        for ( const Path& file : filesAt( argv[ i ] ) ) {
            if ( !replay( file ) ) {
                return 1;
            }
            ++done;
        }
    }
    std::fprintf( stderr, "%zu inputs, no finding\n", done );
    return done > 0 ? 0 : 1;
}
