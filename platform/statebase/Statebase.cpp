#include "Statebase.h"

#include "orbel/Exception.h"

#include <vector>

namespace Statebase {

namespace {
std::vector<std::string_view> split(std::string_view path, bool strict) {
    std::vector<std::string_view> parts;
    std::size_t i = 0;
    while (i <= path.size()) {
        std::size_t j = path.find('/', i);
        if (j == std::string_view::npos) j = path.size();
        std::string_view part = path.substr(i, j - i);
        if (part.empty()) {
            if (strict) throw Orbel::RangeException("empty part in state path '" + Orbel::String(path) + "'");
            return {};
        }
        parts.push_back(part);
        i = j + 1;
    }
    return parts;
}
} // namespace

Orbel::Ptr<Directory> Directory::directoryFactory(Orbel::Name name) {
    return new Directory(std::move(name));
}

Orbel::Ptr<Orbel::Entity> Directory::entity(std::string_view path) const {
    auto parts = split(path, false);
    if (parts.empty()) return nullptr;
    const Directory* dir = this;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        auto it = dir->entries_.find(Orbel::String(parts[i]));
        if (it == dir->entries_.end()) return nullptr;
        if (i + 1 == parts.size()) return it->second;
        dir = dynamic_cast<const Directory*>(it->second.ptr());
        if (!dir) return nullptr;
    }
    return nullptr;
}

Orbel::Ptr<Directory> Directory::directoryIs(std::string_view path) {
    Orbel::Ptr<Directory> dir(this);
    for (std::string_view part : split(path, true)) {
        auto& slot = dir->entries_[Orbel::String(part)];
        if (!slot) slot = directoryFactory(Orbel::Name(part));
        auto next = Orbel::dynamicPtrCast<Directory>(slot);
        if (!next)
            throw Orbel::RangeException("'" + Orbel::String(part) + "' in state path '" + Orbel::String(path) +
                                        "' is not a directory");
        dir = next;
    }
    return dir;
}

void Directory::entityIs(std::string_view path, const Orbel::Ptr<Orbel::Entity>& e) {
    auto parts = split(path, true);
    std::size_t slash = path.rfind('/');
    Orbel::Ptr<Directory> dir =
        slash == std::string_view::npos ? Orbel::Ptr<Directory>(this) : directoryIs(path.substr(0, slash));
    dir->entries_[Orbel::String(parts.back())] = e;
}

Orbel::Ptr<Orbel::Entity> Directory::entityDel(std::string_view path) {
    auto parts = split(path, false);
    if (parts.empty()) return nullptr;
    std::size_t slash = path.rfind('/');
    Orbel::Ptr<Directory> dir(this);
    if (slash != std::string_view::npos) {
        dir = Orbel::dynamicPtrCast<Directory>(entity(path.substr(0, slash)));
        if (!dir) return nullptr;
    }
    auto it = dir->entries_.find(Orbel::String(parts.back()));
    if (it == dir->entries_.end()) return nullptr;
    Orbel::Ptr<Orbel::Entity> e = it->second;
    dir->entries_.erase(it);
    return e;
}

const Orbel::Ptr<Directory>& root() {
    // Never destroyed: modules unloaded at exit may still look into it.
    static Orbel::Ptr<Directory>* r = new Orbel::Ptr<Directory>(Directory::directoryFactory("<sysname>"));
    return *r;
}

} // namespace Statebase
