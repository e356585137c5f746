/* The change queue: one writer that fills it, moves live entries out of the tail's way, makes other
 * generations of it and may be killed at any store; one reader that follows it, may be lapped, and
 * may stop after each report. See Krell/Queue, QueueWriter and QueueReader.
 *
 * Claim: once the writer has stopped and nothing is pending for the reader, what the reader read
 * last of each slot is what the slot has. The right model claims more: that a change which a reader
 * passed over has a newer one after it; that a drain which nothing interrupts tells all changes up
 * to its end, and of a slot once; one live entry a slot; that no valid place is filled anew.
 *
 * Memory: the reader stores nothing shared, and the writer loads nothing that another stores. So a
 * store buffer shows as a slower writer only, and acquire and release as the order of statements:
 * each shared word is a statement of its own, in program order. A slot is its version here, for
 * Krell/Slot makes a change of it one instant.
 *
 * Run                              Must    What it is
 *   CHANGES=5                        hold    the protocol, lapping its reader
 *   CHANGES=4 KILLS=1                hold    the writer is killed at any store
 *   CHANGES=4 GROWTHS=1              hold    another generation goes on from the first
 *   CHANGES=3 GROWTHS=1 KILLS=1      hold    both, in any order
 *   VARIANT=1 CHANGES=4              hold    the tombstone comes before the new entry is published
 *   VARIANT=2 CHANGES=3 KILLS=1      hold    no look at the generation after a batch: files do not
 *                                            change once they are replaced
 *   VARIANT=3 CHANGES=3 KILLS=2      hold    generations are filled in place in two files
 *   VARIANT=4 CHANGES=5              hold    the rule of mutant 11, which loses nothing
 *   MUTANT=1 CHANGES=5               fail    the tail is not looked at after a batch
 *   MUTANT=2 CHANGES=5               fail    the mark is stored before the entry
 *   MUTANT=3 CHANGES=5               fail    the tail passes a live entry, which is not moved
 *   MUTANT=4 CHANGES=5               fail    the tail is stored after its place was filled anew
 *   MUTANT=5 CHANGES=3 KILLS=1       fail    a place is kept in a generation that begins anew
 *   MUTANT=6 CHANGES=5               fail    the position becomes a head loaded after the drain
 *   MUTANT=7 CHANGES=5               fail    head and sequence are two words
 *   MUTANT=8 CHANGES=4 GROWTHS=1     fail    a generation is published before it is filled
 *   MUTANT=9 CHANGES=3 KILLS=2       fail    in place in two files, and no look at the generation
 *   MUTANT=10 CHANGES=3 KILLS=1      fail    a report is taken to tell more than the drain's end
 *   MUTANT=11 CHANGES=5              fail    a live entry of the last entry's slot is passed over
 *                                            when a change behind the end follows
 *
 * Mutants 1 to 10 lose an update. Mutant 11 tells of a slot in a later drain, or twice in one, if
 * the drain begins between the mark and the tail of an entry that is moved: both are in it then.
 */

#ifndef MUTANT
#define MUTANT 0
#endif
#ifndef VARIANT
#define VARIANT 0
#endif
#ifndef CHANGES
#define CHANGES 5
#endif
#ifndef KILLS
#define KILLS 0
#endif
#ifndef GROWTHS
#define GROWTHS 0
#endif

#define PLACES 4
#define BATCH 2
#define GENERATIONS ( 1 + KILLS + GROWTHS )

#if MUTANT == 9 || VARIANT == 3
#define FILES 2
#else
#define FILES GENERATIONS
#endif

#if MUTANT == 0
#define alsoAssert(x) assert( x )
#else
#define alsoAssert(x) skip
#endif

/* An entry: tombstone, slot, sequence. */
#define live(slot, sequence) ( ( slot ) * 64 + ( sequence ) )
#define tombstone(slot, sequence) ( 128 + live( slot, sequence ) )
#define tombed(e) ( ( e ) >= 128 )
#define slotOf(e) ( ( ( e ) / 64 ) % 2 )
#define sequenceOf(e) ( ( e ) % 64 )

#define fileOf(generation) ( ( generation ) % FILES )
#define placeOf(generation, position) ( fileOf( generation ) * PLACES + ( position ) % PLACES )

/* Shared. Head and sequence of a mark are stored and loaded together. */
byte version[ 2 ];
byte entries[ FILES * PLACES ];
byte markSequence[ FILES ];
byte markHead[ FILES ] = 1; /* a position */
byte tail[ FILES ] = 1;     /* likewise, and the next */
byte sortedEnd[ FILES ] = 1;
byte generation = 0;
bool goesOn[ GENERATIONS ]; /* a generation has the positions of the one before it */

