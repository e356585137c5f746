// A root directory of its own and an empty entity tree, for one test.

#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

#include <Norvo/EntityManager>
#include <QelKrell/KrellMount>
#include <gtest/gtest.h>

namespace QelKrellTest {

// A fresh directory in shared memory, which KRELL_ROOT names. Removed by the process that made it.
class Root {
public:
    Root() : maker_( getpid() ) {
        char name[] = "/dev/shm/qelkrell-test-XXXXXX";
        EXPECT_NE( mkdtemp( name ), nullptr );
        path_ = name;
        setenv( "KRELL_ROOT", name, 1 );
    }
    ~Root() {
        if ( getpid() == maker_ ) {
            std::error_code ignored;
            std::filesystem::permissions( path_, std::filesystem::perms::owner_all, ignored );
            std::filesystem::remove_all( path_, ignored );
            unsetenv( "KRELL_ROOT" );
        }
    }
    Root( const Root& ) = delete;
    Root& operator=( const Root& ) = delete;

    const std::string& path() const noexcept { return path_; }
    // How many files and directories stand below it.
    std::size_t entries() const {
        std::size_t n = 0;
        for ( const auto& entry : std::filesystem::recursive_directory_iterator( path_ ) ) {
            static_cast< void >( entry );
            ++n;
        }
        return n;
    }
    bool has( const std::string& below ) const {
        return std::filesystem::exists( path_ + "/" + below );
    }

private:
    pid_t maker_;
    std::string path_;
};

// An entity manager "sys" and a mount for it. It leaves nothing in the entity tree.
class Site {
public:
    explicit Site( bool local ) : em( Norvo::entityManagerFactory( "sys", local ) ), mount( em ) {}
    ~Site() {
        if ( const auto counts = Qel::Entity::singleton< QelKrell::KrellEntities >() ) {
            counts->countDelAll();
        }
        const Qel::Dir::Ptr root = Qel::Dir::globalDir();
        root->subdirDel( "sys" );
        root->entryDel( "sys" );
    }
    Site( const Site& ) = delete;
    Site& operator=( const Site& ) = delete;

    Qel::Dir::Ptr krell() const { return mount.krellDir(); }

    Norvo::EntityManager::Ptr em;
    QelKrell::Mount mount;
};

// How many mounts hold the entity of that full name, in this process.
inline Qel::U32 mounts( const char* fullName ) {
    const auto counts = Qel::Entity::singleton< QelKrell::KrellEntities >();
    return counts ? counts->count( fullName ) : 0;
}

} // namespace QelKrellTest
