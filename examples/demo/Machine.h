// What the demo shares: the running machine's network interfaces and processes.
//
// Two records and the entity type that keeps a collection of each. That is all a system needs to
// say about its data; writers, readers and tools take the rest from these tables.

#pragma once

#include <QelKrell/Collection>

namespace Demo {

struct Interface {
    Qel::FixedString< 16 > name;
    Qel::U64 receivedBytes = 0;
    Qel::U64 sentBytes = 0;
};
constexpr auto describe( const Interface* ) {
    return Qel::valueType< Interface >(
        "Demo::Interface", Qel::attribute( "name", &Interface::name ),
        Qel::attribute( "receivedBytes", &Interface::receivedBytes ),
        Qel::attribute( "sentBytes", &Interface::sentBytes ) );
}

struct Process {
    Qel::U32 pid = 0;
    Qel::U32 parent = 0;
    Qel::FixedString< 16 > command;
    Qel::U64 cpuTicks = 0;
    Qel::U64 startTicks = 0;
};
constexpr auto describe( const Process* ) {
    return Qel::valueType< Process >( "Demo::Process", Qel::attribute( "pid", &Process::pid ),
                                      Qel::attribute( "parent", &Process::parent ),
                                      Qel::attribute( "command", &Process::command ),
                                      Qel::attribute( "cpuTicks", &Process::cpuTicks ),
                                      Qel::attribute( "startTicks", &Process::startTicks ) );
}

class Machine : public Qel::Entity {
public:
    using Qel::Entity::Entity;

    QelKrell::Collection< &Interface::name > interface;
    QelKrell::Collection< &Process::pid > process;
};
constexpr auto describe( const Machine* ) {
    return Qel::entityType< Machine >( "Demo::Machine",
                                       QelKrell::collection( "interface", &Machine::interface ),
                                       QelKrell::collection( "process", &Machine::process ) );
}

inline const Qel::Unit< Interface, Process, Machine > machineUnit( "machine" );

} // namespace Demo
