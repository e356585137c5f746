/* A chain: a bucket with two places, linked to another one with two more, in which a writer inserts
 * and deletes two keys of one hash, beside a third one that stays; and a reader that looks for one
 * of them, or goes over the slots. See Krell/BucketTable, BucketArray, ReaderTable and WriterTable.
 *
 * A key is present while a slot that is occupied has it: that is what an iteration shows.
 *
 * Claim: a find that misses began, went on or ended while the key was absent. One that hits returns
 * a value that the key had then. An iteration shows a key that is present throughout once.
 *
 * A value is the number of the change that inserted it. Tags are all the same, so that every entry
 * of the chain is looked at. Updates are in the model of the slot, another array in that of growth.
 *
 * Memory: the writer loads nothing that somebody else stores, the reader stores nothing. So stores
 * with release and loads with acquire in program order, a statement for each shared word.
 *
 * Run           Must    What it is
 *   MUTANT=0    hold    the protocol
 *   VARIANT=1   hold    the tag is stored before the index: the version comes after both
 *   MUTANT=1    fail    an entry is moved to a free place of the chain
 *   MUTANT=2    fail    the index is stored last
 *   MUTANT=3    fail    an insertion is visible in the slot before it is in the chain
 *   MUTANT=4    fail    a deletion is visible in the chain before it is in the slot
 *   MUTANT=5    fail    the reader does not look at the version again after the value
 *   MUTANT=6    fail    the reader does not compare the key
 */

#ifndef MUTANT
#define MUTANT 0
#endif
#ifndef VARIANT
#define VARIANT 0
#endif

#define OPERATIONS 6
#define SLOTS 3
#define PLACES 4

#define X 1
#define Y 2
#define Z 3 /* stays, in the last slot and the first place */

#define FREE 0
#define WRITING 1
#define OCCUPIED 2
#define DEAD 3
#define stateOf(v) ( ( v ) % 4 )
#define versionFor(change, state) ( ( change ) * 4 + ( state ) )

/* Shared. Place p is in bucket p / 2, whose tags are one word. */
byte version[ SLOTS ];
byte keyIn[ SLOTS ];
byte value[ SLOTS ];
byte tags[ 2 ]; /* a bit for each place */
byte index[ PLACES ];
bit linked = 0;

/* What the claims need. */
byte present = 0;   /* the value of X; 0: it is absent */
bool absent = true; /* X was absent at some time since the reader began */
byte had = 0;       /* a bit for each value that X had since then */

inline insert(key) {
    if
    :: stateOf( version[ 0 ] ) != OCCUPIED -> slot = 0
    :: stateOf( version[ 1 ] ) != OCCUPIED -> slot = 1
    fi;
    atomic {
        place = 0;
        do
        :: place < PLACES && ( tags[ place / 2 ] & ( 1 << ( place % 2 ) ) ) -> place++
        :: else -> break
        od;
        linked = linked || place >= 2
    }
    version[ slot ] = versionFor( change, WRITING );
    keyIn[ slot ] = key;
    value[ slot ] = change + 1;
#if MUTANT == 3
    occupy( key );
#endif
#if VARIANT == 1
    tags[ place / 2 ] = tags[ place / 2 ] | ( 1 << ( place % 2 ) );
    index[ place ] = slot;
#elif MUTANT == 2
    tags[ place / 2 ] = tags[ place / 2 ] | ( 1 << ( place % 2 ) );
#else
    index[ place ] = slot;
    tags[ place / 2 ] = tags[ place / 2 ] | ( 1 << ( place % 2 ) );
#endif
#if MUTANT != 3
    occupy( key );
#endif
#if MUTANT == 2
    index[ place ] = slot;
#endif
    atomic { change++; placeOf[ key - 1 ] = place + 1; place = 0; slot = 0 }
}

inline occupy(key) {
    atomic {
        version[ slot ] = versionFor( change + 1, OCCUPIED );
        if
        :: key == X -> present = change + 1; had = had | ( 1 << present )
        :: else
        fi
    }
}

