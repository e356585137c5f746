// Registration: what the library tells the framework of its types when it is loaded.

#include <Qel/Introspection>
#include <QelKrell/Generic>

#include <sstream>

#include <gmock/gmock.h>

namespace {

using Qel::QelType;
using Qel::String;
using testing::ElementsAreArray;

using Lines = std::vector< std::string >;

constexpr const char* names[] = {
    "QelKrell::ReaderCounters", "QelKrell::WriterCounters", "QelKrell::CollectionControl",
    "QelKrell::QelKrellType",   "QelKrell::RootPath",       "QelKrell::WriterUnlock",
    "QelKrell::WriterUnlockSm", "QelKrell::CollectionInfo", "QelKrell::MountInfo",
    "QelKrell::KrellEntities",  "QelKrell::Mount",          "QelKrell::QelMountStatus",
};

// Writes down what it is told.
class Recorder : public Qel::IntrospectionReactor {
public:
    void handleScope( const String& name ) override { add( "scope " + name ); }
    void handleForeignType( const String& name ) override { add( "foreign " + name ); }
    void handleType( const String& name, const Qel::Ptr< QelType >& type ) override {
        add( "type " + name );
        EXPECT_EQ( type->fullName(), name );
    }
    void defNoninstantiatingAttr(
        const String& name,
        const String& typeName,
        Qel::QelAttr::QelAttrIntrospectionFlags flags,
        const std::shared_ptr< const Qel::AttrAccess >& access ) override {
        add( "attr " + name + " " + typeName + " " + Qel::decimal( flags.value() ) );
        EXPECT_TRUE( access );
    }
    void handleAttr( const Qel::QelAttr& attr ) override {
        String text = "op " + attr.name + "(";
        for ( const Qel::QelAttr::Argument& a : attr.arguments ) {
            text += " " + a.name + ":" + a.typeName;
        }
        add( text + " ) " + ( attr.typeName.empty() ? String( "none" ) : attr.typeName ) + " " +
             Qel::decimal( attr.flags.value() ) );
        EXPECT_TRUE( attr.access );
    }
    void handleAttrContextExit() override { add( "exit op" ); }
    void handleEnumValue( Qel::S64 number, const String& name ) override {
        add( "value " + Qel::decimalSigned( number ) + " " + name );
    }
    void handleScopeExit() override { add( "exit scope" ); }

