// The mount manager and the root path by name: reads, calls, and every refusal.

#include <Qel/Describe>
#include <QelKrell/Exception>
#include <QelKrell/Generic>

#include <fstream>

#include <gmock/gmock.h>

#include "Raised.h"
#include "mount/Site.h"

namespace {

using Qel::Entity;
using Qel::genericValue;
using Qel::String;
using QelKrell::Mount;
using QelKrell::RootPath;
using QelKrellTest::mounts;
using QelKrellTest::raised;

class Item : public Entity {
public:
    using Entity::Entity;
};
constexpr auto describe( const Item* ) {
    return Qel::entityType< Item >( "MountGenericTest::Item" );
}
const Qel::Unit< Item > itemUnit( "mount generic test" );

constexpr const char* constError = "attempting to modify a const instance";
using Argument = std::pair< String, Qel::GenericValue >;

class MountByName : public testing::Test {
protected:
    MountByName() { site.mount.handleInitialized(); }

    Entity::Ptr called( Qel::GenericIf& on,
                        const char* operation,
                        const Qel::GenericArguments& arguments ) {
        const Qel::GenericValue value = on.call( operation, arguments );
        const auto* entity = value.as< Entity::Ptr >();
        EXPECT_TRUE( entity ) << operation;
        return entity ? *entity : nullptr;
    }

    QelKrellTest::Root root;
    QelKrellTest::Site site { true };
    const Mount& fixed = site.mount;
    Mount::GenericIf_ generic { site.mount };
    Mount::GenericIf_ constant { fixed };

    const Argument path { "entityPath", genericValue( "a/e" ) };
    const Argument type { "entityType", genericValue( "MountGenericTest::Item" ) };
    const Argument info { "mountInfo", genericValue( QelKrell::MountInfo( QelKrell::writer ) ) };
};

// --- Mount

TEST_F( MountByName, AttributesAreRead ) {
    for ( Qel::GenericIf* on : { static_cast< Qel::GenericIf* >( &generic ),
                                 static_cast< Qel::GenericIf* >( &constant ) } ) {
        EXPECT_EQ( on->attribute( "em" ).strep(), "Entity('Norvo::EntityManager', '/sys')" );
        EXPECT_EQ( *on->attribute( "em" ).as< Qel::Ptr< const Norvo::EntityManager > >(), site.em );
        EXPECT_EQ( on->attribute( "krellDir" ).strep(), "Entity('Qel::Dir', '/sys/Krell')" );
        EXPECT_EQ( *on->attribute( "krellDir" ).as< Qel::Dir::Ptr >(), site.krell() );
        EXPECT_EQ( on->attribute( "rootPath" ).strep(), "'" + String( root.path() ) + "'" );
        EXPECT_EQ( on->attribute( "initialized" ).strep(), "True" );
    }
    EXPECT_EQ( generic.strep(), valueToStrep( site.mount ) );
}

TEST_F( MountByName, ScalarAttributesTakeNoIndex ) {
    for ( const char* name : { "em", "krellDir", "rootPath", "initialized" } ) {
        const std::string error =
            "bad index on attribute '" + std::string( name ) + "': it takes none";
        EXPECT_EQ( raised< Qel::BadIndexException >(
                       [ & ] { generic.attribute( name, genericValue( "x" ) ); } ),
                   error );
        EXPECT_EQ( raised< Qel::BadIndexException >( [ & ] { generic.attributeIndices( name ); } ),
                   error );
        EXPECT_EQ( raised< Qel::BadIndexException >(
                       [ & ] { generic.attributeDel( name, genericValue( "x" ) ); } ),
                   error );
        EXPECT_EQ( raised< Qel::OpNotSupportedException >( [ & ] { generic.call( name ); } ),
                   "attribute '" + std::string( name ) + "' is not an operation" );
    }
}

TEST_F( MountByName, OnlyInitialisationSetsInitialized ) {
    EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                   [ & ] { generic.attributeIs( "initialized", genericValue( false ) ); } ),
               "attribute 'initialized' is read-only" );
    EXPECT_TRUE( site.mount.initialized() );
}

TEST_F( MountByName, AConstInstanceIsNotChanged ) {
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeIs( "rootPath", genericValue( "x" ) ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeIs( "initialized", genericValue( false ) ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeIs( "krellDir", genericValue( Qel::Dir::Ptr() ) ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] { constant.call( "handleInitialized" ); } ),
               constError );
    EXPECT_EQ( site.mount.rootPath(), root.path().c_str() );
}

