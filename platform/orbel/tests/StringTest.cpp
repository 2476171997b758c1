#include "orbel/String.h"

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <unordered_set>

TEST(String, EmptyHasNoBody) {
    auto before = Orbel::String::liveBodies();
    Orbel::String e;
    Orbel::String e2("");
    EXPECT_TRUE(e.empty());
    EXPECT_TRUE(e2.empty());
    EXPECT_EQ(e.size(), 0u);
    EXPECT_STREQ(e.cStr(), "");
    EXPECT_EQ(Orbel::String::liveBodies(), before);
    EXPECT_EQ(e, e2);
}

TEST(String, CopiesShareOneBodyAndFreeIt) {
    auto before = Orbel::String::liveBodies();
    {
        Orbel::String a("bgpd");
        Orbel::String b = a;
        EXPECT_TRUE(a.sharesBodyWith(b));
        EXPECT_EQ(Orbel::String::liveBodies(), before + 1);
        Orbel::String c("bgpd");
        EXPECT_FALSE(a.sharesBodyWith(c));
        EXPECT_EQ(a, c);
        EXPECT_EQ(Orbel::String::liveBodies(), before + 2);
    }
    EXPECT_EQ(Orbel::String::liveBodies(), before);
}

TEST(String, HoldsArbitraryBytes) {
    const char raw[] = {'a', '\0', 'b', static_cast<char>(0xff)};
    Orbel::String s(raw, sizeof raw);
    EXPECT_EQ(s.size(), 4u);
    EXPECT_EQ(s[1], 0u);
    EXPECT_EQ(s[3], 0xffu);
    std::string walked(s.begin(), s.end());
    EXPECT_EQ(walked, std::string(raw, sizeof raw));
}

TEST(String, OrdersBytesUnsignedLikeStdString) {
    Orbel::String low("a"), high("\xc3");
    EXPECT_LT(low, high);
    EXPECT_LT(Orbel::String("ab"), Orbel::String("b"));
    EXPECT_LT(Orbel::String("a"), Orbel::String("ab"));
    EXPECT_FALSE(Orbel::String("b") < Orbel::String("b"));
}

TEST(String, HashAgreesWithEquality) {
    std::unordered_set<Orbel::String> set;
    set.insert("one");
    set.insert(Orbel::String(std::string("one")));
    set.insert("two");
    EXPECT_EQ(set.size(), 2u);
    EXPECT_EQ(Orbel::String("x").hash(), Orbel::String(std::string("x")).hash());
    EXPECT_EQ(Orbel::String().hash(), Orbel::String::emptyHash);
}

TEST(String, StreamsBytesUnformatted) {
    std::ostringstream os;
    os.width(10);
    os << Orbel::String("ab");
    EXPECT_EQ(os.str(), "ab");
}

TEST(String, Concatenates) {
    EXPECT_EQ(Orbel::String("a") + Orbel::String("b") + "c", Orbel::String("abc"));
    EXPECT_EQ("x" + Orbel::String(), Orbel::String("x"));
}

TEST(String, NameIsAString) {
    Orbel::Name n("daemonMIB");
    const Orbel::String& s = n;
    EXPECT_EQ(s, Orbel::String("daemonMIB"));
}

TEST(String, RefusesMoreBytesThanABodyHoldsBeforeReadingThem) {
    auto before = Orbel::String::liveBodies();
    const char one = 'x'; // only one byte behind the pointer: the check must come first
    try {
        Orbel::String s(&one, Orbel::String::maxSize + 1);
        FAIL() << "no exception";
    } catch (const std::length_error& e) {
        EXPECT_STREQ(e.what(), "Orbel::String: 4294967296 bytes, more than 4294967295");
    }
    EXPECT_EQ(Orbel::String::liveBodies(), before);
}
