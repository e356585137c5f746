// The search for mounted entities over a tree of files, against a plain recursive walk of the same
// tree.
//
// Input: lines. One that begins with a letter below makes something below the manager's directory,
// any other is a path that is searched for, behind its first character.
//
//     d PATH   a directory and those above it       l PATH   a symbolic link, to what its length
//     f PATH   a file in one                                 says
//     p PATH   a pipe                                m PATH   a file "corruption-detected" in it

#include <fstream>
#include <set>

#include <sys/stat.h>

#include "Site.h"

namespace {

using namespace QelKrellFuzz;
using Names = std::set< std::string >;
using Path = std::filesystem::path;

constexpr unsigned mostLines = 100;
const char* const linkTargets[] = { ".", "a", "a/b", "nowhere" }; // none leads upwards

// Whether no component leads upwards: nothing is made outside the tree.
bool isBelow( const std::string& path ) {
    return ( "/" + path + "/" ).find( "/../" ) == std::string::npos &&
           path.find( '\0' ) == std::string::npos;
}

void make( char kind, const std::string& tree, const std::string& path ) {
    if ( !isBelow( path ) ) {
        return;
    }
    const Path whole = tree + "/" + path;
    std::error_code refused;
    std::filesystem::create_directories( kind == 'd' || kind == 'm' ? whole : whole.parent_path(),
                                         refused );
    if ( kind == 'f' || kind == 'm' ) {
        std::ofstream( kind == 'm' ? whole / "corruption-detected" : whole ) << "x";
    } else if ( kind == 'l' ) {
        std::filesystem::create_symlink( linkTargets[ path.size() % std::size( linkTargets ) ],
                                         whole, refused );
    } else if ( kind == 'p' ) {
        static_cast< void >( ::mkfifo( whole.c_str(), 0600 ) );
    }
}

bool marksCollection( const std::filesystem::directory_entry& entry ) {
    return entry.symlink_status().type() == std::filesystem::file_type::regular &&
           entry.path().filename() != "corruption-detected";
}

// What is to be found below a directory that stands at `path` in the names; whether the directory
// itself is a collection's. Symbolic links in it are passed over.
bool walk( const std::string& root, const std::string& path, Names& found ) {
    bool isCollection = false;
    for ( const auto& entry : std::filesystem::directory_iterator( root + path ) ) {
        if ( marksCollection( entry ) ) {
            isCollection = true;
        } else if ( entry.symlink_status().type() == std::filesystem::file_type::directory &&
                    walk( root, path + "/" + entry.path().filename().string(), found ) ) {
            found.insert( path );
        }
    }
    return isCollection;
}

Names foundNames() {
    const auto counts = QelKrell::krellEntitiesFactory( "KrellEntities" );
    Names names;
    for ( const Qel::String& name : counts->names() ) {
        demand( counts->count( name ) == 1, "a count that is not 1" );
        names.insert( name.stdString() );
    }
    return names;
}

std::string withoutSlashes( std::string path ) {
    path.erase( 0, path.starts_with( '/' ) ? 1 : 0 );
    while ( path.ends_with( '/' ) ) {
        path.pop_back();
    }
    return path;
}

void search( const Root& root, const QelKrell::Mount& mount, const std::string& path ) {
    QelKrell::krellEntitiesFactory( "KrellEntities" )->countDelAll();
    const std::string below = withoutSlashes( path );
    const std::string top = "/sys/Krell" + ( below.empty() ? below : "/" + below );
    bool refused = !isBelow( below );
    Names wanted;
    std::error_code error;
    if ( !refused ) {
        const std::filesystem::directory_iterator entries( root.path() + top, error );
        const bool absent = error == std::errc::no_such_file_or_directory;
        refused = ( error && !absent ) || ( !error && walk( root.path(), top, wanted ) );
    }
    const bool done = answers( [ & ] { mount.find( path ); } );
    demand( done != refused, ( done ? "found nothing wrong with " : "refused " ) + path );
    const Names found = foundNames();
    demand( std::includes( wanted.begin(), wanted.end(), found.begin(), found.end() ),
            "found what is not there: " + path );
    demand( !done || found == wanted, "did not find what is there: " + path );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const Root root;
    const Site site( root, true );
    std::filesystem::create_directories( root / "sys/Krell" );
    Input input( data, size );
    for ( unsigned i = 0; i < mostLines && !input.atEnd(); ++i ) {
        const std::string line = input.line();
        const char kind = line.empty() ? ' ' : line[ 0 ];
        const std::string path = line.substr( std::min< std::size_t >( 1, line.size() ) );
        if ( kind != '\0' && std::strchr( "dflpm", kind ) ) {
            make( kind, root / "sys/Krell", path );
        } else {
            search( root, site.mount, path );
        }
    }
    return 0;
}
