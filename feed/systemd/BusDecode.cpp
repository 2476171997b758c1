#include "BusDecode.h"

#include <cstdlib>
#include <cstring>

namespace Feed {

namespace {

int readStrv(sd_bus_message* v, std::vector<std::string>& to) {
    char** list = nullptr;
    int r = sd_bus_message_read_strv(v, &list);
    if (r < 0) return r;
    to.clear();
    for (char** p = list; p && *p; ++p) {
        to.emplace_back(*p);
        std::free(*p);
    }
    std::free(list);
    return r;
}

template <char Type, typename T>
int readBasic(sd_bus_message* v, T& to) {
    T value{};
    int r = sd_bus_message_read_basic(v, Type, &value);
    if (r >= 0) to = value;
    return r;
}

// ExecStart: a(sasbttttuii), the command lines; the first one's path and argv are kept.
int readCommandLines(sd_bus_message* v, std::string& path, std::vector<std::string>& argv) {
    int r = sd_bus_message_enter_container(v, SD_BUS_TYPE_ARRAY, "(sasbttttuii)");
    if (r < 0) return r;
    bool first = true;
    path.clear();
    argv.clear();
    while ((r = sd_bus_message_enter_container(v, SD_BUS_TYPE_STRUCT, "sasbttttuii")) > 0) {
        const char* p = nullptr;
        std::vector<std::string> args;
        if ((r = sd_bus_message_read_basic(v, 's', &p)) < 0) return r;
        if ((r = readStrv(v, args)) < 0) return r;
        if ((r = sd_bus_message_skip(v, "bttttuii")) < 0) return r;
        if ((r = sd_bus_message_exit_container(v)) < 0) return r;
        if (first) {
            path = p ? p : "";
            argv = std::move(args);
            if (argv.empty() && !path.empty()) argv.push_back(path);
            first = false;
        }
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(v);
}

int readContents(sd_bus_message* v, const UnitProperty& p, UnitInfo& u) {
    const std::string_view sig = p.signature;
    if (sig == "s") {
        const char* s = nullptr;
        int r = sd_bus_message_read_basic(v, 's', &s);
        if (r >= 0) u.*std::get<std::string UnitInfo::*>(p.field) = s ? s : "";
        return r;
    }
    if (sig == "(ss)") {
        // LoadError: the error's name and its message; the message says what is wrong.
        const char *name = nullptr, *message = nullptr;
        int r = sd_bus_message_read(v, "(ss)", &name, &message);
        if (r >= 0) u.*std::get<std::string UnitInfo::*>(p.field) = message && *message ? message : name ? name : "";
        return r;
    }
    if (sig == "as") return readStrv(v, u.*std::get<std::vector<std::string> UnitInfo::*>(p.field));
    if (sig == "u") return readBasic<'u'>(v, u.*std::get<std::uint32_t UnitInfo::*>(p.field));
    if (sig == "i") return readBasic<'i'>(v, u.*std::get<std::int32_t UnitInfo::*>(p.field));
    if (sig == "t") return readBasic<'t'>(v, u.*std::get<std::uint64_t UnitInfo::*>(p.field));
    if (sig == "a(sasbttttuii)")
        return readCommandLines(v, u.execPath, u.*std::get<std::vector<std::string> UnitInfo::*>(p.field));
    return sd_bus_message_skip(v, nullptr);
}

} // namespace

int readPropertyValue(sd_bus_message* m, const UnitProperty& p, UnitInfo& u, bool& matched) {
    char type;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0) return r;
    const std::string sig(p.signature);
    matched = type == SD_BUS_TYPE_VARIANT && contents && sig == contents;
    if (!matched) return sd_bus_message_skip(m, "v");
    if ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, sig.c_str())) < 0) return r;
    if ((r = readContents(m, p, u)) < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readPropertyDict(sd_bus_message* m, UnitIface iface, PropertyValues& out) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    if (r < 0) return r;
    while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
        const char* name = nullptr;
        if ((r = sd_bus_message_read_basic(m, 's', &name)) < 0) return r;
        const UnitProperty* p = findUnitProperty(iface, name);
        bool matched = false;
        if (p)
            r = readPropertyValue(m, *p, out.values, matched);
        else
            r = sd_bus_message_skip(m, "v");
        if (r < 0) return r;
        if (matched) out.present.push_back(p);
        if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readStrings(sd_bus_message* m, std::vector<std::string>& out) {
    return readStrv(m, out);
}

int readListedUnits(sd_bus_message* m, std::vector<ListedUnit>& out) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "(ssssssouso)");
    if (r < 0) return r;
    for (;;) {
        const char *id, *description, *load, *active, *sub, *following, *path, *jobType, *jobPath;
        std::uint32_t jobId;
        r = sd_bus_message_read(m, "(ssssssouso)", &id, &description, &load, &active, &sub, &following, &path, &jobId,
                                &jobType, &jobPath);
        if (r <= 0) break;
        out.push_back({id, description, load, active, sub, path});
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

int readListedFiles(sd_bus_message* m, std::vector<ListedFile>& out) {
    int r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, "(ss)");
    if (r < 0) return r;
    for (;;) {
        const char *path, *state;
        r = sd_bus_message_read(m, "(ss)", &path, &state);
        if (r <= 0) break;
        out.push_back({path, state});
    }
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
}

} // namespace Feed
