#include "FileSource.h"

#include "StateReader.h"

#include "feed/core/FreeMemory.h"

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace Feed {

namespace {

constexpr int rearmMillis = 200;
// How long the worker waits after a reload before it hands released memory back.
constexpr int releaseMillis = 1000;
// Lines about skipped daemon entries per read; the rest are counted in one more line.
constexpr std::size_t maxSkipLines = 20;

std::string errnoText(int e) {
    return std::error_code(e, std::generic_category()).message();
}

// Why a directory cannot be watched, with what to raise when it is a limit of the kernel's.
std::string watchErrorText(int e) {
    if (e == ENOSPC) return "the inotify watches are exhausted (ENOSPC): raise fs.inotify.max_user_watches";
    if (e == EMFILE) return "the inotify instances are exhausted (EMFILE): raise fs.inotify.max_user_instances";
    return errnoText(e);
}

} // namespace

FileSource::FileSource(std::string path) : path_(std::move(path)), skeleton_("state file " + path_) {
    std::filesystem::path p = std::filesystem::absolute(std::filesystem::path(path_));
    name_ = p.filename().string();
    dir_ = p.parent_path().string();
    if (name_.empty() || name_ == "." || name_ == "..")
        throw std::invalid_argument("state file " + path_ + " does not name a file");
}

FileSource::~FileSource() {
    stop();
}

void FileSource::accepted(const SkippedDaemons& skipped) {
    reads_.fetch_add(1, std::memory_order_relaxed);
    const std::string last = skipped.empty() ? std::string() : skipLine(skipped.back());
    const SourceState was = skeleton_.updateHealth([&](SourceHealth& h) {
        const SourceState before = h.state;
        if (!catchUp_) ++h.reloads;
        h.state = SourceState::ok;
        h.lastRead = std::chrono::system_clock::now();
        h.skippedNow = skipped.size();
        h.skipped += skipped.size();
        h.skippedNote = skipped.empty() ? std::string()
                                        : std::to_string(skipped.size()) +
                                              (skipped.size() == 1 ? " daemon entry" : " daemon entries") +
                                              " skipped (see the log)";
        if (!skipped.empty()) h.lastSkip = last;
        return before;
    });
    // After the changes (queued by the caller): "recovered" follows "applied".
    if (was == SourceState::refused || was == SourceState::gone) recoveredFrom_ = was;
}

std::string FileSource::skipLine(const SkippedDaemon& d) const {
    return d.message + (d.indexable && digests_.known(d.name) ? "; serving its last good state" : "; not served");
}

void FileSource::saySkipped(const SkippedDaemons& skipped) {
    std::size_t n = 0;
    for (const SkippedDaemon& d : skipped) {
        if (++n > maxSkipLines) {
            skeleton_.say(Severity::warning,
                          std::to_string(skipped.size() - maxSkipLines) + " more daemon entries skipped");
            break;
        }
        skeleton_.postLine(Severity::warning, skipLine(d));
    }
}

void FileSource::sayRecovered() {
    if (recoveredFrom_ == SourceState::notLoaded) return;
    skeleton_.say(Severity::notice, std::string("recovered; it was ") + stateText(recoveredFrom_));
    recoveredFrom_ = SourceState::notLoaded;
}

void FileSource::refusedWith(const std::string& line) {
    skeleton_.updateHealth([&](SourceHealth& h) {
        ++h.refused;
        h.state = SourceState::refused;
        h.lastRefusal = line;
    });
}

void FileSource::lost(const std::string& line) {
    skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::gone; });
    skeleton_.postLine(Severity::warning, line);
}

std::uint64_t FileSource::reads() const {
    return reads_.load(std::memory_order_relaxed);
}

void FileSource::loadInitial() {
    if (worker_.joinable()) throw std::logic_error("FileSource::loadInitial: the source is started");
    LauncherState state;
    SkippedDaemons skipped;
    try {
        state = loadStateFile(path_, skipped);
    } catch (const StateError& e) {
        refusedWith(e.what());
        throw;
    }
    accepted(skipped);
    saySkipped(skipped); // nothing is known yet: every skipped daemon is not served
    digests_.remember(state);
    ChangedDaemons all;
    all.reserve(state.size());
    while (!state.empty()) {
        auto node = state.extract(state.begin());
        all.emplace_back(std::move(node.key()), std::move(node.mapped()));
    }
    loadedInitial_ = true;
    skeleton_.post(std::move(all));
    sayRecovered();
}

void FileSource::start() {
    if (worker_.joinable()) throw std::logic_error("FileSource::start: already started");
    try {
        watcher_ = std::make_unique<DirectoryWatcher>(dir_, name_);
    } catch (const std::system_error& e) {
        throw std::system_error(e.code(), "state file " + path_ + ": cannot watch directory " + dir_ + ": " +
                                              watchErrorText(e.code().value()));
    }
    stop_.drain();
    worker_ = std::thread([this] { run(); });
}

