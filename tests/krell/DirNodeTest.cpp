// The directory reader: entries, absence, failures with their texts and positions, the stack of
// nodes.

#include <Krell/DirNode>

#include <cerrno>
#include <filesystem>
#include <set>

#include <gmock/gmock.h>

#include <sys/stat.h>
#include <unistd.h>

#include "Hooks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using testing::ElementsAre;
namespace fs = std::filesystem;

const std::string at = "/usr/include/Krell/DirNode:";

class DirNodeTest : public testing::Test {
protected:
    std::multiset< std::string > entries( const DirNode& node ) {
        std::multiset< std::string > names;
        while ( const dirent* entry = node.readEntry() ) {
            names.insert( entry->d_name );
        }
        return names;
    }

    TestRoot root;
    RecordingDebugHandler handler;
};

TEST_F( DirNodeTest, EveryEntryIsGivenOnce ) {
    bytesInto( root / "slots", "x" );
    fs::create_directory( root / "sub" );
    const DirNode node( handler, root.path(), nullptr );
    EXPECT_TRUE( node.isOpen() );
    EXPECT_EQ( node.path(), root.path() );
    EXPECT_EQ( entries( node ), ( std::multiset< std::string > { ".", "..", "slots", "sub" } ) );
    EXPECT_EQ( node.readEntry(), nullptr );
}

TEST_F( DirNodeTest, EntriesTellTheirKind ) {
    bytesInto( root / "slots", "x" );
    fs::create_directory( root / "sub" );
    const DirNode node( handler, root.path(), nullptr );
    unsigned seen = 0;
    while ( const dirent* entry = node.readEntry() ) {
        const std::string name = entry->d_name;
        EXPECT_EQ( int( entry->d_type ), name == "slots" ? 8 : 4 );
        ++seen;
    }
    EXPECT_EQ( seen, 4U );
}

TEST_F( DirNodeTest, AMissingDirectoryHasNoEntries ) {
    handler.levels = { 0, 1, 5, 9 };
    const TraceRecorder recorder;
    const std::string path = root / "none";
    {
        const DirNode node( handler, path, nullptr );
        EXPECT_FALSE( node.isOpen() );
        EXPECT_EQ( node.readEntry(), nullptr );
    }
    EXPECT_THAT( recorder.lines(),
                 ElementsAre( "9 " + at + "30 DirNode DirNode::DirNode() path: " + path,
                              "5 " + at + "36 DirNode DirNode::DirNode() failed to open " + path +
                                  " errno: No such file or directory",
                              "9 " + at + "58 readEntry DirNode::readEntry() path: " + path,
                              "5 " + at + "61 readEntry DirNode::readEntry() cannot read " + path +
                                  " because the directory is not open",
                              "9 " + at + "45 ~DirNode DirNode::~DirNode() path: " + path ) );
}

TEST_F( DirNodeTest, AnythingElseThatCannotBeOpenedIsThrown ) {
    const std::string path = root / "slots";
    bytesInto( path, "x" );
    handler.levels = { 0, 5 };
    const TraceRecorder recorder;
    const std::string text =
        "DirNode::DirNode() failed to open " + path + " errno: Not a directory";
    try {
        DirNode( handler, path, nullptr );
        FAIL();
    } catch ( const RuntimeException& e ) {
        EXPECT_EQ( e.msg(), text );
    }
    EXPECT_THAT( recorder.lines(), ElementsAre( "0 " + at + "38 DirNode " + text ) );
}

TEST_F( DirNodeTest, ADirectoryThatMayNotBeReadIsThrown ) {
    if ( ::getuid() != 0 ) {
        GTEST_SKIP() << "changing the user needs root";
    }
    fs::create_directory( root / "closed" );
    ::chmod( ( root / "closed" ).c_str(), 0700 );
    const int status = inChild( [ & ] {
        if ( ::setgid( 65534 ) != 0 || ::setuid( 65534 ) != 0 ) {
            return 77;
        }
        try {
            DirNode( handler, root / "closed", nullptr );
        } catch ( const RuntimeException& e ) {
            return e.msg().ends_with( " errno: Permission denied" ) ? 0 : 1;
        }
        return 2;
    } );
    EXPECT_EQ( status, 0 );
}

