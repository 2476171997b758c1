// The daemon history over SNMP: velmarDaemonHistoryTable (velmarDaemonStatus.3 in
// VELMAR-DAEMON-MIB), answered from an Agent::DaemonHistory at request time.
//
//   Agent::HistoryMib table(history);   // registers the table (default context, read-only)
//   // ... requests are answered while it lives ...
//   // destroyed: the table is withdrawn
//
// Columns of velmarDaemonHistoryEntry, indexed by the daemon's name (length-prefixed):
//   1 velmarDaemonHistoryAgentName       not served (the index)
//   2 velmarDaemonRunningChanges         Counter32
//   3 velmarDaemonEnabledChanges         Counter32
//   4 velmarDaemonLastRunningChange      TimeStamp (sysUpTime ticks; 0: none)
//   5 velmarDaemonLastEnabledChange      TimeStamp
//   6 velmarDaemonLastRunningChangeTime  DateAndTime, UTC; no instance while there was none
// The registration is read-only, so Net-SNMP itself answers a SET notWritable (or noAccess
// where the access configuration grants no write view).
//
// Threads: constructed, used and destroyed on the thread of Net-SNMP's select loop, which
// is the one that changes the history.
#pragma once

#include "agent/history/DaemonHistory.h"

#include <cstdint>
#include <string>
#include <vector>

struct netsnmp_handler_registration_s;

namespace Agent {

class HistoryMib {
public:
    // Registers the table; keeps a reference to history, which must outlive this. Throws
    // std::runtime_error naming the table when Net-SNMP refuses the registration.
    explicit HistoryMib(const DaemonHistory& history);
    ~HistoryMib();
    HistoryMib(const HistoryMib&) = delete;
    HistoryMib& operator=(const HistoryMib&) = delete;

    // velmarDaemonHistoryTable's OID, with the build's enterprise number.
    static const std::vector<unsigned long>& table();

    const DaemonHistory& history() const noexcept { return history_; }

private:
    const DaemonHistory& history_;
    netsnmp_handler_registration_s* registration_ = nullptr;
};

} // namespace Agent
