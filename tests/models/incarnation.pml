/* One incarnation after the other: writers that put new segments in the place of the old ones, take
 * them away, or take over what is there, each of which may be killed at any step; and a reader that
 * attaches. See Krell/Incarnation.
 *
 * Claim: whoever attaches has two segments of one incarnation, whose stamp was in the file when
 * both were mapped, or later. The file never has the stamp of one that was not complete, so nobody
 * leaves an old incarnation before there is a new one. A next writer takes over a pair only. A
 * corruption is reported only if there is one, which there never is here.
 *
 * A segment is the stamp in it: a file is renamed into place whole, and one that is mapped stays
 * what it was. Stamps do not repeat.
 *
 * Memory: names of files are the kernel's, which orders them.
 *
 * Files are taken away in the order of their names here, the stamp's first.
 *
 * Run          Must    What it is
 *   MUTANT=0   hold    the protocol
 *   MUTANT=1   fail    the stamp is renamed first
 *   MUTANT=2   fail    the stamps in the segments are not looked at
 *   MUTANT=3   fail    the stamp in the file is not looked at again
 *   MUTANT=4   fail    the next writer goes on with what is there without comparing stamps
 *   MUTANT=5   fail    the stamp is renamed between the two segments
 *   MUTANT=6   fail    segments of two incarnations are taken for corrupt ones
 */

#ifndef MUTANT
#define MUTANT 0
#endif

#define INCARNATIONS 4
#define KILLS 2

/* The names in the directory. */
byte slots = 1;
byte buckets = 1;
byte fenix = 1;

byte complete = 1; /* the last incarnation of which both segments had their names */

#define step(what)                                                                             \
    if                                                                                         \
    :: atomic { what }                                                                         \
    :: atomic { kills > 0 -> kills--; goto killed }                                            \
    fi

inline make() {
#if MUTANT == 1
    step( fenix = made + 1 );
#endif
    step( slots = made + 1 );
#if MUTANT == 5
    step( fenix = made + 1 );
#endif
    step( buckets = made + 1; complete = made + 1 );
#if MUTANT != 1 && MUTANT != 5
    step( fenix = made + 1 );
#endif
    made++
}

inline remove() {
    step( fenix = 0 );
    step( slots = 0 );
    step( buckets = 0 )
}

/* The next writer's choice: what is there, unless it is of no use, for whatever reason. */
inline open() {
    if
    :: fenix != 0 && ( ( fenix == slots && fenix == buckets ) || MUTANT == 4 ) ->
        assert( fenix == slots && fenix == buckets );
        if
        :: remove()
        :: true
        fi
    :: made < INCARNATIONS -> make()
    fi
}

active proctype writer() {
    byte made = 1; /* stamps that were used */
    byte kills = KILLS;

again:
    do
    :: made < INCARNATIONS -> open()
    :: break
    od;
    goto finished;
killed:
    made++; /* the stamp of a writer that was killed is not used again */
    goto again;
finished:
    skip
}

active proctype reader() {
    byte stamp, ofSlots, ofBuckets;
    bool current; /* the file had the stamp since the second segment was mapped */

end:
    do
    :: atomic { fenix != 0 -> stamp = fenix; assert( stamp <= complete ) }
        ofSlots = slots;
        atomic { ofBuckets = buckets; current = fenix == stamp }
#if MUTANT != 3
        if
        :: atomic { fenix != stamp -> goto again }
        :: atomic { fenix == stamp -> current = true }
        fi;
#endif
        if
        :: ofSlots == 0 || ofBuckets == 0 -> skip /* not there, or not complete: again later */
        :: MUTANT != 2 && ofSlots != ofBuckets && ofSlots != 0 && ofBuckets != 0 ->
            assert( MUTANT != 6 ) /* else it is not complete */
        :: MUTANT != 2 && ofSlots == ofBuckets && ofSlots != stamp -> skip /* likewise */
        :: ofSlots != 0 && ofBuckets != 0 &&
           ( MUTANT == 2 || ( ofSlots == ofBuckets && ofSlots == stamp ) ) ->
            assert( ofSlots == stamp && ofBuckets == stamp && current )
        fi;
again:
        atomic { stamp = 0; ofSlots = 0; ofBuckets = 0; current = false }
    od
}
