/* Growth of the bucket array: a writer that inserts and deletes a key, builds another array beside
 * the one in use, publishes it by the table word, and uses the space of the one before last; that
 * may be killed at any store, and then builds another array from the slots. A reader that looks for
 * the key, as slowly as it likes. See Krell/BucketTable, BucketArray, ReaderTable and Recovery.
 *
 * The key is present while its slot is occupied. Claim: a find that misses began, went on or ended
 * while the key was absent.
 *
 * An array is a chain of two places here, with one tag word; two spaces take turns. Another key
 * stays, so that the looked for one stands in various places.
 *
 * Memory: the writer loads nothing that somebody else stores, the reader stores nothing. So stores
 * with release and loads with acquire in program order, a statement for each shared word.
 *
 * Run          Must    What it is
 *   MUTANT=0   hold    the protocol
 *   MUTANT=1   fail    a miss counts whatever the table word is after it
 *   MUTANT=2   fail    a table word without a generation: the same space is the same word
 *   MUTANT=3   fail    the array is published before it is filled
 *   MUTANT=4   fail    the space of the array in use is filled anew
 *   MUTANT=5   fail    a key is inserted into the array before the present one
 *   MUTANT=6   fail    the next writer builds in the space of the array in use
 */

#ifndef MUTANT
#define MUTANT 0
#endif

#define OPERATIONS 4
#define KILLS 1
#define OTHER 1 /* the slot of the key that stays; that of the one looked for is 0 */

#define spaceOf(word) ( ( word ) % 2 )

/* Shared. A table word is twice its generation, and the space. */
byte table = 0;
bool occupied = false; /* the slot's state */
byte tags[ 2 ];        /* of each space, a bit for each place */
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
inline put(space, slot) {
    place = ( tags[ space ] & 1 );
    store( index[ ( space ) * 2 + place ] = slot );
    store( tags[ space ] = tags[ space ] | ( 1 << place ) )
}

inline fill() {
    store( tags[ to ] = 0 );
    store( index[ to * 2 ] = 0 );
    store( index[ to * 2 + 1 ] = 0 );
    if
    :: put( to, OTHER ); copyKey()
    :: copyKey(); put( to, OTHER )
    fi
}

inline copyKey() {
    if
    :: occupied -> put( to, 0 )
    :: else
    fi
}

inline grow() {
#if MUTANT == 4
    to = spaceOf( table );
#else
    to = 1 - spaceOf( table );
#endif
#if MUTANT == 3
    store( table = nextWord );
    fill()
#else
    fill();
    store( table = nextWord )
#endif
}

inline insert() {
#if MUTANT == 5
    to = 1 - spaceOf( table );
#else
    to = spaceOf( table );
#endif
    if
    :: tags[ to ] != 3 -> put( to, 0 )
    :: else
    fi;
    store( occupied = true )
}

inline remove() {
    store( occupied = false; absent = true );
    to = spaceOf( table );
    place = ( ( tags[ to ] & 1 ) && index[ to * 2 ] == 0 -> 0 : 1 );
    store( tags[ to ] = tags[ to ] & ~( 1 << place ) )
}

proctype writer() {
    byte to = 0;
    byte place = 0;
    byte operations = OPERATIONS;
    byte kills = KILLS;

again:
    do
    :: atomic { operations > 0 -> operations--; to = 0; place = 0 }
        if
        :: grow()
        :: occupied -> remove()
        :: !occupied -> insert()
        fi
    :: atomic { operations == 0 -> break }
    od;
    goto finished;
killed:
#if MUTANT == 6
    to = spaceOf( table );
#else
    to = 1 - spaceOf( table );
#endif
    fill();
    store( table = nextWord );
    goto again;
finished:
    skip
}

proctype reader() {
    byte word, matches, place, slot;
    bool hit;

end:
    do
    :: absent = !occupied;
        do
        :: word = table;
            atomic { matches = tags[ spaceOf( word ) ]; place = 0 }
            do
            :: place < 2 && !hit ->
                if
                :: matches & ( 1 << place ) ->
                    slot = index[ spaceOf( word ) * 2 + place ];
                    if
                    :: slot == 0 && occupied -> hit = true
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
