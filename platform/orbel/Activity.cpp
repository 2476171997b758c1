#include "Activity.h"

#include <algorithm>
#include <vector>

namespace Orbel {

ActivityLoop& ActivityLoop::instance() {
    static ActivityLoop loop;
    return loop;
}

void ActivityLoop::pendingIs(const Ptr<PtrInterface::NotifieeConst>& n) {
    if (!n) return;
    if (std::find(queue_.begin(), queue_.end(), n) != queue_.end()) return;
    queue_.push_back(n);
    if (queue_.size() == 1 && wakeup_) wakeup_();
}

std::size_t ActivityLoop::runPending() {
    std::vector<Ptr<PtrInterface::NotifieeConst>> batch(queue_.begin(), queue_.end());
    queue_.clear();
    ActivityConfig config(++pass_);
    for (auto& n : batch) {
        // The loop's caller (an event loop) cannot handle an observer's failure, and the
        // rest of the batch must still run: the failing one is told and the loop goes on.
        try {
            n->handleNotification(&config);
        } catch (...) {
            ++failures_;
            try {
                n->onNotificationException(0);
            } catch (...) {
            }
        }
    }
    return batch.size();
}

} // namespace Orbel
