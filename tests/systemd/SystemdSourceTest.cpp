// Feed::SystemdSource against a real systemd booted in the test sandbox (tests/systemd/sandbox):
// the initial load and changes made with systemctl, each seen within one second.
#include "feed/systemd/SystemdSource.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;

// A path as one word of a shell command line (a clone's path may have a blank).
std::string shellQuoted(const std::string& s) {
    std::string out = "'";
    for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// The sandbox: started once for every test, killed by process id at the end (and, should
// this process die first, by the death signal its unshare gets).
class Sandbox : public ::testing::Environment {
public:
    static inline pid_t unsharePid = -1;
    static inline pid_t systemdPid = -1;
    static inline std::string skipReason;

    void SetUp() override {
        std::string script = std::string(VELMAR_SOURCE_DIR) + "/tests/systemd/sandbox";
        std::string check = shellQuoted(script) + " --check";
        FILE* p = ::popen(check.c_str(), "r");
        char buf[512] = {};
        std::size_t n = p ? std::fread(buf, 1, sizeof buf - 1, p) : 0;
        int rc = p ? ::pclose(p) : -1;
        if (rc != 0) {
            skipReason = n ? std::string(buf, n) : "the sandbox check failed";
            return;
        }
        unsharePid = ::fork();
        if (unsharePid == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            std::string units = std::string(VELMAR_SOURCE_DIR) + "/tests/systemd/units";
            ::execl(script.c_str(), script.c_str(), units.c_str(), static_cast<char*>(nullptr));
            ::_exit(127);
        }
        for (int i = 0; i < 100 && systemdPid <= 0; ++i) {
            // The script runs helpers of its own before it becomes unshare: only unshare's
            // child is the sandbox.
            std::ifstream comm("/proc/" + std::to_string(unsharePid) + "/comm");
            std::string name;
            comm >> name;
            if (name != "unshare") {
                std::this_thread::sleep_for(100ms);
                continue;
            }
            std::ifstream children("/proc/" + std::to_string(unsharePid) + "/task/" + std::to_string(unsharePid) +
                                   "/children");
            children >> systemdPid;
            if (systemdPid <= 0) std::this_thread::sleep_for(100ms);
        }
        ASSERT_GT(systemdPid, 0) << "the sandbox's systemd did not start";
        // The child runs the script first, then execs systemd; wait for systemd and its bus.
        for (int i = 0; i < 200; ++i) {
            std::ifstream comm("/proc/" + std::to_string(systemdPid) + "/comm");
            std::string name;
            comm >> name;
            if (name == "systemd" &&
                ::access(("/proc/" + std::to_string(systemdPid) + "/root/run/dbus/system_bus_socket").c_str(), F_OK) ==
                    0)
                break;
            std::this_thread::sleep_for(100ms);
        }
        ASSERT_EQ(run("systemctl is-system-running --wait >/dev/null; true"), 0);
    }
    void TearDown() override {
        if (systemdPid > 0) ::kill(systemdPid, SIGKILL);
        if (unsharePid > 0) {
            // Also when systemd was never found: unshare (--kill-child) takes its child along.
            ::kill(unsharePid, SIGKILL);
            ::waitpid(unsharePid, nullptr, 0);
            std::string cleanup = shellQuoted(std::string(VELMAR_SOURCE_DIR) + "/tests/systemd/sandbox") +
                                  " --cleanup " + std::to_string(unsharePid);
            EXPECT_EQ(std::system(cleanup.c_str()), 0);
        }
    }
    // Runs a shell command inside the sandbox, for at most limit seconds; its exit status.
    static int run(const std::string& command, int limit = 30) {
        std::string c = "timeout " + std::to_string(limit) + " nsenter -t " + std::to_string(systemdPid) +
                        " -a sh -c '" + command + "'";
        int rc = std::system(c.c_str());
        return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
    }
    static std::string bus() {
        return "unix:path=/proc/" + std::to_string(systemdPid) + "/root/run/dbus/system_bus_socket";
    }
};

// What the source has handed over so far, applied in order.
struct Served {
    Feed::LauncherState state;
    std::vector<std::string> lines;
    void take(Feed::Source& s) {
        for (Feed::SourceEvent& e : s.take()) {
            if (!e.line.empty()) lines.push_back(e.line);
            if (!e.changed) continue;
            for (auto& [name, d] : *e.changed) {
                if (d)
                    state[name] = *d;
                else
                    state.erase(name);
            }
        }
    }
    // Waits up to limit for pred to hold of what is served.
    bool waitFor(Feed::Source& s, const std::function<bool(const Feed::LauncherState&)>& pred,
                 std::chrono::milliseconds limit = 1000ms) {
        auto end = std::chrono::steady_clock::now() + limit;
        for (;;) {
            take(s);
            if (pred(state)) return true;
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd fd{s.eventFd(), POLLIN, 0};
            ::poll(&fd, 1, static_cast<int>(left.count()));
        }
    }
};

class SystemdSourceTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Sandbox::skipReason.empty()) GTEST_SKIP() << Sandbox::skipReason;
        Feed::SystemdSource::Options o;
        o.patterns = Feed::parseUnitPatterns("velmar-*");
        o.refresh = 1s;
        o.busAddress = Sandbox::bus();
        source = std::make_unique<Feed::SystemdSource>(o);
        source->loadInitial();
        served.take(*source);
        source->start();
    }
    std::unique_ptr<Feed::SystemdSource> source;
    Served served;
};

