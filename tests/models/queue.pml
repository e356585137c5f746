/* The change queue: one writer that fills it in rounds, moves live entries out of the tail's way a
 * run at a time, makes its file longer and may be killed at any store, upon which another one makes
 * the next generation; one reader that follows it, may be lapped, and may stop after each report.
 * See Krell/Queue, QueueWriter and QueueReader.
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
 *   CHANGES=3 KILLS=1                hold    the writer is killed at any store
 *   CHANGES=4 GROWTHS=1              hold    the file grows in any part of a round
 *   CHANGES=3 GROWTHS=1 KILLS=1      hold    both, in any order
 *   VARIANT=1 CHANGES=4              hold    the tombstone comes before the new entry is published
 *   VARIANT=2 CHANGES=3 KILLS=1      hold    no look at the generation after a batch: files do not
 *                                            change once they are replaced
 *   VARIANT=3 CHANGES=4              hold    the rule of mutant 11, which loses nothing
 *   MUTANT=1 CHANGES=5               fail    the tail is not looked at after a batch
 *   MUTANT=2 CHANGES=5               fail    the mark is stored before the entry
 *   MUTANT=3 CHANGES=5               fail    the tail passes a live entry, which is not moved
 *   MUTANT=4 CHANGES=5               fail    the tail is stored after its place was filled anew
 *   MUTANT=5 CHANGES=3 KILLS=1       fail    a place is kept in a generation that begins anew
 *   MUTANT=6 CHANGES=5               fail    the position becomes a head loaded after the drain
 *   MUTANT=7 CHANGES=5               fail    head and sequence are two words
 *   MUTANT=8 CHANGES=5               fail    the round before is not stored
 *   MUTANT=9 CHANGES=3 KILLS=2       fail    in place in two files, and no look at the generation
 *   MUTANT=10 CHANGES=3 KILLS=1      fail    a report is taken to tell more than the drain's end
 *   MUTANT=11 CHANGES=5              fail    a live entry of the last entry's slot is passed over
 *                                            when a change behind the end follows
 *   MUTANT=12 CHANGES=5              fail    a round is stored before the one before it
 *   MUTANT=13 CHANGES=5              fail    a round is stored after its first entry
 *   MUTANT=14 CHANGES=5 GROWTHS=1    fail    new places count as room while the tail is in the
 *                                            round before
 *   MUTANT=15 CHANGES=5              fail    a reader loads the round before first
 *   MUTANT=16 CHANGES=5              fail    of moved entries, only the last one's slot is remembered
 *
 * Mutants 1 to 10 and 12 to 15 lose an update, or fill a valid place. Mutants 11 and 16 tell of a
 * slot in a later drain, or twice in one, if the drain begins between the mark and the tail of
 * entries that are moved: both places of each are in it then.
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

#define PLACES 4 /* at first */
#define MOST ( PLACES + GROWTHS )
#define RUN 2
#define BATCH 2
#define GENERATIONS ( 1 + KILLS )
#define NONE 255
#define FIRST 4 /* position, near the end of the first round */

#if MUTANT == 9
#define FILES 2
#else
#define FILES GENERATIONS
#endif

#if MUTANT == 0 || MUTANT == 14
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
#define wordAt(generation, place) ( fileOf( generation ) * MOST + ( place ) )

/* Shared. Head and sequence of a mark are stored and loaded together. */
byte version[ 2 ];
byte entries[ FILES * MOST ];
byte markSequence[ FILES ];
byte markHead[ FILES ] = FIRST; /* a position */
byte tail[ FILES ] = FIRST;     /* likewise, and the next three */
byte round[ FILES ] = 1;
byte before[ FILES ] = 1;
byte sortedEnd[ FILES ] = 1;
byte generation = 0;

/* Whether an entry speaks for its slot although there is a change behind the end; how many slots of
 * the last entries may have another entry before; and whether one of those was told of. */
