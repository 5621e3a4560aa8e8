#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"
#include "Vel/entity/ForeignEntity.h"
#include "Vel/stream/internal/ReplicaSize.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

// A module that a peer describes, up to the first NUL, and behind it bytes for values of its types. A description is
// refused, or makes types whose values have one text and one encoding.

namespace {

using Vel::GenericValue;
using Vel::VelType;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::Out;

std::string_view viewOf(Out const& out) { return {reinterpret_cast<char const*>(out.data()), out.size()}; }

// The text and the bytes give each other.
void checkValue(GenericValue const& value) {
    Out first, second;
    value.type().glue().write(first, value.data());
    Vel::String const text = value.strep();
    GenericValue const again(value.type(), text);
    again.type().glue().write(second, again.data());
    if (viewOf(first) != viewOf(second) || !(again.strep() == text)) std::abort();
    if (value.test(Vel::AttributeOp::equal, &again) != true) std::abort();
    if (value.attrLogSize() != first.size()) std::abort();
    for (Vel::U32 i = 0; i < value.type().attributeCount(); ++i) (void)value.get(value.type().attribute(i));
}

void tryValue(VelType type, std::span<Vel::U8 const> bytes) {
    checkValue(GenericValue(type));
    In in(bytes);
    try {
        checkValue(GenericValue(type, in));
    } catch (Vel::StreamException const&) {}
}

void tryEntity(VelType type, std::span<Vel::U8 const> bytes) {
    Vel::StreamTable const& table = type.glue().stream();
    if (Vel::ReplicaSize::ofNew(type, 1) > 1u << 20) return;
    auto const entity = Vel::ForeignEntity::newEntity(type, "e");
    auto const observer = Vel::notifieeOf(*entity, [&](Vel::AttributeId id, Vel::NotifieeKey const* key) {
        if (!type.attributeOfId(id)) std::abort();
        if (key) key->type().glue().genericIfStrRep(key->data(), key->type());
    });
    for (Vel::StreamAttribute const& row : table.attributes) {
        try {
            In in(bytes);
            if (row.kind == Vel::StreamKind::value) row.apply(*entity, in);
            if (row.kind == Vel::StreamKind::pointer) row.targetIs(*entity, entity.get());
            if (!row.isCollection()) continue;
            row.skipKey(in);
            In key(bytes.first(bytes.size() - in.left()));
            if (row.kind == Vel::StreamKind::values)
                row.applyKey(*entity, key, in);
            else if (!row.skips)
                row.memberIs(*entity, key, *Vel::Dir::newEntity("m"));
        } catch (Vel::StreamException const&) {}
    }
    Vel::ReplicaSize::ofAll(*entity);
    for (Vel::StreamAttribute const& row : table.attributes)
        if (row.kind == Vel::StreamKind::pointer) row.targetIs(*entity, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const all(reinterpret_cast<char const*>(data), size);
    std::string_view const text = all.substr(0, all.find('\0'));
    auto const bytes = std::span(data, size).subspan(text.size() == size ? size : text.size() + 1);
    auto const types = std::make_shared<Vel::ForeignTypes>(Vel::ForeignEntity::functions());
    std::vector<Vel::TypeDescription> told;
    try {
        Vel::ModuleDescription module = Vel::ModuleDescription::parsed(text);
        told = module.types;
        types->add(std::move(module));
    } catch (Vel::RangeException const&) {
        return 0;
    }
    for (Vel::TypeDescription const& description : told) {
        (void)types->find(description.name.view());
        VelType type;
        try {
            type = description.isEntity() ? types->entityType(description.name.view())
                                          : types->valueType(description.name.view());
        } catch (Vel::RangeException const&) {
            continue;
        }
        if (!type.glue().foreign) continue;  // this process has it as well
        for (Vel::U32 i = 0; i < type.attributeCount(); ++i) (void)type.attribute(i).valueType();
        if (!Vel::isSameType(type, type)) std::abort();
        if (description.isEntity())
            tryEntity(type, bytes);
        else
            tryValue(type, bytes);
    }
    return 0;
}
