#include "statebase/Statebase.h"

#include "orbel/Exception.h"

#include <gtest/gtest.h>

namespace {
class Leaf : public Orbel::Entity {
public:
    static Orbel::Ptr<Leaf> make(const char* n) { return new Leaf(n); }

protected:
    explicit Leaf(const char* n) : Orbel::Entity(n) {}
    ~Leaf() override = default;
};
} // namespace

TEST(Statebase, CreatesDirectoriesAndFindsByRelativePath) {
    auto root = Statebase::Directory::directoryFactory("root");
    auto leaf = Leaf::make("daemonMIB");
    root->entityIs("snmp/launcher/daemonMIB", leaf);
    EXPECT_EQ(root->entity("snmp/launcher/daemonMIB"), leaf);
    EXPECT_TRUE(Orbel::dynamicPtrCast<Statebase::Directory>(root->entity("snmp/launcher")));
    EXPECT_FALSE(root->entity("snmp/launcher/other"));
    EXPECT_FALSE(root->entity("snmp/launcher/daemonMIB/deeper"));
    EXPECT_FALSE(root->entity(""));
    EXPECT_FALSE(root->entity("snmp//launcher"));
}

TEST(Statebase, RefusesBadPaths) {
    auto root = Statebase::Directory::directoryFactory("root");
    root->entityIs("a", Leaf::make("a"));
    EXPECT_THROW(root->entityIs("", Leaf::make("x")), Orbel::RangeException);
    EXPECT_THROW(root->entityIs("a/b", Leaf::make("b")), Orbel::RangeException);
    EXPECT_THROW(root->entityIs("x//y", Leaf::make("y")), Orbel::RangeException);
}

TEST(Statebase, DeleteReturnsEntryAndFreesTree) {
    auto before = Orbel::PtrInterface::liveInstances();
    {
        auto root = Statebase::Directory::directoryFactory("root");
        root->entityIs("snmp/launcher/daemonMIB", Leaf::make("daemonMIB"));
        auto e = root->entityDel("snmp/launcher/daemonMIB");
        ASSERT_TRUE(e);
        EXPECT_FALSE(root->entity("snmp/launcher/daemonMIB"));
        EXPECT_FALSE(root->entityDel("snmp/launcher/daemonMIB"));
    }
    EXPECT_EQ(Orbel::PtrInterface::liveInstances(), before);
}

TEST(Statebase, ProcessRootIsNamedSysname) {
    EXPECT_EQ(Statebase::root()->name(), Orbel::String("<sysname>"));
}
