#include "SystemdShell.h"

#include "BusDecode.h"

#include "feed/core/FreeMemory.h"

#include <systemd/sd-bus.h>

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <unordered_map>
#include <utility>

namespace Feed {

namespace {

constexpr const char* systemdName = "org.freedesktop.systemd1";
constexpr const char* managerPath = "/org/freedesktop/systemd1";
constexpr const char* managerIface = "org.freedesktop.systemd1.Manager";
constexpr const char* propertiesIface = "org.freedesktop.DBus.Properties";

using Clock = std::chrono::steady_clock;

std::string errnoText(int negativeErrno) {
    return std::strerror(-negativeErrno);
}

std::string errorText(const sd_bus_error* e, int r) {
    if (e && sd_bus_error_is_set(e)) return std::string(e->name) + (e->message ? std::string(": ") + e->message : "");
    return errnoText(r);
}

struct MessageRef {
    sd_bus_message* m = nullptr;
    ~MessageRef() { sd_bus_message_unref(m); }
};

std::uint64_t usec(std::chrono::milliseconds ms) {
    return static_cast<std::uint64_t>(ms.count()) * 1000u;
}

std::uint64_t monotonicUsec() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::uint64_t(ts.tv_sec) * 1000000u + std::uint64_t(ts.tv_nsec) / 1000u;
}

} // namespace

SystemdShell::SystemdShell(const SystemdSource::Options& options, const std::string& address, SourceSkeleton& skeleton,
                           SystemdSource::Counts& counts)
    : options_(options),
      address_(address),
      skeleton_(skeleton),
      counts_(counts),
      tracker_({options.patterns, {options.settings.serveCommandLines}, 64}) {}

bool SystemdShell::connect(bool sayFailure) {
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0) r = sd_bus_set_address(bus, address_.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_set_method_call_timeout(bus, usec(options_.callTimeout));
    if (r >= 0) r = sd_bus_start(bus);
    if (r < 0) {
        sd_bus_unref(bus);
        if (sayFailure) say(Severity::warning, "cannot connect: " + errnoText(r) + "; serving nothing, trying again");
        return false;
    }
    bus_ = bus;
    lost_ = false;
    // Matches first, then Subscribe: nothing that happens in between is missed. All of
    // them are asynchronous: a bus or a systemd that does not answer never holds us up.
    const std::string sender = std::string("type='signal',sender='") + systemdName + "'";
    const std::string managerRule = sender + ",path='" + managerPath + "',interface='" + managerIface + "'";
    const std::string propertiesRule = sender + ",interface='" + propertiesIface +
                                       "',member='PropertiesChanged',path_namespace='/org/freedesktop/systemd1/unit'";
    const std::string ownerRule = std::string(
                                      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
                                  systemdName + "'";
    r = sd_bus_add_match_async(bus_, nullptr, managerRule.c_str(), &SystemdShell::onManagerSignal, nullptr, this);
    if (r >= 0)
        r = sd_bus_add_match_async(bus_, nullptr, propertiesRule.c_str(), &SystemdShell::onPropertiesChanged, nullptr,
                                   this);
    if (r >= 0)
        r = sd_bus_add_match_async(bus_, nullptr, ownerRule.c_str(), &SystemdShell::onNameOwnerChanged, nullptr, this);
    if (r >= 0)
        r = sd_bus_match_signal(bus_, nullptr, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
                                "org.freedesktop.DBus.Local", "Disconnected", &SystemdShell::onDisconnected, this);
    if (r < 0 || !subscribe()) {
        if (sayFailure) say(Severity::warning, "cannot connect: " + errnoText(r) + "; serving nothing, trying again");
        disconnect();
        return false;
    }
    lastAlive_ = Clock::now();
    return true;
}

void SystemdShell::disconnect() {
    if (!bus_) return;
    // Floating slots (replies, matches) go with the bus; their calls are forgotten here.
    sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
    forget();
    present_ = false;
}

void SystemdShell::forget() {
    sent_.clear();
    tracker_.forgetCalls();
    subscribing_ = false;
}

bool SystemdShell::send(sd_bus_message* call, What what, BusCall busCall) {
    int r = sd_bus_call_async(bus_, nullptr, call, &SystemdShell::onReply, this, usec(options_.callTimeout));
    std::uint64_t cookie = 0;
    if (r >= 0) r = sd_bus_message_get_cookie(call, &cookie);
    if (r < 0) return false;
    sent_[cookie] = {what, std::move(busCall), Clock::now()};
    return true;
}

bool SystemdShell::subscribe() {
    MessageRef call;
    int r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, managerPath, managerIface, "Subscribe");
    if (r < 0 || !send(call.m, What::subscribe)) return false;
    subscribing_ = true;
    return true;
}

