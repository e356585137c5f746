#include <Qel/TypeLibrary>

#include <cerrno>
#include <cstring>
#include <map>
#include <string_view>

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Qel {

namespace {

constexpr const char* sectionName = ".qel.type";
constexpr std::size_t mostBytes = 1 << 20; // of a section that is read

// A shared library's file, with every read inside of it.
class ElfFile {
public:
    explicit ElfFile( const std::string& path ) : path_( path ) {
        fd_ = ::open( path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY );
        struct stat status;
        if ( fd_ < 0 || ::fstat( fd_, &status ) != 0 ) {
            const int reason = errno;
            close();
            throw SystemException( String( "open " ) + path_.c_str() + ": " +
                                   std::strerror( reason ) );
        }
        size_ = S_ISREG( status.st_mode ) ? U64( status.st_size ) : 0;
    }
    ~ElfFile() { close(); }
    ElfFile( const ElfFile& ) = delete;
    ElfFile& operator=( const ElfFile& ) = delete;

    std::string section() {
        unsigned char ident[ EI_NIDENT ] {};
        if ( size_ < sizeof ident ) {
            refuse( "is no shared library" );
        }
        read( 0, ident, sizeof ident );
        if ( std::memcmp( ident, ELFMAG, SELFMAG ) != 0 || ident[ EI_DATA ] != ELFDATA2LSB ) {
            refuse( "is no shared library" );
        }
        switch ( ident[ EI_CLASS ] ) {
        case ELFCLASS32:
            return sectionOf< Elf32_Ehdr, Elf32_Shdr >();
        case ELFCLASS64:
            return sectionOf< Elf64_Ehdr, Elf64_Shdr >();
        default:
            refuse( "is no shared library" );
        }
    }
    [[noreturn]] void refuse( const char* why ) const {
        throw RangeException( String( path_.c_str() ) + " " + why );
    }

private:
    void close() noexcept {
        if ( fd_ >= 0 ) {
            ::close( fd_ );
        }
    }
    void read( U64 at, void* to, std::size_t n ) {
        if ( at > size_ || n > size_ - at ) {
            refuse( "is cut off" );
        }
        char* const bytes = static_cast< char* >( to );
        for ( std::size_t got = 0; got < n; ) {
            const ssize_t some = ::pread( fd_, bytes + got, n - got, off_t( at + got ) );
            if ( some == 0 ) {
                refuse( "is cut off" );
            }
            if ( some < 0 && errno != EINTR ) {
                throw SystemException( String( "read " ) + path_.c_str() + ": " +
                                       std::strerror( errno ) );
            }
            got += some > 0 ? std::size_t( some ) : 0;
        }
    }
    std::string readText( U64 at, U64 n ) {
        if ( n > mostBytes ) {
            refuse( "has a section that is too large" );
        }
        std::string text( std::size_t( n ), '\0' );
        read( at, text.data(), text.size() );
        return text;
    }
    template < class Header, class Section >
    std::string sectionOf() {
        Header header;
        read( 0, &header, sizeof header );
        if ( header.e_type != ET_DYN || header.e_shentsize != sizeof( Section ) ||
             header.e_shstrndx >= header.e_shnum ) {
            refuse( "is no shared library" );
        }
        std::vector< Section > sections( header.e_shnum );
        read( header.e_shoff, sections.data(), sections.size() * sizeof( Section ) );
        const Section& nameSection = sections[ header.e_shstrndx ];
        const std::string names = readText( nameSection.sh_offset, nameSection.sh_size );
        std::string found;
        for ( const Section& one : sections ) {
            if ( one.sh_name < names.size() &&
                 std::string_view( names.c_str() + one.sh_name ) == sectionName ) {
                if ( one.sh_type == SHT_NOBITS ) {
                    refuse( "was stripped of its list of types" );
                }
                found += readText( one.sh_offset, one.sh_size );
            }
        }
        return found;
    }

    const std::string path_;
    int fd_ = -1;
    U64 size_ = 0;
};

} // namespace

// The linker may put zeros between the lists of several source files.
std::vector< String > typeNamesIn( const std::string& path ) {
    ElfFile file( path );
    const std::string bytes = file.section();
    std::vector< String > names;
    for ( std::size_t at = 0; at < bytes.size(); ) {
        const std::size_t end = std::min( bytes.find( '\0', at ), bytes.size() );
        if ( end > at ) {
            names.push_back( String( bytes.substr( at, end - at ).c_str() ) );
        }
        at = end + 1;
    }
    if ( names.empty() ) {
        file.refuse( "lists no types: it has no section .qel.type" );
    }
    return names;
}

std::vector< String > loadTypes( const std::string& path ) {
    const std::vector< String > names = typeNamesIn( path );
    // Without "/" the linker would look elsewhere.
    const std::string file = path.find( '/' ) == std::string::npos ? "./" + path : path;
    const RefusedUnits refused;
    void* const library = ::dlopen( file.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE );
    if ( !library ) {
        throw RangeException( String( "cannot load " ) + ::dlerror() );
    }
    // It stays, and its static objects are not made a second time.
    static std::map< void*, String > refusals;
    const String& refusal = refusals.try_emplace( library, refused.first() ).first->second;
    if ( !refusal.empty() ) {
        throw RangeException( String( path.c_str() ) + ": " + refusal );
    }
    for ( const String& name : names ) {
        if ( !QelType::typeNode( name ) ) {
            throw RangeException( String( path.c_str() ) + " lists the type " + name +
                                  ", but does not register it" );
        }
    }
    return names;
}

} // namespace Qel
