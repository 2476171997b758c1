#include "UnitTracker.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <utility>

namespace Feed {

namespace {

std::string baseName(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

void putBytes(std::string& out, const std::string& s) {
    const std::uint64_t n = s.size();
    out.append(reinterpret_cast<const char*>(&n), sizeof n);
    out += s;
}

// 128 bits of the daemon: flags, then options and data as counts and length-prefixed
// keys and values, so that two different daemons share a digest only by a collision.
std::pair<std::uint64_t, std::uint64_t> digestOf(const DaemonState& d) {
    std::string enc;
    enc += static_cast<char>((d.hasConfig ? 1 : 0) | (d.enabled ? 2 : 0) | (d.hasStatus ? 4 : 0) | (d.running ? 8 : 0));
    for (const auto* values : {&d.options, &d.data}) {
        const std::uint64_t n = values->size();
        enc.append(reinterpret_cast<const char*>(&n), sizeof n);
        for (const auto& [k, v] : *values) {
            putBytes(enc, k);
            putBytes(enc, v);
        }
    }
    const XXH128_hash_t h = XXH3_128bits(enc.data(), enc.size());
    return {h.low64, h.high64};
}

const UnitProperty& property(UnitIface iface, std::string_view name) {
    const UnitProperty* p = findUnitProperty(iface, name);
    return *p; // names of this file's own, all in the table
}

} // namespace

UnitTracker::UnitTracker(Options options) : options_(std::move(options)) {}

UnitTracker::Unit* UnitTracker::byPath(const std::string& path) {
    auto p = paths_.find(path);
    if (p == paths_.end()) return nullptr;
    auto u = units_.find(p->second);
    return u == units_.end() ? nullptr : &u->second;
}

void UnitTracker::enqueue(BusCall call, const std::string& id, bool refresh, bool full) {
    call.token = nextToken_++;
    Call c;
    c.call = std::move(call);
    c.id = id;
    c.refresh = refresh;
    c.full = full;
    if (!id.empty()) {
        auto u = units_.find(id);
        if (u != units_.end()) c.generation = u->second.generation;
    }
    if (refresh) ++refreshPending_;
    queue_.push_back(std::move(c));
}

void UnitTracker::read(const std::string& id, Unit& unit, const UnitProperty& p, bool refresh) {
    BusCall get;
    get.kind = BusCall::Kind::get;
    get.path = unit.path;
    get.iface = p.iface;
    get.property = &p;
    ++unit.pending;
    enqueue(std::move(get), id, refresh);
    touch(id);
}

void UnitTracker::readAll(const std::string& id, Unit& unit) {
    // A fresh generation: answers to older calls no longer count for this unit.
    unit.generation = nextGeneration_++;
    unit.pending = 0;
    for (UnitIface iface : {UnitIface::unit, UnitIface::service}) {
        BusCall all;
        all.kind = BusCall::Kind::getAll;
        all.path = unit.path;
        all.iface = iface;
        ++unit.pending;
        enqueue(std::move(all), id);
    }
    touch(id);
}

void UnitTracker::startLists() {
    listing_ = 2;
    listingUnits_ = true;
    // The unit files are listed once the loaded units are read: systemd answers nothing else
    // while it makes that list, which can take seconds.
    filesAfterUnits_ = true;
    BusCall units;
    units.kind = BusCall::Kind::listUnits;
    enqueue(std::move(units), {}, false, true);
}

void UnitTracker::resync() {
    resyncing_ = true;
    if (listing_ > 0) {
        resyncAgain_ = true;
        return;
    }
    startLists();
}

void UnitTracker::unitFilesChanged() {
    BusCall files;
    files.kind = BusCall::Kind::listFiles;
    enqueue(std::move(files), {});
    for (auto& [id, unit] : units_) {
        if (!unit.loaded || !unitIsDaemon(unit.info)) continue;
        read(id, unit, property(UnitIface::unit, "UnitFileState"));
        read(id, unit, property(UnitIface::unit, "UnitFilePreset"));
    }
}

void UnitTracker::reloading(bool active) {
    reloading_ = active;
    if (!active) resync();
}

void UnitTracker::unitNew(const std::string& id, const std::string& path) {
    // A reload unloads and loads every unit: the resync that follows tells what changed.
    if (reloading_ || !unitMatches(id, options_.patterns)) return;
    Unit* u = byPath(path);
    if (u && u->loaded) return; // known: its signals follow
    // Listed first: only a unit a list shows loaded is read.
    BusCall list;
    list.kind = BusCall::Kind::listUnits;
    list.unit = id;
    enqueue(std::move(list), {});
}

void UnitTracker::unitRemoved(const std::string& id, const std::string& path) {
    if (reloading_) return;
    auto it = units_.find(id);
    if (it == units_.end() || !it->second.loaded || it->second.path != path) return;
    unload(id, it->second);
}

void UnitTracker::unload(const std::string& id, Unit& unit) {
    unit.loaded = false;
    paths_.erase(unit.path);
    unit.path.clear();
    unit.generation = nextGeneration_++;
    unit.pending = 0;
    // What no longer holds once systemd has let the unit go.
    for (const UnitProperty& p : unitProperties())
        if (!p.keptWhenUnloaded) resetProperty(p, unit.info);
    // A transient unit's file goes with it.
    if ((unit.file && unit.file->state == "transient") || unit.info.unitFileState == "transient") unit.file.reset();
    touch(id);
}

void UnitTracker::loadedAs(const ListedUnit& listed) {
    Unit& u = units_[listed.id];
    if (u.loaded && u.path != listed.path) paths_.erase(u.path);
    u.loaded = true;
    u.path = listed.path;
    paths_[listed.path] = listed.id;
    u.info.id = listed.id;
    u.info.description = listed.description;
    u.info.loadState = listed.loadState;
    u.info.activeState = listed.activeState;
    u.info.subState = listed.subState;
    if (unitIsDaemon(u.info)) {
        readAll(listed.id, u);
    } else {
        u.generation = nextGeneration_++; // answers still on their way no longer count
        u.pending = 0;
        touch(listed.id);
    }
}

// The running flag's changes are kept as the states they leave behind, so that flush hands
// each over in turn: the counter reads an ActiveState change starts (or a refresh round)
// would otherwise hold the unit back until systemd's next signal has overtaken the stop.
void UnitTracker::noteRunning(Unit& unit, bool wasRunning, std::uint64_t inactiveBefore) {
    if (!synced_ || !unit.read || !unitIsDaemon(unit.info)) return;
    const bool running = unitRunning(unit.info);
    const std::uint64_t inactive = unit.info.inactiveEnterTimestamp;
    const bool stoppedBetween = wasRunning && running && inactive != inactiveBefore && inactive != 0;
    if (running == wasRunning && !stoppedBetween) return;
    // A unit that flaps faster than the loop flushes keeps its latest changes, in pairs, so
    // that the last one handed over is still a change of the same direction.
    constexpr std::size_t maxPassed = 16;
    while (unit.passed.size() + (stoppedBetween ? 2 : 1) > maxPassed)
        unit.passed.erase(unit.passed.begin(), unit.passed.begin() + 2);
    if (stoppedBetween) {
        UnitInfo stopped = unit.info;
        stopped.activeState = "inactive";
        stopped.subState = "dead";
        stopped.mainPid = 0;
        unit.passed.push_back(daemonStateOf(stopped, options_.mapping));
    }
    unit.passed.push_back(daemonStateOf(unit.info, options_.mapping));
}

void UnitTracker::take(Unit& unit, const PropertyValues& values, std::optional<UnitIface> only) {
    const bool wasRunning = unitRunning(unit.info);
    const std::uint64_t inactiveBefore = unit.info.inactiveEnterTimestamp;
    for (const UnitProperty* p : values.present)
        if (!only || p->iface == *only) copyProperty(*p, values.values, unit.info);
    noteRunning(unit, wasRunning, inactiveBefore);
}

void UnitTracker::propertiesChanged(const std::string& path, UnitIface iface, const PropertyValues& changed,
                                    const std::vector<std::string>& invalidated) {
    Unit* u = byPath(path);
    if (!u || !u->loaded) return;
    const std::string id = u->info.id;
    const std::string before = u->info.activeState;
    take(*u, changed, iface);
    if (unitIsDaemon(u->info)) {
        for (const std::string& name : invalidated) {
            const UnitProperty* p = findUnitProperty(iface, name);
            // The command lines change only with a reload, which reads everything again.
            if (p && p->format != Format::command) read(id, *u, *p);
        }
        if (u->info.activeState != before)
            for (const UnitProperty& p : unitProperties())
                if (p.refreshed) read(id, *u, p);
    }
    touch(id);
}

std::optional<UnitTracker::Call> UnitTracker::answered(std::uint64_t token) {
    auto it = outstanding_.find(token);
    if (it == outstanding_.end()) return std::nullopt;
    Call c = std::move(it->second);
    outstanding_.erase(it);
    if (c.refresh) --refreshPending_;
    return c;
}

void UnitTracker::listAnswered(const Call& call) {
    if (!call.full) return;
    if (call.call.kind == BusCall::Kind::listUnits) listingUnits_ = false;
    if (--listing_ > 0) return;
    if (resyncAgain_) {
        resyncAgain_ = false;
        startLists();
    }
}

void UnitTracker::listedFiles(std::uint64_t token, const std::vector<ListedFile>& files) {
    std::optional<Call> c = answered(token);
    if (!c) return;
    std::set<std::string> seen;
    for (const ListedFile& f : files) {
        std::string id = baseName(f.path);
        if (!unitMatches(id, options_.patterns) || !seen.insert(id).second) continue;
        Unit& u = units_[id];
        if (!u.file || u.file->state != f.state || u.file->path != f.path) {
            u.file = f;
            touch(id);
        }
    }
    for (auto& [id, unit] : units_) {
        if (unit.file && !seen.count(id)) {
            unit.file.reset();
            touch(id);
        }
    }
    listAnswered(*c);
}

void UnitTracker::listedUnits(std::uint64_t token, const std::vector<ListedUnit>& units) {
    std::optional<Call> c = answered(token);
    if (!c) return;
    std::set<std::string> seen;
    for (const ListedUnit& l : units) {
        if (!unitMatches(l.id, options_.patterns)) continue;
        if (!c->call.unit.empty() && l.id != c->call.unit) continue;
        seen.insert(l.id);
        loadedAs(l);
    }
    if (c->call.unit.empty()) {
        for (auto& [id, unit] : units_)
            if (unit.loaded && !seen.count(id)) unload(id, unit);
    }
    listAnswered(*c);
}

void UnitTracker::properties(std::uint64_t token, const PropertyValues& values) {
    std::optional<Call> c = answered(token);
    if (!c) return;
    auto it = units_.find(c->id);
    if (it == units_.end() || it->second.generation != c->generation || !it->second.loaded) return;
    Unit& u = it->second;
    --u.pending;
    take(u, values);
    if (c->call.kind == BusCall::Kind::getAll) u.read = true;
    touch(c->id);
}

void UnitTracker::failed(std::uint64_t token) {
    std::optional<Call> c = answered(token);
    if (!c) return;
    if (c->id.empty()) {
        listAnswered(*c);
        return;
    }
    auto it = units_.find(c->id);
    if (it == units_.end() || it->second.generation != c->generation) return;
    --it->second.pending;
    touch(c->id);
}

bool UnitTracker::refresh() {
    if (refreshPending_ > 0) {
        ++refreshesSkipped_;
        return false;
    }
    for (auto& [id, unit] : units_) {
        if (!unit.loaded || !unit.read || !unitIsDaemon(unit.info)) continue;
        const UnitInfo& u = unit.info;
        const bool idle = (u.activeState == "inactive" || u.activeState == "failed") &&
                          u.memoryCurrent == unitInfinity && u.cpuUsageNSec == unitInfinity &&
                          u.tasksCurrent == unitInfinity;
        if (idle) continue;
        for (const UnitProperty& p : unitProperties())
            if (p.refreshed) read(id, unit, p, true);
    }
    return true;
}

void UnitTracker::forgetCalls() {
    queue_.clear();
    outstanding_.clear();
    listing_ = 0;
    listingUnits_ = false;
    filesAfterUnits_ = false;
    resyncing_ = false;
    resyncAgain_ = false;
    reloading_ = false;
    refreshPending_ = 0;
    for (auto& [id, unit] : units_) unit.pending = 0;
}

std::optional<BusCall> UnitTracker::nextCall() {
    if (queue_.empty() || outstanding_.size() >= options_.maxOutstanding) return std::nullopt;
    Call c = std::move(queue_.front());
    queue_.pop_front();
    BusCall out = c.call;
    outstanding_.emplace(out.token, std::move(c));
    return out;
}

std::vector<std::pair<Severity, std::string>> UnitTracker::takeLines() {
    return std::exchange(lines_, {});
}

bool UnitTracker::resyncSettled() const {
    // The loaded units make the batch; the unit files (a list systemd can take seconds to
    // make) follow as they come.
    if (listingUnits_) return false;
    for (const std::string& id : touched_) {
        auto it = units_.find(id);
        if (it != units_.end() && it->second.pending > 0) return false;
    }
    return true;
}

std::optional<DaemonState> UnitTracker::served(const std::string&, const Unit& u) {
    if (u.loaded && unitIsDaemon(u.info)) return daemonStateOf(u.info, options_.mapping);
    if (!u.file) return std::nullopt;
    if (!u.read) return daemonStateOfFile(u.file->state, u.file->path);
    // Once loaded, now a file only: what it said then that still holds.
    UnitInfo i = u.info;
    i.loadState.clear();
    i.loadError.clear();
    i.unitFileState = u.file->state;
    if (i.fragmentPath.empty()) i.fragmentPath = u.file->path;
    return daemonStateOf(i, options_.mapping);
}

std::optional<ChangedDaemons> UnitTracker::flush() {
    if (resyncing_) {
        // Every daemon of a resync goes over in one batch, once all of them have been read.
        if (!resyncSettled()) return std::nullopt;
        resyncing_ = false;
        synced_ = true;
        if (filesAfterUnits_) {
            filesAfterUnits_ = false;
            BusCall files;
            files.kind = BusCall::Kind::listFiles;
            enqueue(std::move(files), {}, false, true);
        }
    }
    if (!synced_) return std::nullopt;
    ChangedDaemons changed;
    for (auto t = touched_.begin(); t != touched_.end();) {
        auto it = units_.find(*t);
        const bool passed = it != units_.end() && !it->second.passed.empty();
        if (!passed && it != units_.end() && it->second.pending > 0) {
            ++t; // still being read
            continue;
        }
        const std::string name = daemonNameOf(*t).value_or(*t);
        std::optional<DaemonState> now;
        if (passed) {
            // A running change first; the unit stays touched for what follows it.
            now = std::move(it->second.passed.front());
            it->second.passed.pop_front();
        } else if (it != units_.end()) {
            now = served(*t, it->second);
        }
        if (now && !daemonNameFits(name)) {
            if (skippedNames_.insert(name).second)
                lines_.emplace_back(Severity::warning, "unit " + quote(*t) + " skipped: its name is " +
                                                           std::to_string(name.size()) + " bytes, more than the " +
                                                           std::to_string(GenericAgent::maxDaemonNameBytes) +
                                                           " an SNMP index carries");
            now.reset();
        }
        auto h = handed_.find(name);
        if (now) {
            const auto digest = digestOf(*now);
            if (h == handed_.end() || h->second != digest) {
                handed_.insert_or_assign(name, digest);
                changed.emplace_back(name, std::move(now));
            }
        } else if (h != handed_.end()) {
            handed_.erase(h);
            changed.emplace_back(name, std::nullopt);
        }
        if (passed) {
            ++t;
            continue;
        }
        if (it != units_.end() && !it->second.file && !it->second.loaded) units_.erase(it);
        t = touched_.erase(t);
    }
    skippedNow_ = 0;
    for (const auto& [id, unit] : units_)
        if ((unit.file || (unit.loaded && unitIsDaemon(unit.info))) && !daemonNameFits(daemonNameOf(id).value_or(id)))
            ++skippedNow_;
    if (changed.empty()) {
        if (saidFirst_) return std::nullopt;
        saidFirst_ = true;
        return ChangedDaemons{};
    }
    saidFirst_ = true;
    std::sort(changed.begin(), changed.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return changed;
}

} // namespace Feed
