// Segments: the shared form and the local one, their traces, and growth.

#include <Krell/KrellMem>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include <gmock/gmock.h>

#include "Hooks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using testing::ElementsAre;
namespace fs = std::filesystem;

class KrellMemTest : public testing::Test {
protected:
    TestRoot root;
    RecordingDebugHandler handler;
    RootPath path { handler, "coll", true };
};

TEST_F( KrellMemTest, ASharedSegmentIsAFileInTheCollectionsDirectory ) {
    KrellMem mem( handler, path, "slots", false );
    EXPECT_FALSE( mem.isLocal() );
    EXPECT_EQ( mem.memSize(), 0U );
    ASSERT_NE( mem.attach( 300, Dov::SharedMem::create ), nullptr );
    EXPECT_EQ( fs::file_size( root / "coll/slots" ), 300U );
    KrellMem reader( handler, path, "slots", false );
    EXPECT_EQ( reader.memSize(), 300U );
    EXPECT_NE( reader.attach( reader.memSize(), Dov::SharedMem::readOnly ), nullptr );
    EXPECT_TRUE( mem.resize( 5000 ) );
    EXPECT_EQ( mem.memSize(), 5000U );
    mem.detach();
    EXPECT_EQ( mem.address(), nullptr );
    EXPECT_EQ( mem.memSize(), 5000U );
}

TEST_F( KrellMemTest, AFailedAttachIsNull ) {
    KrellMem mem( handler, path, "slots", false );
    EXPECT_EQ( mem.attach( 300, Dov::SharedMem::readOnly ), nullptr );
    EXPECT_EQ( mem.errorText(), "open " + ( root / "coll/slots" ) + ": No such file or directory" );
}

TEST_F( KrellMemTest, ALocalSegmentMakesNoFile ) {
    KrellMem mem( handler, path, "slots", true );
    EXPECT_TRUE( mem.isLocal() );
    EXPECT_EQ( mem.memSize(), 0U );
    char* block = static_cast< char* >( mem.attach( 1000, Dov::SharedMem::create ) );
    ASSERT_NE( block, nullptr );
    EXPECT_EQ( reinterpret_cast< std::uintptr_t >( block ) % 64, 0U );
    EXPECT_EQ( std::string( block, 1000 ), std::string( 1000, '\0' ) );
    EXPECT_EQ( mem.memSize(), 1000U );
    EXPECT_TRUE( fs::is_empty( root / "coll" ) );
}

TEST_F( KrellMemTest, ALocalSegmentAttachedTwiceStaysAsItIs ) {
    KrellMem mem( handler, path, "slots", true );
    void* block = mem.attach( 100, Dov::SharedMem::create );
    std::memset( block, 'x', 100 );
    EXPECT_EQ( mem.attach( 1000, Dov::SharedMem::readOnly ), block );
    EXPECT_EQ( mem.memSize(), 100U );
    EXPECT_EQ( static_cast< char* >( block )[ 99 ], 'x' );
}

TEST_F( KrellMemTest, ALocalSegmentIsFreedByDetach ) {
    KrellMem mem( handler, path, "slots", true );
    mem.detach();
    ASSERT_NE( mem.attach( 100, Dov::SharedMem::create ), nullptr );
    mem.detach();
    EXPECT_EQ( mem.address(), nullptr );
    EXPECT_EQ( mem.memSize(), 0U );
    ASSERT_NE( mem.attach( 200, Dov::SharedMem::create ), nullptr );
    EXPECT_EQ( mem.memSize(), 200U );
}

TEST_F( KrellMemTest, MemSizeOfALocalSegmentDoesNotLookAtFiles ) {
    bytesInto( root / "coll/slots", std::string( 77, 'x' ) );
    KrellMem mem( handler, path, "slots", true );
    handler.allLevels = true;
    const TraceRecorder recorder;
    EXPECT_EQ( mem.memSize(), 0U );
    EXPECT_THAT( recorder.lines(), ElementsAre() );
}

TEST_F( KrellMemTest, ALocalSegmentGrowsWithZerosAndNeverShrinks ) {
    KrellMem mem( handler, path, "slots", true );
    EXPECT_FALSE( mem.resize( 100 ) );
    EXPECT_EQ( mem.errorText(), "resize " + ( root / "coll/slots" ) + ": is not attached" );
    std::memset( mem.attach( 10, Dov::SharedMem::create ), 'x', 10 );
    ASSERT_TRUE( mem.resize( 5000 ) );
    EXPECT_EQ( mem.memSize(), 5000U );
    EXPECT_EQ( std::string( static_cast< char* >( mem.address() ), 5000 ),
               std::string( 10, 'x' ) + std::string( 4990, '\0' ) );
    EXPECT_TRUE( mem.resize( 20 ) );
    EXPECT_EQ( mem.memSize(), 5000U );
}