TEST_F( MountByName, InitialisesByName ) {
    Mount fresh( site.em );
    Mount::GenericIf_ on( fresh );
    EXPECT_FALSE( on.call( "handleInitialized" ) );
    EXPECT_EQ( fresh, site.mount );
}

TEST_F( MountByName, MountsAndFindsOnAConstInstance ) {
    const auto e = called( constant, "doMount", { info, type, path } );
    ASSERT_TRUE( e );
    EXPECT_EQ( e->fullName(), "/sys/Krell/a/e" );
    EXPECT_EQ( mounts( "/sys/Krell/a/e" ), 1u );
    EXPECT_EQ( called( constant, "getEntity", { path } ), e );
    EXPECT_EQ( called( generic, "getQelEntity", { path } ), e );
    EXPECT_EQ( called( generic, "getEntity", { { "entityPath", genericValue( "x" ) } } ), nullptr );
}

TEST_F( MountByName, ArgumentsOfOtherTypesAreRefused ) {
    const auto one = genericValue( 1U );
    const auto refusal = [ & ]( const char* operation, const Qel::GenericArguments& arguments ) {
        return raised< Qel::TypeException >( [ & ] { generic.call( operation, arguments ); } );
    };
    EXPECT_EQ( refusal( "doMount", { { "entityPath", one }, type, info } ),
               "argument 'entityPath' of operation 'doMount' takes a Qel::String8, not a U32" );
    EXPECT_EQ( refusal( "doMount", { path, { "entityType", one }, info } ),
               "argument 'entityType' of operation 'doMount' takes a Qel::String8, not a U32" );
    EXPECT_EQ( refusal( "doMount", { path, type, { "mountInfo", genericValue( "x" ) } } ),
               "argument 'mountInfo' of operation 'doMount' takes a QelKrell::MountInfo, not a "
               "Qel::String8" );
    for ( const char* operation : { "getEntity", "getQelEntity", "doUnmount", "cleanup" } ) {
        EXPECT_EQ( refusal( operation, { { "entityPath", one } } ),
                   "argument 'entityPath' of operation '" + std::string( operation ) +
                       "' takes a Qel::String8, not a U32" );
    }
    EXPECT_EQ( refusal( "find", { { "path", one } } ),
               "argument 'path' of operation 'find' takes a Qel::String8, not a U32" );
    EXPECT_EQ( site.krell()->subdirs(), 0u );
}

TEST_F( MountByName, ArgumentsThatAreNotTakenAreRefused ) {
    const Argument extra( "extra", genericValue( 1U ) );
    const std::pair< const char*, Qel::GenericArguments > table[] = {
        { "handleInitialized", {} },
        { "doMount", { path, type, info } },
        { "doUnmount", { path } },
        { "doUnmountAll", {} },
        { "getEntity", { path } },
        { "getQelEntity", { path } },
        { "find", { { "path", path.second } } },
        { "cleanup", { path } },
    };
    for ( const auto& [ operation, arguments ] : table ) {
        Qel::GenericArguments more = arguments;
        more.push_back( extra );
        EXPECT_EQ( raised< Qel::UnknownArgumentException >(
                       [ &, op = operation ] { generic.call( op, more ); } ),
                   "operation '" + std::string( operation ) + "' takes no argument 'extra'" );
    }
    EXPECT_EQ( raised< Qel::MissingArgumentException >( [ & ] {
                   generic.call( "doMount", { path, info } );
               } ),
               "operation 'doMount' needs argument 'entityType'" );
    EXPECT_EQ( raised< Qel::RepeatedArgumentException >( [ & ] {
                   generic.call( "getEntity", { path, path } );
               } ),
               "operation 'getEntity' was given argument 'entityPath' twice" );
    EXPECT_EQ( site.krell()->subdirs(), 0u );
}

