// Every sequence of a few operations on a tiny table, against a model.

#include <gtest/gtest.h>

#include "krell/EngineSupport.h"

using namespace KrellTest;
using Krell::PutResult;

namespace {

// Keys that collide, so that one bucket chain holds them all.
class Tiny {
public:
    Tiny() : collection_( layoutOf( 2, 1 ) ) { collection_.init( QelKrell::writer, true, 1 ); }

    static constexpr unsigned operations = 6;

    void apply( unsigned operation ) {
        const U64 key = operation % 3 == 0 ? 0 : operation % 3;
        const auto words = collidingKey( key );
        if ( operation >= 3 ) {
            ASSERT_EQ( collection_.writer().del< 2 >( words.data() ), model_.erase( key ) == 1 );
            return;
        }
        const bool there = model_.contains( key );
        const U64 value = ++changes_;
        ASSERT_EQ( ( collection_.writer().put< 2, 1 >( words.data(), &value ) ),
                   there ? PutResult::updated : PutResult::inserted );
        model_[ key ] = value;
    }

    void check() {
        std::map< std::vector< U64 >, std::vector< U64 > > wanted;
        for ( const auto& [ key, value ] : model_ ) {
            const auto words = collidingKey( key );
            wanted[ { words[ 0 ], words[ 1 ] } ] = { value };
        }
        ASSERT_EQ( ( contentsOf< 2, 1 >( collection_.table() ) ), wanted );
        for ( U64 key = 0; key < 3; ++key ) {
            U64 value = 0;
            const auto words = collidingKey( key );
            ASSERT_EQ( ( collection_.table().find< 2, 1 >( words.data(), &value ) ),
                       model_.contains( key ) );
            ASSERT_TRUE( !model_.contains( key ) || model_[ key ] == value );
        }
        ASSERT_EQ( collection_.table().occupied(), model_.size() );
        ASSERT_TRUE( collection_.validate() );
    }

private:
    TestCollection collection_;
    std::map< U64, U64 > model_;
    U64 changes_ = 0;
};

TEST( EngineExhaustiveTest, EverySequenceOfSixOperationsGivesWhatTheModelGives ) {
    constexpr unsigned length = 6;
    unsigned sequences = 0;
    unsigned total = 1;
    for ( unsigned i = 0; i < length; ++i ) {
        total *= Tiny::operations;
    }
    for ( unsigned number = 0; number < total; ++number, ++sequences ) {
        SCOPED_TRACE( "sequence " + std::to_string( number ) );
        Tiny tiny;
        for ( unsigned rest = number, i = 0; i < length; ++i, rest /= Tiny::operations ) {
            tiny.apply( rest % Tiny::operations );
        }
        tiny.check();
        if ( HasFatalFailure() ) {
            return;
        }
    }
    ASSERT_EQ( sequences, 46656U );
}

} // namespace
