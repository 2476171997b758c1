#include "Log.h"
#include "LogLimit.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

namespace Agent::Log {

namespace {

constexpr const char* appName = "velmar-snmp-agent";

enum class Kind { stderrText, journal, syslog, file };

struct State {
    std::mutex mutex;
    Kind kind = Kind::stderrText;
    std::string path;       // of the log file
    int fd = STDERR_FILENO; // where stderrText, journal and file lines go
    bool routed = false;    // Net-SNMP's log comes here
    std::string pending;    // a Net-SNMP message not ended by a newline yet
    Observer observer;
    LogLimit limit; // Net-SNMP's lines of each kind, per interval
};

State& state() {
    static State* s = new State; // never destroyed: lines may come during exit
    return *s;
}

// True when standard error is the journal's stream: JOURNAL_STREAM holds "DEVICE:INODE"
// of the stream systemd connected, which a redirection by the service would change.
bool stderrIsJournal() {
    const char* js = std::getenv("JOURNAL_STREAM");
    if (!js || !*js) return false;
    unsigned long long dev = 0, ino = 0;
    if (std::sscanf(js, "%llu:%llu", &dev, &ino) != 2) return false;
    struct stat st {};
    if (::fstat(STDERR_FILENO, &st) != 0) return false;
    return static_cast<unsigned long long>(st.st_dev) == dev && static_cast<unsigned long long>(st.st_ino) == ino;
}

std::string timestamp() {
    const auto now = std::chrono::system_clock::now();
    const std::time_t t = std::chrono::system_clock::to_time_t(now);
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    struct tm tm {};
    ::localtime_r(&t, &tm);
    char date[32], zone[8];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &tm);
    std::strftime(zone, sizeof zone, "%z", &tm);
    char out[64];
    std::snprintf(out, sizeof out, "%s.%03d%s", date, static_cast<int>(ms), zone);
    return out;
}

void writeAll(int fd, const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return; // nowhere left to say it
        p += n;
        left -= static_cast<size_t>(n);
    }
}

// One line without newline; the caller holds the mutex.
void writeLocked(State& s, Level level, const std::string& line) {
    switch (s.kind) {
        case Kind::syslog:
            ::syslog(static_cast<int>(level), "%s", line.c_str());
            return;
        case Kind::journal:
            writeAll(s.fd, "<" + std::to_string(static_cast<int>(level)) + ">" + line + "\n");
            return;
        case Kind::stderrText:
        case Kind::file:
            writeAll(s.fd, timestamp() + " " + levelText(level) + " " + appName + ": " + line + "\n");
            return;
    }
}

int openFile(const std::string& path) {
    return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0640);
}

Level levelOfPriority(int priority) {
    if (priority <= LOG_ERR) return Level::error;
    if (priority == LOG_WARNING) return Level::warning;
    if (priority == LOG_NOTICE) return Level::notice;
    if (priority == LOG_INFO) return Level::info;
    return Level::debug;
}

void writeSummaries(State& s, std::vector<std::string> lines) {
    for (const auto& l : lines) writeLocked(s, Level::warning, l);
}

// Whether a Net-SNMP line is written: peers cause most of them (one per refused request),
// so each kind is limited; debug output, which the operator asked for, is not.
bool admitNetSnmp(State& s, int priority, const std::string& line) {
    if (priority >= LOG_DEBUG) return true;
    std::lock_guard<std::mutex> lock(s.mutex);
    const auto now = LogLimit::Clock::now();
    writeSummaries(s, s.limit.expired(now));
    return s.limit.admit(line, now);
}

// Once a second from Net-SNMP's alarms: a flood that stopped still gets its summary.
void onLimitAlarm(unsigned int, void*) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    writeSummaries(s, s.limit.expired(LogLimit::Clock::now()));
}

void flushLimited() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    writeSummaries(s, s.limit.flush(LogLimit::Clock::now()));
}

