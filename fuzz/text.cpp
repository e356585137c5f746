// The text form of every type that is registered, and of some others: whatever parses is printed,
// and the print parses to an equal value.
//
// Input: one byte that chooses the type, then the text.

#include <memory>
#include <vector>

#include <Norvo/EntityManager>
#include <Qel/Describe>
#include <QelKrell/Generic>

#include "Fuzzing.h"
#include "mount/Plant.h"

namespace {

using namespace QelKrellFuzz;
using Qel::GenericValue;
using Qel::Ptr;
using Qel::QelType;
using Qel::typeOf;

enum class Colour : int { red = 1, blue = -7 };
constexpr auto describe( const Colour* ) {
    return Qel::enumType< Colour >( "FuzzText::Colour", Qel::enumValue( "red", Colour::red ),
                                    Qel::enumValue( "blue", Colour::blue ) );
}

// In this order the first bytes of inputs choose: new ones go to the end.
const std::vector< Ptr< QelType > >& firstTypes() {
    using namespace QelKrell;
    static const std::vector< Ptr< QelType > > all {
        typeOf< ReaderCounters >(),
        typeOf< WriterCounters >(),
        typeOf< CollectionControl >(),
        typeOf< QelKrellType >(),
        typeOf< QelMountStatus >(),
        typeOf< CollectionInfo >(),
        typeOf< MountInfo >(),
        typeOf< Mount >(),
        typeOf< KrellEntities::Ptr >(),
        typeOf< WriterUnlock::Ptr >(),
        typeOf< WriterUnlockSm::Ptr >(),
        typeOf< MountBench::Reading >(),
        typeOf< MountBench::Limit >(),
        typeOf< MountBench::Plant::Ptr >(),
        typeOf< Qel::Dir::Ptr >(),
        typeOf< Colour >(),
        typeOf< bool >(),
        typeOf< Qel::U8 >(),
        typeOf< Qel::U16 >(),
        typeOf< Qel::U32 >(),
        typeOf< Qel::U64 >(),
        typeOf< Qel::S8 >(),
        typeOf< Qel::S16 >(),
        typeOf< Qel::S32 >(),
        typeOf< Qel::S64 >(),
        typeOf< float >(),
        typeOf< double >(),
        typeOf< Qel::String >(),
        typeOf< Qel::Name >(),
        typeOf< Ptr< const Norvo::EntityManager > >(),
    };
    return all;
}

const std::vector< Ptr< QelType > >& types() {
    static const std::vector< Ptr< QelType > > all = [] {
        std::vector< Ptr< QelType > > types = firstTypes();
        std::vector< Qel::String > names = QelType::typeNames();
        std::sort( names.begin(), names.end() );
        for ( const Qel::String& name : names ) {
            const Ptr< QelType > type = QelType::typeNode( name );
            const bool isThere = std::find( types.begin(), types.end(), type ) != types.end();
            if ( !isThere && type->ops().parse ) {
                types.push_back( type );
            }
        }
        return types;
    }();
    return all;
}

// Entities that texts can name.
void plantEntities() {
    static const auto manager = Norvo::entityManagerFactory( "sys", true );
    const auto krell = manager->sysDir()->subdirIs( "Krell" );
    krell->newEntity( MountBench::plantType, "north" );
    krell->newEntity( "QelKrell::KrellEntities", "counts" );
}

// From a block of just these bytes, so that reading at its end shows.
GenericValue parsed( const QelType& type, std::string_view text ) {
    const std::unique_ptr< char[] > block( new char[ text.size() ] );
    std::copy( text.begin(), text.end(), block.get() );
    Qel::StringIteratorConst it( block.get() );
    const Qel::StringIteratorConst end( block.get() + text.size() );
    GenericValue value = type.ops().parse( it, end );
    demand( it <= end, "the reader went beyond the end" );
    if ( it != end ) {
        throw Qel::RangeException( "junk" );
    }
    return value;
}

void readBack( const QelType& type, const GenericValue& value ) {
    const std::string text = value.strep().stdString();
    GenericValue again;
    demand( answers( [ & ] { again = parsed( type, text ); } ),
            "its own print is refused: " + text );
    demand( again.strep() == value.strep(), "printed otherwise after reading back: " + text );
    const bool isUnordered = text.find( "float('nan')" ) != std::string::npos;
    demand( isUnordered || again == value, "unequal after reading back: " + text );
    demand( !answers( [ & ] { parsed( type, text + "x" ); } ), "junk is taken after " + text );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const bool planted = ( plantEntities(), true );
    demand( planted, "no entities" );
    Input input( data, size );
    const QelType& type = *types()[ input.below( unsigned( types().size() ) ) ];
    const std::string text = input.rest();
    GenericValue value;
    if ( answers( [ & ] { value = parsed( type, text ); } ) ) {
        readBack( type, value );
    }
    return 0;
}
