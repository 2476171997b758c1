// Observers of a DaemonMib: registration, delivery order, observers that change the list
// or throw while being told, weak observers that outlive their container, and the
// generic adapter that defers and coalesces changes for the framework's generic observers.
#include "GenericAgent/GenericAgentSnmp.h"
#include "MibTestSupport.h"
#include "orbel/Activity.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using GenericAgent::daemonMibFactory;
using Adapter = DaemonMib::GenericIf_::GenericIf_Adapter_;

// An observer that overrides nothing.
class Silent : public DaemonMib::Notifiee {
public:
    static Orbel::Ptr<Silent> make() { return new Silent; }
};

// The generic form of a key, as text: "*" for the whole-table form.
std::string keyText(const Orbel::Ptr<const Orbel::GenericIf>& key) {
    if (!key) return "*";
    if (auto s = dynamic_cast<const Snmp::String::GenericIf_*>(key.ptr())) return str(s->value());
    if (auto o = dynamic_cast<const OptionTableIndex::GenericIf_*>(key.ptr()))
        return str(o->val().agentName()) + "/" + str(o->val().key());
    if (auto d = dynamic_cast<const DataTableIndex::GenericIf_*>(key.ptr()))
        return str(d->val().agentName()) + "/" + str(d->val().key());
    return "?";
}

// A generic observer of the container's generic interface.
class GenericRecorder : public Orbel::GenericIf::Notifiee {
public:
    static Orbel::Ptr<GenericRecorder> make() { return new GenericRecorder; }
    std::vector<std::pair<Orbel::AttributeId, std::string>> attributes;
    std::vector<Orbel::AttributeId> exceptions;
    int zeroReferences = 0;
    bool throwOnAttribute = false;

    void onAttribute(Orbel::AttributeId id, const Orbel::Ptr<const Orbel::GenericIf>& key) override {
        attributes.emplace_back(id, keyText(key));
        if (throwOnAttribute) throw std::runtime_error("generic observer failed");
    }
    void onNotificationException(Orbel::AttributeId id) override { exceptions.push_back(id); }
    void onZeroReferences() override { ++zeroReferences; }
};

using Told = std::vector<std::pair<Orbel::AttributeId, std::string>>;

struct AdapterFixture {
    Orbel::Ptr<DaemonMib> mib = daemonMibFactory("daemonMIB");
    Orbel::Ptr<DaemonMib::GenericIf_> generic;
    Orbel::Ptr<GenericRecorder> recorder = GenericRecorder::make();
    Orbel::Ptr<Config> cfg = Config::configFactory("bgpd");
    Orbel::Ptr<Status> st = Status::statusFactory("ntpd");

    explicit AdapterFixture(bool deferred) {
        Orbel::ActivityLoop::instance().runPending();
        generic = DaemonMib::GenericIf_::make(mib, false);
        generic->notificationDeferredIs(deferred);
        generic->genericNotifieeIs(recorder);
    }
    ~AdapterFixture() { Orbel::ActivityLoop::instance().runPending(); }
};

} // namespace

TEST(DaemonMibNotifiee, IsOnTheListOnlyWhenAttachedAndRegistered) {
    auto mib = daemonMibFactory("daemonMIB");
    auto attachedFirst = Recorder::make("attachedFirst");
    auto registeredFirst = Recorder::make("registeredFirst");
    auto attachedOnly = Recorder::make("attachedOnly");
    auto registeredOnly = Recorder::make("registeredOnly");
    EXPECT_FALSE(attachedFirst->isRegisteredNotifiee());
    EXPECT_EQ(attachedFirst->notifier(), nullptr);

    attachedFirst->notifierIs(mib);
    EXPECT_EQ(mib->notifiees(), 0u);
    EXPECT_EQ(mib->references(), 2u); // the observer holds a counted reference
    const auto mod0 = mib->notifieesModCount();
    attachedFirst->isRegisteredNotifieeIs(true);
    EXPECT_EQ(mib->notifiees(), 1u);
    EXPECT_EQ(mib->notifieesModCount(), mod0 + 1);

    registeredFirst->isRegisteredNotifieeIs(true);
    EXPECT_EQ(mib->notifiees(), 1u);
    registeredFirst->notifierIs(mib);
    EXPECT_EQ(mib->notifiees(), 2u);
    EXPECT_EQ(mib->notifieesModCount(), mod0 + 2);

    attachedOnly->notifierIs(mib);
    registeredOnly->isRegisteredNotifieeIs(true);
    EXPECT_EQ(mib->notifiees(), 2u);

    mib->enabledTableIs("bgpd", nullptr);
    EXPECT_EQ(attachedFirst->events.size(), 1u);
    EXPECT_EQ(registeredFirst->events.size(), 1u);
    EXPECT_TRUE(attachedOnly->events.empty());
    EXPECT_TRUE(registeredOnly->events.empty());
}

