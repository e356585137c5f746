// krell dump, krell watch: what stands in collections, and what changes.

#include <csignal>
#include <iostream>

#include <nlohmann/json.hpp>

#include <Krell/Control>
#include <Qel/System>

#include "Commands.h"
#include "Values.h"

namespace KrellTool {

using nlohmann::json;
using Qel::GenericValue;

namespace {

// Lines of text, or one JSON value a line.
class Output {
public:
    Output( const Options& options, const Facts& facts, bool one )
        : json_( options.json ), path_( one ? "" : facts.place.path ) {}

    void entry( const std::string& key, const std::string& value ) const {
        std::cout << ( path_.empty() ? "" : path_ + " " ) << key << ": " << value << std::endl;
    }
    void entry( const json& key, const json& value ) const {
        json line { { "key", key }, { "value", value } };
        if ( !path_.empty() ) {
            line[ "path" ] = path_;
        }
        std::cout << line.dump( -1, ' ', false, json::error_handler_t::replace ) << std::endl;
    }
    void entry( const GenericValue& key, const GenericValue& value ) const {
        if ( json_ ) {
            entry( jsonOf( key ), jsonOf( value ) );
        } else {
            entry( key.strep().stdString(), value ? value.strep().stdString() : "gone" );
        }
    }
    // Null: gone.
    void entry( const Krell::Layout& layout, const U64* key, const U64* value ) const {
        const std::string k = hexOf( key, layout.keySize );
        const std::string v = value ? hexOf( value, layout.valueSize ) : "gone";
        if ( json_ ) {
            entry( json( k ), value ? json( v ) : json() );
        } else {
            entry( k, v );
        }
    }

private:
    const bool json_;
    const std::string path_;
};

// The contents may change under the reader's eyes; an entry that is there throughout is shown.
void dumpOne( const Facts& facts, const Output& output ) {
    if ( isTyped( facts.layout ) ) {
        const Mounted mounted( facts );
        for ( const GenericValue& key : mounted.face()->attributeIndices( mounted.collection() ) ) {
            if ( const auto value = mounted.face()->attribute( mounted.collection(), key ) ) {
                output.entry( key, value );
            }
        }
        return;
    }
    Contents contents( facts.place );
    contents.forEach( [ & ]( const U64* key, const U64* value ) {
        output.entry( contents.layout(), key, value );
        return bool( std::cout );
    } );
}

// Counts changes, and ends the run after as many as are wanted.
class Counter {
public:
    explicit Counter( unsigned wanted ) : wanted_( wanted ) {}
    void count() {
        if ( wanted_ != 0 && ++seen_ >= wanted_ ) {
            Qel::System::stop();
        }
    }
    bool done() const { return wanted_ != 0 && seen_ >= wanted_; }

private:
    const unsigned wanted_;
    unsigned seen_ = 0;
};

// One that is watched without its type.
class Raw : public Krell::Control {
public:
    Raw( const Facts& facts, const Output& output, Counter& counter )
        : Krell::Control( facts.layout ),
          path_( facts.place.path.substr( 1 ) ),
          output_( output ),
          counter_( counter ) {
        init( QelKrell::reader, false, 0 );
    }
    ~Raw() override { detach(); }

protected:
    std::string collectionPath() const override { return path_; }
    void handleChanged( const U64* key, bool ) override {
        if ( counter_.done() ) {
            return;
        }
        U64 value[ Krell::Layout::wordsOf( Krell::Layout::sizeLimit_ ) ];
        output_.entry( layout(), key, table().copyValue( key, value ) ? value : nullptr );
        counter_.count();
    }
    void handleFailed( const Krell::Exception& e ) override {
        std::cerr << "krell: " << e.msg() << "\n";
    }

private:
    const std::string path_;
    const Output output_;
    Counter& counter_;
};

// What keeps a collection watched.
struct Watched {
    std::unique_ptr< Mounted > mounted;
    Qel::Ptr< Qel::Counted > reaction;
    std::unique_ptr< Raw > raw;

    Watched( const Facts& facts, const Output& output, Counter& counter ) {
        if ( !isTyped( facts.layout ) ) {
            raw = std::make_unique< Raw >( facts, output, counter );
            return;
        }
        mounted = std::make_unique< Mounted >( facts );
        Mounted& m = *mounted;
        reaction = m.face()->attributeWatch(
            m.collection(), [ &m, output, &counter ]( const GenericValue& key ) {
                if ( !counter.done() ) {
                    output.entry( key, m.face()->attribute( m.collection(), key ) );
                    counter.count();
                }
            } );
    }
};

std::vector< Facts > readable( const Options& options ) {
    std::vector< Facts > all = factsBelow( options.path );
    for ( const Facts& facts : all ) {
        if ( !facts.readable && !facts.absent ) {
            throw Error( facts.problem );
        }
    }
    std::erase_if( all, []( const Facts& facts ) { return !facts.readable; } );
    if ( all.empty() ) {
        throw Error( "there are no contents at or below " + rootDirectory() + options.path );
    }
    return all;
}

} // namespace

int dump( const Options& options ) {
    loadTypes( options.types );
    const std::vector< Facts > all = readable( options );
    for ( const Facts& facts : all ) {
        dumpOne( facts, Output( options, facts, all.size() == 1 ) );
    }
    return 0;
}

int watch( const Options& options ) {
    loadTypes( options.types );
    const std::vector< Facts > all = readable( options );
    Counter counter( options.changes );
    std::vector< std::unique_ptr< Watched > > watched;
    watched.reserve( all.size() );
    for ( const Facts& facts : all ) {
        watched.push_back( std::make_unique< Watched >(
            facts, Output( options, facts, all.size() == 1 ), counter ) );
    }
    for ( const int signal : { SIGINT, SIGTERM } ) {
        std::signal( signal, []( int ) { Qel::System::stop(); } );
    }
    Qel::System::doRun();
    return 0;
}

} // namespace KrellTool
