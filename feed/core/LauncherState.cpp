#include "LauncherState.h"
#include "Source.h"

#include <cstdint>
#include <cstring>

namespace Feed {

namespace {

constexpr std::size_t shownBytes = 64; // bytes of a name or key quoted in a message

// Length of the well-formed UTF-8 sequence at p (at most n bytes available), 0 when there
// is none: no overlong forms, no surrogates, nothing above U+10FFFF.
std::size_t utf8Sequence(const unsigned char* p, std::size_t n) {
    unsigned char c = p[0];
    if (c < 0x80) return 1;
    auto cont = [&](std::size_t i) { return i < n && (p[i] & 0xC0) == 0x80; };
    if (c >= 0xC2 && c <= 0xDF) return cont(1) ? 2 : 0;
    if (c >= 0xE0 && c <= 0xEF) {
        if (!cont(1) || !cont(2)) return 0;
        if (c == 0xE0 && p[1] < 0xA0) return 0;  // overlong
        if (c == 0xED && p[1] >= 0xA0) return 0; // surrogate
        return 3;
    }
    if (c >= 0xF0 && c <= 0xF4) {
        if (!cont(1) || !cont(2) || !cont(3)) return 0;
        if (c == 0xF0 && p[1] < 0x90) return 0;  // overlong
        if (c == 0xF4 && p[1] >= 0x90) return 0; // above U+10FFFF
        return 4;
    }
    return 0;
}

} // namespace

bool validUtf8(std::string_view s) {
    auto p = reinterpret_cast<const unsigned char*>(s.data());
    std::size_t n = s.size(), i = 0;
    while (i < n) {
        // ASCII runs, eight bytes at a time.
        while (i + 8 <= n) {
            std::uint64_t w;
            std::memcpy(&w, p + i, 8);
            if (w & 0x8080808080808080ull) break;
            i += 8;
        }
        if (i >= n) break;
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        std::size_t len = utf8Sequence(p + i, n - i);
        if (len == 0) return false;
        i += len;
    }
    return true;
}

std::string quote(std::string_view s) {
    static const char hex[] = "0123456789abcdef";
    std::string out = "\"";
    auto p = reinterpret_cast<const unsigned char*>(s.data());
    std::size_t i = 0;
    while (i < s.size()) {
        if (i >= shownBytes) {
            out += "...";
            break;
        }
        unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else if (std::size_t len = c >= 0x80 ? utf8Sequence(p + i, s.size() - i) : 0; len > 0) {
            out.append(s.data() + i, len);
            i += len;
            continue;
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
        ++i;
    }
    out += '"';
    return out;
}

const char* stateText(SourceState state) {
    switch (state) {
        case SourceState::notLoaded:
            return "not loaded";
        case SourceState::ok:
            return "ok";
        case SourceState::refused:
            return "refused";
        case SourceState::gone:
            return "gone";
        case SourceState::busLost:
            return "bus lost";
        case SourceState::unresponsive:
            return "not answering";
    }
    return "?";
}

} // namespace Feed