TEST(DaemonMibNotifiee, EachChangeIsToldInRegistrationOrder) {
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto a = attached(Recorder::make("a", &log), mib);
    auto b = attached(Recorder::make("b", &log), mib);
    mib->enabledTableIs("bgpd", nullptr);
    mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), nullptr);
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(258, "bgpd", {}, "a"), keyEvent(258, "bgpd", {}, "b"),
                                       keyEvent(261, "ntpd", "stratum", "a"), keyEvent(261, "ntpd", "stratum", "b")}));
    // Registering again puts the observer at the end.
    log.clear();
    a->isRegisteredNotifieeIs(false);
    a->isRegisteredNotifieeIs(true);
    mib->runningTableIs("ntpd", nullptr);
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(260, "ntpd", {}, "b"), keyEvent(260, "ntpd", {}, "a")}));
}

TEST(DaemonMibNotifiee, ObserverUnregisteredAndReleasedByAnEarlierOneIsNotCalled) {
    LiveCounts::warm();
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto a = attached(Recorder::make("a", &log), mib);
    Orbel::Ptr<Recorder> b = attached(Recorder::make("b", &log), mib);
    Orbel::Ptr<Recorder> victim = b;
    b = nullptr; // from here on only `victim` (and the container's delivery) hold B
    a->hook = [&](Recorder&, const Event&) {
        if (!victim) return;
        victim->isRegisteredNotifieeIs(false);
        victim = nullptr;
    };
    const auto live = Orbel::PtrInterface::liveInstances();
    mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), nullptr);
    a->hook = nullptr;
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(259, "bgpd", "asn", "a"), goneEvent("b")}));
    EXPECT_EQ(mib->notifiees(), 1u);
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), live + 1 - 1); // one row more, B freed
    EXPECT_EQ(mib->references(), 2u);                              // B's reference went with it
}

TEST(DaemonMibNotifiee, ObserverUnregisteredButStillHeldIsToldTheChangeUnderWay) {
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto a = attached(Recorder::make("a", &log), mib);
    auto b = attached(Recorder::make("b", &log), mib);
    a->hook = [&](Recorder&, const Event&) { b->isRegisteredNotifieeIs(false); };
    mib->enabledTableIs("bgpd", nullptr);
    a->hook = nullptr;
    mib->enabledTableIs("ntpd", nullptr);
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(258, "bgpd", {}, "a"), keyEvent(258, "bgpd", {}, "b"),
                                       keyEvent(258, "ntpd", {}, "a")}));
}

TEST(DaemonMibNotifiee, ObserverMayUnregisterAndReleaseItselfInsideItsHandler) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto mib = daemonMibFactory("daemonMIB");
        std::vector<Event> log;
        Orbel::Ptr<Recorder> self = attached(Recorder::make("a", &log), mib);
        auto b = attached(Recorder::make("b", &log), mib);
        self->hook = [&](Recorder& me, const Event&) {
            me.isRegisteredNotifieeIs(false);
            self = nullptr; // the delivery's reference keeps it alive until it returns
        };
        mib->enabledTableIs("bgpd", nullptr);
        EXPECT_FALSE(self);
        mib->enabledTableIs("ntpd", nullptr);
        EXPECT_EQ(log, (std::vector<Event>{keyEvent(258, "bgpd", {}, "a"), goneEvent("a"),
                                           keyEvent(258, "bgpd", {}, "b"), keyEvent(258, "ntpd", {}, "b")}));
        EXPECT_EQ(mib->notifiees(), 1u);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

// Delivery works on the list as it was when the change was told: an observer registered
// meanwhile hears the next change, not the one under way.
TEST(DaemonMibNotifiee, ObserverRegisteredDuringDeliveryHearsOnlyLaterChanges) {
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto a = attached(Recorder::make("a", &log), mib);
    auto late = Recorder::make("late", &log);
    a->hook = [&](Recorder&, const Event&) {
        if (!late->isRegisteredNotifiee()) attached(late, mib);
    };
    mib->enabledTableIs("bgpd", nullptr);
    a->hook = nullptr;
    EXPECT_TRUE(late->isRegisteredNotifiee());
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(258, "bgpd", {}, "a")}));
    mib->enabledTableIs("ntpd", nullptr);
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(258, "bgpd", {}, "a"), keyEvent(258, "ntpd", {}, "a"),
                                       keyEvent(258, "ntpd", {}, "late")}));
}