#if MUTANT == 11 || VARIANT == 3
#define speaks ( slotOf( entry ) != lastSlots[ 0 ] || position == end - 1 )
#define doubled 0
#else
#define speaks true
#if MUTANT == 16
#define doubled 1
#else
#define doubled ( position < endTail + RUN -> RUN : 1 )
#endif
#endif

#if MUTANT == 0 && VARIANT != 3 || MUTANT == 11 || MUTANT == 16
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

/* The writer's: where a position stands, and how many can be valid. */
#define placeOf(position) ( ( position ) - ( ( position ) >= mine -> mine : former ) )
#if MUTANT == 14
#define capacity places
#else
#define capacity ( low < mine -> mine - former : places )
#endif
#define room ( capacity - ( head - low ) )
#define fillsFree ( head - tail[ fileOf( g ) ] < ( tail[ fileOf( g ) ] < mine -> mine - former : places ) )

inline beginRound() {
#if MUTANT == 12
    store( round[ fileOf( g ) ] = head );
    store( before[ fileOf( g ) ] = mine; former = mine; mine = head )
#elif MUTANT == 13
    store( former = mine; mine = head )
#elif MUTANT == 8
    store( round[ fileOf( g ) ] = head; former = mine; mine = head )
#else
    store( before[ fileOf( g ) ] = mine; former = mine );
    store( round[ fileOf( g ) ] = head; mine = head )
#endif
}

inline makePlace() {
    if
    :: head - mine == places -> beginRound()
    :: else
    fi
}

inline freeRun() {
    count = ( low < mine -> mine : head ) - low;
    count = ( count > RUN -> RUN : count );
    count = ( count > room -> room : count );
    i = 0;
    moved = false;
    do
    :: i < count ->
        if
        :: MUTANT != 3 && !tombed( entries[ wordAt( g, placeOf( low + i ) ) ] ) ->
            makePlace();
            store( alsoAssert( fillsFree );
                   entries[ wordAt( g, placeOf( head ) ) ] =
                       entries[ wordAt( g, placeOf( low + i ) ) ];
                   place[ slotOf( entries[ wordAt( g, placeOf( head ) ) ] ) ] = placeOf( head );
                   head++ );
            moved = true
        :: else
        fi;
        i++
    :: else -> break
    od;
    if
    :: moved ->
        store( markSequence[ fileOf( g ) ] = sequence; markHead[ fileOf( g ) ] = head )
    :: else
    fi;
#if MUTANT == 4
    low = low + count;
#else
    store( low = low + count; tail[ fileOf( g ) ] = low );
#endif
    atomic { count = 0; i = 0; moved = false }
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
    store( alsoAssert( fillsFree );
           entries[ wordAt( g, placeOf( head ) ) ] = live( slot, sequence + 1 ) )
}

inline bury() {
    if
    :: place[ slot ] != NONE ->
        store( entries[ wordAt( g, place[ slot ] ) ] = tombstone( slot, sequence + 1 ) )
    :: else
    fi
}

/* Another generation from the slots alone, in the order of their last changes. */
inline rebuild() {
    d_step {
        g = generation + 1;
        head = 1;
        low = 1;
        mine = 1;
        former = 1;
        places = PLACES;
        place[ 0 ] = NONE;
        place[ 1 ] = NONE;
        sequence = ( version[ 0 ] > version[ 1 ] -> version[ 0 ] : version[ 1 ] );
        slot = ( version[ 0 ] > version[ 1 ] ); /* the older one first */
        i = 0;
        do
        :: i < 2 ->
            if
            :: version[ slot ] != 0 ->
                entries[ wordAt( g, placeOf( head ) ) ] = live( slot, version[ slot ] );
                place[ slot ] = placeOf( head );
                head++
            :: else
            fi;
            slot = 1 - slot;
            i++
        :: else -> break
        od;
        i = 0;
        count = 0;
        moved = false;
        slot = 0;
        tail[ fileOf( g ) ] = low;
        round[ fileOf( g ) ] = mine;
        before[ fileOf( g ) ] = former;
        sortedEnd[ fileOf( g ) ] = head;
        markSequence[ fileOf( g ) ] = sequence;
        markHead[ fileOf( g ) ] = head
    }
    generation = g
}

