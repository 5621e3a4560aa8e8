#include "tools/lib/EntityText.h"

#include "tools/lib/HexText.h"
#include "tools/lib/Names.h"
#include "tools/lib/ValueText.h"

#include "Vel/base/Exception.h"
#include "Vel/text/OutSm.h"
#include "Vel/text/PeerText.h"
#include "Vel/text/Strep.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace Tool {

using Vel::AttributeId;
using Vel::Entity;
using Vel::GenericValue;
using Vel::StreamAttribute;
using Vel::StreamKind;
using Vel::StreamTable;
using Vel::U8;
using Vel::VelType;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::Out;

std::span<U8 const> bytesOf(std::string_view text) { return {reinterpret_cast<U8 const*>(text.data()), text.size()}; }

namespace {

std::string_view textOf(std::span<U8 const> bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

}  // namespace

// --- attributes ---

StreamAttribute const* namingCollection(StreamTable const& table) {
    for (StreamKind const kind : {StreamKind::instances, StreamKind::references})
        for (StreamAttribute const& attribute : table.attributes)
            if (attribute.kind == kind && attribute.keyIsName) return &attribute;
    return nullptr;
}

std::string attributeName(VelType type, AttributeId id) {
    auto const attr = type.attributeOfId(id);
    return attr ? attr->name() : std::to_string(id);
}

StreamAttribute const* attributeNamed(VelType type, std::string_view name) {
    auto const attr = type.attribute(name);
    if (!attr || !type.glue().stream) return nullptr;
    return type.glue().stream().find(attr->attributeId());
}

std::vector<std::string> attributeNames(VelType type) {
    std::vector<std::string> names;
    if (type.glue().stream)
        for (StreamAttribute const& attribute : type.glue().stream().attributes)
            names.push_back(attributeName(type, attribute.id));
    return names;
}

std::string noSuchAttribute(VelType type, std::string_view name) {
    return std::string(type.name()) + " has no attribute " + shortened(shown(name), 80) +
           orNearest(name, attributeNames(type));
}

StreamAttribute const& attributeOf(Entity const& entity, std::string const& name) {
    VelType const type = entity.fwkType();
    if (StreamAttribute const* const attribute = attributeNamed(type, name)) return *attribute;
    if (!type.attribute(name)) throw Failure(somethingWrong, "a " + noSuchAttribute(type, name));
    throw Failure(somethingWrong, std::string("a ") + type.name() + " has no attribute " + shortened(shown(name), 80) +
                                      " that it sends, only " + joined(attributeNames(type), ", "));
}

std::string typeName(StreamAttribute const& attribute) {
    VelType const type = attribute.type();
    return type ? type.name() : "?";
}

VelType keyTypeOf(VelType type, StreamAttribute const& collection) {
    auto const attr = type.attributeOfId(collection.id);
    return attr ? attr->keyType() : VelType();
}

// --- values ---

namespace {

// Collects the bytes of a value that would be sent to a reader.
class ValueSink final : public Vel::NboAttrLog::SerializeSink {
public:
    bool doMessageMulticast(AttributeId) override { return false; }
    Vel::NboAttrLog::OutSm* singletonSerializeCheck(
        AttributeId, Vel::NboAttrLog::FlowConnection*, bool, std::size_t size, bool) override {
        out_.begin(Vel::NboAttrLog::MessageKind::value, size);
        return &out_;
    }
    std::span<U8 const> bytes() const { return Vel::NboAttrLog::messageBody(out_.bytes()); }

private:
    Vel::NboAttrLog::BufferSm out_;
};

Json jsonNumber(double value, GenericValue const& whole) {
    return std::isfinite(value) ? Json(value) : Json(whole.strep().view());
}

std::optional<Json> jsonScalar(GenericValue const& value) {
    VelType const type = value.type();
    void const* const data = value.data();
    if (type == Vel::typeOf<Vel::String>()) return Json(static_cast<Vel::String const*>(data)->view());
    if (type == Vel::typeOf<double>()) return jsonNumber(*static_cast<double const*>(data), value);
    if (type == Vel::typeOf<Vel::Seconds>()) return jsonNumber(static_cast<Vel::Seconds const*>(data)->value(), value);
    Vel::U16 const flags = type.record().flags;
    if (!(flags & (Vel::TypeFlag::scalar | Vel::TypeFlag::number))) return std::nullopt;
    Vel::String const text = value.strep();
    if (text.view() == "True" || text.view() == "False") return Json(text.view() == "True");
    Json number = Json::parse(text.stdString(), nullptr, false);
    return number.is_number() ? number : Json(text.view());
}

}  // namespace

GenericValue storedValue(Entity const& entity, StreamAttribute const& attribute) {
    ValueSink sink;
    attribute.serialize(sink, attribute.id, entity, nullptr);
    In in(sink.bytes());
    return GenericValue(attribute.type(), in);
}

void storedValueIs(Entity& entity, StreamAttribute const& attribute, GenericValue const& value) {
    Out out;
    value.type().glue().write(out, value.data());
    In in(out.bytes());
    attribute.apply(entity, in);
}

std::optional<GenericValue> storedItem(Entity const& entity, StreamAttribute const& collection, std::string_view key) {
    std::string const encoding = encodedKey(collection, key);
    In look(bytesOf(encoding));
    if (!collection.holds(entity, look)) return std::nullopt;
    ValueSink sink;
    collection.serializeKey(sink, collection.id, entity, bytesOf(encoding), nullptr);
    In in(sink.bytes().subspan(encoding.size()));
    return GenericValue(collection.type(), in);
}

Json jsonValue(GenericValue const& value) {
    if (auto scalar = jsonScalar(value)) return *std::move(scalar);
    VelType const type = value.type();
    if (type.record().flags & Vel::TypeFlag::ownText) return Json(value.strep().view());
    Json object = Json::object();
    for (Vel::VelAttr const& attr : fieldsOf(type)) {
        auto const part = value.get(attr);
        if (!part) return Json(value.strep().view());
        object[attr.name()] = jsonValue(*part);
    }
    return object;
}

// --- keys ---

std::string keyFromEncoding(StreamAttribute const& collection, std::string_view encoding) {
    return std::string(collection.keyIsName ? encoding.substr(4) : encoding);
}

std::string keyFromEncoding(StreamAttribute const& collection, Out const& encoding) {
    return keyFromEncoding(collection, textOf(encoding.bytes()));
}

std::string keyFromValue(StreamAttribute const& collection, GenericValue const& value) {
    Out out;
    value.type().glue().write(out, value.data());
    return keyFromEncoding(collection, out);
}

void eachKey(
    Entity const& entity, StreamAttribute const& collection, std::function<void(std::string const&)> const& f) {
    std::unique_ptr<Vel::NboAttrLog::Bookmark> const keys(collection.bookmark(entity));
    Out out;
    while (keys->left() != 0) {
        out.clear();
        keys->next(out);
        f(keyFromEncoding(collection, out));
    }
}

std::string encodedKey(StreamAttribute const& collection, std::string_view key) {
    if (!collection.keyIsName) return std::string(key);
    Out out;
    out << Vel::String(key);
    return std::string(textOf(out.bytes()));
}

GenericValue keyValue(VelType type, StreamAttribute const& collection, std::string_view key) {
    std::string const bytes = encodedKey(collection, key);
    In in(bytesOf(bytes));
    return GenericValue(keyTypeOf(type, collection), in);
}

Entity* memberOf(Entity const& entity, StreamAttribute const& collection, std::string_view key) {
    std::string const bytes = encodedKey(collection, key);
    In in(bytesOf(bytes));
    return collection.member(entity, in);
}

// --- paths ---

namespace {

void appendEncoded(std::string& out, char c) {
    out += '%';
    appendHex(out, static_cast<unsigned char>(c));
}

std::string encodedStep(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size();) {
        char const c = text[i];
        std::size_t const size = Vel::shownSize(text.substr(i));
        bool const isPlain = size > 1 || (size == 1 && c != ' ' && c != '/' && c != '%');
        if (isPlain)
            out.append(text, i, size);
        else
            appendEncoded(out, c);
        i += isPlain ? size : 1;
    }
    return out;
}

// Parses a step: "@attribute", "@collection[key]", or else a name.
Step stepOf(std::string_view text) {
    if (!text.starts_with('@')) return {"", decodedStep(text), true, 0};
    std::string const inside = decodedStep(text.substr(1));
    auto const bracket = inside.find('[');
    if (bracket == std::string::npos || !inside.ends_with(']')) return {inside, "", false, 0};
    return {inside.substr(0, bracket), inside.substr(bracket + 1, inside.size() - bracket - 2), true, 0};
}

}  // namespace

