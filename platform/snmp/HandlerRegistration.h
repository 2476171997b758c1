// The plugin layer between the agent and its MIB modules.
//
// A module announces itself when its library is loaded, through a static AutoRegistree
// holding a HandlerRegistration; the host then asks every registration to initialise
// itself once per SNMP context:
//
//   namespace { MyRegistration reg; Snmp::AutoRegistree announce(&reg); }   // in the module
//
//   Snmp::ModuleLoader m("/usr/lib/.../VelmarDaemonMIB.so");                 // in the host
//   m.initContext("");          // initHandler("") of each registration the library announced
//   m.unregisterContext("");    // unregister_VelmarDaemonMIB("") found by its symbol
#pragma once

#include "orbel/String.h"

#include <cstddef>
#include <string>
#include <vector>

namespace Snmp {

// A module's entry point: the plugin layer calls initHandler once per context.
class HandlerRegistration {
public:
    HandlerRegistration() = default;
    HandlerRegistration(const HandlerRegistration&) = delete;
    HandlerRegistration& operator=(const HandlerRegistration&) = delete;
    virtual ~HandlerRegistration();
    // Sets the module up for one SNMP context ("" is the default context).
    virtual void initHandler(Orbel::String8 context) = 0;
};

// Announces a registration for as long as it lives (a module keeps one as a static, so the
// announcement lasts while its library is loaded). Does not own the registration.
class AutoRegistree {
public:
    explicit AutoRegistree(HandlerRegistration* registration);
    ~AutoRegistree();
    AutoRegistree(const AutoRegistree&) = delete;
    AutoRegistree& operator=(const AutoRegistree&) = delete;

private:
    HandlerRegistration* registration_;
};

// The registrations announced in this process, in announcement order.
class PluginRegistry {
public:
    static PluginRegistry& instance();
    void registrationIs(HandlerRegistration* registration);
    void registrationDel(HandlerRegistration* registration);
    const std::vector<HandlerRegistration*>& registrations() const noexcept { return registrations_; }
    // Counts announcements and withdrawals since start (tests watch load and unload).
    std::size_t announced() const noexcept { return announced_; }
    std::size_t withdrawn() const noexcept { return withdrawn_; }

private:
    std::vector<HandlerRegistration*> registrations_;
    std::size_t announced_ = 0;
    std::size_t withdrawn_ = 0;
};

// The mangled symbol of `void unregister_<module>(Orbel::String)`.
std::string unregisterSymbol(const std::string& module);

// Loads one module library and drives it per context. The module's name is the file name
// without directory, a "lib" prefix and the ".so" suffix.
class ModuleLoader {
public:
    // Opens the library (RTLD_NOW | RTLD_LOCAL) and records the registrations its static
    // initialisation announced. Throws Orbel::Exception naming the path and dlerror().
    explicit ModuleLoader(const std::string& path);
    // Unregisters every context still initialised, then closes the library (which
    // withdraws its registrations).
    ~ModuleLoader();
    ModuleLoader(const ModuleLoader&) = delete;
    ModuleLoader& operator=(const ModuleLoader&) = delete;

    // Calls initHandler(context) on each registration the library announced.
    void initContext(const Orbel::String8& context);
    // Calls unregister_<module>(context) when the library exports it.
    void unregisterContext(const Orbel::String8& context);
    // Unregisters every initialised context (in reverse order) and closes the library.
    void unload();

    const std::string& module() const noexcept { return module_; }
    const std::vector<HandlerRegistration*>& registrations() const noexcept { return registrations_; }
    const std::vector<Orbel::String8>& contexts() const noexcept { return contexts_; }
    bool loaded() const noexcept { return handle_ != nullptr; }

private:
    std::string path_;
    std::string module_;
    void* handle_ = nullptr;
    std::vector<HandlerRegistration*> registrations_;
    std::vector<Orbel::String8> contexts_;
};

} // namespace Snmp