TEST_F( KrellMemTest, ALocalSegmentWithoutMemoryStaysAsItIs ) {
    KrellMem mem( handler, path, "slots", true );
    EXPECT_EQ( mem.attach( SIZE_MAX, Dov::SharedMem::create ), nullptr );
    EXPECT_EQ( mem.errorNumber(), ENOMEM );
    EXPECT_EQ( mem.attach( 0, Dov::SharedMem::create ), nullptr );
    std::memset( mem.attach( 10, Dov::SharedMem::create ), 'x', 10 );
    void* block = mem.address();
    EXPECT_FALSE( mem.resize( SIZE_MAX ) );
    EXPECT_EQ( mem.errorNumber(), ENOMEM );
    EXPECT_EQ( mem.address(), block );
    EXPECT_EQ( mem.memSize(), 10U );
    EXPECT_EQ( static_cast< char* >( block )[ 9 ], 'x' );
}

TEST_F( KrellMemTest, BlocksAreMadeGrownAndFreed ) {
    EXPECT_EQ( KrellMem::doResize( nullptr, 0, 0 ), nullptr );
    char* block = static_cast< char* >( KrellMem::doResize( nullptr, 0, 65 ) );
    ASSERT_NE( block, nullptr );
    EXPECT_EQ( std::string( block, 65 ), std::string( 65, '\0' ) );
    std::memset( block, 'x', 65 );
    block = static_cast< char* >( KrellMem::doResize( block, 65, 130 ) );
    EXPECT_EQ( std::string( block, 130 ), std::string( 65, 'x' ) + std::string( 65, '\0' ) );
    block = static_cast< char* >( KrellMem::doResize( block, 130, 3 ) );
    EXPECT_EQ( std::string( block, 3 ), "xxx" );
    EXPECT_EQ( KrellMem::doResize( block, 3, 0 ), nullptr );
}

constexpr const char* prefix = "5 /usr/include/Krell/KrellMem:";

TEST_F( KrellMemTest, SharedTracesCarryTheirPositions ) {
    handler.levels = { 5 };
    const TraceRecorder recorder;
    KrellMem mem( handler, path, "slots", false );
    mem.attach( 300, Dov::SharedMem::create );
    mem.memSize();
    mem.detach();
    mem.attach( 200, Dov::SharedMem::readOnly );
    EXPECT_THAT(
        recorder.lines(),
        ElementsAre(
            std::string( prefix ) + "33 KrellMem KrellMem::KrellMem() prefix: " +
                ( root / "coll" ) + " name:slots localMem:0",
            std::string( prefix ) +
                "60 attach KrellMem::attach() delegating to Dov::SharedMem size:300 mode:0",
            std::string( prefix ) + "133 memSize KrellMem::memSize() delegating to Dov::SharedMem",
            std::string( prefix ) +
                "60 attach KrellMem::attach() delegating to Dov::SharedMem size:200 mode:1" ) );
    EXPECT_EQ( recorder.records[ 0 ].handle, "Krell" );
    EXPECT_EQ( recorder.records[ 0 ].context, "<unknown>" );
}

TEST_F( KrellMemTest, LocalTracesCarryTheirPositions ) {
    handler.levels = { 5 };
    const TraceRecorder recorder;
    KrellMem mem( handler, path, "buckets", true );
    mem.attach( 300, Dov::SharedMem::create );
    mem.attach( 7, Dov::SharedMem::readWrite );
    EXPECT_THAT(
        recorder.lines(),
        ElementsAre( std::string( prefix ) + "33 KrellMem KrellMem::KrellMem() prefix: " +
                         ( root / "coll" ) + " name:buckets localMem:1",
                     std::string( prefix ) +
                         "72 attach KrellMem::attach() allocating local memory size:300 mode:0",
                     std::string( prefix ) +
                         "67 attach KrellMem::attach() using local memory size:7 mode:2" ) );
}

TEST_F( KrellMemTest, NothingIsTracedAtOtherLevels ) {
    handler.levels = { 0, 1, 3, 9 };
    const TraceRecorder recorder;
    KrellMem mem( handler, path, "slots", false );
    mem.attach( 300, Dov::SharedMem::create );
    EXPECT_THAT( recorder.lines(), ElementsAre() );
}

TEST_F( KrellMemTest, TheCoverageStreamGetsTracesThatAreOff ) {
    std::stringstream coverage;
    Qel::coverageStream_ = &coverage;
    const TraceRecorder recorder;
    KrellMem mem( handler, path, "slots", true );
    Qel::coverageStream_ = nullptr;
    EXPECT_EQ( coverage.str(),
               "KrellMem::KrellMem() prefix: " + ( root / "coll" ) + " name:slots localMem:1\n" );
    EXPECT_THAT( recorder.lines(), ElementsAre() );
}

TEST_F( KrellMemTest, ErrnoSurvivesTheTrace ) {
    handler.levels = { 5 };
    const TraceRecorder recorder;
    KrellMem mem( handler, path, "slots", false );
    Qel::traceSinkIs( []( const Qel::String& ) { errno = EIO; } );
    errno = 12345;
    EXPECT_EQ( mem.memSize(), 0U );
    EXPECT_EQ( errno, 12345 );
}

class FailingHandler : public RecordingDebugHandler {
public:
    bool enabled( int ) override { throw std::runtime_error( "no trace" ); }
};

TEST_F( KrellMemTest, AnExceptionOfTheTraceLeavesTheConstructor ) {
    FailingHandler failing;
    EXPECT_THROW( KrellMem( failing, path, "slots", false ), std::runtime_error );
    EXPECT_TRUE( fs::is_empty( root / "coll" ) );
}

} // namespace