// Net-SNMP's callback log handler: one call per snmp_log(), which may carry part of a
// line (the debug output is built from pieces) or several lines.
int onNetSnmpLog(int, int, void* serverarg, void*) {
    const auto* message = static_cast<const snmp_log_message*>(serverarg);
    if (!message || !message->msg) return 0;
    State& s = state();
    std::string text;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.pending += message->msg;
        const auto last = s.pending.rfind('\n');
        if (last == std::string::npos) return 0;
        text = s.pending.substr(0, last);
        s.pending.erase(0, last + 1);
    }
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        if (line.find_first_not_of(" \t") == std::string::npos) continue;
        Observer observer;
        {
            std::lock_guard<std::mutex> lock(s.mutex);
            observer = s.observer;
        }
        if (observer && observer(message->priority, line)) continue;
        if (!admitNetSnmp(s, message->priority, line)) continue;
        write(levelOfPriority(message->priority), line);
    }
    return 0;
}

} // namespace

const char* levelText(Level level) {
    switch (level) {
        case Level::error:
            return "error";
        case Level::warning:
            return "warning";
        case Level::notice:
            return "notice";
        case Level::info:
            return "info";
        case Level::debug:
            return "debug";
    }
    return "notice";
}

std::string open(const std::string& destination) {
    State& s = state();
    Kind kind;
    std::string path;
    if (destination == "auto")
        kind = stderrIsJournal() ? Kind::journal : Kind::stderrText;
    else if (destination == "stderr")
        kind = Kind::stderrText;
    else if (destination == "journal")
        kind = Kind::journal;
    else if (destination == "syslog")
        kind = Kind::syslog;
    else if (destination.rfind("file:", 0) == 0 && destination.size() > 5) {
        kind = Kind::file;
        path = destination.substr(5);
    } else {
        return "--log " + destination + ": unknown destination (auto, stderr, journal, syslog or file:PATH)";
    }
    int fd = STDERR_FILENO;
    if (kind == Kind::file) {
        fd = openFile(path);
        if (fd < 0) return "--log " + destination + ": cannot open " + path + " for appending: " + std::strerror(errno);
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.kind == Kind::file && s.fd != STDERR_FILENO) ::close(s.fd);
    if (s.kind == Kind::syslog && kind != Kind::syslog) ::closelog();
    if (kind == Kind::syslog) ::openlog(appName, LOG_PID | LOG_NDELAY, LOG_DAEMON);
    s.kind = kind;
    s.path = path;
    s.fd = fd;
    return {};
}

std::string destination() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    switch (s.kind) {
        case Kind::stderrText:
            return "stderr";
        case Kind::journal:
            return "journal";
        case Kind::syslog:
            return "syslog";
        case Kind::file:
            return "file:" + s.path;
    }
    return "stderr";
}

void write(Level level, const std::string& text) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    size_t start = 0;
    std::string body = text;
    while (!body.empty() && body.back() == '\n') body.pop_back();
    do {
        size_t end = body.find('\n', start);
        if (end == std::string::npos) end = body.size();
        writeLocked(s, level, body.substr(start, end - start));
        start = end + 1;
    } while (start < body.size());
}

std::string reopen() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (s.kind != Kind::file) return {};
    int fd = openFile(s.path);
    if (fd < 0) return "cannot reopen the log file " + s.path + ": " + std::strerror(errno);
    ::close(s.fd);
    s.fd = fd;
    return {};
}

void close() {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    writeSummaries(s, s.limit.flush(LogLimit::Clock::now()));
    if (s.kind == Kind::file && s.fd != STDERR_FILENO) ::close(s.fd);
    if (s.kind == Kind::syslog) ::closelog();
    s.kind = Kind::stderrText;
    s.fd = STDERR_FILENO;
}

void routeNetSnmp() {
    State& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.routed) return;
        s.routed = true;
    }
    // Only this handler: Net-SNMP's own standard error and syslog handlers go.
    snmp_disable_log();
    netsnmp_register_loghandler(NETSNMP_LOGHANDLER_CALLBACK, LOG_DEBUG);
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, onNetSnmpLog, nullptr);
    snmp_enable_calllog();
    snmp_alarm_register(1, SA_REPEAT, onLimitAlarm, nullptr);
    std::atexit(flushLimited);
}

void observeNetSnmp(Observer observer) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.observer = std::move(observer);
}

} // namespace Agent::Log
