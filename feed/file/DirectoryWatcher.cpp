#include "DirectoryWatcher.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

namespace Feed {

namespace {

// IN_CREATE: a symbolic link is made in one step (symlink(2)) and never closed after writing.
constexpr std::uint32_t fileEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM | IN_CREATE;
constexpr std::uint32_t selfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;

} // namespace

DirectoryWatcher::DirectoryWatcher(std::string dir, std::string name) : dir_(std::move(dir)), name_(std::move(name)) {
    fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "inotify_init1");
}

DirectoryWatcher::~DirectoryWatcher() {
    ::close(fd_);
}

int DirectoryWatcher::watch() {
    if (wd_ >= 0) return 0;
    wd_ = ::inotify_add_watch(fd_, dir_.c_str(), fileEvents | selfEvents | IN_ONLYDIR | IN_EXCL_UNLINK);
    if (wd_ < 0) return errno;
    resolveTarget();
    return 0;
}

void DirectoryWatcher::dropTarget() {
    if (targetWd_ >= 0 && targetWd_ != wd_) ::inotify_rm_watch(fd_, targetWd_);
    targetWd_ = -1;
    targetDir_.clear();
    targetName_.clear();
}

void DirectoryWatcher::resolveTarget() {
    const std::filesystem::path file = std::filesystem::path(dir_) / name_;
    std::error_code ec;
    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(file, ec))) {
        dropTarget();
        return;
    }
    // The final target, through any chain of links; it need not exist yet.
    const std::filesystem::path target = std::filesystem::weakly_canonical(file, ec);
    if (ec) {
        dropTarget();
        return;
    }
    const std::string tdir = target.parent_path().string();
    const std::string tname = target.filename().string();
    if (tdir == targetDir_ && tname == targetName_ && targetWd_ >= 0) return;
    dropTarget();
    targetDir_ = tdir;
    targetName_ = tname;
    if (tdir == dir_) {
        targetWd_ = wd_;
        return;
    }
    // A directory reached by another path may already be watched as wd_: inotify then
    // returns wd_, with the same mask.
    targetWd_ = ::inotify_add_watch(fd_, tdir.c_str(), fileEvents | selfEvents | IN_ONLYDIR | IN_EXCL_UNLINK);
}

DirectoryWatcher::Events DirectoryWatcher::read() {
    Events events;
    bool retarget = false; // the link (or its target's directory) changed: resolve it again
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
            const bool onDir = wd_ >= 0 && ev->wd == wd_;
            const bool onTarget = targetWd_ >= 0 && ev->wd == targetWd_;
            if (!onDir && !onTarget) continue; // a watch given up already
            if (ev->mask & selfEvents) {
                if (onDir) {
                    if (!(ev->mask & IN_IGNORED)) ::inotify_rm_watch(fd_, wd_);
                    if (onTarget) targetWd_ = -1;
                    wd_ = -1;
                    events.dirGone = true;
                } else {
                    // The target's directory went: the link dangles until it is back.
                    if (!(ev->mask & IN_IGNORED)) ::inotify_rm_watch(fd_, targetWd_);
                    targetWd_ = -1;
                    events.removed = true;
                    events.written = false;
                    retarget = true;
                }
                continue;
            }
            if (ev->len == 0) continue;
            if (onDir && name_ == ev->name) {
                retarget = true;
                if (ev->mask & IN_CREATE) {
                    // A new link is complete once made; a new regular file is read when closed.
                    std::error_code ec;
                    if (std::filesystem::is_symlink(
                            std::filesystem::symlink_status(std::filesystem::path(dir_) / name_, ec))) {
                        events.written = true;
                        events.removed = false;
                    }
                } else if (ev->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) {
                    events.written = true;
                    events.removed = false;
                } else if (ev->mask & (IN_DELETE | IN_MOVED_FROM)) {
                    events.removed = true;
                    events.written = false;
                }
            }
            if (onTarget && !targetName_.empty() && targetName_ == ev->name) {
                if (ev->mask & (IN_CLOSE_WRITE | IN_MOVED_TO)) {
                    events.written = true;
                    events.removed = false;
                } else if (ev->mask & (IN_DELETE | IN_MOVED_FROM)) {
                    events.removed = true;
                    events.written = false;
                }
            }
        }
    }
    if (retarget && wd_ >= 0) resolveTarget();
    return events;
}

} // namespace Feed
