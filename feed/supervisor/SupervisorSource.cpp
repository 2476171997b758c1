#include "SupervisorSource.h"

#include "EventNote.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <stdexcept>
#include <system_error>

namespace Feed {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds firstRetry{100};
constexpr milliseconds lastRetry{5000};
constexpr std::int64_t faultBadName = 10;      // supervisord: no such process
constexpr std::int64_t faultShutdownState = 6; // supervisord: shutting down or restarting
constexpr std::size_t maxNotesPerRound = 4096;
// Processes whose exit is watched with a pidfd at most (descriptors are not unlimited).
constexpr std::size_t maxWatched = 512;
// After a watched process exits, how often and how many times it is read until supervisord
// has noticed (supervisord reaps its children once per turn of its loop, up to 1 s apart).
constexpr milliseconds recheckEvery{20};
constexpr int maxRechecks = 75;

std::string secondsText(milliseconds ms) {
    return ms.count() % 1000 == 0 ? std::to_string(ms.count() / 1000) + " s" : std::to_string(ms.count()) + " ms";
}

sockaddr_un socketAddress(const std::string& path) {
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path)
        throw std::invalid_argument("events socket \"" + path + "\": the path is " + std::to_string(path.size()) +
                                    " bytes, more than a Unix socket allows (" + std::to_string(sizeof a.sun_path - 1) +
                                    ")");
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    return a;
}

} // namespace

// The worker's side: the client, the tracker and the state of the link. Used by the caller
// in loadInitial, then by the worker thread only.
class SupervisorSource::Worker {
public:
    explicit Worker(SupervisorSource& s)
        : s_(s),
          client_(s.options_.endpoint, SupervisorClient::Options{s.options_.callTimeout, milliseconds(1000),
                                                                 s.options_.username, s.options_.password, &cancel_}),
          tracker_(s.options_.patterns, s.options_.command) {}

    enum class Link { never, up, down };

    // Reads every process and hands over what differs. True when supervisord answered.
    bool fullRead(bool initial);
    // Reads one process again.
    void readProcess(const std::string& group, const std::string& name);

    // The process as the last read said; null: not known.
    const ProcessInfo* known(const std::string& group, const std::string& name) const {
        return tracker_.info(group, name);
    }
    std::vector<ProcessTracker::Pid> pids() const { return tracker_.pids(); }

    Link link() const noexcept { return link_; }
    Clock::time_point retryAt() const noexcept { return retryAt_; }
    std::atomic<bool>& cancel() noexcept { return cancel_; }

private:
    // A call failed: says so once per loss, and sets the health. Rethrows nothing.
    void failed(std::exception_ptr error, bool initial);
    void lost(SourceState state, const std::string& why, bool initial);
    void answered();
    void handOver(ProcessTracker::Result r, bool always);

    SupervisorSource& s_;
    std::atomic<bool> cancel_{false};
    SupervisorClient client_;
    ProcessTracker tracker_;
    Link link_ = Link::never;
    milliseconds backoff_ = firstRetry;
    Clock::time_point retryAt_{};
};

void SupervisorSource::Worker::handOver(ProcessTracker::Result r, bool always) {
    for (std::string& line : r.lines) s_.skeleton_.say(Severity::warning, std::move(line));
    if (always || !r.changed.empty()) s_.skeleton_.post(std::move(r.changed));
    s_.daemons_ = tracker_.daemons();
}

void SupervisorSource::Worker::answered() {
    backoff_ = firstRetry;
    s_.skeleton_.updateHealth([](SourceHealth& h) {
        h.lastRead = std::chrono::system_clock::now();
        h.connected = true;
    });
}

void SupervisorSource::Worker::lost(SourceState state, const std::string& why, bool initial) {
    retryAt_ = Clock::now() + backoff_;
    backoff_ = std::min({backoff_ * 2, lastRetry, s_.options_.refresh});
    bool wasUp = link_ == Link::up;
    bool wasState = s_.skeleton_.updateHealth([&](SourceHealth& h) {
        bool same = h.state == state;
        if (h.state != SourceState::notLoaded || state != SourceState::busLost || link_ != Link::never) h.state = state;
        h.connected = false;
        return same;
    });
    if (link_ == Link::never) {
        if (initial) s_.skeleton_.say(Severity::warning, "cannot connect: " + why + "; serving nothing, trying again");
        return;
    }
    link_ = Link::down;
    if (wasUp || !wasState) {
        if (state == SourceState::unresponsive)
            s_.skeleton_.say(Severity::warning, "not answering: " + why + "; serving the last state, trying again");
        else
            s_.skeleton_.say(Severity::warning, "lost: " + why + "; serving the last state, reconnecting");
    }
}

