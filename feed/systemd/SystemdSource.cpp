#include "SystemdSource.h"

#include <systemd/sd-bus.h>

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>
#include <unordered_map>
#include <unordered_set>

namespace Feed {

namespace {

constexpr const char* systemdName = "org.freedesktop.systemd1";
constexpr const char* managerPath = "/org/freedesktop/systemd1";
constexpr const char* managerIface = "org.freedesktop.systemd1.Manager";
constexpr const char* unitIface = "org.freedesktop.systemd1.Unit";
constexpr const char* serviceIface = "org.freedesktop.systemd1.Service";
constexpr const char* propertiesIface = "org.freedesktop.DBus.Properties";
constexpr const char* defaultSystemBus = "unix:path=/run/dbus/system_bus_socket";

constexpr std::size_t maxOutstanding = 64;          // the system bus allows 128 pending replies
constexpr std::uint64_t callTimeoutUsec = 25'000'000;
constexpr std::chrono::milliseconds firstRetry{100};
constexpr std::chrono::milliseconds lastRetry{5000};
constexpr std::chrono::seconds initialLoadLimit{60};

using Clock = std::chrono::steady_clock;

std::string errnoText(int negativeErrno) { return std::strerror(-negativeErrno); }

std::string errorText(const sd_bus_error* e, int r) {
    if (e && sd_bus_error_is_set(e)) return std::string(e->name) + (e->message ? std::string(": ") + e->message : "");
    return errnoText(r);
}

struct MessageRef {
    sd_bus_message* m = nullptr;
    ~MessageRef() { sd_bus_message_unref(m); }
};

struct ErrorRef {
    sd_bus_error e = SD_BUS_ERROR_NULL;
    ~ErrorRef() { sd_bus_error_free(&e); }
};

// Reads the variant at m's position with read(m) when its contents have signature sig,
// and skips it otherwise (a property of an unexpected type is left as it was).
template <typename Read>
int inVariant(sd_bus_message* m, const char* sig, Read read) {
    char type;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0) return r;
    if (type != SD_BUS_TYPE_VARIANT || !contents || std::strcmp(contents, sig) != 0)
        return sd_bus_message_skip(m, "v");
    if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, sig)) < 0) return r;
    if ((r = read(m)) < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readString(sd_bus_message* m, std::string& to) {
    return inVariant(m, "s", [&](sd_bus_message* v) {
        const char* s = nullptr;
        int r = sd_bus_message_read_basic(v, 's', &s);
        if (r >= 0) to = s ? s : "";
        return r;
    });
}

template <char Type, typename T>
int readNumber(sd_bus_message* m, T& to) {
    const char sig[2] = {Type, 0};
    return inVariant(m, sig, [&](sd_bus_message* v) {
        T value{};
        int r = sd_bus_message_read_basic(v, Type, &value);
        if (r >= 0) to = value;
        return r;
    });
}

int readStrv(sd_bus_message* v, std::vector<std::string>& to) {
    char** list = nullptr;
    int r = sd_bus_message_read_strv(v, &list);
    if (r < 0) return r;
    to.clear();
    for (char** p = list; p && *p; ++p) {
        to.emplace_back(*p);
        std::free(*p);
    }
    std::free(list);
    return r;
}

// ExecStart: a(sasbttttuii), the command lines; the first one's argv is kept.
int readExecStart(sd_bus_message* m, std::vector<std::string>& to) {
    return inVariant(m, "a(sasbttttuii)", [&](sd_bus_message* v) {
        int r = sd_bus_message_enter_container(v, SD_BUS_TYPE_ARRAY, "(sasbttttuii)");
        if (r < 0) return r;
        std::vector<std::string> first;
        bool haveFirst = false;
        while ((r = sd_bus_message_enter_container(v, SD_BUS_TYPE_STRUCT, "sasbttttuii")) > 0) {
            const char* path = nullptr;
            if ((r = sd_bus_message_read_basic(v, 's', &path)) < 0) return r;
            std::vector<std::string> argv;
            if ((r = readStrv(v, argv)) < 0) return r;
            if ((r = sd_bus_message_skip(v, "bttttuii")) < 0) return r;
            if ((r = sd_bus_message_exit_container(v)) < 0) return r;
            if (!haveFirst) {
                first = std::move(argv);
                if (first.empty() && path) first.emplace_back(path);
                haveFirst = true;
            }
        }
        if (r < 0) return r;
        to = std::move(first);
        return sd_bus_message_exit_container(v);
    });
}

// What reading one property changed in a unit.
enum PropertyEffect : unsigned {
    noEffect = 0,
    activeStateChanged = 1,
};

// Reads the property name (its value a variant at m's position) into u; properties the
// mapping does not use are skipped.
int readProperty(sd_bus_message* m, std::string_view n, UnitInfo& u, unsigned& effects) {
    if (n == "Id") return readString(m, u.id);
    if (n == "Description") return readString(m, u.description);
    if (n == "LoadState") return readString(m, u.loadState);
    if (n == "ActiveState") {
        std::string before = u.activeState;
        int r = readString(m, u.activeState);
        if (u.activeState != before) effects |= activeStateChanged;
        return r;
    }
    if (n == "SubState") return readString(m, u.subState);
    if (n == "UnitFileState") return readString(m, u.unitFileState);
    if (n == "UnitFilePreset") return readString(m, u.unitFilePreset);
    if (n == "FragmentPath") return readString(m, u.fragmentPath);
    if (n == "DropInPaths")
        return inVariant(m, "as", [&](sd_bus_message* v) { return readStrv(v, u.dropInPaths); });
    if (n == "ActiveEnterTimestamp") return readNumber<'t'>(m, u.activeEnterTimestamp);
    if (n == "InactiveEnterTimestamp") return readNumber<'t'>(m, u.inactiveEnterTimestamp);
    if (n == "Type") return readString(m, u.type);
    if (n == "Restart") return readString(m, u.restart);
    if (n == "User") return readString(m, u.user);
    if (n == "ExecStart") return readExecStart(m, u.execStart);
    if (n == "Result") return readString(m, u.result);
    if (n == "MainPID") return readNumber<'u'>(m, u.mainPid);
    if (n == "NRestarts") return readNumber<'u'>(m, u.nRestarts);
    if (n == "ExecMainStatus") return readNumber<'i'>(m, u.execMainStatus);
    if (n == "ExecMainExitTimestamp") return readNumber<'t'>(m, u.execMainExitTimestamp);
    if (n == "MemoryCurrent") return readNumber<'t'>(m, u.memoryCurrent);
    if (n == "CPUUsageNSec") return readNumber<'t'>(m, u.cpuUsageNSec);
    if (n == "TasksCurrent") return readNumber<'t'>(m, u.tasksCurrent);
    return sd_bus_message_skip(m, "v");
}

// Reads a{sv} at m's position into u.
int readPropertyDict(sd_bus_message* m, UnitInfo& u, unsigned& effects) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, 's', &name)) < 0) return r;
        if ((r = readProperty(m, name, u, effects)) < 0) return r;
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

