// Watches one file by watching its directory with inotify. A launcher replaces its state
// file by rename, so the file's own inode cannot be watched: the directory's entries can.
// When the file is a symbolic link, the directory of the file it points to is watched too,
// so that rewriting or replacing the target counts as a write; the link is resolved again
// whenever it is replaced or retargeted.
//
//   Feed::DirectoryWatcher w("/run/launcher", "state.json");
//   if (int err = w.watch()) ...;              // the directory cannot be watched (yet)
//   // poll w.fd() for reading, then:
//   Feed::DirectoryWatcher::Events e = w.read();
//   if (e.dirGone) ...;                        // w.watching() is false: watch() again later
//   else if (e.written) ...;                   // reload
//   else if (e.removed) ...;                   // the file is gone
//
// Threads: one thread at a time.
#pragma once

#include <string>

namespace Feed {

class DirectoryWatcher {
public:
    // Throws std::system_error when no inotify instance can be had.
    DirectoryWatcher(std::string dir, std::string name);
    ~DirectoryWatcher();
    DirectoryWatcher(const DirectoryWatcher&) = delete;
    DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

    // Readable (non-blocking) while events wait for read().
    int fd() const noexcept { return fd_; }
    bool watching() const noexcept { return wd_ >= 0; }
    // Starts watching the directory; returns 0, or the errno saying why it cannot be.
    int watch();

    // What happened since the last read, the last event of the file deciding between
    // written and removed.
    struct Events {
        bool written = false; // a write to the file was closed, a file was moved in under
                              // its name, or events were lost (read it again to be sure)
        bool removed = false; // the file was deleted or moved away, and not written since
        bool dirGone = false; // the directory itself was removed, moved or unmounted
    };
    // Reads every waiting event without blocking.
    Events read();

private:
    // Follows dir_/name_ when it is a symbolic link: watches its target's directory for
    // the target's name (or forgets the target when it is not a link).
    void resolveTarget();
    void dropTarget();

    std::string dir_;
    std::string name_;
    int fd_ = -1;
    int wd_ = -1;
    std::string targetDir_; // of the link's target; empty when the file is no link
    std::string targetName_;
    int targetWd_ = -1; // may equal wd_ when the target is in the same directory
};

} // namespace Feed
