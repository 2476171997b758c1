// What the fuzz targets share: reporting a finding (a property that does not hold, or an
// exception of a kind the code under test does not promise) together with the input that
// shows it, and a UTF-8 check written independently of the code under test.
//
//   extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
//       Fuzz::Case c(data, size);
//       c.check(parsed == reparsed, "parse/print/parse changed the value", detail);
//       ...
//   }
//
// A finding prints `FUZZ FINDING: <what>`, the detail and the input (escaped, at most 4 KiB
// shown) on standard error and aborts: libFuzzer then saves the input as a crash
// artifact, and the replay driver (FuzzReplay.cpp) fails its test.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace Fuzz {

// Bytes as C-style escaped text, cut after limit bytes.
inline std::string escaped(std::string_view bytes, std::size_t limit = 4096) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (std::size_t i = 0; i < bytes.size() && i < limit; ++i) {
        auto c = static_cast<unsigned char>(bytes[i]);
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    if (bytes.size() > limit) out += "...";
    return out;
}

// One input under test.
class Case {
public:
    Case(const std::uint8_t* data, std::size_t size) : bytes_(reinterpret_cast<const char*>(data), size) {}

    std::string_view bytes() const noexcept { return bytes_; }

    // Reports a finding and aborts.
    [[noreturn]] void finding(std::string_view what, std::string_view detail = {}) const {
        std::fprintf(stderr, "FUZZ FINDING: %.*s\n", static_cast<int>(what.size()), what.data());
        if (!detail.empty()) std::fprintf(stderr, "  detail: %s\n", escaped(detail).c_str());
        std::fprintf(stderr, "  input (%zu bytes): %s\n", bytes_.size(), escaped(bytes_).c_str());
        std::fflush(stderr);
        std::abort();
    }

    void check(bool holds, std::string_view what, std::string_view detail = {}) const {
        if (!holds) finding(what, detail);
    }

private:
    std::string_view bytes_;
};

// Well-formed UTF-8 (RFC 3629): shortest forms only, no surrogates, nothing above
// U+10FFFF. Decodes code point by code point rather than by byte classes, so that it does
// not share its mistakes with the validator under test.
inline bool isUtf8(std::string_view s) {
    auto p = reinterpret_cast<const unsigned char*>(s.data());
    std::size_t i = 0, n = s.size();
    while (i < n) {
        unsigned char c = p[i];
        std::size_t len;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > n) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = (cp << 6) | (p[i + k] & 0x3F);
        }
        static const std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < least[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += len;
    }
    return true;
}

} // namespace Fuzz
