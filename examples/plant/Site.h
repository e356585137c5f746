// What each program of the plant begins with: the plant, mounted in a role, as long as this lives.

#pragma once

#include <Norvo/EntityManager>
#include <QelKrell/KrellMount>

#include "Plant.h"

class Site {
public:
    explicit Site( const QelKrell::MountInfo& info )
        : mount_( Norvo::entityManagerFactory( "site", false ) ) {
        mount_.handleInitialized();
        plant_ = Qel::ptrCast< Plant >( mount_.doMount( "north/plant", "Power::Plant", info ) );
    }
    ~Site() { mount_.doUnmount( "north/plant" ); }
    Site( const Site& ) = delete;
    Site& operator=( const Site& ) = delete;

    Plant& plant() const { return *plant_; }

private:
    QelKrell::Mount mount_;
    Qel::Ptr< Plant > plant_;
};
