// velmar-bench-history: what the daemon history costs and what it sees that notifications
// coalesce away.
//
//   memory  a model of --daemons daemons (default 10,000), heard by a ModelWatch that tells
//           a DaemonHistory: the history's bytes per daemon, from its own count and from
//           the heap (mallinfo2 before and after), at start and after a churn that removes
//           and adds a tenth of the daemons; the watch's own heap bytes per daemon beside it
//           (the notifier has that watch anyway: the history adds only its records)
//   storm   one daemon's running flag flipped --flips times (default 100), every 100 ms of
//           a test clock, each flip applied (the activity loop run) before the next, with
//           the notification scheduler (1 s hold-down) on the same watch: the history's
//           count against the notifications sent, and whether the last one sent carries
//           the final state
//
// Output: one JSON object on standard output.
//   velmar-bench-history --daemons 10000 --flips 100
#include "agent/history/DaemonHistory.h"
#include "agent/notify/NotifyScheduler.h"

#include "orbel/Activity.h"

#include <malloc.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using GenericAgent::Config;
using GenericAgent::Status;

std::size_t heapInUse() {
    return mallinfo2().uordblks;
}

struct Daemon {
    Orbel::Ptr<Config> config;
    Orbel::Ptr<Status> status;
};

Daemon add(GenericAgent::DaemonMib& mib, const std::string& name, bool running) {
    Daemon d{Config::configFactory(Orbel::Name(name)), Status::statusFactory(Orbel::Name(name))};
    d.config->enabledIs(true);
    d.status->runningIs(running);
    mib.enabledTableIs(Snmp::String(name), d.config);
    mib.runningTableIs(Snmp::String(name), d.status);
    return d;
}

// A name of 8 to 24 bytes, like the daemons and units of a real machine.
std::string name(std::size_t i) {
    std::string n = "daemon-" + std::to_string(i);
    n.append(i % 17, 'x');
    return n;
}

} // namespace

int main(int argc, char** argv) {
    std::size_t daemons = 10000, flips = 100;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i], v = argv[i + 1];
        if (a == "--daemons")
            daemons = std::stoul(v);
        else if (a == "--flips")
            flips = std::stoul(v);
        else {
            std::cerr << "velmar-bench-history: unknown argument " << a << "\n";
            return 2;
        }
    }

    // --- memory
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    std::vector<Daemon> model;
    for (std::size_t i = 0; i < daemons; ++i) model.push_back(add(*mib, name(i), true));
    Orbel::ActivityLoop::instance().runPending();

    const std::size_t h0 = heapInUse();
    auto* watch = new Agent::ModelWatch(mib, nullptr);
    watch->start();
    const std::size_t h1 = heapInUse();
    watch->stop();
    delete watch;

    auto* history = new Agent::DaemonHistory(mib, [] {
        return Agent::DaemonHistory::Stamp{1, std::chrono::system_clock::now()};
    });
    const std::size_t h3 = heapInUse();
    history->baselineIs([&] {
        std::vector<std::pair<std::string, Agent::DaemonFlags>> all;
        for (auto it = mib->enabledTable().begin(); !it.isEnd(); ++it)
            all.emplace_back(std::string(it.row()->agentName().view()), Agent::DaemonFlags{true, true, true});
        return all;
    }());
    const std::size_t h4 = heapInUse();
    const double atStart = double(history->bytes()) / double(history->size());
    const double atStartHeap = double(h4 - h3) / double(history->size());
    const double watchHeap = double(h1 - h0) / double(daemons);

    // Churn: a tenth of the daemons go, as many new ones come, told as the watch tells.
    {
        Agent::ModelWatch w(mib, nullptr);
        w.start();
        w.listenerIs(history);
        for (std::size_t i = 0; i < daemons; i += 10) {
            mib->enabledTableDel(Snmp::String(name(i)));
            mib->runningTableDel(Snmp::String(name(i)));
        }
        for (std::size_t i = daemons; i < daemons + daemons / 10; ++i) model.push_back(add(*mib, name(i), true));
        Orbel::ActivityLoop::instance().runPending();
        history->first(); // a walk settles what came
        w.stop();
    }
    const double afterChurn = double(history->bytes()) / double(history->size());
    const std::size_t served = mib->enabledTable().size();
    const std::size_t rows = history->size();
    delete history;

    // --- storm
    auto stormMib = GenericAgent::daemonMibFactory("daemonMIB");
    Daemon bgpd = add(*stormMib, "bgpd", true);
    using Clock = Agent::NotifyScheduler::Clock;
    Clock::time_point now{};
    std::vector<Agent::Notification> sent;
    Agent::NotifyScheduler scheduler(
        {1000ms, 100}, [&](const Agent::Notification& n) { sent.push_back(n); }, now);
    Agent::DaemonHistory stormHistory(stormMib, [&] {
        return Agent::DaemonHistory::Stamp{static_cast<std::uint32_t>((now - Clock::time_point{}) / 10ms), {}};
    });
    Agent::ModelWatch stormWatch(
        stormMib, [&](const std::string& d, const Agent::DaemonFlags& f) { scheduler.changed(d, f, now); });
    stormWatch.listenerIs(&stormHistory);
    for (const auto& [n, f] : stormWatch.start()) scheduler.baselineIs(n, f);
    bool running = true;
    for (std::size_t i = 0; i < flips; ++i) {
        now += 100ms;
        scheduler.tick(now);
        running = !running;
        bgpd.status->runningIs(running);
        Orbel::ActivityLoop::instance().runPending(); // applied before the next flip
    }
    for (int i = 0; i < 30 && scheduler.nextDue(); ++i) {
        now = std::max(now, *scheduler.nextDue());
        scheduler.tick(now);
    }
    const auto* r = stormHistory.find(Snmp::String("bgpd"));
    const bool finalLast = !sent.empty() && sent.back().running == running;
    stormWatch.stop();

    std::printf(
        "{\"daemons\": %zu, \"history_bytes_per_daemon\": %.1f, \"history_heap_bytes_per_daemon\": %.1f, "
        "\"after_churn_daemons\": %zu, \"after_churn_rows\": %zu, \"after_churn_bytes_per_daemon\": %.1f, "
        "\"record_bytes\": %zu, \"watch_heap_bytes_per_daemon\": %.1f, "
        "\"storm_flips\": %zu, \"storm_running_changes\": %u, \"storm_notifications\": %zu, "
        "\"storm_final_state_last\": %s}\n",
        daemons, atStart, atStartHeap, served, rows, afterChurn, sizeof(Agent::DaemonHistory::Record), watchHeap, flips,
        r ? r->runningChanges : 0u, sent.size(), finalLast ? "true" : "false");
    return 0;
}
