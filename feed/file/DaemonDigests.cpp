#include "DaemonDigests.h"

// Header-only: nothing to link, no library for the package to depend on.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <utility>

namespace Feed {

// The encoding is written into scratch_ and hashed in one call: many small streaming
// updates of the hash cost more than copying the bytes once.
DaemonDigests::Digest DaemonDigests::digest(const DaemonState& d) {
    auto putLength = [this](std::uint64_t n) { scratch_.append(reinterpret_cast<const char*>(&n), sizeof n); };
    scratch_.clear();
    scratch_ +=
        static_cast<char>((d.hasConfig ? 1 : 0) | (d.enabled ? 2 : 0) | (d.hasStatus ? 4 : 0) | (d.running ? 8 : 0));
    for (const auto* keys : {&d.options, &d.data}) {
        putLength(keys->size());
        for (const auto& [k, v] : *keys) {
            putLength(k.size());
            scratch_ += k;
            putLength(v.size());
            scratch_ += v;
        }
    }
    const XXH128_hash_t h = XXH3_128bits(scratch_.data(), scratch_.size());
    return {h.low64, h.high64};
}

void DaemonDigests::remember(const LauncherState& state) {
    known_.clear();
    known_.reserve(state.size());
    for (const auto& [name, d] : state) known_.push_back({name, digest(d)});
}

void DaemonDigests::beginReload() {
    reading_.clear();
    differs_.clear();
}

bool DaemonDigests::sieve(const std::string& name, const DaemonState& daemon) {
    const Digest h = digest(daemon);
    auto known = std::lower_bound(known_.begin(), known_.end(), name,
                                  [](const Entry& e, const std::string& n) { return e.name < n; });
    const bool same = known != known_.end() && known->name == name && known->digest == h;
    reading_.push_back({name, h});
    differs_.push_back(!same);
    return !same;
}

bool DaemonDigests::known(const std::string& name) const {
    auto it = std::lower_bound(known_.begin(), known_.end(), name,
                               [](const Entry& e, const std::string& n) { return e.name < n; });
    return it != known_.end() && it->name == name;
}

ChangedDaemons DaemonDigests::commit(LauncherState& next, const std::vector<std::string>& kept) {
    auto isKept = [&](const std::string& name) { return std::binary_search(kept.begin(), kept.end(), name); };
    // Both the file's daemons (next, by name) and the remembered digests are in name order:
    // what is remembered and not in next is gone, unless its entry was skipped.
    ChangedDaemons changed;
    std::vector<Entry> keptEntries;
    auto goneOrKept = [&](Entry& e) {
        if (isKept(e.name))
            keptEntries.push_back(std::move(e));
        else
            changed.emplace_back(std::move(e.name), std::nullopt);
    };
    auto i = known_.begin();
    for (const auto& entry : next) {
        const std::string& name = entry.first;
        for (; i != known_.end() && i->name < name; ++i) goneOrKept(*i);
        if (i != known_.end() && i->name == name) ++i;
    }
    for (; i != known_.end(); ++i) goneOrKept(*i);

    std::vector<std::size_t> order;
    order.reserve(reading_.size());
    for (std::size_t k = 0; k < reading_.size(); ++k)
        if (!isKept(reading_[k].name)) order.push_back(k);
    std::sort(order.begin(), order.end(),
              [&](std::size_t x, std::size_t y) { return reading_[x].name < reading_[y].name; });
    std::vector<Entry> sorted;
    sorted.reserve(order.size() + keptEntries.size());
    for (std::size_t k : order) {
        if (differs_[k]) changed.emplace_back(reading_[k].name, std::move(next.at(reading_[k].name)));
        sorted.push_back(std::move(reading_[k]));
    }
    if (!keptEntries.empty()) {
        const auto middle = sorted.insert(sorted.end(), std::make_move_iterator(keptEntries.begin()),
                                          std::make_move_iterator(keptEntries.end()));
        std::inplace_merge(sorted.begin(), middle, sorted.end(),
                           [](const Entry& x, const Entry& y) { return x.name < y.name; });
    }
    std::sort(changed.begin(), changed.end(), [](const auto& x, const auto& y) { return x.first < y.first; });
    known_ = std::move(sorted);
    reading_ = {};
    differs_ = {};
    return changed;
}

void DaemonDigests::abandon() {
    reading_ = {};
    differs_ = {};
}

} // namespace Feed