bool running(const Feed::LauncherState& s, const std::string& n) {
    auto it = s.find(n);
    return it != s.end() && it->second.running;
}
bool enabled(const Feed::LauncherState& s, const std::string& n) {
    auto it = s.find(n);
    return it != s.end() && it->second.enabled;
}

TEST_F(SystemdSourceTest, InitialLoadServesTheTestServices) {
    const auto& s = served.state;
    EXPECT_EQ(source->health().state, Feed::SourceState::ok);
    EXPECT_TRUE(running(s, "velmar-long") && enabled(s, "velmar-long"));
    ASSERT_TRUE(s.count("velmar-off"));
    EXPECT_FALSE(s.at("velmar-off").enabled);
    EXPECT_FALSE(s.at("velmar-off").running);
    ASSERT_TRUE(s.count("velmar-once"));
    EXPECT_FALSE(s.at("velmar-once").running);
    EXPECT_EQ(s.at("velmar-once").data.at("SubState"), "exited");
    EXPECT_TRUE(running(s, "velmar-worker@1"));
    // The executable only: arguments can hold secrets (--serve-command-lines serves them).
    EXPECT_EQ(s.at("velmar-long").options.at("ExecStart"), "/bin/sleep");
    EXPECT_TRUE(s.at("velmar-long").data.count("MainPID"));
    EXPECT_FALSE(s.count("velmar-a-service-whose-name-is-well-over-32-bytes"));
    EXPECT_EQ(source->health().skippedNow, 1u);
    bool said = false;
    for (const auto& l : served.lines)
        said |= l.find("velmar-a-service-whose-name-is-well-over-32-bytes") != std::string::npos;
    EXPECT_TRUE(said);
}

TEST_F(SystemdSourceTest, StopAndStartAreSeenWithinOneSecond) {
    ASSERT_EQ(Sandbox::run("systemctl stop velmar-long"), 0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) { return s.count("velmar-long") && !running(s, "velmar-long"); }));
    ASSERT_EQ(Sandbox::run("systemctl start velmar-long"), 0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) { return running(s, "velmar-long"); }));
}

TEST_F(SystemdSourceTest, KillIsSeenWithinOneSecond) {
    ASSERT_EQ(Sandbox::run("systemctl kill -s KILL velmar-worker@1"), 0);
    EXPECT_TRUE(
        served.waitFor(*source, [](auto& s) { return s.count("velmar-worker@1") && !running(s, "velmar-worker@1"); }));
    Sandbox::run("systemctl reset-failed velmar-worker@1; systemctl start velmar-worker@1");
}

