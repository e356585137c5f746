// What each program of the plant begins with: the plant, mounted in a role.

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
    Plant& plant() const { return *plant_; }

private:
    QelKrell::Mount mount_;
    Qel::Ptr< Plant > plant_;
};
