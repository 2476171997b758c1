#include "launcher/AgentState.h"

#include "orbel/GenericIf.h"
#include "orbel/TypeRegistry.h"

#include <gtest/gtest.h>

using GenericAgent::AgentKey;
using GenericAgent::AgentVal;

TEST(AgentKey, BoundIs1024Bytes) {
    EXPECT_NO_THROW(AgentKey(Orbel::String(std::string(1024, 'k'))));
    try {
        AgentKey k(Orbel::String(std::string(1025, 'k')));
        FAIL();
    } catch (const Orbel::RangeException& e) {
        EXPECT_EQ(e.message().stdString(), "AgentKey::bytes > AgentKey::maxLength not allowed");
    }
}

TEST(AgentVal, BoundIs10240Bytes) {
    EXPECT_NO_THROW(AgentVal(Orbel::String(std::string(10240, 'v'))));
    try {
        AgentVal v(Orbel::String(std::string(10241, 'v')));
        FAIL();
    } catch (const Orbel::RangeException& e) {
        EXPECT_EQ(e.message().stdString(), "AgentVal::bytes > AgentVal::maxLength not allowed");
    }
}

TEST(Config, OptionsChangeInPlace) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    EXPECT_FALSE(c->enabled());
    c->enabledIs(true);
    EXPECT_TRUE(c->enabled());
    EXPECT_EQ(c->option(AgentKey("asn")), nullptr);
    c->optionIs(AgentKey("asn"), AgentVal("65001"));
    ASSERT_NE(c->option(AgentKey("asn")), nullptr);
    EXPECT_EQ(*c->option(AgentKey("asn")), Orbel::String("65001"));
    c->optionIs(AgentKey("asn"), AgentVal("65002"));
    EXPECT_EQ(*c->option(AgentKey("asn")), Orbel::String("65002"));
    EXPECT_TRUE(c->optionDel(AgentKey("asn")));
    EXPECT_FALSE(c->optionDel(AgentKey("asn")));
}

TEST(Status, DataChangeInPlace) {
    auto s = GenericAgent::Status::statusFactory("bgpd");
    s->runningIs(true);
    s->dataIs(AgentKey("pid"), AgentVal("42"));
    EXPECT_TRUE(s->running());
    EXPECT_EQ(*s->data(AgentKey("pid")), Orbel::String("42"));
    EXPECT_EQ(s->data(AgentKey("nope")), nullptr);
}

TEST(Config, TypeIsRegisteredWithGenericAccess) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    c->enabledIs(true);
    ASSERT_NE(GenericAgent::Config::_fwkType, nullptr);
    EXPECT_EQ(GenericAgent::Config::_fwkType->name(), Orbel::String("GenericAgent::Config"));
    EXPECT_EQ(Orbel::TypeRegistry::instance().type("GenericAgent::Status"), GenericAgent::Status::_fwkType);
    auto g = Orbel::TypeRegistry::instance().genericIf(c.ptr(), true);
    ASSERT_TRUE(g);
    auto v = g->attributeOp({130, Orbel::GenericIf::opRead}, nullptr, nullptr);
    EXPECT_TRUE(dynamic_cast<Orbel::GenericIf::Value_<bool>&>(*v).value());
    EXPECT_THROW(g->attributeOp({130, Orbel::GenericIf::opSet}, nullptr, nullptr), Orbel::ConstException);
}
