#include "DaemonHistory.h"

#include <algorithm>
#include <cmath>

namespace Agent {

namespace {

bool before(const DaemonHistory::Record& r, const Snmp::String& name) {
    return compare(r.name, name) < 0;
}
bool byName(const DaemonHistory::Record& a, const DaemonHistory::Record& b) {
    return compare(a.name, b.name) < 0;
}

template <class V>
auto at(V& v, const Snmp::String& name) -> decltype(v.data()) {
    auto it = std::lower_bound(v.begin(), v.end(), name, before);
    return it != v.end() && it->name == name ? &*it : nullptr;
}

std::uint8_t flagBits(const DaemonFlags& f) {
    return static_cast<std::uint8_t>((f.enabled ? DaemonHistory::Record::enabledBit : 0) |
                                     (f.running ? DaemonHistory::Record::runningBit : 0));
}

} // namespace

std::chrono::system_clock::time_point DaemonHistory::Record::lastRunningTime() const noexcept {
    return std::chrono::system_clock::time_point(std::chrono::seconds(lastRunningSeconds) +
                                                 std::chrono::milliseconds(lastRunningMillis));
}

DaemonHistory::DaemonHistory(Orbel::Ptr<const GenericAgent::DaemonMib> mib, Now now)
    : mib_(std::move(mib)), now_(std::move(now)) {}

void DaemonHistory::baselineIs(const std::vector<std::pair<std::string, DaemonFlags>>& daemons) {
    std::vector<Record> rows;
    rows.reserve(daemons.size());
    for (const auto& [name, flags] : daemons) {
        if (!flags.present) continue;
        Record r;
        auto row = mib_->enabledTable(Snmp::String(name));
        r.name = row ? row->agentName() : Snmp::String(name);
        r.bits = flagBits(flags);
        rows.push_back(std::move(r));
    }
    std::sort(rows.begin(), rows.end(), byName);
    rows_ = std::move(rows);
    added_.clear();
    gone_ = 0;
    live_ = rows_.size();
}

DaemonHistory::Record* DaemonHistory::lookup(const Snmp::String& name) {
    if (Record* r = at(rows_, name)) return r;
    return at(added_, name);
}

void DaemonHistory::changed(const std::string& daemon, const DaemonFlags& flags, const FlagChanges& seen) {
    const Snmp::String key(daemon);
    Record* r = lookup(key);
    if (!flags.present) {
        if (!r || r->gone()) return;
        --live_;
        if (r >= added_.data() && r < added_.data() + added_.size()) {
            added_.erase(added_.begin() + (r - added_.data()));
            return;
        }
        *r = Record{r->name}; // its counts go; the name keeps the array sorted
        r->bits = Record::goneBit;
        if (++gone_ > rows_.size() / 4) compact();
        return;
    }
    // The model's own counted name: the row's (which may have been replaced meanwhile).
    auto row = mib_->enabledTable(key);
    if (!r || r->gone()) {
        Record fresh;
        fresh.name = row ? row->agentName() : key;
        fresh.bits = flagBits(flags);
        ++live_;
        if (r) { // marked gone, still in place: a new row at 0
            *r = std::move(fresh);
            --gone_;
        } else {
            insert(std::move(fresh));
        }
        return;
    }
    if (row && !r->name.str().sharesBodyWith(row->agentName().str())) r->name = row->agentName();
    // A flag that differs with no change seen: its object was replaced; one change.
    const std::uint32_t running = std::max<std::uint32_t>(seen.running, flags.running != r->running());
    const std::uint32_t enabled = std::max<std::uint32_t>(seen.enabled, flags.enabled != r->enabled());
    if (!running && !enabled) return;
    Stamp now = now_ ? now_() : Stamp{};
    // 0 means "no change since the row appeared": a change within the agent's first
    // hundredth of a second reads as 1.
    now.ticks = std::max<std::uint32_t>(now.ticks, 1);
    if (running) {
        r->runningChanges += running;
        r->lastRunningChange = now.ticks;
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.wall.time_since_epoch()).count();
        const long long secs = ms >= 0 ? ms / 1000 : 0;
        r->lastRunningSeconds = static_cast<std::uint32_t>(std::min<long long>(secs, 0xffffffffll));
        r->lastRunningMillis = static_cast<std::uint16_t>(ms >= 0 ? ms % 1000 : 0);
        r->bits |= Record::hasRunningTimeBit;
    }
    if (enabled) {
        r->enabledChanges += enabled;
        r->lastEnabledChange = now.ticks;
    }
    r->bits = static_cast<std::uint8_t>((r->bits & ~(Record::enabledBit | Record::runningBit)) | flagBits(flags));
}

void DaemonHistory::insert(Record r) {
    auto it = std::lower_bound(added_.begin(), added_.end(), r.name, before);
    added_.insert(it, std::move(r));
    const std::size_t limit = std::max<std::size_t>(64, static_cast<std::size_t>(std::sqrt(double(rows_.size()))));
    if (added_.size() > limit) settle();
}

void DaemonHistory::settle() const {
    if (added_.empty()) return;
    std::vector<Record> merged;
    merged.reserve(rows_.size() - gone_ + added_.size());
    auto a = rows_.begin();
    auto b = added_.begin();
    while (a != rows_.end() || b != added_.end()) {
        if (a != rows_.end() && a->gone()) {
            ++a;
            continue;
        }
        if (b == added_.end() || (a != rows_.end() && byName(*a, *b)))
            merged.push_back(std::move(*a++));
        else
            merged.push_back(std::move(*b++));
    }
    rows_ = std::move(merged);
    added_.clear();
    added_.shrink_to_fit();
    gone_ = 0;
}

void DaemonHistory::compact() {
    std::vector<Record> kept;
    kept.reserve(rows_.size() - gone_);
    for (auto& r : rows_)
        if (!r.gone()) kept.push_back(std::move(r));
    rows_ = std::move(kept);
    gone_ = 0;
}

const DaemonHistory::Record* DaemonHistory::find(const Snmp::String& name) const {
    const Record* r = at(rows_, name);
    if (!r) r = at(added_, name);
    return r && !r->gone() ? r : nullptr;
}

const DaemonHistory::Record* DaemonHistory::first() const {
    settle();
    for (const Record& r : rows_)
        if (!r.gone()) return &r;
    return nullptr;
}

const DaemonHistory::Record* DaemonHistory::next(Snmp::String name) const {
    settle();
    auto it = std::upper_bound(rows_.begin(), rows_.end(), name,
                               [](const Snmp::String& n, const Record& r) { return compare(n, r.name) < 0; });
    for (; it != rows_.end(); ++it)
        if (!it->gone()) return &*it;
    return nullptr;
}

std::size_t DaemonHistory::bytes() const noexcept {
    return (rows_.capacity() + added_.capacity()) * sizeof(Record);
}

} // namespace Agent
