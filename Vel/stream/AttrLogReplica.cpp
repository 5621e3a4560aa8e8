#include "Vel/stream/AttrLogReplica.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/ForeignTypes.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/AttrLogReplicaImpl.h"
#include "Vel/stream/internal/RemoteCall.h"
#include "Vel/stream/internal/StreamProtocol.h"

namespace Vel {

using NboAttrLog::Compact;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::Out;

AttrLogReplica::AttrLogReplica(Ptr<Entity> root, Options options)
    : StreamPeer(options.limits),
      path_(std::move(options.path)),
      wantsToWrite_(options.wantsToWrite),
      policy_(options.policy),
      impl_(std::make_unique<Impl>(std::move(root), nullptr, String(), policy_, limits())) {}
AttrLogReplica::AttrLogReplica(Ptr<Dir> parent, String name, Options options)
    : StreamPeer(options.limits),
      path_(std::move(options.path)),
      wantsToWrite_(options.wantsToWrite),
      policy_(options.policy),
      impl_(std::make_unique<Impl>(nullptr, std::move(parent), std::move(name), policy_, limits())) {}
AttrLogReplica::~AttrLogReplica() = default;

AttrLogReplica::State AttrLogReplica::state() const { return impl_->state(); }
void AttrLogReplica::onStateIs(std::function<void(State)> told) { impl_->onStateIs(std::move(told)); }
Ptr<Entity> AttrLogReplica::root() const { return impl_->root(); }
bool AttrLogReplica::mayWrite() const { return impl_->mayWrite(); }
std::size_t AttrLogReplica::entities() const { return impl_->entities().count(); }
std::size_t AttrLogReplica::copySize() const { return impl_->entities().size(); }
std::vector<String> const& AttrLogReplica::differences() const { return impl_->types().differences(); }
std::size_t AttrLogReplica::unansweredWrites() const { return impl_->writes().size(); }

void AttrLogReplica::connected() {
    reset();
    Out& out = controlOut().begin(MessageKind::hello, 0);
    auto const modules = Registry::modules();
    auto const flags =
        static_cast<U8>((wantsToWrite_ ? HelloFlag::writes : 0) | (policy_.isExact() ? 0 : HelloFlag::descriptions));
    out << streamMagic << streamVersion << flags << path_ << static_cast<U32>(modules.size());
    for (ModuleHeader const* const module : modules) {
        VelType const any(module, 0);
        out << String(any.moduleName()) << any.moduleFingerprint();
    }
    controlOut().commit();
    impl_->connected();
}

void AttrLogReplica::closed(String const& reason) {
    StreamPeer::closed(reason);
    impl_->disconnected();
}

void AttrLogReplica::handleMessage(MessageKind kind, In& body) { impl_->handleMessage(kind, body); }

// --- changes that are asked for ---

struct AttrLogReplica::Request {
    Entity const& entity;
    AttributeId attribute;
    ValueRef const* key = nullptr;    // of a collection
    ValueRef const* value = nullptr;  // null: the key is to go
    bool isConditional = false;
    ValueRef const* expected = nullptr;  // if it is conditional; null: the key must not be there
};

void AttrLogReplica::write(Entity const& entity, AttributeId attribute, ValueRef value, WriteTold told) {
    send({entity, attribute, nullptr, &value}, std::move(told));
}

void AttrLogReplica::writeIf(
    Entity const& entity, AttributeId attribute, ValueRef expected, ValueRef value, WriteTold told) {
    send({entity, attribute, nullptr, &value, true, &expected}, std::move(told));
}

void AttrLogReplica::writeKey(
    Entity const& entity, AttributeId attribute, ValueRef key, ValueRef value, WriteTold told) {
    send({entity, attribute, &key, &value}, std::move(told));
}

void AttrLogReplica::writeKeyIf(Entity const& entity, AttributeId attribute, ValueRef key, ValueRef const* expected,
    ValueRef value, WriteTold told) {
    send({entity, attribute, &key, &value, true, expected}, std::move(told));
}

void AttrLogReplica::deleteKey(Entity const& entity, AttributeId attribute, ValueRef key, WriteTold told) {
    send({entity, attribute, &key}, std::move(told));
}

EntityId AttrLogReplica::targetOf(Entity const& entity) const {
    if (!mayWrite()) throw ReadOnlyException(entity.path() + " is mounted read-only and takes no changes");
    return impl_->entities().idOf(&entity);
}

void AttrLogReplica::needRoomForAnswer() const {
    if (impl_->writes().size() >= ReplicaWrites::most)
        throwRangeException(format("%zu changes wait for their answers already", ReplicaWrites::most));
}

namespace {

// Returns null if the source sends no attribute of this kind.
StreamAttribute const* attributeOf(ReplicaEntities const& entities, EntityId target, AttributeId id, StreamKind kind) {
    StreamAttribute const* const found = target == 0 ? nullptr : entities.known(target).table->findLocal(id);
    return found && found->kind == kind ? found : nullptr;
}

void needType(ValueRef const& value, VelType type) {
    if (!isSameType(value.type(), type)) GenericIfImpl::throwTypeException(value.type());
}

void write(Out& out, ValueRef const& value) { value.type().glue().write(out, value.data()); }

}  // namespace

void AttrLogReplica::send(Request const& request, WriteTold told) {
    Entity const& entity = request.entity;
    AttributeId const id = request.attribute;
    EntityId const target = targetOf(entity);
    StreamAttribute const* const attribute =
        attributeOf(impl_->entities(), target, id, request.key ? StreamKind::values : StreamKind::value);
    if (!attribute)
        throwRangeException(format("%s has no %s %u that its source sends", entity.path().charPtr(),
            request.key ? "collection of values" : "value", id));
    for (ValueRef const* const value : {request.value, request.expected})
        if (value) needType(*value, attribute->type());
    if (request.key) needType(*request.key, entity.fwkType().attributeOfId(id)->keyType());
    needRoomForAnswer();

    U32 const number = impl_->writes().add(ReplicaWrites::Asked::value, attribute->type(), std::move(told));
    sendControl(MessageKind::write, 0, [&](Out& out) {
        auto const ops = static_cast<U8>((request.value ? 0 : static_cast<unsigned>(WriteOp::del)) |
                                         (request.isConditional ? static_cast<unsigned>(WriteOp::expected) : 0));
        out << Compact{number} << ops << Compact{target} << Compact{attribute->id};
        if (request.key) attribute->writeKey(out, request.key->data());
        if (request.isConditional) out << (request.expected != nullptr);
        for (ValueRef const* const value : {request.expected, request.value})
            if (value) Vel::write(out, *value);
    });
}

void AttrLogReplica::writeTogether(Entity const& entity, std::span<ValueWrite const> values, WriteTold told) {
    EntityId const target = targetOf(entity);
    if (values.empty()) throwRangeException("no value is to be written");
    for (std::size_t i = 0; i < values.size(); ++i) {
        AttributeId const id = values[i].attribute;
        StreamAttribute const* const attribute = attributeOf(impl_->entities(), target, id, StreamKind::value);
        if (!attribute)
            throwRangeException(format("%s has no value %u that its source sends", entity.path().charPtr(), id));
        needType(values[i].value, attribute->type());
        if (values[i].expected) needType(*values[i].expected, attribute->type());
        for (ValueWrite const& before : values.first(i))
            if (before.attribute == id) throwRangeException(format("attribute %u is to be written twice", id));
    }
    needRoomForAnswer();

    StreamTable const& table = *impl_->entities().known(target).table;
    U32 const number = impl_->writes().add(table, std::move(told));
    sendControl(MessageKind::writeValues, 0, [&](Out& out) {
        out << Compact{number} << Compact{target};
        for (ValueWrite const& one : values) {
            out << static_cast<U8>(one.expected ? WriteOp::expected : WriteOp::set)
                << Compact{table.findLocal(one.attribute)->id};
            if (one.expected) Vel::write(out, *one.expected);
            Vel::write(out, one.value);
        }
    });
}

void AttrLogReplica::call(
    Entity const& entity, AttributeId method, std::span<ValueRef const> arguments, WriteTold told) {
    EntityId const target = targetOf(entity);
    std::optional<VelAttr> const found = RemoteCall::methodOf(entity.fwkType(), method);
    if (target == 0 || !found)
        throwRangeException(
            format("%s has no method %u that can be called at its source", entity.path().charPtr(), method));
    if (impl_->entities().known(target).table != &entity.fwkType().glue().stream())
        throwRangeException(
            format("the source has another version of %s, whose methods may differ", entity.fwkType().name()));
    if (arguments.size() != found->parameterCount())
        throw TypeException(
            format("%s takes %u arguments, and not %zu", found->name(), found->parameterCount(), arguments.size()));
    for (U32 i = 0; i < found->parameterCount(); ++i) needType(arguments[i], found->parameterType(i));
    for (VelType const type : RemoteCall::typesOf(*found))
        if (!impl_->types().isAsHere(type))
            throwRangeException(format("the source has another version of %s", type.name()));
    needRoomForAnswer();

    U32 const number = impl_->writes().add(ReplicaWrites::Asked::call, found->resultType(), std::move(told));
    sendControl(MessageKind::call, 0, [&](Out& out) {
        out << Compact{number} << Compact{target} << Compact{method};
        for (ValueRef const& argument : arguments) Vel::write(out, argument);
    });
}

}  // namespace Vel
