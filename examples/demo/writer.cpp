// The demo's writer: keeps both collections as the kernel tells them, five times a second.

#include <cstdio>
#include <set>

#include <Qel/ActivityManager>
#include <Qel/System>

#include "Procfs.h"
#include "Session.h"

namespace {

constexpr double periodSeconds = 0.2;

// Brings a collection to exactly `wanted`. A value that has not changed is not written again, so
// readers hear of differences only; a restarted writer goes on where the last one stopped.
template < class Collection, class Values >
void reconcile( Collection& collection, const Values& wanted ) {
    std::set< typename Collection::Key > keys;
    for ( const auto& value : wanted ) {
        keys.insert( Collection::keyOf( value ) );
        collection.is( value );
    }
    for ( const auto& value : collection ) {
        if ( !keys.contains( Collection::keyOf( value ) ) ) {
            collection.del( Collection::keyOf( value ) );
        }
    }
}

// Woken by the framework's clock.
class Sampler final : public Qel::Clock::Notifiee {
public:
    explicit Sampler( Demo::Machine& machine ) : machine_( machine ) {
        notifierIs( Qel::ActivityManager::activityManager()->config()->clock() );
        isRegisteredNotifieeIs( true );
        Sampler::onTime();
    }
    void onTime() override {
        reconcile( machine_.interface, Demo::readInterfaces() );
        reconcile( machine_.process, Demo::readProcesses() );
        timeMinIs( Qel::now() + periodSeconds );
    }

private:
    Demo::Machine& machine_;
};

} // namespace

int main() {
    try {
        const QelKrell::MountInfo info(
            QelKrell::writer, false,
            std::vector< QelKrell::CollectionInfo > { { "interface", 8 }, { "process", 64 } } );
        const Demo::Session session( info );
        Demo::stopOnTerminate();
        std::printf( "writer: took over %s\n", Demo::digest( *session.machine() ).c_str() );
        const Qel::Ptr< Sampler > sampler = new Sampler( *session.machine() );
        std::printf( "writer: writing %s\n", Demo::digest( *session.machine() ).c_str() );
        std::fflush( stdout );
        Qel::System::doRun();
        std::printf( "writer: final %s\n", Demo::digest( *session.machine() ).c_str() );
        return 0;
    } catch ( const Qel::Exception& e ) {
        std::fprintf( stderr, "writer: %s\n", e.what() );
        return 1;
    }
}
