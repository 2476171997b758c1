#include "Notifier.h"

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <vector>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

namespace Agent {

namespace {

constexpr const char* debugToken = "velmarNotify";

// velmarDaemonMIB: enterprises.N.3.17.
constexpr oid mibRoot[] = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17};
constexpr std::size_t mibRootLen = sizeof mibRoot / sizeof mibRoot[0];
// snmpTrapOID.0 (SNMPv2-MIB).
constexpr oid snmpTrapOid[] = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

// velmarDaemonEnabled (velmarDaemonConfig.1.1.2) and velmarDaemonRunning
// (velmarDaemonStatus.1.1.2): the value columns of the two tables indexed by name alone.
constexpr oid enabledColumn[] = {1, 1, 1, 2};
constexpr oid runningColumn[] = {2, 1, 1, 2};
// velmarDaemonRunningChanges (velmarDaemonStatus.3.1.2), indexed by name alone, and
// velmarDaemonDataValue (velmarDaemonStatus.2.1.3), indexed by name and data key.
constexpr oid runningChangesColumn[] = {2, 3, 1, 2};
constexpr oid dataValueColumn[] = {2, 2, 1, 3};

constexpr long truthValue(bool b) {
    return b ? 1 : 2;
}

// The notification's OID: velmarDaemonNotifications (velmarDaemonMIB.0) . n.
std::vector<oid> notificationOid(NotificationKind kind) {
    std::vector<oid> o(mibRoot, mibRoot + mibRootLen);
    o.push_back(0);
    switch (kind) {
        case NotificationKind::runningChange:
            o.push_back(1);
            break;
        case NotificationKind::enabledChange:
            o.push_back(2);
            break;
        case NotificationKind::gone:
            o.push_back(3);
            break;
    }
    return o;
}

// The instance of a column for the daemon: the name as a length-prefixed octet string.
std::vector<oid> instance(const oid (&column)[4], const std::string& daemon) {
    std::vector<oid> o(mibRoot, mibRoot + mibRootLen);
    o.insert(o.end(), column, column + 4);
    o.push_back(daemon.size());
    for (unsigned char c : daemon) o.push_back(c);
    return o;
}

void appendString(std::vector<oid>& o, const std::string& s) {
    o.push_back(s.size());
    for (unsigned char c : s) o.push_back(c);
}

void addTruth(netsnmp_variable_list** list, const std::vector<oid>& name, bool value) {
    const long v = truthValue(value);
    snmp_varlist_add_variable(list, name.data(), name.size(), ASN_INTEGER, reinterpret_cast<const u_char*>(&v),
                              sizeof v);
}

} // namespace

netsnmp_variable_list* Notifier::varbinds(const Notification& n) {
    return varbinds(n, Extras{});
}

netsnmp_variable_list* Notifier::varbinds(const Notification& n, const Extras& extras) {
    netsnmp_variable_list* list = nullptr;
    const std::vector<oid> trap = notificationOid(n.kind);
    snmp_varlist_add_variable(&list, snmpTrapOid, sizeof snmpTrapOid / sizeof snmpTrapOid[0], ASN_OBJECT_ID,
                              reinterpret_cast<const u_char*>(trap.data()), trap.size() * sizeof(oid));
    const std::vector<oid> running = instance(runningColumn, n.daemon);
    const std::vector<oid> enabled = instance(enabledColumn, n.daemon);
    if (n.kind == NotificationKind::enabledChange) {
        addTruth(&list, enabled, n.enabled);
        addTruth(&list, running, n.running);
    } else {
        addTruth(&list, running, n.running);
        addTruth(&list, enabled, n.enabled);
    }
    if (n.kind != NotificationKind::runningChange) return list;
    if (extras.runningChanges) {
        const std::vector<oid> name = instance(runningChangesColumn, n.daemon);
        const u_long v = *extras.runningChanges;
        snmp_varlist_add_variable(&list, name.data(), name.size(), ASN_COUNTER, reinterpret_cast<const u_char*>(&v),
                                  sizeof v);
    }
    for (const auto& [key, value] : extras.data) {
        std::vector<oid> name = instance(dataValueColumn, n.daemon);
        appendString(name, key);
        snmp_varlist_add_variable(&list, name.data(), name.size(), ASN_OCTET_STR,
                                  reinterpret_cast<const u_char*>(value.data()), value.size());
    }
    return list;
}

