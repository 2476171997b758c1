// The launcher's JSON state file as a source (format and refusals: StateReader.h).
//
//   auto source = std::make_unique<Feed::FileSource>("/run/launcher/state.json");
//   Feed::StateFeed feed(std::move(source), mib, log);   // drives it (StateFeed.h)
//
// loadInitial reads the file on the calling thread and refuses it with StateError. start()
// runs a worker thread that watches the file's directory (DirectoryWatcher) and reloads on
// a write being closed or a file being moved in under the file's name. When the directory
// itself goes (removed, renamed or unmounted) the worker looks for it again every 200 ms
// and reloads once it is back. Each reload reads, parses and validates the file, and
// compares each daemon with its digest in the last accepted file (DaemonDigests); only the
// daemons that differ are queued for the loop. A file refused as a whole (JSON syntax, a
// wrong top level, unreadable) changes nothing. A file with bad daemon entries is applied
// without them (see StateReader.h): every other daemon is applied, a skipped daemon that is
// served keeps its last good state, and a skipped daemon that is not served yet stays
// unserved; each skipped entry is said in one line naming the file, the daemon and the
// item (at most 20 lines a read, then a count), and the read counts as accepted
// (SourceHealth::skipped counts the entries). A file that is deleted and not replaced
// leaves the state served as it was. A reload that changes nothing is counted but queues
// nothing.
//
// Lines it queues (X is the path as given, D the absolute directory):
//   state file X: <why it was refused>                                    (warning)
//   state file X: daemon "d" <item>: <why> (line N); serving its last good state  (warning)
//   state file X: daemon "d" <item>: <why> (line N); not served           (warning)
//   state file X: recovered; it was refused | it was gone                 (notice; the first
//                                                  accepted read after a refusal or a loss)
//   state file X: removed; serving the last state until it is written again (warning)
//   state file X: directory D is gone; serving the last state, looking for it every 200 ms (warning)
//   state file X: cannot watch directory D: <error>; serving the last state, trying again every 200 ms (warning)
//   state file X: watching directory D again                              (notice)
//   state file X: reload failed: <error>                                  (error)
// The file is read by its absolute path, fixed at construction.
#pragma once

#include "DaemonDigests.h"
#include "DirectoryWatcher.h"
#include "StateReader.h"

#include "feed/core/EventFd.h"
#include "feed/core/Source.h"
#include "feed/core/SourceSkeleton.h"

#include <atomic>
#include <memory>
#include <string>
#include <thread>

namespace Feed {

class FileSource final : public Source {
public:
    // Throws std::invalid_argument when path names no file (a directory such as "x/"),
    // std::system_error when descriptors cannot be had.
    explicit FileSource(std::string path);
    // Stops the worker.
    ~FileSource() override;

    std::string description() const override { return skeleton_.name(); }
    void loadInitial() override;
    void start() override;
    void stop() override;
    int eventFd() const noexcept override { return skeleton_.eventFd(); }
    std::vector<SourceEvent> take() override { return skeleton_.take(); }
    SourceHealth health() const override { return skeleton_.health(); }
    // Reads the file again (a missing file is said, as when it is removed).
    void reread() override { reread_.signal(); }

    const std::string& path() const noexcept { return path_; }

    // Every accepted read, the one made when the watch is first armed included (it catches
    // a change made between loadInitial() and start(), and counts as a reload in health()
    // only when it found one). Tests wait on it to know the watch is armed.
    std::uint64_t reads() const;

private:
    // What a reload does when the file is not there.
    enum class IfMissing { refuse, ignore, sayRemoved };
    void run();
    void reload(IfMissing ifMissing);
    void accepted(const SkippedDaemons& skipped);
    std::string skipLine(const SkippedDaemon& daemon) const;
    void saySkipped(const SkippedDaemons& skipped);
    void sayRecovered();
    void refusedWith(const std::string& line);
    void lost(const std::string& line);

    std::string path_;
    std::string dir_;         // absolute directory of the file
    std::string name_;        // file name inside it
    SourceSkeleton skeleton_; // worker -> loop: events, wake-up, health
    EventFd stop_;            // stop() -> worker
    EventFd reread_;          // reread() -> worker
    std::thread worker_;
    bool loadedInitial_ = false;

    // The worker's own (touched by one thread at a time: the loop before start, the worker after).
    std::unique_ptr<DirectoryWatcher> watcher_;
    DaemonDigests digests_;
    bool releasePending_ = false;                        // the worker has memory to hand back once idle
    bool catchUp_ = false;                               // the read made when the watch is first armed
    SourceState recoveredFrom_ = SourceState::notLoaded; // a recovery to say, from this state
    std::atomic<std::uint64_t> reads_{0};                // accepted reads (see reads())
};

} // namespace Feed
