// The systemd source's connection: sd-bus, the calls on the wire and the tracker they
// feed (see SystemdSource.h for what it does and says). Internal to the source.
#pragma once

#include "SystemdSource.h"
#include "UnitTracker.h"

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_map>

namespace Feed {

class SystemdShell {
public:
    // Keeps references to all four; they outlive it.
    SystemdShell(const SystemdSource::Options& options, const std::string& address, SourceSkeleton& skeleton,
                 SystemdSource::Counts& counts);
    ~SystemdShell() { disconnect(); }
    SystemdShell(const SystemdShell&) = delete;
    SystemdShell& operator=(const SystemdShell&) = delete;

    // Connects and asks (without waiting) for the signals and Subscribe. False, with a line
    // said the first time, when the bus cannot be had.
    bool connect(bool sayFailure);
    void disconnect();
    bool hasBus() const noexcept { return bus_ != nullptr; }
    // Processes what the bus has, sends what the tracker asks, hands over what changed,
    // watches for calls that wait too long. False when the connection is lost.
    bool step();
    void refresh() {
        if (bus_ && present_) tracker_.refresh();
    }
    void resyncNow() {
        if (bus_ && present_) tracker_.resync();
    }
    bool synced() const noexcept { return tracker_.synced(); }
    int fd() const { return bus_ ? sd_bus_get_fd(bus_) : -1; }
    short events() const { return bus_ ? static_cast<short>(sd_bus_get_events(bus_)) : 0; }
    // Milliseconds until the shell wants to run again (a timeout, a probe); -1: not before I/O.
    int timeoutMs() const;

private:
    enum class What { tracker, subscribe, probe };
    struct Sent {
        What what = What::tracker;
        BusCall call; // for What::tracker
        std::chrono::steady_clock::time_point at;
    };

    static int onReply(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onManagerSignal(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onDisconnected(sd_bus_message*, void* userdata, sd_bus_error*);

    bool send(sd_bus_message* call, What what, BusCall busCall = {});
    int readAnswer(sd_bus_message* m, const BusCall& call);
    bool sendCalls();
    bool subscribe();
    void answered(const sd_bus_error* error);
    void forget();
    void watchTimes();
    void lose(const std::string& why);
    void setState(SourceState state, bool connected) {
        skeleton_.updateHealth([&](SourceHealth& h) {
            h.state = state;
            h.connected = connected;
            h.launcher = "systemd";
        });
    }
    void say(Severity s, const std::string& text) { skeleton_.say(s, text); }

    const SystemdSource::Options& options_;
    const std::string& address_;
    SourceSkeleton& skeleton_;
    SystemdSource::Counts& counts_;
    UnitTracker tracker_;
    sd_bus* bus_ = nullptr;
    bool lost_ = false;         // the connection dropped during processing
    bool present_ = false;      // systemd answered Subscribe
    bool unresponsive_ = false; // a call has waited too long; said
    bool subscribing_ = false;
    std::size_t timedOut_ = 0;                     // calls timed out since systemd stopped answering
    std::size_t peak_ = 0;                         // the most calls waiting at once since then
    std::unordered_map<std::uint64_t, Sent> sent_; // by cookie
    std::chrono::steady_clock::time_point lastAlive_ = std::chrono::steady_clock::now();
};

} // namespace Feed