/* Whether an entry speaks for its slot although there is a change behind the end; and whether the
 * slot of the last entry was told of before that is met. */
#if MUTANT == 11 || VARIANT == 4
#define speaks ( slotOf( entry ) != lastSlot || position == end - 1 )
#define toldOfLast false
#else
#define speaks true
#define toldOfLast ( lastTold || slotOf( entry ) == lastSlot )
#endif

#if MUTANT == 0 && VARIANT != 4 || MUTANT == 11
#define EACH_ONCE 1
#endif

/* What the claims need. */
byte changed[ CHANGES + 1 ]; /* the slot of each change */
byte mirror[ 2 ];
bool stopped = false;

/* One store, with what the writer notes for itself; or its end. */
#if KILLS
#define store(what) if :: atomic { what } :: atomic { kills > 0 -> kills--; goto killed } fi
#else
#define store(what) atomic { what }
#endif

inline freeTail() {
    if
    :: MUTANT != 3 && !tombed( entries[ placeOf( g, low ) ] ) ->
        alsoAssert( head - low < PLACES );
        store( entries[ placeOf( g, head ) ] = entries[ placeOf( g, low ) ];
               place[ slotOf( entries[ placeOf( g, low ) ] ) ] = head;
               head++ );
        store( markSequence[ fileOf( g ) ] = sequence; markHead[ fileOf( g ) ] = head )
    :: else
    fi;
#if MUTANT == 4
    low++
#else
    store( low++; tail[ fileOf( g ) ] = low )
#endif
}

inline storeMark() {
#if MUTANT == 7
    store( markHead[ fileOf( g ) ] = head + 1 );
    store( markSequence[ fileOf( g ) ] = sequence + 1 )
#else
    store( markSequence[ fileOf( g ) ] = sequence + 1; markHead[ fileOf( g ) ] = head + 1 )
#endif
}

inline storeEntry() {
    store( alsoAssert( head - low < PLACES );
           entries[ placeOf( g, head ) ] = live( slot, sequence + 1 ) )
}

inline bury() {
    if
    :: former >= low && former != 0 ->
        store( entries[ placeOf( g, former ) ] = tombstone( slot, sequence + 1 ) )
    :: else
    fi
}

/* The valid part at the same positions in another file. */
inline grow() {
#if MUTANT == 8
    store( goesOn[ g + 1 ] = true; generation = g + 1 );
#endif
    store( entries[ placeOf( g + 1, 0 ) ] = entries[ placeOf( g, 0 ) ];
           entries[ placeOf( g + 1, 1 ) ] = entries[ placeOf( g, 1 ) ];
           entries[ placeOf( g + 1, 2 ) ] = entries[ placeOf( g, 2 ) ];
           entries[ placeOf( g + 1, 3 ) ] = entries[ placeOf( g, 3 ) ] );
    store( tail[ fileOf( g + 1 ) ] = low;
           sortedEnd[ fileOf( g + 1 ) ] = sortedEnd[ fileOf( g ) ];
           markSequence[ fileOf( g + 1 ) ] = sequence;
           markHead[ fileOf( g + 1 ) ] = head );
    store( goesOn[ g + 1 ] = true; generation = g + 1; g++ )
}

/* Another generation from the slots alone, in the order of their last changes. */
inline rebuild() {
    d_step {
        g = generation + 1;
        head = 1;
        low = 1;
        place[ 0 ] = 0;
        place[ 1 ] = 0;
        sequence = ( version[ 0 ] > version[ 1 ] -> version[ 0 ] : version[ 1 ] );
        slot = ( version[ 0 ] > version[ 1 ] ); /* the older one first */
        former = 0;
        do
        :: former < 2 ->
            if
            :: version[ slot ] != 0 ->
                entries[ placeOf( g, head ) ] = live( slot, version[ slot ] );
                place[ slot ] = head;
                head++
            :: else
            fi;
            slot = 1 - slot;
            former++
        :: else -> break
        od;
        former = 0;
        slot = 0;
        tail[ fileOf( g ) ] = low;
        sortedEnd[ fileOf( g ) ] = head;
        markSequence[ fileOf( g ) ] = sequence;
        markHead[ fileOf( g ) ] = head
    }
    generation = g
}

/* Each slot that was ever used has one live entry between tail and head. */
inline checkEntries() {
#if MUTANT == 0
    former = low;
    slot = 0;
    do
    :: former < head ->
        if
        :: !tombed( entries[ placeOf( g, former ) ] ) ->
            slot = slot + 1 + 9 * slotOf( entries[ placeOf( g, former ) ] )
        :: else
        fi;
        former++
    :: else -> break
    od;
    assert( slot == ( version[ 0 ] != 0 ) + 10 * ( version[ 1 ] != 0 ) );
#endif
    former = 0;
    slot = 0
}

