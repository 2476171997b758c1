// The two index types of the option and data tables: order, text form and parsing.
#include "GenericAgent/GenericAgentSnmp.h"
#include "MibTestSupport.h"
#include "orbel/Exception.h"
#include "orbel/ValueNotation.h"

#include <gtest/gtest.h>

#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string bytes(const char* s, std::size_t n) {
    return std::string(s, n);
}

template <class Index>
Index index(const std::string& name, const std::string& key) {
    return Index(Snmp::String(name), Snmp::String(key));
}

template <class Index>
Index parse(const std::string& text) {
    return Orbel::strepToValue<Index>(Orbel::String8(text));
}

std::string text(const OptionTableIndex& i) {
    return GenericAgent::valueToStrep(i).stdString();
}
std::string text(const DataTableIndex& i) {
    return GenericAgent::valueToStrep(i).stdString();
}

// The message of the E that f throws; a failure if f throws nothing or something else.

// Strings whose Snmp::String order differs from plain byte order in every way that
// matters: length first, unsigned bytes, embedded zero bytes, the empty string.
std::vector<std::string> orderSamples() {
    return {"",     "a",    "b",  "z",  "\x7f",          "\x80",          "\xff", bytes("\0", 1),
            "aa",   "ab",   "ba", "zz", bytes("a\0", 2), bytes("\0a", 2), "abc",  "bgpd",
            "ntpd", "bgpd4"};
}

template <class Index>
std::vector<Index> indexSamples() {
    std::vector<Index> out;
    const std::vector<std::string> names = {"", "a", "zz", "\xff", "aaa", bytes("a\0", 2)};
    const std::vector<std::string> keys = {"", "k", "\x80", "kk", bytes("\0\0", 2), "key"};
    for (const auto& n : names)
        for (const auto& k : keys) out.push_back(index<Index>(n, k));
    return out;
}

template <class Index>
void checkOperatorsAgree() {
    const auto samples = indexSamples<Index>();
    for (const auto& a : samples) {
        for (const auto& b : samples) {
            SCOPED_TRACE(text(a) + " vs " + text(b));
            const bool less = a < b, greater = b < a;
            EXPECT_EQ(a > b, greater);
            EXPECT_EQ(a >= b, !less);
            EXPECT_EQ(a <= b, !greater);
            EXPECT_EQ((a <= b) && (b <= a), !less && !greater);
            // A strict total order: neither less exactly when byte-equal.
            EXPECT_EQ(a == b, !less && !greater);
            EXPECT_EQ(a != b, less || greater);
            EXPECT_FALSE(less && greater);
        }
    }
}

} // namespace

TEST(OptionTableIndex, SameNameOrdersByKey) {
    EXPECT_LT(index<OptionTableIndex>("bgpd", "asn"), index<OptionTableIndex>("bgpd", "asx"));
    EXPECT_LT(index<OptionTableIndex>("bgpd", "zz"), index<OptionTableIndex>("bgpd", "aaa"));    // shorter key first
    EXPECT_LT(index<OptionTableIndex>("bgpd", "\x7f"), index<OptionTableIndex>("bgpd", "\x80")); // unsigned bytes
    EXPECT_LT(index<OptionTableIndex>("bgpd", ""), index<OptionTableIndex>("bgpd", bytes("\0", 1)));
    EXPECT_FALSE(index<OptionTableIndex>("bgpd", "asn") < index<OptionTableIndex>("bgpd", "asn"));
    EXPECT_LT(index<DataTableIndex>("ntpd", "drift"), index<DataTableIndex>("ntpd", "offset"));
}

TEST(OptionTableIndex, SmallerNameIsSmallerWhateverTheKeys) {
    // "zz" is the smaller name: Snmp::String puts the shorter string first.
    EXPECT_LT(index<OptionTableIndex>("zz", "\xff\xff\xff\xff"), index<OptionTableIndex>("aaa", ""));
    EXPECT_FALSE(index<OptionTableIndex>("aaa", "") < index<OptionTableIndex>("zz", "\xff\xff\xff\xff"));
    EXPECT_LT(index<OptionTableIndex>("a\x7f", "zzzz"), index<OptionTableIndex>("a\x80", "a"));
    EXPECT_LT(index<OptionTableIndex>("", "zzzzzz"), index<OptionTableIndex>(bytes("\0", 1), ""));
    EXPECT_LT(index<DataTableIndex>("ntpd", "zzzz"), index<DataTableIndex>("bgpd4", "a"));
}

