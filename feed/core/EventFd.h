// A non-blocking eventfd that one thread signals and another waits on: how a source's
// worker wakes the event loop, and how the loop tells a worker to stop.
//
//   Feed::EventFd wake;
//   wake.signal();                 // any thread
//   poll({wake.fd(), POLLIN}) ...; wake.drain();
#pragma once

namespace Feed {

class EventFd {
public:
    // Throws std::system_error when no eventfd can be had.
    EventFd();
    ~EventFd();
    EventFd(const EventFd&) = delete;
    EventFd& operator=(const EventFd&) = delete;

    int fd() const noexcept { return fd_; }
    // Makes fd() readable until drain().
    void signal() noexcept;
    // Makes fd() unreadable again.
    void drain() noexcept;

private:
    int fd_ = -1;
};

} // namespace Feed
