// Readers and writers that break the doorbell's protocol harm themselves only.

#include <Krell/Doorbell>

#include <gmock/gmock.h>

#include <sys/resource.h>

#include <Dov/Atomics>

#include "Descriptors.h"
#include "krell/DoorbellSupport.h"

namespace {

using namespace Krell;
using namespace KrellTest;
using State = DoorbellCaller::State;
using Message = DoorbellMessage;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

constexpr int goodSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE;
constexpr off_t pageSize = DoorbellPage::size_;

class DoorbellHostileTest : public testing::Test {
protected:
    void SetUp() override { bell_.open( directory_ ); }

    void connectGood() {
        ASSERT_TRUE( good_.call( *directory_ ) );
        ASSERT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    }
    bool goodIsKicked() {
        const unsigned before = told_.kicked;
        good_.arm();
        bell_.ring();
        return turnUntil( [ & ] { return told_.kicked != before; } );
    }
    // The reason why a reader that says this is hung up on.
    std::string refusalOf( const void* bytes, std::size_t size, std::vector< int > passed ) {
        const Fd bad = connectRaw( path_ );
        EXPECT_TRUE( sendRaw( bad.get(), bytes, size, passed ) );
        return refusal( bad );
    }
    std::string refusalOf( const Message& message, std::vector< int > passed ) {
        return refusalOf( &message, sizeof message, std::move( passed ) );
    }
    std::string refusal( const Fd& bad ) {
        debug_.lines.clear();
        debug_.levels = { 1 };
        settle();
        EXPECT_TRUE( hungUp( bad.get() ) );
        const std::string head = "Krell::Doorbell '" + path_ + "' hangs up on process " +
                                 std::to_string( ::getpid() ) + ": ";
        if ( debug_.lines.size() != 1 || !debug_.lines[ 0 ].text.starts_with( head ) ) {
            return "no trace line of it";
        }
        return debug_.lines[ 0 ].text.substr( head.size() );
    }
    // A reader that is admitted by hand, and writes its page itself.
    struct ByHand {
        Fd connection;
        DoorbellPagePtr page;
        Message welcome {};
        void ticketIs( U64 ticket ) {
            Dov::Atomics::storeRelease( &page->ticket( welcome.line ), ticket );
        }
    };
    ByHand admitted() {
        ByHand bad { connectRaw( path_ ), nullptr };
        const Fd file = memoryFile( pageSize, 0 );
        bad.page.reset( static_cast< DoorbellPage* >(
            ::mmap( nullptr, pageSize, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0 ) ) );
        EXPECT_EQ( ::fcntl( file.get(), F_ADD_SEALS, goodSeals ), 0 );
        EXPECT_TRUE( sendRaw( bad.connection.get(), &hello_, sizeof hello_, { file.get() } ) );
        settle();
        EXPECT_EQ( ::recv( bad.connection.get(), &bad.welcome, sizeof bad.welcome, MSG_DONTWAIT ),
                   ssize_t( sizeof bad.welcome ) );
        EXPECT_TRUE( bad.welcome.isWelcome( Message::bySleeper ) );
        return bad;
    }
    static std::size_t openDescriptors() {
        std::size_t count = 0;
        for ( int fd = 0; fd < 1024; ++fd ) {
            count += ::fcntl( fd, F_GETFD ) >= 0;
        }
        return count;
    }

