// The plant's writer. It takes lines from standard input:
//
//     7 21.5        sensor 7 shows 21.5 degrees
//     7 gone        there is no sensor 7 any more
//
// Readers follow while it lives; when it ends, what it wrote stays. `--restart`: the lines up to an
// empty one are all that there is; what it wrote in a former life and nobody named is swept then.

#include <cstring>
#include <iostream>
#include <sstream>

#include <Qel/FileDescriptor>
#include <Qel/System>
#include <unistd.h>

#include "Site.h"

namespace {

// The event loop calls it when there is something to read.
class Input : public Qel::FileDescriptor::Notifiee {
public:
    explicit Input( Plant& plant ) : plant_( plant ) {
        input_->descriptorIs( STDIN_FILENO );
        input_->notifyOnReadableIs( true );
        notifierIs( input_ );
        isRegisteredNotifieeIs( true );
    }
    void onReadableCount() override {
        char bytes[ 4096 ];
        const ssize_t n = ::read( STDIN_FILENO, bytes, sizeof bytes );
        text_.append( bytes, n > 0 ? std::size_t( n ) : 0 );
        for ( std::size_t end; ( end = text_.find( '\n' ) ) != std::string::npos; ) {
            handleLine( text_.substr( 0, end ) );
            text_.erase( 0, end + 1 );
        }
        if ( n <= 0 ) {
            Qel::System::stop();
        }
    }

private:
    void handleLine( const std::string& line ) {
        std::istringstream words( line );
        Qel::U32 sensor;
        double celsius;
        if ( line.empty() ) {
            std::cout << plant_.reading.sweep() << " swept" << std::endl;
        } else if ( words >> sensor && words >> celsius ) {
            plant_.reading.is( { sensor, celsius } ); // equal to what is there: nobody is told
        } else if ( line.ends_with( " gone" ) ) {
            plant_.reading.del( sensor );
        } else {
            std::cerr << "writer: neither a reading nor gone: " << line << "\n";
        }
    }

    Plant& plant_;
    const Qel::FileDescriptor::Ptr input_ = new Qel::FileDescriptor( "input" );
    std::string text_;
};

} // namespace

int main( int argc, char** argv ) {
    try {
        QelKrell::MountInfo info( QelKrell::writer );
        info.collectionInfoIs( { "reading", 1000 } ); // entries to begin with
        const Site site( info );
        if ( argc == 2 && std::strcmp( argv[ 1 ], "--restart" ) == 0 ) {
            site.plant().reading.mark();
        }
        const Qel::Ptr< Input > input = new Input( site.plant() );
        Qel::System::doRun();
    } catch ( const Qel::Exception& e ) {
        std::cerr << "writer: " << e.what() << "\n";
        return 1;
    }
}
