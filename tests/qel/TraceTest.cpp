// Tracing: settings, handles, lines, the coverage stream, the environment.

#include <gmock/gmock.h>

#include <cstdio>
#include <fstream>
#include <thread>

#include <Programs.h>
#include <Qel/Exception>

#include "TraceCapture.h"

namespace {

using Qel::TraceHandle;
using QelTest::TraceCapture;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

// "-" for a facility that is off, then the digits of the levels whose flags are set.
std::string stateOf( const TraceHandle& handle ) {
    std::string state = handle.facilityEnabled() ? "" : "-";
    for ( int level = 0; level < TraceHandle::levels_; ++level ) {
        state += handle.levelEnabled( level ) ? std::string( 1, char( '0' + level ) ) : "";
    }
    return state;
}

std::string stateUnder( const char* settings, const char* name, bool enabledAtFirst = false ) {
    const TraceCapture capture( settings );
    return stateOf( TraceHandle( name, enabledAtFirst ) );
}

TEST( Trace, HandleIsOnAsWholeAndPerLevel ) {
    const TraceCapture capture;
    TraceHandle handle( "Unit", false );
    EXPECT_EQ( "-", stateOf( handle ) );
    handle.levelEnabledIs( 5, true );
    EXPECT_FALSE( handle.enabled( 5 ) );
    handle.facilityEnabledIs( true );
    EXPECT_TRUE( handle.enabled( 5 ) );
    EXPECT_FALSE( handle.enabled( 4 ) );
    handle.levelEnabledIs( 10, true );
    handle.levelEnabledIs( -1, true );
    EXPECT_FALSE( handle.enabled( 10 ) );
    EXPECT_FALSE( handle.enabled( -1 ) );
    EXPECT_EQ( "5", stateOf( handle ) );
    EXPECT_EQ( "0123456789", stateOf( TraceHandle( "Other", true ) ) );
}

TEST( Trace, SettingsAreReadAsTheirGrammarSays ) {
    struct Case {
        const char* settings;
        const char* handle;
        const char* state;
    };
    const Case cases[] = {
        { "", "Krell", "-" },
        { "Krell/5", "Krell", "5" },
        { "Krell/5", "KrellMount", "-" },
        { "Krell/5", "Krel", "-" },
        { "Krell*/0-5", "Krell", "012345" },
        { "Krell*/0-5", "KrellMount", "012345" },
        { "*/*", "anything", "0123456789" },
        { "K/1+3+7-8", "K", "1378" },
        { "K/*+1", "K", "0123456789" },
        { "K/9-9", "K", "9" },
        { "Krell*/0-5,KrellMount/9", "KrellMount", "9" },
        { "KrellMount/9,Krell*/0-5", "KrellMount", "012345" },
        { "*/*,-Krell*", "KrellMount", "-" },
        { "-Krell*,*/1", "KrellMount", "1" },
        { "a b/2", "a b", "2" },
    };
    for ( const Case& c : cases ) {
        EXPECT_EQ( c.state, stateUnder( c.settings, c.handle ) ) << c.settings;
    }
    EXPECT_EQ( "3", stateUnder( "On/3", "On", true ) );
    EXPECT_EQ( "-", stateUnder( "-On", "On", true ) );
}

TEST( Trace, MalformedSettingsAreRefusedWholeWithTheirEntry ) {
    const TraceCapture capture( "Unit/5" );
    const TraceHandle handle( "Unit", false );
    struct Case {
        const char* settings;
        const char* message;
    };
    const Case cases[] = {
        { "Unit", "trace setting 'Unit' in 'Unit': expected PATTERN/LEVELS or -PATTERN" },
        { "Unit/1,", "trace setting '' in 'Unit/1,': expected PATTERN/LEVELS or -PATTERN" },
        { "Unit/1,,A/1", "trace setting '' in 'Unit/1,,A/1': expected PATTERN/LEVELS or -PATTERN" },
        { "/1", "trace setting '/1' in '/1': the pattern is empty" },
        { "-", "trace setting '-' in '-': the pattern is empty" },
        { "U*t/1", "trace setting 'U*t/1' in 'U*t/1': the pattern 'U*t' holds a '/', or a '*' "
                   "before its end" },
        { "-U/1", "trace setting '-U/1' in '-U/1': the pattern 'U/1' holds a '/', or a '*' before "
                  "its end" },
        { "Unit/", "trace setting 'Unit/' in 'Unit/': '' is no level 0 to 9, range or '*'" },
        { "Unit/10",
          "trace setting 'Unit/10' in 'Unit/10': '10' is no level 0 to 9, range or '*'" },
        { "Unit/5-3",
          "trace setting 'Unit/5-3' in 'Unit/5-3': '5-3' is no level 0 to 9, range or '*'" },
        { "Unit/1-",
          "trace setting 'Unit/1-' in 'Unit/1-': '1-' is no level 0 to 9, range or '*'" },
        { "Unit/1+", "trace setting 'Unit/1+' in 'Unit/1+': '' is no level 0 to 9, range or '*'" },
        { "Unit/1-2-3",
          "trace setting 'Unit/1-2-3' in 'Unit/1-2-3': '1-2-3' is no level 0 to 9, range or '*'" },
        { "Unit/x", "trace setting 'Unit/x' in 'Unit/x': 'x' is no level 0 to 9, range or '*'" },
        { "Unit/1, A/1", nullptr },
    };
    for ( const Case& c : cases ) {
        const Qel::ExpectException expected( Qel::RangeException::id_ );
        if ( !c.message ) {
            EXPECT_NO_THROW( Qel::traceSettingsIs( c.settings ) ) << c.settings;
            Qel::traceSettingsIs( "Unit/5" );
            continue;
        }
        try {
            Qel::traceSettingsIs( c.settings );
            ADD_FAILURE() << c.settings;
        } catch ( const Qel::RangeException& e ) {
            EXPECT_STREQ( c.message, e.what() );
        }
        EXPECT_EQ( "5", stateOf( handle ) ) << c.settings;
    }
}

TEST( Trace, SettingsReachLiveHandlesAndAreReplaced ) {
    TraceCapture capture;
    TraceHandle a( "A", false );
    const TraceHandle b( "B", true );
    Qel::traceSettingsIs( "A/1,B/2" );
    EXPECT_EQ( "1", stateOf( a ) );
    EXPECT_EQ( "2", stateOf( b ) );
    a.levelEnabledIs( 7, true );
    EXPECT_EQ( "17", stateOf( a ) );
    Qel::traceSettingsIs( "B/3" );
    EXPECT_EQ( "-", stateOf( a ) );
    EXPECT_EQ( "3", stateOf( b ) );
    Qel::traceSettingsIs( "" );
    EXPECT_EQ( "0123456789", stateOf( b ) );
}

TEST( Trace, FrameworkShowsItsErrorsByDefault ) {
    for ( const char* name : { "QelEntity", "QelLoop", "QelReactor", "QelTrace" } ) {
        EXPECT_EQ( "0", stateUnder( "", name ) ) << name;
        EXPECT_EQ( "-", stateUnder( "-Qel*", name ) ) << name;
    }
    EXPECT_EQ( "-", stateUnder( "", "QelException" ) );
}

TEST( Trace, EscapesKeepAMessageOnOneLine ) {
    EXPECT_EQ( Qel::escapedTraceString( Qel::String( "a\nb\rc\td\\e\0f\x1b\x7f\xc3\xa4", 15 ) ),
               "a\\nb\\rc\\td\\\\e\\x00f\\x1b\\x7f\xc3\xa4" );
    EXPECT_EQ( Qel::escapedTraceString( "" ), "" );
}

TEST( Trace, LineHasItsParts ) {
    const TraceCapture capture;
    Qel::formatAndWriteTraceString( "Unit", "src/Unit", 43, "dump", "ctx", "text %s", 3 );
    ASSERT_EQ( 1U, capture.lines.size() );
    EXPECT_THAT( capture.lines[ 0 ],
                 MatchesRegex( "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6} " +
                               std::to_string( getpid() ) +
                               " Unit 3 src/Unit:43 dump\\(\\) \\[ctx\\] text %s" ) );
    ASSERT_EQ( 1U, capture.records.size() );
    const Qel::TraceRecord& r = capture.records[ 0 ];
    EXPECT_EQ( r.handle, "Unit" );
    EXPECT_EQ( r.source, "src/Unit" );
    EXPECT_EQ( 43U, r.line );
    EXPECT_EQ( r.function, "dump" );
    EXPECT_EQ( r.context, "ctx" );
    EXPECT_EQ( r.text, "text %s" );
    EXPECT_EQ( 3, r.level );
}

TEST( Trace, HelperWritesToTheCoverageStreamWhateverTheLevels ) {
    const TraceCapture capture;
    std::ostringstream coverage;
    std::stringstream text;
    text << "one\ntwo";
    Qel::traceHelper( "Unit", "<unknown>", text, 5, false, "src", 1, "f" );
    Qel::coverageStream_ = &coverage;
    Qel::traceHelper( "Unit", "<unknown>", text, 5, false, "src", 1, "f" );
    EXPECT_EQ( "one\\ntwo\n", coverage.str() );
    EXPECT_THAT( capture.lines, IsEmpty() );
    Qel::traceHelper( "Unit", "<unknown>", text, 5, true, "src", 1, "f" );
    Qel::coverageStream_ = nullptr;
    EXPECT_EQ( "one\\ntwo\none\\ntwo\n", coverage.str() );
    EXPECT_THAT( capture.texts(), ElementsAre( "Unit 5 one\\ntwo" ) );
    EXPECT_EQ( capture.records[ 0 ].context, "<unknown>" );
}

TEST( Trace, SinkMayTraceAndThrow ) {
    const TraceCapture restore;
    int depth = 0;
    Qel::traceSinkIs( [ & ]( const Qel::String& ) {
        if ( ++depth < 3 ) {
            Qel::formatAndWriteTraceString( "Unit", "src", 1, "f", "", "nested", 0 );
        }
        throw 1;
    } );
    EXPECT_NO_THROW( Qel::formatAndWriteTraceString( "Unit", "src", 1, "f", "", "outer", 0 ) );
    EXPECT_EQ( 3, depth );
}

TEST( Trace, ThreadsTraceAndMakeHandlesWhileSettingsChange ) {
    TraceCapture capture;
    constexpr int threads = 4;
    constexpr int each = 200;
    {
        std::vector< std::jthread > running;
        for ( int t = 0; t < threads; ++t ) {
            running.emplace_back( [] {
                for ( int i = 0; i < each; ++i ) {
                    const TraceHandle handle( "Unit", false );
                    std::stringstream text;
                    text << i;
                    Qel::traceHelper( handle.name(), "", text, 1, true, "src", 1, "f" );
                }
            } );
        }
        for ( int i = 0; i < each; ++i ) {
            Qel::traceSettingsIs( i % 2 ? "Unit/*" : "" );
        }
    }
    EXPECT_EQ( std::size_t( threads * each ), capture.lines.size() );
}

std::string outputUnder( const std::string& environment, const std::string& handle ) {
    const std::string command = "env " + environment + " '" +
                                QelKrellTest::program( "traceEnvironment" ) + "' " + handle +
                                " 2>&1";
    std::FILE* const pipe = popen( command.c_str(), "re" );
    std::string output;
    for ( int c = std::fgetc( pipe ); c != EOF; c = std::fgetc( pipe ) ) {
        output += char( c );
    }
    EXPECT_EQ( 0, pclose( pipe ) ) << output;
    return output;
}

constexpr const char* position = " unit:7 main\\(\\) \\[context\\] message\n";

TEST( Trace, EnvironmentHoldsTheFirstSettings ) {
    EXPECT_EQ( "", outputUnder( "-u QEL_TRACE", "Unit" ) );
    EXPECT_THAT( outputUnder( "QEL_TRACE=Unit/5", "Unit" ),
                 MatchesRegex( std::string( "[-0-9: .]+ Unit 5" ) + position ) );
    EXPECT_THAT( outputUnder( "-u QEL_TRACE", "QelEntity" ),
                 MatchesRegex( std::string( "[-0-9: .]+ QelEntity 0" ) + position ) );
}

TEST( Trace, MalformedEnvironmentIsReportedOnceAndIgnored ) {
    EXPECT_THAT(
        outputUnder( "QEL_TRACE=Unit", "Unit" ),
        MatchesRegex(
            "[-0-9: .]+ QelTrace 0 Trace:37 traceSettings\\(\\) \\[\\] trace setting 'Unit' "
            "in 'Unit': expected PATTERN/LEVELS or -PATTERN\n" ) );
}

TEST( Trace, EnvironmentNamesTheFileThatLinesAreAppendedTo ) {
    const std::string path = testing::TempDir() + "qel-trace-" + std::to_string( getpid() );
    const std::string environment = "QEL_TRACE=Unit/0 QEL_TRACE_FILE=" + path;
    EXPECT_EQ( "", outputUnder( environment, "Unit" ) );
    EXPECT_EQ( "", outputUnder( environment, "Unit" ) );
    std::ifstream file( path );
    int lines = 0;
    for ( std::string line; std::getline( file, line ); ++lines ) {
        EXPECT_THAT( line + "\n", MatchesRegex( std::string( "[-0-9: .]+ Unit 0" ) + position ) );
    }
    EXPECT_EQ( 2, lines );
    std::remove( path.c_str() );
    EXPECT_THAT(
        outputUnder( "QEL_TRACE=Unit/0 QEL_TRACE_FILE=/nowhere/at/all", "Unit" ),
        MatchesRegex(
            "[-0-9: .]+ QelTrace 0 Trace:52 traceFile\\(\\) \\[\\] QEL_TRACE_FILE is ignored: "
            "open of '/nowhere/at/all': No such file or directory\n"
            "[-0-9: .]+ Unit 0" +
            std::string( position ) ) );
}

} // namespace
