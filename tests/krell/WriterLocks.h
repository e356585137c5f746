// The collection directory that tests of the writer's lock share, and other writers of it.

#pragma once

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>

#include <gmock/gmock.h>

#include <Krell/WriterLock>

#include "Hooks.h"

namespace KrellTest {

class WriterLockFixture : public testing::Test {
protected:
    std::string file() const { return root / "coll/last-owner"; }
    // What stands behind the reign's line, which must be sound.
    std::string ownersText() const {
        const std::string text = bytesOf( file() );
        EXPECT_TRUE( Krell::ReignLine::parse( text ) ) << text;
        return text.substr( std::min( text.size(), Krell::ReignLine::size_ ) );
    }
    // Whether another process gets the lock now.
    bool freeForOthers() const {
        return inChild( [ & ] {
                   return Krell::WriterLock().tryLock( Krell::Directory::open( root / "coll" ) )
                              ? 1
                              : 2;
               } ) == 1;
    }
    // A process that locks and writes its name.
    std::unique_ptr< Child > otherWriter() const {
        auto child = std::make_unique< Child >( [ this ] {
            static Krell::WriterLock lock;
            const bool locked = lock.tryLock( Krell::Directory::open( root / "coll" ) );
            if ( locked ) {
                lock.writeOwner();
            }
            return locked;
        } );
        EXPECT_TRUE( child->result() );
        return child;
    }
    static unsigned openDescriptors() {
        unsigned count = 0;
        for ( const auto& entry : std::filesystem::directory_iterator( "/proc/self/fd" ) ) {
            count += !entry.path().empty();
        }
        return count;
    }

    TestRoot root;
    Krell::Directory directory = Krell::Directory::create( root / "coll" );
};

} // namespace KrellTest
