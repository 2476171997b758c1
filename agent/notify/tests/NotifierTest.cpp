// The varbinds the notifier hands to send_v2trap, and what it refuses.
#include "agent/notify/Notifier.h"

#include <gtest/gtest.h>

#include "orbel/Activity.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Agent::Notification;
using Agent::NotificationKind;

struct Varbind {
    std::vector<oid> name;
    u_char type;
    std::vector<oid> oidValue;
    long intValue;
    std::string text;
};

std::vector<Varbind> decoded(const Notification& n, const Agent::Notifier::Extras& extras = {}) {
    std::vector<Varbind> out;
    netsnmp_variable_list* list = Agent::Notifier::varbinds(n, extras);
    for (netsnmp_variable_list* v = list; v; v = v->next_variable) {
        Varbind b{std::vector<oid>(v->name, v->name + v->name_length), v->type, {}, 0, {}};
        if (v->type == ASN_OBJECT_ID) b.oidValue.assign(v->val.objid, v->val.objid + v->val_len / sizeof(oid));
        if (v->type == ASN_INTEGER || v->type == ASN_COUNTER) b.intValue = *v->val.integer;
        if (v->type == ASN_OCTET_STR) b.text.assign(reinterpret_cast<const char*>(v->val.string), v->val_len);
        out.push_back(std::move(b));
    }
    snmp_free_varbind(list);
    return out;
}

const std::vector<oid> root = {1, 3, 6, 1, 4, 1, VELMAR_ENTERPRISE_NUMBER, 3, 17};
const std::vector<oid> trapOid = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

std::vector<oid> under(std::vector<oid> tail) {
    std::vector<oid> o = root;
    o.insert(o.end(), tail.begin(), tail.end());
    return o;
}

} // namespace

TEST(Notifier, RunningChangeCarriesRunningThenEnabledIndexedByName) {
    auto v = decoded({"bgpd", NotificationKind::runningChange, true, false});
    ASSERT_EQ(v.size(), 3u);
    EXPECT_EQ(v[0].name, trapOid);
    EXPECT_EQ(v[0].type, ASN_OBJECT_ID);
    EXPECT_EQ(v[0].oidValue, under({0, 1}));
    EXPECT_EQ(v[1].name, under({2, 1, 1, 2, 4, 'b', 'g', 'p', 'd'}));
    EXPECT_EQ(v[1].type, ASN_INTEGER);
    EXPECT_EQ(v[1].intValue, 2); // false
    EXPECT_EQ(v[2].name, under({1, 1, 1, 2, 4, 'b', 'g', 'p', 'd'}));
    EXPECT_EQ(v[2].intValue, 1); // true
}

TEST(Notifier, EnabledChangeCarriesEnabledFirst) {
    auto v = decoded({"ntpd", NotificationKind::enabledChange, false, true});
    ASSERT_EQ(v.size(), 3u);
    EXPECT_EQ(v[0].oidValue, under({0, 2}));
    EXPECT_EQ(v[1].name, under({1, 1, 1, 2, 4, 'n', 't', 'p', 'd'}));
    EXPECT_EQ(v[1].intValue, 2);
    EXPECT_EQ(v[2].name, under({2, 1, 1, 2, 4, 'n', 't', 'p', 'd'}));
    EXPECT_EQ(v[2].intValue, 1);
}

TEST(Notifier, GoneCarriesTheLastFlags) {
    auto v = decoded({"sshd", NotificationKind::gone, true, true});
    ASSERT_EQ(v.size(), 3u);
    EXPECT_EQ(v[0].oidValue, under({0, 3}));
    EXPECT_EQ(v[1].intValue, 1);
    EXPECT_EQ(v[2].intValue, 1);
}

TEST(Notifier, NameBytesAboveAsciiAreOneSubIdentifierEach) {
    const std::string name = "d\xc3\xa9"; // "dé" in UTF-8: three bytes
    auto v = decoded({name, NotificationKind::runningChange, true, true});
    EXPECT_EQ(v[1].name, under({2, 1, 1, 2, 3, 'd', 0xc3, 0xa9}));
}