inline remove(key) {
    place = placeOf[ key - 1 ] - 1;
    slot = index[ place ];
#if MUTANT == 4
    tags[ place / 2 ] = tags[ place / 2 ] & ~( 1 << ( place % 2 ) );
#endif
    atomic {
        version[ slot ] = versionFor( change + 1, DEAD );
        if
        :: key == X -> present = 0; absent = true
        :: else
        fi
    }
#if MUTANT != 4
    tags[ place / 2 ] = tags[ place / 2 ] & ~( 1 << ( place % 2 ) );
#endif
#if MUTANT == 1
    if
    :: placeOf[ 2 - key ] > placeOf[ key - 1 ] ->
        index[ place ] = index[ placeOf[ 2 - key ] - 1 ];
        tags[ place / 2 ] = tags[ place / 2 ] | ( 1 << ( place % 2 ) );
        slot = placeOf[ 2 - key ] - 1;
        tags[ slot / 2 ] = tags[ slot / 2 ] & ~( 1 << ( slot % 2 ) );
        placeOf[ 2 - key ] = placeOf[ key - 1 ]
    :: else
    fi;
#endif
    atomic { change++; placeOf[ key - 1 ] = 0; place = 0; slot = 0 }
}

proctype writer() {
    byte change = 0;
    byte slot = 0;
    byte place = 0;
    byte placeOf[ 2 ]; /* of X and of Y, and 1; 0: absent */

    do
    :: change < OPERATIONS ->
        if
        :: placeOf[ X - 1 ] == 0 -> insert( X )
        :: placeOf[ X - 1 ] != 0 -> remove( X )
        :: placeOf[ Y - 1 ] == 0 -> insert( Y )
        :: placeOf[ Y - 1 ] != 0 -> remove( Y )
        fi
    :: else -> break
    od
}

/* The entry's slot: a hit, or not. */
inline look(which) {
    do
    :: seen = version[ which ];
        if
        :: stateOf( seen ) != OCCUPIED -> break
        :: else
        fi;
#if MUTANT != 6
        if
        :: keyIn[ which ] != X -> break
        :: else
        fi;
#endif
        got = value[ which ];
#if MUTANT == 5
        hit = true;
        break
#else
        if
        :: version[ which ] == seen -> hit = true; break
        :: else
        fi
#endif
    od;
    seen = 0
}

inline find() {
    bucket = 0;
    do
    :: atomic { matches = tags[ bucket ]; place = 0 }
        do
        :: place < 2 && !hit ->
            if
            :: matches & ( 1 << place ) -> slot = index[ bucket * 2 + place ]; look( slot )
            :: else
            fi;
            place++
        :: else -> break
        od;
        if
        :: !hit && bucket == 0 && linked -> bucket = 1
        :: else -> break
        fi
    od;
    atomic {
        assert( hit || absent );
        assert( !hit || ( had & ( 1 << got ) ) );
        matches = 0; place = 0; bucket = 0; slot = 0
    }
}

inline iterate() {
    place = 0;
    slot = 0;
    do
    :: slot < SLOTS ->
        look( slot );
        if
        :: hit -> place++; assert( had & ( 1 << got ) ); hit = false
        :: else
        fi;
        slot++
    :: else -> break
    od;
    atomic {
        assert( absent || place == 1 );
        place = 0;
        slot = 0
    }
}

proctype reader() {
    byte seen, got, slot, place, bucket, matches;
    bool hit = false;

end:
    do
    :: atomic { absent = present == 0; had = ( absent -> 0 : 1 << present ) }
        if
        :: find()
        :: iterate()
        fi;
        atomic { hit = false; got = 0 }
    od
}

init {
    d_step {
        version[ SLOTS - 1 ] = versionFor( 0, OCCUPIED );
        keyIn[ SLOTS - 1 ] = Z;
        index[ 0 ] = SLOTS - 1;
        tags[ 0 ] = 1
    }
    run writer();
    run reader()
}
