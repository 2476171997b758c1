#include "launcher/AgentState.h"

#include "orbel/GenericIf.h"
#include "orbel/TypeRegistry.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

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

// ---------------------------------------------------------------------------------------
// Observers of the flags.

namespace {

// Records what a Config or Status observer is told, into a shared log.
template <class Base>
class FlagRecorder : public Base {
public:
    static Orbel::Ptr<FlagRecorder> make(std::string name, std::vector<std::string>* log) {
        return new FlagRecorder(std::move(name), log);
    }
    bool throwOnChange = false;
    std::vector<Orbel::AttributeId> exceptions;
    int zeroReferences = 0;

    void onEnabled() { told(this->notifier()->enabled()); }
    void onRunning() { told(this->notifier()->running()); }
    void onNotificationException(Orbel::AttributeId id) override { exceptions.push_back(id); }
    void onZeroReferences() override { ++zeroReferences; }

private:
    FlagRecorder(std::string name, std::vector<std::string>* log) : name_(std::move(name)), log_(log) {}
    void told(bool value) {
        log_->push_back(name_ + ":" + (value ? "true" : "false"));
        if (throwOnChange) throw std::runtime_error("observer failed");
    }
    std::string name_;
    std::vector<std::string>* log_;
};

using ConfigWatch = FlagRecorder<GenericAgent::Config::NotifieeConst>;
using StatusWatch = FlagRecorder<GenericAgent::Status::NotifieeConst>;

template <class W, class T>
Orbel::Ptr<W> watching(Orbel::Ptr<W> w, const Orbel::Ptr<T>& target) {
    w->notifierIs(target);
    w->isRegisteredNotifieeIs(true);
    return w;
}

using Log = std::vector<std::string>;

} // namespace

TEST(ConfigNotifiee, EnabledChangeIsToldInRegistrationOrder) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    Log log;
    auto a = watching(ConfigWatch::make("a", &log), c);
    auto b = watching(ConfigWatch::make("b", &log), c);
    EXPECT_EQ(c->notifiees(), 2u);
    const auto v0 = c->version();
    c->enabledIs(true);
    EXPECT_EQ(log, (Log{"a:true", "b:true"}));
    EXPECT_EQ(c->version(), v0 + 1);
    c->enabledIs(false);
    EXPECT_EQ(log, (Log{"a:true", "b:true", "a:false", "b:false"}));
}

TEST(ConfigNotifiee, WritingTheSameValueTellsNothing) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    Log log;
    auto a = watching(ConfigWatch::make("a", &log), c);
    const auto v0 = c->version();
    c->enabledIs(false); // the initial value
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(c->version(), v0);
    c->enabledIs(true);
    c->enabledIs(true);
    EXPECT_EQ(log, (Log{"a:true"}));
    EXPECT_EQ(c->version(), v0 + 1);
}

TEST(ConfigNotifiee, OptionChangesTellNothing) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    Log log;
    auto a = watching(ConfigWatch::make("a", &log), c);
    c->optionIs(AgentKey("asn"), AgentVal("65001"));
    c->optionDel(AgentKey("asn"));
    EXPECT_TRUE(log.empty());
}

TEST(ConfigNotifiee, OnlyAttachedAndRegisteredObserversAreTold) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    Log log;
    auto attachedOnly = ConfigWatch::make("attachedOnly", &log);
    attachedOnly->notifierIs(c);
    auto registeredOnly = ConfigWatch::make("registeredOnly", &log);
    registeredOnly->isRegisteredNotifieeIs(true);
    auto registeredFirst = ConfigWatch::make("registeredFirst", &log);
    registeredFirst->isRegisteredNotifieeIs(true);
    registeredFirst->notifierIs(c);
    EXPECT_EQ(c->notifiees(), 1u);
    c->enabledIs(true);
    EXPECT_EQ(log, (Log{"registeredFirst:true"}));
    registeredFirst->isRegisteredNotifieeIs(false);
    c->enabledIs(false);
    EXPECT_EQ(log.size(), 1u);
    EXPECT_EQ(c->notifiees(), 0u);
}

