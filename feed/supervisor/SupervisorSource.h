// The processes of a supervisord as a launcher source, read over its XML-RPC interface
// and woken by velmar-supervisor-events, the event listener this project ships. Which
// processes count and how a process becomes a daemon: ProcessMapping.h.
//
//   Feed::SupervisorSource::Options o;
//   o.endpoint = Feed::SupervisorEndpoint::parse("/run/supervisor.sock");
//   o.eventsSocket = "/run/velmar-snmp-agent/supervisor-events.sock";  // empty: poll only
//   Feed::StateFeed feed(std::make_unique<Feed::SupervisorSource>(o), mib, log);
//
// What it does:
//   - loadInitial reads every process on the calling thread (getAllConfigInfo and
//     getAllProcessInfo, made at once on two connections) and queues them as one batch.
//     When supervisord cannot be reached it queues one line saying so and returns: the
//     worker keeps trying.
//   - start() binds the events socket (a Unix datagram socket; a stale socket file at the
//     path is replaced) and runs a worker thread that makes every call from then on. The
//     listener sends one datagram per supervisord event (EventNote.h): for a process that
//     changed state the worker reads that process again (getProcessInfo); for a group
//     added or removed (`supervisorctl update`), or a listener that has just started or is
//     stopping (supervisord stops or restarts: the read finds out which), every process. Datagrams that arrive together
//     are handled as one round, each process read once.
//   - for a supervisord on a Unix socket (on this machine), the exit of each process is
//     watched with a pidfd (up to 512 processes): the process is read at once, and every
//     20 ms until supervisord reports it exited (supervisord reaps its children once per
//     turn of its loop, up to a second apart, and each read wakes it to do so).
//   - while no datagram has come for `listenerQuiet` (the listener also forwards
//     supervisord's TICK_5), the worker reads every process every `refresh` instead.
//   - on top of either, every process is read again every `fullRead`.
//   - a call that cannot connect, or a supervisord shutting down or restarting, leaves the
//     last state served; the health is "bus lost" and one line says so. A call that
//     connects but gets no answer in time leaves the health "not answering". The worker
//     tries again after 100 ms, doubling up to 5 s (or refresh, when shorter), and at once
//     when the listener is heard; once supervisord answers every process
//     is read again (a restarted supervisord is a reconnect: nothing goes that is still
//     there) and one line says so.
//   - the loop is handed only the daemons that differ from what the source handed it last
//     (ProcessTracker); a process that supervisord no longer has goes.
//
// Threads: the client is used by the caller in loadInitial, then by the worker only.
//
// Lines it queues (ADDR is the endpoint, unix:///run/supervisor.sock or http://HOST:PORT/RPC2):
//   supervisord on ADDR: cannot connect: <error>; serving nothing, trying again          (warning)
//   supervisord on ADDR: connected; N processes                                         (notice)
//   supervisord on ADDR: lost: <error>; serving the last state, reconnecting            (warning)
//   supervisord on ADDR: not answering: <error>; serving the last state, trying again   (warning)
//   supervisord on ADDR: back; reading every process again                              (notice)
//   supervisord on ADDR: listener heard; following its events                           (info)
//   supervisord on ADDR: listener silent for 16 s; reading every process every 10 s     (notice)
//   supervisord on ADDR: process "P" skipped: its name is N bytes, more than 32 ...     (warning, once per name)
//   supervisord on ADDR: <call>: <what was wrong with the reply>; serving the last state (warning)
#pragma once

#include "ProcessTracker.h"
#include "SupervisorClient.h"

#include "feed/core/EventFd.h"
#include "feed/core/Source.h"
#include "feed/core/SourceSkeleton.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace Feed {

class SupervisorSource final : public Source {
public:
    struct Options {
        SupervisorEndpoint endpoint;
        std::string username; // basic authentication; empty: none
        std::string password;
        std::vector<std::string> patterns{"*"}; // on the process name or group:name
        CommandShown command = CommandShown::executable;
        std::string eventsSocket;                   // where the listener sends; empty: none
        std::chrono::milliseconds refresh{10'000};  // polling while the listener is silent
        std::chrono::milliseconds fullRead{60'000}; // every process, whatever else happens
        std::chrono::milliseconds listenerQuiet{16'000};
        std::chrono::milliseconds callTimeout{5'000};
    };

    // The default socket of supervisord's [unix_http_server] on Debian.
    static constexpr const char* defaultSocket = "/var/run/supervisor.sock";

    // Throws std::invalid_argument for no patterns, a refresh or fullRead not above 0, or an
    // events socket path too long for a Unix socket; std::system_error when descriptors
    // cannot be had.
    explicit SupervisorSource(Options options);
    ~SupervisorSource() override;

    // "supervisord on unix:///run/supervisor.sock".
    std::string description() const override { return skeleton_.name(); }
    void loadInitial() override;
    void start() override;
    void stop() override;
    int eventFd() const noexcept override { return skeleton_.eventFd(); }
    std::vector<SourceEvent> take() override { return skeleton_.take(); }
    SourceHealth health() const override { return skeleton_.health(); }
    // Reads every process again, or tries supervisord again at once while it is unreachable.
    void reread() override { reread_.signal(); }

    const Options& options() const noexcept { return options_; }
    // Daemons handed over.
    std::size_t daemons() const noexcept { return daemons_.load(); }
    // The listener has been heard within listenerQuiet.
    bool listening() const noexcept { return listening_.load(); }

    class Worker; // the calls and what is known of the processes (SupervisorSource.cpp)

private:
    void run();

    Options options_;
    SourceSkeleton skeleton_;
    EventFd stop_;    // stop() -> worker
    EventFd reread_;  // reread() -> worker
    int events_ = -1; // the events socket, bound by start()
    std::thread worker_;
    bool loadedInitial_ = false;
    std::unique_ptr<Worker> work_;
    std::atomic<std::size_t> daemons_{0};
    std::atomic<bool> listening_{false};
};

} // namespace Feed
