#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/internal/Derive.h"

#include <functional>
#include <ios>
#include <vector>

// Modules: each source module that describes types exports one constant table of them, and registers it when it is
// loaded.
namespace Vel {

// Register and withdraw a module's table. A registered table is checked when the registry is next used.
VEL_API void velModuleIs(ModuleHeader const* module);
VEL_API void velModuleDel(ModuleHeader const* module) noexcept;

// All types of the process, by name. Threads: all operations may be called from any thread.
class VEL_API Registry {
public:
    struct Refusal {
        String module;  // the module's name, or "?" if the table is so malformed that it has none
        String reason;
    };

    static VelType type(std::string_view name);  // null if no module defines it
    static std::vector<VelType> types();         // by module in order of registration, then in declaration order
    static std::vector<ModuleHeader const*> modules();
    // Modules that were registered but refused, since their table is malformed or has a type that another module has.
    // Each refusal is also reported once on standard error.
    static std::vector<Refusal> refusals();

    // Says why the table at `module` is malformed. Returns an empty text if it is not.
    static String malformation(ModuleHeader const* module);
};

namespace Detail {

class VEL_API ModuleRegistration {
public:
    explicit ModuleRegistration(ModuleHeader const* module) : module_(module) { velModuleIs(module); }
    ModuleRegistration(ModuleRegistration const&) = delete;
    ModuleRegistration& operator=(ModuleRegistration const&) = delete;
    ~ModuleRegistration() { velModuleDel(module_); }

private:
    std::ios_base::Init streams_;  // initialisers and destructors of this module may use the standard streams
    ModuleHeader const* module_;
};

}  // namespace Detail
}  // namespace Vel

// VEL_MODULE(Name, fingerprint, Type...): defines, exports and registers the table of the described types, under the
// symbol _Name_fingerprint_velModule, and instantiates DefinedByVEL_MODULE for each. Put it at the end of the module's
// source file, outside any namespace. The fingerprint has 16 hexadecimal digits. If the types' descriptions change, the
// build fails here and shows the new fingerprint, so that nobody changes the bytes on the wire by accident. If no
// VEL_MODULE lists a described type, linking fails: "undefined reference to
// `Vel::DefinedByVEL_MODULE<My::Type>::type()'".
#define VEL_MODULE(NAME, FINGERPRINT, ...)                                                                             \
    static_assert(Vel::Detail::isAsserted<decltype(Vel::Detail::checkModule<__VA_ARGS__>())>);                         \
    extern "C" VEL_API const Vel::Detail::ModuleTableOf<__VA_ARGS__> _##NAME##_##FINGERPRINT##_velModule;              \
    VEL_FOR_EACH(VEL_MODULE_HOME, (_##NAME##_##FINGERPRINT##_velModule, __VA_ARGS__), __VA_ARGS__)                     \
    static_assert(Vel::Detail::isAsserted<decltype(Vel::Detail::checkFingerprint<                                      \
            Vel::Detail::ShownDigits<Vel::Detail::rightDigits<__VA_ARGS__>(#NAME, #FINGERPRINT)>,                      \
            Vel::Detail::ShownDigits<Vel::Detail::FingerprintDigits(#FINGERPRINT)>>())>);                              \
    extern "C" VEL_API constinit const Vel::Detail::ModuleTableOf<__VA_ARGS__> _##NAME##_##FINGERPRINT##_velModule =   \
        Vel::Detail::moduleTable<__VA_ARGS__>(#NAME);                                                                  \
    VEL_FOR_EACH(VEL_MODULE_CONTRACT, (), __VA_ARGS__)                                                                 \
    namespace {                                                                                                        \
    Vel::Detail::ModuleRegistration const velModuleRegistration_##NAME(&_##NAME##_##FINGERPRINT##_velModule.header);   \
    }                                                                                                                  \
    static_assert(true)

#define VEL_MODULE_HOME(ARGUMENTS, TYPE) VEL_MODULE_HOME_IN(TYPE, VEL_UNPACK ARGUMENTS)
#define VEL_MODULE_HOME_IN(TYPE, ...) VEL_MODULE_HOME_OF(TYPE, __VA_ARGS__)
#define VEL_MODULE_HOME_OF(TYPE, SYMBOL, ...)                                                                          \
    template <> Vel::VelType Vel::DefinedByVEL_MODULE<TYPE>::type() {                                                  \
        return {&SYMBOL.header, Vel::Detail::indexIn<TYPE, __VA_ARGS__>()};                                            \
    }
#define VEL_MODULE_CONTRACT(ARGUMENTS, TYPE) template struct Vel::DefinedByVEL_MODULE<TYPE>;
#define VEL_UNPACK(...) __VA_ARGS__

// VEL_FOR_EACH(MACRO, arguments, a, b, ...): MACRO(arguments, a) MACRO(arguments, b) ... for up to 256 elements.
#define VEL_FOR_EACH(MACRO, ARGUMENTS, ...) __VA_OPT__(VEL_EXPAND(VEL_FOR_EACH_STEP(MACRO, ARGUMENTS, __VA_ARGS__)))
#define VEL_FOR_EACH_STEP(MACRO, ARGUMENTS, FIRST, ...)                                                                \
    MACRO(ARGUMENTS, FIRST) __VA_OPT__(VEL_FOR_EACH_AGAIN VEL_PARENTHESES(MACRO, ARGUMENTS, __VA_ARGS__))
#define VEL_FOR_EACH_AGAIN() VEL_FOR_EACH_STEP
#define VEL_PARENTHESES ()
#define VEL_EXPAND(...) VEL_EXPAND3(VEL_EXPAND3(VEL_EXPAND3(VEL_EXPAND3(__VA_ARGS__))))
#define VEL_EXPAND3(...) VEL_EXPAND2(VEL_EXPAND2(VEL_EXPAND2(VEL_EXPAND2(__VA_ARGS__))))
#define VEL_EXPAND2(...) VEL_EXPAND1(VEL_EXPAND1(VEL_EXPAND1(VEL_EXPAND1(__VA_ARGS__))))
#define VEL_EXPAND1(...) VEL_EXPAND0(VEL_EXPAND0(VEL_EXPAND0(VEL_EXPAND0(__VA_ARGS__))))
#define VEL_EXPAND0(...) __VA_ARGS__