TEST(OptionTableIndex, ComponentOrderIsSnmpStringOrder) {
    const auto samples = orderSamples();
    for (const auto& a : samples) {
        for (const auto& b : samples) {
            const bool expected = a.size() != b.size() ? a.size() < b.size() : a.compare(b) < 0;
            EXPECT_EQ(index<OptionTableIndex>(a, "k") < index<OptionTableIndex>(b, "k"), expected)
                << "name " << a.size() << " bytes vs " << b.size();
            EXPECT_EQ(index<DataTableIndex>("n", a) < index<DataTableIndex>("n", b), expected);
        }
    }
}

TEST(OptionTableIndex, ComparisonOperatorsAgreeForEveryPair) {
    checkOperatorsAgree<OptionTableIndex>();
}

TEST(DataTableIndex, ComparisonOperatorsAgreeForEveryPair) {
    checkOperatorsAgree<DataTableIndex>();
}

TEST(OptionTableIndex, EqualityIsByteEqualityOfBothComponents) {
    EXPECT_EQ(index<OptionTableIndex>(bytes("a\0b", 3), "k"), index<OptionTableIndex>(bytes("a\0b", 3), "k"));
    EXPECT_NE(index<OptionTableIndex>(bytes("a\0b", 3), "k"), index<OptionTableIndex>(bytes("a\0c", 3), "k"));
    EXPECT_NE(index<OptionTableIndex>("a", "k"), index<OptionTableIndex>("a", "K"));
    EXPECT_NE(index<OptionTableIndex>("ak", ""), index<OptionTableIndex>("a", "k"));
    EXPECT_EQ(OptionTableIndex(), index<OptionTableIndex>("", ""));
}

TEST(OptionTableIndex, CopiesShareTheStrings) {
    const auto a = index<OptionTableIndex>("bgpd", "asn");
    const OptionTableIndex b = a;
    EXPECT_EQ(a, b);
    EXPECT_TRUE(a.agentName().str().sharesBodyWith(b.agentName().str()));
    EXPECT_TRUE(a.key().str().sharesBodyWith(b.key().str()));
}

TEST(OptionTableIndex, TextFormIsExact) {
    EXPECT_EQ(text(index<OptionTableIndex>("bgpd", "asn")),
              "Value('GenericAgent::OptionTableIndex', ** {'agentName': 'bgpd', 'key': 'asn'})");
    EXPECT_EQ(text(index<DataTableIndex>("ntpd", "stratum")),
              "Value('GenericAgent::DataTableIndex', ** {'agentName': 'ntpd', 'key': 'stratum'})");
    EXPECT_EQ(text(OptionTableIndex()), "Value('GenericAgent::OptionTableIndex', ** {'agentName': '', 'key': ''})");
    // The components are in Snmp::String's own text form.
    EXPECT_EQ(text(index<DataTableIndex>("a'b", bytes("\xff\0", 2))),
              "Value('GenericAgent::DataTableIndex', ** {'agentName': " +
                  Snmp::valueToStrep(Snmp::String("a'b")).stdString() +
                  ", 'key': " + Snmp::valueToStrep(Snmp::String(bytes("\xff\0", 2))).stdString() + "})");
}

TEST(OptionTableIndex, StreamWritesTheTextFormIgnoringWidthAndFill) {
    const auto i = index<OptionTableIndex>("bgpd", "asn");
    std::ostringstream os;
    os << std::setw(200) << std::setfill('*') << i;
    EXPECT_EQ(os.str(), text(i));
    const auto d = index<DataTableIndex>("ntpd", bytes("x\0y", 3));
    std::ostringstream ds;
    ds << std::setw(static_cast<int>(text(d).size()) + 10) << std::left << d;
    EXPECT_EQ(ds.str(), text(d));
}

TEST(OptionTableIndex, TextFormRoundTripsIncludingEmptyStrings) {
    const std::vector<std::string> parts = {
        "", "bgpd", "a'b", "back\\slash", "\"q\"", bytes("\0\n\r\t\x7f\x80\xff", 7), std::string(300, 'x')};
    for (const auto& n : parts) {
        for (const auto& k : parts) {
            const auto o = index<OptionTableIndex>(n, k);
            EXPECT_EQ(parse<OptionTableIndex>(text(o)), o) << text(o);
            const auto d = index<DataTableIndex>(n, k);
            EXPECT_EQ(parse<DataTableIndex>(text(d)), d) << text(d);
        }
    }
}

TEST(OptionTableIndex, AttributesParseInEitherOrder) {
    EXPECT_EQ(
        parse<OptionTableIndex>("Value('GenericAgent::OptionTableIndex', ** {'key': 'asn', 'agentName': 'bgpd'})"),
        index<OptionTableIndex>("bgpd", "asn"));
    EXPECT_EQ(parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {'key': 'k', 'agentName': 'n'})"),
              index<DataTableIndex>("n", "k"));
}

