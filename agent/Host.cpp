#include "Host.h"

#include "orbel/Activity.h"
#include "statebase/Statebase.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <system_error>

#ifndef VELMAR_ENTERPRISE_NUMBER
#error "VELMAR_ENTERPRISE_NUMBER must be defined by the build"
#endif

namespace Agent {

const std::string& subtreeText() {
    static const std::string text = "enterprises." + std::to_string(VELMAR_ENTERPRISE_NUMBER) + ".3.17";
    return text;
}

namespace {

// Blocks every signal on the calling thread for its lifetime, so that a thread started
// meanwhile inherits a full mask.
class AllSignalsBlocked {
public:
    AllSignalsBlocked() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &saved_);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t saved_;
};

} // namespace

Host::Host(Feed::StateFeed::Log log) : log_(std::move(log)) {}

Host::~Host() { release(); }

void Host::loadState(std::unique_ptr<Feed::Source> source) {
    if (mib_) throw std::logic_error("Host::loadState: state already loaded");
    mib_ = GenericAgent::daemonMibFactory("daemonMIB");
    Statebase::root()->entityIs(GenericAgent::daemonMibStatePath, mib_);
    feed_ = std::make_unique<Feed::StateFeed>(std::move(source), mib_, log_);
    feed_->loadInitial();
}

void Host::loadModule(const std::string& modulePath, const std::vector<std::string>& contexts) {
    if (module_) throw std::logic_error("Host::loadModule: module already loaded");
    auto module = std::make_unique<Snmp::ModuleLoader>(modulePath);
    module->initContext("");
    for (const auto& c : contexts) module->initContext(Orbel::String8(c));
    module_ = std::move(module);
    if (feed_ && !health_) health_ = std::make_unique<FeedHealthMib>(*feed_);
    if (feed_ && !history_)
        history_ = std::make_unique<DaemonHistory>(mib_, [] {
            // sysUpTime of the agent that serves the table: hundredths of a second.
            return DaemonHistory::Stamp{static_cast<std::uint32_t>(netsnmp_get_agent_uptime()),
                                        std::chrono::system_clock::now()};
        });
    if (history_ && !historyMib_) historyMib_ = std::make_unique<HistoryMib>(*history_);
    if (!replyLimit_) replyLimit_ = std::make_unique<ReplySizeLimit>();
}

void Host::onFeedEvent(int, void* host) { static_cast<Host*>(host)->feed_->handleEvent(); }

void Host::startFeed() {
    if (!feed_) throw std::logic_error("Host::startFeed: no state loaded");
    if (feedRegistered_) return;
    register_readfd(feed_->eventFd(), onFeedEvent, this);
    feedRegistered_ = true;
    try {
        AllSignalsBlocked blocked;
        feed_->start();
    } catch (...) {
        unregister_readfd(feed_->eventFd());
        feedRegistered_ = false;
        throw;
    }
}

void Host::onActivityWakeup(int fd, void*) {
    std::uint64_t n;
    while (::read(fd, &n, sizeof n) > 0) {
    }
    Orbel::ActivityLoop::instance().runPending();
}

void Host::runActivitiesFromSelectLoop() {
    if (activityFd_ >= 0) return;
    activityFd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (activityFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    register_readfd(activityFd_, onActivityWakeup, this);
    const int fd = activityFd_;
    Orbel::ActivityLoop::instance().wakeupIs([fd] {
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(fd, &one, sizeof one);
    });
    // Work deferred before now would otherwise wait for the next deferral.
    if (Orbel::ActivityLoop::instance().pending() > 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t n = ::write(fd, &one, sizeof one);
    }
}

void Host::stopServing() {
    if (feed_) feed_->stop();
    if (feedRegistered_) {
        unregister_readfd(feed_->eventFd());
        feedRegistered_ = false;
    }
    if (activityFd_ >= 0) {
        Orbel::ActivityLoop::instance().wakeupIs(nullptr);
        unregister_readfd(activityFd_);
        ::close(activityFd_);
        activityFd_ = -1;
    }
    replyLimit_.reset();
    health_.reset();
    historyMib_.reset();
    // Contexts are withdrawn while the module is loaded: Net-SNMP frees the registrations
    // it still holds only afterwards, and only after that may the module go.
    if (module_)
        while (!module_->contexts().empty()) module_->unregisterContext(module_->contexts().back());
}

void Host::release() {
    stopServing();
    if (module_) module_->unload();
    module_.reset();
    feed_.reset();
    history_.reset();
    if (mib_) Statebase::root()->entityDelAll();
    mib_ = nullptr;
}

} // namespace Agent