// The container survives the change under way when its last outside reference is dropped
// by an observer: every observer still hears the change; then the container goes as usual
// (zero references told, its rows removed and told).
TEST(DaemonMibNotifiee, LastReferenceDroppedInsideAHandlerEndsTheContainerAfterDelivery) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        std::vector<Event> log;
        auto a = Recorder::make("a", &log);
        auto b = Recorder::make("b", &log);
        for (auto* o : {a.ptr(), b.ptr()}) o->isWeakReferenceIs(true);
        auto mib = daemonMibFactory("daemonMIB");
        attached(a, mib);
        attached(b, mib);
        a->hook = [&](Recorder&, const Event& e) {
            if (e.kind != "zero") mib = nullptr;
        };
        DaemonMib* raw = mib.ptr();
        raw->enabledTableIs("bgpd", nullptr);
        a->hook = nullptr;
        EXPECT_FALSE(mib);
        // The change, then the zero references, then the removal of the row as the container
        // is destroyed.
        EXPECT_EQ(log,
                  (std::vector<Event>{keyEvent(258, "bgpd", {}, "a"), keyEvent(258, "bgpd", {}, "b"), zeroEvent("a"),
                                      zeroEvent("b"), keyEvent(258, "bgpd", {}, "a"), keyEvent(258, "bgpd", {}, "b")}));
        EXPECT_EQ(a->notifier(), nullptr);
        EXPECT_EQ(b->notifier(), nullptr);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibNotifiee, UnregisteringAnObserverNotOnTheListLeavesTheListUnchanged) {
    auto mib = daemonMibFactory("daemonMIB");
    auto onList = attached(Recorder::make("on"), mib);
    auto attachedOnly = Recorder::make("attached");
    attachedOnly->notifierIs(mib);
    auto elsewhere = attached(Recorder::make("elsewhere"), daemonMibFactory("other"));
    auto detachedRegistered = Recorder::make("detached");
    detachedRegistered->isRegisteredNotifieeIs(true);
    const auto count = mib->notifiees();
    const auto mod = mib->notifieesModCount();

    attachedOnly->isRegisteredNotifieeIs(false);
    detachedRegistered->isRegisteredNotifieeIs(false);
    EXPECT_FALSE(detachedRegistered->isRegisteredNotifiee());
    elsewhere->isRegisteredNotifieeIs(false);
    EXPECT_EQ(mib->notifiees(), count);
    EXPECT_EQ(mib->notifieesModCount(), mod);
    // Registering an observer that is already registered changes nothing either.
    onList->isRegisteredNotifieeIs(true);
    EXPECT_EQ(mib->notifiees(), count);
    EXPECT_EQ(mib->notifieesModCount(), mod);
    mib->enabledTableIs("bgpd", nullptr);
    EXPECT_EQ(onList->events.size(), 1u);
}

TEST(DaemonMibNotifiee, ThrowingHandlerIsReportedAndDeliveryContinues) {
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto thrower = attached(Recorder::make("t", &log), mib);
    auto b = attached(Recorder::make("b", &log), mib);
    int n = 0;
    thrower->hook = [&](Recorder&, const Event&) {
        switch (n++ % 3) {
            case 0:
                throw std::runtime_error("observer failed");
            case 1:
                throw Orbel::RangeException("observer failed");
            default:
                throw 42;
        }
    };
    auto cfg = Config::configFactory("bgpd");
    auto st = Status::statusFactory("bgpd");
    EXPECT_TRUE(mib->enabledTableIs("bgpd", cfg));
    EXPECT_TRUE(mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), cfg));
    EXPECT_TRUE(mib->runningTableIs("bgpd", st));
    EXPECT_TRUE(mib->dataTableIs(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers")), st));
    EXPECT_TRUE(mib->dataTableDel(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers"))));
    thrower->hook = nullptr;
    EXPECT_EQ(log, (std::vector<Event>{
                       keyEvent(258, "bgpd", {}, "t"),
                       exceptionEvent(258, "t"),
                       keyEvent(258, "bgpd", {}, "b"),
                       keyEvent(259, "bgpd", "asn", "t"),
                       exceptionEvent(259, "t"),
                       keyEvent(259, "bgpd", "asn", "b"),
                       keyEvent(260, "bgpd", {}, "t"),
                       exceptionEvent(260, "t"),
                       keyEvent(260, "bgpd", {}, "b"),
                       keyEvent(261, "bgpd", "peers", "t"),
                       exceptionEvent(261, "t"),
                       keyEvent(261, "bgpd", "peers", "b"),
                       keyEvent(261, "bgpd", "peers", "t"),
                       exceptionEvent(261, "t"),
                       keyEvent(261, "bgpd", "peers", "b"),
                   }));
    EXPECT_EQ(mib->version(), 5u);
}

TEST(DaemonMibNotifiee, ThrowOnTheFirstRowOfDelAllDoesNotStopIt) {
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto thrower = attached(Recorder::make("t", &log), mib);
    auto b = attached(Recorder::make("b", &log), mib);
    for (const char* k : {"c", "a", "b"})
        mib->optionTableIs(OptionTableIndex(Snmp::String("n"), Snmp::String(k)), nullptr);
    log.clear();
    bool thrown = false;
    thrower->hook = [&](Recorder&, const Event&) {
        if (thrown) return;
        thrown = true;
        throw std::runtime_error("first row");
    };
    mib->optionTableDelAll();
    thrower->hook = nullptr;
    EXPECT_TRUE(mib->optionTable().empty());
    EXPECT_EQ(log,
              (std::vector<Event>{keyEvent(259, "n", "a", "t"), exceptionEvent(259, "t"), keyEvent(259, "n", "a", "b"),
                                  keyEvent(259, "n", "b", "t"), keyEvent(259, "n", "b", "b"),
                                  keyEvent(259, "n", "c", "t"), keyEvent(259, "n", "c", "b")}));
    EXPECT_EQ(mib->version(), 6u);
}

TEST(DaemonMibNotifiee, ThrowingExceptionReportIsContainedToo) {
    auto mib = daemonMibFactory("daemonMIB");
    std::vector<Event> log;
    auto thrower = attached(Recorder::make("t", &log), mib);
    auto b = attached(Recorder::make("b", &log), mib);
    thrower->hook = [](Recorder&, const Event&) { throw std::runtime_error("handler"); };
    thrower->exceptionHook = [](Recorder&, const Event&) { throw std::runtime_error("report"); };
    EXPECT_NO_THROW(mib->runningTableIs("ntpd", nullptr));
    EXPECT_NO_THROW(mib->runningTableDelAll());
    thrower->hook = nullptr;
    thrower->exceptionHook = nullptr;
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(260, "ntpd", {}, "t"), exceptionEvent(260, "t"),
                                       keyEvent(260, "ntpd", {}, "b"), keyEvent(260, "ntpd", {}, "t"),
                                       exceptionEvent(260, "t"), keyEvent(260, "ntpd", {}, "b")}));
    EXPECT_TRUE(mib->runningTable().empty());
}

