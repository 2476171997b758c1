#include "DirectoryWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace Feed {

namespace {

constexpr std::uint32_t fileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM;
constexpr std::uint32_t selfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

} // namespace

DirectoryWatcher::DirectoryWatcher(std::string dir, std::string name) : dir_(std::move(dir)), name_(std::move(name)) {
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
}

DirectoryWatcher::~DirectoryWatcher() { ::close(fd_); }

int DirectoryWatcher::watch() {
    if (wd_ >= 0) return 0;
    wd_ = ::inotify_add_watch(fd_, dir_.c_str(), fileEvents | selfEvents | IN_ONLYDIR | IN_EXCL_UNLINK);
    return wd_ >= 0 ? 0 : errno;
}

DirectoryWatcher::Events DirectoryWatcher::read() {
    Events events;
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        ssize_t got = ::read(fd_, buffer, sizeof buffer);
        if (got <= 0) break;
        for (char* p = buffer; p < buffer + got;) {
            auto* ev = reinterpret_cast<inotify_event*>(p);
            p += sizeof(inotify_event) + ev->len;
            if (ev->mask & IN_Q_OVERFLOW) {
                events.written = true;
                continue;
            }
            if (wd_ < 0 || ev->wd != wd_) continue;   // a watch given up already
            if (ev->mask & selfEvents) {
                if (!(ev->mask & IN_IGNORED)) ::inotify_rm_watch(fd_, wd_);
                wd_ = -1;
                events.dirGone = true;
                continue;
            }
            if (ev->len == 0 || name_ != ev->name) continue;
            if (ev->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) {
                events.written = true;
                events.removed = false;
            } else if (ev->mask & (IN_DELETE | IN_MOVED_FROM)) {
                events.removed = true;
                events.written = false;
            }
        }
    }
    return events;
}

} // namespace Feed
