#include "ValueNotation.h"

#include <cstdarg>
#include <cstdio>
#include <string>

namespace Orbel {

namespace {
bool isSpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

String excerpt(String8::IteratorConst pos, const String8::IteratorConst& end) {
    if (pos == end) return "end of text";
    std::size_t n = std::min<std::size_t>(static_cast<std::size_t>(end - pos), 16);
    return "'" + String(std::string(pos, n)) + "'";
}

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
} // namespace

void skipSpace(String8::IteratorConst& pos, const String8::IteratorConst& end) noexcept {
    while (pos != end && isSpace(*pos)) ++pos;
}

void needString(String8::IteratorConst& pos, const String8::IteratorConst& end, const char* pattern) {
    String8::IteratorConst p = pos;
    for (const char* c = pattern; *c; ++c) {
        if (*c == ' ') {
            skipSpace(p, end);
            continue;
        }
        if (p == end || *p != *c)
            throw RangeException(format("expected \"%s\" but found %s", pattern, excerpt(p, end).cStr()));
        ++p;
    }
    pos = p;
}

String sequenceToValue(String8::IteratorConst& pos, const String8::IteratorConst& end) {
    String8::IteratorConst p = pos;
    skipSpace(p, end);
    if (p == end || (*p != '\'' && *p != '"'))
        throw RangeException("expected a quoted string but found " + excerpt(p, end));
    const char quote = *p++;
    std::string out;
    for (;;) {
        if (p == end) throw RangeException("unterminated quoted string");
        char c = *p++;
        if (c == quote) break;
        if (c != '\\') {
            out.push_back(c);
            continue;
        }
        if (p == end) throw RangeException("unterminated escape in quoted string");
        char e = *p++;
        switch (e) {
            case '\\':
                out.push_back('\\');
                break;
            case '\'':
                out.push_back('\'');
                break;
            case '"':
                out.push_back('"');
                break;
            case 'n':
                out.push_back('\n');
                break;
            case 'r':
                out.push_back('\r');
                break;
            case 't':
                out.push_back('\t');
                break;
            case 'x': {
                int hi = p != end ? hexValue(*p) : -1;
                int lo = (hi >= 0 && p + 1 != end) ? hexValue(p[1]) : -1;
                if (hi < 0 || lo < 0) throw RangeException("bad \\x escape in quoted string");
                out.push_back(static_cast<char>(hi * 16 + lo));
                p += 2;
                break;
            }
            default:
                throw RangeException(format("unknown escape \\%c in quoted string", e));
        }
    }
    pos = p;
    return String(out);
}

String quoteBytes(std::string_view bytes) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() + 2);
    out.push_back('\'');
    for (char ch : bytes) {
        auto c = static_cast<unsigned char>(ch);
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '\'':
                out += "\\'";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c >= 0x7f) {
                    out += "\\x";
                    out.push_back(hex[c >> 4]);
                    out.push_back(hex[c & 15]);
                } else {
                    out.push_back(static_cast<char>(c));
                }
        }
    }
    out.push_back('\'');
    return String(out);
}

String format(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    va_list ap2;
    va_copy(ap2, ap);
    int n = std::vsnprintf(nullptr, 0, fmt, ap);
    va_end(ap);
    std::string out(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
    if (n > 0) std::vsnprintf(out.data(), out.size() + 1, fmt, ap2);
    va_end(ap2);
    return String(out);
}

void rethrowFromDeserializeAttr(const Exception& e, const String& attribute) {
    String text = "attribute " + attribute + ": " + e.message();
    if (dynamic_cast<const RangeException*>(&e)) throw RangeException(text);
    throw Exception(text, e.id());
}

void throwJunk(const String8& text, String8::IteratorConst pos) {
    throw RangeException(
        format("junk at column %lld deserializing %s", static_cast<long long>(pos - text.begin()), text.cStr()));
}

} // namespace Orbel
