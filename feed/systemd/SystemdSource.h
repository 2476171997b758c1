// The service units of the system manager (systemd) as a launcher source, followed live
// over the system bus with sd-bus. Which units are daemons and how: UnitTracker.h and
// UnitMapping.h; the properties read: UnitProperties.h.
//
//   Feed::SystemdSource::Options o;
//   o.patterns = Feed::parseUnitPatterns("ssh*,getty@*");  // default: every service
//   o.refresh = std::chrono::seconds(10);                  // memory, CPU, tasks; 0: never
//   o.busAddress = "unix:path=/run/dbus/system_bus_socket"; // default: DBUS_SYSTEM_BUS_ADDRESS,
//                                                           // else the standard system bus
//   Feed::StateFeed feed(std::make_unique<Feed::SystemdSource>(o), mib, log);
//
// This file is the shell: it owns the connection and the worker thread, turns the
// tracker's calls into asynchronous D-Bus calls and systemd's answers and signals into
// the tracker's input, and hands over the daemons the tracker says changed.
//   - loadInitial connects on the calling thread without waiting for systemd (matches and
//     Subscribe are asynchronous), and drives the first read for at most initialWait; a
//     systemd that has not answered by then is read by the worker after start().
//   - start() runs the worker, which follows UnitNew, UnitRemoved, PropertiesChanged,
//     UnitFilesChanged and Reloading. When systemd leaves the bus or the connection
//     drops, the last state stays served, the health is "bus lost" and one line says so;
//     once back, every unit is read again. Reconnects after 100 ms, doubling up to 5 s.
//   - every call has a timeout (callTimeout); at most 64 are outstanding; the refresh
//     timer starts no round while the last is unanswered.
//   - when a call has waited more than unresponsiveAfter, the health is "not answering"
//     (one line says so) until systemd answers again, then everything is read again. A
//     Ping every probeInterval while nothing else is outstanding keeps lastRead (when
//     systemd last proved it is alive) fresh and finds a hang on a quiet system.
//
// Threads: the connection is used by one thread at a time: the caller's in loadInitial,
// then the worker's between start() and stop().
//
// Lines it queues (ADDR is the bus address):
//   systemd on ADDR: cannot connect: <error>; serving nothing, trying again          (warning)
//   systemd on ADDR: systemd is not on the bus; waiting for it                       (warning)
//   systemd on ADDR: connected; reading every unit                                   (notice)
//   systemd on ADDR: lost the bus: <error>; serving the last state, reconnecting     (warning)
//   systemd on ADDR: systemd left the bus; serving the last state until it is back   (warning)
//   systemd on ADDR: systemd is back; reading every unit again                       (notice)
//   systemd on ADDR: systemd does not answer (a call waited N s); serving the last state (warning)
//   systemd on ADDR: systemd answers again (N calls timed out, at most M waiting at once); reading every unit again
//   (notice) systemd on ADDR: unit "U" skipped: its name is N bytes, more than 32 ...         (warning, once per unit)
//   systemd on ADDR: <a call that failed>: <error>                                   (warning)
#pragma once

#include "UnitMapping.h"

#include "feed/core/Source.h"
#include "feed/core/SourceSkeleton.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Feed {

class SystemdShell;

class SystemdSource final : public Source {
public:
    struct Options {
        std::vector<std::string> patterns{std::string(defaultUnitPatterns)};
        std::chrono::seconds refresh{10}; // memory, CPU and tasks; 0: never
        std::string busAddress;           // empty: $DBUS_SYSTEM_BUS_ADDRESS, else the system bus
        SourceSettings settings;          // whole command lines or not
        std::chrono::milliseconds callTimeout{10000};
        std::chrono::milliseconds unresponsiveAfter{3000};
        std::chrono::milliseconds probeInterval{5000};
        std::chrono::milliseconds initialWait{2000};
    };

    // The bus address the source would use with these options.
    static std::string busAddressFor(const Options& options);

    // Throws std::invalid_argument for no patterns, a negative refresh or a timing that is
    // not positive, std::system_error when descriptors cannot be had.
    explicit SystemdSource(Options options);
    // Stops the worker and closes the connection.
    ~SystemdSource() override;

    // "systemd on unix:path=/run/dbus/system_bus_socket".
    std::string description() const override { return skeleton_.name(); }
    void loadInitial() override;
    void start() override;
    void stop() override;
    int eventFd() const noexcept override { return skeleton_.eventFd(); }
    std::vector<SourceEvent> take() override { return skeleton_.take(); }
    SourceHealth health() const override { return skeleton_.health(); }
    // Reads every unit again, or tries the bus again at once while it is unreachable.
    void reread() override { reread_.signal(); }

    const std::string& busAddress() const noexcept { return address_; }
    // Calls sent and not answered, and waiting to be sent (for tests and benchmarks).
    std::size_t callsOutstanding() const noexcept { return counts_.outstanding.load(); }
    std::size_t callsQueued() const noexcept { return counts_.queued.load(); }

    struct Counts {
        std::atomic<std::size_t> outstanding{0};
        std::atomic<std::size_t> queued{0};
    };

private:
    void run();

    Options options_;
    std::string address_;
    SourceSkeleton skeleton_; // worker -> loop: events, wake-up, health
    EventFd stop_;            // stop() -> worker
    EventFd reread_;          // reread() -> worker
    std::thread worker_;
    bool loadedInitial_ = false;
    Counts counts_;
    std::unique_ptr<SystemdShell> shell_; // the connection (SystemdShell.h)
};

} // namespace Feed