active proctype writer() {
    byte g = 0;    /* its generation */
    byte head = 1; /* positions */
    byte low = 1;
    byte place[ 2 ]; /* of the live entry of each slot */
    byte sequence = 0;
    byte slot = 0;
    byte former = 0;
    byte kills = KILLS;
    byte growths = GROWTHS;

again:
    do
    :: sequence < CHANGES ->
        if
        :: atomic { growths > 0 -> growths-- }; grow()
        :: true
        fi;
        if
        :: slot = 0 /* the first one's name does not matter */
        :: sequence > 0 -> slot = 1
        fi;
        store( version[ slot ] = sequence + 1; changed[ sequence + 1 ] = slot );
        do
        :: head - low >= PLACES - 1 -> freeTail()
        :: else -> break
        od;
        former = place[ slot ];
#if VARIANT == 1
        bury();
#endif
#if MUTANT == 2
        storeMark();
        storeEntry();
#else
        storeEntry();
        storeMark();
#endif
#if MUTANT == 4
        store( tail[ fileOf( g ) ] = low );
#endif
#if VARIANT != 1
        bury();
#endif
        d_step {
            place[ slot ] = head;
            head++;
            sequence++;
            checkEntries()
        }
    :: else -> break
    od;
    goto finished;
killed:
    rebuild();
    goto again;
finished:
    stopped = true
}

#define mapped fileOf( mine )
#define pending                                                                                \
    ( mine != generation || !placed || draining || markHead[ mapped ] != position ||           \
      markSequence[ mapped ] != known )

/* ( S, H ) */
inline loadMark() {
#if MUTANT == 7
    end = markHead[ mapped ];
    endSequence = markSequence[ mapped ]
#else
    atomic {
        end = markHead[ mapped ];
        endSequence = markSequence[ mapped ]
    }
#endif
}

/* Loads the entries first to last - 1, at most a batch; `sound` when they are what they seem. */
inline read(first, last) {
    size = 0;
    do
    :: atomic {
        size < BATCH && first + size < last ->
        batch[ size ] = entries[ placeOf( mine, first + size ) ];
        size++
    }
    :: else -> break
    od;
#if MUTANT == 1
    sound = true;
#else
    sound = tail[ mapped ] <= first;
#endif
#if MUTANT != 9 && VARIANT != 2
    sound = sound && generation == mine;
#endif
    i = 0
}

/* What a reader claims to know: a change that it was not told of has a newer one after it. */
inline knownIs(value) {
    d_step {
        known = value;
        alsoAssert( version[ 0 ] > known || mirror[ 0 ] == version[ 0 ] );
        alsoAssert( version[ 1 ] > known || mirror[ 1 ] == version[ 1 ] )
    }
}

/* Reads the slot, for the reader's user. */
inline report(which) {
    atomic {
        mirror[ which ] = version[ which ];
#if EACH_ONCE
        assert( !reported[ which ] );
#endif
        reported[ which ] = true
    }
}

inline beginReports() {
    draining = true;
    lastTold = false;
    reported[ 0 ] = false;
    reported[ 1 ] = false
}

/* Passes over what is known of the entries that stand in order. */
inline endOfKnown() {
    low = from;
    high = ( sortedEnd[ mapped ] < end -> sortedEnd[ mapped ] : end );
    do
    :: known != 0 && low < high ->
        at = low + ( high - low ) / 2;
        middle = at;
        do
        :: atomic { entry = entries[ placeOf( mine, at ) ]; at++ };
            if
            :: tombed( entry ) && at < high
            :: else -> break
            fi
        od;
        if
        :: tail[ mapped ] > from -> break
        :: else
        fi;
        if
        :: tombed( entry ) || version[ slotOf( entry ) ] > known -> high = middle
        :: else -> low = at
        fi
    :: else -> from = low; break
    od;
    atomic { low = 0; high = 0; middle = 0; at = 0; entry = 0 }
}

/* The slots that a batch names, with their versions as they are now. */
inline collect() {
    do
    :: atomic {
        i < size ->
        if
        :: tombed( batch[ i ] ) && sequenceOf( batch[ i ] ) <= endSequence
        :: else ->
            now = version[ slotOf( batch[ i ] ) ];
            if
            :: now > known && now > found[ slotOf( batch[ i ] ) ] ->
                found[ slotOf( batch[ i ] ) ] = now
            :: else
            fi;
            now = 0
        fi;
        i++
    }
    :: else -> break
    od
}

