// One shared collection of a mounted entity, whatever its type, with the oracle's book of it. Keys
// and stamps stand for values: a stamp is tornStamp when the value's check does not fit.

#pragma once

#include <functional>
#include <memory>
#include <span>

#include <QelKrell/Collection>

#include "torture/Book.h"
#include "torture/Ledger.h"

namespace TortureTest {

class Shelf {
public:
    explicit Shelf( BookPage& page ) : page_( page ), book_( page ) {}
    virtual ~Shelf() = default;

    Book& book() noexcept { return book_; }
    const BookPage& page() const noexcept { return page_; }

    virtual Krell::Control& control() = 0;
    // noStamp when the key is not there.
    virtual U32 find( U32 key ) = 0;
    // Of a shadow, in a reaction.
    virtual U32 previous( U32 key ) = 0;
    // By iteration, one for each key of the book. `still`: nobody writes meanwhile, so a key that
    // comes twice is tornStamp too.
    //   errors  std::runtime_error for a key that is none
    virtual std::vector< U32 > list( bool still ) = 0;
    virtual void findMany( std::span< const U32 > keys, std::vector< U32 >& stamps ) = 0;

    virtual bool is( U32 key, U32 stamp ) = 0;
    virtual bool del( U32 key ) = 0;
    virtual void isMany( std::span< const U32 > keys, std::span< const U32 > stamps ) = 0;
    virtual void mark() = 0;
    virtual U32 sweep() = 0;

    using Watch = Qel::Ptr< Qel::BaseNotifiee >;
    virtual Watch watch( std::function< void( U32 key ) > reaction ) = 0;

    // Both collections of a mounted entity of typeNames[ type ].
    static std::unique_ptr< Shelf > of( Qel::Entity& entity, U32 type, U32 which, BookPage& page );

private:
    BookPage& page_;
    Book book_;
};

} // namespace TortureTest