// The descriptor that `node` reads is replaced by one that is no directory.
void breakStream( const std::string& directory ) {
    for ( const auto& entry : fs::directory_iterator( "/proc/self/fd" ) ) {
        std::error_code error;
        if ( fs::read_symlink( entry.path(), error ) == directory ) {
            const int fd = std::stoi( entry.path().filename() );
            int ends[ 2 ];
            ASSERT_EQ( ::pipe( ends ), 0 );
            ASSERT_EQ( ::dup2( ends[ 0 ], fd ), fd );
            ::close( ends[ 0 ] );
            ::close( ends[ 1 ] );
            return;
        }
    }
    FAIL() << "no descriptor of " << directory;
}

TEST_F( DirNodeTest, AFailureToReadIsThrown ) {
    const DirNode node( handler, root.path(), nullptr );
    breakStream( root.path() );
    handler.levels = { 0, 5 };
    const TraceRecorder recorder;
    const std::string text =
        "DirNode::readEntry() failed to read " + root.path() + " errno: Not a directory";
    try {
        node.readEntry();
        FAIL();
    } catch ( const RuntimeException& e ) {
        EXPECT_EQ( e.msg(), text );
    }
    EXPECT_THAT( recorder.lines(), ElementsAre( "0 " + at + "69 readEntry " + text ) );
}

TEST_F( DirNodeTest, AFailureToCloseIsTracedOnly ) {
    handler.levels = { 1 };
    const TraceRecorder recorder;
    {
        const DirNode node( handler, root.path(), nullptr );
        int number = -1;
        for ( const auto& entry : fs::directory_iterator( "/proc/self/fd" ) ) {
            std::error_code error;
            if ( fs::read_symlink( entry.path(), error ) == root.path() ) {
                number = std::stoi( entry.path().filename() );
            }
        }
        ASSERT_EQ( ::close( number ), 0 );
    }
    ASSERT_EQ( recorder.records.size(), 1U );
    EXPECT_EQ( recorder.records[ 0 ].level, 1 );
    EXPECT_EQ( recorder.records[ 0 ].function, "~DirNode" );
    EXPECT_EQ( recorder.records[ 0 ].text, ( "DirNode::~DirNode() failed to close " + root.path() +
                                             " errno: Bad file descriptor" )
                                               .c_str() );
}

TEST_F( DirNodeTest, RoutineCallsAreTracedAtLevelNine ) {
    handler.levels = { 9 };
    const TraceRecorder recorder;
    {
        const DirNode node( handler, root.path(), nullptr );
        node.readEntry();
    }
    EXPECT_THAT(
        recorder.lines(),
        ElementsAre( "9 " + at + "30 DirNode DirNode::DirNode() path: " + root.path(),
                     "9 " + at + "58 readEntry DirNode::readEntry() path: " + root.path(),
                     "9 " + at + "45 ~DirNode DirNode::~DirNode() path: " + root.path() ) );
}

TEST_F( DirNodeTest, AStreamIsClosedWithItsNode ) {
    const auto openHere = [ & ] {
        unsigned count = 0;
        for ( const auto& entry : fs::directory_iterator( "/proc/self/fd" ) ) {
            std::error_code error;
            count += fs::read_symlink( entry.path(), error ) == root.path();
        }
        return count;
    };
    {
        const DirNode node( handler, root.path(), nullptr );
        EXPECT_EQ( openHere(), 1U );
    }
    EXPECT_EQ( openHere(), 0U );
}

TEST_F( DirNodeTest, AChildKeepsTheNodesAboveItOpen ) {
    fs::create_directories( root / "a/b" );
    auto top = std::make_shared< DirNode >( handler, root.path(), nullptr );
    auto middle = std::make_shared< DirNode >( handler, root / "a", top );
    auto leaf = std::make_shared< DirNode >( handler, root / "a/b", middle );
    const std::weak_ptr< DirNode > watched = top;
    top.reset();
    middle.reset();
    EXPECT_FALSE( watched.expired() );
    EXPECT_EQ( leaf->parent()->parent()->path(), root.path() );
    EXPECT_EQ( entries( *leaf->parent()->parent() ),
               ( std::multiset< std::string > { ".", "..", "a" } ) );
    leaf.reset();
    EXPECT_TRUE( watched.expired() );
}

TEST_F( DirNodeTest, ADestructorSurvivesAHandlerThatThrows ) {
    class Failing : public RecordingDebugHandler {
    public:
        bool enabled( int ) override {
            if ( failing ) {
                throw std::runtime_error( "no trace" );
            }
            return false;
        }
        bool failing = false;
    } failing;
    auto node = std::make_unique< DirNode >( failing, root.path(), nullptr );
    failing.failing = true;
    node.reset();
    SUCCEED();
}

} // namespace