    TestRoot root_;
    RecordingDebugHandler debug_;
    std::shared_ptr< const Directory > directory_ =
        std::make_shared< const Directory >( Directory::create( root_ / "c" ) );
    const std::string path_ = root_ / "c/doorbell";
    Doorbell bell_ { debug_ };
    Told told_;
    DoorbellCaller good_ { debug_, told_ };
    const Message hello_ = Message::of( Message::hello, Message::bySleeper );
    const Fd page_ = memoryFile( pageSize, goodSeals );
};

// --- Readers

TEST_F( DoorbellHostileTest, WhoSaysNoHelloIsHungUpOn ) {
    connectGood();
    const std::size_t before = openDescriptors();
    const std::string reason = "its first message is no hello of this version";
    EXPECT_EQ( refusalOf( "x", 1, {} ), reason );
    EXPECT_EQ( refusalOf( "x", 1, { page_.get() } ), reason );
    const auto changed = [ & ]( U32 Message::*field, U32 value ) {
        Message message = hello_;
        message.*field = value;
        return message;
    };
    for ( const Message& bad :
          { Message::of( Message::welcome, Message::bySleeper ), changed( &Message::version, 2 ),
            changed( &Message::kind, 0 ), changed( &Message::fence, 0 ),
            changed( &Message::fence, 3 ), changed( &Message::line, 1 ),
            Message { hello_.magic + 1, 1, hello_.kind, hello_.fence } } ) {
        EXPECT_EQ( refusalOf( bad, { page_.get() } ), reason ) << bad.kind << ' ' << bad.fence;
    }
    const std::string longer =
        std::string( reinterpret_cast< const char* >( &hello_ ), sizeof hello_ ) + "x";
    EXPECT_EQ( refusalOf( longer.data(), longer.size(), { page_.get() } ), reason );
    EXPECT_EQ( refusalOf( &hello_, sizeof hello_ - 1, { page_.get() } ), reason );
    const std::string huge( 100000, 'x' );
    EXPECT_EQ( refusalOf( huge.data(), huge.size(), {} ), reason );
    EXPECT_EQ( openDescriptors(), before );
    EXPECT_EQ( bell_.connections(), 1U );
    EXPECT_TRUE( goodIsKicked() );
}

TEST_F( DoorbellHostileTest, AHelloBringsExactlyOneDescriptor ) {
    connectGood();
    const std::size_t before = openDescriptors();
    const std::string reason = "its hello did not bring one descriptor";
    EXPECT_EQ( refusalOf( hello_, {} ), reason );
    for ( const std::size_t number : { 2, 3, 4, 5, 250 } ) {
        EXPECT_EQ( refusalOf( hello_, std::vector< int >( number, page_.get() ) ), reason );
    }
    EXPECT_EQ( openDescriptors(), before );
    EXPECT_TRUE( goodIsKicked() );
}

TEST_F( DoorbellHostileTest, APageMustBeWhole ) {
    connectGood();
    const std::size_t before = openDescriptors();
    const std::string notSealed = "its page is not a sealed memory file";
    for ( const int missing : { goodSeals, F_SEAL_SHRINK, F_SEAL_GROW, F_SEAL_FUTURE_WRITE } ) {
        const Fd file = memoryFile( pageSize, goodSeals & ~missing );
        EXPECT_EQ( refusalOf( hello_, { file.get() } ), notSealed ) << missing;
    }
    bytesInto( root_ / "file", std::string( pageSize, 'x' ) );
    const Fd file( ::open( ( root_ / "file" ).c_str(), O_RDWR | O_CLOEXEC ) );
    EXPECT_EQ( refusalOf( hello_, { file.get() } ), notSealed );
    int ends[ 2 ];
    ASSERT_EQ( ::pipe2( ends, O_CLOEXEC ), 0 );
    const Fd in( ends[ 0 ] );
    const Fd out( ends[ 1 ] );
    EXPECT_EQ( refusalOf( hello_, { in.get() } ), notSealed );
    const Fd small = memoryFile( pageSize - 1, goodSeals );
    EXPECT_EQ( refusalOf( hello_, { small.get() } ), "its page is too small" );
    if ( const Fd huge = memoryFile( 1 << 21, goodSeals, MFD_HUGETLB ) ) {
        EXPECT_EQ( refusalOf( hello_, { huge.get() } ), "its page is of another kind of memory" );
    }
    EXPECT_EQ( openDescriptors(), before + 4 );
    EXPECT_TRUE( goodIsKicked() );
}

TEST_F( DoorbellHostileTest, WhoGoesOnTalkingIsHungUpOn ) {
    connectGood();
    const ByHand bad = admitted();
    ASSERT_EQ( bell_.connections(), 2U );
    EXPECT_TRUE( sendRaw( bad.connection.get(), &hello_, sizeof hello_, { page_.get() } ) );
    EXPECT_EQ( refusal( bad.connection ), "it said something after its hello" );
    EXPECT_EQ( bell_.connections(), 1U );
    EXPECT_TRUE( goodIsKicked() );
}

TEST_F( DoorbellHostileTest, WhoClosesAtOnceIsForgottenQuietly ) {
    debug_.levels = { 1 };
    connectRaw( path_ );
    const Fd empty = connectRaw( path_ );
    EXPECT_TRUE( sendRaw( empty.get(), "", 0, {} ) );
    Fd half = connectRaw( path_ );
    EXPECT_TRUE( sendRaw( half.get(), &hello_, sizeof hello_, { page_.get() } ) );
    half.reset();
    settle();
    EXPECT_TRUE( hungUp( empty.get() ) );
    EXPECT_EQ( bell_.connections(), 0U );
    EXPECT_THAT( fds(), testing::SizeIs( 1 ) );
    EXPECT_THAT( debug_.lines, IsEmpty() );
}

// The others' lines are the reader's own, whatever stands there.
TEST_F( DoorbellHostileTest, OnlyTheLineOfTheWelcomeCounts ) {
    connectGood();
    ByHand first = admitted();
    ByHand second = admitted();
    ASSERT_NE( first.welcome.line, second.welcome.line );
    for ( U32 line = 0; line < DoorbellPage::lines_; ++line ) {
        if ( line != first.welcome.line ) {
            Dov::Atomics::storeRelease( &first.page->lines[ line ].word, 7 );
        }
    }
    bell_.ring();
    EXPECT_EQ( bell_.kicksIssued(), 0U );
    EXPECT_EQ( bell_.peers()[ 1 ].consumed, 7U );
    second.ticketIs( 7 );
    first.ticketIs( 8 );
    bell_.ring();
    EXPECT_EQ( bell_.kicksIssued(), 2U );
    EXPECT_TRUE( goodIsKicked() );
}

TEST_F( DoorbellHostileTest, AReaderThatNeverReceivesIsNotWaitedFor ) {
    connectGood();
    ByHand bad = admitted();
    constexpr U64 changes = 20000;
    for ( U64 ticket = 1; ticket <= changes; ++ticket ) {
        bad.ticketIs( ticket * 0x9e3779b97f4a7c15u | 1 );
        bell_.ring();
    }
    EXPECT_EQ( bell_.kicksIssued(), changes );
    EXPECT_EQ( bell_.connections(), 2U );
    EXPECT_TRUE( goodIsKicked() );
    char bytes[ 64 ];
    U64 kicks = 0;
    while ( ::recv( bad.connection.get(), bytes, sizeof bytes, MSG_DONTWAIT ) > 0 ) {
        ++kicks;
    }
    EXPECT_GT( kicks, 0U );
    EXPECT_LT( kicks, 100U );
    bad.ticketIs( 2 );
    bell_.ring();
    EXPECT_EQ( ::recv( bad.connection.get(), bytes, sizeof bytes, MSG_DONTWAIT ), 1 );
}

TEST_F( DoorbellHostileTest, AReaderThatIsGoneIsCutOffByTheFirstKick ) {
    connectGood();
    ByHand bad = admitted();
    ASSERT_EQ( bell_.connections(), 2U );
    EXPECT_TRUE( sendRaw( bad.connection.get(), &hello_, sizeof hello_, { page_.get() } ) );
    ::shutdown( bad.connection.get(), SHUT_RDWR );
    bad.ticketIs( 1 );
    bell_.ring();
    EXPECT_EQ( bell_.connections(), 1U );
    EXPECT_TRUE( goodIsKicked() );
    settle();
    EXPECT_THAT( fds(), testing::SizeIs( 3 ) ); // what it said at last counts no more
    EXPECT_EQ( bell_.connections(), 1U );
}

// So many descriptors at the most, while it lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit( rlim_t number ) {
        ::getrlimit( RLIMIT_NOFILE, &before_ );
        rlimit now = before_;
        now.rlim_cur = std::min( number, before_.rlim_max );
        ::setrlimit( RLIMIT_NOFILE, &now );
        reached_ = now.rlim_cur == number;
    }
    ~DescriptorLimit() { ::setrlimit( RLIMIT_NOFILE, &before_ ); }
    DescriptorLimit( const DescriptorLimit& ) = delete;
    DescriptorLimit& operator=( const DescriptorLimit& ) = delete;
    bool reached() const { return reached_; }

