#include "LogLimit.h"

#include <cctype>

namespace Agent {

namespace {

constexpr std::size_t kindWords = 3;
constexpr std::size_t exampleBytes = 120;
const std::string otherKind = "(other kinds)";

} // namespace

std::string LogLimit::kindOf(const std::string& line) {
    std::string kind;
    std::size_t words = 0;
    bool inWord = false;
    for (char c : line) {
        const bool space = std::isspace(static_cast<unsigned char>(c)) != 0;
        if (space) {
            if (inWord && ++words == kindWords) break;
            inWord = false;
            if (!kind.empty() && kind.back() != ' ') kind += ' ';
            continue;
        }
        inWord = true;
        kind += std::isdigit(static_cast<unsigned char>(c)) ? '#' : c;
    }
    while (!kind.empty() && kind.back() == ' ') kind.pop_back();
    return kind;
}

bool LogLimit::admit(const std::string& line, Clock::time_point now) {
    endWindows(now, false);
    std::string kind = kindOf(line);
    auto it = windows_.find(kind);
    if (it == windows_.end()) {
        if (windows_.size() >= settings_.maxKinds) {
            kind = otherKind;
            it = windows_.find(kind);
        }
        if (it == windows_.end()) {
            Window w;
            w.start = now;
            w.example = line.size() > exampleBytes ? line.substr(0, exampleBytes) + "..." : line;
            it = windows_.emplace(kind, std::move(w)).first;
        }
    }
    Window& w = it->second;
    if (w.written < settings_.burst) {
        ++w.written;
        return true;
    }
    ++w.dropped;
    ++droppedTotal_;
    return false;
}

std::string LogLimit::summary(const Window& w, Clock::time_point now) const {
    const auto secs = std::chrono::duration_cast<std::chrono::seconds>(now - w.start).count();
    return std::to_string(w.dropped) + (w.dropped == 1 ? " more line" : " more lines") + " like \"" + w.example +
           "\" in the last " + std::to_string(secs < 1 ? 1 : secs) + " s (not written: at most " +
           std::to_string(settings_.burst) + " such lines per " + std::to_string(settings_.interval.count()) + " s)";
}

void LogLimit::endWindows(Clock::time_point now, bool all) {
    for (auto it = windows_.begin(); it != windows_.end();) {
        if (all || now - it->second.start >= settings_.interval) {
            if (it->second.dropped > 0) ready_.push_back(summary(it->second, now));
            it = windows_.erase(it);
        } else {
            ++it;
        }
    }
}

std::vector<std::string> LogLimit::expired(Clock::time_point now) {
    endWindows(now, false);
    std::vector<std::string> out;
    out.swap(ready_);
    return out;
}

std::vector<std::string> LogLimit::flush(Clock::time_point now) {
    endWindows(now, true);
    std::vector<std::string> out;
    out.swap(ready_);
    return out;
}

} // namespace Agent
