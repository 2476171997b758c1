// Sends the daemon MIB's notifications through Net-SNMP: hears the model (ModelWatch),
// decides when (NotifyScheduler) and sends with send_v2trap, which goes wherever the
// process's agent sends notifications: the sinks of its configuration (trap2sink,
// informsink, trapsess) for a master agent or snmpd, the master for an AgentX subagent.
//
//   Agent::Notifier notifier(host.mib(), {std::chrono::milliseconds(1000), 100},
//                            [](const std::string& line) { std::cerr << line << "\n"; });
//   notifier.start();   // after the initial state is loaded and Net-SNMP is initialised:
//                       // the state as it is now is what receivers are taken to know
//   // ... the select loop runs; changes are sent from the activity loop and from alarms ...
//   notifier.stop();    // before the model goes
//
// Timing runs on Net-SNMP's alarms (snmp_alarm_register_hr), so the process's select loop
// must serve alarms (agent_check_and_process and snmpd do). While notifications wait for the
// budget, one line a second says how many.
//
// Threads: the thread of the select loop, which owns the model, only.
#pragma once

#include "ModelWatch.h"
#include "NotifyScheduler.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

class Notifier {
public:
    using Log = std::function<void(const std::string& line)>;
    // Throws std::invalid_argument for a rate of 0 or a negative hold-down.
    Notifier(Orbel::Ptr<GenericAgent::DaemonMib> mib, NotifyScheduler::Settings settings, Log log);
    // Stops.
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    // Takes the model's state now as what receivers know (sends nothing for it) and listens
    // from here on. Starting again does nothing.
    void start();
    // Stops listening, cancels the alarms and drops whatever waits (nothing more is sent).
    void stop();
    bool started() const noexcept { return scheduler_.has_value(); }

    // A daemon's count of running changes (velmarDaemonRunningChanges); empty: it has none.
    using RunningChanges = std::function<std::optional<std::uint32_t>(const std::string& daemon)>;
    // The history to keep up to date and to read from: history (not owned; null: none) hears
    // the state at start and every change before a notification is decided, and a running
    // change carries what runningChanges says of the daemon. Set before start(); history
    // must outlive the notifier's listening (stop()).
    void historyIs(ModelListener* history, RunningChanges runningChanges);
    // Data keys whose values a running change carries (velmarDaemonDataValue instances), for
    // each key the daemon has a value of, in the order given: why it stopped, told at once.
    void dataKeysIs(std::vector<std::string> keys) { dataKeys_ = std::move(keys); }
    const std::vector<std::string>& dataKeys() const noexcept { return dataKeys_; }

    // What a running change carries beyond the flags.
    struct Extras {
        std::optional<std::uint32_t> runningChanges;           // velmarDaemonRunningChanges
        std::vector<std::pair<std::string, std::string>> data; // data key, value
    };

    // Notifications handed to Net-SNMP since start.
    std::uint64_t sent() const noexcept { return scheduler_ ? scheduler_->sent() : 0; }
    // Daemons whose notification waits for the budget.
    std::size_t queued() const noexcept { return scheduler_ ? scheduler_->queued() : 0; }

    // The varbinds of n as sent after sysUpTime.0: snmpTrapOID.0 with the notification's OID,
    // then the daemon's running and enabled instances (TruthValue) in the order the MIB's
    // OBJECTS clause names them. The caller frees the list (snmp_free_varbind).
    static netsnmp_variable_list* varbinds(const Notification& n);
    // The same, and for a running change then the extras: velmarDaemonRunningChanges
    // (Counter32) and the velmarDaemonDataValue instances, in that order.
    static netsnmp_variable_list* varbinds(const Notification& n, const Extras& extras);
    // The extras of n as the model and the history hold them now.
    Extras extras(const Notification& n) const;

private:
    void changed(const std::string& daemon, const DaemonFlags& flags);
    void send(const Notification& n);
    void rearm();
    void logQueued();
    static void onTick(unsigned int reg, void* self);
    static void onLogTick(unsigned int reg, void* self);

    Orbel::Ptr<GenericAgent::DaemonMib> mib_;
    NotifyScheduler::Settings settings_;
    Log log_;
    ModelWatch watch_;
    RunningChanges runningChanges_;
    std::vector<std::string> dataKeys_;
    std::optional<NotifyScheduler> scheduler_;
    unsigned int tickAlarm_ = 0; // the next tick of the scheduler (0: none)
    unsigned int logAlarm_ = 0;  // the once-a-second queue report (0: none)
};

} // namespace Agent