TEST(DaemonMibNotifiee, NonWeakObserverKeepsTheContainerAlive) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto observer = Recorder::make("o");
        {
            auto mib = daemonMibFactory("daemonMIB");
            attached(observer, mib);
            mib->enabledTableIs("bgpd", nullptr);
        }
        ASSERT_NE(observer->notifier(), nullptr);
        EXPECT_EQ(observer->notifier()->references(), 1u);
        EXPECT_EQ(observer->name().stdString(), "daemonMIB");
        EXPECT_EQ(observer->notifier()->enabledTable().size(), 1u);
        EXPECT_TRUE(observer->events.size() == 1u);
    }
    // Releasing the observer released the container, which then freed its row.
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibNotifiee, ReleasingARegisteredObserverUnlinksIt) {
    LiveCounts::warm();
    auto mib = daemonMibFactory("daemonMIB");
    auto stays = attached(Recorder::make("stays"), mib);
    const auto live = Orbel::PtrInterface::liveInstances();
    {
        auto goes = attached(Recorder::make("goes"), mib);
        EXPECT_EQ(mib->notifiees(), 2u);
        EXPECT_EQ(mib->references(), 3u);
    }
    const auto mod = mib->notifieesModCount();
    EXPECT_EQ(mib->notifiees(), 1u);
    EXPECT_EQ(mib->references(), 2u);
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), live);
    mib->enabledTableIs("bgpd", nullptr);
    EXPECT_EQ(stays->events.size(), 1u);
    EXPECT_EQ(mib->notifieesModCount(), mod);
}

TEST(DaemonMibNotifiee, MakingAnObserverWeakGivesUpItsReference) {
    auto mib = daemonMibFactory("daemonMIB");
    auto o = attached(Recorder::make(), mib);
    EXPECT_EQ(mib->references(), 2u);
    o->isWeakReferenceIs(true);
    EXPECT_TRUE(o->isWeakReference());
    EXPECT_EQ(mib->references(), 1u);
    o->isWeakReferenceIs(true);
    EXPECT_EQ(mib->references(), 1u);
    o->isWeakReferenceIs(false);
    EXPECT_EQ(mib->references(), 2u);
    o->isWeakReferenceIs(true);
    o = nullptr;
    EXPECT_EQ(mib->references(), 1u);
    EXPECT_EQ(mib->notifiees(), 0u);
}

