// Tracing: a TraceHandle is one named facility ("Snmp") that answers, per level 0..31,
// whether that level is enabled. Levels are configured per facility from the TRACE
// environment variable (read once at start) or traceConfigIs() (the agent's --trace):
//
//   TRACE='Snmp/0-2,8'        levels 0, 1, 2 and 8 of Snmp
//   TRACE='Snmp/*,Orbel/0'    every level of Snmp, level 0 of Orbel ("," before a name
//                             starts a new facility; "*" alone as a name means all)
//
// Lines go to standard error, or to the file named by TRACEFILE, or to a sink installed
// with traceSinkIs() (tests capture lines that way). ORBEL_TRACE tests the level first and
// composes the text only when it is wanted, so a disabled level costs one test and
// evaluates none of its arguments.
//
//   static Orbel::TraceHandle th("Snmp", false);
//   ORBEL_TRACE(th, 2, "advancing " << ptr);
#pragma once

#include "String.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <sstream>
#include <string>

namespace Orbel {

class TraceHandle {
public:
    // Registers the facility; its levels come from the current configuration. With
    // allLevelsByDefault true the facility starts fully enabled when the configuration
    // does not name it (false: silent unless configured).
    TraceHandle(String facility, bool allLevelsByDefault);
    ~TraceHandle();
    TraceHandle(const TraceHandle&) = delete;
    TraceHandle& operator=(const TraceHandle&) = delete;

    bool enabled(unsigned level) const noexcept {
        return level < 32 && ((mask_.load(std::memory_order_relaxed) >> level) & 1u);
    }
    std::uint32_t mask() const noexcept { return mask_.load(std::memory_order_relaxed); }
    const String& facility() const noexcept { return facility_; }

private:
    friend void applyTraceConfig();
    String facility_;
    bool allLevelsByDefault_;
    std::atomic<std::uint32_t> mask_{0};
};

// One trace line as it reaches a sink.
struct TraceLine {
    std::chrono::system_clock::time_point time;
    String facility;
    String name;
    unsigned level;
    bool enabled;
    const char* file;
    int line;
    const char* function;
    std::string text;
};

using TraceSink = std::function<void(const TraceLine&)>;

// Replaces the level configuration of every facility (see the file comment for the
// syntax). Throws RangeException naming the bad part; the old configuration then stays.
void traceConfigIs(const std::string& config);
std::string traceConfig();
// Parses a configuration into facility -> level mask without applying it.
std::uint32_t traceLevelsFor(const std::string& config, const String& facility, bool allByDefault);
// Installs a sink for trace lines (null restores the default: stderr or TRACEFILE).
void traceSinkIs(TraceSink sink);
// The default form of a line: "<UTC time> <facility>/<level> <file>:<line> <function>: <text>".
std::string formatTraceLine(const TraceLine& line);

// The coverage stream: when set, trace text is composed even for disabled levels and
// written there, so that a coverage run exercises every message.
std::ostream* coverageStream() noexcept;
void coverageStreamIs(std::ostream* os) noexcept;

// Hands one composed line on: to the sink when enabled, to the coverage stream when set.
void traceHelper(const TraceHandle& handle, const char* name, unsigned level, bool enabled, const char* file, int line,
                 const char* function, const std::string& text);

} // namespace Orbel

// Traces `parts` (a chain of stream insertions) at `level` through `handle`, naming the
// given source file and function.
#define ORBEL_TRACE_AT(handle, level, file, function, parts)                                             \
    do {                                                                                                 \
        const ::Orbel::TraceHandle& orbelTh_ = (handle);                                                 \
        const bool orbelOn_ = orbelTh_.enabled(level);                                                   \
        if (orbelOn_ || ::Orbel::coverageStream()) {                                                     \
            std::ostringstream orbelOs_;                                                                 \
            orbelOs_ << parts;                                                                           \
            ::Orbel::traceHelper(orbelTh_, "<unknown>", (level), orbelOn_, (file), __LINE__, (function), \
                                 orbelOs_.str());                                                        \
        }                                                                                                \
    } while (0)

#define ORBEL_TRACE(handle, level, parts) ORBEL_TRACE_AT(handle, level, __FILE_NAME__, __func__, parts)
