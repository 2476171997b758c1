#include "snmp/SnmpString.h"

#include "orbel/TypeRegistry.h"
#include "orbel/ValueNotation.h"

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <gtest/gtest.h>

#include <random>
#include <sstream>
#include <vector>

namespace {

// The OID suffix of a length-prefixed (non-IMPLIED) octet-string index.
std::vector<oid> indexOid(const Snmp::String& s) {
    std::vector<oid> out{static_cast<oid>(s.size())};
    for (unsigned char c : s.view()) out.push_back(c);
    return out;
}

std::string randomBytes(std::mt19937& rng, std::size_t maxLen) {
    std::string s(rng() % (maxLen + 1), '\0');
    // A small alphabet makes equal prefixes and equal strings common.
    for (auto& c : s) c = static_cast<char>((rng() % 2) ? 'a' + rng() % 3 : 0xfd + rng() % 3);
    return s;
}

} // namespace

TEST(SnmpString, ShorterFirstThenUnsignedBytes) {
    EXPECT_LT(Snmp::String("zz"), Snmp::String("aaa"));
    EXPECT_LT(Snmp::String("ab"), Snmp::String("b\xff"));
    EXPECT_LT(Snmp::String("a"), Snmp::String("\x80"));
    EXPECT_LT(Snmp::String(), Snmp::String("a"));
    EXPECT_FALSE(Snmp::String("abc") < Snmp::String("abc"));
    EXPECT_EQ(Snmp::String(std::string("a\0b", 3)), Snmp::String(std::string("a\0b", 3)));
    EXPECT_NE(Snmp::String(std::string("a\0b", 3)), Snmp::String("a"));
}

TEST(SnmpString, OrderEqualsNetSnmpOidOrder) {
    std::mt19937 rng(12345);
    for (int i = 0; i < 20000; ++i) {
        Snmp::String a(randomBytes(rng, 6)), b(randomBytes(rng, 6));
        auto oa = indexOid(a), ob = indexOid(b);
        int c = snmp_oid_compare(oa.data(), oa.size(), ob.data(), ob.size());
        SCOPED_TRACE(Snmp::valueToStrep(a).stdString() + " vs " + Snmp::valueToStrep(b).stdString());
        EXPECT_EQ(c < 0, a < b);
        EXPECT_EQ(c == 0, a == b);
        EXPECT_EQ(c > 0, b < a);
    }
}

TEST(SnmpString, TextFormRoundTrips) {
    const std::vector<std::string> cases = {"", "bgpd", "it's", "a\\b", std::string("\0", 1), "\x7f\x80\xff", "\"q\""};
    for (const auto& c : cases) {
        SCOPED_TRACE(c);
        Snmp::String s(c);
        Orbel::String text = Snmp::valueToStrep(s);
        auto pos = text.begin();
        Snmp::String back(pos, text.end());
        EXPECT_EQ(pos, text.end());
        EXPECT_EQ(back, s);
        EXPECT_EQ(Orbel::strepToValue<Snmp::String>(text), s);
    }
}

TEST(SnmpString, MalformedTextRaisesRange) {
    for (const char* bad : {"bgpd", "'bgpd", "'\\z'", "", "'a' junk"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(Orbel::strepToValue<Snmp::String>(bad), Orbel::RangeException);
    }
}

TEST(SnmpString, StreamsRawBytes) {
    std::ostringstream os;
    os << Snmp::String("bgpd");
    EXPECT_EQ(os.str(), "bgpd");
}

TEST(SnmpString, GenericValueIsRegistered) {
    auto g = Snmp::String::genericIf("x", true);
    EXPECT_TRUE(g->isConst());
    EXPECT_EQ(g->value(), Snmp::String("x"));
    EXPECT_EQ(g->type()->name(), Orbel::String("Snmp::String"));
    EXPECT_TRUE(g->type()->valueType);
}