TEST(DaemonMibNotifiee, WeakObserverOutlivesItsContainer) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto watcher = Recorder::make("w");
        watcher->isWeakReferenceIs(true);
        {
            auto mib = daemonMibFactory("daemonMIB");
            attached(watcher, mib);
            EXPECT_EQ(watcher->name().stdString(), "daemonMIB");
            mib->enabledTableIs("bgpd", nullptr);
            mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), nullptr);
            watcher->events.clear();
        }
        EXPECT_EQ(watcher->events, (std::vector<Event>{zeroEvent("w"), keyEvent(258, "bgpd", {}, "w"),
                                                       keyEvent(261, "ntpd", "stratum", "w")}));
        EXPECT_TRUE(watcher->name().empty());
        EXPECT_EQ(watcher->notifier(), nullptr);
        EXPECT_TRUE(watcher->isRegisteredNotifiee());
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before.instances + 1);
        // Changing its flags afterwards reaches no container.
        watcher->isWeakReferenceIs(false);
        watcher->isRegisteredNotifieeIs(false);
        watcher->isWeakReferenceIs(true);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibNotifiee, WeakUnregisteredObserverOutlivesItsContainer) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        auto watcher = Recorder::make("w");
        watcher->isWeakReferenceIs(true);
        {
            auto mib = daemonMibFactory("daemonMIB");
            watcher->notifierIs(mib); // attached, never registered
            mib->enabledTableIs("bgpd", nullptr);
        }
        EXPECT_TRUE(watcher->events.empty());
        EXPECT_TRUE(watcher->name().empty());
        EXPECT_EQ(watcher->notifier(), nullptr);
        watcher->isRegisteredNotifieeIs(true); // no container to join
        EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before.instances + 1);
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibNotifiee, WeakObserverReleasedWhileItsContainerIsDestroyed) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        std::vector<Event> log;
        Orbel::Ptr<Recorder> watcher = Recorder::make("w", &log);
        watcher->isWeakReferenceIs(true);
        auto other = Recorder::make("o", &log);
        other->isWeakReferenceIs(true);
        {
            auto mib = daemonMibFactory("daemonMIB");
            attached(watcher, mib);
            attached(other, mib);
            mib->enabledTableIs("a", nullptr);
            mib->enabledTableIs("b", nullptr);
            log.clear();
            // On the first row removal of the destruction, the watcher lets itself go.
            watcher->hook = [&](Recorder&, const Event& e) {
                if (e.kind == "key") watcher = nullptr;
            };
        }
        EXPECT_FALSE(watcher);
        EXPECT_EQ(log, (std::vector<Event>{zeroEvent("w"), zeroEvent("o"), keyEvent(258, "a", {}, "w"), goneEvent("w"),
                                           keyEvent(258, "a", {}, "o"), keyEvent(258, "b", {}, "o")}));
        EXPECT_TRUE(other->name().empty());
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibNotifiee, OrphanedObserverCanJoinAnotherContainer) {
    auto watcher = Recorder::make("w");
    watcher->isWeakReferenceIs(true);
    {
        auto first = daemonMibFactory("first");
        attached(watcher, first);
    }
    auto second = daemonMibFactory("second");
    watcher->notifierIs(second);
    EXPECT_EQ(watcher->name().stdString(), "second");
    EXPECT_EQ(second->notifiees(), 1u); // it was still registered
    EXPECT_EQ(second->references(), 1u);
    watcher->events.clear();
    second->enabledTableIs("bgpd", nullptr);
    EXPECT_EQ(watcher->events, std::vector<Event>{keyEvent(258, "bgpd", {}, "w")});
    watcher->isWeakReferenceIs(false);
    EXPECT_EQ(second->references(), 2u);
}

TEST(DaemonMibNotifiee, ZeroReferencesIsToldToRegisteredObservers) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        std::vector<Event> log;
        auto thrower = Recorder::make("t", &log);
        auto b = Recorder::make("b", &log);
        auto unregistered = Recorder::make("u", &log);
        for (auto* o : {thrower.ptr(), b.ptr(), unregistered.ptr()}) o->isWeakReferenceIs(true);
        thrower->hook = [](Recorder&, const Event& e) {
            if (e.kind == "zero") throw std::runtime_error("zero");
        };
        {
            auto mib = daemonMibFactory("daemonMIB");
            attached(thrower, mib);
            attached(b, mib);
            unregistered->notifierIs(mib);
        }
        EXPECT_EQ(log, (std::vector<Event>{zeroEvent("t"), exceptionEvent(5, "t"), zeroEvent("b")}));
        thrower->hook = nullptr;
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibNotifiee, AttachingToSomethingThatIsNotADaemonMibDetaches) {
    auto mib = daemonMibFactory("daemonMIB");
    auto o = attached(Recorder::make("o"), mib);
    auto cfg = Config::configFactory("bgpd");
    const auto mod = mib->notifieesModCount();
    o->notifierIs(cfg);
    EXPECT_EQ(o->notifier(), nullptr);
    EXPECT_TRUE(o->name().empty());
    EXPECT_EQ(mib->notifiees(), 0u);
    EXPECT_EQ(mib->notifieesModCount(), mod + 1);
    EXPECT_EQ(mib->references(), 1u);
    EXPECT_EQ(cfg->references(), 1u); // nothing kept of the Config
    EXPECT_TRUE(o->isRegisteredNotifiee());
    mib->enabledTableIs("bgpd", nullptr);
    EXPECT_TRUE(o->events.empty());
    // Null counts the same, and so does a non-container when already detached.
    o->notifierIs(nullptr);
    o->notifierIs(cfg);
    EXPECT_EQ(o->notifier(), nullptr);
    // Attaching again puts it back on the list, as it is still registered.
    o->notifierIs(mib);
    EXPECT_EQ(mib->notifiees(), 1u);
    EXPECT_EQ(mib->references(), 2u);
    mib->enabledTableIs("ntpd", nullptr);
    EXPECT_EQ(o->events, std::vector<Event>{keyEvent(258, "ntpd", {}, "o")});
}

