// The demo's reader: sees what the writer writes and prints what changed.
//
// It may start before the writer: the collections fill when they come. It goes on when the writer
// dies, with all that the writer had written, and follows the next writer by itself.

#include <cstdio>
#include <map>

#include <Qel/ActivityManager>
#include <Qel/System>

#include "Session.h"

namespace {

constexpr double periodSeconds = 0.5;
constexpr int width = int( sizeof( void* ) ) * 8;

// Collects what the reactions tell, and prints a line when the clock says so.
class Reporter : public Qel::Clock::Notifiee {
public:
    explicit Reporter( Demo::Machine& machine ) : machine_( machine ) {
        interfaceReaction_ =
            machine.interface.onEntry( [ this ]( const auto& name ) { interfaceChanged( name ); } );
        processReaction_ =
            machine.process.onEntry( [ this ]( Qel::U32 pid ) { processChanged( pid ); } );
        notifierIs( Qel::ActivityManager::activityManager()->config()->clock() );
        isRegisteredNotifieeIs( true );
        timeMinIs( Qel::now() + periodSeconds );
    }

    void onTime() override {
        std::printf(
            "reader (%d bits): %u interfaces, %u processes; %u came, %u went, %u moved%s%s\n",
            width, machine_.interface.size(), machine_.process.size(), came_, went_, moved_,
            latest_.empty() ? "" : "; last: ", latest_.c_str() );
        std::fflush( stdout );
        came_ = went_ = moved_ = 0;
        latest_.clear();
        timeMinIs( Qel::now() + periodSeconds );
    }

private:
    void interfaceChanged( const Qel::FixedString< 16 >& name ) {
        if ( const auto interface = machine_.interface( name ) ) {
            ++moved_;
            latest_ = std::string( name.view() ) + " received " +
                      std::to_string( interface->receivedBytes );
        }
    }

    void processChanged( Qel::U32 pid ) {
        const auto process = machine_.process( pid );
        const auto known = commands_.find( pid );
        if ( process ) {
            ++( known == commands_.end() ? came_ : moved_ );
            commands_[ pid ] = std::string( process->command.view() );
            latest_ = commands_[ pid ] + " used " + std::to_string( process->cpuTicks ) + " ticks";
        } else if ( known != commands_.end() ) {
            ++went_;
            latest_ = known->second + " ended";
            commands_.erase( known );
        }
    }

    Demo::Machine& machine_;
    Qel::Ptr< decltype( Demo::Machine::interface )::Notifiee > interfaceReaction_;
    Qel::Ptr< decltype( Demo::Machine::process )::Notifiee > processReaction_;
    std::map< Qel::U32, std::string > commands_;
    unsigned came_ = 0;
    unsigned went_ = 0;
    unsigned moved_ = 0;
    std::string latest_;
};

} // namespace

int main() {
    try {
        const Demo::Session session { QelKrell::MountInfo( QelKrell::reader ) };
        Demo::stopOnTerminate();
        const Qel::Ptr< Reporter > reporter = new Reporter( *session.machine() );
        Qel::System::doRun();
        std::printf( "reader (%d bits): final %s\n", width,
                     Demo::digest( *session.machine() ).c_str() );
        return 0;
    } catch ( const Qel::Exception& e ) {
        std::fprintf( stderr, "reader (%d bits): %s\n", width, e.what() );
        return 1;
    }
}
