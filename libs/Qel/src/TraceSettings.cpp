#include "TraceSettings.h"

namespace Qel {

namespace {

// Of the framework's own handles: an error that nobody sees is lost.
constexpr std::string_view errorHandles[] = { "QelEntity", "QelLoop", "QelReactor", "QelTrace" };

// Splits `text` at the first `separator`; `rest` is what follows it. False when nothing follows.
bool split( std::string_view& text, char separator, std::string_view& rest ) {
    const std::size_t at = text.find( separator );
    if ( at == std::string_view::npos ) {
        return false;
    }
    rest = text.substr( at + 1 );
    text = text.substr( 0, at );
    return true;
}

int levelOf( std::string_view text ) {
    return text.size() == 1 && text[ 0 ] >= '0' && text[ 0 ] <= '9' ? text[ 0 ] - '0' : -1;
}

String quoted( std::string_view text ) { return "'" + String( text ) + "'"; }

} // namespace

String TraceSettings::parse( std::string_view text ) {
    std::vector< Entry > entries;
    std::string_view rest = text;
    for ( bool more = !text.empty(); more; ) {
        std::string_view item = rest;
        more = split( item, ',', rest );
        Entry entry {};
        const String wrong = parseEntry( item, entry );
        if ( !wrong.empty() ) {
            return "trace setting " + quoted( item ) + " in " + quoted( text ) + ": " + wrong;
        }
        entries.push_back( std::move( entry ) );
    }
    entries_ = std::move( entries );
    return String();
}

String TraceSettings::parseEntry( std::string_view text, Entry& entry ) {
    if ( text.starts_with( '-' ) ) {
        entry.on = false;
        return parsePattern( text.substr( 1 ), entry );
    }
    entry.on = true;
    std::string_view levels;
    if ( !split( text, '/', levels ) ) {
        return "expected PATTERN/LEVELS or -PATTERN";
    }
    const String wrong = parsePattern( text, entry );
    return wrong.empty() ? parseLevels( levels, entry.levels ) : wrong;
}

String TraceSettings::parsePattern( std::string_view text, Entry& entry ) {
    entry.isPrefix = text.ends_with( '*' );
    entry.pattern = entry.isPrefix ? text.substr( 0, text.size() - 1 ) : text;
    if ( text.empty() ) {
        return "the pattern is empty";
    }
    if ( entry.pattern.find_first_of( "*/" ) != std::string::npos ) {
        return "the pattern " + quoted( text ) + " holds a '/', or a '*' before its end";
    }
    return String();
}

String TraceSettings::parseLevels( std::string_view text, Levels& levels ) {
    for ( bool more = true; more; ) {
        std::string_view rest;
        more = split( text, '+', rest );
        const std::string_view term = text;
        std::string_view high = term;
        std::string_view low = term;
        if ( term == "*" ) {
            levels.set();
        } else {
            split( low, '-', high );
            const int first = levelOf( low );
            const int last = levelOf( high );
            if ( first < 0 || last < first ) {
                return quoted( term ) + " is no level 0 to 9, range or '*'";
            }
            for ( int level = first; level <= last; ++level ) {
                levels.set( std::size_t( level ) );
            }
        }
        text = rest;
    }
    return String();
}

bool TraceSettings::matches( const Entry& entry, std::string_view name ) {
    return entry.isPrefix ? name.starts_with( entry.pattern ) : name == entry.pattern;
}

void TraceSettings::apply( TraceHandle& handle ) const {
    bool on = handle.enabledAtFirst_;
    Levels levels;
    if ( on ) {
        levels.set();
    }
    for ( const std::string_view name : errorHandles ) {
        if ( handle.name() == String( name ) ) {
            on = true;
            levels.set( 0 );
        }
    }
    for ( const Entry& entry : entries_ ) {
        if ( matches( entry, handle.name() ) ) {
            on = entry.on;
            levels = entry.levels;
        }
    }
    for ( int level = 0; level < TraceHandle::levels_; ++level ) {
        handle.levelEnabledIs( level, levels[ std::size_t( level ) ] );
    }
    handle.facilityEnabledIs( on );
}

} // namespace Qel
