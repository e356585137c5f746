/* Growth of the bucket array: a writer that inserts and deletes a key, builds another array beside
 * the one in use, one slot after the other with changes between, publishes it by the table word,
 * empties or uses again the space of the former one; that may be killed at any store, and then
 * builds another array from the slots. A reader that looks for the key, as slowly as it likes. See
 * Krell/BucketTable, BucketArray, BucketGrowth, ReaderTable and Recovery.
 *
 * The key is present while its slot is occupied. Claim: a find that misses began, went on or ended
 * while the key was absent.
 *
 * An array is a chain of two places here, with one tag word; two spaces take turns. Another key
 * stays in the middle one of three slots; the looked for one takes one of the others each time.
 *
 * Memory: the writer loads nothing that somebody else stores, the reader stores nothing. So stores
 * with release and loads with acquire in program order, a statement for each shared word.
 *
 * Run          Must    What it is
 *   MUTANT=0   hold    the protocol
 *   MUTANT=1   fail    a miss counts whatever the table word is after it
 *   MUTANT=2   fail    a table word without a generation: the same space is the same word
 *   MUTANT=3   fail    the array is published before the last slot is copied
 *   MUTANT=4   fail    the space of the array in use is filled anew
 *   MUTANT=5   fail    a key is inserted into the array that is not in use
 *   MUTANT=6   fail    the next writer builds in the space of the array in use
 *   MUTANT=7   fail    an insert forgets the array that is built
 *   MUTANT=8   fail    a delete forgets it
 *   MUTANT=9   fail    the next writer goes on with an array that the dead one had begun
 *   MUTANT=10  fail    the space of the array in use is given back
 */

#ifndef MUTANT
#define MUTANT 0
#endif

#define OPERATIONS 5
#define KILLS 1
#define SLOTS 3
#define OTHER 1 /* the slot of the key that stays */

#define spaceOf(word) ( ( word ) % 2 )

/* Shared. A table word is twice its generation, and the space. */
byte table = 0;
byte occupied = 0; /* the slot of the key that is looked for, and 1; 0: absent */
byte tags[ 2 ];    /* of each space, a bit for each place */
byte index[ 4 ];

/* What the claim needs. */
bool absent = true; /* at some time since the reader began */

#define store(what)                                                                            \
    if                                                                                         \
    :: atomic { what }                                                                         \
    :: atomic { kills > 0 -> kills--; goto killed }                                            \
    fi

#if MUTANT == 2
#define nextWord to
#else
#define nextWord ( ( table / 2 + 1 ) * 2 + to )
#endif

/* To a free place: the index, then the tag. */
inline put(space, which) {
    if
    :: tags[ space ] != 3 ->
        place = ( tags[ space ] & 1 );
        store( index[ ( space ) * 2 + place ] = which );
        store( tags[ space ] = tags[ space ] | ( 1 << place ) )
    :: else
    fi
}

inline clear(space, which) {
    place = ( ( tags[ space ] & 1 ) && index[ ( space ) * 2 ] == which -> 0 : 1 );
    store( tags[ space ] = tags[ space ] & ~( 1 << place ) )
}

inline zero(space) {
    store( tags[ space ] = 0 );
    store( index[ ( space ) * 2 ] = 0 );
    store( index[ ( space ) * 2 + 1 ] = 0 )
}

inline begin() {
#if MUTANT == 4
    to = spaceOf( table );
#else
    to = 1 - spaceOf( table );
#endif
    zero( to );
    building = true;
    copied = 0
}

/* One slot, as it is now; the array is published with the last one. */
inline step() {
    if
    :: copied == OTHER || occupied == copied + 1 -> put( to, copied )
    :: else
    fi;
    copied++;
#if MUTANT == 3
    if
    :: copied == SLOTS - 1 -> publish()
#else
    if
    :: copied == SLOTS -> publish()
#endif
    :: else
    fi
}

inline publish() {
    store( table = nextWord );
    building = false;
    copied = 0
}

inline insert() {
    if
    :: slot = 0
    :: slot = 2
    fi;
#if MUTANT == 5
    put( 1 - spaceOf( table ), slot );
#else
    put( spaceOf( table ), slot );
#endif
#if MUTANT != 7
    if
    :: building && slot < copied -> put( to, slot )
    :: else
    fi;
#endif
    store( occupied = slot + 1 )
}

inline remove() {
    slot = occupied - 1;
    store( occupied = 0; absent = true );
    clear( spaceOf( table ), slot );
#if MUTANT != 8
    if
    :: building && slot < copied -> clear( to, slot )
    :: else
    fi
#endif
}

/* What nobody needs any more. */
inline giveBack() {
#if MUTANT == 10
    to = spaceOf( table );
#else
    to = 1 - spaceOf( table );
#endif
    zero( to )
}

proctype writer() {
    byte to = 0;
    byte place = 0;
    byte slot = 0;
    byte copied = 0;
    bool building = false;
    byte operations = OPERATIONS;
    byte kills = KILLS;

again:
    do
    :: building -> step()
    :: atomic { operations > 0 -> operations--; place = 0; slot = 0 }
        if
        :: !building -> begin()
        :: !building -> giveBack()
        :: occupied != 0 -> remove()
        :: occupied == 0 -> insert()
        fi
    :: atomic { operations == 0 && !building -> break }
    od;
    goto finished;
killed:
#if MUTANT == 9
    if
    :: building -> goto again
    :: else
    fi;
#endif
#if MUTANT == 6
    to = spaceOf( table );
#else
    to = 1 - spaceOf( table );
#endif
    zero( to );
    building = true;
    copied = 0;
    do
    :: building -> step()
    :: else -> break
    od;
    goto again;
finished:
    skip
}

proctype reader() {
    byte word, matches, place, slot;
    bool hit;

end:
    do
    :: absent = ( occupied == 0 );
        do
        :: word = table;
            atomic { matches = tags[ spaceOf( word ) ]; place = 0 }
            do
            :: place < 2 && !hit ->
                if
                :: matches & ( 1 << place ) ->
                    slot = index[ spaceOf( word ) * 2 + place ];
                    if
                    :: occupied == slot + 1 -> hit = true
                    :: else
                    fi
                :: else
                fi;
                place++
            :: else -> break
            od;
            if
            :: hit -> break
            :: else
            fi;
#if MUTANT == 1
            break
#else
            if
            :: table == word -> break
            :: else
            fi
#endif
        od;
        atomic {
            assert( hit || absent );
            hit = false; matches = 0; place = 0; slot = 0; word = 0
        }
    od
}

init {
    d_step {
        index[ 0 ] = OTHER;
        tags[ 0 ] = 1
    }
    run writer();
    run reader()
}