// The properties read again after UnitFilesChanged, and by the refresh timer.
constexpr const char* unitFileProperties[] = {"UnitFileState", "UnitFilePreset"};
constexpr const char* counterProperties[] = {"MemoryCurrent", "CPUUsageNSec", "TasksCurrent"};

std::uint64_t monotonicUsec() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return std::uint64_t(ts.tv_sec) * 1000000u + std::uint64_t(ts.tv_nsec) / 1000u;
}

} // namespace

// ---------------------------------------------------------------------------------------
// The bus side: the connection, the units known, the calls outstanding. Used by one
// thread at a time (see the header).

class SystemdSource::Worker {
public:
    explicit Worker(SystemdSource& source) : source_(source) {}
    ~Worker() { disconnect(); }

    // Connects, adds the matches and, when systemd is on the bus, subscribes and starts a
    // resync. False (with a line said) when the bus cannot be had.
    bool connect(bool firstAttempt);
    void disconnect();
    bool hasBus() const noexcept { return bus_ != nullptr; }

    // Processes what the bus has, sends what is queued, hands over complete units. False
    // when the connection is lost (a line said; reconnect later).
    bool step();
    // True while a resync or a unit's properties are still being read.
    bool busy() const noexcept { return !outstanding_.empty() || !queued_.empty() || listing_; }
    void refresh();
    // Reads every unit again (when connected).
    void resyncNow() {
        if (bus_) resync();
    }

    int fd() const { return bus_ ? sd_bus_get_fd(bus_) : -1; }
    short events() const { return bus_ ? static_cast<short>(sd_bus_get_events(bus_)) : 0; }
    // Milliseconds until sd-bus wants to run again (a call timing out); -1: not before I/O.
    int timeoutMs() const;