private:
    rlimit before_ {};
    bool reached_ = false;
};

TEST_F( DoorbellHostileTest, SilentConnectionsMakeRoom ) {
    const DescriptorLimit limit( 4096 );
    if ( !limit.reached() ) {
        GTEST_SKIP() << "too few descriptors";
    }
    connectGood();
    std::vector< Fd > silent;
    for ( U32 i = 1; i < Doorbell::maxConnections_; ++i ) {
        silent.push_back( connectRaw( path_ ) );
        ASSERT_TRUE( silent.back() );
        if ( i % 64 == 0 ) {
            settle();
        }
    }
    settle();
    ASSERT_EQ( fds().size(), Doorbell::maxConnections_ + 2 );
    debug_.levels = { 1 };
    Told told;
    DoorbellCaller late( debug_, told );
    ASSERT_TRUE( late.call( *directory_ ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told.connected != 0; } ) );
    EXPECT_EQ( bell_.connections(), 2U );
    EXPECT_TRUE( hungUp( silent[ 0 ].get() ) );
    EXPECT_FALSE( hungUp( silent[ 1 ].get() ) );
    ASSERT_EQ( debug_.lines.size(), 1U );
    EXPECT_THAT( debug_.lines[ 0 ].text, EndsWith( ": it never said hello, and others wait" ) );
    EXPECT_TRUE( goodIsKicked() );
}

