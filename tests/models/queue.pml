/* The change queue: one writer that fills it in rounds, moves live entries out of the tail's way a
 * run at a time, makes its file longer and may be killed at any store, upon which another one makes
 * the next generation; one reader that follows it, may be lapped, and may stop after each report.
 * See Krell/Queue, QueueWriter and QueueReader.
 *
 * Claim: once the writer has stopped and nothing is pending for the reader, what the reader read
 * last of each slot is what the slot has. The right model claims more: that a change which a reader
 * passed over has a newer one after it; that what it knows never goes back; that a drain tells all
 * changes up to its end, and of a slot once; that a slot names its one live entry; that no valid
 * place is filled anew.
 *
 * Memory: the reader stores nothing shared, and the writer loads nothing that another stores. So a
 * store buffer shows as a slower writer only, and acquire and release as the order of statements:
 * each shared word is a statement of its own, in program order. A slot is its version and the
 * position that it names, for Krell/Slot makes a change of it one instant.
 *
 * Run                                   Must  What it is
 *   CHANGES=5                           hold  the protocol, lapping its reader
 *   SLOTS=3 CHANGES=4 KILLS=1           hold  the writer is killed at any store
 *   CHANGES=2 KILLS=2                   hold  so is the next one
 *   CHANGES=4 GROWTHS=1                 hold  the file grows in any part of a round
 *   CHANGES=3 GROWTHS=1 KILLS=1         hold  both, in any order
 *   VARIANT=1 CHANGES=3 KILLS=1         hold  a reader loads a slot's version before its position
 *   VARIANT=2 CHANGES=3 KILLS=1         hold  no look at the generation after a batch
 *   VARIANT=3 CHANGES=3 KILLS=1         hold  a copy that its slot does not name yet is passed over
 *                                             like an entry that was overtaken
 *   VARIANT=4 CHANGES=3 KILLS=1         hold  a slot's position is stored before the entry
 *   VARIANT=5 CHANGES=3 KILLS=1         hold  no look at the tail in the binary search
 *   VARIANT=6 CHANGES=3 KILLS=1         hold  the binary search takes entries that are not live,
 *                                             too
 *   VARIANT=7 CHANGES=3 KILLS=1         hold  a place is kept in another generation, whose tail is
 *                                             past it
 *   VARIANT=8 CHANGES=2 KILLS=2         hold  a generation is published before its positions are in
 *                                             the slots
 *   VARIANT=9 CHANGES=3 KILLS=1         hold  the tail goes on before moved entries are marked
 *   VARIANT=10 CHANGES=3 KILLS=1        hold  the tail passes live entries, which are not moved;
 *                                             readers need none of them
 *   MUTANT=1 SLOTS=3 CHANGES=4          fail  the tail is not looked at after a batch
 *   MUTANT=2 SLOTS=3 CHANGES=4          fail  it is, before the positions of the slots
 *   MUTANT=3 CHANGES=4                  fail  the mark is stored before the entry
 *   MUTANT=4 SLOTS=3 CHANGES=4          fail  the mark is stored before the slot's position
 *   MUTANT=5 CHANGES=4                  fail  the tail passes a live entry, which is not moved
 *   MUTANT=6 CHANGES=4                  fail  the tail is stored after its place was filled anew
 *   MUTANT=7 SLOTS=3 CHANGES=4          fail  positions of moved entries are stored before the tail
 *   MUTANT=8 CHANGES=4                  fail  which entry is overtaken is noted before room is made
 *   MUTANT=9 CHANGES=4                  fail  the position becomes a head loaded after the drain
 *   MUTANT=10 CHANGES=4                 fail  head and sequence are two words
 *   MUTANT=11 CHANGES=4                 fail  the round before is not stored
 *   MUTANT=12 CHANGES=4                 fail  a round is stored before the one before it
 *   MUTANT=13 CHANGES=4                 fail  a round is stored after its first entry
 *   MUTANT=14 CHANGES=5 GROWTHS=1       fail  new places count as room while the tail is in the
 *                                             round before
 *   MUTANT=15 CHANGES=4                 fail  a reader loads the round before first
 *   MUTANT=16 SLOTS=3 CHANGES=6 PLACES=8 KILLS=1 fail  positions begin anew in another generation
 *   MUTANT=17 SLOTS=3 CHANGES=4 KILLS=1 fail  they begin behind those that slots name, but not
 *                                             behind those of entries that were moved last
 *   MUTANT=18 CHANGES=3 KILLS=1         fail  a place in the sorted beginning is taken though
 *                                             something unknown was moved away from it
 *   MUTANT=19 CHANGES=4                 fail  what is found in the slots is taken to tell more than
 *                                             the drain's end
 *   MUTANT=20 CHANGES=4 PLACES=6 KILLS=1 fail  an entry that its slot does not name tells all up
 *                                             to the slot's change
 *   MUTANT=21 CHANGES=3 KILLS=1         fail  an entry tells more than the drain's end
 *   MUTANT=22 CHANGES=4                 fail  what is known is reported
 *   MUTANT=23 CHANGES=4                 fail  an entry is passed over for one behind the end
 *   MUTANT=24 CHANGES=4                 fail  slots that were told of are not remembered
 *   MUTANT=25 CHANGES=4                 fail  they are, but for those near the tail that name their
 *                                             entry
 *   MUTANT=26 CHANGES=5 PLACES=6        fail  only those near the tail are
 *   MUTANT=27 CHANGES=4                 fail  only entries that are remembered ask whether their
 *                                             slot was told of
 *
 * Mutants 5 and 8 break the order of the queue itself, 6 and 14 fill a valid place as well. 23
 * keeps a change from being told in its drain, 24 to 27 tell of a slot twice in one. The others
 * lose an update, or are about to.
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
#ifndef SLOTS
#define SLOTS 2
#endif
#ifndef PLACES
#define PLACES ( SLOTS + RUN ) /* at first */
#endif

