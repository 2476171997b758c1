// Interposers for three library functions the module calls. The test executable exports
// them (ENABLE_EXPORTS), so the dynamic linker binds the module's references here first;
// each forwards to the library's own definition (RTLD_NEXT) and counts the calls made from
// the module's code, which lets the tests see what the module formats and stores:
//
// - snprint_objid: an identifier formatted into text (set-up traces at level 1);
// - Orbel::traceHelper: a trace text composed and handed on;
// - snmp_set_var_typed_value: the length the module hands over. A length of SIZE_MAX-ish
//   size (a negative converter result) is refused here the way a failed allocation is
//   refused, because Net-SNMP 5.9 allocates len + 1 bytes for an octet string, which wraps
//   to 0, and then copies and terminates the value past that allocation.
#include "ModuleHarness.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ModuleTest {

namespace {

ModuleCalls calls;

bool fromModule(const void* returnAddress) {
    Dl_info info{};
    if (!dladdr(returnAddress, &info) || !info.dli_fname) return false;
    const char* base = std::strrchr(info.dli_fname, '/');
    return std::strcmp(base ? base + 1 : info.dli_fname, "VelmarDaemonMIB.so") == 0;
}

void* next(const char* symbol) {
    void* s = dlsym(RTLD_NEXT, symbol);
    if (!s) {
        std::fprintf(stderr, "interposer: no next definition of %s\n", symbol);
        std::abort();
    }
    return s;
}

} // namespace

ModuleCalls& moduleCalls() {
    return calls;
}
void resetModuleCalls() {
    calls = ModuleCalls{};
}

} // namespace ModuleTest

extern "C" int snprint_objid(char* buf, size_t buf_len, const oid* objid, size_t objidlen) {
    using Fn = int (*)(char*, size_t, const oid*, size_t);
    static const auto real = reinterpret_cast<Fn>(ModuleTest::next("snprint_objid"));
    if (ModuleTest::fromModule(__builtin_return_address(0))) ++ModuleTest::calls.snprintObjid;
    return real(buf, buf_len, objid, objidlen);
}

extern "C" int snmp_set_var_typed_value(netsnmp_variable_list* var, u_char type, const void* value, size_t len) {
    using Fn = int (*)(netsnmp_variable_list*, u_char, const void*, size_t);
    static const auto real = reinterpret_cast<Fn>(ModuleTest::next("snmp_set_var_typed_value"));
    if (ModuleTest::fromModule(__builtin_return_address(0))) ModuleTest::calls.valueLengths.push_back(len);
    if (len > ModuleTest::refusedLength) {
        real(var, type, nullptr, 0);
        return 1;
    }
    return real(var, type, value, len);
}

namespace Orbel {

void traceHelper(const TraceHandle& handle, const char* name, unsigned level, bool enabled, const char* file, int line,
                 const char* function, const std::string& text) {
    using Fn =
        void (*)(const TraceHandle&, const char*, unsigned, bool, const char*, int, const char*, const std::string&);
    static const auto real =
        reinterpret_cast<Fn>(ModuleTest::next("_ZN5Orbel11traceHelperERKNS_11TraceHandleEPKcjbS4_iS4_RKNSt7__"
                                              "cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"));
    if (ModuleTest::fromModule(__builtin_return_address(0))) ++ModuleTest::calls.traceHelper;
    real(handle, name, level, enabled, file, line, function, text);
}

} // namespace Orbel
