// krell doctor: what is wrong with collections, and what to do about it.

#include <filesystem>
#include <iostream>
#include <map>
#include <set>

#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include <Krell/Directory>
#include <Krell/Incarnation>
#include <Krell/Util>

#include "Commands.h"

namespace KrellTool {

using nlohmann::json;
namespace fs = std::filesystem;

namespace {

enum class Severity { note, warning, error };
const char* nameOf( Severity severity ) {
    static constexpr const char* names[] = { "note", "warning", "error" };
    return names[ int( severity ) ];
}

struct Finding {
    Severity severity;
    std::string path;
    std::string what;
    std::string advice;
};

class Examination {
public:
    void examine( const Facts& facts ) {
        contents( facts );
        writer( facts );
        rights( facts );
        files( facts );
        if ( facts.readable ) {
            layouts_[ facts.layout.entityType + " " + facts.place.name ].push_back( facts );
        }
    }
    // Of one entity type, all collections of a name should have one layout.
    void compareLayouts() {
        for ( const auto& [ name, all ] : layouts_ ) {
            for ( const Facts& facts : all ) {
                const std::string differences = facts.layout.differences( all.front().layout );
                if ( !facts.layout.sameAs( all.front().layout ) ) {
                    add( Severity::warning, facts,
                         "its layout is not that of " + all.front().place.path +
                             ( differences.empty() ? "" : " (" + differences + ")" ),
                         "programs of two versions write this type: start those of the older one "
                         "anew with the newer types" );
                }
            }
        }
    }
    void unreadable( const std::string& why ) {
        findings_.push_back( { Severity::warning, "", why, "look as a user who may read it" } );
    }
    const std::vector< Finding >& findings() const { return findings_; }

private:
    void add( Severity severity,
              const Facts& facts,
              const std::string& what,
              const std::string& advice ) {
        findings_.push_back( { severity, facts.place.path, what, advice } );
    }

    void contents( const Facts& facts ) {
        if ( facts.isMarkedCorrupt ) {
            add( Severity::error, facts, "a reader found the contents corrupt and marked them so",
                 "start its writer anew: it begins an empty incarnation" );
        } else if ( !facts.readable && !facts.absent ) {
            add( Severity::error, facts, facts.problem,
                 "if another version of the library wrote it, use that one; else start its writer "
                 "anew, which begins an empty incarnation when it cannot use what is there" );
        } else if ( facts.absent && facts.writer == 0 ) {
            add( Severity::note, facts, "it has no contents, and nobody writes it",
                 "nothing, or remove the directory when no program mounts it any more" );
        }
    }
    void writer( const Facts& facts ) {
        const std::string boot = Krell::Util::bootId();
        const bool isOld = !facts.owner.bootId.empty() && facts.owner.bootId != boot;
        if ( facts.readable && facts.isInUse && facts.writer == 0 ) {
            add( isOld ? Severity::warning : Severity::note, facts,
                 "its writer, " + facts.owner.description() + ", ended without unmounting" +
                     ( isOld ? ", before the machine was started" : "" ),
                 isOld ? "start its writer: it begins an empty incarnation"
                       : "start its writer: it takes over what is there" );
        }
    }
    void rights( const Facts& facts ) {
        struct stat status;
        if ( ::stat( facts.place.directory.c_str(), &status ) != 0 ) {
            return;
        }
        if ( status.st_mode & S_IWOTH ) {
            add( Severity::error, facts, "everybody may write to its directory",
                 "chmod o-w " + facts.place.directory );
        } else if ( status.st_mode & S_IWGRP ) {
            add( Severity::warning, facts, "its group may write to its directory",
                 "chmod g-w " + facts.place.directory );
        }
        for ( const char* name : { "slots", "buckets", "conquer.1", "conquer.2" } ) {
            const std::string path = facts.place.directory + "/" + name;
            if ( ::lstat( path.c_str(), &status ) != 0 ) {
                continue;
            }
            if ( !S_ISREG( status.st_mode ) || status.st_nlink > 1 ) {
                add( Severity::error, facts, path + " is a link, or not a file",
                     "find out who put it there, and remove it" );
            } else if ( status.st_mode & ( S_IWGRP | S_IWOTH ) ) {
                add( Severity::error, facts, "others than its user may write to " + path,
                     "chmod go-w " + path );
            }
        }
    }
    void files( const Facts& facts ) {
        static const std::set< std::string > known { "slots",     "buckets",
                                                     "conquer.1", "conquer.2",
                                                     "fenix",     "last-owner",
                                                     "doorbell",  Krell::Incarnation::markerFile_ };
        std::error_code none;
        for ( const auto& entry : fs::directory_iterator( facts.place.directory, none ) ) {
            const std::string name = entry.path().filename().string();
            if ( known.contains( name ) ) {
                continue;
            }
            const bool isTemporary =
                std::any_of( known.begin(), known.end(), [ & ]( const auto& of ) {
                    return Krell::Directory::isTemporary( name, of );
                } );
            if ( !isTemporary ) {
                add( Severity::warning, facts, name + " is none of its files", "remove it" );
            } else if ( facts.writer == 0 ) {
                add( Severity::note, facts, name + " was left by a writer that died",
                     "nothing: the next writer removes it" );
            }
        }
    }

    std::vector< Finding > findings_;
    std::map< std::string, std::vector< Facts > > layouts_;
};

void print( const std::vector< Finding >& findings, std::size_t collections ) {
    for ( const Finding& finding : findings ) {
        std::cout << nameOf( finding.severity ) << ": " << finding.path
                  << ( finding.path.empty() ? "" : ": " ) << finding.what << "\n    "
                  << finding.advice << "\n";
    }
    std::cout << collections << " collections, " << findings.size() << " findings\n";
}

void printJson( const std::vector< Finding >& findings ) {
    json out = json::array();
    for ( const Finding& finding : findings ) {
        out.push_back( { { "severity", nameOf( finding.severity ) },
                         { "path", finding.path },
                         { "what", finding.what },
                         { "advice", finding.advice } } );
    }
    std::cout << out.dump( 2 ) << "\n";
}

} // namespace

// 1 when something is wrong that does not mend itself.
int doctor( const Options& options ) {
    Examination examination;
    const auto places = placesBelow(
        options.path, [ & ]( const std::string& why ) { examination.unreadable( why ); } );
    if ( places.empty() && !options.path.empty() ) {
        throw Error( "there is no collection at or below " + rootDirectory() + options.path );
    }
    for ( const Place& place : places ) {
        examination.examine( factsOf( place ) );
    }
    examination.compareLayouts();
    const auto& findings = examination.findings();
    if ( options.json ) {
        printJson( findings );
    } else {
        print( findings, places.size() );
    }
    return std::any_of( findings.begin(), findings.end(),
                        []( const Finding& f ) { return f.severity != Severity::note; } )
               ? 1
               : 0;
}

} // namespace KrellTool