TEST(Notifier, RefusesAZeroRateOrANegativeHoldDown) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    EXPECT_THROW(Agent::Notifier(mib, {std::chrono::milliseconds(1000), 0}, nullptr), std::invalid_argument);
    EXPECT_THROW(Agent::Notifier(mib, {std::chrono::milliseconds(-1), 10}, nullptr), std::invalid_argument);
}

TEST(Notifier, RunningChangeCarriesTheCountAndTheChosenDataAfterTheFlags) {
    Agent::Notifier::Extras e;
    e.runningChanges = 7;
    e.data = {{"Result", "signal"}, {"ExecMainStatus", "9"}};
    auto v = decoded({"bgpd", NotificationKind::runningChange, true, false}, e);
    ASSERT_EQ(v.size(), 6u);
    EXPECT_EQ(v[3].name, under({2, 3, 1, 2, 4, 'b', 'g', 'p', 'd'}));
    EXPECT_EQ(v[3].type, ASN_COUNTER);
    EXPECT_EQ(v[3].intValue, 7);
    EXPECT_EQ(v[4].name, under({2, 2, 1, 3, 4, 'b', 'g', 'p', 'd', 6, 'R', 'e', 's', 'u', 'l', 't'}));
    EXPECT_EQ(v[4].type, ASN_OCTET_STR);
    EXPECT_EQ(v[4].text, "signal");
    EXPECT_EQ(v[5].text, "9");
}

TEST(Notifier, OnlyARunningChangeCarriesExtras) {
    Agent::Notifier::Extras e;
    e.runningChanges = 7;
    e.data = {{"Result", "signal"}};
    EXPECT_EQ(decoded({"bgpd", NotificationKind::enabledChange, true, false}, e).size(), 3u);
    EXPECT_EQ(decoded({"bgpd", NotificationKind::gone, true, false}, e).size(), 3u);
}

TEST(Notifier, ExtrasComeFromTheCountAndTheDataTheDaemonHas) {
    auto mib = GenericAgent::daemonMibFactory("daemonMIB");
    Orbel::ActivityLoop::instance().runPending();
    auto c = GenericAgent::Config::configFactory("bgpd");
    auto s = GenericAgent::Status::statusFactory("bgpd");
    s->dataIs(GenericAgent::AgentKey("Result"), GenericAgent::AgentVal(Orbel::String("exit-code")));
    mib->enabledTableIs(Snmp::String("bgpd"), c);
    mib->runningTableIs(Snmp::String("bgpd"), s);
    mib->dataTableIs(GenericAgent::DataTableIndex("bgpd", "Result"), s);
    Agent::Notifier notifier(mib, {std::chrono::milliseconds(1000), 100}, nullptr);
    std::vector<std::string> asked;
    notifier.historyIs(nullptr, [&asked](const std::string& d) -> std::optional<std::uint32_t> {
        asked.push_back(d);
        return d == "bgpd" ? std::optional<std::uint32_t>(3) : std::nullopt;
    });
    notifier.dataKeysIs({"ExecMainStatus", "Result"});
    const auto e = notifier.extras({"bgpd", NotificationKind::runningChange, false, false});
    EXPECT_EQ(e.runningChanges, std::optional<std::uint32_t>(3));
    ASSERT_EQ(e.data.size(), 1u); // no ExecMainStatus: nothing for it
    EXPECT_EQ(e.data[0], (std::pair<std::string, std::string>{"Result", "exit-code"}));
    EXPECT_FALSE(notifier.extras({"ntpd", NotificationKind::runningChange, false, false}).runningChanges);
    EXPECT_FALSE(notifier.extras({"bgpd", NotificationKind::gone, false, false}).runningChanges);
    EXPECT_EQ(asked, (std::vector<std::string>{"bgpd", "ntpd"}));
}
