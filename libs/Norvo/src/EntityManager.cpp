#include <Norvo/EntityManager>

#include <Qel/Exception>
#include <Qel/QelType>

namespace Norvo {

EntityManager::EntityManager( const Qel::Name& name, bool local )
    : Entity( name, _fwkType() ), local_( local ) {}

EntityManager::~EntityManager() = default;

EntityManager::Ptr entityManagerFactory( const Qel::Name& name, bool local ) {
    const Qel::Dir::Ptr root = Qel::Dir::globalDir();
    if ( root->entityRef( name ) ) {
        throw Qel::NameInUseException( "entity manager '" + name.string() +
                                       "': the name is taken in the global directory" );
    }
    const EntityManager::Ptr manager = new EntityManager( name, local );
    manager->sysDir_ = root->subdirIs( name );
    root->entryIs( manager );
    return manager;
}

} // namespace Norvo
