// Reading a state file's bytes (see StateFileBytes.h).
#include "StateFileBytes.h"

#include "StateReader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace Feed {

namespace {

std::string prefix(const std::string& file) {
    return "state file " + file + ": ";
}

std::string errnoText(int e) {
    return std::error_code(e, std::generic_category()).message();
}

} // namespace

std::string readStateFileBytes(const std::string& path, const std::string& shown, std::size_t padBytes,
                               std::size_t& length) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) throw StateError(prefix(shown) + "cannot open: " + errnoText(errno));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    struct stat st {};
    if (::fstat(fd, &st) != 0) throw StateError(prefix(shown) + "cannot read: " + errnoText(errno));
    if (!S_ISREG(st.st_mode)) throw StateError(prefix(shown) + "not a regular file");
    if (static_cast<std::uint64_t>(st.st_size) > maxStateFileBytes)
        throw StateError(prefix(shown) + "file is " + std::to_string(st.st_size) + " bytes, more than " +
                         std::to_string(maxStateFileBytes));

    std::string buffer;
    buffer.resize(static_cast<std::size_t>(st.st_size) + 4096);
    std::size_t got = 0;
    for (;;) {
        if (got == buffer.size()) {
            if (got > maxStateFileBytes) // it grew while being read
                throw StateError(prefix(shown) + "file is more than " + std::to_string(maxStateFileBytes) + " bytes");
            buffer.resize(std::min(buffer.size() * 2, maxStateFileBytes + 1));
        }
        ssize_t r = ::read(fd, buffer.data() + got, buffer.size() - got);
        if (r < 0) {
            if (errno == EINTR) continue;
            throw StateError(prefix(shown) + "cannot read: " + errnoText(errno));
        }
        if (r == 0) break;
        got += static_cast<std::size_t>(r);
    }
    if (got > maxStateFileBytes)
        throw StateError(prefix(shown) + "file is more than " + std::to_string(maxStateFileBytes) + " bytes");
    if (got == 0) throw StateError(prefix(shown) + "file is empty");
    buffer.resize(got);
    buffer.append(padBytes, '\0');
    length = got;
    return buffer;
}

} // namespace Feed