    // Units handed over last (for the start line).
    std::size_t daemons() const noexcept { return handed_.size(); }

private:
    struct Unit {
        UnitInfo info;
        std::uint64_t generation = 0;   // a reply for another generation is stale
        int pending = 0;                // calls sent or queued for this generation
        bool removed = false;           // UnitRemoved or not listed: goes at the next flush
    };
    enum class Call { list, getAll, get };
    struct Request {
        Call call = Call::get;
        std::string path;               // the unit's object path (not for list)
        const char* iface = nullptr;
        const char* property = nullptr; // for get
        std::string unitName;           // for list: this one unit only; empty: every pattern
        std::uint64_t generation = 0;
    };

    static int onReply(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onManagerSignal(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onDisconnected(sd_bus_message* m, void* userdata, sd_bus_error* error);

    bool subscribe();
    void resync();
    // Drops every call sent or queued and the resync under way (no answer will come).
    void forgetRequests();
    void handleList(sd_bus_message* m, bool oneUnit);
    Unit& track(const std::string& path, const std::string& id);
    void fetchAll(const std::string& path, Unit& unit);
    void fetch(const std::string& path, Unit& unit, const char* iface, const char* property);
    void enqueue(Request request, Unit* unit);
    bool sendQueued();
    void flush();
    void lose(const std::string& why);
    void systemdGone();
    void systemdBack();
    void say(Severity s, const std::string& text) { source_.say(s, text); }

    SystemdSource& source_;
    sd_bus* bus_ = nullptr;
    bool lost_ = false;                 // the connection dropped during processing
    bool systemdPresent_ = false;
    bool listing_ = false;              // ListUnitsByPatterns outstanding or queued
    bool resyncAgain_ = false;          // another resync asked for while one lists
    bool resyncing_ = false;            // a resync's units are being read: handed over as one batch
    bool reloading_ = false;            // between Reloading(true) and Reloading(false)
    std::uint64_t nextGeneration_ = 1;
    std::unordered_map<std::string, Unit> units_;           // by object path
    std::unordered_set<std::string> touched_;               // paths to look at in flush()
    std::map<std::string, DaemonState> handed_;             // by daemon name
    std::set<std::string> skippedNames_;                    // said once each
    std::deque<Request> queued_;
    std::unordered_map<std::uint64_t, Request> outstanding_; // by cookie
};

bool SystemdSource::Worker::connect(bool firstAttempt) {
    const std::string& address = source_.address_;
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r >= 0) r = sd_bus_set_address(bus, address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus, 1);
    if (r >= 0) r = sd_bus_set_method_call_timeout(bus, callTimeoutUsec);
    if (r >= 0) r = sd_bus_start(bus);
    if (r < 0) {
        sd_bus_unref(bus);
        if (firstAttempt) say(Severity::warning, "cannot connect: " + errnoText(r) + "; serving nothing, trying again");
        return false;
    }
    bus_ = bus;
    lost_ = false;
    // Matches first, then Subscribe: nothing that happens in between is missed.
    std::string managerRule = std::string("type='signal',sender='") + systemdName + "',path='" + managerPath +
                              "',interface='" + managerIface + "'";
    std::string propertiesRule = std::string("type='signal',sender='") + systemdName + "',interface='" +
                                 propertiesIface + "',member='PropertiesChanged',path_namespace='/org/freedesktop/systemd1/unit'";
    std::string ownerRule = std::string("type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
                                        "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='") +
                            systemdName + "'";
    r = sd_bus_add_match(bus_, nullptr, managerRule.c_str(), &Worker::onManagerSignal, this);
    if (r >= 0) r = sd_bus_add_match(bus_, nullptr, propertiesRule.c_str(), &Worker::onPropertiesChanged, this);
    if (r >= 0) r = sd_bus_add_match(bus_, nullptr, ownerRule.c_str(), &Worker::onNameOwnerChanged, this);
    if (r >= 0)
        r = sd_bus_match_signal(bus_, nullptr, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
                                "org.freedesktop.DBus.Local", "Disconnected", &Worker::onDisconnected, this);
    if (r < 0) {
        if (firstAttempt) say(Severity::warning, "cannot connect: " + errnoText(r) + "; serving nothing, trying again");
        disconnect();
        return false;
    }
    if (!subscribe()) {
        if (!bus_) return false;
        say(Severity::warning, "systemd is not on the bus; waiting for it");
        source_.connected_ = false;
        source_.skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::busLost; });
        return true;
    }
    systemdPresent_ = true;
    resync();
    return true;
}

void SystemdSource::Worker::forgetRequests() {
    outstanding_.clear();
    queued_.clear();
    listing_ = false;
    resyncAgain_ = false;
    resyncing_ = false;
    reloading_ = false;
    for (auto& [path, unit] : units_) unit.pending = 0;
}