TEST_F(SystemdSourceTest, EnableAndDisableAreSeenWithinOneSecond) {
    ASSERT_EQ(Sandbox::run("systemctl enable velmar-off 2>/dev/null"), 0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) { return enabled(s, "velmar-off"); }));
    ASSERT_EQ(Sandbox::run("systemctl disable velmar-off 2>/dev/null"), 0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) { return s.count("velmar-off") && !enabled(s, "velmar-off"); }));
}

TEST_F(SystemdSourceTest, RestartsOfAFailingServiceAreCounted) {
    auto restarts = [](const Feed::LauncherState& s) {
        auto it = s.find("velmar-flaky");
        return it == s.end() || !it->second.data.count("NRestarts") ? -1 : std::stoi(it->second.data.at("NRestarts"));
    };
    int before = restarts(served.state);
    EXPECT_TRUE(served.waitFor(
        *source, [&](auto& s) { return restarts(s) > before; }, 5000ms));
}

TEST_F(SystemdSourceTest, DaemonReloadAfterAUnitFileChangedIsSeen) {
    ASSERT_EQ(Sandbox::run("sed -i s/long-running/long-running-edited/ /etc/systemd/system/velmar-long.service && "
                           "systemctl daemon-reload"),
              0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) {
        return s.count("velmar-long") &&
               s.at("velmar-long").options.at("Description").find("edited") != std::string::npos;
    }));
}

TEST_F(SystemdSourceTest, RemovedUnitGoes) {
    ASSERT_EQ(Sandbox::run(
                  "printf \"[Service]\\nExecStart=/bin/sleep infinity\\n\" > /etc/systemd/system/velmar-temp.service "
                  "&& systemctl daemon-reload && systemctl start velmar-temp"),
              0);
    ASSERT_TRUE(served.waitFor(*source, [](auto& s) { return running(s, "velmar-temp"); }));
    ASSERT_EQ(
        Sandbox::run(
            "systemctl stop velmar-temp && rm /etc/systemd/system/velmar-temp.service && systemctl daemon-reload"),
        0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) { return !s.count("velmar-temp"); }));
}

// After a re-exec systemd is read again and its changes are still followed.
TEST_F(SystemdSourceTest, DaemonReexecIsFollowed) {
    ASSERT_EQ(Sandbox::run("systemctl daemon-reexec"), 0);
    ASSERT_EQ(Sandbox::run("systemctl stop velmar-long"), 0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) { return s.count("velmar-long") && !running(s, "velmar-long"); }));
    EXPECT_EQ(source->health().state, Feed::SourceState::ok);
    Sandbox::run("systemctl start velmar-long");
}

// Last: the 500 transient units leave the sandbox's systemd busy for a while (stop jobs),
// which slows whatever runs after them. Starting them (500 systemd-run, 8 at a time) may take
// a while on a loaded machine: that command has two minutes; what the source shows is then
// checked within one second.
TEST_F(SystemdSourceTest, TransientUnitsComeAndGo) {
    ASSERT_EQ(
        Sandbox::run(
            "for i in $(seq 500); do echo $i; done | xargs -P 8 -I@ systemd-run -q --unit=velmar-t-@ /bin/sleep 600",
            120),
        0);
    EXPECT_TRUE(served.waitFor(
        *source,
        [](auto& s) {
            std::size_t n = 0;
            for (auto& [k, d] : s) n += k.starts_with("velmar-t-") && d.running;
            return n == 500;
        },
        1000ms));
    ASSERT_EQ(Sandbox::run("systemctl stop velmar-t-*", 120), 0);
    EXPECT_TRUE(served.waitFor(*source, [](auto& s) {
        for (auto& [k, d] : s)
            if (k.starts_with("velmar-t-")) return false;
        return true;
    }));
}

} // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new Sandbox);
    return RUN_ALL_TESTS();
}