TEST(OptionTableIndex, WhiteSpaceBetweenTokensIsOptional) {
    EXPECT_EQ(parse<OptionTableIndex>("  Value ( 'GenericAgent::OptionTableIndex' , ** {\n 'agentName' : 'bgpd' ,\t"
                                      "'key' : \"asn\" } )"),
              index<OptionTableIndex>("bgpd", "asn"));
    EXPECT_EQ(parse<DataTableIndex>("Value('GenericAgent::DataTableIndex',**{'agentName':'n','key':'k'})"),
              index<DataTableIndex>("n", "k"));
}

TEST(OptionTableIndex, LaterAttributeWinsAndMissingOnesStayEmpty) {
    EXPECT_EQ(parse<OptionTableIndex>(
                  "Value('GenericAgent::OptionTableIndex', ** {'agentName': 'a', 'key': 'k', 'agentName': 'b'})"),
              index<OptionTableIndex>("b", "k"));
    EXPECT_EQ(parse<OptionTableIndex>("Value('GenericAgent::OptionTableIndex', ** {'key': 'k'})"),
              index<OptionTableIndex>("", "k"));
    EXPECT_EQ(parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {'agentName': 'n'})"),
              index<DataTableIndex>("n", ""));
    EXPECT_EQ(parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {})"), DataTableIndex());
}

