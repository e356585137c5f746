// How often the writer's lock was held: the numbers in the lock and in its file, at every step of
// taking it, and what two looks at them tell.

#include <Krell/WriterLock>

#include <filesystem>
#include <limits>
#include <vector>

#include <gmock/gmock.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "WriterLocks.h"

namespace {

using namespace Krell;
using namespace KrellTest;
namespace fs = std::filesystem;

// --- The line

TEST( ReignLineTest, IsTextOfOneLength ) {
    const ReignLine line { 17, 0x3a52944e1f7 };
    EXPECT_EQ( line.text().substr( 0, 40 ), "reign: 000000000000017 000003a52944e1f7 " );
    EXPECT_EQ( line.text().size(), ReignLine::size_ );
    EXPECT_EQ( line.text().back(), '\n' );
    EXPECT_EQ( ReignLine::parse( line.text() ), line );
    EXPECT_EQ( ReignLine::parse( line.text() + "pid: 12\n" ), line );
    const ReignLine longest { ReignLine::maxNumber_, std::numeric_limits< U64 >::max() };
    EXPECT_EQ( longest.text().size(), ReignLine::size_ );
    EXPECT_EQ( ReignLine::parse( longest.text() ), longest );
}

TEST( ReignLineTest, WithOneBitChangedIsNone ) {
    const std::string text = ReignLine { 17, 0x3a52944e1f7 }.text();
    for ( std::size_t i = 0; i < 8 * text.size(); ++i ) {
        std::string other = text;
        other[ i / 8 ] = char( other[ i / 8 ] ^ 1 << i % 8 );
        EXPECT_EQ( ReignLine::parse( other ), std::nullopt ) << other;
    }
}

TEST( ReignLineTest, HalfOfOneAndHalfOfTheNextIsNone ) {
    const std::string text = ReignLine { 1999, 5 }.text();
    const std::string next = ReignLine { 2000, 5 }.text();
    for ( std::size_t i = 0; i <= text.size(); ++i ) {
        const std::string torn = next.substr( 0, i ) + text.substr( i );
        EXPECT_EQ( ReignLine::parse( torn ).has_value(), torn == text || torn == next ) << torn;
        EXPECT_EQ( ReignLine::parse( text.substr( 0, i ) ).has_value(), i == text.size() );
    }
}

TEST( ReignLineTest, NumbersThatCannotBeAreNone ) {
    for ( const ReignLine& line :
          { ReignLine { 0, 5 }, ReignLine { 5, 0 }, ReignLine { ReignLine::maxNumber_ + 1, 5 } } ) {
        EXPECT_EQ( ReignLine::parse( line.text() ), std::nullopt );
    }
}

TEST( ReignLineTest, TheNextNumberIsOneMoreOrBeginsASeries ) {
    EXPECT_EQ( ReignLine::after( ReignLine { 17, 5 } ), ( ReignLine { 18, 5 } ) );
    for ( const auto& last : { std::optional< ReignLine >(),
                               std::optional( ReignLine { ReignLine::maxNumber_, 5 } ) } ) {
        const U64 before = ReignLine::now();
        const ReignLine first = ReignLine::after( last );
        EXPECT_EQ( first.number, 1U );
        EXPECT_GE( first.series, before );
        EXPECT_LE( first.series, ReignLine::now() );
    }
}

// --- Two looks

constexpr pid_t a = 100;
constexpr pid_t b = 200;
constexpr pid_t unknown = WriterLock::unknownHolder_;

struct Row {
    const char* name;
    Reigns before; // over, current, holder, series
    Reigns now;
    U64 ended;
};

class TwoLooks : public testing::TestWithParam< Row > {};

TEST_P( TwoLooks, TellWhatEnded ) {
    EXPECT_EQ( Reigns::ended( GetParam().before, GetParam().now ), GetParam().ended );
}

const Row rows[] = {
    { "StaysFree", { 5, 0, 0, 1 }, { 5, 0, 0, 1 }, 0 },
    { "StaysHeld", { 4, 5, a, 1 }, { 4, 5, a, 1 }, 0 },
    { "Taken", { 5, 0, 0, 1 }, { 5, 6, a, 1 }, 0 },
    { "TakenNotNumberedYet", { 5, 0, 0, 1 }, { 5, 0, a, 1 }, 0 },
    { "NumberedMeanwhile", { 5, 0, a, 1 }, { 5, 6, a, 1 }, 0 },
    { "Released", { 4, 5, a, 1 }, { 5, 0, 0, 1 }, 1 },
    { "TakenOver", { 4, 5, a, 1 }, { 5, 6, b, 1 }, 1 },
    { "TakenOverNotNumberedYet", { 4, 5, a, 1 }, { 5, 0, b, 1 }, 1 },
    { "LockedAgainByTheSame", { 4, 5, a, 1 }, { 5, 6, a, 1 }, 1 },
    { "LockedAgainByTheSameNotNumberedYet", { 4, 5, a, 1 }, { 5, 0, a, 1 }, 1 },
    { "CameAndWent", { 5, 0, 0, 1 }, { 6, 0, 0, 1 }, 1 },
    { "CameAndWentBeforeTheFirstWasNumbered", { 0, 0, 0, 0 }, { 1, 0, 0, 1 }, 1 },
    { "AHundred", { 4, 5, a, 1 }, { 104, 105, b, 1 }, 100 },
    { "FirstNumberInTheLockAlone", { 0, 1, a, 0 }, { 0, 1, a, 7 }, 0 },
    { "FirstReignEnds", { 0, 1, a, 0 }, { 1, 0, 0, 7 }, 1 },
    { "DiedBeforeItHadANumber", { 5, 0, a, 1 }, { 5, 0, 0, 1 }, 1 },
    { "DiedBeforeItsNumberStoodInTheFile", { 5, 6, a, 1 }, { 5, 0, 0, 1 }, 1 },
    { "DiedSoAndAnotherTookTheNumber", { 5, 6, a, 1 }, { 5, 6, b, 1 }, 1 },
    { "HolderOfUnknownProcessStays", { 4, 5, unknown, 1 }, { 4, 5, unknown, 1 }, 0 },
    { "HolderOfUnknownProcessReleases", { 4, 5, unknown, 1 }, { 5, 0, 0, 1 }, 1 },
    { "HolderBecomesKnown", { 4, 5, unknown, 1 }, { 4, 5, a, 1 }, 0 },
    { "NumberlessHolderReleases", { 0, 0, a, 0 }, { 0, 0, 0, 0 }, 1 },
    { "NumberlessHolderTakenOver", { 0, 0, a, 0 }, { 0, 0, b, 0 }, 1 },
    { "NumberlessHolderWipesTheText", { 5, 0, a, 1 }, { 0, 0, a, 0 }, 0 },
    { "TextLostWhileHeld", { 4, 5, a, 1 }, { 4, 5, a, 0 }, 0 },
    { "TextLostAndReleased", { 4, 5, a, 1 }, { 0, 0, 0, 0 }, 1 },
    { "TextLostWhileFree", { 5, 0, 0, 1 }, { 0, 0, 0, 0 }, 0 },
    { "TextComesBack", { 4, 5, a, 0 }, { 4, 5, a, 1 }, 0 },
    { "SmallerNumberWhileFree", { 9, 0, 0, 1 }, { 5, 0, 0, 1 }, 0 },
    { "SmallerNumberAndReleased", { 9, 10, a, 1 }, { 5, 0, 0, 1 }, 1 },
    { "AbsurdNumberWhileFree", { 9, 0, 0, 1 }, { 2'000'000, 0, 0, 1 }, 0 },
    { "AbsurdNumberAndReleased", { 9, 10, a, 1 }, { 2'000'000, 0, 0, 1 }, 1 },
    { "LargestNumberThatIsBelieved", { 9, 0, 0, 1 }, { 1'000'009, 0, 0, 1 }, 1'000'000 },
    { "AnotherSeriesWhileFree", { 9, 0, 0, 1 }, { 500, 0, 0, 2 }, 0 },
    { "AnotherSeriesAndReleased", { 9, 10, a, 1 }, { 500, 0, 0, 2 }, 1 },
    { "AnotherSeriesSameHolder", { 9, 10, a, 1 }, { 9, 10, a, 2 }, 0 },
};

INSTANTIATE_TEST_SUITE_P( All, TwoLooks, testing::ValuesIn( rows ), []( const auto& info ) {
    return std::string( info.param.name );
} );

TEST( ReignsTest, OfANewFileAllCountAndOfAnOldOneNone ) {
    EXPECT_EQ( Reigns::endedOfNew( { 3, 4, a, 1000 }, 1000 ), 3U );
    EXPECT_EQ( Reigns::endedOfNew( { 3, 4, a, 999 }, 1000 ), 0U );
    EXPECT_EQ( Reigns::endedOfNew( { 0, 0, a, 0 }, 1000 ), 0U );
    EXPECT_EQ( Reigns::endedOfNew( { 1'000'001, 0, 0, 1000 }, 1000 ), 0U );
}

TEST( ReignsTest, OfAFileWithoutANameAllHaveEnded ) {
    const Reigns held = Reigns { 4, 5, a, 1 }.ended();
    EXPECT_EQ( held.over, 5U );
    EXPECT_FALSE( held.held() );
    EXPECT_EQ( ( Reigns { 5, 0, 0, 1 }.ended().over ), 5U );
    EXPECT_EQ( Reigns::ended( { 5, 0, a, 1 }, Reigns { 5, 0, a, 1 }.ended() ), 1U );
}

// --- Every step of taking the lock

// Takes the lock in the steps of WriterLock, one at a time, beside locks of this process.
class Stepwise {
public:
    explicit Stepwise( const std::string& path ) : file_( ::open( path.c_str(), O_RDWR ) ) {}

