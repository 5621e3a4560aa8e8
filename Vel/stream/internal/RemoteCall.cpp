#include "Vel/stream/internal/RemoteCall.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/StreamProtocol.h"

namespace Vel {

using NboAttrLog::In;

namespace {

bool isValue(VelType type) { return type && !type.isEntity(); }

VelAttr nextMethod(VelType type, In& body) {
    AttributeId const id = NboAttrLog::nextCompact(body);
    if (auto const method = RemoteCall::methodOf(type, id)) return *method;
    throw StreamException(format("%s has no method %u that readers can call", type.name(), id), body.offset());
}

}  // namespace

std::optional<VelAttr> RemoteCall::methodOf(VelType type, AttributeId id) {
    auto const method = type.attributeOfId(id);
    if (!method || method->kind() != AttributeKind::method || !method->answers(AttributeOp::call)) return std::nullopt;
    for (U32 i = 0; i < method->parameterCount(); ++i)
        if (!isValue(method->parameterType(i))) return std::nullopt;
    VelType const result = method->resultType();
    if (result && result.isEntity()) return std::nullopt;
    return method;
}

std::vector<VelType> RemoteCall::typesOf(VelAttr method) {
    std::vector<VelType> types;
    for (U32 i = 0; i < method.parameterCount(); ++i) types.push_back(method.parameterType(i));
    if (VelType const result = method.resultType()) types.push_back(result);
    return types;
}

RemoteCall::RemoteCall(StreamAdapter& adapter, In& body)
    : entity_(adapter.entity()), held_(entity_), method_(nextMethod(entity_.fwkType(), body)) {
    U8 const* const begin = body.data();
    for (U32 i = 0; i < method_.parameterCount(); ++i) arguments_.emplace_back(method_.parameterType(i), body);
    argumentBytes_ = {begin, body.data()};
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
}

std::size_t RemoteCall::note(WriteHistory& history, String const& author) const {
    history.wantedIs(history.asked(entity_, method_.attributeId(), author), argumentBytes_);
    return 1;
}

WriteAnswer RemoteCall::apply() {
    WriteAnswer answer = call();
    try {
        held_.tell();
    } catch (...) {
        isUntold_ = true;
        if (answer.result == WriteResult::done) {
            answer.result = WriteResult::observerFailed;
            answer.text = wordsOfHandled();
        }
    }
    return answer;
}

WriteAnswer RemoteCall::call() {
    std::vector<void const*> pointers;
    for (GenericValue const& argument : arguments_) pointers.push_back(argument.data());
    WriteAnswer answer{WriteResult::done};
    VelType const type = method_.resultType();
    if (type) answer.value.emplace(type);
    try {
        entity_.attributeOp(
            answer.value ? answer.value->data() : nullptr, method_, AttributeOp::call, nullptr, pointers.data());
        return answer;
    } catch (...) {
        return {WriteResult::rejected, wordsOfHandled()};
    }
}

}  // namespace Vel
