// The slot table's header: layout, checksum, the eight tests with their texts and traces,
// snapshots.

#include <Krell/SlotTable>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iomanip>
#include <thread>

#include <gmock/gmock.h>

#include "Hooks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using testing::ElementsAre;
using Table = SlotTable< EmptyValue >;
using Header = Table::Header;

constexpr const char* prefix = "0 /usr/include/Krell/SlotTable:";

class SlotTableTest : public testing::Test {
protected:
    SlotTableTest() {
        std::strcpy( header.valueType, "Plant::Reading" );
        std::strcpy( header.entityType, "Plant::Plant" );
        header.fenix = 0xabcd;
        header.keySize = 8;
        header.valueSize = 16;
        header.layoutHash = 0x12345678;
        header.numSlots = { 3, 10 };
        header.occupiedSlots = 4;
        header.freeSlots = 7;
        header.checksum = header.doHash();
    }

    // Fails with that text and trace line.
    void expectFault( const std::string& text,
                      unsigned line,
                      std::size_t size = 440,
                      U32 fenix = 0 ) {
        handler.levels = { 0 };
        const TraceRecorder recorder;
        std::string error = "before";
        EXPECT_FALSE( header.validate( handler, size, fenix, error ) );
        EXPECT_EQ( error, text );
        EXPECT_THAT( recorder.lines(),
                     ElementsAre( prefix + std::to_string( line ) + " validate " + text ) );
    }
    void expectValid( std::size_t size = 440, U32 fenix = 0 ) {
        handler.allLevels = true;
        const TraceRecorder recorder;
        std::string error = "before";
        EXPECT_TRUE( header.validate( handler, size, fenix, error ) ) << error;
        EXPECT_EQ( error, "before" );
        EXPECT_THAT( recorder.lines(), ElementsAre() );
    }
    std::string hex( U64 number ) const {
        std::ostringstream os;
        os << std::hex << number;
        return os.str();
    }
    char* bytes() { return reinterpret_cast< char* >( &header ); }
    template < class T >
    T wordAt( std::size_t offset ) {
        T word;
        std::memcpy( &word, bytes() + offset, sizeof word );
        return word;
    }

    RecordingDebugHandler handler;
    Header header;
};

TEST_F( SlotTableTest, EveryFieldStandsAtItsOffset ) {
    EXPECT_EQ( std::string( bytes(), 8 ), "KRELLSLT" );
    EXPECT_EQ( wordAt< U32 >( 8 ), 4U );
    EXPECT_EQ( wordAt< U32 >( 12 ), 0xabcdU );
    EXPECT_STREQ( bytes() + 16, "Plant::Reading" );
    EXPECT_STREQ( bytes() + 80, "Plant::Plant" );
    EXPECT_EQ( wordAt< U32 >( 144 ), 8U );
    EXPECT_EQ( wordAt< U32 >( 148 ), 16U );
    EXPECT_EQ( wordAt< U32 >( 152 ), 0x12345678U );
    EXPECT_EQ( wordAt< U32 >( 156 ), header.doHash() );
    EXPECT_EQ( wordAt< U32 >( 160 ), 4U );
    EXPECT_EQ( wordAt< U32 >( 164 ), 7U );
    EXPECT_EQ( wordAt< U64 >( 168 ), ( U64( 10 ) << 32 ) + 3 );
    header.sequence = 0x1122334455667788ULL;
    EXPECT_EQ( wordAt< U64 >( 192 ), 0x1122334455667788ULL );
}

TEST_F( SlotTableTest, AFreshHeaderIsEmpty ) {
    header.~Header();
    new ( &header ) Header;
    EXPECT_EQ( wordAt< U32 >( 160 ), 0U );
    EXPECT_EQ( wordAt< U32 >( 164 ), 0xFFFFFFFFU );
    EXPECT_EQ( wordAt< U64 >( 168 ), 0U );
    EXPECT_EQ( wordAt< U32 >( 176 ), 0U );
    EXPECT_EQ( wordAt< U32 >( 180 ), 0xFFFFFFFFU );
    EXPECT_EQ( wordAt< U32 >( 184 ), 0xFFFFFFFFU );
    EXPECT_EQ( wordAt< U32 >( 188 ), 0U );
    EXPECT_EQ( wordAt< U64 >( 192 ), 0U );
}