TEST_F( DoorbellHostileTest, WhoComesWhenAllPlacesAreTakenIsRefused ) {
    const DescriptorLimit limit( 4096 );
    if ( !limit.reached() ) {
        GTEST_SKIP() << "too few descriptors";
    }
    std::vector< std::unique_ptr< DoorbellCaller > > callers;
    for ( U32 i = 0; i < Doorbell::maxConnections_; ++i ) {
        callers.push_back( std::make_unique< DoorbellCaller >( debug_, told_ ) );
        ASSERT_TRUE( callers.back()->call( *directory_ ) );
        if ( i % 64 == 0 ) {
            settle();
        }
    }
    settle();
    ASSERT_EQ( bell_.connections(), Doorbell::maxConnections_ );
    debug_.levels = { 1 };
    Told told;
    DoorbellCaller late( debug_, told );
    ASSERT_TRUE( late.call( *directory_ ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told.disconnected != 0; } ) );
    EXPECT_EQ( told.connected, 0U );
    ASSERT_EQ( debug_.lines.size(), 1U );
    EXPECT_THAT( debug_.lines[ 0 ].text,
                 EndsWith( " refuses a reader: there are as many as can be" ) );
    callers.pop_back();
    settle();
    ASSERT_TRUE( late.call( *directory_ ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told.connected != 0; } ) );
}

TEST_F( DoorbellHostileTest, WithoutDescriptorsReadersWaitAndNothingSpins ) {
    SKIP_IF_DESCRIPTORS_ARE_NEEDED();
    connectGood();
    debug_.levels = { 1 };
    Fd first = connectRaw( path_ );
    settle();
    const Fd waiting = connectRaw( path_ );
    EXPECT_TRUE( sendRaw( waiting.get(), &hello_, sizeof hello_, { page_.get() } ) );
    const int lowestFree = ::fcntl( page_.get(), F_DUPFD_CLOEXEC, 0 );
    ::close( lowestFree );
    ASSERT_THAT( timers(), testing::SizeIs( 1 ) );
    {
        const DescriptorLimit limit { rlim_t( lowestFree ) };
        EXPECT_EQ( turn(), 1U );
        EXPECT_EQ( turn(), 0U ); // it looks no more
        EXPECT_TRUE( timers()[ 0 ]->armed );
        EXPECT_EQ( timers()[ 0 ]->seconds, 1.0 );
        ASSERT_EQ( debug_.lines.size(), 1U );
        EXPECT_THAT( debug_.lines[ 0 ].text, EndsWith( " cannot accept: Too many open files" ) );
        EXPECT_TRUE( goodIsKicked() );
        EXPECT_EQ( fireTimers(), 1U ); // looks again, in vain
        EXPECT_EQ( turn(), 1U );
        EXPECT_EQ( turn(), 0U );
        first.reset(); // frees one here, and the writer's end of it
        EXPECT_TRUE( turnUntil( [ & ] { return bell_.connections() == 2; } ) );
        EXPECT_FALSE( timers()[ 0 ]->armed );
    }
    EXPECT_FALSE( hungUp( waiting.get() ) );
}

// --- Writers

class HostileWriterTest : public testing::Test {
protected:
    Fd answered() {
        EXPECT_TRUE( caller_.call( directory_ ) );
        return Fd( ::accept4( listening_.get(), nullptr, nullptr, SOCK_CLOEXEC ) );
    }
    void expectDisconnected( const std::string& fault ) {
        debug_.lines.clear();
        debug_.levels = { 1 };
        EXPECT_TRUE( turnUntil( [ & ] { return told_.disconnected != 0; } ) );
        EXPECT_EQ( std::exchange( told_.disconnected, 0U ), 1U );
        EXPECT_EQ( caller_.state(), State::idle );
        std::string text;
        for ( const auto& line : debug_.lines ) {
            text += line.text;
        }
        EXPECT_EQ( text, fault.empty()
                             ? ""
                             : "Krell::DoorbellCaller hangs up on '" + path_ + "', process " +
                                   std::to_string( ::getpid() ) + ": a message of " + fault );
    }