/* Whether an entry speaks for its slot in this drain; `told` is known once it is reported. */
inline judge() {
    told = known;
    news = false;
    now = version[ slotOf( entry ) ];
    if
    :: lastTold && position == end - 1
    :: else ->
        if
        :: tombed( entry ) -> news = sequenceOf( entry ) > endSequence
        :: !tombed( entry ) && sequenceOf( entry ) > known && sequenceOf( entry ) <= endSequence ->
            if
            :: now > endSequence -> news = speaks
            :: now <= endSequence && now > known && now == sequenceOf( entry ) ->
                news = true;
                told = now
            :: else
            fi
        :: else
        fi
    fi;
    now = 0
}

/* Maps the present generation. */
inline attach() {
    if
    :: mine != generation && !( goesOn[ generation ] && mine + 1 == generation ) ->
#if MUTANT != 5
        thrownBack = thrownBack || draining;
        placed = false;
        draining = false
#else
        skip
#endif
    :: else
    fi;
    mine = generation
}

active proctype reader() {
    byte mine = 0; /* the generation that it has mapped */
    byte position = 0;
    byte known = 0; /* the sequence up to which it reported everything */
    byte end = 0;
    byte endSequence = 0;
    byte lastSlot = 0;
    byte found[ 2 ];
    byte batch[ BATCH ];
    byte size, i, from, low, high, middle, at, entry, now, told;
    bool placed, draining, sound, news;
    bool lastTold; /* the slot of the entry before the end was reported */
    bool reported[ 2 ];
    bool thrownBack; /* in the middle of a drain: what it told first may not be the oldest */

round:
    atomic { attach() };
    if
    :: placed -> goto drain
    :: else
    fi;

    atomic {
        found[ 0 ] = 0;
        found[ 1 ] = 0;
        from = tail[ mapped ]
    }
    loadMark();
    endOfKnown();
    do
    :: from < end ->
        read( from, end );
        if
        :: sound -> collect(); from = from + size
        :: !sound && mine != generation -> goto round
        :: else ->
            from = ( tail[ mapped ] > from -> tail[ mapped ] : from );
            loadMark()
        fi
    :: else -> break
    od;
    atomic {
        from = 0;
        position = end;
        placed = true;
        beginReports()
    }

drain:
    if
    :: !draining ->
        loadMark();
#if VARIANT == 3
        if
        :: generation != mine -> placed = false; goto round
        :: else
        fi;
#endif
        alsoAssert( end >= position && endSequence >= known );
        if
        :: end != position -> lastSlot = slotOf( entries[ placeOf( mine, end - 1 ) ] )
        :: else
        fi;
        d_step { beginReports() }
    :: else
    fi;

    do
    :: found[ 0 ] != 0 || found[ 1 ] != 0 ->
        atomic {
            i = ( found[ 0 ] == 0 || ( found[ 1 ] != 0 && found[ 1 ] < found[ 0 ] ) );
            now = version[ i ];
            news = now == found[ i ] || now > endSequence;
            now = 0
        }
        if
        :: news -> report( i )
        :: else
        fi;
        atomic {
#if MUTANT == 10
            told = found[ i ];
#else
            told = ( found[ i ] < endSequence -> found[ i ] : endSequence );
#endif
            told = ( told > known -> told : known );
            knownIs( told );
            found[ i ] = 0;
            i = 0
        }
        if
        :: news -> goto round
        :: true
        fi
    :: else -> break
    od;

    do
    :: position != end ->
        read( position, end );
        if
        :: !sound ->
            d_step { thrownBack = true; placed = false; draining = false }
            goto round
        :: else
        fi;
        do
        :: i < size ->
            atomic { entry = batch[ i ]; judge() }
            if
            :: news -> report( slotOf( entry ) ); lastTold = toldOfLast
            :: else
            fi;
            atomic { i++; position++; knownIs( told ) }
            if
            :: news -> goto round
            :: true
            fi
        :: else -> break
        od
    :: else -> break
    od;

#if MUTANT == 6
    position = markHead[ mapped ];
#endif
    atomic {
        draining = false;
        knownIs( endSequence );
#if EACH_ONCE
        i = 1;
        do
        :: i <= known -> assert( thrownBack || mirror[ changed[ i ] ] >= i ); i++
        :: else -> break
        od;
#endif
        i = 0; size = 0; entry = 0; told = 0; news = false; sound = false;
        batch[ 0 ] = 0; batch[ 1 ] = 0; end = 0; endSequence = 0; lastSlot = 0; lastTold = false
    }
    if
    :: pending -> goto round
    :: atomic {
        stopped && !pending ->
        assert( mirror[ 0 ] == version[ 0 ] && mirror[ 1 ] == version[ 1 ] )
    }
    fi
}
