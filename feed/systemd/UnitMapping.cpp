#include "UnitMapping.h"

#include <algorithm>
#include <ctime>
#include <fnmatch.h>
#include <stdexcept>

namespace Feed {

namespace {

constexpr std::string_view serviceSuffix = ".service";

constexpr bool keysFitIndex(const auto& keys) {
    for (std::string_view k : keys)
        if (k.empty() || k.size() > GenericAgent::maxIndexKeyBytes) return false;
    return true;
}
static_assert(keysFitIndex(unitOptionKeys) && keysFitIndex(unitDataKeys),
              "every option and data key of a unit must fit the SNMP index");

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && isSpace(s.front())) s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back())) s.remove_suffix(1);
    return s;
}

// Sets key to value when value is set (not empty), cut to what the model holds.
void put(std::map<std::string, std::string>& to, std::string_view key, std::string value) {
    if (value.empty()) return;
    to.emplace(std::string(key), cutToBytes(std::move(value), maxValueBytes));
}

std::string counter(std::uint64_t v) { return v == unitInfinity ? std::string() : std::to_string(v); }

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& s : items) {
        if (!out.empty()) out += ' ';
        out += s;
    }
    return out;
}

} // namespace

std::vector<std::string> parseUnitPatterns(std::string_view patterns) {
    std::vector<std::string> out;
    if (trimmed(patterns).empty()) throw std::invalid_argument("unit patterns: the list is empty");
    std::size_t index = 1;
    for (;;) {
        std::size_t comma = patterns.find(',');
        std::string_view item = trimmed(patterns.substr(0, comma));
        if (item.empty())
            throw std::invalid_argument("unit patterns: item " + std::to_string(index) + " is empty");
        out.emplace_back(item);
        if (comma == std::string_view::npos) break;
        patterns.remove_prefix(comma + 1);
        ++index;
    }
    return out;
}

bool unitMatches(std::string_view unitId, const std::vector<std::string>& patterns) {
    if (!daemonNameOf(unitId)) return false;
    std::string id(unitId);
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& p) {
        return ::fnmatch(p.c_str(), id.c_str(), FNM_NOESCAPE) == 0;
    });
}

std::optional<std::string> daemonNameOf(std::string_view unitId) {
    if (unitId.size() <= serviceSuffix.size() || !unitId.ends_with(serviceSuffix)) return std::nullopt;
    return std::string(unitId.substr(0, unitId.size() - serviceSuffix.size()));
}

bool daemonNameFits(std::string_view name) {
    return !name.empty() && name.size() <= GenericAgent::maxDaemonNameBytes;
}

bool unitIsDaemon(const UnitInfo& unit) {
    const std::string& s = unit.loadState;
    return s == "loaded" || s == "masked" || s == "bad-setting" || s == "error";
}

bool unitRunning(const UnitInfo& unit) {
    return unit.subState == "running" || unit.subState.starts_with("reload");
}

DaemonState daemonStateOf(const UnitInfo& u) {
    DaemonState d;
    d.hasConfig = true;
    d.enabled = u.unitFileState == "enabled" || u.unitFileState == "enabled-runtime";
    put(d.options, "Description", u.description);
    put(d.options, "LoadState", u.loadState);
    put(d.options, "UnitFileState", u.unitFileState);
    put(d.options, "UnitFilePreset", u.unitFilePreset);
    put(d.options, "FragmentPath", u.fragmentPath);
    put(d.options, "DropInPaths", joined(u.dropInPaths));
    put(d.options, "Type", u.type);
    put(d.options, "Restart", u.restart);
    put(d.options, "User", u.user);
    put(d.options, "ExecStart", u.execStart.empty() ? std::string() : commandLineText(u.execStart));

    d.hasStatus = true;
    d.running = unitRunning(u);
    put(d.data, "ActiveState", u.activeState);
    put(d.data, "SubState", u.subState);
    put(d.data, "Result", u.result);
    put(d.data, "MainPID", u.mainPid == 0 ? std::string() : std::to_string(u.mainPid));
    put(d.data, "NRestarts", std::to_string(u.nRestarts));
    bool exited = u.execMainExitTimestamp != 0 && u.execMainExitTimestamp != unitInfinity;
    put(d.data, "ExecMainStatus", exited ? std::to_string(u.execMainStatus) : std::string());
    put(d.data, "ExecMainExitTimestamp", isoTimestamp(u.execMainExitTimestamp));
    put(d.data, "ActiveEnterTimestamp", isoTimestamp(u.activeEnterTimestamp));
    put(d.data, "InactiveEnterTimestamp", isoTimestamp(u.inactiveEnterTimestamp));
    put(d.data, "MemoryCurrent", counter(u.memoryCurrent));
    put(d.data, "CPUUsageNSec", counter(u.cpuUsageNSec));
    put(d.data, "TasksCurrent", counter(u.tasksCurrent));
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

std::string cutToBytes(std::string s, std::size_t max) {
    if (s.size() <= max) return s;
    std::size_t end = max;
    // Back off over continuation bytes (10xxxxxx) to the start of the character cut in two.
    while (end > 0 && (static_cast<unsigned char>(s[end]) & 0xC0) == 0x80) --end;
    s.resize(end);
    return s;
}

} // namespace Feed
