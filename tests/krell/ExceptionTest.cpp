// The exception family: names, numbers, binary layout, and which system failure is which.

#include <Krell/Exception>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

#include <gmock/gmock.h>

namespace {

using namespace Krell;

struct Kind {
    const char* name;
    unsigned id;
    std::function< std::unique_ptr< Exception >( std::string ) > make;
};

template < class T >
Kind kind( const char* name, unsigned id ) {
    return { name, id, []( std::string msg ) { return std::make_unique< T >( msg ); } };
}

const Kind kinds[] = {
    kind< MemoryResourceException >( "MemoryResourceException", 0 ),
    kind< CorruptionDetectedException >( "CorruptionDetectedException", 1 ),
    kind< MemoryLimitException >( "MemoryLimitException", 2 ),
    kind< PermissionException >( "PermissionException", 3 ),
    kind< UnimplementedException >( "UnimplementedException", 4 ),
    kind< InvalidInitializeException >( "InvalidInitializeException", 5 ),
    kind< TimeoutException >( "TimeoutException", 6 ),
    { "DuplicateWriterException", 7,
      []( std::string msg ) { return std::make_unique< DuplicateWriterException >( msg, 0 ); } },
    kind< RuntimeException >( "RuntimeException", 9 ),
};

TEST( ExceptionTest, EachKindHasItsNameNumberAndMessage ) {
    for ( const Kind& k : kinds ) {
        const std::unique_ptr< Exception > e = k.make( "told" );
        EXPECT_EQ( e->name(), k.name );
        EXPECT_EQ( e->id(), k.id ) << k.name;
        EXPECT_EQ( e->msg(), "told" ) << k.name;
    }
}

class Foreign : public Exception {
public:
    Foreign() : Exception( "foreign" ) {}
    unsigned int id() const override { return 10; }
};

TEST( ExceptionTest, TheRootIsNamedExceptionAndLeavesTheNumberToItsKinds ) {
    EXPECT_EQ( Foreign().name(), "Exception" );
    EXPECT_TRUE( std::is_abstract_v< Exception > );
}

TEST( ExceptionTest, KindsAreCaughtByClassAndByRoot ) {
    EXPECT_THROW( throw RuntimeException( "a" ), RuntimeException );
    try {
        throw DuplicateWriterException( "held", 4711 );
    } catch ( const Exception& e ) {
        EXPECT_EQ( e.id(), 7U );
        EXPECT_EQ( dynamic_cast< const DuplicateWriterException& >( e ).detail(), 4711U );
    }
}

// An object begins with the pointer to its virtual operations, of which the first two are name and
// id; the text follows, and directly behind it the duplicate writer's detail.
TEST( ExceptionTest, SlotOrderAndDetailAreWhereEmbeddersLookForThem ) {
    const DuplicateWriterException e( "held", 0xABCD1234U );
    constexpr std::size_t at = sizeof( void* ) + sizeof( std::string );
    U32 detail = 0;
    std::memcpy( &detail, reinterpret_cast< const char* >( &e ) + at, sizeof detail );
    EXPECT_EQ( detail, 0xABCD1234U );

    using IdSlot = unsigned int ( * )( const Exception* );
    void** table = nullptr;
    std::memcpy( &table, static_cast< const void* >( &e ), sizeof table );
    IdSlot second = nullptr;
    std::memcpy( &second, &table[ 1 ], sizeof second );
    EXPECT_EQ( second( &e ), 7U );
}

TEST( ExceptionTest, MessageIsReturnedAsACopy ) {
    const RuntimeException e( "text" );
    std::string copy = e.msg();
    copy += "changed";
    EXPECT_EQ( e.msg(), "text" );
    EXPECT_EQ( RuntimeException( e ).msg(), "text" );
}

template < class T >
void expectKind( std::initializer_list< int > numbers ) {
    for ( int number : numbers ) {
        try {
            throwSystemFailure( "open", "/a/b", number );
        } catch ( const T& e ) {
            EXPECT_EQ( e.msg(), std::string( "open /a/b: " ) + std::strerror( number ) );
        } catch ( const Exception& e ) {
            ADD_FAILURE() << std::strerror( number ) << " is " << e.name();
        }
    }
}

TEST( ExceptionTest, SystemFailuresBecomeTheKindThatStandsForThem ) {
    expectKind< PermissionException >( { EACCES, EPERM, EROFS } );
    expectKind< MemoryResourceException >(
        { ENOSPC, EDQUOT, EFBIG, ENOMEM, EMFILE, ENFILE, ENOLCK } );
    expectKind< RuntimeException >( { ELOOP, ENOTDIR, EIO, EEXIST, ENOENT, EINVAL, ENAMETOOLONG } );
}

TEST( ExceptionTest, ASystemFailuresTextCanBeGivenWhole ) {
    try {
        throwSystemFailure( "grow PATH: full", ENOSPC );
        FAIL();
    } catch ( const MemoryResourceException& e ) {
        EXPECT_EQ( e.msg(), "grow PATH: full" );
    }
}

} // namespace
