// What the file source remembers of the last accepted state file: a 128-bit digest per
// daemon instead of a copy of the state, so that a reload can tell which daemons changed
// while holding only those.
//
//   Feed::DaemonDigests digests;
//   digests.remember(firstState);
//   digests.beginReload();
//   LauncherState next = loadStateFile(path, path, [&](auto& n, auto& d) { return digests.sieve(n, d); }, skipped);
//   Feed::ChangedDaemons changed = digests.commit(next, skippedNames);   // or abandon() when refused
//
// A digest is XXH3's 128-bit hash of the daemon's flags byte (hasConfig 1, enabled 2,
// hasStatus 4, running 8), then of the options and then the data, each as a count followed
// by its keys in order, every key and value as a length and its bytes. Equal daemons have
// equal digests; the lengths make the encoding unambiguous, so two daemons that differ
// share a digest only by a 128-bit collision.
//
// Threads: one thread at a time (the source's worker).
#pragma once

#include "feed/core/Source.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Feed {

class DaemonDigests {
public:
    // Forgets what was remembered and remembers every daemon of state.
    void remember(const LauncherState& state);

    // Starts comparing a file being read with what is remembered.
    void beginReload();
    // The sieve of the file being read: records the daemon's digest and returns true when
    // it differs from the remembered one (or the daemon is new).
    bool sieve(const std::string& name, const DaemonState& daemon);
    // The file was accepted. next is what the reader kept: the daemons that differ whole,
    // the others by name only. kept names the daemons whose entries were skipped (sorted,
    // unique): they count as unchanged, keep their remembered digest, and whatever the
    // sieve saw of them is forgotten. Returns the daemons that changed, in name order, as
    // next has them (moved out of it), and the remembered ones now in the file no longer
    // and not kept (none); remembers the file's digests from now on.
    ChangedDaemons commit(LauncherState& next, const std::vector<std::string>& kept = {});
    // The file was refused: the remembered digests stay.
    void abandon();

    // Daemons remembered.
    std::size_t size() const noexcept { return known_.size(); }
    // A daemon of that name is remembered (it is served).
    bool known(const std::string& name) const;

private:
    struct Digest {
        std::uint64_t low = 0;
        std::uint64_t high = 0;
        friend bool operator==(const Digest&, const Digest&) = default;
    };
    struct Entry {
        std::string name;
        Digest digest;
    };
    Digest digest(const DaemonState& daemon);

    std::vector<Entry> known_;   // the last accepted file, by name
    std::vector<Entry> reading_; // the file being read, in file order
    std::vector<bool> differs_;  // per entry of reading_
    std::string scratch_;        // the encoding being hashed, kept to be allocated once
};

} // namespace Feed
