#include "Vel/stream/internal/KeptChange.h"

#include "Vel/base/Exception.h"
#include "Vel/base/System.h"
#include "Vel/base/TableHash.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/OneValue.h"
#include "Vel/text/PeerText.h"

#include <algorithm>
#include <string>

namespace Vel {

using NboAttrLog::In;

// --- noting ---

void KeptChange::Value::set(std::span<U8 const> from) {
    isThere = true;
    size = from.size();
    if (size <= WriteHistory::longestValue)
        bytes.assign(from.begin(), from.end());
    else
        bytes.clear();
}

void KeptChange::begin(U64 of, Entity const& entity, AttributeId changed, String const& by) {
    number = of;
    time = System::calls().currentTime();
    author = by;
    pathIs(entity);
    type = entity.fwkType();
    attribute = changed;
    key.isThere = before.isThere = wanted.isThere = isAnswered = isOwn = false;
    cause = target = String();
    place.reset();
}

// Takes the names, which are shared, and makes no text of them. An entity that is deeper than most gets a text.
void KeptChange::pathIs(Entity const& entity) {
    depth = 0;
    Entity const* at = &entity;
    for (; at->parent() && depth < names.size(); at = at->parent()) names[depth++] = at->name();
    if (at->parent()) depth = 0;
    path = depth == 0 ? entity.path() : String();
}

void KeptChange::store(Value& to, StreamAttribute const& attribute, Entity const& entity, OneValue& buffer) {
    buffer.clear();
    attribute.serialize(buffer, attribute.id, entity, nullptr);
    to.set(buffer.bytes());
}

void KeptChange::store(
    Value& to, StreamAttribute const& attribute, Entity const& entity, std::span<U8 const> key, OneValue& buffer) {
    if (In in(key); !attribute.holds(entity, in)) return;
    buffer.clear();
    attribute.serializeKey(buffer, attribute.id, entity, key, nullptr);
    to.set(buffer.bytes().subspan(key.size()));
}

void KeptChange::targetIs(Entity const* entity) {
    if (entity) target = entity->path();
}

// --- which attribute ---

bool KeptChange::isOfSameAttribute(KeptChange const& other) const {
    return attribute == other.attribute && type == other.type && depth == other.depth && path == other.path &&
           std::equal(names.begin(), names.begin() + depth, other.names.begin());
}

U64 KeptChange::attributeHash() const {
    TableHasher const hash;
    U64 sum = hash(path.view()) + attribute;
    for (std::size_t i = 0; i < depth; ++i) sum = sum * 31 + hash(names[i].view());
    return sum;
}

// --- reading ---

namespace {

bool isLoaded(VelType type) {
    auto const modules = Registry::modules();
    return std::find(modules.begin(), modules.end(), &type.module()) != modules.end();
}

bool refersToEntities(VelAttr attribute) {
    VelType const type = attribute.kind() == AttributeKind::method ? VelType() : attribute.valueType();
    return type && type.isEntity();
}

}  // namespace

String KeptChange::pathText() const {
    if (depth == 0) return peerText(path.view(), WriteHistory::longestText);
    std::string text;
    for (std::size_t i = depth; i-- > 0;) text.append("/").append(names[i].view());
    return peerText(text, WriteHistory::longestText);
}

// The texts of values of these types, one behind the other.
String KeptChange::textOf(Value const& value, std::span<VelType const> types) {
    if (!value.isThere) return {};
    if (value.size != value.bytes.size()) return format("(%zu bytes)", value.size);
    std::string text;
    try {
        In in(value.bytes);
        for (VelType const type : types)
            text.append(text.empty() ? "" : ", ").append(GenericValue(type, in).strep().view());
    } catch (Exception const&) {
        return "(not readable)";
    }
    return peerText(text, WriteHistory::longestText);
}

void KeptChange::addValues(WriteHistory::Change& to, VelAttr of) const {
    VelType const keyType = of.keyType();
    to.key = textOf(key, std::span(&keyType, 1));
    if (refersToEntities(of)) {
        to.wanted = peerText(target.view(), WriteHistory::longestText);
        return;
    }
    std::vector<VelType> values{of.valueType()};
    if (of.kind() == AttributeKind::method) {
        values.clear();
        for (U32 i = 0; i < of.parameterCount(); ++i) values.push_back(of.parameterType(i));
    }
    to.before = textOf(before, values);
    to.wanted = textOf(wanted, values);
}

WriteHistory::Change KeptChange::change() const {
    WriteHistory::Change change{time, author, pathText()};
    change.result = result;
    change.text = cause.empty() ? text : "while it handled what " + cause + " has asked for";
    if (!isLoaded(type)) return change;  // its library is gone, and the names of its attributes with it
    std::optional<VelAttr> const of = type.attributeOfId(attribute);
    if (!of) return change;
    change.attribute = of->name();
    addValues(change, *of);
    return change;
}

}  // namespace Vel