#define MOST ( PLACES + GROWTHS )
#define RUN 2
#define BATCH 2
#define GENERATIONS ( 1 + KILLS )
#define FAR 255
#define FIRST 4 /* position, near the end of the first round */

#if MUTANT == 5 || VARIANT == 10
#define MOVES false
#else
#define MOVES true
#endif

/* The first position of a generation, when `last` is the newest one that a slot names. */
#if MUTANT == 16
#define behind( last ) FIRST
#elif MUTANT == 17
#define behind( last ) ( ( last ) + RUN )
#else
#define behind( last ) ( ( last ) + RUN + 1 )
#endif

#if MUTANT == 0 || MUTANT == 14 || MUTANT == 19 || MUTANT == 22
#define alsoAssert(x) assert( x )
#else
#define alsoAssert(x) skip
#endif

#if MUTANT == 0 || MUTANT >= 23
#define EACH_ONCE 1
#endif

#define wordAt(generation, place) ( ( generation ) * MOST + ( place ) )

/* Shared. Head and sequence of a mark are stored and loaded together. */
byte version[ SLOTS ];
byte newestAt[ SLOTS ]; /* the position that a slot names; 0: it has no entry */
byte entries[ GENERATIONS * MOST ];
byte markSequence[ GENERATIONS ];
byte markHead[ GENERATIONS ] = FIRST; /* a position */
byte tail[ GENERATIONS ] = FIRST;     /* likewise, and the next four */
byte round[ GENERATIONS ] = 1;
byte before[ GENERATIONS ] = 1;
byte firstPosition[ GENERATIONS ] = FIRST;
byte sortedEnd[ GENERATIONS ] = FIRST;
byte generation = 0;

/* What the claims need. */
byte changed[ CHANGES + 1 ]; /* the slot of each change */
byte mirror[ SLOTS ];
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
#define fillsFree ( head - tail[ g ] < ( tail[ g ] < mine -> mine - former : places ) )
#define noted(position) overtaken[ ( position ) % MOST ]

inline beginRound() {
#if MUTANT == 12
    store( round[ g ] = head );
    store( before[ g ] = mine; former = mine; mine = head )
#elif MUTANT == 13
    store( former = mine; mine = head )
#elif MUTANT == 11
    store( round[ g ] = head; former = mine; mine = head )
#else
    store( before[ g ] = mine; former = mine );
    store( round[ g ] = head; mine = head )
#endif
}

