// A record that a test's process shares with its forked children, and that outlives them.

#pragma once

#include <new>
#include <string>
#include <type_traits>

#include <sys/mman.h>

namespace FaultsTest {

template < class T >
class Shared {
public:
    Shared()
        : record_( new ( ::mmap(
              nullptr, sizeof( T ), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0 ) )
                       T ) {}
    ~Shared() { ::munmap( record_, sizeof( T ) ); }
    Shared( const Shared& ) = delete;
    Shared& operator=( const Shared& ) = delete;

    T* operator->() const { return record_; }

private:
    static_assert( std::is_trivially_destructible_v< T > );

    T* const record_;
};

// How often something was wrong, and what that was when it was last.
struct Wrong {
    unsigned count = 0;
    char what[ 400 ] = {};

    void add( const std::string& text ) {
        ++count;
        what[ text.copy( what, sizeof what - 1 ) ] = '\0';
    }
};

} // namespace FaultsTest