TEST_F( SlotTableTest, ChecksumIsTheSumOfTheFiveRanges ) {
    U32 sum = 0;
    for ( auto [ offset, length ] :
          { std::pair( 16, 64 ), { 80, 64 }, { 144, 4 }, { 148, 4 }, { 152, 4 } } ) {
        sum += Util::hash( bytes() + offset, unsigned( length ) );
    }
    EXPECT_EQ( header.doHash(), sum );
}

TEST_F( SlotTableTest, AnyChangeOfTheCoveredBytesFailsTheChecksum ) {
    std::string error;
    for ( int at = 0; at < 200; ++at ) {
        const bool covered = at >= 16 && at < 156;
        bytes()[ at ] = char( bytes()[ at ] ^ 0x40 );
        EXPECT_EQ( header.doHash() != header.checksum, covered || ( at >= 156 && at < 160 ) ) << at;
        if ( covered ) {
            EXPECT_FALSE( header.validate( handler, 440, 0, error ) );
            EXPECT_THAT( error, testing::HasSubstr( "checksum fail" ) );
        }
        bytes()[ at ] = char( bytes()[ at ] ^ 0x40 );
    }
    expectValid();
}

TEST_F( SlotTableTest, CountsAndFenixAreNotCovered ) {
    header.occupiedSlots = 10;
    header.freeSlots = 0;
    header.fenix = 1;
    expectValid();
}

TEST_F( SlotTableTest, AUsableHeaderIsValid ) {
    expectValid();
    expectValid( 440, 0xabcd );
    expectValid( 1000000 );
}

TEST_F( SlotTableTest, OneIsTooSmallForAHeader ) {
    expectFault( "SlotTable::Header::validate() bad header file size: 199 wanted:200", 223, 199 );
    expectFault( "SlotTable::Header::validate() bad header file size: 0 wanted:200", 223, 0 );
}

TEST_F( SlotTableTest, TwoIsAnotherMagic ) {
    header.magic[ 0 ] = 'X';
    expectFault( "SlotTable::Header::validate() bad magic: 544c534c4c455258", 231 );
    header.magic[ 0 ] = 'K';
    header.magic[ 7 ] = '\0';
    expectFault( "SlotTable::Header::validate() bad magic: 4c534c4c45524b", 231 );
    std::memset( header.magic, 0, 8 );
    expectFault( "SlotTable::Header::validate() bad magic: 0", 231 );
}

TEST_F( SlotTableTest, ThreeIsAnotherVersion ) {
    header.version = 5;
    expectFault( "SlotTable::Header::validate() bad version: 5", 239 );
    header.version = 0xFFFFFFFFU;
    expectFault( "SlotTable::Header::validate() bad version: 4294967295", 239 );
}

TEST_F( SlotTableTest, FourIsAnotherFenixUnlessNoneIsExpected ) {
    expectFault( "SlotTable::validate() bad fenix:abcd wanted:1f", 249, 440, 0x1f );
    expectValid( 440, 0 );
}

TEST_F( SlotTableTest, FiveIsTheChecksum ) {
    header.checksum += 1;
    const U32 computed = header.doHash();
    expectFault( "SlotTable::Header::validate() checksum fail: " + hex( computed ) +
                     " != " + hex( computed + 1 ),
                 258 );
}

TEST_F( SlotTableTest, SixIsMoreOccupiedThanThere ) {
    header.occupiedSlots = 11;
    expectFault( "SlotTable::Header::validate() bad occupiedSlots: 11 num slots: 10(3)", 265 );
    header.occupiedSlots = 10;
    expectValid();
}

TEST_F( SlotTableTest, SevenIsAFreeSlotOutOfRange ) {
    header.freeSlots = 10;
    expectFault( "SlotTable::Header::validate() bad freeSlots: 10 slots: 10", 272 );
    header.freeSlots = 0xFFFFFFFEU;
    expectFault( "SlotTable::Header::validate() bad freeSlots: 4294967294 slots: 10", 272 );
    header.freeSlots = 9;
    expectValid();
    header.occupiedSlots = 0;
    header.numSlots.count = 0;
    header.freeSlots = 0;
    expectFault( "SlotTable::Header::validate() bad freeSlots: 0 slots: 0", 272, 200 );
    header.freeSlots = 0xFFFFFFFFU;
    expectValid( 200 );
}