inline makePlace() {
    if
    :: head - mine == places -> beginRound()
    :: else
    fi
}

inline forgetRun() {
    d_step {
        i = 0;
        do
        :: i < SLOTS + RUN -> which[ i ] = 0; i++
        :: else -> break
        od;
        i = 0;
        count = 0;
        moved = 0
    }
}

inline namePositions() {
    do
    :: i < moved ->
        store( newestAt[ which[ i ] ] = head - moved + i; i++ )
    :: else -> break
    od
}

inline storeTail() {
#if MUTANT == 6
    low = low + count
#else
    store( low = low + count; tail[ g ] = low )
#endif
}

inline freeRun() {
    atomic {
        count = ( low < mine -> mine : head ) - low;
        count = ( count > RUN -> RUN : count );
        count = ( count > room -> room : count );
        i = 0;
        moved = 0
    }
    do
    :: i < count ->
        if
        :: MOVES && !noted( low + i ) ->
            makePlace();
            store( alsoAssert( fillsFree );
                   which[ moved ] = entries[ wordAt( g, placeOf( low + i ) ) ];
                   entries[ wordAt( g, placeOf( head ) ) ] = which[ moved ];
                   moved++;
                   head++;
                   i++ )
        :: else -> i++
        fi
    :: else -> break
    od;
    i = 0;
    atomic {
        do
        :: i < count -> noted( low + i ) = false; i++
        :: else -> break
        od;
        i = 0
    }
#if VARIANT == 9
    storeTail();
#endif
    if
    :: moved > 0 ->
        store( markSequence[ g ] = sequence; markHead[ g ] = head )
    :: else
    fi;
#if MUTANT == 7
    namePositions();
    storeTail();
#elif VARIANT == 9
    namePositions();
#else
    storeTail();
    namePositions();
#endif
    forgetRun()
}

inline storeMark() {
#if MUTANT == 10
    store( markHead[ g ] = head + 1 );
    store( markSequence[ g ] = sequence + 1 )
#else
    store( markSequence[ g ] = sequence + 1; markHead[ g ] = head + 1 )
#endif
}

inline storeEntry() {
    store( alsoAssert( fillsFree );
           entries[ wordAt( g, placeOf( head ) ) ] = slot )
}

inline storePosition() {
    store( newestAt[ slot ] = head )
}

/* Another generation from the slots alone, in the order of their last changes. */
inline rebuild() {
    d_step {
        g = generation + 1;
        head = FIRST - 1;
        sequence = 0;
        i = 0;
        do
        :: i < SLOTS ->
            head = ( newestAt[ i ] > head -> newestAt[ i ] : head );
            sequence = ( version[ i ] > sequence -> version[ i ] : sequence );
            i++
        :: else -> break
        od;
        head = behind( head );
        low = head;
        mine = head;
        former = head;
        places = PLACES;
        tail[ g ] = low;
        round[ g ] = mine;
        before[ g ] = former;
        firstPosition[ g ] = low;
        i = 0;
        do
        :: i < MOST -> overtaken[ i ] = false; i++
        :: else -> break
        od;
        moved = 0;
        i = 1;
        do
        :: i <= sequence ->
            slot = changed[ i ];
            if
            :: version[ slot ] == i ->
                entries[ wordAt( g, placeOf( head ) ) ] = slot;
                which[ moved ] = slot;
                moved++;
                head++
            :: else
            fi;
            i++
        :: else -> break
        od;
        count = 0;
        was = 0;
        sortedEnd[ g ] = head;
        markSequence[ g ] = sequence;
        markHead[ g ] = head;
        slot = 0;
        i = 0
    }
#if VARIANT == 8
    store( generation = g );
    namePositions();
#else
    namePositions();
    store( generation = g );
#endif
    forgetRun()
}

/* Each slot that was ever used has one live entry between tail and head. */
inline checkEntries() {
#if ( MUTANT == 0 || MUTANT == 5 || MUTANT == 8 ) && VARIANT != 10
    i = low;
    count = 0;
    do
    :: i < head ->
        if
        :: !noted( i ) ->
            assert( newestAt[ entries[ wordAt( g, placeOf( i ) ) ] ] == i );
            count++
        :: else -> assert( newestAt[ entries[ wordAt( g, placeOf( i ) ) ] ] != i )
        fi;
        i++
    :: else -> break
    od;
    i = 0;
    do
    :: i < SLOTS -> count = count - ( version[ i ] != 0 ); i++
    :: else -> break
    od;
    assert( count == 0 );
#endif
    i = 0;
    count = 0
}

