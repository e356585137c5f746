/* One writer: two objects of one process, a forked child of that process, another process, and
 * somebody who replaces or removes the lock file while nobody writes. See Krell/WriterLock.
 *
 * Claim: there are never two owners, and who is refused was refused for a process that lives.
 *
 * The kernel's part: a record lock belongs to a process and a file. It does not exclude that
 * process, goes when the process closes any descriptor of the file, and when the process ends; a
 * forked child does not have it. The registry's mutex makes what the two objects do one after the
 * other, as far as it stretches; what other processes do comes between any two system calls.
 *
 * Memory: system calls and a mutex order everything.
 *
 * Run          Must    What it is
 *   MUTANT=0   hold    the protocol
 *   MUTANT=1   fail    after locking, the file is not compared with the one that has the name
 *   MUTANT=2   fail    no registry: the second object asks the kernel only
 *   MUTANT=3   fail    a descriptor of a file that is locked already is closed at once
 *   MUTANT=4   fail    the copy of a held object in a forked child is held
 *   MUTANT=5   fail    a lock of the open file, which a forked child keeps
 *   MUTANT=6   fail    the owner removes the lock file before it unlocks
 */

#ifndef MUTANT
#define MUTANT 0
#endif

#define FILES 4 /* 0: there is none by the name */
#define NOBODY 0
#define A 1 /* process of the objects 0 and 1, and its child's former one */
#define B 2 /* process of object 2 */

#define REPLACEMENTS 2

/* The kernel's. */
byte named = 1;      /* the file that has the name */
byte created = 1;    /* files that there were so far */
byte holder[ FILES ]; /* the process whose lock is on a file */
bool alive[ 3 ] = true;
bool childKeeps = false;

/* Of each process: its registry's mutex, and the file that it has locked by the registry. */
bool mutex[ 3 ];
byte registered[ 3 ];

bool owner[ 4 ]; /* what each object believes, and the child's copy */
#define owners ( owner[ 0 ] + owner[ 1 ] + owner[ 2 ] + owner[ 3 ] )

inline becomesOwner(object) {
    owner[ object ] = true;
    assert( owners <= 1 )
}

/* A descriptor of the file is closed. */
inline closeFile(file) {
    if
    :: holder[ file ] == process -> holder[ file ] = NOBODY
    :: else
    fi
}

inline tryLock() {
    atomic { !mutex[ process ] -> mutex[ process ] = true }
again:
    file = named;
#if MUTANT != 2 && MUTANT != 3
    if
    :: file != 0 && registered[ process ] == file -> goto refused
    :: else
    fi;
#endif
    /* Opened, or created if it is still absent. */
    atomic {
        if
        :: file != 0 && named != 0 -> file = named
        :: file == 0 && named == 0 && created < FILES - 1 ->
            created++;
            file = created;
            named = file
        :: else -> goto again
        fi
    }
    if
    :: registered[ process ] == file ->
#if MUTANT == 3
        closeFile( file );
        goto refused
#elif MUTANT != 2
        goto again
#else
        skip
#endif
    :: else
    fi;
    atomic {
        if
        :: holder[ file ] == NOBODY || holder[ file ] == process -> holder[ file ] = process
        :: else ->
            assert( alive[ holder[ file ] ] );
            goto refused
        fi
    }
    /* The comparison, which is the instant at which it becomes the owner. */
    atomic {
#if MUTANT != 1
        if
        :: named != file -> closeFile( file ); goto again
        :: else
        fi;
#endif
        registered[ process ] = file;
        becomesOwner( object )
    }
refused:
    mutex[ process ] = false
}

inline unlock() {
    atomic { !mutex[ process ] -> mutex[ process ] = true }
#if MUTANT == 6
    named = 0;
#endif
    atomic {
        owner[ object ] = false;
        file = registered[ process ];
        registered[ process ] = 0;
        closeFile( file );
        file = 0
    }
    mutex[ process ] = false
}

proctype handle( byte process; byte object; byte rounds ) {
    byte file = 0;

    {
        do
        :: rounds > 0 ->
            rounds--;
            tryLock();
            if
            :: owner[ object ] -> unlock()
            :: else
            fi
        :: else -> break
        od
    } unless {
        !alive[ process ]
    }
}

/* The process A ends: the kernel frees what it held. */
proctype death() {
    byte file;

    atomic {
        alive[ A ] = false;
        owner[ 0 ] = false;
        owner[ 1 ] = false;
#if MUTANT == 5
        if
        :: childKeeps
        :: !childKeeps ->
#endif
        file = 1;
        do
        :: file < FILES ->
            if
            :: holder[ file ] == A -> holder[ file ] = NOBODY
            :: else
            fi;
            file++
        :: else -> break
        od
#if MUTANT == 5
        fi
#endif
    }
}

/* Process A forks at any time; the child has a copy of its first object. */
proctype child() {
    atomic {
        childKeeps = alive[ A ] && ( owner[ 0 ] || owner[ 1 ] );
#if MUTANT == 4
        if
        :: alive[ A ] && owner[ 0 ] -> becomesOwner( 3 )
        :: else
        fi
#endif
    }
}

/* Removes the file or puts another one in its place, while nobody writes. */
proctype stranger() {
    byte replacements = 0;

    do
    :: atomic {
        replacements < REPLACEMENTS && owners == 0 ->
        replacements++;
        if
        :: named = 0
        :: created < FILES - 1 -> created++; named = created
        fi
    }
    :: break
    od
}

init {
    atomic {
        run handle( A, 0, 2 );
        run handle( A, 1, 1 );
        run handle( B, 2, 1 );
        run death();
        run child();
        run stranger()
    }
}