TEST_F( SlotTableTest, EightIsASegmentTooSmallForItsSlots ) {
    expectFault( "SlotTable::Header::validate() bad shmem size:439 wanted:440 for 10 slots", 281,
                 439 );
    header.numSlots.count = 1;
    header.occupiedSlots = 0;
    header.freeSlots = 0xFFFFFFFFU;
    expectFault( "SlotTable::Header::validate() bad shmem size:200 wanted:224 for 1 slots", 281,
                 200 );
    expectValid( 224 );
}

TEST_F( SlotTableTest, TheSizeOfManySlotsDoesNotWrap ) {
    header.numSlots.count = 0x80000000U;
    header.freeSlots = 0xFFFFFFFFU;
    expectFault(
        "SlotTable::Header::validate() bad shmem size:440 wanted:51539607752 for 2147483648 slots",
        281 );
    header.numSlots.count = 0xFFFFFFFFU;
    expectFault(
        "SlotTable::Header::validate() bad shmem size:440 wanted:103079215280 for 4294967295 slots",
        281 );
}

TEST_F( SlotTableTest, TheFirstFaultCounts ) {
    header.numSlots.count = 0; // 8 and 7 and 6
    header.checksum += 1;
    header.version = 3;
    header.magic[ 3 ] = 'x';
    std::string error;
    const auto text = [ & ]( std::size_t size, U32 fenix ) {
        EXPECT_FALSE( header.validate( handler, size, fenix, error ) );
        return error;
    };
    EXPECT_THAT( text( 10, 1 ), testing::HasSubstr( "bad header file size" ) );
    EXPECT_THAT( text( 200, 1 ), testing::HasSubstr( "bad magic" ) );
    header.magic[ 3 ] = 'L';
    EXPECT_THAT( text( 200, 1 ), testing::HasSubstr( "bad version" ) );
    header.version = 4;
    EXPECT_THAT( text( 200, 1 ), testing::HasSubstr( "bad fenix" ) );
    EXPECT_THAT( text( 200, 0 ), testing::HasSubstr( "checksum fail" ) );
    header.checksum = header.doHash();
    EXPECT_THAT( text( 200, 0 ), testing::HasSubstr( "bad occupiedSlots" ) );
    header.occupiedSlots = 0;
    EXPECT_THAT( text( 200, 0 ), testing::HasSubstr( "bad freeSlots" ) );
}

TEST_F( SlotTableTest, AFaultIsTracedForTheErrorLevelOnly ) {
    header.version = 5;
    handler.levels = { 1, 3, 5, 9 };
    const TraceRecorder recorder;
    std::string error;
    EXPECT_FALSE( header.validate( handler, 440, 0, error ) );
    EXPECT_THAT( recorder.lines(), ElementsAre() );
    EXPECT_EQ( error, "SlotTable::Header::validate() bad version: 5" );
}

TEST_F( SlotTableTest, ATraceNamesTheHandleAndNoObject ) {
    header.version = 5;
    handler.levels = { 0 };
    const TraceRecorder recorder;
    std::string error;
    header.validate( handler, 440, 0, error );
    ASSERT_EQ( recorder.records.size(), 1U );
    EXPECT_EQ( recorder.records[ 0 ].handle, "Krell" );
    EXPECT_EQ( recorder.records[ 0 ].context, "<unknown>" );
}

TEST_F( SlotTableTest, TheCoverageStreamGetsFaultsWhateverTheLevels ) {
    header.version = 5;
    std::stringstream coverage;
    Qel::coverageStream_ = &coverage;
    const TraceRecorder recorder;
    std::string error;
    header.validate( handler, 440, 0, error );
    Qel::coverageStream_ = nullptr;
    EXPECT_EQ( coverage.str(), "SlotTable::Header::validate() bad version: 5\n" );
    EXPECT_THAT( recorder.lines(), ElementsAre() );
}

