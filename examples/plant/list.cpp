// Prints what the plant shows now, sorted by sensor, whether there is a writer or not.

#include <iostream>
#include <map>

#include "Site.h"

int main() {
    try {
        const Site site { QelKrell::MountInfo( QelKrell::reader ) };
        std::map< Qel::U32, double > sorted;
        for ( const Reading& r : site.plant().reading ) {
            sorted[ r.sensor ] = r.celsius;
        }
        for ( const auto& [ sensor, celsius ] : sorted ) {
            std::cout << sensor << ": " << celsius << "\n";
        }
    } catch ( const Qel::Exception& e ) {
        std::cerr << "list: " << e.what() << "\n";
        return 1;
    }
}