bool SystemdShell::sendCalls() {
    while (bus_) {
        std::optional<BusCall> c = tracker_.nextCall();
        if (!c) break;
        MessageRef call;
        int r;
        using K = BusCall::Kind;
        if (c->kind == K::listUnits || c->kind == K::listFiles) {
            const bool units = c->kind == K::listUnits;
            r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, managerPath, managerIface,
                                               units ? "ListUnitsByPatterns" : "ListUnitFilesByPatterns");
            if (r >= 0) r = sd_bus_message_append_strv(call.m, nullptr);
            if (r >= 0) {
                // A unit name holds no glob characters, so as a pattern it matches itself only.
                std::vector<char*> patterns;
                if (!c->unit.empty())
                    patterns.push_back(c->unit.data());
                else
                    for (const std::string& p : options_.patterns) patterns.push_back(const_cast<char*>(p.c_str()));
                patterns.push_back(nullptr);
                r = sd_bus_message_append_strv(call.m, patterns.data());
            }
        } else if (c->kind == K::getAll) {
            r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, c->path.c_str(), propertiesIface, "GetAll");
            if (r >= 0) r = sd_bus_message_append(call.m, "s", ifaceName(c->iface));
        } else {
            const std::string name(c->property->name);
            r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, c->path.c_str(), propertiesIface, "Get");
            if (r >= 0) r = sd_bus_message_append(call.m, "ss", ifaceName(c->iface), name.c_str());
        }
        if (r < 0 || !send(call.m, What::tracker, std::move(*c))) {
            lose("sending a call: " + errnoText(r < 0 ? r : -EIO));
            return false;
        }
    }
    return true;
}

void SystemdShell::answered(const sd_bus_error* error) {
    // A timeout is sd-bus's own answer, not systemd's.
    if (error && (sd_bus_error_has_name(error, SD_BUS_ERROR_TIMEOUT) || sd_bus_error_get_errno(error) == ETIMEDOUT)) {
        ++timedOut_;
        return;
    }
    lastAlive_ = Clock::now();
    if (unresponsive_) {
        unresponsive_ = false;
        say(Severity::notice, "systemd answers again (" + std::to_string(timedOut_) + " calls timed out, at most " +
                                  std::to_string(peak_) + " waiting at once); reading every unit again");
        setState(SourceState::ok, true);
        tracker_.resync();
    }
}

int SystemdShell::onReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SystemdShell*>(userdata);
    std::uint64_t cookie = 0;
    if (sd_bus_message_get_reply_cookie(m, &cookie) < 0) return 0;
    auto it = self->sent_.find(cookie);
    if (it == self->sent_.end()) return 0;
    const Sent sent = it->second;
    self->sent_.erase(it);
    const sd_bus_error* error = sd_bus_message_get_error(m);
    self->answered(error);
    UnitTracker& t = self->tracker_;
    if (sent.what == What::probe) return 0;
    if (sent.what == What::subscribe) {
        self->subscribing_ = false;
        if (!error || sd_bus_error_has_name(error, "org.freedesktop.systemd1.AlreadySubscribed")) {
            if (!self->present_) {
                self->present_ = true;
                self->setState(self->tracker_.synced() ? SourceState::ok : SourceState::notLoaded, true);
                t.resync();
            }
        } else if (sd_bus_error_has_name(error, SD_BUS_ERROR_TIMEOUT)) {
            self->subscribe(); // still waiting for it: ask again
        } else {
            // Not on the bus (yet): NameOwnerChanged says when it is.
            self->say(Severity::warning, "systemd is not on the bus; waiting for it");
            self->setState(SourceState::busLost, false);
        }
        return 0;
    }
    if (error) {
        // A unit that went meanwhile fails its reads: UnitRemoved follows. A failed list is said.
        const BusCall::Kind k = sent.call.kind;
        if (k == BusCall::Kind::listUnits || k == BusCall::Kind::listFiles)
            self->say(Severity::warning,
                      std::string(k == BusCall::Kind::listUnits ? "ListUnitsByPatterns" : "ListUnitFilesByPatterns") +
                          ": " + errorText(error, -EIO));
        t.failed(sent.call.token);
        return 0;
    }
    if (int r = self->readAnswer(m, sent.call); r < 0) {
        self->say(Severity::warning, std::string("cannot read the answer to a call: ") + errnoText(r));
        t.failed(sent.call.token);
    }
    return 0;
}

