#include <Krell/RootPath>

#include <algorithm>
#include <cstdlib>

#include <Krell/Directory>
#include <Krell/WriterLock>

namespace Krell {

namespace {

std::string withoutTrailingSlashes( std::string path ) {
    while ( path.size() > 1 && path.back() == '/' ) {
        path.pop_back();
    }
    return path;
}

bool isCollectionFile( const std::string& file ) {
    const auto& names = RootPath::collectionFiles_;
    return std::any_of( names.begin(), names.end(), [ & ]( const char* name ) {
        return file == name || Directory::isTemporary( file, name );
    } );
}

} // namespace

std::string RootPath::root() {
    const char* set = std::getenv( environmentVariable_ );
    const std::string path = set ? set : defaultRoot_;
    try {
        Directory::checkPath( path );
    } catch ( const InvalidInitializeException& e ) {
        throw InvalidInitializeException( std::string( "the environment variable " ) +
                                          environmentVariable_ + ": " + e.msg() );
    }
    return withoutTrailingSlashes( path );
}

RootPath::RootPath( Platform::DebugHandler& handler, const std::string& name, bool create )
    : handler_( handler ) {
    const bool absolute = !name.empty() && name[ 0 ] == '/';
    const std::string top = absolute ? std::string() : root();
    directory_ = withoutTrailingSlashes( absolute       ? name
                                         : name.empty() ? top
                                         : top == "/"   ? top + name
                                                        : top + "/" + name );
    Directory::checkPath( directory_ );
    ready_ = ( create ? Directory::create( directory_ ) : Directory::open( directory_ ) ).isOpen();
    trace( 5, "RootPath::RootPath() directory: " + directory_ +
                  ( ready_ ? " ready" : " is missing" ) );
}

std::string RootPath::fullPath( const std::string& name ) const {
    return name.empty()        ? directory_
           : directory_ == "/" ? directory_ + name
                               : directory_ + "/" + name;
}

bool RootPath::exists() const { return Directory::open( directory_ ).isOpen(); }

void RootPath::removeFile( const std::string& name ) {
    Directory::checkName( name );
    const Directory directory = Directory::open( directory_ );
    if ( directory.isOpen() && directory.remove( name ) ) {
        trace( 5, "RootPath::removeFile() removed " + directory.pathOf( name ) );
    }
}

void RootPath::cleanup() {
    const Directory directory = Directory::open( directory_ );
    if ( !directory.isOpen() ) {
        return;
    }
    std::vector< std::string > files = directory.names();
    const bool hasLockFile = std::count( files.begin(), files.end(), WriterLock::fileName_ ) > 0;
    std::erase_if( files, []( const std::string& file ) { return !isCollectionFile( file ); } );
    if ( hasLockFile || !files.empty() ) {
        WriterLock lock;
        if ( !lock.tryLock( directory ) ) {
            throw DuplicateWriterException(
                WriterLock::refusalText( directory, lock.holder(), lock.owner() ),
                U32( std::max< pid_t >( lock.holder(), 0 ) ) );
        }
        for ( const std::string& file : files ) {
            directory.remove( file );
        }
        directory.remove( WriterLock::fileName_ );
        trace( 5, "RootPath::cleanup() removed the collection files of " + directory_ );
    }
    Directory::removeEmpty( directory_ );
}

void RootPath::trace( int level, const std::string& text ) const {
    if ( handler_.enabled( level ) ) {
        std::stringstream stream;
        stream.precision( 12 );
        stream << text;
        handler_.dump( stream, level );
    }
}

} // namespace Krell
