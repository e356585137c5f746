#include <QelKrell/FaultGuard>

#include <cerrno>

#include <Dov/FaultGuard>
#include <Qel/Exception>

namespace QelKrell {

void surviveShortenedFiles() {
    if ( !Dov::FaultGuard::install() ) {
        Qel::throwSystemException( "sigaction", "SIGBUS", errno );
    }
}

} // namespace QelKrell
