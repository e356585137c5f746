// The oracle of one collection: what its writers were about to do and have done, in pages that
// outlive every process and that the product knows nothing of.
//
// A change has a number, which grows with each change of the collection; its stamp is that number
// and whether the key is there afterwards, and the value that is written carries the stamp. The
// writer notes the stamp as begun before the change and as done after it. So at any instant, with
// any number of writers dead:
//
//   the key's state is that of `done`, or that of `begun`
//   a state that somebody saw (`seen`) is never followed by an earlier one
//
// A removal of the whole collection is one change of all keys: `clears` is odd meanwhile.
//
// The words are written by the one writer, `seen` by readers too; everybody reads them.

#pragma once

#include <string>
#include <vector>

#include <Dov/Atomics>

namespace TortureTest {

using Qel::U32;

inline constexpr U32 maxKeys = 2048;

struct BookPage {
    U32 keys; // the first so many of these are in use
    U32 fenix;
    U32 clears;
    U32 number;
    U32 begun[ maxKeys ];
    U32 done[ maxKeys ];
    U32 seen[ maxKeys ];
};

constexpr bool isThere( U32 stamp ) { return stamp % 2 != 0; }
constexpr U32 numberOf( U32 stamp ) { return stamp / 2; }
// In place of a value's stamp: it does not fit to its check.
inline constexpr U32 tornStamp = 0xffffffff;
// In place of a stamp: the key is not there.
inline constexpr U32 noStamp = 0;

class Book {
public:
    explicit Book( BookPage& page ) : page_( &page ) {}

    U32 keys() const { return page_->keys; }
    U32 fenix() const { return load( page_->fenix ); }
    U32 done( U32 key ) const { return load( page_->done[ key ] ); }
    bool isClearing() const { return load( page_->clears ) % 2 != 0; }

    // --- The writer.

    // The stamp of a change that begins.
    U32 begin( U32 key, bool present );
    void finish( U32 key ) { store( page_->done[ key ], page_->begun[ key ] ); }
    void fenixIs( U32 fenix ) { store( page_->fenix, fenix ); }
    void beginClear() { store( page_->clears, page_->clears + 1 ); }
    // No key is there. With the stamp of the new incarnation.
    void endClear( U32 fenix );

    // What is wrong with a collection after its writer's death; all counts are 0 if nothing is.
    struct Verdict {
        U32 torn = 0;
        U32 lost = 0;
        U32 resurrected = 0;
        U32 foreign = 0;   // nobody ever wrote that
        U32 undecided = 0; // changes in flight
        std::string what;
    };
    // The next writer, before its first change: compares with the stamps that stand in the
    // collection, one for each key, and goes on from what there is.
    Verdict settle( const std::vector< U32 >& found, U32 fenix );

    // --- A reader that looks at the collection itself.

    // Before a look at a key. What the look may find is known afterwards.
    class Look {
    public:
        Look( const Book& book, U32 key )
            : page_( *book.page_ ),
              key_( key ),
              clears_( load( page_.clears ) ),
              fenix_( load( page_.fenix ) ),
              done_( load( page_.done[ key ] ) ) {}

        enum class Found { good, stale, missed, resurrected, foreign };
        // `fenix`: of the incarnation that was looked at.
        Found found( U32 stamp, U32 fenix ) const;

    private:
        BookPage& page_;
        const U32 key_;
        const U32 clears_;
        const U32 fenix_;
        const U32 done_;
    };

private:
    static U32 load( const U32& word ) { return Dov::Atomics::loadAcquire( &word ); }
    static void store( U32& word, U32 value ) { Dov::Atomics::storeRelease( &word, value ); }
    void settleClear( const std::vector< U32 >& found, U32 fenix );
    U32 decided( U32 key, U32 found, Verdict& verdict ) const;

    BookPage* page_;
};

} // namespace TortureTest
