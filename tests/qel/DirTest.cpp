// Entities and directories: names, parents, both tables, notifications, deep trees.

#include <gmock/gmock.h>

#include <Qel/Dir>
#include <Qel/Exception>
#include <Qel/QelType>

namespace {

using Qel::Dir;
using Qel::Entity;
using testing::ElementsAre;
using testing::IsEmpty;

class DirTest : public testing::Test {
protected:
    ~DirTest() override {
        Dir::globalDir()->subdirDelAll();
        Dir::globalDir()->entryDelAll();
    }

    // The message of the E that `call` throws.
    template < class E, class F >
    static std::string thrown( F&& call ) {
        const Qel::ExpectException expected( E::id_ );
        try {
            call();
        } catch ( const E& e ) {
            return e.what();
        }
        return "nothing thrown";
    }

    Dir::Ptr root = Dir::globalDir();
};

class Listener : public Dir::Notifiee {
public:
    explicit Listener( const Dir::Ptr& dir ) {
        notifierIs( dir );
        isRegisteredNotifieeIs( true );
    }
    void onEntry( const Qel::Name& name ) override {
        seen.push_back( ( notifier()->entityRef( name ) ? "+" : "-" ) + name.string().stdString() );
    }
    void onSubdir( const Qel::Name& name ) override {
        seen.push_back( ( notifier()->subdir( name ) ? "+/" : "-/" ) + name.string().stdString() );
    }
    std::vector< std::string > seen;
};

TEST_F( DirTest, RootIsItsOwnParent ) {
    EXPECT_EQ( root, root->parent() );
    EXPECT_EQ( root->fullName(), "/" );
    EXPECT_EQ( root, Dir::globalDir() );
}

TEST_F( DirTest, FullNamesAreOfTheTree ) {
    const Dir::Ptr a = root->subdirIs( "a" );
    const Dir::Ptr b = a->subdirIs( "b" );
    const Entity::Ptr e = new Entity( "e" );
    EXPECT_EQ( e->fullName(), "e" );
    EXPECT_EQ( nullptr, e->parent() );
    b->entryIs( e );
    EXPECT_EQ( a->fullName(), "/a" );
    EXPECT_EQ( b->fullName(), "/a/b" );
    EXPECT_EQ( e->fullName(), "/a/b/e" );
    EXPECT_EQ( b, e->parent() );
    EXPECT_EQ( a, b->parent() );
    EXPECT_EQ( root, a->parent() );
    EXPECT_EQ( e->name(), Qel::Name( "e" ) );
    const Dir::Ptr loose = new Dir( "loose" );
    EXPECT_EQ( loose->subdirIs( "x" )->fullName(), "loose/x" );
    EXPECT_EQ( Dir::_fwkType(), a->fwkType() );
    EXPECT_EQ( Entity::_fwkType(), e->fwkType() );
}

TEST_F( DirTest, BothTablesHoldTheSameName ) {
    const Entity::Ptr e = new Entity( "same" );
    root->entryIs( e );
    const Dir::Ptr d = root->subdirIs( "same" );
    EXPECT_EQ( e, root->entityRef( "same" ) );
    EXPECT_EQ( d, root->subdir( "same" ) );
    EXPECT_EQ( d, root->subdirIs( "same" ) );
    EXPECT_EQ( 1U, root->entrys() );
    EXPECT_EQ( 1U, root->subdirs() );
    EXPECT_TRUE( root->entryDel( "same" ) );
    EXPECT_EQ( nullptr, root->entityRef( "same" ) );
    EXPECT_EQ( d, root->subdir( "same" ) );
    EXPECT_EQ( nullptr, e->parent() );
    EXPECT_TRUE( root->subdirDel( "same" ) );
    EXPECT_EQ( nullptr, d->parent() );
    EXPECT_EQ( d->fullName(), "same" );
    EXPECT_FALSE( root->entryDel( "same" ) );
    EXPECT_FALSE( root->subdirDel( "same" ) );
}

TEST_F( DirTest, RefusedNamesChangeNothing ) {
    const Dir::Ptr a = root->subdirIs( "a" );
    const auto enter = [ & ]( const Entity::Ptr& e ) { return [ &, e ] { a->entryIs( e ); }; };
    EXPECT_EQ( "directory '/a': name '' is empty",
               thrown< Qel::RangeException >( enter( new Entity( "" ) ) ) );
    EXPECT_EQ( "directory '/a': name 'x/y' holds a '/'",
               thrown< Qel::RangeException >( enter( new Entity( "x/y" ) ) ) );
    EXPECT_EQ( "directory '/a': the entity is null",
               thrown< Qel::RangeException >( enter( nullptr ) ) );
    EXPECT_EQ( "directory '/a': name 'd' is that of a directory, not of an entity",
               thrown< Qel::RangeException >( enter( new Dir( "d" ) ) ) );
    EXPECT_EQ( 0U, a->entrys() );
    EXPECT_EQ( "directory '/a': name '' is empty",
               thrown< Qel::RangeException >( [ & ] { a->subdirIs( "" ); } ) );
    EXPECT_EQ( "directory '/a': name '/' holds a '/'",
               thrown< Qel::RangeException >( [ & ] { a->subdirIs( "/" ); } ) );
    EXPECT_EQ( 0U, a->subdirs() );
    const Entity::Ptr e = new Entity( "e" );
    a->entryIs( e );
    EXPECT_EQ( "directory '/a': name 'e' is taken",
               thrown< Qel::NameInUseException >( enter( new Entity( "e" ) ) ) );
    EXPECT_EQ( "directory '/': name 'e' is that of an entity which stands in '/a'",
               thrown< Qel::RangeException >( [ & ] { root->entryIs( e ); } ) );
    EXPECT_EQ( e, a->entityRef( "e" ) );
    EXPECT_EQ( a, e->parent() );
    EXPECT_EQ( 0U, root->entrys() );
}

TEST_F( DirTest, EntityMayMove ) {
    const Dir::Ptr a = root->subdirIs( "a" );
    const Entity::Ptr e = new Entity( "e" );
    root->entryIs( e );
    root->entryDel( "e" );
    a->entryIs( e );
    EXPECT_EQ( e->fullName(), "/a/e" );
}

TEST_F( DirTest, ContentsOfADeadDirectoryAreWithoutParent ) {
    const Dir::Ptr b = root->subdirIs( "a" )->subdirIs( "b" );
    const Entity::Ptr e = new Entity( "e" );
    root->subdir( "a" )->entryIs( e );
    EXPECT_TRUE( root->subdirDel( "a" ) );
    EXPECT_EQ( nullptr, b->parent() );
    EXPECT_EQ( nullptr, e->parent() );
    EXPECT_EQ( b->fullName(), "b" );
    EXPECT_EQ( e->fullName(), "e" );
    EXPECT_EQ( 1U, e->references() );
}

TEST_F( DirTest, HeldDirectoryKeepsItsContents ) {
    const Dir::Ptr a = root->subdirIs( "a" );
    const Dir::Ptr b = a->subdirIs( "b" );
    root->subdirDel( "a" );
    EXPECT_EQ( a, b->parent() );
    EXPECT_EQ( b->fullName(), "a/b" );
    EXPECT_NE( a, root->subdirIs( "a" ) );
}

TEST_F( DirTest, ReactorsAreToldOfEachChange ) {
    const Dir::Ptr a = root->subdirIs( "a" );
    const Qel::Ptr< Listener > listener = new Listener( a );
    a->entryIs( new Entity( "e" ) );
    a->subdirIs( "d" );
    a->subdirIs( "d" );
    a->entryDel( "absent" );
    a->entryDel( "e" );
    a->subdirDel( "d" );
    EXPECT_THAT( listener->seen, ElementsAre( "+e", "+/d", "-e", "-/d" ) );
    listener->seen.clear();
    a->entryIs( new Entity( "x" ) );
    a->subdirIs( "y" );
    a->entryDelAll();
    a->subdirDelAll();
    EXPECT_THAT( listener->seen, ElementsAre( "+x", "+/y", "-x", "-/y" ) );
}

TEST_F( DirTest, DeletingAllEndsThoughAReactorRefills ) {
    struct Refiller : Dir::Notifiee {
        void onEntry( const Qel::Name& name ) override {
            if ( !notifier()->entityRef( name ) ) {
                notifier()->entryIs( new Entity( name.string() + "'" ) );
            }
        }
        void onSubdir( const Qel::Name& name ) override {
            if ( !notifier()->subdir( name ) ) {
                notifier()->subdirIs( name.string() + "'" );
            }
        }
    };
    const Qel::Ptr< Refiller > refiller = new Refiller;
    refiller->notifierIs( root );
    refiller->isRegisteredNotifieeIs( true );
    for ( const char* name : { "a", "b", "c" } ) {
        root->entryIs( new Entity( name ) );
        root->subdirIs( name );
    }
    root->entryDelAll();
    root->subdirDelAll();
    EXPECT_EQ( 3U, root->entrys() );
    EXPECT_EQ( 3U, root->subdirs() );
    EXPECT_NE( nullptr, root->entityRef( "a'" ) );
    EXPECT_NE( nullptr, root->subdir( "c'" ) );
}

TEST_F( DirTest, DirectoryMayDieWhileItIsEmptied ) {
    struct Breaker : Dir::Notifiee {
        void onEntry( const Qel::Name& ) override { Dir::globalDir()->subdirDel( "a" ); }
    };
    const Dir::Ptr a = root->subdirIs( "a" );
    Dir* const raw = a.get();
    const Qel::Ptr< Breaker > breaker = new Breaker;
    breaker->notifierIs( a );
    breaker->isRegisteredNotifieeIs( true );
    std::vector< Entity::Ptr > entities;
    for ( const char* name : { "x", "y", "z" } ) {
        entities.push_back( new Entity( name ) );
        raw->entryIs( entities.back() );
    }
    raw->entryDelAll();
    for ( const Entity::Ptr& e : entities ) {
        EXPECT_EQ( nullptr, e->parent() );
    }
}

TEST_F( DirTest, IterationSurvivesChanges ) {
    for ( unsigned i = 0; i < 100; ++i ) {
        root->entryIs( new Entity( Qel::decimal( i ) ) );
        root->subdirIs( Qel::decimal( i ) );
    }
    std::multiset< std::string > seen;
    for ( Dir::EntryIterator it = root->entryIterator(); it.next(); ) {
        const Entity::Ptr e = it->entity();
        seen.insert( e->name().string().stdString() );
        root->entryDel( e->name() );
        root->entryIs( new Entity( "new" + e->name().string() ) );
        if ( seen.size() == 1000 ) {
            FAIL() << "new entries beget new ones";
        }
        if ( e->name().string().find( "new" ) == 0 ) {
            root->entryDel( "new" + e->name().string() );
        }
    }
    for ( unsigned i = 0; i < 100; ++i ) {
        EXPECT_EQ( 1U, seen.count( std::to_string( i ) ) );
    }
    std::set< std::string > dirs;
    for ( Dir::SubdirIterator it = root->subdirIterator(); it.next(); ) {
        EXPECT_TRUE( dirs.insert( it->dir()->name().string().stdString() ).second );
        root->subdirDel( it->dir()->name() );
    }
    EXPECT_EQ( 100U, dirs.size() );
    EXPECT_EQ( 0U, root->subdirs() );
}

TEST_F( DirTest, TreesOfAnyDepthAreTakenDown ) {
    constexpr unsigned depth = 100000;
    Dir::Ptr at = root->subdirIs( "deep" );
    const Dir::Ptr top = at;
    for ( unsigned i = 0; i < depth; ++i ) {
        at = at->subdirIs( "d" );
    }
    const Entity::Ptr bottom = new Entity( "e" );
    at->entryIs( bottom );
    EXPECT_EQ( 5 + 2 * depth + 2, bottom->fullName().length() );
    at = nullptr;
    top->subdirDelAll();
    EXPECT_EQ( nullptr, bottom->parent() );
    EXPECT_EQ( 1U, bottom->references() );

    Dir::Ptr loose = new Dir( "loose" );
    at = loose;
    for ( unsigned i = 0; i < depth; ++i ) {
        at = at->subdirIs( "d" );
    }
    const Dir::Ptr last = at;
    at = nullptr;
    loose = nullptr;
    EXPECT_EQ( nullptr, last->parent() );
    EXPECT_EQ( 1U, last->references() );
}

TEST_F( DirTest, LifeCycleFlagsAreKeptApart ) {
    const Entity::Ptr e = new Entity( "e" );
    EXPECT_FALSE( e->isNondestructing() );
    e->isNondestructingIs( true );
    EXPECT_TRUE( e->isNondestructing() );
    EXPECT_FALSE( e->zeroReferences() );
    e->zeroReferencesIs( true );
    e->isNondestructingIs( false );
    EXPECT_TRUE( e->zeroReferences() );
    EXPECT_FALSE( e->isNondestructing() );
    EXPECT_EQ( 1U, e->references() );
}

} // namespace