void SupervisorSource::Worker::failed(std::exception_ptr error, bool initial) {
    try {
        std::rethrow_exception(error);
    } catch (const XmlRpc::Fault& f) {
        if (f.code() == faultShutdownState)
            return lost(SourceState::busLost, "supervisord is shutting down or restarting", initial);
        answered();
        std::string line = std::string(f.what()) + "; serving the last state";
        s_.skeleton_.updateHealth([&](SourceHealth& h) {
            ++h.refused;
            h.lastRefusal = s_.skeleton_.name() + ": " + line;
        });
        s_.skeleton_.say(Severity::warning, line);
    } catch (const SupervisorCallError& e) {
        using Kind = SupervisorCallError::Kind;
        switch (e.kind()) {
            case Kind::cancelled:
                return;
            case Kind::unreachable:
                return lost(SourceState::busLost, e.what(), initial);
            case Kind::timeout:
                return lost(SourceState::unresponsive, e.what(), initial);
            case Kind::refused:
            case Kind::badReply: {
                std::string line = std::string(e.what()) + "; serving the last state";
                s_.skeleton_.updateHealth([&](SourceHealth& h) {
                    ++h.refused;
                    h.lastRefusal = s_.skeleton_.name() + ": " + line;
                    h.state = SourceState::refused;
                });
                s_.skeleton_.say(Severity::warning, line);
                retryAt_ = Clock::now() + backoff_;
                backoff_ = std::min({backoff_ * 2, lastRetry, s_.options_.refresh});
                if (link_ == Link::up) link_ = Link::down;
                return;
            }
        }
    }
}

bool SupervisorSource::Worker::fullRead(bool initial) {
    std::vector<ProcessConfig> configs;
    std::vector<ProcessInfo> infos;
    try {
        // Both at once, on two connections: supervisord sends each large reply a few
        // kilobytes per turn of its loop, and serves both connections in the same turns.
        std::vector<XmlRpc::Value> both =
            client_.callTogether({{"supervisor.getAllConfigInfo", {}}, {"supervisor.getAllProcessInfo", {}}});
        const XmlRpc::Value& c = both[0];
        const XmlRpc::Value& i = both[1];
        auto entries = [](const XmlRpc::Value& v, const char* call, auto convert, auto& into) {
            const XmlRpc::Array* a = v.array();
            if (!a)
                throw SupervisorCallError(SupervisorCallError::Kind::badReply, std::string(call) + ": not an array");
            into.reserve(a->size());
            for (std::size_t n = 0; n < a->size(); ++n) {
                try {
                    into.push_back(convert((*a)[n]));
                } catch (const std::invalid_argument& e) {
                    throw SupervisorCallError(SupervisorCallError::Kind::badReply,
                                              std::string(call) + ": entry " + std::to_string(n + 1) + ": " + e.what());
                }
            }
        };
        entries(c, "supervisor.getAllConfigInfo", processConfigOf, configs);
        entries(i, "supervisor.getAllProcessInfo", processInfoOf, infos);
    } catch (...) {
        failed(std::current_exception(), initial);
        return false;
    }
    Link before = link_;
    link_ = Link::up;
    answered();
    ProcessTracker::Result r = tracker_.replaceAll(configs, infos);
    std::size_t skippedNow = tracker_.skippedNow();
    s_.skeleton_.updateHealth([&](SourceHealth& h) {
        h.state = SourceState::ok;
        ++h.reloads;
        h.skippedNow = skippedNow;
        h.skipped += skippedNow;
        if (skippedNow) h.lastSkip = s_.skeleton_.name() + ": " + tracker_.lastSkip();
        h.skippedNote = skippedNow == 0 ? std::string()
                                        : std::to_string(skippedNow) + (skippedNow == 1 ? " process" : " processes") +
                                              " skipped (name over 32 bytes)";
    });
    handOver(std::move(r), initial || before != Link::up);
    if (before == Link::down)
        s_.skeleton_.say(Severity::notice, "back; " + std::to_string(tracker_.daemons()) + " processes");
    else if (before == Link::never && !initial)
        s_.skeleton_.say(Severity::notice, "connected; " + std::to_string(tracker_.daemons()) + " processes");
    return true;
}