Notifier::Extras Notifier::extras(const Notification& n) const {
    Extras e;
    if (n.kind != NotificationKind::runningChange) return e;
    const Snmp::String name(n.daemon);
    if (runningChanges_) e.runningChanges = runningChanges_(n.daemon);
    for (const std::string& key : dataKeys_) {
        // Keys the SNMP index cannot carry have no row to name.
        if (key.empty() || key.size() > GenericAgent::maxIndexKeyBytes) continue;
        auto row = mib_->dataTable(GenericAgent::DataTableIndex(name, Snmp::String(key)));
        if (!row || !row->agentStatus()) continue;
        const GenericAgent::AgentVal v = row->val();
        if (!v.empty()) e.data.emplace_back(key, v.stdString());
    }
    return e;
}

void Notifier::historyIs(ModelListener* history, RunningChanges runningChanges) {
    watch_.listenerIs(history);
    runningChanges_ = std::move(runningChanges);
}

Notifier::Notifier(Orbel::Ptr<GenericAgent::DaemonMib> mib, NotifyScheduler::Settings settings, Log log)
    : mib_(std::move(mib)),
      settings_(settings),
      log_(std::move(log)),
      watch_(mib_, [this](const std::string& daemon, const DaemonFlags& flags) { changed(daemon, flags); }) {
    // The scheduler checks them; fail here rather than at start.
    NotifyScheduler check(settings_, nullptr);
}

Notifier::~Notifier() {
    stop();
}

void Notifier::start() {
    if (scheduler_) return;
    scheduler_.emplace(settings_, [this](const Notification& n) { send(n); });
    for (const auto& [name, flags] : watch_.start()) scheduler_->baselineIs(name, flags);
    DEBUGMSGTL((debugToken, "started: hold-down %lld ms, %u per second\n",
                static_cast<long long>(settings_.holddown.count()), settings_.rate));
}

void Notifier::stop() {
    if (tickAlarm_) snmp_alarm_unregister(tickAlarm_);
    if (logAlarm_) snmp_alarm_unregister(logAlarm_);
    tickAlarm_ = logAlarm_ = 0;
    watch_.stop();
    scheduler_.reset();
}

void Notifier::changed(const std::string& daemon, const DaemonFlags& flags) {
    if (!scheduler_) return;
    scheduler_->changed(daemon, flags, NotifyScheduler::Clock::now());
    rearm();
}

void Notifier::send(const Notification& n) {
    DEBUGMSGTL(
        (debugToken, "%s: %s (enabled %d, running %d)\n", n.daemon.c_str(), kindName(n.kind), n.enabled, n.running));
    netsnmp_variable_list* list = varbinds(n, extras(n));
    send_v2trap(list); // copies the list
    snmp_free_varbind(list);
}

void Notifier::rearm() {
    if (tickAlarm_) snmp_alarm_unregister(tickAlarm_);
    tickAlarm_ = 0;
    if (!scheduler_) return;
    if (const auto due = scheduler_->nextDue()) {
        using namespace std::chrono;
        const auto wait = std::max(microseconds(1000), ceil<microseconds>(*due - NotifyScheduler::Clock::now()));
        struct timeval t {};
        t.tv_sec = static_cast<time_t>(wait.count() / 1000000);
        t.tv_usec = static_cast<suseconds_t>(wait.count() % 1000000);
        tickAlarm_ = snmp_alarm_register_hr(t, 0, onTick, this);
    }
    if (scheduler_->queued() > 0 && !logAlarm_) {
        struct timeval second {
            1, 0
        };
        logAlarm_ = snmp_alarm_register_hr(second, SA_REPEAT, onLogTick, this);
    }
}

void Notifier::logQueued() {
    if (!scheduler_ || scheduler_->queued() == 0) {
        if (logAlarm_) snmp_alarm_unregister(logAlarm_);
        logAlarm_ = 0;
        return;
    }
    if (log_)
        log_(std::to_string(scheduler_->queued()) + " notifications queued (at most " + std::to_string(settings_.rate) +
             " sent per second; " + std::to_string(scheduler_->sent()) + " sent so far)");
}

void Notifier::onTick(unsigned int, void* self) {
    auto* n = static_cast<Notifier*>(self);
    n->tickAlarm_ = 0; // fired, and not repeating: the library drops it
    try {
        if (n->scheduler_) n->scheduler_->tick(NotifyScheduler::Clock::now());
        n->rearm();
    } catch (const std::exception& e) {
        snmp_log(LOG_ERR, "velmar notifications: %s\n", e.what());
    } catch (...) {
        snmp_log(LOG_ERR, "velmar notifications: unknown error\n");
    }
}

void Notifier::onLogTick(unsigned int, void* self) {
    try {
        static_cast<Notifier*>(self)->logQueued();
    } catch (...) {
    }
}

} // namespace Agent
