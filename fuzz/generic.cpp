// Reads, writes and calls by name on every kind of object: each is done, or refused with an
// exception of the framework's that leaves the objects usable.
//
// Input: steps, until it ends. A step is a byte for the object, one for what is done with it, and
// what that needs: a name and values, each chosen by a byte and, where that says so, by a line.
//
// Left out is what the documentation calls a caller's error: null and stray pointers, an empty
// entity path, and operations on objects whose inner part was released.

#include <vector>

#include <Qel/Describe>
#include <QelKrell/Generic>

#include "Site.h"
#include "mount/Plant.h"

namespace {

using namespace QelKrellFuzz;
using Qel::GenericValue;
using Qel::QelType;
using Qel::typeOf;

constexpr unsigned mostSteps = 48;
constexpr unsigned mostResizes = 6;

// Every object that there is to call, made anew for each run.
class World {
public:
    explicit World( const Root& root ) : site( root, false ) {
        QelKrell::MountInfo as( QelKrell::writer );
        as.collectionInfoIs( { "reading", 8 } );
        plant = Qel::ptrCast< MountBench::Plant >(
            site.mount.doMount( "a/north", MountBench::plantType, as ) );
        plant->reading.is( { 1, 21.5, 7 } );
        control = plant->reading.control();
        unlocks = QelKrell::writerUnlockFactory( "unlocks" );
        sm = QelKrell::writerUnlockSmFactory( "sys/Krell/a/north/reading", "", unlocks );
        rootPath = QelKrell::rootPathFactory( "below", true );
        entities = QelKrell::krellEntitiesFactory( "KrellEntities" );
        addAll();
    }

    Site site;
    MountBench::Plant::Ptr plant;
    QelKrell::CollectionControl control;
    QelKrell::WriterUnlock::Ptr unlocks;
    QelKrell::WriterUnlockSm::Ptr sm;
    QelKrell::RootPath::Ptr rootPath;
    QelKrell::KrellEntities::Ptr entities;
    QelKrell::MountInfo info;
    QelKrell::CollectionInfo collection;
    QelKrell::ReaderCounters readerCounters;
    QelKrell::WriterCounters writerCounters;
    QelKrell::QelKrellType role = QelKrell::shadow;
    QelKrell::QelMountStatus status = QelKrell::attached;

    std::vector< Qel::Ptr< Qel::GenericIf > > objects;

private:
    template < class GenericIf, class T >
    void add( T& object ) {
        objects.push_back( new GenericIf( object ) );
        objects.push_back( new GenericIf( std::as_const( object ) ) );
    }
    void addAll() {
        add< QelKrell::Mount::GenericIf_ >( site.mount );
        add< QelKrell::CollectionControl::GenericIf_ >( control );
        add< QelKrell::KrellEntities::GenericIf_ >( *entities );
        add< QelKrell::WriterUnlock::GenericIf_ >( *unlocks );
        add< QelKrell::WriterUnlockSm::GenericIf_ >( *sm );
        add< QelKrell::RootPath::GenericIf_ >( *rootPath );
        add< QelKrell::MountInfo::GenericIf_ >( info );
        add< QelKrell::CollectionInfo::GenericIf_ >( collection );
        add< QelKrell::ReaderCounters::GenericIf_ >( readerCounters );
        add< QelKrell::WriterCounters::GenericIf_ >( writerCounters );
        add< QelKrell::QelKrellType_GenericIf_ >( role );
        add< QelKrell::QelMountStatus_GenericIf_ >( status );
        objects.push_back( plant->genericIf() );
        objects.push_back( Qel::Ptr< const MountBench::Plant >( plant )->genericIf() );
        objects.push_back( site.mount.krellDir()->genericIf() );
        objects.push_back( site.em->genericIf() );
    }
};

const std::vector< Qel::Ptr< QelType > >& parsedTypes() {
    static const std::vector< Qel::Ptr< QelType > > all {
        typeOf< Qel::String >(),
        typeOf< bool >(),
        typeOf< Qel::U32 >(),
        typeOf< Qel::U64 >(),
        typeOf< double >(),
        typeOf< QelKrell::QelKrellType >(),
        typeOf< QelKrell::MountInfo >(),
        typeOf< QelKrell::CollectionInfo >(),
        typeOf< MountBench::Reading >(),
        typeOf< Qel::Name >(),
        typeOf< QelKrell::ReaderCounters >(),
        typeOf< QelKrell::WriterCounters >(),
        typeOf< MountBench::Limit >(),
        typeOf< QelKrell::QelMountStatus >(),
    };
    return all;
}

class Steps {
public:
    Steps( World& world, Input& input ) : world_( world ), input_( input ) {}

