// Interposers for inotify_init1 and inotify_add_watch in the test executable: each fails
// with the errno a test sets (the kernel's limits on instances and watches, which a test
// cannot exhaust without disturbing every other process of the same user), and otherwise
// forwards to the C library.
#include "InotifyFaults.h"

#include <dlfcn.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace InotifyFaults {

std::atomic<int> initErrno{0};
std::atomic<int> addWatchErrno{0};

namespace {

void* next(const char* symbol) {
    void* s = dlsym(RTLD_NEXT, symbol);
    if (!s) {
        std::fprintf(stderr, "interposer: no next definition of %s\n", symbol);
        std::abort();
    }
    return s;
}

} // namespace

} // namespace InotifyFaults

extern "C" int inotify_init1(int flags) {
    using Fn = int (*)(int);
    static const auto real = reinterpret_cast<Fn>(InotifyFaults::next("inotify_init1"));
    if (int e = InotifyFaults::initErrno.load()) {
        errno = e;
        return -1;
    }
    return real(flags);
}

extern "C" int inotify_add_watch(int fd, const char* path, uint32_t mask) {
    using Fn = int (*)(int, const char*, uint32_t);
    static const auto real = reinterpret_cast<Fn>(InotifyFaults::next("inotify_add_watch"));
    if (int e = InotifyFaults::addWatchErrno.load()) {
        errno = e;
        return -1;
    }
    return real(fd, path, mask);
}
