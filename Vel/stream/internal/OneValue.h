#pragma once

#include "Vel/describe/StreamTable.h"

#include <span>

namespace Vel {

// Takes the encoding of one value, of an attribute or of a key.
class OneValue final : public NboAttrLog::SerializeSink, public NboAttrLog::OutSm {
public:
    std::span<U8 const> bytes() const { return NboAttrLog::messageBody(out_.bytes()); }
    void clear() { out_.clear(); }  // for another value

private:
    bool doMessageMulticast(AttributeId) override { return false; }
    OutSm* singletonSerializeCheck(AttributeId, NboAttrLog::FlowConnection*, bool, std::size_t size, bool) override {
        begin(NboAttrLog::MessageKind::value, size);
        return this;
    }
    NboAttrLog::Out& room(std::size_t) override { return out_; }

    NboAttrLog::Out out_;
};

// Appends the encoding of the value that the entity has stored for an attribute. REQUIRES: it is a value attribute
inline void writeStored(NboAttrLog::Out& out, StreamAttribute const& attribute, Entity const& entity) {
    OneValue value;
    attribute.serialize(value, attribute.id, entity, nullptr);
    auto const bytes = value.bytes();
    if (!bytes.empty()) std::memcpy(out.append(bytes.size()), bytes.data(), bytes.size());
}

// Reads a value of the type, and returns its bytes. Throws StreamException.
inline std::span<U8 const> nextValueOf(VelType type, NboAttrLog::In& in) {
    U8 const* const begin = in.data();
    GenericValue const read(type, in);
    return {begin, in.data()};
}

}  // namespace Vel
