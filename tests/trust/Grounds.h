// A root directory that is the owner's, a collection in it, and what stands outside of the root.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "trust/Table.h"
#include "trust/Users.h"

namespace TrustTest {

// What stands at and below a path: of each name its kind, rights, owner, size and a hash of the
// bytes. Equal pictures: nothing was changed.
inline std::string pictureOf( const std::string& path ) {
    namespace fs = std::filesystem;
    constexpr off_t wholeUpTo = 64 << 20;
    struct stat status;
    if ( lstat( path.c_str(), &status ) != 0 ) {
        return path + " is missing\n";
    }
    std::ostringstream text;
    text << path << ' ' << std::oct << status.st_mode << ' ' << status.st_uid << ':'
         << status.st_gid << ' ' << ( S_ISDIR( status.st_mode ) ? 0 : status.st_size );
    if ( S_ISREG( status.st_mode ) && status.st_size <= wholeUpTo ) {
        std::ifstream file( path, std::ios::binary );
        const std::string bytes( std::istreambuf_iterator< char >( file ), {} );
        text << ' ' << std::hash< std::string >()( bytes );
    }
    text << '\n';
    if ( S_ISDIR( status.st_mode ) ) {
        std::map< std::string, int > names; // in order
        for ( const auto& entry : fs::directory_iterator( path ) ) {
            names[ entry.path() ] = 0;
        }
        for ( const auto& [ name, zero ] : names ) {
            text << pictureOf( name );
        }
    }
    return text.str();
}

class Grounds {
public:
    static constexpr U64 entries = 20;

    // Every directory from the root on gets that mode.
    explicit Grounds( mode_t directories ) : mode_( directories ) {
        char name[] = "/dev/shm/qelkrell-trust-XXXXXX";
        EXPECT_NE( mkdtemp( name ), nullptr );
        top_ = name;
        EXPECT_EQ( chmod( name, 0755 ), 0 );
        makeDirectory( root(), directories );
        makeDirectory( outside(), 0755 );
        setenv( "KRELL_ROOT", root().c_str(), 1 );
    }
    ~Grounds() {
        unsetenv( "KRELL_ROOT" );
        std::error_code ignored;
        std::filesystem::remove_all( top_, ignored );
    }
    Grounds( const Grounds& ) = delete;
    Grounds& operator=( const Grounds& ) = delete;

    std::string root() const { return top_ + "/root"; }
    std::string outside() const { return top_ + "/outside"; }
    std::string collection() const { return root() + "/" + place; }
    std::string file( const std::string& name ) const { return collection() + "/" + name; }

    // The owner fills the collection as of that round, and lets it go.
    void fill( U64 round ) const {
        asOwner( [ round ] { fillTable( round ); } );
    }
    static void fillTable( U64 round ) {
        Table table;
        table.as( QelKrell::writer );
        for ( U64 key = 0; key < entries; ++key ) {
            table.put( key, round );
        }
    }
    void asOwner( const std::function< void() >& body ) const {
        const auto quietly = [ & ] {
            body();
            return std::string();
        };
        EXPECT_EQ( asUser( owner, quietly ), "" );
        setDirectories();
    }
    void setDirectories() const {
        namespace fs = std::filesystem;
        for ( const auto& entry : fs::recursive_directory_iterator( root() ) ) {
            if ( entry.is_directory() && !entry.is_symlink() ) {
                EXPECT_EQ( chmod( entry.path().c_str(), mode_ ), 0 );
            }
        }
    }
    static void makeDirectory( const std::string& path, mode_t mode ) {
        EXPECT_EQ( mkdir( path.c_str(), mode ), 0 );
        EXPECT_EQ( chown( path.c_str(), owner.uid, owner.gid ), 0 );
        EXPECT_EQ( chmod( path.c_str(), mode ), 0 );
    }
    static void makeFile( const std::string& path, const std::string& bytes, mode_t mode ) {
        std::ofstream( path, std::ios::binary ) << bytes;
        EXPECT_EQ( chown( path.c_str(), owner.uid, owner.gid ), 0 );
        EXPECT_EQ( chmod( path.c_str(), mode ), 0 );
    }

private:
    const mode_t mode_;
    std::string top_;
};

} // namespace TrustTest
