#include "PtrInterface.h"

#include <cstdio>
#include <cstdlib>

namespace Orbel {

namespace {
std::atomic<std::int64_t> liveCount{0};
}

PtrInterface::PtrInterface() noexcept {
    liveCount.fetch_add(1, std::memory_order_relaxed);
}

PtrInterface::~PtrInterface() {
#ifndef NDEBUG
    // A counted object must only die through its last reference.
    if (refs_ != 0) {
        std::fprintf(stderr, "Orbel::PtrInterface destroyed with %u references left\n", static_cast<unsigned>(refs_));
        std::abort();
    }
#endif
    liveCount.fetch_sub(1, std::memory_order_relaxed);
}

void PtrInterface::deleteRef() const {
    if (--refs_ == 0) onLastReference();
}

void PtrInterface::onLastReference() const {
    delete this;
}

std::int64_t PtrInterface::liveInstances() noexcept {
    return liveCount.load(std::memory_order_relaxed);
}

} // namespace Orbel