std::string decodedStep(std::string_view step) {
    std::string out;
    for (std::size_t i = 0; i < step.size(); ++i) {
        bool const isEncoded =
            step[i] == '%' && i + 2 < step.size() && hexDigitValue(step[i + 1]) >= 0 && hexDigitValue(step[i + 2]) >= 0;
        if (isEncoded) {
            out += static_cast<char>(hexDigitValue(step[i + 1]) * 16 + hexDigitValue(step[i + 2]));
            i += 2;
        } else {
            out += step[i];
        }
    }
    return out;
}

std::string stepText(VelType above, StreamAttribute const& attribute, std::string_view key) {
    StreamAttribute const* const naming = namingCollection(above.glue().stream());
    if (naming == &attribute && !key.empty()) {
        std::string text = encodedStep(key);
        return text.starts_with('@') ? "%40" + text.substr(1) : text;
    }
    std::string const name = "@" + attributeName(above, attribute.id);
    if (!attribute.isCollection()) return name;
    return name + "[" + encodedStep(keyValue(above, attribute, key).strep().view()) + "]";
}

std::vector<Step> stepsOf(std::string_view path) {
    std::vector<Step> steps;
    for (std::size_t at = 0; at < path.size();) {
        std::size_t const end = std::min(path.find('/', at), path.size());
        if (end > at) {
            steps.push_back(stepOf(path.substr(at, end - at)));
            steps.back().end = end;
        }
        at = end + 1;
    }
    return steps;
}

StepPlace placeOf(Entity const& entity, Step const& step) {
    StreamTable const* const table = streamTableOf(entity);
    if (!table) return {};
    if (step.attribute.empty()) {
        StreamAttribute const* const naming = namingCollection(*table);
        return naming ? StepPlace{naming, step.key} : StepPlace{};
    }
    VelType const type = entity.fwkType();
    StreamAttribute const* const attribute = attributeNamed(type, step.attribute);
    bool const leadsOn = attribute && (attribute->kind == StreamKind::pointer || attribute->holdsEntities());
    if (!leadsOn || attribute->isCollection() != step.hasKey) return {};
    if (!step.hasKey) return {attribute, ""};
    try {
        return {attribute, keyFromValue(*attribute, GenericValue(keyTypeOf(type, *attribute), Vel::String(step.key)))};
    } catch (Vel::RangeException const&) {
        return {};
    }
}

Entity* entityAt(Entity const& entity, StepPlace const& place) {
    if (!place.attribute) return nullptr;
    if (!place.attribute->isCollection()) return place.attribute->target(entity);
    return memberOf(entity, *place.attribute, place.key);
}

}  // namespace Tool
