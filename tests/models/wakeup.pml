/* Falling asleep and waking up: one writer, one reader that connects, looks at the queue, and
 * sleeps when it found nothing new. See Krell/DoorbellPage, Doorbell and DoorbellCaller.
 *
 * Claim: a reader that sleeps while nothing is on its way to it has seen the writer's last change.
 *
 * Memory: each process has a store buffer, which another process empties one store at a time, as
 * late as it likes: that is what the processor does to a store that is followed by a load. The
 * head only grows, so the writer's buffer is the difference between two numbers. A system call (a
 * message, falling asleep) empties the buffer, as a fence does: so no mutant is saved or lost by it
 * but through the order of its own loads and stores.
 *
 * The sleeper sees to the writer's fence (DoorbellFence): in the middle of its call the writer's
 * buffer is emptied, at whatever place the writer is. With BYWRITER the writer executes it itself,
 * for each change, from its welcome on. Before that it has no fence: nobody is admitted.
 *
 * Run                      Must    What it is
 *   MUTANT=0               hold    the protocol, the sleeper sees to the writer's fence
 *   MUTANT=0 BYWRITER=1    hold    each has a fence of its own
 *   MUTANT=1               fail    no fence between the reader's armed flag and its last look
 *   MUTANT=1 BYWRITER=1    fail    likewise
 *   MUTANT=2 BYWRITER=1    fail    no fence between the writer's head and its look at the flag
 *   MUTANT=3               fail    armed after the last look
 *   MUTANT=3 BYWRITER=1    fail    likewise
 *   MUTANT=4               fail    messages are received after the last look
 *   MUTANT=5               fail    each sleep draws the same ticket
 *   MUTANT=6               fail    no look at the queue when the writer has accepted the connection
 *   MUTANT=7               fail    the writer looks at the flag before it stores the head
 *   MUTANT=7 BYWRITER=1    fail    likewise
 *   MUTANT=8               fail    the sleeper has a fence for itself only
 *   MUTANT=9               fail    the fence for both comes before the ticket is drawn
 *   MUTANT=10              fail    the writer is not enlisted: the sleeper's fence passes it by
 *   MUTANT=11              fail    the fence for both comes after the last look
 */

#ifndef MUTANT
#define MUTANT 0
#endif
#ifndef BYWRITER
#define BYWRITER 0
#endif

#define CHANGES 4
#define AWAKE 0

byte head = 0;     /* in memory */
byte written = 0;  /* what the writer stored; its buffer has the rest */
byte armed = AWAKE;
byte messages = 0; /* on the connection to the reader */
bool finished = false;

chan buffer = [ 3 ] of { byte }; /* the reader's stores to the flag */

active proctype memory() {
end:
    do
    :: atomic { head < written -> head++ }
    :: atomic { nempty( buffer ) -> buffer ? armed }
    od
}

/* The sleeper's, between its ticket and its last look. */
inline readersFence() {
#if MUTANT == 1
    skip;
#else
    empty( buffer );
#if !BYWRITER && MUTANT != 8 && MUTANT != 9 && MUTANT != 10 && MUTANT != 11
    head = written; /* the writer's buffer is emptied; what it stores next is not in it yet */
#endif
#endif
}

inline ring() {
    ticket = armed;
    if
    :: admitted && ticket != AWAKE && ticket != kickedFor ->
        kickedFor = ticket;
        head == written; /* a system call */
        messages++
    :: else
    fi
}

active proctype writer() {
    byte kickedFor = AWAKE;
    byte ticket;
    bool admitted = false;

    do
    :: !admitted ->
        admitted = true;
        head == written;
        messages++ /* the welcome */
    :: written < CHANGES ->
#if MUTANT == 7
        ring();
        written++
#else
        written++;
#if BYWRITER && MUTANT != 2
        if
        :: admitted -> head == written /* the full fence */
        :: else
        fi;
#endif
        ring()
#endif
    :: admitted && written == CHANGES -> break
    od;
    head == written;
    finished = true
}

active proctype reader() {
    byte seen = 0;
    byte now;
    byte ticket = AWAKE;
    bool connected = false;

#if MUTANT == 6
    ticket++;
    buffer ! ticket;
    empty( buffer );
    seen = head;
#endif

    do
    :: empty( buffer ); /* falling asleep */
        if
        :: messages > 0
        :: atomic {
            messages == 0 && finished && connected ->
            assert( seen == CHANGES );
            break
        }
        fi;
#if MUTANT != 4
        messages = 0;
#endif
#if MUTANT == 6
        if
        :: !connected -> connected = true; goto asleep
        :: else
        fi;
#else
        connected = true;
#endif
        buffer ! AWAKE;
again:
        seen = head;
#if MUTANT == 3
        now = head;
        if
        :: now != seen -> goto again
        :: else
        fi;
        ticket++;
        buffer ! ticket;
        readersFence();
#else
#if MUTANT == 9
        empty( buffer );
        head = written;
#endif
#if MUTANT == 5
        ticket = 1;
#else
        ticket++;
#endif
        buffer ! ticket;
        readersFence();
        now = head;
        if
        :: now != seen -> buffer ! AWAKE; goto again
        :: else
        fi;
#endif
#if MUTANT == 11
        head = written;
#endif
#if MUTANT == 4
        messages = 0;
#endif
asleep:
        skip
    od
}
