// One collection whose files are changed under and before every role.
//
// It is made once, by a writer: 36 keys of two words with values of two words, some in one overflow
// chain, some updated, some deleted, and a change queue that went round. Each run starts from these
// files. What stands where in them is asked of the library.

#pragma once

#include <map>
#include <vector>

#include <Krell/Segments>

#include "Fuzzing.h"
#include "krell/EngineSupport.h"

namespace QelKrellFuzz {

using Qel::U32;
using Qel::U64;

class Collection {
public:
    using Files = std::map< std::string, std::string >; // names and bytes
    struct Region {
        std::string file;
        std::size_t at;
        std::size_t size;
    };
    using Regions = std::vector< Region >;

    explicit Collection( const Root& root );

    const Files& files() const { return files_; }
    // The fixed parts of "slots", "buckets" and the change queue, then the small files whole.
    const Regions& headers() const { return headers_; }
    // The slots, the lookaside record, the bucket arrays, the queue's header and its entries; also
    // the parts of the other headers that change all the time.
    const Regions& contents() const { return contents_; }
    // The change queue alone: its header, its entries.
    Regions queue() const;

    const std::string& directory() const { return directory_; }
    const std::string& queueFile() const { return queueFile_; }

    // From now on these files stand in the directory, and no other.
    void store( const Files& files ) const;
    // The same bytes in the files that stand there, under whoever has them mapped.
    void overwrite( const Files& files ) const;

    static Krell::Layout layout() { return KrellTest::layoutOf( 2, 2 ); }
    static std::string path() { return "sys/Krell/e/c"; }

private:
    void make();
    void locate();

    std::string directory_;
    std::string queueFile_;
    Files files_;
    Regions headers_;
    Regions contents_;
};

// Makes one change, as the input says: a region filled with a pattern, bytes or a word replaced, a
// word a little larger or smaller, words copied within the file.
void change( Collection::Files& files, const Collection::Regions& regions, Input& input );
// Makes the three checksums what they are to be.
void seal( Collection::Files& files, const std::string& queueFile );

// Opens the collection in that role and does everything that can be done in it; `between` is called
// when it is open, and all is done again. Every call has to come back.
void follow( QelKrell::QelKrellType role, const std::function< void() >& between );
// Opens it as its writer, which changes everything before `between` is called and after it. Every
// call has to come back.
void write( const std::function< void() >& between );
// A next writer takes over. It always can, whatever it finds; what it writes, it and a reader find.
void takeOver();

} // namespace QelKrellFuzz
