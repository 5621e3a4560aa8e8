#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Names.h"
#include "tools/lib/Output.h"

#include "Vel/describe/Module.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Lists the modules and their types, or shows one module, or one type with all its attributes.

Examples:
  mox types                                 every module, its fingerprint and its types
  mox types Seqno                           one module
  mox types Mox::Seqno16                    one type: text form, size, operations, attributes
  mox types --json                          everything, for programs
  mox --module ./libmytypes.so types        with the types of one more library

Columns of attributes: id; name; kind (field, derived, constant, setter, method, collection, ...); type, for a collection
"VALUE by KEY", for a method "(parameters) -> result"; the operations that the attribute answers.
Exit code 1 when a module is refused, 2 when there is no such type or module.)~";

using Vel::AttributeKind;
using Vel::AttributeOp;
using Vel::VelAttr;
using Vel::VelType;

// --- words for the contents of records ---

constexpr std::pair<AttributeOp, char const*> operationNames[] = {{AttributeOp::get, "get"}, {AttributeOp::set, "set"},
    {AttributeOp::del, "delete"}, {AttributeOp::count, "count"}, {AttributeOp::changeCounter, "change counter"},
    {AttributeOp::exists, "exists"}, {AttributeOp::call, "call"}, {AttributeOp::truth, "truth"},
    {AttributeOp::equal, "equal"}, {AttributeOp::less, "less"}, {AttributeOp::sum, "sum"},
    {AttributeOp::difference, "difference"}, {AttributeOp::product, "product"}, {AttributeOp::quotient, "quotient"},
    {AttributeOp::bitAnd, "and"}, {AttributeOp::bitOr, "or"}, {AttributeOp::bitXor, "exclusive or"},
    {AttributeOp::complement, "complement"}};

template <class T> std::vector<std::string> operations(T const& typeOrAttribute) {
    std::vector<std::string> names;
    for (auto const& [op, name] : operationNames)
        if (typeOrAttribute.answers(op)) names.emplace_back(name);
    return names;
}

char const* kindText(AttributeKind kind) {
    constexpr std::array names{"field", "derived", "constant", "setter", "method", "collection",
        "constructor parameter", "declared only", "attribute"};
    auto const index = static_cast<std::size_t>(kind);
    return index < names.size() ? names[index] : "?";
}

bool has(VelType type, Vel::U16 flag) { return (type.record().flags & flag) != 0; }

char const* kindText(VelType type) {
    if (type.isEntity()) return has(type, Vel::TypeFlag::abstract) ? "abstract entity" : "entity";
    if (has(type, Vel::TypeFlag::scalar)) return "scalar";
    if (has(type, Vel::TypeFlag::number)) return "bare number";
    return has(type, Vel::TypeFlag::ownText) ? "value with a text form of its own" : "record";
}

std::string nameOf(VelType type) { return type ? cleaned(type.name()) : "-"; }  // cleaned: a library may have any name

std::string sizeText(VelType type) {
    if (type.isEntity()) return "-";
    std::string const bytes = std::to_string(type.encodedSize()) + (type.encodedSize() == 1 ? " byte" : " bytes");
    return type.hasFixedEncodedSize() ? bytes : "at least " + bytes;
}

// --- one attribute ---

std::string parametersText(VelAttr attr) {
    std::vector<std::string> texts;
    for (Vel::U32 i = 0; i < attr.parameterCount(); ++i)
        texts.push_back(nameOf(attr.parameterType(i)) + " " + cleaned(attr.parameterName(i)));
    return "(" + joined(texts, ", ") + ")";
}

// Returns an attribute's type: "U32", "Vel::Entity by Vel::String" or "(U32 val) -> bool".
std::string typeText(VelAttr attr) {
    std::string text = attr.valueType() ? nameOf(attr.valueType()) : "";
    if (attr.keyType()) text += " by " + nameOf(attr.keyType());
    if (attr.kind() == AttributeKind::method || attr.parameterCount() > 0) text += parametersText(attr);
    if (attr.resultType()) text += " -> " + nameOf(attr.resultType());
    return text.empty() ? "-" : text;
}

Json nameJson(VelType type) { return type ? Json(type.name()) : Json(); }

Json attributeJson(VelAttr attr) {
    Json parameters = Json::array();
    for (Vel::U32 i = 0; i < attr.parameterCount(); ++i)
        parameters.push_back({{"name", attr.parameterName(i)}, {"type", nameJson(attr.parameterType(i))}});
    return {{"id", attr.attributeId()}, {"name", attr.name()}, {"kind", kindText(attr.kind())},
        {"type", nameJson(attr.valueType())}, {"keyType", nameJson(attr.keyType())},
        {"resultType", nameJson(attr.resultType())}, {"parameters", std::move(parameters)},
        {"operations", operations(attr)}};
}

// --- one type ---

// Returns the type and its bases, the most basic first, which is the order of the attribute ids.
std::vector<VelType> lineage(VelType type) {
    std::vector<VelType> types;
    for (; type; type = type.base()) types.insert(types.begin(), type);
    return types;
}

