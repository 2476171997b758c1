#include "StateDiff.h"

#include <map>

namespace Feed {

namespace {

using Keys = std::map<std::string, std::string>;

SectionChange diffSection(bool hadBefore, bool flagBefore, const Keys& keysBefore, bool hasAfter, bool flagAfter,
                          const Keys& keysAfter) {
    static const Keys none;
    SectionChange c;
    c.before = hadBefore;
    c.after = hasAfter;
    if (hasAfter && (!hadBefore || flagBefore != flagAfter)) c.flag = flagAfter;
    const Keys& a = hadBefore ? keysBefore : none;
    const Keys& b = hasAfter ? keysAfter : none;
    auto i = a.begin();
    auto j = b.begin();
    while (i != a.end() || j != b.end()) {
        if (j == b.end() || (i != a.end() && i->first < j->first)) {
            c.keys.push_back({i->first, std::nullopt, !i->second.empty(), false});
            ++i;
        } else if (i == a.end() || j->first < i->first) {
            c.keys.push_back({j->first, j->second, false, !j->second.empty()});
            ++j;
        } else {
            if (i->second != j->second) c.keys.push_back({j->first, j->second, !i->second.empty(), !j->second.empty()});
            ++i;
            ++j;
        }
    }
    return c;
}

std::string plural(std::size_t n, const char* one, const char* many) {
    return std::to_string(n) + " " + (n == 1 ? one : many);
}

} // namespace

DaemonChange diffDaemon(const std::string& name, const DaemonState* before, const DaemonState* after) {
    static const DaemonState absent;
    const DaemonState& a = before ? *before : absent;
    const DaemonState& b = after ? *after : absent;
    DaemonChange d;
    d.name = name;
    d.before = before != nullptr;
    d.after = after != nullptr;
    d.config = diffSection(a.hasConfig, a.enabled, a.options, b.hasConfig, b.enabled, b.options);
    d.status = diffSection(a.hasStatus, a.running, a.data, b.hasStatus, b.running, b.data);
    return d;
}

StateDiff diffStates(const LauncherState& from, const LauncherState& to) {
    StateDiff diff;
    auto i = from.begin();
    auto j = to.begin();
    while (i != from.end() || j != to.end()) {
        if (j == to.end() || (i != from.end() && i->first < j->first)) {
            diff.daemons.push_back(diffDaemon(i->first, &i->second, nullptr));
            ++i;
        } else if (i == from.end() || j->first < i->first) {
            diff.daemons.push_back(diffDaemon(j->first, nullptr, &j->second));
            ++j;
        } else {
            if (!(i->second == j->second)) {
                DaemonChange d = diffDaemon(i->first, &i->second, &j->second);
                if (!d.empty()) diff.daemons.push_back(std::move(d));
            }
            ++i;
            ++j;
        }
    }
    return diff;
}

StateDiff::Counts StateDiff::counts() const {
    Counts c;
    for (const DaemonChange& d : daemons) {
        for (const SectionChange* s : {&d.config, &d.status}) {
            if (!d.before || !d.after) {
                for (const KeyChange& k : s->keys) (d.after ? c.rowsAdded : c.rowsRemoved) += k.rowAfter || k.rowBefore;
                continue;
            }
            if (s->before != s->after) {
                ++c.rowsAdded; // the enabled/running row, made again
                ++c.rowsRemoved;
            } else if (s->flag) {
                ++c.inPlace;
            }
            for (const KeyChange& k : s->keys) {
                if (k.rowBefore && !k.rowAfter)
                    ++c.rowsRemoved;
                else if (!k.rowBefore && k.rowAfter)
                    ++c.rowsAdded;
                else if (s->before && s->after)
                    ++c.inPlace;
            }
        }
        if (!d.before) {
            ++c.daemonsAdded;
            c.rowsAdded += 2; // enabled and running
        } else if (!d.after) {
            ++c.daemonsRemoved;
            c.rowsRemoved += 2;
        }
    }
    return c;
}

std::size_t StateDiff::changes() const {
    Counts c = counts();
    return c.rowsAdded + c.rowsRemoved + c.inPlace;
}

std::size_t StateDiff::keys() const {
    std::size_t n = 0;
    for (const DaemonChange& d : daemons) n += 1 + d.config.keys.size() + d.status.keys.size();
    return n;
}

std::string StateDiff::summary() const {
    Counts c = counts();
    return "applied " + plural(c.rowsAdded + c.rowsRemoved + c.inPlace, "change", "changes") +
           " (daemons: " + std::to_string(c.daemonsAdded) + " added, " + std::to_string(c.daemonsRemoved) +
           " removed; rows: " + std::to_string(c.rowsAdded) + " added, " + std::to_string(c.rowsRemoved) +
           " removed; " + std::to_string(c.inPlace) + " changed in place)";
}

} // namespace Feed
