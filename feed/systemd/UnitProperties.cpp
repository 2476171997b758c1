#include "UnitProperties.h"

#include "UnitMapping.h"

#include <array>

namespace Feed {

namespace {

using I = UnitIface;
using S = Serve;
using F = Format;
constexpr bool timer = true; // refreshed
constexpr bool kept = true;  // keptWhenUnloaded
constexpr bool dropped = false;

// name, interface, signature, served as, refreshed, kept when unloaded, format, field.
const std::array<UnitProperty, 25> table{{
    {"Id", I::unit, "s", S::none, false, kept, F::text, &UnitInfo::id},
    {"Description", I::unit, "s", S::option, false, kept, F::text, &UnitInfo::description},
    {"LoadState", I::unit, "s", S::option, false, dropped, F::text, &UnitInfo::loadState},
    {"LoadError", I::unit, "(ss)", S::option, false, dropped, F::text, &UnitInfo::loadError},
    {"UnitFileState", I::unit, "s", S::option, false, kept, F::text, &UnitInfo::unitFileState},
    {"UnitFilePreset", I::unit, "s", S::option, false, kept, F::text, &UnitInfo::unitFilePreset},
    {"FragmentPath", I::unit, "s", S::option, false, kept, F::text, &UnitInfo::fragmentPath},
    {"DropInPaths", I::unit, "as", S::option, false, kept, F::list, &UnitInfo::dropInPaths},
    {"ActiveState", I::unit, "s", S::data, false, kept, F::text, &UnitInfo::activeState},
    {"SubState", I::unit, "s", S::data, false, kept, F::text, &UnitInfo::subState},
    {"ActiveEnterTimestamp", I::unit, "t", S::data, false, kept, F::timestamp, &UnitInfo::activeEnterTimestamp},
    {"InactiveEnterTimestamp", I::unit, "t", S::data, false, kept, F::timestamp, &UnitInfo::inactiveEnterTimestamp},
    {"Type", I::service, "s", S::option, false, kept, F::text, &UnitInfo::type},
    {"Restart", I::service, "s", S::option, false, kept, F::text, &UnitInfo::restart},
    {"User", I::service, "s", S::option, false, kept, F::text, &UnitInfo::user},
    {"ExecStart", I::service, "a(sasbttttuii)", S::option, false, kept, F::command, &UnitInfo::execStart},
    {"Result", I::service, "s", S::data, false, kept, F::text, &UnitInfo::result},
    {"MainPID", I::service, "u", S::data, false, dropped, F::pid, &UnitInfo::mainPid},
    {"NRestarts", I::service, "u", S::data, false, kept, F::number, &UnitInfo::nRestarts},
    {"ExecMainCode", I::service, "i", S::data, false, kept, F::exitCode, &UnitInfo::execMainCode},
    {"ExecMainStatus", I::service, "i", S::data, false, kept, F::exitStatus, &UnitInfo::execMainStatus},
    {"ExecMainExitTimestamp", I::service, "t", S::data, false, kept, F::timestamp, &UnitInfo::execMainExitTimestamp},
    {"MemoryCurrent", I::service, "t", S::data, timer, dropped, F::counter, &UnitInfo::memoryCurrent},
    {"CPUUsageNSec", I::service, "t", S::data, timer, dropped, F::counter, &UnitInfo::cpuUsageNSec},
    {"TasksCurrent", I::service, "t", S::data, timer, dropped, F::counter, &UnitInfo::tasksCurrent},
}};

std::string joined(const std::vector<std::string>& items) {
    std::string out;
    for (const std::string& s : items) {
        if (!out.empty()) out += ' ';
        out += s;
    }
    return out;
}

bool exited(const UnitInfo& u) {
    return u.execMainExitTimestamp != 0 && u.execMainExitTimestamp != unitInfinity;
}

} // namespace

const char* ifaceName(UnitIface iface) {
    return iface == UnitIface::unit ? "org.freedesktop.systemd1.Unit" : "org.freedesktop.systemd1.Service";
}

std::span<const UnitProperty> unitProperties() {
    return table;
}

const UnitProperty* findUnitProperty(UnitIface iface, std::string_view name) {
    for (const UnitProperty& p : table)
        if (p.iface == iface && p.name == name) return &p;
    return nullptr;
}

std::vector<std::string_view> unitOptionKeys() {
    std::vector<std::string_view> keys;
    for (const UnitProperty& p : table)
        if (p.serve == Serve::option) keys.push_back(p.name);
    return keys;
}

std::vector<std::string_view> unitDataKeys() {
    std::vector<std::string_view> keys;
    for (const UnitProperty& p : table)
        if (p.serve == Serve::data) keys.push_back(p.name);
    return keys;
}

std::string propertyText(const UnitProperty& p, const UnitInfo& u, bool wholeCommandLines) {
    switch (p.format) {
        case Format::text:
            return u.*std::get<std::string UnitInfo::*>(p.field);
        case Format::list:
            return joined(u.*std::get<std::vector<std::string> UnitInfo::*>(p.field));
        case Format::command: {
            const auto& argv = u.*std::get<std::vector<std::string> UnitInfo::*>(p.field);
            if (wholeCommandLines) return argv.empty() ? std::string() : commandLineText(argv);
            return !u.execPath.empty() ? u.execPath : argv.empty() ? std::string() : argv.front();
        }
        case Format::number:
            if (auto* f = std::get_if<std::uint32_t UnitInfo::*>(&p.field)) return std::to_string(u.**f);
            return std::to_string(u.*std::get<std::int32_t UnitInfo::*>(p.field));
        case Format::pid: {
            const std::uint32_t pid = u.*std::get<std::uint32_t UnitInfo::*>(p.field);
            return pid == 0 ? std::string() : std::to_string(pid);
        }
        case Format::counter: {
            const std::uint64_t v = u.*std::get<std::uint64_t UnitInfo::*>(p.field);
            return v == unitInfinity ? std::string() : std::to_string(v);
        }
        case Format::timestamp:
            return isoTimestamp(u.*std::get<std::uint64_t UnitInfo::*>(p.field));
        case Format::exitStatus:
            return exited(u) ? std::to_string(u.*std::get<std::int32_t UnitInfo::*>(p.field)) : std::string();
        case Format::exitCode: {
            if (!exited(u)) return {};
            const std::int32_t code = u.*std::get<std::int32_t UnitInfo::*>(p.field);
            switch (code) {
                case 1:
                    return "exited";
                case 2:
                    return "killed";
                case 3:
                    return "dumped";
                default:
                    return code == 0 ? std::string() : std::to_string(code);
            }
        }
    }
    return {};
}

void resetProperty(const UnitProperty& p, UnitInfo& u) {
    static const UnitInfo fresh;
    copyProperty(p, fresh, u);
}

void copyProperty(const UnitProperty& p, const UnitInfo& from, UnitInfo& to) {
    std::visit([&](auto member) { to.*member = from.*member; }, p.field);
    // The executable's path arrives with the command lines.
    if (p.format == Format::command) to.execPath = from.execPath;
}

} // namespace Feed
