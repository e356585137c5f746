/* A slot and the lookaside record: a writer that updates one of two slots and may be killed at any
 * store, next writers that recover (and may be killed while they do) and go on, and a reader
 * that copies the value of one slot again and again. See Krell/Slot, ReaderTable, WriterTable and
 * Recovery.
 *
 * Claim: a value that the reader gets is whole, is the last one that was complete when it began or
 * a newer one, and is not older than one it got before. It starts over only if a writer made a step
 * since, so a writer that stops keeps it from nothing. It never takes a sound record for a corrupt
 * one.
 *
 * A value is two words, and each names the change that wrote it, and its slot. The reader follows
 * slot 0; changes of slot 1 go through the same record.
 *
 * Memory: writers load nothing that somebody else stores meanwhile, the reader stores nothing. So
 * stores with release in program order, loads with acquire in program order, and a statement for
 * each shared word are all that matters.
 *
 * Run                    Must    What it is
 *   CHANGES=3 KILLS=1    hold    the protocol
 *   CHANGES=2 KILLS=2    hold    the next writer is killed while it recovers
 *   MUTANT=1             fail    the slot is not marked before its payload is written
 *   MUTANT=2             fail    the record is written after the slot is marked
 *   MUTANT=3             fail    recovery drops a record that is whole
 *   MUTANT=4             fail    the reader does not look at the version again after the payload
 *   MUTANT=5             fail    the record is used again before the slot has its new version
 *   MUTANT=6             fail    the reader does not look at the version again after the record
 *   MUTANT=7             fail    recovery makes the change without marking the slot
 *   MUTANT=8             fail    recovery makes the change of a record that is half written
 *   MUTANT=9             fail    the record names its slot before it says that it is being written
 */

#ifndef MUTANT
#define MUTANT 0
#endif

#ifndef CHANGES
#define CHANGES 3
#endif
#ifndef KILLS
#define KILLS 1
#endif

#define settled(sequence) ( ( sequence ) * 4 )
#define dead(sequence) ( ( sequence ) * 4 + 2 )
#define whileWriting(v) ( ( v ) - ( v ) % 2 + 1 )
#define writing(v) ( ( v ) % 2 == 1 )
#define isWhole(v) ( ( v ) % 4 == 0 )
#define sequenceOf(v) ( ( v ) / 4 )
#define NO_SLOT 2
#define value( sequence, slot ) ( ( sequence ) * 2 + ( slot ) )

/* Shared. */
byte version[ 2 ];
byte first[ 2 ];
byte second[ 2 ];
byte recordVersion = 0; /* of the slot once the change is made; and whether it is being written */
byte recordSlot = NO_SLOT;
byte recordFirst = 0;
byte recordSecond = 0;

/* What the claims need. */
byte complete = 0;       /* the last change of slot 0 that was made */
bool progress = false;   /* a writer made a step since the reader looked */

#define store(what)                                                                          \
    if                                                                                         \
    :: atomic { what; progress = true }                                                        \
    :: atomic { kills > 0 -> kills--; goto killed }                                            \
    fi

inline beginRecord() {
#if MUTANT == 9
    store( recordSlot = slot );
    store( recordVersion = whileWriting( settled( sequence + 1 ) ) )
#else
    store( recordVersion = whileWriting( settled( sequence + 1 ) ) );
    store( recordSlot = slot )
#endif
}

inline fillRecord() {
    store( recordFirst = value( sequence + 1, slot ) );
    store( recordSecond = value( sequence + 1, slot ) );
    store( recordVersion = settled( sequence + 1 ) )
}

inline writeRecord() {
    beginRecord();
    fillRecord()
}

inline markSlot(which) {
    store( version[ which ] = whileWriting( version[ which ] ) )
}

inline storeVersion(which, to) {
    store( version[ which ] = to;
           if
           :: which == 0 -> complete = sequenceOf( to )
           :: else
           fi )
}

inline update() {
#if MUTANT == 5
    if
    :: writing( recordVersion ) -> store( recordSlot = slot ); fillRecord()
    :: else -> writeRecord() /* else the last change began with it */
    fi;
    markSlot( slot );
#elif MUTANT == 2
    markSlot( slot );
    writeRecord();
#elif MUTANT == 1
    writeRecord();
#else
    writeRecord();
    markSlot( slot );
#endif
    store( first[ slot ] = value( sequence + 1, slot ) );
    store( second[ slot ] = value( sequence + 1, slot ) );
#if MUTANT == 5
    store( recordVersion = whileWriting( settled( sequence + 2 ) ) );
#endif
    storeVersion( slot, settled( sequence + 1 ) );
    atomic { sequence++; slot = 0 }
}

/* Makes the change of a record that is whole and newer than its slot; drops half a record. */
inline recover() {
    if
    :: writing( recordVersion ) && MUTANT != 8 ->
        store( recordSlot = NO_SLOT );
        store( recordVersion = dead( sequenceOf( recordVersion ) ) )
    :: else ->
        if
        :: recordSlot != NO_SLOT &&
           sequenceOf( version[ recordSlot ] ) < sequenceOf( recordVersion ) ->
#if MUTANT == 3
            store( version[ recordSlot ] = version[ recordSlot ] - version[ recordSlot ] % 2 )
#else
#if MUTANT != 7
            markSlot( recordSlot );
#endif
            store( first[ recordSlot ] = recordFirst );
            store( second[ recordSlot ] = recordSecond );
            storeVersion( recordSlot, settled( sequenceOf( recordVersion ) ) )
#endif
        :: else
        fi
    fi;
    d_step {
        sequence = sequenceOf( version[ 0 ] );
        if
        :: sequenceOf( version[ 1 ] ) > sequence -> sequence = sequenceOf( version[ 1 ] )
        :: else
        fi;
        slot = 0
    }
}

active proctype writer() {
    byte sequence = 0;
    byte slot = 0;
    byte kills = KILLS;

again:
    do
    :: sequence < CHANGES ->
        if
        :: slot = 0
        :: slot = 1
        fi;
        update()
    :: else -> break
    od;
    goto finished;
killed:
    recover();
    goto again;
finished:
    skip
}

/* Starts over, which only a writer at work may cause. */
inline startOver() {
    atomic { assert( progress ); goto look }
}

inline got(one, other) {
    atomic {
        assert( one == other && one % 2 == 0 );
        assert( one / 2 >= before && one / 2 >= last );
        last = one / 2
    }
}

active proctype reader() {
    byte seen, one, other, record, slotOfRecord, before;
    byte last = 0;
    bool stable;

end:
    do
    :: before = complete;
look:
        atomic { seen = version[ 0 ]; progress = false }
        if
        :: !writing( seen ) ->
            one = first[ 0 ];
            other = second[ 0 ];
#if MUTANT != 4
            if
            :: version[ 0 ] != seen -> startOver()
            :: else
            fi;
#endif
            got( one, other )
        :: else ->
            record = recordVersion;
            slotOfRecord = recordSlot;
            one = recordFirst;
            other = recordSecond;
            stable = isWhole( record ) && recordVersion == record;
#if MUTANT != 6
            if
            :: version[ 0 ] != seen -> startOver()
            :: else
            fi;
#endif
            assert( stable && slotOfRecord == 0 && sequenceOf( record ) > sequenceOf( seen ) );
            got( one, other )
        fi;
        atomic { seen = 0; one = 0; other = 0; record = 0; slotOfRecord = 0;
                 stable = false }
    od
}
