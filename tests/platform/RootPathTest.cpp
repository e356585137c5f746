// The root path as a framework object.

#include <QelKrell/RootPath>

#include <unistd.h>

#include <filesystem>
#include <fstream>

#include <Krell/RootPath>
#include <Qel/Exception>
#include <Qel/GenericIf>
#include <Qel/Introspection>
#include <Qel/TypeOf>
#include <QelKrell/Exception>
#include <gmock/gmock.h>

#include "platform/Scratch.h"

namespace {

using testing::ElementsAre;

class RootPath : public testing::Test {
protected:
    RootPath() {
        std::filesystem::create_directory( directory );
        root = QelKrell::rootPathFactory( directory, false );
    }

    QelKrellTest::Scratch scratch;
    std::string directory = scratch.path( "root" );
    QelKrell::RootPath::Ptr root;
};

TEST_F( RootPath, KnowsWhatItWasMadeOf ) {
    ASSERT_TRUE( root );
    EXPECT_EQ( root->references(), 1u );
    EXPECT_EQ( root->filename(), Qel::String( directory ) );
    EXPECT_FALSE( root->create() );
    EXPECT_TRUE( root->initialized() );
    ASSERT_TRUE( root->rootPathPtr() );
    EXPECT_TRUE( QelKrell::rootPathFactory( directory, true )->create() );
}

TEST_F( RootPath, AMissingDirectoryIsMadeOnRequestOnly ) {
    const std::string missing = scratch.path( "missing" );
    const auto absent = QelKrell::rootPathFactory( missing, false );
    EXPECT_FALSE( absent->initialized() );
    EXPECT_TRUE( absent->rootPathPtr() );
    EXPECT_FALSE( std::filesystem::exists( missing ) );
    EXPECT_TRUE( QelKrell::rootPathFactory( missing, true )->initialized() );
    EXPECT_TRUE( std::filesystem::is_directory( missing ) );
}

TEST_F( RootPath, ForwardsToTheCollectionLibrary ) {
    EXPECT_EQ( root->fullPath( "a" ), Qel::String( directory + "/a" ) );
    EXPECT_EQ( root->fullPath( "" ), Qel::String( directory ) );
    EXPECT_TRUE( root->exists() );
    std::ofstream( directory + "/slots" ) << "x";
    std::ofstream( directory + "/buckets" ) << "x";
    root->removeFile( "slots" );
    EXPECT_FALSE( std::filesystem::exists( directory + "/slots" ) );
    EXPECT_TRUE( std::filesystem::exists( directory + "/buckets" ) );
    root->removeFile( "slots" );
    root->cleanup();
    EXPECT_FALSE( std::filesystem::exists( directory ) );
    EXPECT_FALSE( root->exists() );
}

TEST_F( RootPath, FailuresComeAsFrameworkExceptions ) {
    EXPECT_THROW( root->removeFile( "../x" ), QelKrell::InvalidInitializeException );
    EXPECT_THROW( QelKrell::rootPathFactory( "a/../b", false ),
                  QelKrell::InvalidInitializeException );
    EXPECT_THROW( QelKrell::rootPathFactory( "a/../b", true ),
                  QelKrell::InvalidInitializeException );
}

TEST_F( RootPath, ASecondInitialisationOfAGoodOneDoesNothing ) {
    Krell::RootPath* const before = root->rootPathPtr();
    root->handleInitialized();
    EXPECT_EQ( root->rootPathPtr(), before );
}

TEST_F( RootPath, AnUnusableOneCanBeInitialisedLater ) {
    const std::string later = scratch.path( "later" );
    const auto late = QelKrell::rootPathFactory( later, false );
    late->handleInitialized();
    EXPECT_FALSE( late->initialized() );
    std::filesystem::create_directory( later );
    late->handleInitialized();
    EXPECT_TRUE( late->initialized() );
    EXPECT_TRUE( late->exists() );
}

TEST_F( RootPath, DestructionFreesOnce ) {
    root->handleDestruction();
    EXPECT_EQ( root->rootPathPtr(), nullptr );
    root->handleDestruction();
    EXPECT_EQ( root->rootPathPtr(), nullptr );
    root = nullptr;
}

TEST_F( RootPath, SettersArePlain ) {
    root->initializedIs( false );
    EXPECT_FALSE( root->initialized() );
    Krell::RootPath* const own = root->rootPathPtr();
    root->rootPathPtrIs( nullptr );
    EXPECT_EQ( root->rootPathPtr(), nullptr );
    root->rootPathPtrIs( own );
}

TEST_F( RootPath, RegistersNineNamesInOrder ) {
    const auto type = Qel::QelType::typeNode( "QelKrell::RootPath" );
    ASSERT_TRUE( type );
    EXPECT_EQ( type, QelKrell::RootPath::_fwkType() );
    EXPECT_EQ( type, root->fwkType() );
    EXPECT_FALSE( type->isEntity() );
    EXPECT_FALSE( type->isValue() );
    EXPECT_TRUE( type->hasGenericIfSupport() );
    std::vector< std::string > names;
    for ( const auto* a : type->attributes() ) {
        names.push_back( a->name.stdString() );
    }
    EXPECT_THAT( names, ElementsAre( "create", "filename", "removeFile", "exists", "fullPath",
                                     "handleDestruction", "initialized", "handleInitialized",
                                     "rootPathPtr" ) );
    EXPECT_EQ( type->attr( "rootPathPtr" )->typeName, "Krell::RootPath*" );
    EXPECT_THAT( Qel::registeredUnits(), testing::Contains( Qel::String( "root path" ) ) );
}

TEST_F( RootPath, AnswersByName ) {
    const auto generic = Qel::QelType::typeNode( "QelKrell::RootPath" )->genericIf();
    generic->instanceIs( static_cast< void* >( root.get() ) );
    EXPECT_EQ( *generic->attribute( "filename" ).as< Qel::String >(), Qel::String( directory ) );
    EXPECT_EQ( *generic->attribute( "initialized" ).as< bool >(), true );
    EXPECT_EQ( *generic->attribute( "rootPathPtr" ).as< Krell::RootPath* >(), root->rootPathPtr() );
    EXPECT_EQ( *generic->call( "exists" ).as< bool >(), true );
    EXPECT_EQ(
        *generic->call( "fullPath", { { "name", Qel::genericValue( "a" ) } } ).as< Qel::String >(),
        Qel::String( directory + "/a" ) );
    EXPECT_THROW( generic->call( "cleanup" ), Qel::UnknownAttributeException );
    EXPECT_THROW( generic->attributeIs( "filename", Qel::genericValue( "x" ) ),
                  Qel::OpNotSupportedException );
}

TEST_F( RootPath, AConstInstanceRefusesChanges ) {
    const auto generic = Qel::QelType::typeNode( "QelKrell::RootPath" )->genericIf();
    generic->instanceIs( static_cast< const void* >( root.get() ) );
    EXPECT_EQ( *generic->call( "exists" ).as< bool >(), true );
    EXPECT_THROW( generic->call( "handleDestruction" ), Qel::ConstException );
    EXPECT_THROW( generic->call( "removeFile", { { "name", Qel::genericValue( "x" ) } } ),
                  Qel::ConstException );
    EXPECT_TRUE( root->rootPathPtr() );
}

} // namespace
