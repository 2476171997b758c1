#include "ProcessMapping.h"

#include "GenericAgent/GenericAgentSnmp.h"
#include "feed/core/Text.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fnmatch.h>
#include <stdexcept>

namespace Feed {

namespace {

constexpr bool keysFitIndex(const auto& keys) {
    for (std::string_view k : keys)
        if (k.empty() || k.size() > GenericAgent::maxIndexKeyBytes) return false;
    return true;
}
static_assert(keysFitIndex(processOptionKeys) && keysFitIndex(processDataKeys),
              "every option and data key of a process must fit the SNMP index");

const XmlRpc::Value& need(const XmlRpc::Value& entry, std::string_view key) {
    const XmlRpc::Value* v = entry.member(key);
    if (!v) throw std::invalid_argument("no member \"" + std::string(key) + "\"");
    return *v;
}

std::string text(const XmlRpc::Value& entry, std::string_view key) {
    const XmlRpc::Value& v = need(entry, key);
    if (const std::string* s = v.string()) return *s;
    if (const std::int64_t* i = v.integer()) return std::to_string(*i);
    if (const bool* b = v.boolean()) return *b ? "true" : "false";
    if (v.isNil()) return {};
    throw std::invalid_argument("member \"" + std::string(key) + "\" is not a string");
}

std::string optionalText(const XmlRpc::Value& entry, std::string_view key) {
    return entry.member(key) ? text(entry, key) : std::string();
}

std::int64_t integer(const XmlRpc::Value& entry, std::string_view key) {
    const XmlRpc::Value& v = need(entry, key);
    if (const std::int64_t* i = v.integer()) return *i;
    if (const bool* b = v.boolean()) return *b ? 1 : 0;
    throw std::invalid_argument("member \"" + std::string(key) + "\" is not an integer");
}

bool boolean(const XmlRpc::Value& entry, std::string_view key) {
    const XmlRpc::Value& v = need(entry, key);
    if (const bool* b = v.boolean()) return *b;
    if (const std::int64_t* i = v.integer()) return *i != 0;
    throw std::invalid_argument("member \"" + std::string(key) + "\" is not a boolean");
}

void put(std::map<std::string, std::string>& to, std::string_view key, std::string value) {
    if (value.empty() || value == "none") return;
    to.emplace(std::string(key), cutToBytes(std::move(value), GenericAgent::AgentVal::maxLength));
}

} // namespace

ProcessConfig processConfigOf(const XmlRpc::Value& e) {
    if (!e.structure()) throw std::invalid_argument("a configuration entry is not a struct");
    ProcessConfig c;
    c.name = text(e, "name");
    c.group = text(e, "group");
    c.inUse = boolean(e, "inuse");
    c.autostart = boolean(e, "autostart");
    c.command = text(e, "command");
    c.directory = optionalText(e, "directory");
    c.uid = optionalText(e, "uid");
    c.autorestart = optionalText(e, "autorestart");
    c.startsecs = integer(e, "startsecs");
    c.startretries = integer(e, "startretries");
    c.stopsignal = integer(e, "stopsignal");
    c.priority = integer(e, "process_prio");
    return c;
}

ProcessInfo processInfoOf(const XmlRpc::Value& e) {
    if (!e.structure()) throw std::invalid_argument("a process entry is not a struct");
    ProcessInfo i;
    i.name = text(e, "name");
    i.group = text(e, "group");
    i.start = integer(e, "start");
    i.stop = integer(e, "stop");
    i.state = integer(e, "state");
    i.statename = text(e, "statename");
    i.spawnerr = optionalText(e, "spawnerr");
    i.exitstatus = integer(e, "exitstatus");
    i.pid = integer(e, "pid");
    i.description = optionalText(e, "description");
    return i;
}

std::string processDaemonName(std::string_view group, std::string_view name) {
    if (group == name) return std::string(name);
    return processCallName(group, name);
}

std::string processCallName(std::string_view group, std::string_view name) {
    std::string out(group);
    out += ':';
    out += name;
    return out;
}

std::vector<std::string> parseProcessPatterns(std::string_view patterns) {
    return patternList(patterns, "process patterns");
}

bool processMatches(std::string_view group, std::string_view name, const std::vector<std::string>& patterns) {
    std::string bare(name);
    std::string full = processCallName(group, name);
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string& p) {
        return ::fnmatch(p.c_str(), bare.c_str(), FNM_NOESCAPE) == 0 ||
               ::fnmatch(p.c_str(), full.c_str(), FNM_NOESCAPE) == 0;
    });
}

std::string commandExecutable(std::string_view command) {
    std::string out;
    std::size_t i = 0;
    while (i < command.size() && isSpace(command[i])) ++i;
    for (; i < command.size(); ++i) {
        char c = command[i];
        if (isSpace(c)) break;
        if (c == '\\') {
            if (i + 1 < command.size()) out += command[++i];
        } else if (c == '\'') {
            std::size_t end = command.find('\'', i + 1);
            if (end == std::string_view::npos) end = command.size();
            out.append(command.substr(i + 1, end - i - 1));
            i = end;
        } else if (c == '"') {
            for (++i; i < command.size() && command[i] != '"'; ++i) {
                if (command[i] == '\\' && i + 1 < command.size() && (command[i + 1] == '"' || command[i + 1] == '\\'))
                    ++i;
                out += command[i];
            }
        } else {
            out += c;
        }
    }
    return out;
}

std::string signalText(std::int64_t signal) {
    if (signal > 0 && signal < NSIG)
        if (const char* name = ::sigabbrev_np(static_cast<int>(signal))) return name;
    return std::to_string(signal);
}

std::string isoSeconds(std::int64_t seconds) {
    if (seconds <= 0) return {};
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    if (!::gmtime_r(&t, &tm)) return {};
    char buf[32];
    std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return std::string(buf, n);
}

DaemonState daemonStateOf(const ProcessConfig* c, const ProcessInfo* i, CommandShown command) {
    DaemonState d;
    if (c) {
        d.hasConfig = true;
        d.enabled = c->autostart;
        put(d.options, "command", command == CommandShown::whole ? c->command : commandExecutable(c->command));
        put(d.options, "directory", c->directory);
        put(d.options, "user", c->uid);
        put(d.options, "autorestart", c->autorestart);
        put(d.options, "startsecs", std::to_string(c->startsecs));
        put(d.options, "startretries", std::to_string(c->startretries));
        put(d.options, "stopsignal", signalText(c->stopsignal));
        put(d.options, "priority", std::to_string(c->priority));
        put(d.options, "group", c->group);
    }
    if (i) {
        d.hasStatus = true;
        d.running = i->state == processRunning;
        put(d.data, "statename", i->statename);
        put(d.data, "pid", i->pid > 0 ? std::to_string(i->pid) : std::string());
        put(d.data, "start", isoSeconds(i->start));
        put(d.data, "stop", isoSeconds(i->stop));
        // supervisord keeps an exit status only while the process is EXITED or STOPPED; in
        // other states it reports 0 for "none", which must not read as a clean exit.
        bool exited = i->stop > 0 && (i->state == processExited || i->state == processStopped);
        put(d.data, "exitstatus", exited ? std::to_string(i->exitstatus) : std::string());
        put(d.data, "spawnerr", i->spawnerr);
        // While RUNNING, supervisord's description is "pid N, uptime H:MM:SS": the pid and
        // start are served already, and the uptime is stale the moment it is read.
        if (!d.running) put(d.data, "description", i->description);
    }
    return d;
}

} // namespace Feed
