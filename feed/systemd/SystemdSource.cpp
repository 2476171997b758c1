#include "SystemdSource.h"

#include "SystemdShell.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace Feed {

namespace {

constexpr const char* defaultSystemBus = "unix:path=/run/dbus/system_bus_socket";
constexpr std::chrono::milliseconds firstRetry{100};
constexpr std::chrono::milliseconds lastRetry{5000};

using Clock = std::chrono::steady_clock;

} // namespace

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
    if (options_.callTimeout.count() <= 0 || options_.unresponsiveAfter.count() <= 0 ||
        options_.probeInterval.count() <= 0)
        throw std::invalid_argument("systemd source: a call timeout, wait or probe interval is not positive");
    skeleton_.updateHealth([](SourceHealth& h) {
        h.connected = false;
        h.launcher = "systemd";
    });
    shell_ = std::make_unique<SystemdShell>(options_, address_, skeleton_, counts_);
}

SystemdSource::~SystemdSource() {
    stop();
    shell_.reset();
}

void SystemdSource::loadInitial() {
    if (loadedInitial_ || worker_.joinable())
        throw std::logic_error("systemd source: loadInitial after a load or start");
    loadedInitial_ = true;
    if (!shell_->connect(true)) {
        skeleton_.updateHealth([](SourceHealth& h) { h.state = SourceState::busLost; });
        return;
    }
    // Drive the first read here for a short while; whatever systemd has not answered by
    // then, the worker reads.
    const auto deadline = Clock::now() + options_.initialWait;
    while (shell_->hasBus() && !shell_->synced() && Clock::now() < deadline) {
        if (!shell_->step() || shell_->synced()) break;
        pollfd fd{shell_->fd(), shell_->events(), 0};
        const int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count() + 1);
        const int wait = shell_->timeoutMs();
        ::poll(&fd, 1, std::max(0, wait < 0 ? left : std::min(wait, left)));
    }
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
    bool saidDown = !shell_->hasBus(); // loadInitial has said why it is not connected
    for (;;) {
        auto now = Clock::now();
        if (!shell_->hasBus() && now >= retryAt) {
            if (shell_->connect(false)) {
                retryDelay = firstRetry;
                skeleton_.say(Severity::notice,
                              saidDown ? "connected; reading every unit" : "back on the bus; reading every unit again");
                saidDown = false;
            } else {
                retryAt = now + retryDelay;
                retryDelay = std::min(retryDelay * 2, lastRetry);
                saidDown = true;
            }
        }
        if (shell_->hasBus() && !shell_->step()) {
            retryAt = Clock::now() + retryDelay;
            saidDown = true;
        }
        now = Clock::now();
        if (refreshing && now >= refreshAt) {
            shell_->refresh();
            refreshAt = now + options_.refresh;
            if (shell_->hasBus()) shell_->step();
        }
        int timeout = shell_->timeoutMs();
        auto until = [&](Clock::time_point at) {
            const long ms = std::max<long>(duration_cast<milliseconds>(at - Clock::now()).count() + 1, 0);
            timeout = timeout < 0 ? static_cast<int>(ms) : std::min(timeout, static_cast<int>(ms));
        };
        if (refreshing) until(refreshAt);
        if (!shell_->hasBus()) until(retryAt);
        pollfd fds[3] = {{stop_.fd(), POLLIN, 0}, {reread_.fd(), POLLIN, 0}, {shell_->fd(), shell_->events(), 0}};
        const int n = ::poll(fds, shell_->hasBus() ? 3 : 2, timeout);
        if (n < 0 && errno != EINTR) {
            skeleton_.say(Severity::error,
                          std::string("poll: ") + std::strerror(errno) + "; stopped following systemd");
            return;
        }
        if (n > 0 && (fds[0].revents & POLLIN)) return;
        if (n > 0 && (fds[1].revents & POLLIN)) {
            reread_.drain();
            if (shell_->hasBus())
                shell_->resyncNow();
            else
                retryAt = Clock::now();
        }
    }
}

} // namespace Feed
