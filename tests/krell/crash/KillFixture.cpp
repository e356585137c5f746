#include "krell/crash/KillFixture.h"

namespace KrellTest {

namespace {

void fill( Both& both, U64 count ) {
    for ( U64 n = 0; n < count; ++n ) {
        both.put( key( n ), 10 * n );
    }
}

void fillColliding( Both& both, U64 count ) {
    for ( U64 n = 0; n < count; ++n ) {
        both.put( collidingKey( n ), 10 * n );
    }
}

// 128 slots, of which each was used, eight primary buckets and 65 keys: the next array was begun by
// the last insert. The retired slots that are used next are the first ones.
void fillUntilTheNextArrayIsBegun( Both& both ) {
    both.grow();
    fill( both, 63 );
    for ( U64 n = 0; n < 65; ++n ) {
        both.del( key( n % 63 ) );
        both.put( key( n % 63 ), 20 * n );
    }
    both.put( key( 100 ), 1 );
    both.put( key( 101 ), 2 );
}

const std::vector< Change > changes {
    { "Update", 8, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.put( key( 2 ), 77 ); } },
    { "SecondUpdate", 8,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 2 ), 76 );
      },
      []( Both& b ) { b.put( key( 2 ), 77 ); } },
    { "UpdateOfAnotherKey", 8,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 3 ), 76 );
      },
      []( Both& b ) { b.put( key( 1 ), 77 ); } },
    { "Insert", 8, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "FirstInsert", 8, []( Both& ) {}, []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "Delete", 8, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.del( key( 1 ) ); } },
    { "DeleteOfTheUpdatedKey", 8,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 1 ), 76 );
      },
      []( Both& b ) { b.del( key( 1 ) ); } },
    { "InsertIntoARetiredSlot", 4,
      []( Both& b ) {
          fill( b, 4 );
          b.put( key( 1 ), 76 );
          b.del( key( 1 ) );
      },
      []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "InsertOfTheDeletedKey", 4,
      []( Both& b ) {
          fill( b, 4 );
          b.del( key( 1 ) );
      },
      []( Both& b ) { b.put( key( 1 ), 77 ); } },
    { "InsertThatGrowsTheSlots", 4, []( Both& b ) { fill( b, 4 ); },
      []( Both& b ) { b.put( key( 9 ), 77 ); } },
    { "InsertThatGrowsTheBuckets", 64, []( Both& b ) { fill( b, 64 ); },
      []( Both& b ) { b.put( key( 99 ), 77 ); } },
    { "InsertThatLinksAnOverflowBucket", 64, []( Both& b ) { fillColliding( b, 12 ); },
      []( Both& b ) { b.put( collidingKey( 99 ), 77 ); } },
    { "InsertWhileTheNextArrayIsBuilt", 64, fillUntilTheNextArrayIsBegun,
      []( Both& b ) { b.put( key( 102 ), 77 ); } },
    { "DeleteWhileTheNextArrayIsBuilt", 64,
      []( Both& b ) {
          fillUntilTheNextArrayIsBegun( b );
          b.put( key( 102 ), 77 ); // in a slot that was copied before
      },
      []( Both& b ) { b.del( key( 102 ) ); } },
    { "InsertThatPublishesTheNextArray", 64,
      []( Both& b ) {
          fillUntilTheNextArrayIsBegun( b );
          for ( U64 n = 0; n < 3; ++n ) {
              b.put( key( 102 + n ), n );
          }
      },
      []( Both& b ) { b.put( key( 99 ), 77 ); } },
    // One primary bucket and four overflow buckets, all of the reserve, are full.
    { "InsertThatLengthensTheChains", 256, []( Both& b ) { fillColliding( b, 60 ); },
      []( Both& b ) { b.put( collidingKey( 99 ), 77 ); } },
    // The change queue has 992 places, of which 899 are in use: live entries at its tail are moved.
    { "UpdateThatMovesEntries", 30,
      []( Both& b ) {
          fill( b, 30 );
          for ( U64 n = 0; n < 869; ++n ) {
              b.put( key( 29 ), 1000 + n );
          }
      },
      []( Both& b ) { b.put( key( 28 ), 77 ); } },
    { "DeleteThatMovesEntries", 30,
      []( Both& b ) {
          fill( b, 30 );
          for ( U64 n = 0; n < 870; ++n ) {
              b.put( key( 28 + n % 2 ), 1000 + n );
          }
      },
      []( Both& b ) { b.del( key( 28 ) ); } },
    // All places were filled: 30 for the keys, 933 for changes, 29 for entries that were moved.
    { "UpdateThatBeginsARound", 30,
      []( Both& b ) {
          fill( b, 30 );
          for ( U64 n = 0; n < 933; ++n ) {
              b.put( key( 29 ), 1000 + n );
          }
      },
      []( Both& b ) { b.put( key( 28 ), 77 ); } },
    { "InsertThatGrowsTheQueue", 371, []( Both& b ) { fill( b, 371 ); },
      []( Both& b ) { b.put( key( 999 ), 77 ); } },
    { "Growth", 4, []( Both& b ) { fill( b, 4 ); }, []( Both& b ) { b.grow(); } },
};

} // namespace

const std::vector< Change >& allChanges() { return changes; }

void PrintTo( const Change& change, std::ostream* os ) { *os << change.name; }

} // namespace KrellTest
