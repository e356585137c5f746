// Any path and description given to a mount manager, local or over files: done, or refused with an
// exception that changed no count; entities are found where they were mounted, counts are those of
// a plain map, no file appears outside the manager's directory, no descriptor stays open.
//
// Input: a byte whose lowest bit says whether the manager is local; then steps, until it ends. A
// step is a byte for what is done and a path: a byte that picks a former one, or 255 and a line.
//
// Left out is what the documentation calls a caller's error: empty paths, and with a local manager
// unmounting an entity whose mount failed.

#include <map>
#include <set>
#include <vector>

#include "Site.h"
#include "mount/Plant.h"

namespace {

using namespace QelKrellFuzz;
using MountBench::Plant;
using Qel::Entity;

constexpr unsigned mostSteps = 40;

// What is open but for pipes, which are the sanitizers' own.
std::multiset< std::string > openDescriptors() {
    std::multiset< std::string > all;
    for ( const auto& entry : std::filesystem::directory_iterator( "/proc/self/fd" ) ) {
        std::error_code gone; // the one that looks
        const std::string what = std::filesystem::read_symlink( entry.path(), gone ).string();
        if ( !what.starts_with( "pipe:" ) ) {
            all.insert( what );
        }
    }
    return all;
}
std::string lines( const std::multiset< std::string >& texts ) {
    std::string all;
    for ( const std::string& text : texts ) {
        all += text + "\n";
    }
    return all;
}

class Steps {
public:
    Steps( const Root& root, bool local, Input& input )
        : site_( root, local ), local_( local ), input_( input ) {}

    void run() {
        for ( unsigned i = 0; i < mostSteps && !input_.atEnd(); ++i ) {
            step();
            checkCounts();
        }
        if ( !local_ || allCounted( site_.mount.krellDir() ) ) {
            unmountAll();
        }
    }

private:
    using Counts = std::map< std::string, Qel::U32 >;

    void step() {
        const unsigned what = input_.below( 8 );
        const std::string path = pathIn();
        if ( what == 0 ) {
            answers( [ & ] { site_.mount.find( path ); } );
            readCounts();
        } else if ( what == 1 ) {
            answers( [ & ] { site_.mount.cleanup( path ); } );
        } else if ( what == 2 && input_.below( 4 ) == 3 ) {
            if ( !local_ || allCounted( site_.mount.krellDir() ) ) {
                unmountAll();
            }
        } else if ( path.empty() ) {
            return;
        } else if ( what <= 4 ) {
            unmount( path );
        } else {
            mount( path );
        }
    }

    // --- What an input says

    std::string pathIn() {
        const unsigned at = input_.byte();
        if ( at != 255 && !paths_.empty() ) {
            return paths_[ at % paths_.size() ];
        }
        paths_.push_back( input_.line() );
        return paths_.back();
    }
    std::string typeIn() {
        const char* const known[] = { "Norvo::EntityManager", "Qel::Dir", "Qel::Entity",
                                      "QelKrell::KrellEntities", "QelKrell::WriterUnlock" };
        const unsigned at = input_.byte();
        return at < std::size( known ) ? known[ at ]
               : at == 255             ? input_.line()
                                       : MountBench::plantType;
    }
    QelKrell::MountInfo infoIn() {
        const unsigned bits = input_.byte();
        QelKrell::MountInfo info( QelKrell::QelKrellType( bits & 7 ), bits & 8 );
        for ( unsigned i = ( bits >> 4 ) & 3; i > 0; --i ) {
            const char* const known[] = { "reading", "limit", "staff", "entity", "" };
            const unsigned at = input_.byte();
            const auto size = input_.number< Qel::U32 >();
            const bool any = bits & 64; // most are far beyond what there is room for
            info.collectionInfoIs( { at < std::size( known ) ? known[ at ] : input_.line(),
                                     any ? size : size % ( local_ ? 1000 : 1 << 20 ) } );
        }
        return info;
    }

    // --- What is done

