// Three users: whose a tree is, one of the tree's group, and a stranger.

#pragma once

#include <csignal>
#include <functional>
#include <string>

#include <grp.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Krell/Exception>
#include <Qel/Exception>

namespace TrustTest {

struct User {
    const char* name;
    uid_t uid;
    gid_t gid;
};

inline constexpr User owner { "owner", 4001, 4000 };
inline constexpr User member { "member", 4002, 4000 };
inline constexpr User stranger { "stranger", 4003, 4003 };
inline constexpr User users[] = { owner, member, stranger };

// For good: use a child.
inline bool become( const User& user ) {
    return setgroups( 0, nullptr ) == 0 && setresgid( user.gid, user.gid, user.gid ) == 0 &&
           setresuid( user.uid, user.uid, user.uid ) == 0;
}

// "" when the process may become them; else why not.
inline std::string whyNoUsers() {
    const pid_t pid = fork();
    if ( pid == 0 ) {
        _exit( become( owner ) ? 0 : 1 );
    }
    int status = -1;
    waitpid( pid, &status, 0 );
    return status == 0 ? ""
                       : "becoming other users needs root, or a user namespace with their ids, as "
                         "unshare --map-root-user --map-auto makes one";
}

// What `body` threw, as "NAME: TEXT"; "" when it did not. What is no exception of ours goes on.
inline std::string refusalOf( const std::function< void() >& body ) {
    try {
        body();
    } catch ( const Krell::Exception& e ) {
        return e.name() + ": " + e.msg();
    } catch ( const Qel::Exception& e ) {
        return std::string( "framework: " ) + e.what();
    }
    return "";
}

inline constexpr const char* hung = "hung";

// What `body` returns in a forked process of that user. `hung` when that takes a minute; "ended by
// signal N" and the like when it does not return.
inline std::string asUser( const User& user, const std::function< std::string() >& body ) {
    constexpr int minuteMs = 60000;
    int ends[ 2 ];
    if ( pipe( ends ) != 0 ) {
        return "no pipe";
    }
    const pid_t pid = fork();
    if ( pid == 0 ) {
        close( ends[ 0 ] );
        std::string said;
        try {
            said = "." + ( become( user ) ? body() : "cannot become " + std::string( user.name ) );
        } catch ( const std::exception& e ) {
            said = std::string( ".unexpected: " ) + e.what();
        } catch ( const Krell::Exception& e ) {
            said = ".unexpected: " + e.name() + ": " + e.msg();
        }
        _exit( write( ends[ 1 ], said.data(), said.size() ) == ssize_t( said.size() ) ? 0 : 1 );
    }
    close( ends[ 1 ] );
    std::string said;
    char bytes[ 4096 ];
    bool late = false;
    for ( ssize_t n = 1; n > 0; ) {
        pollfd p { ends[ 0 ], POLLIN, 0 };
        late = poll( &p, 1, minuteMs ) == 0;
        n = late ? 0 : read( ends[ 0 ], bytes, sizeof bytes );
        said.append( bytes, n > 0 ? std::size_t( n ) : 0 );
    }
    close( ends[ 0 ] );
    if ( late ) {
        kill( pid, SIGKILL );
    }
    int status = 0;
    waitpid( pid, &status, 0 );
    if ( late ) {
        return hung;
    }
    return !said.empty()           ? said.substr( 1 )
           : WIFSIGNALED( status ) ? "ended by signal " + std::to_string( WTERMSIG( status ) )
                                   : "ended without a word";
}

} // namespace TrustTest
