#include "Vel/describe/Module.h"

#include "Vel/base/Exception.h"
#include "Vel/text/PeerText.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <unordered_map>

#include <unistd.h>

namespace Vel {

namespace {

struct RegistryState {
    std::mutex mutex;
    std::vector<ModuleHeader const*> pending;  // registered, not yet checked
    std::vector<ModuleHeader const*> modules;  // in use
    std::vector<std::pair<ModuleHeader const*, Registry::Refusal>> refused;
    std::unordered_map<std::string_view, VelType> types;
};

RegistryState& state() {
    static auto* const instance = new RegistryState;  // never destroyed: modules withdraw themselves at process exit
    return *instance;
}

// --- is a table sound? ---

bool within(ModuleHeader const& m, U32 offset, std::size_t size) { return offset <= m.size && m.size - offset >= size; }

// Checks a list of names: each must end with a NUL, and they must be in ascending order.
String namesMalformation(char const* names, std::size_t size, char const* what) {
    if (size == 0 || names[size - 1] != '\0') return format("the list of %s names does not end with a NUL", what);
    std::string_view previous;
    for (std::size_t at = 0; at < size;) {
        std::string_view const name(names + at);
        if (at != 0 && name <= previous) return format("the %s names are not sorted at \"%s\"", what, names + at);
        previous = name;
        at += name.size() + 1;
    }
    return {};
}

// Whether a name begins at `offset`.
bool startsName(char const* names, std::size_t size, std::size_t offset) {
    return offset < size && (offset == 0 || names[offset - 1] == '\0');
}

String attributeMalformation(ModuleHeader const& m, TypeRecord const& type, char const* typeName) {
    auto const* const attributes = at<AttributeRecord>(m, m.attributes);
    auto const* const parameters = at<ParameterRecord>(m, m.parameters);
    char const* const names = at<char>(m, m.attributeNames);
    char const* const typeNames = at<char>(m, m.typeNames);
    auto const isTypeName = [&](U16 offset) { return startsName(typeNames, m.typeNamesSize, offset); };
    if (type.firstAttribute + type.attributeCount > m.attributeCount)
        return format("the attributes of %s lie outside the table", typeName);
    for (unsigned i = 0; i < type.attributeCount; ++i) {
        AttributeRecord const& a = attributes[type.firstAttribute + i];
        if (a.id != attributes[type.firstAttribute].id + i || a.id < firstValueAttributeId)
            return format("attribute id %u of %s is out of order", a.id, typeName);
        if (nameOffset(a) == 0 || !startsName(names, m.attributeNamesSize, nameOffset(a)))
            return format("attribute %u of %s has no name", a.id, typeName);
        for (U16 const offset : {a.valueType, a.keyType})
            if (offset != noName && !isTypeName(offset))
                return format("attribute %u of %s has no type", a.id, typeName);
        if (a.firstParameter + a.parameterCount > m.parameterCount)
            return format("the parameters of attribute %u of %s lie outside the table", a.id, typeName);
        for (unsigned p = a.firstParameter; p < unsigned(a.firstParameter) + a.parameterCount; ++p)
            if (!startsName(names, m.attributeNamesSize, parameters[p].name) || !isTypeName(parameters[p].type))
                return format("a parameter of attribute %u of %s has no name or type", a.id, typeName);
    }
    return {};
}

String headerMalformation(ModuleHeader const& m) {
    if (std::memcmp(m.magic, moduleMagic, sizeof moduleMagic) != 0) return "it does not begin with VELMOD1";
    bool const inside = m.size >= sizeof(ModuleHeader) && within(m, m.types, m.typeCount * sizeof(TypeRecord)) &&
                        within(m, m.attributes, m.attributeCount * sizeof(AttributeRecord)) &&
                        within(m, m.parameters, m.parameterCount * sizeof(ParameterRecord)) &&
                        within(m, m.typeNames, m.typeNamesSize) && within(m, m.attributeNames, m.attributeNamesSize) &&
                        within(m, m.name, m.nameSize) && within(m, m.glue, m.typeCount * sizeof(TypeGlue const*));
    if (!inside) return "a part of it lies outside its size";
    bool const aligned = m.types % alignof(TypeRecord) == 0 && m.attributes % alignof(AttributeRecord) == 0 &&
                         m.parameters % alignof(ParameterRecord) == 0 && m.glue % alignof(TypeGlue const*) == 0;
    if (!aligned) return "a part of it is not aligned";
    if (m.nameSize < 2 || at<char>(m, m.name)[m.nameSize - 1] != '\0') return "it has no name";
    return {};
}

String describe(ModuleHeader const* module) {
    return headerMalformation(*module).empty() ? String(at<char>(*module, module->name)) : String("?");
}

// --- taking a module into use ---

String typeClash(RegistryState const& registry, ModuleHeader const& module) {
    for (U32 i = 0; i < module.typeCount; ++i) {
        VelType const type(&module, i);
        auto const found = registry.types.find(type.name());
        if (found == registry.types.end()) continue;
        return format("it defines the type %s, which module %s defines too", type.name(),
            String(found->second.moduleName()).charPtr());
    }
    return {};
}

constexpr std::size_t longestReason = 1024;  // bytes; more than for a name, since a reason may quote several names

void refuse(RegistryState& registry, ModuleHeader const* module, String const& why) {
    Registry::Refusal const refusal{peerText(describe(module).view()), peerText(why.view(), longestReason)};
    registry.refused.emplace_back(module, refusal);
    std::string const line =
        "vel: module " + refusal.module.stdString() + " is refused: " + refusal.reason.stdString() + "\n";
    [[maybe_unused]] auto const written = ::write(STDERR_FILENO, line.data(), line.size());
}

void process(RegistryState& registry) {
    for (ModuleHeader const* const module : std::exchange(registry.pending, {})) {
        String reason = Registry::malformation(module);
        if (reason.empty()) reason = typeClash(registry, *module);
        if (!reason.empty()) {
            refuse(registry, module, reason);
            continue;
        }
        registry.modules.push_back(module);
        for (U32 i = 0; i < module->typeCount; ++i) {
            VelType const type(module, i);
            registry.types.emplace(type.name(), type);
        }
    }
}

template <class F> auto withRegistry(F f) {
    RegistryState& registry = state();
    std::lock_guard const lock(registry.mutex);
    process(registry);
    return f(registry);
}

}  // namespace

void velModuleIs(ModuleHeader const* module) {
    RegistryState& registry = state();
    std::lock_guard const lock(registry.mutex);
    registry.pending.push_back(module);
}

void velModuleDel(ModuleHeader const* module) noexcept {
    RegistryState& registry = state();
    std::lock_guard const lock(registry.mutex);
    std::erase(registry.pending, module);
    std::erase_if(registry.refused, [&](auto const& entry) { return entry.first == module; });
    if (std::erase(registry.modules, module) == 0) return;
    std::erase_if(registry.types, [&](auto const& entry) { return &entry.second.module() == module; });
}

VelType Registry::type(std::string_view name) {
    return withRegistry([&](RegistryState const& registry) {
        auto const found = registry.types.find(name);
        return found == registry.types.end() ? VelType() : found->second;
    });
}

std::vector<VelType> Registry::types() {
    return withRegistry([](RegistryState const& registry) {  // under the lock, since a table may be withdrawn after it
        std::vector<VelType> result;
        for (ModuleHeader const* const module : registry.modules)
            for (U32 i = 0; i < module->typeCount; ++i) result.emplace_back(module, i);
        return result;
    });
}

std::vector<ModuleHeader const*> Registry::modules() {
    return withRegistry([](RegistryState const& registry) { return registry.modules; });
}

std::vector<Registry::Refusal> Registry::refusals() {
    return withRegistry([](RegistryState const& registry) {
        std::vector<Refusal> result;
        for (auto const& entry : registry.refused) result.push_back(entry.second);
        return result;
    });
}

String Registry::malformation(ModuleHeader const* module) {
    ModuleHeader const& m = *module;
    if (String const reason = headerMalformation(m); !reason.empty()) return reason;
    if (String const reason = namesMalformation(at<char>(m, m.typeNames), m.typeNamesSize, "type"); !reason.empty())
        return reason;
    if (String const reason = namesMalformation(at<char>(m, m.attributeNames), m.attributeNamesSize, "attribute");
        !reason.empty())
        return reason;
    if (at<char>(m, m.attributeNames)[0] != '\0') return "the attribute names do not begin with the empty name";
    for (U32 i = 0; i < m.typeCount; ++i) {
        TypeRecord const& type = at<TypeRecord>(m, m.types)[i];
        char const* const names = at<char>(m, m.typeNames);
        if (!startsName(names, m.typeNamesSize, type.name) || names[type.name] == '\0')
            return format("type %u has no name", i);
        if (type.base != noName && !startsName(names, m.typeNamesSize, type.base))
            return format("the base of %s has no name", names + type.name);
        if (!at<TypeGlue const*>(m, m.glue)[i]) return format("%s has no glue", names + type.name);
        if (String const reason = attributeMalformation(m, type, names + type.name); !reason.empty()) return reason;
        for (U32 j = 0; j < i; ++j)
            if (at<TypeRecord>(m, m.types)[j].name == type.name)
                return format("it defines %s twice", names + type.name);
    }
    return {};
}

}  // namespace Vel