void SupervisorSource::Worker::readProcess(const std::string& group, const std::string& name) {
    ProcessInfo info;
    try {
        info = processInfoOf(client_.call("supervisor.getProcessInfo", {processCallName(group, name)}));
    } catch (const XmlRpc::Fault& f) {
        if (f.code() == faultBadName) {
            answered();
            handOver(tracker_.remove(group, name), false);
            return;
        }
        failed(std::current_exception(), false);
        return;
    } catch (const std::invalid_argument& e) {
        failed(std::make_exception_ptr(SupervisorCallError(SupervisorCallError::Kind::badReply,
                                                           std::string("supervisor.getProcessInfo: ") + e.what())),
               false);
        return;
    } catch (...) {
        failed(std::current_exception(), false);
        return;
    }
    answered();
    s_.skeleton_.updateHealth([](SourceHealth& h) { ++h.reloads; });
    ProcessTracker::Result r = tracker_.update(info);
    if (r.needFullRead) {
        fullRead(false);
        return;
    }
    handOver(std::move(r), false);
}

SupervisorSource::SupervisorSource(Options options)
    : options_(std::move(options)), skeleton_("supervisord on " + options_.endpoint.text()) {
    if (options_.patterns.empty()) throw std::invalid_argument("supervisor source: no process patterns");
    if (options_.refresh.count() <= 0) throw std::invalid_argument("supervisor source: the refresh must be above 0");
    if (options_.fullRead.count() <= 0)
        throw std::invalid_argument("supervisor source: the full read interval must be above 0");
    if (!options_.eventsSocket.empty()) (void)socketAddress(options_.eventsSocket);
    skeleton_.updateHealth([](SourceHealth& h) {
        h.launcher = "supervisord";
        h.connected = false;
    });
    work_ = std::make_unique<Worker>(*this);
}

SupervisorSource::~SupervisorSource() {
    stop();
}

void SupervisorSource::loadInitial() {
    if (loadedInitial_) throw std::logic_error("supervisor source: loadInitial called twice");
    loadedInitial_ = true;
    work_->fullRead(true);
}

