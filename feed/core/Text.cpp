#include "Text.h"

#include <stdexcept>

namespace Feed {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

std::vector<std::string> patternList(std::string_view patterns, std::string_view what) {
    std::vector<std::string> out;
    if (trimmed(patterns).empty()) throw std::invalid_argument(std::string(what) + ": the list is empty");
    std::size_t index = 1;
    for (;;) {
        std::size_t comma = patterns.find(',');
        std::string_view item = trimmed(patterns.substr(0, comma));
        if (item.empty())
            throw std::invalid_argument(std::string(what) + ": item " + std::to_string(index) + " is empty");
        out.emplace_back(item);
        if (comma == std::string_view::npos) break;
        patterns.remove_prefix(comma + 1);
        ++index;
    }
    return out;
}

std::string cutToBytes(std::string s, std::size_t max) {
    if (s.size() <= max) return s;
    std::size_t end = max;
    // Back off over continuation bytes (10xxxxxx) to the start of the character cut in two.
    while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
    s.resize(end);
    return s;
}

} // namespace Feed