void SystemdSource::Worker::disconnect() {
    if (!bus_) return;
    // Floating slots (replies, matches) go with the bus; their requests are forgotten here.
    sd_bus_flush_close_unref(bus_);
    bus_ = nullptr;
    forgetRequests();
    systemdPresent_ = false;
}

bool SystemdSource::Worker::subscribe() {
    ErrorRef error;
    MessageRef reply;
    int r = sd_bus_call_method(bus_, systemdName, managerPath, managerIface, "Subscribe", &error.e, &reply.m, "");
    if (r >= 0 || sd_bus_error_has_name(&error.e, "org.freedesktop.systemd1.AlreadySubscribed")) return true;
    if (sd_bus_error_has_name(&error.e, SD_BUS_ERROR_SERVICE_UNKNOWN) ||
        sd_bus_error_has_name(&error.e, SD_BUS_ERROR_NAME_HAS_NO_OWNER) ||
        sd_bus_error_has_name(&error.e, "org.freedesktop.DBus.Error.Spawn.ChildExited") ||
        sd_bus_error_has_name(&error.e, "org.freedesktop.DBus.Error.Spawn.Failed"))
        return false;                   // keep the connection; NameOwnerChanged says when it is back
    say(Severity::warning, "Subscribe: " + errorText(&error.e, r) + "; trying again");
    disconnect();
    return false;
}

void SystemdSource::Worker::resync() {
    resyncing_ = true;
    if (listing_) {
        resyncAgain_ = true;
        return;
    }
    listing_ = true;
    Request list;
    list.call = Call::list;
    enqueue(std::move(list), nullptr);
}

SystemdSource::Worker::Unit& SystemdSource::Worker::track(const std::string& path, const std::string& id) {
    auto [it, added] = units_.try_emplace(path);
    Unit& unit = it->second;
    if (added || unit.removed) {
        unit = Unit{};
        unit.info.id = id;
        unit.generation = nextGeneration_++;
    }
    touched_.insert(path);
    return unit;
}

void SystemdSource::Worker::fetchAll(const std::string& path, Unit& unit) {
    // A fresh generation: replies to older calls no longer count for this unit.
    unit.generation = nextGeneration_++;
    unit.pending = 0;
    for (const char* iface : {unitIface, serviceIface}) {
        Request get;
        get.call = Call::getAll;
        get.path = path;
        get.iface = iface;
        enqueue(std::move(get), &unit);
    }
    touched_.insert(path);
}

void SystemdSource::Worker::fetch(const std::string& path, Unit& unit, const char* iface, const char* property) {
    Request get;
    get.call = Call::get;
    get.path = path;
    get.iface = iface;
    get.property = property;
    enqueue(std::move(get), &unit);
    touched_.insert(path);
}

void SystemdSource::Worker::enqueue(Request request, Unit* unit) {
    if (unit) {
        request.generation = unit->generation;
        ++unit->pending;
    }
    queued_.push_back(std::move(request));
}

bool SystemdSource::Worker::sendQueued() {
    while (bus_ && !queued_.empty() && outstanding_.size() < maxOutstanding) {
        Request request = std::move(queued_.front());
        queued_.pop_front();
        MessageRef call;
        int r;
        if (request.call == Call::list) {
            r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, managerPath, managerIface, "ListUnitsByPatterns");
            if (r >= 0) r = sd_bus_message_append_strv(call.m, nullptr);
            if (r >= 0) {
                // A unit name holds no glob characters, so as a pattern it matches itself only.
                std::vector<char*> patterns;
                if (!request.unitName.empty())
                    patterns.push_back(const_cast<char*>(request.unitName.c_str()));
                else
                    for (const std::string& p : source_.options_.patterns) patterns.push_back(const_cast<char*>(p.c_str()));
                patterns.push_back(nullptr);
                r = sd_bus_message_append_strv(call.m, patterns.data());
            }
        } else if (request.call == Call::getAll) {
            r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, request.path.c_str(), propertiesIface, "GetAll");
            if (r >= 0) r = sd_bus_message_append(call.m, "s", request.iface);
        } else {
            r = sd_bus_message_new_method_call(bus_, &call.m, systemdName, request.path.c_str(), propertiesIface, "Get");
            if (r >= 0) r = sd_bus_message_append(call.m, "ss", request.iface, request.property);
        }
        if (r >= 0) r = sd_bus_call_async(bus_, nullptr, call.m, &Worker::onReply, this, 0);
        std::uint64_t cookie = 0;
        if (r >= 0) r = sd_bus_message_get_cookie(call.m, &cookie);
        if (r < 0) {
            lose("sending a call: " + errnoText(r));
            return false;
        }
        outstanding_.emplace(cookie, std::move(request));
    }
    return true;
}