    TestRoot root_;
    RecordingDebugHandler debug_;
    const Directory directory_ = Directory::create( root_ / "c" );
    const std::string path_ = root_ / "c/doorbell";
    const Fd listening_ = listenRaw( path_ );
    Told told_;
    DoorbellCaller caller_ { debug_, told_ };
    const Message welcome_ = Message::of( Message::welcome, Message::byWriter, 5 );
};

TEST_F( HostileWriterTest, WhoSaysNoWelcomeIsLeft ) {
    const Message other { welcome_.magic, 2, welcome_.kind, welcome_.fence };
    const Message echo = Message::of( Message::hello, Message::bySleeper );
    const Message nobodys = Message::of( Message::welcome, Message::Fence( 3 ) );
    const Message beyond = Message::of( Message::welcome, Message::byWriter, DoorbellPage::lines_ );
    const std::string longer = std::string( sizeof welcome_ + 1, 'x' );
    const std::string huge( 100000, 'x' );
    const struct {
        const void* bytes;
        std::size_t size;
    } cases[] = { { "x", 1 },
                  { &other, sizeof other },
                  { &echo, sizeof echo },
                  { &nobodys, sizeof nobodys },
                  { &beyond, sizeof beyond },
                  { longer.data(), longer.size() },
                  { huge.data(), huge.size() } };
    for ( const auto& one : cases ) {
        const Fd bad = answered();
        EXPECT_TRUE( sendRaw( bad.get(), one.bytes, one.size, {} ) );
        expectDisconnected( std::to_string( one.size ) + " bytes that is no welcome" );
    }
    EXPECT_EQ( told_.connected, 0U );
}

TEST_F( HostileWriterTest, WhoSaysNothingAndClosesIsLeft ) {
    answered();
    expectDisconnected( "" );
    const Fd empty = answered();
    EXPECT_TRUE( sendRaw( empty.get(), "", 0, {} ) );
    expectDisconnected( "" );
}

TEST_F( HostileWriterTest, WhoSaysOtherThanKicksIsLeft ) {
    const Fd bad = answered();
    EXPECT_TRUE( sendRaw( bad.get(), &welcome_, sizeof welcome_, {} ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    EXPECT_TRUE( sendRaw( bad.get(), "x", 1, {} ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told_.kicked == 1; } ) );
    EXPECT_TRUE( sendRaw( bad.get(), &welcome_, sizeof welcome_, {} ) );
    expectDisconnected( "24 bytes that is no kick" );
    EXPECT_TRUE( hungUp( bad.get() ) );
}

TEST_F( HostileWriterTest, OneWhoFloodsIsReceivedPieceByPiece ) {
    const Fd bad = answered();
    EXPECT_TRUE( sendRaw( bad.get(), &welcome_, sizeof welcome_, {} ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    const int big = 1 << 24;
    ::setsockopt( bad.get(), SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big );
    unsigned sent = 0;
    while ( sent < 1000 && sendRaw( bad.get(), "x", 1, {} ) ) {
        ++sent;
    }
    ASSERT_GT( sent, 256U );
    EXPECT_EQ( turn(), 1U );
    EXPECT_EQ( caller_.kicks(), 256U );
    EXPECT_TRUE( turnUntil( [ & ] { return caller_.kicks() == sent; } ) );
    EXPECT_EQ( told_.kicked, ( sent + 255 ) / 256 );
}

TEST_F( HostileWriterTest, DescriptorsThatItPassesAreNotTaken ) {
    const Fd bad = answered();
    const auto open = [] {
        int count = 0;
        for ( int fd = 0; fd < 1024; ++fd ) {
            count += ::fcntl( fd, F_GETFD ) >= 0;
        }
        return count;
    };
    const int before = open();
    EXPECT_TRUE( sendRaw( bad.get(), &welcome_, sizeof welcome_, { 0, 1, 2 } ) );
    EXPECT_TRUE( turnUntil( [ & ] { return told_.connected != 0; } ) );
    EXPECT_EQ( open(), before );
}

} // namespace