std::string attributesText(VelType type) {
    Table table("  ");
    table.add({bold("id"), bold("attribute"), bold("kind"), bold("type"), bold("operations")});
    bool any = false;
    for (VelType const& part : lineage(type))
        for (Vel::U32 i = 0; i < part.attributeCount(); ++i) {
            VelAttr const attr = part.attribute(i);
            table.add({std::to_string(attr.attributeId()), cleaned(attr.name()), kindText(attr.kind()), typeText(attr),
                joined(operations(attr), ", ")});
            any = true;
        }
    return any ? "\n" + table.text() : "";
}

std::string typeReport(VelType type) {
    auto const orNone = [](std::string const& text) { return text.empty() ? std::string("-") : text; };
    Table table;
    table.add({"type", bold(nameOf(type))});
    table.add({"kind", kindText(type)});
    table.add({"module", cleaned(type.moduleName()) + " " + fingerprintText(type.moduleFingerprint())});
    table.add({"base", nameOf(type.base())});
    table.add({"text form", orNone(cleaned(type.strepTemplate().view()))});
    table.add({"encoded size", sizeText(type)});
    table.add({"hashable", type.isHashable() ? "yes" : "no"});
    table.add({"operations", orNone(joined(operations(type), ", "))});
    return table.text() + attributesText(type);
}

Json typeJson(VelType type) {
    Json attributes = Json::array();
    for (VelType const& part : lineage(type))
        for (Vel::U32 i = 0; i < part.attributeCount(); ++i) attributes.push_back(attributeJson(part.attribute(i)));
    Json json{{"name", type.name()}, {"kind", kindText(type)}, {"module", type.moduleName()},
        {"fingerprint", fingerprintText(type.moduleFingerprint())}, {"base", nameJson(type.base())}};
    json["template"] = type.isEntity() ? Json() : Json(type.strepTemplate().stdString());
    json["encodedSize"] = type.isEntity() ? Json() : Json(type.encodedSize());
    json["fixedEncodedSize"] = type.hasFixedEncodedSize();
    json["hashable"] = type.isHashable();
    json["operations"] = operations(type);
    json["attributes"] = std::move(attributes);
    return json;
}

// --- modules ---

using Module = std::vector<VelType>;  // the module's types, of which there is at least one

std::vector<Module> modulesNamed(std::string_view name) {  // all if the name is empty
    std::vector<Module> modules;
    for (VelType const& type : Vel::Registry::types()) {
        if (!name.empty() && type.moduleName() != name) continue;
        if (modules.empty() || &modules.back()[0].module() != &type.module()) modules.emplace_back();
        modules.back().push_back(type);
    }
    return modules;
}

std::string modulesText(std::vector<Module> const& modules) {
    Table table;
    for (Module const& module : modules) {
        table.add({bold(cleaned(module[0].moduleName())), fingerprintText(module[0].moduleFingerprint())});
        for (VelType const& type : module)
            table.add({"  " + nameOf(type), kindText(type), type.isEntity() ? "" : sizeText(type)});
    }
    return table.text();
}

Json modulesJson(std::vector<Module> const& modules) {
    Json list = Json::array();
    for (Module const& module : modules) {
        Json types = Json::array();
        for (VelType const& type : module) types.push_back(typeJson(type));
        list.push_back({{"name", module[0].moduleName()},
            {"fingerprint", fingerprintText(module[0].moduleFingerprint())}, {"types", std::move(types)}});
    }
    Json refused = Json::array();
    for (auto const& refusal : Vel::Registry::refusals())
        refused.push_back({{"module", refusal.module.stdString()}, {"reason", refusal.reason.stdString()}});
    return {{"modules", std::move(list)}, {"refused", std::move(refused)}};
}

[[noreturn]] void failUnknown(std::string const& name) {
    std::vector<std::string> known = typeNames();
    for (std::string const& module : moduleNames()) known.push_back(module);
    throw Failure(badUsage, "there is no type or module " + shortened(shown(name), 80) +
                                orNearest(name, known, "; \"mox types\" lists all"));
}

// Returns the exit code, and warns if modules were refused. The registry has already reported each of them on standard
// error.
int codeForRefusals() {
    auto const count = Vel::Registry::refusals().size();
    if (count == 0) return fine;
    complain("warning: " + std::to_string(count) + (count == 1 ? " module is" : " modules are") +
             " refused (see above); the types that only they define are missing here");
    return somethingWrong;
}

class TypesCommand final : public Command {
public:
    explicit TypesCommand(CLI::App& app) : Command(app, "types", "Which types there are, and all about one", help) {
        argument("NAME", name_, "A type or a module; default: all");
        flag("--json", json_, "Answer in JSON");
    }

    int run() override {
        if (VelType const type = name_.empty() ? VelType() : Vel::Registry::type(name_)) {
            print(json_ ? jsonText(typeJson(type)) : typeReport(type));
            return codeForRefusals();
        }
        auto const modules = modulesNamed(name_);
        if (modules.empty()) failUnknown(name_);
        print(json_ ? jsonText(modulesJson(modules)) : modulesText(modules));
        return codeForRefusals();
    }

private:
    std::string name_;  // name of a type or module; empty means all
    bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeTypes(CLI::App& app) { return std::make_unique<TypesCommand>(app); }

}  // namespace Tool
