#include "orbel/ValueNotation.h"

#include <gtest/gtest.h>

#include <random>

namespace {

// A value type with a parsing constructor, to exercise strepToValue's generic path.
struct Pair {
    Orbel::String a, b;
    Pair(Orbel::String8::IteratorConst& pos, const Orbel::String8::IteratorConst& end) {
        Orbel::needString(pos, end, " (");
        a = Orbel::sequenceToValue(pos, end);
        Orbel::needString(pos, end, " ,");
        b = Orbel::sequenceToValue(pos, end);
        Orbel::needString(pos, end, " ) ");
    }
};

Orbel::String roundTrip(const std::string& bytes) {
    Orbel::String text = Orbel::quoteBytes(bytes);
    auto pos = text.begin();
    Orbel::String back = Orbel::sequenceToValue(pos, text.end());
    EXPECT_EQ(pos, text.end());
    return back;
}

} // namespace

TEST(ValueNotation, NeedStringBlankMatchesOptionalSpace) {
    Orbel::String t("Value  (x");
    auto pos = t.begin();
    Orbel::needString(pos, t.end(), " Value");
    Orbel::needString(pos, t.end(), " (");
    EXPECT_EQ(*pos, 'x');
    Orbel::String u("Value(");
    pos = u.begin();
    Orbel::needString(pos, u.end(), " Value (");
    EXPECT_EQ(pos, u.end());
}

TEST(ValueNotation, NeedStringMismatchRaisesAndKeepsPosition) {
    Orbel::String t("Valve");
    auto pos = t.begin();
    try {
        Orbel::needString(pos, t.end(), " Value");
        FAIL() << "no exception";
    } catch (const Orbel::RangeException& e) {
        EXPECT_EQ(e.message().stdString(), "expected \" Value\" but found 've'");
    }
    EXPECT_EQ(pos, t.begin());
}

TEST(ValueNotation, QuotedRoundTripsEveryByteString) {
    const std::vector<std::string> cases = {
        "", "plain", "it's", "back\\slash", "\"dq\"", std::string("nul\0byte", 8), "\x80\xff\x01", "tab\tnl\ncr\r",
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c);
        EXPECT_EQ(roundTrip(c).stdString(), c);
    }
    std::mt19937 rng(7);
    for (int i = 0; i < 2000; ++i) {
        std::string s(rng() % 40, '\0');
        for (auto& ch : s) ch = static_cast<char>(rng() & 0xff);
        EXPECT_EQ(roundTrip(s).stdString(), s);
    }
}

TEST(ValueNotation, QuoteBytesEscapesNonPrintables) {
    EXPECT_EQ(Orbel::quoteBytes(std::string("a'\\\x01\xff", 5)).stdString(), "'a\\'\\\\\\x01\\xff'");
}

TEST(ValueNotation, MalformedQuotedTextRaisesRange) {
    const std::vector<std::string> bad = {"", "abc", "'open", "'bad\\q'", "'\\x4'", "'\\x'", "'\\"};
    for (const auto& b : bad) {
        SCOPED_TRACE(b);
        Orbel::String t(b);
        auto pos = t.begin();
        EXPECT_THROW(Orbel::sequenceToValue(pos, t.end()), Orbel::RangeException);
    }
}

TEST(ValueNotation, DoubleQuotesAlsoAccepted) {
    Orbel::String t("\"agentName\"");
    auto pos = t.begin();
    EXPECT_EQ(Orbel::sequenceToValue(pos, t.end()), Orbel::String("agentName"));
}

TEST(ValueNotation, StrepToValueAcceptsTrailingBlankOnly) {
    Pair p = Orbel::strepToValue<Pair>("('a', 'b')  ");
    EXPECT_EQ(p.a, Orbel::String("a"));
    EXPECT_EQ(p.b, Orbel::String("b"));
    try {
        Orbel::strepToValue<Pair>("('a', 'b') x");
        FAIL() << "no exception";
    } catch (const Orbel::RangeException& e) {
        EXPECT_EQ(e.message().stdString(), "junk at column 11 deserializing ('a', 'b') x");
    }
}

TEST(ValueNotation, DeserializeAttrNamesTheAttribute) {
    Orbel::String t("'unterminated");
    auto pos = t.begin();
    struct Quoted {
        Orbel::String v;
        Quoted(Orbel::String8::IteratorConst& p, const Orbel::String8::IteratorConst& e)
            : v(Orbel::sequenceToValue(p, e)) {}
    };
    try {
        Orbel::deserializeAttr<Quoted>(pos, t.end(), "agentName");
        FAIL() << "no exception";
    } catch (const Orbel::RangeException& e) {
        EXPECT_EQ(e.message().stdString(), "attribute agentName: unterminated quoted string");
    }
}

TEST(ValueNotation, FormatIsPrintfStyle) {
    EXPECT_EQ(Orbel::format("%s=%lld", "n", 42LL).stdString(), "n=42");
    EXPECT_EQ(Orbel::format("%s", "").stdString(), "");
}