TEST_F( SlotTableTest, ErrnoSurvivesAFault ) {
    header.version = 5;
    handler.levels = { 0 };
    const TraceRecorder recorder;
    Qel::traceSinkIs( []( const Qel::String& ) { errno = EIO; } );
    std::string error;
    errno = 12345;
    header.validate( handler, 440, 0, error );
    EXPECT_EQ( errno, 12345 );
}

TEST_F( SlotTableTest, ACopyHasAllTheWords ) {
    for ( int at = 0; at < 200; ++at ) {
        bytes()[ at ] = char( at * 7 + 1 );
    }
    Header copy( header );
    EXPECT_EQ( std::memcmp( &copy, &header, 200 ), 0 );
}

// The writer changes a word far from the counts, then the counts. A snapshot is of one version
// throughout: the word is that version's, or already the next one's, and never an older one.
TEST_F( SlotTableTest, ASnapshotIsNeverAMixture ) {
    constexpr unsigned wanted = 20000;
    U32* const word = &header.fenix;
    *word = 0;
    header.numSlots = { 0, 0 };
    std::atomic< unsigned > good { 0 };
    std::atomic< unsigned > mixed { 0 };
    std::atomic< unsigned > versions { 0 };
    std::atomic< bool > done { false };
    std::thread reader( [ & ] {
        for ( U32 last = 0; good + mixed < wanted || versions < 100; ) {
            const Header copy( header );
            const U32 v = copy.numSlots.version;
            const bool whole =
                copy.numSlots.count == v && ( copy.fenix == v || copy.fenix == v + 1 );
            ++( whole ? good : mixed );
            versions += v != last;
            last = v;
        }
        done = true;
    } );
    for ( U32 v = 1; !done; ++v ) {
        Dov::Atomics::storeRelease( word, v );
        Dov::Atomics::storeRelease( reinterpret_cast< U64* >( &header.numSlots ),
                                    VerU32 { v, v }.word() );
        for ( int pause = 0; pause < 50; ++pause ) { // lets some snapshots come to an end
            Dov::Atomics::loadAcquire( word );
        }
    }
    reader.join();
    EXPECT_EQ( mixed, 0U );
    EXPECT_GE( good, wanted );
    EXPECT_GE( versions, 100U );
}

TEST_F( SlotTableTest, VersionedCountsArePairsInOneWord ) {
    const VerU32 v { 7, 9 };
    EXPECT_EQ( v.word(), 0x0000000900000007ULL );
    EXPECT_EQ( VerU32::fromWord( v.word() ), v );
    EXPECT_EQ( VerU32::load( v ), v );
    std::ostringstream os;
    os << std::hex << VerU32 { 31, 4294967295U } << " " << 255;
    EXPECT_EQ( os.str(), "4294967295(31) ff" );
}

TEST_F( SlotTableTest, SlotsHoldTheirValueRoundedUp ) {
    EXPECT_EQ( Table::slotSize_, 24U );
    EXPECT_EQ( SlotTable< char >::slotSize_, 32U );
    EXPECT_EQ( SlotTable< char[ 16 ] >::slotSize_, 40U );
}

TEST_F( SlotTableTest, DetachGivesASharedSegmentBack ) {
    TestRoot root;
    const RootPath path( handler, "coll", true );
    Table table( handler, path, false );
    ASSERT_NE( table.segment().attach( 440, Dov::SharedMem::create ), nullptr );
    handler.levels = { 5 };
    const TraceRecorder recorder;
    table.detach();
    EXPECT_EQ( table.segment().address(), nullptr );
    EXPECT_TRUE( std::filesystem::exists( root / "coll/slots" ) );
    EXPECT_THAT( recorder.lines(),
                 ElementsAre( "5 /usr/include/Krell/SlotTable:319 detach SlotTable::detach()" ) );
}

TEST_F( SlotTableTest, DetachFreesALocalSegmentAndNothingWhenThereIsNone ) {
    TestRoot root;
    const RootPath path( handler, "coll", true );
    Table table( handler, path, true );
    table.detach();
    EXPECT_EQ( table.segment().address(), nullptr );
    ASSERT_NE( table.segment().attach( 440, Dov::SharedMem::create ), nullptr );
    table.detach();
    EXPECT_EQ( table.segment().address(), nullptr );
    EXPECT_EQ( table.segment().memSize(), 0U );
}

} // namespace
