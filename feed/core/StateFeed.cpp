#include "StateFeed.h"

#include "FreeMemory.h"

#include <stdexcept>
#include <utility>

namespace Feed {

namespace {

// A difference this big leaves enough released memory behind to be worth handing back.
constexpr std::size_t bigDifferenceKeys = 1024;

} // namespace

StateFeed::StateFeed(std::unique_ptr<Source> source, Orbel::Ptr<GenericAgent::DaemonMib> mib, Log log)
    : source_(std::move(source)), applier_(std::move(mib)), log_(std::move(log)) {
    if (!source_) throw std::invalid_argument("StateFeed: null source");
}

StateFeed::~StateFeed() {
    source_->stop();
}

void StateFeed::loadInitial() {
    source_->loadInitial();
    drain(true);
}

void StateFeed::start() {
    source_->start();
}

void StateFeed::stop() {
    source_->stop();
}

std::size_t StateFeed::handleEvent() {
    return drain(false);
}

std::size_t StateFeed::rows() const noexcept {
    const GenericAgent::DaemonMib& mib = *applier_.mib();
    return mib.enabledTable().size() + mib.optionTable().size() + mib.runningTable().size() + mib.dataTable().size();
}

std::size_t StateFeed::drain(bool initial) {
    std::size_t applied = 0;
    std::size_t keys = 0;
    for (SourceEvent& event : source_->take()) {
        if (event.changed) {
            StateDiff diff;
            for (auto& [name, after] : *event.changed) {
                const std::optional<DaemonState> before = applier_.served(name);
                DaemonChange d = diffDaemon(name, before ? &*before : nullptr, after ? &*after : nullptr);
                if (!d.empty()) diff.daemons.push_back(std::move(d));
            }
            // The batch and the difference are freed only after the model has been written:
            // freed earlier, their memory would be interleaved with the new rows and could not
            // be handed back to the system afterwards (about 70 bytes a row at 100,000 rows).
            // The first load is logged even when the launcher has no daemons.
            if (!diff.empty() || initial) {
                applier_.apply(diff);
                ++applies_;
                ++applied;
                lastChange_ = std::chrono::system_clock::now();
                keys += diff.keys();
                if (log_)
                    log_(Severity::info, source_->description() + ": " + diff.summary() + "; serving " +
                                             std::to_string(daemons()) + (daemons() == 1 ? " daemon, " : " daemons, ") +
                                             std::to_string(rows()) + (rows() == 1 ? " row" : " rows"));
            }
            event.changed.reset();
        }
        if (!event.line.empty() && log_) log_(event.severity, event.line);
    }
    if (keys >= bigDifferenceKeys) releaseFreeMemory();
    return applied;
}

} // namespace Feed
