// A writer and a reader of one plant, in two processes, in one source.
//
//   plant write SENSOR CELSIUS     mounts the plant as its writer and stores one reading
//   plant read                     mounts it as a reader and prints what there is
//   plant follow                   prints every change until it is ended

#include <cstdlib>
#include <cstring>
#include <iostream>

#include <Norvo/EntityManager>
#include <Qel/System>
#include <QelKrell/KrellMount>

#include "Plant.h"

namespace {

Qel::Ptr< Plant > mountPlant( const QelKrell::MountInfo& info ) {
    QelKrell::Mount mount( Norvo::entityManagerFactory( "site", false ) );
    mount.handleInitialized();
    return Qel::ptrCast< Plant >( mount.doMount( "north/plant", "Power::Plant", info ) );
}

int writeOne( const char* sensor, const char* celsius ) {
    QelKrell::MountInfo info( QelKrell::writer );
    info.collectionInfoIs( { "reading", 1000 } );
    const auto plant = mountPlant( info );
    plant->reading.is(
        { Qel::U32( std::strtoul( sensor, nullptr, 10 ) ), std::strtod( celsius, nullptr ) } );
    return 0;
}

int readAll() {
    const auto plant = mountPlant( QelKrell::MountInfo( QelKrell::reader ) );
    for ( const Reading& r : plant->reading ) {
        std::cout << r.sensor << ": " << r.celsius << "\n";
    }
    return 0;
}

int follow() {
    const auto plant = mountPlant( QelKrell::MountInfo( QelKrell::reader ) );
    const auto watch = plant->reading.onEntry( [ & ]( Qel::U32 sensor ) {
        if ( const auto r = plant->reading( sensor ) ) {
            std::cout << sensor << ": " << r->celsius << std::endl;
        } else {
            std::cout << sensor << " is gone" << std::endl;
        }
    } );
    Qel::System::doRun();
    return 0;
}

} // namespace

int main( int argc, char** argv ) {
    try {
        if ( argc == 4 && std::strcmp( argv[ 1 ], "write" ) == 0 ) {
            return writeOne( argv[ 2 ], argv[ 3 ] );
        }
        if ( argc == 2 && std::strcmp( argv[ 1 ], "read" ) == 0 ) {
            return readAll();
        }
        if ( argc == 2 && std::strcmp( argv[ 1 ], "follow" ) == 0 ) {
            return follow();
        }
    } catch ( const Qel::Exception& e ) {
        std::cerr << "plant: " << e.what() << "\n";
        return 1;
    }
    std::cerr << "usage: plant write SENSOR CELSIUS | read | follow\n";
    return 2;
}