int SystemdSource::Worker::onReply(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Worker*>(userdata);
    std::uint64_t cookie = 0;
    if (sd_bus_message_get_reply_cookie(m, &cookie) < 0) return 0;
    auto it = self->outstanding_.find(cookie);
    if (it == self->outstanding_.end()) return 0;
    Request request = std::move(it->second);
    self->outstanding_.erase(it);

    const sd_bus_error* error = sd_bus_message_get_error(m);
    if (request.call == Call::list && !request.unitName.empty()) {
        if (!error) self->handleList(m, true);
        return 0;
    }
    if (request.call == Call::list) {
        self->listing_ = false;
        if (error) {
            if (self->systemdPresent_)
                self->say(Severity::warning, std::string("ListUnitsByPatterns: ") + errorText(error, -EIO));
        } else {
            self->handleList(m, false);
        }
        if (self->resyncAgain_) {
            self->resyncAgain_ = false;
            self->resync();
        }
        return 0;
    }
    auto unit = self->units_.find(request.path);
    if (unit == self->units_.end() || unit->second.generation != request.generation) return 0;
    Unit& u = unit->second;
    --u.pending;
    self->touched_.insert(request.path);
    if (error) return 0;                // gone meanwhile: UnitRemoved follows, or a resync sorts it out
    unsigned effects = noEffect;
    int r = request.call == Call::getAll ? readPropertyDict(m, u.info, effects)
                                         : readProperty(m, request.property, u.info, effects);
    if (r < 0)
        self->say(Severity::warning, std::string("reading ") + (request.property ? request.property : request.iface) +
                                         " of " + quote(u.info.id) + ": " + errnoText(r));
    return 0;
}

// The units listed (every matching one, or with oneUnit the one asked for) are read in
// full when they are loaded; the others (not-found, stub) are only noted. Asking systemd
// for a property of a unit that is not loaded would load it (and announce it with UnitNew,
// and free it again: a loop), so no call goes to a unit that a list did not show loaded.
void SystemdSource::Worker::handleList(sd_bus_message* m, bool oneUnit) {
    // a(ssssssouso): name, description, load, active, sub, following, path, job id, type, path.
    std::unordered_set<std::string> listed;
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "(ssssssouso)");
    while (r >= 0) {
        const char *id, *description, *load, *active, *sub, *following, *path, *jobType, *jobPath;
        std::uint32_t jobId;
        r = sd_bus_message_read(m, "(ssssssouso)", &id, &description, &load, &active, &sub, &following, &path, &jobId,
                                &jobType, &jobPath);
        if (r <= 0) break;
        if (!unitMatches(id, source_.options_.patterns)) continue;
        listed.insert(path);
        Unit& unit = track(path, id);
        unit.info.description = description;
        unit.info.loadState = load;
        unit.info.activeState = active;
        unit.info.subState = sub;
        if (unitIsDaemon(unit.info))
            fetchAll(path, unit);
        else
            unit.generation = nextGeneration_++;   // replies still on their way no longer count
    }
    if (r < 0) {
        say(Severity::warning, "ListUnitsByPatterns: cannot read the reply: " + errnoText(r));
        return;                         // keep what is known rather than drop every unit
    }
    if (oneUnit) return;
    for (auto& [path, unit] : units_) {
        if (!listed.count(path)) {
            unit.removed = true;
            touched_.insert(path);
        }
    }
}

int SystemdSource::Worker::onManagerSignal(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Worker*>(userdata);
    const char* member = sd_bus_message_get_member(m);
    if (!member) return 0;
    std::string_view name(member);
    if (name == "UnitNew" || name == "UnitRemoved") {
        // A reload frees every unit and loads it again, saying UnitRemoved and UnitNew for
        // each: the read that follows Reloading(false) tells what really came or went.
        if (self->reloading_) return 0;
        const char *id = nullptr, *path = nullptr;
        if (sd_bus_message_read(m, "so", &id, &path) < 0 || !unitMatches(id, self->source_.options_.patterns)) return 0;
        if (name == "UnitNew") {
            auto it = self->units_.find(path);
            if (it != self->units_.end() && !it->second.removed) return 0;   // known: its signals follow
            // Listed first: only a loaded unit is read (see handleList).
            Request list;
            list.call = Call::list;
            list.unitName = id;
            self->enqueue(std::move(list), nullptr);
        } else {
            auto it = self->units_.find(path);
            if (it == self->units_.end()) return 0;
            it->second.removed = true;
            it->second.generation = self->nextGeneration_++;
            it->second.pending = 0;
            self->touched_.insert(path);
        }
    } else if (name == "UnitFilesChanged") {
        for (auto& [path, unit] : self->units_) {
            if (unit.removed || !unitIsDaemon(unit.info)) continue;   // see handleList
            for (const char* p : unitFileProperties) self->fetch(path, unit, unitIface, p);
        }
    } else if (name == "Reloading") {
        int active = 0;
        if (sd_bus_message_read(m, "b", &active) < 0) return 0;
        self->reloading_ = active != 0;
        if (!active) self->resync();
    }
    return 0;
}