void FileSource::stop() {
    if (!worker_.joinable()) return;
    stop_.signal();
    worker_.join();
    watcher_.reset();
    stop_.drain();
}

void FileSource::reload(IfMissing ifMissing) {
    const std::string file = dir_ + "/" + name_;
    if (ifMissing != IfMissing::refuse) {
        struct stat st {};
        if (::stat(file.c_str(), &st) != 0 && errno == ENOENT) {
            if (ifMissing == IfMissing::sayRemoved)
                lost("state file " + path_ + ": removed; serving the last state until it is written again");
            return;
        }
    }
    // Each daemon is compared with its digest in the last accepted file as soon as it has
    // been read; only those that differ keep their keys (see DaemonSieve).
    digests_.beginReload();
    LauncherState next;
    SkippedDaemons skipped;
    try {
        next = loadStateFile(
            file, path_, [this](const std::string& name, const DaemonState& d) { return digests_.sieve(name, d); },
            skipped);
    } catch (const StateError& e) {
        digests_.abandon();
        refusedWith(e.what());
        skeleton_.postLine(Severity::warning, e.what());
        return;
    }
    // Said while the digests still tell which skipped daemons are served.
    accepted(skipped);
    saySkipped(skipped);
    std::vector<std::string> kept;
    for (const SkippedDaemon& d : skipped)
        if (d.indexable) kept.push_back(d.name);
    std::sort(kept.begin(), kept.end());
    kept.erase(std::unique(kept.begin(), kept.end()), kept.end());
    ChangedDaemons changed = digests_.commit(next, kept);
    if (catchUp_ && !changed.empty()) // the file changed before the watch was armed: a reload after all
        skeleton_.updateHealth([](SourceHealth& h) { ++h.reloads; });
    // What the parse took is free again once the worker is idle (see run()).
    next = LauncherState();
    releasePending_ = true;
    if (!changed.empty()) skeleton_.post(std::move(changed));
    sayRecovered();
}

void FileSource::run() {
    bool lostDir = false; // the directory could not be watched, and that was said
    bool rewatch = false; // the watch ended while the directory stayed: arm it and read again
    bool first = true;
    for (;;) {
        try {
            if (!watcher_->watching()) {
                if (int err = watcher_->watch(); err == 0) {
                    if (lostDir) skeleton_.say(Severity::notice, "watching directory " + dir_ + " again");
                    if (first) {
                        // The initial load was counted: this read only catches up.
                        catchUp_ = loadedInitial_;
                        try {
                            reload(loadedInitial_ ? IfMissing::sayRemoved : IfMissing::refuse);
                        } catch (...) {
                            catchUp_ = false;
                            throw;
                        }
                        catchUp_ = false;
                    } else if (lostDir || rewatch)
                        reload(IfMissing::ignore);
                    lostDir = rewatch = false;
                } else if (!lostDir) {
                    lost("state file " + path_ + ": cannot watch directory " + dir_ + ": " + watchErrorText(err) +
                         "; serving the last state, trying again every " + std::to_string(rearmMillis) + " ms");
                    lostDir = true;
                }
                first = false;
            }
            pollfd fds[3] = {{stop_.fd(), POLLIN, 0}, {watcher_->fd(), POLLIN, 0}, {reread_.fd(), POLLIN, 0}};
            int n = ::poll(fds, 3, !watcher_->watching() ? rearmMillis : releasePending_ ? releaseMillis : -1);
            if (n < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
            if (fds[0].revents) return;
            if (n > 0 && fds[2].revents) {
                reread_.drain();
                // Without a watched directory the reload follows once it is back.
                if (watcher_->watching()) reload(IfMissing::sayRemoved);
            }
            if (n == 0 && releasePending_) {
                // Idle since the last reload: hand what it released back to the system. Reloads
                // in quick succession reuse that memory instead.
                releaseFreeMemory();
                releasePending_ = false;
            }
            if (n <= 0 || !fds[1].revents) continue;
            const DirectoryWatcher::Events events = watcher_->read();
            if (events.dirGone) {
                std::error_code ec;
                if (std::filesystem::is_directory(dir_, ec)) {
                    // The watch ended but the directory is there (a file system mounted over
                    // it, say): arm it again, and say why if that fails.
                    rewatch = true;
                } else {
                    lost("state file " + path_ + ": directory " + dir_ +
                         " is gone; serving the last state, looking for it every " + std::to_string(rearmMillis) +
                         " ms");
                    lostDir = true;
                }
            }
            // When the directory went, the reload follows once it is back.
            if (!watcher_->watching()) continue;
            if (events.written)
                reload(IfMissing::refuse);
            else if (events.removed)
                lost("state file " + path_ + ": removed; serving the last state until it is written again");
        } catch (const std::exception& e) {
            skeleton_.say(Severity::error, std::string("reload failed: ") + e.what());
            // Do not spin on a persistent failure.
            pollfd stop = {stop_.fd(), POLLIN, 0};
            if (::poll(&stop, 1, rearmMillis) > 0) return;
        }
    }
}

} // namespace Feed
