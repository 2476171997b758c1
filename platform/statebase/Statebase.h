// The state tree: named entities in directories, reached by relative path from the
// system's root ("snmp/launcher/daemonMIB"). Directories hold counted references to
// their entries; an entity stays alive while its directory or any reader holds it.
//
//   auto mib = GenericAgent::daemonMibFactory("daemonMIB");
//   Statebase::root()->entityIs("snmp/launcher/daemonMIB", mib);   // makes the directories
//   Orbel::Ptr<Orbel::Entity> e = Statebase::root()->entity("snmp/launcher/daemonMIB");
#pragma once

#include "orbel/Entity.h"

#include <map>
#include <string_view>

namespace Statebase {

class Directory : public Orbel::Entity {
public:
    static Orbel::Ptr<Directory> directoryFactory(Orbel::Name name);

    // The entry at a relative path ("a/b/c"); null when any part is missing, when a part
    // before the last is not a directory, or when the path is empty or has empty parts.
    Orbel::Ptr<Orbel::Entity> entity(std::string_view path) const;
    // Puts e at the path, creating missing directories (keeps a reference to e; replaces an
    // entry of that name). Throws Orbel::RangeException on an empty path or part, or when a
    // part before the last names an entry that is not a directory.
    void entityIs(std::string_view path, const Orbel::Ptr<Orbel::Entity>& e);
    // Removes the entry at the path and returns it (null when there is none).
    Orbel::Ptr<Orbel::Entity> entityDel(std::string_view path);
    // The directory at the path, created with its parents when missing.
    Orbel::Ptr<Directory> directoryIs(std::string_view path);
    std::size_t entries() const noexcept { return entries_.size(); }
    // Drops every entry (the process's root is cleared at shutdown).
    void entityDelAll() { entries_.clear(); }

protected:
    explicit Directory(Orbel::Name name) : Orbel::Entity(std::move(name)) {}
    ~Directory() override = default;

private:
    std::map<Orbel::String, Orbel::Ptr<Orbel::Entity>> entries_;
};

// The system's root directory (one per process).
const Orbel::Ptr<Directory>& root();

} // namespace Statebase
