// What the demo's writer and readers have in common: an entity manager and its mount manager, and
// the digest by which they compare what they hold.

#pragma once

#include <string>

#include <Norvo/EntityManager>
#include <QelKrell/KrellMount>

#include "Machine.h"

namespace Demo {

inline constexpr const char* entityPath = "host/machine";

// Mounts the machine in the given role. The entity manager is not local: the collections are shared
// with other processes.
class Session {
public:
    explicit Session( const QelKrell::MountInfo& info );
    const Qel::Ptr< Machine >& machine() const { return machine_; }

private:
    Norvo::EntityManager::Ptr manager_;
    QelKrell::Mount mount_;
    Qel::Ptr< Machine > machine_;
};

// "3 interfaces, 97 processes, digest 0123456789abcdef". Equal contents have equal digests,
// whatever their order and the width of the process.
std::string digest( const Machine& machine );

// A running System::doRun() ends when the process gets SIGTERM.
void stopOnTerminate();

} // namespace Demo
