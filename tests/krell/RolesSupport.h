// Followers in every role, for tests of what they are told and when they look.

#pragma once

#include <functional>
#include <map>
#include <stdexcept>

#include <gtest/gtest.h>

#include "krell/DoorbellSupport.h"
#include "krell/EngineSupport.h"

namespace KrellTest {

using QelKrell::QelKrellType;
using Changes = std::map< U64, bool >;

// A follower that looks around in its callbacks.
class Listener : public TestCollection {
public:
    using TestCollection::TestCollection;

    std::function< void( U64 key, bool present ) > onKey;
    std::function< void() > onAttached;

    // Of the view: all keys and their values.
    std::map< U64, U64 > contents() const {
        std::map< U64, U64 > contents;
        const U64* key;
        const U64* value;
        for ( U32 index = 0; index < shadow()->capacityUsed(); ++index ) {
            if ( shadow()->entryAt( index, key, value ) ) {
                contents[ *key ] = shadow()->valueWords() ? *value : 0;
            }
        }
        return contents;
    }

protected:
    void handleChanged( const U64* key, bool present ) override {
        TestCollection::handleChanged( key, present );
        if ( onKey ) {
            onKey( *key, present );
        }
    }
    void handleAttached() override {
        TestCollection::handleAttached();
        if ( onAttached ) {
            onAttached();
        }
    }
};

class RolesTest : public testing::Test {
protected:
    void put( U64 key, U64 value ) { writer.writer().put< 1, 1 >( &key, &value ); }
    void del( U64 key ) { writer.writer().del< 1 >( &key ); }
    // Turns the loop until both sides have nothing left to do.
    static void turnAll() { settle(); }
    static TestTimer& timerOf( Listener& follower ) {
        for ( TestTimer* timer : timers() ) {
            if ( timer->handler == &follower ) {
                return *timer;
            }
        }
        throw std::runtime_error( "the follower has no timer" );
    }
    // Attached, connected, and asleep.
    void connect( Listener& follower, QelKrellType role ) {
        follower.init( role, false, 0 );
        follower.poll();
        ASSERT_TRUE( turnUntil( [ & ] { return follower.mountStatus() == 2; } ) );
        turnAll();
    }

    const Krell::Layout layout = layoutOf( 1, 1 );
    TestRoot root;
    TestCollection writer { layout };
};

// Of the tests that hold in each role; the parameter is the role's number.
class RoleByRole : public RolesTest, public testing::WithParamInterface< int > {
protected:
    static QelKrellType role() { return QelKrellType( GetParam() ); }
};

inline auto everyRole() {
    return testing::Values( int( QelKrell::reader ), int( QelKrell::keyshadow ),
                            int( QelKrell::shadow ) );
}

} // namespace KrellTest
