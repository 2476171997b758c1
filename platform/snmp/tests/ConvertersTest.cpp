#include "snmp/Converters.h"

#include <gtest/gtest.h>

#include <cstring>

TEST(BoolToAsnIntegerF, WritesTruthValueAsLong) {
    unsigned char buf[1024];
    long v = 0;
    EXPECT_EQ(Snmp::BoolToAsnIntegerF()(true, buf, sizeof buf), static_cast<int>(sizeof(long)));
    std::memcpy(&v, buf, sizeof v);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(Snmp::BoolToAsnIntegerF()(false, buf, sizeof buf), static_cast<int>(sizeof(long)));
    std::memcpy(&v, buf, sizeof v);
    EXPECT_EQ(v, 2);
}

TEST(BoolToAsnIntegerF, ShortBufferFails) {
    unsigned char buf[4] = {9, 9, 9, 9};
    EXPECT_LT(Snmp::BoolToAsnIntegerF()(true, buf, 4), 0);
    EXPECT_EQ(buf[0], 9);
    EXPECT_LT(Snmp::BoolToAsnIntegerF()(true, nullptr, 1024), 0);
}

TEST(StringToAsnOctetStringF, CopiesUpToLimit) {
    unsigned char buf[64];
    EXPECT_EQ(Snmp::StringToAsnOctetStringF()(Orbel::String("bgpd"), buf, 32), 4);
    EXPECT_EQ(std::memcmp(buf, "bgpd", 4), 0);
    EXPECT_EQ(Snmp::StringToAsnOctetStringF()(Orbel::String(), buf, 32), 0);
    std::string exact(32, 'x');
    EXPECT_EQ(Snmp::StringToAsnOctetStringF()(Orbel::String(exact), buf, 32), 32);
}

TEST(StringToAsnOctetStringF, OverLimitWritesNothingAndFails) {
    unsigned char buf[64];
    std::memset(buf, 7, sizeof buf);
    std::string longer(33, 'x');
    EXPECT_LT(Snmp::StringToAsnOctetStringF()(Orbel::String(longer), buf, 32), 0);
    EXPECT_EQ(buf[0], 7);
}

TEST(AsnOctetStringToSnmpString, CopiesBytes) {
    const unsigned char raw[] = {0, 'a', 0xff};
    Snmp::String s = Snmp::AsnOctetStringToSnmpString(raw, 3);
    EXPECT_EQ(s.size(), 3u);
    EXPECT_EQ(s, Snmp::String(std::string("\0a\xff", 3)));
    EXPECT_TRUE(Snmp::AsnOctetStringToSnmpString(nullptr, 0).empty());
}

TEST(AsnOctetStringToSnmpString, RejectsWhatItCannotRepresent) {
    EXPECT_THROW(Snmp::AsnOctetStringToSnmpString(nullptr, 3), Orbel::RangeException);
    std::string big(Snmp::maxOctetStringLength + 1, 'x');
    EXPECT_THROW(Snmp::AsnOctetStringToSnmpString(big.data(), static_cast<unsigned>(big.size())),
                 Orbel::RangeException);
    EXPECT_NO_THROW(Snmp::AsnOctetStringToSnmpString(big.data(), Snmp::maxOctetStringLength));
}