    void mount( const std::string& path ) {
        const std::string type = typeIn();
        const QelKrell::MountInfo info = infoIn();
        const Entity::Ptr before = entityAt( path );
        Entity::Ptr entity;
        const bool done = answers( [ & ] { entity = site_.mount.doMount( path, type, info ); } );
        demand( !before || entityAt( path ) == before, "another entity stands at " + path );
        if ( !done ) {
            return;
        }
        demand( entity && entityAt( path ) == entity, "not found where it was mounted: " + path );
        demand( entity->fullName() == "/sys/Krell/" + path, "mounted elsewhere: " + path );
        demand( entity->fwkType()->fullName() == type.c_str(), "mounted as another type" );
        if ( local_ ) {
            ++counts_[ "/sys/Krell/" + path ];
        }
        if ( const auto plant = Qel::ptrCast< Plant >( entity ) ) {
            use( *plant, info );
        }
    }
    static void use( Plant& plant, const QelKrell::MountInfo& info ) {
        const bool writes =
            info.mode() == QelKrell::writer && !info.collectionInfo( "reading" ).name().empty();
        const MountBench::Reading reading { 7, 1.5, 8 };
        const bool put = answers( [ & ] { plant.reading.is( reading ); } );
        demand( put || !writes, "a writer cannot write" );
        answers( [ & ] {
            plant.reading.core().poll();
            const auto found = plant.reading( 7 );
            demand( !put || ( found && Qel::sameValue( *found, reading ) ), "written and gone" );
        } );
    }
    void unmount( const std::string& path ) {
        const Entity::Ptr entity = entityAt( path );
        const Qel::Dir::Ptr dir = QelKrell::getDir( path, site_.mount.krellDir() );
        if ( local_ && ( entity ? !counted( *entity ) : dir && !allCounted( dir ) ) ) {
            return;
        }
        if ( local_ && entity ) {
            release( *entity );
        } else if ( local_ && dir ) {
            releaseAll( dir );
        }
        const bool done = answers( [ & ] { site_.mount.doUnmount( path ); } );
        demand( done, "not unmounted: " + path );
        const bool stays = local_ && entity && counts_.count( "/sys/Krell/" + path ) > 0;
        demand( bool( entityAt( path ) ) == stays, "unmounted and there, or mounted and gone" );
    }
    void unmountAll() {
        const Qel::Dir::Ptr top = site_.mount.krellDir();
        if ( local_ ) {
            releaseAll( top );
        }
        demand( answers( [ & ] { site_.mount.doUnmountAll(); } ), "not all were unmounted" );
        demand( local_ || ( top->entrys() == 0 && top->subdirs() == 0 ), "something was left" );
        demand( site_.mount.krellDir() == top, "the directory itself went" );
    }

    Entity::Ptr entityAt( const std::string& path ) const {
        return site_.mount.getQelEntity( path );
    }

    // --- The model of the counts

    bool counted( const Entity& entity ) const {
        return counts_.count( entity.fullName().stdString() ) > 0;
    }
    bool allCounted( const Qel::Dir::Ptr& dir ) const {
        bool all = true;
        forAll( dir, [ & ]( const Entity& entity ) { all = all && counted( entity ); } );
        return all;
    }
    void release( const Entity& entity ) {
        const auto found = counts_.find( entity.fullName().stdString() );
        if ( --found->second == 0 ) {
            counts_.erase( found );
        }
    }
    void releaseAll( const Qel::Dir::Ptr& dir ) {
        forAll( dir, [ & ]( const Entity& entity ) { release( entity ); } );
    }
    template < class F >
    static void forAll( const Qel::Dir::Ptr& dir, F&& f ) {
        for ( auto it = dir->entryIterator(); it.next(); ) {
            f( *it->entity() );
        }
        for ( auto it = dir->subdirIterator(); it.next(); ) {
            forAll( it->dir(), f );
        }
    }
    static Counts counts() {
        Counts all;
        if ( const auto entities = Entity::singleton< QelKrell::KrellEntities >() ) {
            for ( const Qel::String& name : entities->names() ) {
                all[ name.stdString() ] = entities->count( name );
            }
        }
        return all;
    }
    void readCounts() {
        if ( !local_ ) { // they are what was found in files
            counts_ = counts();
        }
    }
    void checkCounts() const { demand( counts() == counts_, "the counts are not those of a map" ); }

    Site site_;
    const bool local_;
    Input& input_;
    std::vector< std::string > paths_;
    Counts counts_;
};

// Below `directory` stands nothing but the one name.
void demandOnly( const std::filesystem::path& directory, const std::string& name ) {
    std::error_code none;
    for ( const auto& entry : std::filesystem::directory_iterator( directory, none ) ) {
        demand( entry.path().filename() == name,
                "a file of a foreign place: " + entry.path().string() );
    }
}

void runAll( const Root& root, Input input ) {
    const bool local = input.below( 2 ) == 1;
    Steps( root, local, input ).run();
    demandOnly( root.path(), "sys" );
    demandOnly( root / "sys", "Krell" );
}

} // namespace

int LLVMFuzzerTestOneInput( const std::uint8_t* data, std::size_t size ) {
    static const Silence silence;
    static const Root root;
    const FileLimit limit( 1 << 20 );
    static const std::multiset< std::string > usual = [] {
        const std::string mounts( "\0\7\377a/b\n\7\60\0\7\0\0\0\7\0\7\2", 18 );
        runAll( root,
                Input( reinterpret_cast< const std::uint8_t* >( mounts.data() ), mounts.size() ) );
        return openDescriptors();
    }();
    runAll( root, Input( data, size ) );
    const auto now = openDescriptors();
    demand( now == usual, "open before:\n" + lines( usual ) + "open now:\n" + lines( now ) );
    return 0;
}