int SystemdShell::readAnswer(sd_bus_message* m, const BusCall& call) {
    int r = 0;
    switch (call.kind) {
        case BusCall::Kind::listUnits: {
            std::vector<ListedUnit> units;
            if ((r = readListedUnits(m, units)) >= 0) tracker_.listedUnits(call.token, units);
            return r;
        }
        case BusCall::Kind::listFiles: {
            std::vector<ListedFile> files;
            if ((r = readListedFiles(m, files)) >= 0) tracker_.listedFiles(call.token, files);
            return r;
        }
        case BusCall::Kind::getAll: {
            PropertyValues values;
            if ((r = readPropertyDict(m, call.iface, values)) >= 0) tracker_.properties(call.token, values);
            return r;
        }
        case BusCall::Kind::get: {
            PropertyValues values;
            bool matched = false;
            if ((r = readPropertyValue(m, *call.property, values.values, matched)) < 0) return r;
            if (matched) values.present.push_back(call.property);
            tracker_.properties(call.token, values);
            return r;
        }
    }
    return r;
}

int SystemdShell::onManagerSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SystemdShell*>(userdata);
    self->answered(nullptr);
    if (!self->present_) return 0;
    const char* member = sd_bus_message_get_member(m);
    if (!member) return 0;
    const std::string_view name(member);
    UnitTracker& t = self->tracker_;
    if (name == "UnitNew" || name == "UnitRemoved") {
        const char *id = nullptr, *path = nullptr;
        if (sd_bus_message_read(m, "so", &id, &path) < 0) return 0;
        if (name == "UnitNew")
            t.unitNew(id, path);
        else
            t.unitRemoved(id, path);
    } else if (name == "UnitFilesChanged") {
        t.unitFilesChanged();
    } else if (name == "Reloading") {
        int active = 0;
        if (sd_bus_message_read(m, "b", &active) >= 0) t.reloading(active != 0);
    }
    return 0;
}

int SystemdShell::onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SystemdShell*>(userdata);
    self->answered(nullptr);
    const char* path = sd_bus_message_get_path(m);
    const char* iface = nullptr;
    if (!path || sd_bus_message_read(m, "s", &iface) < 0) return 0;
    const std::string_view i(iface);
    UnitIface which;
    if (i == ifaceName(UnitIface::unit))
        which = UnitIface::unit;
    else if (i == ifaceName(UnitIface::service))
        which = UnitIface::service;
    else
        return 0;
    PropertyValues changed;
    std::vector<std::string> invalidated;
    if (readPropertyDict(m, which, changed) < 0 || readStrings(m, invalidated) < 0) return 0;
    self->tracker_.propertiesChanged(path, which, changed, invalidated);
    return 0;
}

int SystemdShell::onNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SystemdShell*>(userdata);
    const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0 || std::strcmp(name, systemdName) != 0) return 0;
    if (newOwner && *newOwner) {
        if (self->present_) {
            self->tracker_.resync(); // a new owner without the old one leaving: read again
        } else if (!self->subscribing_) {
            self->say(Severity::notice, "systemd is back; reading every unit again");
            self->subscribe();
        }
    } else if (self->present_) {
        // What was asked of the old manager will not be answered usefully; ask the new one.
        self->present_ = false;
        self->forget();
        self->unresponsive_ = false;
        self->setState(SourceState::busLost, false);
        self->say(Severity::warning, "systemd left the bus; serving the last state until it is back");
    }
    return 0;
}

int SystemdShell::onDisconnected(sd_bus_message*, void* userdata, sd_bus_error*) {
    static_cast<SystemdShell*>(userdata)->lost_ = true;
    return 0;
}

void SystemdShell::lose(const std::string& why) {
    say(Severity::warning, "lost the bus: " + why + "; serving the last state, reconnecting");
    setState(SourceState::busLost, false);
    unresponsive_ = false;
    disconnect();
}