TEST(DaemonMibNotifiee, AttachingToTheSameContainerChangesNothing) {
    auto mib = daemonMibFactory("daemonMIB");
    auto o = attached(Recorder::make(), mib);
    const auto mod = mib->notifieesModCount();
    o->notifierIs(mib);
    EXPECT_EQ(mib->notifieesModCount(), mod);
    EXPECT_EQ(mib->notifiees(), 1u);
    EXPECT_EQ(mib->references(), 2u);
}

TEST(DaemonMibNotifiee, MovingToAnotherContainerWhileRegistered) {
    auto first = daemonMibFactory("first");
    auto second = daemonMibFactory("second");
    std::vector<Event> log;
    auto resident = attached(Recorder::make("resident", &log), second);
    auto mover = attached(Recorder::make("mover", &log), first);
    const auto firstMod = first->notifieesModCount();
    const auto secondMod = second->notifieesModCount();
    mover->notifierIs(second);
    EXPECT_EQ(first->notifiees(), 0u);
    EXPECT_EQ(second->notifiees(), 2u);
    EXPECT_EQ(first->notifieesModCount(), firstMod + 1);
    EXPECT_EQ(second->notifieesModCount(), secondMod + 1);
    EXPECT_EQ(first->references(), 1u);
    EXPECT_EQ(second->references(), 3u);
    EXPECT_EQ(mover->name().stdString(), "second");
    first->enabledTableIs("a", nullptr);
    second->enabledTableIs("b", nullptr);
    EXPECT_EQ(log, (std::vector<Event>{keyEvent(258, "b", {}, "resident"), keyEvent(258, "b", {}, "mover")}));
}

TEST(DaemonMibNotifiee, BaseHandlersDoNothing) {
    auto mib = daemonMibFactory("daemonMIB");
    auto s = attached(Silent::make(), mib);
    mib->enabledTableIs("bgpd", nullptr);
    mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), nullptr);
    mib->runningTableIs("bgpd", nullptr);
    mib->dataTableIs(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers")), nullptr);
    s->onEnabledTable(Snmp::String("x"));
    s->onEnabledTableorbelImmediate();
    s->onEnabledTable();
    s->onOptionTable(OptionTableIndex());
    s->onOptionTableorbelImmediate();
    s->onOptionTable();
    s->onRunningTable(Snmp::String("x"));
    s->onRunningTableorbelImmediate();
    s->onRunningTable();
    s->onDataTable(DataTableIndex());
    s->onDataTableorbelImmediate();
    s->onDataTable();
    EXPECT_EQ(mib->version(), 4u);
    EXPECT_EQ(mib->notifiees(), 1u);
}

TEST(DaemonMibGenericAdapter, IsAttachedWeaklyAndRegistered) {
    AdapterFixture f(true);
    Adapter* adapter = f.generic->adapter();
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->target(), f.generic.ptr());
    EXPECT_TRUE(adapter->isWeakReference());
    EXPECT_TRUE(adapter->isRegisteredNotifiee());
    EXPECT_EQ(adapter->notifier(), f.mib.ptr());
    EXPECT_EQ(f.mib->notifiees(), 1u);
    EXPECT_EQ(f.generic->mib(), f.mib.ptr());
    EXPECT_EQ(f.mib->references(), 2u); // the test's and the interface's, none of the adapter
}

TEST(DaemonMibGenericAdapter, ThreeDeferredRowsGiveOneWholeTableNotification) {
    AdapterFixture f(true);
    f.mib->enabledTableIs("bgpd", f.cfg);
    f.mib->enabledTableIs("ntpd", f.cfg);
    f.mib->enabledTableIs("isisd", nullptr);
    EXPECT_TRUE(f.recorder->attributes.empty());
    EXPECT_EQ(f.generic->pendingCount(0), 3u);
    EXPECT_EQ(f.generic->pendingAttribute(), DaemonMib::enabledTableId);
    EXPECT_EQ(Orbel::ActivityLoop::instance().pending(), 1u);
    EXPECT_EQ(Orbel::ActivityLoop::instance().runPending(), 1u);
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::enabledTableId, "*"}}));
    EXPECT_EQ(f.generic->pendingCount(0), 0u);
    EXPECT_EQ(f.generic->pendingAttribute(), Orbel::GenericIf::attributeNone);
    EXPECT_EQ(Orbel::ActivityLoop::instance().runPending(), 0u);
    EXPECT_EQ(f.recorder->attributes.size(), 1u);
}

