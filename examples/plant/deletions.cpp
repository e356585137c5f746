// Names every sensor that comes, changes or goes, until it is ended. A reader can miss a deletion,
// when the writer is faster than it; a key shadow keeps the keys that it saw, and misses none of
// these. A shadow keeps the values too: previous() would tell the last temperature.

#include <iostream>

#include <Qel/System>

#include "Site.h"

int main() {
    try {
        const Site site { QelKrell::MountInfo( QelKrell::keyshadow ) };
        auto& reading = site.plant().reading;
        const auto watch = reading.onEntry( [ & ]( Qel::U32 sensor ) {
            std::cout << "sensor " << sensor << ( reading( sensor ) ? " is there" : " went" )
                      << std::endl;
        } );
        Qel::System::doRun();
    } catch ( const Qel::Exception& e ) {
        std::cerr << "deletions: " << e.what() << "\n";
        return 1;
    }
}