void SystemdShell::watchTimes() {
    const auto now = Clock::now();
    const auto& o = options_;
    // systemd makes a list of unit files in one go, and answers nothing else meanwhile: it
    // may take seconds with many files. While one is asked, only a much longer wait counts.
    Clock::time_point oldest = now;
    bool listingFiles = false;
    for (const auto& [cookie, sent] : sent_) {
        oldest = std::min(oldest, sent.at);
        if (sent.what == What::tracker && sent.call.kind == BusCall::Kind::listFiles &&
            now - sent.at < o.unresponsiveAfter * 10)
            listingFiles = true;
    }
    if (listingFiles) oldest = now;
    peak_ = std::max(peak_, sent_.size());
    if (!unresponsive_ && now - oldest > o.unresponsiveAfter) {
        unresponsive_ = true;
        timedOut_ = 0;
        peak_ = sent_.size();
        const auto waited = std::chrono::duration_cast<std::chrono::seconds>(now - oldest).count();
        say(Severity::warning,
            "systemd does not answer (a call waited " + std::to_string(waited) + " s); serving the last state");
        setState(SourceState::unresponsive, present_);
    }
    // A quiet systemd is asked whether it is still there.
    if (sent_.empty() && now - lastAlive_ >= o.probeInterval) {
        MessageRef call;
        int r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, managerPath, "org.freedesktop.DBus.Peer",
                                               "Ping");
        if (r >= 0) send(call.m, What::probe);
    }
}

bool SystemdShell::step() {
    if (!bus_) return false;
    for (;;) {
        int r = sd_bus_process(bus_, nullptr);
        if (r < 0) {
            lose(errnoText(r));
            return false;
        }
        if (lost_ || !sd_bus_is_open(bus_)) {
            lose("the connection was closed");
            return false;
        }
        if (!sendCalls()) return false;
        if (r == 0) break;
    }
    // One batch per call; a daemon that stopped and started again is in two, in turn. What
    // one step read counts as one read, however many batches it makes.
    bool counted = false;
    while (std::optional<ChangedDaemons> changed = tracker_.flush()) {
        const bool first = !skeleton_.health().reloads;
        if (!std::exchange(counted, true))
            skeleton_.updateHealth([&](SourceHealth& h) {
                ++h.reloads;
                if (!unresponsive_ && present_) h.state = SourceState::ok;
            });
        const bool big = changed->size() > 100;
        skeleton_.post(std::move(*changed));
        if (big && !first) releaseFreeMemory();
    }
    for (auto& [severity, line] : tracker_.takeLines()) say(severity, line);
    const auto alive = std::chrono::system_clock::now() - (Clock::now() - lastAlive_);
    const std::size_t skipped = tracker_.skippedNow();
    skeleton_.updateHealth([&](SourceHealth& h) {
        h.lastRead = std::chrono::time_point_cast<std::chrono::system_clock::duration>(alive);
        h.skippedNow = skipped;
        h.skippedNote = !skipped
                            ? std::string()
                            : std::to_string(skipped) + (skipped == 1 ? " unit" : " units") + " skipped (name over " +
                                  std::to_string(GenericAgent::maxDaemonNameBytes) + " bytes)";
    });
    watchTimes();
    counts_.outstanding = sent_.size();
    counts_.queued = tracker_.queued();
    return sendCalls();
}

int SystemdShell::timeoutMs() const {
    if (!bus_) return -1;
    using namespace std::chrono;
    const auto& o = options_;
    const auto now = Clock::now();
    // Wake for the next probe (sent only while nothing else is), or to notice a call
    // waiting too long; never for a moment already past, which would spin.
    Clock::time_point at = now + seconds(60);
    if (sent_.empty()) at = std::max(now, lastAlive_ + o.probeInterval);
    for (const auto& [cookie, sent] : sent_) {
        if (unresponsive_) break;
        for (auto limit : {o.unresponsiveAfter, o.unresponsiveAfter * 10}) {
            const auto due = sent.at + limit + milliseconds(1);
            if (due > now) at = std::min(at, due);
        }
    }
    long ms = std::max<long>(duration_cast<milliseconds>(at - now).count() + 1, 0);
    std::uint64_t busAt = 0;
    if (sd_bus_get_timeout(bus_, &busAt) >= 0 && busAt != UINT64_MAX) {
        const std::uint64_t t = monotonicUsec();
        ms = std::min<long>(ms, busAt <= t ? 0 : static_cast<long>((busAt - t + 999) / 1000));
    }
    return static_cast<int>(std::min<long>(ms, 60'000));
}

} // namespace Feed
