#include "Session.h"

#include <csignal>
#include <cstdio>

#include <Qel/System>

namespace Demo {

Session::Session( const QelKrell::MountInfo& info )
    : manager_( Norvo::entityManagerFactory( "demo", false ) ), mount_( manager_ ) {
    mount_.handleInitialized();
    machine_ = Qel::ptrCast< Machine >( mount_.doMount( entityPath, "Demo::Machine", info ) );
}

std::string digest( const Machine& machine ) {
    Qel::U64 sum = 0;
    const auto add = [ & ]( const Qel::String& text ) {
        sum += ( Qel::U64( Qel::stringHash( text ) ) << 32 ) + Qel::stringHash( text + "again" );
    };
    for ( const Interface& i : machine.interface ) {
        add( Qel::TextOf< Interface >::print( i ) );
    }
    for ( const Process& p : machine.process ) {
        add( Qel::TextOf< Process >::print( p ) );
    }
    char text[ 100 ];
    std::snprintf( text, sizeof text, "%u interfaces, %u processes, digest %016llx",
                   machine.interface.size(), machine.process.size(),
                   static_cast< unsigned long long >( sum ) );
    return text;
}

void stopOnTerminate() {
    std::signal( SIGTERM, []( int ) { Qel::System::stop(); } );
}

} // namespace Demo
