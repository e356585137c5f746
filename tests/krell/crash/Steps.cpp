#include "krell/crash/Steps.h"

#include <filesystem>

#include "Tracer.h"

namespace KrellTest {

namespace fs = std::filesystem;

Files filesIn( const std::string& directory ) {
    Files files;
    if ( fs::is_directory( directory ) ) {
        for ( const auto& entry : fs::directory_iterator( directory ) ) {
            if ( entry.is_regular_file() ) {
                files[ entry.path().filename() ] = bytesOf( entry.path() );
            }
        }
    }
    return files;
}

void filesInto( const Files& files, const std::string& directory ) {
    fs::create_directories( directory );
    for ( const auto& [ name, bytes ] : files ) {
        bytesInto( directory + "/" + name, bytes );
    }
}

Steps stepThrough( const std::string& directory,
                   const std::function< void() >& prepare,
                   const std::function< void() >& body,
                   const std::function< bool( const Files& ) >& check,
                   U64 every,
                   U64 first ) {
    Steps steps;
    QelKrellTest::Tracer child( prepare, body );
    steps.allowed = child.allowed();
    if ( !child.stopped() ) {
        return steps;
    }
    Files files;
    bool checked = false;
    do {
        if ( steps.instructions++ % every != first % every ) {
            continue;
        }
        Files now = filesIn( directory );
        if ( checked && now == files ) {
            continue;
        }
        files = std::move( now );
        checked = true;
        ++steps.states;
        if ( !check( files ) ) {
            return steps;
        }
    } while ( child.step() );
    steps.ended = child.stopped();
    return steps;
}

} // namespace KrellTest
