#include "TraceHandle.h"

#include "Exception.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iostream>
#include <mutex>
#include <vector>

namespace Orbel {

namespace {

struct TraceState {
    std::mutex mutex;
    std::vector<TraceHandle*> handles;
    std::string config;
    TraceSink sink;
    std::ofstream file;
    bool fileTried = false;
};

TraceState& state() {
    // Never destroyed: handles in libraries unloaded late may still unregister.
    static TraceState* s = [] {
        auto* st = new TraceState;
        if (const char* env = std::getenv("TRACE")) st->config = env;
        return st;
    }();
    return *s;
}

std::atomic<std::ostream*> coverage{nullptr};

std::uint32_t parseLevels(const std::string& levels, const std::string& whole) {
    if (levels == "*") return 0xffffffffu;
    std::uint32_t mask = 0;
    std::size_t i = 0;
    auto bad = [&](const char* why) {
        throw RangeException("bad trace configuration '" + String(whole) + "': " + why + " in '" + String(levels) +
                             "'");
    };
    auto number = [&]() -> unsigned {
        if (i >= levels.size() || !std::isdigit(static_cast<unsigned char>(levels[i]))) bad("expected a level");
        unsigned v = 0;
        while (i < levels.size() && std::isdigit(static_cast<unsigned char>(levels[i]))) {
            v = v * 10 + static_cast<unsigned>(levels[i] - '0');
            if (v > 31) bad("level above 31");
            ++i;
        }
        return v;
    };
    while (i < levels.size()) {
        unsigned lo = number(), hi = lo;
        if (i < levels.size() && levels[i] == '-') {
            ++i;
            hi = number();
            if (hi < lo) bad("empty range");
        }
        for (unsigned l = lo; l <= hi; ++l) mask |= 1u << l;
        if (i < levels.size()) {
            if (levels[i] != ',') bad("unexpected character");
            ++i;
            if (i == levels.size()) bad("trailing comma");
        }
    }
    return mask;
}

// Splits "Snmp/0-2,8,Orbel/*" into facility -> levels text. A comma followed by a name
// with '/' starts the next facility.
std::vector<std::pair<std::string, std::string>> splitConfig(const std::string& config) {
    std::vector<std::pair<std::string, std::string>> out;
    std::size_t i = 0;
    while (i < config.size()) {
        std::size_t slash = config.find('/', i);
        if (slash == std::string::npos || slash == i)
            throw RangeException("bad trace configuration '" + String(config) +
                                 "': expected FACILITY/LEVELS at column " + String(std::to_string(i)));
        std::string name = config.substr(i, slash - i);
        std::size_t j = slash + 1, end = j;
        // The levels run up to a comma that precedes another "NAME/".
        while (end < config.size()) {
            if (config[end] == ',') {
                std::size_t k = end + 1;
                while (k < config.size() && config[k] != ',' && config[k] != '/') ++k;
                if (k < config.size() && config[k] == '/') break;
            }
            ++end;
        }
        out.emplace_back(name, config.substr(j, end - j));
        i = end < config.size() ? end + 1 : end;
    }
    return out;
}

std::uint32_t maskFor(const std::string& config, const String& facility, bool allByDefault) {
    std::uint32_t mask = allByDefault ? 0xffffffffu : 0;
    bool named = false;
    for (auto& [name, levels] : splitConfig(config)) {
        std::uint32_t m = parseLevels(levels, config);
        if (name == facility.view()) {
            mask = m;
            named = true;
        } else if (name == "*" && !named) {
            mask = m;
        }
    }
    return mask;
}

} // namespace

std::uint32_t traceLevelsFor(const std::string& config, const String& facility, bool allByDefault) {
    return maskFor(config, facility, allByDefault);
}

void applyTraceConfig() {
    auto& s = state();
    for (TraceHandle* h : s.handles) {
        std::uint32_t m = 0;
        try {
            m = maskFor(s.config, h->facility_, h->allLevelsByDefault_);
        } catch (const RangeException&) {
            m = h->allLevelsByDefault_ ? 0xffffffffu : 0;
        }
        h->mask_.store(m, std::memory_order_relaxed);
    }
}

TraceHandle::TraceHandle(String facility, bool allLevelsByDefault)
    : facility_(std::move(facility)), allLevelsByDefault_(allLevelsByDefault) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.handles.push_back(this);
    applyTraceConfig();
}

TraceHandle::~TraceHandle() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    std::erase(s.handles, this);
}

void traceConfigIs(const std::string& config) {
    // Validate first so that a bad text leaves the old configuration in force.
    for (auto& [name, levels] : splitConfig(config)) parseLevels(levels, config);
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.config = config;
    applyTraceConfig();
}

std::string traceConfig() {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    return s.config;
}

void traceSinkIs(TraceSink sink) {
    auto& s = state();
    std::lock_guard lock(s.mutex);
    s.sink = std::move(sink);
}

std::ostream* coverageStream() noexcept {
    return coverage.load(std::memory_order_relaxed);
}
void coverageStreamIs(std::ostream* os) noexcept {
    coverage.store(os, std::memory_order_relaxed);
}

std::string formatTraceLine(const TraceLine& l) {
    using namespace std::chrono;
    auto t = system_clock::to_time_t(l.time);
    auto us = duration_cast<microseconds>(l.time.time_since_epoch()).count() % 1000000;
    std::tm tm{};
    gmtime_r(&t, &tm);
    char when[64];
    std::snprintf(when, sizeof when, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<long long>(us));
    std::string out = when;
    out += ' ';
    out += l.facility.view();
    out += '/';
    out += std::to_string(l.level);
    out += ' ';
    out += l.file ? l.file : "?";
    out += ':';
    out += std::to_string(l.line);
    out += ' ';
    out += l.function ? l.function : "?";
    out += ": ";
    out += l.text;
    return out;
}

void traceHelper(const TraceHandle& handle, const char* name, unsigned level, bool enabled, const char* file, int line,
                 const char* function, const std::string& text) {
    TraceLine l{std::chrono::system_clock::now(), handle.facility(), name, level, enabled, file, line, function, text};
    if (std::ostream* cov = coverageStream()) *cov << formatTraceLine(l) << '\n';
    if (!enabled) return;
    auto& s = state();
    std::lock_guard lock(s.mutex);
    if (s.sink) {
        s.sink(l);
        return;
    }
    if (!s.fileTried) {
        s.fileTried = true;
        if (const char* f = std::getenv("TRACEFILE")) s.file.open(f, std::ios::app);
    }
    std::ostream& out = s.file.is_open() ? static_cast<std::ostream&>(s.file) : std::cerr;
    out << formatTraceLine(l) << '\n';
    out.flush();
}

} // namespace Orbel
