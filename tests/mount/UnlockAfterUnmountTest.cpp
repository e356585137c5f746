// A writer that is unmounted lets go of its lock, and whoever waits for that hears of it.

#include <QelKrell/WriterUnlock>

#include <gmock/gmock.h>

#include "mount/Child.h"
#include "mount/Mounted.h"

namespace {

using namespace QelKrellTest;

TEST( UnlockAfterUnmount, AReaderOfTheLockCountsIt ) {
    const Root root;
    Child writer( [ & ]( const Channel& parent ) {
        Site site( false );
        site.mount.handleInitialized();
        site.mount.doMount( path, MountBench::plantType, asWriter( 4 ) );
        parent.say( "mounted" );
        parent.hear();
        site.mount.doUnmount( path ); // nobody else holds the entity
        parent.say( "unmounted" );
        parent.hear(); // lives on: the lock went with the mount, not with the process
    } );
    ASSERT_EQ( writer.hear(), "mounted" );
    const Qel::Ptr< QelKrell::WriterUnlock > count = QelKrell::writerUnlockFactory( "count" );
    const auto sm = QelKrell::writerUnlockSmFactory(
        Qel::Name( root.path() + "/sys/Krell/" + path + "/reading" ), "", count );
    sm->connectedIs( true );
    Qel::System::runOnce( 0 );
    EXPECT_EQ( count->count(), 0U );
    writer.say( "unmount" );
    ASSERT_EQ( writer.hear(), "unmounted" );
    constexpr int turns = 300; // of a tenth of a second at most: only a failure takes them all
    for ( int i = 0; i < turns && count->count() == 0; ++i ) {
        Qel::System::runOnce( 0.1 );
    }
    EXPECT_EQ( count->count(), 1U );
    writer.say( "end" );
    EXPECT_EQ( writer.wait(), 0 );
}

} // namespace