    void run() {
        for ( unsigned i = 0; i < mostSteps && !input_.atEnd(); ++i ) {
            Qel::GenericIf& object =
                *world_.objects[ input_.below( unsigned( world_.objects.size() ) ) ];
            answers( [ & ] { step( object ); } );
        }
    }

private:
    void step( Qel::GenericIf& object ) {
        const unsigned what = input_.below( 9 );
        const Qel::String name = nameIn( *object.type() );
        switch ( what ) {
        case 0:
        case 1:
            call( object, name );
            break;
        case 2:
            keep( object.attribute( name ) );
            break;
        case 3:
            keep( object.attribute( name, value() ) );
            break;
        case 4:
            for ( const GenericValue& index : object.attributeIndices( name ) ) {
                keep( index );
            }
            break;
        case 5:
            write( object, name, value() );
            break;
        case 6: {
            const GenericValue index = value();
            object.attributeIs( name, index, value() );
            break;
        }
        case 7:
            object.attributeDel( name, value() );
            break;
        default:
            keep( Qel::genericValue( object.strep() ) );
            keep( object.attribute( input_.number< std::uint16_t >() ) );
        }
    }

    Qel::String nameIn( const QelType& type ) {
        const auto attributes = type.attributes();
        const unsigned at = input_.byte();
        return at < attributes.size() ? attributes[ at ]->name : Qel::String( input_.line() );
    }
    GenericValue value() {
        const unsigned kind = input_.byte();
        const auto& types = parsedTypes();
        if ( kind < types.size() ) {
            return parsed( *types[ kind ] );
        }
        return kept_.empty() || kind == 255 ? GenericValue() : kept_[ kind % kept_.size() ];
    }
    GenericValue parsed( const QelType& type ) {
        const Qel::String text = input_.line();
        if ( type.fullName() == "Qel::String8" && ( text.empty() || text[ 0 ] != '\'' ) ) {
            return Qel::genericValue( text );
        }
        Qel::StringIteratorConst it = text.begin();
        return type.ops().parse( it, text.end() );
    }
    void keep( const GenericValue& value ) {
        value.strep();
        const std::string type = value.typeName().stdString();
        if ( !type.ends_with( '*' ) && kept_.size() < mostSteps ) {
            kept_.push_back( value );
        }
    }

    void write( Qel::GenericIf& object, const Qel::String& name, const GenericValue& value ) {
        const Qel::String& type = object.type()->fullName();
        const bool isFoundation = type == "QelKrell::Mount" && name != "initialized";
        const bool isUninitialised = type == "QelKrell::WriterUnlockSm" && name == "initialized";
        if ( !isFoundation && !isUninitialised ) {
            object.attributeIs( name, value );
        }
    }
    void call( Qel::GenericIf& object, const Qel::String& operation ) {
        Qel::GenericArguments arguments;
        const Qel::QelAttr* attr = object.type()->attr( operation );
        const std::size_t usual = attr ? attr->arguments.size() : 0;
        const unsigned extra = input_.below( 8 ); // mostly 0 more
        for ( std::size_t i = 0; i < usual + ( extra == 7 ? 1 : 0 ); ++i ) {
            const bool known = i < usual && extra != 6;
            arguments.emplace_back(
                known ? attr->arguments[ i ].name : Qel::String( input_.line() ), value() );
        }
        if ( isAllowed( object, operation, arguments ) ) {
            keep( object.call( operation, arguments ) );
        }
    }
    bool isAllowed( const Qel::GenericIf& object,
                    const Qel::String& operation,
                    const Qel::GenericArguments& arguments ) {
        for ( const auto& [ name, value ] : arguments ) {
            const auto* text = value.as< Qel::String >();
            if ( name == "entityPath" && text && text->empty() ) {
                return false;
            }
        }
        if ( operation == "resize" && ++resizes_ > mostResizes ) {
            return false;
        }
        return object.type()->fullName() != "QelKrell::RootPath" ||
               world_.rootPath->rootPathPtr() || operation == "handleInitialized";
    }

    World& world_;
    Input& input_;
    unsigned resizes_ = 0;
    std::vector< GenericValue > kept_;
};

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const Root root;
    const FileLimit limit( 1 << 20 );
    Input input( data, size );
    World world( root );
    Steps( world, input ).run();
    return 0;
}