    bool lock() const { return set( F_WRLCK, 0 ); }
    bool shrinkTo( U64 number ) const { return set( F_UNLCK, number ); }
    bool write( const std::string& text ) const {
        return ::pwrite( file_.get(), text.data(), text.size(), 0 ) == ssize_t( text.size() );
    }

private:
    bool set( short type, U64 from ) const {
        struct flock range = {};
        range.l_type = type;
        range.l_start = off_t( from );
        return ::fcntl( file_.get(), F_OFD_SETLK, &range ) == 0;
    }
    Fd file_;
};

class ReignTest : public WriterLockFixture {
protected:
    Reigns reigns() const { return reignsOf( WriterLock::fileOf( directory ) ); }
    Reigns reignsOf( const Fd& pinned ) const { return WriterLock::reignsOf( pinned, file() ); }
    Reigns reignsForOthers() const {
        Reigns seen;
        int ends[ 2 ];
        EXPECT_EQ( ::pipe( ends ), 0 );
        inChild( [ & ] {
            const Reigns mine = reigns();
            return ::write( ends[ 1 ], &mine, sizeof mine ) == sizeof mine ? 0 : 1;
        } );
        EXPECT_EQ( ::read( ends[ 0 ], &seen, sizeof seen ), ssize_t( sizeof seen ) );
        ::close( ends[ 0 ] );
        ::close( ends[ 1 ] );
        return seen;
    }
    void letGoTimes( unsigned n ) {
        WriterLock lock;
        for ( unsigned i = 0; i < n; ++i ) {
            ASSERT_TRUE( lock.tryLock( directory ) );
            lock.unlock();
        }
    }
};

// A reign after the other, each taken in steps; what every step shows, and how many have ended.
TEST_F( ReignTest, AnyTwoLooksTellExactlyWhatEndedBetweenThem ) {
    struct Look {
        Reigns reigns;
        U64 ended;
    };
    bytesInto( file(), "" );
    std::vector< Look > looks;
    constexpr U64 series = 7;
    constexpr U64 count = 4;
    for ( U64 number = 1; number <= count; ++number ) {
        looks.push_back( { reigns(), number - 1 } );
        const Stepwise holder( file() );
        ASSERT_TRUE( holder.lock() );
        looks.push_back( { reigns(), number - 1 } );
        ASSERT_TRUE( holder.shrinkTo( number ) );
        looks.push_back( { reigns(), number - 1 } );
        ASSERT_TRUE( holder.write( ReignLine { number, series }.text() ) );
        looks.push_back( { reigns(), number - 1 } );
    }
    looks.push_back( { reigns(), count } );
    for ( std::size_t i = 0; i < looks.size(); ++i ) {
        for ( std::size_t j = i; j < looks.size(); ++j ) {
            EXPECT_EQ( Reigns::ended( looks[ i ].reigns, looks[ j ].reigns ),
                       looks[ j ].ended - looks[ i ].ended )
                << i << " " << j;
        }
    }
}

TEST_F( ReignTest, WhoDiesBeforeItsNumberIsWrittenIsSeenToEnd ) {
    letGoTimes( 3 );
    for ( const bool numbered : { false, true } ) {
        const Reigns before = reigns();
        Reigns held;
        {
            const Stepwise holder( file() );
            ASSERT_TRUE( holder.lock() );
            ASSERT_TRUE( !numbered || holder.shrinkTo( 4 ) );
            held = reigns();
        }
        EXPECT_EQ( Reigns::ended( before, held ), 0U );
        EXPECT_EQ( Reigns::ended( held, reigns() ), 1U );
        EXPECT_EQ( reigns().over, 3U );
    }
    const Reigns before = reigns();
    letGoTimes( 1 );
    EXPECT_EQ( Reigns::ended( before, reigns() ), 1U );
}

// --- The lock itself

TEST_F( ReignTest, EachHoldingHasTheNextNumber ) {
    WriterLock lock;
    const U64 before = ReignLine::now();
    U64 series = 0;
    for ( U64 number = 1; number <= 5; ++number ) {
        ASSERT_TRUE( lock.tryLock( directory ) );
        for ( const Reigns& seen : { reigns(), reignsForOthers() } ) {
            EXPECT_EQ( seen.over, number - 1 );
            EXPECT_EQ( seen.current, number );
            EXPECT_EQ( seen.holder, ::getpid() );
        }
        EXPECT_FALSE( freeForOthers() );
        if ( number % 2 ) {
            lock.writeOwner();
        }
        lock.unlock();
        for ( const Reigns& seen : { reigns(), reignsForOthers() } ) {
            EXPECT_EQ( seen.over, number );
            EXPECT_EQ( seen.current, 0U );
            EXPECT_FALSE( seen.held() );
        }
        series = number == 1 ? reigns().series : series;
        EXPECT_EQ( reigns().series, series );
    }
    EXPECT_GE( series, before );
}

TEST_F( ReignTest, ARefusalIsNoReign ) {
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_FALSE( freeForOthers() );
    EXPECT_FALSE( WriterLock().tryLock( directory ) );
    EXPECT_EQ( reigns().current, 1U );
}

TEST_F( ReignTest, AKilledHoldersReignIsOver ) {
    letGoTimes( 2 );
    const auto other = otherWriter();
    EXPECT_EQ( reigns().over, 2U );
    EXPECT_EQ( reigns().current, 3U );
    EXPECT_EQ( reigns().holder, other->pid() );
    other->kill( SIGKILL );
    EXPECT_EQ( reigns().over, 3U );
    EXPECT_FALSE( reigns().held() );
}

TEST_F( ReignTest, LockingLeavesTheOwnersText ) {
    const std::string old = "process: old\npid: 12\nstart-time: 1\nboot-id: b\nuid: 1\n";
    bytesInto( file(), old ); // of a version that does not number
    for ( U64 number = 1; number <= 2; ++number ) {
        WriterLock lock;
        ASSERT_TRUE( lock.tryLock( directory ) );
        EXPECT_EQ( lock.owner().pid, 12 );
        lock.unlock();
        EXPECT_EQ( ownersText(), old );
        EXPECT_EQ( reigns().over, number );
    }
}

TEST_F( ReignTest, AnUnsoundLineBeginsANewSeries ) {
    letGoTimes( 9 );
    const Reigns before = reigns();
    std::string text = bytesOf( file() );
    text[ 20 ] = '8';
    bytesInto( file(), text );
    EXPECT_EQ( reigns().over, 0U );
    EXPECT_EQ( reigns().series, 0U );
    letGoTimes( 1 );
    EXPECT_EQ( reigns().over, 1U );
    EXPECT_GT( reigns().series, before.series );
}

TEST_F( ReignTest, TextThatIsLostUnderAHolderStandsAgainOnceItWritesItself ) {
    letGoTimes( 4 );
    const Reigns before = reigns();
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    ASSERT_EQ( ::truncate( file().c_str(), 0 ), 0 );
    EXPECT_EQ( reignsForOthers().current, 5U ) << "it stands in the lock";
    EXPECT_EQ( reignsForOthers().over, 4U );
    lock.writeOwner();
    EXPECT_EQ( reignsForOthers().series, before.series );
    lock.unlock();
    EXPECT_EQ( Reigns::ended( before, reigns() ), 1U );
}

TEST_F( ReignTest, WithoutRoomForTheNumberTheLockIsFreeAgain ) {
    letGoTimes( 2 );
    const std::string text = bytesOf( file() );
    EXPECT_EQ( inChild( [ & ] {
                   ::signal( SIGXFSZ, SIG_IGN );
                   const rlimit limit = { 0, 0 };
                   ::setrlimit( RLIMIT_FSIZE, &limit );
                   WriterLock lock;
                   try {
                       lock.tryLock( directory );
                   } catch ( const MemoryResourceException& e ) {
                       return !lock.held() && WriterLock::holderOf( directory ) == 0 &&
                                      e.msg() == "pwrite " + file() + ": File too large"
                                  ? 0
                                  : 1;
                   }
                   return 2;
               } ),
               0 );
    EXPECT_EQ( bytesOf( file() ), text );
    EXPECT_TRUE( freeForOthers() );
}

// --- The file

TEST_F( ReignTest, AFileIsAskedAfterItLostItsName ) {
    letGoTimes( 1 );
    const Fd pinned = WriterLock::fileOf( directory );
    {
        WriterLock lock;
        ASSERT_TRUE( lock.tryLock( directory ) );
        fs::remove( file() );
        EXPECT_FALSE( WriterLock::fileOf( directory ) );
        EXPECT_EQ( reignsOf( pinned ).current, 2U );
    }
    letGoTimes( 1 ); // of a new file
    EXPECT_EQ( reignsOf( pinned ).over, 2U );
    EXPECT_EQ( reigns().over, 1U );
    EXPECT_NE( reigns().series, reignsOf( pinned ).series );
}

TEST_F( ReignTest, KeepingAndAskingTheFileDoesNotGiveTheLockAway ) {
    letGoTimes( 1 );
    Fd pinned = WriterLock::fileOf( directory );
    WriterLock lock;
    ASSERT_TRUE( lock.tryLock( directory ) );
    EXPECT_EQ( reignsOf( pinned ).current, 2U );
    pinned.reset();
    EXPECT_FALSE( freeForOthers() );
    EXPECT_EQ( inChild( [ & ] { return reigns().current == 2 ? 0 : 1; } ), 0 );
    EXPECT_FALSE( freeForOthers() );
}

TEST_F( ReignTest, WhatIsNoRegularFileIsRefused ) {
    fs::create_symlink( root / "target", file() );
    bytesInto( root / "target", "precious" );
    try {
        WriterLock::fileOf( directory );
        FAIL();
    } catch ( const RuntimeException& e ) {
        EXPECT_EQ( e.msg(), file() + " is no regular file" );
    }
    fs::remove( file() );
    EXPECT_FALSE( WriterLock::fileOf( directory ) );
}

} // namespace
