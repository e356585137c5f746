// krell metrics: all collections in the text format of Prometheus.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <iostream>

#include "Commands.h"

namespace KrellTool {

namespace {

std::string escaped( const std::string& text ) {
    std::string out;
    for ( const char c : text ) {
        out += c == '\n' ? "\\n" : c == '"' ? "\\\"" : c == '\\' ? "\\\\" : std::string( 1, c );
    }
    return out;
}

std::string label( const char* name, const std::string& value ) {
    return std::string( name ) + "=\"" + escaped( value ) + "\"";
}

std::string labels( const Facts& facts ) {
    return label( "entity", facts.place.entity ) + "," + label( "collection", facts.place.name );
}

void head( const char* name, const char* type, const char* help ) {
    std::cout << "# HELP " << name << " " << help << "\n# TYPE " << name << " " << type << "\n";
}

void line( const char* name, const std::string& labels, double value ) {
    char number[ 40 ];
    std::snprintf( number, sizeof number, "%.17g", value );
    std::cout << name << "{" << labels << "} " << number << "\n";
}

class Metrics {
public:
    explicit Metrics( const std::string& path )
        : users_( usersOfAll( rootDirectory() ) ), all_( factsBelow( path ) ) {}

    void print() const {
        printInfo();
        printContents();
        printWriters();
        printReaders();
        head( "krell_hidden_processes", "gauge", "Processes that could not be looked at." );
        std::cout << "krell_hidden_processes " << users_.hidden << "\n";
    }

private:
    // One line for each collection; none where the value is not a number.
    void each( const char* name,
               const char* type,
               const char* help,
               const std::function< double( const Facts& ) >& value ) const {
        head( name, type, help );
        for ( const Facts& facts : all_ ) {
            const double v = value( facts );
            if ( !std::isnan( v ) ) {
                line( name, labels( facts ), v );
            }
        }
    }
    template < class M >
    static auto ifReadable( M Facts::*member ) {
        return [ member ]( const Facts& facts ) {
            return facts.readable ? double( facts.*member ) : std::nan( "" );
        };
    }
    const std::vector< Reader >& readersOf( const Facts& facts ) const {
        static const std::vector< Reader > none;
        const auto found = users_.byDirectory.find( facts.place.directory );
        return found == users_.byDirectory.end() ? none : found->second.readers;
    }

    void printInfo() const {
        head( "krell_collection_info", "gauge",
              "Types and incarnation of a collection; always 1." );
        for ( const Facts& facts : all_ ) {
            if ( facts.readable ) {
                char fenix[ 16 ];
                std::snprintf( fenix, sizeof fenix, "%08x", facts.fenix );
                line( "krell_collection_info",
                      labels( facts ) + "," + label( "entity_type", facts.layout.entityType ) +
                          "," + label( "value_type", facts.layout.valueType ) + "," +
                          label( "incarnation", fenix ),
                      1 );
            }
        }
    }
    void printContents() const {
        each( "krell_collection_entries", "gauge", "Entries that are present.",
              ifReadable( &Facts::entries ) );
        each( "krell_collection_capacity_entries", "gauge", "Entries that there is room for.",
              ifReadable( &Facts::capacity ) );
        each( "krell_collection_changes_total", "counter", "Changes since the incarnation began.",
              ifReadable( &Facts::sequence ) );
        each( "krell_collection_size_bytes", "gauge", "Size of the files.",
              []( const Facts& facts ) { return double( facts.bytes ); } );
        each( "krell_collection_faulty", "gauge",
              "Whether the contents cannot be read, or are marked as corrupt.",
              []( const Facts& facts ) {
                  return ( !facts.readable && !facts.absent ) || facts.isMarkedCorrupt ? 1.0 : 0.0;
              } );
    }
    void printWriters() const {
        each( "krell_collection_writer_up", "gauge", "Whether a process holds the writer's lock.",
              []( const Facts& facts ) { return facts.writer != 0 ? 1.0 : 0.0; } );
        each( "krell_collection_reigns_total", "counter", "How often the writer's lock was taken.",
              []( const Facts& facts ) { return double( facts.reigns ); } );
    }
    void printReaders() const {
        each( "krell_collection_readers", "gauge", "Processes that have it mapped for reading.",
              [ this ]( const Facts& facts ) { return double( readersOf( facts ).size() ); } );
        head( "krell_reader_lag_changes", "gauge",
              "Changes that a connected reader has not followed." );
        for ( const Facts& facts : all_ ) {
            for ( const Reader& reader : readersOf( facts ) ) {
                if ( reader.consumed && facts.readable ) {
                    const U64 seen = std::min( *reader.consumed, facts.sequence );
                    line( "krell_reader_lag_changes",
                          labels( facts ) + "," + label( "command", reader.process.command ) + "," +
                              label( "pid", std::to_string( reader.process.pid ) ),
                          double( facts.sequence - seen ) );
                }
            }
        }
    }

    const UsersOfAll users_;
    const std::vector< Facts > all_;
};

} // namespace

int metrics( const Options& options ) {
    Metrics( options.path ).print();
    return 0;
}

} // namespace KrellTool