TEST(DaemonMibGenericAdapter, OneDeferredRowGivesOnePerKeyNotification) {
    AdapterFixture f(true);
    f.mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), f.cfg);
    EXPECT_TRUE(f.recorder->attributes.empty());
    EXPECT_EQ(f.generic->pendingCount(1), 1u);
    Orbel::ActivityLoop::instance().runPending();
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::optionTableId, "bgpd/asn"}}));

    f.mib->runningTableIs("ntpd", f.st);
    Orbel::ActivityLoop::instance().runPending();
    f.mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), f.st);
    Orbel::ActivityLoop::instance().runPending();
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::optionTableId, "bgpd/asn"},
                                            {DaemonMib::runningTableId, "ntpd"},
                                            {DaemonMib::dataTableId, "ntpd/stratum"}}));
}

TEST(DaemonMibGenericAdapter, AdditionAndRemovalOfOneRowCoalesce) {
    AdapterFixture f(true);
    f.mib->runningTableIs("ntpd", f.st);
    f.mib->runningTableDel("ntpd");
    EXPECT_EQ(f.generic->pendingCount(2), 2u);
    Orbel::ActivityLoop::instance().runPending();
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::runningTableId, "*"}}));
}

TEST(DaemonMibGenericAdapter, WithoutDeferralEachChangeIsToldAtOnceWithItsKey) {
    AdapterFixture f(false);
    f.mib->enabledTableIs("bgpd", f.cfg);
    f.mib->enabledTableIs("ntpd", f.cfg);
    f.mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), f.st);
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::enabledTableId, "bgpd"},
                                            {DaemonMib::enabledTableId, "ntpd"},
                                            {DaemonMib::dataTableId, "ntpd/stratum"}}));
    EXPECT_EQ(Orbel::ActivityLoop::instance().pending(), 0u);
    EXPECT_EQ(f.generic->pendingCount(0), 0u);
}

TEST(DaemonMibGenericAdapter, ChangesOnSeveralTablesDrainInTableOrder) {
    AdapterFixture f(true);
    const auto redispatches = f.generic->redispatches();
    f.mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), f.st);
    f.mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), f.cfg);
    f.mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("id")), f.cfg);
    f.mib->enabledTableIs("bgpd", f.cfg);
    EXPECT_EQ(f.generic->pendingAttribute(), Orbel::GenericIf::attributeAll);
    EXPECT_EQ(Orbel::ActivityLoop::instance().pending(), 1u);
    Orbel::ActivityLoop::instance().runPending();
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::enabledTableId, "bgpd"},
                                            {DaemonMib::optionTableId, "*"},
                                            {DaemonMib::dataTableId, "ntpd/stratum"}}));
    EXPECT_EQ(f.generic->redispatches(), redispatches + 4);
    for (unsigned t = 0; t < 4; ++t) EXPECT_EQ(f.generic->pendingCount(t), 0u);
}

TEST(DaemonMibGenericAdapter, WholeTableHandlersForwardAsAttribute) {
    AdapterFixture f(false);
    Adapter* a = f.generic->adapter();
    a->onEnabledTable();
    a->onOptionTableorbelImmediate();
    a->onOptionTable();
    a->onRunningTable();
    a->onDataTableorbelImmediate();
    a->onDataTable();
    a->onEnabledTableorbelImmediate();
    a->onRunningTableorbelImmediate();
    EXPECT_EQ(f.recorder->attributes,
              (Told{{258, "*"}, {259, "*"}, {259, "*"}, {260, "*"}, {261, "*"}, {261, "*"}, {258, "*"}, {260, "*"}}));
}

TEST(DaemonMibGenericAdapter, HandlerExceptionIsReportedToTheGenericObservers) {
    AdapterFixture f(false);
    f.recorder->throwOnAttribute = true;
    EXPECT_NO_THROW(f.mib->runningTableIs("ntpd", f.st));
    EXPECT_EQ(f.recorder->attributes, (Told{{DaemonMib::runningTableId, "ntpd"}}));
    EXPECT_EQ(f.recorder->exceptions, std::vector<Orbel::AttributeId>{DaemonMib::runningTableId});
    EXPECT_EQ(f.mib->runningTable().size(), 1u);
}

TEST(DaemonMibGenericAdapter, ZeroReferencesIsForwardedAndSwitchesTheAdapterOff) {
    AdapterFixture f(true);
    Adapter* a = f.generic->adapter();
    EXPECT_TRUE(a->hasNotificationActive());
    EXPECT_TRUE(f.generic->hasNotificationActive());
    f.mib->zeroReferencesIs(true);
    EXPECT_EQ(f.recorder->zeroReferences, 1);
    EXPECT_FALSE(a->hasNotificationActive());
    EXPECT_FALSE(f.generic->hasNotificationActive());
    a->hasNotificationActiveIs(true);
    EXPECT_TRUE(f.generic->hasNotificationActive());
}