void SupervisorSource::start() {
    if (worker_.joinable()) throw std::logic_error("supervisor source: already started");
    if (!options_.eventsSocket.empty()) {
        sockaddr_un a = socketAddress(options_.eventsSocket);
        struct stat st {};
        if (::lstat(a.sun_path, &st) == 0 && S_ISSOCK(st.st_mode)) ::unlink(a.sun_path);
        events_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (events_ < 0) throw std::system_error(errno, std::generic_category(), "events socket");
        if (::bind(events_, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
            int e = errno;
            ::close(events_);
            events_ = -1;
            throw std::system_error(e, std::generic_category(), "events socket \"" + options_.eventsSocket + "\"");
        }
    }
    work_->cancel() = false;
    worker_ = std::thread([this] { run(); });
}

void SupervisorSource::stop() {
    if (worker_.joinable()) {
        work_->cancel() = true;
        stop_.signal();
        worker_.join();
    }
    if (events_ >= 0) {
        ::close(events_);
        events_ = -1;
        ::unlink(options_.eventsSocket.c_str());
    }
}

void SupervisorSource::run() {
    Worker& w = *work_;
    const Options& o = options_;
    auto now = Clock::now();
    Clock::time_point nextFull = now + o.fullRead;
    Clock::time_point nextPoll = now + o.refresh;
    Clock::time_point lastHeard{};
    bool listening = false;
    if (w.link() != Worker::Link::up) w.fullRead(false);

    // A supervisord on a Unix socket runs here: the exit of each of its processes is watched
    // with a pidfd, and the process read at once, since supervisord itself may take up to a
    // second to notice (it reaps its children once per turn of its loop) and our request
    // wakes it. Off for a remote supervisord, whose pids are not ours to see.
    struct Watch {
        int fd = -1;
        std::string group, name;
    };
    struct Recheck {
        std::string group, name;
        std::int64_t pid = 0;
        int left = maxRechecks;
        Clock::time_point due{};
    };
    const bool watchPids = !o.endpoint.socketPath.empty();
    std::map<std::int64_t, Watch> watched;
    std::vector<Recheck> rechecks;
    auto closeWatches = [&] {
        for (auto& [pid, wt] : watched) ::close(wt.fd);
        watched.clear();
    };
    auto syncWatches = [&] {
        if (!watchPids || w.link() != Worker::Link::up) return;
        std::map<std::int64_t, Watch> next;
        for (ProcessTracker::Pid& p : w.pids()) {
            if (auto it = watched.find(p.pid); it != watched.end()) {
                next.emplace(p.pid, std::move(it->second));
                watched.erase(it);
            } else if (next.size() < maxWatched) {
                int fd = static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(p.pid), 0u));
                if (fd >= 0)
                    next.emplace(p.pid, Watch{fd, std::move(p.group), std::move(p.name)});
                else if (errno == ESRCH)
                    rechecks.push_back({p.group, p.name, p.pid, maxRechecks, Clock::now()});
            }
        }
        closeWatches();
        watched = std::move(next);
    };
    syncWatches();

    for (;;) {
        now = Clock::now();
        Clock::time_point due = nextFull;
        if (w.link() != Worker::Link::up)
            due = std::min(due, w.retryAt());
        else if (!listening)
            due = std::min(due, nextPoll);
        if (listening) due = std::min(due, lastHeard + o.listenerQuiet);
        for (const Recheck& r : rechecks) due = std::min(due, r.due);
        auto wait = std::chrono::duration_cast<milliseconds>(due - now).count();
        int timeout = wait <= 0 ? 0 : static_cast<int>(std::min<long long>(wait + 1, 60'000));

        std::vector<pollfd> fds{{stop_.fd(), POLLIN, 0}, {reread_.fd(), POLLIN, 0}, {events_, POLLIN, 0}};
        for (const auto& [pid, wt] : watched) fds.push_back({wt.fd, POLLIN, 0});
        int n = ::poll(fds.data(), fds.size(), timeout);
        if (n < 0 && errno != EINTR) {
            skeleton_.say(Severity::error, std::string("poll: ") + std::strerror(errno) + "; stopped following");
            closeWatches();
            return;
        }
        if (n > 0 && fds[0].revents) {
            closeWatches();
            return;
        }
        now = Clock::now();
        if (n > 0) {
            std::size_t k = 3;
            for (auto it = watched.begin(); it != watched.end(); ++k) {
                if (fds[k].revents) {
                    rechecks.push_back({it->second.group, it->second.name, it->first, maxRechecks, now});
                    ::close(it->second.fd);
                    it = watched.erase(it);
                } else {
                    ++it;
                }
            }
        }

        bool full = false;
        if (n > 0 && fds[1].revents) {
            reread_.drain();
            full = true;
        }
        std::set<std::pair<std::string, std::string>> processes;
        bool heard = false;
        if (n > 0 && events_ >= 0 && fds[2].revents) {
            char buf[1024];
            for (std::size_t k = 0; k < maxNotesPerRound; ++k) {
                ssize_t got = ::recv(events_, buf, sizeof buf, MSG_DONTWAIT);
                if (got < 0) break;
                std::optional<EventNote> note = decodeNote(std::string_view(buf, static_cast<std::size_t>(got)));
                if (!note) continue;
                heard = true;
                switch (note->kind) {
                    case EventNote::Kind::process:
                        processes.emplace(note->group, note->name);
                        break;
                    case EventNote::Kind::group:
                    case EventNote::Kind::hello:
                    case EventNote::Kind::bye:
                        full = true;
                        break; // bye: is supervisord going?
                    case EventNote::Kind::tick:
                        break;
                }
            }
        }
        if (heard) {
            lastHeard = now;
            if (!listening) {
                listening = true;
                listening_ = true;
                skeleton_.say(Severity::info, "listener heard; following its events");
            }
        } else if (listening && now >= lastHeard + o.listenerQuiet) {
            listening = false;
            listening_ = false;
            nextPoll = now;
            skeleton_.say(Severity::notice, "listener silent for " + secondsText(o.listenerQuiet) +
                                                "; reading every process every " + secondsText(o.refresh));
        }

        if (w.link() != Worker::Link::up) {
            // Anything heard, or an operator's reread, means supervisord may be back.
            if (now >= w.retryAt() || full || heard)
                full = true;
            else
                continue;
        }
        if (!full && (now >= nextFull || (!listening && now >= nextPoll))) full = true;
        if (full) {
            if (w.fullRead(false)) {
                nextFull = now + o.fullRead;
                nextPoll = now + o.refresh;
            }
            syncWatches();
            continue;
        }
        // Exited processes that supervisord still reports with their old pid are read again
        // shortly; each read also wakes supervisord to notice.
        std::vector<Recheck> again;
        for (Recheck& r : rechecks) {
            if (r.due > now) {
                again.push_back(std::move(r));
                continue;
            }
            processes.erase({r.group, r.name});
            w.readProcess(r.group, r.name);
            const ProcessInfo* info = w.known(r.group, r.name);
            if (info && info->pid == r.pid && --r.left > 0 && w.link() == Worker::Link::up) {
                r.due = now + recheckEvery;
                again.push_back(std::move(r));
            }
        }
        rechecks = std::move(again);
        for (const auto& [group, name] : processes) {
            w.readProcess(group, name);
            if (w.link() != Worker::Link::up) break;
        }
        syncWatches();
    }
}

} // namespace Feed
