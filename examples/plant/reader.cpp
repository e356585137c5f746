// Prints what the plant shows, and each change, until it is ended. It may start before the writer
// and outlives it.

#include <iostream>

#include <Qel/System>

#include "Site.h"

int main() {
    try {
        const Site site { QelKrell::MountInfo( QelKrell::reader ) };
        auto& reading = site.plant().reading;
        const auto watch = reading.onEntry( [ & ]( Qel::U32 sensor ) {
            if ( const auto r = reading( sensor ) ) {
                std::cout << sensor << ": " << r->celsius << std::endl;
            } else {
                std::cout << sensor << " is gone" << std::endl;
            }
        } );
        Qel::System::doRun();
    } catch ( const Qel::Exception& e ) {
        std::cerr << "reader: " << e.what() << "\n";
        return 1;
    }
}