active proctype writer() {
    byte g = 0;      /* its generation */
    byte head = FIRST; /* positions */
    byte low = FIRST;  /* the tail */
    byte mine = 1;   /* its round */
    byte former = 1; /* the one before */
    byte places = PLACES;
    bool overtaken[ MOST ]; /* of the entries that can be valid */
    byte which[ SLOTS + RUN ]; /* whose entries are moved, or made anew */
    byte moved = 0;
    byte sequence = 0;
    byte slot = 0;
    byte count = 0;
    byte i = 0;
    byte was = 0;
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
#if SLOTS > 2
        :: version[ 1 ] > 0 -> slot = 2
#endif
        :: version[ 0 ] > 0 -> slot = 1 /* which of the unused ones does not matter */
        :: slot = 0
        fi;
        store( version[ slot ] = sequence + 1; changed[ sequence + 1 ] = slot );
#if MUTANT == 8
        was = newestAt[ slot ];
#endif
        if
        :: room == RUN -> freeRun()
        :: true
        fi;
        do
        :: room < RUN -> freeRun()
        :: else -> break
        od;
        makePlace();
#if MUTANT != 8
        was = newestAt[ slot ];
#endif
#if MUTANT == 3
        storeMark();
        storeEntry();
        storePosition();
#elif MUTANT == 4
        storeEntry();
        storeMark();
        storePosition();
#elif VARIANT == 4
        storePosition();
        storeEntry();
        storeMark();
#else
        storeEntry();
        storePosition();
        storeMark();
#endif
#if MUTANT == 6
        store( tail[ g ] = low );
#endif
#if MUTANT == 13
        store( before[ g ] = former );
        store( round[ g ] = mine );
#endif
        d_step {
            if
            :: was != 0 -> noted( was ) = true
            :: else
            fi;
            was = 0;
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

#define pending                                                                                \
    ( mine != generation || !placed || draining || markHead[ mine ] != position ||           \
      markSequence[ mine ] != known )

/* ( S, H ) */
inline loadMark() {
#if MUTANT == 10
    end = markHead[ mine ];
    endSequence = markSequence[ mine ];
#else
    atomic {
        end = markHead[ mine ];
        endSequence = markSequence[ mine ]
    }
#endif
    endTail = tail[ mine ]
}

/* The start of that position's round, and where that ends as far as it is known; 0 when its round
 * is over. */
inline locate(first) {
#if MUTANT == 15
    start = before[ mine ];
    atomic {
        roundEnd = round[ mine ];
        if
        :: first >= roundEnd -> start = roundEnd; roundEnd = FAR
        :: first < roundEnd && first < start -> start = 0
        :: else
        fi
    }
#else
    atomic { start = round[ mine ]; roundEnd = FAR }
    if
    :: first < start ->
        atomic {
            roundEnd = start;
            start = before[ mine ];
            if
            :: first < start -> assert( tail[ mine ] > first ); start = 0
            :: else
            fi
        }
    :: else
    fi
#endif
}

#define readerPlace(position) ( wordAt( mine, ( position ) - start ) % ( GENERATIONS * MOST ) )

#define tailIsPast ( tail[ mine ] > position )

/* The entries from the position on, at most a batch, and what their slots tell; `sound` when they
 * are what they seem. */
inline read() {
    size = 0;
    locate( position );
    do
    :: atomic {
        start != 0 && size < BATCH && position + size < end && position + size < roundEnd ->
        assert( position + size - start < MOST );
        batch[ size ] = entries[ readerPlace( position + size ) ];
        size++
    }
    :: else -> break
    od;
    atomic { sound = start != 0; start = 0; roundEnd = 0; i = 0 }
#if MUTANT == 2
    sound = sound && !tailIsPast;
#endif
    do
    :: i < size ->
#if VARIANT == 1
        sequences[ i ] = version[ batch[ i ] ];
        newest[ i ] = newestAt[ batch[ i ] ];
#else
        newest[ i ] = newestAt[ batch[ i ] ];
        sequences[ i ] = version[ batch[ i ] ];
#endif
        i++
    :: else -> break
    od;
#if MUTANT != 1 && MUTANT != 2
    sound = sound && !tailIsPast;
#endif
#if VARIANT != 2
    sound = sound && generation == mine;
#endif
    i = 0
}

/* What a reader claims to know: a change that it was not told of has a newer one after it. */
inline knownIs(value) {
    d_step {
        alsoAssert( value >= known );
        known = value;
        k = 0;
        do
        :: k < SLOTS -> alsoAssert( version[ k ] > known || mirror[ k ] == version[ k ] ); k++
        :: else -> break
        od;
        k = 0
    }
}

/* Reads the slot, for the reader's user. */
inline report(slot) {
    atomic {
        mirror[ slot ] = version[ slot ];
#if EACH_ONCE
        assert( !reported[ slot ] );
#endif
        reported[ slot ] = true
    }
}

inline forgetBatch() {
    k = 0;
    do
    :: k < BATCH -> batch[ k ] = 0; newest[ k ] = 0; sequences[ k ] = 0; k++
    :: else -> break
    od;
    k = 0;
    i = 0;
    size = 0;
    news = false;
    sound = false
}

inline forgetFound() {
    k = 0;
    do
    :: k < SLOTS -> found[ k ] = 0; k++
    :: else -> break
    od;
    k = 0
}

/* The slot of those found that changed first; SLOTS: none is left. */
inline firstFound() {
    d_step {
        i = SLOTS;
        k = 0;
        do
        :: k < SLOTS ->
            if
            :: found[ k ] != 0 && ( i == SLOTS || found[ k ] < found[ i ] ) -> i = k
            :: else
            fi;
            k++
        :: else -> break
        od;
        k = 0
    }
}

inline forgetDrain() {
    k = 0;
    do
    :: k < SLOTS -> told[ k ] = false; reported[ k ] = false; k++
    :: else -> break
    od;
    k = 0;
    end = 0;
    endSequence = 0;
    endTail = 0;
    draining = false
}

/* The place in the order that the generation began with: all before it is known. 0: walk. */
inline endOfKnown() {
    atomic {
        from = endTail;
        low = from;
        high = ( sortedEnd[ mine ] < end -> sortedEnd[ mine ] : end );
        sound = true
    }
    do
    :: sound && low < high ->
        atomic {
            middle = low + ( high - low ) / 2;
            at = middle;
            live = false
        }
        do
        :: sound && !live && at < high ->
            locate( at );
            if
            :: start == 0 -> sound = false
            :: else ->
                atomic { entry = entries[ readerPlace( at ) ]; start = 0; roundEnd = 0 }
#if VARIANT == 6
                live = true;
#else
                live = newestAt[ entry ] == at;
#endif
                at++
            fi
        :: else -> break
        od;
        live = live && version[ entry ] <= known;
#if VARIANT != 5
        sound = sound && tail[ mine ] <= from;
#endif
        atomic {
            if
            :: live -> low = at
            :: else -> high = middle
            fi
        }
    :: else -> break
    od;
    atomic {
#if MUTANT == 18
        position = ( sound -> low : 0 );
#else
        position = ( sound && ( low > from || from == firstPosition[ mine ] ) -> low : 0 );
#endif
        from = 0; low = 0; high = 0; middle = 0; at = 0; entry = 0; start = 0; roundEnd = 0;
        live = false; sound = false
    }
}

/* All slots that changed since what is known. */
inline findNews() {
    do
    :: i < SLOTS -> atomic {
        now = version[ i ];
        found[ i ] = ( now > known -> now : 0 );
        now = 0;
        i++
    }
    :: else -> break
    od;
    atomic { position = end; i = 0 }
}

/* Whether an entry has a later one in this drain; whether its slot may be met again. */
#if MUTANT == 23
#define later ( newest[ i ] > position )
#elif VARIANT == 3
#define later ( newest[ i ] != position && newest[ i ] < end )
#else
#define later ( newest[ i ] > position && newest[ i ] < end )
#endif
#define nearTail ( position >= endTail && position - endTail < RUN )
#if MUTANT == 24
#define keeps false
#elif MUTANT == 25
#define keeps ( newest[ i ] != position )
#elif MUTANT == 26
#define keeps nearTail
#else
#define keeps ( newest[ i ] != position || nearTail )
#endif
#if MUTANT == 27
#define wasTold ( keeps && told[ batch[ i ] ] )
#else
#define wasTold told[ batch[ i ] ]
#endif
#if MUTANT == 22
#define unknown true
#else
#define unknown ( sequences[ i ] > known )
#endif
#if MUTANT == 20
#define tells ( sequences[ i ] <= endSequence )
#elif MUTANT == 21
#define tells ( newest[ i ] == position )
#else
#define tells ( newest[ i ] == position && sequences[ i ] <= endSequence )
#endif

/* Maps the present generation. */
inline attach() {
    if
    :: mine != generation ->
#if VARIANT == 7
        skip
#else
        placed = false;
        forgetDrain()
#endif
    :: else
    fi;
    mine = generation
}

#if MUTANT != 14 /* which the writer finds out by itself */
active
#endif
proctype reader() {
    byte mine = 0; /* the generation that it has mapped */
    byte position = 0;
    byte known = 0; /* the sequence up to which it reported everything */
    byte end = 0;
    byte endSequence = 0;
    byte endTail = 0; /* the tail after that mark was loaded */
    byte start = 0, roundEnd = 0;
    byte found[ SLOTS ];
    byte batch[ BATCH ];
    byte newest[ BATCH ];    /* positions that their slots name */
    byte sequences[ BATCH ]; /* of their slots */
    byte size, i, from, low, high, middle, at, now;
    byte entry, k;
    bool placed, draining, sound, news, live;
    bool told[ SLOTS ];
    bool reported[ SLOTS ];

again:
    atomic { attach() };
    if
    :: placed -> goto drain
    :: else
    fi;

    d_step { forgetFound() }
    loadMark();
    endOfKnown();
    if
    :: position == 0 -> findNews()
    :: else
    fi;
    atomic { placed = true; draining = true }

drain:
    if
    :: !draining ->
        loadMark();
        alsoAssert( end >= position && endSequence >= known );
        draining = true
    :: else
    fi;

    firstFound();
    do
    :: i < SLOTS ->
        report( i );
        atomic {
#if MUTANT == 19
            now = found[ i ];
#else
            now = ( found[ i ] < endSequence -> found[ i ] : endSequence );
#endif
            now = ( now > known -> now : known );
            knownIs( now );
            now = 0;
            found[ i ] = 0;
            i = 0
        }
        if
        :: goto again
        :: true
        fi;
        firstFound()
    :: else -> i = 0; break
    od;

    do
    :: position != end ->
        read();
        if
        :: !sound ->
            d_step { forgetBatch(); forgetDrain(); placed = false }
            goto again
        :: else
        fi;
        do
        :: i < size ->
            news = unknown && !later && !wasTold;
            if
            :: news -> report( batch[ i ] )
            :: else
            fi;
            atomic {
                now = ( news && tells -> sequences[ i ] : known );
                told[ batch[ i ] ] = told[ batch[ i ] ] || ( news && keeps );
                knownIs( now );
                now = 0;
                newest[ i ] = 0;
                sequences[ i ] = 0;
                batch[ i ] = 0;
                i++;
                position++
            }
            if
            :: news -> d_step { forgetBatch() }
                goto again
            :: news = false
            fi
        :: else -> break
        od
    :: else -> break
    od;

#if MUTANT == 9
    position = markHead[ mine ];
#endif
    atomic {
        knownIs( endSequence );
#if EACH_ONCE
        i = 1;
        do
        :: i <= known -> assert( mirror[ changed[ i ] ] >= i ); i++
        :: else -> break
        od;
#endif
        forgetBatch();
        forgetDrain()
    }
    if
    :: pending -> goto again
    :: atomic {
        stopped && !pending ->
        do
        :: k < SLOTS -> assert( mirror[ k ] == version[ k ] ); k++
        :: else -> break
        od
    }
    fi
}
