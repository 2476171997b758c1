#include "Host.h"

#include "orbel/Activity.h"
#include "statebase/Statebase.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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

// The registrations in the agent's registry, in every context, with a handler whose code
// lives in the library file at `library`.
std::vector<netsnmp_handler_registration*> registrationsInto(const std::string& library) {
    std::vector<netsnmp_handler_registration*> found;
    std::vector<std::pair<std::string, bool>> files; // file name -> is the library
    auto inLibrary = [&](Netsnmp_Node_Handler* fn) {
        Dl_info info{};
        if (!fn || !::dladdr(reinterpret_cast<void*>(fn), &info) || !info.dli_fname) return false;
        for (const auto& [file, same] : files)
            if (file == info.dli_fname) return same;
        std::error_code ec;
        const bool same = std::filesystem::equivalent(info.dli_fname, library, ec) && !ec;
        files.emplace_back(info.dli_fname, same);
        return same;
    };
    for (subtree_context_cache* c = get_top_context_cache(); c; c = c->next)
        for (netsnmp_subtree* s = c->first_subtree; s; s = s->next)
            for (netsnmp_subtree* t = s; t; t = t->children) {
                netsnmp_handler_registration* reg = t->reginfo;
                if (!reg || std::find(found.begin(), found.end(), reg) != found.end()) continue;
                for (netsnmp_mib_handler* h = reg->handler; h; h = h->next)
                    if (inLibrary(h->access_method)) {
                        found.push_back(reg);
                        break;
                    }
            }
    return found;
}

// Frees an iterator information the module allocated without handing it over: its column
// chain, then the information with its table information.
void freeModuleIteratorInfo(void* p) {
    auto* iinfo = static_cast<netsnmp_iterator_info*>(p);
    if (iinfo->table_reginfo) {
        for (netsnmp_column_info* c = iinfo->table_reginfo->valid_columns; c;) {
            netsnmp_column_info* next = c->next;
            free(c);
            c = next;
        }
        iinfo->table_reginfo->valid_columns = nullptr;
    }
    netsnmp_iterator_delete_table(iinfo);
}

// Removes every registration that still leads into the module's code after it left all
// its contexts: its default-context tables (see stopServing in Host.h). A process that
// runs on after the module is unloaded (snmpd, on SIGHUP) must not keep them, and a
// process that exits frees them here rather than never.
void withdrawModuleLeftovers(const std::string& modulePath) {
    const auto left = registrationsInto(modulePath);
    for (netsnmp_handler_registration* reg : left) {
        // Unregistered without an owner of its iterator information, that information would
        // be lost: the iterator's handler frees it with itself.
        for (netsnmp_mib_handler* h = reg->handler; h; h = h->next)
            if (h->handler_name && std::strcmp(h->handler_name, TABLE_ITERATOR_NAME) == 0 && h->myvoid && !h->data_free)
                h->data_free = freeModuleIteratorInfo;
        netsnmp_unregister_handler(reg);
    }
    DEBUGMSGTL(("velmar_daemon_mib", "removed %u registrations the module left\n", static_cast<unsigned>(left.size())));
}

} // namespace

Host::Host(Feed::StateFeed::Log log) : log_(std::move(log)) {}

Host::~Host() {
    release();
}

void Host::loadState(std::unique_ptr<Feed::Source> source) {
    if (mib_) throw std::logic_error("Host::loadState: state already loaded");
    mib_ = GenericAgent::daemonMibFactory("daemonMIB");
    Statebase::root()->entityIs(GenericAgent::daemonMibStatePath, mib_);
    feed_ = std::make_unique<Feed::StateFeed>(std::move(source), mib_, log_);
    feed_->loadInitial();
}

void Host::loadModule(const std::string& modulePath, const std::vector<std::string>& contexts) {
    if (module_) throw std::logic_error("Host::loadModule: module already loaded");
    // From here on, what the module registers is withdrawn with it.
    modulePath_ = modulePath;
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

void Host::onFeedEvent(int, void* host) {
    static_cast<Host*>(host)->feed_->handleEvent();
}

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
    if (!modulePath_.empty()) {
        withdrawModuleLeftovers(modulePath_);
        modulePath_.clear();
    }
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