    Lines lines;

private:
    void add( const String& line ) { lines.push_back( line.stdString() ); }
};

Lines told( const char* name ) {
    Recorder recorder;
    const auto type = QelType::typeNode( name );
    if ( type && type->ops().describe ) {
        type->ops().describe( recorder, type );
    }
    return recorder.lines;
}

TEST( Types, AllTwelveAreFoundByName ) {
    for ( const char* name : names ) {
        const auto type = QelType::typeNode( name );
        ASSERT_TRUE( type ) << name;
        EXPECT_EQ( type->nodeName(), name );
        EXPECT_EQ( type->fullName(), name );
        EXPECT_TRUE( type->introspected() ) << name;
        EXPECT_TRUE( type->hasGenericIfSupport() ) << name;
    }
}

TEST( Types, TheNodesAreThoseOfTheClasses ) {
    using namespace QelKrell;
    const std::pair< const char*, Qel::Ptr< QelType > > table[] = {
        { "QelKrell::ReaderCounters", ReaderCounters::_fwkType() },
        { "QelKrell::WriterCounters", WriterCounters::_fwkType() },
        { "QelKrell::CollectionControl", CollectionControl::_fwkType() },
        { "QelKrell::QelKrellType", fwkTypeOf( static_cast< const QelKrellType* >( nullptr ) ) },
        { "QelKrell::RootPath", RootPath::_fwkType() },
        { "QelKrell::WriterUnlock", WriterUnlock::_fwkType() },
        { "QelKrell::WriterUnlockSm", WriterUnlockSm::_fwkType() },
        { "QelKrell::CollectionInfo", CollectionInfo::_fwkType() },
        { "QelKrell::MountInfo", MountInfo::_fwkType() },
        { "QelKrell::KrellEntities", KrellEntities::_fwkType() },
        { "QelKrell::Mount", Mount::_fwkType() },
        { "QelKrell::QelMountStatus",
          fwkTypeOf( static_cast< const QelMountStatus* >( nullptr ) ) },
    };
    for ( const auto& [ name, type ] : table ) {
        EXPECT_EQ( type, QelType::typeNode( name ) ) << name;
    }
    EXPECT_EQ( CollectionControl().fwkType(), CollectionControl::_fwkType() );
    EXPECT_EQ( CollectionInfo().fwkType(), CollectionInfo::_fwkType() );
    EXPECT_EQ( MountInfo().fwkType(), MountInfo::_fwkType() );
    EXPECT_EQ( Mount().fwkType(), Mount::_fwkType() );
}

TEST( Types, KindsAreMarked ) {
    for ( const char* name : { "ReaderCounters", "WriterCounters", "CollectionControl",
                               "CollectionInfo", "MountInfo", "Mount" } ) {
        const auto type = QelType::typeNode( "QelKrell::" + String( name ) );
        EXPECT_TRUE( type->isValue() && !type->isEnumType() && !type->isEntity() ) << name;
    }
    for ( const char* name : { "QelKrellType", "QelMountStatus" } ) {
        const auto type = QelType::typeNode( "QelKrell::" + String( name ) );
        EXPECT_TRUE( type->isEnumType() && !type->isValue() && !type->isEntity() ) << name;
    }
    EXPECT_FALSE( QelType::typeNode( "QelKrell::RootPath" )->isValue() );
    EXPECT_FALSE( QelType::typeNode( "QelKrell::RootPath" )->isEntity() );
    EXPECT_TRUE( QelType::typeNode( "QelKrell::KrellEntities" )->isEntity() );
    EXPECT_FALSE( QelType::typeNode( "QelKrell::KrellEntities" )->isValue() );
}

TEST( Types, EverySourceUnitRegisteredOnce ) {
    const auto units = Qel::registeredUnits();
    for ( const char* unit : { "counters", "collection control", "collection role", "root path",
                               "writer unlock", "mount", "mount status" } ) {
        EXPECT_EQ( std::count( units.begin(), units.end(), unit ), 1 ) << unit;
    }
}

TEST( Types, AttributesAreNumberedInOrderFrom258 ) {
    for ( const char* name : names ) {
        Qel::U32 next = 258;
        const auto type = QelType::typeNode( name );
        for ( const Qel::QelAttr* attr : type->attributes() ) {
            if ( attr->owner == type.get() ) {
                EXPECT_EQ( attr->id, next++ ) << name << " " << attr->name;
                EXPECT_EQ( type->attrName( attr->id ), attr->name );
                EXPECT_EQ( type->genericIf()->attributeId( attr->name ), attr->id );
            }
        }
    }
}

// --- The descriptions. Flags: 1 operation, 2 independent, 4 collection, 8 read-only, 16 mutating.

TEST( Types, ReaderCountersAreDescribed ) {
    Lines expected { "scope QelKrell", "type QelKrell::ReaderCounters" };
    for ( const char* field :
          { "occupiedSlots", "usedLookaside", "slotShadowResizes", "slotResizes", "chainRestarts",
            "slotBaseAddress", "conquerRestarts", "conquerProbes", "conquerEmpty", "conquerEnd",
            "conquerKicks", "conquerTombed", "conquerNotified", "conquerYields",
            "conquerConnections", "conquerSequence", "conquerResizes", "conquerBaseAddress",
            "keyShadowMismatch" } ) {
        const std::string name( field );
        expected.push_back( "attr " + name + ( name == "conquerSequence" ? " U64 2" : " U32 2" ) );
    }
    expected.push_back( "exit scope" );
    EXPECT_THAT( told( "QelKrell::ReaderCounters" ), ElementsAreArray( expected ) );
}

TEST( Types, WriterCountersAreDescribed ) {
    Lines expected { "scope QelKrell", "type QelKrell::WriterCounters" };
    for ( const char* field :
          { "slotAllocs", "slotDeallocs", "slotBaseAddress", "conquerTombstones",
            "conquerNotifications", "conquerCompactions", "conquerSequence", "conquerResizes",
            "conquerBaseAddress", "kicksIssued", "directWrite", "directCommit" } ) {
        expected.push_back( "attr " + std::string( field ) + " U64 2" );
    }
    expected.push_back( "exit scope" );
    EXPECT_THAT( told( "QelKrell::WriterCounters" ), ElementsAreArray( expected ) );
}

TEST( Types, CollectionControlIsDescribed ) {
    const Lines expected {
        "scope Krell",
        "foreign Krell::ControlBase",
        "exit scope",
        "scope QelKrell",
        "type QelKrell::CollectionControl",
        "attr control Krell::ControlBase* 2",
        "op writerCounters( ) QelKrell::WriterCounters 1",
        "exit op",
        "op readerCounters( ) QelKrell::ReaderCounters 1",
        "exit op",
        "op init( mode:QelKrell::QelKrellType isLocal:bool size:U32 ) none 17",
        "exit op",
        "op cleanup( ) none 17",
        "exit op",
        "op rootPath( ) Qel::String8 1",
        "exit op",
        "op krellName( ) Qel::String8 1",
        "exit op",
        "op validate( ) bool 17",
        "exit op",
        "op mountStatus( ) QelKrell::QelMountStatus 1",
        "exit op",
        "op sequence( ) U64 1",
        "exit op",
        "op fenixId( ) U32 1",
        "exit op",
        "op owner( ) Qel::String8 1",
        "exit op",
        "op detach( ) none 17",
        "exit op",
        "op resize( ) bool 1",
        "exit op",
        "op maxSize( ) U32 1",
        "exit op",
        "op capacity( ) U32 1",
        "exit op",
        "op notifying( notifying_:bool ) none 1",
        "exit op",
        "op yieldTimeIs( yieldTime:Qel::Seconds ) bool 1",
        "exit op",
        "op sampleIs( sample:U32 ) none 1",
        "exit op",
        "exit scope",
    };
    EXPECT_THAT( told( "QelKrell::CollectionControl" ), ElementsAreArray( expected ) );
}

TEST( Types, EnumerationsAreDescribed ) {
    EXPECT_THAT( told( "QelKrell::QelKrellType" ),
                 testing::ElementsAre( "scope QelKrell", "type QelKrell::QelKrellType",
                                       "value 0 writer", "value 1 shadow", "value 2 reader",
                                       "value 3 keyshadow", "exit scope" ) );
    EXPECT_THAT( told( "QelKrell::QelMountStatus" ),
                 testing::ElementsAre( "scope QelKrell", "type QelKrell::QelMountStatus",
                                       "value 0 none", "value 1 attached", "value 2 connected",
                                       "exit scope" ) );
}

TEST( Types, MountDescriptionsAreDescribed ) {
    EXPECT_THAT( told( "QelKrell::CollectionInfo" ),
                 testing::ElementsAre( "scope QelKrell", "type QelKrell::CollectionInfo",
                                       "attr name Qel::String8 2", "attr size U32 2",
                                       "exit scope" ) );
    EXPECT_THAT( told( "QelKrell::MountInfo" ),
                 testing::ElementsAre( "scope QelKrell", "type QelKrell::MountInfo",
                                       "attr mode QelKrell::QelKrellType 2", "attr cleanup bool 2",
                                       "attr collectionInfo QelKrell::CollectionInfo 4",
                                       "exit scope" ) );
}

TEST( Types, KrellEntitiesIsDescribed ) {
    EXPECT_THAT( told( "QelKrell::KrellEntities" ),
                 testing::ElementsAre( "scope QelKrell", "type QelKrell::KrellEntities",
                                       "attr count U32 4", "attr path U32 4",
                                       "attr isNondestructing bool 2", "attr zeroReferences bool 2",
                                       "exit scope" ) );
    const auto type = QelType::typeNode( "QelKrell::KrellEntities" );
    EXPECT_EQ( type->base(), Qel::Entity::_fwkType() );
}

TEST( Types, MountIsDescribed ) {
    const Lines expected {
        "scope QelKrell",
        "type QelKrell::Mount",
        "attr em Norvo::EntityManager::Ptr 2",
        "attr krellDir Qel::Dir::Ptr 2",
        "attr rootPath Qel::String8 2",
        "attr initialized bool 10",
        "op handleInitialized( ) none 17",
        "exit op",
        "op doMount( entityPath:Qel::String8 entityType:Qel::String8 mountInfo:QelKrell::MountInfo "
        ") "
        "Qel::Entity::Ptr 1",
        "exit op",
        "op doUnmount( entityPath:Qel::String8 ) none 1",
        "exit op",
        "op doUnmountAll( ) none 1",
        "exit op",
        "op getEntity( entityPath:Qel::String8 ) Qel::Entity::Ptr 1",
        "exit op",
        "op getQelEntity( entityPath:Qel::String8 ) Qel::Entity::Ptr 1",
        "exit op",
        "op find( path:Qel::String8 ) Qel::Entity::Ptr 1",
        "exit op",
        "op cleanup( entityPath:Qel::String8 ) none 1",
        "exit op",
        "exit scope",
    };
    EXPECT_THAT( told( "QelKrell::Mount" ), ElementsAreArray( expected ) );
}

TEST( Types, RootPathIsDescribed ) {
    Lines names;
    for ( const Qel::QelAttr* attr : QelType::typeNode( "QelKrell::RootPath" )->attributes() ) {
        names.push_back( attr->name.stdString() );
    }
    EXPECT_THAT( names, testing::ElementsAre( "create", "filename", "removeFile", "exists",
                                              "fullPath", "handleDestruction", "initialized",
                                              "handleInitialized", "rootPathPtr" ) );
    const Lines lines = told( "QelKrell::RootPath" );
    ASSERT_GE( lines.size(), 4u );
    EXPECT_EQ( lines[ 0 ], "scope Krell" );
    EXPECT_EQ( lines[ 1 ], "foreign Krell::RootPath" );
    EXPECT_EQ( lines[ 2 ], "exit scope" );
    EXPECT_THAT( lines, testing::Contains( "op fullPath( name:Qel::String8 ) Qel::String8 1" ) );
}

TEST( Types, DescribingToAnotherReactorLeavesTheNodesAlone ) {
    const auto type = QelType::typeNode( "QelKrell::CollectionControl" );
    const std::size_t before = type->attributes().size();
    told( "QelKrell::CollectionControl" );
    EXPECT_EQ( type->attributes().size(), before );
    EXPECT_EQ( before, 19u );
}

} // namespace
