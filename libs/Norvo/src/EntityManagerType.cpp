#include <Norvo/EntityManager>
#include <Qel/Describe>

namespace Norvo {

constexpr auto describe( const EntityManager* ) {
    return Qel::objectType< EntityManager >( "Norvo::EntityManager",
                                             Qel::property( "local", &EntityManager::local ) );
}

Qel::Ptr< Qel::QelType > EntityManager::_fwkType() {
    static const auto type = new Qel::Ptr< Qel::QelType >( Qel::makeType< EntityManager >() );
    return *type;
}

namespace {

const Qel::Unit< EntityManager > unit( "entity manager" );

} // namespace

} // namespace Norvo