/* Each slot that was ever used has one live entry between tail and head. */
inline checkEntries() {
#if MUTANT == 0
    i = low;
    slot = 0;
    do
    :: i < head ->
        if
        :: !tombed( entries[ wordAt( g, placeOf( i ) ) ] ) ->
            slot = slot + 1 + 9 * slotOf( entries[ wordAt( g, placeOf( i ) ) ] )
        :: else
        fi;
        i++
    :: else -> break
    od;
    assert( slot == ( version[ 0 ] != 0 ) + 10 * ( version[ 1 ] != 0 ) );
#endif
    i = 0;
    slot = 0
}

active proctype writer() {
    byte g = 0;      /* its generation */
    byte head = FIRST; /* positions */
    byte low = FIRST;  /* the tail */
    byte mine = 1;   /* its round */
    byte former = 1; /* the one before */
    byte places = PLACES;
    byte place[ 2 ] = NONE; /* of the live entry of each slot */
    byte sequence = 0;
    byte slot = 0;
    byte count = 0;
    byte i = 0;
    bool moved = false;
    byte kills = KILLS;
    byte growths = GROWTHS;

again:
    do
    :: sequence < CHANGES ->
        if
        :: atomic { growths > 0 -> growths--; places++ }
        :: true
        fi;
        if
        :: slot = 0 /* the first one's name does not matter */
        :: sequence > 0 -> slot = 1
        fi;
        store( version[ slot ] = sequence + 1; changed[ sequence + 1 ] = slot );
        if
        :: room == RUN -> freeRun()
        :: true
        fi;
        do
        :: room < RUN -> freeRun()
        :: else -> break
        od;
        makePlace();
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
#if MUTANT == 13
        store( before[ fileOf( g ) ] = former );
        store( round[ fileOf( g ) ] = mine );
#endif
#if VARIANT != 1
        bury();
#endif
        d_step {
            place[ slot ] = placeOf( head );
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
    endTail = tail[ mapped ]
}

/* The start of that position's round, and where that ends as far as it is known; 0 when its round
 * is over. */
inline locate(first) {
#if MUTANT == 15
    start = before[ mapped ];
    atomic {
        roundEnd = round[ mapped ];
        if
        :: first >= roundEnd -> start = roundEnd; roundEnd = NONE
        :: first < roundEnd && first < start -> start = 0
        :: else
        fi
    }
#else
    atomic { start = round[ mapped ]; roundEnd = NONE }
    if
    :: first < start ->
        atomic {
            roundEnd = start;
            start = before[ mapped ];
            if
            :: first < start -> assert( tail[ mapped ] > first ); start = 0
            :: else
            fi
        }
    :: else
    fi
#endif
}

#define readerPlace(position) wordAt( mine, ( position ) - start )

/* Loads the entries first to last - 1, at most a batch; `sound` when they are what they seem. */
inline read(first, last) {
    size = 0;
    locate( first );
    do
    :: atomic {
        start != 0 && size < BATCH && first + size < last && first + size < roundEnd ->
        assert( first + size - start < MOST );
        batch[ size ] = entries[ readerPlace( first + size ) % ( FILES * MOST ) ];
        size++
    }
    :: else -> break
    od;
#if MUTANT == 1
    sound = start != 0;
#else
    sound = start != 0 && tail[ mapped ] <= first;
#endif
    atomic { start = 0; roundEnd = 0 }
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
    lastTold[ 0 ] = false;
    lastTold[ 1 ] = false;
    reported[ 0 ] = false;
    reported[ 1 ] = false
}

/* The slots of the last entries; `sound` when they are valid, or the place is lost anyway. */
inline loadLastSlots() {
    lastCount = ( position < endTail -> 0 : doubled );
    lastCount = ( end - position < lastCount -> end - position : lastCount );
    sound = true;
#if MUTANT == 11 || VARIANT == 3
    if
    :: end != position && position >= endTail ->
        locate( end - 1 );
        if
        :: start != 0 -> lastSlots[ 0 ] = slotOf( entries[ readerPlace( end - 1 ) ] )
        :: else -> sound = false
        fi
    :: else
    fi;
#endif
    do
    :: i < lastCount && sound ->
        locate( end - 1 - i );
        if
        :: start != 0 -> atomic {
            lastSlots[ i ] = slotOf( entries[ readerPlace( end - 1 - i ) % ( FILES * MOST ) ] );
            i++
        }
        :: else -> sound = false
        fi
    :: else -> break
    od;
    atomic { start = 0; roundEnd = 0; i = 0; endTail = 0 }
}

/* Of the last entries, those of a slot that was told of. */
inline isTold(which) {
    atomic {
        lastTold[ 0 ] = lastTold[ 0 ] || ( lastCount > 0 && lastSlots[ 0 ] == which );
        lastTold[ 1 ] = lastTold[ 1 ] || ( lastCount > 1 && lastSlots[ 1 ] == which )
    }
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
        :: locate( at );
            if
            :: start == 0 -> break
            :: else
            fi;
            atomic { entry = entries[ readerPlace( at ) % ( FILES * MOST ) ]; at++ };
            if
            :: tombed( entry ) && at < high
            :: else -> break
            fi
        od;
        if
        :: start == 0 || tail[ mapped ] > from -> break
        :: else
        fi;
        if
        :: tombed( entry ) || version[ slotOf( entry ) ] > known -> high = middle
        :: else -> low = at
        fi
    :: else -> from = low; break
    od;
    atomic { low = 0; high = 0; middle = 0; at = 0; entry = 0; start = 0; roundEnd = 0 }
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
    :: end - 1 - position < lastCount && lastTold[ end - 1 - position ]
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
    :: mine != generation ->
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
    byte endTail = 0; /* the tail after that mark was loaded */
    byte start = 0, roundEnd = 0;
    byte lastSlots[ RUN ]; /* of the entries before the end, from there backwards */
    byte lastCount = 0;
    byte found[ 2 ];
    byte batch[ BATCH ];
    byte size, i, from, low, high, middle, at, entry, now, told;
    bool placed, draining, sound, news;
    bool lastTold[ RUN ]; /* the slots of the entries before the end that were reported */
    bool reported[ 2 ];
    bool thrownBack; /* in the middle of a drain: what it told first may not be the oldest */

again:
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
        :: !sound && mine != generation -> goto again
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
        alsoAssert( end >= position && endSequence >= known );
        loadLastSlots();
        if
        :: !sound -> goto again
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
        :: news -> goto again
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
            goto again
        :: else
        fi;
        do
        :: i < size ->
            atomic { entry = batch[ i ]; judge() }
            if
            :: news -> report( slotOf( entry ) ); isTold( slotOf( entry ) )
            :: else
            fi;
            atomic { i++; position++; knownIs( told ) }
            if
            :: news -> goto again
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
        batch[ 0 ] = 0; batch[ 1 ] = 0; end = 0; endSequence = 0; endTail = 0;
        lastSlots[ 0 ] = 0; lastSlots[ 1 ] = 0; lastCount = 0; lastTold[ 0 ] = false;
        lastTold[ 1 ] = false
    }
    if
    :: pending -> goto again
    :: atomic {
        stopped && !pending ->
        assert( mirror[ 0 ] == version[ 0 ] && mirror[ 1 ] == version[ 1 ] )
    }
    fi
}