int SystemdSource::Worker::onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Worker*>(userdata);
    const char* path = sd_bus_message_get_path(m);
    if (!path) return 0;
    auto it = self->units_.find(path);
    if (it == self->units_.end() || it->second.removed) return 0;
    const char* iface = nullptr;
    if (sd_bus_message_read(m, "s", &iface) < 0) return 0;
    std::string_view i(iface);
    if (i != unitIface && i != serviceIface) return 0;
    Unit& unit = it->second;
    unsigned effects = noEffect;
    int r = readPropertyDict(m, unit.info, effects);
    if (r >= 0 && unitIsDaemon(unit.info)) {
        // Invalidated properties come without their value: read the ones the mapping uses
        // again (ExecStart's command line changes only with a reload, which resyncs).
        r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "s");
        const char* name = nullptr;
        while (r > 0 && (r = sd_bus_message_read_basic(m, 's', &name)) > 0) {
            std::string_view n(name);
            if (n == "ExecStart") continue;
            // The keys are literals, so key->data() outlives the request that names it.
            const char* key = nullptr;
            if (auto k = std::find(unitOptionKeys.begin(), unitOptionKeys.end(), n); k != unitOptionKeys.end())
                key = k->data();
            else if (auto d = std::find(unitDataKeys.begin(), unitDataKeys.end(), n); d != unitDataKeys.end())
                key = d->data();
            if (key) self->fetch(path, unit, i == unitIface ? unitIface : serviceIface, key);
        }
    }
    if ((effects & activeStateChanged) && unitIsDaemon(unit.info))
        for (const char* p : counterProperties) self->fetch(path, unit, serviceIface, p);
    self->touched_.insert(path);
    return 0;
}

int SystemdSource::Worker::onNameOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<Worker*>(userdata);
    const char *name = nullptr, *oldOwner = nullptr, *newOwner = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &oldOwner, &newOwner) < 0 || std::strcmp(name, systemdName) != 0) return 0;
    if (newOwner && *newOwner)
        self->systemdBack();
    else
        self->systemdGone();
    return 0;
}

int SystemdSource::Worker::onDisconnected(sd_bus_message*, void* userdata, sd_bus_error*) {
    static_cast<Worker*>(userdata)->lost_ = true;
    return 0;
}

void SystemdSource::Worker::systemdGone() {
    if (!systemdPresent_) return;
    systemdPresent_ = false;
    // What was asked of the old manager will not be answered usefully; ask the new one.
    forgetRequests();
    source_.connected_ = false;
    source_.skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::busLost; });
    say(Severity::warning, "systemd left the bus; serving the last state until it is back");
}

void SystemdSource::Worker::systemdBack() {
    if (systemdPresent_) {
        resync();                       // a new owner without the old one leaving: read again
        return;
    }
    if (!subscribe()) {
        if (bus_) say(Severity::warning, "systemd is back on the bus but refused Subscribe; waiting for it");
        return;
    }
    systemdPresent_ = true;
    say(Severity::notice, "systemd is back; reading every unit again");
    resync();
}

void SystemdSource::Worker::lose(const std::string& why) {
    say(Severity::warning, "lost the bus: " + why + "; serving the last state, reconnecting");
    source_.connected_ = false;
    source_.skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::busLost; });
    disconnect();
}

bool SystemdSource::Worker::step() {
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
        if (!sendQueued()) return false;
        if (r == 0) break;
    }
    flush();
    return true;
}

void SystemdSource::Worker::refresh() {
    if (!bus_ || !systemdPresent_) return;
    for (auto& [path, unit] : units_) {
        if (unit.removed || !unitIsDaemon(unit.info)) continue;
        const UnitInfo& u = unit.info;
        bool idle = (u.activeState == "inactive" || u.activeState == "failed") && u.memoryCurrent == unitInfinity &&
                    u.cpuUsageNSec == unitInfinity && u.tasksCurrent == unitInfinity;
        if (idle) continue;
        for (const char* p : counterProperties) fetch(path, unit, serviceIface, p);
    }
    sendQueued();
}