TEST(DaemonMibGenericAdapter, AdapterWithoutTargetDoesNothing) {
    auto mib = daemonMibFactory("daemonMIB");
    auto a = attached(Adapter::make(), mib);
    EXPECT_EQ(a->target(), nullptr);
    mib->enabledTableIs("bgpd", nullptr);
    mib->optionTableIs(OptionTableIndex(Snmp::String("bgpd"), Snmp::String("asn")), nullptr);
    mib->runningTableIs("bgpd", nullptr);
    mib->dataTableIs(DataTableIndex(Snmp::String("bgpd"), Snmp::String("peers")), nullptr);
    a->onEnabledTable();
    a->onDataTableorbelImmediate();
    a->onNotificationException(258);
    a->onZeroReferences();
    EXPECT_FALSE(a->hasNotificationActive());
    mib->zeroReferencesIs(true);
    EXPECT_EQ(Orbel::ActivityLoop::instance().pending(), 0u);
}

TEST(DaemonMibGenericAdapter, InterfaceAdapterAndContainerAreFreed) {
    LiveCounts::warm();
    const LiveCounts before = LiveCounts::now();
    {
        AdapterFixture f(true);
        f.mib->enabledTableIs("bgpd", f.cfg);
        f.mib->enabledTableIs("ntpd", f.cfg);
        f.mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), f.st);
        // The interface waits in the activity loop; dropping every reference now leaves the
        // loop's until it runs.
        f.generic = nullptr;
        f.mib = nullptr;
        EXPECT_EQ(Orbel::ActivityLoop::instance().runPending(), 1u);
        EXPECT_EQ(f.recorder->attributes,
                  (Told{{DaemonMib::enabledTableId, "*"}, {DaemonMib::dataTableId, "ntpd/stratum"}}));
    }
    EXPECT_EQ(LiveCounts::now(), before);
}

TEST(DaemonMibGenericAdapter, DeferredThrowingObserverNeitherEscapesNorDropsOtherTablesOrObservers) {
    AdapterFixture f(true);
    auto later = GenericRecorder::make();
    f.generic->genericNotifieeIs(later);
    f.recorder->throwOnAttribute = true;
    f.mib->enabledTableIs("bgpd", f.cfg);
    f.mib->runningTableIs("ntpd", f.st);
    f.mib->dataTableIs(DataTableIndex(Snmp::String("ntpd"), Snmp::String("stratum")), f.st);
    EXPECT_EQ(f.generic->pendingAttribute(), Orbel::GenericIf::attributeAll);
    EXPECT_NO_THROW(Orbel::ActivityLoop::instance().runPending());
    const Told all{{DaemonMib::enabledTableId, "bgpd"},
                   {DaemonMib::runningTableId, "ntpd"},
                   {DaemonMib::dataTableId, "ntpd/stratum"}};
    EXPECT_EQ(f.recorder->attributes, all); // told every table, though it threw each time
    EXPECT_EQ(later->attributes, all);
    EXPECT_EQ(f.recorder->exceptions,
              (std::vector<Orbel::AttributeId>{DaemonMib::enabledTableId, DaemonMib::runningTableId,
                                               DaemonMib::dataTableId}));
    EXPECT_TRUE(later->exceptions.empty());
    for (unsigned t = 0; t < 4; ++t) EXPECT_EQ(f.generic->pendingCount(t), 0u);
    EXPECT_EQ(Orbel::ActivityLoop::instance().pending(), 0u);
}

TEST(DaemonMibGenericAdapter, ImmediateThrowingObserverDoesNotHideTheChangeFromLaterOnes) {
    AdapterFixture f(false);
    auto later = GenericRecorder::make();
    f.generic->genericNotifieeIs(later);
    f.recorder->throwOnAttribute = true;
    EXPECT_NO_THROW(f.mib->enabledTableIs("bgpd", f.cfg));
    EXPECT_NO_THROW(f.mib->enabledTableDel("bgpd"));
    const Told both{{DaemonMib::enabledTableId, "bgpd"}, {DaemonMib::enabledTableId, "bgpd"}};
    EXPECT_EQ(f.recorder->attributes, both);
    EXPECT_EQ(later->attributes, both);
    EXPECT_EQ(f.recorder->exceptions,
              (std::vector<Orbel::AttributeId>{DaemonMib::enabledTableId, DaemonMib::enabledTableId}));
    EXPECT_TRUE(later->exceptions.empty());
    EXPECT_TRUE(f.mib->enabledTable().empty());
}
