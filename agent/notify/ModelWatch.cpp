#include "ModelWatch.h"

#include "orbel/Activity.h"

namespace Agent {

// The DaemonMib's observer: rows of the enabled and running tables come and go.
class ModelWatch::MibWatch : public GenericAgent::DaemonMib::NotifieeConst {
public:
    explicit MibWatch(ModelWatch* owner) : owner_(owner) {}
    void onEnabledTable(Snmp::String agentName) override { owner_->rowChanged(std::string(agentName.view())); }
    void onRunningTable(Snmp::String agentName) override { owner_->rowChanged(std::string(agentName.view())); }

private:
    ModelWatch* owner_;
};

class ModelWatch::ConfigWatch : public GenericAgent::Config::NotifieeConst {
public:
    ConfigWatch(ModelWatch* owner, std::string name) : owner_(owner), name_(std::move(name)) {}
    void onEnabled() override { owner_->flagChanged(name_, false); }

private:
    ModelWatch* owner_;
    std::string name_;
};

class ModelWatch::StatusWatch : public GenericAgent::Status::NotifieeConst {
public:
    StatusWatch(ModelWatch* owner, std::string name) : owner_(owner), name_(std::move(name)) {}
    void onRunning() override { owner_->flagChanged(name_, true); }

private:
    ModelWatch* owner_;
    std::string name_;
};

// What the activity loop runs once a writer is done.
class ModelWatch::Flush : public Orbel::PtrInterface::NotifieeConst {
public:
    explicit Flush(ModelWatch* owner) : owner_(owner) {}
    void handleNotification(Orbel::ActivityConfig*) override {
        if (owner_) owner_->flush();
    }
    void ownerIs(ModelWatch* owner) noexcept { owner_ = owner; }

private:
    ModelWatch* owner_;
};

namespace {

template <class W, class T>
void watch(W& w, const Orbel::Ptr<T const>& target) {
    if (w.notifier() == target.ptr()) return;
    w.notifierIs(target);
    w.isRegisteredNotifieeIs(target != nullptr);
}

} // namespace

ModelWatch::ModelWatch(Orbel::Ptr<GenericAgent::DaemonMib> mib, Changed changed)
    : mib_(std::move(mib)), changed_(std::move(changed)), flush_(new Flush(this)) {}

ModelWatch::~ModelWatch() {
    stop();
    flush_->ownerIs(nullptr); // the activity loop may still hold it
}

std::size_t ModelWatch::flagObservers() const noexcept {
    std::size_t n = 0;
    for (const auto& [name, d] : daemons_) n += (d.config && d.config->notifier()) + (d.status && d.status->notifier());
    return n;
}

ModelWatch::Daemon& ModelWatch::follow(const std::string& name) {
    Daemon& d = daemons_[name];
    const Snmp::String key(name);
    auto enabledRow = mib_->enabledTable(key);
    auto runningRow = mib_->runningTable(key);
    Orbel::Ptr<GenericAgent::Config const> config = enabledRow ? enabledRow->agentConfig() : nullptr;
    Orbel::Ptr<GenericAgent::Status const> status = runningRow ? runningRow->agentStatus() : nullptr;
    if (config && !d.config) d.config = new ConfigWatch(this, name);
    if (status && !d.status) d.status = new StatusWatch(this, name);
    if (d.config) watch(*d.config, config);
    if (d.status) watch(*d.status, status);
    return d;
}

DaemonFlags ModelWatch::flagsNow(const std::string& name, const Daemon& d) const {
    const Snmp::String key(name);
    auto enabledRow = mib_->enabledTable(key);
    if (!enabledRow) return DaemonFlags{false, d.told.enabled, d.told.running}; // its last flags
    auto runningRow = mib_->runningTable(key);
    return DaemonFlags{true, enabledRow->enabled(), runningRow && runningRow->running()};
}

std::vector<std::pair<std::string, DaemonFlags>> ModelWatch::start() {
    std::vector<std::pair<std::string, DaemonFlags>> now;
    if (started_) return now;
    started_ = true;
    mibWatch_ = new MibWatch(this);
    mibWatch_->notifierIs(mib_);
    mibWatch_->isRegisteredNotifieeIs(true);
    for (auto it = mib_->enabledTable().begin(); !it.isEnd(); ++it) {
        const std::string name(it.row()->agentName().view());
        Daemon& d = follow(name);
        d.told = flagsNow(name, d);
        now.emplace_back(name, d.told);
    }
    if (listener_) listener_->baselineIs(now);
    return now;
}

void ModelWatch::stop() {
    if (!started_) return;
    started_ = false;
    mibWatch_->isRegisteredNotifieeIs(false);
    mibWatch_->notifierIs(nullptr);
    mibWatch_ = nullptr;
    for (auto& [name, d] : daemons_) {
        if (d.config) d.config->notifierIs(nullptr);
        if (d.status) d.status->notifierIs(nullptr);
    }
    daemons_.clear();
    dirty_.clear();
}

void ModelWatch::rowChanged(const std::string& name) {
    follow(name);
    markDirty(name);
}

void ModelWatch::flagChanged(const std::string& name, bool running) {
    if (!started_) return;
    auto it = daemons_.find(name);
    if (it != daemons_.end()) ++(running ? it->second.seen.running : it->second.seen.enabled);
    markDirty(name);
}

void ModelWatch::markDirty(const std::string& name) {
    if (!started_) return;
    const bool first = dirty_.empty();
    dirty_.insert(name);
    if (first) Orbel::ActivityLoop::instance().pendingIs(flush_);
}

void ModelWatch::flush() {
    if (!started_) return;
    std::set<std::string> dirty;
    dirty.swap(dirty_);
    for (const std::string& name : dirty) {
        auto it = daemons_.find(name);
        if (it == daemons_.end()) continue;
        Daemon& d = it->second;
        const DaemonFlags now = flagsNow(name, d);
        const bool first = !d.told.present && now.present;
        const FlagChanges seen = d.seen;
        d.seen = FlagChanges{};
        if (now != d.told || first) {
            d.told = now;
            if (listener_) listener_->changed(name, now, seen);
            if (changed_) changed_(name, now);
        } else if (listener_ && (seen.running || seen.enabled)) {
            listener_->changed(name, now, seen); // changed and changed back
        }
        if (!now.present && !mib_->runningTable(Snmp::String(name))) {
            // Gone: nothing of it is left to watch.
            if (d.config) d.config->notifierIs(nullptr);
            if (d.status) d.status->notifierIs(nullptr);
            daemons_.erase(it);
        }
    }
}

} // namespace Agent
