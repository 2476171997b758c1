#include "SourceSkeleton.h"

#include <iterator>

namespace Feed {

SourceSkeleton::SourceSkeleton(std::string name) : name_(std::move(name)) {}

void SourceSkeleton::push(SourceEvent event) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(event));
    }
    wake_.signal();
}

void SourceSkeleton::post(ChangedDaemons changed, Severity severity, std::string line) {
    push({std::move(changed), severity, std::move(line)});
}

void SourceSkeleton::say(Severity severity, std::string line) {
    push({std::nullopt, severity, name_ + ": " + line});
}

void SourceSkeleton::postLine(Severity severity, std::string line) {
    push({std::nullopt, severity, std::move(line)});
}

std::vector<SourceEvent> SourceSkeleton::take() {
    std::deque<SourceEvent> taken;
    {
        // Drained under the mutex: a push after the swap signals again, so the loop never
        // misses an event queued while it takes.
        std::lock_guard<std::mutex> lock(mutex_);
        wake_.drain();
        taken.swap(queue_);
    }
    return {std::make_move_iterator(taken.begin()), std::make_move_iterator(taken.end())};
}

bool SourceSkeleton::queued() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return !queue_.empty();
}

SourceHealth SourceSkeleton::health() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return health_;
}

} // namespace Feed