TEST(OptionTableIndex, CutAfterAgentNameIsPrematureEnd) {
    EXPECT_EQ(thrownMessage<Orbel::RangeException>(
                  [] { parse<OptionTableIndex>("Value('GenericAgent::OptionTableIndex', ** {'agentName': 'bgpd'"); }),
              "premature end of value type OptionTableIndex");
    EXPECT_EQ(thrownMessage<Orbel::RangeException>(
                  [] { parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {'agentName': 'ntpd'  "); }),
              "premature end of value type DataTableIndex");
    EXPECT_EQ(thrownMessage<Orbel::RangeException>(
                  [] { parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {"); }),
              "premature end of value type DataTableIndex");
}

TEST(OptionTableIndex, UnknownAttributeIsNamed) {
    EXPECT_EQ(
        thrownMessage<Orbel::RangeException>([] {
            parse<OptionTableIndex>("Value('GenericAgent::OptionTableIndex', ** {'agentName': 'a', 'port': 'x'})");
        }),
        "OptionTableIndex has no such attribute: port");
    EXPECT_EQ(thrownMessage<Orbel::RangeException>(
                  [] { parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {'Key': 'x'})"); }),
              "DataTableIndex has no such attribute: Key");
}

TEST(OptionTableIndex, TrailingBlankIsAccepted) {
    const auto i = index<OptionTableIndex>("bgpd", "asn");
    EXPECT_EQ(parse<OptionTableIndex>(text(i) + " "), i);
    EXPECT_EQ(parse<OptionTableIndex>(text(i) + " \t\n"), i);
    const auto d = index<DataTableIndex>("ntpd", "k");
    EXPECT_EQ(parse<DataTableIndex>(text(d) + " "), d);
}

TEST(OptionTableIndex, TrailingTextIsJunkAtItsColumn) {
    const std::string t = text(index<OptionTableIndex>("bgpd", "asn"));
    const std::string junk = t + "x";
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([&] { parse<OptionTableIndex>(junk); }),
              "junk at column " + std::to_string(t.size()) + " deserializing " + junk);
    // Blanks after the value are consumed: the column is that of the first byte left.
    const std::string spaced = t + "   ,next";
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([&] { parse<OptionTableIndex>(spaced); }),
              "junk at column " + std::to_string(t.size() + 3) + " deserializing " + spaced);
    const std::string d = text(index<DataTableIndex>("", "")) + ")";
    EXPECT_EQ(thrownMessage<Orbel::RangeException>([&] { parse<DataTableIndex>(d); }),
              "junk at column " + std::to_string(d.size() - 1) + " deserializing " + d);
}

TEST(OptionTableIndex, ParsingConstructorStopsAfterTheValue) {
    const std::string t = text(index<OptionTableIndex>("bgpd", "asn"));
    const Orbel::String8 input(t + "  , rest");
    Orbel::String8::IteratorConst pos = input.begin();
    const OptionTableIndex i(pos, input.end());
    EXPECT_EQ(i, index<OptionTableIndex>("bgpd", "asn"));
    EXPECT_EQ(pos - input.begin(), static_cast<std::ptrdiff_t>(t.size() + 2));
}

TEST(OptionTableIndex, TypeNameMustMatch) {
    const std::string option = text(index<OptionTableIndex>("bgpd", "asn"));
    const std::string data = text(index<DataTableIndex>("bgpd", "asn"));
    EXPECT_THROW(parse<DataTableIndex>(option), Orbel::RangeException);
    EXPECT_THROW(parse<OptionTableIndex>(data), Orbel::RangeException);
    EXPECT_THROW(parse<OptionTableIndex>("Value('OptionTableIndex', ** {})"), Orbel::RangeException);
}

TEST(OptionTableIndex, MissingFixedTokenIsARangeError) {
    for (const char* t :
         {"", "Valu", "Value", "Value(", "Value('GenericAgent::OptionTableIndex'",
          "Value('GenericAgent::OptionTableIndex' **", "Value('GenericAgent::OptionTableIndex', {}",
          "Value('GenericAgent::OptionTableIndex', ** {}", "Value('GenericAgent::OptionTableIndex', ** [])",
          "Value('GenericAgent::OptionTableIndex', ** {'agentName' 'a'})",
          "Value('GenericAgent::OptionTableIndex', ** {'agentName': 'a' 'key': 'k'})",
          "Value('GenericAgent::OptionTableIndex', ** {agentName: 'a'})"}) {
        EXPECT_THROW(parse<OptionTableIndex>(t), Orbel::RangeException) << t;
    }
}

TEST(OptionTableIndex, MalformedStringIsReportedWithTheAttributeName) {
    const std::string m1 = thrownMessage<Orbel::RangeException>(
        [] { parse<OptionTableIndex>("Value('GenericAgent::OptionTableIndex', ** {'agentName': 'unterminated})"); });
    EXPECT_EQ(m1.rfind("attribute agentName: ", 0), 0u) << m1;
    const std::string m2 = thrownMessage<Orbel::RangeException>(
        [] { parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {'key': '\\q'})"); });
    EXPECT_EQ(m2.rfind("attribute key: ", 0), 0u) << m2;
    const std::string m3 = thrownMessage<Orbel::RangeException>(
        [] { parse<DataTableIndex>("Value('GenericAgent::DataTableIndex', ** {'key': 42})"); });
    EXPECT_EQ(m3.rfind("attribute key: ", 0), 0u) << m3;
}

// Mutated text forms: every outcome is a value (which then prints and parses back to
// itself) or a framework exception; nothing else escapes and nothing crashes.
TEST(TableIndexParsing, MutatedTextsYieldAValueOrAFrameworkError) {
    std::mt19937 rng(20240611u);
    const std::string structural = "'\"\\{}(),:* xV0\xff";
    std::vector<std::string> seeds;
    for (const auto& i : indexSamples<OptionTableIndex>()) seeds.push_back(text(i));
    std::vector<std::string> dataSeeds;
    for (const auto& i : indexSamples<DataTableIndex>()) dataSeeds.push_back(text(i));

    auto mutate = [&](std::string s) {
        const int rounds = 1 + static_cast<int>(rng() % 3);
        for (int r = 0; r < rounds; ++r) {
            const std::size_t at = s.empty() ? 0 : rng() % (s.size() + 1);
            switch (rng() % 6) {
                case 0: // flip a byte
                    if (at < s.size()) s[at] = static_cast<char>(rng() % 256);
                    break;
                case 1: // insert a random byte
                    s.insert(s.begin() + static_cast<std::ptrdiff_t>(at), static_cast<char>(rng() % 256));
                    break;
                case 2: // insert a byte that means something to the parser
                    s.insert(s.begin() + static_cast<std::ptrdiff_t>(at), structural[rng() % structural.size()]);
                    break;
                case 3: // delete a byte
                    if (at < s.size()) s.erase(at, 1);
                    break;
                case 4: // truncate
                    s.resize(at);
                    break;
                default: // delete a run
                    if (at < s.size()) s.erase(at, 1 + rng() % 8);
                    break;
            }
        }
        return s;
    };

    int values = 0, errors = 0;
    auto attempt = [&](const std::string& input, auto* type) {
        using Index = std::remove_pointer_t<decltype(type)>;
        try {
            const Index v = parse<Index>(input);
            ++values;
            EXPECT_EQ(parse<Index>(text(v)), v) << printable(input);
        } catch (const Orbel::Exception&) {
            ++errors;
        } catch (const std::exception& e) {
            ADD_FAILURE() << "non-framework exception " << e.what() << " for " << printable(input);
        }
    };
    for (int n = 0; n < 4000; ++n) {
        attempt(mutate(seeds[rng() % seeds.size()]), static_cast<OptionTableIndex*>(nullptr));
        attempt(mutate(dataSeeds[rng() % dataSeeds.size()]), static_cast<DataTableIndex*>(nullptr));
        if (::testing::Test::HasFailure()) break;
    }
    EXPECT_GT(values, 100);
    EXPECT_GT(errors, 1000);
}
