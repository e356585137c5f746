// What a peer's adapter includes. An adapter is one source file: it defines a type Peer and ends
// with `int main( int c, char** v ) { return bench::run< Peer >( c, v ); }`.
//
//     struct Peer {
//         static constexpr const char* name = "...";          // in the rows
//         static constexpr Scope scope = Scope::processes;    // where the reader lives
//         static constexpr bool grows = true;                 // optional: also run with n unknown
//         static constexpr bool unchecked = true;             // optional: gives no real values
//         static void before_fork( const Config& );           // optional: a server, descriptors
//         struct Writer {
//             explicit Writer( const Config& );               // n is 0 when it is not told
//             void begin();                                   // around each batch of changes
//             void commit();
//             void insert( const Key&, const Value& );
//             void update( const Key&, const Value& );
//             void update_notify( const Key&, const Value& ); // with native_changes
//             size_t memory();                                // optional: bytes in use
//         };
//         struct Reader {
//             static constexpr bool native_changes = false;   // it learns of changes by itself
//             explicit Reader( const Config& );
//             bool get( const Key&, Value& );                 // copies the newest value
//             void get_many( const Key*, Value*, bool* found, unsigned n ); // optional
//             template < class F > void scan( F&& );          // f( key, value ) for each entry
//             void subscribe();                               // optional: before changes
//             template < class F > void wait_changes( F&&, int ms ); // f( key, value ) each
//             void rest();                                    // optional: before it may sleep
//         };
//     };
//
// A peer without changes of its own gets a pipe that carries the keys.

#pragma once

#include "SequenceLocked.h"
#include "WriterSide.h"
