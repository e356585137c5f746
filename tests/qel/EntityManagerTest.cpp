// Entity managers: the entry and the sub-directory of the system's name.

#include <gmock/gmock.h>

#include <Norvo/EntityManager>
#include <Qel/Exception>
#include <Qel/QelType>

namespace {

using Norvo::EntityManager;
using Norvo::entityManagerFactory;
using Qel::Dir;

class EntityManagerTest : public testing::Test {
protected:
    ~EntityManagerTest() override {
        root->subdirDelAll();
        root->entryDelAll();
    }

    const Dir::Ptr root = Dir::globalDir();
    const Qel::ExpectException quiet;
};

TEST_F( EntityManagerTest, EntersItselfAndItsDirectory ) {
    const EntityManager::Ptr manager = entityManagerFactory( "plant", true );
    EXPECT_TRUE( manager->local() );
    EXPECT_EQ( manager->name(), Qel::Name( "plant" ) );
    EXPECT_EQ( manager->fullName(), "/plant" );
    EXPECT_EQ( manager, root->entityRef( "plant" ) );
    EXPECT_EQ( manager->sysDir(), root->subdir( "plant" ) );
    EXPECT_EQ( manager->sysDir()->fullName(), "/plant" );
    EXPECT_EQ( EntityManager::_fwkType(), manager->fwkType() );
    EXPECT_FALSE( entityManagerFactory( "other", false )->local() );
}

TEST_F( EntityManagerTest, TakesADirectoryThatIsThere ) {
    const Dir::Ptr there = root->subdirIs( "plant" );
    there->subdirIs( "Krell" );
    const EntityManager::Ptr manager = entityManagerFactory( "plant", false );
    EXPECT_EQ( there, manager->sysDir() );
    EXPECT_NE( nullptr, manager->sysDir()->subdir( "Krell" ) );
}

TEST_F( EntityManagerTest, NameOfAnotherIsRefused ) {
    const EntityManager::Ptr first = entityManagerFactory( "plant", true );
    try {
        entityManagerFactory( "plant", false );
        FAIL();
    } catch ( const Qel::NameInUseException& e ) {
        EXPECT_STREQ( "entity manager 'plant': the name is taken in the global directory",
                      e.what() );
    }
    EXPECT_EQ( first, root->entityRef( "plant" ) );
    EXPECT_EQ( 1U, root->entrys() );
}

TEST_F( EntityManagerTest, BadNamesAreRefusedAndChangeNothing ) {
    EXPECT_THROW( entityManagerFactory( "", true ), Qel::RangeException );
    EXPECT_THROW( entityManagerFactory( "a/b", true ), Qel::RangeException );
    EXPECT_EQ( 0U, root->entrys() );
    EXPECT_EQ( 0U, root->subdirs() );
}

} // namespace
