// Who may read the file of the writer's lock may lock it for reading, as everywhere on such a
// system: that keeps a new writer out, and nothing else. Modes can rule it out.

#include <fcntl.h>
#include <gtest/gtest.h>

#include "mount/Child.h"
#include "trust/Grounds.h"

namespace {

using namespace TrustTest;
using QelKrellTest::Channel;
using QelKrellTest::Child;
using testing::Test;

// Takes that lock as somebody else, says how that went, and keeps it until told otherwise.
class ReadLocker {
public:
    ReadLocker( const Grounds& grounds, const User& user )
        : process_( [ &grounds, user ]( const Channel& channel ) {
              struct flock range {};
              range.l_type = F_RDLCK;
              range.l_whence = SEEK_SET;
              const bool became = become( user );
              const int fd = ::open( grounds.file( "last-owner" ).c_str(), O_RDONLY | O_CLOEXEC );
              const bool locked = fd >= 0 && ::fcntl( fd, F_SETLK, &range ) == 0;
              channel.say( !became ? "not the user" : locked ? "locked" : "refused" );
              channel.hear();
          } ) {}

    std::string said() { return process_.hear(); }

private:
    Child process_;
};

class ReadLockTest : public Test {
protected:
    void SetUp() override {
        if ( const std::string why = whyNoUsers(); !why.empty() ) {
            GTEST_SKIP() << why;
        }
    }
    static std::string writing() {
        return asUser( owner, [] { return refusalOf( [] { Table().as( QelKrell::writer ); } ); } );
    }
    static std::size_t entriesRead() {
        Table table;
        table.as( QelKrell::reader );
        return table.contents().size();
    }
};

TEST_F( ReadLockTest, OfAMemberKeepsANewWriterOutAndReadersIn ) {
    const Grounds grounds( 0750 );
    grounds.fill( 1 );
    {
        ReadLocker locker( grounds, member );
        ASSERT_EQ( locker.said(), "locked" );
        const std::string before = pictureOf( grounds.root() );
        const std::string refusal = writing();
        EXPECT_NE( refusal.find( "DuplicateWriterException" ), std::string::npos ) << refusal;
        EXPECT_EQ( pictureOf( grounds.root() ), before );
        EXPECT_EQ( entriesRead(), Grounds::entries );
    }
    EXPECT_EQ( writing(), "" ); // gone with the process
}

TEST_F( ReadLockTest, IsNotHadBesideAWriter ) {
    const Grounds grounds( 0750 );
    grounds.fill( 1 );
    Child writer( []( const Channel& channel ) {
        Table table;
        const bool became = become( owner );
        table.as( QelKrell::writer );
        channel.say( became ? "at work" : "not the owner" );
        channel.hear();
    } );
    ASSERT_EQ( writer.hear(), "at work" );
    ReadLocker locker( grounds, member );
    EXPECT_EQ( locker.said(), "refused" );
}

TEST_F( ReadLockTest, IsRuledOutByTheDirectorysMode ) {
    const Grounds grounds( 0700 );
    grounds.fill( 1 );
    ReadLocker locker( grounds, member );
    EXPECT_EQ( locker.said(), "refused" );
    EXPECT_EQ( writing(), "" );
}

TEST_F( ReadLockTest, IsNotHadByAStranger ) {
    const Grounds grounds( 0755 ); // whoever passes there still cannot open the file
    grounds.fill( 1 );
    ReadLocker locker( grounds, stranger );
    EXPECT_EQ( locker.said(), "refused" );
    EXPECT_EQ( writing(), "" );
}

} // namespace
