#include "UnitMapping.h"

#include <algorithm>
#include <ctime>
#include <fnmatch.h>
#include <stdexcept>

namespace Feed {

namespace {

constexpr std::string_view serviceSuffix = ".service";

// Sets key to value when value is set (not empty), cut to what the model holds.
void put(std::map<std::string, std::string>& to, std::string_view key, std::string value) {
    if (value.empty()) return;
    to.emplace(std::string(key), cutToBytes(std::move(value), maxValueBytes));
}

} // namespace

std::vector<std::string> parseUnitPatterns(std::string_view patterns) {
    return patternList(patterns, "unit patterns");
}

bool unitMatches(std::string_view unitId, const std::vector<std::string>& patterns) {
    if (!daemonNameOf(unitId) || isTemplateUnit(unitId)) return false;
    std::string id(unitId);
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::string& p) { return ::fnmatch(p.c_str(), id.c_str(), FNM_NOESCAPE) == 0; });
}

std::optional<std::string> daemonNameOf(std::string_view unitId) {
    if (unitId.size() <= serviceSuffix.size() || !unitId.ends_with(serviceSuffix)) return std::nullopt;
    return std::string(unitId.substr(0, unitId.size() - serviceSuffix.size()));
}

bool daemonNameFits(std::string_view name) {
    return !name.empty() && name.size() <= GenericAgent::maxDaemonNameBytes;
}

bool isTemplateUnit(std::string_view unitId) {
    return unitId.ends_with("@" + std::string(serviceSuffix));
}

bool unitIsDaemon(const UnitInfo& unit) {
    const std::string& s = unit.loadState;
    return s == "loaded" || s == "not-found" || s == "bad-setting" || s == "error" || s == "masked";
}

bool unitFileEnabled(std::string_view state) {
    return state == "enabled" || state == "enabled-runtime" || state == "transient";
}

bool unitRunning(const UnitInfo& unit) {
    return unit.loadState == "loaded" && (unit.subState == "running" || unit.subState.starts_with("reload"));
}

DaemonState daemonStateOf(const UnitInfo& u, const MappingOptions& options) {
    DaemonState d;
    d.hasConfig = true;
    d.enabled = unitFileEnabled(u.unitFileState);
    d.hasStatus = true;
    d.running = unitRunning(u);
    for (const UnitProperty& p : unitProperties()) {
        if (p.serve == Serve::none) continue;
        put(p.serve == Serve::option ? d.options : d.data, p.name, propertyText(p, u, options.wholeCommandLines));
    }
    return d;
}

DaemonState daemonStateOfFile(std::string_view unitFileState, std::string_view path) {
    DaemonState d;
    d.hasConfig = true;
    d.enabled = unitFileEnabled(unitFileState);
    d.hasStatus = true;
    d.running = false;
    put(d.options, "UnitFileState", std::string(unitFileState));
    put(d.options, "FragmentPath", std::string(path));
    return d;
}

std::string isoTimestamp(std::uint64_t usec) {
    if (usec == 0 || usec == unitInfinity) return {};
    std::time_t seconds = static_cast<std::time_t>(usec / 1000000u);
    std::tm tm{};
    if (!::gmtime_r(&seconds, &tm)) return {};
    char text[64];
    std::size_t n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return std::string(text, n);
}

std::string commandLineText(const std::vector<std::string>& argv) {
    std::string out;
    for (const std::string& arg : argv) {
        if (!out.empty()) out += ' ';
        bool quoted = arg.empty() || std::any_of(arg.begin(), arg.end(), [](char c) {
                          return isSpace(c) || c == '"' || c == '\\' || c == '\'';
                      });
        if (!quoted) {
            out += arg;
            continue;
        }
        out += '"';
        for (char c : arg) {
            if (c == '"' || c == '\\') out += '\\';
            out += c;
        }
        out += '"';
    }
    return out;
}

} // namespace Feed
