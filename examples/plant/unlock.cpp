// Waits until the plant's writer lets go, by ending or dying, and says so; then for the next one.

#include <iostream>

#include <Qel/System>
#include <QelKrell/WriterUnlock>

#include "Site.h"

namespace {

class Reaction : public QelKrell::WriterUnlock::Notifiee {
public:
    explicit Reaction( const QelKrell::WriterUnlock::Ptr& unlocks ) {
        notifierIs( unlocks );
        isRegisteredNotifieeIs( true );
    }
    void onCount() override {
        std::cout << "the writer let go: " << notifier()->count() << std::endl;
    }
};

} // namespace

int main() {
    try {
        const auto unlocks = QelKrell::writerUnlockFactory( "unlocks" );
        const auto watch =
            QelKrell::writerUnlockSmFactory( "site/Krell/north/plant/reading", "", unlocks );
        const Qel::Ptr< Reaction > reaction = new Reaction( unlocks );
        watch->connectedIs( true );
        std::cout << "watching" << std::endl;
        Qel::System::doRun();
    } catch ( const Qel::Exception& e ) {
        std::cerr << "unlock: " << e.what() << "\n";
        return 1;
    }
}
