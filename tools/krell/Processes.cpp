#include "Processes.h"

#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <sys/stat.h>
#include <sys/uio.h>
#include <time.h>
#include <unistd.h>

#include <Krell/DoorbellPage>

namespace KrellTool {

namespace fs = std::filesystem;
using Krell::DoorbellPage;

namespace {

std::string textOf( const std::string& path ) {
    std::ifstream file( path );
    return std::string( std::istreambuf_iterator< char >( file ), {} );
}

std::string commandOf( pid_t pid ) {
    std::string command = textOf( "/proc/" + std::to_string( pid ) + "/comm" );
    if ( !command.empty() && command.back() == '\n' ) {
        command.pop_back();
    }
    return command;
}

// The progress that a reader's page shows, in its own memory.
std::optional< U64 > progressAt( pid_t pid, U64 address ) {
    DoorbellPage page {};
    const iovec here { &page, sizeof page };
    const iovec there { reinterpret_cast< void* >( std::uintptr_t( address ) ), sizeof page };
    if ( ::process_vm_readv( pid, &here, 1, &there, 1, 0 ) != ssize_t( sizeof page ) ) {
        return std::nullopt;
    }
    for ( const DoorbellPage::Line& line : page.lines ) {
        if ( line.mark == DoorbellPage::progressMark_ ) {
            return line.word;
        }
    }
    return std::nullopt;
}

// A line of /proc/PID/maps.
struct Mapping {
    U64 address = 0;
    bool writable = false;
    std::string path;

    explicit Mapping( const std::string& line ) {
        std::from_chars( line.data(), line.data() + line.size(), address, 16 );
        const std::size_t space = line.find( ' ' );
        writable =
            space != std::string::npos && space + 2 < line.size() && line[ space + 2 ] == 'w';
        const std::size_t slash = line.find( '/' );
        path = slash == std::string::npos ? "" : line.substr( slash );
    }
};

// The rest of `text` behind `start`, if it begins so.
std::optional< std::string > behind( const std::string& text, const std::string& start ) {
    return text.rfind( start, 0 ) == 0 ? std::optional( text.substr( start.size() ) )
                                       : std::nullopt;
}

class Scan {
public:
    Scan( const std::string& root, UsersOfAll& users ) : root_( root ), users_( users ) {}

    void look( pid_t pid ) {
        std::ifstream maps( "/proc/" + std::to_string( pid ) + "/maps" );
        std::map< std::string, bool > writable; // by directory
        std::map< std::string, U64 > pages;     // by the end of a doorbell's path
        bool any = false;
        for ( std::string line; std::getline( maps, line ); any = true ) {
            if ( line.find( '/' ) != std::string::npos ) {
                note( Mapping( line ), writable, pages );
            }
        }
        if ( !any &&
             ::access( ( "/proc/" + std::to_string( pid ) + "/maps" ).c_str(), R_OK ) != 0 ) {
            ++users_.hidden;
        }
        for ( const auto& [ directory, writes ] : writable ) {
            add( pid, directory, writes, pages );
        }
    }

private:
    void note( const Mapping& mapping,
               std::map< std::string, bool >& writable,
               std::map< std::string, U64 >& pages ) const {
        const auto file = behind( mapping.path, root_ + "/" );
        const std::size_t slash = mapping.path.rfind( '/' );
        if ( file && mapping.path.substr( slash ) == "/slots" ) {
            bool& writes = writable[ mapping.path.substr( 0, slash ) ];
            writes = writes || mapping.writable;
        } else if ( const auto doorbell =
                        behind( mapping.path, std::string( "/memfd:" ) + DoorbellPage::name_ ) ) {
            if ( mapping.writable ) { // the reader's own; its writer's is not
                pages[ doorbell->substr( 0, doorbell->rfind( " (deleted)" ) ) ] = mapping.address;
            }
        }
    }
    void add( pid_t pid,
              const std::string& directory,
              bool writes,
              const std::map< std::string, U64 >& pages ) {
        Process process { pid, 0, commandOf( pid ) };
        struct stat status;
        if ( ::stat( ( "/proc/" + std::to_string( pid ) ).c_str(), &status ) == 0 ) {
            process.uid = status.st_uid;
        }
        Users& users = users_.byDirectory[ directory ];
        if ( writes ) {
            users.writers.push_back( std::move( process ) );
            return;
        }
        Reader reader { std::move( process ), std::nullopt };
        const std::string doorbell = directory + "/doorbell";
        for ( const auto& [ end, address ] : pages ) {
            if ( doorbell.ends_with( end ) ) {
                reader.consumed = progressAt( pid, address );
            }
        }
        users.readers.push_back( std::move( reader ) );
    }

    const std::string root_;
    UsersOfAll& users_;
};

} // namespace

UsersOfAll usersOfAll( const std::string& root ) {
    UsersOfAll users;
    Scan scan( root, users );
    std::error_code error;
    for ( fs::directory_iterator it( "/proc", error ); !error && it != fs::directory_iterator();
          it.increment( error ) ) {
        const std::string name = it->path().filename().string();
        pid_t pid = 0;
        const auto parsed = std::from_chars( name.data(), name.data() + name.size(), pid );
        if ( parsed.ec == std::errc() && parsed.ptr == name.data() + name.size() &&
             pid != ::getpid() ) {
            scan.look( pid );
        }
    }
    return users;
}

double startOf( pid_t pid ) {
    const std::string stat = textOf( "/proc/" + std::to_string( pid ) + "/stat" );
    const std::size_t end = stat.rfind( ')' );
    std::istringstream rest( end == std::string::npos ? "" : stat.substr( end + 1 ) );
    std::string word;
    for ( int i = 0; i < 20 && rest >> word; ++i ) { // field 22, of which two are before it
    }
    timespec now {};
    timespec sinceBoot {};
    ::clock_gettime( CLOCK_REALTIME, &now );
    ::clock_gettime( CLOCK_BOOTTIME, &sinceBoot );
    if ( word.empty() || end == std::string::npos ) {
        return 0;
    }
    const double ticks = std::stod( word ) / double( ::sysconf( _SC_CLK_TCK ) );
    return double( now.tv_sec - sinceBoot.tv_sec ) + ticks;
}

} // namespace KrellTool