TEST_F( MountByName, OperationsAreNoAttributes ) {
    for ( const char* operation : { "handleInitialized", "doMount", "doUnmount", "doUnmountAll",
                                    "getEntity", "getQelEntity", "find", "cleanup" } ) {
        const std::string error =
            "operation '" + std::string( operation ) + "' is not supported as an attribute";
        EXPECT_EQ(
            raised< Qel::OpNotSupportedException >( [ & ] { generic.attribute( operation ); } ),
            error );
        EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                       [ & ] { constant.attributeIs( operation, genericValue( "x" ) ); } ),
                   error );
    }
    EXPECT_EQ( raised< Qel::UnknownAttributeException >( [ & ] { generic.call( "mount" ); } ),
               "QelKrell::Mount has no attribute 'mount'" );
}

TEST_F( MountByName, FailuresOfTheOperationComeThrough ) {
    called( generic, "doMount", { path, type, info } );
    EXPECT_EQ(
        raised< QelKrell::MountException >( [ & ] {
            generic.call( "doMount", { path, { "entityType", genericValue( "Other" ) }, info } );
        } ),
        "Mount::doMount() path: a/e already exists with type: MountGenericTest::Item" );
}

// --- RootPath

class RootPathByName : public testing::Test {
protected:
    QelKrellTest::Root root;
    RootPath::Ptr path = QelKrell::rootPathFactory( "below", true );
    RootPath::GenericIf_ generic { *path };
    RootPath::GenericIf_ constant { std::as_const( *path ) };
    const std::string directory = root.path() + "/below";
};

TEST_F( RootPathByName, AttributesAreRead ) {
    EXPECT_EQ( constant.attribute( "filename" ).strep(), "'below'" );
    EXPECT_EQ( constant.attribute( "create" ).strep(), "True" );
    EXPECT_EQ( constant.attribute( "initialized" ).strep(), "True" );
    EXPECT_THAT( constant.attribute( "rootPathPtr" ).strep().stdString(),
                 testing::StartsWith( "Pointer('Krell::RootPath', 0x" ) );
}

TEST_F( RootPathByName, OperationsAreCalled ) {
    EXPECT_EQ( constant.call( "exists" ).strep(), "True" );
    EXPECT_EQ( constant.call( "fullPath", { { "name", genericValue( "slots" ) } } ).strep(),
               "'" + String( directory ) + "/slots'" );
    std::ofstream( directory + "/slots" ) << "x";
    EXPECT_FALSE( generic.call( "removeFile", { { "name", genericValue( "slots" ) } } ) );
    EXPECT_FALSE( root.has( "below/slots" ) );
    EXPECT_FALSE( generic.call( "handleDestruction" ) );
    EXPECT_EQ( path->rootPathPtr(), nullptr );
}

TEST_F( RootPathByName, RefusalsChangeNothing ) {
    std::ofstream( directory + "/slots" ) << "x";
    const Argument name( "name", genericValue( "slots" ) );
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] { constant.call( "removeFile", { name } ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] { constant.call( "handleDestruction" ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >( [ & ] { constant.call( "handleInitialized" ); } ),
               constError );
    EXPECT_EQ( raised< Qel::ConstException >(
                   [ & ] { constant.attributeIs( "initialized", genericValue( false ) ); } ),
               constError );
    EXPECT_EQ( raised< Qel::OpNotSupportedException >(
                   [ & ] { generic.attributeIs( "filename", genericValue( "x" ) ); } ),
               "attribute 'filename' is read-only" );
    EXPECT_EQ( raised< Qel::OpNotSupportedException >( [ & ] { generic.attribute( "exists" ); } ),
               "operation 'exists' is not supported as an attribute" );
    EXPECT_EQ( raised< Qel::TypeException >( [ & ] {
                   generic.call( "fullPath", { { "name", genericValue( 1U ) } } );
               } ),
               "argument 'name' of operation 'fullPath' takes a Qel::String8, not a U32" );
    EXPECT_EQ(
        raised< Qel::UnknownArgumentException >( [ & ] { generic.call( "exists", { name } ); } ),
        "operation 'exists' takes no argument 'name'" );
    EXPECT_EQ( raised< Qel::UnknownAttributeException >( [ & ] { generic.call( "cleanup" ); } ),
               "QelKrell::RootPath has no attribute 'cleanup'" );
    EXPECT_THROW( generic.call( "removeFile", { { "name", genericValue( "../slots" ) } } ),
                  QelKrell::InvalidInitializeException );
    EXPECT_TRUE( root.has( "below/slots" ) );
    EXPECT_NE( path->rootPathPtr(), nullptr );
}

} // namespace
