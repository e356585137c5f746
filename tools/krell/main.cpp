// krell: what there is in shared collections, who has it, what changes and what is wrong. It only
// looks: it takes no lock and writes nothing.

#include <iostream>

#include <CLI/CLI.hpp>

#include <Krell/Exception>
#include <Qel/Exception>
#include <QelKrell/FaultGuard>

#include "Commands.h"

namespace {

using KrellTool::Options;

struct Command {
    const char* name;
    const char* help;
    int ( *run )( const Options& );
    bool needsPath;
    bool hasTypes;
    bool hasJson;
};

constexpr Command commands[] = {
    { "tree", "what there is: types, writers, readers, entries", KrellTool::tree, false, false,
      true },
    { "dump", "the entries of a collection, or of all below a path", KrellTool::dump, true, true,
      true },
    { "watch", "each change as it comes, until Ctrl-C", KrellTool::watch, true, true, true },
    { "top", "the busiest collections, live", KrellTool::top, false, false, true },
    { "who", "the writer and the readers", KrellTool::who, true, false, true },
    { "doctor", "what is wrong, and what to do; status 1 when something is", KrellTool::doctor,
      false, false, true },
    { "metrics", "all collections in the text format of Prometheus", KrellTool::metrics, false,
      false, false },
};

CLI::App* add( CLI::App& app, const Command& command, Options& options ) {
    CLI::App* const sub = app.add_subcommand( command.name, command.help );
    auto* const path =
        sub->add_option( "path", options.path, "below the root directory, or absolute" );
    path->required( command.needsPath );
    if ( command.hasJson ) {
        sub->add_flag( "--json", options.json, "for programs" );
    }
    if ( command.hasTypes ) {
        sub->add_option( "--types", options.types,
                         "a library of types, by which values are printed; may be given again" )
            ->allow_extra_args( false );
    }
    if ( command.run == KrellTool::top ) {
        sub->add_option( "--interval", options.seconds, "seconds between two looks" )
            ->check( CLI::PositiveNumber );
        sub->add_flag( "--once", options.once, "one table of one interval" );
        sub->add_flag( "--readers", options.readers, "also each reader, the slowest first" );
    }
    if ( command.run == KrellTool::watch ) {
        sub->add_option( "--changes", options.changes, "end after so many" );
    }
    return sub;
}

int run( int argc, char** argv ) {
    CLI::App app( "Looks at shared collections. KRELL_ROOT names their root directory." );
    app.name( "krell" );
    app.require_subcommand( 0, 1 );
    Options options;
    std::vector< std::pair< CLI::App*, const Command* > > added;
    for ( const Command& command : commands ) {
        added.emplace_back( add( app, command, options ), &command );
    }
    try {
        app.parse( argc, argv );
        if ( app.get_subcommands().empty() ) {
            throw CLI::CallForHelp();
        }
    } catch ( const CLI::ParseError& e ) {
        return app.exit( e ) == 0 ? 0 : 2;
    }
    QelKrell::surviveShortenedFiles();
    options.path = KrellTool::pathBelowRoot( options.path );
    for ( const auto& [ sub, command ] : added ) {
        if ( sub->parsed() ) {
            return command->run( options );
        }
    }
    return 2;
}

} // namespace

int main( int argc, char** argv ) {
    try {
        return run( argc, argv );
    } catch ( const Krell::Exception& e ) {
        std::cerr << "krell: " << e.msg() << "\n";
    } catch ( const std::exception& e ) {
        std::cerr << "krell: " << e.what() << "\n";
    }
    return 2;
}
