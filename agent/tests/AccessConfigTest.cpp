#include "AccessConfig.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

struct ConfigFile {
    std::filesystem::path path;
    explicit ConfigFile(const std::string& text) {
        path = std::filesystem::temp_directory_path() / ("access-config-test-" + std::to_string(::getpid()) + ".conf");
        std::ofstream(path) << text;
    }
    ~ConfigFile() { std::filesystem::remove(path); }
};

std::vector<Agent::AccessFinding> check(const std::string& text) {
    ConfigFile f(text);
    auto out = Agent::checkAccessConfig(f.path.string());
    for (auto& finding : out) { // the path is the fixture's; compare what follows it
        const std::string prefix = f.path.string() + ": ";
        EXPECT_EQ(finding.text.rfind(prefix, 0), 0u) << finding.text;
        finding.text.erase(0, prefix.size());
    }
    return out;
}

TEST(AccessConfig, ReadOnlyConfigurationPasses) {
    EXPECT_TRUE(check("rocommunity public 127.0.0.1\n"
                      "createUser ops SHA \"authpass1\" AES \"privpass1\"\nrouser ops priv\n"
                      "view all included .1\naccess grp \"\" any noauth exact all none none\n"
                      "# rwcommunity private in a comment\ntrap2sink localhost public\n")
                    .empty());
}

struct Refusal {
    const char* text;
    const char* needle;
};

TEST(AccessConfig, WriteAccessIsRefusedWithItsLine) {
    const Refusal cases[] = {
        {"rwcommunity private 127.0.0.1\n", "line 1: rwcommunity grants write access (use rocommunity)"},
        {"\nRWCOMMUNITY6 private ::1\n", "line 2: RWCOMMUNITY6 grants write access"},
        {"createUser a SHA \"authpass1\"\nrwuser a\n", "line 2: rwuser grants write access (use rouser)"},
        {"access grp \"\" any noauth exact all all none\n", "line 1: access gives group grp the write view all"},
        {"setaccess grp \"\" any noauth exact all read,write\n", "line 1: setaccess gives group grp write access"},
        {"authcommunity log,write private\n", "line 1: authcommunity log,write grants write access"},
        {"agentaddress udp:161\n", "line 1: agentaddress is not used by this agent"},
        {"includeFile /etc/other.conf\n", "line 1: includeFile is not allowed"},
    };
    for (const auto& c : cases) {
        const auto found = check(c.text);
        ASSERT_EQ(found.size(), 1u) << c.text;
        EXPECT_TRUE(found[0].refused) << c.text;
        EXPECT_NE(found[0].text.find(c.needle), std::string::npos) << found[0].text;
    }
}

TEST(AccessConfig, RouserWithoutCreateUserIsAWarning) {
    const auto found = check("rouser ops priv\nrouser -s usm other auth\ncreateUser other SHA \"authpass1\"\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_FALSE(found[0].refused);
    EXPECT_NE(found[0].text.find("line 1: rouser ops has no createUser ops"), std::string::npos) << found[0].text;
}

TEST(AccessConfig, UnreadableFileIsRefused) {
    const auto found = Agent::checkAccessConfig("/nonexistent/access.conf");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_TRUE(found[0].refused);
    EXPECT_NE(found[0].text.find("No such file"), std::string::npos);
}

} // namespace
