// Makes the next inotify_init1 or inotify_add_watch calls of this test executable fail with
// the errno set here (0: call the C library). See InotifyFaults.cpp.
#pragma once

#include <atomic>

namespace InotifyFaults {

extern std::atomic<int> initErrno;
extern std::atomic<int> addWatchErrno;

} // namespace InotifyFaults