int SystemdSource::Worker::timeoutMs() const {
    if (!bus_) return -1;
    std::uint64_t at = 0;
    if (sd_bus_get_timeout(bus_, &at) < 0 || at == UINT64_MAX) return -1;
    std::uint64_t now = monotonicUsec();
    if (at <= now) return 0;
    return static_cast<int>(std::min<std::uint64_t>((at - now + 999) / 1000, 60'000));
}

void SystemdSource::Worker::flush() {
    if (touched_.empty()) return;
    if (resyncing_) {
        // Every unit of a resync goes over in one batch, once all of them have been read.
        if (listing_) return;
        for (const std::string& path : touched_) {
            auto it = units_.find(path);
            if (it != units_.end() && !it->second.removed && it->second.pending > 0) return;
        }
        resyncing_ = false;
    }
    ChangedDaemons changed;
    std::size_t skippedNow = 0;
    for (auto t = touched_.begin(); t != touched_.end();) {
        auto it = units_.find(*t);
        if (it != units_.end() && !it->second.removed && it->second.pending > 0) {
            ++t;                        // still being read
            continue;
        }
        std::optional<std::string> name = it == units_.end() ? std::nullopt : daemonNameOf(it->second.info.id);
        if (name) {
            std::optional<DaemonState> now;
            const Unit& unit = it->second;
            if (!unit.removed && unitIsDaemon(unit.info)) {
                if (daemonNameFits(*name)) {
                    now = daemonStateOf(unit.info);
                } else if (skippedNames_.insert(*name).second) {
                    say(Severity::warning, "unit " + quote(unit.info.id) + " skipped: its name is " +
                                               std::to_string(name->size()) + " bytes, more than the " +
                                               std::to_string(GenericAgent::maxDaemonNameBytes) +
                                               " an SNMP index carries");
                }
            }
            auto h = handed_.find(*name);
            if (now) {
                if (h == handed_.end() || h->second != *now) {
                    changed.emplace_back(*name, now);
                    handed_.insert_or_assign(*name, std::move(*now));
                }
            } else if (h != handed_.end()) {
                changed.emplace_back(*name, std::nullopt);
                handed_.erase(h);
            }
            if (unit.removed) units_.erase(it);
        } else if (it != units_.end() && it->second.removed) {
            units_.erase(it);
        }
        t = touched_.erase(t);
    }
    for (const auto& [path, unit] : units_) {
        std::optional<std::string> name = daemonNameOf(unit.info.id);
        if (name && !unit.removed && unitIsDaemon(unit.info) && !daemonNameFits(*name)) ++skippedNow;
    }
    source_.daemons_ = handed_.size();
    source_.skipped_ = skippedNow;
    if (changed.empty()) return;
    std::sort(changed.begin(), changed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    SourceEvent event;
    event.changed = std::move(changed);
    source_.skeleton_.updateHealth([](SourceHealth& h) {
        ++h.reloads;
        h.lastRead = std::chrono::system_clock::now();
    });
    source_.posted_ = true;
    source_.post(std::move(event));
}

// ---------------------------------------------------------------------------------------

std::string SystemdSource::busAddressFor(const Options& options) {
    if (!options.busAddress.empty()) return options.busAddress;
    const char* env = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (env && *env) return env;
    return defaultSystemBus;
}

SystemdSource::SystemdSource(Options options)
    : options_(std::move(options)), address_(busAddressFor(options_)), skeleton_("systemd on " + address_) {
    if (options_.patterns.empty()) throw std::invalid_argument("systemd source: no unit patterns");
    if (options_.refresh.count() < 0) throw std::invalid_argument("systemd source: the refresh interval is negative");
    bus_ = std::make_unique<Worker>(*this);
}

SystemdSource::~SystemdSource() {
    stop();
    bus_.reset();
}

std::string SystemdSource::description() const { return "systemd on " + address_; }

void SystemdSource::say(Severity severity, const std::string& text) { skeleton_.say(severity, text); }

void SystemdSource::post(SourceEvent event) { skeleton_.post(std::move(*event.changed), event.severity, std::move(event.line)); }

void SystemdSource::loadInitial() {
    if (loadedInitial_ || worker_.joinable()) throw std::logic_error("systemd source: loadInitial after a load or start");
    loadedInitial_ = true;
    if (!bus_->connect(true)) {
        skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::busLost; });
        return;
    }
    if (!connected_ && !bus_->hasBus()) return;
    // Drive the connection here until every listed unit has been read.
    auto deadline = Clock::now() + initialLoadLimit;
    while (bus_->hasBus() && bus_->busy() && Clock::now() < deadline) {
        if (!bus_->step()) break;
        if (!bus_->busy()) break;
        pollfd fd{bus_->fd(), bus_->events(), 0};
        int wait = bus_->timeoutMs();
        ::poll(&fd, 1, wait < 0 ? 1000 : std::min(wait, 1000));
    }
    if (bus_->hasBus()) bus_->step();
    const bool ok = skeleton_.updateHealth([&](SourceHealth& h) {
        if (bus_->hasBus() && h.state != SourceState::busLost) {
            h.state = SourceState::ok;
            ++h.reloads;
            h.lastRead = std::chrono::system_clock::now();
            connected_ = true;
        }
        return h.state == SourceState::ok;
    });
    // The loop learns that the state was read even when no unit matched.
    if (ok && !posted_) skeleton_.post(ChangedDaemons{});
}

void SystemdSource::start() {
    if (worker_.joinable()) throw std::logic_error("systemd source: already started");
    stop_.drain();
    worker_ = std::thread([this] { run(); });
}

void SystemdSource::stop() {
    if (!worker_.joinable()) return;
    stop_.signal();
    worker_.join();
}

void SystemdSource::run() {
    using namespace std::chrono;
    auto retryDelay = firstRetry;
    auto retryAt = Clock::now();
    const bool refreshing = options_.refresh.count() > 0;
    auto refreshAt = Clock::now() + options_.refresh;
    bool saidDown = !connected_.load();     // loadInitial has said why it is not connected
    for (;;) {
        auto now = Clock::now();
        if (!bus_->hasBus() && now >= retryAt) {
            if (bus_->connect(false)) {
                retryDelay = firstRetry;
                bool withSystemd = bus_->busy();
                if (withSystemd) {
                    connected_ = true;
                    skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::ok; });
                    say(Severity::notice, saidDown ? "connected; reading every unit" : "back on the bus; reading every unit again");
                }
                saidDown = false;
            } else {
                retryAt = now + retryDelay;
                retryDelay = std::min(retryDelay * 2, lastRetry);
                saidDown = true;
            }
        }
        if (bus_->hasBus()) {
            if (!bus_->step()) {
                retryAt = Clock::now() + retryDelay;
                saidDown = true;
            } else if (!connected_ && bus_->busy()) {
                connected_ = true;      // systemd came back (NameOwnerChanged) and is being read
                skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::ok; });
            }
        }
        now = Clock::now();
        if (refreshing && now >= refreshAt) {
            bus_->refresh();
            refreshAt = now + options_.refresh;
        }

        int timeout = -1;
        auto until = [&](Clock::time_point at) {
            long ms = duration_cast<milliseconds>(at - Clock::now()).count() + 1;
            ms = std::max<long>(ms, 0);
            timeout = timeout < 0 ? static_cast<int>(ms) : std::min(timeout, static_cast<int>(ms));
        };
        if (refreshing) until(refreshAt);
        if (!bus_->hasBus()) until(retryAt);
        if (int t = bus_->timeoutMs(); t >= 0) timeout = timeout < 0 ? t : std::min(timeout, t);

        pollfd fds[3] = {{stop_.fd(), POLLIN, 0}, {reread_.fd(), POLLIN, 0}, {bus_->fd(), bus_->events(), 0}};
        int n = ::poll(fds, bus_->hasBus() ? 3 : 2, timeout);
        if (n < 0 && errno != EINTR) {
            say(Severity::error, std::string("poll: ") + std::strerror(errno) + "; stopped following systemd");
            return;
        }
        if (n > 0 && (fds[0].revents & POLLIN)) return;
        if (n > 0 && (fds[1].revents & POLLIN)) {
            reread_.drain();
            if (bus_->hasBus()) bus_->resyncNow();
            else retryAt = Clock::now();
        }
    }
}

std::vector<SourceEvent> SystemdSource::take() { return skeleton_.take(); }

SourceHealth SystemdSource::health() const {
    SourceHealth h = skeleton_.health();
    h.connected = connected_.load();
    h.launcher = "systemd";
    h.skippedNow = skipped_.load();
    if (h.skippedNow)
        h.skippedNote = std::to_string(h.skippedNow) + (h.skippedNow == 1 ? " unit" : " units") + " skipped (name over " +
                        std::to_string(GenericAgent::maxDaemonNameBytes) + " bytes)";
    return h;
}

} // namespace Feed
