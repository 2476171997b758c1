#include "HandlerRegistration.h"

#include "orbel/Exception.h"

#include <dlfcn.h>

#include <algorithm>

namespace Snmp {

HandlerRegistration::~HandlerRegistration() = default;

AutoRegistree::AutoRegistree(HandlerRegistration* registration) : registration_(registration) {
    PluginRegistry::instance().registrationIs(registration_);
}

AutoRegistree::~AutoRegistree() {
    PluginRegistry::instance().registrationDel(registration_);
}

PluginRegistry& PluginRegistry::instance() {
    // Never destroyed: module libraries may be unloaded after static destruction began.
    static PluginRegistry* r = new PluginRegistry;
    return *r;
}

void PluginRegistry::registrationIs(HandlerRegistration* registration) {
    if (!registration) return;
    registrations_.push_back(registration);
    ++announced_;
}

void PluginRegistry::registrationDel(HandlerRegistration* registration) {
    auto it = std::find(registrations_.begin(), registrations_.end(), registration);
    if (it == registrations_.end()) return;
    registrations_.erase(it);
    ++withdrawn_;
}

std::string unregisterSymbol(const std::string& module) {
    const std::string name = "unregister_" + module;
    return "_Z" + std::to_string(name.size()) + name + "N5Orbel6StringE";
}

namespace {
std::string moduleNameOf(const std::string& path) {
    std::string base = path.substr(path.find_last_of('/') + 1);
    if (base.size() > 3 && base.compare(base.size() - 3, 3, ".so") == 0) base.resize(base.size() - 3);
    if (base.rfind("lib", 0) == 0 && base.size() > 3) base = base.substr(3);
    return base;
}
} // namespace

ModuleLoader::ModuleLoader(const std::string& path) : path_(path), module_(moduleNameOf(path)) {
    auto& registry = PluginRegistry::instance();
    const std::vector<HandlerRegistration*> before = registry.registrations();
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* err = ::dlerror();
        throw Orbel::Exception("cannot load module " + Orbel::String(path) + ": " + Orbel::String(err ? err : "?"));
    }
    for (HandlerRegistration* r : registry.registrations())
        if (std::find(before.begin(), before.end(), r) == before.end()) registrations_.push_back(r);
}

ModuleLoader::~ModuleLoader() {
    unload();
}

void ModuleLoader::initContext(const Orbel::String8& context) {
    if (!handle_) throw Orbel::Exception("module " + Orbel::String(module_) + " is not loaded");
    if (std::find(contexts_.begin(), contexts_.end(), context) == contexts_.end()) contexts_.push_back(context);
    for (HandlerRegistration* r : registrations_) r->initHandler(context);
}

void ModuleLoader::unregisterContext(const Orbel::String8& context) {
    if (!handle_) return;
    using Unregister = void (*)(Orbel::String8);
    if (auto fn = reinterpret_cast<Unregister>(::dlsym(handle_, unregisterSymbol(module_).c_str()))) fn(context);
    std::erase(contexts_, context);
}

void ModuleLoader::unload() {
    if (!handle_) return;
    while (!contexts_.empty()) unregisterContext(contexts_.back());
    registrations_.clear();
    ::dlclose(handle_);
    handle_ = nullptr;
}

} // namespace Snmp
