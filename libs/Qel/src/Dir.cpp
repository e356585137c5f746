#include <Qel/Dir>

#include <vector>

#include <Qel/Exception>
#include <Qel/QelType>

namespace Qel {

namespace {

// Directories that wait for their release on this thread, linked by nextDisposed_, and whether one
// of its frames is at it.
thread_local Dir* firstDisposed = nullptr;
thread_local bool disposing = false;

template < class Node, class Iterator >
std::vector< Ptr< Node > > nodesOf( Iterator it ) {
    std::vector< Ptr< Node > > nodes;
    while ( it.next() ) {
        nodes.push_back( it.node() );
    }
    return nodes;
}

} // namespace

// --- Nodes

Dir::SubdirNode::SubdirNode( Dir::Ptr dir ) : dir_( std::move( dir ) ), key_( dir_->name() ) {}

Dir::SubdirNode::~SubdirNode() { dispose( std::move( dir_ ) ); }

// Releases `dir`, which may destroy it, which destroys its nodes, which dispose of its
// sub-directories: these are put on the list, for the outermost frame to release in its loop.
void Dir::dispose( Ptr dir ) noexcept {
    dir->newReference();
    dir->nextDisposed_ = std::exchange( firstDisposed, dir.get() );
    dir = nullptr;
    if ( disposing ) {
        return;
    }
    disposing = true;
    while ( Dir* const next = firstDisposed ) {
        firstDisposed = std::exchange( next->nextDisposed_, nullptr );
        next->deleteReference();
    }
    disposing = false;
}

// --- Directories

Dir::Dir( const Name& name ) : Entity( name, _fwkType() ) {}

Dir::~Dir() {
    for ( EntryIterator it = entryIterator(); it.next(); ) {
        orphan( *it->entity() );
    }
    for ( SubdirIterator it = subdirIterator(); it.next(); ) {
        orphan( *it->dir() );
    }
}

Dir::Ptr Dir::globalDir() {
    static const auto root = [] {
        auto* const made = new Ptr( new Dir( "/" ) );
        ( *made )->enter( **made );
        return made;
    }();
    return *root;
}

String Dir::fullName() const { return parent_ == this ? String( "/" ) : Entity::fullName(); }

String Dir::labelOf( const Name& name ) const {
    return "directory '" + fullName() + "': name '" + name.string() + "'";
}

void Dir::checkName( const Name& name ) const {
    if ( name.empty() ) {
        throw RangeException( labelOf( name ) + " is empty" );
    }
    if ( name.string().find( '/' ) != String::npos ) {
        throw RangeException( labelOf( name ) + " holds a '/'" );
    }
}

// --- Entities

Entity::Ptr Dir::entityRef( const Name& name ) const {
    const Qel::Ptr< EntryNode > node = entries_.find( name );
    return node ? node->entity() : nullptr;
}

Entity::Ptr Dir::newEntity( const String& typeName, const Name& name ) {
    return Entity::newEntity( typeName, name, this );
}

void Dir::entryIs( const Entity::Ptr& entity ) {
    if ( !entity ) {
        throw RangeException( "directory '" + fullName() + "': the entity is null" );
    }
    const Name& name = entity->name();
    if ( ptrCast< Dir >( entity ) ) {
        throw RangeException( labelOf( name ) + " is that of a directory, not of an entity" );
    }
    checkName( name );
    if ( entity->parent_ ) {
        throw RangeException( labelOf( name ) + " is that of an entity which stands in '" +
                              entity->parent_->fullName() + "'" );
    }
    if ( entries_.find( name ) ) {
        throw NameInUseException( labelOf( name ) + " is taken" );
    }
    entries_.insert( new EntryNode( entity ) );
    enter( *entity );
    const Name held = name;
    notifiees_.notify( [ &held ]( Notifiee& n ) { n.onEntry( held ); } );
}

bool Dir::entryDel( const Name& name ) {
    const Qel::Ptr< EntryNode > node = entries_.find( name );
    return node && takeEntry( *node );
}

bool Dir::takeEntry( EntryNode& node ) {
    if ( !node.linked() ) {
        return false;
    }
    const Name name = node.key();
    const Qel::Ptr< EntryNode > held = entries_.remove( name );
    orphan( *held->entity() );
    notifiees_.notify( [ &name ]( Notifiee& n ) { n.onEntry( name ); } );
    return true;
}

void Dir::entryDelAll() {
    const Ptr self( references() > 0 ? this : nullptr );
    for ( const Qel::Ptr< EntryNode >& node : nodesOf< EntryNode >( entryIterator() ) ) {
        takeEntry( *node );
    }
}

// --- Sub-directories

Dir::Ptr Dir::subdir( const Name& name ) const {
    const Qel::Ptr< SubdirNode > node = subdirs_.find( name );
    return node ? node->dir() : nullptr;
}

Dir::Ptr Dir::subdirIs( const Name& name ) {
    if ( const Ptr present = subdir( name ) ) {
        return present;
    }
    checkName( name );
    const Ptr made = new Dir( name );
    subdirs_.insert( new SubdirNode( made ) );
    enter( *made );
    const Name held = name;
    notifiees_.notify( [ &held ]( Notifiee& n ) { n.onSubdir( held ); } );
    return made;
}

bool Dir::subdirDel( const Name& name ) {
    const Qel::Ptr< SubdirNode > node = subdirs_.find( name );
    return node && takeSubdir( *node );
}

bool Dir::takeSubdir( SubdirNode& node ) {
    if ( !node.linked() ) {
        return false;
    }
    const Name name = node.key();
    const Qel::Ptr< SubdirNode > held = subdirs_.remove( name );
    orphan( *held->dir() );
    notifiees_.notify( [ &name ]( Notifiee& n ) { n.onSubdir( name ); } );
    return true;
}

void Dir::subdirDelAll() {
    const Ptr self( references() > 0 ? this : nullptr );
    for ( const Qel::Ptr< SubdirNode >& node : nodesOf< SubdirNode >( subdirIterator() ) ) {
        takeSubdir( *node );
    }
}

} // namespace Qel
