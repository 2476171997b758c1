// The service units of the system manager (systemd) as a launcher source, followed live
// over the system bus with sd-bus. Which units count and how a unit becomes a daemon:
// UnitMapping.h.
//
//   Feed::SystemdSource::Options o;
//   o.patterns = Feed::parseUnitPatterns("ssh*,getty@*");  // default: every service
//   o.refresh = std::chrono::seconds(10);                  // memory, CPU, tasks; 0: never
//   o.busAddress = "unix:path=/run/dbus/system_bus_socket"; // default: DBUS_SYSTEM_BUS_ADDRESS,
//                                                           // else the standard system bus
//   Feed::StateFeed feed(std::make_unique<Feed::SystemdSource>(o), mib, log);
//
// What it does:
//   - loadInitial connects on the calling thread, calls the manager's Subscribe, lists
//     every loaded unit matching the patterns (ListUnitsByPatterns), reads the properties
//     of their Unit and Service interfaces and queues them as one batch. When the bus or
//     systemd cannot be reached it queues one line saying so and returns: the worker
//     keeps trying, and says when it has connected.
//   - start() runs a worker thread that owns the bus connection from then on and follows
//     the manager's signals: UnitNew and UnitRemoved (units that come and go),
//     PropertiesChanged of the units' Unit and Service interfaces (state, PIDs, results,
//     timestamps), UnitFilesChanged (enabled or disabled: the unit file states are read
//     again) and Reloading (after a daemon-reload everything is read again). When systemd
//     leaves the bus (daemon-reexec) or the bus connection drops, the last state stays
//     served, the health is "bus lost" and one line says so; once systemd (or the bus) is
//     back every unit is read again and one line says that too. The connection is retried
//     after 100 ms, doubling up to 5 s.
//   - memory, CPU time and tasks have no change signal: every `refresh` the worker reads
//     them for each unit that is not inactive (and whenever a unit's ActiveState changes).
//   - the loop is handed only the daemons that differ from what the source handed it last.
//     A unit is handed over once all the properties asked for it have arrived; the units
//     of a full read (at start, after a reload, re-exec or reconnect) go over as one batch.
//
// Threads: the bus connection is used by one thread at a time: the caller's in loadInitial,
// then the worker's between start() and stop(). Replies and signals are processed in the
// order systemd sent them, so that a reply never overwrites a newer signal. Once connected
// (AddMatch and Subscribe are the only calls that wait for their reply) every call on the
// bus is asynchronous, at most 64 outstanding (within the system bus's per-connection
// limit), so the worker keeps reading signals while units are read, and sees a stop() at once.
//
// Lines it queues (ADDR is the bus address):
//   systemd on ADDR: cannot connect: <error>; serving nothing, trying again          (warning)
//   systemd on ADDR: systemd is not on the bus; waiting for it                       (warning)
//   systemd on ADDR: connected; reading every unit                                   (notice)
//   systemd on ADDR: back on the bus; reading every unit again                       (notice)
//   systemd on ADDR: lost the bus: <error>; serving the last state, reconnecting     (warning)
//   systemd on ADDR: systemd left the bus; serving the last state until it is back   (warning)
//   systemd on ADDR: systemd is back; reading every unit again                       (notice)
//   systemd on ADDR: unit "U" skipped: its name is N bytes, more than 32 ...         (warning, once per unit)
//   systemd on ADDR: <a call that failed>: <error>                                   (warning)
#pragma once

#include "UnitMapping.h"

#include "feed/core/EventFd.h"
#include "feed/core/Source.h"
#include "feed/core/SourceSkeleton.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Feed {

class SystemdSource final : public Source {
public:
    struct Options {
        std::vector<std::string> patterns{std::string(defaultUnitPatterns)};
        std::chrono::seconds refresh{10};   // memory, CPU and tasks; 0: never
        std::string busAddress;             // empty: $DBUS_SYSTEM_BUS_ADDRESS, else the system bus
    };

    // The bus address the source would use with these options.
    static std::string busAddressFor(const Options& options);

    // Throws std::invalid_argument for no patterns or a negative refresh,
    // std::system_error when descriptors cannot be had.
    explicit SystemdSource(Options options);
    // Stops the worker and closes the connection.
    ~SystemdSource() override;

    // "systemd on unix:path=/run/dbus/system_bus_socket".
    std::string description() const override;
    void loadInitial() override;
    void start() override;
    void stop() override;
    int eventFd() const noexcept override { return skeleton_.eventFd(); }
    std::vector<SourceEvent> take() override;
    SourceHealth health() const override;
    // Reads every unit again, or tries the bus again at once while it is unreachable.
    void reread() override { reread_.signal(); }

    const std::string& busAddress() const noexcept { return address_; }
    // Daemons handed over (those being served, once taken), and matching units not served
    // because their name is too long for an SNMP index.
    std::size_t daemons() const noexcept { return daemons_.load(); }
    std::size_t skippedUnits() const noexcept { return skipped_.load(); }
    // Connected to the bus with systemd on it.
    bool connected() const noexcept { return connected_.load(); }

    class Worker;                       // the bus side (SystemdSource.cpp)

private:
    friend class Worker;
    void run();
    void post(SourceEvent event);
    void say(Severity severity, const std::string& text);

    Options options_;
    std::string address_;
    SourceSkeleton skeleton_;           // worker -> loop: events, wake-up, health
    EventFd stop_;                      // stop() -> worker
    EventFd reread_;                    // reread() -> worker
    std::thread worker_;
    bool loadedInitial_ = false;
    bool posted_ = false;               // a batch of daemons has been queued
    std::unique_ptr<Worker> bus_;       // the connection and what is known of the units

    std::atomic<std::size_t> daemons_{0};
    std::atomic<std::size_t> skipped_{0};
    std::atomic<bool> connected_{false};
};

} // namespace Feed