TEST(ConfigNotifiee, MovingToAnotherConfigMovesTheObserver) {
    auto c1 = GenericAgent::Config::configFactory("bgpd");
    auto c2 = GenericAgent::Config::configFactory("ntpd");
    Log log;
    auto a = watching(ConfigWatch::make("a", &log), c1);
    EXPECT_EQ(a->name(), Orbel::String("bgpd"));
    a->notifierIs(c2);
    EXPECT_EQ(c1->notifiees(), 0u);
    EXPECT_EQ(c2->notifiees(), 1u);
    EXPECT_EQ(c1->references(), 1u);
    EXPECT_EQ(c2->references(), 2u);
    c1->enabledIs(true);
    c2->enabledIs(true);
    EXPECT_EQ(log, (Log{"a:true"}));
    EXPECT_EQ(a->notifier(), c2.ptr());
    a->notifierIs(nullptr);
    EXPECT_EQ(c2->references(), 1u);
    EXPECT_TRUE(a->name().empty());
}

TEST(ConfigNotifiee, ThrowingObserverGetsTheExceptionAndTheOthersAreStillTold) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    Log log;
    auto a = watching(ConfigWatch::make("a", &log), c);
    auto b = watching(ConfigWatch::make("b", &log), c);
    a->throwOnChange = true;
    EXPECT_NO_THROW(c->enabledIs(true));
    EXPECT_EQ(log, (Log{"a:true", "b:true"}));
    EXPECT_EQ(a->exceptions, std::vector<Orbel::AttributeId>{GenericAgent::Config::enabledId});
    EXPECT_TRUE(b->exceptions.empty());
    EXPECT_TRUE(c->enabled());
}

TEST(ConfigNotifiee, StrongObserverKeepsTheConfigAlive) {
    Log log;
    auto a = ConfigWatch::make("a", &log);
    {
        auto c = GenericAgent::Config::configFactory("bgpd");
        a->notifierIs(c);
        a->isRegisteredNotifieeIs(true);
        EXPECT_EQ(c->references(), 2u);
    }
    ASSERT_NE(a->notifier(), nullptr);
    EXPECT_EQ(a->notifier()->name(), Orbel::String("bgpd"));
    a = nullptr; // releases the last reference; the Config goes with it (ASan would tell)
}

TEST(ConfigNotifiee, WeakObserverIsOrphanedWhenTheConfigGoes) {
    Log log;
    auto a = ConfigWatch::make("a", &log);
    a->isWeakReferenceIs(true);
    {
        auto c = GenericAgent::Config::configFactory("bgpd");
        a->notifierIs(c);
        a->isRegisteredNotifieeIs(true);
        EXPECT_EQ(c->references(), 1u);
    }
    EXPECT_EQ(a->zeroReferences, 1);
    EXPECT_EQ(a->notifier(), nullptr);
    EXPECT_TRUE(a->name().empty());
}

TEST(ConfigNotifiee, ObserverReleasedDuringDeliveryIsSkipped) {
    auto c = GenericAgent::Config::configFactory("bgpd");
    Log log;
    struct Remover : GenericAgent::Config::NotifieeConst {
        Orbel::Ptr<ConfigWatch> victim;
        void onEnabled() override { victim = nullptr; } // drops the last outside reference
    };
    Orbel::Ptr<Remover> r = new Remover;
    r->notifierIs(c);
    r->isRegisteredNotifieeIs(true);
    r->victim = watching(ConfigWatch::make("victim", &log), c);
    auto last = watching(ConfigWatch::make("last", &log), c);
    c->enabledIs(true);
    EXPECT_EQ(log, (Log{"last:true"}));
    EXPECT_EQ(c->notifiees(), 2u);
}

TEST(StatusNotifiee, RunningChangeIsToldOnceAndTheSameValueTellsNothing) {
    auto s = GenericAgent::Status::statusFactory("bgpd");
    Log log;
    auto a = watching(StatusWatch::make("a", &log), s);
    s->runningIs(false);
    s->runningIs(true);
    s->runningIs(true);
    s->dataIs(AgentKey("pid"), AgentVal("42"));
    s->runningIs(false);
    EXPECT_EQ(log, (Log{"a:true", "a:false"}));
    EXPECT_EQ(s->version(), 2u);
}

TEST(StatusNotifiee, ThrowingObserverGetsTheExceptionAndTheOthersAreStillTold) {
    auto s = GenericAgent::Status::statusFactory("bgpd");
    Log log;
    auto a = watching(StatusWatch::make("a", &log), s);
    auto b = watching(StatusWatch::make("b", &log), s);
    a->throwOnChange = true;
    EXPECT_NO_THROW(s->runningIs(true));
    EXPECT_EQ(log, (Log{"a:true", "b:true"}));
    EXPECT_EQ(a->exceptions, std::vector<Orbel::AttributeId>{GenericAgent::Status::runningId});
}
