#include "EventFd.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace Feed {

EventFd::EventFd() {
    fd_ = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

EventFd::~EventFd() {
    ::close(fd_);
}

void EventFd::signal() noexcept {
    const std::uint64_t one = 1;
    while (::write(fd_, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void EventFd::drain() noexcept {
    std::uint64_t v;
    while (::read(fd_, &v, sizeof v) > 0 || errno == EINTR) {
    }
}

} // namespace Feed
