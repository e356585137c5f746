#include <Qel/Entity>

#include <vector>

#include <Qel/Dir>
#include <Qel/QelType>

namespace Qel {

Entity::Entity( const Name& name ) : name_( name ) {}

Entity::~Entity() = default;

String Entity::fullName() const {
    std::vector< const Entity* > path;
    const Entity* at = this;
    for ( ; at && at->parent_ != at; at = at->parent_ ) {
        path.push_back( at );
    }
    const bool absolute = at != nullptr; // the walk ended at the root
    String full;
    for ( std::size_t i = path.size(); i-- > 0; ) {
        if ( absolute || !full.empty() ) {
            full += '/';
        }
        full += path[ i ]->name_.string();
    }
    return full;
}

Qel::Ptr< Dir > Entity::parent() const { return parent_; }

void Entity::isNondestructingIs( bool on ) { lifeFlagIs( isNondestructingFlag_, on ); }

void Entity::zeroReferencesIs( bool on ) { lifeFlagIs( zeroReferencesFlag_, on ); }

} // namespace Qel
